#include "tessel/platform/InvalidParameter.h"

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "tessel/platform/DebugOutput.h"

namespace Tessel::Platform {
namespace {
// Installed with a release, read with an acquire: a handler's own set-up, done before it was
// installed, is seen by every thread that calls it.
std::atomic<InvalidParameterHandler> g_handler{&DefaultInvalidParameterHandler};

const char* orUnknown(const char* text) {
    return text != nullptr ? text : "?";
}
}  // namespace

void DefaultInvalidParameterHandler(const char* expression, const char* function, const char* file,
                                    unsigned int line) {
    char text[512];
    std::snprintf(text, sizeof text, "Invalid parameter: %s in %s (%s:%u)\n", orUnknown(expression),
                  orUnknown(function), orUnknown(file), line);
    OutputDebugStringA(text);
    const ssize_t ignored = ::write(STDERR_FILENO, text, __builtin_strlen(text));
    (void)ignored;
    std::abort();
}

InvalidParameterHandler SetInvalidParameterHandler(InvalidParameterHandler handler) {
    return g_handler.exchange(handler != nullptr ? handler : &DefaultInvalidParameterHandler,
                              std::memory_order_acq_rel);
}

InvalidParameterHandler GetInvalidParameterHandler() {
    return g_handler.load(std::memory_order_acquire);
}

void InvokeInvalidParameter(const char* expression, const char* function, const char* file,
                            unsigned int line) {
    g_handler.load(std::memory_order_acquire)(expression, function, file, line);
}

}  // namespace Tessel::Platform
