// Helpers of the persistence tests: guarded heap copies, every truncation, saved forms.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>

#include "support/Bytes.h"

namespace TesselTest {

// A heap block of exactly the first length bytes, so that a read past them is caught.
inline std::unique_ptr<unsigned char[]> HeapCopy(const Bytes& bytes, std::size_t length) {
    auto copy = std::make_unique_for_overwrite<unsigned char[]>(length);
    std::copy_n(bytes.begin(), length, copy.get());
    return copy;
}

// Calls check(data, length) with a heap copy of every prefix of form, the whole form last.
template <class Check>
void ForEachPrefix(const Bytes& form, Check check) {
    for (std::size_t length = 0; length <= form.size(); ++length) {
        SCOPED_TRACE(testing::Message() << "prefix of " << length << " bytes");
        check(HeapCopy(form, length).get(), length);
    }
}

// What value's saveData writes into getSize() zeroed bytes, expecting nothing written past them.
template <class T>
Bytes Saved(const T& value) {
    const std::size_t size = value.getSize();
    Bytes bytes(size + 1, 0);
    bytes[size] = 0xEE;
    value.saveData(bytes.data(), size);
    EXPECT_EQ(bytes[size], 0xEE) << "written past getSize()";
    bytes.pop_back();
    return bytes;
}

// A copy of value saves form; a fresh T loads only prefixes from shortest on, then saving form.
template <class T>
void ExpectForm(const T& value, const Bytes& form, std::size_t shortest = 0) {
    SCOPED_TRACE(testing::PrintToString(form));
    EXPECT_EQ(Saved(T(value)), form);
    ForEachPrefix(form, [&](const unsigned char* data, std::size_t length) {
        T loaded;
        const bool loads = length >= (shortest != 0 ? shortest : form.size());
        ASSERT_EQ(loaded.loadData(data, length), loads);
        EXPECT_EQ(loads ? Saved(loaded) : form, form);
    });
}

// The bytes of a memory buffer.
template <class Buffer>
Bytes Content(const Buffer& buffer) {
    return Bytes(buffer.GetBuffer(), buffer.GetBuffer() + buffer.GetSize());
}

inline Bytes ToBytes(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

}  // namespace TesselTest
