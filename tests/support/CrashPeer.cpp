// A process that installs the crash handlers as a server does and then dies by the cause named
// on its command line: segv, fpe, abort, exception, purevirtual, invalid, overflow, or
// foreign (an exception of a type that does not derive from std::exception). Each cause has a
// function of its own, which the stack of the dumps shows.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "tessel/platform/CheckedPrint.h"
#include "tessel/supervision/ExceptionHandlerVelkor.h"
#include "tessel/supervision/MiniDumpHelper.h"

namespace {

[[gnu::noinline]] void CrashBySegmentationFault() {
    volatile int* volatile address = nullptr;
    *address = 1;
}

[[gnu::noinline]] int CrashByDivisionByZero() {
    volatile int numerator = 7;
    volatile int zero = 0;
    return numerator / zero;
}

[[gnu::noinline]] void CrashByAbort() {
    std::abort();
}

[[gnu::noinline]] void CrashByException() {
    throw std::runtime_error("boom");
}

[[gnu::noinline]] void CrashByForeignException() {
    throw 42;
}

// A base whose constructor reaches its own pure virtual function.
struct Base {
    Base() { callIt(); }
    virtual ~Base() = default;
    [[gnu::noinline]] void callIt() { work(); }
    virtual void work() = 0;
};
struct Derived : Base {
    void work() override {}
};

[[gnu::noinline]] void CrashByPureVirtualCall() {
    Derived derived;
}

[[gnu::noinline]] void CrashByInvalidParameter() {
    char small[4];
    Tessel::Platform::sprintf_s(small, sizeof small, "%s", "too long for it");
}

// Ends only where the stack does not: the limit is never reached.
volatile int overflowLimit = 1 << 30;

[[gnu::noinline]] int CrashByStackOverflow(int depth) {
    volatile char frame[4096];
    frame[0] = static_cast<char>(depth);
    if (depth >= overflowLimit) {
        return 0;
    }
    return CrashByStackOverflow(depth + 1) + frame[0];
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s cause\n", argv[0]);
        return 2;
    }
    custom_minidump::MiniDumpHelper helper;
    CExceptionHandlerVelkor::ActivateExceptionHandlers();
    const struct {
        const char* name;
        void (*crash)();
    } causes[] = {
        {"segv", CrashBySegmentationFault},
        {"fpe", [] { CrashByDivisionByZero(); }},
        {"abort", CrashByAbort},
        {"exception", CrashByException},
        {"foreign", CrashByForeignException},
        {"purevirtual", CrashByPureVirtualCall},
        {"invalid", CrashByInvalidParameter},
        {"overflow", [] { CrashByStackOverflow(0); }},
    };
    for (const auto& cause : causes) {
        if (std::strcmp(argv[1], cause.name) == 0) {
            cause.crash();
        }
    }
    return 3;
}
