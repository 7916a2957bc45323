// CTraceGuard: trace lines at the start and the end of a scope on the trace channel.
//
// The constructor writes "<text> start\n", the destructor "<text> end\n", each through
// CTraceUtil::OutputString under the guard's category. Copying is plain: a copy writes an end
// line of its own.
#pragma once

#include <string>

#include "tessel/Export.h"

class TESSEL_API CTraceGuard {
  public:
    CTraceGuard(unsigned int category, std::string text);
    ~CTraceGuard();

  private:
    std::string m_strText;
    unsigned int m_uiCategory;
};
