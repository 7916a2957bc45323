// CPersistData: the typed helpers over little-endian, unaligned bytes.
#include "tessel/persistence/PersistData.h"

#include <bit>
#include <cstdint>
#include <cstring>

#include "tessel/platform/InvalidParameter.h"

static_assert(std::endian::native == std::endian::little,
              "serialised forms are the memory forms of a little-endian machine");

namespace {

// Whether width bytes lie within a buffer of size bytes from position on.
bool fits(size_t size, size_t position, size_t width) {
    return position <= size && size - position >= width;
}

// Reads a number stored as Wire into value.
template <class Wire, class T>
bool loadNumber(const unsigned char* buffer, size_t size, size_t& position, T& value) {
    if (buffer == nullptr || !fits(size, position, sizeof(Wire))) {
        return false;
    }
    Wire wire;
    std::memcpy(&wire, buffer + position, sizeof(Wire));
    value = static_cast<T>(wire);
    position += sizeof(Wire);
    return true;
}

// Writes value stored as Wire.
template <class Wire, class T>
bool saveNumber(unsigned char* buffer, size_t size, size_t& position, T value) {
    if (buffer == nullptr || !fits(size, position, sizeof(Wire))) {
        return false;
    }
    const auto wire = static_cast<Wire>(value);
    std::memcpy(buffer + position, &wire, sizeof(Wire));
    position += sizeof(Wire);
    return true;
}

}  // namespace

bool CPersistData::Load(const unsigned char* buffer, size_t size, size_t& position, short& value) {
    return loadNumber<std::int16_t>(buffer, size, position, value);
}

bool CPersistData::Load(const unsigned char* buffer, size_t size, size_t& position, int& value) {
    return loadNumber<std::int32_t>(buffer, size, position, value);
}

bool CPersistData::Load(const unsigned char* buffer, size_t size, size_t& position, long& value) {
    return loadNumber<std::int32_t>(buffer, size, position, value);
}

bool CPersistData::Load(const unsigned char* buffer, size_t size, size_t& position,
                        unsigned long& value) {
    return loadNumber<std::uint32_t>(buffer, size, position, value);
}

bool CPersistData::Load(const unsigned char* buffer, size_t size, size_t& position, double& value) {
    return loadNumber<double>(buffer, size, position, value);
}

bool CPersistData::Load(const unsigned char* buffer, size_t size, size_t& position, char* text,
                        size_t textSize) {
    if (buffer == nullptr || text == nullptr) {
        return false;
    }
    int length = 0;
    Load(buffer, size, position, length);
    if (length < 0 || static_cast<size_t>(length) > MAX_TEXT_LENGTH ||
        !fits(size, position, static_cast<size_t>(length))) {
        return false;
    }
    if (length == 0) {
        return true;
    }
    const auto n = static_cast<size_t>(length);
    if (buffer[position + n - 1] != '\0') {
        return false;
    }
    if (textSize >= n) {
        std::memcpy(text, buffer + position, n);
        position += n;
        return true;
    }
    std::memset(text, 0, textSize);
    Tessel::Platform::InvokeInvalidParameter("textSize >= length of the saved text",
                                             "CPersistData::Load", __FILE__, __LINE__);
    position += n;
    return true;
}

bool CPersistData::Save(unsigned char* buffer, size_t size, size_t& position, short value) const {
    return saveNumber<std::int16_t>(buffer, size, position, value);
}

bool CPersistData::Save(unsigned char* buffer, size_t size, size_t& position, int value) const {
    return saveNumber<std::int32_t>(buffer, size, position, value);
}

bool CPersistData::Save(unsigned char* buffer, size_t size, size_t& position, long value) const {
    return saveNumber<std::int32_t>(buffer, size, position, value);
}

bool CPersistData::Save(unsigned char* buffer, size_t size, size_t& position,
                        unsigned long value) const {
    return saveNumber<std::uint32_t>(buffer, size, position, value);
}

bool CPersistData::Save(unsigned char* buffer, size_t size, size_t& position, double value) const {
    return saveNumber<double>(buffer, size, position, value);
}

bool CPersistData::Save(unsigned char* buffer, size_t size, size_t& position,
                        const char* text) const {
    if (text == nullptr || buffer == nullptr) {
        return false;
    }
    const size_t n = std::strlen(text) + 1;
    if (n > size) {
        return false;
    }
    if (n <= MAX_TEXT_LENGTH) {
        if (!fits(size, position, sizeof(std::int32_t) + n)) {
            return false;
        }
        Save(buffer, size, position, static_cast<int>(n));
        std::memcpy(buffer + position, text, n);
        position += n;
        return true;
    }
    Save(buffer, size, position, 0);
    return false;
}
