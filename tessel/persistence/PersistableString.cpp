#include "tessel/persistence/PersistableString.h"

#include <cstdint>
#include <cstring>

#include "tessel/persistence/detail/ValueBytes.h"

using namespace Tessel::Persistence::Detail;

namespace {

constexpr size_t kLengthBytes = 4;

// Writes the length word of a string of length characters at the start of buffer. A null
// buffer or a size below the length word is reported and gives false.
bool writeLength(size_t length, unsigned char* buffer, size_t size) {
    const std::uint32_t word = static_cast<std::uint32_t>(length);
    return CheckedCopy(buffer, size, &word, sizeof word, "CPersistableString::saveData");
}

// The code units of text up to its first zero unit.
size_t unitsToZero(const CStringW& text) {
    const size_t zero = text.find(u'\0');
    return zero == CStringW::npos ? text.size() : zero;
}

// Writes text, up to its first zero unit, and a zero unit into room bytes of buffer, as the
// checked wide print does: where it does not fit, the room is cleared and reported.
void writeWideText(const CStringW& text, unsigned char* buffer, size_t room) {
    const size_t units = unitsToZero(text);
    const size_t roomUnits = room / sizeof(char16_t);
    if (units + 1 > roomUnits) {
        std::memset(buffer, 0, room);
        ReportInvalid(ERANGE, "(\"Buffer too small\", 0)", "CPersistableString::saveData");
        return;
    }
    std::memcpy(buffer, text.data(), units * sizeof(char16_t));
    WriteAt<char16_t>(buffer, units * sizeof(char16_t), u'\0');
}

// True if the length word at the start of buffer can be read; flag is then its value.
bool readFlag(const unsigned char* buffer, size_t size, std::uint32_t& flag) {
    return ReadAt(buffer, size, 0, flag);
}

}  // namespace

bool CPersistableString::loadData(const unsigned char* buffer, size_t size) {
    return loadData(static_cast<CStringA&>(*this), buffer, size);
}

void CPersistableString::saveData(unsigned char* buffer, size_t size) const {
    saveData(static_cast<const CStringA&>(*this), buffer, size);
}

size_t CPersistableString::getSize() const {
    return getSize(static_cast<const CStringA&>(*this));
}

size_t CPersistableString::getSize(const CStringA& text) {
    return getSize(text.size());
}

size_t CPersistableString::getSize(const CStringW& text) {
    return text.size() * sizeof(char16_t) + kLengthBytes + sizeof(char16_t);
}

size_t CPersistableString::getSize(const std::wstring& text) {
    return Tessel::Platform::Utf16Length(text.data(), text.size()) * sizeof(char16_t) +
           kLengthBytes + sizeof(char16_t);
}

size_t CPersistableString::getSize(const size_t& length) {
    return length + kLengthBytes + 1;
}

void CPersistableString::saveData(const CStringA& text, unsigned char* buffer, size_t size) {
    if (!writeLength(text.size(), buffer, size) || text.empty()) {
        return;
    }
    CheckedCopy(buffer + kLengthBytes, size - kLengthBytes, text.c_str(), text.size() + 1,
                "CPersistableString::saveData");
}

void CPersistableString::saveData(const CStringW& text, unsigned char* buffer, size_t size) {
    if (!writeLength(text.size(), buffer, size) || text.empty()) {
        return;
    }
    writeWideText(text, buffer + kLengthBytes, size - kLengthBytes);
}

void CPersistableString::saveData(const std::wstring& text, unsigned char* buffer, size_t size) {
    saveData(Tessel::Platform::WideToUtf16(text), buffer, size);
}

bool CPersistableString::loadData(CStringA& text, const unsigned char* buffer, size_t size) {
    std::uint32_t flag = 0;
    if (!readFlag(buffer, size, flag)) {
        return false;
    }
    if (flag == 0) {
        text.clear();
        return true;
    }
    const unsigned char* begin = buffer + kLengthBytes;
    const void* end = std::memchr(begin, 0, size - kLengthBytes);
    if (end == nullptr) {
        return false;
    }
    text.assign(reinterpret_cast<const char*>(begin),
                static_cast<const unsigned char*>(end) - begin);
    return true;
}

bool CPersistableString::loadData(CStringW& text, const unsigned char* buffer, size_t size) {
    std::uint32_t flag = 0;
    if (!readFlag(buffer, size, flag)) {
        return false;
    }
    if (flag == 0) {
        text.clear();
        return true;
    }
    const size_t available = (size - kLengthBytes) / sizeof(char16_t);
    for (size_t units = 0; units < available; ++units) {
        char16_t unit = 0;
        ReadAt(buffer, size, kLengthBytes + units * sizeof(char16_t), unit);
        if (unit == u'\0') {
            text.resize(units);
            std::memcpy(text.data(), buffer + kLengthBytes, units * sizeof(char16_t));
            return true;
        }
    }
    return false;
}

bool CPersistableString::loadData(std::wstring& text, const unsigned char* buffer, size_t size) {
    CStringW units;
    if (!loadData(units, buffer, size)) {
        return false;
    }
    text = Tessel::Platform::Utf16ToWide(units);
    return true;
}
