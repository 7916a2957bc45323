// CActiveObject: start, stop, exit codes, the published subtree and state, the two-stage stop.
#include "tessel/threads/ActiveObject.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <map>
#include <regex>
#include <string>
#include <thread>

#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "tessel/host/Registry.h"
#include "tessel/logging/ILogging.h"
#include "tessel/monitoring/MonitorElementDatabase.h"
#include "tessel/monitoring/MonitorElementObserver.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/Thread.h"

using namespace std::chrono_literals;
using namespace TesselTest;

// An active object whose thread runs body.
struct Worker : CActiveObject {
    Worker(const char* name, unsigned stopMs, std::function<unsigned long(Worker&)> work)
        : CActiveObject(name, &Worker::run, this, stopMs), body(std::move(work)) {}
    ~Worker() override { StopThread(); }
    static unsigned long run(void* self) {
        return static_cast<Worker*>(self)->body(*static_cast<Worker*>(self));
    }
    using CActiveObject::GetThreadState;
    using CActiveObject::m_hStopEvent;

    std::function<unsigned long(Worker&)> body;
};

// The elements below Threads/: their paths from the thread id on, and their values.
static std::map<std::string, double> threadElements() {
    struct Collect : CMonitorElementObserver {
        void updateElement(CMonitorElement& element) override {
            const std::string path = element.getPath();
            elements[path.substr(path.find("Threads/") + 8)] = element.get();
        }
        std::map<std::string, double> elements;
    } collect;
    collect.setFilter("*/*/Threads/**");
    MonitorElementDatabase::getInstance().update(collect);
    return collect.elements;
}

TEST(ActiveObject, NonZeroExitCodeIsReportedUnlessTheWorkerStoppedItself) {
    // The second run stops itself. A stop that waited for its time-out would outlast the test.
    std::atomic<int> runs{0}, firstStop{-1}, secondStop{-1};
    Worker object("Seven", 600000, [&](Worker& self) {
        if (++runs == 2) {
            firstStop = self.StopThreadByWorkerThread();
            secondStop = self.StopThreadByWorkerThread();
        }
        return 7ul;
    });
    ASSERT_EQ(object.StartThread(__FILE__, __LINE__, "test", 0, nullptr, 0), 1);
    const LogCapture log;
    EXPECT_EQ(object.StopThread(), 1);
    EXPECT_EQ(object.GetThreadExitCode(), 7u);
    const std::regex report(
        R"([^\n]* warning \[CActiveObject::StopThread\] BASE\(tessel_threads_tests,\d+\): )"
        R"(ActiveObject stopped Thread\(Seven,Id\[\d+\]\) with exit code 7\(0x7\)\s+)");
    EXPECT_TRUE(std::regex_match(log.text(), report)) << log.text();
    EXPECT_EQ(object.StopThread(), 0) << "the second stop";

    ASSERT_EQ(object.StartThread(__FILE__, __LINE__, "test", 0, nullptr, 0), 1);
    ASSERT_TRUE(eventually([&] { return secondStop.load() >= 0; }));
    EXPECT_EQ(firstStop.load(), 1);
    EXPECT_EQ(secondStop.load(), 0);
    // The next start cleans up without reporting the exit code of a worker that stopped itself.
    const LogCapture quiet;
    EXPECT_EQ(object.StartThread(__FILE__, __LINE__, "test", 0, nullptr, 0), 1);
    EXPECT_EQ(quiet.text(), "");
}

TEST(ActiveObject, WorkerIsPublishedWhileItRunsAndEndsAtItsStopEvent) {
    CActiveObject noFunction("None", nullptr, nullptr, 100);
    EXPECT_EQ(noFunction.StartThread(__FILE__, __LINE__, "test", 0, nullptr, 0), 0);
    std::atomic<int> runs{0};
    std::atomic<long> stateAtStop{0};
    Worker object("Cooperative", 1000, [&](Worker& self) {
        ++runs;
        Tessel::Platform::WaitForSingleObject(self.m_hStopEvent, Tessel::Platform::INFINITE);
        stateAtStop = self.GetThreadState();
        return 0ul;
    });
    EXPECT_EQ(object.GetThreadState(), CActiveObject::THREAD_STOPPED) << "never started";
    EXPECT_EQ(object.StopThread(), 0);
    EXPECT_EQ(object.GetThreadExitCode(), 0xAAAAAAAAu);
    EXPECT_EQ(object.GetWorkerThread(), static_cast<boost::thread::native_handle_type>(-1));

    unsigned long first = 0, second = 0;
    const int lowest = Tessel::Platform::THREAD_PRIORITY_LOWEST;
    ASSERT_EQ(object.StartThread(__FILE__, __LINE__, "test", lowest, &first, 0), 1);
    EXPECT_EQ(first, object.GetWorkerThreadId());
    EXPECT_NE(first, 0u);
    EXPECT_EQ(object.IsThreadStarted(), 1);
    EXPECT_EQ(object.StartThread(__FILE__, __LINE__, "test", 0, &second, 0), 1);
    EXPECT_EQ(second, 0u) << "untouched: no second thread was started";
    EXPECT_EQ(Tessel::Platform::GetThreadName(first), "Cooperative");
    const std::string base = std::to_string(first) + "/";
    auto elements = threadElements();
    EXPECT_EQ(elements.size(), 3u);
    EXPECT_EQ(elements.count(base + "Cooperative"), 1u);
    EXPECT_EQ(elements[base + "Priority"], lowest);
    EXPECT_EQ(elements[base + "State"], CActiveObject::THREAD_STARTED);

    const LogCapture log;
    ASSERT_EQ(object.StopThread(), 1);
    EXPECT_EQ(log.text(), "") << "an exit code of 0 is not reported";
    EXPECT_EQ(object.GetThreadExitCode(), 0u);
    EXPECT_EQ(stateAtStop.load(), CActiveObject::THREAD_STOPPING);
    EXPECT_EQ(object.GetThreadState(), CActiveObject::THREAD_STOPPED);

    // A restart gets a new thread and a new subtree.
    ASSERT_EQ(object.StartThread(__FILE__, __LINE__, "test", 0, &second, 0), 1);
    EXPECT_NE(first, second);
    elements = threadElements();
    EXPECT_EQ(elements.size(), 3u);
    for (const auto& [path, value] : elements) {
        EXPECT_TRUE(path.starts_with(std::to_string(second) + "/")) << path;
    }
    EXPECT_TRUE(eventually([&] { return runs.load() == 2; }));
}

TEST(ActiveObject, SlowWorkerIgnoringItsStopIsEndedInTwoStagesWithoutACrashUnlessSwitchedOn) {
    Worker object("Stubborn", 100, [](Worker&) -> unsigned long {
        while (true) {
            std::this_thread::sleep_for(10ms);
        }
    });
    ASSERT_EQ(object.StartThread(__FILE__, __LINE__, "test", 0, nullptr, 0), 1);
    const LogCapture capture;
    ILogging::getInstance().log("Test", ILogging::Info, "stop begins");
    EXPECT_EQ(object.StopThread(), 1);
    EXPECT_EQ(object.GetThreadExitCode(), 0xFFFFFFFFu);
    EXPECT_FALSE(object.IsThreadStarted());

    const std::string log = capture.text();
    const char* const stage1 = "1.Stage! CActiveObject Thread(Id[";
    const char* const stage2 = "2.Stage! CActiveObject TerminateThread(Id[";
    const std::regex stages(
        R"( warning \[CActiveObject::StopThread\] BASE\(\w+,\d+\): 1\.Stage! CActiveObject )"
        R"(Thread\(Id\[\d+\]\) did not stop within timeout for Stubborn\. m_ulStopTimeout = )"
        R"(100\n[\s\S]* error \[CActiveObject::StopThread\] BASE\(\w+,\d+\): 2\.Stage! )"
        R"(CActiveObject TerminateThread\(Id\[\d+\]\) called for class Stubborn\. For further )"
        R"(analysis activate 2ndStageCrash to write dump files\.\n[\s\S]*with exit code )"
        R"(4294967295\(0xFFFFFFFF\))");
    EXPECT_TRUE(std::regex_search(log, stages)) << log;
    // Stage 1 after the stop time-out, stage 2 after the last chance of 5 seconds, by the time
    // stamps (hh:mm:ss.mmm) of the lines.
    const auto stamp = [&](const char* text) {
        const std::size_t line = log.rfind('\n', log.find(text)) + 1;  // 0 for the first line
        return std::stoi(log.substr(line + 11, 2)) * 3600.0 +
               std::stoi(log.substr(line + 14, 2)) * 60.0 + std::stod(log.substr(line + 17, 6));
    };
    EXPECT_GE(stamp(stage1) - stamp("stop begins"), 0.09);
    EXPECT_GE(stamp(stage2) - stamp(stage1), 4.9);
    EXPECT_LT(stamp(stage1) - stamp("stop begins"), stamp(stage2) - stamp(stage1));

    // The switch (off above: no key) is the text TRUE in any case, read anew at each call.
    const char* const key = "SOFTWARE\\Tarvo Works\\GPS Velkor\\DebugService";
    const std::pair<const char*, bool> cases[] = {
        {"true", true}, {"TRUE", true}, {"TrUe", true}, {"yes", false}, {"", false}};
    for (const auto& [text, on] : cases) {
        REG::Write(key, "Enable2ndStageCrash", text);
        EXPECT_EQ(CActiveObject::IsSecondStageCrashActivated(), on) << text;
    }
    REG::DeleteEntry(key, "Enable2ndStageCrash");
    REG::WriteLong(key, "Enable2ndStageCrash", 1);
    EXPECT_FALSE(CActiveObject::IsSecondStageCrashActivated());
}
