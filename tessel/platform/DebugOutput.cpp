#include "tessel/platform/DebugOutput.h"

#include <signal.h>
#include <syslog.h>

#include <atomic>
#include <cstdio>
#include <cstring>

namespace Tessel::Platform {
namespace {
std::atomic<DebugOutputSink> g_sink{&SyslogDebugOutputSink};
}

void SyslogDebugOutputSink(const char* text) {
    ::syslog(LOG_DEBUG, "%s", text);
}

void OutputDebugStringA(const char* text) {
    if (text != nullptr) {
        g_sink.load(std::memory_order_acquire)(text);
    }
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
