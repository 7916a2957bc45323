// The file version of the executable.
//
// Linux executables carry no version resource. A program gives itself one by writing, once,
// at namespace scope in one of its source files:
//
//     TESSEL_EXECUTABLE_VERSION("7.7.0.9062")
//
// which places the text, NUL-terminated, in the ELF section ".tessel_version" of the
// executable. GetExecutableFileVersion reads that section back from /proc/self/exe. The text
// is four decimal parts a.b.c.d, each from 0 to 65535, as the platform's file version has.
//
// Thread safety: GetExecutableFileVersion may be called from any thread.
#pragma once

#include <cstdint>

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

// Places text in the section ".tessel_version" of the program that is linked with it. Use it
// once per executable, at namespace scope; a shared library that uses it does not change the
// version of the executable that loads it.
#define TESSEL_EXECUTABLE_VERSION(text)                                                \
    extern "C" __attribute__((section(".tessel_version"), used, visibility("hidden"))) \
    const char tessel_executable_version_text[] = text;

namespace Tessel::Platform {

// The four parts a.b.c.d of the executable's file version, from the section
// ".tessel_version" of /proc/self/exe. FALSE when the file cannot be read or is no 64-bit
// ELF file, when it has no such section, or when the text is not four decimal parts of at
// most 65535 separated by '.'; the parts are then unchanged.
TESSEL_API BOOL GetExecutableFileVersion(std::uint16_t parts[4]);

// Parses "a.b.c.d" into parts: four decimal parts of at most 65535 separated by '.', and
// nothing else. FALSE otherwise, with the parts unchanged.
TESSEL_API BOOL ParseFileVersion(const char* text, std::uint16_t parts[4]);

}  // namespace Tessel::Platform
