// The data-call dialler against a scripted modem on a pseudo-terminal.
#include "tessel/comms/TapiConnection.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/LogCapture.h"
#include "support/PtyModem.h"
#include "support/TestSupport.h"
#include "support/WaitProbe.h"
#include "tessel/host/Registry.h"
#include "tessel/logging/ILogging.h"
#include "tessel/logging/TraceUtil.h"
#include "tessel/platform/Event.h"
#include "tessel/platform/File.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/Modems.h"

using namespace Tessel::Platform;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsSupersetOf;

namespace {

const char* const kTraceKey = "SOFTWARE\\Tarvo Works\\GPS Velkor\\Trace";
const char* const kLine = "Modem A";
const char* const kNumber = "5551234";
const std::string kDial = std::string("ATDT") + kNumber;
const std::string kAborted = "While Dialing, WaitForReply aborted.";

std::size_t threadCount() {
    return static_cast<std::size_t>(
        std::distance(std::filesystem::directory_iterator("/proc/self/task"),
                      std::filesystem::directory_iterator()));
}

// A modem as the only line, the dialler's trace on, and the status reports it traces.
class TapiConnectionTest : public testing::Test {
  protected:
    TapiConnectionTest() {
        SetModemDevices({{kLine, modem.device(), 115200, false}});
        REG::WriteLong(kTraceKey, "Tapi", 0x800000);
        CTraceUtil::SetRegistryKey(kTraceKey, "Tapi");
        ILogging::getInstance();  // with whatever threads the log has, before the count
        threadsBefore = threadCount();
    }
    ~TapiConnectionTest() override { ResetModemDevices(); }

    // "<number>: <text>" of each status report so far.
    std::vector<std::string> reports() const {
        std::vector<std::string> found;
        const std::string marker = "CTapiConnection status ";
        for (const std::string& text : trace.texts()) {
            const std::size_t at = text.find(marker);
            if (at != std::string::npos) {  // the text ends in "\n"
                found.push_back(
                    text.substr(at + marker.size(), text.size() - at - marker.size() - 1));
            }
        }
        return found;
    }
    static std::string status(CTapiConnection& connection) {
        char text[1024];
        unsigned long number = 1;
        connection.GetLastTapiConnectionError(sizeof text, text, &number);
        return std::to_string(static_cast<long>(number)) + ": " + text;
    }

    TesselTest::PtyModem modem;
    TesselTest::DebugOutputCapture trace;
    std::size_t threadsBefore = 0;  // the modem's thread included
};

struct FailedDial {
    const char* name;
    std::vector<std::string> initReply;
    const char* dialResult;
    const char* report;
    std::string final;
    std::vector<std::string> commands;
};

void PrintTo(const FailedDial& dial, std::ostream* out) {
    *out << dial.name;
}

class FailedDialTest : public TapiConnectionTest, public testing::WithParamInterface<FailedDial> {};

// The modem's answer becomes a call state whose report the trace shows; the hang-up that
// follows ends the service, and the status holds the wait's verdict.
TEST_P(FailedDialTest, ReportsTheCauseAndEndsTheCall) {
    const FailedDial& dial = GetParam();
    modem.answer("ATE0V1", dial.initReply);
    modem.answerDial(dial.dialResult);
    const TesselTest::LogCapture log;
    {
        CTapiConnection connection;
        EXPECT_EQ(connection.DialCall(kLine, kNumber), 0);
        EXPECT_THAT(reports(), testing::Contains(std::string("-1002: ") + dial.report));
        EXPECT_EQ(status(connection), "-1002: " + dial.final);
        EXPECT_EQ(modem.commands(), dial.commands);
        EXPECT_EQ(connection.CheckAndProvideConnection(), 0);
    }
    EXPECT_EQ(threadCount(), threadsBefore);
    EXPECT_THAT(log.text(), HasSubstr("throw -7"));
}

const std::vector<std::string> kOk = {"OK"};
const std::vector<std::string> kDialled = {"ATE0V1", kDial};
INSTANTIATE_TEST_SUITE_P(
    Results, FailedDialTest,
    testing::Values(
        FailedDial{"Busy", kOk, "BUSY", "Line busy, shutting down.",
                   "While Dialing, WaitForReply failed.", kDialled},
        FailedDial{"NoCarrier", kOk, "NO CARRIER", "Disconnected: Unreachable", kAborted, kDialled},
        FailedDial{"NoDialtone", kOk, "NO DIALTONE", "Disconnected: No Dial Tone", kAborted,
                   kDialled},
        FailedDial{"NoDialTone", kOk, "NO DIAL TONE", "Disconnected: No Dial Tone", kAborted,
                   kDialled},
        FailedDial{"NoAnswer", kOk, "NO ANSWER", "Disconnected: No Answer", kAborted, kDialled},
        FailedDial{"Error", kOk, "ERROR", "Disconnected: Bad Address", kAborted, kDialled},
        FailedDial{"InitRefused", {"ERROR"}, "", "Disconnected: Unavail", kAborted, {"ATE0V1"}}),
    TesselTest::ParamName());

TEST_F(TapiConnectionTest, ModemSilentToTheInitialisationIsUnavailableSlow) {
    modem.answer("ATE0V1", {});
    CTapiConnection connection;
    EXPECT_EQ(connection.DialCall(kLine, kNumber), 0);
    EXPECT_THAT(reports(), testing::Contains("-1002: Disconnected: Unavail"));
    EXPECT_EQ(modem.commands(), std::vector<std::string>{"ATE0V1"});
}

TEST_F(TapiConnectionTest, ConnectsPassesDataBothWaysAndHangsUp) {
    CTapiConnection connection;
    ASSERT_EQ(connection.DialCall(kLine, kNumber), 1) << status(connection);
    EXPECT_EQ(status(connection), "0: ");
    EXPECT_THAT(reports(), IsSupersetOf({"-1002: Dialing.", "-1002: Connected"}));
    const HANDLE comm = connection.GetCommHandle();
    ASSERT_NE(comm, nullptr) << status(connection);
    EXPECT_EQ(GetFileType(comm), FILE_TYPE_CHAR);
    DWORD moved = 0;
    ASSERT_TRUE(WriteFile(comm, "hello", 5, &moved, nullptr));
    EXPECT_TRUE(modem.receives("hello"));
    modem.send("world");
    std::string got;
    char buffer[16];
    while (got.size() < 5 && ReadFile(comm, buffer, sizeof buffer, &moved, nullptr) && moved > 0) {
        got.append(buffer, moved);
    }
    EXPECT_EQ(got, "world");
    EXPECT_EQ(connection.CheckAndProvideConnection(), 1);

    // A second dial while connected changes nothing.
    EXPECT_EQ(connection.DialCall(kLine, "999"), 1);
    EXPECT_EQ(connection.GetCommHandle(), comm);
    EXPECT_THAT(modem.commands(), ElementsAre("ATE0V1", kDial));

    EXPECT_EQ(connection.HangUpCall(), 1);
    EXPECT_THAT(modem.commands(), ElementsAre("ATE0V1", kDial, "+++", "ATH0"));
    EXPECT_EQ(connection.CheckAndProvideConnection(), 0);
    EXPECT_EQ(threadCount(), threadsBefore);

    // The next dial initialises the service anew.
    modem.answerDial("CONNECT 9600");
    EXPECT_EQ(connection.DialCall(nullptr, "777"), 1) << status(connection);
    EXPECT_THAT(modem.commands(), testing::Contains("ATDT777"));
    EXPECT_EQ(connection.HangUpCall(), 1);
}

TEST_F(TapiConnectionTest, RemoteHangUpEndsTheConnection) {
    CTapiConnection connection;
    ASSERT_EQ(connection.DialCall(kLine, kNumber), 1) << status(connection);
    modem.hangUp();
    EXPECT_TRUE(
        TesselTest::eventually([&] { return connection.CheckAndProvideConnection() == 0; }));
    EXPECT_EQ(connection.HangUpCall(), 1);
    EXPECT_THAT(reports(), testing::Contains("-1002: Remote Party Disconnected"));
    EXPECT_EQ(threadCount(), threadsBefore - 1);
}

TEST_F(TapiConnectionTest, SilentDialTimesOutAndIsAborted) {
    modem.answerDial("");
    CTapiConnection connection;
    connection.SetReplyTimeoutSeconds(1);
    EXPECT_EQ(connection.DialCall(kLine, kNumber), 0);
    EXPECT_THAT(reports(),
                IsSupersetOf({"-1002: While Dialing, Timeout Error.", "-1002: Line idle."}));
    // The dial is aborted by a CR before the line is closed.
    EXPECT_THAT(modem.commands(), ElementsAre("ATE0V1", kDial, ""));
    EXPECT_EQ(threadCount(), threadsBefore);
}

// A dial that waits for an answer is stopped by the cancel event or by a hang-up of another
// thread, at once rather than after the reply time-out, and leaves no thread behind.
TEST_F(TapiConnectionTest, DialIsStoppedByTheCancelEventOrAHangUp) {
    for (const bool cancel : {true, false}) {
        SCOPED_TRACE(cancel);
        modem.answerDial("");
        const HANDLE cancelEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        CTapiConnection connection;
        ASSERT_EQ(connection.Create(cancelEvent, kLine, kNumber), 1);
        int hungUp = -1;
        {
            TesselTest::AsyncCall dial(
                [&] { return static_cast<DWORD>(connection.DialCall(nullptr, nullptr)); });
            ASSERT_TRUE(modem.saw("ATDT"));
            ASSERT_TRUE(dial.blocked());
            if (cancel) {
                SetEvent(cancelEvent);
            } else {
                hungUp = connection.HangUpCall();
            }
            EXPECT_TRUE(dial.finishes());
            EXPECT_EQ(dial.result(), 0u);
        }
        if (cancel) {
            EXPECT_THAT(reports(),
                        testing::Contains("-1002: While Dialing, WaitForReply canceled."));
        } else {
            EXPECT_EQ(hungUp, 1);
            EXPECT_EQ(status(connection), "-1002: " + kAborted);
        }
        EXPECT_EQ(threadCount(), threadsBefore);
        CloseHandle(cancelEvent);
    }
}

struct Refusal {
    const char* name;
    const char* device;  // null: the modem's; "": no modems at all
    const char* lineName;
    bool lockTty;
    std::string status;
    const char* logged;
};

void PrintTo(const Refusal& refusal, std::ostream* out) {
    *out << refusal.name;
}

class RefusalTest : public TapiConnectionTest, public testing::WithParamInterface<Refusal> {};

TEST_P(RefusalTest, DialFailsWithItsReason) {
    const Refusal& refusal = GetParam();
    if (refusal.device != nullptr && *refusal.device == '\0') {
        SetModemDevices({});
    } else if (refusal.device != nullptr) {
        SetModemDevices({{kLine, refusal.device, 115200, false}});
    }
    const int holder = ::open(modem.device().c_str(), O_RDWR | O_NOCTTY);
    if (refusal.lockTty) {
        ASSERT_EQ(::flock(holder, LOCK_EX), 0);
    }
    const TesselTest::LogCapture log;
    CTapiConnection connection;
    EXPECT_EQ(connection.DialCall(refusal.lineName, kNumber), 0);
    EXPECT_EQ(status(connection), refusal.status);
    EXPECT_THAT(log.text(), HasSubstr(refusal.logged));
    EXPECT_TRUE(modem.commands().empty());
    ::close(holder);
    EXPECT_EQ(threadCount(), threadsBefore);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, RefusalTest,
    testing::Values(
        Refusal{"UnknownLine", nullptr, "Modem B", false, "-1004: Error on Requested line",
                "throw -3"},
        Refusal{"NoModems", "", kLine, false, "0: ", ""},
        Refusal{"LockedTty", nullptr, kLine, true,
                "-1000: Line is already in use by a non-TAPI application or by another TAPI "
                "Service Provider.",
                "throw -5"},
        Refusal{"MissingTty", "/nonexistent/ttyS9", kLine, false, "-1000: Unable to Use Line.",
                "throw -6"}),
    TesselTest::ParamName());

// Gives the tests the protected message handling.
class MessageProbe : public CTapiConnection {
  public:
    using CTapiConnection::HandleLineCallState;
    DWORD devices() const { return m_dwNumDevs; }
};

TEST(TapiConnectionMessages, LineCreateGrowsTheDevicesAndStrangersAreRefused) {
    MessageProbe probe;
    probe.HandleLineCallState(0, LINE_CREATE, 0, 5, 0, 0);
    EXPECT_GE(probe.devices(), 6u);
    probe.HandleLineCallState(0, LINE_CREATE, 0, 2, 0, 0);
    EXPECT_EQ(probe.devices(), 6u);

    probe.HandleLineCallState(42, LINE_CALLSTATE, 0, LINECALLSTATE_CONNECTED, 0, 0);
    char text[8];
    unsigned long number = 0;
    probe.GetLastTapiConnectionError(sizeof text, text, &number);
    EXPECT_EQ(static_cast<long>(number), -1002);
    EXPECT_STREQ(text, "LINE_CA");  // cut to the buffer
}

}  // namespace
