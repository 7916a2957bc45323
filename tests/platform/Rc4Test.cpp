#include "tessel/platform/Rc4.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <vector>

#include "support/Bytes.h"

namespace {

using Tessel::Platform::Rc4;
using TesselTest::Bytes;

struct Vector {
    Bytes key;
    std::size_t offset;
    Bytes stream;  // 16 bytes of keystream from offset
};

// RFC 6229, the 40-bit and the 128-bit key.
const Vector kVectors[] = {
    {{1, 2, 3, 4, 5},
     0,
     {0xb2, 0x39, 0x63, 0x05, 0xf0, 0x3d, 0xc0, 0x27, 0xcc, 0xc3, 0x52, 0x4a, 0x0a, 0x11, 0x18,
      0xa8}},
    {{1, 2, 3, 4, 5},
     16,
     {0x69, 0x82, 0x94, 0x4f, 0x18, 0xfc, 0x82, 0xd5, 0x89, 0xc4, 0x03, 0xa4, 0x7a, 0x0d, 0x09,
      0x19}},
    {{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16},
     0,
     {0x9a, 0xc7, 0xcc, 0x9a, 0x60, 0x9d, 0x1e, 0xf7, 0xb2, 0x93, 0x28, 0x99, 0xcd, 0xe4, 0x1b,
      0x97}},
    {{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16},
     16,
     {0x52, 0x48, 0xc4, 0x95, 0x90, 0x14, 0x12, 0x6a, 0x6e, 0x8a, 0x84, 0xf1, 0x1d, 0x1a, 0x9e,
      0x1c}},
};

Bytes Keystream(const Bytes& key, std::size_t size) {
    Rc4 cipher;
    cipher.SetKey(key.data(), key.size());
    Bytes stream(size, 0);
    cipher.Apply(stream.data(), stream.size());
    return stream;
}

}  // namespace

TEST(Rc4, KeystreamMatchesPublishedVectors) {
    for (const Vector& v : kVectors) {
        const Bytes stream = Keystream(v.key, v.offset + 16);
        EXPECT_EQ(Bytes(stream.begin() + v.offset, stream.end()), v.stream)
            << v.key.size() << "-byte key, offset " << v.offset;
    }
}

TEST(Rc4, StreamContinuesAcrossPiecesOfAnySize) {
    const Bytes key = kVectors[2].key;
    const Bytes whole = Keystream(key, 70000);
    Rc4 cipher;
    cipher.SetKey(key.data(), key.size());
    Bytes pieces(whole.size(), 0);
    // Pieces that start and end inside and across the eight-byte groups.
    const std::size_t sizes[] = {1, 7, 8, 9, 0, 3, 16, 1000, 4093};
    std::size_t at = 0;
    for (std::size_t i = 0; at < pieces.size(); ++i) {
        const std::size_t size = std::min(sizes[i % std::size(sizes)], pieces.size() - at);
        cipher.Apply(pieces.data() + at, size);
        at += size;
    }
    EXPECT_EQ(pieces, whole);
    // A copy goes on with the same stream; SetKey starts it afresh.
    Rc4 copy = cipher;
    Bytes next(64, 0), copied(64, 0);
    cipher.Apply(next.data(), next.size());
    copy.Apply(copied.data(), copied.size());
    EXPECT_EQ(next, copied);
    cipher.SetKey(key.data(), key.size());
    Bytes again(16, 0);
    cipher.Apply(again.data(), again.size());
    EXPECT_EQ(again, Bytes(whole.begin(), whole.begin() + 16));
}
