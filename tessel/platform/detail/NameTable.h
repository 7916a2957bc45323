// The named objects of one kind that this process holds (private to the library).
//
// Named events and system events are shared within the process by name: a second create of
// a name finds the object in its kind's table. The table's lock also guards the reference
// counts of the objects in it, so that a last release and a create of the same name do not
// cross.
//
// Fork safety: the lock is held across fork(), so that the child does not inherit it held by
// a thread that does not exist there.
#pragma once

#include <pthread.h>

#include <mutex>
#include <string>
#include <unordered_map>

namespace Tessel::Platform {

template <class Object>
class NameTable {
  public:
    // The table of this kind, created at first use and never destroyed (objects may be
    // released during process exit).
    static NameTable& instance() {
        static NameTable* table = [] {
            auto* created = new NameTable;
            ::pthread_atfork(&lockForFork, &unlockAfterFork, &unlockAfterFork);
            return created;
        }();
        return *table;
    }

    std::mutex lock;
    std::unordered_map<std::string, Object*> byName;  // guarded by lock

  private:
    NameTable() = default;

    static void lockForFork() { instance().lock.lock(); }
    static void unlockAfterFork() { instance().lock.unlock(); }
};

}  // namespace Tessel::Platform
