// CWatchdogMessage: the record that a watchdog client sends to the watchdog program.
//
// One message tells the watchdog about one thread of the supervised process: which thread,
// a number whose meaning depends on the message type, and a text. The record is sent whole,
// as the data of a WM_COPYDATA message; the message type does not stand in it but travels
// beside it, as the message's dwData. Its layout is the one the watchdog reads, 280 bytes,
// little-endian, checked at compile time below:
//
//   offset   0, 4 bytes    thread id, signed: the system id of the thread that the message is
//                          about; 0 in the shutdown message
//   offset   4, 4 bytes    padding, zero
//   offset   8, 8 bytes    data, signed, meaning by message type
//   offset  16, 260 bytes  text, NUL-terminated
//   offset 276, 4 bytes    padding
//
// What each type carries (enumWatchDogMessageType):
//
//   0 eWatchDogThreadInfo           calling thread; 2 or 1 (flag set or not); display name
//   1 eWatchDogThreadClosing        thread that ends; 0
//   2 eWatchDogLongOperationIsOk    calling thread; the caller's number (0 from the idle routine)
//   3 eWatchDogShutdown             0; 0
//   4 eWatchDogThreadIdleHandler    calling thread; the address of the thread's idle routine
//   5 eWatchDogUnhandledException   calling thread; 0
//
// Only the thread-info message writes the text; the others send whatever text the record
// holds from before, since a client reuses one record for all its messages.
//
// Thread safety: none; a record belongs to one client, and a client to one thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tessel/Export.h"

class TESSEL_API CWatchdogMessage {
  public:
    enum enumWatchDogMessageType {
        eWatchDogThreadInfo = 0,
        eWatchDogThreadClosing = 1,
        eWatchDogLongOperationIsOk = 2,
        eWatchDogShutdown = 3,
        eWatchDogThreadIdleHandler = 4,
        eWatchDogUnhandledException = 5,
    };

    // Room of the text, its terminating NUL included.
    static constexpr std::size_t TEXT_SIZE = 260;

    // A cleared record.
    CWatchdogMessage();
    CWatchdogMessage(const CWatchdogMessage& other) = default;
    // Copy all 280 bytes of other, padding included.
    CWatchdogMessage& operator=(const CWatchdogMessage& other);
    CWatchdogMessage& operator=(CWatchdogMessage&& other);

    // Zeroes thread id, data, text and the padding.
    void Clear();

    std::int32_t m_lThreadId;
    std::int32_t m_lReserved1;
    std::int64_t m_llData;
    char m_szText[TEXT_SIZE];
    std::int32_t m_lReserved2;
};

static_assert(sizeof(CWatchdogMessage) == 280);
static_assert(offsetof(CWatchdogMessage, m_lThreadId) == 0);
static_assert(offsetof(CWatchdogMessage, m_lReserved1) == 4);
static_assert(offsetof(CWatchdogMessage, m_llData) == 8);
static_assert(offsetof(CWatchdogMessage, m_szText) == 16);
static_assert(offsetof(CWatchdogMessage, m_lReserved2) == 276);
