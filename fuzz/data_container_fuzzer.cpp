// Fuzz target for CSimpleDataContainer::loadData, the load of a map of tagged values from bytes
// that a file or a peer process hands over.
//
// Input: the bytes given to loadData, copied to a heap block of exactly their size so that the
// address sanitizer sees any read past them. The same bytes go to the loads of a lone
// CSimpleVariant and of both persistable strings.
//
// Each run checks what the forms promise for any input, and aborts with the input in hex on
// stderr when a promise is broken:
//  - no load reads past its input or crashes (the sanitizers watch);
//  - a container or variant that loaded saves exactly getSize() bytes: a buffer one byte short
//    stays untouched, and nothing is written past a buffer of getSize() bytes;
//  - that saved form loads into a fresh container and saves again to the same bytes, and a
//    load of it into the container that made it changes nothing;
//  - the same holds for a variant and for both strings that loaded;
//  - a variant or string whose load failed is left as it was.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <type_traits>
#include <vector>

#include "tessel/persistence/PersistableString.h"
#include "tessel/persistence/PersistableStringW.h"
#include "tessel/persistence/SimpleDataContainer.h"
#include "tessel/persistence/SimpleVariant.h"

namespace {

using Bytes = std::vector<unsigned char>;

const std::uint8_t* g_input = nullptr;
std::size_t g_inputSize = 0;

void require(bool holds, const char* promise) {
    if (holds) {
        return;
    }
    std::fprintf(stderr, "data container: %s\n  input", promise);
    for (std::size_t i = 0; i < g_inputSize; ++i) {
        std::fprintf(stderr, " %02X", g_input[i]);
    }
    std::fprintf(stderr, "\n");
    std::abort();
}

// A heap block of exactly size bytes holding data.
std::unique_ptr<unsigned char[]> heapCopy(const unsigned char* data, std::size_t size) {
    std::unique_ptr<unsigned char[]> copy(new unsigned char[size]);
    if (size != 0) {
        std::memcpy(copy.get(), data, size);
    }
    return copy;
}

// A save into a heap block one byte shorter than getSize() writes nothing. Not for the strings,
// for which a short buffer is an invalid parameter.
template <class T>
void checkShortSave(const T& value) {
    const std::size_t size = value.getSize();
    if (size == 0) {
        return;
    }
    const Bytes pattern(size - 1, 0xA5);
    const std::unique_ptr<unsigned char[]> shorter = heapCopy(pattern.data(), size - 1);
    value.saveData(shorter.get(), size - 1);
    require(std::memcmp(shorter.get(), pattern.data(), size - 1) == 0,
            "a save into one byte less than getSize() wrote");
}

// The value's form, saved into a heap block of exactly getSize() bytes.
template <class T>
Bytes saved(const T& value) {
    const std::size_t size = value.getSize();
    const Bytes zeros(size, 0);
    const std::unique_ptr<unsigned char[]> block = heapCopy(zeros.data(), size);
    value.saveData(block.get(), size);
    return Bytes(block.get(), block.get() + size);
}

// Loads form into a fresh T and into value itself; both must load and save form again.
template <class T>
void checkRoundTrip(T& value, const Bytes& form) {
    const std::unique_ptr<unsigned char[]> input = heapCopy(form.data(), form.size());
    T fresh;
    require(fresh.loadData(input.get(), form.size()), "a saved form does not load");
    require(saved(fresh) == form, "a saved form loads into another value");
    require(value.loadData(input.get(), form.size()), "a saved form does not load again");
    require(saved(value) == form, "a load of its own form changes the value");
}

// A load that fails leaves the value as it was; one that succeeds round-trips.
template <class T>
void checkValue(T value, const unsigned char* data, std::size_t size) {
    const Bytes before = saved(value);
    if (value.loadData(data, size)) {
        if constexpr (std::is_same_v<T, CSimpleVariant>) {
            checkShortSave(value);
        }
        checkRoundTrip(value, saved(value));
    } else {
        require(saved(value) == before, "a failed load changed the value");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    g_input = data;
    g_inputSize = size;
    const std::unique_ptr<unsigned char[]> input = heapCopy(data, size);

    CSimpleDataContainer container;
    if (container.loadData(input.get(), size)) {
        checkShortSave(container);
        checkRoundTrip(container, saved(container));
    }

    checkValue(CSimpleVariant(CStringA("before")), input.get(), size);
    checkValue(CSimpleVariant(7L), input.get(), size);
    checkValue(CPersistableString(CStringA("before")), input.get(), size);
    checkValue(CPersistableStringW(CStringW(u"before")), input.get(), size);
    return 0;
}
