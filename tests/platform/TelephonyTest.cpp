// The telephony functions over a scripted modem, local memory blocks, and character devices
// as files.
#include "tessel/platform/Telephony.h"

#include <gtest/gtest.h>

#include <string>

#include "support/PtyModem.h"
#include "tessel/platform/Event.h"
#include "tessel/platform/File.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/Memory.h"
#include "tessel/platform/Modems.h"

namespace {

using namespace Tessel::Platform;

TEST(LocalMemory, BlocksAreZeroedAndKnowTheSizeAsked) {
    auto* block = static_cast<unsigned char*>(LocalAlloc(LPTR, 37));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(LocalSize(block), 37u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(block), 37), std::string(37, '\0'));
    EXPECT_EQ(LocalFree(block), nullptr);
    EXPECT_EQ(LocalSize(nullptr), 0u);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_EQ(LocalAlloc(0x0002 /* movable */, 8), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST(CharacterDevice, ReadsWhatIsThereInOneCall) {
    TesselTest::PtyModem modem;
    const HANDLE tty =
        CreateFileA(modem.device().c_str(), GENERIC_READ | GENERIC_WRITE,
                    FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(tty, INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetFileType(tty), FILE_TYPE_CHAR);
    modem.send("abc");
    char buffer[100];
    DWORD got = 0;
    EXPECT_TRUE(ReadFile(tty, buffer, sizeof buffer, &got, nullptr));
    EXPECT_EQ(std::string(buffer, got), "abc");
    CloseHandle(tty);

    const HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    EXPECT_EQ(GetFileType(event), FILE_TYPE_UNKNOWN);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    CloseHandle(event);
}

TEST(Telephony, ServiceOwnsItsEventAndAnswersForTheCall) {
    TesselTest::PtyModem modem;
    modem.answerDial("");
    SetModemDevices({{"Modem A", modem.device(), 115200, false}});
    LINEINITIALIZEEXPARAMS params{};
    params.dwTotalSize = sizeof params;
    params.dwOptions = LINEINITIALIZEEXOPTION_USEHIDDENWINDOW;
    HLINEAPP app = 0;
    DWORD devices = 0;
    DWORD version = 0x00020002;
    EXPECT_EQ(lineInitializeExA(&app, nullptr, nullptr, nullptr, &devices, &version, &params),
              LINEERR_INVALPARAM);
    params.dwOptions = LINEINITIALIZEEXOPTION_USEEVENT;
    ASSERT_EQ(lineInitializeExA(&app, nullptr, nullptr, nullptr, &devices, &version, &params), 0);
    EXPECT_EQ(devices, 1u);
    const HANDLE event = params.Handles.hEvent;

    DWORD api = 0;
    LINEEXTENSIONID extension{};
    EXPECT_EQ(lineNegotiateAPIVersion(app, 0, 0x00010003, 0x00010004, &api, &extension), 0);
    EXPECT_EQ(api, 0x00010004u);
    EXPECT_EQ(lineNegotiateAPIVersion(app, 0, 0x00030000, 0x00030001, &api, &extension),
              LINEERR_INCOMPATIBLEAPIVERSION);
    EXPECT_EQ(lineNegotiateAPIVersion(app, 1, 0x00010003, 0x00010004, &api, &extension),
              LINEERR_BADDEVICEID);

    HLINE line = 0;
    HLINE second = 0;
    ASSERT_EQ(lineOpenA(app, 0, &line, api, 0, 0, LINECALLPRIVILEGE_NONE, LINEMEDIAMODE_DATAMODEM,
                        nullptr),
              0);
    EXPECT_EQ(lineOpenA(app, 0, &second, api, 0, 0, LINECALLPRIVILEGE_NONE, LINEMEDIAMODE_DATAMODEM,
                        nullptr),
              LINEERR_ALLOCATED);

    // A record too small learns the size it needs and gets no handle.
    VARSTRING small{};
    small.dwTotalSize = sizeof small;
    EXPECT_EQ(lineGetIDA(line, 0, 0, LINECALLSELECT_LINE, &small, "comm/datamodem"), 0);
    EXPECT_EQ(small.dwNeededSize, sizeof(VARSTRING) + sizeof(HANDLE) + modem.device().size() + 1);
    EXPECT_EQ(small.dwStringSize, 0u);

    // The reply carries the call as its device; the application cannot reset the event while
    // the message waits.
    LINEMESSAGE message{};
    EXPECT_EQ(lineGetMessage(app, &message, 0), LINEERR_OPERATIONFAILED);
    HCALL call = 0;
    const LONG request = lineMakeCallA(line, &call, "123", 0, nullptr);
    ASSERT_GT(request, 0);
    ASSERT_EQ(WaitForSingleObject(event, 5000), WAIT_OBJECT_0);
    EXPECT_FALSE(ResetEvent(event));
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
    ASSERT_EQ(lineGetMessage(app, &message, 5000), 0);
    EXPECT_EQ(message.hDevice, call);
    EXPECT_EQ(message.dwMessageID, LINE_REPLY);
    EXPECT_EQ(message.dwParam1, static_cast<DWORD_PTR>(request));
    EXPECT_EQ(message.dwParam2, 0u);

    // Shut down, the dial is aborted, the event stays signalled and the application is gone.
    ASSERT_TRUE(modem.saw("ATDT"));
    EXPECT_EQ(lineShutdown(app), 0);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
    EXPECT_EQ(lineGetMessage(app, &message, 0), LINEERR_INVALAPPHANDLE);
    EXPECT_EQ(modem.commands(), (std::vector<std::string>{"ATE0V1", "ATDT123", ""}));
    ResetModemDevices();
}

}  // namespace
