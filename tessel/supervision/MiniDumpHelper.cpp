#include "tessel/supervision/MiniDumpHelper.h"

#include <fmt/format.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "tessel/host/FileHelper.h"
#include "tessel/host/Registry.h"
#include "tessel/host/TempDirectory.h"
#include "tessel/logging/ILogging.h"
#include "tessel/logging/TraceUtil.h"
#include "tessel/platform/CheckedPrint.h"
#include "tessel/platform/Clock.h"
#include "tessel/platform/File.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/Process.h"
#include "tessel/platform/Thread.h"
#include "tessel/supervision/WatchdogClient.h"

namespace P = Tessel::Platform;

namespace custom_minidump {

unsigned long MiniDumpHelper::mDumpType = 0;
char* MiniDumpHelper::mApplicationName = nullptr;
P::LPTOP_LEVEL_EXCEPTION_FILTER MiniDumpHelper::m_previousFilter = nullptr;
std::terminate_handler MiniDumpHelper::m_previousHandler = nullptr;

namespace {

constexpr const char* kHandlerScope = "custom_minidump::MiniDumpHelper::UnhandledExceptionHandler";
constexpr const char* kWriteScope = "custom_minidump::MiniDumpHelper::WriteDumpFile";
constexpr std::size_t kPathSize = 260;

// The dump type of the second dump, kept up to date from the registry.
struct DumpTypeSetting {
    REG::CRegistryDWord record{false, kDefaultDumpType,
                               "SOFTWARE\\Tarvo Works\\GPS Velkor\\DebugService", "MiniDumpType"};
    REG::CRegistryKeyDWordEventHelper helper{record};

    unsigned long get() {
        unsigned long value = record.m_dwValue;
        helper.GetRegistryValue(value);
        return value;
    }
};

// Made with the first MiniDumpHelper, so that the crash finds it ready.
DumpTypeSetting& dumpTypeSetting() {
    static DumpTypeSetting setting;
    return setting;
}

void logError(const char* scope, const std::string& text) {
    ILogging::getInstance().log(scope, ILogging::Error, text);
}

// Makes the folders of path; false if it cannot be made.
bool MakeSureDirectoryPathExists(const char* path) {
    return CFileHelper::DirectoryCreate(path);
}

}  // namespace

int MiniDumpWriteDump(HANDLE /*process*/, unsigned long /*processId*/, HANDLE file,
                      MINIDUMP_TYPE type, MINIDUMP_EXCEPTION_INFORMATION* information,
                      void* /*userStream*/, void* /*callback*/) {
    char path[4096];
    const P::DWORD length = P::GetFinalPathNameByHandleA(file, path, sizeof path, 0);
    if (length == 0 || length >= sizeof path) {
        return 0;
    }
    if ((type & MiniDumpWithFullMemory) != 0) {
        return P::WriteProcessCore(path);
    }
    return P::WriteCrashReport(path,
                               information != nullptr ? information->ExceptionPointers : nullptr);
}

MiniDumpHelper::MiniDumpHelper(const unsigned long& dumpType) {
    CTraceUtil::DebugStringF("MiniDump: Construction\n");
    mDumpType = dumpType;
    CTraceUtil::DebugStringF("MiniDump: type [0x%lx]\n", mDumpType);
    std::string name = P::GetExecutableName();
    if (name.empty()) {
        name = "Application";
    }
    name.resize(std::min<std::size_t>(name.size(), kPathSize - 1));
    std::free(mApplicationName);
    mApplicationName = ::strdup(name.c_str());
    dumpTypeSetting();
    m_previousFilter = P::SetUnhandledExceptionFilter(&MiniDumpHelper::UnhandledExceptionHandler);
    m_previousHandler = std::set_terminate(&MiniDumpHelper::UnhandledStdExceptionHandler);
    CTraceUtil::DebugStringF("MiniDump: Constructed!\n");
}

MiniDumpHelper::~MiniDumpHelper() {
    std::free(mApplicationName);
    mApplicationName = nullptr;
    std::set_terminate(m_previousHandler);
    // The platform's own stand-in for the former signal actions goes by uninstalling.
    P::SetUnhandledExceptionFilter(
        m_previousFilter == &P::FormerSignalActionFilter ? nullptr : m_previousFilter);
}

long MiniDumpHelper::UnhandledExceptionHandler(EXCEPTION_POINTERS* pointers) {
    return UnhandledExceptionHandler(pointers, nullptr);
}

long MiniDumpHelper::UnhandledExceptionHandler(EXCEPTION_POINTERS* pointers,
                                               std::exception* exception) {
    // One process of the machine at a time; held to the end of the function.
    struct Guard {
        int token = P::AcquireCrashGuard("MiniDumpHelperGuardInProgress");
        ~Guard() { P::ReleaseCrashGuard(token); }
    } guard;

    CWatchdogClient().NotifyUnhandledExceptionHandlerCalled();
    const unsigned long dumpType = dumpTypeSetting().get();
    const unsigned long threadId = P::GetCurrentThreadId();
    const char* const what = exception == nullptr           ? "no"
                             : exception->what() == nullptr ? "yes"
                                                            : exception->what();
    logError(kHandlerScope,
             fmt::format("Dump generation started (Type[0x{0:x}], Default[0x{1:x}]), "
                         "ThreadId[{2}, 0x{3:x}], StdException[{4}]",
                         dumpType, kDefaultDumpType, threadId, threadId, what));
    CTraceUtil::DebugStringF(
        "MiniDumpHelper::UnhandledExceptionHandler called. Dump generation started (Type[0x%lx], "
        "Default[0x%lx]), ThreadId[%lu, 0x%lx], StdException[%s]\n",
        dumpType, kDefaultDumpType, threadId, threadId, what);

    // The dump writers are part of the library here; nothing is loaded.
    CTraceUtil::DebugStringF("MiniDump: Load %s...\n", "DbgHelp.dll");
    CTraceUtil::DebugStringF("MiniDump: ...succeeded\n");

    char directory[kPathSize] = {};
    if (CTempDirectory::GetTempDirectory(sizeof directory, directory) <= 0 ||
        directory[0] == '\0') {
        std::strcpy(directory, "/tmp/");
    }
    CTraceUtil::DebugStringF("MiniDump: Temp path: %s\n", directory);
    if (!MakeSureDirectoryPathExists(directory)) {
        CTraceUtil::DebugStringF("MiniDump Directory [%s] does not exist.\n", directory);
        return P::EXCEPTION_CONTINUE_EXECUTION;
    }

    MINIDUMP_EXCEPTION_INFORMATION information{threadId, pointers, 0};
    logError(kHandlerScope,
             fmt::format("MiniDumpHelper::UnhandledExceptionHandler called, see dmp file in temp "
                         "dir [{}](DumpType [0x{:x}] Default [0x{:x}]). ThreadId[{}, 0x{:x}]",
                         directory, dumpType, kDefaultDumpType, threadId, threadId));
    CTraceUtil::DebugStringF(
        "MiniDumpHelper::UnhandledExceptionHandler called, see dmp file in temp dir [%s](DumpType "
        "[0x%lx] Default [0x%lx]). ThreadId[%lu, 0x%lx]\n",
        directory, dumpType, kDefaultDumpType, threadId, threadId);

    // The directory and the name, cut at the first '.' (also one in the directory), then the
    // local time.
    char name[kPathSize];
    P::sprintf_s(name, sizeof name, "%s%s", directory,
                 mApplicationName != nullptr ? mApplicationName : "Application");
    if (char* dot = std::strchr(name, '.')) {
        *dot = '\0';
    }
    P::SYSTEMTIME now{};
    P::GetLocalTime(&now);
    const std::size_t used = std::strlen(name);
    P::sprintf_s(name + used, sizeof name - used, "_%4d%02d%02d%02d%02d%02d", now.wYear, now.wMonth,
                 now.wDay, now.wHour, now.wMinute, now.wSecond);

    // The small dump first: it is nearly sure to be complete.
    const struct {
        MINIDUMP_TYPE type;
        const char* suffix;
    } dumps[] = {{MiniDumpNormal, ".dmp"}, {static_cast<MINIDUMP_TYPE>(dumpType), "_FULLMEM.dmp"}};
    for (const auto& dump : dumps) {
        char path[kPathSize];
        P::sprintf_s(path, sizeof path, "%s%s", name, dump.suffix);
        if (WriteDumpFile(dump.type, path, &information, &MiniDumpWriteDump, nullptr, nullptr) ==
            0) {
            const P::DWORD error = P::GetLastError();
            logError(kHandlerScope,
                     fmt::format("Dump file generation for DumpType [{}] failed (LastError: {})!",
                                 static_cast<unsigned long>(dump.type), error));
            CTraceUtil::DebugStringF(
                "Dump file generation for DumpType [%lu] failed (LastError: "
                "%lu)!\n",
                static_cast<unsigned long>(dump.type), static_cast<unsigned long>(error));
            if (&dump == &dumps[1]) {  // the big one: no previous filter either
                return 0;
            }
        }
    }
    long result = P::EXCEPTION_EXECUTE_HANDLER;
    if (m_previousFilter != nullptr) {
        result = m_previousFilter(pointers);
    }
    return result;
}

void MiniDumpHelper::UnhandledStdExceptionHandler() {
    P::EXCEPTION_RECORD record;
    record.ExceptionCode = P::EXCEPTION_NONCONTINUABLE_EXCEPTION;
    record.ExceptionFlags = P::EXCEPTION_NONCONTINUABLE;
    P::CONTEXT context;
    EXCEPTION_POINTERS pointers{&record, &context};
    // However this ends, abort follows, and its SIGABRT writes no second pair.
    P::SetCrashDecidedOnThisThread();
    const std::exception_ptr current = std::current_exception();
    if (current == nullptr) {
        UnhandledExceptionHandler(&pointers, nullptr);
        return;
    }
    try {
        std::rethrow_exception(current);
    } catch (std::exception& exception) {
        UnhandledExceptionHandler(&pointers, &exception);
    } catch (...) {
        // Not a standard exception: the process ends without a dump.
    }
}

int MiniDumpHelper::WriteDumpFile(MINIDUMP_TYPE type, const char* path,
                                  MINIDUMP_EXCEPTION_INFORMATION* const information,
                                  MiniDumpWriteDumpRoutine writer, void* userStream,
                                  void* callback) {
    HANDLE file = P::CreateFileA(path, P::GENERIC_WRITE, P::FILE_SHARE_WRITE, nullptr,
                                 P::CREATE_ALWAYS, P::FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == P::INVALID_HANDLE_VALUE) {
        const P::DWORD error = P::GetLastError();
        logError(kWriteScope, fmt::format("WriteDumpFile failed. CreateFile '{}',(LastError: {})!",
                                          path, error));
        CTraceUtil::DebugStringF("WriteDumpFile failed (%s,%d) CreateFile '%s',(LastError: %lu)!",
                                 __FILE__, __LINE__, path, static_cast<unsigned long>(error));
        P::SetLastError(error);
        return 0;
    }
    const int written =
        writer(nullptr, P::GetCurrentProcessId(), file, type, information, userStream, callback);
    const P::DWORD error = P::GetLastError();
    if (written == 0) {
        logError(kWriteScope, fmt::format("PtrMiniDumpWriteDump failed. File '{}',(LastError: {})!",
                                          path, error));
        CTraceUtil::DebugStringF("PtrMiniDumpWriteDump failed (%s,%d) file '%s',(LastError: %lu)!",
                                 __FILE__, __LINE__, path, static_cast<unsigned long>(error));
    }
    P::CloseHandle(file);
    CTraceUtil::DebugStringF("MinDump: Dumpfile %s written.\n", path);
    P::SetLastError(error);
    return written != 0 ? 1 : 0;
}

}  // namespace custom_minidump
