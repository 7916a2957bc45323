// CActiveObject: a worker thread with a name, a stop time-out and a published state.
//
// The one way in which the library owns a worker thread. StartThread starts the thread
// function on a new thread; the thread stands in the monitoring tree under
// "Threads/<thread id>" (elements "Priority", "State" and one named after the class) and
// leaves a record in a process-wide thread table that outlives it.
//
// The stop is always bounded in time. StopThread sets the state to stopping and the stop
// event, and waits the stop time-out for the thread to end (stage 1); then it warns, and
// waits 5000 ms more (LAST_CHANCE_JOIN_TIMEOUT_IN_MS); then it tells the external watchdog
// that the thread is gone, warns again and ends the thread by force (stage 2), optionally
// crashing the process first ("Enable2ndStageCrash" in the registry) so that a dump shows
// where the thread hung. A worker learns of a stop from m_hStopEvent, on which it waits among
// its other handles, or by polling IsThreadStoppedOrStopping in its loops.
//
// Ending a thread by force cancels it at its next cancellation point (a sleep, a wait, a
// read); a thread that never reaches one within 100 ms is left running, detached, and the stop
// says so in the log.
//
// States (ThreadState): stopped (also before the first start), started, stopping. A thread
// function that returns by itself leaves the state at started until StopThread, which then joins at
// once. An object may be started again after a stop; it then gets a new thread id, a new subtree
// and a new table record.
//
// Lifetime: a derived class whose thread function touches the derived part calls StopThread
// in its own destructor first. Copying is not for use.
//
// Thread safety: StartThread and StopThread may come from any thread and are serialised by
// the object's thread guard, which the stop holds throughout, joins included: the worker must
// never take it, and nobody may wait for a stop while holding a lock the worker needs.
// IsThreadStoppedOrStopping is one atomic load.
#pragma once

#include <atomic>
#include <boost/thread/thread.hpp>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "tessel/Export.h"
#include "tessel/base/CriticalSectionSyncGuard.h"
#include "tessel/base/Handle.h"
#include "tessel/monitoring/MonitorElement.h"
#include "tessel/monitoring/MonitorElementContainer.h"
#include "tessel/platform/Types.h"

struct CActiveObjectThreadRecord;

class TESSEL_API CActiveObject {
  public:
    using ThreadFunction = unsigned long (*)(void*);

    // The states of the thread, as GetThreadState and the "State" element give them.
    enum ThreadState : std::int32_t {
        THREAD_STOPPING = 1,
        THREAD_STOPPED = 2,
        THREAD_STARTED = 3,
    };

    // The second wait of a stop, in milliseconds.
    static const std::uint64_t LAST_CHANCE_JOIN_TIMEOUT_IN_MS = 5000;
    // A value for derived classes; the library does not read it.
    static const std::int32_t STOP_AND_CLEANUP_BY_THREAD = 999;

    // An object named className whose thread runs threadFunction(parameter) and is granted
    // stopTimeoutMs to end when asked. Neither thread nor stop event exist yet.
    CActiveObject(const char* className, ThreadFunction threadFunction, void* parameter,
                  unsigned int stopTimeoutMs);
    // Stops the thread.
    virtual ~CActiveObject();

    // Starts the thread; file, line and function name the caller for the thread table,
    // priority is a THREAD_PRIORITY_* value, threadId (may be null) receives the thread id,
    // stackSize is not used. 1 on success or when the thread runs already; 0 without a
    // thread function or when the stop event cannot be made.
    int StartThread(const char* file, int line, const char* function, int priority,
                    unsigned long* threadId, std::size_t stackSize);
    // Stops the thread, bounded in time (see above). 1 if this call took the thread from
    // started to stopped, 0 if it was not started.
    int StopThread();
    // For the worker that ends by itself: 1 the first time, 0 afterwards.
    int StopThreadByWorkerThread();

    void SetStopTimeout(unsigned int timeoutMs) { m_ulStopTimeout = timeoutMs; }
    int IsThreadStarted() const { return m_lThreadState.load() == THREAD_STARTED ? 1 : 0; }
    // True while the thread is stopping or stopped: the test a worker polls.
    bool IsThreadStoppedOrStopping() const {
        return m_lThreadState.load(std::memory_order_relaxed) != THREAD_STARTED;
    }
    // The exit code of the last run, 0xAAAAAAAA while it runs or before the first start, and
    // 0xFFFFFFFF for a thread ended by force.
    unsigned long GetThreadExitCode() const;
    // The worker thread's native handle (a pthread_t), or -1 without a thread object.
    boost::thread::native_handle_type GetWorkerThread() const;
    unsigned long GetWorkerThreadId() const { return m_ulWorkerThreadId.load(); }
    std::string GetThreadName() const { return m_szClassName; }
    CMonitorElementContainer& GetMonitor() { return m_monitor; }

    // Names thread threadId (0: nothing happens) by format and arguments, at most 511
    // characters; the system keeps the first 15.
    static void SetThreadName(std::size_t threadId, const char* format, ...)
        __attribute__((format(printf, 2, 3)));
    // True if the value "Enable2ndStageCrash" of SOFTWARE\Tarvo Works\GPS Velkor\DebugService
    // is the text TRUE in any case; read anew at each call.
    static bool IsSecondStageCrashActivated();

  protected:
    // Sets the stop event and waits up to timeoutMs for the thread to end. True if it ended
    // (or on the worker itself, which does not wait for itself).
    bool JoinWorkerThread(std::size_t timeoutMs);
    long GetThreadState() const { return m_lThreadState.load(); }
    // Copies name through the checked print into the 1024-character name: a longer name is an
    // invalid parameter.
    void SetClassName(const char* name);
    void SetPointerToStartRoutine(ThreadFunction threadFunction) {
        m_pThreadFunction = threadFunction;
    }

    // Manual-reset; null until the first StartThread.
    Tessel::CHandle m_hStopEvent;

  private:
    CActiveObject(const CActiveObject&) = delete;
    CActiveObject& operator=(const CActiveObject&) = delete;

    void InitWorkerThread();
    void WorkerThread();
    void WaitForStart();
    int SetStateStarted();
    int SetStateStopped();
    int SetStateStopping();
    void RecordState(std::uint32_t state);
    void ForceStop();

    // Sequentially consistent, except for the worker's polling load in
    // IsThreadStoppedOrStopping: that is relaxed, since the worker only needs to see the stop
    // soon, and the stop event or the join orders everything else.
    std::atomic<std::int32_t> m_lThreadState{THREAD_STOPPED};
    std::unique_ptr<CActiveObjectThreadRecord> m_pInitialThreadRecord;
    // The initial record, then this thread's record in the thread table.
    CActiveObjectThreadRecord* m_pCurrentThreadRecord;
    ThreadFunction m_pThreadFunction;
    void* m_pThreadParameter;
    unsigned int m_ulStopTimeout;
    // Published by the new thread itself before it waits for its start.
    std::atomic<std::uint32_t> m_ulWorkerThreadId{0};
    char m_szClassName[1024];
    CMonitorElementContainer m_monitor;
    CMonitorElement m_placeholder;
    CMonitorElement* m_pStateElement;
    CMonitorElement* m_pPriorityElement;
    CMonitorElement* m_pClassElement;
    std::unique_ptr<boost::thread> m_pWorkerThread;  // guarded by m_threadGuard
    CCriticalSectionSyncGuard m_threadGuard;
    std::int32_t m_lPriority = 0;
    std::string m_strStartFunction;
    std::string m_strStartFile;
    std::int32_t m_lStartLine = 0;
    std::atomic<bool> m_bStoppedByWorker{false};
};
