#include "tessel/base/Handle.h"

#include "tessel/platform/Handle.h"

namespace Tessel {

CHandle& CHandle::operator=(CHandle& source) noexcept {
    if (this != &source) {
        Close();
        Attach(source.Detach());
    }
    return *this;
}

CHandle::HANDLE CHandle::Detach() noexcept {
    HANDLE handle = m_h;
    m_h = nullptr;
    return handle;
}

void CHandle::Close() noexcept {
    if (m_h != nullptr) {
        Platform::CloseHandle(m_h);
        m_h = nullptr;
    }
}

}  // namespace Tessel
