#include "tessel/persistence/PersistableStringW.h"

#include "tessel/persistence/PersistableString.h"

void CPersistableStringW::SetString(const wchar_t* text) {
    CStringW& self = *this;
    self = text == nullptr ? CStringW() : Tessel::Platform::WideToUtf16(std::wstring(text));
}

bool CPersistableStringW::loadData(const unsigned char* buffer, size_t size) {
    return CPersistableString::loadData(static_cast<CStringW&>(*this), buffer, size);
}

void CPersistableStringW::saveData(unsigned char* buffer, size_t size) const {
    // Unlike the static form, no report for these two: the object writes nothing then.
    if (buffer == nullptr || size < 4) {
        return;
    }
    CPersistableString::saveData(static_cast<const CStringW&>(*this), buffer, size);
}

size_t CPersistableStringW::getSize() const {
    return CPersistableString::getSize(static_cast<const CStringW&>(*this));
}

size_t CPersistableStringW::getSize(const CStringW& text) {
    return CPersistableString::getSize(text);
}

void CPersistableStringW::saveData(const CStringW& text, unsigned char* buffer, size_t size) {
    CPersistableString::saveData(text, buffer, size);
}

bool CPersistableStringW::loadData(CStringW& text, const unsigned char* buffer, size_t size) {
    return CPersistableString::loadData(text, buffer, size);
}
