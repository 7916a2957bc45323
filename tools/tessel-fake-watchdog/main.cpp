// A fake watchdog program, for the tests of the watchdog client.
//
// Built as "TarvoWD.exe" in a folder of its own, so that a test that puts that folder first on
// PATH has the client start it. It takes the command line that the client gives,
// "/P <pid> [/H] /I <n> /T <n> /B <n>", offers the window "Watchdog_<pid>" (it listens on
// the abstract SOCK_SEQPACKET socket of that name), sets the start event "Watchdog<pid>",
// and answers each message with one byte, 1. It ends on the shutdown message (type 3), when
// the supervised process is gone, or on SIGTERM or SIGINT.
//
// What it receives it records in the file named by the environment variable
// TESSEL_FAKE_WATCHDOG_LOG (appended to; nothing is recorded without it), one line each,
// written before the message is answered:
//   its own command line, argv joined by blanks, as the first line;
//   per message: "type=<dwData> size=<data bytes> thread=<id> data=<n> raw=<data in hex>
//   text=<text>", the thread id, data and text read from the record's offsets 0, 8 and 16;
//   control characters and '\' in the text are written as \xNN;
//   at the end one of "end shutdown", "end process gone", "end signal".
// On shutdown it stops listening before it answers, so that the window's name is free once
// the sender has its answer; it closes its connections before it writes the end line.
//
// Exit status: 0; 2 for a command line it does not understand; 1 when it cannot offer the
// window (another watchdog offers it).
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tessel/platform/SystemEvent.h"

namespace {

constexpr std::size_t kRecordSize = 280;
constexpr std::uint64_t kShutdown = 3;

int g_log = -1;

void record(std::string line) {
    if (g_log < 0) {
        return;
    }
    line += '\n';
    const char* rest = line.data();
    std::size_t left = line.size();
    while (left > 0) {
        const ssize_t written = ::write(g_log, rest, left);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        rest += written;
        left -= static_cast<std::size_t>(written);
    }
}

bool parseNumber(const char* text, unsigned long& value) {
    char* end = nullptr;
    errno = 0;
    value = std::strtoul(text, &end, 10);
    return errno == 0 && end != text && *end == '\0';
}

struct Options {
    unsigned long pid = 0;
    bool hidden = false;
    unsigned long interval = 0, timeout = 0, b = 0;
};

bool parse(int argc, char** argv, Options& options) {
    bool havePid = false;
    for (int i = 1; i < argc; ++i) {
        const std::string word(argv[i]);
        if (word == "/H") {
            options.hidden = true;
            continue;
        }
        unsigned long* target = word == "/P"   ? &options.pid
                                : word == "/I" ? &options.interval
                                : word == "/T" ? &options.timeout
                                : word == "/B" ? &options.b
                                               : nullptr;
        if (target == nullptr || i + 1 >= argc || !parseNumber(argv[++i], *target)) {
            return false;
        }
        havePid = havePid || target == &options.pid;
    }
    return havePid;
}

std::string hex(const unsigned char* bytes, std::size_t size) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < size; ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 0x0F];
    }
    return text;
}

// The line for one received packet: 8 bytes of type, then the data.
std::string describe(const unsigned char* packet, std::size_t size, std::uint64_t& type) {
    type = 0;
    if (size < 8) {
        return "malformed size=" + std::to_string(size);
    }
    for (int i = 7; i >= 0; --i) {
        type = type << 8 | packet[i];
    }
    const unsigned char* data = packet + 8;
    const std::size_t dataSize = size - 8;
    std::string line = "type=" + std::to_string(type) + " size=" + std::to_string(dataSize);
    if (dataSize >= kRecordSize) {
        std::int32_t thread;
        std::int64_t number;
        std::memcpy(&thread, data, sizeof thread);
        std::memcpy(&number, data + 8, sizeof number);
        line += " thread=" + std::to_string(thread) + " data=" + std::to_string(number);
    }
    line += " raw=" + hex(data, dataSize);
    if (dataSize >= kRecordSize) {
        line += " text=";
        for (std::size_t i = 16; i < 276 && data[i] != '\0'; ++i) {
            const unsigned char c = data[i];
            if (c < 0x20 || c == 0x7F || c == '\\') {
                char escaped[5];
                std::snprintf(escaped, sizeof escaped, "\\x%02x", c);
                line += escaped;
            } else {
                line += static_cast<char>(c);
            }
        }
    }
    return line;
}

bool answer(int fd) {
    const unsigned char one = 1;
    ssize_t sent;
    do {
        sent = ::send(fd, &one, sizeof one, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent == 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (const char* path = std::getenv("TESSEL_FAKE_WATCHDOG_LOG"); path != nullptr && *path) {
        g_log = ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    }
    std::string commandLine;
    for (int i = 0; i < argc; ++i) {
        if (i > 0) {
            commandLine += ' ';
        }
        commandLine += argv[i];
    }
    record(commandLine);

    Options options;
    if (!parse(argc, argv, options)) {
        std::fprintf(stderr, "usage: TarvoWD.exe /P pid [/H] /I n /T n /B n\n");
        return 2;
    }

    sigset_t stops;
    ::sigemptyset(&stops);
    ::sigaddset(&stops, SIGTERM);
    ::sigaddset(&stops, SIGINT);
    ::sigprocmask(SIG_BLOCK, &stops, nullptr);
    const int signals = ::signalfd(-1, &stops, SFD_CLOEXEC);

    // The window.
    const std::string title = "Watchdog_" + std::to_string(options.pid);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, title.data(), title.size());
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + title.size());
    int listener = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (listener < 0 || ::bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::listen(listener, 16) != 0) {
        std::fprintf(stderr, "TarvoWD.exe: cannot offer %s: %s\n", title.c_str(),
                     std::strerror(errno));
        return 1;
    }

    // The supervised process: a pidfd, or a look every 200 ms where there is none.
    const int process = static_cast<int>(::syscall(SYS_pidfd_open, options.pid, 0));
    if (process < 0 && errno == ESRCH) {
        record("end process gone");
        return 0;
    }

    const std::string event = "Watchdog" + std::to_string(options.pid);
    Tessel::Platform::SetSystemEvent(event.c_str());

    std::vector<int> connections;
    std::vector<unsigned char> packet(65536);
    const char* reason = nullptr;
    while (reason == nullptr) {
        std::vector<pollfd> fds{{listener, POLLIN, 0}, {signals, POLLIN, 0}, {process, POLLIN, 0}};
        for (const int connection : connections) {
            fds.push_back({connection, POLLIN, 0});
        }
        const int ready = ::poll(fds.data(), fds.size(), process < 0 ? 200 : -1);
        if (ready < 0 && errno != EINTR) {
            reason = "end poll failed";
            break;
        }
        if (process < 0 && ::kill(static_cast<pid_t>(options.pid), 0) != 0 && errno == ESRCH) {
            reason = "end process gone";
            break;
        }
        if (ready <= 0) {
            continue;
        }
        if (fds[1].revents != 0) {
            reason = "end signal";
            break;
        }
        if (fds[2].revents != 0) {
            reason = "end process gone";
            break;
        }
        if ((fds[0].revents & POLLIN) != 0) {
            const int connection = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (connection >= 0) {
                connections.push_back(connection);
            }
        }
        for (std::size_t k = 3; k < fds.size() && reason == nullptr; ++k) {
            if (fds[k].revents == 0) {
                continue;
            }
            const int connection = fds[k].fd;
            const ssize_t got = ::recv(connection, packet.data(), packet.size(), 0);
            if (got <= 0) {
                if (got < 0 && errno == EINTR) {
                    continue;
                }
                ::close(connection);
                std::erase(connections, connection);
                continue;
            }
            std::uint64_t type = 0;
            record(describe(packet.data(), static_cast<std::size_t>(got), type));
            if (type == kShutdown) {
                ::close(listener);
                listener = -1;
                reason = "end shutdown";
            }
            answer(connection);
        }
    }
    for (const int connection : connections) {
        ::close(connection);
    }
    if (listener >= 0) {
        ::close(listener);
    }
    record(reason);
    return 0;
}
