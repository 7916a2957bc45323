#include "tessel/threads/ActiveObject.h"

#include <strings.h>
#include <boost/chrono.hpp>
#include <cstdarg>
#include <cstring>
#include <map>
#include <mutex>

#include "tessel/base/ReadWriteLock.h"
#include "tessel/logging/ILogging.h"
#include "tessel/logging/TraceUtil.h"
#include "tessel/platform/CheckedPrint.h"
#include "tessel/platform/CrashHandling.h"
#include "tessel/platform/DebugOutput.h"
#include "tessel/platform/Event.h"
#include "tessel/platform/Process.h"
#include "tessel/platform/Registry.h"
#include "tessel/platform/Thread.h"
#include "tessel/supervision/WatchdogClient.h"
#include "tessel/threads/detail/ActiveObjectThreadRecord.h"

using namespace Tessel::Platform;

namespace {

// How long a thread that was ended by force is given to reach a cancellation point.
constexpr int kCancellationGraceMs = 100;
// How long StartThread waits for a new thread to tell its id.

// The process-wide table of thread records, by thread id. Nothing in the library reads it;
// it keeps the records of threads that ended.
struct ThreadTable {
    CCriticalSectionSyncGuard guard;
    std::map<std::uint32_t, CActiveObjectThreadRecord> records;  // guarded by guard
};

ThreadTable& threadTable() {
    static std::once_flag made;
    static ThreadTable* table = nullptr;
    std::call_once(made, [] { table = new ThreadTable(); });  // freed with the process
    return *table;
}

SYSTEMTIME utcNow() {
    SYSTEMTIME now;
    GetSystemTime(&now);
    return now;
}

const char* exeName() {
    static char name[2048];
    static std::once_flag done;
    std::call_once(done, [] { CTraceUtil::GetExeName(name, sizeof name); });
    return name;
}

}  // namespace

CActiveObject::CActiveObject(const char* className, ThreadFunction threadFunction, void* parameter,
                             unsigned int stopTimeoutMs)
    : m_pInitialThreadRecord(std::make_unique<CActiveObjectThreadRecord>()),
      m_pCurrentThreadRecord(m_pInitialThreadRecord.get()),
      m_pThreadFunction(threadFunction),
      m_pThreadParameter(parameter),
      m_ulStopTimeout(stopTimeoutMs),
      m_szClassName(),
      m_monitor(""),
      m_pStateElement(&m_placeholder),
      m_pPriorityElement(&m_placeholder),
      m_pClassElement(&m_placeholder) {
    m_pInitialThreadRecord->m_creationTime = utcNow();
    m_pInitialThreadRecord->m_stateTime = m_pInitialThreadRecord->m_creationTime;
    SetClassName(className);
}

CActiveObject::~CActiveObject() {
    StopThread();
}

void CActiveObject::SetClassName(const char* name) {
    std::memset(m_szClassName, 0, sizeof m_szClassName);
    sprintf_s(m_szClassName, sizeof m_szClassName, "%s", name != nullptr ? name : "");
}

int CActiveObject::StartThread(const char* file, int line, const char* function, int priority,
                               unsigned long* threadId, std::size_t /*stackSize*/) {
    CReadWriteLock lock(m_threadGuard, false, true);
    if (m_pThreadFunction == nullptr) {
        return 0;
    }
    if (IsThreadStarted() && !m_bStoppedByWorker.load()) {
        return 1;
    }
    StopThread();  // cleans up after a worker that ended by StopThreadByWorkerThread
    if (static_cast<HANDLE>(m_hStopEvent) == nullptr) {
        m_hStopEvent.Attach(CreateEventA(nullptr, TRUE, FALSE, nullptr));
        if (static_cast<HANDLE>(m_hStopEvent) == nullptr) {
            return 0;
        }
    } else {
        ResetEvent(m_hStopEvent);
    }
    m_lPriority = priority;
    m_strStartFile = file != nullptr ? file : "";
    m_lStartLine = line;
    m_strStartFunction = function != nullptr ? function : "";
    m_bStoppedByWorker.exchange(false);

    m_ulWorkerThreadId.exchange(0);
    auto worker = std::make_unique<boost::thread>(&CActiveObject::WorkerThread, this);
    m_pWorkerThread.swap(worker);  // the former thread object goes with worker
    worker.reset();
    InitWorkerThread();
    if (threadId != nullptr) {
        *threadId = m_ulWorkerThreadId.load();
    }
    SetStateStarted();
    return 1;
}

void CActiveObject::InitWorkerThread() {
    // The new thread tells its id before it waits for the start; the thread exists, so the
    // id comes.
    m_ulWorkerThreadId.wait(0);
    const std::uint32_t id = m_ulWorkerThreadId.load();

    m_pStateElement = m_pPriorityElement = m_pClassElement = &m_placeholder;
    m_monitor.clear();
    m_monitor.setBase("Threads/" + std::to_string(id));
    if (CMonitorElement* priority = m_monitor.add("Priority", "", true)) {
        m_pPriorityElement = priority;
        priority->set(static_cast<double>(m_lPriority));
    }
    if (CMonitorElement* state = m_monitor.add("State", "", true)) {
        m_pStateElement = state;
        state->set(THREAD_STARTED);
    }
    if (CMonitorElement* named = m_monitor.add(m_szClassName, "", true)) {
        m_pClassElement = named;
    }
    SetThreadName(id, "%s", m_szClassName);
    SetThreadPriority(id, m_lPriority);

    ThreadTable& table = threadTable();
    CReadWriteLock tableLock(table.guard, false, true);
    CActiveObjectThreadRecord& record = table.records[id];
    record.m_ulCreatingThreadId = GetCurrentThreadId();
    record.m_creationTime = utcNow();
    record.m_lStartLine = m_lStartLine;
    record.m_strStartFile = m_strStartFile;
    record.m_strStartFunction = m_strStartFunction;
    record.m_strClassName = m_szClassName;
    record.m_ulState = THREAD_STARTED;
    record.m_stateTime = utcNow();
    record.m_ulExitCode.store(CActiveObjectThreadRecord::EXIT_CODE_RUNNING,
                              std::memory_order_release);
    m_pCurrentThreadRecord = &record;
}

void CActiveObject::WorkerThread() {
    EnsureAlternateSignalStack();
    m_ulWorkerThreadId.store(GetCurrentThreadId());
    m_ulWorkerThreadId.notify_all();
    WaitForStart();
    // The record belongs to the process's thread table, not to this object, which the thread
    // function may delete before it returns: the pointer is read before the call.
    CActiveObjectThreadRecord* const record = m_pCurrentThreadRecord;
    const unsigned long exitCode = m_pThreadFunction(m_pThreadParameter);
    record->m_ulExitCode.store(static_cast<std::uint32_t>(exitCode), std::memory_order_release);
}

void CActiveObject::WaitForStart() {
    // Held back while the state is stopped: SetStateStarted wakes the thread once
    // InitWorkerThread has set everything up.
    m_lThreadState.wait(THREAD_STOPPED);
}

void CActiveObject::RecordState(std::uint32_t state) {
    m_pCurrentThreadRecord->m_ulState = state;
    m_pCurrentThreadRecord->m_stateTime = utcNow();
}

int CActiveObject::SetStateStarted() {
    std::int32_t expected = THREAD_STOPPED;
    if (!m_lThreadState.compare_exchange_strong(expected, THREAD_STARTED)) {
        return 0;
    }
    m_lThreadState.notify_all();
    RecordState(THREAD_STARTED);
    return 1;
}

int CActiveObject::SetStateStopping() {
    std::int32_t expected = THREAD_STARTED;
    if (!m_lThreadState.compare_exchange_strong(expected, THREAD_STOPPING)) {
        return 0;
    }
    RecordState(THREAD_STOPPING);
    m_pStateElement->set(THREAD_STOPPING);
    return 1;
}

int CActiveObject::SetStateStopped() {
    m_lThreadState.exchange(THREAD_STOPPED);
    RecordState(THREAD_STOPPED);
    m_pStateElement->set(THREAD_STOPPED);
    return 1;
}

int CActiveObject::StopThreadByWorkerThread() {
    return m_bStoppedByWorker.exchange(true) ? 0 : 1;
}

bool CActiveObject::JoinWorkerThread(std::size_t timeoutMs) {
    SetEvent(m_hStopEvent);
    if (!m_pWorkerThread || m_pWorkerThread->get_id() == boost::this_thread::get_id()) {
        return true;  // a thread does not wait for itself
    }
    try {
        return m_pWorkerThread->try_join_until(boost::chrono::steady_clock::now() +
                                               boost::chrono::milliseconds(timeoutMs));
    } catch (const boost::exception&) {
        return true;
    } catch (const std::exception&) {
        return true;
    }
}

// Stage 2 of a stop: the watchdog is told, the thread ended by force.
void CActiveObject::ForceStop() {
    const std::uint32_t id = m_ulWorkerThreadId.load();
    {
        CWatchdogClient watchdog;
        watchdog.NotifyWatchdogThreadClosing(id);
    }
    const bool crash = IsSecondStageCrashActivated();
    char text[4096];
    _snprintf_s(text, sizeof text, _TRUNCATE,
                "BASE(%s,%d): 2.Stage! CActiveObject TerminateThread(Id[%u]) called for class "
                "%s.%s\n",
                exeName(), static_cast<int>(GetCurrentThreadId()), id, m_szClassName,
                crash ? "" : " For further analysis activate 2ndStageCrash to write dump files.");
    CTraceUtil::OutputString(0x80000, text);
    ILogging::getInstance().log("CActiveObject::StopThread", ILogging::Error, text);
    if (crash) {
        if (IsDebuggerPresent()) {
            DebugBreak();
        } else {
            // Ends in the crash handler, whose dump shows the hung thread.
            volatile int* nowhere = nullptr;
            *nowhere = *nowhere;
        }
    }
    TerminateThread(m_pWorkerThread->native_handle(), 0xFFFFFFFF);
    m_pCurrentThreadRecord->m_ulExitCode.store(0xFFFFFFFF, std::memory_order_release);
    // A cancelled thread ends at its next cancellation point; it is not joined beyond that.
    if (!m_pWorkerThread->try_join_for(boost::chrono::milliseconds(kCancellationGraceMs))) {
        ILogging::getInstance().log(
            "CActiveObject::StopThread", ILogging::Error,
            "Thread(" + std::string(m_szClassName) + ",Id[" + std::to_string(id) +
                "]) reached no cancellation point and could not be ended; it is left running.");
        m_pWorkerThread->detach();
    }
}

int CActiveObject::StopThread() {
    CReadWriteLock lock(m_threadGuard, false, true);
    if (SetStateStopping() == 0) {
        return 0;
    }
    if (!JoinWorkerThread(m_ulStopTimeout)) {
        char text[4096];
        _snprintf_s(text, sizeof text, _TRUNCATE,
                    "BASE(%s,%d): 1.Stage! CActiveObject Thread(Id[%lu]) did not stop within "
                    "timeout for %s. m_ulStopTimeout = %ld\n",
                    exeName(), static_cast<int>(GetCurrentThreadId()),
                    static_cast<unsigned long>(m_ulWorkerThreadId.load()), m_szClassName,
                    static_cast<long>(m_ulStopTimeout));
        CTraceUtil::OutputString(0x80000, text);
        ILogging::getInstance().log("CActiveObject::StopThread", ILogging::Warn, text);
        if (!JoinWorkerThread(LAST_CHANCE_JOIN_TIMEOUT_IN_MS)) {
            ForceStop();
        }
    }
    const unsigned long exitCode =
        m_pCurrentThreadRecord->m_ulExitCode.load(std::memory_order_acquire);
    if (!m_bStoppedByWorker.load() && exitCode != 0) {
        char text[4096];
        _snprintf_s(text, sizeof text, _TRUNCATE,
                    "BASE(%s,%d): ActiveObject stopped Thread(%s,Id[%lu]) with exit code "
                    "%lu(0x%X)\n",
                    exeName(), static_cast<int>(GetCurrentThreadId()), m_szClassName,
                    static_cast<unsigned long>(m_ulWorkerThreadId.load()), exitCode,
                    static_cast<unsigned int>(exitCode));
        ILogging::getInstance().log("CActiveObject::StopThread",
                                    exitCode == 0xFFFFFFFF ? ILogging::Error : ILogging::Warn,
                                    text);
    }
    SetStateStopped();
    return 1;
}

unsigned long CActiveObject::GetThreadExitCode() const {
    return m_pCurrentThreadRecord->m_ulExitCode.load(std::memory_order_acquire);
}

boost::thread::native_handle_type CActiveObject::GetWorkerThread() const {
    if (!m_pWorkerThread) {
        return static_cast<boost::thread::native_handle_type>(-1);
    }
    return m_pWorkerThread->native_handle();
}

void CActiveObject::SetThreadName(std::size_t threadId, const char* format, ...) {
    if (threadId == 0) {
        return;
    }
    char name[512] = {};
    std::va_list arguments;
    va_start(arguments, format);
    _vsnprintf_s(name, sizeof name, _TRUNCATE, format, arguments);
    va_end(arguments);
    if (name[0] != '\0') {
        Tessel::Platform::SetThreadName(static_cast<DWORD>(threadId), name);
    }
}

bool CActiveObject::IsSecondStageCrashActivated() {
    HKEY key = nullptr;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Tarvo Works\\GPS Velkor\\DebugService", 0,
                      0x20019, &key) != ERROR_SUCCESS) {
        return false;
    }
    char value[256] = {};
    DWORD size = sizeof value;
    DWORD type = REG_NONE;
    const LSTATUS rc = RegQueryValueExA(key, "Enable2ndStageCrash", nullptr, &type,
                                        reinterpret_cast<BYTE*>(value), &size);
    RegCloseKey(key);
    if (rc != ERROR_SUCCESS || (type != REG_SZ && type != REG_EXPAND_SZ) ||
        (size > 0 && value[size - 1] != '\0')) {
        return false;
    }
    return ::strcasecmp(value, "TRUE") == 0;
}
