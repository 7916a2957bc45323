#include "tessel/base/HResultException.h"

#include <cstdio>

#include "tessel/platform/LastError.h"

namespace Tessel {

CHResultException::CHResultException(HRESULT hr) noexcept : m_hr(hr) {
    std::snprintf(m_szText, sizeof(m_szText), "HRESULT 0x%08X", static_cast<unsigned>(hr));
}

const char* CHResultException::what() const noexcept {
    return m_szText;
}

void ThrowLastError() {
    throw CHResultException(Platform::HresultFromError(Platform::GetLastError()));
}

}  // namespace Tessel
