// CExceptionHandlerVelkor: routes the runtime's two silent deaths into the dump path.
//
// A call to a pure virtual function and an invalid parameter to a checked function (a text
// that does not fit its buffer, tessel/platform/InvalidParameter.h) would otherwise end the
// process without a dump. ActivateExceptionHandlers installs a handler for each that logs one
// line at error level and then faults on purpose (a write to address zero), so that the
// MiniDumpHelper's filter writes the dumps with the culprit's stack.
//
// A process calls ActivateExceptionHandlers once, right after constructing its MiniDumpHelper;
// the handlers are process-wide and stay to the end of the process.
#pragma once

#include <cstddef>

#include "tessel/Export.h"

class TESSEL_API CExceptionHandlerVelkor {
  public:
    static void ActivateExceptionHandlers();

  protected:
    // Logs "InvalidParameterHandler: Invalid parameter detected, will create a dump and exit
    // now." under "CExceptionHandlerVelkor::InvalidParameterHandler" and faults. The
    // arguments are ignored.
    static void InvalidParameterHandler(const wchar_t* expression, const wchar_t* function,
                                        const wchar_t* file, unsigned int line,
                                        std::size_t reserved);
    // Logs "Unexpected error, will create a dump and exit now." under
    // "CExceptionHandlerVelkor::PureVirtualFuncCallHandler" and faults.
    static void PureVirtualFuncCallHandler();
};
