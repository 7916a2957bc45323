// The registry functions over the hives of RegistryHive.h.
//
// A handle (RegistryKey) holds its hive, the id and path of its key and its access rights.
// Opening a key looks its path up in the hive's cache of ids before it asks the database,
// so that opening and closing a key costs no database access in the common case. A handle
// whose id came from the cache is confirmed at its first use: if its key is gone, the path
// is looked up afresh, and only if that fails too does the handle report ERROR_KEY_DELETED,
// as for a key that another process deleted just after it was opened.
#include "tessel/platform/Registry.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unordered_set>
#include <vector>

#include "tessel/platform/Handle.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/detail/KernelObject.h"
#include "tessel/platform/detail/RegistryHive.h"
#include "tessel/platform/detail/RegistryWatcher.h"

namespace Tessel::Platform {

struct RegistryKey {
    static constexpr std::uint32_t kLiveTag = 0x7952654Bu;
    // Relaxed: it only tells a live key from a stale one on a best-effort basis.
    std::atomic<std::uint32_t> tag{kLiveTag};
    int hive = 0;
    REGSAM access = 0;
    std::string path;
    // The key's id, and whether it is known to name the key; guarded by the hive's lock.
    std::int64_t id = 0;
    bool confirmed = false;
};

namespace {

constexpr std::uintptr_t kPredefinedBase = 0x80000000u;
constexpr std::size_t kMaxKeyNameLength = 255;

HKEY predefined(int hive) {
    return reinterpret_cast<HKEY>(kPredefinedBase + hive);
}

int predefinedHive(HKEY key) {
    const auto value = reinterpret_cast<std::uintptr_t>(key);
    if (value >= kPredefinedBase && value < kPredefinedBase + kHiveCount &&
        RegistryHive::FileName(static_cast<int>(value - kPredefinedBase)) != nullptr) {
        return static_cast<int>(value - kPredefinedBase);
    }
    return -1;
}

LSTATUS status(DWORD error) {
    return static_cast<LSTATUS>(error);
}

// The roots of the hives, as handles that are never closed.
RegistryKey* root(int hive) {
    static RegistryKey* const roots = [] {
        auto* made = new RegistryKey[kHiveCount];
        for (int i = 0; i < kHiveCount; ++i) {
            made[i].hive = i;
            made[i].access = KEY_ALL_ACCESS;
            made[i].id = kRootKeyId;
            made[i].confirmed = true;
        }
        return made;
    }();
    return &roots[hive];
}

// Open handles, so that a handle closed twice or never opened is recognised by RegCloseKey.
struct KeyTable {
    std::mutex lock;
    std::unordered_set<const RegistryKey*> open;
};

KeyTable& keyTable() {
    static KeyTable* const table = new KeyTable();
    return *table;
}

// The key of a handle, or null for a handle that is not open.
RegistryKey* resolve(HKEY key) {
    const int hive = predefinedHive(key);
    if (hive >= 0) {
        return root(hive);
    }
    if (key == nullptr || key->tag.load(std::memory_order_relaxed) != RegistryKey::kLiveTag) {
        return nullptr;
    }
    return key;
}

RegistryHive& hiveOf(const RegistryKey& key) {
    return *RegistryHive::At(key.hive);
}

// Appends the names of subKey to base, skipping empty names; false for a name that is too
// long. names, if given, receives the names appended.
bool joinPath(const std::string& base, const char* subKey, std::string& path,
              std::vector<std::string>* names = nullptr) {
    path = base;
    for (const char* p = subKey; p != nullptr && *p != '\0';) {
        const char* end = std::strchr(p, '\\');
        const std::size_t length =
            end != nullptr ? static_cast<std::size_t>(end - p) : std::strlen(p);
        if (length > kMaxKeyNameLength) {
            return false;
        }
        if (length > 0) {
            if (!path.empty()) {
                path += '\\';
            }
            path.append(p, length);
            if (names != nullptr) {
                names->emplace_back(p, length);
            }
        }
        p += length;
        if (*p == '\\') {
            ++p;
        }
    }
    return true;
}

std::string valueName(const char* name) {
    return name != nullptr ? name : "";
}

LSTATUS makeHandle(const RegistryKey& from, std::string path, std::int64_t id, bool confirmed,
                   REGSAM access, HKEY* result) {
    auto* key = new (std::nothrow) RegistryKey{};
    if (key == nullptr) {
        return status(ERROR_NOT_ENOUGH_MEMORY);
    }
    key->hive = from.hive;
    key->access = access;
    key->path = std::move(path);
    key->id = id;
    key->confirmed = confirmed;
    {
        KeyTable& table = keyTable();
        std::lock_guard<std::mutex> guard(table.lock);
        table.open.insert(key);
    }
    *result = key;
    return ERROR_SUCCESS;
}

// Makes sure that key.id names an existing key, under the hive's lock. ERROR_SUCCESS,
// ERROR_KEY_DELETED, or the error of the database.
DWORD confirm(RegistryHive& hive, RegistryKey& key) {
    if (RegistryKeyExists(hive, key.id)) {
        key.confirmed = true;
        return ERROR_SUCCESS;
    }
    if (!key.confirmed) {
        int rc;
        const std::int64_t id = RegistryFindKey(hive, key.path, rc);
        if (rc != SQLITE_OK) {
            return hive.fail(rc);
        }
        if (id != 0) {
            key.id = id;
            key.confirmed = true;
            hive.remember(key.path, id);
            return ERROR_SUCCESS;
        }
    }
    hive.forget(key.path);
    return ERROR_KEY_DELETED;
}

// Opens the hive and confirms a key whose id came from the cache.
DWORD prepare(RegistryHive& hive, RegistryKey& key) {
    if (const DWORD error = hive.open(); error != ERROR_SUCCESS) {
        return error;
    }
    return key.confirmed ? ERROR_SUCCESS : confirm(hive, key);
}

// A forked child starts without connections, open handles' cache entries and watcher.
void forgetInChild() {
    RegistryHive::ForgetAllInChild();
    new (&keyTable().lock) std::mutex();
    RegistryWatcher::Instance().forgetInChild();
}

const int g_forkHandlers = ::pthread_atfork(nullptr, nullptr, &forgetInChild);

// Reads a value. On success type and bytes are filled.
DWORD readValue(RegistryKey& key, const char* name, DWORD& type, std::string& bytes) {
    RegistryHive& hive = hiveOf(key);
    RegistryHiveLock lock(hive);
    if (const DWORD error = hive.open(); error != ERROR_SUCCESS) {
        return error;
    }
    const std::string nameText = valueName(name);
    for (int attempt = 0; attempt < 2; ++attempt) {
        sqlite3_stmt* s = hive.statement(kGetValue);
        sqlite3_bind_int64(s, 1, key.id);
        RegistryBindText(s, 2, nameText);
        const int rc = sqlite3_step(s);
        if (rc == SQLITE_ROW) {
            key.confirmed = true;  // a key that is gone has no values
            type = static_cast<DWORD>(sqlite3_column_int64(s, 0));
            bytes.assign(static_cast<const char*>(sqlite3_column_blob(s, 1)),
                         static_cast<std::size_t>(sqlite3_column_bytes(s, 1)));
            return ERROR_SUCCESS;
        }
        if (rc != SQLITE_DONE) {
            return hive.fail(rc);
        }
        const std::int64_t before = key.id;
        if (const DWORD error = confirm(hive, key); error != ERROR_SUCCESS) {
            return error;
        }
        if (key.id == before) {
            break;  // the key is there, the value is not
        }
    }
    return ERROR_FILE_NOT_FOUND;
}

// Copies bytes into data of capacity *size; *size becomes the length.
DWORD copyOut(const std::string& bytes, BYTE* data, DWORD* size) {
    if (size == nullptr) {
        return data == nullptr ? ERROR_SUCCESS : ERROR_INVALID_PARAMETER;
    }
    const DWORD length = static_cast<DWORD>(bytes.size());
    if (data != nullptr) {
        if (*size < length) {
            *size = length;
            return ERROR_MORE_DATA;
        }
        std::memcpy(data, bytes.data(), length);
    }
    *size = length;
    return ERROR_SUCCESS;
}

bool typeAllowed(DWORD type, DWORD flags, std::size_t length) {
    const DWORD restriction = flags & RRF_RT_ANY;
    switch (type) {
        case REG_NONE:
            return (flags & RRF_RT_REG_NONE) != 0;
        case REG_SZ:
            return (flags & RRF_RT_REG_SZ) != 0;
        case REG_EXPAND_SZ:
            return (flags & RRF_RT_REG_EXPAND_SZ) != 0;
        case REG_BINARY:
            return (flags & RRF_RT_REG_BINARY) != 0 &&
                   (restriction != RRF_RT_DWORD || length == 4) &&
                   (restriction != RRF_RT_QWORD || length == 8);
        case REG_DWORD:
            return (flags & RRF_RT_REG_DWORD) != 0;
        case REG_MULTI_SZ:
            return (flags & RRF_RT_REG_MULTI_SZ) != 0;
        case REG_QWORD:
            return (flags & RRF_RT_REG_QWORD) != 0;
        default:
            return restriction == RRF_RT_ANY;
    }
}

// Runs one change of a key's values in a transaction of its own: confirms the key, runs
// change(hive), counts the change. ERROR_SUCCESS or the error.
template <class Change>
DWORD writeValues(RegistryKey& key, Change change) {
    RegistryHive& hive = hiveOf(key);
    RegistryHiveLock lock(hive);
    if (const DWORD error = hive.open(); error != ERROR_SUCCESS) {
        return error;
    }
    if (!hive.writable()) {
        return ERROR_ACCESS_DENIED;
    }
    RegistryTransaction transaction(hive);
    if (transaction.begun() != SQLITE_DONE) {
        return hive.fail(transaction.begun());
    }
    if (const DWORD error = confirm(hive, key); error != ERROR_SUCCESS) {
        return error;
    }
    if (const DWORD error = change(hive); error != ERROR_SUCCESS) {
        return error;
    }
    int rc = RegistryCountChange(hive, kCountValueChange, key.id);
    if (rc == SQLITE_DONE) {
        rc = transaction.commit();
    }
    return rc == SQLITE_DONE ? ERROR_SUCCESS : hive.fail(rc);
}

}  // namespace

const HKEY HKEY_CLASSES_ROOT = predefined(0);
const HKEY HKEY_CURRENT_USER = predefined(1);
const HKEY HKEY_LOCAL_MACHINE = predefined(2);
const HKEY HKEY_USERS = predefined(3);
const HKEY HKEY_CURRENT_CONFIG = predefined(5);

std::string RegistryDirectory() {
    const char* configured = std::getenv("TESSEL_REGISTRY_DIR");
    if (configured != nullptr && *configured != '\0') {
        std::string dir(configured);
        while (dir.size() > 1 && dir.back() == '/') {
            dir.pop_back();
        }
        return dir;
    }
    const std::string system = "/var/lib/tessel/registry";
    if (RegistryMakeDirectories(system) && ::access(system.c_str(), W_OK) == 0) {
        return system;
    }
    const char* state = std::getenv("XDG_STATE_HOME");
    if (state != nullptr && *state == '/') {
        return std::string(state) + "/tessel/registry";
    }
    const char* home = std::getenv("HOME");
    return std::string(home != nullptr ? home : "") + "/.local/state/tessel/registry";
}

std::string RegistryHiveFile(HKEY hive) {
    const int index = predefinedHive(hive);
    return index < 0 ? std::string() : RegistryDirectory() + "/" + RegistryHive::FileName(index);
}

LSTATUS RegOpenKeyExA(HKEY key, const char* subKey, DWORD /*options*/, REGSAM access,
                      HKEY* result) {
    if (result == nullptr) {
        return status(ERROR_INVALID_PARAMETER);
    }
    *result = nullptr;
    RegistryKey* base = resolve(key);
    if (base == nullptr) {
        return status(ERROR_INVALID_HANDLE);
    }
    std::string path;
    if (!joinPath(base->path, subKey, path)) {
        return status(ERROR_INVALID_PARAMETER);
    }
    RegistryHive& hive = hiveOf(*base);
    std::int64_t id;
    bool confirmed;
    {
        RegistryHiveLock lock(hive);
        if (const DWORD error = hive.open(); error != ERROR_SUCCESS) {
            return status(error);
        }
        if (path == base->path) {
            id = base->id;
            confirmed = base->confirmed;
        } else if ((id = hive.cachedId(path)) != 0) {
            confirmed = false;
        } else {
            int rc;
            id = RegistryFindKey(hive, path, rc);
            if (rc != SQLITE_OK) {
                return status(hive.fail(rc));
            }
            if (id == 0) {
                return status(ERROR_FILE_NOT_FOUND);
            }
            hive.remember(path, id);
            confirmed = true;
        }
    }
    return makeHandle(*base, std::move(path), id, confirmed, access, result);
}

LSTATUS RegCreateKeyExA(HKEY key, const char* subKey, DWORD /*reserved*/, char* /*keyClass*/,
                        DWORD /*options*/, REGSAM access, SECURITY_ATTRIBUTES* /*security*/,
                        HKEY* result, DWORD* disposition) {
    if (result == nullptr) {
        return status(ERROR_INVALID_PARAMETER);
    }
    *result = nullptr;
    RegistryKey* base = resolve(key);
    if (base == nullptr) {
        return status(ERROR_INVALID_HANDLE);
    }
    std::string path;
    std::vector<std::string> names;
    if (!joinPath(base->path, subKey, path, &names)) {
        return status(ERROR_INVALID_PARAMETER);
    }
    RegistryHive& hive = hiveOf(*base);
    std::int64_t id = 0;
    bool created = false;
    {
        RegistryHiveLock lock(hive);
        if (const DWORD error = prepare(hive, *base); error != ERROR_SUCCESS) {
            return status(error);
        }
        int rc = SQLITE_OK;
        id = path == base->path ? base->id : RegistryFindKey(hive, path, rc);
        if (rc != SQLITE_OK) {
            return status(hive.fail(rc));
        }
        if (id == 0) {
            if (!hive.writable()) {
                return status(ERROR_ACCESS_DENIED);
            }
            RegistryTransaction transaction(hive);
            if (transaction.begun() != SQLITE_DONE) {
                return status(hive.fail(transaction.begun()));
            }
            if (const DWORD error = confirm(hive, *base); error != ERROR_SUCCESS) {
                return status(error);
            }
            id = base->id;
            std::string walked = base->path;
            for (const std::string& name : names) {
                walked += walked.empty() ? "" : "\\";
                walked += name;
                const std::int64_t parent = id;
                id = RegistryFindKey(hive, walked, rc);
                if (rc == SQLITE_OK && id == 0) {
                    sqlite3_stmt* s = hive.statement(kInsertKey);
                    sqlite3_bind_int64(s, 1, parent);
                    RegistryBindText(s, 2, name);
                    RegistryBindText(s, 3, walked);
                    rc = RegistryRun(s);
                    id = sqlite3_last_insert_rowid(sqlite3_db_handle(s));
                    if (rc == SQLITE_DONE) {
                        rc = RegistryCountChange(hive, kCountNameChange, parent);
                    }
                    rc = rc == SQLITE_DONE ? SQLITE_OK : rc;
                    created = true;
                }
                if (rc != SQLITE_OK) {
                    return status(hive.fail(rc));
                }
            }
            if ((rc = transaction.commit()) != SQLITE_DONE) {
                return status(hive.fail(rc));
            }
        }
        hive.remember(path, id);
    }
    if (disposition != nullptr) {
        *disposition = created ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
    }
    return makeHandle(*base, std::move(path), id, true, access, result);
}

LSTATUS RegCloseKey(HKEY key) {
    if (predefinedHive(key) >= 0) {
        return ERROR_SUCCESS;
    }
    {
        KeyTable& table = keyTable();
        std::lock_guard<std::mutex> guard(table.lock);
        if (key == nullptr || table.open.erase(key) == 0) {
            return status(ERROR_INVALID_HANDLE);
        }
    }
    RegistryWatcher::Instance().closing(key);
    key->tag.store(0, std::memory_order_relaxed);
    delete key;
    return ERROR_SUCCESS;
}

LSTATUS RegQueryValueExA(HKEY key, const char* name, DWORD* /*reserved*/, DWORD* type, BYTE* data,
                         DWORD* size) {
    RegistryKey* k = resolve(key);
    if (k == nullptr) {
        return status(ERROR_INVALID_HANDLE);
    }
    if ((k->access & KEY_QUERY_VALUE) == 0) {
        return status(ERROR_ACCESS_DENIED);
    }
    DWORD storedType = REG_NONE;
    std::string bytes;
    if (const DWORD error = readValue(*k, name, storedType, bytes); error != ERROR_SUCCESS) {
        return status(error);
    }
    if (type != nullptr) {
        *type = storedType;
    }
    return status(copyOut(bytes, data, size));
}

LSTATUS RegGetValueA(HKEY key, const char* subKey, const char* name, DWORD flags, DWORD* type,
                     void* data, DWORD* size) {
    HKEY opened = nullptr;
    if (subKey != nullptr && *subKey != '\0') {
        const LSTATUS rc = RegOpenKeyExA(key, subKey, 0, KEY_QUERY_VALUE, &opened);
        if (rc != ERROR_SUCCESS) {
            return rc;
        }
        key = opened;
    }
    DWORD storedType = REG_NONE;
    std::string bytes;
    DWORD error = ERROR_SUCCESS;
    RegistryKey* k = resolve(key);
    if (k == nullptr) {
        error = ERROR_INVALID_HANDLE;
    } else if ((k->access & KEY_QUERY_VALUE) == 0) {
        error = ERROR_ACCESS_DENIED;
    } else {
        error = readValue(*k, name, storedType, bytes);
    }
    if (opened != nullptr) {
        RegCloseKey(opened);
    }
    if (error != ERROR_SUCCESS) {
        return status(error);
    }
    if (!typeAllowed(storedType, flags, bytes.size())) {
        return status(ERROR_UNSUPPORTED_TYPE);
    }
    if ((storedType == REG_SZ || storedType == REG_EXPAND_SZ) &&
        (bytes.empty() || bytes.back() != '\0')) {
        bytes.push_back('\0');
    }
    if (type != nullptr) {
        *type = storedType;
    }
    return status(copyOut(bytes, static_cast<BYTE*>(data), size));
}

LSTATUS RegSetValueExA(HKEY key, const char* name, DWORD /*reserved*/, DWORD type, const BYTE* data,
                       DWORD size) {
    RegistryKey* k = resolve(key);
    if (k == nullptr) {
        return status(ERROR_INVALID_HANDLE);
    }
    if ((k->access & KEY_SET_VALUE) == 0) {
        return status(ERROR_ACCESS_DENIED);
    }
    if (data == nullptr && size != 0) {
        return status(ERROR_INVALID_PARAMETER);
    }
    const std::string nameText = valueName(name);
    return status(writeValues(*k, [&](RegistryHive& hive) -> DWORD {
        sqlite3_stmt* s = hive.statement(kSetValue);
        sqlite3_bind_int64(s, 1, k->id);
        RegistryBindText(s, 2, nameText);
        sqlite3_bind_int64(s, 3, type);
        sqlite3_bind_blob(s, 4, data != nullptr ? data : reinterpret_cast<const BYTE*>(""),
                          static_cast<int>(size), SQLITE_STATIC);
        const int rc = RegistryRun(s);
        return rc == SQLITE_DONE ? ERROR_SUCCESS : hive.fail(rc);
    }));
}

LSTATUS RegDeleteValueA(HKEY key, const char* name) {
    RegistryKey* k = resolve(key);
    if (k == nullptr) {
        return status(ERROR_INVALID_HANDLE);
    }
    if ((k->access & KEY_SET_VALUE) == 0) {
        return status(ERROR_ACCESS_DENIED);
    }
    const std::string nameText = valueName(name);
    return status(writeValues(*k, [&](RegistryHive& hive) -> DWORD {
        sqlite3_stmt* s = hive.statement(kDeleteValue);
        sqlite3_bind_int64(s, 1, k->id);
        RegistryBindText(s, 2, nameText);
        const int rc = RegistryRun(s);
        if (rc != SQLITE_DONE) {
            return hive.fail(rc);
        }
        return sqlite3_changes(sqlite3_db_handle(s)) == 0 ? ERROR_FILE_NOT_FOUND : ERROR_SUCCESS;
    }));
}

LSTATUS RegDeleteKeyExA(HKEY key, const char* subKey, REGSAM /*view*/, DWORD /*reserved*/) {
    RegistryKey* base = resolve(key);
    if (base == nullptr) {
        return status(ERROR_INVALID_HANDLE);
    }
    std::string path;
    if (subKey == nullptr || !joinPath(base->path, subKey, path)) {
        return status(ERROR_INVALID_PARAMETER);
    }
    if (path == base->path) {
        return status(ERROR_ACCESS_DENIED);  // a key does not delete itself
    }
    RegistryHive& hive = hiveOf(*base);
    RegistryHiveLock lock(hive);
    if (const DWORD error = hive.open(); error != ERROR_SUCCESS) {
        return status(error);
    }
    if (!hive.writable()) {
        return status(ERROR_ACCESS_DENIED);
    }
    RegistryTransaction transaction(hive);
    if (transaction.begun() != SQLITE_DONE) {
        return status(hive.fail(transaction.begun()));
    }
    int rc;
    const std::int64_t id = RegistryFindKey(hive, path, rc);
    if (rc != SQLITE_OK) {
        return status(hive.fail(rc));
    }
    hive.forget(path);
    if (id == 0) {
        return status(ERROR_FILE_NOT_FOUND);
    }
    sqlite3_stmt* s = hive.statement(kCountSubKeys);
    sqlite3_bind_int64(s, 1, id);
    if ((rc = sqlite3_step(s)) != SQLITE_ROW) {
        return status(hive.fail(rc));
    }
    if (sqlite3_column_int64(s, 0) != 0) {
        return status(ERROR_ACCESS_DENIED);
    }
    // The parent is the key of the path less its last name.
    const std::size_t slash = path.rfind('\\');
    const std::int64_t parent =
        slash == std::string::npos ? kRootKeyId : RegistryFindKey(hive, path.substr(0, slash), rc);
    for (RegistryStatement step : {kDeleteKeyValues, kDeleteKeyRow}) {
        s = hive.statement(step);
        sqlite3_bind_int64(s, 1, id);
        if ((rc = RegistryRun(s)) != SQLITE_DONE) {
            return status(hive.fail(rc));
        }
    }
    if ((rc = RegistryCountChange(hive, kCountNameChange, parent)) != SQLITE_DONE ||
        (rc = transaction.commit()) != SQLITE_DONE) {
        return status(hive.fail(rc));
    }
    return ERROR_SUCCESS;
}

LSTATUS RegDeleteKeyA(HKEY key, const char* subKey) {
    return RegDeleteKeyExA(key, subKey, KEY_WOW64_32KEY, 0);
}

namespace {

// Steps an enumeration statement of key at index; SQLITE_ROW, SQLITE_DONE or the error.
// The caller holds the hive's lock.
DWORD enumerate(RegistryHive& hive, RegistryKey& key, RegistryStatement which, DWORD index,
                sqlite3_stmt*& s) {
    if (const DWORD error = prepare(hive, key); error != ERROR_SUCCESS) {
        return error;
    }
    s = hive.statement(which);
    sqlite3_bind_int64(s, 1, key.id);
    sqlite3_bind_int64(s, 2, index);
    const int rc = sqlite3_step(s);
    if (rc == SQLITE_ROW) {
        return ERROR_SUCCESS;
    }
    if (rc != SQLITE_DONE) {
        return hive.fail(rc);
    }
    return RegistryKeyExists(hive, key.id) ? ERROR_NO_MORE_ITEMS : ERROR_KEY_DELETED;
}

// Copies name into buffer of capacity *length characters with its NUL.
DWORD copyName(const char* name, char* buffer, DWORD* length) {
    const std::size_t size = std::strlen(name);
    if (size + 1 > *length) {
        return ERROR_MORE_DATA;
    }
    std::memcpy(buffer, name, size + 1);
    *length = static_cast<DWORD>(size);
    return ERROR_SUCCESS;
}

}  // namespace

LSTATUS RegEnumKeyExA(HKEY key, DWORD index, char* name, DWORD* nameLength, DWORD* /*reserved*/,
                      char* /*keyClass*/, DWORD* classLength, std::int64_t* lastWriteTime) {
    RegistryKey* k = resolve(key);
    if (k == nullptr) {
        return status(ERROR_INVALID_HANDLE);
    }
    if (name == nullptr || nameLength == nullptr) {
        return status(ERROR_INVALID_PARAMETER);
    }
    RegistryHive& hive = hiveOf(*k);
    RegistryHiveLock lock(hive);
    sqlite3_stmt* s = nullptr;
    if (const DWORD error = enumerate(hive, *k, kEnumKey, index, s); error != ERROR_SUCCESS) {
        return status(error);
    }
    const DWORD error =
        copyName(reinterpret_cast<const char*>(sqlite3_column_text(s, 0)), name, nameLength);
    if (classLength != nullptr) {
        *classLength = 0;
    }
    if (lastWriteTime != nullptr) {
        *lastWriteTime = 0;
    }
    return status(error);
}

LSTATUS RegEnumValueA(HKEY key, DWORD index, char* name, DWORD* nameLength, DWORD* /*reserved*/,
                      DWORD* type, BYTE* data, DWORD* dataLength) {
    RegistryKey* k = resolve(key);
    if (k == nullptr) {
        return status(ERROR_INVALID_HANDLE);
    }
    if (name == nullptr || nameLength == nullptr) {
        return status(ERROR_INVALID_PARAMETER);
    }
    if ((k->access & KEY_QUERY_VALUE) == 0) {
        return status(ERROR_ACCESS_DENIED);
    }
    RegistryHive& hive = hiveOf(*k);
    RegistryHiveLock lock(hive);
    sqlite3_stmt* s = nullptr;
    if (const DWORD error = enumerate(hive, *k, kEnumValue, index, s); error != ERROR_SUCCESS) {
        return status(error);
    }
    if (const DWORD error =
            copyName(reinterpret_cast<const char*>(sqlite3_column_text(s, 0)), name, nameLength);
        error != ERROR_SUCCESS) {
        return status(error);
    }
    if (type != nullptr) {
        *type = static_cast<DWORD>(sqlite3_column_int64(s, 1));
    }
    if (data == nullptr && dataLength == nullptr) {
        return ERROR_SUCCESS;
    }
    const std::string bytes(static_cast<const char*>(sqlite3_column_blob(s, 2)),
                            static_cast<std::size_t>(sqlite3_column_bytes(s, 2)));
    return status(copyOut(bytes, data, dataLength));
}

LSTATUS RegQueryInfoKeyA(HKEY key, DWORD* subKeys, DWORD* maxSubKeyLength, DWORD* values,
                         DWORD* maxValueNameLength, DWORD* maxValueLength) {
    RegistryKey* k = resolve(key);
    if (k == nullptr) {
        return status(ERROR_INVALID_HANDLE);
    }
    RegistryHive& hive = hiveOf(*k);
    RegistryHiveLock lock(hive);
    if (const DWORD error = prepare(hive, *k); error != ERROR_SUCCESS) {
        return status(error);
    }
    const auto set = [](DWORD* target, sqlite3_stmt* from, int column) {
        if (target != nullptr) {
            *target = static_cast<DWORD>(sqlite3_column_int64(from, column));
        }
    };
    sqlite3_stmt* s = hive.statement(kKeyInfo);
    sqlite3_bind_int64(s, 1, k->id);
    int rc = sqlite3_step(s);
    if (rc != SQLITE_ROW) {
        return status(hive.fail(rc));
    }
    set(subKeys, s, 0);
    set(maxSubKeyLength, s, 1);
    s = hive.statement(kValueInfo);
    sqlite3_bind_int64(s, 1, k->id);
    if ((rc = sqlite3_step(s)) != SQLITE_ROW) {
        return status(hive.fail(rc));
    }
    set(values, s, 0);
    set(maxValueNameLength, s, 1);
    set(maxValueLength, s, 2);
    return ERROR_SUCCESS;
}

LSTATUS RegNotifyChangeKeyValue(HKEY key, BOOL watchSubtree, DWORD filter, HANDLE event,
                                BOOL asynchronous) {
    RegistryKey* k = resolve(key);
    if (k == nullptr || predefinedHive(key) >= 0) {
        return status(ERROR_INVALID_HANDLE);
    }
    if (!asynchronous || event == nullptr) {
        return status(ERROR_INVALID_PARAMETER);
    }
    // A handle of the watcher's own keeps the event alive until the notification has fired.
    Waitable* object = ObjectOf(event);
    if (object == nullptr || object->kind() != Waitable::Kind::Event) {
        return status(ERROR_INVALID_HANDLE);
    }
    object->addRef();
    HANDLE own = MakeHandle(object);
    if (own == nullptr) {
        return status(ERROR_NOT_ENOUGH_MEMORY);
    }
    RegistryNotification notification{key,    k->hive, 0, k->path, watchSubtree != FALSE,
                                      filter, own,     0, 0};
    RegistryHive& hive = hiveOf(*k);
    {
        RegistryHiveLock lock(hive);
        DWORD error = prepare(hive, *k);
        notification.id = k->id;
        if (error == ERROR_SUCCESS &&
            !RegistryReadChanges(hive, k->id, k->path, notification.subtree,
                                 notification.valueChanges, notification.nameChanges)) {
            error = ERROR_KEY_DELETED;
        }
        if (error != ERROR_SUCCESS) {
            CloseHandle(own);
            return status(error);
        }
    }
    RegistryWatcher::Instance().add(std::move(notification));
    return ERROR_SUCCESS;
}

}  // namespace Tessel::Platform
