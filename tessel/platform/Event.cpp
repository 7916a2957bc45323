// Events: an atomic state word for the fast paths, a list of waiting threads for the slow
// ones.
//
// The state word is 1 while the event is signalled. Testing it with a time-out of 0, and
// setting an event that is already set, touch nothing else, so they cost no system call.
//
// A thread that has to wait enlists in the event's list (under the event's lock) and sleeps
// in ppoll on its own wake-up eventfd. Every change that may let an enlisted waiter proceed
// is made under the lock and writes that waiter's eventfd, so no wake-up is lost; and only
// those waiters are woken, so nobody spins on a readiness that is not meant for it.
// Releases are handed to the waiters' records, which makes the platform's semantics exact:
//  - SetEvent of a manual-reset event releases every thread waiting at that moment, even if
//    the event is reset again before they run.
//  - SetEvent of an automatic-reset event while threads wait for any object hands the signal
//    to the longest-waiting one and leaves the event reset: each Set releases exactly one
//    waiter, and two quick Sets release two. With only threads that wait for all objects it
//    sets the state and wakes them to try.
//  - PulseEvent hands a release to every enlisted waiter (manual reset) or to one (automatic
//    reset), and leaves the event reset. A thread that begins to wait after the pulse is
//    not released.
// A waiter that leaves without using its release (it timed out, or a lower index of a wait
// for any was signalled too) passes it on: a Set's release to the next waiter, or back to the
// state when there is none; an automatic-reset pulse's release to the next waiter that was
// already waiting at the pulse. A thread that waits for all objects uses a release only in
// the attempt that follows it (all the other objects must be there at that moment, as they
// must be at the moment of the pulse on the platform); releases of automatic-reset events go
// to threads that wait for any object first.
#include "tessel/platform/Event.h"

#include <cstdint>
#include <mutex>
#include <new>
#include <string>
#include <unordered_map>

#include "tessel/platform/LastError.h"
#include "tessel/platform/detail/KernelObject.h"
#include "tessel/platform/detail/NameTable.h"

namespace Tessel::Platform {
namespace {

constexpr std::uint64_t kAnyWaiter = UINT64_MAX;

class EventObject;

using EventNames = NameTable<EventObject>;

EventNames& eventNames() {
    return EventNames::instance();
}

class EventObject final : public Waitable {
  public:
    EventObject(bool manualReset, bool initialState, std::string name)
        : Waitable(Kind::Event),
          m_manualReset(manualReset),
          m_signalled(initialState ? 1u : 0u),
          m_name(std::move(name)) {}

    void release() override {
        if (m_name.empty()) {
            Waitable::release();
            return;
        }
        if (eventNames().dropNamed(m_refs, m_name)) {
            delete this;
        }
    }

    void set() {
        // Already set: nothing changes. The exchange still orders this thread's earlier
        // writes before the acquisition of whoever takes the signal.
        bool raised = false;
        if (m_signalled.load(std::memory_order_relaxed) != 0) {
            if (m_signalled.exchange(1, std::memory_order_acq_rel) != 0) {
                return;
            }
            raised = true;  // reset meanwhile: this Set raised it after all
        }
        std::lock_guard<std::mutex> guard(m_lock);
        if (raised || m_signalled.exchange(1, std::memory_order_acq_rel) == 0) {
            publishLocked(nullptr);
        }
    }

    void reset() { m_signalled.store(0, std::memory_order_release); }

    void pulse() {
        std::lock_guard<std::mutex> guard(m_lock);
        const bool wasSet = m_signalled.exchange(0, std::memory_order_acq_rel) == 1;
        const std::uint64_t limit = m_nextSequence;
        if (m_manualReset) {
            for (WaitRecord* record = m_head; record != nullptr; record = record->next) {
                if (record->release.load(std::memory_order_relaxed) == kNoRelease) {
                    handLocked(*record, kManualPulseRelease, limit);
                }
            }
            return;
        }
        // A signal that was still pending belongs to one of the waiters (the platform would
        // have released one at the Set); the pulse then releases one more.
        if (wasSet) {
            if (WaitRecord* record = oldestLocked(kAnyWaiter, true)) {
                handLocked(*record, kSetRelease, kAnyWaiter);
            }
        }
        WaitRecord* record = oldestLocked(limit, true);
        if (record == nullptr) {
            record = oldestLocked(limit, false);
        }
        if (record != nullptr) {
            handLocked(*record, kAutoPulseRelease, limit);
        }
    }

    Acquire tryAcquire(WaitRecord* record) override {
        if (record != nullptr && record->release.load(std::memory_order_relaxed) != kNoRelease &&
            record->release.exchange(kNoRelease, std::memory_order_acq_rel) != kNoRelease) {
            return Acquire::Released;
        }
        if (m_signalled.load(std::memory_order_acquire) == 0) {
            return Acquire::None;
        }
        if (m_manualReset) {
            return Acquire::Taken;
        }
        std::uint32_t expected = 1;
        return m_signalled.compare_exchange_strong(expected, 0, std::memory_order_acq_rel,
                                                   std::memory_order_relaxed)
                   ? Acquire::Taken
                   : Acquire::None;
    }

    void undoAcquire(Acquire how, WaitRecord* record) override {
        // A release handed to a waiter for all is used up by its attempt (see tryAll), and
        // taking a manual-reset event changes nothing.
        if (how != Acquire::Taken || m_manualReset) {
            return;
        }
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_signalled.exchange(1, std::memory_order_acq_rel) == 0) {
            publishLocked(record);
        }
    }

    bool looksSignalled(const WaitRecord* record) const override {
        return m_signalled.load(std::memory_order_acquire) != 0 ||
               (record != nullptr && record->release.load(std::memory_order_acquire) != kNoRelease);
    }

    bool wakesWaiters() const override { return true; }

    bool enlist(WaitRecord& record) override {
        std::lock_guard<std::mutex> guard(m_lock);
        record.sequence = m_nextSequence++;
        record.prev = m_tail;
        record.next = nullptr;
        (m_tail != nullptr ? m_tail->next : m_head) = &record;
        m_tail = &record;
        return true;
    }

    void delist(WaitRecord& record) override {
        std::lock_guard<std::mutex> guard(m_lock);
        (record.prev != nullptr ? record.prev->next : m_head) = record.next;
        (record.next != nullptr ? record.next->prev : m_tail) = record.prev;
        record.prev = record.next = nullptr;
        switch (record.release.exchange(kNoRelease, std::memory_order_acq_rel)) {
            case kSetRelease:
                if (m_signalled.exchange(1, std::memory_order_acq_rel) == 0) {
                    publishLocked(nullptr);
                }
                break;
            case kAutoPulseRelease:
                if (WaitRecord* next = oldestLocked(record.releaseLimit, true)) {
                    handLocked(*next, kAutoPulseRelease, record.releaseLimit);
                }
                break;
            default:
                break;
        }
    }

  private:
    // The state has just become 1 (under the lock): release or wake the waiters that it
    // concerns. returned is the record of a wait for all that gives the event back, or null.
    void publishLocked(const WaitRecord* returned) {
        if (m_manualReset) {
            for (WaitRecord* record = m_head; record != nullptr; record = record->next) {
                if (record->release.load(std::memory_order_relaxed) == kNoRelease) {
                    handLocked(*record, kManualSetRelease, kAnyWaiter);
                }
            }
            return;
        }
        if (WaitRecord* record = oldestLocked(kAnyWaiter, true)) {
            std::uint32_t expected = 1;
            // If another thread took the signal meanwhile, that was this Set's release.
            if (m_signalled.compare_exchange_strong(expected, 0, std::memory_order_acq_rel,
                                                    std::memory_order_relaxed)) {
                handLocked(*record, kSetRelease, kAnyWaiter);
            }
            return;
        }
        // Only threads that wait for all: let them try. A wait for all that gives the event
        // back does not wake itself, nor threads that try again in slices anyway, so that
        // two waits for all that lack another object cannot keep waking each other.
        for (WaitRecord* record = m_head; record != nullptr; record = record->next) {
            if (record->waiter->waitAll &&
                (returned == nullptr ||
                 (record->waiter != returned->waiter && !record->waiter->sliced))) {
                WakeWaiter(*record->waiter);
            }
        }
    }

    // The longest-waiting record that enlisted before limit and holds no release; with
    // anyOnly, only among threads that wait for any object (a thread waiting for all cannot
    // promise to use a release).
    WaitRecord* oldestLocked(std::uint64_t limit, bool anyOnly) const {
        for (WaitRecord* record = m_head; record != nullptr; record = record->next) {
            if (record->sequence < limit &&
                record->release.load(std::memory_order_relaxed) == kNoRelease &&
                (!anyOnly || !record->waiter->waitAll)) {
                return record;
            }
        }
        return nullptr;
    }

    void handLocked(WaitRecord& record, ReleaseKind kind, std::uint64_t limit) {
        record.releaseLimit = limit;
        record.release.store(kind, std::memory_order_release);
        WakeWaiter(*record.waiter);
    }

    const bool m_manualReset;
    // 1 while signalled. Taking the signal is an acquire and raising it a release, so that a
    // waiter released by a Set sees what the setter wrote before; the relaxed loads are only
    // first looks that an exchange or the lock then confirms.
    std::atomic<std::uint32_t> m_signalled;
    const std::string m_name;  // empty for an unnamed event

    std::mutex m_lock;  // guards the list and the sequence numbers
    WaitRecord* m_head = nullptr;
    WaitRecord* m_tail = nullptr;
    std::uint64_t m_nextSequence = 0;
};

EventObject* eventOf(HANDLE handle) {
    return ObjectOfKind<EventObject>(handle, Waitable::Kind::Event);
}

}  // namespace

HANDLE CreateEventA(SECURITY_ATTRIBUTES* /*attributes*/, BOOL manualReset, BOOL initialState,
                    const char* name) {
    std::string key;
    if (name != nullptr && *name != '\0' && !NormaliseObjectName(name, key)) {
        return nullptr;
    }
    return eventNames().createHandle(
        key, [&] { return new EventObject(manualReset != FALSE, initialState != FALSE, key); });
}

HANDLE OpenEventA(DWORD /*desiredAccess*/, BOOL /*inheritHandle*/, const char* name) {
    std::string key;
    if (!KeyOfNameToOpen(name, key)) {
        return nullptr;
    }
    EventObject* event = eventNames().find(key);
    return event != nullptr ? MakeHandle(event) : nullptr;
}

BOOL SetEvent(HANDLE handle) {
    EventObject* event = eventOf(handle);
    if (event == nullptr) {
        return FALSE;
    }
    event->set();
    return TRUE;
}

BOOL ResetEvent(HANDLE handle) {
    EventObject* event = eventOf(handle);
    if (event == nullptr) {
        return FALSE;
    }
    event->reset();
    return TRUE;
}

BOOL PulseEvent(HANDLE handle) {
    EventObject* event = eventOf(handle);
    if (event == nullptr) {
        return FALSE;
    }
    event->pulse();
    return TRUE;
}

}  // namespace Tessel::Platform
