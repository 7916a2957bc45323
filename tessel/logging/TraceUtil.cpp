#include "tessel/logging/TraceUtil.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "tessel/base/TimeFunctions.h"
#include "tessel/logging/ILogging.h"
#include "tessel/platform/CheckedPrint.h"
#include "tessel/platform/DebugOutput.h"
#include "tessel/platform/ErrorText.h"
#include "tessel/platform/Event.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/Process.h"
#include "tessel/platform/Registry.h"
#include "tessel/platform/Thread.h"

using namespace Tessel::Platform;

namespace {

constexpr std::size_t kTextSize = 2048;

// Where the category flags come from. The flags and the event are atomic, so that the
// common case (nothing changed) is one load and a zero-time event test; the rest changes
// under the lock.
struct TraceSettings {
    // Relaxed: the flags are a word on their own; a trace call that sees an old value for a
    // moment writes or skips one line, as the class's contract allows.
    std::atomic<std::uint32_t> flags{0};
    // Stored once the event exists; the acquire load on the hot path then sees it made.
    std::atomic<HANDLE> changeEvent{nullptr};
    std::mutex lock;
    std::string keyPath;    // guarded by lock
    std::string valueName;  // guarded by lock
    HKEY key = nullptr;     // guarded by lock
};

TraceSettings& settings() {
    static TraceSettings* const traceSettings = new TraceSettings();  // lives with the process
    return *traceSettings;
}

void logError(const char* category, const std::string& text, unsigned long code) {
    ILogging::getInstance().log(category, ILogging::Error,
                                fmt::format("Error={}, Error code={}", text, code));
}

}  // namespace

bool CTraceUtil::SetRegistryKey(const char* keyPath, const char* valueName) {
    TraceSettings& s = settings();
    {
        std::lock_guard<std::mutex> guard(s.lock);
        s.keyPath = keyPath != nullptr ? keyPath : "";
        s.valueName = valueName != nullptr ? valueName : "";
        HANDLE event = s.changeEvent.load();
        if (event == nullptr) {
            event = CreateEventA(nullptr, FALSE, TRUE, nullptr);
            s.changeEvent.store(event);
        }
        SetEvent(event);
        if (s.key != nullptr) {
            RegCloseKey(s.key);
            s.key = nullptr;
        }
        if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, s.keyPath.c_str(), 0, KEY_NOTIFY | KEY_WOW64_32KEY,
                          &s.key) != ERROR_SUCCESS) {
            RegCreateKeyExA(HKEY_LOCAL_MACHINE, s.keyPath.c_str(), 0, nullptr,
                            REG_OPTION_NON_VOLATILE, KEY_WRITE | KEY_NOTIFY | KEY_WOW64_32KEY,
                            nullptr, &s.key, nullptr);
        }
    }
    return UpdateCategoryFlags();
}

bool CTraceUtil::UpdateCategoryFlags() {
    TraceSettings& s = settings();
    const HANDLE event = s.changeEvent.load(std::memory_order_acquire);
    if (event == nullptr || WaitForSingleObject(event, 0) != WAIT_OBJECT_0) {
        return true;  // nothing changed
    }
    std::lock_guard<std::mutex> guard(s.lock);
    if (s.key != nullptr) {
        RegNotifyChangeKeyValue(s.key, TRUE, REG_NOTIFY_CHANGE_LAST_SET, event, TRUE);
    }
    DWORD flags = 0;
    HKEY readable = nullptr;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, s.keyPath.c_str(), 0, KEY_READ | KEY_WOW64_32KEY,
                      &readable) == ERROR_SUCCESS) {
        DWORD size = sizeof flags;
        if (RegQueryValueExA(readable, s.valueName.c_str(), nullptr, nullptr,
                             reinterpret_cast<BYTE*>(&flags), &size) != ERROR_SUCCESS) {
            flags = 0;
        }
        RegCloseKey(readable);
    }
    s.flags.store(flags, std::memory_order_relaxed);
    return flags != 0;
}

bool CTraceUtil::IsCategorySet(unsigned int category) {
    UpdateCategoryFlags();
    return (settings().flags.load(std::memory_order_relaxed) & category) == category;
}

void CTraceUtil::OutputString(unsigned int category, const char* text) {
    UpdateCategoryFlags();
    if ((settings().flags.load(std::memory_order_relaxed) & category) == 0 || text == nullptr) {
        return;
    }
    char prefix[kTextSize];
    _snprintf_s(prefix, sizeof prefix, _TRUNCATE,
                "%d/%d %s: ", static_cast<int>(GetCurrentProcessId()),
                static_cast<int>(GetCurrentThreadId()), TIME::GetCurrentDateTimeAsString().c_str());
    OutputDebugStrings(prefix, text);
}

void CTraceUtil::OutputStringEx(unsigned int category, const char* format, std::va_list arguments) {
    char text[kTextSize];
    _vsnprintf_s(text, sizeof text, _TRUNCATE, format, arguments);
    OutputString(category, text);
}

void CTraceUtil::OutputCurrentProcessHandleCount(unsigned int category) {
    if (!IsCategorySet(category)) {
        return;
    }
    char text[64];
    sprintf_s(text, sizeof text, "HandleCount=%lu\n",
              static_cast<unsigned long>(GetProcessHandleCount()));
    OutputString(category, text);
}

void CTraceUtil::DebugString(const char* format, std::va_list arguments) {
    DebugPrintV(format, arguments);
}

void CTraceUtil::DebugStringF(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    DebugString(format, arguments);
    va_end(arguments);
}

void CTraceUtil::CheckWaitForObjectRetVal(unsigned int result, const char* name, bool log,
                                          bool stop, unsigned int objectCount) {
    if (result < objectCount) {
        return;
    }
    if (result == WAIT_TIMEOUT) {
        HandleTimeOut(name, log, stop);
        return;
    }
    if (result >= WAIT_ABANDONED_0 && result < WAIT_ABANDONED_0 + objectCount) {
        HandleAbandoned(name, log, stop);
        return;
    }
    const DWORD code = GetLastError();
    char built[kTextSize];
    if (result == WAIT_FAILED) {
        char text[kTextSize] = {};
        FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code, 0,
                       text, sizeof text, nullptr);
        _snprintf_s(built, sizeof built, _TRUNCATE, "%s: %s", name, text);
        OutputString(WAIT_AND_ERROR_CATEGORY, text);  // the name reaches only the log
    } else {
        _snprintf_s(built, sizeof built, _TRUNCATE, "%s: Undefined return value.", name);
        OutputString(WAIT_AND_ERROR_CATEGORY, built);
    }
    if (log) {
        logError("CTraceUtil::CheckWaitForObjectRetVal", built, code);
    }
    if (stop) {
        StopOrAssert();
    }
}

namespace {

// The report of a time-out or an abandoned mutex. The built text is the format of the log
// line, so a brace in the name makes the formatter throw.
void reportWait(const char* name, const char* what, const char* category, bool log, bool stop) {
    char built[kTextSize];
    _snprintf_s(built, sizeof built, _TRUNCATE, "%s: %s", name, what);
    CTraceUtil::OutputString(CTraceUtil::WAIT_AND_ERROR_CATEGORY, built);
    if (log) {
        ILogging::getInstance().log(category, ILogging::Error, fmt::format(fmt::runtime(built)));
    }
    if (stop) {
        CTraceUtil::StopOrAssert();
    }
}

}  // namespace

void CTraceUtil::HandleTimeOut(const char* name, bool log, bool stop) {
    reportWait(name, "Timeout interval elapsed.", "CTraceUtil::HandleTimeOut", log, stop);
}

void CTraceUtil::HandleAbandoned(const char* name, bool log, bool stop) {
    reportWait(name, "Mutex was not released", "CTraceUtil::HandleAbandoned", log, stop);
}

void CTraceUtil::StopOrAssert() {
    if (IsDebuggerPresent()) {
        DebugBreak();
    }
}

void CTraceUtil::getLastErrorString(unsigned int code, char* target, std::size_t targetSize) {
    if (target == nullptr || targetSize == 0) {
        return;
    }
    const DWORD size = static_cast<DWORD>(std::min<std::size_t>(targetSize, 0xFFFFFFFFu));
    if (code >= 12001 && code <= 12156) {
        FormatMessageA(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_IGNORE_INSERTS,
                       InternetMessageModule(), code, 0, target, size, nullptr);
    } else {
        FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code, 0,
                       target, size, nullptr);
    }
}

void CTraceUtil::getLastErrorString(char* target, std::size_t targetSize, const char* context,
                                    bool log) {
    const DWORD code = GetLastError();
    char text[kTextSize] = {};
    getLastErrorString(code, text, sizeof text);
    if (target == nullptr || targetSize == 0) {
        return;
    }
    if (context != nullptr) {
        _snprintf_s(target, targetSize, _TRUNCATE, "%s: %s", context, text);
    } else {
        _snprintf_s(target, targetSize, _TRUNCATE, "%s", text);
    }
    if (log) {
        char name[kTextSize] = {};
        GetExeName(name, sizeof name);
        DebugStringF("%s: %s", name, target);
        logError("CTraceUtil::getLastErrorString", target, code);
    }
}

void CTraceUtil::logLastErrorString(const char* context, bool log) {
    char text[kTextSize];
    getLastErrorString(text, sizeof text, context, log);
}

std::string CTraceUtil::GetWindowsErrorMsg(unsigned long code) {
    char head[32];
    sprintf_s(head, sizeof head, "[%lX]: ", code);
    char text[300] = {};
    getLastErrorString(static_cast<unsigned int>(code), text, sizeof text);
    if (text[0] == '\0') {
        FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                       static_cast<DWORD>(code), 0, text, sizeof text, nullptr);
    }
    if (text[0] == '\0') {
        const unsigned long low = code & 0xFFFFu;
        if (code >= 0x80040200ul && code <= 0x8004FFFFul && low != 0x200) {
            sprintf_s(text, sizeof text, "IDispatch error #%d", static_cast<int>(low - 512));
        } else {
            sprintf_s(text, sizeof text, "Unknown error 0x%0lX", code);
        }
    }
    return std::string(head) + text;
}

char* CTraceUtil::GetExeName(char* target, unsigned int targetSize) {
    if (target == nullptr || targetSize == 0) {
        return target;
    }
    const std::string name = GetExecutableName();
    const std::size_t length = std::min<std::size_t>(name.size(), targetSize - 1);
    std::memcpy(target, name.data(), length);
    target[length] = '\0';
    return target;
}
