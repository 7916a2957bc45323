// Values of the local machine hive set and read through the store itself, past REG and the tool.
#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>

#include "tessel/platform/Registry.h"

namespace HostTest {

using Tessel::Platform::DWORD;
// A value's type and bytes; nullopt for no value.
using Stored = std::optional<std::pair<DWORD, std::string>>;

inline Stored is(DWORD type, const std::string& data) {
    return std::make_pair(type, data);
}

// Stores data of type as value name of key, creating the key.
inline void setStored(const std::string& key, const std::string& name, DWORD type,
                      const std::string& data) {
    using namespace Tessel::Platform;
    HKEY handle = nullptr;
    ASSERT_EQ(RegCreateKeyExA(HKEY_LOCAL_MACHINE, key.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS,
                              nullptr, &handle, nullptr),
              ERROR_SUCCESS);
    EXPECT_EQ(
        RegSetValueExA(handle, name.c_str(), 0, type, reinterpret_cast<const BYTE*>(data.data()),
                       static_cast<DWORD>(data.size())),
        ERROR_SUCCESS);
    RegCloseKey(handle);
}

inline Stored stored(const std::string& key, const std::string& name) {
    using namespace Tessel::Platform;
    DWORD type = 0;
    if (RegGetValueA(HKEY_LOCAL_MACHINE, key.c_str(), name.c_str(), RRF_RT_ANY, &type, nullptr,
                     nullptr) != ERROR_SUCCESS) {
        return std::nullopt;
    }
    // The bytes as stored: RegGetValueA would end an unterminated text with a NUL.
    HKEY handle = nullptr;
    std::string data(4096, '\0');
    DWORD size = static_cast<DWORD>(data.size());
    RegOpenKeyExA(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_READ, &handle);
    RegQueryValueExA(handle, name.c_str(), nullptr, nullptr, reinterpret_cast<BYTE*>(data.data()),
                     &size);
    RegCloseKey(handle);
    return is(type, data.substr(0, size));
}

}  // namespace HostTest
