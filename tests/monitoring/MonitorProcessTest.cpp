#include "tessel/monitoring/MonitorProcess.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/LogCapture.h"
#include "support/NetworkClient.h"
#include "support/ParkedThread.h"
#include "tessel/host/Registry.h"
#include "tessel/host/TempDirectory.h"
#include "tessel/monitoring/MonitorElementContainer.h"
#include "tessel/monitoring/MonitorElementDatabase.h"
#include "tessel/monitoring/MonitorElementObserver.h"
#include "tessel/monitoring/ProcessingTimeMonitorCounters.h"
#include "tessel/platform/ExecutableVersion.h"
#include "tessel/platform/StackTrace.h"

TESSEL_EXECUTABLE_VERSION("7.7.0.9062")

// Runs single cycles of a monitor that was not started.
class MonitorProcessTestAccess {
  public:
    static void updateOnce(MonitorProcess& monitor) { monitor.updateOnce(); }
};

namespace {

using TesselTest::ParkedThread;

struct Seen {
    double value;
    std::string unit;
};

// Copies every element that a pass hands over.
class CollectingObserver : public CMonitorElementObserver {
  public:
    void beginUpdate() override {}
    void updateElement(CMonitorElement& element) override {
        seen[element.getPath()] = Seen{element.get(), element.getUnit()};
    }
    void endUpdate() override {}
    std::map<std::string, Seen> seen;
};

MonitorElementDatabase& db() {
    return MonitorElementDatabase::getInstance();
}

std::map<std::string, Seen> snapshot() {
    CollectingObserver observer;
    observer.setFilter("**");
    db().update(observer);
    return observer.seen;
}

std::string pid() {
    return std::to_string(::getpid());
}

long threadId() {
    return static_cast<long>(::syscall(SYS_gettid));
}

// The element of the process's own path that ends in "<pid>/<name>", whatever the root name.
const Seen* processElement(const std::map<std::string, Seen>& all, const std::string& name) {
    const std::string tail = "/" + pid() + "/" + name;
    for (const auto& entry : all) {
        if (entry.first.size() > tail.size() &&
            entry.first.compare(entry.first.size() - tail.size(), tail.size(), tail) == 0 &&
            entry.first.find('/') == entry.first.size() - tail.size()) {
            return &entry.second;
        }
    }
    return nullptr;
}

const Seen* serverElement(const std::map<std::string, Seen>& all, const std::string& name) {
    const auto found = all.find("Server/" + name);
    return found == all.end() ? nullptr : &found->second;
}

std::vector<long> liveThreads() {
    std::vector<long> ids;
    DIR* dir = ::opendir("/proc/self/task");
    while (const dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] != '.') {
            ids.push_back(std::atol(entry->d_name));
        }
    }
    ::closedir(dir);
    return ids;
}

long long meminfo(const std::string& key) {
    std::ifstream in("/proc/meminfo");
    std::string line;
    while (std::getline(in, line)) {
        if (line.compare(0, key.size(), key) == 0) {
            return std::atoll(line.c_str() + key.size());
        }
    }
    return -1;
}

// Polls until condition holds; fails the test after 20 s (a safety net, not a measure).
template <typename Condition>
bool eventually(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

// After a join the kernel may list the thread for a moment longer; waits until it does not.
bool goneFromTheKernel(long id) {
    const std::string path = "/proc/self/task/" + std::to_string(id);
    return eventually([&] {
        struct stat st;
        return ::stat(path.c_str(), &st) != 0;
    });
}

double upTime() {
    const auto all = snapshot();
    const Seen* seen = processElement(all, "ProcessInfo/Stats/UpTime");
    return seen == nullptr ? -1.0 : seen->value;
}

// --- the element tree ---

TEST(MonitorProcess, InitPublishesTheWholeTreeWithItsUnits) {
    MonitorElementDatabase::init("MpTree");
    ASSERT_TRUE(eventually([] { return upTime() >= 1.0; }));
    const auto all = snapshot();

    const std::map<std::string, std::string> server = {
        {"Stats/CPU", "%"},
        {"Stats/Processors", ""},
        {"Memory/MemoryLoad", "%"},
        {"Memory/TotalPhys", "MB"},
        {"Memory/AvailPhys", "MB"},
        {"Memory/TotalPageFile", "MB"},
        {"Memory/AvailPageFile", "MB"},
        {"Memory/TotalVirtual", "MB"},
        {"Memory/AvailVirtual", "MB"},
        {"Memory/AvailExtendedVirtual", "MB"},
        {"Dev/C/Free", "%"},
        {"Dev/C/Used", "MB"},
        {"Dev/C/Total", "MB"},
        {"Dev/D/Free", "%"},
        {"Dev/D/Used", "MB"},
        {"Dev/D/Total", "MB"},
        {"DumpCount", ""},
    };
    for (const auto& [name, unit] : server) {
        const Seen* seen = serverElement(all, name);
        ASSERT_NE(seen, nullptr) << name;
        EXPECT_EQ(seen->unit, unit) << name;
    }
    const std::string base = "MpTree/" + pid() + "/";
    const std::map<std::string, std::string> process = {
        {"ProcessInfo/Stats/ThreadCount", ""},
        {"ProcessInfo/Stats/HandleCount", ""},
        {"ProcessInfo/Stats/CPU", "%"},
        {"ProcessInfo/Stats/UpTime", "s"},
        {"ProcessInfo/Stats/Build", ""},
        {"ProcessInfo/Stats/ApplicationVersionNumber", ""},
        {"ProcessInfo/Stats/PID", ""},
        {"ProcessInfo/Stats/HeartBeat", ""},
        {"ProcessInfo/Memory/PageFaultCount", ""},
        {"ProcessInfo/Memory/PeakWorkingSetSize", "MB"},
        {"ProcessInfo/Memory/WorkingSetSize", "MB"},
        {"ProcessInfo/Memory/QuotaPeakPagedPoolUsage", "MB"},
        {"ProcessInfo/Memory/QuotaPeakNonPagedPoolUsage", "MB"},
        {"ProcessInfo/Memory/QuotaNonPagedPoolUsage", "MB"},
        {"ProcessInfo/Memory/PagefileUsage", "MB"},
        {"ProcessInfo/Memory/PeakPagefileUsage", "MB"},
        {"ProcessInfo/Memory/PrivateUsage", "MB"},
    };
    for (const auto& [name, unit] : process) {
        const auto found = all.find(base + name);
        ASSERT_NE(found, all.end()) << name;
        EXPECT_EQ(found->second.unit, unit) << name;
    }
    // Nothing else of the process's statistics, and no name made unique by a suffix.
    for (const auto& entry : all) {
        if (entry.first.rfind(base + "ProcessInfo/", 0) == 0) {
            EXPECT_EQ(process.count(entry.first.substr(base.size())), 1u) << entry.first;
        }
    }

    const auto value = [&](const std::string& name) { return all.at(base + name).value; };
    EXPECT_EQ(value("ProcessInfo/Stats/PID"), static_cast<double>(::getpid()));
    EXPECT_EQ(value("ProcessInfo/Stats/Build"), 9062.0);
    EXPECT_EQ(value("ProcessInfo/Stats/ApplicationVersionNumber"), 707009062.0);
    EXPECT_EQ(value("ProcessInfo/Stats/HeartBeat"), 0.0);
    EXPECT_GE(value("ProcessInfo/Stats/CPU"), 0.0);
    EXPECT_LE(value("ProcessInfo/Stats/CPU"), 100.0);
    EXPECT_GT(value("ProcessInfo/Stats/HandleCount"), 0.0);
    EXPECT_GT(value("ProcessInfo/Memory/WorkingSetSize"), 0.0);
    EXPECT_GE(value("ProcessInfo/Memory/PeakWorkingSetSize"),
              value("ProcessInfo/Memory/WorkingSetSize"));
    EXPECT_GT(value("ProcessInfo/Memory/PageFaultCount"), 0.0);
    EXPECT_EQ(serverElement(all, "Stats/Processors")->value,
              static_cast<double>(::sysconf(_SC_NPROCESSORS_ONLN)));
    EXPECT_NEAR(serverElement(all, "Memory/TotalPhys")->value,
                static_cast<double>(meminfo("MemTotal:") >> 10), 1.0);
    EXPECT_LE(serverElement(all, "Memory/AvailPhys")->value,
              serverElement(all, "Memory/TotalPhys")->value);
    EXPECT_LE(serverElement(all, "Memory/MemoryLoad")->value, 100.0);
    EXPECT_LE(serverElement(all, "Stats/CPU")->value, 100.0);
    EXPECT_GE(serverElement(all, "Stats/CPU")->value, 0.0);

    struct statvfs root;
    ASSERT_EQ(::statvfs("/", &root), 0);
    const std::uint64_t size = static_cast<std::uint64_t>(root.f_blocks) * root.f_frsize;
    EXPECT_EQ(serverElement(all, "Dev/C/Total")->value, static_cast<double>(size >> 20));
    EXPECT_LE(serverElement(all, "Dev/C/Used")->value, serverElement(all, "Dev/C/Total")->value);
    EXPECT_LE(serverElement(all, "Dev/C/Free")->value, 100.0);

    // One Load element per live thread, and ThreadCount counts them.
    const std::vector<long> threads = liveThreads();
    EXPECT_EQ(value("ProcessInfo/Stats/ThreadCount"), static_cast<double>(threads.size()));
    for (const long id : threads) {
        const auto load = all.find(base + "Threads/" + std::to_string(id) + "/Load");
        ASSERT_NE(load, all.end()) << id;
        EXPECT_EQ(load->second.unit, "%");
        EXPECT_GE(load->second.value, 0.0);
    }
}

TEST(MonitorProcess, DriveDIsTheTempDirectorysOtherMountOrStaysZero) {
    struct stat root, temp;
    ASSERT_EQ(::stat("/", &root), 0);
    ASSERT_EQ(::stat(CTempDirectory::GetTempDirectory().c_str(), &temp), 0);
    MonitorProcess monitor;
    MonitorProcessTestAccess::updateOnce(monitor);
    const auto all = snapshot();
    if (root.st_dev == temp.st_dev) {
        EXPECT_EQ(serverElement(all, "Dev/D/Free")->value, 0.0);
        EXPECT_EQ(serverElement(all, "Dev/D/Used")->value, 0.0);
        EXPECT_EQ(serverElement(all, "Dev/D/Total")->value, 0.0);
    } else {
        struct statvfs fs;
        ASSERT_EQ(::statvfs(CTempDirectory::GetTempDirectory().c_str(), &fs), 0);
        const std::uint64_t size = static_cast<std::uint64_t>(fs.f_blocks) * fs.f_frsize;
        EXPECT_EQ(serverElement(all, "Dev/D/Total")->value, static_cast<double>(size >> 20));
    }
}

TEST(MonitorProcess, AThreadThatEndsLosesItsElementInTheNextCycle) {
    MonitorProcess monitor;
    auto parked = std::make_unique<ParkedThread>();
    const std::string load = "Threads/" + std::to_string(parked->id()) + "/Load";
    MonitorProcessTestAccess::updateOnce(monitor);
    auto all = snapshot();
    ASSERT_NE(processElement(all, load), nullptr);
    const double count = processElement(all, "ProcessInfo/Stats/ThreadCount")->value;
    EXPECT_EQ(count, static_cast<double>(liveThreads().size()));

    const long id = parked->id();
    parked.reset();
    ASSERT_TRUE(goneFromTheKernel(id));
    MonitorProcessTestAccess::updateOnce(monitor);
    all = snapshot();
    EXPECT_EQ(processElement(all, load), nullptr);
    EXPECT_EQ(processElement(all, "ProcessInfo/Stats/ThreadCount")->value, count - 1);
}

TEST(MonitorProcess, ABusyThreadShowsItsLoad) {
    MonitorProcess monitor;
    std::atomic<bool> stop{false};
    std::atomic<long> busyId{0};
    std::thread busy([&] {
        busyId = threadId();
        volatile std::uint64_t sink = 0;
        while (!stop) {
            sink = sink + 1;
        }
    });
    ASSERT_TRUE(eventually([&] { return busyId != 0; }));
    const std::string load = "Threads/" + std::to_string(busyId) + "/Load";
    MonitorProcessTestAccess::updateOnce(monitor);
    // Loads are shares of one processor over the time between two samples; a spinning
    // thread shows one once it has been given a clock tick.
    const bool shown = eventually([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        MonitorProcessTestAccess::updateOnce(monitor);
        const auto all = snapshot();
        const Seen* seen = processElement(all, load);
        return seen != nullptr && seen->value > 0.0;
    });
    stop = true;
    busy.join();
    EXPECT_TRUE(shown);
}

// --- dump files ---

void touch(const std::string& path) {
    std::ofstream(path) << "x";
}

TEST(MonitorProcess, DumpCountCountsDmpFilesOfBothTempDirectories) {
    // The second temp directory is read from the registry once per process.
    char secondTemplate[] = "/tmp/tessel-ondrel-XXXXXX";
    ASSERT_NE(::mkdtemp(secondTemplate), nullptr);
    const std::string second = std::string(secondTemplate) + "/";
    REG::Write("SOFTWARE\\Tarvo Works\\GPS Velkor\\ONDREL", "TempPath", second.c_str());
    const bool secondInUse = CTempDirectory::GetOndrelTempDirectory() == second;

    const std::string temp = CTempDirectory::GetTempDirectory();
    MonitorProcess monitor;
    MonitorProcessTestAccess::updateOnce(monitor);
    EXPECT_EQ(serverElement(snapshot(), "DumpCount")->value, 0.0);

    for (const char* name : {"a.dmp", "b.dmp", "c_FULLMEM.dmp", "d.txt", "e.dmp.bak", "fdmp"}) {
        touch(temp + name);
    }
    ::mkdir((temp + "sub").c_str(), 0700);
    touch(temp + "sub/g.dmp");  // not directly in the folder
    MonitorProcessTestAccess::updateOnce(monitor);
    EXPECT_EQ(serverElement(snapshot(), "DumpCount")->value, 3.0);

    touch(second + "h.dmp");
    touch(second + "i.dmp");
    touch(second + "j.log");
    MonitorProcessTestAccess::updateOnce(monitor);
    if (secondInUse) {
        EXPECT_EQ(serverElement(snapshot(), "DumpCount")->value, 5.0);
    } else {
        ADD_FAILURE() << "the temp directories were read before this test; run it alone";
    }
    std::system(("rm -rf " + second).c_str());
}

TEST(MonitorProcess, AnExceptionWhileCountingIsLoggedAndTheCountStored) {
    TesselTest::LogCapture log;
    const std::string temp = CTempDirectory::GetTempDirectory();
    const std::string notAFolder = temp + "not-a-folder";
    touch(notAFolder);
    CTempDirectory::SetTempDirectory(notAFolder);
    MonitorProcess monitor;
    CTempDirectory::SetTempDirectory(temp);

    CMonitorElement* dumpCount = db().findOrAdd("/Server/DumpCount", "");
    dumpCount->set(42.0);
    MonitorProcessTestAccess::updateOnce(monitor);
    EXPECT_EQ(dumpCount->get(), 0.0);
    const std::string text = log.text();
    EXPECT_NE(text.find("[MonitorProcess::updateDumpCounter] Exception: "), std::string::npos)
        << text;
}

// --- heartbeat and uptime ---

TEST(MonitorProcess, EveryCycleRefreshesTheHeartBeat) {
    MonitorProcess monitor;
    const auto all = snapshot();
    ASSERT_NE(processElement(all, "ProcessInfo/Stats/HeartBeat"), nullptr);
    CMonitorElement* heartBeat =
        db().findOrAdd("/UnknownRootName/" + pid() + "/ProcessInfo/Stats/HeartBeat", "");
    const double never = heartBeat->getTimeDiffFromStart();
    MonitorProcessTestAccess::updateOnce(monitor);
    const double first = heartBeat->getTimeDiffFromStart();
    EXPECT_LT(first, never);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const double beforeSecond = heartBeat->getTimeDiffFromStart();
    EXPECT_GT(beforeSecond, first);
    MonitorProcessTestAccess::updateOnce(monitor);
    EXPECT_LT(heartBeat->getTimeDiffFromStart(), beforeSecond);
    EXPECT_EQ(heartBeat->get(), 0.0);
}

TEST(MonitorProcess, UpTimeCountsCyclesOneByOne) {
    MonitorElementDatabase::init("MpUpTime");
    std::vector<double> seen{upTime()};
    ASSERT_TRUE(eventually([&] {
        const double now = upTime();
        if (now != seen.back()) {
            seen.push_back(now);
        }
        return now >= 3.0;
    }));
    ASSERT_EQ(seen.front(), 0.0);
    for (std::size_t i = 1; i < seen.size(); ++i) {
        EXPECT_EQ(seen[i], seen[i - 1] + 1.0);
    }
}

// --- network devices ---

TEST(MonitorProcess, LoopbackDeviceIsPublishedWithItsMtuAndTraffic) {
    const unsigned index = ::if_nametoindex("lo");
    ASSERT_NE(index, 0u);
    const std::string device = "Net/Loopback" + std::to_string(index) + "/";
    MonitorProcess monitor;
    auto all = snapshot();
    const std::map<std::string, std::string> units = {
        {"Upload", "kB"},          {"Download", "kB"},    {"UpLoadSpeed", "kB/s"},
        {"DownLoadSpeed", "kB/s"}, {"Bandwidth", "kB/s"}, {"Mtu", "bytes"},
    };
    for (const auto& [name, unit] : units) {
        const Seen* seen = serverElement(all, device + name);
        ASSERT_NE(seen, nullptr) << name;
        EXPECT_EQ(seen->unit, unit) << name;
    }

    MonitorProcessTestAccess::updateOnce(monitor);
    const double uploadBefore = serverElement(snapshot(), device + "Upload")->value;
    // 200 kB over the loopback device.
    ASSERT_TRUE(TesselTest::SendOverLoopback(10240, 20));
    MonitorProcessTestAccess::updateOnce(monitor);
    all = snapshot();
    std::ifstream mtu("/sys/class/net/lo/mtu");
    double expectedMtu = 0;
    mtu >> expectedMtu;
    EXPECT_EQ(serverElement(all, device + "Mtu")->value, expectedMtu);
    // The 32-bit counter may wrap in between, which the test cannot tell from a fault.
    const double uploadAfter = serverElement(all, device + "Upload")->value;
    if (uploadAfter >= uploadBefore) {
        EXPECT_GE(uploadAfter - uploadBefore, 190.0);
        EXPECT_GT(serverElement(all, device + "UpLoadSpeed")->value, 0.0);
    }
    EXPECT_EQ(serverElement(all, device + "Bandwidth")->value, 0.0);  // no speed of its own
}

// --- stack traces ---

// The lines of a trace, each without its "\r\n"; fails on text that does not end in one.
std::vector<std::string> traceLines(const std::string& text) {
    std::vector<std::string> lines;
    std::size_t position = 0;
    while (position < text.size()) {
        const std::size_t end = text.find("\r\n", position);
        if (end == std::string::npos) {
            ADD_FAILURE() << "line without CR LF: " << text.substr(position);
            break;
        }
        lines.push_back(text.substr(position, end - position));
        position = end + 2;
    }
    return lines;
}

bool allDigits(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// "#<n>  <name without blanks>[ --> <file>][:<line>]" per line, numbered from 0.
void expectWellFormed(const std::string& text) {
    const std::vector<std::string> lines = traceLines(text);
    for (std::size_t number = 0; number < lines.size(); ++number) {
        const std::string& line = lines[number];
        const std::string head = "#" + std::to_string(number) + "  ";
        ASSERT_EQ(line.compare(0, head.size(), head), 0) << line;
        std::string rest = line.substr(head.size());
        const std::size_t arrow = rest.find(" --> ");
        const std::string name = rest.substr(0, arrow);
        EXPECT_FALSE(name.empty()) << line;
        EXPECT_EQ(name.find(' '), std::string::npos) << line;
        if (arrow != std::string::npos) {
            const std::string file = rest.substr(arrow + 5);
            EXPECT_FALSE(file.empty()) << line;
            const std::size_t colon = file.rfind(':');
            if (colon != std::string::npos && allDigits(file.substr(colon + 1))) {
                EXPECT_NE(file[colon + 1], '0') << line;  // only positive lines
            }
        }
    }
}

TEST(MonitorProcess, StackTraceOfAParkedThreadNamesItsFunction) {
    MonitorProcess monitor;
    ParkedThread parked;
    std::ostringstream stream;
    monitor.getStackTrace(::getpid(), parked.id(), stream);
    const std::string text = stream.str();
    ASSERT_FALSE(text.empty());
    EXPECT_EQ(text.rfind("#0  ", 0), 0u) << text;
    expectWellFormed(text);
    // The frame of the known function, with its file and line; its name has no blanks
    // ("(anonymous namespace)" loses its blank too).
    const std::string name = "  TesselTest::ParkedThread::waitingInAKnownPlace() --> ";
    bool found = false;
    for (const std::string& line : traceLines(text)) {
        const std::size_t at = line.find(name);
        if (at == std::string::npos) {
            continue;
        }
        found = true;
        const std::string file = line.substr(at + name.size());
        const std::size_t colon = file.rfind(':');
        ASSERT_NE(colon, std::string::npos) << line;
        EXPECT_NE(file.find("ParkedThread.cpp"), std::string::npos) << line;
        EXPECT_TRUE(allDigits(file.substr(colon + 1))) << line;
    }
    EXPECT_TRUE(found) << text;
}

TEST(MonitorProcess, StackTraceWritesNothingForOtherProcessesAndUnknownThreads) {
    MonitorProcess monitor;
    long ended = 0;
    {
        ParkedThread parked;
        ended = parked.id();
    }
    ASSERT_TRUE(goneFromTheKernel(ended));
    struct Case {
        long processId;
        long threadId;
    };
    const Case cases[] = {
        {0, threadId()},           {::getpid(), 0},     {0, 0},
        {::getppid(), threadId()}, {::getpid(), ended}, {::getpid(), 0x7FFFFF0},
    };
    for (const Case& c : cases) {
        std::ostringstream stream;
        monitor.getStackTrace(c.processId, c.threadId, stream);
        EXPECT_EQ(stream.str(), "") << c.processId << " " << c.threadId;
    }
}

TEST(MonitorProcess, StackTraceOfAThreadThatBlocksTheSignalGivesUpAndTheProcessGoesOn) {
    MonitorProcess monitor;
    ParkedThread blocking(true);
    std::ostringstream stream;
    monitor.getStackTrace(::getpid(), blocking.id(), stream);  // about a second
    EXPECT_EQ(stream.str(), "");
    blocking.release();  // the late signal arrives now and is answered by no one

    ParkedThread other;
    std::ostringstream again;
    monitor.getStackTrace(::getpid(), other.id(), again);
    EXPECT_NE(again.str().find("waitingInAKnownPlace"), std::string::npos) << again.str();
}

// --- start, stop, init ---

TEST(MonitorProcess, StopCutsThePauseShortAndMayBeCalledTwice) {
    MonitorElementDatabase::init("MpStop");
    MonitorProcess* monitor = db().getProcessMonitor();
    ASSERT_NE(monitor, nullptr);
    // ThreadCount is set in step 3 of the first cycle; the heartbeat (step 9) then starts the
    // pause of 1000 ms.
    ASSERT_TRUE(eventually([] {
        const auto all = snapshot();
        const Seen* count = processElement(all, "ProcessInfo/Stats/ThreadCount");
        return count != nullptr && count->value > 0.0;
    }));
    monitor->stop();
    // The update thread has been joined, so its heartbeat time can be read. A stop that
    // waited for the pause to end would return a second or more after the heartbeat.
    CMonitorElement* heartBeat =
        db().findOrAdd("/MpStop/" + pid() + "/ProcessInfo/Stats/HeartBeat", "");
    EXPECT_LT(heartBeat->getTimeDiffFromStart(), 1.0);
    monitor->stop();
}

TEST(MonitorProcess, InitTwiceReplacesTheMonitor) {
    MonitorElementDatabase::init("MpFirst");
    ASSERT_NE(db().getProcessMonitor(), nullptr);
    MonitorElementDatabase::init("MpSecond");
    ASSERT_NE(db().getProcessMonitor(), nullptr);
    // Two cycles: the first may still have seen the first monitor's thread on its way out.
    ASSERT_TRUE(eventually([] { return upTime() >= 2.0; }));
    const auto all = snapshot();
    std::size_t pids = 0;
    for (const auto& entry : all) {
        EXPECT_EQ(entry.first.find("MpFirst"), std::string::npos) << entry.first;
        // One monitor only: no second set of names made unique by a suffix.
        EXPECT_EQ(entry.first.find("ProcessInfo/Stats/CPU0"), std::string::npos);
        if (entry.first.find("ProcessInfo/Stats/PID") != std::string::npos) {
            ++pids;
            EXPECT_EQ(entry.first, "MpSecond/" + pid() + "/ProcessInfo/Stats/PID");
        }
    }
    EXPECT_EQ(pids, 1u);
    // The first monitor's update thread is gone: the threads are this one, the second
    // monitor's, and what the sanitizers run.
    const double threads = processElement(all, "ProcessInfo/Stats/ThreadCount")->value;
    EXPECT_EQ(threads, static_cast<double>(liveThreads().size()));
}

TEST(MonitorProcess, DestroyingTheMonitorRemovesEveryElement) {
    const std::uint64_t before = db().getLocalElementCount();
    {
        ParkedThread parked;
        MonitorProcess monitor;
        MonitorProcessTestAccess::updateOnce(monitor);
        EXPECT_GT(db().getLocalElementCount(), before + 40);
    }
    EXPECT_EQ(db().getLocalElementCount(), before);
}

// --- ProcessingTimeMonitorCounters ---

TEST(ProcessingTimeMonitorCounters, AverageCountAndDurationPerId) {
    CMonitorElementContainer container("PtCounters");
    ProcessingTimeMonitorCounters counters(container, "Job");
    struct Step {
        long id;
        std::uint64_t duration;
        double average;
        double count;
        double total;
    };
    const Step steps[] = {
        {7, 10, 10.0, 1.0, 10.0}, {7, 20, 15.0, 2.0, 30.0}, {8, 5, 5.0, 1.0, 5.0},
        {7, 0, 10.0, 3.0, 30.0},  {8, 6, 5.5, 2.0, 11.0},   {-3, 4, 4.0, 1.0, 4.0},
    };
    for (const Step& step : steps) {
        counters.UpdateDurationCounters(step.id, step.duration);
        const auto all = snapshot();
        const std::string base = "PtCounters/Job" + std::to_string(step.id) + "/";
        const Seen* average = processElement(all, base + "average");
        const Seen* count = processElement(all, base + "count");
        const Seen* duration = processElement(all, base + "duration");
        ASSERT_NE(average, nullptr);
        ASSERT_NE(count, nullptr);
        ASSERT_NE(duration, nullptr);
        EXPECT_EQ(average->value, step.average) << step.id;
        EXPECT_EQ(count->value, step.count) << step.id;
        EXPECT_EQ(duration->value, step.total) << step.id;
        EXPECT_EQ(average->unit, "t");
        EXPECT_EQ(count->unit, "");
        EXPECT_EQ(duration->unit, "t");
    }
}

TEST(ProcessingTimeMonitorCounters, CopiesAddToTheSameCounters) {
    const std::uint64_t before = db().getLocalElementCount();
    {
        CMonitorElementContainer container("PtShared");
        ProcessingTimeMonitorCounters original(container, "Step");
        original.UpdateDurationCounters(7, 10);
        ProcessingTimeMonitorCounters copy(original);
        copy.UpdateDurationCounters(7, 20);
        const auto all = snapshot();
        EXPECT_EQ(processElement(all, "PtShared/Step7/average")->value, 15.0);
        EXPECT_EQ(processElement(all, "PtShared/Step7/count")->value, 2.0);
        EXPECT_EQ(processElement(all, "PtShared/Step7/duration")->value, 30.0);
        EXPECT_EQ(db().getLocalElementCount(), before + 3);  // no second set
    }
    // The container removes the elements.
    EXPECT_EQ(db().getLocalElementCount(), before);
}

}  // namespace
