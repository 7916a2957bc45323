// CTesselString: text helpers of the persistence layer.
//
// TCharToAscii copies the library's character text (narrow, as all text here) into an ASCII
// buffer; the bytes are copied as they are. s_szPrintingAsciiChars is the text of the 94
// printing ASCII characters, 0x21 to 0x7E in ascending order, with one difference that stays:
// the place of the apostrophe (0x27) holds a grave accent (0x60), so the grave accent occurs
// twice and the apostrophe not at all.
//
// Thread safety: the operations touch only their arguments and may be called from any thread.
#pragma once

#include "tessel/Export.h"

class TESSEL_API CTesselString {
  public:
    // Copies source up to and including its terminator into target, which must have room for
    // it. Does nothing if either is null.
    static void TCharToAscii(const char* source, char* target);
    // Copies at most maxLength characters of source, fewer where its terminator comes first,
    // then writes a terminator: target needs maxLength + 1 bytes. Does nothing if either is
    // null.
    static void TCharToAscii(const char* source, char* target, unsigned int maxLength);

    // s_szPrintingAsciiChars.
    static const char* getPrintingAsciiChars();

    // The 94 printing characters as described above, zero-terminated.
    static const char s_szPrintingAsciiChars[95];
};
