// The modems of the machine: the line devices of the telephony functions (Telephony.h) and
// the dial-up devices (Ras.h).
//
// A modem is a tty with an AT command set behind it. By default the list is every serial port
// that ScanSerialPorts finds, each named by its device node and driven at 115,200 bit/s; a
// host that knows its hardware (a modem on a known port, a slower line, an ISDN adapter's
// tty) sets the list instead, and may go back to the scan.
//
// Thread safety: all functions may be called from any thread; a list set while a line is open
// applies to the next initialisation of the telephony functions and the next device list of
// dial-up.
#pragma once

#include <string>
#include <vector>

#include "tessel/Export.h"

namespace Tessel::Platform {

struct ModemDevice {
    // The name that callers choose the device by (a line name, a dial-up device name).
    std::string name;
    // The tty's device node, "/dev/ttyUSB0".
    std::string device;
    // The line speed in bit/s; one of the speeds of termios (300 to 4,000,000).
    unsigned speed = 115200;
    // An ISDN adapter rather than an analogue modem: dial-up lists it as "isdn".
    bool isdn = false;
};

// The modems: the list of the last SetModemDevices, or else the serial ports found now.
TESSEL_API std::vector<ModemDevice> ListModemDevices();

// Replaces the scan by devices (an empty list means no modems at all).
TESSEL_API void SetModemDevices(std::vector<ModemDevice> devices);

// Goes back to the scan of the serial ports.
TESSEL_API void ResetModemDevices();

}  // namespace Tessel::Platform
