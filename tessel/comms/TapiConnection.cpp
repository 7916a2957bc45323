#include "tessel/comms/TapiConnection.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstring>
#include <string>

#include "tessel/logging/ILogging.h"
#include "tessel/logging/TraceGuard.h"
#include "tessel/logging/TraceUtil.h"
#include "tessel/platform/Event.h"
#include "tessel/platform/File.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/Memory.h"
#include "tessel/platform/MessageQueue.h"

using namespace Tessel::Platform;

namespace {

constexpr unsigned int kTraceCategory = 0x800000;

// The status numbers.
constexpr LONG kInitError = -1000;
constexpr LONG kCloseError = -1001;
constexpr LONG kCallError = -1002;
constexpr LONG kCommHandleError = -1003;
constexpr LONG kCapsError = -1004;
constexpr LONG kBufferError = -1005;

// The API versions asked for a line.
constexpr DWORD kLowApiVersion = 0x00010003;
constexpr DWORD kHighApiVersion = 0x00010004;

// The working buffers: a fixed part and room for the variable parts.
constexpr std::size_t kInitParamsSize = 1052;
constexpr DWORD kInitParamsUsedSize = 28;
constexpr std::size_t kDevCapsSize = sizeof(LINEDEVCAPS) + 1024;
constexpr std::size_t kAddressCapsSize = 1252;
constexpr std::size_t kCallParamsSize = 176;
constexpr std::size_t kHangUpStatusSize = 1032;
constexpr std::size_t kCheckStatusSize = 56;
constexpr std::size_t kDeviceIdSize = 1048;
constexpr std::size_t kMessageSize = 1064;
constexpr DWORD kMessageWaitMs = 1000;

// No device chosen.
constexpr DWORD kNoDevice = 0xFFFFFFFFu;

void trace(const char* format, ...) __attribute__((format(printf, 1, 2)));
void trace(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    CTraceUtil::OutputStringEx(kTraceCategory, format, arguments);
    va_end(arguments);
}

// A numbered exit of routine: traced and logged.
void reportThrow(const char* routine, int number) {
    trace("%s: throw %d\n", routine, number);
    ILogging::getInstance().log(routine, ILogging::Error, fmt::format("throw {}", number));
}

// Copies text into a field of size bytes, cut to size - 1 characters.
void copyBounded(char* field, std::size_t size, const char* text) {
    std::strncpy(field, text, size - 1);
    field[size - 1] = '\0';
}

// The text of a disconnect mode.
const char* disconnectText(DWORD_PTR mode) {
    switch (mode) {
        case LINEDISCONNECTMODE_NORMAL:
            return "Remote Party Disconnected";
        case LINEDISCONNECTMODE_UNKNOWN:
            return "Disconnected: Unknown reason";
        case LINEDISCONNECTMODE_REJECT:
            return "Remote Party rejected call";
        case LINEDISCONNECTMODE_PICKUP:
            return "Disconnected: Local phone picked up";
        case LINEDISCONNECTMODE_FORWARDED:
            return "Disconnected: Forwarded";
        case LINEDISCONNECTMODE_BUSY:
            return "Disconnected: Busy";
        case LINEDISCONNECTMODE_NOANSWER:
            return "Disconnected: No Answer";
        case LINEDISCONNECTMODE_BADADDRESS:
            return "Disconnected: Bad Address";
        case LINEDISCONNECTMODE_UNREACHABLE:
            return "Disconnected: Unreachable";
        case LINEDISCONNECTMODE_CONGESTION:
            return "Disconnected: Congestion";
        case LINEDISCONNECTMODE_INCOMPATIBLE:
            return "Disconnected: Incompatible";
        case LINEDISCONNECTMODE_UNAVAIL:
            return "Disconnected: Unavail";
        case LINEDISCONNECTMODE_NODIALTONE:
            return "Disconnected: No Dial Tone";
        default:
            return "Disconnected: LINECALLSTATE; Bad Reason";
    }
}

bool isFile(HANDLE handle) {
    return handle != nullptr && handle != INVALID_HANDLE_VALUE;
}

}  // namespace

CTapiConnection::CTapiConnection()
    : m_dwNumDevs(0),
      m_dwDeviceID(kNoDevice),
      m_lAsyncRequestID(0),
      m_lAsyncReply(0),
      m_bShuttingDown(false),
      m_bStoppingCall(false),
      m_bInitializing(false),
      m_bTapiInUse(false),
      m_hLineApp(0),
      m_hCall(0),
      m_hLine(0),
      m_dwAPIVersion(0),
      m_szPhoneNumber{},
      m_szLineName{},
      m_lLastError(0),
      m_szLastError{},
      m_hComm(nullptr),
      m_hSynchronisationEvent(CreateEventA(nullptr, FALSE, FALSE, nullptr)),
      m_bConnected(false),
      m_pLineDevCaps(nullptr),
      m_pLineInitParams(nullptr),
      m_hCancelEvent(nullptr) {
    SetLastTapiConnectionError(0, "");
}

CTapiConnection::CTapiConnection(const CTapiConnection& other)
    : m_hComm(nullptr),
      m_hSynchronisationEvent(CreateEventA(nullptr, FALSE, FALSE, nullptr)),
      m_pLineDevCaps(nullptr),
      m_pLineInitParams(nullptr) {
    CopyFrom(other);
}

CTapiConnection& CTapiConnection::operator=(const CTapiConnection& other) {
    if (this != &other) {
        std::lock_guard<std::recursive_mutex> guard(m_lock);
        CloseCommHandle();
        CopyFrom(other);
    }
    return *this;
}

CTapiConnection::~CTapiConnection() {
    {
        std::lock_guard<std::recursive_mutex> guard(m_lock);
        if (m_bTapiInUse) {
            HangUpCall();
        }
        if (m_hLineApp != 0) {
            ShutdownTAPI();
        }
        CloseCommHandle();
    }
    if (m_hSynchronisationEvent != nullptr) {
        CloseHandle(m_hSynchronisationEvent);
    }
    LocalFree(m_pLineDevCaps);
    LocalFree(m_pLineInitParams);
}

void CTapiConnection::CopyFrom(const CTapiConnection& other) {
    // The buffers are copied, so that each object frees its own.
    const auto copyBuffer = [](const void* buffer) -> void* {
        const SIZE_T size = buffer != nullptr ? LocalSize(const_cast<void*>(buffer)) : 0;
        void* copy = size != 0 ? LocalAlloc(LMEM_FIXED, size) : nullptr;
        if (copy != nullptr) {
            std::memcpy(copy, buffer, size);
        }
        return copy;
    };
    m_dwNumDevs = other.m_dwNumDevs.load();
    m_dwDeviceID = other.m_dwDeviceID;
    m_lAsyncRequestID = other.m_lAsyncRequestID;
    m_lAsyncReply = other.m_lAsyncReply;
    m_bShuttingDown = other.m_bShuttingDown.load();
    m_bStoppingCall = other.m_bStoppingCall.load();
    m_bInitializing = other.m_bInitializing.load();
    m_bTapiInUse = other.m_bTapiInUse.load();
    m_hLineApp = other.m_hLineApp.load();
    m_hCall = other.m_hCall.load();
    m_hLine = other.m_hLine.load();
    m_dwAPIVersion = other.m_dwAPIVersion;
    std::memcpy(m_szPhoneNumber, other.m_szPhoneNumber, sizeof m_szPhoneNumber);
    std::memcpy(m_szLineName, other.m_szLineName, sizeof m_szLineName);
    m_lLastError = other.m_lLastError;
    std::memcpy(m_szLastError, other.m_szLastError, sizeof m_szLastError);
    m_bConnected = other.m_bConnected.load();
    LocalFree(m_pLineDevCaps);
    m_pLineDevCaps = static_cast<LINEDEVCAPS*>(copyBuffer(other.m_pLineDevCaps));
    LocalFree(m_pLineInitParams);
    m_pLineInitParams = static_cast<LINEINITIALIZEEXPARAMS*>(copyBuffer(other.m_pLineInitParams));
    m_hCancelEvent = other.m_hCancelEvent;
    m_lReplyTimeoutSeconds = other.m_lReplyTimeoutSeconds;
    m_bSynchronised = false;
}

void CTapiConnection::SetReplyTimeoutSeconds(long seconds) {
    m_lReplyTimeoutSeconds = seconds < 0 ? 0 : seconds;
}

void CTapiConnection::SetLastTapiConnectionError(unsigned long number, char const* text) {
    if (text == nullptr) {
        return;
    }
    std::lock_guard<std::recursive_mutex> guard(m_lock);
    copyBounded(m_szLastError, sizeof m_szLastError, text);
    m_lLastError = static_cast<LONG>(number);
    trace("CTapiConnection status %ld: %s\n", static_cast<long>(m_lLastError), m_szLastError);
}

void CTapiConnection::GetLastTapiConnectionError(int size, char* text, unsigned long* number) {
    std::lock_guard<std::recursive_mutex> guard(m_lock);
    if (text != nullptr && size > 0) {
        std::strncpy(text, m_szLastError, static_cast<std::size_t>(size));
        text[size - 1] = '\0';
    }
    if (number != nullptr) {
        *number = static_cast<unsigned long>(static_cast<long>(m_lLastError));
    }
}

int CTapiConnection::HandleLineErr(long lineError) {
    if (lineError == 0) {
        return 1;
    }
    switch (static_cast<LONG>(lineError)) {
        case LINEERR_OPERATIONFAILED:
            SetLastTapiConnectionError(kCallError, "he TAPI operation failed");
            break;
        case LINEERR_INIFILECORRUPT:
        case LINEERR_INVALCARD:
        case LINEERR_INVALLOCATION:
            SetLastTapiConnectionError(kCallError, "The values in the INI file are invalide");
            break;
        case LINEERR_NODRIVER:
            SetLastTapiConnectionError(kCallError,
                                       "There is a problem with your Telephony device driver");
            break;
        case LINEERR_NOMEM:
            SetLastTapiConnectionError(kCallError, "Out of memory. Cancelling action");
            break;
        case LINEERR_RESOURCEUNAVAIL:
            SetLastTapiConnectionError(kCallError, "A TAPI resource is unavailable at this timee");
            break;
        case LINEERR_REINIT:
            SetLastTapiConnectionError(kCallError, "Reinit");
            ShutdownTAPI();
            break;
        case LINEERR_NOMULTIPLEINSTANCE:
            SetLastTapiConnectionError(kCallError,
                                       "Remove one of your copies of your Telephony driver");
            break;
        default:
            break;
    }
    return 0;
}

int CTapiConnection::Create(void* cancelEvent, char const* lineName, char const* phoneNumber) {
    CTraceGuard traceGuard(kTraceCategory,
                           std::string("CTapiConnection::Create ") + m_szPhoneNumber);
    if (m_hLineApp != 0) {
        trace("CTapiConnection::Create m_hLineApp is NULL\n");
        return 1;
    }
    if (m_bInitializing) {
        trace("CTapiConnection::Create m_bInitializing true\n");
        return 0;
    }
    m_bInitializing = true;
    // Null keeps the event that an earlier Create stored, so that the DialCall after a
    // hang-up, which initialises anew through Create(0, ...), can still be cancelled.
    if (cancelEvent != nullptr) {
        m_hCancelEvent = static_cast<HANDLE>(cancelEvent);
    }
    LONG result;
    do {
        LocalFree(m_pLineInitParams);
        m_pLineInitParams = static_cast<LINEINITIALIZEEXPARAMS*>(LocalAlloc(LPTR, kInitParamsSize));
        if (m_pLineInitParams == nullptr) {
            SetLastTapiConnectionError(kInitError,
                                       "Creation of Structure LPLINEINITIALIZEEXPARAMS failed");
            m_bInitializing = false;
            return 0;
        }
        m_pLineInitParams->dwTotalSize = kInitParamsSize;
        m_pLineInitParams->dwUsedSize = kInitParamsUsedSize;
        m_pLineInitParams->dwOptions = LINEINITIALIZEEXOPTION_USEEVENT;
        m_dwAPIVersion = 0xFFFFFFFFu;
        HLINEAPP lineApp = 0;
        DWORD numDevs = 0;
        result = lineInitializeExA(&lineApp, nullptr, nullptr, nullptr, &numDevs, &m_dwAPIVersion,
                                   m_pLineInitParams);
        trace("lineInitializeEx lReturn 0x%08X\n", static_cast<unsigned>(result));
        if (result == 0) {
            m_dwNumDevs = numDevs;
            m_hLineApp = lineApp;
        }
        if (!HandleLineErr(result) || m_dwNumDevs == 0) {
            m_bInitializing = false;
            return 0;
        }
    } while (result != 0);
    if (phoneNumber != nullptr) {
        copyBounded(m_szPhoneNumber, sizeof m_szPhoneNumber, phoneNumber);
    }
    if (lineName != nullptr) {
        copyBounded(m_szLineName, sizeof m_szLineName, lineName);
    }
    m_bInitializing = false;
    SetLastTapiConnectionError(0, "");
    return 1;
}

int CTapiConnection::DialCall(char const* lineName, char const* phoneNumber) {
    CTraceGuard traceGuard(kTraceCategory,
                           std::string("CTapiConnection::DialCall ") + m_szPhoneNumber);
    trace("CTapiConnection::DialCall m_bTapiInUse %d\n", m_bTapiInUse ? 1 : 0);
    if (m_bTapiInUse) {
        return m_bTapiInUse;
    }
    if (m_hLineApp == 0 && !Create(nullptr, nullptr, nullptr)) {
        return 0;
    }
    if (m_dwNumDevs < 1) {
        trace("CTapiConnection::DialCall m_dwNumDevs < 1\n");
        return 0;
    }
    try {
        m_bTapiInUse = true;
        if (phoneNumber != nullptr) {
            copyBounded(m_szPhoneNumber, sizeof m_szPhoneNumber, phoneNumber);
        }
        if (lineName != nullptr) {
            copyBounded(m_szLineName, sizeof m_szLineName, lineName);
        }
        unsigned long apiVersion = 0;
        m_pLineDevCaps = GetDeviceLine(&apiVersion, m_pLineDevCaps);
        if (m_pLineDevCaps == nullptr) {
            SetLastTapiConnectionError(kCapsError, "Error on Requested line");
            throw -3;
        }
        m_dwAPIVersion = static_cast<DWORD>(apiVersion);
        if ((m_pLineDevCaps->dwLineFeatures & LINEFEATURE_MAKECALL) == 0) {
            SetLastTapiConnectionError(kCapsError,
                                       "The selected line doesn't support MAKECALL capabilitie");
            throw -4;
        }
        HLINE line = 0;
        const LONG result = lineOpenA(m_hLineApp, m_dwDeviceID, &line, m_dwAPIVersion, 0,
                                      reinterpret_cast<DWORD_PTR>(this), LINECALLPRIVILEGE_NONE,
                                      LINEMEDIAMODE_DATAMODEM, nullptr);
        trace("lineOpen lReturn 0x%08X\n", static_cast<unsigned>(result));
        if (result == 0) {
            m_hLine = line;
        }
        if (result == LINEERR_ALLOCATED || result == LINEERR_RESOURCEUNAVAIL) {
            HangUpCall();
            SetLastTapiConnectionError(kInitError,
                                       "Line is already in use by a non-TAPI application or by "
                                       "another TAPI Service Provider.");
            throw -5;
        }
        if (result != 0 && !HandleLineErr(result)) {
            HangUpCall();
            SetLastTapiConnectionError(kInitError, "Unable to Use Line.");
            throw -6;
        }
        if (!MakeTheCall()) {
            HangUpCall();
            throw -7;
        }
        SetLastTapiConnectionError(0, "");
    } catch (int number) {
        reportThrow("CTapiConnection::DialCall", number);
        // The line was not opened for the first exits; the service goes down all the same.
        HangUpCall();
    }
    LocalFree(m_pLineDevCaps);
    m_pLineDevCaps = nullptr;
    return m_bTapiInUse;
}

LINEDEVCAPS* CTapiConnection::GetDeviceLine(unsigned long* apiVersion, LINEDEVCAPS* lineDevCaps) {
    CTraceGuard traceGuard(kTraceCategory,
                           std::string("CTapiConnection::GetDeviceLine ") + m_szPhoneNumber);
    for (DWORD deviceId = 0; deviceId < m_dwNumDevs; ++deviceId) {
        DWORD version = 0;
        LINEEXTENSIONID extension{};
        const LONG result = lineNegotiateAPIVersion(m_hLineApp, deviceId, kLowApiVersion,
                                                    kHighApiVersion, &version, &extension);
        trace("lineNegotiateAPIVersion lReturn 0x%08X\n", static_cast<unsigned>(result));
        if (result != 0) {
            HandleLineErr(result);
            continue;
        }
        lineDevCaps = MylineGetDevCaps(lineDevCaps, deviceId, version);
        if (lineDevCaps == nullptr) {
            continue;
        }
        char name[LineNameSize] = "Line Unnamed";
        const DWORD size = lineDevCaps->dwLineNameSize;
        const DWORD offset = lineDevCaps->dwLineNameOffset;
        if (size != 0 && lineDevCaps->dwStringFormat == STRINGFORMAT_ASCII &&
            offset >= sizeof(LINEDEVCAPS) && offset + size <= lineDevCaps->dwUsedSize) {
            const std::size_t length = std::min<std::size_t>(size, sizeof name - 1);
            std::memcpy(name, reinterpret_cast<const char*>(lineDevCaps) + offset, length);
            name[length] = '\0';
        }
        if (m_szLineName[0] == '\0' || std::strcmp(name, m_szLineName) == 0) {
            m_dwDeviceID = deviceId;
            *apiVersion = version;
            return lineDevCaps;
        }
    }
    m_dwDeviceID = kNoDevice;
    LocalFree(lineDevCaps);
    return nullptr;
}

LINEDEVCAPS* CTapiConnection::MylineGetDevCaps(LINEDEVCAPS* lineDevCaps, DWORD deviceId,
                                               DWORD apiVersion) {
    CTraceGuard traceGuard(kTraceCategory,
                           std::string("CTapiConnection::MylineGetDevCaps ") + m_szPhoneNumber);
    lineDevCaps = static_cast<LINEDEVCAPS*>(CheckAndReAllocBuffer(lineDevCaps, kDevCapsSize));
    while (lineDevCaps != nullptr) {
        const LONG result = lineGetDevCapsA(m_hLineApp, deviceId, apiVersion, 0, lineDevCaps);
        if (result != 0 && !HandleLineErr(result)) {
            SetLastTapiConnectionError(kCapsError, "lineGetDevCaps unhandled error");
            LocalFree(lineDevCaps);
            return nullptr;
        }
        if (lineDevCaps->dwNeededSize <= lineDevCaps->dwTotalSize) {
            break;
        }
        lineDevCaps = static_cast<LINEDEVCAPS*>(
            CheckAndReAllocBuffer(lineDevCaps, lineDevCaps->dwNeededSize));
    }
    return lineDevCaps;
}

LINEADDRESSCAPS* CTapiConnection::MylineGetAddressCaps(LINEADDRESSCAPS* addressCaps, DWORD deviceId,
                                                       DWORD addressId, DWORD apiVersion) {
    CTraceGuard traceGuard(kTraceCategory,
                           std::string("CTapiConnection::MylineGetAddressCaps ") + m_szPhoneNumber);
    addressCaps =
        static_cast<LINEADDRESSCAPS*>(CheckAndReAllocBuffer(addressCaps, kAddressCapsSize));
    while (addressCaps != nullptr) {
        const LONG result =
            lineGetAddressCapsA(m_hLineApp, deviceId, addressId, apiVersion, 0, addressCaps);
        if (result != 0 && !HandleLineErr(result)) {
            SetLastTapiConnectionError(kCapsError, "lineGetAddressCaps unhandled error.");
            LocalFree(addressCaps);
            return nullptr;
        }
        if (addressCaps->dwNeededSize <= addressCaps->dwTotalSize) {
            break;
        }
        addressCaps = static_cast<LINEADDRESSCAPS*>(
            CheckAndReAllocBuffer(addressCaps, addressCaps->dwNeededSize));
    }
    return addressCaps;
}

void* CTapiConnection::CheckAndReAllocBuffer(void* buffer, size_t size) {
    if (buffer == nullptr) {
        buffer = LocalAlloc(LPTR, size);
        if (buffer == nullptr) {
            SetLastTapiConnectionError(kBufferError,
                                       "Alloc memory failed in CheckAndReAllocBuffer.");
            return nullptr;
        }
        *static_cast<DWORD*>(buffer) = static_cast<DWORD>(size);
        return buffer;
    }
    const SIZE_T allocated = LocalSize(buffer);
    if (allocated == 0) {
        SetLastTapiConnectionError(kBufferError, "LocalSize returned 0 in CheckAndReAllocBuffer.");
        return nullptr;
    }
    if (allocated >= size) {
        std::memset(buffer, 0, allocated);
        *static_cast<DWORD*>(buffer) = static_cast<DWORD>(allocated);
        return buffer;
    }
    SetLastTapiConnectionError(kBufferError, "Reallocating structure.");
    LocalFree(buffer);
    return CheckAndReAllocBuffer(nullptr, size);
}

LINECALLPARAMS* CTapiConnection::CreateCallParams(LINECALLPARAMS* callParams,
                                                  char const* displayableAddress) {
    const std::size_t textSize =
        displayableAddress != nullptr ? std::strlen(displayableAddress) + 1 : 0;
    callParams =
        static_cast<LINECALLPARAMS*>(CheckAndReAllocBuffer(callParams, kCallParamsSize + textSize));
    if (callParams == nullptr) {
        return nullptr;
    }
    callParams->dwBearerMode = LINEBEARERMODE_VOICE;
    callParams->dwMediaMode = LINEMEDIAMODE_DATAMODEM;
    callParams->dwCallParamFlags = LINECALLPARAMFLAGS_IDLE;
    callParams->dwAddressMode = LINEADDRESSMODE_ADDRESSID;
    callParams->dwAddressID = 0;
    if (textSize != 0) {
        std::memcpy(reinterpret_cast<char*>(callParams) + kCallParamsSize, displayableAddress,
                    textSize);
        callParams->dwDisplayableAddressSize = static_cast<DWORD>(textSize);
        callParams->dwDisplayableAddressOffset = kCallParamsSize;
    }
    return callParams;
}

int CTapiConnection::MakeTheCall() {
    CTraceGuard traceGuard(kTraceCategory,
                           std::string("CTapiConnection::MakeTheCall ") + m_szPhoneNumber);
    LINEADDRESSCAPS* addressCaps = MylineGetAddressCaps(nullptr, m_dwDeviceID, 0, m_dwAPIVersion);
    LINECALLPARAMS* callParams = CreateCallParams(nullptr, m_szPhoneNumber);
    int made = 0;
    if (addressCaps == nullptr) {
        trace("CTapiConnection::MakeTheCall lpAddressCaps is NULL\n");
    } else if (callParams == nullptr) {
        trace("CTapiConnection::MakeTheCall lpCallParams is NULL\n");
    } else {
        try {
            HCALL call = 0;
            const LONG request = lineMakeCallA(m_hLine, &call, m_szPhoneNumber, 0, callParams);
            if (request > 0) {
                m_hCall = call;
            }
            const long result = WaitForReply(request, m_lReplyTimeoutSeconds);
            trace("MakeTheCall lReturn %ld\n", result);
            switch (result) {
                case WAITREPLY_SUCCESS:
                    made = 1;
                    break;
                case WAITERR_WAITABORTED:
                    SetLastTapiConnectionError(kCallError, "While Dialing, WaitForReply aborted.");
                    throw -1;
                case WAITERR_WAITTIMEDOUT:
                    SetLastTapiConnectionError(kCallError, "While Dialing, Timeout Error.");
                    throw -2;
                case WAITREPLY_FAILED:
                    SetLastTapiConnectionError(kCallError, "While Dialing, WaitForReply failed.");
                    throw -3;
                case WAITERR_WAITCANCELED:
                    throw -4;  // the wait reported the cancel
                default:
                    if (!HandleLineErr(result)) {
                        SetLastTapiConnectionError(kCallError, "lineMakeCall unhandled error.");
                    }
                    throw -4;
            }
        } catch (int number) {
            reportThrow("CTapiConnection::MakeTheCall", number);
        }
    }
    LocalFree(addressCaps);
    LocalFree(callParams);
    return made;
}

void CTapiConnection::SetSynchronisation() {
    std::lock_guard<std::recursive_mutex> guard(m_lock);
    m_bSynchronised = true;
    SetEvent(m_hSynchronisationEvent);
}

void CTapiConnection::ResetSynchronisation() {
    std::lock_guard<std::recursive_mutex> guard(m_lock);
    m_bSynchronised = false;
    ResetEvent(m_hSynchronisationEvent);
}

bool CTapiConnection::TakeSynchronisation() {
    std::lock_guard<std::recursive_mutex> guard(m_lock);
    const bool synchronised = m_bSynchronised;
    m_bSynchronised = false;
    ResetEvent(m_hSynchronisationEvent);
    return synchronised;
}

long CTapiConnection::WaitForReply(long requestId, long timeoutSeconds) {
    CTraceGuard traceGuard(kTraceCategory,
                           std::string("CTapiConnection::WaitForReply ") + m_szPhoneNumber);
    if (requestId <= 0) {
        return requestId;
    }
    HANDLE handles[3];
    DWORD count = 0;
    const long long timeoutMs = std::min<long long>(
        static_cast<long long>(timeoutSeconds < 0 ? 0 : timeoutSeconds) * 1000, INFINITE - 1);
    {
        std::lock_guard<std::recursive_mutex> guard(m_lock);
        m_lAsyncRequestID = static_cast<LONG>(requestId);
        m_lAsyncReply = LINEERR_OPERATIONFAILED;
        ResetSynchronisation();
        if (m_pLineInitParams == nullptr) {
            return WAITREPLY_FAILED;
        }
        ResetEvent(m_pLineInitParams->Handles.hEvent);
        handles[count++] = m_hSynchronisationEvent;
        handles[count++] = m_pLineInitParams->Handles.hEvent;
        // Without a cancel event (a dial that initialised the service itself) there is none
        // to wait for.
        if (m_hCancelEvent != nullptr) {
            handles[count++] = m_hCancelEvent;
        }
    }
    const auto start = std::chrono::steady_clock::now();
    DWORD remainingMs = static_cast<DWORD>(timeoutMs);
    for (;;) {
        const DWORD waited = MsgWaitForMultipleObjects(count, handles, FALSE, remainingMs, 0);
        if (waited == WAIT_OBJECT_0) {
            // Set for this wait, unless the wait of the other thread took it first.
            if (TakeSynchronisation()) {
                break;
            }
        } else if (waited == WAIT_TIMEOUT) {
            SetLastTapiConnectionError(kCallError, "While Dialing, Timeout Error.");
            return WAITERR_WAITTIMEDOUT;
        } else if (waited == WAIT_OBJECT_0 + 2) {
            SetLastTapiConnectionError(kCallError, "While Dialing, WaitForReply canceled.");
            return WAITERR_WAITCANCELED;
        } else if (waited == WAIT_OBJECT_0 + 1) {
            // Under the lock, so that a hang-up of another thread gets the messages of its
            // own drop. The message is there (the event said so) or the service is gone, so
            // lineGetMessage returns at once.
            std::lock_guard<std::recursive_mutex> guard(m_lock);
            auto* message = static_cast<LINEMESSAGE*>(LocalAlloc(LPTR, kMessageSize));
            if (message != nullptr && lineGetMessage(m_hLineApp, message, kMessageWaitMs) == 0) {
                HandleLineCallState(message->hDevice, message->dwMessageID,
                                    message->dwCallbackInstance, message->dwParam1,
                                    message->dwParam2, message->dwParam3);
                LocalFree(message);
                if (TakeSynchronisation()) {
                    break;
                }
            } else {
                LocalFree(message);
            }
        } else {
            SetLastTapiConnectionError(kCallError, "While Dialing, WaitForReply aborted.");
            return WAITERR_WAITABORTED;
        }
        // A hang-up, of this thread's handling or of another thread, has ended the call.
        if (!m_bTapiInUse) {
            trace("WaitForReply() WAITERR_WAITABORTED\n");
            return WAITERR_WAITABORTED;
        }
        const long long elapsedMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                                        std::chrono::steady_clock::now() - start)
                                        .count();
        remainingMs = static_cast<DWORD>(std::max<long long>(timeoutMs - elapsedMs, 0));
    }
    if (m_bConnected) {
        trace("WaitForReply() WAITREPLY_SUCCESS\n");
        return WAITREPLY_SUCCESS;
    }
    trace("WaitForReply() WAITREPLY_FAILED\n");
    return WAITREPLY_FAILED;
}

void CTapiConnection::HandleLineCallState(DWORD hDevice, DWORD messageId, DWORD_PTR /*instance*/,
                                          DWORD_PTR param1, DWORD_PTR param2,
                                          DWORD_PTR /*param3*/) {
    std::lock_guard<std::recursive_mutex> guard(m_lock);
    CTraceGuard traceGuard(kTraceCategory,
                           std::string("CTapiConnection::HandleLineCallState ") + m_szPhoneNumber);
    if (hDevice != m_hCall) {
        SetLastTapiConnectionError(kCallError, "LINE_CALLSTATE: Unknown device ID.");
        trace("WaitForReply() LINE_CALLSTATE: Unknown device ID\n");
        return;
    }
    switch (messageId) {
        case LINE_CALLSTATE:
            switch (param1) {
                case LINECALLSTATE_IDLE:
                    SetLastTapiConnectionError(kCallError, "Line idle.");
                    HangUpCall();
                    SetSynchronisation();
                    break;
                case LINECALLSTATE_DIALTONE:
                    SetLastTapiConnectionError(kCallError, "Dial Tone.");
                    break;
                case LINECALLSTATE_DIALING:
                    SetLastTapiConnectionError(kCallError, "Dialing.");
                    break;
                case LINECALLSTATE_RINGBACK:
                    SetLastTapiConnectionError(kCallError, "RingBack.");
                    break;
                case LINECALLSTATE_BUSY:
                    SetLastTapiConnectionError(kCallError, "Line busy, shutting down.");
                    HangUpCall();
                    SetSynchronisation();
                    break;
                case LINECALLSTATE_SPECIALINFO:
                    SetLastTapiConnectionError(kCallError,
                                               "Special Info, probably couldn't dial number.");
                    HangUpCall();
                    SetSynchronisation();
                    break;
                case LINECALLSTATE_CONNECTED:
                    SetLastTapiConnectionError(kCallError, "Connected");
                    m_bConnected = true;
                    SetSynchronisation();
                    break;
                case LINECALLSTATE_PROCEEDING:
                    SetLastTapiConnectionError(kCallError, "Proceeding.");
                    break;
                case LINECALLSTATE_DISCONNECTED:
                    SetLastTapiConnectionError(kCallError, disconnectText(param2));
                    SetSynchronisation();
                    HangUpCall();
                    break;
                default:
                    SetLastTapiConnectionError(kCallError, "Unhandled LINECALLSTATE message");
                    SetSynchronisation();
                    break;
            }
            break;
        case LINE_CLOSE:
            SetSynchronisation();
            HangUpCall();
            break;
        case LINE_REPLY:
            if (static_cast<LONG>(param1) == m_lAsyncRequestID) {
                m_lAsyncReply = static_cast<LONG>(param2);
            }
            SetLastTapiConnectionError(kCallError, param2 != 0
                                                       ? "LINE_REPLY error."
                                                       : "LINE_REPLY: successfully replied.");
            break;
        case LINE_CREATE:
            if (m_dwNumDevs <= param1) {
                m_dwNumDevs = static_cast<DWORD>(param1 + 1);
            }
            break;
        default:
            SetLastTapiConnectionError(kCallError, "lineCallbackFunc message ignored.");
            break;
    }
}

int CTapiConnection::HangUpCall() {
    std::lock_guard<std::recursive_mutex> guard(m_lock);
    CTraceGuard traceGuard(kTraceCategory,
                           std::string("CTapiConnection::HangUpCall ") + m_szPhoneNumber);
    if (m_bStoppingCall) {
        trace("CTapiConnection::HangUpCall  m_bStoppingCall true\n");
        return 1;
    }
    if (!m_bTapiInUse) {
        trace("CTapiConnection::HangUpCall  m_bTapiInUse false\n");
        return 1;
    }
    m_bStoppingCall = true;
    if (m_hCall != 0) {
        auto* status = static_cast<LINECALLSTATUS*>(LocalAlloc(LPTR, kHangUpStatusSize));
        if (status == nullptr) {
            m_bStoppingCall = false;
            ShutdownTAPI();
            return 1;
        }
        status->dwTotalSize = kHangUpStatusSize;
        lineGetCallStatus(m_hCall, status);
        trace("CTapiConnection::HangUpCall dwCallState 0x%08X\n", status->dwCallState);
        if (status->dwCallState != LINECALLSTATE_IDLE) {
            WaitForReply(lineDrop(m_hCall, nullptr, 0), m_lReplyTimeoutSeconds);
        }
        LocalFree(status);
        LONG result;
        do {
            result = lineDeallocateCall(m_hCall);
            trace("CTapiConnection::HangUpCall lineDeallocateCall lReturn 0x%08X\n",
                  static_cast<unsigned>(result));
            if (result != 0 && !HandleLineErr(result)) {
                SetLastTapiConnectionError(kBufferError, "lineDeallocateCall unhandled error");
                break;
            }
        } while (result != 0);
    }
    if (m_hLine != 0) {
        const LONG result = lineClose(m_hLine);
        trace("CTapiConnection::HangUpCall lineClose lReturn 0x%08X\n",
              static_cast<unsigned>(result));
        if (result != 0 && !HandleLineErr(result)) {
            SetLastTapiConnectionError(kCloseError, "lineClose unhandled error");
        }
    }
    const LONG result = lineShutdown(m_hLineApp);
    trace("CTapiConnection::HangUpCall lineShutdown lReturn 0x%08X\n",
          static_cast<unsigned>(result));
    if (result == 0) {
        m_hLineApp = 0;  // the next DialCall initialises anew
    } else if (!HandleLineErr(result)) {
        SetLastTapiConnectionError(kCloseError, "lineShutdown unhandled error");
    }
    CloseCommHandle();
    // The flag first: a dial's wait of another thread that sees it clear gives up.
    m_bTapiInUse = false;
    m_hCall = 0;
    m_hLine = 0;
    m_bConnected = false;
    m_bStoppingCall = false;
    trace("HangUpCall() m_hCall, m_hLine = NULL\n");
    return 1;
}

int CTapiConnection::ShutdownTAPI() {
    std::lock_guard<std::recursive_mutex> guard(m_lock);
    CTraceGuard traceGuard(kTraceCategory,
                           std::string("CTapiConnection::ShutdownTAPI ") + m_szPhoneNumber);
    if (m_hLineApp == 0) {
        trace("CTapiConnection::ShutdownTAPI m_hLineApp is NULL\n");
        return 0;
    }
    if (m_bShuttingDown) {
        trace("CTapiConnection::ShutdownTAPI m_bShuttingDown is true\n");
        return 0;
    }
    m_bShuttingDown = true;
    HangUpCall();
    // HangUpCall shuts the service down itself where a call was in use.
    if (m_hLineApp != 0) {
        LONG result;
        do {
            result = lineShutdown(m_hLineApp);
            trace("lineShutdonw lReturn 0x%08X\n", static_cast<unsigned>(result));
            if (result != 0 && !HandleLineErr(result)) {
                SetLastTapiConnectionError(kCloseError, "lineShutdown unhandled error");
                trace("CTapiConnection::ShutdownTAPI lineShutdown unhandled error\n");
                break;
            }
        } while (result != 0);
    }
    m_bTapiInUse = false;
    m_hLineApp = 0;
    m_hCall = 0;
    m_hLine = 0;
    m_bShuttingDown = false;
    trace("ShutdownTAPI() m_hCall, m_hLine = NULL\n");
    return 1;
}

void CTapiConnection::CloseCommHandle() {
    if (isFile(m_hComm)) {
        CloseHandle(m_hComm);
    }
    m_hComm = nullptr;
}

HANDLE CTapiConnection::GetCommHandle() {
    std::lock_guard<std::recursive_mutex> guard(m_lock);
    CTraceGuard traceGuard(kTraceCategory,
                           std::string("CTapiConnection::GetCommHandle ") + m_szPhoneNumber);
    if (isFile(m_hComm)) {
        SetLastTapiConnectionError(0, "");
        return m_hComm;
    }
    auto* deviceId = static_cast<VARSTRING*>(LocalAlloc(LPTR, kDeviceIdSize));
    if (deviceId == nullptr) {
        return nullptr;
    }
    deviceId->dwTotalSize = kDeviceIdSize;
    HANDLE comm = nullptr;
    const LONG result = lineGetIDA(m_hLine, 0, 0, LINECALLSELECT_LINE, deviceId, "comm/datamodem");
    const bool holdsHandle = deviceId->dwStringSize >= sizeof(HANDLE) &&
                             deviceId->dwStringOffset >= sizeof(VARSTRING) &&
                             deviceId->dwStringOffset + deviceId->dwStringSize <= kDeviceIdSize;
    if (result == 0 && holdsHandle) {
        std::memcpy(&comm, reinterpret_cast<const char*>(deviceId) + deviceId->dwStringOffset,
                    sizeof comm);
    }
    LocalFree(deviceId);
    if (result != 0) {
        return nullptr;
    }
    if (isFile(comm) && GetFileType(comm) == FILE_TYPE_CHAR) {
        m_hComm = comm;
        SetLastTapiConnectionError(0, "");
        return comm;
    }
    if (isFile(comm)) {
        CloseHandle(comm);
    }
    HangUpCall();
    SetLastTapiConnectionError(kCommHandleError, "Get Comm hadle failed");
    return nullptr;
}

int CTapiConnection::CheckAndProvideConnection() {
    std::lock_guard<std::recursive_mutex> guard(m_lock);
    CTraceGuard traceGuard(
        kTraceCategory,
        std::string("CTapiConnection::CheckAndProvideConnection ") + m_szPhoneNumber);
    if (m_hCall == 0 || m_hLine == 0 || m_pLineInitParams == nullptr) {
        trace("m_hCall = %u m_hLine = %u m_pLineInitParams = %p\n", m_hCall.load(), m_hLine.load(),
              static_cast<void*>(m_pLineInitParams));
        return 0;
    }
    if (WaitForSingleObject(m_pLineInitParams->Handles.hEvent, 0) != WAIT_OBJECT_0) {
        return 1;
    }
    auto* status = static_cast<LINECALLSTATUS*>(LocalAlloc(LPTR, kCheckStatusSize));
    if (status == nullptr) {
        trace("CTapiConnection::CheckAndProvideConnection  pLineCallStatus is NULL\n");
        return 0;
    }
    status->dwTotalSize = kCheckStatusSize;
    const LONG result = lineGetCallStatus(m_hCall, status);
    trace("CTapiConnection::CheckAndProvideConnection lineGetCallStatus lReturn = 0x%08X\n",
          static_cast<unsigned>(result));
    const int connected = status->dwCallState == LINECALLSTATE_CONNECTED ? 1 : 0;
    LocalFree(status);
    return connected;
}
