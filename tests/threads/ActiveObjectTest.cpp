#include "tessel/threads/ActiveObject.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "support/LogCapture.h"
#include "support/ScratchRegistry.h"
#include "tessel/host/Registry.h"
#include "tessel/logging/ILogging.h"
#include "tessel/monitoring/MonitorElementDatabase.h"
#include "tessel/monitoring/MonitorElementObserver.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/Thread.h"

namespace {

unsigned long returnSeven(void*) {
    return 7;
}
unsigned long returnZero(void*) {
    return 0;
}

// Waits on the object's stop event, as a well-behaved worker does.
class Cooperative : public CActiveObject {
  public:
    Cooperative() : CActiveObject("Cooperative", &Cooperative::run, this, 1000) {}
    ~Cooperative() override { StopThread(); }

    std::atomic<int> runs{0};

  private:
    static unsigned long run(void* self) {
        auto* me = static_cast<Cooperative*>(self);
        ++me->runs;
        Tessel::Platform::WaitForSingleObject(me->m_hStopEvent, Tessel::Platform::INFINITE);
        return 0;
    }
};

// Ignores every stop request, sleeping in a loop.
unsigned long ignoreStop(void*) {
    while (true) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return 0;
}

// The paths of the elements below Threads/.
std::vector<std::string> threadElements() {
    struct Collect : CMonitorElementObserver {
        void updateElement(CMonitorElement& element) override {
            paths.push_back(element.getPath());
        }
        std::vector<std::string> paths;
    } collect;
    collect.setFilter("*/*/Threads/**");
    MonitorElementDatabase::getInstance().update(collect);
    return collect.paths;
}

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

TEST(ActiveObject, WorkerThatReturnsSevenIsReportedAtWarningLevel) {
    CActiveObject object("Seven", &returnSeven, nullptr, 1000);
    unsigned long id = 0;
    ASSERT_EQ(object.StartThread(__FILE__, __LINE__, "test", 0, &id, 0), 1);
    EXPECT_EQ(id, object.GetWorkerThreadId());
    EXPECT_NE(id, 0u);
    TesselTest::LogCapture logCapture1;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(object.StopThread(), 1);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));  // joined at once
    const std::string log = logCapture1.text();
    EXPECT_EQ(object.GetThreadExitCode(), 7u);
    EXPECT_TRUE(std::regex_search(
        log,
        std::regex(R"( warning \[CActiveObject::StopThread\] BASE\(tessel_threads_tests,\d+\): )"
                   R"(ActiveObject stopped Thread\(Seven,Id\[\d+\]\) with exit code 7\(0x7\))")))
        << log;
    EXPECT_EQ(object.StopThread(), 0);  // the second stop
}

TEST(ActiveObject, WorkerThatReturnsZeroIsNotReported) {
    CActiveObject object("Zero", &returnZero, nullptr, 1000);
    ASSERT_EQ(object.StartThread(__FILE__, __LINE__, "test", 0, nullptr, 0), 1);
    TesselTest::LogCapture logCapture2;
    EXPECT_EQ(object.StopThread(), 1);
    EXPECT_EQ(logCapture2.text(), "");
    EXPECT_EQ(object.GetThreadExitCode(), 0u);
}

TEST(ActiveObject, StartOfARunningObjectChangesNothing) {
    Cooperative object;
    unsigned long first = 0, second = 0;
    ASSERT_EQ(object.StartThread(__FILE__, __LINE__, "test", 0, &first, 0), 1);
    EXPECT_EQ(object.StartThread(__FILE__, __LINE__, "test", 0, &second, 0), 1);
    EXPECT_EQ(second, 0u);  // untouched: no second thread was started
    EXPECT_EQ(object.IsThreadStarted(), 1);
    EXPECT_EQ(object.StopThread(), 1);
    EXPECT_EQ(object.runs.load(), 1);
}

TEST(ActiveObject, RestartPublishesANewSubtree) {
    Cooperative object;
    unsigned long first = 0, second = 0;
    ASSERT_EQ(object.StartThread(__FILE__, __LINE__, "test",
                                 Tessel::Platform::THREAD_PRIORITY_LOWEST, &first, 0),
              1);
    const std::string base = "Threads/" + std::to_string(first) + "/";
    std::vector<std::string> elements = threadElements();
    ASSERT_EQ(elements.size(), 3u);
    EXPECT_NE(elements[0].find(base + "Cooperative"), std::string::npos);
    EXPECT_NE(elements[1].find(base + "Priority"), std::string::npos);
    EXPECT_NE(elements[2].find(base + "State"), std::string::npos);
    EXPECT_EQ(Tessel::Platform::GetThreadName(first), "Cooperative");

    ASSERT_EQ(object.StopThread(), 1);
    ASSERT_EQ(object.StartThread(__FILE__, __LINE__, "test", 0, &second, 0), 1);
    EXPECT_NE(first, second);
    elements = threadElements();
    ASSERT_EQ(elements.size(), 3u);
    for (const std::string& path : elements) {
        EXPECT_NE(path.find("Threads/" + std::to_string(second) + "/"), std::string::npos) << path;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (object.runs.load() < 2 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(object.runs.load(), 2);
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
    while (object.second.load() < 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(object.first.load(), 1);
    EXPECT_EQ(object.second.load(), 0);
    // A start after the worker stopped itself cleans up and starts anew, without the
    // exit-code message of a worker that did not say it would stop.
    TesselTest::LogCapture logCapture3;
    EXPECT_EQ(object.StartThread(__FILE__, __LINE__, "test", 0, nullptr, 0), 1);
    EXPECT_EQ(logCapture3.text(), "");
}

TEST(ActiveObject, SecondStageCrashSwitch) {
    TesselTest::UseScratchRegistry();
    const char* const key = "SOFTWARE\\Tarvo Works\\GPS Velkor\\DebugService";
    struct {
        const char* text;
        bool on;
    } const cases[] = {{"true", true}, {"TRUE", true}, {"TrUe", true}, {"yes", false}, {"", false}};
    for (const auto& c : cases) {
        REG::Write(key, "Enable2ndStageCrash", c.text);
        EXPECT_EQ(CActiveObject::IsSecondStageCrashActivated(), c.on) << c.text;
    }
    REG::DeleteEntry(key, "Enable2ndStageCrash");
    REG::WriteLong(key, "Enable2ndStageCrash", 1);
    EXPECT_FALSE(CActiveObject::IsSecondStageCrashActivated());
}

// Seconds between two log lines' time stamps.
double secondsBetween(const std::string& log, const std::string& first, const std::string& second) {
    const auto stamp = [&](const std::string& text) {
        const std::size_t at = log.find(text);
        const std::size_t lineStart =
            log.rfind('\n', at) == std::string::npos ? 0 : log.rfind('\n', at) + 1;
        const std::string line = log.substr(lineStart, 23);  // yyyy-mm-dd hh:mm:ss.mmm
        const int h = std::stoi(line.substr(11, 2)), m = std::stoi(line.substr(14, 2));
        const double s = std::stod(line.substr(17, 6));
        return h * 3600.0 + m * 60.0 + s;
    };
    return stamp(second) - stamp(first);
}

TEST(ActiveObject, SlowWorkerIgnoringItsStopIsEndedInTwoStages) {
    TesselTest::UseScratchRegistry();
    CActiveObject object("Stubborn", &ignoreStop, nullptr, 100);
    ASSERT_EQ(object.StartThread(__FILE__, __LINE__, "test", 0, nullptr, 0), 1);
    TesselTest::LogCapture logCapture4;
    ILogging::getInstance().log("Test", ILogging::Info, "stop begins");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(object.StopThread(), 1);
    const double took =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const std::string log = logCapture4.text();

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
    EXPECT_GE(secondsBetween(log, "stop begins", stage1), 0.09);
    EXPECT_LT(secondsBetween(log, "stop begins", stage1), 5.0);
    EXPECT_GE(secondsBetween(log, stage1, stage2), 4.9);
    EXPECT_LT(took, 30.0);
    EXPECT_EQ(object.GetThreadExitCode(), 0xFFFFFFFFu);
    EXPECT_FALSE(object.IsThreadStarted());
}

}  // namespace
