#include "tessel/positioning/ZemblaRequest.h"

#include "tessel/positioning/detail/StringRecord.h"

using namespace Tessel::Positioning;

bool CZemblaRequest::loadData(const unsigned char* buffer, size_t size) {
    return LoadStringRecord({&m_strNonce, &m_strCertificate}, buffer, size);
}

void CZemblaRequest::saveData(unsigned char* buffer, size_t size) const {
    SaveStringRecord({&m_strNonce, &m_strCertificate}, buffer, size);
}

size_t CZemblaRequest::getSize() const {
    return StringRecordSize({&m_strNonce, &m_strCertificate});
}
