#include "tessel/logging/TraceUtil.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tessel/platform/CheckedPrint.h"
#include "tessel/platform/DebugOutput.h"
#include "tessel/platform/Process.h"

using namespace Tessel::Platform;

void CTraceUtil::DebugString(const char* format, std::va_list arguments) {
    char name[2048] = {};
    char text[2048] = {};
    GetExeName(name, sizeof name);
    _vsnprintf_s(text, sizeof text, _TRUNCATE, format, arguments);

    const std::size_t length = std::strlen(name) + std::strlen(text) + 1;
    char* joined = static_cast<char*>(std::malloc(length));
    if (joined == nullptr) {
        return;
    }
    sprintf_s(joined, length, "%s%s", name, text);
    OutputDebugStringA(joined);
    std::free(joined);
}

void CTraceUtil::DebugStringF(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    DebugString(format, arguments);
    va_end(arguments);
}

char* CTraceUtil::GetExeName(char* target, unsigned int targetSize) {
    if (target == nullptr || targetSize == 0) {
        return target;
    }
    const std::string path = GetExecutablePath();
    std::string name = path.substr(path.rfind('/') + 1);
    const std::size_t dot = name.rfind('.');
    if (dot != std::string::npos && dot > 0) {
        name.erase(dot);
    }
    const std::size_t length = std::min<std::size_t>(name.size(), targetSize - 1);
    std::memcpy(target, name.data(), length);
    target[length] = '\0';
    return target;
}
