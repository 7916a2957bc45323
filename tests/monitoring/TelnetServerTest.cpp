// The monitor server over real connections: Telnet sessions, HTTP requests, the shared host
// info port and a load of many clients.
#include "tessel/monitoring/TelnetServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <boost/system/system_error.hpp>
#include <chrono>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "monitoring/MonitorTestSupport.h"
#include "support/Eventually.h"
#include "support/NetworkClient.h"
#include "tessel/host/Registry.h"
#include "tessel/platform/Sockets.h"

namespace {

using namespace std::chrono_literals;
using MonitorTest::element;
using TesselTest::HttpBody;
using TesselTest::TcpClient;
using testing::HasSubstr;
using testing::Not;

const std::string CLEAR = "\x1b[2J";

std::string prompt() {
    return "\r\n" + Tessel::Platform::GetHostName() + "> ";
}

// A Telnet session: sends line and returns the reply up to the next prompt.
std::string command(TcpClient& client, const std::string& line) {
    client.send(line + "\r\n");
    return client.readUntil(prompt(), 5000ms);
}

// The whole HTTP response that the server writes for status, content type and body.
std::string response(const std::string& status, const std::string& type, const std::string& body) {
    return "HTTP/1.1 " + status +
           "\r\nDate: \r\nServer: Velkor Monitoring Framework 7.7.0.9062\r\n"
           "Cache-Control: no-cache, no-store, must-revalidate\r\nPragma: no-cache\r\n"
           "Expires: 0\r\nContent-Type: " +
           type + "\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\nConnection: close\r\n\r\n" + body;
}

std::string json(const std::string& body) {
    return response("200 OK", "application/json", body);
}

const std::string BAD_REQUEST = response("400 Bad Request", "text/plain", "Bad Request");

// A server on a free port of its own, without host info port, over a small table.
class TelnetServerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        element("Stn/1/Feed/Epochs", "", 7);
        element("Stn/1/Feed/Bytes", "B", 1024);
        element("Stn/1/Feed/Latency", "ms", 12.5);
        element("Stn/2/Feed/Epochs", "", 3);
        server.start();
    }

    // The response to one request sent on a connection of its own.
    std::string request(const std::string& text) {
        TcpClient client(port);
        client.send(text);
        return client.readHttpResponse(5000ms);
    }

    const int port = TesselTest::FreeTcpPort();
    CTelnetServer server{port, 0};
};

// --- Telnet ---

TEST_F(TelnetServerTest, BannerAfterOneSecondOfSilenceThenHelpForAnUnknownCommand) {
    TcpClient client(port);
    EXPECT_EQ(client.readFor(700ms), "");
    EXPECT_EQ(client.readUntil(prompt(), 3000ms), CLEAR + "Welcome to Velkor telnet server " +
                                                      Tessel::Platform::GetHostName() + "\r\n" +
                                                      prompt());
    EXPECT_EQ(command(client, ""), CLEAR + prompt());  // no command yet to repeat
    const std::string help = command(client, "hello");
    EXPECT_TRUE(help.starts_with(CLEAR + "--------------------\r\n| List of commands | \r\n"));
    EXPECT_TRUE(help.ends_with("(q)uit \t\t\t\t - stop telnet session\r\n" + prompt())) << help;
}

// Each command selects its mode and filter; the output is the pass behind a clear-screen.
TEST_F(TelnetServerTest, CommandsSelectTheirModesWatchRepeatsOnEmptyLinesBtAndQuitClose) {
    const struct {
        std::string line, piece, absent;  // the reply contains piece, and not absent
    } cases[] = {
        {"print stn/1/**", "3 record(s) found", "Stn/2"},
        {"json stn/2/**", "{\"Stn/2/Feed/Epochs\":[\"3\",\"\"]\r\n}\r\n", "record(s) found"},
        {"top stn/**", "Stn/1/Feed/Bytes", "record(s) found"},
        {"aggregate stn/*/feed/epochs", "-------------------------\r\nAggregate: 10\r\n", "/Bytes"},
        {"rate stn/1/feed/bytes", "0 B", "1024 B"},
        {"reset stn/1/feed/bytes", "0 B", "1024 B"},
        {"list", "\r\n", "record(s) found"},
        {"print", "0 record(s) found", "Stn/"},
    };
    // A pass that throws (no thread ids in the paths) ends only its own connection.
    TcpClient failing(port);
    failing.send("bt stn/**\r\n");
    failing.readFor(3000ms);
    EXPECT_TRUE(failing.peerClosed());
    TcpClient client(port);
    for (const auto& c : cases) {
        const std::string reply = command(client, c.line);
        EXPECT_TRUE(reply.starts_with(CLEAR)) << c.line;
        EXPECT_THAT(reply, HasSubstr(c.piece)) << c.line;
        EXPECT_THAT(reply, Not(HasSubstr(c.absent))) << c.line;
    }
    EXPECT_THAT(command(client, "w stn/**"), HasSubstr("Stn/2/Feed/Epochs"));
    EXPECT_EQ(command(client, ""), CLEAR + prompt());
    element("Stn/2/Feed/Epochs", "", 4);
    const std::string changed = command(client, "");
    EXPECT_THAT(changed, HasSubstr("Stn/2/Feed/Epochs"));
    EXPECT_THAT(changed, Not(HasSubstr("Stn/1/Feed/Epochs")));
    client.send("quit\r\n");
    client.readFor(3000ms);
    EXPECT_TRUE(client.peerClosed());
}

// REPEAT runs the command at once, then after each pause of a second (also for an argument
// that is no number) until the next line, which runs it once more.
TEST_F(TelnetServerTest, RepeatRunsEverySecondUntilTheNextLine) {
    const std::string found = "1 record(s) found";
    TcpClient client(port);
    command(client, "p stn/2/**");
    for (const std::string repeat : {"repeat soon", "r"}) {
        const auto start = std::chrono::steady_clock::now();
        client.send(repeat + "\r\n");
        // The command's own run and the repetition's first, then one after a pause.
        for (int run = 0; run < 3; ++run) {
            ASSERT_THAT(client.readUntil(found, 5000ms), HasSubstr(found)) << repeat << run;
        }
        EXPECT_GE(std::chrono::steady_clock::now() - start, 900ms) << repeat;
        EXPECT_THAT(command(client, ""), HasSubstr(found));
    }
    EXPECT_EQ(client.readFor(1100ms), "");
}

TEST_F(TelnetServerTest, BackspaceAndTheArrowKeysEditTheLine) {
    TcpClient client(port);
    client.send("\x1b[A\x1b[B");  // no history yet: nothing happens
    EXPECT_EQ(client.readFor(500ms), "");
    client.send("p stn/1/feed/epochsX\b");
    EXPECT_EQ(client.readFor(300ms), "  \b\b");
    client.send(std::string(19, '\b'));
    client.readFor(300ms);
    client.send("\b");  // the line is empty now
    EXPECT_EQ(client.readFor(300ms), " ");
    EXPECT_THAT(command(client, "p stn/1/feed/epochs"), HasSubstr("Stn/1/Feed/Epochs"));
    command(client, "p stn/2/feed/epochs");

    // Up and Down browse the history, newest first; past the newest the line is empty.
    const std::string redraw = CLEAR + prompt();
    for (const char* step : {"A2", "A1", "B2"}) {
        client.send(std::string("\x1b[") + step[0]);
        EXPECT_EQ(client.readUntil("epochs", 3000ms), redraw + "p stn/" + step[1] + "/feed/epochs");
    }
    client.send("\x1b[B");
    EXPECT_EQ(client.readFor(300ms), redraw);
    client.send("\x1b[A\x1b[A");
    client.readFor(300ms);
    const std::string reply = command(client, "");  // Enter runs the recalled line
    EXPECT_THAT(reply, HasSubstr("Stn/1/Feed/Epochs"));
    EXPECT_THAT(reply, Not(HasSubstr("Stn/2/Feed/Epochs")));
}

TEST_F(TelnetServerTest, HistoryKeepsAtMostOneThousandLines) {
    TcpClient client(port);
    std::string lines;
    for (int i = 0; i < 1001; ++i) {
        lines += "p x" + std::to_string(i) + "\r\n";
    }
    client.send(lines);
    std::string reply;
    for (int i = 0; i < 1001; ++i) {
        reply = client.readUntil(prompt(), 5000ms);
    }
    ASSERT_THAT(reply, HasSubstr("0 record(s) found"));
    client.send("\x1b[A");
    EXPECT_EQ(client.readUntil("x999", 3000ms), CLEAR + prompt() + "p x999");
}

// --- HTTP ---

// The request line cancels the banner; the response comes at the empty line, and more input
// that ends in an empty line answers the same request again on the open connection.
TEST_F(TelnetServerTest, RequestIsAnsweredAtEachEmptyLineWithoutBanner) {
    EXPECT_EQ(
        TesselTest::RunCaptured("curl -s -i --max-time 10 'http://127.0.0.1:" +
                                std::to_string(port) + "/metrics?filter=stn/2/**&format=json'"),
        json("{\"Stn/2/Feed/Epochs\":[\"3\",\"\"]\r\n}\r\n"));
    TcpClient client(port);
    client.send("GET /?filter=stn/2/**&format=json HTTP/1.1\r\nHost: localhost\r\n");
    EXPECT_EQ(client.readFor(300ms), "");
    client.send("\r\n");
    EXPECT_EQ(client.readHttpResponse(5000ms),
              json("{\"Stn/2/Feed/Epochs\":[\"3\",\"\"]\r\n}\r\n"));
    element("Stn/2/Feed/Epochs", "", 9);
    client.send("anything\r\n\r\n");
    EXPECT_EQ(client.readHttpResponse(5000ms),
              json("{\"Stn/2/Feed/Epochs\":[\"9\",\"\"]\r\n}\r\n"));
    EXPECT_EQ(client.readFor(1500ms), "");
    EXPECT_FALSE(client.peerClosed());
}

TEST_F(TelnetServerTest, QueryParametersBadAndOverlongRequests) {
    element("Pct/any", "", 2);
    const auto prtg = [](const std::string& channel) {
        return "{ \"prtg\": { \"result\": [ {\"channel\": \"" + channel +
               "\", \"customunit\": \"\", \"float\": 1,\"value\": 3}\r\n"
               ",{ \"channel\":\"Channel count\",\"value\": 1}\r\n] } }\r\n";
    };
    const struct {
        std::string query;
        std::string body;
    } cases[] = {
        // The limit is the minimum value.
        {"filter=stn/*/feed/epochs&format=json&limit=7",
         "{\"Stn/1/Feed/Epochs\":[\"7\",\"\"]\r\n}\r\n"},
        // Truncate with json cuts the common prefix; prtg truncates unless told not to.
        {"filter=stn/1/feed/epochs&format=json&truncate=1", "{\"Epochs\":[\"7\",\"\"]\r\n}\r\n"},
        {"filter=stn/2/**&format=prtg&truncate=0", prtg("Stn/2/Feed/Epochs")},
        {"filter=stn/2/**&format=prtg", prtg("Epochs")},
        // Nothing is percent-decoded.
        {"filter=pct/%2A&format=json", "{}\r\n"},
        // A later parameter of the same name wins; the last '?' starts the query.
        {"filter=nothing&filter=pct/any&format=json", "{\"Pct/any\":[\"2\",\"\"]\r\n}\r\n"},
        {"x=1?filter=pct/any&format=json&other", "{\"Pct/any\":[\"2\",\"\"]\r\n}\r\n"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(request("GET /?" + c.query + " HTTP/1.0\n\n"), json(c.body)) << c.query;
    }
    // No filter (a stretch without '=' is skipped), an empty one, no '?' (on another path
    // than /metrics, which answers Prometheus), no format, a format
    // that is not exactly json or prtg, a limit that is no number, a truncate that is no flag,
    // too few blanks, none.
    for (const char* bad :
         {" /?filter&format=json HTTP/1.1", " /?filter=&format=json HTTP/1.1", " /stats HTTP/1.1",
          " /?filter=* HTTP/1.1", " /?filter=*&format=JSON HTTP/1.1",
          " /?filter=*&format=json&limit=abc HTTP/1.1",
          " /?filter=*&format=json&truncate=yes HTTP/1.1", " /?filter=*&format=json", ""}) {
        EXPECT_EQ(request(std::string("GET") + bad + "\r\n\r\n"), BAD_REQUEST) << bad;
    }
    // An overlong request is closed without response.
    TcpClient client(port);
    client.send("GET /?filter=*&format=json HTTP/1.1\r\nX-Fill: " + std::string(4 << 20, 'a') +
                "\r\n");
    EXPECT_EQ(client.readFor(30000ms), "");
    EXPECT_TRUE(client.peerClosed());
}

// --- ports ---

TEST_F(TelnetServerTest, RegistryValuesOverrideTheDefaultPortsOwnPortInUseFailsInBind) {
    EXPECT_EQ(CTelnetServer::getPort(HostInfoPort, 0), 9800);
    EXPECT_EQ(CTelnetServer::getPort(ReachabilityPort, 0), 9841);
    EXPECT_EQ(CTelnetServer::getPort(StationWorkerPort, 3), 9801);  // only the coordinator's
    EXPECT_EQ(CTelnetServer::getPort(CoordinatorPort, 2), 9814);    // instance is added
    const std::string key = "SOFTWARE\\Tarvo Works\\GPS Velkor\\Monitoring";
    ASSERT_TRUE(REG::WriteLong(key, "StationWorkerPort", 19801));
    ASSERT_TRUE(REG::WriteLong(key, "CoordinatorPort", 19812));
    EXPECT_EQ(CTelnetServer::getPort(StationWorkerPort, 0), 19801);
    EXPECT_EQ(CTelnetServer::getPort(CoordinatorPort, 2), 19812);  // not offset
    EXPECT_EQ(CTelnetServer::getPort(SolutionWorkerPort, 0), 9802);

    CTelnetServer second(port, 0);
    EXPECT_THAT([&] { second.start(); },
                testing::ThrowsMessage<boost::system::system_error>(testing::StartsWith("bind")));
}

// --- second processes: the shared host info port, load ---

// A monitor server in a second process over elements "/<name>/G<g>/E<i>".
std::unique_ptr<TesselTest::ChildProcess> startPeer(int ownPort, int hostInfoPort, int elements,
                                                    const std::string& name) {
    auto peer = std::make_unique<TesselTest::ChildProcess>(
        std::vector<std::string>{TESSEL_MONITOR_SERVER_PEER, std::to_string(ownPort),
                                 std::to_string(hostInfoPort), std::to_string(elements), name});
    const std::string line = peer->readLine(10000ms);
    EXPECT_EQ(line, "ready");
    return line == "ready" ? std::move(peer) : nullptr;
}

// Two processes listen on the host info port at once; connections reach both of them.
TEST(TelnetServerHostInfoPort, TwoProcessesServeTheSharedPort) {
    const int hostInfoPort = TesselTest::FreeTcpPort();
    element("Here/A", "", 1);
    CTelnetServer server(0, hostInfoPort);
    server.start();
    auto peer = startPeer(0, hostInfoPort, 1, "Peer");
    ASSERT_TRUE(peer);
    int here = 0, there = 0;
    for (int i = 0; i < 64 && (here == 0 || there == 0); ++i) {
        TcpClient client(hostInfoPort);
        client.send("GET /?filter=**&format=json HTTP/1.1\r\n\r\n");
        const std::string body = HttpBody(client.readHttpResponse(5000ms));
        here += body.find("\"Here/A\"") != std::string::npos ? 1 : 0;
        there += body.find("\"Peer/G0/E0\"") != std::string::npos ? 1 : 0;
    }
    EXPECT_GT(here, 0);
    EXPECT_GT(there, 0);
}

// Under a sanitizer every operation is many times slower and the allocator keeps freed memory
// in quarantine: the load test then makes a tenth of the requests and does not judge memory.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

// 200 clients make 50 HTTP requests each, every one on a connection of its own, against a
// table of 1,000 elements, while 10 Telnet sessions repeat a command without pause.
TEST(TelnetServerLoad, SlowManyHttpClientsBesideRepeatingSessions) {
    const int requestsPerClient = kSanitized ? 5 : 50;
    const int port = TesselTest::FreeTcpPort();
    auto peer = startPeer(port, 0, 1000, "Load");
    ASSERT_TRUE(peer);
    const long long residentAtStart = TesselTest::ResidentBytes(peer->pid());

    std::atomic<int> sessionsEndedOnQuit{0};
    std::atomic<long long> repeatedBytes{0};
    std::vector<std::jthread> sessions;
    for (int s = 0; s < 10; ++s) {
        sessions.emplace_back([&, s](std::stop_token stop) {
            TcpClient client(port);
            client.send("p load/g" + std::to_string(s) + "/*\r\nr 0\r\n");
            while (!stop.stop_requested()) {
                repeatedBytes += static_cast<long long>(client.readFor(50ms).size());
            }
            client.send("q\r\n");
            client.readFor(30000ms);
            sessionsEndedOnQuit += client.peerClosed() ? 1 : 0;
        });
    }
    std::atomic<int> succeeded{0};
    {
        std::vector<std::jthread> clients;
        for (int c = 0; c < 200; ++c) {
            clients.emplace_back([&, c] {
                for (int r = 0; r < requestsPerClient; ++r) {
                    try {
                        TcpClient client(port);
                        client.send("GET /?filter=load/**&format=json HTTP/1.1\r\n\r\n");
                        const std::string response = client.readHttpResponse(30000ms);
                        const std::string body = HttpBody(response);
                        // Every response is whole; every 25th is parsed.
                        succeeded +=
                            response.starts_with("HTTP/1.1 200 OK\r\n") &&
                            body.ends_with("}\r\n") &&
                            ((c + r) % 25 != 0 || nlohmann::json::parse(body).size() == 1000);
                    } catch (const std::exception&) {
                        // not counted as succeeded
                    }
                }
            });
        }
    }
    sessions.clear();  // stops and joins them
    EXPECT_EQ(succeeded, 200 * requestsPerClient);
    EXPECT_EQ(sessionsEndedOnQuit, 10);
    EXPECT_GT(repeatedBytes, 0);

    // Once every connection has closed, the server's memory returns near where it started.
    long long resident = 0;
    TesselTest::eventually(
        [&] {
            resident = TesselTest::ResidentBytes(peer->pid());
            return kSanitized || resident - residentAtStart < 20LL << 20;
        },
        5000ms, 100ms);
    std::cout << "server resident memory: " << (residentAtStart >> 10) << " KiB at start, "
              << (resident >> 10) << " KiB after the load" << std::endl;
    EXPECT_TRUE(kSanitized || resident - residentAtStart < 20LL << 20)
        << "at start " << residentAtStart << ", at end " << resident;
    EXPECT_EQ(peer->finish(), 0);
}

}  // namespace
