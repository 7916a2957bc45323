// CRasConnections: the phone book entries of the remote access service (Ras.h: the peer files
// of pppd), read once by the constructor.
//
// The constructor asks the service for the number of entries with one record, then reads them
// all and takes the number read. Should the second read fail (an entry was added in between),
// the table stays empty while the count of the first answer stands, and no name is given.
//
// Lifetime: the destructor frees the table. Not copyable.
// Thread safety: none; an object belongs to one thread at a time.
#pragma once

#include <cstddef>

#include "tessel/Export.h"
#include "tessel/platform/Ras.h"

class TESSEL_API CRasConnections {
  public:
    CRasConnections();
    virtual ~CRasConnections();
    CRasConnections(const CRasConnections&) = delete;
    CRasConnections& operator=(const CRasConnections&) = delete;

    // The number of entries.
    long GetRasConnectionCount() const { return static_cast<long>(m_dwEntryCount); }

    // Copies the name of entry index into buffer, of size bytes, cut to size - 1 bytes and
    // NUL-terminated; 1. 0 for an index above the count, a null buffer, a size of 0 or no
    // table. An index equal to the count passes the test and gives "" and 1: stay below the
    // count.
    int GetRasConnectionName(unsigned int index, char* buffer, size_t size) const;

  private:
    Tessel::Platform::DWORD m_dwEntryCount = 0;
    Tessel::Platform::RASENTRYNAMEA* m_pEntries = nullptr;
};
