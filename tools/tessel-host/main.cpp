// tessel-host: the sample station server.
//
// Sets a host process up in the library's order (log and its configuration watcher, element
// table with the process metrics, monitor server on the station worker's port and on the
// machine's host info port), publishes a simulated station feed as monitor elements, updated
// from two worker threads (active objects), and serves it to operators over Telnet and to
// monitoring tools over HTTP until SIGINT or SIGTERM (or the time given with --duration) ends
// it; then the workers stop, each within its bound, the server closes and the process exits
// cleanly. With --print it also prints the station's elements once a second.
//
// Run by systemd as a service of type notify (tessel-host.service), it reports itself ready
// once the monitor ports listen, keeps a one-line status, feeds systemd's watchdog while the
// feed's receiver makes progress, and reports the stop on SIGTERM.
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <random>
#include <sstream>
#include <string>

#include "tessel/logging/ILogging.h"
#include "tessel/logging/TraceUtil.h"
#include "tessel/logging/VelkorLog.h"
#include "tessel/monitoring/MonitorElementContainer.h"
#include "tessel/monitoring/MonitorElementDatabase.h"
#include "tessel/monitoring/MonitorElementObserver.h"
#include "tessel/monitoring/TelnetServer.h"
#include "tessel/platform/ExecutableVersion.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/PendingDeletions.h"
#include "tessel/platform/Systemd.h"
#include "tessel/supervision/ExceptionHandlerVelkor.h"
#include "tessel/supervision/MiniDumpHelper.h"
#include "tessel/supervision/WatchdogClient.h"
#include "tessel/threads/ActiveObject.h"

// The file version that ProcessInfo/Stats/ApplicationVersionNumber shows.
TESSEL_EXECUTABLE_VERSION("0.1.0.1")

namespace {

// Renders every element that passes the filter as "path  value unit" lines.
class TablePrinter : public CMonitorElementObserver {
  public:
    explicit TablePrinter(std::ostream& out) : m_out(out) {}

    void beginUpdate() override { m_out << "--\n"; }
    void updateElement(CMonitorElement& element) override {
        m_out << std::left << std::setw(48);
        element.printIdentifier(m_out);
        m_out << std::right;
        element.printCounter(m_out);
        m_out << '\n';
    }
    void endUpdate() override { m_out.flush(); }

  private:
    std::ostream& m_out;
};

// The elements of one simulated reference station.
struct StationFeed {
    explicit StationFeed(const std::string& station)
        : container("Station/" + station),
          epochs(container.add("EpochsReceived", "")),
          expected(container.add("EpochsExpected", "")),
          bytes(container.add("BytesReceived", "B")),
          latency(container.add("Latency", "ms")),
          completeness(container.add("Completeness", "%")) {}

    CMonitorElementContainer container;
    CMonitorElement* epochs;
    CMonitorElement* expected;
    CMonitorElement* bytes;
    CMonitorElement* latency;
    CMonitorElement* completeness;
};

// A worker of the feed: runs step() every period until it is asked to stop. The wait on the
// stop event is the worker's only sleep, so a stop is noticed at once.
class FeedWorker : public CActiveObject {
  public:
    FeedWorker(const char* name, StationFeed& feed, unsigned int periodMs)
        : CActiveObject(name, &FeedWorker::run, this, 1000), m_feed(feed), m_periodMs(periodMs) {}
    ~FeedWorker() override { StopThread(); }

    // Whether a step ended within the last maxAge (true before the first period is over).
    bool progressing(std::chrono::steady_clock::duration maxAge) const {
        return std::chrono::steady_clock::now().time_since_epoch().count() -
                   m_lastStep.load(std::memory_order_relaxed) <=
               maxAge.count();
    }

    // From the given time on, the worker stops making progress (it waits for its stop only):
    // lets an operator try systemd's watchdog.
    void stallAfter(std::chrono::steady_clock::time_point when) {
        m_stallAt.store(when.time_since_epoch().count(), std::memory_order_relaxed);
    }

  protected:
    virtual void step(StationFeed& feed) = 0;

  private:
    static unsigned long run(void* self) {
        auto* worker = static_cast<FeedWorker*>(self);
        while (Tessel::Platform::WaitForSingleObject(worker->m_hStopEvent, worker->m_periodMs) ==
               Tessel::Platform::WAIT_TIMEOUT) {
            const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
            if (now >= worker->m_stallAt.load(std::memory_order_relaxed)) {
                Tessel::Platform::WaitForSingleObject(worker->m_hStopEvent,
                                                      Tessel::Platform::INFINITE);
                break;
            }
            worker->step(worker->m_feed);
            worker->m_lastStep.store(now, std::memory_order_relaxed);
        }
        return 0;
    }

    StationFeed& m_feed;
    const unsigned int m_periodMs;
    // Steady-clock ticks of the last step's start, and of the stall. Relaxed: each is one
    // value read on its own, publishing nothing else.
    std::atomic<std::chrono::steady_clock::rep> m_lastStep{
        std::chrono::steady_clock::now().time_since_epoch().count()};
    std::atomic<std::chrono::steady_clock::rep> m_stallAt{
        std::chrono::steady_clock::time_point::max().time_since_epoch().count()};
};

// Receives an epoch every 100 ms, of which about one in fifty is lost.
class Receiver : public FeedWorker {
  public:
    explicit Receiver(StationFeed& feed) : FeedWorker("Receiver", feed, 100) {}
    ~Receiver() override { StopThread(); }

  private:
    void step(StationFeed& feed) override {
        feed.expected->increment(1);
        if (m_loss(m_random) != 0) {
            ++*feed.epochs;
            feed.bytes->increment(static_cast<std::uint64_t>(m_size(m_random)));
        }
    }

    std::mt19937 m_random{1};
    std::uniform_int_distribution<int> m_size{200, 400};
    std::uniform_int_distribution<int> m_loss{0, 49};
};

// Measures latency and completeness every 250 ms.
class Assessor : public FeedWorker {
  public:
    explicit Assessor(StationFeed& feed) : FeedWorker("Assessor", feed, 250) {}
    ~Assessor() override { StopThread(); }

  private:
    void step(StationFeed& feed) override {
        feed.latency->set(std::max(0.0, m_latency(m_random)));
        feed.completeness->setRatio(feed.epochs->get(), feed.expected->get());
    }

    std::mt19937 m_random{2};
    std::normal_distribution<double> m_latency{45.0, 8.0};
};

int usage() {
    std::cerr << "usage: tessel-host [--duration SECONDS] [--port PORT] [--host-info-port PORT]\n"
                 "                   [--print] [--stall-after SECONDS]\n"
                 "Serves a simulated station feed over Telnet and HTTP on the station worker's\n"
                 "monitor port (default: registry value StationWorkerPort, else 9801) and on\n"
                 "the host info port (HostInfoPort, else 9800; 0: none) until SIGINT or SIGTERM,\n"
                 "or for SECONDS seconds. --print prints the station's elements every second.\n"
                 "--stall-after stops the feed's progress after SECONDS, so that systemd's\n"
                 "watchdog (WatchdogSec=) can be seen to end and restart the process.\n";
    return 2;
}

// The one-line status that systemd shows.
std::string summary(const StationFeed& feed, long port) {
    std::ostringstream text;
    text << "Station STA1: " << static_cast<long long>(feed.epochs->get()) << " of "
         << static_cast<long long>(feed.expected->get()) << " epochs, latency " << std::fixed
         << std::setprecision(1) << feed.latency->get() << " ms; monitor port " << port;
    return text.str();
}

// A whole non-negative number, or -1.
long number(const char* text) {
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    return (*text == '\0' || *end != '\0' || value < 0) ? -1 : value;
}

}  // namespace

int main(int argc, char** argv) {
    long duration = -1;
    long port = -1;
    long hostInfoPort = -1;
    bool print = false;
    long stallAfter = -1;
    for (int i = 1; i < argc; ++i) {
        const bool hasValue = i + 1 < argc;
        if (std::strcmp(argv[i], "--duration") == 0 && hasValue) {
            if ((duration = number(argv[++i])) < 0) {
                return usage();
            }
        } else if (std::strcmp(argv[i], "--port") == 0 && hasValue) {
            if ((port = number(argv[++i])) < 0) {
                return usage();
            }
        } else if (std::strcmp(argv[i], "--host-info-port") == 0 && hasValue) {
            if ((hostInfoPort = number(argv[++i])) < 0) {
                return usage();
            }
        } else if (std::strcmp(argv[i], "--stall-after") == 0 && hasValue) {
            if ((stallAfter = number(argv[++i])) < 0) {
                return usage();
            }
        } else if (std::strcmp(argv[i], "--print") == 0) {
            print = true;
        } else {
            return usage();
        }
    }

    // First of all the crash handlers: a fault from here on ends in the two dump files of the
    // temp directory and a log line.
    custom_minidump::MiniDumpHelper crashDumps;
    CExceptionHandlerVelkor::ActivateExceptionHandlers();

    // The signals are taken by this thread alone, with sigtimedwait.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    char name[256];
    CTraceUtil::GetExeName(name, sizeof name);
    VelkorLog::init(name, false);
    VelkorLog::startConfigurationWatcher();
    MonitorElementDatabase::init(name);
    ILogging::getInstance().log("tessel-host", ILogging::Info, "Started.");
    // Files marked for deletion at the next start of the machine go now, after a reboot.
    const int deleted = Tessel::Platform::ProcessPendingDeletions();
    if (deleted > 0) {
        ILogging::getInstance().log(
            "tessel-host", ILogging::Info,
            "Deleted " + std::to_string(deleted) + " files marked for deletion at reboot.");
    }
    std::cout << "Log files in " << dynamic_cast<VelkorLog&>(ILogging::getInstance()).getLogFolder()
              << ", configured by "
              << dynamic_cast<VelkorLog&>(ILogging::getInstance()).getConfigurationPath()
              << std::endl;

    // The watchdog, when its program is installed, supervises the process from here on.
    CWatchdogClient watchdog;
    if (watchdog.CreateWatchdog(0, 10000, 60000, 0) == 0) {
        ILogging::getInstance().log("tessel-host", ILogging::Info,
                                    "No watchdog: running unsupervised.");
    }

    if (port < 0) {
        port = CTelnetServer::getPort(StationWorkerPort, 0);
    }
    if (hostInfoPort < 0) {
        hostInfoPort = CTelnetServer::getPort(HostInfoPort, 0);
    }
    CTelnetServer server(static_cast<int>(port), static_cast<int>(hostInfoPort));
    try {
        server.start();
    } catch (const std::exception& e) {
        ILogging::getInstance().log("tessel-host", ILogging::Error,
                                    std::string("Monitor server not started: ") + e.what());
        std::cerr << "tessel-host: monitor server not started: " << e.what() << std::endl;
        VelkorLog::stopConfigurationWatcher();
        return 1;
    }
    std::cout << "Monitor server on port " << port << ", host info port " << hostInfoPort
              << " (telnet localhost " << port << ", or curl 'http://localhost:" << port
              << "/?filter=**&format=json')" << std::endl;

    {
        StationFeed feed("STA1");
        Receiver receiver(feed);
        Assessor assessor(feed);
        if (stallAfter >= 0) {
            receiver.stallAfter(std::chrono::steady_clock::now() +
                                std::chrono::seconds(stallAfter));
        }
        receiver.StartThread(__FILE__, __LINE__, "main", 0, nullptr, 0);
        assessor.StartThread(__FILE__, __LINE__, "main", 0, nullptr, 0);
        Tessel::Systemd::notifyReady(summary(feed, port));
        // systemd's watchdog is fed while the receiver has stepped within the interval (and
        // at least its own period of 100 ms several times over).
        const auto allowed = std::max<std::chrono::steady_clock::duration>(
            Tessel::Systemd::watchdogInterval(), std::chrono::seconds(1));
        Tessel::Systemd::Watchdog systemdWatchdog(
            [&receiver, allowed] { return receiver.progressing(allowed); });

        TablePrinter printer(std::cout);
        printer.setFilter("**station**");
        const auto started = std::chrono::steady_clock::now();
        const timespec second{1, 0};
        while (true) {
            const int signal = sigtimedwait(&stopSignals, nullptr, &second);
            if (signal == SIGINT || signal == SIGTERM) {
                ILogging::getInstance().log("tessel-host", ILogging::Info,
                                            signal == SIGINT ? "SIGINT received, stopping."
                                                             : "SIGTERM received, stopping.");
                break;
            }
            if (print) {
                MonitorElementDatabase::getInstance().update(printer);
            }
            Tessel::Systemd::notifyStatus(summary(feed, port));
            if (duration >= 0 &&
                std::chrono::steady_clock::now() - started >= std::chrono::seconds(duration)) {
                break;
            }
        }
        Tessel::Systemd::notifyStopping();
        // Each stop is bounded: the stop time-out, then 5 seconds, then the thread is ended.
        receiver.StopThread();
        assessor.StopThread();
    }
    ILogging::getInstance().log("tessel-host", ILogging::Info, "Stopped.");
    VelkorLog::stopConfigurationWatcher();
    return 0;
}
