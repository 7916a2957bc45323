// The object model behind HANDLE values (private to the library).
//
// A HANDLE points at a KernelObject: one open handle. Every CreateX and OpenX makes a new one,
// so that two handles of one named object are closed independently and a handle closed twice
// is recognised. Each KernelObject holds one counted reference to a Waitable, the object
// itself (an event, a mutex, a timer, a process, ...), which is freed with its last
// reference.
//
// How a wait works. A wait first tries to acquire its objects without blocking. If it has to
// sleep, it enlists one WaitRecord per object (a place in the object's list of waiters), tries
// again, and sleeps in ppoll on the waiting thread's own wake-up eventfd, the descriptors of
// objects that have one (timers, processes) and an optional extra descriptor (a
// thread's message queue), until something changes; then it tries again. Objects that can
// neither wake their waiters nor offer a descriptor (mutexes) are tried in short slices.
//
// Objects with a waiter list (events) wake each enlisted waiter whose wait may now proceed by
// writing its wake-up eventfd, and where a release is meant for particular waiters (a Set
// while threads wait, a pulse) they hand it to the waiter's record first. A descriptor shared
// by all waiters could not do this: it cannot say whom a release is for, and since poll looks
// at a descriptor again when it wakes up, one waiter draining it would cancel the wake-up of
// another.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "tessel/Export.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

class Waitable;

// One open handle; what a HANDLE points at.
struct KernelObject {
    static constexpr std::uint32_t kLiveTag = 0x6A624F4Bu;  // "KObj"

    explicit KernelObject(Waitable* target) : object(target) {}

    // kLiveTag while the handle is open; cleared by CloseHandle before the memory is freed.
    // Relaxed: it only tells a live handle from a stale one on a best-effort basis, and
    // publishes nothing.
    std::atomic<std::uint32_t> tag{kLiveTag};
    // The object, one counted reference of it.
    Waitable* const object;
};

// Outcome of one attempt to acquire an object without blocking.
enum class Acquire : std::uint8_t {
    None,       // not signalled
    Taken,      // taken from the object's state (an automatic-reset event is reset by it)
    Released,   // a release that the object had handed to this waiter
    Abandoned,  // a mutex acquired from an owner that died
    Failed,     // an error; the last error is set
};

// Kinds of release that an object hands to one waiter (WaitRecord::release).
enum ReleaseKind : std::uint8_t {
    kNoRelease = 0,
    kSetRelease,          // an automatic-reset event was set while this thread waited for it
    kAutoPulseRelease,    // a pulse of an automatic-reset event
    kManualPulseRelease,  // a pulse of a manual-reset event
    kManualSetRelease,    // a manual-reset event was set while this thread waited for it
};

// The waiting thread, shared by the records of one wait.
struct Waiter {
    int wakeFd = -1;       // the thread's wake-up eventfd; -1 when no object needs it
    bool waitAll = false;  // waiting for all objects at once
    bool sliced = false;   // tries again every few milliseconds anyway
};

// A thread's place in the waiter list of one object for the duration of one wait. It lives
// on the waiting thread's stack; the list fields are guarded by the object's lock.
struct WaitRecord {
    Waiter* waiter = nullptr;
    WaitRecord* prev = nullptr;
    WaitRecord* next = nullptr;
    // Enlistment order within the object.
    std::uint64_t sequence = 0;
    // For a pulse release: the first sequence number that had not enlisted at the pulse, so
    // that a release passed on never reaches a thread that began waiting after the pulse.
    std::uint64_t releaseLimit = 0;
    // A ReleaseKind handed to this waiter, or kNoRelease. Set under the object's lock with
    // release order and consumed by an acquiring exchange, so that each release is used
    // exactly once and the waiter sees what the releasing thread wrote before it.
    std::atomic<std::uint8_t> release{kNoRelease};
};

// A kernel object, shared by its handles.
class Waitable {
  public:
    enum class Kind : std::uint8_t { Event, Mutex, Timer, Other };

    explicit Waitable(Kind kind) : m_kind(kind) {}
    virtual ~Waitable() = default;
    Waitable(const Waitable&) = delete;
    Waitable& operator=(const Waitable&) = delete;

    Kind kind() const { return m_kind; }

    void addRef() { m_refs.fetch_add(1, std::memory_order_relaxed); }
    // Drops one reference and frees the object with the last one. Named objects override it
    // to take their name table's lock first, so that a lookup never revives a dying object.
    virtual void release();

    // Acquires the object if it is signalled, without blocking. record is null for the first
    // attempt of a wait, made before it enlists.
    virtual Acquire tryAcquire(WaitRecord* record) = 0;
    // Gives back an acquisition that tryAcquire returned for record (a wait for all that
    // could not get every object).
    virtual void undoAcquire(Acquire how, WaitRecord* record) = 0;
    // Whether tryAcquire would probably succeed, without acquiring; true where that cannot
    // be told without acquiring (mutexes). Lets a wait for all leave its objects untouched
    // until all of them look signalled.
    virtual bool looksSignalled(const WaitRecord* /*record*/) const { return true; }
    // Whether the object writes the wake-up eventfd of its enlisted waiters whenever their
    // wait may proceed, so that a wait on it needs that eventfd and no slices.
    virtual bool wakesWaiters() const { return false; }

    // Puts record into the object's list of waiters. Called once per wait before it sleeps
    // for the first time. false, with the last error set, if the object cannot be waited for.
    virtual bool enlist(WaitRecord& /*record*/) { return true; }
    // Takes record out of the list at the end of the wait; a release that was handed to it
    // and not used is passed on as the object's semantics require.
    virtual void delist(WaitRecord& /*record*/) {}
    // A descriptor that becomes readable when the object may have become signalled, valid
    // after enlist; -1 if there is none.
    virtual int pollFd() const { return -1; }
    // Called after pollFd() was found readable: clears a readiness that no longer stands
    // for a signalled state, so that the next sleep does not end at once.
    virtual void settle(WaitRecord& /*record*/) {}

    // WaitForSingleObject on this object. The default is the general wait on one object.
    virtual DWORD waitOne(DWORD timeoutMs);

  protected:
    // Counted references. Adding one is relaxed, since the adder holds a reference already;
    // dropping one is acquire-release, so that the last owner's delete comes after every
    // other owner's last use.
    std::atomic<std::uint32_t> m_refs{1};

  private:
    const Kind m_kind;
};

// Makes a new handle for object, taking over one reference. Null with
// ERROR_NOT_ENOUGH_MEMORY (and the reference dropped) if the handle cannot be allocated.
HANDLE MakeHandle(Waitable* object);

// The object of an open handle, or null with ERROR_INVALID_HANDLE.
Waitable* ObjectOf(HANDLE handle);

// The object of an open handle as the class Object of kind, or null with
// ERROR_INVALID_HANDLE (also for a handle of another kind).
template <class Object>
Object* ObjectOfKind(HANDLE handle, Waitable::Kind kind) {
    Waitable* object = ObjectOf(handle);
    if (object != nullptr && object->kind() != kind) {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    return static_cast<Object*>(object);
}

// The calling thread's wake-up eventfd, made on first use; -1 with the last error set if it
// cannot be made. A forked child makes its own instead of sharing its parent's.
int CurrentWakeFd();

// Writes one wake-up to a thread's wake-up eventfd.
void WakeWaiter(const Waiter& waiter);

// The general wait, the body of WaitForMultipleObjects. extraFd, when not -1, is one more
// descriptor to wait for (a thread's message queue): its becoming readable ends the wait
// with the result count, unless an object can be acquired at the same time, which takes
// precedence. With extraFd, count may be 0.
DWORD WaitForObjects(DWORD count, const HANDLE* handles, bool waitAll, DWORD timeoutMs,
                     int extraFd = -1);

// The same on objects instead of handles; the arguments are valid.
DWORD WaitOnObjects(DWORD count, Waitable* const* objects, bool waitAll, DWORD timeoutMs,
                    int extraFd);

// Turns an object name into the key of the name space: the platform's "Global\" and "Local\"
// prefixes are dropped, since Linux has no sessions and every name lives in one name space
// (as it does for a service, whose local name space is the global one). Returns false with
// ERROR_FILENAME_EXCED_RANGE for a name longer than the platform allows (MAX_PATH), and with
// ERROR_INVALID_NAME for a prefix without a name.
bool NormaliseObjectName(const char* name, std::string& key);

// The key of a name given to an OpenX call: false with ERROR_INVALID_PARAMETER for a null
// name, ERROR_FILE_NOT_FOUND for an empty one, else as NormaliseObjectName.
bool KeyOfNameToOpen(const char* name, std::string& key);

}  // namespace Tessel::Platform
