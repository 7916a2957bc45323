#include "tessel/platform/DebugOutput.h"

#include <signal.h>
#include <syslog.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tessel/platform/CheckedPrint.h"
#include "tessel/platform/Process.h"

namespace Tessel::Platform {
namespace {
// Installed with a release, read with an acquire: a sink's own set-up, done before it was
// installed, is seen by every writer.
std::atomic<DebugOutputSink> g_sink{&SyslogDebugOutputSink};
}  // namespace

void SyslogDebugOutputSink(const char* text) {
    ::syslog(LOG_DEBUG, "%s", text);
}

void OutputDebugStringA(const char* text) {
    if (text != nullptr) {
        g_sink.load(std::memory_order_acquire)(text);
    }
}

void OutputDebugStrings(const char* prefix, const char* text) {
    prefix = prefix != nullptr ? prefix : "";
    text = text != nullptr ? text : "";
    const std::size_t prefixLength = std::strlen(prefix);
    const std::size_t textLength = std::strlen(text);
    char* joined = static_cast<char*>(std::malloc(prefixLength + textLength + 1));
    if (joined == nullptr) {
        return;
    }
    std::memcpy(joined, prefix, prefixLength);
    std::memcpy(joined + prefixLength, text, textLength + 1);
    OutputDebugStringA(joined);
    std::free(joined);
}

void DebugPrintV(const char* format, std::va_list arguments) {
    char text[2048] = {};
    _vsnprintf_s(text, sizeof text, _TRUNCATE, format, arguments);
    OutputDebugStrings(GetExecutableName().c_str(), text);
}

void DebugPrint(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    DebugPrintV(format, arguments);
    va_end(arguments);
}

DebugOutputSink SetDebugOutputSink(DebugOutputSink sink) {
    return g_sink.exchange(sink != nullptr ? sink : &SyslogDebugOutputSink,
                           std::memory_order_acq_rel);
}

bool IsDebuggerPresent() {
    std::FILE* status = std::fopen("/proc/self/status", "r");
    if (status == nullptr) {
        return false;
    }
    bool traced = false;
    char line[256];
    while (std::fgets(line, sizeof line, status) != nullptr) {
        if (std::strncmp(line, "TracerPid:", 10) == 0) {
            long pid = 0;
            std::sscanf(line + 10, "%ld", &pid);
            traced = pid != 0;
            break;
        }
    }
    std::fclose(status);
    return traced;
}

void DebugBreak() {
    if (IsDebuggerPresent()) {
        ::raise(SIGTRAP);
    }
}

}  // namespace Tessel::Platform
