// Fuzz target for CPersistDataWithCompression::loadData, the reader of compression frames,
// over a wrapped CMemoryBufferPersist.
//
// Input: the bytes of a frame, handed over as they come (libFuzzer's copy of exactly that
// length, so that a read beyond it is caught).
//
// Each run checks what the frame reader promises for any input, and aborts with a note on
// stderr when a promise is broken:
//  - it never reads past the input and never crashes;
//  - a frame that loads names the LZ4 type and an original size at least the loaded buffer's
//    form, and a frame of its own, made from the loaded buffer, loads back to equal bytes;
//  - a loader that already holds a frame refuses an input shorter than that frame;
//  - the input taken as data compresses into a frame that loads back to the same bytes.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "tessel/persistence/MemoryBufferPersist.h"
#include "tessel/persistence/PersistDataWithCompression.h"

namespace {

void require(bool holds, const char* promise) {
    if (!holds) {
        std::fprintf(stderr, "persist frame: %s\n", promise);
        std::abort();
    }
}

std::vector<unsigned char> saved(const IPersistData& data) {
    std::vector<unsigned char> bytes(data.getSize());
    data.saveData(bytes.data(), bytes.size());
    return bytes;
}

bool sameBytes(const CMemoryBuffer& a, const CMemoryBuffer& b) {
    return a.GetSize() == b.GetSize() &&
           (a.GetSize() == 0 || std::memcmp(a.GetBuffer(), b.GetBuffer(), a.GetSize()) == 0);
}

// Compresses data into a frame and loads it back into a new buffer, which must equal data.
void requireRoundTrip(const CMemoryBufferPersist& data, const char* promise) {
    const std::vector<unsigned char> frame =
        saved(CPersistDataWithCompression(&data, CPersistDataWithCompression::LZ4));
    CMemoryBufferPersist loaded;
    CPersistDataWithCompression loader(&loaded);
    require(loader.loadData(frame.data(), frame.size()), promise);
    require(sameBytes(data, loaded), promise);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    CMemoryBufferPersist target;
    CPersistDataWithCompression loader(&target);
    if (loader.loadData(data, size)) {
        require(loader.GetCompressionType() == CPersistDataWithCompression::LZ4,
                "a frame of another type loads");
        require(target.getSize() <= loader.GetOriginalSize(),
                "the loaded buffer's form exceeds the original size");
        requireRoundTrip(target, "the loaded buffer does not round-trip");
        if (size > 0) {
            require(!loader.loadData(data, loader.getSize() - 1),
                    "a loader accepts an input shorter than the frame it holds");
        }
    }

    CMemoryBufferPersist input;
    if (size > 0) {
        input.Assign(data, size);
    }
    requireRoundTrip(input, "the input taken as data does not round-trip");
    return 0;
}
