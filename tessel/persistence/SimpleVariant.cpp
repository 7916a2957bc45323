#include "tessel/persistence/SimpleVariant.h"

#include <cstring>
#include <new>

#include "tessel/persistence/detail/ValueBytes.h"

using namespace Tessel::Persistence::Detail;

namespace {

constexpr size_t kTagBytes = 4;

}  // namespace

CSimpleVariant::CSimpleVariant() = default;

CSimpleVariant::CSimpleVariant(long value) {
    SetValue(value);
}

CSimpleVariant::CSimpleVariant(long long value) {
    SetValue(value);
}

CSimpleVariant::CSimpleVariant(double value) {
    SetValue(value);
}

CSimpleVariant::CSimpleVariant(const CStringA& value) {
    SetValue(value);
}

CSimpleVariant::CSimpleVariant(const CSimpleVariant& source) : IPersistData() {
    Assign(source);
}

CSimpleVariant& CSimpleVariant::operator=(const CSimpleVariant& source) {
    if (this != &source) {
        Assign(source);
    }
    return *this;
}

CSimpleVariant::~CSimpleVariant() {
    Clear();
}

void CSimpleVariant::Clear() {
    if (m_eType == ValString) {
        delete[] m_Value.pszVal;
    }
    m_Value.i64Val = 0;
    m_eType = ValEmpty;
}

void CSimpleVariant::SetValue(long value) {
    Clear();
    m_Value.lVal = static_cast<std::int32_t>(value);
    m_eType = ValLong;
}

void CSimpleVariant::SetValue(long long value) {
    Clear();
    m_Value.i64Val = value;
    m_eType = ValInt64;
}

void CSimpleVariant::SetValue(double value) {
    Clear();
    m_Value.dblVal = value;
    m_eType = ValDouble;
}

void CSimpleVariant::SetValue(const CStringA& value) {
    Clear();
    const size_t length = std::strlen(value.c_str());
    char* text = new (std::nothrow) char[value.size() + 1];
    if (text == nullptr) {
        return;
    }
    std::memcpy(text, value.c_str(), length + 1);
    m_Value.pszVal = text;
    m_eType = ValString;
}

int CSimpleVariant::GetValue(long& value) const {
    if (m_eType != ValLong) {
        return 0;
    }
    value = m_Value.lVal;
    return 1;
}

int CSimpleVariant::GetValue(long long& value) const {
    if (m_eType != ValInt64) {
        return 0;
    }
    value = m_Value.i64Val;
    return 1;
}

int CSimpleVariant::GetValue(double& value) const {
    if (m_eType != ValDouble) {
        return 0;
    }
    value = m_Value.dblVal;
    return 1;
}

int CSimpleVariant::GetValue(CStringA& value) const {
    value.clear();
    if (m_eType != ValString) {
        return 0;
    }
    if (m_Value.pszVal != nullptr) {
        value = m_Value.pszVal;
    }
    return 1;
}

void CSimpleVariant::Assign(const CSimpleVariant& source) {
    switch (source.m_eType) {
        case ValLong:
            SetValue(static_cast<long>(source.m_Value.lVal));
            break;
        case ValInt64:
            SetValue(source.m_Value.i64Val);
            break;
        case ValDouble:
            SetValue(source.m_Value.dblVal);
            break;
        case ValString:
            SetValue(CStringA(source.m_Value.pszVal != nullptr ? source.m_Value.pszVal : ""));
            break;
        default:
            Clear();
            break;
    }
}

bool CSimpleVariant::loadData(const unsigned char* buffer, size_t size) {
    std::int32_t tag = ValEmpty;
    if (!ReadAt(buffer, size, 0, tag)) {
        return false;
    }
    switch (tag) {
        case ValLong: {
            std::int32_t value = 0;
            if (!ReadAt(buffer, size, kTagBytes, value)) {
                return false;
            }
            SetValue(static_cast<long>(value));
            return true;
        }
        case ValInt64: {
            long long value = 0;
            if (!ReadAt(buffer, size, kTagBytes, value)) {
                return false;
            }
            SetValue(value);
            return true;
        }
        case ValDouble: {
            double value = 0;
            if (!ReadAt(buffer, size, kTagBytes, value)) {
                return false;
            }
            SetValue(value);
            return true;
        }
        case ValString: {
            const char* text = reinterpret_cast<const char*>(buffer + kTagBytes);
            const void* end = std::memchr(text, 0, size - kTagBytes);
            if (end == nullptr) {
                return false;
            }
            SetValue(CStringA(text, static_cast<const char*>(end) - text));
            return true;
        }
        default:
            return true;
    }
}

void CSimpleVariant::saveData(unsigned char* buffer, size_t size) const {
    const size_t needed = getSize();
    if (buffer == nullptr || needed > size) {
        return;
    }
    WriteAt<std::int32_t>(buffer, 0, m_eType);
    switch (m_eType) {
        case ValLong:
            WriteAt(buffer, kTagBytes, m_Value.lVal);
            break;
        case ValInt64:
            WriteAt(buffer, kTagBytes, m_Value.i64Val);
            break;
        case ValDouble:
            WriteAt(buffer, kTagBytes, m_Value.dblVal);
            break;
        case ValString:
            if (m_Value.pszVal != nullptr) {
                std::memcpy(buffer + kTagBytes, m_Value.pszVal, needed - kTagBytes);
            }
            break;
        default:
            break;
    }
}

size_t CSimpleVariant::getSize() const {
    switch (m_eType) {
        case ValLong:
            return kTagBytes + sizeof(std::int32_t);
        case ValInt64:
            return kTagBytes + sizeof(long long);
        case ValDouble:
            return kTagBytes + sizeof(double);
        case ValString:
            return m_Value.pszVal != nullptr ? kTagBytes + std::strlen(m_Value.pszVal) + 1
                                             : kTagBytes;
        default:
            return kTagBytes;
    }
}
