// tessel-reg: key names as the operator writes them, and the registry operations that the
// commands share (reading a key's values and sub-keys, deleting a tree).
#pragma once

#include <string>
#include <vector>

#include "tessel/platform/Registry.h"

namespace TesselReg {

using Tessel::Platform::DWORD;
using Tessel::Platform::HKEY;
using Tessel::Platform::REGSAM;

// A key: its hive and the path below the hive.
struct KeyName {
    HKEY hive = nullptr;
    std::string hiveName;  // the long form, "HKEY_LOCAL_MACHINE"
    std::string path;      // names joined by '\', without empty names; "" for the hive's root

    // "HKEY_LOCAL_MACHINE\SOFTWARE\Tarvo Works", or the hive name alone for the root.
    std::string full() const;
    // The sub-key name of this key.
    KeyName child(const std::string& name) const;
    bool isRoot() const { return path.empty(); }
};

// Parses "HKLM\SOFTWARE\Tarvo Works" (hive names long or short, any case; one trailing '\' is
// dropped). false for an unknown hive, a remote name ("\\host\..."), a name longer than the
// registry allows or, unless emptyNames, an empty name ("A\\B"). Registry files may hold
// empty names, which are dropped, as the registry editor does.
bool ParseKeyName(const std::string& text, KeyName& key, bool emptyNames = false);

// One value of a key.
struct Value {
    std::string name;  // "" for the default value
    DWORD type = 0;
    std::string data;  // the bytes as stored
};

// An open key handle, closed with the object.
class Key {
  public:
    Key() = default;
    ~Key();
    Key(const Key&) = delete;
    Key& operator=(const Key&) = delete;

    DWORD open(const KeyName& key, REGSAM access);
    // Opens the key, creating it and every missing key on its path.
    DWORD create(const KeyName& key, REGSAM access);
    void close();
    HKEY get() const { return m_key; }

  private:
    HKEY m_key = nullptr;
};

// The values of key in their order.
DWORD ReadValues(HKEY key, std::vector<Value>& values);

// The names of the sub-keys of key in name order.
DWORD ReadSubKeys(HKEY key, std::vector<std::string>& names);

// The value of key whose name equals name without regard to case (ASCII), with the name as
// stored. ERROR_FILE_NOT_FOUND if there is none.
DWORD FindValue(HKEY key, const std::string& name, Value& value);

// Deletes the key and everything below it. The hive's root cannot be deleted
// (ERROR_ACCESS_DENIED). Not atomic: an error half way leaves the part not yet deleted.
DWORD DeleteTree(const KeyName& key);

// The platform's text for an error number, as one line without the line end.
std::string ErrorText(DWORD error);

// ASCII case-insensitive comparison, as the registry compares names.
bool EqualNoCase(const std::string& a, const std::string& b);

}  // namespace TesselReg
