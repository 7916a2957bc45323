#include "Store.h"

#include <cstring>

#include "tessel/platform/ErrorText.h"

namespace TesselReg {

using namespace Tessel::Platform;

namespace {

// The longest name of a key, as the registry allows it.
constexpr std::size_t kMaxKeyNameLength = 255;

struct HiveEntry {
    const char* shortName;
    const char* longName;
    const HKEY* key;
};

const HiveEntry kHives[] = {
    {"HKLM", "HKEY_LOCAL_MACHINE", &HKEY_LOCAL_MACHINE},
    {"HKCU", "HKEY_CURRENT_USER", &HKEY_CURRENT_USER},
    {"HKCR", "HKEY_CLASSES_ROOT", &HKEY_CLASSES_ROOT},
    {"HKU", "HKEY_USERS", &HKEY_USERS},
    {"HKCC", "HKEY_CURRENT_CONFIG", &HKEY_CURRENT_CONFIG},
};

char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

}  // namespace

bool EqualNoCase(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (lower(a[i]) != lower(b[i])) {
            return false;
        }
    }
    return true;
}

std::string KeyName::full() const {
    return path.empty() ? hiveName : hiveName + "\\" + path;
}

KeyName KeyName::child(const std::string& name) const {
    KeyName sub = *this;
    sub.path = path.empty() ? name : path + "\\" + name;
    return sub;
}

bool ParseKeyName(const std::string& text, KeyName& key, bool emptyNames) {
    const std::size_t slash = text.find('\\');
    const std::string hive = text.substr(0, slash);
    const HiveEntry* found = nullptr;
    for (const HiveEntry& entry : kHives) {
        if (EqualNoCase(hive, entry.shortName) || EqualNoCase(hive, entry.longName)) {
            found = &entry;
        }
    }
    if (found == nullptr) {
        return false;  // also "\\host\HKLM\...": there are no remote registries here
    }
    key.hive = *found->key;
    key.hiveName = found->longName;
    key.path.clear();
    std::size_t start = slash == std::string::npos ? text.size() : slash + 1;
    while (start < text.size()) {
        std::size_t end = text.find('\\', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        // start < size here, so one trailing '\' never makes an empty name; "A\\B" and a
        // doubled trailing '\' do.
        if (end - start > kMaxKeyNameLength || (end == start && !emptyNames)) {
            return false;
        }
        if (end > start) {
            if (!key.path.empty()) {
                key.path += '\\';
            }
            key.path.append(text, start, end - start);
        }
        start = end + 1;
    }
    return true;
}

Key::~Key() {
    close();
}

void Key::close() {
    if (m_key != nullptr) {
        RegCloseKey(m_key);
        m_key = nullptr;
    }
}

DWORD Key::open(const KeyName& key, REGSAM access) {
    close();
    return static_cast<DWORD>(RegOpenKeyExA(key.hive, key.path.c_str(), 0, access, &m_key));
}

DWORD Key::create(const KeyName& key, REGSAM access) {
    close();
    return static_cast<DWORD>(RegCreateKeyExA(key.hive, key.path.c_str(), 0, nullptr,
                                              REG_OPTION_NON_VOLATILE, access, nullptr, &m_key,
                                              nullptr));
}

DWORD ReadValues(HKEY key, std::vector<Value>& values) {
    values.clear();
    DWORD maxName = 0, maxData = 0;
    DWORD rc =
        static_cast<DWORD>(RegQueryInfoKeyA(key, nullptr, nullptr, nullptr, &maxName, &maxData));
    std::string name;
    std::string data;
    for (DWORD index = 0; rc == ERROR_SUCCESS;) {
        name.resize(maxName + 1);
        data.resize(maxData);
        DWORD nameLength = static_cast<DWORD>(name.size());
        DWORD dataLength = static_cast<DWORD>(data.size());
        DWORD type = REG_NONE;
        rc = static_cast<DWORD>(RegEnumValueA(key, index, name.data(), &nameLength, nullptr, &type,
                                              reinterpret_cast<BYTE*>(data.data()), &dataLength));
        if (rc == ERROR_MORE_DATA) {
            // Another process made a value longer meanwhile: measure again.
            rc = static_cast<DWORD>(
                RegQueryInfoKeyA(key, nullptr, nullptr, nullptr, &maxName, &maxData));
            continue;
        }
        if (rc == ERROR_NO_MORE_ITEMS) {
            return ERROR_SUCCESS;
        }
        if (rc == ERROR_SUCCESS) {
            values.push_back(Value{name.substr(0, nameLength), type, data.substr(0, dataLength)});
            ++index;
        }
    }
    return rc;
}

DWORD ReadSubKeys(HKEY key, std::vector<std::string>& names) {
    names.clear();
    for (DWORD index = 0;; ++index) {
        char name[kMaxKeyNameLength + 1];
        DWORD length = sizeof name;
        const DWORD rc = static_cast<DWORD>(
            RegEnumKeyExA(key, index, name, &length, nullptr, nullptr, nullptr, nullptr));
        if (rc == ERROR_NO_MORE_ITEMS) {
            return ERROR_SUCCESS;
        }
        if (rc != ERROR_SUCCESS) {
            return rc;
        }
        names.emplace_back(name, length);
    }
}

DWORD FindValue(HKEY key, const std::string& name, Value& value) {
    std::vector<Value> values;
    if (const DWORD rc = ReadValues(key, values); rc != ERROR_SUCCESS) {
        return rc;
    }
    for (Value& candidate : values) {
        if (EqualNoCase(candidate.name, name)) {
            value = std::move(candidate);
            return ERROR_SUCCESS;
        }
    }
    return ERROR_FILE_NOT_FOUND;
}

DWORD DeleteTree(const KeyName& key) {
    if (key.isRoot()) {
        return ERROR_ACCESS_DENIED;
    }
    std::vector<std::string> subKeys;
    {
        Key opened;
        if (const DWORD rc = opened.open(key, KEY_READ); rc != ERROR_SUCCESS) {
            return rc;
        }
        if (const DWORD rc = ReadSubKeys(opened.get(), subKeys); rc != ERROR_SUCCESS) {
            return rc;
        }
    }
    for (const std::string& name : subKeys) {
        const DWORD rc = DeleteTree(key.child(name));
        if (rc != ERROR_SUCCESS && rc != ERROR_FILE_NOT_FOUND) {  // gone meanwhile is fine
            return rc;
        }
    }
    return static_cast<DWORD>(RegDeleteKeyExA(key.hive, key.path.c_str(), 0, 0));
}

std::string ErrorText(DWORD error) {
    char text[512];
    const DWORD length = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                                        nullptr, error, 0, text, sizeof text, nullptr);
    if (length == 0) {
        return "The operation failed with error " + std::to_string(error) + ".";
    }
    std::string line(text, length);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
        line.pop_back();
    }
    return line;
}

}  // namespace TesselReg
