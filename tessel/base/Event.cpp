#include "tessel/base/Event.h"

#include "tessel/platform/Event.h"

namespace Tessel {

CEvent::CEvent(int manualReset, int initialState) {
    if (Create(nullptr, manualReset, initialState, nullptr) == 0) {
        ThrowLastError();
    }
}

CEvent::CEvent(SECURITY_ATTRIBUTES* attributes, int manualReset, int initialState,
               const char* name) {
    if (Create(attributes, manualReset, initialState, name) == 0) {
        ThrowLastError();
    }
}

CEvent& CEvent::operator=(CEvent& source) noexcept {
    CHandle::operator=(source);
    return *this;
}

int CEvent::Create(SECURITY_ATTRIBUTES* attributes, int manualReset, int initialState,
                   const char* name) {
    Attach(Platform::CreateEventA(attributes, manualReset, initialState, name));
    return m_h != nullptr ? 1 : 0;
}

int CEvent::Open(unsigned long access, int inherit, const char* name) {
    Attach(Platform::OpenEventA(static_cast<Platform::DWORD>(access), inherit, name));
    return m_h != nullptr ? 1 : 0;
}

int CEvent::Set() {
    return Platform::SetEvent(m_h);
}

int CEvent::Reset() {
    return Platform::ResetEvent(m_h);
}

int CEvent::Pulse() {
    return Platform::PulseEvent(m_h);
}

}  // namespace Tessel
