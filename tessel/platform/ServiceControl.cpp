#include "tessel/platform/ServiceControl.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tessel/platform/LastError.h"

namespace Tessel::Platform {

struct ServiceHandleObject {
    static constexpr std::uint32_t kLiveTag = 0x53436D48u;  // "SCmH"

    std::uint32_t tag = kLiveTag;
    bool manager = false;
    DWORD access = 0;
    sd_bus* bus = nullptr;  // one reference
    std::string name;       // service handles: the service name, its unit and object path
    std::string unit;
    std::string path;
};

struct ServiceLockObject {
    int fd = -1;
};

namespace {

constexpr const char* kDestination = "org.freedesktop.systemd1";
constexpr const char* kManagerPath = "/org/freedesktop/systemd1";
constexpr const char* kManagerInterface = "org.freedesktop.systemd1.Manager";
constexpr const char* kUnitInterface = "org.freedesktop.systemd1.Unit";
constexpr const char* kServiceInterface = "org.freedesktop.systemd1.Service";
constexpr const char* kServiceSuffix = ".service";

// A D-Bus error that frees itself.
struct BusError {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    BusError() = default;
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;
    ~BusError() { sd_bus_error_free(&error); }
    sd_bus_error* operator&() { return &error; }
};

// A reply message that frees itself.
struct Reply {
    sd_bus_message* message = nullptr;
    Reply() = default;
    Reply(const Reply&) = delete;
    Reply& operator=(const Reply&) = delete;
    ~Reply() { sd_bus_message_unref(message); }
};

struct NamedError {
    const char* name;
    DWORD error;
};

constexpr NamedError kBusErrors[] = {
    {"org.freedesktop.systemd1.NoSuchUnit", ERROR_SERVICE_DOES_NOT_EXIST},
    {"org.freedesktop.systemd1.UnitMasked", ERROR_SERVICE_DISABLED},
    {"org.freedesktop.systemd1.OnlyByDependency", ERROR_SERVICE_DISABLED},
    {"org.freedesktop.DBus.Error.AccessDenied", ERROR_ACCESS_DENIED},
    {"org.freedesktop.DBus.Error.InteractiveAuthorizationRequired", ERROR_ACCESS_DENIED},
    {"org.freedesktop.systemd1.LoadFailed", ERROR_FILE_NOT_FOUND},
    {"org.freedesktop.systemd1.TransactionOrderIsCyclic", ERROR_CIRCULAR_DEPENDENCY},
    {"org.freedesktop.DBus.Error.ServiceUnknown", ERROR_DATABASE_DOES_NOT_EXIST},
    {"org.freedesktop.DBus.Error.NameHasNoOwner", ERROR_DATABASE_DOES_NOT_EXIST},
    {"org.freedesktop.DBus.Error.NoServer", ERROR_DATABASE_DOES_NOT_EXIST},
    {"org.freedesktop.DBus.Error.Disconnected", ERROR_DATABASE_DOES_NOT_EXIST},
    {"org.freedesktop.DBus.Error.NoReply", ERROR_SERVICE_REQUEST_TIMEOUT},
    {"org.freedesktop.DBus.Error.Timeout", ERROR_SERVICE_REQUEST_TIMEOUT},
    {"org.freedesktop.DBus.Error.InvalidArgs", ERROR_INVALID_PARAMETER},
};

// The error number of a failed bus call: its D-Bus error by name, else the errno r (negative,
// as sd-bus returns it) or the errno that sd-bus derives from the error.
DWORD ErrorOfCall(const sd_bus_error* error, int r) {
    if (error != nullptr && error->name != nullptr) {
        for (const NamedError& known : kBusErrors) {
            if (std::strcmp(error->name, known.name) == 0) {
                return known.error;
            }
        }
        const int e = sd_bus_error_get_errno(error);
        if (e > 0) {
            return ErrnoToError(e);
        }
    }
    switch (-r) {
        case ENOENT:
        case ECONNREFUSED:
        case ENOTCONN:
        case ECONNRESET:
        case ESHUTDOWN:
            return ERROR_DATABASE_DOES_NOT_EXIST;
        case ETIMEDOUT:
            return ERROR_SERVICE_REQUEST_TIMEOUT;
        default:
            return ErrnoToError(-r);
    }
}

BOOL Fail(DWORD error) {
    SetLastError(error);
    return FALSE;
}

bool IsLive(SC_HANDLE handle) {
    return handle != nullptr && handle->tag == ServiceHandleObject::kLiveTag;
}

// The open handle of the kind asked for (a manager's, or a service's) with the access right
// needed, or null with the last error set.
ServiceHandleObject* HandleOf(SC_HANDLE handle, bool manager, DWORD needed) {
    if (!IsLive(handle) || handle->manager != manager) {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    if ((handle->access & needed) != needed) {
        SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    return handle;
}

ServiceHandleObject* ServiceOf(SC_HANDLE handle, DWORD needed) {
    return HandleOf(handle, false, needed);
}

ServiceHandleObject* ManagerOf(SC_HANDLE handle, DWORD needed) {
    return HandleOf(handle, true, needed);
}

std::string UnitOf(const std::string& name) {
    const std::size_t suffix = std::strlen(kServiceSuffix);
    if (name.size() > suffix && name.compare(name.size() - suffix, suffix, kServiceSuffix) == 0) {
        return name;
    }
    return name + kServiceSuffix;
}

// A dependency's unit: names with a unit type's suffix stay as they are.
std::string DependencyUnitOf(const std::string& name) {
    static const char* const kSuffixes[] = {".service", ".socket",    ".target", ".mount",
                                            ".device",  ".automount", ".swap",   ".path",
                                            ".timer",   ".slice",     ".scope"};
    for (const char* suffix : kSuffixes) {
        const std::size_t length = std::strlen(suffix);
        if (name.size() > length && name.compare(name.size() - length, length, suffix) == 0) {
            return name;
        }
    }
    return name + kServiceSuffix;
}

// Calls a method of the manager with a reply that is not read. FALSE with the last error set.
template <class... Args>
BOOL CallManager(sd_bus* bus, const char* method, const char* types, Args... args) {
    BusError error;
    Reply reply;
    const int r = sd_bus_call_method(bus, kDestination, kManagerPath, kManagerInterface, method,
                                     &error, &reply.message, types, args...);
    return r < 0 ? Fail(ErrorOfCall(&error.error, r)) : TRUE;
}

// Calls a manager method that returns an object path.
BOOL CallForPath(sd_bus* bus, const char* method, const std::string& unit, std::string& path) {
    BusError error;
    Reply reply;
    int r = sd_bus_call_method(bus, kDestination, kManagerPath, kManagerInterface, method, &error,
                               &reply.message, "s", unit.c_str());
    const char* text = nullptr;
    if (r >= 0) {
        r = sd_bus_message_read(reply.message, "o", &text);
    }
    if (r < 0) {
        return Fail(ErrorOfCall(&error.error, r));
    }
    path = text;
    return TRUE;
}

BOOL GetStringProperty(sd_bus* bus, const std::string& path, const char* interface,
                       const char* property, std::string& value) {
    BusError error;
    char* text = nullptr;
    const int r = sd_bus_get_property_string(bus, kDestination, path.c_str(), interface, property,
                                             &error, &text);
    if (r < 0) {
        return Fail(ErrorOfCall(&error.error, r));
    }
    value = text;
    std::free(text);
    return TRUE;
}

// A uint64 property; false where it cannot be read (a unit without it).
bool GetUint64Property(sd_bus* bus, const std::string& path, const char* interface,
                       const char* property, std::uint64_t& value) {
    BusError error;
    return sd_bus_get_property_trivial(bus, kDestination, path.c_str(), interface, property, &error,
                                       't', &value) >= 0;
}

DWORD StateOfActiveState(const std::string& active) {
    if (active == "active" || active == "reloading") {
        return SERVICE_RUNNING;
    }
    if (active == "activating") {
        return SERVICE_START_PENDING;
    }
    if (active == "deactivating") {
        return SERVICE_STOP_PENDING;
    }
    return SERVICE_STOPPED;
}

// Microseconds of a time-out as a wait hint in milliseconds; infinity gives 0.
DWORD HintOfTimeout(std::uint64_t usec) {
    if (usec == UINT64_MAX) {
        return 0;
    }
    const std::uint64_t ms = usec / 1000;
    return ms >= 0xFFFFFFFFu ? 0xFFFFFFFEu : static_cast<DWORD>(ms);
}

BOOL ReadStatus(ServiceHandleObject* service, SERVICE_STATUS* status) {
    std::string active;
    if (!GetStringProperty(service->bus, service->path, kUnitInterface, "ActiveState", active)) {
        return FALSE;
    }
    SERVICE_STATUS result{};
    result.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    result.dwCurrentState = StateOfActiveState(active);
    if (active == "failed") {
        result.dwWin32ExitCode = ERROR_PROCESS_ABORTED;
    }
    if (result.dwCurrentState == SERVICE_RUNNING) {
        result.dwControlsAccepted = SERVICE_ACCEPT_STOP;
        std::string freezer;
        BusError ignored;
        char* text = nullptr;
        // Older managers and stand-ins have no freezer: the unit then counts as running.
        if (sd_bus_get_property_string(service->bus, kDestination, service->path.c_str(),
                                       kUnitInterface, "FreezerState", &ignored, &text) >= 0) {
            freezer = text;
            std::free(text);
        }
        if (freezer == "frozen") {
            result.dwCurrentState = SERVICE_PAUSED;
        } else if (freezer == "freezing") {
            result.dwCurrentState = SERVICE_PAUSE_PENDING;
        } else if (freezer == "thawing") {
            result.dwCurrentState = SERVICE_CONTINUE_PENDING;
        }
    } else if (result.dwCurrentState == SERVICE_START_PENDING ||
               result.dwCurrentState == SERVICE_STOP_PENDING) {
        std::uint64_t usec = 0;
        if (GetUint64Property(service->bus, service->path, kServiceInterface,
                              result.dwCurrentState == SERVICE_START_PENDING ? "TimeoutStartUSec"
                                                                             : "TimeoutStopUSec",
                              usec)) {
            result.dwWaitHint = HintOfTimeout(usec);
        }
    }
    *status = result;
    return TRUE;
}

// --- Unit files ---

std::string UnitFilePath(const std::string& unit) {
    return ServiceUnitFolder() + "/" + unit;
}

std::string DropInFolder(const std::string& unit) {
    return UnitFilePath(unit) + ".d";
}

bool ReadFile(const std::string& path, std::string& text) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return false;
    }
    std::ostringstream content;
    content << in.rdbuf();
    text = content.str();
    return true;
}

// Writes text to path through a temporary file and a rename. FALSE with the last error set.
BOOL WriteFile(const std::string& path, const std::string& text) {
    const std::string temporary = path + ".tmp";
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return Fail(ErrnoToError(errno));
    }
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            const int e = errno;
            ::close(fd);
            ::unlink(temporary.c_str());
            return Fail(ErrnoToError(e));
        }
        done += static_cast<std::size_t>(n);
    }
    if (::close(fd) != 0 || ::rename(temporary.c_str(), path.c_str()) != 0) {
        const int e = errno;
        ::unlink(temporary.c_str());
        return Fail(ErrnoToError(e));
    }
    return TRUE;
}

BOOL WriteDropIn(const std::string& unit, const char* file, const std::string& text) {
    const std::string folder = DropInFolder(unit);
    if (::mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST) {
        return Fail(ErrnoToError(errno));
    }
    return WriteFile(folder + "/" + file, text);
}

// Removes a drop-in; true if it was there.
bool RemoveDropIn(const std::string& unit, const char* file) {
    const std::string folder = DropInFolder(unit);
    const bool removed = ::unlink((folder + "/" + file).c_str()) == 0;
    ::rmdir(folder.c_str());  // only when empty
    return removed;
}

// Text for a value of a unit file: specifiers escaped, one line.
std::string UnitValue(const std::string& text) {
    std::string value;
    for (char c : text) {
        if (c == '%') {
            value += "%%";
        } else if (c == '\n' || c == '\r') {
            value += ' ';
        } else {
            value += c;
        }
    }
    return value;
}

// The words of a command line by the platform's rules: blanks separate words outside double
// quotes; 2n backslashes before a quote give n and the quote toggles, 2n+1 give n and a quote;
// other backslashes are themselves.
std::vector<std::string> SplitCommandLine(const std::string& line) {
    std::vector<std::string> words;
    std::string word;
    bool inWord = false;
    bool quoted = false;
    for (std::size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (c == '\\') {
            std::size_t count = 0;
            while (i < line.size() && line[i] == '\\') {
                ++count;
                ++i;
            }
            if (i < line.size() && line[i] == '"') {
                word.append(count / 2, '\\');
                if (count % 2 == 1) {
                    word += '"';
                } else {
                    quoted = !quoted;
                }
            } else {
                word.append(count, '\\');
                --i;
            }
            inWord = true;
        } else if (c == '"') {
            quoted = !quoted;
            inWord = true;
        } else if ((c == ' ' || c == '\t') && !quoted) {
            if (inWord) {
                words.push_back(word);
                word.clear();
                inWord = false;
            }
        } else {
            word += c;
            inWord = true;
        }
    }
    if (inWord) {
        words.push_back(word);
    }
    return words;
}

std::string ExecStartOf(const std::string& binaryPath) {
    std::string line;
    for (const std::string& word : SplitCommandLine(binaryPath)) {
        if (!line.empty()) {
            line += ' ';
        }
        line += '"';
        for (char c : word) {
            switch (c) {
                case '\\':
                    line += "\\\\";
                    break;
                case '"':
                    line += "\\\"";
                    break;
                case '%':
                    line += "%%";
                    break;
                case '$':
                    line += "$$";
                    break;
                default:
                    line += c;
            }
        }
        line += '"';
    }
    return line;
}

// The User= of an account; "" for the local system account.
std::string UserOf(const char* account) {
    if (account == nullptr) {
        return {};
    }
    std::string user(account);
    const std::size_t slash = user.rfind('\\');
    if (slash != std::string::npos) {
        user.erase(0, slash + 1);
    }
    return user == "LocalSystem" ? std::string() : user;
}

// The units of a double-NUL-terminated dependency list, separated by blanks.
std::string DependencyUnits(const char* dependencies) {
    std::string units;
    for (const char* name = dependencies; name != nullptr && *name != '\0';
         name += std::strlen(name) + 1) {
        if (*name == '+') {
            continue;
        }
        if (!units.empty()) {
            units += ' ';
        }
        units += DependencyUnitOf(name);
    }
    return units;
}

// Sets key in [section] of a unit file's text to values, one line each (none removes it). The
// first line of the key keeps its place; a missing section is added at the end.
std::string SetKey(const std::string& text, const std::string& section, const std::string& key,
                   const std::vector<std::string>& values) {
    std::istringstream in(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    std::vector<std::string> replacement;
    for (const std::string& value : values) {
        replacement.push_back(key + "=" + value);
    }
    const std::string header = "[" + section + "]";
    std::vector<std::string> out;
    bool inSection = false;
    bool seenSection = false;
    bool placed = false;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const std::string& line = lines[i];
        if (!line.empty() && line[0] == '[') {
            if (inSection && !placed) {
                // The key was missing: it goes behind the section's last non-blank line.
                std::size_t at = out.size();
                while (at > 0 && out[at - 1].empty()) {
                    --at;
                }
                out.insert(out.begin() + static_cast<std::ptrdiff_t>(at), replacement.begin(),
                           replacement.end());
                placed = true;
            }
            inSection = line == header;
            seenSection = seenSection || inSection;
        } else if (inSection && line.compare(0, key.size() + 1, key + "=") == 0) {
            if (!placed) {
                out.insert(out.end(), replacement.begin(), replacement.end());
                placed = true;
            }
            continue;
        }
        out.push_back(line);
    }
    if (inSection && !placed) {
        out.insert(out.end(), replacement.begin(), replacement.end());
        placed = true;
    }
    if (!seenSection && !replacement.empty()) {
        if (!out.empty()) {
            out.emplace_back();
        }
        out.push_back(header);
        out.insert(out.end(), replacement.begin(), replacement.end());
    }
    std::string result;
    for (const std::string& line : out) {
        result += line + "\n";
    }
    return result;
}

BOOL EnableUnit(sd_bus* bus, const std::string& unit) {
    return CallManager(bus, "EnableUnitFiles", "asbb", 1, unit.c_str(), 0, 0);
}

BOOL DisableUnit(sd_bus* bus, const std::string& unit) {
    return CallManager(bus, "DisableUnitFiles", "asb", 1, unit.c_str(), 0);
}

BOOL Reload(sd_bus* bus) {
    return CallManager(bus, "Reload", "");
}

constexpr const char* kDisabledDropIn = "disabled.conf";
constexpr const char* kRecoveryDropIn = "recovery.conf";
constexpr const char* kDelayedDropIn = "delayed.conf";

// Applies a start type to the unit's enablement and drop-ins, without a reload.
BOOL ApplyStartType(sd_bus* bus, const std::string& unit, DWORD startType) {
    switch (startType) {
        case SERVICE_AUTO_START:
            RemoveDropIn(unit, kDisabledDropIn);
            return EnableUnit(bus, unit);
        case SERVICE_DEMAND_START:
            RemoveDropIn(unit, kDisabledDropIn);
            return DisableUnit(bus, unit);
        case SERVICE_DISABLED:
            if (!DisableUnit(bus, unit)) {
                return FALSE;
            }
            return WriteDropIn(unit, kDisabledDropIn, "[Unit]\nRefuseManualStart=yes\n");
        default:
            return Fail(ERROR_INVALID_PARAMETER);
    }
}

SC_HANDLE NewServiceHandle(ServiceHandleObject* manager, const std::string& name,
                           const std::string& unit, const std::string& path, DWORD access) {
    auto* service = new ServiceHandleObject;
    service->access = access;
    service->bus = sd_bus_ref(manager->bus);
    service->name = name;
    service->unit = unit;
    service->path = path;
    return service;
}

bool ValidName(const char* name) {
    return name != nullptr && *name != '\0' && std::strchr(name, '/') == nullptr;
}

}  // namespace

std::string ServiceUnitFolder() {
    const char* folder = std::getenv("TESSEL_SYSTEMD_UNIT_DIR");
    return folder != nullptr && *folder != '\0' ? std::string(folder) : "/etc/systemd/system";
}

SC_HANDLE OpenSCManagerA(const char* machineName, const char* databaseName, DWORD access) {
    if (machineName != nullptr && *machineName != '\0') {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    if (databaseName != nullptr && std::strcmp(databaseName, "ServicesActive") != 0) {
        SetLastError(ERROR_DATABASE_DOES_NOT_EXIST);
        return nullptr;
    }
    sd_bus* bus = nullptr;
    const int r = sd_bus_open_system(&bus);
    if (r < 0) {
        SetLastError(ErrorOfCall(nullptr, r));
        return nullptr;
    }
    // The manager's version tells that systemd answers on this bus.
    std::string version;
    if (!GetStringProperty(bus, kManagerPath, kManagerInterface, "Version", version)) {
        sd_bus_unref(bus);
        return nullptr;
    }
    auto* manager = new ServiceHandleObject;
    manager->manager = true;
    manager->access = access;
    manager->bus = bus;
    return manager;
}

SC_HANDLE OpenServiceA(SC_HANDLE managerHandle, const char* serviceName, DWORD access) {
    ServiceHandleObject* manager = ManagerOf(managerHandle, 0);
    if (manager == nullptr) {
        return nullptr;
    }
    if (!ValidName(serviceName)) {
        SetLastError(ERROR_INVALID_NAME);
        return nullptr;
    }
    const std::string unit = UnitOf(serviceName);
    std::string path;
    std::string load;
    if (!CallForPath(manager->bus, "LoadUnit", unit, path) ||
        !GetStringProperty(manager->bus, path, kUnitInterface, "LoadState", load)) {
        return nullptr;
    }
    if (load == "not-found") {
        SetLastError(ERROR_SERVICE_DOES_NOT_EXIST);
        return nullptr;
    }
    return NewServiceHandle(manager, serviceName, unit, path, access);
}

SC_HANDLE CreateServiceA(SC_HANDLE managerHandle, const char* serviceName, const char* displayName,
                         DWORD desiredAccess, DWORD /*serviceType*/, DWORD startType,
                         DWORD /*errorControl*/, const char* binaryPath,
                         const char* /*loadOrderGroup*/, DWORD* tagId, const char* dependencies,
                         const char* serviceStartName, const char* /*password*/) {
    ServiceHandleObject* manager = ManagerOf(managerHandle, SC_MANAGER_CREATE_SERVICE);
    if (manager == nullptr) {
        return nullptr;
    }
    if (serviceName == nullptr || binaryPath == nullptr || *binaryPath == '\0') {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    if (!ValidName(serviceName)) {
        SetLastError(ERROR_INVALID_NAME);
        return nullptr;
    }
    if (startType < SERVICE_AUTO_START || startType > SERVICE_DISABLED) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    const std::string unit = UnitOf(serviceName);
    const std::string file = UnitFilePath(unit);
    struct stat info {};
    std::string path;
    std::string load;
    if (::stat(file.c_str(), &info) == 0 ||
        (CallForPath(manager->bus, "LoadUnit", unit, path) &&
         GetStringProperty(manager->bus, path, kUnitInterface, "LoadState", load) &&
         load != "not-found")) {
        SetLastError(ERROR_SERVICE_EXISTS);
        return nullptr;
    }
    std::string text =
        "[Unit]\nDescription=" + UnitValue(displayName != nullptr ? displayName : serviceName) +
        "\n";
    const std::string units = DependencyUnits(dependencies);
    if (!units.empty()) {
        text += "Requires=" + units + "\nAfter=" + units + "\n";
    }
    text += "\n[Service]\nExecStart=" + ExecStartOf(binaryPath) + "\n";
    const std::string user = UserOf(serviceStartName);
    if (!user.empty()) {
        text += "User=" + UnitValue(user) + "\n";
    }
    text += "\n[Install]\nWantedBy=multi-user.target\n";
    if (!WriteFile(file, text)) {
        return nullptr;
    }
    if (!Reload(manager->bus) ||
        (startType != SERVICE_DEMAND_START && !ApplyStartType(manager->bus, unit, startType)) ||
        (startType == SERVICE_DISABLED && !Reload(manager->bus)) ||
        !CallForPath(manager->bus, "LoadUnit", unit, path)) {
        return nullptr;
    }
    if (tagId != nullptr) {
        *tagId = 0;
    }
    return NewServiceHandle(manager, serviceName, unit, path, desiredAccess);
}

BOOL StartServiceA(SC_HANDLE handle, DWORD argc, const char** /*argv*/) {
    ServiceHandleObject* service = ServiceOf(handle, SERVICE_START);
    if (service == nullptr) {
        return FALSE;
    }
    if (argc != 0) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    std::string active;
    if (!GetStringProperty(service->bus, service->path, kUnitInterface, "ActiveState", active)) {
        return FALSE;
    }
    if (active == "active" || active == "reloading" || active == "activating") {
        return Fail(ERROR_SERVICE_ALREADY_RUNNING);
    }
    return CallManager(service->bus, "StartUnit", "ss", service->unit.c_str(), "replace");
}

BOOL ControlService(SC_HANDLE handle, DWORD control, SERVICE_STATUS* status) {
    if (control != SERVICE_CONTROL_STOP && control != SERVICE_CONTROL_INTERROGATE) {
        return IsLive(handle) ? Fail(ERROR_INVALID_SERVICE_CONTROL) : Fail(ERROR_INVALID_HANDLE);
    }
    ServiceHandleObject* service =
        ServiceOf(handle, control == SERVICE_CONTROL_STOP ? SERVICE_STOP : SERVICE_INTERROGATE);
    if (service == nullptr) {
        return FALSE;
    }
    if (status == nullptr) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    if (!ReadStatus(service, status)) {
        return FALSE;
    }
    if (control == SERVICE_CONTROL_INTERROGATE) {
        return TRUE;
    }
    if (status->dwCurrentState == SERVICE_STOPPED) {
        return Fail(ERROR_SERVICE_NOT_ACTIVE);
    }
    if (!CallManager(service->bus, "StopUnit", "ss", service->unit.c_str(), "replace")) {
        return FALSE;
    }
    return ReadStatus(service, status);
}

BOOL QueryServiceStatus(SC_HANDLE handle, SERVICE_STATUS* status) {
    ServiceHandleObject* service = ServiceOf(handle, SERVICE_QUERY_STATUS);
    if (service == nullptr) {
        return FALSE;
    }
    if (status == nullptr) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    return ReadStatus(service, status);
}

BOOL DeleteService(SC_HANDLE handle) {
    ServiceHandleObject* service = ServiceOf(handle, DELETE);
    if (service == nullptr) {
        return FALSE;
    }
    if (!DisableUnit(service->bus, service->unit)) {
        const DWORD error = GetLastError();
        if (error != ERROR_SERVICE_DOES_NOT_EXIST && error != ERROR_FILE_NOT_FOUND) {
            return FALSE;
        }
    }
    if (::unlink(UnitFilePath(service->unit).c_str()) != 0 && errno != ENOENT) {
        return Fail(ErrnoToError(errno));
    }
    std::error_code ignored;
    std::filesystem::remove_all(DropInFolder(service->unit), ignored);
    return Reload(service->bus);
}

BOOL EnumServicesStatusExA(SC_HANDLE handle, int infoLevel, DWORD serviceType, DWORD state,
                           unsigned char* buffer, DWORD bufferSize, DWORD* bytesNeeded,
                           DWORD* servicesReturned, DWORD* resumeHandle, const char* groupName) {
    ServiceHandleObject* manager = ManagerOf(handle, SC_MANAGER_ENUMERATE_SERVICE);
    if (manager == nullptr) {
        return FALSE;
    }
    if (infoLevel != SC_ENUM_PROCESS_INFO || bytesNeeded == nullptr ||
        servicesReturned == nullptr || state < SERVICE_ACTIVE || state > SERVICE_STATE_ALL ||
        groupName != nullptr) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    *bytesNeeded = 0;
    *servicesReturned = 0;
    if (resumeHandle != nullptr) {
        *resumeHandle = 0;
    }
    struct Entry {
        std::string name;
        std::string description;
        DWORD state;
    };
    std::vector<Entry> entries;
    if ((serviceType & SERVICE_WIN32_OWN_PROCESS) != 0) {
        BusError error;
        Reply reply;
        int r = sd_bus_call_method(manager->bus, kDestination, kManagerPath, kManagerInterface,
                                   "ListUnits", &error, &reply.message, "");
        if (r >= 0) {
            r = sd_bus_message_enter_container(reply.message, 'a', "(ssssssouso)");
        }
        const std::size_t suffix = std::strlen(kServiceSuffix);
        while (r >= 0) {
            const char *name, *description, *load, *active, *sub, *following, *path, *jobType,
                *jobPath;
            std::uint32_t jobId = 0;
            r = sd_bus_message_read(reply.message, "(ssssssouso)", &name, &description, &load,
                                    &active, &sub, &following, &path, &jobId, &jobType, &jobPath);
            if (r <= 0) {
                break;
            }
            const std::string unit(name);
            if (unit.size() <= suffix ||
                unit.compare(unit.size() - suffix, suffix, kServiceSuffix) != 0 ||
                std::strcmp(load, "not-found") == 0) {
                continue;
            }
            const DWORD current = StateOfActiveState(active);
            if ((state == SERVICE_ACTIVE && current == SERVICE_STOPPED) ||
                (state == SERVICE_INACTIVE && current != SERVICE_STOPPED)) {
                continue;
            }
            entries.push_back({unit.substr(0, unit.size() - suffix), description, current});
        }
        if (r < 0) {
            return Fail(ErrorOfCall(&error.error, r));
        }
    }
    std::size_t needed = entries.size() * sizeof(ENUM_SERVICE_STATUS_PROCESSA);
    for (const Entry& entry : entries) {
        needed += entry.name.size() + 1 + entry.description.size() + 1;
    }
    if (needed > bufferSize || (needed > 0 && buffer == nullptr)) {
        *bytesNeeded = static_cast<DWORD>(needed);
        return Fail(ERROR_MORE_DATA);
    }
    auto* records = reinterpret_cast<ENUM_SERVICE_STATUS_PROCESSA*>(buffer);
    char* text = reinterpret_cast<char*>(buffer) + entries.size() * sizeof(*records);
    for (std::size_t i = 0; i < entries.size(); ++i) {
        ENUM_SERVICE_STATUS_PROCESSA& record = records[i];
        record = ENUM_SERVICE_STATUS_PROCESSA{};
        record.lpServiceName = text;
        std::memcpy(text, entries[i].name.c_str(), entries[i].name.size() + 1);
        text += entries[i].name.size() + 1;
        record.lpDisplayName = text;
        std::memcpy(text, entries[i].description.c_str(), entries[i].description.size() + 1);
        text += entries[i].description.size() + 1;
        record.ServiceStatusProcess.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
        record.ServiceStatusProcess.dwCurrentState = entries[i].state;
        record.ServiceStatusProcess.dwControlsAccepted =
            entries[i].state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP : 0;
    }
    *servicesReturned = static_cast<DWORD>(entries.size());
    return TRUE;
}

BOOL ChangeServiceConfigA(SC_HANDLE handle, DWORD /*serviceType*/, DWORD startType,
                          DWORD /*errorControl*/, const char* binaryPath,
                          const char* /*loadOrderGroup*/, DWORD* /*tagId*/,
                          const char* dependencies, const char* serviceStartName,
                          const char* /*password*/, const char* displayName) {
    ServiceHandleObject* service = ServiceOf(handle, SERVICE_CHANGE_CONFIG);
    if (service == nullptr) {
        return FALSE;
    }
    if (startType != SERVICE_NO_CHANGE &&
        (startType < SERVICE_AUTO_START || startType > SERVICE_DISABLED)) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    if (binaryPath != nullptr || dependencies != nullptr || serviceStartName != nullptr ||
        displayName != nullptr) {
        const std::string file = UnitFilePath(service->unit);
        std::string text;
        if (!ReadFile(file, text)) {
            return Fail(ERROR_FILE_NOT_FOUND);
        }
        if (displayName != nullptr) {
            text = SetKey(text, "Unit", "Description", {UnitValue(displayName)});
        }
        if (dependencies != nullptr) {
            const std::string units = DependencyUnits(dependencies);
            const std::vector<std::string> values =
                units.empty() ? std::vector<std::string>{} : std::vector<std::string>{units};
            text = SetKey(text, "Unit", "Requires", values);
            text = SetKey(text, "Unit", "After", values);
        }
        if (binaryPath != nullptr) {
            text = SetKey(text, "Service", "ExecStart", {ExecStartOf(binaryPath)});
        }
        if (serviceStartName != nullptr) {
            const std::string user = UserOf(serviceStartName);
            text = SetKey(text, "Service", "User",
                          user.empty() ? std::vector<std::string>{}
                                       : std::vector<std::string>{UnitValue(user)});
        }
        if (!WriteFile(file, text)) {
            return FALSE;
        }
    }
    if (startType != SERVICE_NO_CHANGE && !ApplyStartType(service->bus, service->unit, startType)) {
        return FALSE;
    }
    return Reload(service->bus);
}

BOOL ChangeServiceConfig2A(SC_HANDLE handle, DWORD infoLevel, void* info) {
    ServiceHandleObject* service = ServiceOf(handle, SERVICE_CHANGE_CONFIG);
    if (service == nullptr) {
        return FALSE;
    }
    if (info == nullptr) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    switch (infoLevel) {
        case SERVICE_CONFIG_DESCRIPTION: {
            const char* description = static_cast<SERVICE_DESCRIPTIONA*>(info)->lpDescription;
            const std::string file = UnitFilePath(service->unit);
            std::string text;
            if (!ReadFile(file, text)) {
                return Fail(ERROR_FILE_NOT_FOUND);
            }
            const std::string value = description != nullptr && *description != '\0'
                                          ? std::string(description)
                                          : service->name;
            if (!WriteFile(file, SetKey(text, "Unit", "Description", {UnitValue(value)}))) {
                return FALSE;
            }
            break;
        }
        case SERVICE_CONFIG_FAILURE_ACTIONS: {
            const auto* actions = static_cast<SERVICE_FAILURE_ACTIONSA*>(info);
            if (actions->cActions == 0 || actions->lpsaActions == nullptr) {
                RemoveDropIn(service->unit, kRecoveryDropIn);
                break;
            }
            DWORD restarts = 0;
            DWORD firstDelay = 0;
            bool reboot = false;
            for (DWORD i = 0; i < actions->cActions; ++i) {
                const SC_ACTION& action = actions->lpsaActions[i];
                if (action.Type == SC_ACTION_RESTART) {
                    if (restarts++ == 0) {
                        firstDelay = action.Delay;
                    }
                } else if (action.Type == SC_ACTION_REBOOT) {
                    reboot = true;
                }
            }
            std::string text = "[Unit]\nStartLimitIntervalSec=";
            text += actions->dwResetPeriod == INFINITE ? std::string("infinity")
                                                       : std::to_string(actions->dwResetPeriod);
            text += "\nStartLimitBurst=" + std::to_string(restarts + 1) + "\n";
            if (reboot) {
                text += "FailureAction=reboot\n";
            }
            if (restarts > 0) {
                text +=
                    "\n[Service]\nRestart=on-failure\nRestartSec=" + std::to_string(firstDelay) +
                    "ms\n";
            } else {
                text += "\n[Service]\nRestart=no\n";
            }
            if (!WriteDropIn(service->unit, kRecoveryDropIn, text)) {
                return FALSE;
            }
            break;
        }
        case SERVICE_CONFIG_DELAYED_AUTO_START_INFO:
            if (static_cast<SERVICE_DELAYED_AUTO_START_INFO*>(info)->fDelayedAutostart) {
                if (!WriteDropIn(service->unit, kDelayedDropIn,
                                 "[Unit]\nAfter=multi-user.target\n")) {
                    return FALSE;
                }
            } else {
                RemoveDropIn(service->unit, kDelayedDropIn);
            }
            break;
        default:
            return Fail(ERROR_INVALID_PARAMETER);
    }
    return Reload(service->bus);
}

SC_LOCK LockServiceDatabase(SC_HANDLE handle) {
    if (ManagerOf(handle, SC_MANAGER_LOCK) == nullptr) {
        return nullptr;
    }
    const std::string path = ServiceUnitFolder() + "/.tessel-services.lock";
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        SetLastError(ErrnoToError(errno));
        return nullptr;
    }
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        const int e = errno;
        ::close(fd);
        SetLastError(e == EWOULDBLOCK ? ERROR_SERVICE_DATABASE_LOCKED : ErrnoToError(e));
        return nullptr;
    }
    auto* lock = new ServiceLockObject;
    lock->fd = fd;
    return lock;
}

BOOL UnlockServiceDatabase(SC_LOCK lock) {
    if (lock == nullptr) {
        return Fail(ERROR_INVALID_HANDLE);
    }
    ::close(lock->fd);  // ends the flock
    delete lock;
    return TRUE;
}

BOOL CloseServiceHandle(SC_HANDLE handle) {
    if (!IsLive(handle)) {
        return Fail(ERROR_INVALID_HANDLE);
    }
    handle->tag = 0;
    sd_bus_unref(handle->bus);  // the last reference closes the connection
    delete handle;
    return TRUE;
}

}  // namespace Tessel::Platform
