// CTraceUtil: the older trace channel of the library.
//
// Writes to the debugger output under category bits that the user of the library assigns
// freely and sets, from outside the process, in a registry value (SetRegistryKey names it).
// A change of the value takes effect at the next trace call, without a restart, at the cost
// of one zero-time event test per call; until SetRegistryKey is called the flags are 0 and
// nothing is traced. Two bits are fixed: 0x80000 for the reports of waits and errors, and 1
// for the trace of CErrorUtil.
//
// It also turns results of the platform's waits and its error numbers into text and log
// lines, and DebugString writes to the debugger output with no filter at all.
//
// Thread safety: all operations are static and may be called from any thread. The flags are
// a plain word: during a reload another thread may see them at 0 for a moment.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>

#include "tessel/Export.h"

class TESSEL_API CTraceUtil {
  public:
    // The category of the wait and error reports.
    static constexpr unsigned int WAIT_AND_ERROR_CATEGORY = 0x80000;

    // --- Category flags ---

    // Takes the flags from the REG_DWORD value valueName of keyPath below the local machine
    // hive, creating the key if it is missing, and watches it. True if the flags are not 0.
    static bool SetRegistryKey(const char* keyPath, const char* valueName);
    // Reloads the flags if the value changed since the last call. True if nothing changed
    // or the flags are not 0.
    static bool UpdateCategoryFlags();
    // True if all bits of category are set.
    static bool IsCategorySet(unsigned int category);

    // --- Output ---

    // Writes "<pid>/<tid> <dd.mm.yyyy hh:mm:ss.mmm>: <text>" to the debugger output if any bit
    // of category is set.
    static void OutputString(unsigned int category, const char* text);
    // The same with a printf-style text, cut at 2047 characters.
    static void OutputStringEx(unsigned int category, const char* format, std::va_list arguments)
        __attribute__((format(printf, 2, 0)));
    // Writes "HandleCount=<n>\n" with the process's count of handles if category is set.
    static void OutputCurrentProcessHandleCount(unsigned int category);
    // Prints format with arguments (cut at 2047 characters) behind the executable's name and
    // passes the text to the debugger output, with no category test. Nothing is written if
    // memory for the text cannot be had.
    static void DebugString(const char* format, std::va_list arguments)
        __attribute__((format(printf, 1, 0)));
    // Printf-style convenience form of DebugString.
    static void DebugStringF(const char* format, ...) __attribute__((format(printf, 1, 2)));

    // --- Wait results and errors ---

    // Reports a wait result on objectCount objects that is not a success: a time-out, an
    // abandoned mutex, a failed wait or an undefined value; with log also into the log at
    // level Error, with stop also StopOrAssert.
    static void CheckWaitForObjectRetVal(unsigned int result, const char* name, bool log, bool stop,
                                         unsigned int objectCount);
    static void HandleTimeOut(const char* name, bool log, bool stop);
    static void HandleAbandoned(const char* name, bool log, bool stop);
    // Breaks into an attached debugger; without one nothing happens.
    static void StopOrAssert();

    // "[<code in hex>]: " followed by the text of code.
    static std::string GetWindowsErrorMsg(unsigned long code);
    // The text of code into target: internet errors (12001 to 12156) from the internet
    // message table, others from the system's.
    static void getLastErrorString(unsigned int code, char* target, std::size_t targetSize);
    // "<context>: <text of the last error>" (or the text alone) into target; with log also to
    // the debugger output and the log.
    static void getLastErrorString(char* target, std::size_t targetSize, const char* context,
                                   bool log);
    // getLastErrorString with a buffer of its own, for its log.
    static void logLastErrorString(const char* context, bool log);

    // Writes the executable's file name without folder and extension into target, cut to
    // targetSize - 1 characters and NUL-terminated. Returns target.
    static char* GetExeName(char* target, unsigned int targetSize);
};
