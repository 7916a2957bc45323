#include "tessel/positioning/ZemblaResponse.h"

#include "tessel/positioning/detail/StringRecord.h"

using namespace Tessel::Positioning;

bool CZemblaResponse::loadData(const unsigned char* buffer, size_t size) {
    return LoadStringRecord(
        {&m_strNonce, &m_strCertificate, &m_strSignature, &m_strErrorReason, &m_strZemblaType},
        buffer, size);
}

void CZemblaResponse::saveData(unsigned char* buffer, size_t size) const {
    SaveStringRecord(
        {&m_strNonce, &m_strCertificate, &m_strSignature, &m_strErrorReason, &m_strZemblaType},
        buffer, size);
}

size_t CZemblaResponse::getSize() const {
    return StringRecordSize(
        {&m_strNonce, &m_strCertificate, &m_strSignature, &m_strErrorReason, &m_strZemblaType});
}
