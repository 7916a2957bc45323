#include <gtest/gtest.h>

#include <boost/system/system_error.hpp>
#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/NetworkClient.h"
#include "tessel/host/Registry.h"
#include "tessel/monitoring/MonitorElementDatabase.h"
#include "tessel/monitoring/TelnetServer.h"
#include "tessel/platform/Sockets.h"

namespace {

using std::chrono::milliseconds;
using TesselTest::HttpBody;
using TesselTest::RunCaptured;
using TesselTest::TcpClient;

const std::string CLEAR = "\x1b[2J";

std::string prompt() {
    return "\r\n" + Tessel::Platform::GetHostName() + "> ";
}

CMonitorElement* element(const std::string& absolutePath, const std::string& unit, double value) {
    CMonitorElement* e = MonitorElementDatabase::getInstance().findOrAdd("/" + absolutePath, unit);
    e->set(value);
    return e;
}

// A server on a free port of its own, without host info port, over a small table.
class TelnetServerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        element("Stn/1/Feed/Epochs", "", 7);
        element("Stn/1/Feed/Bytes", "B", 1024);
        element("Stn/1/Feed/Latency", "ms", 12.5);
        element("Stn/2/Feed/Epochs", "", 3);
        port = TesselTest::FreeTcpPort();
        server = std::make_unique<CTelnetServer>(port, 0);
        server->start();
    }

    // A Telnet session: sends line with LF and returns the reply up to the next prompt.
    static std::string command(TcpClient& client, const std::string& line) {
        client.send(line + "\r\n");
        return client.readUntil(prompt(), milliseconds(5000));
    }

    // The raw response to one request sent on a connection of its own.
    std::string request(const std::string& text) {
        TcpClient client(port);
        client.send(text);
        return client.readHttpResponse(milliseconds(5000));
    }

    std::string curl(const std::string& target) {
        return RunCaptured("curl -s -i --max-time 10 'http://127.0.0.1:" + std::to_string(port) +
                           target + "'");
    }

    int port = 0;
    std::unique_ptr<CTelnetServer> server;
};

const std::string HELP =
    "--------------------\r\n"
    "| List of commands | \r\n"
    "--------------------\r\n"
    "(l)list\t\t\t\t - list root elements\r\n"
    "(p)rint <FILTER> \t\t - print values\r\n"
    "(j)son <FILTER> \t\t - print values in JSON format\r\n"
    "(r)epeat [SECONDS=1] \t\t - repeats previous command every [SECONDS]\r\n"
    "(a)ggregate <FILTER> \t\t - aggregate and print values\r\n"
    "(w)atch <FILTER> \t\t - watch values\r\n"
    "(bt)backtrace <FILTER> \t\t - stack trace of given thread and process\r\n"
    "rate <FILTER> \t\t\t - print rate values\r\n"
    "(t)op <FILTER> \t\t\t - print top 10 elements\r\n"
    "reset <FILTER> \t\t\t - reset values\r\n"
    "(q)uit \t\t\t\t - stop telnet session\r\n";

TEST_F(TelnetServerTest, BannerFollowsOneSecondOfSilence) {
    TcpClient client(port);
    EXPECT_EQ(client.readFor(milliseconds(700)), "");
    EXPECT_EQ(client.readUntil(prompt(), milliseconds(3000)),
              CLEAR + "Welcome to Velkor telnet server " + Tessel::Platform::GetHostName() +
                  "\r\n" + prompt());
}

TEST_F(TelnetServerTest, UnknownCommandShowsTheHelpText) {
    TcpClient client(port);
    client.readUntil(prompt(), milliseconds(3000));
    EXPECT_EQ(command(client, "hello"), CLEAR + HELP + prompt());
}

TEST_F(TelnetServerTest, EmptyLineOnAFreshConnectionOnlyClearsAndPrompts) {
    TcpClient client(port);
    EXPECT_EQ(command(client, ""), CLEAR + prompt());
}

// Each command selects its mode and filter; the output is the pass behind a clear-screen.
TEST_F(TelnetServerTest, CommandsRenderTheirModes) {
    struct Case {
        std::string line;
        std::vector<std::string> expected;  // pieces the reply must contain
        std::vector<std::string> absent;
    };
    const std::vector<Case> cases = {
        {"print stn/1/**",
         {"Stn/1/Feed/Bytes", "1024 B", "12.500000 ms", "3 record(s) found"},
         {"Stn/2"}},
        {"p stn/*/feed/epochs",
         {"Stn/1/Feed/Epochs", "Stn/2/Feed/Epochs", "2 record(s) found"},
         {}},
        {"json stn/2/**", {"{\"Stn/2/Feed/Epochs\":[\"3\",\"\"]\r\n}\r\n"}, {}},
        {"top stn/**", {"Stn/1/Feed/Bytes"}, {"record(s) found"}},
        {"aggregate stn/*/feed/epochs", {"-------------------------\r\nAggregate: 10\r\n"}, {}},
        {"rate stn/1/feed/bytes", {"Stn/1/Feed/Bytes", "0 B"}, {}},
        {"watch stn/2/**", {"Stn/2/Feed/Epochs"}, {}},
        {"reset stn/1/feed/bytes", {"Stn/1/Feed/Bytes", "0 B"}, {"1024"}},
        {"print stn/1/feed/bytes extra tokens", {"1024 B", "1 record(s) found"}, {}},
        {"list", {"\r\n"}, {"record(s) found"}},
        {"print", {"0 record(s) found"}, {}},
    };
    TcpClient client(port);
    for (const Case& c : cases) {
        const std::string reply = command(client, c.line);
        EXPECT_EQ(reply.substr(0, 4), CLEAR) << c.line;
        for (const std::string& piece : c.expected) {
            EXPECT_NE(reply.find(piece), std::string::npos)
                << c.line << " lacks " << piece << " in " << reply;
        }
        for (const std::string& piece : c.absent) {
            EXPECT_EQ(reply.find(piece), std::string::npos) << c.line << " has " << piece;
        }
    }
    // The live value is untouched by RESET.
    EXPECT_NE(command(client, "p stn/1/feed/bytes").find("1024 B"), std::string::npos);
}

TEST_F(TelnetServerTest, WatchShowsOnlyChangesAndAnEmptyLineRepeatsTheLastCommand) {
    TcpClient client(port);
    EXPECT_NE(command(client, "w stn/**").find("Stn/2/Feed/Epochs"), std::string::npos);
    EXPECT_EQ(command(client, ""), CLEAR + prompt());
    element("Stn/2/Feed/Epochs", "", 4);
    const std::string changed = command(client, "");
    EXPECT_NE(changed.find("Stn/2/Feed/Epochs"), std::string::npos);
    EXPECT_EQ(changed.find("Stn/1/Feed/Epochs"), std::string::npos);
}

TEST_F(TelnetServerTest, RepeatRunsEverySecondUntilTheNextLine) {
    TcpClient client(port);
    command(client, "p stn/2/**");
    client.send("r\r\n");
    // At once, then once a second; a repeated output has no prompt behind it.
    std::string output = client.readFor(milliseconds(2500));
    std::size_t runs = 0;
    for (std::size_t at = 0; (at = output.find("1 record(s) found", at)) != std::string::npos;
         ++at) {
        ++runs;
    }
    EXPECT_GE(runs, 3u) << output;
    EXPECT_LE(runs, 5u) << output;

    // Enter stops it after running the last command once more.
    EXPECT_NE(command(client, "").find("1 record(s) found"), std::string::npos);
    EXPECT_EQ(client.readFor(milliseconds(1500)), "");
}

TEST_F(TelnetServerTest, RepeatWithAnArgumentThatIsNoNumberRepeatsEverySecond) {
    TcpClient client(port);
    command(client, "p stn/2/**");
    client.send("repeat soon\r\n");
    const std::string output = client.readFor(milliseconds(1600));
    EXPECT_NE(output.find("record(s) found"), output.rfind("record(s) found")) << output;
    command(client, "q");
}

TEST_F(TelnetServerTest, QuitClosesTheConnection) {
    TcpClient client(port);
    command(client, "p stn/2/**");
    client.send("quit\r\n");
    client.readToEnd(milliseconds(3000));
    EXPECT_TRUE(client.peerClosed());
}

TEST_F(TelnetServerTest, ArrowKeysBrowseTheHistoryNewestFirst) {
    TcpClient client(port);
    command(client, "p stn/1/feed/epochs");
    command(client, "p stn/2/feed/epochs");
    const std::string redraw = CLEAR + prompt();
    client.send("\x1b[A");
    EXPECT_EQ(client.readUntil("epochs", milliseconds(3000)), redraw + "p stn/2/feed/epochs");
    client.send("\x1b[A");
    EXPECT_EQ(client.readUntil("epochs", milliseconds(3000)), redraw + "p stn/1/feed/epochs");
    client.send("\x1b[B");
    EXPECT_EQ(client.readUntil("epochs", milliseconds(3000)), redraw + "p stn/2/feed/epochs");
    // Past the newest line the line is empty again.
    client.send("\x1b[B");
    EXPECT_EQ(client.readFor(milliseconds(300)), redraw);
    client.send("\x1b[A\x1b[A");
    client.readFor(milliseconds(300));
    // Enter runs the recalled line.
    const std::string reply = command(client, "");
    EXPECT_NE(reply.find("Stn/1/Feed/Epochs"), std::string::npos);
    EXPECT_EQ(reply.find("Stn/2/Feed/Epochs"), std::string::npos);
}

TEST_F(TelnetServerTest, ArrowKeysOnAnEmptyHistoryDoNothing) {
    TcpClient client(port);
    client.send("\x1b[A\x1b[B");
    EXPECT_EQ(client.readFor(milliseconds(500)), "");
}

TEST_F(TelnetServerTest, BackspaceRemovesTheLastCharacter) {
    TcpClient client(port);
    client.send("p stn/2/feed/epochsX\b");
    EXPECT_EQ(client.readFor(milliseconds(300)), "  \b\b");
    client.send("\b\b\b\b\b\b\b\b\b\b\b\b\b\b\b\b\b\b\b\b");
    client.readFor(milliseconds(300));
    client.send("\b");  // the line is empty now
    EXPECT_EQ(client.readFor(milliseconds(300)), " ");
    EXPECT_EQ(command(client, "p stn/2/feed/epochs").find("Stn/2/Feed/Epochs") != std::string::npos,
              true);
}

TEST_F(TelnetServerTest, HistoryKeepsAtMostOneThousandLines) {
    TcpClient client(port);
    std::string lines;
    for (int i = 0; i < 1001; ++i) {
        lines += "p x" + std::to_string(i) + "\r\n";
    }
    client.send(lines);
    std::string replies;
    for (int i = 0; i < 1001; ++i) {
        replies = client.readUntil(prompt(), milliseconds(5000));
    }
    ASSERT_NE(replies.find("0 record(s) found"), std::string::npos);
    client.send("\x1b[A");
    EXPECT_EQ(client.readUntil("x999", milliseconds(3000)), CLEAR + prompt() + "p x999");
}

TEST_F(TelnetServerTest, BacktraceOfElementsWithoutThreadIdsEndsOnlyThatConnection) {
    TcpClient client(port);
    client.send("bt stn/**\r\n");
    client.readToEnd(milliseconds(3000));
    EXPECT_TRUE(client.peerClosed());
    TcpClient other(port);
    EXPECT_NE(command(other, "p stn/2/**").find("1 record(s) found"), std::string::npos);
}

TEST_F(TelnetServerTest, HttpJsonRequestWithCurlGetsTheTableWithoutBanner) {
    const std::string response = curl("/metrics?filter=stn/**&format=json");
    ASSERT_EQ(response.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << response;
    EXPECT_EQ(response.find("Welcome"), std::string::npos);
    const nlohmann::json body = nlohmann::json::parse(HttpBody(response));
    EXPECT_EQ(body.size(), 4u);
    EXPECT_EQ(body["Stn/1/Feed/Bytes"], nlohmann::json::array({"1024", "B"}));
    EXPECT_EQ(body["Stn/1/Feed/Latency"][0], "12.500000");
    EXPECT_EQ(body["Stn/2/Feed/Epochs"][1], "");
}

// The request line cancels the banner: the response comes alone, and nothing follows it.
TEST_F(TelnetServerTest, RequestWithCrLfIsAnsweredAtTheEmptyLineAndNoBannerFollows) {
    element("Top", "", 5);
    TcpClient client(port);
    client.send("GET /?filter=*&format=json HTTP/1.1\r\nHost: localhost\r\n");
    EXPECT_EQ(client.readFor(milliseconds(300)), "");
    client.send("\r\n");
    const std::string response = client.readHttpResponse(milliseconds(5000));
    EXPECT_EQ(response.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << response;
    // A trailing star matches whatever remains of a path: every element.
    const nlohmann::json body = nlohmann::json::parse(HttpBody(response));
    EXPECT_EQ(body.size(), 5u);
    EXPECT_EQ(body["Top"][0], "5");
    EXPECT_EQ(client.readFor(milliseconds(1500)), "");
}

TEST_F(TelnetServerTest, HttpResponseHeadIsExactAndLengthMatchesTheBody) {
    const std::string response =
        request("GET /?filter=stn/2/**&format=json HTTP/1.1\r\nHost: x\r\n\r\n");
    const std::string body = "{\"Stn/2/Feed/Epochs\":[\"3\",\"\"]\r\n}\r\n";
    EXPECT_EQ(response,
              "HTTP/1.1 200 OK\r\n"
              "Date: \r\n"
              "Server: Velkor Monitoring Framework 7.7.0.9062\r\n"
              "Cache-Control: no-cache, no-store, must-revalidate\r\n"
              "Pragma: no-cache\r\n"
              "Expires: 0\r\n"
              "Content-Type: application/json\r\n"
              "Content-Length: " +
                  std::to_string(body.size()) +
                  "\r\n"
                  "Connection: close\r\n"
                  "\r\n" +
                  body);
}

TEST_F(TelnetServerTest, BadRequestsGetStatus400) {
    const std::vector<std::string> targets = {
        "GET /?format=json HTTP/1.1",                     // no filter
        "GET /?filter=&format=json HTTP/1.1",             // empty filter
        "GET /metrics HTTP/1.1",                          // no '?'
        "GET /?filter=* HTTP/1.1",                        // no format
        "GET /?filter=*&format=JSON HTTP/1.1",            // format compared exactly
        "GET /?filter=*&format=xml HTTP/1.1",             // unknown format
        "GET /?filter=*&format=json&limit=abc HTTP/1.1",  // limit that is no number
        "GET /?filter=*&format=json&truncate=yes HTTP/1.1",
        "GET /?filter=*&format=json",         // no second blank
        "GET",                                // no blank at all
        "GET /?filter&format=json HTTP/1.1",  // a stretch without '=' is skipped
    };
    for (const std::string& target : targets) {
        const std::string response = request(target + "\r\n\r\n");
        EXPECT_EQ(response.rfind("HTTP/1.1 400 Bad Request\r\n", 0), 0u) << target;
        EXPECT_NE(response.find("Content-Type: text/plain\r\n"), std::string::npos) << target;
        EXPECT_EQ(HttpBody(response), "Bad Request") << target;
    }
    const std::string viaCurl = curl("/?format=json");
    EXPECT_EQ(viaCurl.rfind("HTTP/1.1 400 Bad Request\r\n", 0), 0u) << viaCurl;
}

TEST_F(TelnetServerTest, HttpQueryParameters) {
    element("Pct/a%b", "", 1);
    element("Pct/any", "", 2);
    struct Case {
        std::string query;
        std::string body;
    };
    const std::vector<Case> cases = {
        // The minimum value is kept when equal; INFINITY lets nothing finite pass.
        {"filter=stn/*/feed/epochs&format=json&limit=7",
         "{\"Stn/1/Feed/Epochs\":[\"7\",\"\"]\r\n}\r\n"},
        {"filter=stn/**&format=json&limit=INFINITY", "{}\r\n"},
        // Truncate with json cuts the common prefix; prtg truncates unless told not to.
        {"filter=stn/1/feed/epochs&format=json&truncate=1", "{\"Epochs\":[\"7\",\"\"]\r\n}\r\n"},
        {"filter=stn/2/**&format=prtg&truncate=0",
         "{ \"prtg\": { \"result\": [ {\"channel\": \"Stn/2/Feed/Epochs\", \"customunit\": \"\", "
         "\"float\": 1,\"value\": 3}\r\n,{ \"channel\":\"Channel count\",\"value\": 1}\r\n] } "
         "}\r\n"},
        {"filter=stn/2/**&format=prtg",
         "{ \"prtg\": { \"result\": [ {\"channel\": \"Epochs\", \"customunit\": \"\", "
         "\"float\": 1,\"value\": 3}\r\n,{ \"channel\":\"Channel count\",\"value\": 1}\r\n] } "
         "}\r\n"},
        // Nothing is percent-decoded.
        {"filter=pct/a%b&format=json", "{\"Pct/a%b\":[\"1\",\"\"]\r\n}\r\n"},
        {"filter=pct/%2A&format=json", "{}\r\n"},
        // A later parameter of the same name wins; the last '?' starts the query.
        {"filter=nothing&filter=pct/any&format=json", "{\"Pct/any\":[\"2\",\"\"]\r\n}\r\n"},
        {"x=1?filter=pct/any&format=json&other", "{\"Pct/any\":[\"2\",\"\"]\r\n}\r\n"},
    };
    for (const Case& c : cases) {
        const std::string response = request("GET /?" + c.query + " HTTP/1.0\n\n");
        EXPECT_EQ(response.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << c.query;
        EXPECT_EQ(HttpBody(response), c.body) << c.query;
    }
}

TEST_F(TelnetServerTest, MoreInputEndingInAnEmptyLineAnswersTheSameRequestAgain) {
    TcpClient client(port);
    client.send("GET /?filter=stn/2/**&format=json HTTP/1.1\r\n\r\n");
    const std::string first = client.readHttpResponse(milliseconds(5000));
    element("Stn/2/Feed/Epochs", "", 9);
    client.send("anything\r\n\r\n");
    const std::string second = client.readHttpResponse(milliseconds(5000));
    EXPECT_NE(HttpBody(first).find("\"3\""), std::string::npos);
    EXPECT_NE(HttpBody(second).find("\"9\""), std::string::npos);
    // The connection stays open: no end of stream.
    EXPECT_EQ(client.readFor(milliseconds(1500)), "");
    EXPECT_FALSE(client.peerClosed());
}

TEST_F(TelnetServerTest, OverlongRequestIsClosedWithoutResponse) {
    TcpClient client(port);
    const std::string header = "X-Fill: " + std::string(1 << 20, 'a') + "\r\n";
    client.send("GET /?filter=*&format=json HTTP/1.1\r\n");
    for (int i = 0; i < 5; ++i) {
        client.send(header);
    }
    EXPECT_EQ(client.readToEnd(milliseconds(5000)), "");
    EXPECT_TRUE(client.peerClosed());
}

TEST_F(TelnetServerTest, OwnPortInUseFailsInBind) {
    CTelnetServer second(port, 0);
    try {
        second.start();
        FAIL() << "second server on one port started";
    } catch (const boost::system::system_error& e) {
        EXPECT_EQ(std::string(e.what()).rfind("bind", 0), 0u) << e.what();
    }
}

TEST(TelnetServerPorts, RegistryValuesOverrideTheDefaults) {
    const std::string key = "SOFTWARE\\Tarvo Works\\GPS Velkor\\Monitoring";
    EXPECT_EQ(CTelnetServer::getPort(HostInfoPort, 0), 9800);
    EXPECT_EQ(CTelnetServer::getPort(StationWorkerPort, 3), 9801);
    EXPECT_EQ(CTelnetServer::getPort(ReachabilityPort, 0), 9841);
    EXPECT_EQ(CTelnetServer::getPort(CoordinatorPort, 0), 9812);
    EXPECT_EQ(CTelnetServer::getPort(CoordinatorPort, 2), 9814);
    ASSERT_TRUE(REG::WriteLong(key, "StationWorkerPort", 19801));
    ASSERT_TRUE(REG::WriteLong(key, "CoordinatorPort", 19812));
    EXPECT_EQ(CTelnetServer::getPort(StationWorkerPort, 0), 19801);
    EXPECT_EQ(CTelnetServer::getPort(CoordinatorPort, 2), 19812);  // not offset
    EXPECT_EQ(CTelnetServer::getPort(SolutionWorkerPort, 0), 9802);
}

}  // namespace
