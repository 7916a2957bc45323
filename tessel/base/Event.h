// Tessel::CEvent: an owned event handle with the event operations.
//
// A Tessel::CHandle that holds an event of the platform layer (tessel/platform/Event.h): a
// manual-reset event stays signalled until Reset; an automatic-reset event releases one
// waiter and resets itself. It adds no data and no virtual operations, and it moves on copy
// exactly as CHandle does.
//
// The two constructors that create an event throw Tessel::CHResultException with the last
// error in HRESULT form when the event cannot be made, e.g. 0x800700CE for a name longer than
// 260 characters. Create, Open and the event operations report by their result and never
// throw.
//
// Thread safety: as CHandle; Set, Reset and Pulse may be called on one event from any number
// of threads.
#pragma once

#include "tessel/Export.h"
#include "tessel/base/HResultException.h"
#include "tessel/base/Handle.h"
#include "tessel/platform/Types.h"

namespace Tessel {

class TESSEL_API CEvent : public CHandle {
  public:
    using SECURITY_ATTRIBUTES = Platform::SECURITY_ATTRIBUTES;

    // Empty.
    CEvent() noexcept = default;
    // Takes ownership of handle, which is not checked.
    explicit CEvent(HANDLE handle) noexcept : CHandle(handle) {}
    // Takes the handle of source and leaves source empty.
    CEvent(CEvent& source) noexcept : CHandle(source) {}
    CEvent(CEvent&& source) noexcept : CHandle(source) {}
    // Creates an unnamed event with default security at once: manual reset when manualReset
    // is non-zero, signalled when initialState is non-zero. Throws CHResultException.
    CEvent(int manualReset, int initialState);
    // Creates the event as Create does, at once. Throws CHResultException.
    CEvent(SECURITY_ATTRIBUTES* attributes, int manualReset, int initialState, const char* name);
    // Closes the handle held, then takes the one of source and leaves source empty.
    CEvent& operator=(CEvent& source) noexcept;
    CEvent& operator=(CEvent&& source) noexcept { return *this = source; }

    // Creates an event, or opens the existing one of that name (manualReset and initialState
    // are then ignored and the last error is ERROR_ALREADY_EXISTS). attributes may be null,
    // name may be null for an unnamed event. The result, null on failure, is stored over
    // the handle held, which is not closed. Non-zero if a handle was obtained; on failure
    // the last error tells why.
    int Create(SECURITY_ATTRIBUTES* attributes, int manualReset, int initialState,
               const char* name);
    // Opens the existing event of that name; access and inherit are accepted as the platform
    // takes them. Stores the result as Create does; non-zero if a handle was obtained,
    // otherwise 0 with the last error ERROR_FILE_NOT_FOUND when there is no such event.
    int Open(unsigned long access, int inherit, const char* name);

    // Signals the event. Non-zero on success; 0 with ERROR_INVALID_HANDLE when empty.
    int Set();
    // Resets the event. Results as Set.
    int Reset();
    // Releases the threads that wait at this moment (all for manual reset, one for automatic
    // reset) and leaves the event reset. Results as Set.
    int Pulse();
};

}  // namespace Tessel
