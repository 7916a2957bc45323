#include "tessel/supervision/ExceptionHandlerVelkor.h"

#include "tessel/logging/ILogging.h"
#include "tessel/platform/CrashHandling.h"
#include "tessel/platform/InvalidParameter.h"

namespace {

// Faults on purpose, so that the filter writes the dumps with this thread's stack.
[[gnu::noinline]] void FaultHere() {
    volatile int* volatile zero = nullptr;
    *zero = *zero + 1;
}

}  // namespace

void CExceptionHandlerVelkor::ActivateExceptionHandlers() {
    Tessel::Platform::SetPureCallHandler(&PureVirtualFuncCallHandler);
    Tessel::Platform::SetInvalidParameterHandler(
        [](const char*, const char*, const char*, unsigned int) {
            InvalidParameterHandler(nullptr, nullptr, nullptr, 0, 0);
        });
}

void CExceptionHandlerVelkor::InvalidParameterHandler(const wchar_t*, const wchar_t*,
                                                      const wchar_t*, unsigned int, std::size_t) {
    ILogging::getInstance().log(
        "CExceptionHandlerVelkor::InvalidParameterHandler", ILogging::Error,
        "InvalidParameterHandler: Invalid parameter detected, will create a dump and exit now.");
    FaultHere();
}

void CExceptionHandlerVelkor::PureVirtualFuncCallHandler() {
    ILogging::getInstance().log("CExceptionHandlerVelkor::PureVirtualFuncCallHandler",
                                ILogging::Error,
                                "Unexpected error, will create a dump and exit now.");
    FaultHere();
}
