// The platform's telephony functions for data calls, in event mode, over AT modems on ttys.
//
// Line devices. lineInitializeExA takes the modems of ListModemDevices (Modems.h) as the line
// devices of the new application, in that order: device id i is the i-th modem, analogue or
// ISDN alike. A line's name is the modem's name (ASCII, STRINGFORMAT_ASCII); every line has
// one address (id 0), the feature LINEFEATURE_MAKECALL, the media mode
// LINEMEDIAMODE_DATAMODEM, and takes one call at a time. API versions 0x00010003 to 0x00020002
// are supported; lineNegotiateAPIVersion gives the highest one in both ranges, and no
// extension versions exist (0 is the only one accepted).
//
// Messages. Only the event mode exists (LINEINITIALIZEEXOPTION_USEEVENT): the application's
// messages wait in its queue for lineGetMessage, and the event in the initialisation record is
// signalled exactly while the queue holds a message. The service keeps that event's state
// itself: ResetEvent and SetEvent refuse it (ERROR_INVALID_HANDLE), so that an application that
// resets the event before it waits, as the platform's older clients do, cannot lose a message
// that came before. lineShutdown signals it for good. The event's handle stays open after
// lineShutdown, since another thread may still wait on it; such retired handles are closed
// when the next application initialises. Every message about a call carries the call's handle
// as its device (LINE_REPLY included); messages about a line without a call carry the line's.
// No LINE_CLOSE is sent: a tty that fails ends its call instead (see below).
//
// Lines. lineOpenA opens the modem's tty (O_RDWR | O_NOCTTY | O_CLOEXEC, without waiting for
// the carrier), takes an exclusive flock of it without waiting, and makes it raw at the
// modem's speed: 8 data bits, no parity, 1 stop bit, HUPCL, and CLOCAL off, so that a carrier
// lost later hangs the tty up. Input and output are then flushed. A tty whose flock another
// open file holds gives LINEERR_ALLOCATED; one that refuses the open as busy (EBUSY)
// LINEERR_RESOURCEUNAVAIL, as does a lack of descriptors; one that cannot be opened otherwise,
// or is no tty, LINEERR_NODEVICE. Each open line has a thread of its own, which talks to the
// modem; lineClose ends it (dropping a call that stands) and closes the tty.
//
// Calls. lineMakeCallA writes the new call's handle and returns a positive request id at once;
// the call is then in LINECALLSTATE_UNKNOWN until the line's thread has dialled. The thread
// sends "ATE0V1\r" and awaits "OK" for 5 s; then LINE_REPLY(request, 0), and "ATDT<number>\r"
// with the state LINECALLSTATE_DIALING. The modem's result code decides the next state:
//   CONNECT[ <speed>]            LINECALLSTATE_CONNECTED
//   BUSY                         LINECALLSTATE_BUSY (LINEBUSYMODE_UNKNOWN)
//   NO DIALTONE, NO DIAL TONE    LINECALLSTATE_DISCONNECTED, LINEDISCONNECTMODE_NODIALTONE
//   NO ANSWER                    LINECALLSTATE_DISCONNECTED, LINEDISCONNECTMODE_NOANSWER
//   NO CARRIER                   LINECALLSTATE_DISCONNECTED, LINEDISCONNECTMODE_UNREACHABLE
//   ERROR                        LINECALLSTATE_DISCONNECTED, LINEDISCONNECTMODE_BADADDRESS
// Other lines (RING, an echo, empty lines) are skipped; result lines end with LF (CRs are
// dropped). A modem that does not answer "ATE0V1" with OK, or that fails or hangs up before
// the call is connected, gives LINE_REPLY(request, 0) if it was not sent yet and then
// LINECALLSTATE_DISCONNECTED with LINEDISCONNECTMODE_UNAVAIL. After ATDT the thread waits for
// the result without a limit: the application bounds the dial by its own time-out and drops
// the call. Once connected the tty belongs to the application (lineGetIDA): the thread reads
// nothing more from it and only watches for a hang-up (POLLHUP or POLLERR, and a carrier lost
// where TIOCMGET tells it), which gives LINECALLSTATE_DISCONNECTED, LINEDISCONNECTMODE_NORMAL.
//
// lineDrop ends a call and answers with LINE_REPLY(request, 0) and LINECALLSTATE_IDLE. While
// the modem dials, a CR aborts the dial and its result line is awaited for up to 2 s. A
// connected call is hung up by dropping DTR for 500 ms (TIOCMBIC) or, where the tty cannot
// (a pseudo-terminal), by "+++" between guard times of 1 s and "ATH0\r". A call that is over
// already (busy or disconnected) gets the reply and LINECALLSTATE_IDLE at once; an idle one
// LINEERR_INVALCALLSTATE. lineDeallocateCall frees a call in any state, dropping it first
// (without messages) if it stands; it returns when the modem is back on hook.
//
// lineGetIDA with the class "comm/datamodem" gives a VARSTRING in STRINGFORMAT_BINARY: a file
// HANDLE of a duplicate of the tty's descriptor (File.h; GetFileType gives FILE_TYPE_CHAR),
// followed by the tty's device node with its NUL. The handle belongs to the caller, who closes
// it with CloseHandle; it shares the tty's open file, so it reads and writes the modem's data.
// "comm/datamodem/portname" gives the device node alone (STRINGFORMAT_ASCII). A record too
// small for the value returns 0 with dwNeededSize set and no value, as on the platform.
//
// Results are 0, a positive request id for the asynchronous functions, or a negative
// LINEERR_ value. Handles of applications, lines and calls are numbers that are never 0 and
// never reused within the process.
//
// Thread safety: all functions may be called from any thread. lineGetMessage gives each
// message to one caller.
#pragma once

#include <cstdint>

#include "tessel/Export.h"
#include "tessel/platform/Clock.h"
#include "tessel/platform/Resources.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

using HLINEAPP = DWORD;
using HLINE = DWORD;
using HCALL = DWORD;
using DWORD_PTR = std::uintptr_t;

// The callback of the window mode; not offered here, so always null.
using LINECALLBACK = void (*)(DWORD hDevice, DWORD dwMessage, DWORD_PTR dwInstance,
                              DWORD_PTR dwParam1, DWORD_PTR dwParam2, DWORD_PTR dwParam3);

// Error results.
inline constexpr LONG LINEERR_ALLOCATED = static_cast<LONG>(0x80000001u);
inline constexpr LONG LINEERR_BADDEVICEID = static_cast<LONG>(0x80000002u);
inline constexpr LONG LINEERR_CALLUNAVAIL = static_cast<LONG>(0x80000005u);
inline constexpr LONG LINEERR_INCOMPATIBLEAPIVERSION = static_cast<LONG>(0x8000000Cu);
inline constexpr LONG LINEERR_INCOMPATIBLEEXTVERSION = static_cast<LONG>(0x8000000Du);
inline constexpr LONG LINEERR_INIFILECORRUPT = static_cast<LONG>(0x8000000Eu);
inline constexpr LONG LINEERR_INVALADDRESS = static_cast<LONG>(0x80000010u);
inline constexpr LONG LINEERR_INVALADDRESSID = static_cast<LONG>(0x80000011u);
inline constexpr LONG LINEERR_INVALAPPHANDLE = static_cast<LONG>(0x80000014u);
inline constexpr LONG LINEERR_INVALCALLHANDLE = static_cast<LONG>(0x80000018u);
inline constexpr LONG LINEERR_INVALCALLSELECT = static_cast<LONG>(0x8000001Bu);
inline constexpr LONG LINEERR_INVALCALLSTATE = static_cast<LONG>(0x8000001Cu);
inline constexpr LONG LINEERR_INVALCARD = static_cast<LONG>(0x8000001Eu);
inline constexpr LONG LINEERR_INVALDEVICECLASS = static_cast<LONG>(0x80000023u);
inline constexpr LONG LINEERR_INVALLINEHANDLE = static_cast<LONG>(0x8000002Bu);
inline constexpr LONG LINEERR_INVALLOCATION = static_cast<LONG>(0x8000002Du);
inline constexpr LONG LINEERR_INVALMEDIAMODE = static_cast<LONG>(0x8000002Fu);
inline constexpr LONG LINEERR_INVALPARAM = static_cast<LONG>(0x80000032u);
inline constexpr LONG LINEERR_INVALPOINTER = static_cast<LONG>(0x80000035u);
inline constexpr LONG LINEERR_INVALPRIVSELECT = static_cast<LONG>(0x80000036u);
inline constexpr LONG LINEERR_NODEVICE = static_cast<LONG>(0x80000042u);
inline constexpr LONG LINEERR_NODRIVER = static_cast<LONG>(0x80000043u);
inline constexpr LONG LINEERR_NOMEM = static_cast<LONG>(0x80000044u);
inline constexpr LONG LINEERR_OPERATIONFAILED = static_cast<LONG>(0x80000048u);
inline constexpr LONG LINEERR_OPERATIONUNAVAIL = static_cast<LONG>(0x80000049u);
inline constexpr LONG LINEERR_RESOURCEUNAVAIL = static_cast<LONG>(0x8000004Bu);
inline constexpr LONG LINEERR_STRUCTURETOOSMALL = static_cast<LONG>(0x8000004Du);
inline constexpr LONG LINEERR_UNINITIALIZED = static_cast<LONG>(0x80000050u);
inline constexpr LONG LINEERR_REINIT = static_cast<LONG>(0x80000052u);
inline constexpr LONG LINEERR_NOMULTIPLEINSTANCE = static_cast<LONG>(0x80000056u);

// Options of the initialisation record; only the event mode is offered.
inline constexpr DWORD LINEINITIALIZEEXOPTION_USEHIDDENWINDOW = 1;
inline constexpr DWORD LINEINITIALIZEEXOPTION_USEEVENT = 2;
inline constexpr DWORD LINEINITIALIZEEXOPTION_USECOMPLETIONPORT = 3;

// Messages (LINEMESSAGE::dwMessageID).
inline constexpr DWORD LINE_CALLSTATE = 2;  // param1 the state, param2 its mode
inline constexpr DWORD LINE_CLOSE = 3;
inline constexpr DWORD LINE_REPLY = 12;   // param1 the request id, param2 its result
inline constexpr DWORD LINE_CREATE = 19;  // param1 the new device id

// Call states.
inline constexpr DWORD LINECALLSTATE_IDLE = 0x00000001;
inline constexpr DWORD LINECALLSTATE_OFFERING = 0x00000002;
inline constexpr DWORD LINECALLSTATE_ACCEPTED = 0x00000004;
inline constexpr DWORD LINECALLSTATE_DIALTONE = 0x00000008;
inline constexpr DWORD LINECALLSTATE_DIALING = 0x00000010;
inline constexpr DWORD LINECALLSTATE_RINGBACK = 0x00000020;
inline constexpr DWORD LINECALLSTATE_BUSY = 0x00000040;
inline constexpr DWORD LINECALLSTATE_SPECIALINFO = 0x00000080;
inline constexpr DWORD LINECALLSTATE_CONNECTED = 0x00000100;
inline constexpr DWORD LINECALLSTATE_PROCEEDING = 0x00000200;
inline constexpr DWORD LINECALLSTATE_ONHOLD = 0x00000400;
inline constexpr DWORD LINECALLSTATE_CONFERENCED = 0x00000800;
inline constexpr DWORD LINECALLSTATE_ONHOLDPENDCONF = 0x00001000;
inline constexpr DWORD LINECALLSTATE_ONHOLDPENDTRANSFER = 0x00002000;
inline constexpr DWORD LINECALLSTATE_DISCONNECTED = 0x00004000;
inline constexpr DWORD LINECALLSTATE_UNKNOWN = 0x00008000;

// Modes of LINECALLSTATE_DISCONNECTED.
inline constexpr DWORD LINEDISCONNECTMODE_NORMAL = 0x00000001;
inline constexpr DWORD LINEDISCONNECTMODE_UNKNOWN = 0x00000002;
inline constexpr DWORD LINEDISCONNECTMODE_REJECT = 0x00000004;
inline constexpr DWORD LINEDISCONNECTMODE_PICKUP = 0x00000008;
inline constexpr DWORD LINEDISCONNECTMODE_FORWARDED = 0x00000010;
inline constexpr DWORD LINEDISCONNECTMODE_BUSY = 0x00000020;
inline constexpr DWORD LINEDISCONNECTMODE_NOANSWER = 0x00000040;
inline constexpr DWORD LINEDISCONNECTMODE_BADADDRESS = 0x00000080;
inline constexpr DWORD LINEDISCONNECTMODE_UNREACHABLE = 0x00000100;
inline constexpr DWORD LINEDISCONNECTMODE_CONGESTION = 0x00000200;
inline constexpr DWORD LINEDISCONNECTMODE_INCOMPATIBLE = 0x00000400;
inline constexpr DWORD LINEDISCONNECTMODE_UNAVAIL = 0x00000800;
inline constexpr DWORD LINEDISCONNECTMODE_NODIALTONE = 0x00001000;

// Mode of LINECALLSTATE_BUSY.
inline constexpr DWORD LINEBUSYMODE_UNKNOWN = 0x00000004;

// Line features, bearer, media and address modes, privileges, string formats.
inline constexpr DWORD LINEFEATURE_MAKECALL = 0x00000008;
inline constexpr DWORD LINEBEARERMODE_VOICE = 0x00000001;
inline constexpr DWORD LINEMEDIAMODE_UNKNOWN = 0x00000002;
inline constexpr DWORD LINEMEDIAMODE_DATAMODEM = 0x00000010;
inline constexpr DWORD LINEADDRESSMODE_ADDRESSID = 0x00000001;
inline constexpr DWORD LINEADDRESSSHARING_PRIVATE = 0x00000001;
inline constexpr DWORD LINECALLPARAMFLAGS_IDLE = 0x00000002;
inline constexpr DWORD LINECALLPRIVILEGE_NONE = 0x00000001;
inline constexpr DWORD LINECALLPRIVILEGE_MONITOR = 0x00000002;
inline constexpr DWORD LINECALLPRIVILEGE_OWNER = 0x00000004;
inline constexpr DWORD STRINGFORMAT_ASCII = 1;
inline constexpr DWORD STRINGFORMAT_DBCS = 2;
inline constexpr DWORD STRINGFORMAT_UNICODE = 3;
inline constexpr DWORD STRINGFORMAT_BINARY = 4;

// Selections of lineGetIDA.
inline constexpr DWORD LINECALLSELECT_LINE = 0x00000001;
inline constexpr DWORD LINECALLSELECT_ADDRESS = 0x00000002;
inline constexpr DWORD LINECALLSELECT_CALL = 0x00000004;

// The records, byte-packed as on the platform. Those of variable size begin with their total
// size (set by the caller: the bytes it provides), the size needed for everything, and the
// size used; their variable parts follow the fixed part and are addressed by offsets from the
// record's start and sizes.
#pragma pack(push, 1)

struct LINEINITIALIZEEXPARAMS {
    DWORD dwTotalSize;
    DWORD dwNeededSize;
    DWORD dwUsedSize;
    DWORD dwOptions;  // LINEINITIALIZEEXOPTION_USEEVENT
    union {
        HANDLE hEvent;  // out: the application's event
        HANDLE hCompletionPort;
    } Handles;
    DWORD dwCompletionKey;
};

struct LINEEXTENSIONID {
    DWORD dwExtensionID0;
    DWORD dwExtensionID1;
    DWORD dwExtensionID2;
    DWORD dwExtensionID3;
};

struct LINEDIALPARAMS {
    DWORD dwDialPause;
    DWORD dwDialSpeed;
    DWORD dwDigitDuration;
    DWORD dwWaitForDialtone;
};

struct LINEDEVCAPS {
    DWORD dwTotalSize;
    DWORD dwNeededSize;
    DWORD dwUsedSize;
    DWORD dwProviderInfoSize;
    DWORD dwProviderInfoOffset;
    DWORD dwSwitchInfoSize;
    DWORD dwSwitchInfoOffset;
    DWORD dwPermanentLineID;
    DWORD dwLineNameSize;  // with the NUL
    DWORD dwLineNameOffset;
    DWORD dwStringFormat;
    DWORD dwAddressModes;
    DWORD dwNumAddresses;
    DWORD dwBearerModes;
    DWORD dwMaxRate;  // bit/s
    DWORD dwMediaModes;
    DWORD dwGenerateToneModes;
    DWORD dwGenerateToneMaxNumFreq;
    DWORD dwGenerateDigitModes;
    DWORD dwMonitorToneMaxNumFreq;
    DWORD dwMonitorToneMaxNumEntries;
    DWORD dwMonitorDigitModes;
    DWORD dwGatherDigitsMinTimeout;
    DWORD dwGatherDigitsMaxTimeout;
    DWORD dwMedCtlDigitMaxListSize;
    DWORD dwMedCtlMediaMaxListSize;
    DWORD dwMedCtlToneMaxListSize;
    DWORD dwMedCtlCallStateMaxListSize;
    DWORD dwDevCapFlags;
    DWORD dwMaxNumActiveCalls;
    DWORD dwAnswerMode;
    DWORD dwRingModes;
    DWORD dwLineStates;
    DWORD dwUUIAcceptSize;
    DWORD dwUUIAnswerSize;
    DWORD dwUUIMakeCallSize;
    DWORD dwUUIDropSize;
    DWORD dwUUISendUserUserInfoSize;
    DWORD dwUUICallInfoSize;
    LINEDIALPARAMS MinDialParams;
    LINEDIALPARAMS MaxDialParams;
    LINEDIALPARAMS DefaultDialParams;
    DWORD dwNumTerminals;
    DWORD dwTerminalCapsSize;
    DWORD dwTerminalCapsOffset;
    DWORD dwTerminalTextEntrySize;
    DWORD dwTerminalTextSize;
    DWORD dwTerminalTextOffset;
    DWORD dwDevSpecificSize;
    DWORD dwDevSpecificOffset;
    DWORD dwLineFeatures;  // LINEFEATURE_ bits
    DWORD dwSettableDevStatus;
    DWORD dwDeviceClassesSize;  // NUL-separated names, ending in two NULs
    DWORD dwDeviceClassesOffset;
};

struct LINEADDRESSCAPS {
    DWORD dwTotalSize;
    DWORD dwNeededSize;
    DWORD dwUsedSize;
    DWORD dwLineDeviceID;
    DWORD dwAddressSize;
    DWORD dwAddressOffset;
    DWORD dwDevSpecificSize;
    DWORD dwDevSpecificOffset;
    DWORD dwAddressSharing;
    DWORD dwAddressStates;
    DWORD dwCallInfoStates;
    DWORD dwCallerIDFlags;
    DWORD dwCalledIDFlags;
    DWORD dwConnectedIDFlags;
    DWORD dwRedirectionIDFlags;
    DWORD dwRedirectingIDFlags;
    DWORD dwCallStates;  // the LINECALLSTATE_ values that calls go through
    DWORD dwDialToneModes;
    DWORD dwBusyModes;
    DWORD dwSpecialInfo;
    DWORD dwDisconnectModes;  // the LINEDISCONNECTMODE_ values that occur
    DWORD dwMaxNumActiveCalls;
    DWORD dwMaxNumOnHoldCalls;
    DWORD dwMaxNumOnHoldPendingCalls;
    DWORD dwMaxNumConference;
    DWORD dwMaxNumTransConf;
    DWORD dwAddrCapFlags;
    DWORD dwCallFeatures;
    DWORD dwRemoveFromConfCaps;
    DWORD dwRemoveFromConfState;
    DWORD dwTransferModes;
    DWORD dwParkModes;
    DWORD dwForwardModes;
    DWORD dwMaxForwardEntries;
    DWORD dwMaxSpecificEntries;
    DWORD dwMinFwdNumRings;
    DWORD dwMaxFwdNumRings;
    DWORD dwMaxCallCompletions;
    DWORD dwCallCompletionConds;
    DWORD dwCallCompletionModes;
    DWORD dwNumCompletionMessages;
    DWORD dwCompletionMsgTextEntrySize;
    DWORD dwCompletionMsgTextSize;
    DWORD dwCompletionMsgTextOffset;
    DWORD dwAddressFeatures;
    DWORD dwPredictiveAutoTransferStates;
    DWORD dwNumCallTreatments;
    DWORD dwCallTreatmentListSize;
    DWORD dwCallTreatmentListOffset;
    DWORD dwDeviceClassesSize;
    DWORD dwDeviceClassesOffset;
    DWORD dwMaxCallDataSize;
    DWORD dwCallFeatures2;
    DWORD dwMaxNoAnswerTimeout;
    DWORD dwConnectedModes;
    DWORD dwOfferingModes;
    DWORD dwAvailableMediaModes;
};

// The parameters of a call. The service reads the media mode (0 or
// LINEMEDIAMODE_DATAMODEM) and accepts the rest.
struct LINECALLPARAMS {
    DWORD dwTotalSize;
    DWORD dwBearerMode;
    DWORD dwMinRate;
    DWORD dwMaxRate;
    DWORD dwMediaMode;
    DWORD dwCallParamFlags;
    DWORD dwAddressMode;
    DWORD dwAddressID;
    LINEDIALPARAMS DialParams;
    DWORD dwOrigAddressSize;
    DWORD dwOrigAddressOffset;
    DWORD dwDisplayableAddressSize;
    DWORD dwDisplayableAddressOffset;
    DWORD dwCalledPartySize;
    DWORD dwCalledPartyOffset;
    DWORD dwCommentSize;
    DWORD dwCommentOffset;
    DWORD dwUserUserInfoSize;
    DWORD dwUserUserInfoOffset;
    DWORD dwHighLevelCompSize;
    DWORD dwHighLevelCompOffset;
    DWORD dwLowLevelCompSize;
    DWORD dwLowLevelCompOffset;
    DWORD dwDevSpecificSize;
    DWORD dwDevSpecificOffset;
    DWORD dwPredictiveAutoTransferStates;
    DWORD dwTargetAddressSize;
    DWORD dwTargetAddressOffset;
    DWORD dwSendingFlowspecSize;
    DWORD dwSendingFlowspecOffset;
    DWORD dwReceivingFlowspecSize;
    DWORD dwReceivingFlowspecOffset;
    DWORD dwDeviceClassSize;
    DWORD dwDeviceClassOffset;
    DWORD dwDeviceConfigSize;
    DWORD dwDeviceConfigOffset;
    DWORD dwCallDataSize;
    DWORD dwCallDataOffset;
    DWORD dwNoAnswerTimeout;
    DWORD dwCallingPartyIDSize;
    DWORD dwCallingPartyIDOffset;
};

struct LINECALLSTATUS {
    DWORD dwTotalSize;
    DWORD dwNeededSize;
    DWORD dwUsedSize;
    DWORD dwCallState;      // a LINECALLSTATE_ value
    DWORD dwCallStateMode;  // its mode: the disconnect mode, the busy mode
    DWORD dwCallPrivilege;
    DWORD dwCallFeatures;
    DWORD dwDevSpecificSize;
    DWORD dwDevSpecificOffset;
    DWORD dwCallFeatures2;
    SYSTEMTIME tStateEntryTime;  // local time at which the call entered its state
};

struct LINEMESSAGE {
    DWORD hDevice;  // the call, or the line
    DWORD dwMessageID;
    DWORD_PTR dwCallbackInstance;  // of lineOpenA
    DWORD_PTR dwParam1;
    DWORD_PTR dwParam2;
    DWORD_PTR dwParam3;
};

struct VARSTRING {
    DWORD dwTotalSize;
    DWORD dwNeededSize;
    DWORD dwUsedSize;
    DWORD dwStringFormat;
    DWORD dwStringSize;
    DWORD dwStringOffset;
};
#pragma pack(pop)

static_assert(sizeof(LINEINITIALIZEEXPARAMS) == 28);
static_assert(sizeof(LINECALLPARAMS) == 176);
static_assert(sizeof(LINECALLSTATUS) == 56);
static_assert(sizeof(LINEDEVCAPS) == 252);
static_assert(sizeof(LINEADDRESSCAPS) == 228);
static_assert(sizeof(LINEMESSAGE) == 40);
static_assert(sizeof(VARSTRING) == 24);

// Registers a new application and reads the line devices (see the top). lineApp: out, the
// application's handle; instance, callback, appName: ignored (callback must be null);
// numDevs: out, the number of lines; apiVersion: in, the highest version the application
// knows (at least 0x00020000), out 0x00020002; params: dwTotalSize at least its size,
// dwOptions LINEINITIALIZEEXOPTION_USEEVENT; out the event in Handles.hEvent. Closes the
// event handles of applications shut down before. LINEERR_INVALPOINTER for a null pointer,
// LINEERR_STRUCTURETOOSMALL, LINEERR_INVALPARAM for another option or a callback,
// LINEERR_INCOMPATIBLEAPIVERSION, LINEERR_NOMEM, LINEERR_RESOURCEUNAVAIL.
TESSEL_API LONG lineInitializeExA(HLINEAPP* lineApp, HINSTANCE instance, LINECALLBACK callback,
                                  const char* appName, DWORD* numDevs, DWORD* apiVersion,
                                  LINEINITIALIZEEXPARAMS* params);

// The API version to use with device deviceId: the highest in lowVersion .. highVersion that
// the service supports, in *apiVersion; *extensionId is zeroed. LINEERR_INVALAPPHANDLE,
// LINEERR_BADDEVICEID, LINEERR_INVALPOINTER, LINEERR_INCOMPATIBLEAPIVERSION.
TESSEL_API LONG lineNegotiateAPIVersion(HLINEAPP lineApp, DWORD deviceId, DWORD lowVersion,
                                        DWORD highVersion, DWORD* apiVersion,
                                        LINEEXTENSIONID* extensionId);

// The capabilities of device deviceId. Variable parts: the provider info, the line name, the
// device classes; they are written only if all fit into dwTotalSize, else dwNeededSize says
// how much is needed and the result is 0 all the same. LINEERR_INVALAPPHANDLE,
// LINEERR_BADDEVICEID, LINEERR_INCOMPATIBLEAPIVERSION, LINEERR_INCOMPATIBLEEXTVERSION,
// LINEERR_INVALPOINTER, LINEERR_STRUCTURETOOSMALL (less than the fixed part).
TESSEL_API LONG lineGetDevCapsA(HLINEAPP lineApp, DWORD deviceId, DWORD apiVersion,
                                DWORD extVersion, LINEDEVCAPS* lineDevCaps);

// The capabilities of address addressId (only 0) of device deviceId; no variable parts.
// Errors as lineGetDevCapsA, and LINEERR_INVALADDRESSID.
TESSEL_API LONG lineGetAddressCapsA(HLINEAPP lineApp, DWORD deviceId, DWORD addressId,
                                    DWORD apiVersion, DWORD extVersion,
                                    LINEADDRESSCAPS* addressCaps);

// Opens device deviceId (see the top) and writes the line's handle. callbackInstance comes
// back in every message of the line; privileges: LINECALLPRIVILEGE_ bits (NONE for making
// calls); mediaModes: 0 or LINEMEDIAMODE_DATAMODEM; callParams: ignored. Besides the tty's
// errors: LINEERR_INVALAPPHANDLE, LINEERR_BADDEVICEID, LINEERR_INVALPOINTER,
// LINEERR_INCOMPATIBLEAPIVERSION, LINEERR_INCOMPATIBLEEXTVERSION, LINEERR_INVALPRIVSELECT,
// LINEERR_INVALMEDIAMODE, LINEERR_NOMEM.
TESSEL_API LONG lineOpenA(HLINEAPP lineApp, DWORD deviceId, HLINE* line, DWORD apiVersion,
                          DWORD extVersion, DWORD_PTR callbackInstance, DWORD privileges,
                          DWORD mediaModes, const LINECALLPARAMS* callParams);

// Dials destAddress (the digits and dial modifiers that follow "ATDT"; at most 120
// characters, no control characters) on line and writes the call's handle; returns the
// positive request id (see the top). countryCode: ignored; callParams: null or a record whose
// media mode is 0 or LINEMEDIAMODE_DATAMODEM. LINEERR_INVALLINEHANDLE, LINEERR_INVALPOINTER,
// LINEERR_INVALADDRESS, LINEERR_STRUCTURETOOSMALL, LINEERR_INVALMEDIAMODE,
// LINEERR_CALLUNAVAIL when the line has a call already.
TESSEL_API LONG lineMakeCallA(HLINE line, HCALL* call, const char* destAddress, DWORD countryCode,
                              const LINECALLPARAMS* callParams);

// Drops call (see the top); returns the positive request id. userUserInfo, size: ignored.
// LINEERR_INVALCALLHANDLE, LINEERR_INVALCALLSTATE for an idle call.
TESSEL_API LONG lineDrop(HCALL call, const char* userUserInfo, DWORD size);

// The call's state, its mode and the time it entered it; dwCallPrivilege is OWNER.
// LINEERR_INVALCALLHANDLE, LINEERR_INVALPOINTER, LINEERR_STRUCTURETOOSMALL.
TESSEL_API LONG lineGetCallStatus(HCALL call, LINECALLSTATUS* callStatus);

// Frees call, dropping it first if it stands. LINEERR_INVALCALLHANDLE.
TESSEL_API LONG lineDeallocateCall(HCALL call);

// Closes line: drops and frees its call, ends its thread, closes the tty.
// LINEERR_INVALLINEHANDLE.
TESSEL_API LONG lineClose(HLINE line);

// Closes the application's lines, signals its event for good and ends the application.
// LINEERR_INVALAPPHANDLE.
TESSEL_API LONG lineShutdown(HLINEAPP lineApp);

// Takes the application's oldest message into *message, waiting up to timeoutMs (INFINITE:
// without a limit) for one. LINEERR_OPERATIONFAILED when none came in time,
// LINEERR_INVALAPPHANDLE (also once the application is shut down), LINEERR_INVALPOINTER.
TESSEL_API LONG lineGetMessage(HLINEAPP lineApp, LINEMESSAGE* message, DWORD timeoutMs);

// The identifier of class deviceClass of line (select LINECALLSELECT_LINE or _ADDRESS with
// addressId 0) or of call's line (LINECALLSELECT_CALL), into deviceId (see the top).
// LINEERR_INVALLINEHANDLE, LINEERR_INVALCALLHANDLE, LINEERR_INVALADDRESSID,
// LINEERR_INVALCALLSELECT, LINEERR_INVALDEVICECLASS, LINEERR_INVALPOINTER,
// LINEERR_STRUCTURETOOSMALL (less than the fixed part), LINEERR_OPERATIONFAILED when the
// handle cannot be made.
TESSEL_API LONG lineGetIDA(HLINE line, DWORD addressId, HCALL call, DWORD select,
                           VARSTRING* deviceId, const char* deviceClass);

}  // namespace Tessel::Platform
