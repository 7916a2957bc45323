// tessel_registry_peer: a second process that changes the registry for the tests.
//
//   tessel_registry_peer set-dword KEY NAME VALUE
//       writes VALUE as REG_DWORD value NAME of KEY below HKEY_LOCAL_MACHINE, creating KEY.
// Exits 0 on success, 1 on a failed write, 2 on bad arguments.
#include <cstdlib>
#include <cstring>

#include "tessel/platform/Registry.h"

using namespace Tessel::Platform;

int main(int argc, char** argv) {
    if (argc != 5 || std::strcmp(argv[1], "set-dword") != 0) {
        return 2;
    }
    HKEY key = nullptr;
    if (RegCreateKeyExA(HKEY_LOCAL_MACHINE, argv[2], 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key,
                        nullptr) != ERROR_SUCCESS) {
        return 1;
    }
    const DWORD value = static_cast<DWORD>(std::strtoul(argv[4], nullptr, 0));
    const LSTATUS rc = RegSetValueExA(key, argv[3], 0, REG_DWORD,
                                      reinterpret_cast<const BYTE*>(&value), sizeof value);
    RegCloseKey(key);
    return rc == ERROR_SUCCESS ? 0 : 1;
}
