#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "support/Eventually.h"
#include "support/TestSupport.h"
#include "tessel/comms/RasConnections.h"
#include "tessel/comms/RasDevices.h"
#include "tessel/comms/RasServer.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/Modems.h"
#include "tessel/platform/Ras.h"

namespace fs = std::filesystem;
namespace P = Tessel::Platform;
using namespace TesselTest;

namespace {

std::string ReadFile(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

// Whether pid is a process that has not ended (a zombie has).
bool Alive(pid_t pid) {
    const std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
    const std::size_t close = stat.rfind(')');
    return close != std::string::npos && close + 2 < stat.size() && stat[close + 2] != 'Z';
}

std::string ErrorText(P::DWORD error) {
    char text[512] = "";
    P::RasGetErrorStringA(error, text, sizeof text);
    return text;
}

// A peers folder, a run folder and the fake pppd (support/FakePppd.py) of the test's own, set
// through the environment; daemons that a failed test leaves are ended.
class DialUp : public testing::Test {
  protected:
    void SetUp() override {
        folder = ::mkdtemp(std::string("/tmp/tessel-dialup-XXXXXX").data());
        fs::create_directories(peers());
        fs::create_directories(run());
        fs::copy_file(fs::path(__FILE__).parent_path() / "../support/FakePppd.py", pppd());
        fs::permissions(pppd(), fs::perms::owner_all);
        ::setenv("TESSEL_PPPD", pppd().c_str(), 1);
        ::setenv("TESSEL_PPP_PEERS", peers().c_str(), 1);
        ::setenv("TESSEL_PPP_RUN_DIR", run().c_str(), 1);
        ::setenv("TESSEL_FAKE_PPPD_ARGS", (folder + "/args").c_str(), 1);
        Mode("connect");
    }
    void TearDown() override {
        for (const auto& file : fs::directory_iterator(run())) {
            const pid_t pid = std::atoi(ReadFile(file.path()).c_str());
            if (pid > 0) {
                ::kill(pid, SIGTERM);
            }
        }
        fs::remove_all(folder);
    }

    std::string peers() const { return folder + "/peers"; }
    std::string run() const { return folder + "/run"; }
    std::string pppd() const { return folder + "/pppd"; }
    std::string pidFile(const std::string& entry) const {
        return run() + "/ppp-tessel-" + entry + ".pid";
    }
    void AddEntry(const std::string& name, const std::string& text = "") const {
        std::ofstream(peers() + "/" + name) << text;
    }
    static void Mode(const std::string& mode) {
        ::setenv("TESSEL_FAKE_PPPD_MODE", mode.c_str(), 1);
    }
    std::string Arguments() const { return ReadFile(folder + "/args"); }
    pid_t Daemon(const std::string& entry) const {
        return std::atoi(ReadFile(pidFile(entry)).c_str());
    }

    std::string folder;
};

P::RASDIALPARAMSA Params(const std::string& entry) {
    P::RASDIALPARAMSA params{};
    params.dwSize = sizeof params;
    entry.copy(params.szEntryName, sizeof params.szEntryName - 1);
    return params;
}

P::DWORD Status(P::HRASCONN connection, P::RASCONNSTATE* state = nullptr) {
    P::RASCONNSTATUSA status{};
    status.dwSize = sizeof status;
    const P::DWORD result = P::RasGetConnectStatusA(connection, &status);
    if (state != nullptr) {
        *state = status.rasconnstate;
    }
    return result;
}

}  // namespace

TEST(RasDevices, ListsTheModemsByFamily) {
    const std::string longName(200, 'L');
    P::SetModemDevices({{"Analog 1", "/dev/ttyS0", 115200, false},
                        {"ISDN 1", "/dev/ttyUSB0", 115200, true},
                        {longName, "/dev/ttyS1", 9600, false}});
    CRasDevices devices;
    EXPECT_EQ(devices.GetModemCount(), 2);
    EXPECT_EQ(devices.GetISDNCount(), 1);
    char name[300];
    EXPECT_EQ(devices.GetModemName(0, name, sizeof name), 1);
    EXPECT_STREQ(name, "Analog 1");
    EXPECT_EQ(devices.GetModemName(1, name, sizeof name), 1);
    EXPECT_EQ(name, longName.substr(0, 128));
    EXPECT_EQ(devices.GetModemName(2, name, sizeof name), 0);
    EXPECT_EQ(devices.GetISDNName(0, name, 5), 1);
    EXPECT_STREQ(name, "ISDN");
    EXPECT_EQ(devices.GetISDNName(1, name, sizeof name), 0);

    int index = -1;
    EXPECT_EQ(devices.GetRasDeviceIndex("ISDN 1", index), 1);
    EXPECT_EQ(index, 1);
    EXPECT_EQ(devices.GetRasDeviceIndex("Missing", index), 0);
    EXPECT_EQ(index, 1);
    P::RASDEVINFOA info{};
    EXPECT_EQ(devices.GetRasDeviceInfo(1u, &info), 1);
    EXPECT_STREQ(info.szDeviceType, "isdn");
    EXPECT_EQ(devices.GetRasDeviceInfo("Analog 1", &info), 1);
    EXPECT_STREQ(info.szDeviceType, "modem");
    EXPECT_EQ(devices.GetRasDeviceInfo(3u, &info), 0);
    EXPECT_EQ(devices.GetRasDeviceInfo("Missing", &info), 0);

    // The service tells the size of all records to a caller with too small a buffer.
    P::RASDEVINFOA one{};
    one.dwSize = sizeof one;
    P::DWORD bytes = sizeof one, count = 0;
    EXPECT_EQ(P::RasEnumDevicesA(&one, &bytes, &count), P::ERROR_BUFFER_TOO_SMALL);
    EXPECT_EQ(bytes, 3 * sizeof one);
    EXPECT_EQ(count, 3u);
    one.dwSize = 150;
    EXPECT_EQ(P::RasEnumDevicesA(&one, &bytes, &count), P::ERROR_INVALID_SIZE);
}

TEST(RasDevices, NoDevicesCountZero) {
    P::SetModemDevices({});
    CRasDevices devices;
    EXPECT_EQ(devices.GetModemCount(), 0);
    EXPECT_EQ(devices.GetISDNCount(), 0);
    char name[16];
    EXPECT_EQ(devices.GetModemName(0, name, sizeof name), 0);
    int index = 7;
    EXPECT_EQ(devices.GetRasDeviceIndex("", index), 0);
    EXPECT_EQ(index, 7);
}

TEST_F(DialUp, EntriesAreThePeerFilesSortedWithoutHiddenAndBackups) {
    for (const std::string& name : std::vector<std::string>{"b", "a", "Z", ".hidden", "c~", "d.bak",
                                                            "e.dpkg-old", std::string(257, 'x')}) {
        AddEntry(name);
    }
    fs::create_directories(peers() + "/folder");
    CRasConnections entries;
    ASSERT_EQ(entries.GetRasConnectionCount(), 3);
    std::vector<std::string> names;
    char name[300];
    for (unsigned i = 0; i < 3; ++i) {
        ASSERT_EQ(entries.GetRasConnectionName(i, name, sizeof name), 1);
        names.push_back(name);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"Z", "a", "b"}));
    EXPECT_EQ(entries.GetRasConnectionName(3, name, sizeof name), 1);  // the count passes
    EXPECT_STREQ(name, "");
    EXPECT_EQ(entries.GetRasConnectionName(4, name, sizeof name), 0);
    EXPECT_EQ(entries.GetRasConnectionName(0, nullptr, 1), 0);

    P::RASENTRYNAMEA one{};
    one.dwSize = sizeof one;
    P::DWORD bytes = sizeof one, count = 0;
    EXPECT_EQ(P::RasEnumEntriesA(nullptr, nullptr, &one, &bytes, &count),
              P::ERROR_BUFFER_TOO_SMALL);
    EXPECT_EQ(bytes, 3 * sizeof one);
    EXPECT_EQ(count, 3u);
    fs::remove(peers() + "/a");
    fs::remove(peers() + "/b");
    EXPECT_EQ(P::RasEnumEntriesA(nullptr, nullptr, &one, &bytes, &count), 0u);
    EXPECT_STREQ(one.szEntryName, "Z");
    EXPECT_EQ(one.szPhonebookPath, peers());

    // The folder set by the host wins over the environment; a missing folder has no entries.
    P::SetPppPeersFolder((folder + "/missing").c_str());
    EXPECT_EQ(CRasConnections().GetRasConnectionCount(), 0);
    P::SetPppPeersFolder(nullptr);
    EXPECT_EQ(CRasConnections().GetRasConnectionCount(), 1);
}

TEST_F(DialUp, DialParamsTakeTheUserOfThePeerFile) {
    const std::pair<const char*, const char*> cases[] = {
        {"user bare\n", "bare"},
        {"user \"with space\" # note\n", "with space"},
        {"# user commented\nnoauth\n", ""},
        {"user first\nuser 'second one'\n", "second one"},
        {"user esc\\ aped\n", "esc aped"},
    };
    for (const auto& [text, user] : cases) {
        AddEntry("isp", text);
        P::RASDIALPARAMSA params = Params("isp");
        P::BOOL password = P::TRUE;
        EXPECT_EQ(P::RasGetEntryDialParamsA(nullptr, &params, &password), 0u);
        EXPECT_STREQ(params.szUserName, user) << text;
        EXPECT_EQ(password, P::FALSE);
    }
    P::RASDIALPARAMSA params = Params("missing");
    EXPECT_EQ(P::RasGetEntryDialParamsA(nullptr, &params, nullptr),
              P::ERROR_CANNOT_FIND_PHONEBOOK_ENTRY);
}

TEST_F(DialUp, ServerConnectsAndDisconnects) {
    AddEntry("isp");
    AddEntry("other");
    CRasServer server("isp");
    ASSERT_TRUE(server.ConnectRAS());
    EXPECT_EQ(Arguments(), "call\nisp\nupdetach\nlinkname\ntessel-isp\n");
    const pid_t daemon = Daemon("isp");
    ASSERT_GT(daemon, 0);
    EXPECT_TRUE(Alive(daemon));
    EXPECT_FALSE(server.SetServerName("other"));

    EXPECT_TRUE(server.DisconnectRAS());
    EXPECT_FALSE(fs::exists(pidFile("isp")));
    EXPECT_TRUE(eventually([&] { return !Alive(daemon); }, 20000ms));
    EXPECT_TRUE(server.DisconnectRAS());  // not connected any more

    fs::remove(folder + "/args");
    ASSERT_TRUE(server.ConnectRAS());  // the name was kept
    EXPECT_EQ(Arguments(), "call\nisp\nupdetach\nlinkname\ntessel-isp\n");
    EXPECT_TRUE(server.DisconnectRAS());
}

TEST_F(DialUp, ConnectionStateFollowsTheDaemon) {
    AddEntry("isp");
    P::RASDIALPARAMSA params = Params("isp");
    P::HRASCONN connection = nullptr;
    ASSERT_EQ(P::RasDialA(nullptr, nullptr, &params, 0, nullptr, &connection), 0u);
    ASSERT_NE(connection, nullptr);
    P::RASCONNSTATE state{};
    EXPECT_EQ(Status(connection, &state), 0u);
    EXPECT_EQ(state, P::RASCS_Connected);

    // A daemon ended from outside takes the link down; the handle is then forgotten.
    ::kill(Daemon("isp"), SIGTERM);
    EXPECT_TRUE(eventually([&] { return Status(connection) == P::ERROR_INVALID_HANDLE; }, 20000ms));
    EXPECT_EQ(P::RasHangUpA(connection), P::ERROR_INVALID_HANDLE);

    P::HRASCONN busy = nullptr;
    Mode("hang");
    P::SetRasDialTimeout(100);
    EXPECT_EQ(P::RasDialA(nullptr, nullptr, &params, 0, nullptr, &busy), P::ERROR_REQUEST_TIMEOUT);
    EXPECT_NE(busy, nullptr);
    EXPECT_EQ(P::RasHangUpA(busy), 0u);
    EXPECT_EQ(Status(busy), P::ERROR_INVALID_HANDLE);
}

TEST_F(DialUp, ServerWithoutNameOrConnectionDoesNothing) {
    CRasServer server;
    EXPECT_FALSE(server.ConnectRAS());
    EXPECT_FALSE(fs::exists(folder + "/args"));
    char text[16] = "untouched";
    server.GetLastRasError(text, sizeof text);
    EXPECT_STREQ(text, "");
    EXPECT_TRUE(server.DisconnectRAS());
    EXPECT_FALSE(server.SetServerName(nullptr));
}

TEST_F(DialUp, FailuresMapPppdExitCodes) {
    AddEntry("isp");
    const struct {
        const char* mode;
        P::DWORD error;
    } cases[] = {
        {"fail 2", P::ERROR_CORRUPT_PHONEBOOK},
        {"fail 4", P::ERROR_RASMAN_CANNOT_INITIALIZE},
        {"fail 6", P::ERROR_PORT_NOT_AVAILABLE},
        {"fail 7", P::ERROR_PORT_NOT_AVAILABLE},
        {"fail 8", P::ERROR_FROM_DEVICE},
        {"fail 8 Connect script failed: BUSY", P::ERROR_LINE_BUSY},
        {"fail 8 NO ANSWER", P::ERROR_NO_ANSWER},
        {"fail 8 NO DIALTONE", P::ERROR_NO_DIALTONE},
        {"fail 8 NO CARRIER", P::ERROR_NO_CARRIER},
        {"fail 10", P::ERROR_PPP_NO_PROTOCOLS_CONFIGURED},
        {"fail 11", P::ERROR_AUTHENTICATION_FAILURE},
        {"fail 19", P::ERROR_AUTHENTICATION_FAILURE},
        {"fail 16", P::ERROR_PORT_DISCONNECTED},
        {"fail 42", P::ERROR_UNKNOWN},
    };
    for (const auto& [mode, error] : cases) {
        Mode(mode);
        P::RASDIALPARAMSA params = Params("isp");
        P::HRASCONN connection = nullptr;
        EXPECT_EQ(P::RasDialA(nullptr, nullptr, &params, 0, nullptr, &connection), error) << mode;
        ASSERT_NE(connection, nullptr) << mode;  // pppd ran: the handle is to be hung up
        EXPECT_EQ(P::RasHangUpA(connection), 0u);
        EXPECT_EQ(Status(connection), P::ERROR_INVALID_HANDLE);
        EXPECT_FALSE(ErrorText(error).empty());
    }

    // No handle where pppd did not run.
    P::RASDIALPARAMSA params = Params("missing");
    P::HRASCONN connection = nullptr;
    EXPECT_EQ(P::RasDialA(nullptr, nullptr, &params, 0, nullptr, &connection),
              P::ERROR_CANNOT_FIND_PHONEBOOK_ENTRY);
    params = Params("isp");
    ::setenv("TESSEL_PPPD", (folder + "/no-pppd").c_str(), 1);
    EXPECT_EQ(P::RasDialA(nullptr, nullptr, &params, 0, nullptr, &connection),
              P::ERROR_RASMAN_CANNOT_INITIALIZE);
    EXPECT_EQ(connection, nullptr);
}

TEST_F(DialUp, SlowServerFailureKeepsTheDialsText) {
    AddEntry("isp");
    Mode("fail 8 BUSY");
    CRasServer server("isp");
    EXPECT_FALSE(server.ConnectRAS());
    char text[1024];
    server.GetLastRasError(text, sizeof text);
    EXPECT_EQ(text, ErrorText(P::ERROR_LINE_BUSY));
    server.GetLastRasError(text, 5);
    EXPECT_EQ(text, ErrorText(P::ERROR_LINE_BUSY).substr(0, 4));
    EXPECT_TRUE(server.DisconnectRAS());
}

TEST(RasErrorString, OwnTextsSystemTextsAndSmallBuffers) {
    char text[256];
    EXPECT_EQ(P::RasGetErrorStringA(P::ERROR_NO_DIALTONE, text, sizeof text), 0u);
    EXPECT_STREQ(text, "There is no dial tone.");
    EXPECT_EQ(P::RasGetErrorStringA(P::ERROR_FILE_NOT_FOUND, text, sizeof text), 0u);
    EXPECT_STREQ(text, "The system cannot find the file specified.");
    EXPECT_EQ(P::RasGetErrorStringA(P::ERROR_NO_DIALTONE, text, 5), P::ERROR_INSUFFICIENT_BUFFER);
    EXPECT_STREQ(text, "");
    P::SetLastError(1234);
    EXPECT_EQ(P::RasGetErrorStringA(99999, text, sizeof text), P::ERROR_INVALID_PARAMETER);
    EXPECT_EQ(P::GetLastError(), 1234u);
}

// Two real pppd joined through a pty: only as root, with pppd installed and /dev/ppp present.
TEST(RasRealPppd, LinkComesUpAndGoesDown) {
    if (::access("/dev/ppp", F_OK) != 0 || RunCaptured("command -v pppd").empty() ||
        ::geteuid() != 0) {
        GTEST_SKIP() << "needs /dev/ppp, pppd and root";
    }
    for (const char* name : {"TESSEL_PPPD", "TESSEL_PPP_PEERS", "TESSEL_PPP_RUN_DIR"}) {
        ::unsetenv(name);
    }
    const std::string entry = "tessel-test-" + std::to_string(::getpid());
    const std::string peer = "/etc/ppp/peers/" + entry;
    const char* common = "local noauth nodefaultroute nodeflate nobsdcomp novj";
    std::ofstream(peer) << "pty \"pppd notty nodetach " << common << " 10.251.0.2:10.251.0.1\"\n"
                        << common << " 10.251.0.1:10.251.0.2\n";
    CRasServer server(entry.c_str());
    const bool connected = server.ConnectRAS();
    char text[1024];
    server.GetLastRasError(text, sizeof text);
    EXPECT_TRUE(connected) << text;
    EXPECT_TRUE(fs::exists("/run/ppp-tessel-" + entry + ".pid"));
    EXPECT_TRUE(server.DisconnectRAS());
    EXPECT_TRUE(
        eventually([&] { return !fs::exists("/run/ppp-tessel-" + entry + ".pid"); }, 20000ms));
    fs::remove(peer);
}
