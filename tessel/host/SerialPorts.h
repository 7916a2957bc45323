// CSerialPorts: the count and names of the machine's serial ports, as narrow text.
//
// A thin view of CWinUtil's list of ports (WinUtil.h): the names are the device nodes of the
// serial ports, "/dev/ttyS0", "/dev/ttyUSB0", in the list's order.
//
// Thread safety: none, as for CWinUtil; use from one thread.
#pragma once

#include <cstddef>
#include <string>

#include "tessel/Export.h"
#include "tessel/host/WinUtil.h"

class TESSEL_API CSerialPorts {
  public:
    // The highest port number that a port name carried on the platform the library was
    // designed for (COM1 to COM98). Kept for callers that size tables by it; the list of
    // ports is not cut at it.
    static constexpr unsigned int MAX_PORT_ID = 98;

    // Scans the machine anew and returns the number of serial ports.
    static std::size_t GetSerialPortCount();

    // Copies the name of port index of the last scan (the first call scans) into buffer, of
    // size bytes. False for a null buffer. An index beyond the list gives "" and true. A name
    // that does not fit, with its NUL, is an invalid parameter (InvalidParameter.h): the
    // buffer is emptied and, if the handler returns, the result is true.
    static bool GetSerialPortName(unsigned int index, char* buffer, std::size_t size);

  private:
    // The name of port index, "" beyond the list.
    static std::wstring GetBSTRComPortName(int index);
};
