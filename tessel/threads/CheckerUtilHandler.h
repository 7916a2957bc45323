// CheckerUtilHandler: a counted door to the process's one global CheckerUtil.
//
// The first handler alive creates the global list, the last one to go deletes it, and with
// that the list reports every thread still on record. An owner that wants its entries to
// survive holds a handler for as long as they should.
//
// The forwarding operations are empty by a build decision of this library: AddThreadInfo,
// EraseThreadInfo and HasThreadDBAccess return true and do nothing, EmptyThreadMap does
// nothing. So no entry reaches the global list through a handler; a class derived from the
// handler reaches the list itself through GetGlobalCheckerUtil.
//
// Lifetime: a handler has no data of its own; the global list lives while any handler does.
// The class-wide members are defined in the library and live until its unloading.
//
// Thread safety: handlers may be made and destroyed on any thread at once. s_csGuard guards
// the count and the list pointer; it is taken before the list's own guard when the last
// handler tears the list down.
#pragma once

#include <cstdint>

#include "tessel/Export.h"
#include "tessel/base/CriticalSectionSyncGuard.h"
#include "tessel/threads/CheckerUtil.h"

class TESSEL_API CheckerUtilHandler {
  public:
    // Creates the global list if there is none, and counts this handler.
    CheckerUtilHandler();
    // Uncounts this handler; the last one deletes the global list.
    ~CheckerUtilHandler();

    // True; nothing happens.
    bool AddThreadInfo(unsigned int threadId);
    // True; nothing happens.
    bool EraseThreadInfo(unsigned int threadId);
    // True for any thread, listed or not; the flag is not looked at.
    bool HasThreadDBAccess(unsigned int threadId, bool);
    // Nothing happens.
    void EmptyThreadMap();

  protected:
    // The global list, s_pCheckerUtil: valid while this handler lives.
    CheckerUtil* GetGlobalCheckerUtil();

    // Guards s_pCheckerUtil and s_ulInstanceCounter.
    static CCriticalSectionSyncGuard s_csGuard;
    // The global list; null while no handler lives.
    static CheckerUtil* s_pCheckerUtil;
    // The number of live handlers.
    static std::uint32_t s_ulInstanceCounter;

  private:
    CheckerUtilHandler(const CheckerUtilHandler&) = delete;
    CheckerUtilHandler& operator=(const CheckerUtilHandler&) = delete;
};
