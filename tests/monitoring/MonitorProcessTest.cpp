// The process monitor's element tree and cycle, its stack traces, and the duration counters.
#include "tessel/monitoring/MonitorProcess.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "monitoring/MonitorTestSupport.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/NetworkClient.h"
#include "support/ParkedThread.h"
#include "tessel/host/Registry.h"
#include "tessel/host/TempDirectory.h"
#include "tessel/monitoring/ProcessingTimeMonitorCounters.h"
#include "tessel/platform/ExecutableVersion.h"
#include "tessel/platform/Process.h"

TESSEL_EXECUTABLE_VERSION("7.7.0.9062")

// Runs single cycles of a monitor that was not started.
class MonitorProcessTestAccess {
  public:
    static void updateOnce(MonitorProcess& monitor) { monitor.updateOnce(); }
};

namespace {

using namespace MonitorTest;
using testing::HasSubstr;

using namespace std::chrono_literals;
using Elements = std::map<std::string, CMonitorElement>;
using TesselTest::eventually;
using TesselTest::ParkedThread;

// Copies of every element, by path.
Elements snapshot() {
    struct Copies : CMonitorElementObserver {
        void beginUpdate() override {}
        void updateElement(CMonitorElement& element) override {
            seen.emplace(element.getPath(), element);
        }
        void endUpdate() override {}
        Elements seen;
    } observer;
    observer.setFilter("**");
    db().update(observer);
    return observer.seen;
}

// The value of the element at path; a failure and NaN when there is none.
double valueOf(const Elements& all, const std::string& path) {
    const auto found = all.find(path);
    EXPECT_NE(found, all.end()) << path;
    return found == all.end() ? std::numeric_limits<double>::quiet_NaN() : found->second.get();
}

// "name[ unit]" of every element under prefix.
std::set<std::string> tree(const Elements& all, const std::string& prefix) {
    std::set<std::string> entries;
    for (const auto& [path, element] : all) {
        if (path.starts_with(prefix)) {
            const std::string unit = element.getUnit();
            entries.insert(path.substr(prefix.size()) + (unit.empty() ? "" : " " + unit));
        }
    }
    return entries;
}

std::size_t liveThreads() {
    return static_cast<std::size_t>(
        std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}));
}

TEST(MonitorProcess, CyclesPublishDriveDTheLoopbackDeviceAndTheDumpFiles) {
    // The second temp directory is read from the registry once per process.
    char secondTemplate[] = "/tmp/tessel-ondrel-XXXXXX";
    ASSERT_NE(::mkdtemp(secondTemplate), nullptr);
    const std::string second = std::string(secondTemplate) + "/";
    REG::Write("SOFTWARE\\Tarvo Works\\GPS Velkor\\ONDREL", "TempPath", second.c_str());
    const std::string temp = CTempDirectory::GetTempDirectory();
    MonitorProcess monitor;
    MonitorProcessTestAccess::updateOnce(monitor);
    Elements all = snapshot();

    // Drive d: is the temp directory's file system when that is another mount, else 0.
    struct stat rootStat, tempStat;
    struct statvfs tempFs;
    ASSERT_TRUE(::stat("/", &rootStat) == 0 && ::stat(temp.c_str(), &tempStat) == 0 &&
                ::statvfs(temp.c_str(), &tempFs) == 0);
    const bool ownMount = rootStat.st_dev != tempStat.st_dev;
    const std::uint64_t size = static_cast<std::uint64_t>(tempFs.f_blocks) * tempFs.f_frsize;
    EXPECT_EQ(valueOf(all, "Server/Dev/D/Total"), ownMount ? static_cast<double>(size >> 20) : 0.0);
    if (!ownMount) {
        EXPECT_EQ(valueOf(all, "Server/Dev/D/Free"), 0.0);
        EXPECT_EQ(valueOf(all, "Server/Dev/D/Used"), 0.0);
    }

    const std::string lo = "Server/Net/Loopback" + std::to_string(::if_nametoindex("lo")) + "/";
    EXPECT_EQ(tree(all, lo),
              (std::set<std::string>{"Upload kB", "Download kB", "UpLoadSpeed kB/s",
                                     "DownLoadSpeed kB/s", "Bandwidth kB/s", "Mtu bytes"}));
    const double uploadBefore = valueOf(all, lo + "Upload");
    ASSERT_TRUE(TesselTest::SendOverLoopback(10240, 20));  // 200 kB
    const auto touch = [](const std::string& path) { std::ofstream(path) << "x"; };
    for (const char* name : {"a.dmp", "b.dmp", "c_FULLMEM.dmp", "d.txt", "e.dmp.bak", "fdmp"}) {
        touch(temp + name);
    }
    std::filesystem::create_directory(temp + "sub");
    touch(temp + "sub/g.dmp");  // not directly in the folder
    EXPECT_EQ(valueOf(all, "Server/DumpCount"), 0.0);
    MonitorProcessTestAccess::updateOnce(monitor);
    all = snapshot();
    // The 32-bit counter may wrap in between, which the test cannot tell from a fault.
    const double uploadAfter = valueOf(all, lo + "Upload");
    if (uploadAfter >= uploadBefore) {
        EXPECT_GE(uploadAfter - uploadBefore, 190.0);
        EXPECT_GT(valueOf(all, lo + "UpLoadSpeed"), 0.0);
    }

    // DumpCount counts the .dmp files directly in both temp directories.
    EXPECT_EQ(valueOf(all, "Server/DumpCount"), 3.0);
    touch(second + "h.dmp");
    touch(second + "i.log");
    MonitorProcessTestAccess::updateOnce(monitor);
    EXPECT_EQ(valueOf(snapshot(), "Server/DumpCount"), 4.0);
    // A temp directory that cannot be listed: the exception is logged and 0 stored.
    TesselTest::LogCapture log;
    touch(temp + "not-a-folder");
    CTempDirectory::SetTempDirectory(temp + "not-a-folder");
    MonitorProcess broken;
    CTempDirectory::SetTempDirectory(temp);
    MonitorProcessTestAccess::updateOnce(broken);
    EXPECT_EQ(valueOf(snapshot(), "Server/DumpCount"), 0.0);
    EXPECT_THAT(log.text(), HasSubstr("[MonitorProcess::updateDumpCounter] Exception: "));
    std::filesystem::remove_all(second);
}

TEST(MonitorProcess, ThreadElementsFollowTheThreadsAndGoWithTheMonitor) {
    const std::uint64_t elementsBefore = db().getLocalElementCount();
    auto monitor = std::make_unique<MonitorProcess>();
    std::atomic<long> busyId{0};
    std::jthread busy([&](std::stop_token stop) {
        busyId = static_cast<long>(Tessel::Platform::GetCurrentThreadId());
        while (!stop.stop_requested()) {
        }
    });
    ASSERT_TRUE(eventually([&] { return busyId != 0; }));
    const std::string busyThread = own("Threads/" + std::to_string(busyId) + "/");
    const std::string threadCount = own("ProcessInfo/Stats/ThreadCount");
    MonitorProcessTestAccess::updateOnce(*monitor);
    Elements all = snapshot();
    EXPECT_EQ(tree(all, busyThread), std::set<std::string>{"Load %"});
    EXPECT_GE(valueOf(all, busyThread + "Load"), 0.0);
    const double count = valueOf(all, threadCount);
    EXPECT_EQ(count, static_cast<double>(liveThreads()));
    // A load is the share of one processor between two samples; a spinning thread shows one
    // once it has been given a clock tick.
    EXPECT_TRUE(eventually(
        [&] {
            MonitorProcessTestAccess::updateOnce(*monitor);
            return valueOf(snapshot(), busyThread + "Load") > 0.0;
        },
        20s, 50ms));
    busy.request_stop();
    busy.join();
    // After a join the kernel may list a thread for a moment longer.
    const std::string task = "/proc/self/task/" + std::to_string(busyId);
    ASSERT_TRUE(eventually([&] { return ::access(task.c_str(), F_OK) != 0; }));
    MonitorProcessTestAccess::updateOnce(*monitor);
    all = snapshot();
    EXPECT_EQ(all.count(busyThread + "Load"), 0u);
    EXPECT_EQ(valueOf(all, threadCount), count - 1);
    // The monitor removes every element of its tree.
    EXPECT_GT(db().getLocalElementCount(), elementsBefore + 40);
    monitor.reset();
    EXPECT_EQ(db().getLocalElementCount(), elementsBefore);
}

// The second init replaces the first monitor. Its tree is published with its units, its
// cycles count UpTime one by one, stop cuts the pause short, and the thread ids of its Load
// elements give Backtrace the traces.
TEST(MonitorProcess, InitTwicePublishesOneTreeWhoseCyclesCountUntilItStops) {
    ParkedThread parked;
    MonitorElementDatabase::init("MpFirst");
    ASSERT_NE(db().getProcessMonitor(), nullptr);
    MonitorElementDatabase::init("MpSecond");
    MonitorProcess* monitor = db().getProcessMonitor();
    ASSERT_NE(monitor, nullptr);
    const auto upTime = [] {
        return valueOf(snapshot(), own("ProcessInfo/Stats/UpTime", "MpSecond"));
    };
    std::vector<double> seen{upTime()};
    ASSERT_TRUE(eventually(
        [&] {
            const double now = upTime();
            if (now != seen.back()) {
                seen.push_back(now);
            }
            return now >= 2.0;
        },
        20s));
    // UpTime has just counted: the cycle that follows runs now or has ended and paused.
    const Elements all = snapshot();
    const std::size_t threads = liveThreads();
    monitor->stop();
    // The update thread has been joined. A stop that waited for the pause to end would return
    // a second or more after the last heartbeat.
    EXPECT_LT(db().findOrAdd("/" + own("ProcessInfo/Stats/HeartBeat", "MpSecond"), "")
                  ->getTimeDiffFromStart(),
              1.0);
    monitor->stop();
    ASSERT_EQ(seen.front(), 0.0);
    for (std::size_t i = 1; i < seen.size(); ++i) {
        EXPECT_EQ(seen[i], seen[i - 1] + 1.0);
    }
    for (const auto& entry : all) {
        EXPECT_EQ(entry.first.find("MpFirst"), std::string::npos) << entry.first;
    }

    EXPECT_THAT(
        tree(all, "Server/"),
        testing::IsSupersetOf(
            {"Stats/CPU %", "Stats/Processors", "Memory/MemoryLoad %", "Memory/TotalPhys MB",
             "Memory/AvailPhys MB", "Memory/TotalPageFile MB", "Memory/AvailPageFile MB",
             "Memory/TotalVirtual MB", "Memory/AvailVirtual MB", "Memory/AvailExtendedVirtual MB",
             "Dev/C/Free %", "Dev/C/Used MB", "Dev/C/Total MB", "Dev/D/Free %", "Dev/D/Used MB",
             "Dev/D/Total MB", "DumpCount"}));
    // Exactly these: one monitor, no second set of names made unique by a suffix.
    const std::string stats = own("ProcessInfo/", "MpSecond");
    EXPECT_EQ(
        tree(all, stats),
        (std::set<std::string>{
            "Stats/ThreadCount", "Stats/HandleCount", "Stats/CPU %", "Stats/UpTime s",
            "Stats/Build", "Stats/ApplicationVersionNumber", "Stats/PID", "Stats/HeartBeat",
            "Memory/PageFaultCount", "Memory/PeakWorkingSetSize MB", "Memory/WorkingSetSize MB",
            "Memory/QuotaPeakPagedPoolUsage MB", "Memory/QuotaPeakNonPagedPoolUsage MB",
            "Memory/QuotaNonPagedPoolUsage MB", "Memory/PagefileUsage MB",
            "Memory/PeakPagefileUsage MB", "Memory/PrivateUsage MB"}));
    // What the monitor computes itself; the first monitor's update thread is gone.
    EXPECT_EQ(valueOf(all, stats + "Stats/ThreadCount"), static_cast<double>(threads));
    EXPECT_EQ(valueOf(all, stats + "Stats/PID"), static_cast<double>(::getpid()));
    EXPECT_EQ(valueOf(all, stats + "Stats/Build"), 9062.0);
    EXPECT_EQ(valueOf(all, stats + "Stats/ApplicationVersionNumber"), 707009062.0);
    EXPECT_EQ(valueOf(all, stats + "Stats/HeartBeat"), 0.0);
    for (const std::string& percent : {stats + "Stats/CPU", std::string("Server/Stats/CPU")}) {
        EXPECT_GE(valueOf(all, percent), 0.0) << percent;
        EXPECT_LE(valueOf(all, percent), 100.0) << percent;
    }
    Tessel::Platform::MEMORYSTATUSEX memory;
    ASSERT_TRUE(Tessel::Platform::GlobalMemoryStatusEx(&memory));
    EXPECT_EQ(valueOf(all, "Server/Memory/TotalPhys"),
              static_cast<double>(memory.ullTotalPhys >> 20));
    struct statvfs root;
    ASSERT_EQ(::statvfs("/", &root), 0);
    const std::uint64_t size = static_cast<std::uint64_t>(root.f_blocks) * root.f_frsize;
    EXPECT_EQ(valueOf(all, "Server/Dev/C/Total"), static_cast<double>(size >> 20));
    EXPECT_LE(valueOf(all, "Server/Dev/C/Free"), 100.0);

    // The trace of a thread's Load element: "#<n>  <name>[ --> <file>][:<line>]" lines, with
    // the blanks of the name removed, then the closing text.
    const std::string text =
        rendered(CMonitorElementObserver::Backtrace,
                 own("Threads/" + std::to_string(parked.id()) + "/Load", "MpSecond"));
    const std::string closing = "\r\n1 record(s) found\r\n";
    ASSERT_TRUE(text.ends_with(closing)) << text;
    std::istringstream trace(text.substr(0, text.size() - closing.size()));
    std::size_t number = 0;
    for (std::string line; std::getline(trace, line); ++number) {
        const std::regex frame("#" + std::to_string(number) + R"(  [^ ]+( --> .+)?\r)");
        EXPECT_TRUE(std::regex_match(line, frame)) << line;
        EXPECT_FALSE(line.ends_with(":0\r")) << line;  // only positive lines
    }
    // Only a build with debug information knows the file and line.
    const std::string parkedFrame = R"(  TesselTest::ParkedThread::waitingInAKnownPlace\(\))";
    EXPECT_TRUE(std::regex_search(
        text, std::regex(parkedFrame +
                         (TESSEL_TEST_DEBUG_INFO ? R"( --> .*/ParkedThread\.cpp:\d+\r)" : ""))))
        << text;
    // An id of 0 and a thread of another process give nothing.
    const long self = static_cast<long>(Tessel::Platform::GetCurrentThreadId());
    const std::pair<long, long> refused[] = {{0, self}, {::getppid(), self}};
    for (const auto& [processId, threadId] : refused) {
        std::ostringstream nothing;
        monitor->getStackTrace(processId, threadId, nothing);
        EXPECT_EQ(nothing.str(), "") << processId << " " << threadId;
    }
}

TEST(ProcessingTimeMonitorCounters, AverageCountAndDurationPerIdSharedByCopies) {
    const std::uint64_t before = db().getLocalElementCount();
    {
        CMonitorElementContainer container("PtCounters");
        ProcessingTimeMonitorCounters counters(container, "Job");
        const auto expectCounters = [](long id, double average, double count, double total) {
            const Elements all = snapshot();
            const std::string base = own("PtCounters/Job" + std::to_string(id) + "/");
            EXPECT_EQ(tree(all, base), (std::set<std::string>{"average t", "count", "duration t"}));
            EXPECT_EQ(valueOf(all, base + "average"), average) << id;
            EXPECT_EQ(valueOf(all, base + "count"), count) << id;
            EXPECT_EQ(valueOf(all, base + "duration"), total) << id;
        };
        counters.UpdateDurationCounters(7, 10);
        expectCounters(7, 10.0, 1.0, 10.0);
        counters.UpdateDurationCounters(7, 20);
        expectCounters(7, 15.0, 2.0, 30.0);
        counters.UpdateDurationCounters(8, 5);
        expectCounters(8, 5.0, 1.0, 5.0);
        ProcessingTimeMonitorCounters copy(counters);
        copy.UpdateDurationCounters(7, 30);
        expectCounters(7, 20.0, 3.0, 60.0);
        EXPECT_EQ(db().getLocalElementCount(), before + 6);  // no second set
    }
    EXPECT_EQ(db().getLocalElementCount(), before);  // the container removes them
}

}  // namespace
