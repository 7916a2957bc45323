// The platform's remote access service (dial-up networking), over pppd.
//
// Devices are the modems of ListModemDevices (Modems.h), in the list's order: each one has the
// type "modem", or "isdn" where its isdn flag is set, and the modem's name (cut to 128 bytes)
// as its device name.
//
// Phone book entries are the peer files of pppd: the regular files of the peers folder, whose
// names are the entry names, sorted byte-wise. Names that begin with '.', backups (ending in
// '~' or ".bak", or holding ".dpkg-") and names longer than 256 bytes are left out; a folder
// that cannot be read holds no entries. The peers folder is the one of the last
// SetPppPeersFolder, else the environment variable TESSEL_PPP_PEERS (read at each call), else
// /etc/ppp/peers. Phone book paths given to the calls are accepted and unused.
//
// Dialling runs "pppd call <entry> updetach linkname tessel-<entry>" (pppd found on PATH, or
// the program that the environment variable TESSEL_PPPD names) in a process group of its own,
// with its standard input on /dev/null and its output read by the caller, and waits for it to
// end: pppd ends once the link is up (exit status 0) or has failed. A link that is up belongs
// to the daemon that pppd leaves behind, whose process id is read from
// "<run dir>/ppp-tessel-<entry>.pid", the run dir being the environment variable
// TESSEL_PPP_RUN_DIR where it is set, else /run. The link is up while that daemon lives and
// its pid file stands; hanging up sends the daemon SIGTERM. Since pppd reads its peer files
// from /etc/ppp/peers, a link can only be dialled through the default folder unless the pppd
// used reads another.
//
// pppd's exit status becomes the error number of the dial:
//   1 fatal error                                   ERROR_UNKNOWN (635)
//   2 bad options                                   ERROR_CORRUPT_PHONEBOOK (625)
//   3 not allowed to run                            ERROR_ACCESS_DENIED (5)
//   4 no PPP support in the kernel                  ERROR_RASMAN_CANNOT_INITIALIZE (711)
//   5 ended by a signal (a hang-up while dialling)  ERROR_USER_DISCONNECTION (631)
//   6, 7 serial port not locked or not opened       ERROR_PORT_NOT_AVAILABLE (633)
//   8 connect script failed                         ERROR_NO_DIALTONE (680), ERROR_LINE_BUSY
//                                                   (676), ERROR_NO_ANSWER (678) or
//                                                   ERROR_NO_CARRIER (679) when pppd's output
//                                                   holds "NO DIALTONE" (or "NO DIAL TONE"),
//                                                   "BUSY", "NO ANSWER" or "NO CARRIER", in
//                                                   that order of preference; else
//                                                   ERROR_FROM_DEVICE (651)
//   9 pty command not run, 18 init script failed    ERROR_FROM_DEVICE (651)
//   10 PPP negotiation failed                       ERROR_PPP_NO_PROTOCOLS_CONFIGURED (720)
//   11, 19 authentication failed                    ERROR_AUTHENTICATION_FAILURE (691)
//   12, 13, 14 link ended (idle, time limit,
//     callback)                                     ERROR_DISCONNECTION (628)
//   15 peer not answering echo requests             ERROR_PPP_NO_RESPONSE (721)
//   16 modem hung up                                ERROR_PORT_DISCONNECTED (619)
//   17 serial loopback                              ERROR_PPP_LOOPBACK_DETECTED (737)
//   any other status, or death by a signal          ERROR_UNKNOWN (635)
// A pppd that cannot be started gives ERROR_RASMAN_CANNOT_INITIALIZE (711) and no handle. A
// pppd that has not ended within the dial time-out (SetRasDialTimeout, 180 s at first) is
// ended, its process group with it (SIGTERM, SIGKILL two seconds later), and the dial gives
// ERROR_REQUEST_TIMEOUT (638). Whenever pppd was started the dial returns a connection
// handle, also when it failed, as the platform does: hang it up.
//
// Connection handles are opaque process-wide numbers, never null. A handle is forgotten once
// its link is found to be down: by RasGetConnectStatusA, or by RasHangUpA when no daemon is
// left to end. Every pppd started is waited for; none is left a zombie. No call blocks
// without bound: the dial waits at most the dial time-out and two seconds more.
//
// The records have the platform's layouts, packed to 4 bytes, and their sizes are checked
// through the dwSize member that the caller sets (ERROR_INVALID_SIZE otherwise).
//
// Thread safety: all functions may be called from any thread; dials of different entries run
// side by side.
#pragma once

#include <cstdint>

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

// The lengths of the records' texts, without their NUL.
inline constexpr DWORD RAS_MaxDeviceType = 16;
inline constexpr DWORD RAS_MaxDeviceName = 128;
inline constexpr DWORD RAS_MaxEntryName = 256;
inline constexpr DWORD RAS_MaxPhoneNumber = 128;
inline constexpr DWORD RAS_MaxCallbackNumber = RAS_MaxPhoneNumber;
inline constexpr DWORD UNLEN = 256;
inline constexpr DWORD PWLEN = 256;
inline constexpr DWORD DNLEN = 15;
// The longest path of the platform, without its NUL.
inline constexpr DWORD RAS_MaxPath = 260;

// The device types of RASDEVINFOA::szDeviceType.
inline constexpr char RASDT_Modem[] = "modem";
inline constexpr char RASDT_Isdn[] = "isdn";

// The errors of the remote access service.
inline constexpr DWORD RASBASE = 600;
inline constexpr DWORD ERROR_INVALID_PORT_HANDLE = 601;
inline constexpr DWORD ERROR_PORT_ALREADY_OPEN = 602;
inline constexpr DWORD ERROR_BUFFER_TOO_SMALL = 603;
inline constexpr DWORD ERROR_WRONG_INFO_SPECIFIED = 604;
inline constexpr DWORD ERROR_PORT_NOT_CONNECTED = 606;
inline constexpr DWORD ERROR_DEVICE_DOES_NOT_EXIST = 608;
inline constexpr DWORD ERROR_DEVICETYPE_DOES_NOT_EXIST = 609;
inline constexpr DWORD ERROR_BUFFER_INVALID = 610;
inline constexpr DWORD ERROR_PORT_NOT_FOUND = 615;
inline constexpr DWORD ERROR_ASYNC_REQUEST_PENDING = 616;
inline constexpr DWORD ERROR_ALREADY_DISCONNECTING = 617;
inline constexpr DWORD ERROR_PORT_NOT_OPEN = 618;
inline constexpr DWORD ERROR_PORT_DISCONNECTED = 619;
inline constexpr DWORD ERROR_CANNOT_OPEN_PHONEBOOK = 621;
inline constexpr DWORD ERROR_CANNOT_LOAD_PHONEBOOK = 622;
inline constexpr DWORD ERROR_CANNOT_FIND_PHONEBOOK_ENTRY = 623;
inline constexpr DWORD ERROR_CANNOT_WRITE_PHONEBOOK = 624;
inline constexpr DWORD ERROR_CORRUPT_PHONEBOOK = 625;
inline constexpr DWORD ERROR_DISCONNECTION = 628;
inline constexpr DWORD ERROR_REMOTE_DISCONNECTION = 629;
inline constexpr DWORD ERROR_HARDWARE_FAILURE = 630;
inline constexpr DWORD ERROR_USER_DISCONNECTION = 631;
inline constexpr DWORD ERROR_INVALID_SIZE = 632;
inline constexpr DWORD ERROR_PORT_NOT_AVAILABLE = 633;
inline constexpr DWORD ERROR_UNKNOWN = 635;
inline constexpr DWORD ERROR_WRONG_DEVICE_ATTACHED = 636;
inline constexpr DWORD ERROR_REQUEST_TIMEOUT = 638;
inline constexpr DWORD ERROR_SERVER_NOT_RESPONDING = 650;
inline constexpr DWORD ERROR_FROM_DEVICE = 651;
inline constexpr DWORD ERROR_UNRECOGNIZED_RESPONSE = 652;
inline constexpr DWORD ERROR_DEVICE_NOT_READY = 666;
inline constexpr DWORD ERROR_NO_CONNECTION = 668;
inline constexpr DWORD ERROR_LINE_BUSY = 676;
inline constexpr DWORD ERROR_VOICE_ANSWER = 677;
inline constexpr DWORD ERROR_NO_ANSWER = 678;
inline constexpr DWORD ERROR_NO_CARRIER = 679;
inline constexpr DWORD ERROR_NO_DIALTONE = 680;
inline constexpr DWORD ERROR_AUTHENTICATION_FAILURE = 691;
inline constexpr DWORD ERROR_PORT_OR_DEVICE = 692;
inline constexpr DWORD ERROR_RASMAN_CANNOT_INITIALIZE = 711;
inline constexpr DWORD ERROR_PPP_TIMEOUT = 718;
inline constexpr DWORD ERROR_PPP_REMOTE_TERMINATED = 719;
inline constexpr DWORD ERROR_PPP_NO_PROTOCOLS_CONFIGURED = 720;
inline constexpr DWORD ERROR_PPP_NO_RESPONSE = 721;
inline constexpr DWORD ERROR_PPP_INVALID_PACKET = 722;
inline constexpr DWORD ERROR_PPP_LCP_TERMINATED = 734;
inline constexpr DWORD ERROR_PPP_LOOPBACK_DETECTED = 737;
inline constexpr DWORD ERROR_PPP_NO_ADDRESS_ASSIGNED = 738;
inline constexpr DWORD ERROR_HANGUP_FAILED = 753;
inline constexpr DWORD ERROR_DIAL_ALREADY_IN_PROGRESS = 756;

// The states of a connection that RasGetConnectStatusA reports.
inline constexpr DWORD RASCS_PAUSED = 0x1000;
inline constexpr DWORD RASCS_DONE = 0x2000;
enum RASCONNSTATE : DWORD {
    RASCS_OpenPort = 0,
    RASCS_PortOpened,
    RASCS_ConnectDevice,
    RASCS_DeviceConnected,
    RASCS_AllDevicesConnected,
    RASCS_Authenticate,
    RASCS_Connected = RASCS_DONE,
    RASCS_Disconnected,
};

// A connection; opaque, null is "no connection".
struct RasConnectionObject;
using HRASCONN = RasConnectionObject*;

// The dial extensions of the platform; accepted and unused.
struct RASDIALEXTENSIONS;

#pragma pack(push, 4)

// One device of RasEnumDevicesA.
struct RASDEVINFOA {
    DWORD dwSize;
    char szDeviceType[RAS_MaxDeviceType + 1];  // RASDT_Modem or RASDT_Isdn
    char szDeviceName[RAS_MaxDeviceName + 1];
};
static_assert(sizeof(RASDEVINFOA) == 152);

// One phone book entry of RasEnumEntriesA.
struct RASENTRYNAMEA {
    DWORD dwSize;
    char szEntryName[RAS_MaxEntryName + 1];
    DWORD dwFlags;                          // 0: an entry of all users
    char szPhonebookPath[RAS_MaxPath + 1];  // the peers folder
};
static_assert(sizeof(RASENTRYNAMEA) == 532);

// What to dial: the entry, and the user's credentials.
struct RASDIALPARAMSA {
    DWORD dwSize;
    char szEntryName[RAS_MaxEntryName + 1];
    char szPhoneNumber[RAS_MaxPhoneNumber + 1];
    char szCallbackNumber[RAS_MaxCallbackNumber + 1];
    char szUserName[UNLEN + 1];
    char szPassword[PWLEN + 1];
    char szDomain[DNLEN + 1];
    DWORD dwSubEntry;
    std::uintptr_t dwCallbackId;
    DWORD dwIfIndex;
    char* szEncPassword;
};
static_assert(sizeof(RASDIALPARAMSA) == 1076);

// The state of a connection.
struct RASCONNSTATUSA {
    DWORD dwSize;
    RASCONNSTATE rasconnstate;
    DWORD dwError;
    char szDeviceType[RAS_MaxDeviceType + 1];
    char szDeviceName[RAS_MaxDeviceName + 1];
    char szPhoneNumber[RAS_MaxPhoneNumber + 1];
};
static_assert(sizeof(RASCONNSTATUSA) == 288);

#pragma pack(pop)

// Makes folder the peers folder; null goes back to TESSEL_PPP_PEERS or /etc/ppp/peers.
TESSEL_API void SetPppPeersFolder(const char* folder);

// The longest that RasDialA waits for pppd, in milliseconds (0 is taken as 1). 180,000 at
// first.
TESSEL_API void SetRasDialTimeout(DWORD milliseconds);

// Fills devices, *bytes bytes, with the device records. *bytes and *count are set to the
// bytes that all records take and their number, and ERROR_BUFFER_TOO_SMALL returned when they
// are more than *bytes (devices may then be null). 0 on success. ERROR_INVALID_PARAMETER for
// a null bytes or count, ERROR_INVALID_SIZE when devices->dwSize is not sizeof(RASDEVINFOA).
TESSEL_API DWORD RasEnumDevicesA(RASDEVINFOA* devices, DWORD* bytes, DWORD* count);

// The same for the phone book entries; reserved must be null (ERROR_INVALID_PARAMETER).
TESSEL_API DWORD RasEnumEntriesA(const char* reserved, const char* phonebook,
                                 RASENTRYNAMEA* entries, DWORD* bytes, DWORD* count);

// Fills the credentials of the entry params->szEntryName: the user name is the value of the
// last "user" option of the peer file (quoted or bare, cut to 256 bytes), "" without one; the
// password, phone numbers and domain are emptied, as pppd keeps its secrets elsewhere, and
// *hasPassword, if not null, is FALSE. 0 on success; ERROR_INVALID_PARAMETER for a null
// params, ERROR_INVALID_SIZE, ERROR_CANNOT_FIND_PHONEBOOK_ENTRY for an entry that is not
// listed.
TESSEL_API DWORD RasGetEntryDialParamsA(const char* phonebook, RASDIALPARAMSA* params,
                                        BOOL* hasPassword);

// Dials params->szEntryName and waits for the outcome (see the file comment); only the
// synchronous form: notifierType is ignored and notifier must be null. 0 on success, with
// *connection the link's handle; otherwise the error, with *connection a handle when pppd ran
// and null when it did not. ERROR_INVALID_PARAMETER for a null params or connection or a
// notifier, ERROR_INVALID_SIZE, ERROR_CANNOT_FIND_PHONEBOOK_ENTRY for an entry that is not
// listed; extensions are accepted and unused.
TESSEL_API DWORD RasDialA(RASDIALEXTENSIONS* extensions, const char* phonebook,
                          RASDIALPARAMSA* params, DWORD notifierType, void* notifier,
                          HRASCONN* connection);

// Ends the link of connection: SIGTERM to its daemon, without waiting for it to end. 0 when
// the daemon was signalled or is gone already (the handle is then forgotten);
// ERROR_INVALID_HANDLE for a handle that is not known, ERROR_HANGUP_FAILED when the signal is
// refused.
TESSEL_API DWORD RasHangUpA(HRASCONN connection);

// The state of connection: 0 and RASCS_Connected while the daemon lives and its pid file
// stands, RASCS_Disconnected after a hang-up until the daemon has ended. Once the link is
// down, ERROR_INVALID_HANDLE, and the handle is forgotten; the same for unknown handles.
// ERROR_INVALID_PARAMETER for a null status, ERROR_INVALID_SIZE. The device fields and the
// phone number are empty.
TESSEL_API DWORD RasGetConnectStatusA(HRASCONN connection, RASCONNSTATUSA* status);

// Writes the text of error into text, of size bytes. The service's own errors have texts of
// this library; other numbers the system's text (FormatMessageA) without its line end. 0 on
// success; ERROR_INVALID_PARAMETER for a null text or a number without a text,
// ERROR_INSUFFICIENT_BUFFER when the text and its NUL do not fit (text emptied if size > 0).
TESSEL_API DWORD RasGetErrorStringA(UINT error, char* text, DWORD size);

}  // namespace Tessel::Platform
