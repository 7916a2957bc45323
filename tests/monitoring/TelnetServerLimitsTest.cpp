// The monitor server against clients that would use it up: over-long lines, too many and idle
// connections, the listen address, and a process that runs out of descriptors.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "monitoring/MonitorTestSupport.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/NetworkClient.h"
#include "tessel/host/Registry.h"
#include "tessel/monitoring/TelnetConnectionHandler.h"
#include "tessel/monitoring/TelnetServer.h"
#include "tessel/platform/Sockets.h"

namespace {

using namespace std::chrono_literals;
using MonitorTest::element;
using TesselTest::TcpClient;
using testing::HasSubstr;

const std::string KEY = "SOFTWARE\\Tarvo Works\\GPS Velkor\\Monitoring";
const std::string CLEAR = "\x1b[2J";

std::string prompt() {
    return "\r\n" + Tessel::Platform::GetHostName() + "> ";
}

std::string command(TcpClient& client, const std::string& line) {
    client.send(line + "\r\n");
    return client.readUntil(prompt(), 10000ms);
}

// True when a connection to address:port is accepted by the kernel.
bool connects(const std::string& address, int port) {
    boost::asio::io_context io;
    boost::asio::ip::tcp::socket socket(io);
    boost::system::error_code error;
    socket.connect({boost::asio::ip::make_address(address), static_cast<unsigned short>(port)},
                   error);
    return !error;
}

// The value of the server's metric name ("MonitorServer/<name>" below the process's path).
double metric(const std::string& name) {
    return MonitorTest::db().findOrAdd("/" + MonitorTest::own("MonitorServer/" + name), "")->get();
}

// A server on a free port with the settings written before it starts.
class TelnetServerLimits : public ::testing::Test {
  protected:
    void SetUp() override { element("Stn/1/Feed/Epochs", "", 7); }

    const int port = TesselTest::FreeTcpPort();
    CTelnetServer server{port, 0};
};

// A line of exactly the limit is a command; it passes the history's limit of bytes, so the
// history keeps the line before. One byte more closes the connection.
TEST_F(TelnetServerLimits, LineOfMoreThanFourMebibytesClosesTheConnection) {
    server.start();
    const std::size_t limit = CTelnetConnectionHandler::MAX_REQUEST_LENGTH;
    TcpClient client(port);
    command(client, "p stn/1/**");
    EXPECT_THAT(command(client, "p " + std::string(limit - 2, 'x')), HasSubstr("0 record(s)"));
    client.send("\x1b[A");
    const std::string recalled = client.readUntil("**", 5000ms);
    EXPECT_TRUE(recalled == CLEAR + prompt() + "p stn/1/**") << recalled.substr(0, 100);

    for (const std::string start : {"p ", "GET "}) {
        TcpClient longer(port);
        longer.send(start + std::string(limit + 1 - start.size(), 'x'));
        longer.readFor(30000ms);
        EXPECT_TRUE(longer.peerClosed()) << start;
    }
}

TEST_F(TelnetServerLimits, ConnectionsBeyondTheMostAreClosedAtOnceAndCounted) {
    ASSERT_TRUE(REG::WriteLong(KEY, "MaxConnections", 2));
    server.start();
    auto first = std::make_unique<TcpClient>(port);
    TcpClient second(port);
    for (TcpClient* client : {first.get(), &second}) {
        EXPECT_THAT(command(*client, "p stn/1/**"), HasSubstr("1 record(s) found"));
    }
    TcpClient third(port);
    EXPECT_EQ(third.readFor(5000ms), "");
    EXPECT_TRUE(third.peerClosed());
    EXPECT_EQ(metric("RefusedConnections"), 1);

    first.reset();  // makes room for one
    EXPECT_TRUE(TesselTest::eventually(
        [&] {
            TcpClient next(port);
            return command(next, "p stn/1/**").find("1 record(s) found") != std::string::npos;
        },
        10000ms, 50ms));
}

// A silent connection goes after the idle time; one with a REPEAT running stays until the
// repetition ends.
TEST_F(TelnetServerLimits, IdleConnectionIsClosedUnlessARepeatRuns) {
    ASSERT_TRUE(REG::WriteLong(KEY, "IdleTimeoutSeconds", 1));
    server.start();
    TcpClient silent(port);
    TcpClient repeating(port);
    command(repeating, "p stn/1/**");
    repeating.send("r\r\n");
    EXPECT_THAT(repeating.readFor(2500ms), HasSubstr("1 record(s) found"));
    EXPECT_FALSE(repeating.peerClosed());
    silent.readFor(5000ms);
    EXPECT_TRUE(silent.peerClosed());

    repeating.send("p stn/1/**\r\n");  // ends the repetition
    repeating.readFor(10000ms);
    EXPECT_TRUE(repeating.peerClosed());
}

TEST_F(TelnetServerLimits, ListenAddressNarrowsTheListenerAndABadOneIsLoggedAndIgnored) {
    const struct {
        std::string setting;  // "": none
        bool onFirst, onSecond, logged;
    } cases[] = {{"", true, true, false},
                 {"127.0.0.2", false, true, false},
                 {"no address", true, true, true}};
    for (const auto& c : cases) {
        if (!c.setting.empty()) {
            REG::Write(KEY, "ListenAddress", c.setting.c_str());
        }
        TesselTest::LogCapture log;
        const int freePort = TesselTest::FreeTcpPort();
        CTelnetServer narrowed(freePort, 0);
        narrowed.start();
        EXPECT_EQ(connects("127.0.0.1", freePort), c.onFirst) << c.setting;
        EXPECT_EQ(connects("127.0.0.2", freePort), c.onSecond) << c.setting;
        EXPECT_EQ(log.text().find("is no IPv4 or IPv6 address") != std::string::npos, c.logged)
            << c.setting;
    }
}

// CPU seconds that process pid has used, from /proc/<pid>/stat (user and system time).
double cpuSeconds(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    const std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // The fields behind the command's closing parenthesis start with the third, the state.
    std::istringstream fields(stat.substr(stat.rfind(')') + 1));
    std::string field;
    double ticks = 0;
    for (int number = 3; number <= 15 && fields >> field; ++number) {
        if (number >= 14) {  // utime, stime
            ticks += std::stod(field);
        }
    }
    return ticks / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

long openDescriptors(pid_t pid) {
    std::error_code error;
    const std::filesystem::directory_iterator fds("/proc/" + std::to_string(pid) + "/fd", error);
    return static_cast<long>(std::distance(fds, std::filesystem::directory_iterator()));
}

// A server limited to 200 descriptors, with 400 connections waiting: while it has none left,
// it hardly uses the CPU; once the clients go, it answers again. The failures are logged once.
TEST(TelnetServerDescriptors, SlowRunningOutCostsLittleCpuAndTheServerAnswersAgain) {
    const int port = TesselTest::FreeTcpPort();
    TesselTest::ChildProcess peer(
        {TESSEL_MONITOR_SERVER_PEER, std::to_string(port), "0", "10", "Spent", "200"});
    ASSERT_EQ(peer.readLine(10000ms), "ready");
    const auto answered = [&] {
        TcpClient client(port);
        client.send("GET /?filter=spent/**&format=json HTTP/1.1\r\n\r\n");
        return client.readHttpResponse(20000ms).starts_with("HTTP/1.1 200 OK");
    };
    // Served once before: in a build with the undefined-behaviour sanitizer, that also makes
    // the first checks of the server's virtual calls, which need descriptors of their own.
    ASSERT_TRUE(answered());
    std::vector<std::unique_ptr<TcpClient>> clients;
    for (int i = 0; i < 400; ++i) {
        clients.push_back(std::make_unique<TcpClient>(port));
    }
    ASSERT_TRUE(
        TesselTest::eventually([&] { return openDescriptors(peer.pid()) >= 200; }, 20000ms, 10ms));

    const double before = cpuSeconds(peer.pid());
    std::this_thread::sleep_for(3000ms);
    const double used = cpuSeconds(peer.pid()) - before;
    EXPECT_LT(used, 0.75) << "CPU seconds in 3 s without descriptors";

    clients.clear();
    EXPECT_TRUE(answered());
    const std::string log = TesselTest::LogCapture::all();
    const std::string failed = "Accepting a connection on port " + std::to_string(port) + " failed";
    EXPECT_THAT(log, HasSubstr(failed + ": Too many open files"));
    EXPECT_EQ(log.find(failed), log.rfind(failed)) << log;
    EXPECT_THAT(log, testing::ContainsRegex("port " + std::to_string(port) +
                                            " works again after [0-9]+ failed accepts"));
    EXPECT_EQ(peer.finish(), 0);
}

}  // namespace
