// CServiceControlMgr: the wait rule on a clock of the test's own, and the operations against a
// stand-in of systemd on a private bus.
#include "tessel/system/ServiceControlMgr.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <sstream>
#include <thread>

#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/SystemdMock.h"
#include "tessel/platform/LastError.h"

using namespace Tessel::Platform;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using namespace std::chrono_literals;

namespace {

std::string ReadText(const std::string& path) {
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// Opens the protected steps, and runs the wait rule on a clock that only the sleeps advance,
// against a status that a script gives.
class WaitRule : public CServiceControlMgr {
  public:
    using CServiceControlMgr::DeleteDependentString;
    using CServiceControlMgr::GetDependentString;
    using CServiceControlMgr::WaitForServiceToReachState;

    WaitRule() : CServiceControlMgr("Velkor", nullptr, false), m_saved(clock()) {
        clock() = Clock{&Sleep, &Tick, &Query};
        s_now = 0;
        s_queries = 0;
        s_pauses.clear();
    }
    ~WaitRule() { clock() = m_saved; }

    static inline unsigned long s_now = 0;
    static inline int s_queries = 0;
    static inline std::vector<unsigned long> s_pauses;
    static inline std::function<SERVICE_STATUS(int query)> s_script;

  private:
    static void Sleep(unsigned long ms) {
        s_now += ms;
        s_pauses.push_back(ms);
    }
    static unsigned long Tick() { return s_now; }
    static int Query(SC_HANDLE, SERVICE_STATUS* status) {
        *status = s_script(++s_queries);
        return 1;
    }
    Clock m_saved;
};

SERVICE_STATUS Pending(DWORD checkPoint, DWORD hint) {
    return SERVICE_STATUS{
        SERVICE_WIN32_OWN_PROCESS, SERVICE_START_PENDING, 0, 0, 0, checkPoint, hint};
}

// A service that stays at its check point: after the first 500 ms the pause is a tenth of the
// hint within 100 .. 1000 ms, and the wait gives up in the round after the stall limit's, counted
// from the first round past the deadline.
TEST(ServiceControlMgrWait, AStalledServiceTimesOutByTheHintsPauseAndLimit) {
    const struct {
        DWORD hint;
        unsigned long pause;
        unsigned long limit;
    } cases[] = {{5000, 500, 10}, {30000, 1000, 30}, {500, 100, 10}};
    for (const auto& c : cases) {
        WaitRule rule;
        WaitRule::s_script = [&](int) { return Pending(3, c.hint); };
        SERVICE_STATUS status{};
        SetLastError(0);
        EXPECT_EQ(WaitRule::WaitForServiceToReachState(nullptr, SERVICE_RUNNING, &status), 0);
        EXPECT_EQ(GetLastError(), ERROR_TIMEOUT);
        ASSERT_FALSE(WaitRule::s_pauses.empty());
        EXPECT_EQ(WaitRule::s_pauses.front(), 500u);
        const std::vector<unsigned long> rounds(WaitRule::s_pauses.begin() + 1,
                                                WaitRule::s_pauses.end());
        EXPECT_EQ(rounds, std::vector<unsigned long>(c.hint / c.pause + 1 + c.limit, c.pause))
            << "hint " << c.hint;
    }
}

// An advancing check point, or a hint of 0, keeps the wait going until the state is reached.
TEST(ServiceControlMgrWait, AServiceThatAdvancesOrGivesNoHintIsWaitedFor) {
    for (const bool advances : {true, false}) {
        WaitRule rule;
        WaitRule::s_script = [&](int query) {
            if (query == 500) {
                return SERVICE_STATUS{SERVICE_WIN32_OWN_PROCESS, SERVICE_RUNNING, 1, 0, 0, 0, 0};
            }
            return advances ? Pending(static_cast<DWORD>(query), 1000) : Pending(0, 0);
        };
        SERVICE_STATUS status{};
        EXPECT_NE(WaitRule::WaitForServiceToReachState(nullptr, SERVICE_RUNNING, &status), 0);
        EXPECT_EQ(WaitRule::s_queries, 500);
    }
}

TEST(ServiceControlMgrDependents, TheListLeavesOutEmptyAndNullNames) {
    WaitRule rule;
    char* buffer = reinterpret_cast<char*>(1);
    EXPECT_EQ(rule.GetDependentString({"NULL", ""}, &buffer), nullptr);
    EXPECT_EQ(buffer, nullptr);
    char* list = rule.GetDependentString({"Db", "NULL", "", "Gnss"}, &buffer);
    ASSERT_EQ(list, buffer);
    EXPECT_EQ(std::string(list, 9), std::string("Db\0Gnss\0\0", 9));
    rule.DeleteDependentString(list);
}

// Records the notifications, from any thread.
class Recorder : public IServiceControlMgrNotify {
  public:
    void OnStartAllSucceeded(char const* name) override { add("StartAllSucceeded", name); }
    void OnStartAllFailed(char const* name) override { add("StartAllFailed", name); }
    void OnStopAllSucceeded(char const* name) override { add("StopAllSucceeded", name); }
    void OnStopAllFailed(char const* name) override { add("StopAllFailed", name); }
    void OnStartSucceeded(char const* name) override { add("StartSucceeded", name); }
    void OnStartFailed(char const* name) override { add("StartFailed", name); }
    void OnStopSucceeded(char const* name) override { add("StopSucceeded", name); }
    void OnStopFailed(char const* name) override { add("StopFailed", name); }

    std::vector<std::string> events() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_events;
    }
    std::thread::id thread() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_thread;
    }

  private:
    void add(const char* event, const char* name) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_events.push_back(std::string(event) + " " + name);
        m_thread = std::this_thread::get_id();
    }
    mutable std::mutex m_mutex;
    std::vector<std::string> m_events;
    std::thread::id m_thread;
};

class ServiceControlMgrTest : public ::testing::Test {
  protected:
    int Install(const char* name, const std::vector<std::string>& dependents = {}) {
        CServiceControlMgr manager(name, nullptr, false);
        manager.AddDependentService(dependents);
        return manager.Install("Station server", SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START,
                               SERVICE_ERROR_NORMAL, "/opt/station/bin/server", "", "",
                               "Reference station");
    }
    std::string Unit(const std::string& file) { return ReadText(m_systemd.unitDir() + "/" + file); }

    TesselTest::SystemdMock m_systemd;
    Recorder m_notify;
};

TEST_F(ServiceControlMgrTest, InstallStartStopAndRemoveAServiceWithItsDependent) {
    ASSERT_EQ(Install("VelkorDb"), 0);
    ASSERT_EQ(Install("Velkor", {"VelkorDb", "NULL"}), 0);
    EXPECT_EQ(Unit("Velkor.service"),
              "[Unit]\nDescription=Reference station\nRequires=VelkorDb.service\n"
              "After=VelkorDb.service\n\n[Service]\nExecStart=\"/opt/station/bin/server\"\n\n"
              "[Install]\nWantedBy=multi-user.target\n");
    EXPECT_EQ(Unit("Velkor.service.d/delayed.conf"), "[Unit]\nAfter=multi-user.target\n");

    CServiceControlMgr manager("Velkor", &m_notify, true);
    manager.AddDependentService(std::string("VelkorDb"));
    EXPECT_EQ(manager.Start(), 0);
    EXPECT_TRUE(CServiceControlMgr::IsServiceRunning("Velkor"));
    EXPECT_EQ(manager.Stop(), 0);
    EXPECT_THAT(m_notify.events(), ElementsAre("StartSucceeded Velkor", "StartSucceeded VelkorDb",
                                               "StopSucceeded VelkorDb", "StopSucceeded Velkor"));
    EXPECT_EQ(m_systemd.activeState("Velkor.service"), "inactive");
    EXPECT_TRUE(CServiceControlMgr::IsServiceAvailble("Velkor"));
    EXPECT_FALSE(CServiceControlMgr::IsServiceRunning("Velkor"));

    TesselTest::LogCapture log;
    EXPECT_EQ(manager.Remove(), 0);
    EXPECT_THAT(log.text(),
                HasSubstr("[CServiceControlMgr::Remove] Removed Service successfully!"));
    EXPECT_FALSE(std::filesystem::exists(m_systemd.unitDir() + "/Velkor.service"));
}

TEST_F(ServiceControlMgrTest, AnUnknownServiceFailsToStartAndCountsAsStopped) {
    TesselTest::LogCapture log;
    CServiceControlMgr manager("NoSuchService", &m_notify, false);
    EXPECT_EQ(manager.Start(), 1060);
    EXPECT_EQ(manager.Stop(), 0);
    EXPECT_EQ(manager.Remove(), 0);
    EXPECT_THAT(m_notify.events(),
                ElementsAre("StartFailed NoSuchService", "StopSucceeded NoSuchService"));
    EXPECT_THAT(log.text(), HasSubstr("[CServiceControlMgr::Start] The specified service does not "
                                      "exist."));
    EXPECT_THAT(log.text(), HasSubstr("[CServiceControlMgr::Stop] OpenService failed!"));
    EXPECT_THAT(log.text(), HasSubstr("[CServiceControlMgr::Remove] OpenService failed!"));
}

TEST_F(ServiceControlMgrTest, ARefusedStartAndAServiceThatNeverRunsAreReported) {
    ASSERT_EQ(Install("Velkor"), 0);
    ASSERT_EQ(Install("VelkorGnss"), 0);
    m_systemd.control("RefuseCall", {"string:StartUnit:Velkor.service"});
    m_systemd.control("SetStartState", {"string:VelkorGnss.service", "string:activating"});
    m_systemd.control("SetTimeouts", {"string:VelkorGnss.service", "uint64:500000", "uint64:0"});
    TesselTest::LogCapture log;
    EXPECT_EQ(CServiceControlMgr("Velkor", nullptr, false).Start(), 5);
    EXPECT_EQ(CServiceControlMgr("VelkorGnss", nullptr, false).Start(), 1460);
    EXPECT_THAT(log.text(), HasSubstr("The handle does not have the SERVICE_START access right."));
    EXPECT_THAT(log.text(), HasSubstr("[CServiceControlMgr::Start] Start service timeout!"));
}

TEST_F(ServiceControlMgrTest, RecoveryOptionsAndStartTypeChangeTheUnit) {
    ASSERT_EQ(Install("Velkor"), 0);
    CServiceControlMgr manager("Velkor", nullptr, false);
    EXPECT_EQ(manager.SetDefaultRecoveryOptions(), 0);
    EXPECT_EQ(Unit("Velkor.service.d/recovery.conf"),
              "[Unit]\nStartLimitIntervalSec=86400\nStartLimitBurst=3\n\n"
              "[Service]\nRestart=on-failure\nRestartSec=10000ms\n");
    EXPECT_EQ(manager.SetStartType(SERVICE_AUTO_START), 0);
    EXPECT_THAT(m_systemd.control("Enabled"), HasSubstr("Velkor.service"));
    EXPECT_EQ(manager.SetRecoveryOptions(nullptr), 0);
}

TEST_F(ServiceControlMgrTest, StartAllStartsTheFamilyAndGoesOnAfterAFailure) {
    for (const char* unit :
         {"VelkorA.service", "VelkorB.service", "VelkorC.service", "Other.service"}) {
        m_systemd.control("AddMockUnit", {std::string("string:") + unit});
    }
    m_systemd.control("RefuseCall", {"string:StartUnit:VelkorB.service"});
    CServiceControlMgr family("Velkor", &m_notify, false);
    EXPECT_EQ(family.StartAll(), 5);
    EXPECT_EQ(m_systemd.activeState("VelkorA.service"), "active");
    EXPECT_EQ(m_systemd.activeState("VelkorC.service"), "active");
    EXPECT_EQ(m_systemd.activeState("Other.service"), "inactive");
    EXPECT_THAT(m_notify.events(), ElementsAre("StartAllFailed Velkor"));
}

TEST_F(ServiceControlMgrTest, RemoveDeletesAServiceThatCannotBeStopped) {
    ASSERT_EQ(Install("Velkor"), 0);
    m_systemd.control("SetUnitState", {"string:Velkor.service", "string:active"});
    m_systemd.control("RefuseCall", {"string:StopUnit"});
    TesselTest::LogCapture log;
    EXPECT_EQ(CServiceControlMgr("Velkor", nullptr, false).Remove(), 0);
    EXPECT_THAT(log.text(), HasSubstr("[CServiceControlMgr::Remove] ControlService failed!"));
    EXPECT_FALSE(std::filesystem::exists(m_systemd.unitDir() + "/Velkor.service"));
}

TEST_F(ServiceControlMgrTest, StartAsyncWorksOnACopyAndNotifiesFromAPoolThread) {
    ASSERT_EQ(Install("Velkor"), 0);
    {
        CServiceControlMgr manager("Velkor", &m_notify, false);
        ASSERT_EQ(manager.StartAsync(), 0);
    }
    ASSERT_TRUE(TesselTest::eventually([&] { return !m_notify.events().empty(); }, 30000ms, 10ms));
    EXPECT_THAT(m_notify.events(), ElementsAre("StartSucceeded Velkor"));
    EXPECT_NE(m_notify.thread(), std::this_thread::get_id());
}

}  // namespace
