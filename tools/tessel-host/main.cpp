// tessel-host: the sample host process.
//
// Publishes a simulated station feed as monitor elements, updates it from two worker threads
// (active objects) and prints the element table once a second, until SIGINT or SIGTERM (or the
// time given with --duration) ends it; then the workers stop, each within its bound, and the
// process exits cleanly.
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
#include "tessel/platform/Handle.h"
#include "tessel/threads/ActiveObject.h"

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

  protected:
    virtual void step(StationFeed& feed) = 0;

  private:
    static unsigned long run(void* self) {
        auto* worker = static_cast<FeedWorker*>(self);
        while (Tessel::Platform::WaitForSingleObject(worker->m_hStopEvent, worker->m_periodMs) ==
               Tessel::Platform::WAIT_TIMEOUT) {
            worker->step(worker->m_feed);
        }
        return 0;
    }

    StationFeed& m_feed;
    const unsigned int m_periodMs;
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
    std::cerr << "usage: tessel-host [--duration SECONDS]\n"
                 "Publishes a simulated station feed and prints the element table once a\n"
                 "second until SIGINT or SIGTERM, or for SECONDS seconds.\n";
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    long duration = -1;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--duration") == 0 && i + 1 < argc) {
            char* end = nullptr;
            duration = std::strtol(argv[++i], &end, 10);
            if (*end != '\0' || duration < 0) {
                return usage();
            }
        } else {
            return usage();
        }
    }

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
    std::cout << "Log files in " << dynamic_cast<VelkorLog&>(ILogging::getInstance()).getLogFolder()
              << ", configured by "
              << dynamic_cast<VelkorLog&>(ILogging::getInstance()).getConfigurationPath()
              << std::endl;

    {
        StationFeed feed("STA1");
        Receiver receiver(feed);
        Assessor assessor(feed);
        receiver.StartThread(__FILE__, __LINE__, "main", 0, nullptr, 0);
        assessor.StartThread(__FILE__, __LINE__, "main", 0, nullptr, 0);

        TablePrinter printer(std::cout);
        printer.setFilter("**");
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
            MonitorElementDatabase::getInstance().update(printer);
            if (duration >= 0 &&
                std::chrono::steady_clock::now() - started >= std::chrono::seconds(duration)) {
                break;
            }
        }
        // Each stop is bounded: the stop time-out, then 5 seconds, then the thread is ended.
        receiver.StopThread();
        assessor.StopThread();
    }
    ILogging::getInstance().log("tessel-host", ILogging::Info, "Stopped.");
    VelkorLog::stopConfigurationWatcher();
    return 0;
}
