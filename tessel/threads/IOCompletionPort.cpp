#include "tessel/threads/IOCompletionPort.h"

#include <fmt/format.h>

#include <boost/chrono.hpp>
#include <cstdarg>
#include <future>
#include <string>
#include <utility>

#include "tessel/host/Registry.h"
#include "tessel/logging/ILogging.h"
#include "tessel/logging/TraceUtil.h"
#include "tessel/platform/CheckedPrint.h"
#include "tessel/platform/CrashHandling.h"
#include "tessel/platform/Process.h"
#include "tessel/threads/CheckerUtilHandler.h"

namespace Tessel {

namespace {

// Each of the two bounded waits for a pool thread in Shutdown.
constexpr long kJoinTimeoutMs = 10000;

// Prints by a format made at run time, the message template of Shutdown, whose remaining
// conversions are a long and a text. The compiler cannot check such a format, so the
// arguments go through a va_list.
std::string printByTemplate(const char* format, ...) {
    char text[4096];
    std::va_list arguments;
    va_start(arguments, format);
    Platform::_vsnprintf_s(text, sizeof text, Platform::_TRUNCATE, format, arguments);
    va_end(arguments);
    return text;
}

bool joinWithinTimeout(boost::thread& thread) {
    return thread.try_join_until(boost::chrono::steady_clock::now() +
                                 boost::chrono::milliseconds(kJoinTimeoutMs));
}

}  // namespace

std::function<void(long)> CIOCompletionPort::s_closeDatabaseHandler;
bool CIOCompletionPort::s_enableDatabaseChecker = true;

CIOCompletionPort::CIOCompletionPort(std::size_t threads)
    : m_ullThreadCount(threads), m_work(boost::asio::make_work_guard(m_ioContext)) {
    if (m_ullThreadCount == 0) {
        const long processors = static_cast<long>(Platform::GetNumberOfUsableProcessors());
        const long size = REG::GetLong("SOFTWARE\\Tarvo Works\\GPS Velkor", "ThreadPoolSize",
                                       2 * processors, false);
        m_ullThreadCount = static_cast<std::uint64_t>(static_cast<std::int64_t>(size));
    }

    CheckerUtilHandler checker;
    std::string ids;
    try {
        for (std::uint64_t i = 0; i < m_ullThreadCount; ++i) {
            const std::uint32_t id = StartThread();
            ids += i == 0 ? "ThreadPoolIds: " : ", ";
            ids += std::to_string(id);
            if (s_enableDatabaseChecker) {
                checker.AddThreadInfo(id);
            }
        }
    } catch (...) {
        // No thread may outlive the context that it runs: those started are stopped and
        // joined before the exception leaves. No work has been posted yet.
        m_ioContext.stop();
        for (const auto& thread : m_threads) {
            if (thread) {
                thread->join();
            }
        }
        throw;
    }
    ILogging::getInstance().log("Tessel::CIOCompletionPort::CIOCompletionPort", ILogging::Info,
                                fmt::format("{}", ids));
}

CIOCompletionPort::CIOCompletionPort(const CIOCompletionPort& /*other*/)
    : m_ullThreadCount(0), m_work(boost::asio::make_work_guard(m_ioContext)) {}

CIOCompletionPort::~CIOCompletionPort() {
    Shutdown();
    m_work.reset();
}

std::uint32_t CIOCompletionPort::StartThread() {
    // The thread tells its kernel id before it runs the context; the promise is shared, since
    // boost::thread copies the function that it runs.
    auto published = std::make_shared<std::promise<std::uint32_t>>();
    std::future<std::uint32_t> id = published->get_future();
    m_threads.emplace_back();  // a failed start leaves a null entry, skipped on the way out
    m_threads.back() = std::make_shared<boost::thread>([this, published] {
        Platform::EnsureAlternateSignalStack();
        published->set_value(Platform::GetCurrentThreadId());
        m_ioContext.run();
    });
    m_threadIds.push_back(id.get());
    return m_threadIds.back();
}

boost::asio::io_context& CIOCompletionPort::GetIoService() {
    return m_ioContext;
}

void CIOCompletionPort::Shutdown() {
    const char* const scope = "Tessel::CIOCompletionPort::Shutdown";
    ILogging& logging = ILogging::getInstance();
    logging.log(scope, ILogging::Trace, logging.shouldLogLevel(ILogging::Trace) ? "Shutdown" : "");
    m_ioContext.stop();

    char exeName[2048] = {};
    CTraceUtil::GetExeName(exeName, sizeof exeName);
    char messageTemplate[4096];
    Platform::_snprintf_s(messageTemplate, sizeof messageTemplate, Platform::_TRUNCATE,
                          "CIOCompletionPort(%s, %ld) Worker Thread(Id[%%ld]) %%s within timeout "
                          "%ld",
                          exeName, static_cast<long>(Platform::GetCurrentThreadId()),
                          kJoinTimeoutMs);
    CheckerUtilHandler checker;

    for (std::size_t i = 0; i < m_threads.size(); ++i) {
        boost::thread& thread = *m_threads[i];
        const long id = static_cast<long>(m_threadIds[i]);
        if (!joinWithinTimeout(thread)) {
            logging.log(scope, ILogging::Warn,
                        printByTemplate(messageTemplate, id, "did not stop"));
            thread.interrupt();
            if (!joinWithinTimeout(thread)) {
                logging.log(scope, ILogging::Warn,
                            printByTemplate(messageTemplate, id,
                                            "was interrupted, but did not stop -> wait till "
                                            "finished (infinite)"));
                thread.join();
            }
        }
        if (s_closeDatabaseHandler) {
            s_closeDatabaseHandler(id);
        } else if (s_enableDatabaseChecker) {
            logging.log(scope, ILogging::Error,
                        "closeDatabaseHandler was not set for this application. Make sure "
                        "Tessel::CIOCompletionPort::SetCloseDatabaseHandler is called at startup "
                        "of your application.");
        }
    }
    m_threads.clear();
    m_threadIds.clear();
}

void CIOCompletionPort::SetCloseDatabaseHandler(std::function<void(long)> handler) {
    s_closeDatabaseHandler = std::move(handler);
}

void CIOCompletionPort::disableDatabaseChecker() {
    s_enableDatabaseChecker = false;
}

}  // namespace Tessel
