// CRasDevices: the modems and ISDN adapters that the remote access service knows.
//
// The device table is the service's list of RASDEVINFOA records (Ras.h: the machine's modems,
// of the type "modem" or "isdn"), read on first use into one block of the process heap and
// kept until the object ends: devices added later are not seen. A family is the devices whose
// type text equals "modem" or "isdn" byte-wise; family indices count among its members from
// 0. Results of 1 mean success and 0 failure; a table that cannot be read is an empty one.
//
// Lifetime: the destructor frees the table. Not copyable.
// Thread safety: none; an object belongs to one thread at a time.
#pragma once

#include <cstddef>

#include "tessel/Export.h"
#include "tessel/platform/Ras.h"

class TESSEL_API CRasDevices {
  public:
    CRasDevices() = default;
    ~CRasDevices();
    CRasDevices(const CRasDevices&) = delete;
    CRasDevices& operator=(const CRasDevices&) = delete;

    // The number of modems, and of ISDN adapters.
    long GetModemCount();
    long GetISDNCount();

    // Copies the name of the family's device index into buffer, of size bytes, cut to size - 1
    // bytes and NUL-terminated. 1 when copied; 0 for an index at or beyond the family's count,
    // a null buffer or a size of 0.
    int GetModemName(unsigned int index, char* buffer, size_t size);
    int GetISDNName(unsigned int index, char* buffer, size_t size);

    // Sets index to the position in the whole table of the first device named name; 1. 0 with
    // index unchanged when there is none, or name is null.
    int GetRasDeviceIndex(char const* name, int& index);

    // Copies the record of the device at index of the whole table, or of the first device
    // named name, into info. 1, or 0 for a bad index, an unknown name or a null argument.
    int GetRasDeviceInfo(unsigned int index, Tessel::Platform::RASDEVINFOA* info);
    int GetRasDeviceInfo(char const* name, Tessel::Platform::RASDEVINFOA* info);

  private:
    // The number of devices of type.
    long GetRASDeviceCount(char const* type);
    // The name of the device index of the family type, as GetModemName.
    int GetRASDeviceName(unsigned int index, char const* type, char* buffer, size_t size);
    // Reads the table unless it is filled: up to five rounds, each with the size that the
    // service asked for in the last (one record at first). true when the table is filled.
    bool InitEnumRasDevices();
    // Frees the table.
    void Clear();

    Tessel::Platform::DWORD m_dwDeviceCount = 0;
    Tessel::Platform::RASDEVINFOA* m_pDevices = nullptr;
};
