#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "support/NetworkClient.h"
#include "tessel/monitoring/MonitorElementDatabase.h"
#include "tessel/monitoring/TelnetServer.h"

namespace {

// Under a sanitizer every operation is many times slower and the allocator keeps freed memory
// in quarantine: the load test then makes a tenth of the requests and does not judge memory.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

using std::chrono::milliseconds;
using TesselTest::ChildProcess;
using TesselTest::HttpBody;
using TesselTest::TcpClient;

// A monitor server in a second process over elements "/<name>/G<g>/E<i>".
std::unique_ptr<ChildProcess> startPeer(int ownPort, int hostInfoPort, int elements,
                                        const std::string& name) {
    auto peer = std::make_unique<ChildProcess>(
        std::vector<std::string>{TESSEL_MONITOR_SERVER_PEER, std::to_string(ownPort),
                                 std::to_string(hostInfoPort), std::to_string(elements), name});
    const std::string line = peer->readLine(milliseconds(10000));
    if (line != "ready") {
        ADD_FAILURE() << "peer did not start: " << line;
        return nullptr;
    }
    return peer;
}

// Two processes listen on the host info port at once; connections reach both of them.
TEST(TelnetServerHostInfoPort, TwoProcessesServeTheSharedPort) {
    const int hostInfoPort = TesselTest::FreeTcpPort();
    MonitorElementDatabase::getInstance().add("/Here/A", "")->set(1);
    CTelnetServer server(0, hostInfoPort);
    server.start();
    auto peer = startPeer(0, hostInfoPort, 1, "Peer");
    ASSERT_TRUE(peer);

    int here = 0;
    int there = 0;
    for (int i = 0; i < 64 && (here == 0 || there == 0 || i < 16); ++i) {
        TcpClient client(hostInfoPort);
        client.send("GET /?filter=**&format=json HTTP/1.1\r\n\r\n");
        const std::string body = HttpBody(client.readHttpResponse(milliseconds(5000)));
        const nlohmann::json json = nlohmann::json::parse(body);
        here += json.contains("Here/A") ? 1 : 0;
        there += json.contains("Peer/G0/E0") ? 1 : 0;
    }
    EXPECT_GT(here, 0);
    EXPECT_GT(there, 0);
}

// 200 clients make 50 HTTP requests each, every one on a connection of its own, against a
// table of 1,000 elements, while 10 Telnet sessions repeat a command without pause.
TEST(TelnetServerLoad, SlowManyHttpClientsBesideRepeatingSessions) {
    const int requestsPerClient = kSanitized ? 5 : 50;
    const int port = TesselTest::FreeTcpPort();
    auto peer = startPeer(port, 0, 1000, "Load");
    ASSERT_TRUE(peer);
    const long long residentAtStart = TesselTest::ResidentBytes(peer->pid());

    std::atomic<bool> stopSessions{false};
    std::atomic<int> sessionsEndedOnQuit{0};
    std::atomic<long long> repeatedBytes{0};
    std::vector<std::thread> sessions;
    for (int s = 0; s < 10; ++s) {
        sessions.emplace_back([&, s] {
            TcpClient client(port);
            client.send("p load/g" + std::to_string(s) + "/*\r\n");
            client.send("r 0\r\n");
            while (!stopSessions) {
                repeatedBytes += static_cast<long long>(client.readFor(milliseconds(50)).size());
            }
            client.send("q\r\n");
            client.readToEnd(milliseconds(30000));
            if (client.peerClosed()) {
                ++sessionsEndedOnQuit;
            }
        });
    }

    std::atomic<int> succeeded{0};
    std::atomic<int> failed{0};
    std::vector<std::thread> clients;
    for (int c = 0; c < 200; ++c) {
        clients.emplace_back([&, c] {
            for (int r = 0; r < requestsPerClient; ++r) {
                try {
                    TcpClient client(port);
                    client.send("GET /?filter=load/**&format=json HTTP/1.1\r\n\r\n");
                    const std::string response = client.readHttpResponse(milliseconds(30000));
                    const std::string body = HttpBody(response);
                    bool good = response.rfind("HTTP/1.1 200 OK\r\n", 0) == 0 && body.size() > 2 &&
                                body.compare(body.size() - 3, 3, "}\r\n") == 0;
                    if (good && (c + r) % 25 == 0) {
                        good = nlohmann::json::parse(body).size() == 1000;
                    }
                    (good ? succeeded : failed)++;
                } catch (const std::exception&) {
                    ++failed;
                }
            }
        });
    }
    for (std::thread& client : clients) {
        client.join();
    }
    stopSessions = true;
    for (std::thread& session : sessions) {
        session.join();
    }

    EXPECT_EQ(failed, 0);
    EXPECT_EQ(succeeded, 200 * requestsPerClient);
    EXPECT_EQ(sessionsEndedOnQuit, 10);
    EXPECT_GT(repeatedBytes, 0);

    // Once every connection has closed, the server's memory returns near where it started.
    if (kSanitized) {
        EXPECT_EQ(peer->finish(), 0);
        return;
    }
    long long resident = 0;
    for (int i = 0; i < 50; ++i) {
        resident = TesselTest::ResidentBytes(peer->pid());
        if (resident - residentAtStart < 20LL << 20) {
            break;
        }
        std::this_thread::sleep_for(milliseconds(100));
    }
    std::cout << "server resident memory: " << (residentAtStart >> 10) << " KiB at start, "
              << (resident >> 10) << " KiB after the load" << std::endl;
    EXPECT_LT(resident - residentAtStart, 20LL << 20)
        << "at start " << residentAtStart << ", at end " << resident;
    EXPECT_EQ(peer->finish(), 0);
}

}  // namespace
