// One hive of the registry: its SQLite connection, statements and key-id cache (private to
// the library).
//
// Schema of a hive database:
//   keys(id, parent, name, path)
//     One row per key; the hive's root is id 1 with the empty path. path is the key's full
//     path below the root, its names joined by '\', compared without case (NOCASE) and
//     unique, so that finding a key of any depth is one indexed lookup. Ids are never reused
//     (AUTOINCREMENT), so an id names one key for ever: a stale id can only name a key that
//     is gone.
//   vals(key, name, type, data, seq)
//     One row per value, clustered by key; seq is the creation order within the key. Two
//     more rows per key, with the blob names X'00' and X'01' that no value name can take
//     (value names are text), count the changes of the key's values and of its set of
//     sub-keys for the change notifications. They sit beside the key's values, so that a
//     write of a value and its count touch one page. Their type is -1, and the listings
//     skip them.
//
// Each process has one connection per hive, guarded by the hive's mutex. Every write is one
// BEGIN IMMEDIATE transaction in WAL mode with synchronous=NORMAL: a process that dies loses
// no committed write and leaves no torn one.
#pragma once

#include <sqlite3.h>

#include <array>
#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>

#include "tessel/platform/Types.h"

namespace Tessel::Platform {

inline constexpr int kHiveCount = 6;
inline constexpr std::int64_t kRootKeyId = 1;

// The statements of a hive, prepared once per connection.
enum RegistryStatement {
    kBegin,
    kCommit,
    kRollback,
    kFindKey,
    kKeyExists,
    kInsertKey,
    kGetValue,
    kSetValue,
    kCountValueChange,
    kCountNameChange,
    kDeleteValue,
    kCountSubKeys,
    kDeleteKeyRow,
    kDeleteKeyValues,
    kEnumKey,
    kEnumValue,
    kKeyInfo,
    kValueInfo,
    kChanges,
    kSubtreeChanges,
    kStatementCount
};

class RegistryHive {
  public:
    explicit RegistryHive(int index) : m_index(index) {}
    RegistryHive(const RegistryHive&) = delete;
    RegistryHive& operator=(const RegistryHive&) = delete;

    // The hive of a predefined key's index (0 classes root ... 5 current config); null for
    // an index without a hive.
    static RegistryHive* At(int index);
    // The file name of the hive of index, or null.
    static const char* FileName(int index);
    // Forgets every connection in a forked child, without closing it.
    static void ForgetAllInChild();

    // The lock that every use of the connection holds (see RegistryHiveLock).
    std::mutex& mutex() { return m_mutex; }

    // Opens the connection if it is not open. ERROR_SUCCESS or the error. Under mutex().
    DWORD open();
    bool writable() const { return m_writable; }
    const std::string& file() const { return m_file; }

    // The statement, reset and with its bindings cleared. Under mutex(), after open().
    sqlite3_stmt* statement(RegistryStatement which);
    // Resets the statements used since the last call. A statement left on a row would keep
    // its read transaction, and with it an old snapshot of the database, open.
    void resetUsed();

    // The platform's error for a failed step. A database that is not usable is reported
    // once, in one line that names the file, and opened afresh at the next operation. The
    // report is made when the hive's lock is released (see RegistryHiveLock), since whoever
    // receives it may use the registry again.
    DWORD fail(int rc);
    // The report that fail() left, taken away. Under mutex().
    std::string takeReport() { return std::move(m_report); }

    // The cached id of a key path, or 0. An entry may be stale after another process
    // deleted the key; its user confirms the id when the key seems to be gone.
    std::int64_t cachedId(const std::string& path);
    void remember(const std::string& path, std::int64_t id);
    void forget(const std::string& path);

    // Closes the connection for good at process exit, so that the last connection of a
    // database moves the WAL into the database file and removes it.
    void closeAtExit();

  private:
    DWORD openConnection(int flags, const std::string& uri);
    void close();
    void abandonInChild();

    const int m_index;
    std::mutex m_mutex;
    std::string m_file;                                         // guarded by m_mutex
    sqlite3* m_db = nullptr;                                    // guarded by m_mutex
    std::array<sqlite3_stmt*, kStatementCount> m_statements{};  // guarded by m_mutex
    std::uint32_t m_used = 0;                                   // guarded by m_mutex
    bool m_writable = false;                                    // guarded by m_mutex
    bool m_exiting = false;                                     // guarded by m_mutex
    DWORD m_reportedError = ERROR_SUCCESS;                      // guarded by m_mutex
    std::unordered_map<std::string, std::int64_t> m_ids;        // guarded by m_mutex
    std::string m_report;                                       // guarded by m_mutex
};

// Holds a hive's lock for one operation; on release it resets the statements the operation
// used and, with the lock released, hands on the error report it left.
class RegistryHiveLock {
  public:
    explicit RegistryHiveLock(RegistryHive& hive) : m_hive(hive) { hive.mutex().lock(); }
    ~RegistryHiveLock();
    RegistryHiveLock(const RegistryHiveLock&) = delete;
    RegistryHiveLock& operator=(const RegistryHiveLock&) = delete;

  private:
    RegistryHive& m_hive;
};

// A write transaction: BEGIN IMMEDIATE at construction, ROLLBACK unless committed.
class RegistryTransaction {
  public:
    explicit RegistryTransaction(RegistryHive& hive);
    ~RegistryTransaction();
    RegistryTransaction(const RegistryTransaction&) = delete;
    RegistryTransaction& operator=(const RegistryTransaction&) = delete;

    // SQLITE_DONE when the transaction began, else the error code.
    int begun() const { return m_begun; }
    // SQLITE_DONE when committed, else the error code.
    int commit();

  private:
    RegistryHive& m_hive;
    int m_begun;
    bool m_open;
};

// Creates dir and its parents; true if it exists afterwards.
bool RegistryMakeDirectories(const std::string& dir);

// Steps a statement that returns no rows. SQLITE_DONE or the error code.
int RegistryRun(sqlite3_stmt* statement);
void RegistryBindText(sqlite3_stmt* statement, int index, const std::string& text);
// The id of path, or 0; rc receives SQLITE_OK or the error code.
std::int64_t RegistryFindKey(RegistryHive& hive, const std::string& path, int& rc);
bool RegistryKeyExists(RegistryHive& hive, std::int64_t id);
// Counts a change of the key's values (kCountValueChange) or sub-keys (kCountNameChange).
int RegistryCountChange(RegistryHive& hive, RegistryStatement counter, std::int64_t id);

}  // namespace Tessel::Platform
