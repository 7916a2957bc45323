#include "tessel/host/WinUtil.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "support/TestSupport.h"
#include "tessel/host/SerialPorts.h"
#include "tessel/host/StringFormat.h"
#include "tessel/platform/Registry.h"

namespace {

// Reaches the protected list operations.
struct WinUtilProbe : CWinUtil {
    using CWinUtil::EnumPortsInSubkey;
    using CWinUtil::insertPortSorted;
    using CWinUtil::s_vecPorts;

    static void insert(const std::wstring& name) {
        auto* port = new WinUtil::_PortDesc;
        port->portName = name;
        insertPortSorted(port);
    }
    static std::vector<std::wstring> names() {
        std::vector<std::wstring> result;
        for (const WinUtil::_PortDesc* port : s_vecPorts) {
            result.push_back(port->portName);
        }
        return result;
    }
};

using Names = std::vector<std::wstring>;

}  // namespace

TEST(WinUtil, InsertPortSortedOrdersByLengthThenLatestFirst) {
    const std::pair<Names, Names> cases[] = {
        {{L"COM1", L"COM10", L"COM2"}, {L"COM2", L"COM1", L"COM10"}},
        {{L"COM3", L"COM1", L"COM1"}, {L"COM1", L"COM1", L"COM3"}},  // equal names walk past
        {{L"B", L"AAA", L"CC"}, {L"B", L"CC", L"AAA"}},
    };
    for (const auto& [inserted, listed] : cases) {
        WinUtilProbe::s_vecPorts.clearPorts();
        for (const std::wstring& name : inserted) {
            WinUtilProbe::insert(name);
        }
        EXPECT_EQ(WinUtilProbe::names(), listed);
    }
}

TEST(WinUtil, EnumPortsInSubkeyReadsEachPortNameOnce) {
    namespace P = Tessel::Platform;
    const std::pair<const char*, const char*> devices[] = {
        {"0000", "COM3"}, {"0001", "COM1"}, {"0002", "COM3"}, {"0003", nullptr}};
    for (const auto& [device, port] : devices) {
        P::HKEY key = nullptr;
        P::RegCreateKeyExA(P::HKEY_LOCAL_MACHINE, (std::string("Enum\\Test\\") + device).c_str(), 0,
                           nullptr, 0, P::KEY_ALL_ACCESS, nullptr, &key, nullptr);
        if (port != nullptr) {
            P::RegSetValueExA(key, "PortName", 0, P::REG_SZ, reinterpret_cast<const P::BYTE*>(port),
                              5);
        }
        P::RegCloseKey(key);
    }
    WinUtilProbe::s_vecPorts.clearPorts();
    EXPECT_EQ(WinUtilProbe::EnumPortsInSubkey("Enum\\Test"), 1);
    EXPECT_EQ(WinUtilProbe::names(), (Names{L"COM1", L"COM3"}));
    EXPECT_EQ(WinUtilProbe::EnumPortsInSubkey("Enum\\Missing"), 0);
}

TEST(WinUtil, SystemIsOfClassSixAndNamedByOsRelease) {
    EXPECT_EQ(CWinUtil::QueryWinVersion(), 6);
    const std::string name = TesselTest::RunCaptured(
        "[ -r /etc/os-release ] && . /etc/os-release; printf %s \"$PRETTY_NAME\"");
    EXPECT_EQ(CWinUtil::GetWinVersionInfo(), name.empty() ? L"Unknown" : Tessel::DecodeUtf8(name));
}

TEST(WinUtil, SerialPortsAgreeWithSysfs) {
    // The serial ports as a shell sees them: ttys with a bound driver, minus UARTs of type 0.
    const std::string listing = TesselTest::RunCaptured(
        "for d in /sys/class/tty/*; do [ -e \"$d/device/driver\" ] || continue;"
        " [ \"$(cat \"$d/type\" 2>/dev/null)\" = 0 ] && continue; echo \"/dev/${d##*/}\"; done");
    std::istringstream lines(listing);
    std::vector<std::string> expected{std::istream_iterator<std::string>(lines), {}};
    // By length, then ascending within one length.
    std::sort(expected.begin(), expected.end(), [](const std::string& a, const std::string& b) {
        return a.size() != b.size() ? a.size() < b.size() : a < b;
    });

    // A list that holds ports is kept until a refresh, which the count makes.
    WinUtilProbe::insert(L"kept");
    char name[64];
    ASSERT_TRUE(CSerialPorts::GetSerialPortName(0, name, sizeof(name)));
    EXPECT_STREQ(name, "kept");
    ASSERT_EQ(CSerialPorts::GetSerialPortCount(), expected.size());
    std::vector<std::string> listed;
    for (unsigned i = 0; i < expected.size(); ++i) {
        ASSERT_TRUE(CSerialPorts::GetSerialPortName(i, name, sizeof(name)));
        listed.push_back(name);
    }
    EXPECT_EQ(listed, expected);
    EXPECT_TRUE(CSerialPorts::GetSerialPortName(expected.size(), name, sizeof(name)));
    EXPECT_STREQ(name, "");
    EXPECT_FALSE(CSerialPorts::GetSerialPortName(0, nullptr, 10));
    if (!expected.empty()) {  // a name that does not fit is an invalid parameter
        TesselTest::InvalidParameterThrows throws;
        EXPECT_THROW(CSerialPorts::GetSerialPortName(0, name, 4),
                     TesselTest::InvalidParameterError);
    }
}
