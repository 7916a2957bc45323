#include "tessel/platform/OsVersion.h"

#include <cstring>
#include <fstream>

#include "tessel/platform/LastError.h"

namespace Tessel::Platform {
namespace {

// The value of a shell assignment's right side: double quotes with the escapes \" \\ \$ \`,
// single quotes taken literally, or a plain word in which a backslash escapes the next byte.
std::string shellValue(const std::string& text) {
    std::string value;
    if (!text.empty() && text[0] == '\'') {
        const std::size_t end = text.find('\'', 1);
        return text.substr(1, end == std::string::npos ? std::string::npos : end - 1);
    }
    const bool quoted = !text.empty() && text[0] == '"';
    for (std::size_t i = quoted ? 1 : 0; i < text.size(); ++i) {
        const char c = text[i];
        if (quoted && c == '"') {
            break;
        }
        if (c == '\\' && i + 1 < text.size() &&
            (!quoted || std::strchr("\"\\$`", text[i + 1]) != nullptr)) {
            value += text[++i];
        } else {
            value += c;
        }
    }
    return value;
}

}  // namespace

BOOL GetVersionExA(OSVERSIONINFOEXA* info) {
    if (info == nullptr || info->dwOSVersionInfoSize != sizeof(OSVERSIONINFOEXA)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    *info = OSVERSIONINFOEXA{};
    info->dwOSVersionInfoSize = sizeof(OSVERSIONINFOEXA);
    info->dwMajorVersion = 6;
    info->dwMinorVersion = 2;
    info->dwBuildNumber = 9200;
    info->dwPlatformId = VER_PLATFORM_WIN32_NT;
    info->wProductType = VER_NT_WORKSTATION;
    return TRUE;
}

std::string OsPrettyName(const std::string& path) {
    std::ifstream file(path.empty() ? "/etc/os-release" : path);
    if (!file && path.empty()) {
        file.open("/usr/lib/os-release");
    }
    static constexpr char kKey[] = "PRETTY_NAME=";
    std::string line;
    while (std::getline(file, line)) {
        if (line.compare(0, sizeof(kKey) - 1, kKey) == 0) {
            return shellValue(line.substr(sizeof(kKey) - 1));
        }
    }
    return {};
}

}  // namespace Tessel::Platform
