// CActiveObject: start, stop, exit codes, the published subtree and state, the stop by the
// worker itself, and the two-stage stop of a worker that ignores its stop event.
#include "tessel/threads/ActiveObject.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "tessel/host/Registry.h"
#include "tessel/logging/ILogging.h"
#include "tessel/monitoring/MonitorElementDatabase.h"
#include "tessel/monitoring/MonitorElementObserver.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/Thread.h"

using TesselTest::eventually;
using TesselTest::LogCapture;

namespace {

unsigned long returnSeven(void*) {
    return 7;
}
unsigned long returnZero(void*) {
    return 0;
}

// Ignores every stop request, sleeping in a loop.
unsigned long ignoreStop(void*) {
    while (true) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return 0;
}

// Waits on the object's stop event, as a well-behaved worker does, and notes the state in
// which the stop finds it.
class Cooperative : public CActiveObject {
  public:
    Cooperative() : CActiveObject("Cooperative", &Cooperative::run, this, 1000) {}
    ~Cooperative() override { StopThread(); }
    long state() const { return GetThreadState(); }

    std::atomic<int> runs{0};
    std::atomic<long> stateAtStop{0};

  private:
    static unsigned long run(void* self) {
        auto* me = static_cast<Cooperative*>(self);
        ++me->runs;
        Tessel::Platform::WaitForSingleObject(me->m_hStopEvent, Tessel::Platform::INFINITE);
        me->stateAtStop = me->GetThreadState();
        return 0;
    }
};

// The elements below Threads/: path and value.
std::vector<std::pair<std::string, double>> threadElements() {
    struct Collect : CMonitorElementObserver {
        void updateElement(CMonitorElement& element) override {
            elements.emplace_back(element.getPath(), element.get());
        }
        std::vector<std::pair<std::string, double>> elements;
    } collect;
    collect.setFilter("*/*/Threads/**");
    MonitorElementDatabase::getInstance().update(collect);
    return collect.elements;
}

}  // namespace

TEST(ActiveObject, NeverStartedObject) {
    CActiveObject object("Idle", &returnZero, nullptr, 100);
    EXPECT_EQ(object.StopThread(), 0);
    EXPECT_EQ(object.GetThreadExitCode(), 0xAAAAAAAAu);
    EXPECT_EQ(object.GetWorkerThread(), static_cast<boost::thread::native_handle_type>(-1));
    EXPECT_EQ(object.GetWorkerThreadId(), 0u);
    EXPECT_TRUE(object.IsThreadStoppedOrStopping());
    CActiveObject noFunction("None", nullptr, nullptr, 100);
    EXPECT_EQ(noFunction.StartThread(__FILE__, __LINE__, "test", 0, nullptr, 0), 0);
}

TEST(ActiveObject, NonZeroExitCodeIsReportedAtWarningLevel) {
    const struct {
        CActiveObject::ThreadFunction function;
        unsigned long exitCode;
        const char* log;  // the whole report
    } cases[] = {
        {&returnSeven, 7,
         R"([^\n]* warning \[CActiveObject::StopThread\] BASE\(tessel_threads_tests,\d+\): )"
         R"(ActiveObject stopped Thread\(Worker,Id\[\d+\]\) with exit code 7\(0x7\)\s+)"},
        {&returnZero, 0, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.exitCode);
        // A stop that waited for its time-out instead of joining the ended worker at once
        // would outlast the test's time limit.
        CActiveObject object("Worker", c.function, nullptr, 600000);
        unsigned long id = 0;
        ASSERT_EQ(object.StartThread(__FILE__, __LINE__, "test", 0, &id, 0), 1);
        EXPECT_EQ(id, object.GetWorkerThreadId());
        EXPECT_NE(id, 0u);
        const LogCapture log;
        EXPECT_EQ(object.StopThread(), 1);
        EXPECT_EQ(object.GetThreadExitCode(), c.exitCode);
        EXPECT_TRUE(std::regex_match(log.text(), std::regex(c.log))) << log.text();
        EXPECT_EQ(object.StopThread(), 0) << "the second stop";
    }
}

TEST(ActiveObject, StartWhileRunningChangesNothingAndARestartPublishesANewSubtree) {
    Cooperative object;
    EXPECT_EQ(object.state(), CActiveObject::THREAD_STOPPED);
    unsigned long first = 0, second = 0;
    ASSERT_EQ(object.StartThread(__FILE__, __LINE__, "test",
                                 Tessel::Platform::THREAD_PRIORITY_LOWEST, &first, 0),
              1);
    EXPECT_EQ(object.state(), CActiveObject::THREAD_STARTED);
    EXPECT_EQ(object.IsThreadStarted(), 1);
    EXPECT_EQ(object.StartThread(__FILE__, __LINE__, "test", 0, &second, 0), 1);
    EXPECT_EQ(second, 0u) << "untouched: no second thread was started";
    EXPECT_EQ(Tessel::Platform::GetThreadName(first), "Cooperative");
    const std::string base = "Threads/" + std::to_string(first) + "/";
    auto elements = threadElements();
    ASSERT_EQ(elements.size(), 3u);
    EXPECT_NE(elements[0].first.find(base + "Cooperative"), std::string::npos);
    EXPECT_NE(elements[1].first.find(base + "Priority"), std::string::npos);
    EXPECT_EQ(elements[1].second, Tessel::Platform::THREAD_PRIORITY_LOWEST);
    EXPECT_NE(elements[2].first.find(base + "State"), std::string::npos);
    EXPECT_EQ(elements[2].second, CActiveObject::THREAD_STARTED);

    ASSERT_EQ(object.StopThread(), 1);
    EXPECT_EQ(object.stateAtStop.load(), CActiveObject::THREAD_STOPPING);
    EXPECT_EQ(object.state(), CActiveObject::THREAD_STOPPED);
    EXPECT_EQ(threadElements()[2].second, CActiveObject::THREAD_STOPPED);
    ASSERT_EQ(object.StartThread(__FILE__, __LINE__, "test", 0, &second, 0), 1);
    EXPECT_NE(first, second);
    elements = threadElements();
    ASSERT_EQ(elements.size(), 3u);
    for (const auto& [path, value] : elements) {
        EXPECT_NE(path.find("Threads/" + std::to_string(second) + "/"), std::string::npos) << path;
    }
    EXPECT_TRUE(eventually([&] { return object.runs.load() == 2; }));
}

TEST(ActiveObject, StopByTheWorkerItself) {
    struct Self : CActiveObject {
        Self() : CActiveObject("Self", &Self::run, this, 1000) {}
        ~Self() override { StopThread(); }
        static unsigned long run(void* me) {
            auto* self = static_cast<Self*>(me);
            self->first = self->StopThreadByWorkerThread();
            self->second = self->StopThreadByWorkerThread();
            return 5;
        }
        std::atomic<int> first{-1}, second{-1};
    } object;
    ASSERT_EQ(object.StartThread(__FILE__, __LINE__, "test", 0, nullptr, 0), 1);
    ASSERT_TRUE(eventually([&] { return object.second.load() >= 0; }));
    EXPECT_EQ(object.first.load(), 1);
    EXPECT_EQ(object.second.load(), 0);
    // A start after the worker stopped itself cleans up and starts anew, without the
    // exit-code report of a worker that did not say it would stop.
    const LogCapture log;
    EXPECT_EQ(object.StartThread(__FILE__, __LINE__, "test", 0, nullptr, 0), 1);
    EXPECT_EQ(log.text(), "");
}

TEST(ActiveObject, SecondStageCrashSwitch) {
    const char* const key = "SOFTWARE\\Tarvo Works\\GPS Velkor\\DebugService";
    const struct {
        const char* text;
        bool on;
    } cases[] = {{"true", true}, {"TRUE", true}, {"TrUe", true}, {"yes", false}, {"", false}};
    for (const auto& c : cases) {
        REG::Write(key, "Enable2ndStageCrash", c.text);
        EXPECT_EQ(CActiveObject::IsSecondStageCrashActivated(), c.on) << c.text;
    }
    REG::DeleteEntry(key, "Enable2ndStageCrash");
    REG::WriteLong(key, "Enable2ndStageCrash", 1);
    EXPECT_FALSE(CActiveObject::IsSecondStageCrashActivated());
}

TEST(ActiveObject, SlowWorkerIgnoringItsStopIsEndedInTwoStages) {
    CActiveObject object("Stubborn", &ignoreStop, nullptr, 100);
    ASSERT_EQ(object.StartThread(__FILE__, __LINE__, "test", 0, nullptr, 0), 1);
    const LogCapture capture;
    ILogging::getInstance().log("Test", ILogging::Info, "stop begins");
    EXPECT_EQ(object.StopThread(), 1);
    const std::string log = capture.text();
    EXPECT_EQ(object.GetThreadExitCode(), 0xFFFFFFFFu);
    EXPECT_FALSE(object.IsThreadStarted());

    // The time stamp (hh:mm:ss.mmm) of the line with text, in seconds.
    const auto stamp = [&](const std::string& text) {
        const std::size_t line = log.rfind('\n', log.find(text)) + 1;  // 0 for the first line
        return std::stoi(log.substr(line + 11, 2)) * 3600.0 +
               std::stoi(log.substr(line + 14, 2)) * 60.0 + std::stod(log.substr(line + 17, 6));
    };
    const std::string stage1 = "1.Stage! CActiveObject Thread(Id[";
    const std::string stage2 = "2.Stage! CActiveObject TerminateThread(Id[";
    ASSERT_NE(log.find(" warning [CActiveObject::StopThread] BASE("), std::string::npos) << log;
    ASSERT_NE(log.find(stage1), std::string::npos) << log;
    ASSERT_NE(log.find(stage2), std::string::npos) << log;
    EXPECT_NE(log.find("did not stop within timeout for Stubborn. m_ulStopTimeout = 100\n"),
              std::string::npos);
    EXPECT_NE(log.find("called for class Stubborn. For further analysis activate 2ndStageCrash to "
                       "write dump files.\n"),
              std::string::npos);
    EXPECT_NE(log.find(" error [CActiveObject::StopThread] BASE("), std::string::npos);
    EXPECT_NE(log.find("with exit code 4294967295(0xFFFFFFFF)"), std::string::npos) << log;
    // Stage 1 after the stop time-out, stage 2 after the last chance of 5 seconds.
    EXPECT_GE(stamp(stage1) - stamp("stop begins"), 0.09);
    EXPECT_GE(stamp(stage2) - stamp(stage1), 4.9);
    EXPECT_LT(stamp(stage1) - stamp("stop begins"), stamp(stage2) - stamp(stage1));
}
