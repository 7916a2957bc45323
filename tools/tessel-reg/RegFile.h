// tessel-reg: the registry file format of export and import.
//
// The format is the one of the platform's registry editor:
//
//   Windows Registry Editor Version 5.00
//
//   [HKEY_LOCAL_MACHINE\SOFTWARE\Tarvo Works]
//   @="default value"
//   "Name"="text with \\ and \" escaped"
//   "Port"=dword:00002648
//   "Blob"=hex:00,01,ff
//   "Path"=hex(2):25,00,54,00,...          REG_EXPAND_SZ, as UTF-16LE bytes
//   "List"=hex(7):61,00,00,00,00,00        REG_MULTI_SZ, as UTF-16LE bytes
//   "Big"=hex(b):2a,00,00,00,00,00,00,00   REG_QWORD and every other type: hex(<type>)
//
// The platform's tools write such a file in UTF-16LE with a byte order mark and CRLF line
// ends, and read a file without a byte order mark as 8-bit ANSI text; export writes that form
// by default, and UTF-8 with LF line ends for Linux text tools on request.
//
// Our store keeps text as UTF-8; the UTF-16LE bytes of the file are converted both ways.
// Bytes of a stored text that are not UTF-8 travel as the UTF-16 code units 0xDC80..0xDCFF
// (as Python's "surrogateescape" does), so that an export and import give back every byte.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Store.h"

namespace TesselReg {

// The first line of a registry file; "REGEDIT4" files (8-bit text) are read as well.
inline constexpr const char* kRegFileHeader = "Windows Registry Editor Version 5.00";

// The encodings of an exported file.
enum class RegFileEncoding {
    Utf16,  // UTF-16LE, byte order mark, CRLF: what the platform's tools write and read
    Utf8,   // UTF-8 without byte order mark, LF: for grep, diff and editors on Linux
};

std::string Utf8ToUtf16Le(std::string_view utf8);
// The reverse; a final odd byte is dropped, a lone surrogate other than the escaped bytes
// becomes U+FFFD.
std::string Utf16LeToUtf8(std::string_view utf16);

// 8-bit Windows-1252 text as UTF-8; the bytes 0x81, 0x8D, 0x8F, 0x90 and 0x9D, which the
// code page leaves undefined, become U+0081 and so on.
std::string Windows1252ToUtf8(std::string_view text);

// The bytes of a file with the registry file text (ExportText's) in encoding.
std::string EncodeRegFile(const std::string& text, RegFileEncoding encoding);

// The registry file text of key and every key below it: the header, then one section per key,
// depth first with the sub-keys in name order, values in their order. LF line ends.
DWORD ExportText(const KeyName& key, std::string& text);

// The outcome of an import.
struct ImportReport {
    bool notRegistryFile = false;  // the header is missing; nothing was done
    // Lines that could not be read, as "line N: what"; they were skipped.
    std::vector<std::string> problems;
    // The store error that ended the import, and the line it happened at.
    DWORD storeError = 0;
    int storeErrorLine = 0;
};

// Applies a registry file, given as the bytes read from it: UTF-8 with or without a byte
// order mark, or UTF-16 with one; CRLF or LF line ends. A "REGEDIT4" file is read as
// Windows-1252 (its quoted texts, names and hex(1), hex(2), hex(7) data converted to UTF-8)
// unless it is valid UTF-8 as a whole. Supports sections "[KEY]" (the key is
// created), "[-KEY]" (the key and everything below it is deleted), values as above, '"Name"=-'
// and '@=-' (the value is deleted), comment lines starting with ';' and hex data continued on
// the next line after a trailing '\'.
ImportReport Import(const std::string& content);

}  // namespace TesselReg
