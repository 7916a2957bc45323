// INotify: the base of objects that completion handlers keep alive by shared pointer.
//
// A handler posted to the pool's context captures shared_from_this() (or weak_from_this(),
// to skip work whose target is gone) so that its target lives until the handler has run.
// The object must then be owned by a std::shared_ptr. The library derives nothing from it.
//
// Copying copies nothing of the sharing: a copy belongs to whichever shared_ptr takes it.
//
// Thread safety: that of std::enable_shared_from_this; the derived class guards its own
// state.
#pragma once

#include <memory>

#include "tessel/Export.h"

class TESSEL_API INotify : public std::enable_shared_from_this<INotify> {
  public:
    INotify() = default;
    INotify(const INotify&) = default;
    INotify& operator=(const INotify&) = default;
    virtual ~INotify() = default;
};
