#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <iomanip>
#include <limits>
#include <sstream>
#include <string>
#include <thread>

#include <unistd.h>

#include "tessel/monitoring/MonitorElementDatabase.h"
#include "tessel/monitoring/MonitorElementObserver.h"

namespace {

using Mode = CMonitorElementObserver::eObserverMode;

MonitorElementDatabase& db() {
    return MonitorElementDatabase::getInstance();
}

CMonitorElement* element(const std::string& absolutePath, const std::string& unit, double value) {
    CMonitorElement* e = db().findOrAdd("/" + absolutePath, unit);
    e->set(value);
    return e;
}

// An observer with its own stream; pass() runs one pass and returns what it wrote.
struct Observed {
    std::ostringstream text;
    CMonitorElementObserver observer{&text};

    Observed(Mode mode, const std::string& filter) {
        observer.setMode(mode);
        observer.setFilter(filter);
    }
    std::string pass() {
        text.str("");
        db().update(observer);
        return text.str();
    }
};

// The print line of a path, number text and unit.
std::string line(const std::string& path, const std::string& number, const std::string& unit) {
    std::ostringstream out;
    out << std::left << std::setw(100) << path << std::right << std::setw(20) << number << ' '
        << unit << "\r\n";
    return out.str();
}

TEST(MonitorElementObserver, PrintWritesPaddedLinesAndTheRecordCount) {
    element("Obs/P/a", "ms", 5);
    element("Obs/P/b", "%", 2.5);
    element("Obs/Q/c", "", 1);
    Observed o(Mode::Print, "obs/p/*");
    EXPECT_EQ(o.pass(), line("Obs/P/a", "5", "ms") + line("Obs/P/b", "2.500000", "%") +
                            "\r\n2 record(s) found\r\n");
}

TEST(MonitorElementObserver, NoMatchGivesTheEmptyFormOfEachMode) {
    element("Obs/E/a", "", 1);
    EXPECT_EQ(Observed(Mode::Print, "nothing").pass(), "\r\n0 record(s) found\r\n");
    EXPECT_EQ(Observed(Mode::Json, "nothing").pass(), "{}\r\n");
    EXPECT_EQ(Observed(Mode::Prtg, "nothing").pass(),
              "{ \"prtg\": { \"result\": [ { \"channel\":\"Channel count\",\"value\": 0}\r\n"
              "] } }\r\n");
    EXPECT_EQ(Observed(Mode::Top, "nothing").pass(), "");
    EXPECT_EQ(Observed(Mode::None, "*").pass(), "");
}

TEST(MonitorElementObserver, JsonHasNoBlanksAndCommasOpenFollowingLines) {
    element("Obs/J/a", "ms", 5);
    element("Obs/J/b", "", 0.25);
    EXPECT_EQ(Observed(Mode::Json, "obs/j/*").pass(),
              "{\"Obs/J/a\":[\"5\",\"ms\"]\r\n,\"Obs/J/b\":[\"0.250000\",\"\"]\r\n}\r\n");
}

TEST(MonitorElementObserver, PrtgListsChannelsAndTheirCount) {
    element("Obs/R/a", "kB", 7);
    element("Obs/R/b", "%", 1.5);
    Observed o(Mode::Prtg, "obs/r/*");
    o.observer.setStripCommonPath(true);
    EXPECT_EQ(o.pass(),
              "{ \"prtg\": { \"result\": [ "
              "{\"channel\": \"a\", \"customunit\": \"kB\", \"float\": 1,\"value\": 7}\r\n"
              ",{\"channel\": \"b\", \"customunit\": \"%\", \"float\": 1,\"value\": 1.500000}\r\n"
              ",{ \"channel\":\"Channel count\",\"value\": 2}\r\n"
              "] } }\r\n");
}

TEST(MonitorElementObserver, StripCommonPathCutsTheSharedLeadingElements) {
    element("Obs/S/x/one", "", 1);
    element("Obs/S/x/two", "", 2);
    element("Obs/S/y/three", "", 3);

    Observed single(Mode::Json, "obs/s/x/one");
    single.observer.setStripCommonPath(true);
    EXPECT_EQ(single.pass(), "{\"one\":[\"1\",\"\"]\r\n}\r\n");

    Observed two(Mode::Json, "obs/s/x/*");
    two.observer.setStripCommonPath(true);
    EXPECT_EQ(two.pass(), "{\"one\":[\"1\",\"\"]\r\n,\"two\":[\"2\",\"\"]\r\n}\r\n");

    Observed all(Mode::Json, "obs/s/**");
    all.observer.setStripCommonPath(true);
    EXPECT_EQ(all.pass(),
              "{\"x/one\":[\"1\",\"\"]\r\n,\"x/two\":[\"2\",\"\"]\r\n,\"y/three\":[\"3\",\"\"]\r\n}"
              "\r\n");
}

// A later, shorter element leaves the rest of the common path in place; the skip length then
// reaches past it and its whole path is shown.
TEST(MonitorElementObserver, ShorterLaterElementKeepsTheCommonPathAndShowsItsWholePath) {
    element("Obs/T/a/b/c/d", "", 1);
    element("Obs/T/a/b/z", "", 2);
    element("Obs/T/a/e", "", 3);
    Observed o(Mode::Json, "obs/t/**");
    o.observer.setStripCommonPath(true);
    // Common path after the first: Obs,T,a,b,c; the second cuts it to Obs,T,a,b; the third
    // (Obs,T,a,e) cuts it to Obs,T,a. Skip = 4+2+2 = 8.
    EXPECT_EQ(o.pass(),
              "{\"b/c/d\":[\"1\",\"\"]\r\n,\"b/z\":[\"2\",\"\"]\r\n,\"e\":[\"3\",\"\"]\r\n}"
              "\r\n");
}

TEST(MonitorElementObserver, TopListsTheTenHighestWithTheLastInsertedOfEqualValuesFirst) {
    for (int i = 0; i < 12; ++i) {
        element("Obs/Top/e" + std::string(1, static_cast<char>('a' + i)), "", i);
    }
    element("Obs/Top/z", "", 11);  // equal to "l", inserted after it (key order)
    std::string expected = line("Obs/Top/z", "11", "") + line("Obs/Top/el", "11", "");
    for (int i = 10; i >= 3; --i) {
        expected +=
            line("Obs/Top/e" + std::string(1, static_cast<char>('a' + i)), std::to_string(i), "");
    }
    EXPECT_EQ(Observed(Mode::Top, "obs/top/*").pass(), expected);

    element("Obs/Few/a", "", 1);
    element("Obs/Few/b", "", 2);
    EXPECT_EQ(Observed(Mode::Top, "obs/few/*").pass(),
              line("Obs/Few/b", "2", "") + line("Obs/Few/a", "1", ""));
}

TEST(MonitorElementObserver, AggregateAddsAsDoublesInTheLastLinesNotation) {
    element("Obs/Agg/a", "", 1);
    element("Obs/Agg/b", "", 2.5);
    EXPECT_EQ(Observed(Mode::Aggregate, "obs/agg/*").pass(),
              line("Obs/Agg/a", "1", "") + line("Obs/Agg/b", "2.500000", "") +
                  "-------------------------\r\nAggregate: 3.500000\r\n");

    element("Obs/Agh/a", "", 0.5);
    element("Obs/Agh/b", "", 3);
    // The last line printed an integer, so the sum comes in the default notation.
    EXPECT_EQ(Observed(Mode::Aggregate, "obs/agh/*").pass(),
              line("Obs/Agh/a", "0.500000", "") + line("Obs/Agh/b", "3", "") +
                  "-------------------------\r\nAggregate: 3.5\r\n");
}

TEST(MonitorElementObserver, ResetShowsTheResetValueAndLeavesTheLiveValues) {
    CMonitorElement* a = element("Obs/Rst/a", "", 5);
    Observed o(Mode::Reset, "obs/rst/*");
    o.observer.setResetValue(0.0);
    EXPECT_EQ(o.pass(), line("Obs/Rst/a", "0", ""));
    EXPECT_EQ(a->get(), 5.0);
    EXPECT_EQ(Observed(Mode::Print, "obs/rst/*").pass(),
              line("Obs/Rst/a", "5", "") + "\r\n1 record(s) found\r\n");
}

TEST(MonitorElementObserver, WatchPrintsOnlyWhatChangedAndNaNAlways) {
    CMonitorElement* a = element("Obs/W/a", "", 1);
    element("Obs/W/b", "", 2);
    element("Obs/W/n", "", std::numeric_limits<double>::quiet_NaN());
    Observed o(Mode::Watch, "obs/w/*");
    const std::string nanLine = line("Obs/W/n", "-9223372036854775808", "");
    EXPECT_EQ(o.pass(), line("Obs/W/a", "1", "") + line("Obs/W/b", "2", "") + nanLine);
    EXPECT_EQ(o.pass(), nanLine);
    a->set(3);
    EXPECT_EQ(o.pass(), line("Obs/W/a", "3", "") + nanLine);
}

TEST(MonitorElementObserver, RateIsZeroFirstThenChangeOverTimeSinceTheFirstPass) {
    CMonitorElement* a = element("Obs/Rate/a", "B", 100);
    Observed o(Mode::Rate, "obs/rate/*");
    EXPECT_EQ(o.pass(), line("Obs/Rate/a", "0", "B"));

    const auto before = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    a->set(300);
    const std::string second = o.pass();
    const double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - before).count();
    ASSERT_EQ(second.size(), 100u + 20u + 2u + 2u) << second;
    EXPECT_EQ(second.substr(0, 10), "Obs/Rate/a");
    const double rate = std::stod(second.substr(100, 20));
    EXPECT_GT(rate, 200.0 / (elapsed + 0.5));
    EXPECT_LE(rate, 200.0 / 0.2);
}

TEST(MonitorElementObserver, RateAfterWatchStartsFromAnUninitialisedEntry) {
    element("Obs/RW/a", "", 10);
    Observed o(Mode::Watch, "obs/rw/*");
    o.pass();
    o.observer.setMode(Mode::Rate);
    EXPECT_EQ(o.pass(), line("Obs/RW/a", "0", ""));
}

TEST(MonitorElementObserver, MinimumValueKeepsEqualValuesAndNaN) {
    element("Obs/Min/a", "", 1);
    element("Obs/Min/b", "", 2);
    element("Obs/Min/n", "", std::numeric_limits<double>::quiet_NaN());
    Observed o(Mode::Json, "obs/min/*");
    o.observer.setMinimumValue(2);
    EXPECT_EQ(o.pass(),
              "{\"Obs/Min/b\":[\"2\",\"\"]\r\n,\"Obs/Min/n\":[\"-9223372036854775808\",\"\"]\r\n}"
              "\r\n");
    o.observer.setMinimumValue(std::numeric_limits<double>::infinity());
    EXPECT_EQ(o.pass(), "{\"Obs/Min/n\":[\"-9223372036854775808\",\"\"]\r\n}\r\n");
}

TEST(MonitorElementObserver, ListShowsProcessesWithUptimeAndHeartbeatThenServerElements) {
    element("Stn/11/ProcessInfo/Stats/UpTime", "s", 90061);  // 1 d 1 h 1 m 1 s
    element("Stn/11/ProcessInfo/Stats/HeartBeat", "", 0)->start();
    element("Old/12/ProcessInfo/Stats/UpTime", "s", 59);
    element("Old/12/ProcessInfo/Stats/HeartBeat", "", 0);  // never started
    element("Server/Stats/CPU", "%", 12);
    element("Server/DumpCount", "", 3);
    element("Server/Memory/TotalPhys", "MB", 4096);  // not in the overview
    Observed o(Mode::List, "*");

    std::ostringstream expected;
    expected << std::left << std::setw(45) << "Old/12"
             << "    0d  0h  0m 59s   [ -- ]\r\n";
    expected << std::left << std::setw(45) << "Stn/11"
             << "    1d  1h  1m  1s   [ UP ]\r\n";
    expected << "\r\n";
    expected << std::left << std::setw(50) << "Server/DumpCount" << std::right << std::setw(20) << 3
             << " \r\n";
    expected << std::left << std::setw(50) << "Server/Stats/CPU" << std::right << std::setw(20)
             << 12 << " %\r\n";
    EXPECT_EQ(o.pass(), expected.str());
}

TEST(MonitorElementObserver, ListWithoutServerElementsEndsWithAnEmptyLine) {
    element("Solo/5/ProcessInfo/Stats/UpTime", "s", 3600);
    std::ostringstream expected;
    expected << std::left << std::setw(45) << "Solo/5"
             << "    0d  1h  0m  0s   [ -- ]\r\n\r\n";
    EXPECT_EQ(Observed(Mode::List, "*").pass(), expected.str());
}

TEST(MonitorElementObserver, BacktraceOfANonNumericPathThrowsTheConversionFailure) {
    element("Obs/Bt/x/y", "", 1);
    Observed o(Mode::Backtrace, "obs/bt/**");
    EXPECT_THROW(o.pass(), std::invalid_argument);
}

TEST(MonitorElementObserver, BacktraceWithoutProcessMonitorWritesOnlyTheClosingText) {
    element("Obs/7/Threads/8/Load", "%", 1);
    EXPECT_EQ(Observed(Mode::Backtrace, "obs/7/threads/*/load").pass(),
              "\r\n1 record(s) found\r\n");
}

}  // namespace

namespace {

// The process monitor's heartbeat and uptime feed the List overview of the process itself,
// while its update thread keeps refreshing them.
TEST(MonitorElementObserver, ListShowsTheOwnProcessUpWhileItsMonitorRuns) {
    MonitorElementDatabase::init("LiveList");
    const std::string process = "LiveList/" + std::to_string(::getpid());
    std::string last;
    bool up = false;
    for (int i = 0; i < 300 && !up; ++i) {
        last = Observed(Mode::List, "*").pass();
        const std::size_t at = last.find(process);
        up = at != std::string::npos && last.find("[ UP ]", at) != std::string::npos;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_TRUE(up) << last;
    EXPECT_NE(last.find("Server/Stats/Processors"), std::string::npos) << last;
}

}  // namespace
