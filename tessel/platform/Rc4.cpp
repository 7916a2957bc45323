#include "tessel/platform/Rc4.h"

#include <bit>
#include <cstring>

namespace Tessel::Platform {

// Eight keystream bytes are gathered into one word, the first byte lowest.
static_assert(std::endian::native == std::endian::little);

Rc4::Rc4() {
    const unsigned char zero = 0;
    SetKey(&zero, 1);
}

void Rc4::SetKey(const unsigned char* key, std::size_t length) {
    const unsigned char zero = 0;
    if (length == 0 || key == nullptr) {
        key = &zero;
        length = 1;
    }
    if (length > 256) {
        length = 256;
    }
    for (std::uint32_t i = 0; i < 256; ++i) {
        m_state[i] = i;
    }
    std::uint32_t j = 0;
    for (std::uint32_t i = 0; i < 256; ++i) {
        const std::uint32_t t = m_state[i];
        j = (j + t + key[i % length]) & 255;
        m_state[i] = m_state[j];
        m_state[j] = t;
    }
    m_x = 0;
    m_y = 0;
}

void Rc4::Apply(unsigned char* data, std::size_t length) {
    if (length == 0) {
        return;
    }
    std::uint32_t* const s = m_state;
    std::uint32_t x = (m_x + 1) & 255;
    std::uint32_t y = m_y;
    // The entry of the coming step, loaded one step ahead: the chain from one step to the
    // next is then the add of y alone, not a load behind the stores of the step before.
    std::uint32_t a = s[x];
    const auto step = [&]() __attribute__((always_inline)) {
        y = (y + a) & 255;
        const std::uint32_t b = s[y];
        const std::uint32_t nextX = (x + 1) & 255;
        std::uint32_t nextA = s[nextX];
        s[y] = a;
        s[x] = b;
        if (__builtin_expect(nextX == y, 0)) {
            // The entry read ahead was the one just swapped in: it now holds a. A branch,
            // not a conditional move, keeps the compare off the chain.
            asm volatile("");
            nextA = a;
        }
        const std::uint32_t k = s[(a + b) & 255];
        x = nextX;
        a = nextA;
        return k;
    };

    std::size_t i = 0;
    for (; i + 8 <= length; i += 8) {
        std::uint64_t stream = 0;
#pragma GCC unroll 8
        for (int k = 0; k < 8; ++k) {
            stream |= static_cast<std::uint64_t>(step()) << (8 * k);
        }
        std::uint64_t word;
        std::memcpy(&word, data + i, sizeof word);
        word ^= stream;
        std::memcpy(data + i, &word, sizeof word);
    }
    for (; i < length; ++i) {
        data[i] ^= static_cast<unsigned char>(step());
    }
    m_x = (x - 1) & 255;
    m_y = y;
}

}  // namespace Tessel::Platform
