// The telephony functions over AT modems.
//
// One table holds the applications, lines and calls by handle. An application owns its
// message queue and the waitable object behind its event; a line owns its tty, a wake-up
// eventfd and the thread that talks to the modem; a line's call is a part of the line. The
// functions find their object under the table's lock and work on it after releasing that
// lock, so that no one waits for a modem while holding it. Lock order: table, then line,
// then application queue; the line's thread takes only the last two.
#include "tessel/platform/Telephony.h"

#include <fcntl.h>
#include <poll.h>
#include <strings.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tessel/platform/File.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/Modems.h"
#include "tessel/platform/detail/FileObject.h"
#include "tessel/platform/detail/KernelObject.h"

namespace Tessel::Platform {
namespace {

using Clock = std::chrono::steady_clock;

constexpr DWORD kLowestVersion = 0x00010003;
constexpr DWORD kHighestVersion = 0x00020002;
constexpr DWORD kLowestInitVersion = 0x00020000;

// Time limits of the dialogue with the modem, in milliseconds.
constexpr int kInitReplyMs = 5000;   // "OK" to ATE0V1
constexpr int kAbortReplyMs = 2000;  // the result line of a dial aborted by a CR
constexpr int kDtrDropMs = 500;      // DTR low to hang up
constexpr int kGuardMs = 1000;       // silence around "+++"
constexpr int kEscapeReplyMs = 2000;
constexpr int kHangUpReplyMs = 2000;

constexpr std::size_t kMaxDialString = 120;
constexpr std::size_t kMaxResultLine = 256;

const char kProviderInfo[] = "Tessel AT modem";
// NUL-separated, ending in two NULs (the second is the array's own).
const char kDeviceClasses[] = "comm\0comm/datamodem\0comm/datamodem/portname\0tapi/line\0";
const char kDataModemClass[] = "comm/datamodem";
const char kPortNameClass[] = "comm/datamodem/portname";

// The application's event: signalled exactly while its queue holds a message, and for good
// once the application is shut down. Its eventfd is readable exactly while it is signalled,
// so that a wait polls it directly; the state changes under the queue's lock.
class QueueEvent final : public Waitable {
  public:
    explicit QueueEvent(int fd) : Waitable(Kind::Other), m_fd(fd) {}
    ~QueueEvent() override { ::close(m_fd); }

    Acquire tryAcquire(WaitRecord* /*record*/) override {
        return m_signalled.load(std::memory_order_acquire) ? Acquire::Taken : Acquire::None;
    }
    void undoAcquire(Acquire /*how*/, WaitRecord* /*record*/) override {}
    bool looksSignalled(const WaitRecord* /*record*/) const override {
        return m_signalled.load(std::memory_order_acquire);
    }
    int pollFd() const override { return m_fd; }

    // Called under the queue's lock only.
    void signal(bool on) {
        if (on == m_signalled.load(std::memory_order_relaxed)) {
            return;
        }
        std::uint64_t value = 1;
        if (on) {
            while (::write(m_fd, &value, sizeof value) < 0 && errno == EINTR) {
            }
        } else {
            while (::read(m_fd, &value, sizeof value) < 0 && errno == EINTR) {
            }
        }
        // Release: a waiter that sees the signal sees the message that raised it.
        m_signalled.store(on, std::memory_order_release);
    }

  private:
    const int m_fd;
    std::atomic<bool> m_signalled{false};
};

class App {
  public:
    App(std::vector<ModemDevice> modems, QueueEvent* event, HANDLE handle)
        : devices(std::move(modems)), eventHandle(handle), m_event(event) {}
    ~App() { m_event->release(); }
    App(const App&) = delete;
    App& operator=(const App&) = delete;

    void post(const LINEMESSAGE& message) {
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_shutDown) {
            return;
        }
        m_queue.push_back(message);
        m_event->signal(true);
        m_arrived.notify_all();
    }

    LONG get(LINEMESSAGE& message, DWORD timeoutMs) {
        std::unique_lock<std::mutex> lock(m_lock);
        const auto ready = [this] { return !m_queue.empty() || m_shutDown; };
        if (timeoutMs == INFINITE) {
            m_arrived.wait(lock, ready);
        } else {
            m_arrived.wait_for(lock, std::chrono::milliseconds(timeoutMs), ready);
        }
        if (m_shutDown) {
            return LINEERR_INVALAPPHANDLE;
        }
        if (m_queue.empty()) {
            return LINEERR_OPERATIONFAILED;
        }
        message = m_queue.front();
        m_queue.pop_front();
        if (m_queue.empty()) {
            m_event->signal(false);
        }
        return 0;
    }

    void shutDown() {
        std::lock_guard<std::mutex> guard(m_lock);
        m_shutDown = true;
        m_queue.clear();
        m_event->signal(true);
        m_arrived.notify_all();
    }

    const std::vector<ModemDevice> devices;
    const HANDLE eventHandle;

  private:
    QueueEvent* const m_event;  // one reference of its own
    std::mutex m_lock;
    std::condition_variable m_arrived;
    std::deque<LINEMESSAGE> m_queue;  // guarded by m_lock
    bool m_shutDown = false;          // guarded by m_lock
};

// What a result line of the modem says.
enum class Result { None, Ok, Connect, Busy, NoDialtone, NoAnswer, NoCarrier, Error };

Result resultOf(std::string line) {
    while (!line.empty() && (line.back() == ' ' || line.back() == '\t')) {
        line.pop_back();
    }
    const std::size_t start = line.find_first_not_of(" \t");
    line.erase(0, start == std::string::npos ? line.size() : start);
    if (line == "OK") {
        return Result::Ok;
    }
    if (line.rfind("CONNECT", 0) == 0) {
        return Result::Connect;
    }
    if (line == "BUSY") {
        return Result::Busy;
    }
    if (line == "NO DIALTONE" || line == "NO DIAL TONE") {
        return Result::NoDialtone;
    }
    if (line == "NO ANSWER") {
        return Result::NoAnswer;
    }
    if (line == "NO CARRIER") {
        return Result::NoCarrier;
    }
    if (line == "ERROR") {
        return Result::Error;
    }
    return Result::None;
}

// The termios speed of bits per second; B0 for one that termios does not know.
speed_t speedOf(unsigned bitsPerSecond) {
    static const std::pair<unsigned, speed_t> kSpeeds[] = {
        {300, B300},         {600, B600},         {1200, B1200},       {2400, B2400},
        {4800, B4800},       {9600, B9600},       {19200, B19200},     {38400, B38400},
        {57600, B57600},     {115200, B115200},   {230400, B230400},   {460800, B460800},
        {500000, B500000},   {576000, B576000},   {921600, B921600},   {1000000, B1000000},
        {1152000, B1152000}, {1500000, B1500000}, {2000000, B2000000}, {2500000, B2500000},
        {3000000, B3000000}, {3500000, B3500000}, {4000000, B4000000},
    };
    for (const auto& [bits, speed] : kSpeeds) {
        if (bits == bitsPerSecond) {
            return speed;
        }
    }
    return B0;
}

void sleepMs(int ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

SYSTEMTIME now() {
    SYSTEMTIME time{};
    GetLocalTime(&time);
    return time;
}

class Line {
  public:
    Line(std::shared_ptr<App> owner, HLINEAPP ownerHandle, HLINE lineHandle, DWORD deviceId,
         DWORD_PTR instance, int fd, int wakeFd)
        : app(std::move(owner)),
          appHandle(ownerHandle),
          handle(lineHandle),
          m_device(app->devices[deviceId]),
          m_instance(instance),
          m_wakeFd(wakeFd),
          m_fd(fd) {}
    ~Line() {
        if (m_thread.joinable()) {
            close();
        }
        ::close(m_wakeFd);
    }
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;

    void start() {
        m_thread = std::thread([this] { run(); });
    }

    // Ends the thread, dropping a call that stands, and closes the tty.
    void close() {
        {
            std::lock_guard<std::mutex> guard(m_lock);
            m_closing = true;
            wake();
        }
        if (m_thread.joinable()) {
            m_thread.join();
        }
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_fd >= 0) {
            ::close(m_fd);
            m_fd = -1;
        }
    }

    LONG makeCall(HCALL call, LONG request, std::string number) {
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_call != 0) {
            return LINEERR_CALLUNAVAIL;
        }
        m_call = call;
        m_phase = Phase::Init;
        m_state = LINECALLSTATE_UNKNOWN;
        m_mode = 0;
        m_entered = now();
        m_dial = Dial{request, std::move(number)};
        wake();
        return request;
    }

    LONG drop(HCALL call, LONG request) {
        std::lock_guard<std::mutex> guard(m_lock);
        if (call != m_call) {
            return LINEERR_INVALCALLHANDLE;
        }
        if (m_state == LINECALLSTATE_IDLE) {
            return LINEERR_INVALCALLSTATE;
        }
        if (m_phase == Phase::Over) {
            postReplyLocked(request, 0);
            setStateLocked(LINECALLSTATE_IDLE, 0, true);
            m_phase = Phase::Idle;
            return request;
        }
        m_drops.push_back(request);
        wake();
        return request;
    }

    LONG status(HCALL call, LINECALLSTATUS& status) {
        std::lock_guard<std::mutex> guard(m_lock);
        if (call != m_call) {
            return LINEERR_INVALCALLHANDLE;
        }
        status.dwCallState = m_state;
        status.dwCallStateMode = m_mode;
        status.dwCallPrivilege = LINECALLPRIVILEGE_OWNER;
        status.tStateEntryTime = m_entered;
        return 0;
    }

    // Drops the call if it stands, waits until the modem is back on hook, and forgets it.
    LONG deallocate(HCALL call) {
        std::unique_lock<std::mutex> lock(m_lock);
        if (call != m_call) {
            return LINEERR_INVALCALLHANDLE;
        }
        if (standingLocked()) {
            m_silentDrop = true;
            wake();
            m_changed.wait(lock, [this] { return !standingLocked() || m_threadEnded; });
        }
        // Drops asked meanwhile are answered; the call's messages end here.
        for (const LONG request : m_drops) {
            postReplyLocked(request, 0);
        }
        m_drops.clear();
        m_silentDrop = false;
        m_dial.reset();
        m_call = 0;
        m_phase = Phase::None;
        m_state = 0;
        return 0;
    }

    // A descriptor of the tty of its own, or -1.
    int duplicateTty() {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_fd >= 0 ? ::fcntl(m_fd, F_DUPFD_CLOEXEC, 0) : -1;
    }

    const std::string& deviceNode() const { return m_device.device; }

    const std::shared_ptr<App> app;
    const HLINEAPP appHandle;
    const HLINE handle;

  private:
    // Where the call is. Init, Dialing and Connected stand: the thread works on them.
    enum class Phase { None, Init, Dialing, Connected, Over, Idle };

    struct Dial {
        LONG request;
        std::string number;
    };

    // How a wait for a result line ended.
    enum class Outcome { Line, Timeout, Interrupted, Failed };

    bool standingLocked() const {
        return m_phase == Phase::Init || m_phase == Phase::Dialing || m_phase == Phase::Connected;
    }
    // A drop, a deallocation or the close waits for the thread.
    bool interruptedLocked() const { return m_closing || m_silentDrop || !m_drops.empty(); }

    void wake() {
        const std::uint64_t one = 1;
        while (::write(m_wakeFd, &one, sizeof one) < 0 && errno == EINTR) {
        }
    }
    void drainWake() {
        std::uint64_t value;
        while (::read(m_wakeFd, &value, sizeof value) < 0 && errno == EINTR) {
        }
    }

    void postLocked(DWORD message, DWORD_PTR param1, DWORD_PTR param2) {
        app->post(
            LINEMESSAGE{m_call != 0 ? m_call : handle, message, m_instance, param1, param2, 0});
    }
    void postReplyLocked(LONG request, LONG result) {
        postLocked(LINE_REPLY, static_cast<DWORD_PTR>(request),
                   static_cast<DWORD_PTR>(static_cast<DWORD>(result)));
    }
    void setStateLocked(DWORD state, DWORD mode, bool post) {
        m_state = state;
        m_mode = mode;
        m_entered = now();
        if (post) {
            postLocked(LINE_CALLSTATE, state, mode);
        }
        m_changed.notify_all();
    }
    void setState(DWORD state, DWORD mode, Phase phase) {
        std::lock_guard<std::mutex> guard(m_lock);
        m_phase = phase;
        setStateLocked(state, mode, true);
    }

    // Answers the drops that wait and leaves the call idle: with LINECALLSTATE_IDLE where a
    // drop asked, silently for a deallocation or the close.
    void finishDropLocked() {
        const bool asked = !m_drops.empty();
        for (const LONG request : m_drops) {
            postReplyLocked(request, 0);
        }
        m_drops.clear();
        m_silentDrop = false;
        m_phase = Phase::Idle;
        setStateLocked(LINECALLSTATE_IDLE, 0, asked);
    }

    void run() {
        for (;;) {
            std::unique_lock<std::mutex> lock(m_lock);
            if (m_phase == Phase::Connected && interruptedLocked()) {
                lock.unlock();
                hangUpConnected();
                lock.lock();
                finishDropLocked();
                continue;
            }
            if (m_closing) {
                m_threadEnded = true;
                m_changed.notify_all();
                return;
            }
            if (m_dial) {
                Dial dial = std::move(*m_dial);
                m_dial.reset();
                lock.unlock();
                dialogue(dial);
                continue;
            }
            if (!standingLocked() && (m_silentDrop || !m_drops.empty())) {
                finishDropLocked();
                continue;
            }
            const bool connected = m_phase == Phase::Connected;
            lock.unlock();
            if (connected) {
                watchConnected();
            } else {
                pollfd wake{m_wakeFd, POLLIN, 0};
                while (::poll(&wake, 1, -1) < 0 && errno == EINTR) {
                }
                drainWake();
            }
        }
    }

    // The AT dialogue of one call, up to its connection or its end.
    void dialogue(const Dial& dial) {
        bool replied = false;
        const auto reply = [&] {
            if (!replied) {
                postReplyLocked(dial.request, 0);
                replied = true;
            }
        };
        const auto fail = [&] {
            std::lock_guard<std::mutex> guard(m_lock);
            reply();
            m_phase = Phase::Over;
            setStateLocked(LINECALLSTATE_DISCONNECTED, LINEDISCONNECTMODE_UNAVAIL, true);
        };
        // A drop, a deallocation or the close: a dial under way is aborted by a CR, whose
        // result line the modem sends before it takes commands again.
        const auto interrupt = [&](bool dialling) {
            if (dialling && writeAll("\r")) {
                std::string line;
                awaitResult(kAbortReplyMs, false, true, line);
            }
            std::lock_guard<std::mutex> guard(m_lock);
            reply();
            finishDropLocked();
        };

        {
            std::lock_guard<std::mutex> guard(m_lock);
            if (interruptedLocked()) {
                reply();
                finishDropLocked();
                return;
            }
        }
        m_line.clear();
        ::tcflush(m_fd, TCIFLUSH);
        std::string line;
        if (!writeAll("ATE0V1\r")) {
            fail();
            return;
        }
        Outcome outcome = awaitResult(kInitReplyMs, true, true, line);
        if (outcome == Outcome::Interrupted) {
            interrupt(false);
            return;
        }
        if (outcome != Outcome::Line || resultOf(line) != Result::Ok) {
            fail();
            return;
        }
        {
            std::lock_guard<std::mutex> guard(m_lock);
            reply();
        }
        if (!writeAll("ATDT" + dial.number + "\r")) {
            fail();
            return;
        }
        setState(LINECALLSTATE_DIALING, 0, Phase::Dialing);
        outcome = awaitResult(-1, true, false, line);
        if (outcome == Outcome::Interrupted) {
            interrupt(true);
            return;
        }
        if (outcome != Outcome::Line) {
            fail();
            return;
        }
        switch (resultOf(line)) {
            case Result::Connect: {
                int bits = 0;
                m_watchCarrier = ::ioctl(m_fd, TIOCMGET, &bits) == 0 && (bits & TIOCM_CAR) != 0;
                setState(LINECALLSTATE_CONNECTED, 0, Phase::Connected);
                break;
            }
            case Result::Busy:
                setState(LINECALLSTATE_BUSY, LINEBUSYMODE_UNKNOWN, Phase::Over);
                break;
            case Result::NoDialtone:
                setState(LINECALLSTATE_DISCONNECTED, LINEDISCONNECTMODE_NODIALTONE, Phase::Over);
                break;
            case Result::NoAnswer:
                setState(LINECALLSTATE_DISCONNECTED, LINEDISCONNECTMODE_NOANSWER, Phase::Over);
                break;
            case Result::NoCarrier:
                setState(LINECALLSTATE_DISCONNECTED, LINEDISCONNECTMODE_UNREACHABLE, Phase::Over);
                break;
            default:  // ERROR
                setState(LINECALLSTATE_DISCONNECTED, LINEDISCONNECTMODE_BADADDRESS, Phase::Over);
                break;
        }
    }

    // Waits up to timeoutMs (-1: without a limit) for a result line: with anyResult for any,
    // else for one that ends a dial (not OK). With interruptible, a drop, a deallocation or
    // the close ends the wait. Reads one byte at a time, so that nothing behind the line is
    // taken from the tty.
    Outcome awaitResult(int timeoutMs, bool interruptible, bool anyResult, std::string& line) {
        const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
        for (;;) {
            if (interruptible) {
                std::lock_guard<std::mutex> guard(m_lock);
                if (interruptedLocked()) {
                    return Outcome::Interrupted;
                }
            }
            int left = -1;
            if (timeoutMs >= 0) {
                const auto rest =
                    std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
                if (rest.count() <= 0) {
                    return Outcome::Timeout;
                }
                left = static_cast<int>(rest.count());
            }
            pollfd fds[2] = {{m_fd, POLLIN, 0}, {m_wakeFd, POLLIN, 0}};
            if (::poll(fds, 2, left) < 0) {
                if (errno == EINTR) {
                    continue;
                }
                return Outcome::Failed;
            }
            if ((fds[1].revents & POLLIN) != 0) {
                drainWake();
            }
            if ((fds[0].revents & POLLIN) != 0) {
                char c;
                const ssize_t n = ::read(m_fd, &c, 1);
                if (n == 0 || (n < 0 && errno != EINTR && errno != EAGAIN)) {
                    return Outcome::Failed;
                }
                if (n == 1 && c == '\n') {
                    line = std::move(m_line);
                    m_line.clear();
                    const Result result = resultOf(line);
                    if (result != Result::None && (anyResult || result != Result::Ok)) {
                        return Outcome::Line;
                    }
                } else if (n == 1 && c != '\r' && m_line.size() < kMaxResultLine) {
                    m_line += c;
                }
            } else if ((fds[0].revents & (POLLHUP | POLLERR | POLLNVAL)) != 0) {
                return Outcome::Failed;
            }
        }
    }

    bool writeAll(const std::string& text) {
        std::size_t done = 0;
        while (done < text.size()) {
            const ssize_t n = ::write(m_fd, text.data() + done, text.size() - done);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                return false;
            }
            done += static_cast<std::size_t>(n);
        }
        return true;
    }

    // Hangs a connected call up: DTR low for a while or, where the tty cannot do that, the
    // escape to command mode and ATH0.
    void hangUpConnected() {
        int dtr = TIOCM_DTR;
        if (::ioctl(m_fd, TIOCMBIC, &dtr) == 0) {
            sleepMs(kDtrDropMs);
            ::ioctl(m_fd, TIOCMBIS, &dtr);
            return;
        }
        std::string line;
        m_line.clear();
        sleepMs(kGuardMs);
        if (!writeAll("+++")) {
            return;
        }
        // The modem answers OK once its own guard time has passed.
        if (awaitResult(kGuardMs + kEscapeReplyMs, false, true, line) == Outcome::Failed) {
            return;
        }
        if (writeAll("ATH0\r")) {
            awaitResult(kHangUpReplyMs, false, true, line);
        }
    }

    // Sleeps until the thread is woken or the connection is lost.
    void watchConnected() {
        pollfd fds[2] = {{m_fd, 0, 0}, {m_wakeFd, POLLIN, 0}};
        const int carrierCheckMs = 250;
        if (::poll(fds, 2, m_watchCarrier ? carrierCheckMs : -1) < 0) {
            return;
        }
        if ((fds[1].revents & POLLIN) != 0) {
            drainWake();
        }
        bool lost = (fds[0].revents & (POLLHUP | POLLERR | POLLNVAL)) != 0;
        int bits = 0;
        if (!lost && m_watchCarrier && ::ioctl(m_fd, TIOCMGET, &bits) == 0) {
            lost = (bits & TIOCM_CAR) == 0;
        }
        if (lost) {
            std::lock_guard<std::mutex> guard(m_lock);
            if (m_phase == Phase::Connected) {
                m_phase = Phase::Over;
                setStateLocked(LINECALLSTATE_DISCONNECTED, LINEDISCONNECTMODE_NORMAL, true);
            }
        }
    }

    const ModemDevice m_device;
    const DWORD_PTR m_instance;
    const int m_wakeFd;  // written to wake the thread
    std::thread m_thread;

    // Used by the thread only: the result line read so far, and whether the carrier of the
    // connected call is watched.
    std::string m_line;
    bool m_watchCarrier = false;

    std::mutex m_lock;
    std::condition_variable m_changed;  // the call's state changed, or the thread ended
    // Guarded by m_lock. The thread uses m_fd without it; close() joins the thread first.
    int m_fd;
    bool m_closing = false;
    bool m_threadEnded = false;
    std::optional<Dial> m_dial;
    std::vector<LONG> m_drops;
    bool m_silentDrop = false;
    HCALL m_call = 0;
    Phase m_phase = Phase::None;
    DWORD m_state = 0;
    DWORD m_mode = 0;
    SYSTEMTIME m_entered{};
};

// The applications, lines and calls. Never destroyed: lines may still run at exit.
struct Table {
    std::mutex lock;
    DWORD nextHandle = 0x00010001;
    LONG nextRequest = 1;
    std::map<HLINEAPP, std::shared_ptr<App>> apps;
    std::map<HLINE, std::shared_ptr<Line>> lines;
    std::map<HCALL, std::shared_ptr<Line>> calls;
    std::vector<HANDLE> retiredEvents;

    DWORD newHandleLocked() { return nextHandle++; }
    LONG newRequestLocked() {
        const LONG request = nextRequest;
        nextRequest = nextRequest == INT32_MAX ? 1 : nextRequest + 1;
        return request;
    }
};

Table& table() {
    static Table* instance = new Table;
    return *instance;
}

std::shared_ptr<App> findApp(HLINEAPP handle) {
    Table& t = table();
    std::lock_guard<std::mutex> guard(t.lock);
    const auto it = t.apps.find(handle);
    return it != t.apps.end() ? it->second : nullptr;
}

std::shared_ptr<Line> findLine(HLINE handle) {
    Table& t = table();
    std::lock_guard<std::mutex> guard(t.lock);
    const auto it = t.lines.find(handle);
    return it != t.lines.end() ? it->second : nullptr;
}

std::shared_ptr<Line> findCall(HCALL handle) {
    Table& t = table();
    std::lock_guard<std::mutex> guard(t.lock);
    const auto it = t.calls.find(handle);
    return it != t.calls.end() ? it->second : nullptr;
}

// The checks that the capability functions share.
LONG checkDevice(const std::shared_ptr<App>& app, DWORD deviceId, DWORD apiVersion,
                 DWORD extVersion, const void* record, DWORD fixedSize) {
    if (app == nullptr) {
        return LINEERR_INVALAPPHANDLE;
    }
    if (deviceId >= app->devices.size()) {
        return LINEERR_BADDEVICEID;
    }
    if (apiVersion < kLowestVersion || apiVersion > kHighestVersion) {
        return LINEERR_INCOMPATIBLEAPIVERSION;
    }
    if (extVersion != 0) {
        return LINEERR_INCOMPATIBLEEXTVERSION;
    }
    if (record == nullptr) {
        return LINEERR_INVALPOINTER;
    }
    if (*static_cast<const DWORD*>(record) < fixedSize) {
        return LINEERR_STRUCTURETOOSMALL;
    }
    return 0;
}

// Clears the fixed part of a record of total bytes behind its total size.
template <class Record>
void clearFixed(Record* record) {
    const DWORD total = record->dwTotalSize;
    std::memset(record, 0, sizeof(Record));
    record->dwTotalSize = total;
}

// Opens, locks and sets up the tty of device; the descriptor or a LINEERR_ value.
LONG openTty(const ModemDevice& device, int& fd) {
    const speed_t speed = speedOf(device.speed);
    if (speed == B0) {
        return LINEERR_NODEVICE;
    }
    do {
        fd = ::open(device.device.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        switch (errno) {
            case EBUSY:
            case EMFILE:
            case ENFILE:
                return LINEERR_RESOURCEUNAVAIL;
            case ENOMEM:
                return LINEERR_NOMEM;
            default:
                return LINEERR_NODEVICE;
        }
    }
    int locked;
    do {
        locked = ::flock(fd, LOCK_EX | LOCK_NB);
    } while (locked != 0 && errno == EINTR);
    LONG result = 0;
    termios settings{};
    if (locked != 0) {
        result = errno == EWOULDBLOCK ? LINEERR_ALLOCATED : LINEERR_RESOURCEUNAVAIL;
    } else if (::tcgetattr(fd, &settings) != 0) {
        result = LINEERR_NODEVICE;
    } else {
        ::cfmakeraw(&settings);
        settings.c_cflag &= ~static_cast<tcflag_t>(CSIZE | PARENB | CSTOPB | CLOCAL | CRTSCTS);
        settings.c_cflag |= CS8 | CREAD | HUPCL;
        settings.c_cc[VMIN] = 1;
        settings.c_cc[VTIME] = 0;
        ::cfsetispeed(&settings, speed);
        ::cfsetospeed(&settings, speed);
        const int flags = ::fcntl(fd, F_GETFL);
        if (::tcsetattr(fd, TCSANOW, &settings) != 0 || flags < 0 ||
            ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0) {
            result = LINEERR_NODEVICE;
        } else {
            ::tcflush(fd, TCIOFLUSH);
        }
    }
    if (result != 0) {
        ::close(fd);
        fd = -1;
    }
    return result;
}

}  // namespace

LONG lineInitializeExA(HLINEAPP* lineApp, HINSTANCE /*instance*/, LINECALLBACK callback,
                       const char* /*appName*/, DWORD* numDevs, DWORD* apiVersion,
                       LINEINITIALIZEEXPARAMS* params) {
    if (lineApp == nullptr || numDevs == nullptr || apiVersion == nullptr || params == nullptr) {
        return LINEERR_INVALPOINTER;
    }
    if (params->dwTotalSize < sizeof(LINEINITIALIZEEXPARAMS)) {
        return LINEERR_STRUCTURETOOSMALL;
    }
    if (params->dwOptions != LINEINITIALIZEEXOPTION_USEEVENT || callback != nullptr) {
        return LINEERR_INVALPARAM;
    }
    if (*apiVersion < kLowestInitVersion) {
        return LINEERR_INCOMPATIBLEAPIVERSION;
    }
    Table& t = table();
    std::vector<HANDLE> retired;
    {
        std::lock_guard<std::mutex> guard(t.lock);
        retired.swap(t.retiredEvents);
    }
    for (HANDLE event : retired) {
        CloseHandle(event);
    }

    const int fd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (fd < 0) {
        return LINEERR_RESOURCEUNAVAIL;
    }
    auto* event = new (std::nothrow) QueueEvent(fd);
    if (event == nullptr) {
        ::close(fd);
        return LINEERR_NOMEM;
    }
    event->addRef();  // the application's own
    const HANDLE eventHandle = MakeHandle(event);
    if (eventHandle == nullptr) {
        event->release();
        return LINEERR_NOMEM;
    }
    std::shared_ptr<App> app;
    try {
        app = std::make_shared<App>(ListModemDevices(), event, eventHandle);
    } catch (const std::bad_alloc&) {
        event->release();
        CloseHandle(eventHandle);
        return LINEERR_NOMEM;
    }
    {
        std::lock_guard<std::mutex> guard(t.lock);
        *lineApp = t.newHandleLocked();
        t.apps.emplace(*lineApp, app);
    }
    *numDevs = static_cast<DWORD>(app->devices.size());
    *apiVersion = kHighestVersion;
    params->dwNeededSize = sizeof(LINEINITIALIZEEXPARAMS);
    params->dwUsedSize = sizeof(LINEINITIALIZEEXPARAMS);
    params->Handles.hEvent = eventHandle;
    return 0;
}

LONG lineNegotiateAPIVersion(HLINEAPP lineApp, DWORD deviceId, DWORD lowVersion, DWORD highVersion,
                             DWORD* apiVersion, LINEEXTENSIONID* extensionId) {
    const std::shared_ptr<App> app = findApp(lineApp);
    if (app == nullptr) {
        return LINEERR_INVALAPPHANDLE;
    }
    if (deviceId >= app->devices.size()) {
        return LINEERR_BADDEVICEID;
    }
    if (apiVersion == nullptr || extensionId == nullptr) {
        return LINEERR_INVALPOINTER;
    }
    const DWORD low = std::max(lowVersion, kLowestVersion);
    const DWORD high = std::min(highVersion, kHighestVersion);
    if (low > high) {
        return LINEERR_INCOMPATIBLEAPIVERSION;
    }
    *apiVersion = high;
    *extensionId = LINEEXTENSIONID{};
    return 0;
}

LONG lineGetDevCapsA(HLINEAPP lineApp, DWORD deviceId, DWORD apiVersion, DWORD extVersion,
                     LINEDEVCAPS* lineDevCaps) {
    const std::shared_ptr<App> app = findApp(lineApp);
    const LONG checked =
        checkDevice(app, deviceId, apiVersion, extVersion, lineDevCaps, sizeof(LINEDEVCAPS));
    if (checked != 0) {
        return checked;
    }
    const ModemDevice& device = app->devices[deviceId];
    clearFixed(lineDevCaps);
    LINEDEVCAPS& caps = *lineDevCaps;
    caps.dwPermanentLineID = deviceId;
    caps.dwStringFormat = STRINGFORMAT_ASCII;
    caps.dwAddressModes = LINEADDRESSMODE_ADDRESSID;
    caps.dwNumAddresses = 1;
    caps.dwBearerModes = LINEBEARERMODE_VOICE;
    caps.dwMaxRate = device.speed;
    caps.dwMediaModes = LINEMEDIAMODE_DATAMODEM;
    caps.dwMaxNumActiveCalls = 1;
    caps.dwLineFeatures = LINEFEATURE_MAKECALL;

    const DWORD providerSize = sizeof kProviderInfo;
    const DWORD nameSize = static_cast<DWORD>(device.name.size() + 1);
    const DWORD classesSize = sizeof kDeviceClasses;
    const DWORD needed = sizeof(LINEDEVCAPS) + providerSize + nameSize + classesSize;
    caps.dwNeededSize = needed;
    caps.dwUsedSize = sizeof(LINEDEVCAPS);
    if (caps.dwTotalSize >= needed) {
        auto* bytes = reinterpret_cast<char*>(lineDevCaps);
        DWORD offset = sizeof(LINEDEVCAPS);
        const auto place = [&](const char* data, DWORD size, DWORD& sizeField, DWORD& offsetField) {
            std::memcpy(bytes + offset, data, size);
            sizeField = size;
            offsetField = offset;
            offset += size;
        };
        place(kProviderInfo, providerSize, caps.dwProviderInfoSize, caps.dwProviderInfoOffset);
        place(device.name.c_str(), nameSize, caps.dwLineNameSize, caps.dwLineNameOffset);
        place(kDeviceClasses, classesSize, caps.dwDeviceClassesSize, caps.dwDeviceClassesOffset);
        caps.dwUsedSize = offset;
    }
    return 0;
}

LONG lineGetAddressCapsA(HLINEAPP lineApp, DWORD deviceId, DWORD addressId, DWORD apiVersion,
                         DWORD extVersion, LINEADDRESSCAPS* addressCaps) {
    const std::shared_ptr<App> app = findApp(lineApp);
    const LONG checked =
        checkDevice(app, deviceId, apiVersion, extVersion, addressCaps, sizeof(LINEADDRESSCAPS));
    if (checked != 0) {
        return checked;
    }
    if (addressId != 0) {
        return LINEERR_INVALADDRESSID;
    }
    clearFixed(addressCaps);
    LINEADDRESSCAPS& caps = *addressCaps;
    caps.dwNeededSize = sizeof(LINEADDRESSCAPS);
    caps.dwUsedSize = sizeof(LINEADDRESSCAPS);
    caps.dwLineDeviceID = deviceId;
    caps.dwAddressSharing = LINEADDRESSSHARING_PRIVATE;
    caps.dwCallStates = LINECALLSTATE_IDLE | LINECALLSTATE_DIALING | LINECALLSTATE_BUSY |
                        LINECALLSTATE_CONNECTED | LINECALLSTATE_DISCONNECTED |
                        LINECALLSTATE_UNKNOWN;
    caps.dwBusyModes = LINEBUSYMODE_UNKNOWN;
    caps.dwDisconnectModes = LINEDISCONNECTMODE_NORMAL | LINEDISCONNECTMODE_NOANSWER |
                             LINEDISCONNECTMODE_BADADDRESS | LINEDISCONNECTMODE_UNREACHABLE |
                             LINEDISCONNECTMODE_UNAVAIL | LINEDISCONNECTMODE_NODIALTONE;
    caps.dwMaxNumActiveCalls = 1;
    caps.dwAvailableMediaModes = LINEMEDIAMODE_DATAMODEM;
    return 0;
}

LONG lineOpenA(HLINEAPP lineApp, DWORD deviceId, HLINE* line, DWORD apiVersion, DWORD extVersion,
               DWORD_PTR callbackInstance, DWORD privileges, DWORD mediaModes,
               const LINECALLPARAMS* /*callParams*/) {
    const std::shared_ptr<App> app = findApp(lineApp);
    if (app == nullptr) {
        return LINEERR_INVALAPPHANDLE;
    }
    if (deviceId >= app->devices.size()) {
        return LINEERR_BADDEVICEID;
    }
    if (line == nullptr) {
        return LINEERR_INVALPOINTER;
    }
    if (apiVersion < kLowestVersion || apiVersion > kHighestVersion) {
        return LINEERR_INCOMPATIBLEAPIVERSION;
    }
    if (extVersion != 0) {
        return LINEERR_INCOMPATIBLEEXTVERSION;
    }
    constexpr DWORD kPrivileges =
        LINECALLPRIVILEGE_NONE | LINECALLPRIVILEGE_MONITOR | LINECALLPRIVILEGE_OWNER;
    if (privileges == 0 || (privileges & ~kPrivileges) != 0) {
        return LINEERR_INVALPRIVSELECT;
    }
    if ((mediaModes & ~LINEMEDIAMODE_DATAMODEM) != 0) {
        return LINEERR_INVALMEDIAMODE;
    }
    int fd = -1;
    const LONG opened = openTty(app->devices[deviceId], fd);
    if (opened != 0) {
        return opened;
    }
    const int wakeFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wakeFd < 0) {
        ::close(fd);
        return LINEERR_RESOURCEUNAVAIL;
    }
    Table& t = table();
    std::shared_ptr<Line> opening;
    try {
        std::lock_guard<std::mutex> guard(t.lock);
        if (t.apps.count(lineApp) == 0) {
            ::close(fd);
            ::close(wakeFd);
            return LINEERR_INVALAPPHANDLE;  // shut down meanwhile
        }
        const HLINE handle = t.newHandleLocked();
        opening =
            std::make_shared<Line>(app, lineApp, handle, deviceId, callbackInstance, fd, wakeFd);
        opening->start();
        t.lines.emplace(handle, opening);
    } catch (const std::exception&) {
        if (opening != nullptr) {
            opening->close();
        } else {
            ::close(fd);
            ::close(wakeFd);
        }
        return LINEERR_NOMEM;
    }
    *line = opening->handle;
    return 0;
}

LONG lineMakeCallA(HLINE line, HCALL* call, const char* destAddress, DWORD /*countryCode*/,
                   const LINECALLPARAMS* callParams) {
    const std::shared_ptr<Line> target = findLine(line);
    if (target == nullptr) {
        return LINEERR_INVALLINEHANDLE;
    }
    if (call == nullptr) {
        return LINEERR_INVALPOINTER;
    }
    if (destAddress == nullptr) {
        return LINEERR_INVALADDRESS;
    }
    const std::string number(destAddress);
    if (number.empty() || number.size() > kMaxDialString) {
        return LINEERR_INVALADDRESS;
    }
    for (const char c : number) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
            return LINEERR_INVALADDRESS;
        }
    }
    if (callParams != nullptr) {
        if (callParams->dwTotalSize < sizeof(LINECALLPARAMS)) {
            return LINEERR_STRUCTURETOOSMALL;
        }
        if ((callParams->dwMediaMode & ~LINEMEDIAMODE_DATAMODEM) != 0) {
            return LINEERR_INVALMEDIAMODE;
        }
    }
    Table& t = table();
    std::lock_guard<std::mutex> guard(t.lock);
    if (t.lines.count(line) == 0) {
        return LINEERR_INVALLINEHANDLE;  // closed meanwhile
    }
    const HCALL handle = t.newHandleLocked();
    const LONG result = target->makeCall(handle, t.newRequestLocked(), number);
    if (result > 0) {
        t.calls.emplace(handle, target);
        *call = handle;
    }
    return result;
}

LONG lineDrop(HCALL call, const char* /*userUserInfo*/, DWORD /*size*/) {
    const std::shared_ptr<Line> line = findCall(call);
    if (line == nullptr) {
        return LINEERR_INVALCALLHANDLE;
    }
    LONG request;
    {
        Table& t = table();
        std::lock_guard<std::mutex> guard(t.lock);
        request = t.newRequestLocked();
    }
    return line->drop(call, request);
}

LONG lineGetCallStatus(HCALL call, LINECALLSTATUS* callStatus) {
    const std::shared_ptr<Line> line = findCall(call);
    if (line == nullptr) {
        return LINEERR_INVALCALLHANDLE;
    }
    if (callStatus == nullptr) {
        return LINEERR_INVALPOINTER;
    }
    if (callStatus->dwTotalSize < sizeof(LINECALLSTATUS)) {
        return LINEERR_STRUCTURETOOSMALL;
    }
    clearFixed(callStatus);
    callStatus->dwNeededSize = sizeof(LINECALLSTATUS);
    callStatus->dwUsedSize = sizeof(LINECALLSTATUS);
    return line->status(call, *callStatus);
}

LONG lineDeallocateCall(HCALL call) {
    const std::shared_ptr<Line> line = findCall(call);
    if (line == nullptr) {
        return LINEERR_INVALCALLHANDLE;
    }
    const LONG result = line->deallocate(call);
    Table& t = table();
    std::lock_guard<std::mutex> guard(t.lock);
    t.calls.erase(call);
    return result;
}

LONG lineClose(HLINE line) {
    std::shared_ptr<Line> closing;
    {
        Table& t = table();
        std::lock_guard<std::mutex> guard(t.lock);
        const auto it = t.lines.find(line);
        if (it == t.lines.end()) {
            return LINEERR_INVALLINEHANDLE;
        }
        closing = it->second;
        t.lines.erase(it);
        std::erase_if(t.calls, [&](const auto& entry) { return entry.second == closing; });
    }
    closing->close();
    return 0;
}

LONG lineShutdown(HLINEAPP lineApp) {
    std::shared_ptr<App> app;
    std::vector<std::shared_ptr<Line>> lines;
    {
        Table& t = table();
        std::lock_guard<std::mutex> guard(t.lock);
        const auto it = t.apps.find(lineApp);
        if (it == t.apps.end()) {
            return LINEERR_INVALAPPHANDLE;
        }
        app = it->second;
        t.apps.erase(it);
        for (auto entry = t.lines.begin(); entry != t.lines.end();) {
            if (entry->second->appHandle == lineApp) {
                lines.push_back(entry->second);
                entry = t.lines.erase(entry);
            } else {
                ++entry;
            }
        }
        std::erase_if(t.calls,
                      [&](const auto& entry) { return entry.second->appHandle == lineApp; });
        t.retiredEvents.push_back(app->eventHandle);
    }
    for (const std::shared_ptr<Line>& line : lines) {
        line->close();
    }
    app->shutDown();
    return 0;
}

LONG lineGetMessage(HLINEAPP lineApp, LINEMESSAGE* message, DWORD timeoutMs) {
    const std::shared_ptr<App> app = findApp(lineApp);
    if (app == nullptr) {
        return LINEERR_INVALAPPHANDLE;
    }
    if (message == nullptr) {
        return LINEERR_INVALPOINTER;
    }
    return app->get(*message, timeoutMs);
}

LONG lineGetIDA(HLINE line, DWORD addressId, HCALL call, DWORD select, VARSTRING* deviceId,
                const char* deviceClass) {
    std::shared_ptr<Line> target;
    switch (select) {
        case LINECALLSELECT_LINE:
        case LINECALLSELECT_ADDRESS:
            target = findLine(line);
            if (target == nullptr) {
                return LINEERR_INVALLINEHANDLE;
            }
            if (select == LINECALLSELECT_ADDRESS && addressId != 0) {
                return LINEERR_INVALADDRESSID;
            }
            break;
        case LINECALLSELECT_CALL:
            target = findCall(call);
            if (target == nullptr) {
                return LINEERR_INVALCALLHANDLE;
            }
            break;
        default:
            return LINEERR_INVALCALLSELECT;
    }
    if (deviceId == nullptr || deviceClass == nullptr) {
        return LINEERR_INVALPOINTER;
    }
    const bool handleWanted = ::strcasecmp(deviceClass, kDataModemClass) == 0;
    if (!handleWanted && ::strcasecmp(deviceClass, kPortNameClass) != 0) {
        return LINEERR_INVALDEVICECLASS;
    }
    if (deviceId->dwTotalSize < sizeof(VARSTRING)) {
        return LINEERR_STRUCTURETOOSMALL;
    }
    clearFixed(deviceId);
    const std::string& node = target->deviceNode();
    const DWORD size = static_cast<DWORD>((handleWanted ? sizeof(HANDLE) : 0) + node.size() + 1);
    deviceId->dwNeededSize = sizeof(VARSTRING) + size;
    deviceId->dwUsedSize = sizeof(VARSTRING);
    deviceId->dwStringFormat = handleWanted ? STRINGFORMAT_BINARY : STRINGFORMAT_ASCII;
    if (deviceId->dwTotalSize < deviceId->dwNeededSize) {
        return 0;
    }
    char* value = reinterpret_cast<char*>(deviceId) + sizeof(VARSTRING);
    if (handleWanted) {
        const int fd = target->duplicateTty();
        if (fd < 0) {
            return LINEERR_OPERATIONFAILED;
        }
        const HANDLE file = MakeFileHandle(fd, GENERIC_READ | GENERIC_WRITE);
        if (file == INVALID_HANDLE_VALUE) {
            return LINEERR_OPERATIONFAILED;
        }
        std::memcpy(value, &file, sizeof file);
        value += sizeof file;
    }
    std::memcpy(value, node.c_str(), node.size() + 1);
    deviceId->dwStringSize = size;
    deviceId->dwStringOffset = sizeof(VARSTRING);
    deviceId->dwUsedSize = deviceId->dwNeededSize;
    return 0;
}

}  // namespace Tessel::Platform
