// CWinUtil: the serial ports of the machine and the operating system's version.
//
// EnumSystemPorts fills one process-wide list of ports, s_vecPorts, and hands it to the
// caller. The way it looks for ports follows the system's class (QueryWinVersion): on this
// platform the class is 6, and the ports are those of Tessel::Platform::ScanSerialPorts, the
// serial devices of sysfs named by their device nodes ("/dev/ttyS0", "/dev/ttyUSB0"). The
// classes 1 to 3 read the ports of the device and service keys of the registry instead.
//
// The list is kept sorted by name length, so that "/dev/ttyS2" comes before "/dev/ttyS10";
// names of one length stand in the reverse order of their insertion. A scan inserts the ports
// in descending order of name, so that ports of one name length list in ascending order.
//
// Lifetime: the list owns its entries; a refreshing call frees them, so pointers taken from
// the list are valid until the next refresh.
//
// Thread safety: none. The list is not guarded; scan and read it from one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tessel/Export.h"

namespace WinUtil {

// The kind of port that EnumSystemPorts is asked for; only serial ports are looked for.
enum PortType {
    PortSerial = 0,
    PortParallel = 1,
};

// One port of the list.
struct _PortDesc {
    std::wstring portName;         // the device node, "/dev/ttyS0"
    std::uint32_t portType = 0;    // a PortType
    std::uint32_t portNumber = 0;  // the number that ends the name (3 for "/dev/ttyS3"), else 0
};

}  // namespace WinUtil

class TESSEL_API CWinUtil {
  public:
    // Sets list to s_vecPorts and returns the number of its ports. The list is filled when it
    // is empty or refresh is non-zero (which empties it first), and type is PortSerial;
    // otherwise it is returned as it stands. Every port found is a serial port, so
    // serialOnly changes nothing. A system class of 0 looks for nothing.
    static std::size_t EnumSystemPorts(std::vector<WinUtil::_PortDesc*>*& list, int refresh,
                                       WinUtil::PortType type, int serialOnly);

    // The name of port index of the list; index must be below the count (not checked).
    static std::wstring getPortName(int index);

    // The class of the operating system, from the version that GetVersionExA reports: 1 and
    // 2 for the two releases of the consumer family (minor version 0 and 10), the major
    // version 3, 4, 5 or 6 for the NT family, 0 for anything else. 6 on this platform.
    static int QueryWinVersion();

    // The system's name for people, PRETTY_NAME of os-release ("Debian GNU/Linux 12
    // (bookworm)"); "Unknown" when it cannot be read.
    static std::wstring GetWinVersionInfo();

  protected:
    // Adds the "PortName" value (at most 200 bytes) of every sub-key of the registry key key
    // (below HKEY_LOCAL_MACHINE) that is not yet in the list, through insertPortSorted.
    // 1, or 0 if the key cannot be opened.
    static int EnumPortsInSubkey(const char* key);

    // Inserts port, which the list then owns: in front of the first entry with a longer name,
    // or in front of the first entry of the same length whose name differs; at the end when
    // there is none.
    static void insertPortSorted(WinUtil::_PortDesc* port);

    // The list of ports; owns its entries.
    class PortList : public std::vector<WinUtil::_PortDesc*> {
      public:
        PortList() = default;
        ~PortList();
        PortList(const PortList&) = delete;
        PortList& operator=(const PortList&) = delete;
        // Frees every entry and empties the list.
        void clearPorts();
    };
    static PortList s_vecPorts;
};
