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

#include <atomic>
#include <cstdint>
#include <mutex>
#include <new>
#include <string>
#include <unordered_map>

#include "tessel/platform/LastError.h"
#include "tessel/platform/Types.h"
#include "tessel/platform/detail/KernelObject.h"

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

    // The object named key with one reference more, or a new one from make() (which returns
    // an object holding one reference, or null with the last error set) entered under key.
    // existed tells which. Null with ERROR_NOT_ENOUGH_MEMORY when memory runs out.
    template <class Make>
    Object* findOrMake(const std::string& key, Make&& make, bool& existed) {
        try {
            std::lock_guard<std::mutex> guard(lock);
            auto found = byName.find(key);
            if (found != byName.end()) {
                found->second->addRef();
                existed = true;
                return found->second;
            }
            existed = false;
            Object* made = make();
            if (made != nullptr) {
                try {
                    byName.emplace(key, made);
                } catch (...) {
                    delete made;
                    throw;
                }
            }
            return made;
        } catch (const std::bad_alloc&) {
            SetLastError(ERROR_NOT_ENOUGH_MEMORY);
            return nullptr;
        }
    }

    // The handle that a CreateX call returns: for an empty key a new object from make(),
    // else the object named key, found or made (see findOrMake). The last error is
    // ERROR_ALREADY_EXISTS for an object that existed, else ERROR_SUCCESS; null with the last
    // error set on failure. make() returns null with the last error set, or throws
    // std::bad_alloc.
    template <class Make>
    HANDLE createHandle(const std::string& key, Make&& make) {
        bool existed = false;
        Object* object = nullptr;
        if (key.empty()) {
            try {
                object = make();
            } catch (const std::bad_alloc&) {
                SetLastError(ERROR_NOT_ENOUGH_MEMORY);
            }
        } else {
            object = findOrMake(key, make, existed);
        }
        if (object == nullptr) {
            return nullptr;
        }
        HANDLE handle = MakeHandle(object);
        if (handle != nullptr) {
            SetLastError(existed ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
        }
        return handle;
    }

    // The object named key with one reference more; null with ERROR_FILE_NOT_FOUND.
    Object* find(const std::string& key) {
        std::lock_guard<std::mutex> guard(lock);
        auto found = byName.find(key);
        if (found == byName.end()) {
            SetLastError(ERROR_FILE_NOT_FOUND);
            return nullptr;
        }
        found->second->addRef();
        return found->second;
    }

    // Drops one of refs, the reference count of the object named key, under the lock, so
    // that a find never revives a dying object. True if it was the last: the name is gone
    // and the caller deletes the object.
    bool dropNamed(std::atomic<std::uint32_t>& refs, const std::string& key) {
        std::lock_guard<std::mutex> guard(lock);
        if (refs.fetch_sub(1, std::memory_order_acq_rel) != 1) {
            return false;
        }
        byName.erase(key);
        return true;
    }

  private:
    NameTable() = default;

    static void lockForFork() { instance().lock.lock(); }
    static void unlockAfterFork() { instance().lock.unlock(); }
};

}  // namespace Tessel::Platform
