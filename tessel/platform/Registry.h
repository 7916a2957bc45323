// The registry: a tree of keys with typed, named values, shared by the processes of a host.
//
// Each hive is one SQLite database (HKLM.db, HKCU.db, ...) in the folder named by
// TESSEL_REGISTRY_DIR, by default /var/lib/tessel/registry where that can be written, else
// $XDG_STATE_HOME/tessel/registry (~/.local/state/tessel/registry). The databases run in WAL
// mode with a busy time-out, and every write is one transaction, so several processes may
// read and write at once and a process that dies leaves no torn value behind.
//
// Key paths are separated by '\'. Key and value names keep their case and compare without
// it (ASCII). Sub-keys enumerate by name, values in the order they were created. The 32-bit
// and 64-bit views are one key space: the view flags are accepted and change nothing.
// Results are the platform's error numbers: ERROR_SUCCESS, ERROR_FILE_NOT_FOUND for a
// missing key or value, ERROR_ACCESS_DENIED for a write through a key opened without write
// access or to a registry that cannot be written, ERROR_MORE_DATA for a buffer that is too
// small, ERROR_NO_MORE_ITEMS at the end of an enumeration, ERROR_KEY_DELETED for a key that
// another handle deleted, ERROR_BADDB for a database file that is not usable (one error line
// in the log names the file).
//
// Each process keeps one connection per hive, opened at first use; opening and closing keys
// does not touch the database file. RegNotifyChangeKeyValue is served by one watcher thread
// per process that follows the database files with inotify.
//
// Thread safety: every function may be called from any thread; a key handle may be used by
// several threads, but not after RegCloseKey.
#pragma once

#include <cstdint>
#include <string>

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

struct RegistryKey;
using HKEY = RegistryKey*;
using REGSAM = DWORD;
using LSTATUS = LONG;
using BYTE = unsigned char;

// The predefined keys: the root of each hive.
TESSEL_API extern const HKEY HKEY_CLASSES_ROOT;
TESSEL_API extern const HKEY HKEY_CURRENT_USER;
TESSEL_API extern const HKEY HKEY_LOCAL_MACHINE;
TESSEL_API extern const HKEY HKEY_USERS;
TESSEL_API extern const HKEY HKEY_CURRENT_CONFIG;

// Access rights.
inline constexpr REGSAM KEY_QUERY_VALUE = 0x0001;
inline constexpr REGSAM KEY_SET_VALUE = 0x0002;
inline constexpr REGSAM KEY_CREATE_SUB_KEY = 0x0004;
inline constexpr REGSAM KEY_ENUMERATE_SUB_KEYS = 0x0008;
inline constexpr REGSAM KEY_NOTIFY = 0x0010;
inline constexpr REGSAM KEY_CREATE_LINK = 0x0020;
inline constexpr REGSAM KEY_WOW64_64KEY = 0x0100;
inline constexpr REGSAM KEY_WOW64_32KEY = 0x0200;
inline constexpr REGSAM DELETE = 0x00010000;
inline constexpr REGSAM KEY_READ = 0x20019;
inline constexpr REGSAM KEY_WRITE = 0x20006;
inline constexpr REGSAM KEY_EXECUTE = 0x20019;
inline constexpr REGSAM KEY_ALL_ACCESS = 0xF003F;

// Value types.
inline constexpr DWORD REG_NONE = 0;
inline constexpr DWORD REG_SZ = 1;
inline constexpr DWORD REG_EXPAND_SZ = 2;
inline constexpr DWORD REG_BINARY = 3;
inline constexpr DWORD REG_DWORD = 4;
inline constexpr DWORD REG_MULTI_SZ = 7;
inline constexpr DWORD REG_QWORD = 11;

// RegCreateKeyExA.
inline constexpr DWORD REG_OPTION_NON_VOLATILE = 0;
inline constexpr DWORD REG_CREATED_NEW_KEY = 1;
inline constexpr DWORD REG_OPENED_EXISTING_KEY = 2;

// RegNotifyChangeKeyValue filters.
inline constexpr DWORD REG_NOTIFY_CHANGE_NAME = 0x1;
inline constexpr DWORD REG_NOTIFY_CHANGE_ATTRIBUTES = 0x2;
inline constexpr DWORD REG_NOTIFY_CHANGE_LAST_SET = 0x4;
inline constexpr DWORD REG_NOTIFY_CHANGE_SECURITY = 0x8;

// RegGetValueA type restrictions.
inline constexpr DWORD RRF_RT_REG_NONE = 0x01;
inline constexpr DWORD RRF_RT_REG_SZ = 0x02;
inline constexpr DWORD RRF_RT_REG_EXPAND_SZ = 0x04;
inline constexpr DWORD RRF_RT_REG_BINARY = 0x08;
inline constexpr DWORD RRF_RT_REG_DWORD = 0x10;
inline constexpr DWORD RRF_RT_REG_MULTI_SZ = 0x20;
inline constexpr DWORD RRF_RT_REG_QWORD = 0x40;
inline constexpr DWORD RRF_RT_DWORD = 0x18;  // REG_DWORD, or REG_BINARY of 4 bytes
inline constexpr DWORD RRF_RT_QWORD = 0x48;
inline constexpr DWORD RRF_RT_ANY = 0xFFFF;

// Opens the sub-key subKey ("" or null: key itself, as a new handle) of key.
// ERROR_FILE_NOT_FOUND if it does not exist.
TESSEL_API LSTATUS RegOpenKeyExA(HKEY key, const char* subKey, DWORD options, REGSAM access,
                                 HKEY* result);

// Opens subKey of key, creating it and every missing key on its path. disposition, if not
// null, receives REG_CREATED_NEW_KEY or REG_OPENED_EXISTING_KEY.
TESSEL_API LSTATUS RegCreateKeyExA(HKEY key, const char* subKey, DWORD reserved, char* keyClass,
                                   DWORD options, REGSAM access, SECURITY_ATTRIBUTES* security,
                                   HKEY* result, DWORD* disposition);

// Closes a handle; a predefined key is left alone. Fires the pending change notifications
// of the handle, as the platform does.
TESSEL_API LSTATUS RegCloseKey(HKEY key);

// Reads value name (null or "": the default value) of key. With data null, *size receives
// the size needed. A buffer smaller than the value gives ERROR_MORE_DATA with *size set to
// the size needed. Text values are returned as stored, with their terminator if they have one.
TESSEL_API LSTATUS RegQueryValueExA(HKEY key, const char* name, DWORD* reserved, DWORD* type,
                                    BYTE* data, DWORD* size);

// Reads value name of subKey of key, restricted to the types that flags allow
// (ERROR_UNSUPPORTED_TYPE otherwise). Text values come back NUL-terminated.
TESSEL_API LSTATUS RegGetValueA(HKEY key, const char* subKey, const char* name, DWORD flags,
                                DWORD* type, void* data, DWORD* size);

// Creates or replaces value name of key. A replaced value keeps its place in the order.
TESSEL_API LSTATUS RegSetValueExA(HKEY key, const char* name, DWORD reserved, DWORD type,
                                  const BYTE* data, DWORD size);

// Deletes value name of key.
TESSEL_API LSTATUS RegDeleteValueA(HKEY key, const char* name);

// Deletes subKey of key, which must have no sub-keys of its own (ERROR_ACCESS_DENIED).
TESSEL_API LSTATUS RegDeleteKeyA(HKEY key, const char* subKey);
TESSEL_API LSTATUS RegDeleteKeyExA(HKEY key, const char* subKey, REGSAM view, DWORD reserved);

// The name of sub-key index (by name order) into name, whose capacity in characters
// *nameLength gives on entry and whose length without the NUL it receives on success.
TESSEL_API LSTATUS RegEnumKeyExA(HKEY key, DWORD index, char* name, DWORD* nameLength,
                                 DWORD* reserved, char* keyClass, DWORD* classLength,
                                 std::int64_t* lastWriteTime);

// The name, type and data of value index (in creation order); the lengths as for
// RegEnumKeyExA and RegQueryValueExA.
TESSEL_API LSTATUS RegEnumValueA(HKEY key, DWORD index, char* name, DWORD* nameLength,
                                 DWORD* reserved, DWORD* type, BYTE* data, DWORD* dataLength);

// Counts and longest names of the sub-keys and values of key; any pointer may be null.
TESSEL_API LSTATUS RegQueryInfoKeyA(HKEY key, DWORD* subKeys, DWORD* maxSubKeyLength, DWORD* values,
                                    DWORD* maxValueNameLength, DWORD* maxValueLength);

// Signals event once, the next time key (or, with watchSubtree, a key below it) changes in
// the way filter selects: REG_NOTIFY_CHANGE_NAME for sub-keys created or deleted,
// REG_NOTIFY_CHANGE_LAST_SET for values set or deleted. A change by any process counts. Only
// the asynchronous form (an event) is offered; the notification ends when it has fired or
// when the handle is closed, which fires it too.
TESSEL_API LSTATUS RegNotifyChangeKeyValue(HKEY key, BOOL watchSubtree, DWORD filter, HANDLE event,
                                           BOOL asynchronous);

// The folder of the hive databases, as described above, with no trailing '/'.
TESSEL_API std::string RegistryDirectory();

// The database file of the hive of a predefined key, or "" for another handle.
TESSEL_API std::string RegistryHiveFile(HKEY hive);

}  // namespace Tessel::Platform
