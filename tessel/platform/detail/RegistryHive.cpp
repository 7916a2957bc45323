#include "tessel/platform/detail/RegistryHive.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <vector>

#include "tessel/platform/Diagnostics.h"
#include "tessel/platform/Registry.h"

namespace Tessel::Platform {
namespace {

// File names by the low bits of the predefined keys; 4 (performance data) has no hive.
constexpr const char* kHiveFiles[kHiveCount] = {"HKCR.db", "HKCU.db", "HKLM.db",
                                                "HKU.db",  nullptr,   "HKCC.db"};
constexpr int kBusyTimeoutMs = 10000;
constexpr std::size_t kMaxCachedIds = 4096;

static_assert(kStatementCount <= 32, "the used statements are kept in 32 bits");

// The change counters are the rows X'00' (values) and X'01' (sub-keys) of a key in vals.
const char* const kStatementTexts[kStatementCount] = {
    "BEGIN IMMEDIATE",
    "COMMIT",
    "ROLLBACK",
    "SELECT id FROM keys WHERE path = ?1",
    "SELECT 1 FROM keys WHERE id = ?1",
    "INSERT INTO keys(parent, name, path) VALUES(?1, ?2, ?3)",
    "SELECT type, data FROM vals WHERE key = ?1 AND name = ?2",
    "INSERT INTO vals(key, name, type, data, seq) VALUES(?1, ?2, ?3, ?4, "
    "(SELECT coalesce(max(seq), 0) + 1 FROM vals WHERE key = ?1)) "
    "ON CONFLICT(key, name) DO UPDATE SET type = excluded.type, data = excluded.data",
    "INSERT INTO vals(key, name, type, data, seq) VALUES(?1, X'00', -1, 1, 0) "
    "ON CONFLICT(key, name) DO UPDATE SET data = data + 1",
    "INSERT INTO vals(key, name, type, data, seq) VALUES(?1, X'01', -1, 1, 0) "
    "ON CONFLICT(key, name) DO UPDATE SET data = data + 1",
    "DELETE FROM vals WHERE key = ?1 AND name = ?2",
    "SELECT count(*) FROM keys WHERE parent = ?1",
    "DELETE FROM keys WHERE id = ?1",
    "DELETE FROM vals WHERE key = ?1",
    "SELECT name FROM keys WHERE parent = ?1 ORDER BY name LIMIT 1 OFFSET ?2",
    "SELECT name, type, data FROM vals WHERE key = ?1 AND type >= 0 ORDER BY seq "
    "LIMIT 1 OFFSET ?2",
    "SELECT count(*), coalesce(max(length(CAST(name AS BLOB))), 0) FROM keys WHERE parent = ?1",
    "SELECT count(*), coalesce(max(length(CAST(name AS BLOB))), 0), "
    "coalesce(max(length(data)), 0) FROM vals WHERE key = ?1 AND type >= 0",
    "SELECT coalesce(sum(CASE WHEN name = X'00' THEN data END), 0), "
    "coalesce(sum(CASE WHEN name = X'01' THEN data END), 0) "
    "FROM vals WHERE key = ?1 AND type < 0",
    // The sub-tree of a key: its own row and the paths behind "<path>\", which sort below
    // "<path>]" since ']' follows '\'.
    "SELECT coalesce(sum(CASE WHEN name = X'00' THEN data END), 0), "
    "coalesce(sum(CASE WHEN name = X'01' THEN data END), 0) FROM vals "
    "WHERE type < 0 AND key IN "
    "(SELECT id FROM keys WHERE id = ?1 OR (path >= ?2 AND path < ?3))",
};

const char* const kSchema =
    "CREATE TABLE IF NOT EXISTS keys("
    " id INTEGER PRIMARY KEY AUTOINCREMENT,"
    " parent INTEGER NOT NULL,"
    " name TEXT NOT NULL COLLATE NOCASE,"
    " path TEXT NOT NULL COLLATE NOCASE UNIQUE);"
    "CREATE INDEX IF NOT EXISTS keys_by_parent ON keys(parent, name);"
    "CREATE TABLE IF NOT EXISTS vals("
    " key INTEGER NOT NULL,"
    " name TEXT NOT NULL COLLATE NOCASE,"
    " type INTEGER NOT NULL,"
    " data BLOB NOT NULL,"
    " seq INTEGER NOT NULL,"
    " PRIMARY KEY(key, name)) WITHOUT ROWID;"
    "INSERT OR IGNORE INTO keys(id, parent, name, path) VALUES(1, 0, '', '');";

DWORD errorOfSqlite(int rc) {
    switch (rc & 0xFF) {
        case SQLITE_OK:
        case SQLITE_ROW:
        case SQLITE_DONE:
            return ERROR_SUCCESS;
        case SQLITE_READONLY:
        case SQLITE_PERM:
        case SQLITE_AUTH:
            return ERROR_ACCESS_DENIED;
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
            return ERROR_BUSY;
        case SQLITE_FULL:
            return ERROR_DISK_FULL;
        case SQLITE_NOMEM:
            return ERROR_NOT_ENOUGH_MEMORY;
        case SQLITE_CANTOPEN:
            return ERROR_CANTOPEN;
        case SQLITE_IOERR:
            return ERROR_CANTWRITE;
        case SQLITE_NOTADB:
        case SQLITE_CORRUPT:
        default:
            return ERROR_BADDB;
    }
}

}  // namespace

bool RegistryMakeDirectories(const std::string& dir) {
    for (std::size_t slash = dir.find('/', 1);; slash = dir.find('/', slash + 1)) {
        const std::string part = dir.substr(0, slash);
        if (::mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) {
            return false;
        }
        if (slash == std::string::npos) {
            break;
        }
    }
    struct stat info;
    return ::stat(dir.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

namespace {

// Paths compare without regard to ASCII case, as NOCASE does.
std::string cacheKey(const std::string& path) {
    std::string key = path;
    for (char& c : key) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return key;
}

struct Hives {
    std::array<std::unique_ptr<RegistryHive>, kHiveCount> hives;
    // Connections that a forked child inherited and must neither use nor close; kept
    // reachable so that they are not taken for leaks.
    std::vector<std::unique_ptr<RegistryHive>> inherited;
};

void closeAllAtExit();

Hives& hives() {
    // Never destroyed: a watcher thread may use a hive while the process exits. The
    // connections are closed at exit.
    static Hives* const all = [] {
        auto* made = new Hives();
        for (int i = 0; i < kHiveCount; ++i) {
            if (kHiveFiles[i] != nullptr) {
                made->hives[i] = std::make_unique<RegistryHive>(i);
            }
        }
        std::atexit(&closeAllAtExit);
        return made;
    }();
    return *all;
}

void closeAllAtExit() {
    for (auto& hive : hives().hives) {
        if (hive) {
            hive->closeAtExit();
        }
    }
}

}  // namespace

RegistryHive* RegistryHive::At(int index) {
    return index >= 0 && index < kHiveCount ? hives().hives[index].get() : nullptr;
}

const char* RegistryHive::FileName(int index) {
    return index >= 0 && index < kHiveCount ? kHiveFiles[index] : nullptr;
}

void RegistryHive::ForgetAllInChild() {
    Hives& all = hives();
    for (int i = 0; i < kHiveCount; ++i) {
        if (all.hives[i]) {
            all.inherited.push_back(std::move(all.hives[i]));
            all.hives[i] = std::make_unique<RegistryHive>(i);
        }
    }
}

sqlite3_stmt* RegistryHive::statement(RegistryStatement which) {
    sqlite3_stmt* s = m_statements[which];
    sqlite3_reset(s);
    sqlite3_clear_bindings(s);
    m_used |= 1u << which;
    return s;
}

void RegistryHive::resetUsed() {
    for (int i = 0; m_used != 0; ++i, m_used >>= 1) {
        if ((m_used & 1u) != 0 && m_statements[i] != nullptr) {
            sqlite3_reset(m_statements[i]);
        }
    }
}

std::int64_t RegistryHive::cachedId(const std::string& path) {
    const auto found = m_ids.find(cacheKey(path));
    return found == m_ids.end() ? 0 : found->second;
}

void RegistryHive::remember(const std::string& path, std::int64_t id) {
    if (m_ids.size() >= kMaxCachedIds) {
        m_ids.clear();
    }
    m_ids[cacheKey(path)] = id;
}

void RegistryHive::forget(const std::string& path) {
    m_ids.erase(cacheKey(path));
}

void RegistryHive::close() {
    for (sqlite3_stmt*& s : m_statements) {
        sqlite3_finalize(s);
        s = nullptr;
    }
    sqlite3_close_v2(m_db);
    m_db = nullptr;
    m_ids.clear();
}

void RegistryHive::closeAtExit() {
    std::lock_guard<std::mutex> guard(m_mutex);
    close();
    m_exiting = true;
}

DWORD RegistryHive::fail(int rc) {
    const DWORD error = errorOfSqlite(rc);
    if (error == ERROR_BADDB || error == ERROR_CANTOPEN) {
        if (m_reportedError != error) {
            m_reportedError = error;
            m_report = "Registry database " + m_file + " is not usable (" + sqlite3_errstr(rc) +
                       "); its operations fail with error " + std::to_string(error) + ".";
        }
        close();
    }
    return error;
}

DWORD RegistryHive::openConnection(int flags, const std::string& uri) {
    int rc =
        sqlite3_open_v2(uri.c_str(), &m_db, flags | SQLITE_OPEN_URI | SQLITE_OPEN_NOMUTEX, nullptr);
    if (rc == SQLITE_OK) {
        sqlite3_busy_timeout(m_db, kBusyTimeoutMs);
        m_writable = (flags & SQLITE_OPEN_READWRITE) != 0;
        if (m_writable) {
            rc = sqlite3_exec(m_db, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;", nullptr,
                              nullptr, nullptr);
            if (rc == SQLITE_OK) {
                rc = sqlite3_exec(m_db, kSchema, nullptr, nullptr, nullptr);
            }
        } else {
            // Reading the schema proves that the file is a database that can be read.
            rc =
                sqlite3_exec(m_db, "SELECT count(*) FROM sqlite_master", nullptr, nullptr, nullptr);
        }
    }
    for (int i = 0; rc == SQLITE_OK && i < kStatementCount; ++i) {
        rc = sqlite3_prepare_v3(m_db, kStatementTexts[i], -1, SQLITE_PREPARE_PERSISTENT,
                                &m_statements[i], nullptr);
    }
    if (rc != SQLITE_OK) {
        close();
    }
    return static_cast<DWORD>(rc);
}

DWORD RegistryHive::open() {
    if (m_db != nullptr) {
        return ERROR_SUCCESS;
    }
    if (m_exiting) {
        return ERROR_CANTOPEN;
    }
    const std::string dir = RegistryDirectory();
    m_file = dir + "/" + kHiveFiles[m_index];
    RegistryMakeDirectories(dir);
    // A folder or file that cannot be written is opened for reading; where not even the WAL
    // index can be made there, the file is read as immutable.
    int rc = static_cast<int>(
        openConnection(SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, "file:" + m_file));
    const int primary = rc & 0xFF;
    if ((primary == SQLITE_READONLY || primary == SQLITE_CANTOPEN || primary == SQLITE_PERM) &&
        ::access(m_file.c_str(), R_OK) == 0) {
        rc = static_cast<int>(openConnection(SQLITE_OPEN_READONLY, "file:" + m_file));
        if (rc != SQLITE_OK) {
            rc = static_cast<int>(
                openConnection(SQLITE_OPEN_READONLY, "file:" + m_file + "?immutable=1"));
        }
    }
    if (rc != SQLITE_OK) {
        return fail(rc);
    }
    m_reportedError = ERROR_SUCCESS;
    return ERROR_SUCCESS;
}

RegistryHiveLock::~RegistryHiveLock() {
    m_hive.resetUsed();
    const std::string report = m_hive.takeReport();
    m_hive.mutex().unlock();
    if (!report.empty()) {
        ReportError("Registry", report);
    }
}

RegistryTransaction::RegistryTransaction(RegistryHive& hive)
    : m_hive(hive), m_begun(RegistryRun(hive.statement(kBegin))), m_open(m_begun == SQLITE_DONE) {}

RegistryTransaction::~RegistryTransaction() {
    if (m_open) {
        RegistryRun(m_hive.statement(kRollback));
    }
}

int RegistryTransaction::commit() {
    const int rc = RegistryRun(m_hive.statement(kCommit));
    if (rc == SQLITE_DONE) {
        m_open = false;
    }
    return rc;
}

int RegistryRun(sqlite3_stmt* statement) {
    const int rc = sqlite3_step(statement);
    return rc == SQLITE_ROW ? SQLITE_DONE : rc;
}

void RegistryBindText(sqlite3_stmt* statement, int index, const std::string& text) {
    sqlite3_bind_text(statement, index, text.data(), static_cast<int>(text.size()),
                      SQLITE_TRANSIENT);
}

std::int64_t RegistryFindKey(RegistryHive& hive, const std::string& path, int& rc) {
    sqlite3_stmt* s = hive.statement(kFindKey);
    RegistryBindText(s, 1, path);
    rc = sqlite3_step(s);
    if (rc == SQLITE_ROW) {
        rc = SQLITE_OK;
        return sqlite3_column_int64(s, 0);
    }
    if (rc == SQLITE_DONE) {
        rc = SQLITE_OK;
    }
    return 0;
}

bool RegistryKeyExists(RegistryHive& hive, std::int64_t id) {
    sqlite3_stmt* s = hive.statement(kKeyExists);
    sqlite3_bind_int64(s, 1, id);
    return sqlite3_step(s) == SQLITE_ROW;
}

int RegistryCountChange(RegistryHive& hive, RegistryStatement counter, std::int64_t id) {
    sqlite3_stmt* s = hive.statement(counter);
    sqlite3_bind_int64(s, 1, id);
    return RegistryRun(s);
}

}  // namespace Tessel::Platform
