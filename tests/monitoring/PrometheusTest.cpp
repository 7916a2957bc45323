// The Prometheus exposition of the element table, read back by the real parsers: promtool of
// Debian's prometheus package and python3-prometheus-client's text parser.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "monitoring/MonitorTestSupport.h"
#include "support/ChildProcess.h"
#include "support/NetworkClient.h"
#include "tessel/monitoring/TelnetServer.h"

namespace {

using MonitorTest::element;
using MonitorTest::own;
using MonitorTest::rendered;
using Mode = CMonitorElementObserver;

// Every sample as python3-prometheus-client's parser reads it: "name{labels} value" lines in
// the order of the text.
const char* const kParse = R"(
import sys
from prometheus_client.parser import text_string_to_metric_families
for family in text_string_to_metric_families(sys.stdin.read()):
    assert family.type == "gauge", family.name
    for sample in family.samples:
        labels = ",".join(k + "=" + v for k, v in sorted(sample.labels.items()))
        print(f"{sample.name}{{{labels}}} {sample.value!r}")
)";

// Paths with blanks, dots, a leading digit, camel case and a reserved suffix, two paths that
// the rule makes one name, a process's own path, NaN and both infinities.
void addAwkwardTable() {
    const double inf = std::numeric_limits<double>::infinity();
    element("Prom/Station 1/Latency", "ms", 12.5);
    element("Prom/Station.1/Latency", "ms", 7);
    element("Prom/9Lives/CPULoad", "%", std::nan(""));
    element("Prom/9Lives/Up", "", inf);
    element("Prom/9Lives/Down", "", -inf);
    element("Prom/Server/DumpCount", "", 3);
    element("Prom/back\\slash", "", 0.1);
    element(own("Prom/Feed/EpochsReceived"), "", 42);
}

TEST(Prometheus, AwkwardPathsGiveUniqueValidNamesThatBothParsersRead) {
    addAwkwardTable();
    const std::string pid = std::to_string(::getpid());
    const std::string text = rendered(Mode::Prometheus, "**prom**");
    EXPECT_EQ(text,
              "# HELP tessel_prom_9_lives_cpu_load Prom/9Lives/CPULoad, in %\n"
              "# TYPE tessel_prom_9_lives_cpu_load gauge\n"
              "tessel_prom_9_lives_cpu_load NaN\n"
              "# HELP tessel_prom_9_lives_down Prom/9Lives/Down\n"
              "# TYPE tessel_prom_9_lives_down gauge\n"
              "tessel_prom_9_lives_down -Inf\n"
              "# HELP tessel_prom_9_lives_up Prom/9Lives/Up\n"
              "# TYPE tessel_prom_9_lives_up gauge\n"
              "tessel_prom_9_lives_up +Inf\n"
              "# HELP tessel_prom_server_dump_count_value Prom/Server/DumpCount\n"
              "# TYPE tessel_prom_server_dump_count_value gauge\n"
              "tessel_prom_server_dump_count_value 3\n"
              "# HELP tessel_prom_station_1_latency Prom/Station 1/Latency, in ms\n"
              "# TYPE tessel_prom_station_1_latency gauge\n"
              "tessel_prom_station_1_latency 12.5\n"
              "# HELP tessel_prom_station_1_latency_2 Prom/Station.1/Latency, in ms\n"
              "# TYPE tessel_prom_station_1_latency_2 gauge\n"
              "tessel_prom_station_1_latency_2 7\n"
              "# HELP tessel_prom_back_slash Prom/back\\\\slash\n"
              "# TYPE tessel_prom_back_slash gauge\n"
              "tessel_prom_back_slash 0.1\n"
              "# HELP tessel_prom_feed_epochs_received Prom/Feed/EpochsReceived\n"
              "# TYPE tessel_prom_feed_epochs_received gauge\n"
              "tessel_prom_feed_epochs_received{process=\"UnknownRootName\",pid=\"" +
                  pid + "\"} 42\n");

    const TesselTest::RunResult promtool = TesselTest::Run({"promtool", "check", "metrics"}, text);
    EXPECT_EQ(promtool.status, 0) << promtool.out << promtool.err;
    const TesselTest::RunResult python = TesselTest::Run({"/usr/bin/python3", "-c", kParse}, text);
    EXPECT_EQ(python.status, 0) << python.err;
    EXPECT_EQ(python.out,
              "tessel_prom_9_lives_cpu_load{} nan\n"
              "tessel_prom_9_lives_down{} -inf\n"
              "tessel_prom_9_lives_up{} inf\n"
              "tessel_prom_server_dump_count_value{} 3.0\n"
              "tessel_prom_station_1_latency{} 12.5\n"
              "tessel_prom_station_1_latency_2{} 7.0\n"
              "tessel_prom_back_slash{} 0.1\n"
              "tessel_prom_feed_epochs_received{pid=" +
                  pid + ",process=UnknownRootName} 42.0\n");
}

// /metrics answers the whole table in the exposition format; format=prometheus takes the
// other parameters as JSON does.
TEST(Prometheus, MetricsPathAndFormatParameterOverHttp) {
    addAwkwardTable();
    const int port = TesselTest::FreeTcpPort();
    CTelnetServer server(port, 0);
    server.start();
    const std::string url = "http://127.0.0.1:" + std::to_string(port);
    const std::string headers =
        TesselTest::RunCaptured("curl -s -D - -o /dev/null --max-time 10 '" + url + "/metrics'");
    EXPECT_NE(headers.find("Content-Type: text/plain; version=0.0.4; charset=utf-8\r\n"),
              std::string::npos)
        << headers;
    EXPECT_EQ(TesselTest::RunCaptured("curl -s --max-time 10 '" + url + "/metrics'"),
              rendered(Mode::Prometheus, "**"));
    EXPECT_EQ(TesselTest::RunCaptured("curl -s --max-time 10 '" + url +
                                      "/?filter=prom/station*/*&format=prometheus&limit=10'"),
              "# HELP tessel_prom_station_1_latency Prom/Station 1/Latency, in ms\n"
              "# TYPE tessel_prom_station_1_latency gauge\n"
              "tessel_prom_station_1_latency 12.5\n");
}

}  // namespace
