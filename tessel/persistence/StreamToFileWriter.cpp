#include "tessel/persistence/StreamToFileWriter.h"

#include <string>

#include "tessel/host/FileHelper.h"
#include "tessel/persistence/FileWriteBuffer.h"
#include "tessel/persistence/detail/PathParts.h"
#include "tessel/platform/File.h"

namespace {

constexpr int kSuccess = 0;
constexpr int kWriteFailed = 1;
constexpr int kOpenFailed = 2;
constexpr int kFolderFailed = 4;
constexpr int kInitialisedAlready = 5;

constexpr unsigned int kBufferSize = 4096;

}  // namespace

CStreamToFileWriter::~CStreamToFileWriter() {
    if (m_pFileBuffer != nullptr) {
        CStreamToFileWriter::Close();
        delete m_pFileBuffer;
    }
}

int CStreamToFileWriter::Init(const char* fileName) {
    if (m_bInitialised) {
        return kInitialisedAlready;
    }
    m_bInitialised = true;
    m_pszFileName = fileName != nullptr ? fileName : "";
    return Open();
}

int CStreamToFileWriter::Open() {
    if (m_pFileBuffer == nullptr) {
        m_pFileBuffer = new CFileWriteBuffer();
    }
    std::string name(m_pszFileName);
    for (char& c : name) {
        if (c == '/') {
            c = '\\';
        }
    }
    const std::string folder = Tessel::Persistence::Detail::FolderOf(name);
    if (!folder.empty() && !CFileHelper::DirectoryCreate(folder.c_str())) {
        return kFolderFailed;
    }
    if (!m_pFileBuffer->Open(m_pszFileName, kBufferSize, 0, true,
                             Tessel::Platform::FILE_SHARE_READ | Tessel::Platform::FILE_SHARE_WRITE,
                             nullptr)) {
        return kOpenFailed;
    }
    return kSuccess;
}

int CStreamToFileWriter::StreamWrite(const unsigned char* data, unsigned int size, bool flush) {
    if (m_pFileBuffer == nullptr || !m_pFileBuffer->WriteToBuffer(data, size, nullptr)) {
        return kWriteFailed;
    }
    if (flush) {
        m_pFileBuffer->FlushBuffer();
    }
    return kSuccess;
}

int CStreamToFileWriter::Close() {
    if (m_pFileBuffer != nullptr) {
        m_pFileBuffer->Close();
    }
    m_bInitialised = false;
    m_pszFileName = "";
    return kSuccess;
}
