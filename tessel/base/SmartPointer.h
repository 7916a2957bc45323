// Tessel::CSmartPointer: a shared owner of one object.
//
// A small holder around a std::shared_ptr: copies share the object, and the last holder that
// lets go deletes it. An empty holder points at nothing; get gives null and the bool test
// false. The destructor is virtual so that a holder with more to say may derive from it.
//
// Lifetime: the object lives as long as any holder (or any shared_ptr handed in) refers to
// it; a holder taken from a container stays valid after the container dropped its own.
//
// Thread safety: that of std::shared_ptr. Different holders of one object may be copied and
// destroyed on different threads at once; one holder is for one thread at a time. The object
// itself is not guarded.
#pragma once

#include <memory>
#include <utility>

#include "tessel/Export.h"

namespace Tessel {

template <typename T>
class TESSEL_API CSmartPointer {
  public:
    // Empty.
    CSmartPointer() noexcept = default;
    // Takes ownership of target; null leaves the holder empty.
    explicit CSmartPointer(T* target) : m_pTarget(target) {}
    // Shares the object of target.
    explicit CSmartPointer(std::shared_ptr<T> target) noexcept : m_pTarget(std::move(target)) {}
    CSmartPointer(const CSmartPointer&) = default;
    CSmartPointer(CSmartPointer&&) noexcept = default;
    CSmartPointer& operator=(const CSmartPointer&) = default;
    CSmartPointer& operator=(CSmartPointer&&) noexcept = default;
    virtual ~CSmartPointer() = default;

    T* get() const noexcept { return m_pTarget.get(); }
    T* operator->() const noexcept { return m_pTarget.get(); }
    // Not for an empty holder.
    T& operator*() const noexcept { return *m_pTarget; }
    explicit operator bool() const noexcept { return m_pTarget != nullptr; }

    // Lets go of the object (deleting it if this was its last holder) and takes target.
    void reset(T* target = nullptr) { m_pTarget.reset(target); }

  private:
    std::shared_ptr<T> m_pTarget;
};

}  // namespace Tessel
