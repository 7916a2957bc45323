// CActiveObjectThreadRecord: the record of one worker thread of a CActiveObject.
//
// A plain structure. The process-wide thread table keeps one per thread id, also after the
// thread ended; a thread id that the system uses again overwrites the older record. Only the
// exit code is read by the library: the other fields are kept for a debugger or a core dump,
// where they tell who started a thread, from where, and when it last changed its state.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "tessel/platform/Clock.h"
#include "tessel/threads/ActiveObject.h"

struct CActiveObjectThreadRecord {
    // The exit code of a thread that has neither returned nor been terminated.
    static constexpr std::uint32_t EXIT_CODE_RUNNING = 0xAAAAAAAAu;

    std::uint32_t m_ulCreatingThreadId = 0;
    Tessel::Platform::SYSTEMTIME m_creationTime{};  // UTC
    std::int32_t m_lStartLine = 0;
    std::string m_strStartFile;
    std::string m_strStartFunction;
    std::string m_strClassName;
    std::uint32_t m_ulState = CActiveObject::THREAD_STARTED;  // the last thread state
    Tessel::Platform::SYSTEMTIME m_stateTime{};               // UTC, of the last state change
    // Written by the worker when its function returns (or by a forced stop) while any thread
    // may read it: release and acquire, so that a reader that sees the code also sees what
    // the thread function did before it returned.
    std::atomic<std::uint32_t> m_ulExitCode{EXIT_CODE_RUNNING};
};
