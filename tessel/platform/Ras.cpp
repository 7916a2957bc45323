// The remote access service over pppd: peer files as phone book entries, modems as devices,
// one pppd per dial and its daemon per link.
//
// A dial waits for its pppd with waitpid(WNOHANG) between short polls of pppd's output pipe,
// so that neither a pppd that hangs nor a daemon that keeps the pipe open can hold it past the
// time-out; the pipe is never read to its end. The daemon is not our child (pppd forks it and
// ends), so the handle table keeps only its pid, checked against the pid file and against the
// daemon's command line, which holds the link name, before it is signalled or believed alive:
// a pid that was handed to another process after the daemon ended is never signalled.
#include "tessel/platform/Ras.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tessel/platform/ErrorText.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/Modems.h"
#include "tessel/platform/detail/Spawn.h"

extern char** environ;

namespace Tessel::Platform {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

const char* const kDefaultPeersFolder = "/etc/ppp/peers";
const char* const kDefaultRunDir = "/run";
const char* const kLinkPrefix = "tessel-";
// The most of pppd's output that a dial keeps, its last bytes.
const std::size_t kOutputKept = 16384;
// How long an ended pppd may take to go after SIGTERM before it is killed.
const milliseconds kTermGrace(2000);
// The pause between two looks at a pppd that is dialling.
const int kPollMs = 50;
// REN_AllUsers: the peer files serve every user.
const DWORD kAllUsers = 1;

std::mutex g_configLock;
std::optional<std::string> g_peersFolder;  // guarded by g_configLock
std::atomic<DWORD> g_dialTimeoutMs{180000};

// One link: the entry it was dialled for and its daemon, once known.
struct Link {
    std::string entry;
    pid_t daemon = 0;
    bool hungUp = false;
};

std::mutex g_linkLock;
std::map<std::uintptr_t, Link> g_links;  // guarded by g_linkLock
std::uintptr_t g_lastHandle = 0;         // guarded by g_linkLock

std::string PeersFolder() {
    {
        std::lock_guard<std::mutex> guard(g_configLock);
        if (g_peersFolder) {
            return *g_peersFolder;
        }
    }
    const char* folder = std::getenv("TESSEL_PPP_PEERS");
    return folder != nullptr && *folder != '\0' ? std::string(folder) : kDefaultPeersFolder;
}

std::string RunDir() {
    const char* dir = std::getenv("TESSEL_PPP_RUN_DIR");
    return dir != nullptr && *dir != '\0' ? std::string(dir) : kDefaultRunDir;
}

std::string PppdProgram() {
    const char* program = std::getenv("TESSEL_PPPD");
    return program != nullptr && *program != '\0' ? std::string(program) : "pppd";
}

std::string LinkName(const std::string& entry) {
    return kLinkPrefix + entry;
}

std::string PidFile(const std::string& entry) {
    return RunDir() + "/ppp-" + LinkName(entry) + ".pid";
}

bool EndsWith(const std::string& text, const char* end) {
    const std::size_t length = std::strlen(end);
    return text.size() >= length && text.compare(text.size() - length, length, end) == 0;
}

// Whether name is listed as an entry: no hidden file, backup or over-long name.
bool ListableName(const std::string& name) {
    return !name.empty() && name[0] != '.' && name.size() <= RAS_MaxEntryName &&
           !EndsWith(name, "~") && !EndsWith(name, ".bak") &&
           name.find(".dpkg-") == std::string::npos;
}

// The entries of folder, sorted byte-wise; none when it cannot be read.
std::vector<std::string> ListEntries(const std::string& folder) {
    std::vector<std::string> names;
    DIR* dir = ::opendir(folder.c_str());
    if (dir == nullptr) {
        return names;
    }
    while (const dirent* item = ::readdir(dir)) {
        const std::string name = item->d_name;
        struct stat info;
        if (ListableName(name) && ::stat((folder + "/" + name).c_str(), &info) == 0 &&
            S_ISREG(info.st_mode)) {
            names.push_back(name);
        }
    }
    ::closedir(dir);
    std::sort(names.begin(), names.end());
    return names;
}

bool IsEntry(const std::string& folder, const std::string& name) {
    const std::vector<std::string> names = ListEntries(folder);
    return std::binary_search(names.begin(), names.end(), name);
}

// The words of a pppd options file: blanks separate them, '#' at the start of a word comments
// out the rest of its line, quotes (single or double) group and are removed, a backslash takes
// the next character as it is.
std::vector<std::string> OptionWords(const std::string& text) {
    std::vector<std::string> words;
    std::size_t i = 0;
    while (i < text.size()) {
        while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) {
            ++i;
        }
        if (i == text.size()) {
            break;
        }
        if (text[i] == '#') {
            i = text.find('\n', i);
            i = i == std::string::npos ? text.size() : i;
            continue;
        }
        std::string word;
        char quote = 0;
        for (; i < text.size(); ++i) {
            const char c = text[i];
            if (quote == 0 && std::isspace(static_cast<unsigned char>(c))) {
                break;
            }
            if (c == '\\' && i + 1 < text.size()) {
                word += text[++i];
            } else if (quote == 0 && (c == '"' || c == '\'')) {
                quote = c;
            } else if (c == quote) {
                quote = 0;
            } else {
                word += c;
            }
        }
        words.push_back(std::move(word));
    }
    return words;
}

// The value of the last "user" option of the peer file, "" without one.
std::string PeerUser(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    const std::vector<std::string> words = OptionWords(text.str());
    std::string user;
    for (std::size_t i = 0; i + 1 < words.size(); ++i) {
        if (words[i] == "user") {
            user = words[i + 1];
        }
    }
    return user;
}

// Copies text into a field of size bytes, cut to size - 1 bytes and NUL-terminated.
void CopyField(char* field, std::size_t size, const std::string& text) {
    const std::size_t length = std::min(text.size(), size - 1);
    std::memcpy(field, text.data(), length);
    field[length] = '\0';
}

// The text up to the NUL of a field of size bytes.
std::string FieldText(const char* field, std::size_t size) {
    return std::string(field, strnlen(field, size));
}

// The pid of the first line of the pid file of entry, 0 when there is none.
pid_t ReadPidFile(const std::string& entry) {
    std::ifstream file(PidFile(entry));
    long pid = 0;
    return file >> pid && pid > 0 ? static_cast<pid_t>(pid) : 0;
}

// Whether pid is a living process (not a zombie) whose command line holds the link name of
// entry as a word, as pppd and its daemon do.
bool DaemonLives(pid_t pid, const std::string& entry) {
    if (pid <= 0) {
        return false;
    }
    const std::string proc = "/proc/" + std::to_string(pid);
    std::ifstream statFile(proc + "/stat");
    std::string stat;
    std::getline(statFile, stat);
    const std::size_t close = stat.rfind(')');
    if (close == std::string::npos || close + 2 >= stat.size() || stat[close + 2] == 'Z' ||
        stat[close + 2] == 'X') {
        return false;
    }
    std::ifstream cmdline(proc + "/cmdline", std::ios::binary);
    std::ostringstream words;
    words << cmdline.rdbuf();
    const std::string wanted = LinkName(entry);
    const std::string all = words.str();
    for (std::size_t start = 0; start < all.size();) {
        std::size_t end = all.find('\0', start);
        end = end == std::string::npos ? all.size() : end;
        if (all.compare(start, end - start, wanted) == 0) {
            return true;
        }
        start = end + 1;
    }
    return false;
}

// The daemon of link while it is up: its pid file stands and names a living daemon. Also
// takes that pid as the link's daemon.
bool LinkUp(Link& link) {
    const pid_t pid = ReadPidFile(link.entry);
    if (pid == 0 || !DaemonLives(pid, link.entry)) {
        return false;
    }
    link.daemon = pid;
    return true;
}

// The error of a failed connect script, by the modem's words in pppd's output.
DWORD ConnectScriptError(const std::string& output) {
    if (output.find("NO DIALTONE") != std::string::npos ||
        output.find("NO DIAL TONE") != std::string::npos) {
        return ERROR_NO_DIALTONE;
    }
    if (output.find("BUSY") != std::string::npos) {
        return ERROR_LINE_BUSY;
    }
    if (output.find("NO ANSWER") != std::string::npos) {
        return ERROR_NO_ANSWER;
    }
    if (output.find("NO CARRIER") != std::string::npos) {
        return ERROR_NO_CARRIER;
    }
    return ERROR_FROM_DEVICE;
}

// The error of pppd's exit status code (pppd(8), EXIT STATUS).
DWORD ExitError(int code, const std::string& output) {
    switch (code) {
        case 0:
            return 0;
        case 2:
            return ERROR_CORRUPT_PHONEBOOK;
        case 3:
            return ERROR_ACCESS_DENIED;
        case 4:
            return ERROR_RASMAN_CANNOT_INITIALIZE;
        case 5:
            return ERROR_USER_DISCONNECTION;
        case 6:
        case 7:
            return ERROR_PORT_NOT_AVAILABLE;
        case 8:
            return ConnectScriptError(output);
        case 9:
        case 18:
            return ERROR_FROM_DEVICE;
        case 10:
            return ERROR_PPP_NO_PROTOCOLS_CONFIGURED;
        case 11:
        case 19:
            return ERROR_AUTHENTICATION_FAILURE;
        case 12:
        case 13:
        case 14:
            return ERROR_DISCONNECTION;
        case 15:
            return ERROR_PPP_NO_RESPONSE;
        case 16:
            return ERROR_PORT_DISCONNECTED;
        case 17:
            return ERROR_PPP_LOOPBACK_DETECTED;
        default:
            return ERROR_UNKNOWN;
    }
}

// Starts program with arguments in a process group of its own, standard input on /dev/null
// and standard output and error on output. 0 or an errno value.
int SpawnPppd(pid_t& pid, std::vector<std::string>& arguments, int output) {
    std::vector<char*> pointers;
    for (std::string& argument : arguments) {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    SpawnOptions options;
    options.newGroup = true;
    options.output = output;
    return Spawn(pid, pointers.data(), environ, options);
}

// Appends what can be read from fd now to output, keeping its last kOutputKept bytes. false
// once the pipe has ended (or failed).
bool ReadOutput(int fd, std::string& output) {
    char buffer[4096];
    for (;;) {
        const ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got > 0) {
            output.append(buffer, static_cast<std::size_t>(got));
            if (output.size() > kOutputKept) {
                output.erase(0, output.size() - kOutputKept);
            }
            continue;
        }
        if (got < 0 && errno == EINTR) {
            continue;
        }
        return got < 0 && errno == EAGAIN;
    }
}

// waitpid without blocking: true once pid has ended, with its status.
bool Reaped(pid_t pid, int& status) {
    pid_t result;
    do {
        result = ::waitpid(pid, &status, WNOHANG);
    } while (result < 0 && errno == EINTR);
    if (result < 0) {
        status = -1;  // no longer ours to wait for: its status is lost
        return true;
    }
    return result == pid;
}

// Ends pppd, which has taken too long, and its process group, and reaps it.
void EndPppd(pid_t pid) {
    ::kill(-pid, SIGTERM);
    const Clock::time_point limit = Clock::now() + kTermGrace;
    int status = 0;
    while (!Reaped(pid, status)) {
        if (Clock::now() >= limit) {
            ::kill(-pid, SIGKILL);
            while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
            }
            return;
        }
        std::this_thread::sleep_for(milliseconds(kPollMs / 5));
    }
}

// Runs pppd for entry until it ends or the dial time-out passes. started tells whether it
// ran. The error number of the outcome.
DWORD RunPppd(const std::string& entry, bool& started) {
    started = false;
    std::vector<std::string> arguments = {PppdProgram(), "call",     entry,
                                          "updetach",    "linkname", LinkName(entry)};
    int pipeFds[2];
    // Only the reading end does not block: pppd writes as it would to any pipe.
    if (::pipe2(pipeFds, O_CLOEXEC) < 0) {
        return ERROR_UNKNOWN;
    }
    ::fcntl(pipeFds[0], F_SETFL, O_NONBLOCK);
    pid_t pid = 0;
    const int spawnError = SpawnPppd(pid, arguments, pipeFds[1]);
    ::close(pipeFds[1]);
    if (spawnError != 0) {
        ::close(pipeFds[0]);
        return ERROR_RASMAN_CANNOT_INITIALIZE;
    }
    started = true;

    const Clock::time_point limit =
        Clock::now() + milliseconds(std::max<DWORD>(g_dialTimeoutMs.load(), 1));
    std::string output;
    int outputFd = pipeFds[0];
    int status = 0;
    while (!Reaped(pid, status)) {
        const Clock::time_point now = Clock::now();
        if (now >= limit) {
            EndPppd(pid);
            if (outputFd >= 0) {
                ::close(outputFd);
            }
            return ERROR_REQUEST_TIMEOUT;
        }
        const auto left = std::chrono::duration_cast<milliseconds>(limit - now).count();
        pollfd entryFd{outputFd, POLLIN, 0};
        ::poll(&entryFd, outputFd >= 0 ? 1 : 0,
               static_cast<int>(std::min<long long>(left + 1, kPollMs)));
        if (outputFd >= 0 && entryFd.revents != 0 && !ReadOutput(outputFd, output)) {
            ::close(outputFd);
            outputFd = -1;
        }
    }
    // What pppd wrote before it ended; a daemon that still holds the pipe is not waited for.
    if (outputFd >= 0) {
        ReadOutput(outputFd, output);
        ::close(outputFd);
    }
    if (status == -1 || !WIFEXITED(status)) {
        return ERROR_UNKNOWN;
    }
    return ExitError(WEXITSTATUS(status), output);
}

HRASCONN HandleOf(std::uintptr_t number) {
    return reinterpret_cast<HRASCONN>(number);
}

std::uintptr_t NumberOf(HRASCONN connection) {
    return reinterpret_cast<std::uintptr_t>(connection);
}

struct ErrorText {
    DWORD error;
    const char* text;
};

const ErrorText kErrorTexts[] = {
    {ERROR_INVALID_PORT_HANDLE, "The port handle is not valid."},
    {ERROR_PORT_ALREADY_OPEN, "The port is already open."},
    {ERROR_BUFFER_TOO_SMALL, "The buffer is too small for the data."},
    {ERROR_WRONG_INFO_SPECIFIED, "The information given is not valid."},
    {ERROR_PORT_NOT_CONNECTED, "The port is not connected."},
    {ERROR_DEVICE_DOES_NOT_EXIST, "The device does not exist."},
    {ERROR_DEVICETYPE_DOES_NOT_EXIST, "The device type does not exist."},
    {ERROR_BUFFER_INVALID, "The buffer is not valid."},
    {ERROR_PORT_NOT_FOUND, "The port was not found."},
    {ERROR_ASYNC_REQUEST_PENDING, "A request is still being carried out."},
    {ERROR_ALREADY_DISCONNECTING, "The connection is already being ended."},
    {ERROR_PORT_NOT_OPEN, "The port is not open."},
    {ERROR_PORT_DISCONNECTED,
     "The line was dropped: the modem hung up before the connection was made."},
    {ERROR_CANNOT_OPEN_PHONEBOOK, "The folder of the dial-up entries cannot be opened."},
    {ERROR_CANNOT_LOAD_PHONEBOOK, "The dial-up entries cannot be read."},
    {ERROR_CANNOT_FIND_PHONEBOOK_ENTRY, "There is no dial-up entry of that name."},
    {ERROR_CANNOT_WRITE_PHONEBOOK, "The dial-up entries cannot be written."},
    {ERROR_CORRUPT_PHONEBOOK, "The dial-up entry holds options that the PPP daemon refuses."},
    {ERROR_DISCONNECTION, "The connection was ended."},
    {ERROR_REMOTE_DISCONNECTION, "The remote computer ended the connection."},
    {ERROR_HARDWARE_FAILURE, "The modem failed."},
    {ERROR_USER_DISCONNECTION, "The connection was ended on this computer."},
    {ERROR_INVALID_SIZE, "The size given in a record is not valid."},
    {ERROR_PORT_NOT_AVAILABLE,
     "The port is not available: another program holds it, or it cannot be opened."},
    {ERROR_UNKNOWN, "The dial-up connection failed for a reason that is not known."},
    {ERROR_WRONG_DEVICE_ATTACHED, "The device attached to the port is not the one expected."},
    {ERROR_REQUEST_TIMEOUT, "The connection was not made in time."},
    {ERROR_SERVER_NOT_RESPONDING, "The remote access server does not answer."},
    {ERROR_FROM_DEVICE, "The modem or the connect script reported an error."},
    {ERROR_UNRECOGNIZED_RESPONSE, "The modem gave an answer that is not understood."},
    {ERROR_DEVICE_NOT_READY, "The modem is not ready."},
    {ERROR_NO_CONNECTION, "The connection was lost."},
    {ERROR_LINE_BUSY, "The line is busy."},
    {ERROR_VOICE_ANSWER, "A person answered instead of a modem."},
    {ERROR_NO_ANSWER, "The remote end does not answer."},
    {ERROR_NO_CARRIER, "No carrier: the remote modem was not heard."},
    {ERROR_NO_DIALTONE, "There is no dial tone."},
    {ERROR_AUTHENTICATION_FAILURE,
     "The authentication failed: the user name or password was refused, or the remote end "
     "could not prove who it is."},
    {ERROR_PORT_OR_DEVICE, "The port or the modem failed."},
    {ERROR_RASMAN_CANNOT_INITIALIZE,
     "The dial-up service cannot start: PPP is not available on this machine (the PPP daemon "
     "is missing or cannot be run, or the kernel has no PPP support)."},
    {ERROR_PPP_TIMEOUT, "The PPP negotiation took too long."},
    {ERROR_PPP_REMOTE_TERMINATED, "The remote end ended the PPP connection."},
    {ERROR_PPP_NO_PROTOCOLS_CONFIGURED,
     "The PPP negotiation failed: the two ends agreed on no network protocol."},
    {ERROR_PPP_NO_RESPONSE, "The remote PPP end does not answer."},
    {ERROR_PPP_INVALID_PACKET, "The remote PPP end sent a packet that is not valid."},
    {ERROR_PPP_LCP_TERMINATED, "The PPP link control protocol ended the link."},
    {ERROR_PPP_LOOPBACK_DETECTED, "The line loops back to this computer."},
    {ERROR_PPP_NO_ADDRESS_ASSIGNED, "The remote end assigned no network address."},
    {ERROR_HANGUP_FAILED, "The connection cannot be ended."},
    {ERROR_DIAL_ALREADY_IN_PROGRESS, "This entry is being dialled already."},
};

}  // namespace

void SetPppPeersFolder(const char* folder) {
    std::lock_guard<std::mutex> guard(g_configLock);
    if (folder == nullptr) {
        g_peersFolder.reset();
    } else {
        g_peersFolder = folder;
    }
}

void SetRasDialTimeout(DWORD milliseconds) {
    g_dialTimeoutMs = milliseconds;
}

DWORD RasEnumDevicesA(RASDEVINFOA* devices, DWORD* bytes, DWORD* count) {
    if (bytes == nullptr || count == nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    if (devices != nullptr && devices->dwSize != sizeof(RASDEVINFOA)) {
        return ERROR_INVALID_SIZE;
    }
    const std::vector<ModemDevice> modems = ListModemDevices();
    const DWORD needed = static_cast<DWORD>(modems.size() * sizeof(RASDEVINFOA));
    if (needed > *bytes) {
        *bytes = needed;
        *count = static_cast<DWORD>(modems.size());
        return ERROR_BUFFER_TOO_SMALL;
    }
    if (devices == nullptr && !modems.empty()) {
        return ERROR_INVALID_PARAMETER;
    }
    for (std::size_t i = 0; i < modems.size(); ++i) {
        RASDEVINFOA& device = devices[i];
        std::memset(&device, 0, sizeof device);
        device.dwSize = sizeof(RASDEVINFOA);
        CopyField(device.szDeviceType, sizeof device.szDeviceType,
                  modems[i].isdn ? RASDT_Isdn : RASDT_Modem);
        CopyField(device.szDeviceName, sizeof device.szDeviceName, modems[i].name);
    }
    *bytes = needed;
    *count = static_cast<DWORD>(modems.size());
    return 0;
}

DWORD RasEnumEntriesA(const char* reserved, const char* /*phonebook*/, RASENTRYNAMEA* entries,
                      DWORD* bytes, DWORD* count) {
    if (reserved != nullptr || bytes == nullptr || count == nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    if (entries != nullptr && entries->dwSize != sizeof(RASENTRYNAMEA)) {
        return ERROR_INVALID_SIZE;
    }
    const std::string folder = PeersFolder();
    const std::vector<std::string> names = ListEntries(folder);
    const DWORD needed = static_cast<DWORD>(names.size() * sizeof(RASENTRYNAMEA));
    if (needed > *bytes) {
        *bytes = needed;
        *count = static_cast<DWORD>(names.size());
        return ERROR_BUFFER_TOO_SMALL;
    }
    if (entries == nullptr && !names.empty()) {
        return ERROR_INVALID_PARAMETER;
    }
    for (std::size_t i = 0; i < names.size(); ++i) {
        RASENTRYNAMEA& entry = entries[i];
        std::memset(&entry, 0, sizeof entry);
        entry.dwSize = sizeof(RASENTRYNAMEA);
        entry.dwFlags = kAllUsers;
        CopyField(entry.szEntryName, sizeof entry.szEntryName, names[i]);
        CopyField(entry.szPhonebookPath, sizeof entry.szPhonebookPath, folder);
    }
    *bytes = needed;
    *count = static_cast<DWORD>(names.size());
    return 0;
}

DWORD RasGetEntryDialParamsA(const char* /*phonebook*/, RASDIALPARAMSA* params, BOOL* hasPassword) {
    if (params == nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    if (params->dwSize != sizeof(RASDIALPARAMSA)) {
        return ERROR_INVALID_SIZE;
    }
    const std::string folder = PeersFolder();
    const std::string entry = FieldText(params->szEntryName, sizeof params->szEntryName);
    if (!IsEntry(folder, entry)) {
        return ERROR_CANNOT_FIND_PHONEBOOK_ENTRY;
    }
    std::memset(params->szPhoneNumber, 0, sizeof params->szPhoneNumber);
    std::memset(params->szCallbackNumber, 0, sizeof params->szCallbackNumber);
    std::memset(params->szPassword, 0, sizeof params->szPassword);
    std::memset(params->szDomain, 0, sizeof params->szDomain);
    CopyField(params->szUserName, sizeof params->szUserName, PeerUser(folder + "/" + entry));
    if (hasPassword != nullptr) {
        *hasPassword = FALSE;
    }
    return 0;
}

DWORD RasDialA(RASDIALEXTENSIONS* /*extensions*/, const char* /*phonebook*/, RASDIALPARAMSA* params,
               DWORD /*notifierType*/, void* notifier, HRASCONN* connection) {
    if (params == nullptr || connection == nullptr || notifier != nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    *connection = nullptr;
    if (params->dwSize != sizeof(RASDIALPARAMSA)) {
        return ERROR_INVALID_SIZE;
    }
    const std::string entry = FieldText(params->szEntryName, sizeof params->szEntryName);
    if (!IsEntry(PeersFolder(), entry)) {
        return ERROR_CANNOT_FIND_PHONEBOOK_ENTRY;
    }
    bool started = false;
    const DWORD error = RunPppd(entry, started);
    if (!started) {
        return error;
    }
    Link link;
    link.entry = entry;
    if (error == 0) {
        LinkUp(link);
    }
    std::lock_guard<std::mutex> guard(g_linkLock);
    const std::uintptr_t number = ++g_lastHandle;
    g_links.emplace(number, std::move(link));
    *connection = HandleOf(number);
    return error;
}

DWORD RasHangUpA(HRASCONN connection) {
    std::lock_guard<std::mutex> guard(g_linkLock);
    const auto found = g_links.find(NumberOf(connection));
    if (found == g_links.end()) {
        return ERROR_INVALID_HANDLE;
    }
    Link& link = found->second;
    // The pid file names the daemon while it stands; after it has gone the pid known from the
    // dial is tried, still checked against the daemon's command line.
    if (!LinkUp(link) && !DaemonLives(link.daemon, link.entry)) {
        g_links.erase(found);
        return 0;
    }
    if (::kill(link.daemon, SIGTERM) < 0 && errno != ESRCH) {
        return ERROR_HANGUP_FAILED;
    }
    link.hungUp = true;
    return 0;
}

DWORD RasGetConnectStatusA(HRASCONN connection, RASCONNSTATUSA* status) {
    if (status == nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    if (status->dwSize != sizeof(RASCONNSTATUSA)) {
        return ERROR_INVALID_SIZE;
    }
    std::lock_guard<std::mutex> guard(g_linkLock);
    const auto found = g_links.find(NumberOf(connection));
    if (found == g_links.end()) {
        return ERROR_INVALID_HANDLE;
    }
    if (!LinkUp(found->second)) {
        g_links.erase(found);
        return ERROR_INVALID_HANDLE;
    }
    std::memset(status, 0, sizeof *status);
    status->dwSize = sizeof(RASCONNSTATUSA);
    status->rasconnstate = found->second.hungUp ? RASCS_Disconnected : RASCS_Connected;
    return 0;
}

DWORD RasGetErrorStringA(UINT error, char* text, DWORD size) {
    if (text == nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    std::string message;
    for (const ErrorText& known : kErrorTexts) {
        if (known.error == error) {
            message = known.text;
        }
    }
    if (message.empty()) {
        char system[512];
        // The lookup of a number without a text sets the last error, which is not ours to
        // change.
        const DWORD lastError = GetLastError();
        const DWORD length =
            FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                           error, 0, system, sizeof system, nullptr);
        SetLastError(lastError);
        if (length == 0) {
            return ERROR_INVALID_PARAMETER;
        }
        message = system;
        while (!message.empty() && (message.back() == '\n' || message.back() == '\r')) {
            message.pop_back();
        }
    }
    if (message.size() + 1 > size) {
        if (size > 0) {
            text[0] = '\0';
        }
        return ERROR_INSUFFICIENT_BUFFER;
    }
    std::memcpy(text, message.c_str(), message.size() + 1);
    return 0;
}

}  // namespace Tessel::Platform
