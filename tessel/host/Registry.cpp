#include "tessel/host/Registry.h"

#include <strings.h>
#include <cctype>
#include <cstdlib>
#include <cstring>

#include "tessel/base/TimeFunctions.h"
#include "tessel/host/Util.h"
#include "tessel/platform/CheckedPrint.h"
#include "tessel/platform/Diagnostics.h"
#include "tessel/platform/ErrorText.h"
#include "tessel/platform/Handle.h"

using namespace Tessel::Platform;

namespace REG {
namespace {

constexpr REGSAM kView32 = KEY_WOW64_32KEY;  // 0x200
constexpr REGSAM kView64 = KEY_WOW64_64KEY;  // 0x100
constexpr REGSAM kReadWrite = 0x2001F;       // KEY_READ | KEY_SET_VALUE | KEY_CREATE_SUB_KEY
constexpr REGSAM kWriteAccess = 0x2021F;     // kReadWrite in the 32-bit view
constexpr REGSAM kCreateWrite = 0x20206;     // KEY_WRITE in the 32-bit view
constexpr REGSAM kQuery32 = 0x201;           // KEY_QUERY_VALUE in the 32-bit view
constexpr REGSAM kEnumerate32 = 0x208;       // KEY_ENUMERATE_SUB_KEYS, 32-bit view
constexpr REGSAM kNotify32 = 0x210;          // KEY_NOTIFY, 32-bit view
constexpr REGSAM kRead32 = 0x20219;          // KEY_READ, 32-bit view
constexpr DWORD kTextField = 256;
const char* const kTarvoWorks = "SOFTWARE\\Tarvo Works\\";

// Closes a key when it goes out of scope.
class OpenKey {
  public:
    OpenKey() = default;
    ~OpenKey() {
        if (m_key != nullptr) {
            RegCloseKey(m_key);
        }
    }
    OpenKey(const OpenKey&) = delete;
    OpenKey& operator=(const OpenKey&) = delete;

    HKEY* out() { return &m_key; }
    operator HKEY() const { return m_key; }

  private:
    HKEY m_key = nullptr;
};

// The platform's text for error, without its line end.
std::string errorText(DWORD error) {
    char text[256] = {};
    FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, error, 0,
                   text, sizeof text, nullptr);
    CUtil::CleanUnprintableString(text, static_cast<std::size_t>(-1));
    return text;
}

// Cuts trailing white space in place. White space bytes are ASCII and never part of a
// multi-byte UTF-8 sequence, so the cut cannot split a character.
void cutTrailingWhiteSpace(char* text) {
    std::size_t length = std::strlen(text);
    while (length > 0 && std::isspace(static_cast<unsigned char>(text[length - 1])) != 0) {
        text[--length] = '\0';
    }
}

std::string withoutTrailingWhiteSpace(const char* text) {
    std::string copy(text);
    while (!copy.empty() && std::isspace(static_cast<unsigned char>(copy.back())) != 0) {
        copy.pop_back();
    }
    return copy;
}

// Stores text (already cut) as REG_SZ. Always true.
bool writeText(HKEY hive, const std::string& key, const std::string& name, const char* text,
               bool timestamp) {
    OpenKey opened;
    if (RegOpenKeyExA(hive, key.c_str(), 0, kWriteAccess, opened.out()) != ERROR_SUCCESS &&
        RegCreateKeyExA(hive, key.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE, kWriteAccess,
                        nullptr, opened.out(), nullptr) != ERROR_SUCCESS) {
        return true;
    }
    std::string stored;
    if (timestamp) {
        stored = std::string(text != nullptr ? text : "") + " <" +
                 TIME::GetCurrentDateTimeAsString() + ">";
        text = stored.c_str();
    }
    if (text != nullptr) {
        RegSetValueExA(opened, name.c_str(), 0, REG_SZ, reinterpret_cast<const BYTE*>(text),
                       static_cast<DWORD>(std::strlen(text) + 1));
    }
    return true;
}

}  // namespace

// --- Reads ---

std::string Get(HKEY hive, const std::string& key, const std::string& name,
                const char* defaultValue, bool use64BitView, bool writeDefault) {
    const std::string fallback = defaultValue != nullptr ? defaultValue : "";
    const REGSAM access = writeDefault ? kReadWrite : KEY_READ;
    const REGSAM view = use64BitView ? kView64 : kView32;

    OpenKey opened;
    bool isOpen = RegOpenKeyExA(hive, key.c_str(), 0, access | view, opened.out()) == ERROR_SUCCESS;
    if (!isOpen && use64BitView) {
        isOpen = RegOpenKeyExA(hive, key.c_str(), 0, access, opened.out()) == ERROR_SUCCESS;
    }
    if (isOpen) {
        BYTE field[kTextField] = {};
        DWORD size = sizeof field;
        DWORD type = REG_NONE;
        if (RegQueryValueExA(opened, name.c_str(), nullptr, &type, field, &size) == ERROR_SUCCESS &&
            (type == REG_SZ || type == REG_EXPAND_SZ) && (size == 0 || field[size - 1] == 0)) {
            return size == 0 ? std::string() : std::string(reinterpret_cast<char*>(field));
        }
    }
    if (writeDefault && defaultValue != nullptr) {
        Write(key, name, defaultValue, false);
    }
    return fallback;
}

std::string Get(const std::string& key, const std::string& name, const char* defaultValue,
                bool use64BitView, bool writeDefault) {
    return Get(HKEY_LOCAL_MACHINE, key, name, defaultValue, use64BitView, writeDefault);
}

void Get(const std::string& key, const std::string& name, const char* defaultValue, char* buffer,
         std::size_t size, bool use64BitView, bool writeDefault) {
    const std::string text = Get(key, name, defaultValue, use64BitView, writeDefault);
    if (buffer != nullptr && size > 0) {
        _snprintf_s(buffer, size, _TRUNCATE, "%s", text.c_str());
    }
}

long Get(const std::string& key, const std::string& name, long defaultValue, bool use64BitView,
         bool writeDefault) {
    char text[kTextField];
    sprintf_s(text, sizeof text, "%ld", defaultValue);
    return std::atol(Get(key, name, text, use64BitView, writeDefault).c_str());
}

double Get(const std::string& key, const std::string& name, double defaultValue) {
    char text[kTextField];
    sprintf_s(text, sizeof text, "%lf", defaultValue);
    return std::atof(Get(key, name, text, false, false).c_str());
}

bool Get(const std::string& key, const std::string& name, bool defaultValue) {
    return ::strcasecmp(Get(key, name, defaultValue ? "TRUE" : "FALSE", false, false).c_str(),
                        "TRUE") == 0;
}

int Get(const std::string& key, const std::string& name, unsigned char* buffer,
        unsigned long* size) {
    OpenKey opened;
    LSTATUS rc = RegOpenKeyExA(HKEY_LOCAL_MACHINE, key.c_str(), 0, kQuery32, opened.out());
    if (rc == ERROR_SUCCESS) {
        DWORD length = size != nullptr ? static_cast<DWORD>(*size) : 0;
        rc = RegQueryValueExA(opened, name.c_str(), nullptr, nullptr, buffer,
                              size != nullptr ? &length : nullptr);
        if (size != nullptr) {
            *size = length;
        }
    }
    if (rc == ERROR_SUCCESS) {
        return 1;
    }
    if (IsReported(ReportLevel::Trace)) {
        Report(ReportLevel::Trace, "REG::Get",
               "REG::Get(BYTE),(" + key + ", " + name +
                   ")failed: " + errorText(static_cast<DWORD>(rc)));
    }
    return 0;
}

long GetLong(const std::string& key, const std::string& name, long defaultValue, bool repair) {
    OpenKey opened;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_READ | kView32, opened.out()) !=
        ERROR_SUCCESS) {
        if (repair) {
            WriteLong(key, name, defaultValue);
        }
        return defaultValue;
    }
    DWORD value = 0;
    DWORD size = sizeof value;
    if (RegGetValueA(opened, nullptr, name.c_str(), RRF_RT_DWORD, nullptr, &value, &size) ==
        ERROR_SUCCESS) {
        // A REG_DWORD holds a 32-bit long.
        return static_cast<long>(static_cast<std::int32_t>(value));
    }
    if (repair && DeleteEntry(key, name)) {
        WriteLong(key, name, defaultValue);
    }
    return defaultValue;
}

std::string PrioGet(const std::string& key1, const std::string& key2, const std::string& name,
                    const char* defaultValue, bool use64BitView) {
    std::string text = Get(key1, name, nullptr, use64BitView, false);
    if (text.empty()) {
        text = Get(key2, name, nullptr, use64BitView, false);
    }
    if (text.empty() && defaultValue != nullptr) {
        text = defaultValue;
    }
    return text;
}

long PrioGet(const std::string& key1, const std::string& key2, const std::string& name,
             long defaultValue, bool use64BitView) {
    const std::string text = PrioGet(key1, key2, name, nullptr, use64BitView);
    return text.empty() ? defaultValue : std::atol(text.c_str());
}

bool PrioGet(const std::string& key1, const std::string& key2, const std::string& name,
             bool defaultValue) {
    const std::string text = PrioGet(key1, key2, name, nullptr, false);
    return text.empty() ? defaultValue : ::strcasecmp(text.c_str(), "TRUE") == 0;
}

bool GetSubDir(const char* subKey, std::vector<std::string>& names) {
    const std::string key = std::string(kTarvoWorks) + (subKey != nullptr ? subKey : "");
    OpenKey opened;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, key.c_str(), 0, kEnumerate32, opened.out()) !=
        ERROR_SUCCESS) {
        return false;
    }
    for (DWORD index = 0;; ++index) {
        char name[kTextField] = {};
        DWORD length = sizeof name;
        const LSTATUS rc =
            RegEnumKeyExA(opened, index, name, &length, nullptr, nullptr, nullptr, nullptr);
        if (rc == ERROR_NO_MORE_ITEMS) {
            break;
        }
        if (rc == ERROR_SUCCESS) {
            names.emplace_back(name);
        }
    }
    return true;
}

bool GetKeyValues(const std::string& key, std::vector<std::string>& names, bool use64BitView) {
    OpenKey opened;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, key.c_str(), 0,
                      KEY_READ | (use64BitView ? kView64 : kView32),
                      opened.out()) != ERROR_SUCCESS) {
        return false;
    }
    char name[kTextField];
    DWORD length = sizeof name;  // set once: each name is fetched with its predecessor's length
    for (DWORD index = 0;; ++index) {
        if (RegEnumValueA(opened, index, name, &length, nullptr, nullptr, nullptr, nullptr) !=
            ERROR_SUCCESS) {
            break;
        }
        names.emplace_back(name);
    }
    return true;
}

// --- Writes and deletions ---

bool Write(HKEY hive, const std::string& key, const std::string& name, const char* text,
           bool timestamp) {
    if (text == nullptr) {
        return writeText(hive, key, name, nullptr, timestamp);
    }
    const std::string cut = withoutTrailingWhiteSpace(text);
    return writeText(hive, key, name, cut.c_str(), timestamp);
}

bool Write(HKEY hive, const std::string& key, const std::string& name, char* text, bool timestamp) {
    if (text != nullptr) {
        cutTrailingWhiteSpace(text);
    }
    return writeText(hive, key, name, text, timestamp);
}

bool Write(const std::string& key, const std::string& name, const char* text, bool timestamp) {
    return Write(HKEY_LOCAL_MACHINE, key, name, text, timestamp);
}

bool Write(const std::string& key, const std::string& name, char* text, bool timestamp) {
    return Write(HKEY_LOCAL_MACHINE, key, name, text, timestamp);
}

bool Write(const std::string& key, const std::string& name, long value) {
    char text[64];
    sprintf_s(text, sizeof text, "%ld", value);
    return Write(key, name, text, false);
}

bool Write(const std::string& key, const std::string& name, double value) {
    char text[64];
    sprintf_s(text, sizeof text, "%lf", value);
    return Write(key, name, text, false);
}

bool Write(const std::string& key, const std::string& name, bool value) {
    return Write(key, name, value ? "TRUE" : "FALSE", false);
}

bool Write(const std::string& key, const std::string& name, const unsigned char* data,
           unsigned long size) {
    OpenKey opened;
    LSTATUS rc =
        RegCreateKeyExA(HKEY_LOCAL_MACHINE, key.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                        kCreateWrite, nullptr, opened.out(), nullptr);
    if (rc == ERROR_SUCCESS) {
        rc = RegSetValueExA(opened, name.c_str(), 0, REG_BINARY, data, static_cast<DWORD>(size));
    }
    if (rc == ERROR_SUCCESS) {
        return true;
    }
    if (IsReported(ReportLevel::Trace)) {
        Report(ReportLevel::Trace, "REG::Write",
               "REG::Write(BYTE) - " + errorText(static_cast<DWORD>(rc)));
    }
    return false;
}

bool WriteLong(const std::string& key, const std::string& name, long value) {
    OpenKey opened;
    if (RegCreateKeyExA(HKEY_LOCAL_MACHINE, key.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                        kCreateWrite, nullptr, opened.out(), nullptr) != ERROR_SUCCESS) {
        return false;
    }
    const DWORD dword = static_cast<DWORD>(value);
    return RegSetValueExA(opened, name.c_str(), 0, REG_DWORD, reinterpret_cast<const BYTE*>(&dword),
                          sizeof dword) == ERROR_SUCCESS;
}

void CreateSubKey(const std::string& key) {
    OpenKey opened;
    RegCreateKeyExA(HKEY_LOCAL_MACHINE, key.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                    KEY_ALL_ACCESS | kView32, nullptr, opened.out(), nullptr);
}

bool DeleteEntry(HKEY hive, const std::string& key, const std::string& name) {
    OpenKey opened;
    if (RegOpenKeyExA(hive, key.c_str(), 0, kWriteAccess, opened.out()) != ERROR_SUCCESS) {
        return false;
    }
    return RegDeleteValueA(opened, name.c_str()) == ERROR_SUCCESS;
}

bool DeleteEntry(const std::string& key, const std::string& name) {
    return DeleteEntry(HKEY_LOCAL_MACHINE, key, name);
}

bool DeleteKey(const std::string& key) {
    OpenKey opened;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, key.c_str(), 0, kWriteAccess, opened.out()) !=
        ERROR_SUCCESS) {
        return false;
    }
    return RegDeleteKeyExA(opened, key.c_str(), kView32, 0) == ERROR_SUCCESS;
}

namespace {

// Deletes subKey of parent with everything below it. The sub-keys are always taken at index
// 0, since each one is gone when its step returns.
LSTATUS recurseDelete(HKEY parent, const char* subKey, REGSAM view) {
    LSTATUS rc;
    {
        OpenKey opened;
        rc = RegOpenKeyExA(parent, subKey, 0, kReadWrite | view, opened.out());
        if (rc != ERROR_SUCCESS) {
            return rc;
        }
        while (true) {
            char name[kTextField] = {};
            DWORD length = sizeof name;
            rc = RegEnumKeyExA(opened, 0, name, &length, nullptr, nullptr, nullptr, nullptr);
            if (rc != ERROR_SUCCESS) {
                break;
            }
            rc = recurseDelete(opened, name, view);
            if (rc != ERROR_SUCCESS) {
                return rc;
            }
        }
    }
    return RegDeleteKeyExA(parent, subKey, view, 0);
}

}  // namespace

void RecurseDeleteKey(const std::string& key) {
    OpenKey root;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, nullptr, 0, kReadWrite | kView32, root.out()) ==
        ERROR_SUCCESS) {
        recurseDelete(root, key.c_str(), kView32);
    }
}

// --- CRegistryKeyDWordEventHelper ---

CRegistryKeyDWordEventHelper::CRegistryKeyDWordEventHelper(CRegistryDWord& record)
    : m_record(record), m_event(FALSE, TRUE) {}

CRegistryKeyDWordEventHelper::CRegistryKeyDWordEventHelper(CRegistryKeyDWordEventHelper& source)
    : m_record(source.m_record), m_event(source.m_event), m_hNotifyKey(source.m_hNotifyKey) {
    source.m_hNotifyKey = nullptr;
}

CRegistryKeyDWordEventHelper::~CRegistryKeyDWordEventHelper() {
    if (m_hNotifyKey != nullptr) {
        RegCloseKey(m_hNotifyKey);
    }
}

bool CRegistryKeyDWordEventHelper::GetRegistryValue(unsigned long& value) {
    const unsigned long before = value;
    UpdateRegistryValue();
    value = m_record.m_dwValue;
    return value != before;
}

bool CRegistryKeyDWordEventHelper::UpdateRegistryValue() {
    if (static_cast<HANDLE>(m_event) == nullptr ||
        WaitForSingleObject(m_event, 0) != WAIT_OBJECT_0) {
        return true;  // nothing changed: the cached value stands
    }
    // Arm the next notification on a key that stays open; the key of the notification that
    // has just fired is closed in its place.
    HKEY notifyKey = nullptr;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, m_record.m_strKey.c_str(), 0, kNotify32, &notifyKey) ==
        ERROR_SUCCESS) {
        RegNotifyChangeKeyValue(notifyKey, FALSE, REG_NOTIFY_CHANGE_LAST_SET, m_event, TRUE);
    }
    if (m_hNotifyKey != nullptr) {
        RegCloseKey(m_hNotifyKey);
    }
    m_hNotifyKey = notifyKey;

    const auto writeBack = [this]() {
        OpenKey created;
        if (RegCreateKeyExA(HKEY_LOCAL_MACHINE, m_record.m_strKey.c_str(), 0, nullptr,
                            REG_OPTION_NON_VOLATILE, kCreateWrite, nullptr, created.out(),
                            nullptr) != ERROR_SUCCESS) {
            return false;
        }
        const DWORD value = static_cast<DWORD>(m_record.m_dwValue);
        return RegSetValueExA(created, m_record.m_strName.c_str(), 0, REG_DWORD,
                              reinterpret_cast<const BYTE*>(&value), sizeof value) == ERROR_SUCCESS;
    };

    OpenKey opened;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, m_record.m_strKey.c_str(), 0, kRead32, opened.out()) !=
        ERROR_SUCCESS) {
        return m_record.m_bCreate ? writeBack() : true;
    }
    DWORD type = static_cast<DWORD>(m_record.m_dwType);
    DWORD value = static_cast<DWORD>(m_record.m_dwValue);
    DWORD size = sizeof value;
    const LSTATUS rc = RegQueryValueExA(opened, m_record.m_strName.c_str(), nullptr, &type,
                                        reinterpret_cast<BYTE*>(&value), &size);
    m_record.m_dwType = type;
    if (rc == ERROR_SUCCESS) {
        m_record.m_dwValue = value;
        return true;
    }
    if (m_record.m_bCreate) {
        return writeBack();
    }
    return false;
}

}  // namespace REG
