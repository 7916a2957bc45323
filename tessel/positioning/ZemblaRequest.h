// CZemblaRequest: a rover's request of the signed handshake with the server: a nonce and a
// certificate.
//
// The strings are opaque here: this record carries them and fixes their order on the wire,
// and nothing in the library signs or verifies them. Both are empty after default
// construction.
//
// Serialised form: the nonce, then the certificate, each in the form of
// CPersistableString (a 32-bit little-endian length L, the L characters, a zero byte; L + 5
// bytes, 5 for an empty string), one after the other without padding.
//
// Lifetime: a value; copies copy the strings. Thread safety: none.
#pragma once

#include <cstddef>
#include <string>

#include "tessel/Export.h"
#include "tessel/persistence/IPersistData.h"

class TESSEL_API CZemblaRequest : public IPersistData {
  public:
    CZemblaRequest() = default;
    CZemblaRequest(const CZemblaRequest& other) = default;
    CZemblaRequest& operator=(const CZemblaRequest& other) = default;
    ~CZemblaRequest() override = default;

    // Reads nonce and certificate in this order. false for a null buffer, or at the first
    // string that does not lie within size bytes; a string read before that keeps its new
    // value.
    bool loadData(const unsigned char* buffer, size_t size) override;
    // Writes both strings; nothing for a null buffer or a size below getSize().
    void saveData(unsigned char* buffer, size_t size) const override;
    // The sizes of both strings, 10 when both are empty.
    size_t getSize() const override;

    const std::string& GetNonce() const { return m_strNonce; }
    void SetNonce(const std::string& nonce) { m_strNonce = nonce; }
    void SetNonce(const char* nonce) { m_strNonce = nonce; }
    const std::string& GetCertificate() const { return m_strCertificate; }
    void SetCertificate(const std::string& certificate) { m_strCertificate = certificate; }
    void SetCertificate(const char* certificate) { m_strCertificate = certificate; }

    // Both strings are not empty.
    bool HasData() const { return !m_strNonce.empty() && !m_strCertificate.empty(); }

  private:
    std::string m_strNonce;
    std::string m_strCertificate;
};
