// The platform's texts for its error numbers.
//
// FormatMessageA with FORMAT_MESSAGE_FROM_SYSTEM gives the standard English text of an error
// number as the platform words it, ending in "\r\n" as the platform's texts do: 2 gives
// "The system cannot find the file specified.\r\n". It knows the error numbers that the
// platform layer reports (Types.h) and a few more; an HRESULT made from an error number
// (0x8007xxxx) gives the text of that number. Callers that want one line cut the text with
// CUtil::CleanUnprintableString.
#pragma once

#include <cstdarg>

#include "tessel/Export.h"
#include "tessel/platform/Resources.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

// Flags of FormatMessageA. The low byte (FORMAT_MESSAGE_MAX_WIDTH_MASK) asks for line
// breaks at a width; the texts are single lines, and it is ignored.
inline constexpr DWORD FORMAT_MESSAGE_ALLOCATE_BUFFER = 0x00000100u;
inline constexpr DWORD FORMAT_MESSAGE_IGNORE_INSERTS = 0x00000200u;
inline constexpr DWORD FORMAT_MESSAGE_FROM_STRING = 0x00000400u;
inline constexpr DWORD FORMAT_MESSAGE_FROM_HMODULE = 0x00000800u;
inline constexpr DWORD FORMAT_MESSAGE_FROM_SYSTEM = 0x00001000u;
inline constexpr DWORD FORMAT_MESSAGE_ARGUMENT_ARRAY = 0x00002000u;
inline constexpr DWORD FORMAT_MESSAGE_MAX_WIDTH_MASK = 0x000000FFu;

// The module whose message table holds the texts of the internet errors 12001 to 12156; pass
// it as source with FORMAT_MESSAGE_FROM_HMODULE.
TESSEL_API HMODULE InternetMessageModule();

// Writes the text of the error number messageId, NUL-terminated, into buffer of size
// characters and returns its length without the NUL. flags must hold
// FORMAT_MESSAGE_FROM_SYSTEM, normally with FORMAT_MESSAGE_IGNORE_INSERTS; source,
// languageId (the texts are English) and arguments are not used. Returns 0 with the last
// error set, and buffer emptied where size allows, when
// - messageId has no text: ERROR_MR_MID_NOT_FOUND;
// - the text and its NUL do not fit into size characters: ERROR_INSUFFICIENT_BUFFER;
// - flags lack FORMAT_MESSAGE_FROM_SYSTEM or ask for what is not supported (an allocated
//   buffer, a string or module source), buffer is null, or the text has inserts ("%1") and
//   FORMAT_MESSAGE_IGNORE_INSERTS is missing: ERROR_INVALID_PARAMETER.
// A successful call leaves the last error as it was. Thread-safe.
TESSEL_API DWORD FormatMessageA(DWORD flags, const void* source, DWORD messageId, DWORD languageId,
                                char* buffer, DWORD size, std::va_list* arguments);

}  // namespace Tessel::Platform
