// The platform's service control manager, over systemd.
//
// A service is a systemd unit "<name>.service" (a name that ends in ".service" already is
// taken as it is; names compare with their case). systemd is reached over the system bus
// through sd-bus: sd_bus_open_system, which honours DBUS_SYSTEM_BUS_ADDRESS. Installed services
// are unit files in the unit folder: /etc/systemd/system, or the folder named by the environment
// variable TESSEL_SYSTEMD_UNIT_DIR where it is set (read at each call). After each change of a
// unit file or a drop-in the manager is told to reload.
//
// Results and error numbers are the platform's: the calls return a handle or TRUE on success,
// null or FALSE with the last error set on failure. systemd's D-Bus errors become:
//   org.freedesktop.systemd1.NoSuchUnit (and a unit that is not found)          1060
//   org.freedesktop.systemd1.UnitMasked, OnlyByDependency                        1058
//   org.freedesktop.DBus.Error.AccessDenied, InteractiveAuthorizationRequired    5
//   org.freedesktop.systemd1.LoadFailed                                          2
//   org.freedesktop.systemd1.TransactionOrderIsCyclic                            1059
//   org.freedesktop.DBus.Error.ServiceUnknown, NameHasNoOwner, NoServer,
//     Disconnected, a bus that cannot be reached                                 1065
//   org.freedesktop.DBus.Error.NoReply, Timeout                                  1053
//   org.freedesktop.DBus.Error.InvalidArgs                                       87
//   any other error: the errno that sd-bus gives it, mapped by ErrnoToError (1 for none).
//
// States: "active" and "reloading" are running (4), "activating" start pending (2),
// "deactivating" stop pending (3), anything else stopped (1). A running unit whose freezer
// state is "frozen" is paused (7), "freezing" pause pending (6), "thawing" continue pending (5).
// A running unit accepts the stop control (SERVICE_ACCEPT_STOP), no other state does. The wait
// hint is the unit's TimeoutStartUSec while start pending and TimeoutStopUSec while stop
// pending, in milliseconds (infinity gives 0, no hint), 0 otherwise. systemd reports no
// progress within a state, so the check point is always 0. A unit that failed reports stopped
// with the exit code 1067 (ERROR_PROCESS_ABORTED).
//
// Lifetime and thread safety: each manager handle owns a bus connection of its own; its service
// handles share it. A manager handle and its service handles belong to one thread at a time;
// different manager handles may be used on different threads. Close the service handles before
// their manager handle.
#pragma once

#include <string>

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

// A manager or service handle; opaque, null is "no handle".
struct ServiceHandleObject;
using SC_HANDLE = ServiceHandleObject*;
// A lock of the service database; opaque, null is "no lock".
struct ServiceLockObject;
using SC_LOCK = ServiceLockObject*;

// Access rights of the manager. Each call checks that its handle was opened with the right it
// needs (ERROR_ACCESS_DENIED otherwise): creation SC_MANAGER_CREATE_SERVICE, enumeration
// SC_MANAGER_ENUMERATE_SERVICE, the lock SC_MANAGER_LOCK.
inline constexpr DWORD SC_MANAGER_CONNECT = 0x0001u;
inline constexpr DWORD SC_MANAGER_CREATE_SERVICE = 0x0002u;
inline constexpr DWORD SC_MANAGER_ENUMERATE_SERVICE = 0x0004u;
inline constexpr DWORD SC_MANAGER_LOCK = 0x0008u;
inline constexpr DWORD SC_MANAGER_QUERY_LOCK_STATUS = 0x0010u;
inline constexpr DWORD SC_MANAGER_MODIFY_BOOT_CONFIG = 0x0020u;
inline constexpr DWORD SC_MANAGER_ALL_ACCESS = 0xF003Fu;

// Access rights of a service, checked as above: QueryServiceStatus SERVICE_QUERY_STATUS,
// StartServiceA SERVICE_START, a stop SERVICE_STOP, the configuration SERVICE_CHANGE_CONFIG,
// DeleteService DELETE.
inline constexpr DWORD SERVICE_QUERY_CONFIG = 0x0001u;
inline constexpr DWORD SERVICE_CHANGE_CONFIG = 0x0002u;
inline constexpr DWORD SERVICE_QUERY_STATUS = 0x0004u;
inline constexpr DWORD SERVICE_ENUMERATE_DEPENDENTS = 0x0008u;
inline constexpr DWORD SERVICE_START = 0x0010u;
inline constexpr DWORD SERVICE_STOP = 0x0020u;
inline constexpr DWORD SERVICE_PAUSE_CONTINUE = 0x0040u;
inline constexpr DWORD SERVICE_INTERROGATE = 0x0080u;
inline constexpr DWORD SERVICE_USER_DEFINED_CONTROL = 0x0100u;
inline constexpr DWORD DELETE = 0x00010000u;
inline constexpr DWORD SERVICE_ALL_ACCESS = 0xF01FFu;

// Service types. Every unit is a service of its own process.
inline constexpr DWORD SERVICE_KERNEL_DRIVER = 0x01u;
inline constexpr DWORD SERVICE_FILE_SYSTEM_DRIVER = 0x02u;
inline constexpr DWORD SERVICE_DRIVER = 0x0Bu;
inline constexpr DWORD SERVICE_WIN32_OWN_PROCESS = 0x10u;
inline constexpr DWORD SERVICE_WIN32_SHARE_PROCESS = 0x20u;
inline constexpr DWORD SERVICE_WIN32 = 0x30u;
inline constexpr DWORD SERVICE_INTERACTIVE_PROCESS = 0x100u;

// Start types: automatic is an enabled unit, on demand a disabled one, disabled a disabled one
// that refuses a manual start (the drop-in "<unit>.d/disabled.conf" with RefuseManualStart=yes,
// so that a start fails with 1058). Boot and system start belong to drivers: 87.
inline constexpr DWORD SERVICE_BOOT_START = 0;
inline constexpr DWORD SERVICE_SYSTEM_START = 1;
inline constexpr DWORD SERVICE_AUTO_START = 2;
inline constexpr DWORD SERVICE_DEMAND_START = 3;
inline constexpr DWORD SERVICE_DISABLED = 4;

// Error control; accepted and ignored.
inline constexpr DWORD SERVICE_ERROR_IGNORE = 0;
inline constexpr DWORD SERVICE_ERROR_NORMAL = 1;
inline constexpr DWORD SERVICE_ERROR_SEVERE = 2;
inline constexpr DWORD SERVICE_ERROR_CRITICAL = 3;

// "No change" for the numeric fields of ChangeServiceConfigA.
inline constexpr DWORD SERVICE_NO_CHANGE = 0xFFFFFFFFu;

// Service states.
inline constexpr DWORD SERVICE_STOPPED = 1;
inline constexpr DWORD SERVICE_START_PENDING = 2;
inline constexpr DWORD SERVICE_STOP_PENDING = 3;
inline constexpr DWORD SERVICE_RUNNING = 4;
inline constexpr DWORD SERVICE_CONTINUE_PENDING = 5;
inline constexpr DWORD SERVICE_PAUSE_PENDING = 6;
inline constexpr DWORD SERVICE_PAUSED = 7;

// Controls, and the bits of the controls accepted.
inline constexpr DWORD SERVICE_CONTROL_STOP = 1;
inline constexpr DWORD SERVICE_CONTROL_INTERROGATE = 4;
inline constexpr DWORD SERVICE_ACCEPT_STOP = 0x1u;

// Enumeration: the information level and the state filter.
inline constexpr int SC_ENUM_PROCESS_INFO = 0;
inline constexpr DWORD SERVICE_ACTIVE = 1;
inline constexpr DWORD SERVICE_INACTIVE = 2;
inline constexpr DWORD SERVICE_STATE_ALL = 3;

// Levels of ChangeServiceConfig2A.
inline constexpr DWORD SERVICE_CONFIG_DESCRIPTION = 1;
inline constexpr DWORD SERVICE_CONFIG_FAILURE_ACTIONS = 2;
inline constexpr DWORD SERVICE_CONFIG_DELAYED_AUTO_START_INFO = 3;

// The error numbers of service control.
inline constexpr DWORD ERROR_INVALID_SERVICE_CONTROL = 1052;
inline constexpr DWORD ERROR_SERVICE_REQUEST_TIMEOUT = 1053;
inline constexpr DWORD ERROR_SERVICE_NO_THREAD = 1054;
inline constexpr DWORD ERROR_SERVICE_DATABASE_LOCKED = 1055;
inline constexpr DWORD ERROR_SERVICE_ALREADY_RUNNING = 1056;
inline constexpr DWORD ERROR_SERVICE_DISABLED = 1058;
inline constexpr DWORD ERROR_CIRCULAR_DEPENDENCY = 1059;
inline constexpr DWORD ERROR_SERVICE_NOT_ACTIVE = 1062;
inline constexpr DWORD ERROR_DATABASE_DOES_NOT_EXIST = 1065;
inline constexpr DWORD ERROR_PROCESS_ABORTED = 1067;
inline constexpr DWORD ERROR_SERVICE_DEPENDENCY_FAIL = 1068;
inline constexpr DWORD ERROR_SERVICE_LOGON_FAILED = 1069;
inline constexpr DWORD ERROR_SERVICE_MARKED_FOR_DELETE = 1072;
inline constexpr DWORD ERROR_SERVICE_EXISTS = 1073;
inline constexpr DWORD ERROR_SERVICE_DEPENDENCY_DELETED = 1075;

struct SERVICE_STATUS {
    DWORD dwServiceType;
    DWORD dwCurrentState;
    DWORD dwControlsAccepted;
    DWORD dwWin32ExitCode;
    DWORD dwServiceSpecificExitCode;
    DWORD dwCheckPoint;
    DWORD dwWaitHint;  // milliseconds
};

struct SERVICE_STATUS_PROCESS {
    DWORD dwServiceType;
    DWORD dwCurrentState;
    DWORD dwControlsAccepted;
    DWORD dwWin32ExitCode;
    DWORD dwServiceSpecificExitCode;
    DWORD dwCheckPoint;
    DWORD dwWaitHint;
    DWORD dwProcessId;  // not read from systemd: 0
    DWORD dwServiceFlags;
};

struct ENUM_SERVICE_STATUS_PROCESSA {
    char* lpServiceName;  // the unit name without ".service"
    char* lpDisplayName;  // the unit's description
    SERVICE_STATUS_PROCESS ServiceStatusProcess;
};

// Failure actions.
enum SC_ACTION_TYPE : DWORD {
    SC_ACTION_NONE = 0,
    SC_ACTION_RESTART = 1,
    SC_ACTION_REBOOT = 2,
    SC_ACTION_RUN_COMMAND = 3,
};

struct SC_ACTION {
    SC_ACTION_TYPE Type;
    DWORD Delay;  // milliseconds
};

struct SERVICE_FAILURE_ACTIONSA {
    DWORD dwResetPeriod;  // seconds; INFINITE never resets
    char* lpRebootMsg;
    char* lpCommand;
    DWORD cActions;
    SC_ACTION* lpsaActions;
};

struct SERVICE_DESCRIPTIONA {
    char* lpDescription;
};

struct SERVICE_DELAYED_AUTO_START_INFO {
    BOOL fDelayedAutostart;
};

// Connects to systemd. machineName must be null or empty (87 otherwise: no remote machines);
// databaseName null or "ServicesActive" (1065 otherwise). A bus or a systemd that cannot be
// reached gives 1065, a refused connection 5. access is kept for the checks of the calls.
TESSEL_API SC_HANDLE OpenSCManagerA(const char* machineName, const char* databaseName,
                                    DWORD access);

// Opens the service serviceName: the unit is loaded; 1060 if it has no unit file. An empty name
// or one holding '/' gives 123, a null manager 6.
TESSEL_API SC_HANDLE OpenServiceA(SC_HANDLE manager, const char* serviceName, DWORD access);

// Installs a service: writes the unit file "<name>.service" into the unit folder and reloads:
//   [Unit]     Description=displayName (the service name where null),
//              Requires= and After= the dependencies (a double-NUL-terminated list; a name
//              without a unit suffix gets ".service"; group names, "+..." are left out)
//   [Service]  ExecStart=binaryPath, User= the account
//   [Install]  WantedBy=multi-user.target
// binaryPath is a command line as the platform writes it (a path holding blanks in double
// quotes, then the arguments); each of its words is written double-quoted with '\' and '"'
// escaped, '%' and '$' doubled, as systemd reads them. The account: null, "LocalSystem" and
// ".\LocalSystem" give no User= (root); ".\name" and "DOMAIN\name" give name. password is not
// used. An automatic start type enables the unit (EnableUnitFiles), on demand leaves it
// disabled, disabled writes the drop-in of ChangeServiceConfigA. Gives 1073 if the unit file
// exists or systemd has the unit loaded, 87 for a null name or path, the mapped errno where the
// file cannot be written. Returns the service handle with desiredAccess.
TESSEL_API SC_HANDLE CreateServiceA(SC_HANDLE manager, const char* serviceName,
                                    const char* displayName, DWORD desiredAccess, DWORD serviceType,
                                    DWORD startType, DWORD errorControl, const char* binaryPath,
                                    const char* loadOrderGroup, DWORD* tagId,
                                    const char* dependencies, const char* serviceStartName,
                                    const char* password);

// Starts the unit (StartUnit, mode "replace") and returns without waiting for it. A unit that
// is active, reloading or activating already gives 1056. Arguments are not supported: argc
// must be 0 (87 otherwise).
TESSEL_API BOOL StartServiceA(SC_HANDLE service, DWORD argc, const char** argv);

// Sends control: SERVICE_CONTROL_STOP stops the unit (StopUnit, "replace"; 1062 for a unit that
// is stopped), SERVICE_CONTROL_INTERROGATE only reads the status. Other controls give 1052.
// status receives the status after the control.
TESSEL_API BOOL ControlService(SC_HANDLE service, DWORD control, SERVICE_STATUS* status);

// Reads the unit's status as described above.
TESSEL_API BOOL QueryServiceStatus(SC_HANDLE service, SERVICE_STATUS* status);

// Removes the service: disables the unit (DisableUnitFiles), removes "<name>.service" and its
// drop-in folder "<name>.service.d" from the unit folder and reloads. A unit whose file lies
// elsewhere is only disabled. A running unit goes on running until it is stopped.
TESSEL_API BOOL DeleteService(SC_HANDLE service);

// Lists the loaded service units (ListUnits; units that are not found are left out), names
// without ".service". infoLevel must be SC_ENUM_PROCESS_INFO, serviceType hold
// SERVICE_WIN32_OWN_PROCESS (a type without it lists nothing), state one of SERVICE_ACTIVE
// (not stopped), SERVICE_INACTIVE (stopped), SERVICE_STATE_ALL; groupName null. buffer holds
// the array of ENUM_SERVICE_STATUS_PROCESSA, then their texts. A buffer that is too small
// (also a null one) gives 234 with bytesNeeded set and no entries; resumeHandle, where given,
// is set to 0 (all entries come in one call).
TESSEL_API BOOL EnumServicesStatusExA(SC_HANDLE manager, int infoLevel, DWORD serviceType,
                                      DWORD state, unsigned char* buffer, DWORD bufferSize,
                                      DWORD* bytesNeeded, DWORD* servicesReturned,
                                      DWORD* resumeHandle, const char* groupName);

// Changes the configuration. startType as in CreateServiceA; displayName rewrites Description=,
// binaryPath ExecStart=, serviceStartName User=, dependencies Requires= and After=. Null texts
// and SERVICE_NO_CHANGE leave a field as it is; the service type, error control, load order
// group, tag and password are accepted and ignored. The unit file must lie in the unit folder
// for a change of its text (2 otherwise).
TESSEL_API BOOL ChangeServiceConfigA(SC_HANDLE service, DWORD serviceType, DWORD startType,
                                     DWORD errorControl, const char* binaryPath,
                                     const char* loadOrderGroup, DWORD* tagId,
                                     const char* dependencies, const char* serviceStartName,
                                     const char* password, const char* displayName);

// Changes one part of the configuration:
//  - SERVICE_CONFIG_DESCRIPTION (SERVICE_DESCRIPTIONA): rewrites Description= of the unit
//    file; a null or empty text sets the service name.
//  - SERVICE_CONFIG_FAILURE_ACTIONS (SERVICE_FAILURE_ACTIONSA): writes the drop-in
//    "<unit>.d/recovery.conf": [Unit] StartLimitIntervalSec= the reset period in seconds
//    ("infinity" for INFINITE), StartLimitBurst= the restart actions plus one (the first start
//    counts too), FailureAction=reboot where an action reboots; [Service] Restart=on-failure and
//    RestartSec= the first restart action's delay in milliseconds ("10000ms"), or Restart=no
//    without restart actions. Run-command actions are not supported and left out. No actions
//    (cActions 0) removes the drop-in.
//  - SERVICE_CONFIG_DELAYED_AUTO_START_INFO (SERVICE_DELAYED_AUTO_START_INFO): TRUE writes the
//    drop-in "<unit>.d/delayed.conf" with After=multi-user.target, so that the unit starts once
//    the other services of the boot have started; FALSE removes it. Enablement is unchanged.
// Other levels give 87. The manager reloads after a change.
TESSEL_API BOOL ChangeServiceConfig2A(SC_HANDLE service, DWORD infoLevel, void* info);

// Locks the service database: an exclusive flock of ".tessel-services.lock" in the unit folder,
// held until UnlockServiceDatabase. A lock held elsewhere (another handle or process) gives
// 1055 at once. The changes of this interface do not take the lock themselves.
TESSEL_API SC_LOCK LockServiceDatabase(SC_HANDLE manager);
TESSEL_API BOOL UnlockServiceDatabase(SC_LOCK lock);

// Closes a manager or service handle. 6 for a null one.
TESSEL_API BOOL CloseServiceHandle(SC_HANDLE handle);

// The unit folder: TESSEL_SYSTEMD_UNIT_DIR where it is set and not empty, else
// /etc/systemd/system. It must be a folder that systemd reads units from; the variable serves
// tests against a stand-in of systemd.
TESSEL_API std::string ServiceUnitFolder();

}  // namespace Tessel::Platform
