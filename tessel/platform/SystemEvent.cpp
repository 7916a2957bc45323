// System events: a waitable object whose descriptor is the bound datagram socket.
//
// The generic wait polls the socket; a readable socket means that a datagram is waiting, and
// acquiring the event receives every datagram there is. Holding the events of this process in
// a table by name lets a second CreateSystemEvent of the same name share the socket, as a
// second CreateEventA shares the event on the platform.
#include "tessel/platform/SystemEvent.h"

#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <new>
#include <string>
#include <unordered_map>

#include "tessel/platform/LastError.h"
#include "tessel/platform/detail/AbstractSocket.h"
#include "tessel/platform/detail/KernelObject.h"
#include "tessel/platform/detail/NameTable.h"

namespace Tessel::Platform {
namespace {

class SystemEventObject;

using SystemEventNames = NameTable<SystemEventObject>;

SystemEventNames& systemEventNames() {
    return SystemEventNames::instance();
}

class SystemEventObject final : public Waitable {
  public:
    // The event bound to address: fd is the bound socket, name its key in the table.
    SystemEventObject(int fd, std::string name, const sockaddr_un& address, socklen_t length)
        : Waitable(Kind::Other),
          m_fd(fd),
          m_bReceives(true),
          m_name(std::move(name)),
          m_address(address),
          m_addressLength(length) {}

    // The stand-in for an event that another process holds: fd is an eventfd that nobody
    // writes, so that a wait on it sleeps in poll like any other.
    explicit SystemEventObject(int fd)
        : Waitable(Kind::Other), m_fd(fd), m_bReceives(false), m_address{}, m_addressLength(0) {}

    ~SystemEventObject() override { ::close(m_fd); }

    void release() override {
        if (m_name.empty()) {
            Waitable::release();
            return;
        }
        SystemEventNames& names = systemEventNames();
        {
            std::lock_guard<std::mutex> guard(names.lock);
            if (m_refs.fetch_sub(1, std::memory_order_acq_rel) != 1) {
                return;
            }
            names.byName.erase(m_name);
        }
        delete this;
    }

    Acquire tryAcquire(WaitRecord* /*record*/) override {
        if (!m_bReceives) {
            return Acquire::None;
        }
        bool taken = false;
        for (;;) {
            char byte;
            if (::recv(m_fd, &byte, sizeof byte, MSG_DONTWAIT) >= 0) {
                taken = true;  // and on: the event is set once, however often it was set
                continue;
            }
            if (errno == EINTR) {
                continue;
            }
            break;
        }
        if (taken) {
            return Acquire::Taken;
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            return Acquire::None;
        }
        SetLastErrorFromErrno(errno);
        return Acquire::Failed;
    }

    void undoAcquire(Acquire how, WaitRecord* /*record*/) override {
        // Sets the event again by sending to itself, so that every waiter's poll sees it.
        if (how == Acquire::Taken) {
            const char byte = 1;
            while (::sendto(m_fd, &byte, sizeof byte, MSG_DONTWAIT,
                            reinterpret_cast<const sockaddr*>(&m_address), m_addressLength) < 0 &&
                   errno == EINTR) {
            }
        }
    }

    bool looksSignalled(const WaitRecord* /*record*/) const override {
        char byte;
        return m_bReceives && ::recv(m_fd, &byte, sizeof byte, MSG_DONTWAIT | MSG_PEEK) >= 0;
    }

    int pollFd() const override { return m_fd; }

  private:
    const int m_fd;
    const bool m_bReceives;
    const std::string m_name;  // empty for the stand-in of another process's event
    const sockaddr_un m_address;
    const socklen_t m_addressLength;
};

// Validates name and forms its address.
bool addressOf(const char* name, std::string& key, sockaddr_un& address, socklen_t& length) {
    if (name == nullptr || *name == '\0') {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    return NormaliseObjectName(name, key) && MakeAbstractAddress(key, address, length);
}

// The handle for an event that another process holds.
HANDLE foreignEvent() {
    const int fd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (fd < 0) {
        SetLastErrorFromErrno(errno);
        return nullptr;
    }
    auto* event = new (std::nothrow) SystemEventObject(fd);
    if (event == nullptr) {
        ::close(fd);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    HANDLE handle = MakeHandle(event);
    if (handle != nullptr) {
        SetLastError(ERROR_ALREADY_EXISTS);
    }
    return handle;
}

}  // namespace

HANDLE CreateSystemEvent(const char* name) {
    std::string key;
    sockaddr_un address;
    socklen_t length = 0;
    if (!addressOf(name, key, address, length)) {
        return nullptr;
    }

    SystemEventNames& names = systemEventNames();
    SystemEventObject* event = nullptr;
    bool existed = false;
    bool foreign = false;
    try {
        std::lock_guard<std::mutex> guard(names.lock);
        auto found = names.byName.find(key);
        if (found != names.byName.end()) {
            event = found->second;
            event->addRef();
            existed = true;
        } else {
            const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
            if (fd < 0) {
                SetLastErrorFromErrno(errno);
                return nullptr;
            }
            if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), length) != 0) {
                const int error = errno;
                ::close(fd);
                if (error != EADDRINUSE) {
                    SetLastErrorFromErrno(error);
                    return nullptr;
                }
                foreign = true;
            } else {
                event = new (std::nothrow) SystemEventObject(fd, key, address, length);
                if (event == nullptr) {
                    ::close(fd);
                    throw std::bad_alloc();
                }
                try {
                    names.byName.emplace(key, event);
                } catch (...) {
                    delete event;
                    throw;
                }
            }
        }
    } catch (const std::bad_alloc&) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    if (foreign) {
        return foreignEvent();
    }
    HANDLE handle = MakeHandle(event);
    if (handle != nullptr) {
        SetLastError(existed ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
    }
    return handle;
}

BOOL SetSystemEvent(const char* name) {
    std::string key;
    sockaddr_un address;
    socklen_t length = 0;
    if (!addressOf(name, key, address, length)) {
        return FALSE;
    }
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        SetLastErrorFromErrno(errno);
        return FALSE;
    }
    const char byte = 1;
    ssize_t sent;
    do {
        sent = ::sendto(fd, &byte, sizeof byte, MSG_DONTWAIT,
                        reinterpret_cast<const sockaddr*>(&address), length);
    } while (sent < 0 && errno == EINTR);
    const int error = errno;
    ::close(fd);
    // A full queue means that the event is set many times over already.
    if (sent >= 0 || error == EAGAIN || error == EWOULDBLOCK) {
        return TRUE;
    }
    if (error == ECONNREFUSED || error == ENOENT) {
        SetLastError(ERROR_FILE_NOT_FOUND);
    } else {
        SetLastErrorFromErrno(error);
    }
    return FALSE;
}

}  // namespace Tessel::Platform
