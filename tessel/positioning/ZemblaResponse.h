// CZemblaResponse: the server's answer in the signed handshake with a rover: the request's
// nonce and certificate echoed, a signature, an error text and the rover type.
//
// The strings are opaque here, as in CZemblaRequest. All are empty after default
// construction.
//
// Serialised form, in an order that differs from the order of the members: nonce,
// certificate, signature, error reason, rover type, each in the form of CPersistableString
// (a 32-bit little-endian length L, the L characters, a zero byte; L + 5 bytes, 5 for an
// empty string), without padding. The nonce therefore always stands at offset 4.
//
// Lifetime: a value; copies copy the strings. Thread safety: none.
#pragma once

#include <cstddef>
#include <string>

#include "tessel/Export.h"
#include "tessel/persistence/IPersistData.h"

class TESSEL_API CZemblaResponse : public IPersistData {
  public:
    CZemblaResponse() = default;
    CZemblaResponse(const CZemblaResponse& other) = default;
    CZemblaResponse& operator=(const CZemblaResponse& other) = default;
    ~CZemblaResponse() override = default;

    // Reads the five strings in wire order. false for a null buffer, or at the first string
    // that does not lie within size bytes; the strings read before that keep their new values.
    bool loadData(const unsigned char* buffer, size_t size) override;
    // Writes the five strings; nothing for a null buffer or a size below getSize().
    void saveData(unsigned char* buffer, size_t size) const override;
    // The sizes of the five strings, 25 when all are empty.
    size_t getSize() const override;

    const std::string& GetNonce() const { return m_strNonce; }
    void SetNonce(const std::string& text) { m_strNonce = text; }
    void SetNonce(const char* text) { m_strNonce = text; }
    const std::string& GetCertificate() const { return m_strCertificate; }
    void SetCertificate(const std::string& text) { m_strCertificate = text; }
    void SetCertificate(const char* text) { m_strCertificate = text; }
    const std::string& GetSignature() const { return m_strSignature; }
    void SetSignature(const std::string& text) { m_strSignature = text; }
    void SetSignature(const char* text) { m_strSignature = text; }
    const std::string& GetErrorReason() const { return m_strErrorReason; }
    void SetErrorReason(const std::string& text) { m_strErrorReason = text; }
    void SetErrorReason(const char* text) { m_strErrorReason = text; }
    const std::string& GetZemblaType() const { return m_strZemblaType; }
    void SetZemblaType(const std::string& text) { m_strZemblaType = text; }
    void SetZemblaType(const char* text) { m_strZemblaType = text; }

  private:
    std::string m_strErrorReason;
    std::string m_strZemblaType;
    std::string m_strNonce;
    std::string m_strCertificate;
    std::string m_strSignature;
};
