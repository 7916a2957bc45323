// tessel-host as systemd runs it: the test plays the service manager on a datagram socket of
// its own, named by NOTIFY_SOCKET, and reads what the host tells it.
#ifdef TESSEL_HOST_PROGRAM

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "platform/PlatformTest.h"
#include "support/ChildProcess.h"
#include "support/NetworkClient.h"
#include "support/ScratchRegistry.h"
#include "tessel/platform/Systemd.h"

namespace {

using Clock = std::chrono::steady_clock;

// A notification and when it arrived, in seconds since the manager began to listen.
struct Notification {
    double at;
    std::string text;
};

class Manager {
  public:
    Manager() : m_name(PlatformTest::uniqueName("notify")), m_start(Clock::now()) {
        m_fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(PlatformTest::bindAbstract(m_fd, m_name), 0);
    }
    ~Manager() { ::close(m_fd); }

    std::string socketName() const { return "@" + m_name; }

    // What arrives within seconds from now.
    std::vector<Notification> listen(double seconds) {
        std::vector<Notification> received;
        const Clock::time_point end =
            Clock::now() + std::chrono::milliseconds(static_cast<long>(seconds * 1000));
        for (Clock::time_point now; (now = Clock::now()) < end;) {
            pollfd readable{m_fd, POLLIN, 0};
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - now);
            if (::poll(&readable, 1, static_cast<int>(left.count()) + 1) == 1) {
                char datagram[1024] = {};
                if (::recv(m_fd, datagram, sizeof datagram - 1, 0) > 0) {
                    received.push_back(
                        {std::chrono::duration<double>(Clock::now() - m_start).count(), datagram});
                }
            }
        }
        return received;
    }

  private:
    std::string m_name;
    Clock::time_point m_start;
    int m_fd = -1;
};

std::unique_ptr<TesselTest::ChildProcess> startHost(const Manager& manager,
                                                    std::vector<std::string> arguments) {
    TesselTest::UseScratchRegistry();
    TesselTest::ChildOptions options;
    options.environment["NOTIFY_SOCKET"] = manager.socketName();
    options.environment["WATCHDOG_USEC"] = "400000";
    std::vector<std::string> argv{TESSEL_HOST_PROGRAM, "--port",
                                  std::to_string(TesselTest::FreeTcpPort()), "--host-info-port",
                                  "0"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return std::make_unique<TesselTest::ChildProcess>(argv, options);
}

int count(const std::vector<Notification>& received, const std::string& text) {
    int n = 0;
    for (const Notification& notification : received) {
        n += notification.text == text ? 1 : 0;
    }
    return n;
}

TEST(SystemdNotify, HostIsReadyFeedsTheWatchdogAndReportsItsStop) {
    Manager manager;
    auto host = startHost(manager, {});
    std::vector<Notification> received = manager.listen(0.1);
    for (int tenths = 0; received.empty() && tenths < 300; ++tenths) {
        received = manager.listen(0.1);
    }
    ASSERT_FALSE(received.empty());
    EXPECT_EQ(received.front().text.rfind("READY=1\nSTATUS=Station STA1: ", 0), 0u)
        << received.front().text;
    // Every 200 ms, half the interval: about ten in two seconds.
    received = manager.listen(2.0);
    EXPECT_GE(count(received, "WATCHDOG=1"), 3);
    ::kill(host->pid(), SIGTERM);
    received = manager.listen(1.0);
    EXPECT_GE(count(received, "STOPPING=1"), 1);
    EXPECT_EQ(host->finish(), 0);
}

TEST(SystemdNotify, HostWhoseFeedIsStuckStopsFeedingTheWatchdogSlow) {
    Manager manager;
    auto host = startHost(manager, {"--stall-after", "1"});
    // The feed stops after one second; keep-alives end within the second allowed after it.
    manager.listen(3.0);
    const std::vector<Notification> received = manager.listen(2.0);
    EXPECT_EQ(count(received, "WATCHDOG=1"), 0);
    EXPECT_GE(received.size(), 1u);  // the status lines go on: the process itself lives
    ::kill(host->pid(), SIGTERM);
    EXPECT_EQ(host->finish(), 0);
}

TEST(SystemdNotify, OutsideSystemdNothingIsSent) {
    ::unsetenv("NOTIFY_SOCKET");
    ::unsetenv("WATCHDOG_USEC");
    EXPECT_FALSE(Tessel::Systemd::underServiceManager());
    EXPECT_FALSE(Tessel::Systemd::notifyReady("x"));
    EXPECT_EQ(Tessel::Systemd::watchdogInterval().count(), 0);
    Tessel::Systemd::Watchdog watchdog([] { return true; });
    EXPECT_FALSE(watchdog.active());
}

}  // namespace

#endif  // TESSEL_HOST_PROGRAM
