#include "support/PtyModem.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <stdexcept>

namespace TesselTest {

PtyModem::PtyModem() {
    m_master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    char name[128];
    if (m_master < 0 || ::grantpt(m_master) != 0 || ::unlockpt(m_master) != 0 ||
        ::ptsname_r(m_master, name, sizeof name) != 0 || ::pipe2(m_stop, O_CLOEXEC) != 0) {
        throw std::runtime_error("no pseudo-terminal");
    }
    m_device = name;
    m_slave = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios raw{};
    if (m_slave < 0 || ::tcgetattr(m_slave, &raw) != 0) {
        throw std::runtime_error("no pseudo-terminal slave");
    }
    ::cfmakeraw(&raw);
    ::tcsetattr(m_slave, TCSANOW, &raw);
    m_script["ATE0V1"] = {"OK"};
    m_script["ATH0"] = {"OK"};
    m_thread = std::thread([this] { run(); });
}

PtyModem::~PtyModem() {
    hangUp();
    ::close(m_stop[0]);
    ::close(m_stop[1]);
}

void PtyModem::stop() {
    if (m_thread.joinable()) {
        const char byte = 0;
        while (::write(m_stop[1], &byte, 1) < 0 && errno == EINTR) {
        }
        m_thread.join();
    }
}

void PtyModem::hangUp() {
    stop();
    if (m_master >= 0) {
        ::close(m_master);
        ::close(m_slave);
        m_master = m_slave = -1;
    }
}

void PtyModem::answer(const std::string& command, std::vector<std::string> lines) {
    std::lock_guard<std::mutex> guard(m_lock);
    m_script[command] = std::move(lines);
}

void PtyModem::answerDial(std::string result) {
    std::lock_guard<std::mutex> guard(m_lock);
    m_dialResult = std::move(result);
}

std::vector<std::string> PtyModem::commands() const {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_commands;
}

bool PtyModem::saw(const std::string& prefix, std::chrono::milliseconds limit) const {
    std::unique_lock<std::mutex> lock(m_lock);
    return m_changed.wait_for(lock, limit, [&] {
        for (const std::string& command : m_commands) {
            if (command.rfind(prefix, 0) == 0) {
                return true;
            }
        }
        return false;
    });
}

std::string PtyModem::received() const {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_received;
}

bool PtyModem::receives(const std::string& data, std::chrono::milliseconds limit) const {
    std::unique_lock<std::mutex> lock(m_lock);
    return m_changed.wait_for(lock, limit,
                              [&] { return m_received.find(data) != std::string::npos; });
}

void PtyModem::send(const std::string& data) {
    std::lock_guard<std::mutex> guard(m_lock);
    (void)!::write(m_master, data.data(), data.size());
}

void PtyModem::reply(const std::string& line) {
    const std::string text = "\r\n" + line + "\r\n";
    (void)!::write(m_master, text.data(), text.size());
}

void PtyModem::handle(const std::string& command) {
    std::string upper;
    for (const char c : command) {
        upper += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    m_commands.push_back(upper);
    if (m_echo) {
        const std::string echo = command + "\r";
        (void)!::write(m_master, echo.data(), echo.size());
    }
    if (upper.find("E0") != std::string::npos) {
        m_echo = false;
    }
    if (upper.empty()) {
        if (m_dialling) {
            m_dialling = false;
            reply("NO CARRIER");
        }
        return;
    }
    if (upper.rfind("ATD", 0) == 0) {
        m_dialling = m_dialResult.empty();
        if (!m_dialling) {
            reply(m_dialResult);
            m_connected = m_dialResult.rfind("CONNECT", 0) == 0;
        }
        return;
    }
    const auto scripted = m_script.find(upper);
    if (scripted != m_script.end()) {
        for (const std::string& line : scripted->second) {
            reply(line);
        }
    } else if (upper.rfind("AT", 0) == 0) {
        reply("ERROR");
    }
}

void PtyModem::run() {
    for (;;) {
        pollfd fds[2] = {{m_master, POLLIN, 0}, {m_stop[0], POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0 && errno != EINTR) {
            return;
        }
        if (fds[1].revents != 0) {
            return;
        }
        if ((fds[0].revents & POLLIN) == 0) {
            continue;
        }
        char buffer[256];
        const ssize_t n = ::read(m_master, buffer, sizeof buffer);
        if (n <= 0) {
            continue;
        }
        std::lock_guard<std::mutex> guard(m_lock);
        for (ssize_t i = 0; i < n; ++i) {
            const char c = buffer[i];
            if (m_connected) {
                m_received += c;
                if (m_received.size() >= 3 &&
                    m_received.compare(m_received.size() - 3, 3, "+++") == 0) {
                    m_received.resize(m_received.size() - 3);
                    m_connected = false;
                    m_commands.push_back("+++");
                    reply("OK");
                }
            } else if (c == '\r') {
                handle(m_command);
                m_command.clear();
            } else if (c != '\n') {
                m_command += c;
            }
        }
        m_changed.notify_all();
    }
}

}  // namespace TesselTest
