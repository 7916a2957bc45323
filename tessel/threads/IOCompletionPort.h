// Tessel::CIOCompletionPort: the shared worker pool of a server process.
//
// An io_context, kept from running dry by a work guard, and a fixed set of threads that all
// run it. Users take the context with GetIoService and post work, arm timers or run sockets on
// it; handlers run concurrently on all pool threads, and the pool adds no serialisation.
//
// Size: the constructor's argument, or for 0 the registry value "ThreadPoolSize" under
// SOFTWARE\Tarvo Works\GPS Velkor, whose default is twice the processors this process may run
// on; a value of 0 gives a pool without threads. The threads start in the constructor, which
// logs their kernel thread ids ("ThreadPoolIds: 1201, 1202") at info level and, unless the
// database checker is disabled, offers each to the thread checker (CheckerUtilHandler).
//
// Stop: Shutdown stops the context (a thread leaves as soon as its present handler returns;
// queued work is not run any more) and joins the threads in order of creation, each bounded
// in stages: 10 s; then a warning, an interrupt (taking effect at the thread's next Boost.Thread
// interruption point) and 10 s more; then a second warning and a join without limit. After
// each thread the close handler set with SetCloseDatabaseHandler is called with its id, on
// the thread that runs Shutdown; without one, an error is logged per thread unless the
// database checker is disabled.
//
// Lifetime: the pool runs from construction to Shutdown, and cannot be paused or resized.
// After Shutdown it is spent; a second Shutdown stops the context again and finds no thread to
// join. The destructor calls Shutdown, then drops the work guard and the context. Copying is
// not for use.
//
// Thread safety: GetIoService and the context may be used from any thread. The constructor,
// Shutdown and the destructor belong to the owner's thread, which must not be a pool thread
// (it would join itself). The class-wide close handler and checker switch are not guarded:
// they are set once, before the first pool exists.
#pragma once

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/thread/thread.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "tessel/Export.h"

namespace Tessel {

class TESSEL_API CIOCompletionPort {
  public:
    // Starts threads threads, or for 0 as many as the sizing rule says.
    explicit CIOCompletionPort(std::size_t threads = 0);
    // Shutdown, then the work guard and the context go.
    virtual ~CIOCompletionPort();

    boost::asio::io_context& GetIoService();
    // Stops the context and joins every pool thread (see above); returns when all have ended.
    void Shutdown();

    // The handler that closes the database session of a pool thread, given its id; replaces a
    // former one. Set once, at the start of the application.
    static void SetCloseDatabaseHandler(std::function<void(long)> handler);
    // For applications whose pool threads use no database: no registration of threads, and no
    // complaint about a missing close handler. Called once, at the start of the application.
    static void disableDatabaseChecker();

  private:
    // An object with no threads and a fresh context; not for use.
    CIOCompletionPort(const CIOCompletionPort& other);
    CIOCompletionPort& operator=(const CIOCompletionPort&) = delete;

    // Starts one pool thread, appends it, and returns the kernel id that it published.
    std::uint32_t StartThread();

    std::uint64_t m_ullThreadCount;
    // In order of creation; empty after Shutdown.
    std::vector<std::shared_ptr<boost::thread>> m_threads;
    // The kernel thread id of each of m_threads, at the same index. A pthread_t does not tell
    // it, so each thread publishes its own before it runs the context.
    std::vector<std::uint32_t> m_threadIds;
    boost::asio::io_context m_ioContext;
    // Declared after the context, so that it goes first.
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> m_work;

    static std::function<void(long)> s_closeDatabaseHandler;
    static bool s_enableDatabaseChecker;
};

}  // namespace Tessel
