// The service control manager over systemd's D-Bus interface, against a stand-in of systemd on
// a private bus; one test against the machine's own systemd where there is one.
#include "tessel/platform/ServiceControl.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "support/SystemdMock.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/Token.h"

using namespace Tessel::Platform;
using ::testing::HasSubstr;

namespace {

std::string ReadText(const std::string& path) {
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

class ServiceControl : public ::testing::Test {
  protected:
    void SetUp() override {
        m_manager = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
        ASSERT_NE(m_manager, nullptr) << GetLastError();
    }
    void TearDown() override { CloseServiceHandle(m_manager); }

    // Installs "<name>.service" on demand; the service handle.
    SC_HANDLE Install(const char* name, DWORD startType = SERVICE_DEMAND_START,
                      const char* dependencies = nullptr, const char* user = nullptr) {
        return CreateServiceA(m_manager, name, "Station server", SERVICE_ALL_ACCESS,
                              SERVICE_WIN32_OWN_PROCESS, startType, SERVICE_ERROR_NORMAL,
                              "\"/opt/station/bin/server x\" -c 100% $HOME", nullptr, nullptr,
                              dependencies, user, nullptr);
    }
    std::string UnitFile(const std::string& name) {
        return ReadText(m_systemd.unitDir() + "/" + name);
    }

    TesselTest::SystemdMock m_systemd;
    SC_HANDLE m_manager = nullptr;
};

TEST_F(ServiceControl, InstallWritesTheUnitFileAndEnablesAnAutomaticService) {
    SC_HANDLE service = Install("Velkor", SERVICE_AUTO_START, "Db\0network.target\0", ".\\station");
    ASSERT_NE(service, nullptr) << GetLastError();
    EXPECT_EQ(UnitFile("Velkor.service"),
              "[Unit]\nDescription=Station server\n"
              "Requires=Db.service network.target\nAfter=Db.service network.target\n\n"
              "[Service]\nExecStart=\"/opt/station/bin/server x\" \"-c\" \"100%%\" \"$$HOME\"\n"
              "User=station\n\n[Install]\nWantedBy=multi-user.target\n");
    EXPECT_THAT(m_systemd.control("Enabled"), HasSubstr("Velkor.service"));
    EXPECT_EQ(Install("Velkor"), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_SERVICE_EXISTS);
    CloseServiceHandle(service);
}

TEST_F(ServiceControl, StartQueryAndStopFollowTheUnitsState) {
    SC_HANDLE service = Install("Velkor");
    ASSERT_NE(service, nullptr);
    SERVICE_STATUS status{};
    ASSERT_TRUE(QueryServiceStatus(service, &status));
    EXPECT_EQ(status.dwCurrentState, SERVICE_STOPPED);
    EXPECT_EQ(status.dwControlsAccepted, 0u);

    ASSERT_TRUE(StartServiceA(service, 0, nullptr)) << GetLastError();
    ASSERT_TRUE(QueryServiceStatus(service, &status));
    EXPECT_EQ(status.dwCurrentState, SERVICE_RUNNING);
    EXPECT_EQ(status.dwControlsAccepted, SERVICE_ACCEPT_STOP);
    EXPECT_FALSE(StartServiceA(service, 0, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_SERVICE_ALREADY_RUNNING);

    ASSERT_TRUE(ControlService(service, SERVICE_CONTROL_STOP, &status)) << GetLastError();
    EXPECT_EQ(status.dwCurrentState, SERVICE_STOPPED);
    EXPECT_EQ(m_systemd.activeState("Velkor.service"), "inactive");
    EXPECT_FALSE(ControlService(service, SERVICE_CONTROL_STOP, &status));
    EXPECT_EQ(GetLastError(), ERROR_SERVICE_NOT_ACTIVE);
    CloseServiceHandle(service);
}

TEST_F(ServiceControl, PendingStatesCarryTheUnitsTimeoutAsWaitHint) {
    SC_HANDLE service = Install("Velkor");
    m_systemd.control("SetTimeouts",
                      {"string:Velkor.service", "uint64:5000000", "uint64:18446744073709551615"});
    SERVICE_STATUS status{};
    const struct {
        const char* active;
        DWORD state;
        DWORD hint;
    } cases[] = {{"activating", SERVICE_START_PENDING, 5000},
                 {"deactivating", SERVICE_STOP_PENDING, 0},
                 {"failed", SERVICE_STOPPED, 0}};
    for (const auto& c : cases) {
        m_systemd.control("SetUnitState",
                          {"string:Velkor.service", std::string("string:") + c.active});
        ASSERT_TRUE(QueryServiceStatus(service, &status));
        EXPECT_EQ(status.dwCurrentState, c.state) << c.active;
        EXPECT_EQ(status.dwWaitHint, c.hint) << c.active;
        EXPECT_EQ(status.dwControlsAccepted, 0u) << c.active;
    }
    EXPECT_EQ(status.dwWin32ExitCode, ERROR_PROCESS_ABORTED);
    CloseServiceHandle(service);
}

TEST_F(ServiceControl, FailureActionsBecomeTheRecoveryDropIn) {
    SC_HANDLE service = Install("Velkor");
    const std::string dropIn = m_systemd.unitDir() + "/Velkor.service.d/recovery.conf";
    SC_ACTION restarts[] = {
        {SC_ACTION_RESTART, 10000}, {SC_ACTION_RESTART, 20000}, {SC_ACTION_NONE, 10000}};
    SERVICE_FAILURE_ACTIONSA actions{86400, nullptr, nullptr, 3, restarts};
    ASSERT_TRUE(ChangeServiceConfig2A(service, SERVICE_CONFIG_FAILURE_ACTIONS, &actions));
    EXPECT_EQ(ReadText(dropIn),
              "[Unit]\nStartLimitIntervalSec=86400\nStartLimitBurst=3\n\n"
              "[Service]\nRestart=on-failure\nRestartSec=10000ms\n");

    SC_ACTION reboot[] = {{SC_ACTION_REBOOT, 0}};
    actions = {INFINITE, nullptr, nullptr, 1, reboot};
    ASSERT_TRUE(ChangeServiceConfig2A(service, SERVICE_CONFIG_FAILURE_ACTIONS, &actions));
    EXPECT_EQ(ReadText(dropIn),
              "[Unit]\nStartLimitIntervalSec=infinity\nStartLimitBurst=1\n"
              "FailureAction=reboot\n\n[Service]\nRestart=no\n");

    actions.cActions = 0;
    ASSERT_TRUE(ChangeServiceConfig2A(service, SERVICE_CONFIG_FAILURE_ACTIONS, &actions));
    EXPECT_FALSE(std::filesystem::exists(dropIn));
    CloseServiceHandle(service);
}

TEST_F(ServiceControl, DescriptionStartTypeAndDelayedStartChangeTheUnit) {
    SC_HANDLE service = Install("Velkor");
    SERVICE_DESCRIPTIONA description{const_cast<char*>("Reference station")};
    ASSERT_TRUE(ChangeServiceConfig2A(service, SERVICE_CONFIG_DESCRIPTION, &description));
    EXPECT_THAT(UnitFile("Velkor.service"), HasSubstr("[Unit]\nDescription=Reference station\n"));
    SERVICE_DELAYED_AUTO_START_INFO delayed{TRUE};
    ASSERT_TRUE(ChangeServiceConfig2A(service, SERVICE_CONFIG_DELAYED_AUTO_START_INFO, &delayed));
    EXPECT_EQ(UnitFile("Velkor.service.d/delayed.conf"), "[Unit]\nAfter=multi-user.target\n");

    const std::string disabled = m_systemd.unitDir() + "/Velkor.service.d/disabled.conf";
    const struct {
        DWORD startType;
        bool enabled;
        bool refusesStart;
    } cases[] = {{SERVICE_AUTO_START, true, false},
                 {SERVICE_DISABLED, false, true},
                 {SERVICE_DEMAND_START, false, false}};
    for (const auto& c : cases) {
        ASSERT_TRUE(ChangeServiceConfigA(service, SERVICE_NO_CHANGE, c.startType, SERVICE_NO_CHANGE,
                                         nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                         nullptr));
        EXPECT_EQ(m_systemd.control("Enabled").find("Velkor.service") != std::string::npos,
                  c.enabled);
        EXPECT_EQ(std::filesystem::exists(disabled), c.refusesStart);
    }
    EXPECT_FALSE(ChangeServiceConfigA(service, SERVICE_NO_CHANGE, SERVICE_BOOT_START,
                                      SERVICE_NO_CHANGE, nullptr, nullptr, nullptr, nullptr,
                                      nullptr, nullptr, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    CloseServiceHandle(service);
}

TEST_F(ServiceControl, DeleteRemovesTheUnitAndItsDropIns) {
    SC_HANDLE service = Install("Velkor", SERVICE_DISABLED);
    ASSERT_TRUE(std::filesystem::exists(m_systemd.unitDir() + "/Velkor.service.d"));
    ASSERT_TRUE(DeleteService(service)) << GetLastError();
    CloseServiceHandle(service);
    EXPECT_FALSE(std::filesystem::exists(m_systemd.unitDir() + "/Velkor.service"));
    EXPECT_FALSE(std::filesystem::exists(m_systemd.unitDir() + "/Velkor.service.d"));
    EXPECT_EQ(OpenServiceA(m_manager, "Velkor", SERVICE_ALL_ACCESS), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_SERVICE_DOES_NOT_EXIST);
}

TEST_F(ServiceControl, EnumerationListsServicesWithoutTheirSuffix) {
    m_systemd.control("AddMockUnit", {"string:VelkorA.service"});
    m_systemd.control("AddMockUnit", {"string:network.target"});
    m_systemd.control("SetUnitState", {"string:VelkorA.service", "string:active"});
    CloseServiceHandle(Install("VelkorB"));
    DWORD needed = 0;
    DWORD count = 7;
    ASSERT_FALSE(EnumServicesStatusExA(m_manager, SC_ENUM_PROCESS_INFO, SERVICE_WIN32,
                                       SERVICE_STATE_ALL, nullptr, 0, &needed, &count, nullptr,
                                       nullptr));
    EXPECT_EQ(GetLastError(), ERROR_MORE_DATA);
    EXPECT_EQ(count, 0u);
    const DWORD size = needed;
    std::vector<std::uint64_t> buffer(size / 8 + 1);
    ASSERT_TRUE(EnumServicesStatusExA(
        m_manager, SC_ENUM_PROCESS_INFO, SERVICE_WIN32, SERVICE_ACTIVE,
        reinterpret_cast<unsigned char*>(buffer.data()), size, &needed, &count, nullptr, nullptr));
    ASSERT_EQ(count, 1u);
    const auto* services = reinterpret_cast<ENUM_SERVICE_STATUS_PROCESSA*>(buffer.data());
    EXPECT_STREQ(services[0].lpServiceName, "VelkorA");
    EXPECT_EQ(services[0].ServiceStatusProcess.dwCurrentState, SERVICE_RUNNING);
    ASSERT_TRUE(EnumServicesStatusExA(
        m_manager, SC_ENUM_PROCESS_INFO, SERVICE_WIN32, SERVICE_INACTIVE,
        reinterpret_cast<unsigned char*>(buffer.data()), size, &needed, &count, nullptr, nullptr));
    ASSERT_EQ(count, 1u);
    EXPECT_STREQ(services[0].lpServiceName, "VelkorB");
    EXPECT_STREQ(services[0].lpDisplayName, "Station server");
}

TEST_F(ServiceControl, TheDatabaseLockIsExclusive) {
    SC_LOCK lock = LockServiceDatabase(m_manager);
    ASSERT_NE(lock, nullptr) << GetLastError();
    EXPECT_EQ(LockServiceDatabase(m_manager), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_SERVICE_DATABASE_LOCKED);
    EXPECT_TRUE(UnlockServiceDatabase(lock));
    lock = LockServiceDatabase(m_manager);
    EXPECT_NE(lock, nullptr);
    UnlockServiceDatabase(lock);
}

TEST(ServiceControlBus, ABusThatCannotBeReachedIsAMissingDatabase) {
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/tessel-bus", 1);
    EXPECT_EQ(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_DATABASE_DOES_NOT_EXIST);
    EXPECT_EQ(OpenSCManagerA("station7", nullptr, SC_MANAGER_CONNECT), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST(ServiceControlToken, ThePrivilegesFollowTheEffectiveCapabilities) {
    LUID luid{};
    EXPECT_FALSE(LookupPrivilegeValueA(nullptr, "SeNoSuchPrivilege", &luid));
    EXPECT_EQ(GetLastError(), ERROR_NO_SUCH_PRIVILEGE);
    ASSERT_TRUE(LookupPrivilegeValueA(nullptr, SE_SHUTDOWN_NAME, &luid));
    HANDLE token = nullptr;
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES, &token));
    TOKEN_PRIVILEGES privileges{1, {{luid, SE_PRIVILEGE_ENABLED}}};
    ASSERT_TRUE(AdjustTokenPrivileges(token, FALSE, &privileges, 0, nullptr, nullptr));
    // CAP_SYS_BOOT is capability 22: CapEff in /proc/self/status says whether the process has it.
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line) && line.rfind("CapEff:", 0) != 0) {
    }
    const bool holds = ((std::stoull(line.substr(7), nullptr, 16) >> 22) & 1u) != 0;
    EXPECT_EQ(GetLastError(), holds ? ERROR_SUCCESS : ERROR_NOT_ALL_ASSIGNED);
    EXPECT_TRUE(CloseHandle(token));
}

// The machine's own systemd: a throw-away unit in the runtime unit folder, started, stopped and
// removed. Needs systemd as the init system and root.
TEST(ServiceControlSystemd, AThrowAwayUnitStartsAndStopsUnderTheMachinesSystemd) {
    if (!std::filesystem::exists("/run/systemd/system")) {
        GTEST_SKIP() << "systemd is not the init system here (no /run/systemd/system)";
    }
    if (::geteuid() != 0) {
        GTEST_SKIP() << "installing a unit needs root";
    }
    ::setenv("TESSEL_SYSTEMD_UNIT_DIR", "/run/systemd/system", 1);
    const std::string name = "tessel-test-" + std::to_string(::getpid());
    SC_HANDLE manager = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
    ASSERT_NE(manager, nullptr) << GetLastError();
    SC_HANDLE service =
        CreateServiceA(manager, name.c_str(), "Tessel test", SERVICE_ALL_ACCESS,
                       SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL,
                       "/bin/sleep 600", nullptr, nullptr, nullptr, nullptr, nullptr);
    ASSERT_NE(service, nullptr) << GetLastError();
    SERVICE_STATUS status{};
    EXPECT_TRUE(StartServiceA(service, 0, nullptr)) << GetLastError();
    for (int i = 0; i < 100 && QueryServiceStatus(service, &status) &&
                    status.dwCurrentState != SERVICE_RUNNING;
         ++i) {
        ::usleep(50000);
    }
    EXPECT_EQ(status.dwCurrentState, SERVICE_RUNNING);
    EXPECT_TRUE(ControlService(service, SERVICE_CONTROL_STOP, &status)) << GetLastError();
    EXPECT_TRUE(DeleteService(service)) << GetLastError();
    CloseServiceHandle(service);
    CloseServiceHandle(manager);
}

}  // namespace
