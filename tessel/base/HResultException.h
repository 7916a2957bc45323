// Tessel::CHResultException: the exception that carries a platform HRESULT.
//
// Thrown by the few constructors of the library that must acquire a system resource and
// cannot report a failure by a result (Tessel::CEvent creating its event). m_hr is the
// failure in HRESULT form, normally the last error of the failing platform operation as
// Tessel::Platform::HresultFromError gives it: 0x80070000 | the error's low 16 bits, e.g.
// 0x800700CE for error 206 (ERROR_FILENAME_EXCED_RANGE).
#pragma once

#include <cstdint>
#include <exception>

#include "tessel/Export.h"

namespace Tessel {

class TESSEL_API CHResultException : public std::exception {
  public:
    // The platform's HRESULT: negative for a failure.
    using HRESULT = std::int32_t;

    explicit CHResultException(HRESULT hr) noexcept;

    // The HRESULT that the exception carries.
    HRESULT GetHResult() const noexcept { return m_hr; }
    operator HRESULT() const noexcept { return m_hr; }

    // "HRESULT 0x800700CE" for the HRESULT 0x800700CE.
    const char* what() const noexcept override;

    HRESULT m_hr;

  private:
    // The text of what(); fixed size, so that copying the exception cannot throw.
    char m_szText[24];
};

// Throws CHResultException with the calling thread's last error in HRESULT form.
[[noreturn]] TESSEL_API void ThrowLastError();

}  // namespace Tessel
