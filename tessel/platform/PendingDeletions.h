// Files to delete at the next start of the machine.
//
// The platform deletes such files while it boots; Linux has no such facility. Here the path
// is recorded in the registry, in the local machine hive, under the key
// kPendingDeletionsKey: the value kPendingDeletionsValue (REG_MULTI_SZ) lists the absolute
// paths, and kPendingDeletionsBootIdValue (REG_SZ) holds the boot id of the machine
// (/proc/sys/kernel/random/boot_id) at the time of the last mark. ProcessPendingDeletions,
// run in a process that finds the machine under another boot id, deletes the listed files
// and folders (empty ones) and removes the record: so the deletion happens at the first start
// of a program of the library after the reboot, not during the boot itself.
//
// A program of the library calls ProcessPendingDeletions once at its start; the library also
// runs it, once per process, before it records the first mark, so that a record of an earlier
// boot is settled before a new one is begun.
//
// Thread safety: the functions may be called from any thread; the marks of one process are
// serialised. Marks of two processes at the same moment may lose one of them (the list is
// read, extended and written back).
#pragma once

#include <string>

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

inline constexpr const char* kPendingDeletionsKey =
    "SYSTEM\\CurrentControlSet\\Control\\Session Manager";
inline constexpr const char* kPendingDeletionsValue = "PendingFileDeletions";
inline constexpr const char* kPendingDeletionsBootIdValue = "PendingFileDeletionsBootId";

// Records path (made absolute against the current folder; it need not exist) for deletion
// at the next boot; a path already listed is not listed twice. FALSE with the last error set
// where the registry cannot be written (ERROR_ACCESS_DENIED, ...) or path is null or empty
// (ERROR_INVALID_PARAMETER).
TESSEL_API BOOL MarkForDeletionAtReboot(const char* path);

// Where the record was made under another boot id than the present one: deletes each listed
// path that still exists (a file, or a folder if it is empty; failures are passed over) and
// removes the record. Returns the number of paths deleted; 0 where there is no record or it
// is of the present boot.
TESSEL_API int ProcessPendingDeletions();

// The machine's boot id, "" where it cannot be read.
TESSEL_API std::string CurrentBootId();

}  // namespace Tessel::Platform
