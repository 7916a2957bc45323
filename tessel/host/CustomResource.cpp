#include "tessel/host/CustomResource.h"

using namespace Tessel::Platform;

int CCustomResource::Open(HINSTANCE module, unsigned int id, const char* type) {
    Close();
    const HRSRC resource = FindResourceA(module, MAKEINTRESOURCEA(id & 0xFFFFu), type);
    if (resource == nullptr) {
        return 0;
    }
    const HGLOBAL loaded = LoadResource(module, resource);
    if (loaded == nullptr) {
        return 0;
    }
    const void* data = LockResource(loaded);
    if (data == nullptr) {
        return 0;
    }
    m_hResource = resource;
    m_pData = data;
    m_nSize = SizeofResource(module, resource);
    return 1;
}

void CCustomResource::Close() {
    m_hResource = nullptr;
    m_pData = nullptr;
    m_nSize = 0;
}
