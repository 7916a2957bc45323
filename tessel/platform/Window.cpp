// Windows of other processes: one SOCK_SEQPACKET connection per title.
//
// A window handle points at the RemoteWindow of its title, which lives for the rest of the
// process; its connection is shared by the senders of the moment, so that a connection
// replaced by FindWindowA is closed only when the last message sent on it is done. Each
// look-up also closes the connections of any title whose receiver has gone. Messages
// on one connection take turns (one packet out, one byte back), waiting for their turn within
// their time-out. An answer that came too late for its message is dropped before the next
// message goes out.
#include "tessel/platform/Window.h"

#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>

#include "tessel/platform/LastError.h"
#include "tessel/platform/detail/AbstractSocket.h"

namespace Tessel::Platform {
namespace {

using Clock = std::chrono::steady_clock;

// One connection to a receiver.
struct Connection {
    explicit Connection(int socket) : fd(socket) {}
    ~Connection() { ::close(fd); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    const int fd;
    std::mutex exchange;  // held for one message and its answer
};

// The window of one title.
struct RemoteWindow {
    explicit RemoteWindow(const std::string& name) : title(name) {}

    const std::string title;
    std::mutex lock;                         // guards connection
    std::shared_ptr<Connection> connection;  // null while the receiver is gone
};

// The windows of this process. Never destroyed, so that senders in static destructors still
// find it.
struct WindowTable {
    std::mutex lock;
    std::unordered_map<std::string, RemoteWindow*> byTitle;
    std::unordered_set<const RemoteWindow*> handedOut;  // the valid handles
};

WindowTable& windowTable() {
    static WindowTable* table = new WindowTable;
    return *table;
}

// Fork: the table's lock is held across fork(). The child forgets its parent's windows (their
// connections belong to the parent's conversations, and their locks may be held by threads
// that do not exist in the child); it leaks them rather than touching them.
void lockTableForFork() {
    windowTable().lock.lock();
}

void unlockTableInParent() {
    windowTable().lock.unlock();
}

void unlockTableInChild() {
    WindowTable& table = windowTable();
    table.byTitle.clear();
    table.handedOut.clear();
    table.lock.unlock();
}

void registerForkHandlers() {
    static const int registered =
        ::pthread_atfork(&lockTableForFork, &unlockTableInParent, &unlockTableInChild);
    (void)registered;
}

HWND handleOf(RemoteWindow* window) {
    return reinterpret_cast<HWND>(window);
}

RemoteWindow* windowOf(HWND handle) {
    auto* window = reinterpret_cast<RemoteWindow*>(handle);
    WindowTable& table = windowTable();
    std::lock_guard<std::mutex> guard(table.lock);
    if (window == nullptr || table.handedOut.count(window) == 0) {
        SetLastError(ERROR_INVALID_WINDOW_HANDLE);
        return nullptr;
    }
    return window;
}

// A new connection to the receiver of title, or null with the last error set.
std::shared_ptr<Connection> connectTo(const std::string& title) {
    sockaddr_un address;
    socklen_t length = 0;
    if (!MakeAbstractAddress(title, address, length)) {
        return nullptr;
    }
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        SetLastErrorFromErrno(errno);
        return nullptr;
    }
    int connected;
    do {
        connected = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), length);
    } while (connected != 0 && errno == EINTR);
    if (connected != 0) {
        const int error = errno;
        ::close(fd);
        if (error == ECONNREFUSED || error == ENOENT) {
            SetLastError(ERROR_FILE_NOT_FOUND);
        } else {
            SetLastErrorFromErrno(error);
        }
        return nullptr;
    }
    try {
        return std::make_shared<Connection>(fd);
    } catch (const std::bad_alloc&) {
        ::close(fd);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
}

// Whether the receiver is still at the other end: it has neither closed its end nor died.
bool alive(const Connection& connection) {
    pollfd entry{connection.fd, POLLIN | POLLRDHUP, 0};
    int ready;
    do {
        ready = ::poll(&entry, 1, 0);
    } while (ready < 0 && errno == EINTR);
    return ready == 0 || (ready > 0 && (entry.revents & (POLLHUP | POLLRDHUP | POLLERR)) == 0);
}

// Closes the connections whose receivers have gone, so that a process holds no descriptor for
// a window that is no more. A window busy with a message is left for the next time.
void dropGoneConnectionsLocked(WindowTable& table) {
    for (auto& [title, window] : table.byTitle) {
        std::unique_lock<std::mutex> guard(window->lock, std::try_to_lock);
        if (guard.owns_lock() && window->connection != nullptr && !alive(*window->connection)) {
            window->connection.reset();
        }
    }
}

// Stores the error of a failed socket call: a receiver that has gone is ERROR_BROKEN_PIPE.
void setSocketError(int error) {
    if (error == EPIPE || error == ECONNRESET || error == ENOTCONN) {
        SetLastError(ERROR_BROKEN_PIPE);
    } else {
        SetLastErrorFromErrno(error);
    }
}

// Waits until fd has events or the deadline has passed: 1 when it has, 0 at the deadline,
// -1 with the last error set on failure.
int waitFor(int fd, short events, Clock::time_point deadline) {
    for (;;) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd entry{fd, events, 0};
        const int ready =
            ::poll(&entry, 1, left <= 0 ? 0 : static_cast<int>(left < INT_MAX ? left : INT_MAX));
        if (ready > 0) {
            return 1;
        }
        if (ready < 0 && errno != EINTR) {
            SetLastErrorFromErrno(errno);
            return -1;
        }
        if (ready == 0 && left <= 0) {
            SetLastError(ERROR_TIMEOUT);
            return 0;
        }
    }
}

// Drops answers that arrived after their message had timed out. false with the last error
// set when the receiver has gone.
bool dropLateAnswers(int fd) {
    for (;;) {
        char byte;
        const ssize_t got = ::recv(fd, &byte, sizeof byte, MSG_DONTWAIT);
        if (got > 0) {
            continue;
        }
        if (got == 0) {
            SetLastError(ERROR_BROKEN_PIPE);
            return false;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            return true;
        }
        setSocketError(errno);
        return false;
    }
}

// Sends the packet of one message. false with the last error set.
bool sendPacket(int fd, const COPYDATASTRUCT& data, Clock::time_point deadline) {
    unsigned char head[8];
    std::uint64_t type = data.dwData;
    for (unsigned char& byte : head) {
        byte = static_cast<unsigned char>(type & 0xFFu);
        type >>= 8;
    }
    iovec parts[2] = {{head, sizeof head}, {data.lpData, data.cbData}};
    msghdr packet{};
    packet.msg_iov = parts;
    packet.msg_iovlen = data.cbData > 0 ? 2 : 1;
    for (;;) {
        if (::sendmsg(fd, &packet, MSG_NOSIGNAL | MSG_DONTWAIT) >= 0) {
            return true;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno != EAGAIN && errno != EWOULDBLOCK) {
            setSocketError(errno);
            return false;
        }
        if (waitFor(fd, POLLOUT, deadline) <= 0) {
            return false;
        }
    }
}

// Receives the one-byte answer. false with the last error set.
bool receiveAnswer(int fd, unsigned char& answer, Clock::time_point deadline) {
    for (;;) {
        const ssize_t got = ::recv(fd, &answer, sizeof answer, MSG_DONTWAIT);
        if (got > 0) {
            return true;
        }
        if (got == 0) {
            SetLastError(ERROR_BROKEN_PIPE);
            return false;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno != EAGAIN && errno != EWOULDBLOCK) {
            setSocketError(errno);
            return false;
        }
        if (waitFor(fd, POLLIN, deadline) <= 0) {
            return false;
        }
    }
}

}  // namespace

HWND FindWindowA(const char* /*className*/, const char* windowName) {
    if (windowName == nullptr || *windowName == '\0') {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    const std::string title(windowName);
    if (title.size() > kMaxAbstractName) {
        SetLastError(ERROR_FILENAME_EXCED_RANGE);
        return nullptr;
    }
    registerForkHandlers();
    WindowTable& table = windowTable();
    RemoteWindow* window = nullptr;
    std::shared_ptr<Connection> fresh;
    try {
        {
            std::lock_guard<std::mutex> guard(table.lock);
            dropGoneConnectionsLocked(table);
            auto found = table.byTitle.find(title);
            if (found != table.byTitle.end()) {
                window = found->second;
            }
        }
        if (window == nullptr) {
            // A title is entered only once a receiver has answered to it.
            fresh = connectTo(title);
            if (fresh == nullptr) {
                return nullptr;
            }
            std::lock_guard<std::mutex> guard(table.lock);
            auto [entry, inserted] = table.byTitle.try_emplace(title, nullptr);
            if (inserted) {
                try {
                    entry->second = new RemoteWindow(title);
                    table.handedOut.insert(entry->second);
                } catch (...) {
                    delete entry->second;
                    table.byTitle.erase(entry);
                    throw;
                }
            }
            window = entry->second;
        }
    } catch (const std::bad_alloc&) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }

    std::lock_guard<std::mutex> guard(window->lock);
    if (window->connection != nullptr && alive(*window->connection)) {
        return handleOf(window);
    }
    if (fresh == nullptr) {
        fresh = connectTo(title);
    }
    // Null when the receiver is gone: messages to the handle then fail until it is back.
    window->connection = fresh;
    return fresh != nullptr ? handleOf(window) : nullptr;
}

LRESULT SendMessageTimeoutA(HWND window, UINT message, WPARAM /*wParam*/, LPARAM lParam,
                            UINT /*flags*/, UINT timeoutMs, DWORD_PTR* result) {
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    if (message != WM_COPYDATA) {
        SetLastError(ERROR_NOT_SUPPORTED);
        return 0;
    }
    const auto* data = reinterpret_cast<const COPYDATASTRUCT*>(lParam);
    if (data == nullptr || (data->cbData > 0 && data->lpData == nullptr)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    RemoteWindow* target = windowOf(window);
    if (target == nullptr) {
        return 0;
    }
    std::shared_ptr<Connection> connection;
    {
        std::lock_guard<std::mutex> guard(target->lock);
        connection = target->connection;
    }
    if (connection == nullptr) {
        SetLastError(ERROR_BROKEN_PIPE);
        return 0;
    }

    // Another thread's message on the same connection goes first; the wait for it counts
    // against the time-out. (A plain mutex tried in steps, since a timed lock on the steady
    // clock is not seen by the thread sanitizer.)
    std::unique_lock<std::mutex> turn(connection->exchange, std::try_to_lock);
    while (!turn.owns_lock()) {
        if (Clock::now() >= deadline) {
            SetLastError(ERROR_TIMEOUT);
            return 0;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        turn.try_lock();
    }
    unsigned char answer = 0;
    if (!dropLateAnswers(connection->fd) || !sendPacket(connection->fd, *data, deadline) ||
        !receiveAnswer(connection->fd, answer, deadline)) {
        return 0;
    }
    if (result != nullptr) {
        *result = answer;
    }
    return TRUE;
}

}  // namespace Tessel::Platform
