// Rendering and serving the element table: a JSON pass over 10,000 elements against building
// the same text with a plain loop, and a Telnet PRINT of 1,000 elements over loopback from
// request to last byte.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "support/RatioReporter.h"
#include "tessel/monitoring/MonitorElementDatabase.h"
#include "tessel/monitoring/MonitorElementObserver.h"
#include "tessel/monitoring/TelnetServer.h"
#include "tessel/platform/Sockets.h"

namespace {

constexpr int kJsonElements = 10000;
constexpr int kPrintElements = 1000;

// Elements /Json/S<s>/Feed<f>/<name> and /Print/S<s>/<name>, created once.
void populate() {
    static const bool done = [] {
        MonitorElementDatabase& db = MonitorElementDatabase::getInstance();
        const char* names[] = {"EpochsReceived", "BytesReceived", "Latency", "Completeness",
                               "Gaps"};
        for (int i = 0; i < kJsonElements; ++i) {
            db.add("/Json/S" + std::to_string(i / 50) + "/Feed" + std::to_string(i % 10) + "/" +
                       names[i % 5] + std::to_string(i),
                   "ms")
                ->set(i % 3 == 0 ? i * 0.25 : i);
        }
        for (int i = 0; i < kPrintElements; ++i) {
            db.add("/Print/S" + std::to_string(i / 10) + "/" + names[i % 5], "B")->set(i);
        }
        return true;
    }();
    (void)done;
}

class Collector : public CMonitorElementObserver {
  public:
    void updateElement(CMonitorElement& element) override { elements.push_back(element); }
    std::vector<CMonitorElement> elements;
};

std::vector<CMonitorElement> jsonElements() {
    Collector collector;
    collector.setFilter("json/**");
    MonitorElementDatabase::getInstance().update(collector);
    return collector.elements;
}

void Json_Pass(benchmark::State& state) {
    populate();
    std::ostringstream text;
    CMonitorElementObserver observer(&text);
    observer.setMode(CMonitorElementObserver::Json);
    observer.setFilter("json/**");
    for (auto _ : state) {
        text.str(std::string());
        MonitorElementDatabase::getInstance().update(observer);
        benchmark::DoNotOptimize(text.str().size());
    }
    state.counters["bytes"] = static_cast<double>(text.str().size());
}
BENCHMARK(Json_Pass)->Unit(benchmark::kMillisecond);

// The same text from a plain loop over copies of the same elements.
void Baseline_JsonLoop(benchmark::State& state) {
    populate();
    const std::vector<CMonitorElement> elements = jsonElements();
    std::ostringstream text;
    for (auto _ : state) {
        text.str(std::string());
        text << "{";
        bool first = true;
        for (const CMonitorElement& element : elements) {
            if (!first) {
                text << ",";
            }
            first = false;
            text << '"' << element.getPath() << "\":";
            element.printCounterForJSON(text, false);
            text << "\r\n";
        }
        text << "}\r\n";
        benchmark::DoNotOptimize(text.str().size());
    }
    state.counters["bytes"] = static_cast<double>(text.str().size());
}
BENCHMARK(Baseline_JsonLoop)->Unit(benchmark::kMillisecond);

int connectTo(int port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    return fd;
}

// Reads until the received text ends with marker.
void readUntil(int fd, const std::string& marker, std::string& buffer) {
    buffer.clear();
    char chunk[65536];
    while (buffer.size() < marker.size() ||
           buffer.compare(buffer.size() - marker.size(), marker.size(), marker) != 0) {
        const ssize_t n = ::recv(fd, chunk, sizeof(chunk), 0);
        if (n <= 0) {
            return;
        }
        buffer.append(chunk, static_cast<std::size_t>(n));
    }
}

void Telnet_Print1000(benchmark::State& state) {
    populate();
    int port = 0;
    {
        const int probe = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof(address);
        ::bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof(address));
        ::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &size);
        port = ntohs(address.sin_port);
        ::close(probe);
    }
    CTelnetServer server(port, 0);
    server.start();
    const int fd = connectTo(port);
    const std::string prompt = "\r\n" + Tessel::Platform::GetHostName() + "> ";
    const std::string request = "p print/**\r\n";
    std::string reply;
    for (auto _ : state) {
        ::send(fd, request.data(), request.size(), 0);
        readUntil(fd, prompt, reply);
    }
    state.counters["bytes"] = static_cast<double>(reply.size());
    if (reply.find("1000 record(s) found") == std::string::npos) {
        state.SkipWithError("the reply does not hold 1000 records");
    }
    ::close(fd);
}
BENCHMARK(Telnet_Print1000)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    return TesselBench::RunWithRatios(argc, argv,
                                      {
                                          {"Json_Pass", "", 15000000.0},
                                          {"Json_Pass", "Baseline_JsonLoop", 3.0},
                                          {"Telnet_Print1000/real_time", "", 5000000.0},
                                      });
}
