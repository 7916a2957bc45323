// Tessel::CHandle: the owner of one system handle.
//
// Holds one HANDLE of the platform layer (an event, a mutex, ...), null when empty, and closes
// it when it is destroyed. Copying moves: the copy constructor and the assignment take a
// non-const reference and leave the source empty, so that exactly one object owns the handle
// and only that one closes it. Temporaries move the same way.
//
// Thread safety: none; an object belongs to one thread at a time. The handle itself may be
// used from any thread.
#pragma once

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel {

class TESSEL_API CHandle {
  public:
    using HANDLE = Platform::HANDLE;

    // Empty.
    CHandle() noexcept = default;
    // Takes ownership of handle, which is not checked; null leaves the object empty.
    explicit CHandle(HANDLE handle) noexcept : m_h(handle) {}
    // Takes the handle of source and leaves source empty.
    CHandle(CHandle& source) noexcept : m_h(source.Detach()) {}
    CHandle(CHandle&& source) noexcept : m_h(source.Detach()) {}
    // Closes the handle held, then takes the one of source and leaves source empty.
    // Assignment to itself does nothing.
    CHandle& operator=(CHandle& source) noexcept;
    CHandle& operator=(CHandle&& source) noexcept { return *this = source; }
    // As Close.
    ~CHandle() { Close(); }

    // Stores handle as the one owned. A handle held before is not closed: the caller who
    // attaches over one has taken it out before, with Detach.
    void Attach(HANDLE handle) noexcept { m_h = handle; }
    // Returns the handle and leaves the object empty; the caller now owns the handle.
    HANDLE Detach() noexcept;
    // Closes a held handle and leaves the object empty. Does nothing when empty.
    void Close() noexcept;

    // The raw handle, null when empty. Ownership stays with the object.
    operator HANDLE() const noexcept { return m_h; }

  protected:
    HANDLE m_h = nullptr;
};

}  // namespace Tessel
