// Local memory blocks: a header in front of the caller's bytes holds the size asked for and a
// tag that tells a live block from anything else.
#include "tessel/platform/Memory.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

#include "tessel/platform/LastError.h"

namespace Tessel::Platform {
namespace {

constexpr std::uint64_t kLiveTag = 0x6B636F6C4C617A54ull;  // "TzaLlock"
constexpr std::uint64_t kFreedTag = 0x646565724664654Bull;

// In front of every block; its size keeps the caller's bytes aligned for any type.
struct alignas(alignof(std::max_align_t)) Header {
    std::uint64_t tag;
    SIZE_T size;
};

Header* headerOf(HLOCAL block) {
    if (block == nullptr ||
        reinterpret_cast<std::uintptr_t>(block) % alignof(std::max_align_t) != 0) {
        return nullptr;
    }
    Header* header = static_cast<Header*>(block) - 1;
    return header->tag == kLiveTag ? header : nullptr;
}

}  // namespace

HLOCAL LocalAlloc(UINT flags, SIZE_T bytes) {
    if ((flags & ~LPTR) != 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    if (bytes > SIZE_MAX - sizeof(Header)) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    void* memory = std::malloc(sizeof(Header) + bytes);
    if (memory == nullptr) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    Header* header = new (memory) Header{kLiveTag, bytes};
    if ((flags & LMEM_ZEROINIT) != 0) {
        std::memset(header + 1, 0, bytes);
    }
    return header + 1;
}

SIZE_T LocalSize(HLOCAL block) {
    const Header* header = headerOf(block);
    if (header == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    return header->size;
}

HLOCAL LocalFree(HLOCAL block) {
    if (block == nullptr) {
        return nullptr;
    }
    Header* header = headerOf(block);
    if (header == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return block;
    }
    header->tag = kFreedTag;
    std::free(header);
    return nullptr;
}

}  // namespace Tessel::Platform
