// The serial ports of the machine, found in sysfs.
//
// A serial port is a tty of /sys/class/tty whose device has a driver bound: the UARTs of the
// serial core (ttyS, ttyAMA, ...), USB serial adapters (ttyUSB) and USB modems of the ACM
// class (ttyACM). Virtual terminals, pseudo-terminals and the console have no device and are
// left out. A serial-core port whose "type" attribute is 0 (no UART was found behind it, as
// for most of the legacy ttyS ports that the 8250 driver registers in advance) is left out
// too; a port without that attribute counts.
//
// The port's name is its device node, "/dev/ttyS0"; a '!' of a sysfs name, which stands for
// '/', becomes '/' ("/dev/tts/0" for "tts!0").
//
// Thread safety: the function holds no state and may be called from any thread.
#pragma once

#include <string>
#include <vector>

#include "tessel/Export.h"

namespace Tessel::Platform {

// The device nodes of the serial ports under sysfsRoot (the mount point of sysfs; a test may
// give a tree of its own with the same links), sorted by name in byte order. Empty when
// sysfsRoot/class/tty cannot be read.
TESSEL_API std::vector<std::string> ScanSerialPorts(const std::string& sysfsRoot = "/sys");

}  // namespace Tessel::Platform
