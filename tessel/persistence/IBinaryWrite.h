// IBinaryWrite: a sink of bytes that is opened, written and closed.
//
// The data logger and other writers of binary streams write through it without knowing where
// the bytes go; CStreamToFileWriter is its implementation on a file. Results are int codes of
// the implementation, 0 for success.
//
// Copies and assignment copy nothing; the interface holds no state.
//
// Thread safety: as the implementation says.
#pragma once

#include "tessel/Export.h"

class TESSEL_API IBinaryWrite {
  public:
    IBinaryWrite() = default;
    IBinaryWrite(const IBinaryWrite&) = default;
    IBinaryWrite& operator=(const IBinaryWrite&) = default;
    virtual ~IBinaryWrite() = default;

    // Makes the sink ready for writes. 0 on success, else an error code of the implementation.
    virtual int Open() = 0;
    // Writes size bytes of data; with flush true they are passed on at once rather than
    // gathered. 0 on success.
    virtual int StreamWrite(const unsigned char* data, unsigned int size, bool flush) = 0;
    // Ends the writes; 0 on success.
    virtual int Close() = 0;
};
