#include "tessel/comms/PCCommunicationHardware.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "support/ChildProcess.h"
#include "tessel/host/SerialPorts.h"
#include "tessel/platform/Modems.h"

namespace fs = std::filesystem;
using Bytes = std::vector<unsigned char>;
using Channel = CPCCommunicationHardware::CComHW;
using Channels = std::vector<std::pair<unsigned, std::string>>;

namespace {

Bytes Save(const IPersistData& data) {
    Bytes bytes(data.getSize(), 0xEE);
    data.saveData(bytes.data(), bytes.size());
    return bytes;
}

Channels Listed(const CPCCommunicationHardware& list) {
    Channels channels;
    for (const Channel& channel : list.GetChannels()) {
        channels.emplace_back(channel.GetType(), channel.GetName());
    }
    return channels;
}

// Hides the machine's serial ports from this (forked) process: sysfs's tty class is covered by
// an empty file system in a mount namespace of its own. false where that is not allowed.
bool HideSerialPorts() {
    if (::unshare(CLONE_NEWNS) != 0 && ::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
        return false;
    }
    // Private first, so that the covering mount cannot reach the machine's namespace.
    return ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("none", "/sys/class/tty", "tmpfs", 0, nullptr) == 0;
}

// Scans `scans` times in a second process with the modems and the peers folder given, with the
// serial ports hidden where it can, and loads what that process saved. *hidden tells whether
// the ports were hidden.
CPCCommunicationHardware ScanElsewhere(std::vector<Tessel::Platform::ModemDevice> modems,
                                       const std::string& peers, int scans, bool* hidden) {
    const std::string file =
        (fs::temp_directory_path() / ("tessel-comhw-" + std::to_string(::getpid()))).string();
    const int status = TesselTest::RunInChild([&] {
        const bool covered = HideSerialPorts();
        Tessel::Platform::SetModemDevices(modems);
        ::setenv("TESSEL_PPP_PEERS", peers.c_str(), 1);
        CPCCommunicationHardware list;
        for (int i = 0; i < scans; ++i) {
            list.ScanComHW();
        }
        const Bytes bytes = Save(list);
        std::ofstream(file, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        return covered ? 0 : 1;
    });
    EXPECT_TRUE(status == 0 || status == 1) << status;
    *hidden = status == 0;
    std::ifstream in(file, std::ios::binary);
    const Bytes bytes{std::istreambuf_iterator<char>(in), {}};
    fs::remove(file);
    CPCCommunicationHardware list;
    EXPECT_TRUE(list.loadData(bytes.data(), bytes.size()));
    return list;
}

// The serial ports that a scan lists first where they are not hidden.
Channels SerialPorts(bool hidden) {
    Channels ports;
    const std::size_t count = hidden ? 0 : CSerialPorts::GetSerialPortCount();
    for (unsigned i = 0; i < count; ++i) {
        char name[261];
        CSerialPorts::GetSerialPortName(i, name, sizeof name);
        ports.emplace_back(0, name);
    }
    return ports;
}

}  // namespace

TEST(PCCommunicationHardware, SavesTheGoldenForm) {
    CPCCommunicationHardware list;
    EXPECT_EQ(list.getSize(), 9u);
    EXPECT_EQ(Save(list), Bytes(9, 0));
    list.SetHeadValue(0x04030201);
    list.SetHeadFlag(0xAB);
    list.AddChannel(Channel(0, "S0"));
    list.AddChannel(Channel(3, ""));
    const Bytes golden = {1, 2, 3, 4, 0xAB, 2,   0, 0, 0,  // head and count
                          0, 0, 0, 0, 'S',  '0', 0,        // a serial port
                          3, 0, 0, 0, 0};                  // a nameless TCP/IP
    ASSERT_EQ(Save(list), golden);

    CPCCommunicationHardware loaded;
    loaded.AddChannel(Channel(4, "dropped by the load"));
    ASSERT_TRUE(loaded.loadData(golden.data(), golden.size()));
    EXPECT_EQ(loaded.GetHeadValue(), 0x04030201u);
    EXPECT_EQ(loaded.GetHeadFlag(), 0xAB);
    EXPECT_EQ(Listed(loaded), (Channels{{0, "S0"}, {3, ""}}));

    // Nothing is read past the input, and nothing written past the buffer.
    EXPECT_FALSE(loaded.loadData(golden.data(), golden.size() - 1));
    EXPECT_EQ(Listed(loaded), (Channels{{0, "S0"}}));
    EXPECT_FALSE(loaded.loadData(nullptr, 9));
    Bytes small(golden.size() - 1, 0xEE);
    list.saveData(small.data(), small.size());
    EXPECT_EQ(small, Bytes(golden.size() - 1, 0xEE));
}

TEST(PCCommunicationHardware, NamesAreCutAt260) {
    const Channel longName(2, std::string(300, 'n').c_str());
    EXPECT_EQ(longName.GetName(), std::string(260, 'n'));
    EXPECT_EQ(longName.getSize(), 265u);
    EXPECT_STREQ(Channel(1, nullptr).GetName(), "");

    Bytes tooLong(4 + 262, 'n');
    tooLong.back() = 0;
    Channel loaded(1, "kept");
    EXPECT_FALSE(loaded.loadData(tooLong.data(), tooLong.size()));
    EXPECT_STREQ(loaded.GetName(), "kept");
}

TEST(PCCommunicationHardware, ScanOfABareMachineListsTcpIpAndTheRouter) {
    bool hidden = false;
    const CPCCommunicationHardware once = ScanElsewhere({}, "/nonexistent", 1, &hidden);
    Channels expected = SerialPorts(hidden);
    expected.insert(expected.end(), {{3, "TCP/IP"}, {4, "AccessRouter"}});
    EXPECT_EQ(Listed(once), expected);

    const CPCCommunicationHardware twice = ScanElsewhere({}, "/nonexistent", 2, &hidden);
    const Channels first = expected;
    expected.insert(expected.end(), first.begin(), first.end());
    EXPECT_EQ(Listed(twice), expected);
}

TEST(PCCommunicationHardware, ScanListsPortsModemsAdaptersAndEntriesInOrder) {
    const std::string peers = ::mkdtemp(std::string("/tmp/tessel-peers-XXXXXX").data());
    std::ofstream(peers + "/work");
    std::ofstream(peers + "/home");
    bool hidden = false;
    const CPCCommunicationHardware list =
        ScanElsewhere({{"isdn card", "/dev/ttyUSB1", 115200, true},
                       {"modem 1", "/dev/ttyUSB0", 115200, false},
                       {"modem 2", "/dev/ttyACM0", 57600, false}},
                      peers, 1, &hidden);
    fs::remove_all(peers);
    Channels expected = SerialPorts(hidden);
    expected.insert(expected.end(), {{1, "modem 1"},
                                     {1, "modem 2"},
                                     {1, "isdn card"},
                                     {2, "home"},
                                     {2, "work"},
                                     {3, "TCP/IP"},
                                     {4, "AccessRouter"}});
    EXPECT_EQ(Listed(list), expected);
}
