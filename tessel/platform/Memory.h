// Local memory blocks, as LocalAlloc hands them out: the variable-size records that the
// telephony functions fill are allocated, measured and freed through them.
//
// A block is fixed: its HLOCAL is the address of its bytes, aligned for any type, and it
// remembers the size that was asked for, which LocalSize returns exactly. Movable blocks are
// not offered. A block belongs to whoever allocated it until LocalFree; the functions may be
// called from any thread, a block is used by one thread at a time.
#pragma once

#include <cstddef>

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

using HLOCAL = void*;
using SIZE_T = std::size_t;

// Flags of LocalAlloc.
inline constexpr UINT LMEM_FIXED = 0x0000;
inline constexpr UINT LMEM_ZEROINIT = 0x0040;
inline constexpr UINT LPTR = LMEM_FIXED | LMEM_ZEROINIT;

// Allocates a block of bytes bytes (0 gives a block of size 0 all the same), zeroed with
// LMEM_ZEROINIT. Null on failure: ERROR_NOT_ENOUGH_MEMORY, ERROR_INVALID_PARAMETER for flags
// other than those above.
TESSEL_API HLOCAL LocalAlloc(UINT flags, SIZE_T bytes);

// The size that block was allocated with. 0 with ERROR_INVALID_HANDLE for null or for a value
// that is not a live block (as far as can be told: a block freed already is not recognised
// once its memory has been reused).
TESSEL_API SIZE_T LocalSize(HLOCAL block);

// Frees block. Null on success (also for a null block); the block itself, with
// ERROR_INVALID_HANDLE, for a value that is not a live block.
TESSEL_API HLOCAL LocalFree(HLOCAL block);

}  // namespace Tessel::Platform
