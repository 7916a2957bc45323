#include "tessel/recording/DataLogger.h"

#include <fmt/format.h>

#include <bit>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>
#include <thread>

#include "tessel/host/Util.h"
#include "tessel/logging/ILogging.h"
#include "tessel/persistence/FileReadBuffer.h"
#include "tessel/platform/CheckedPrint.h"
#include "tessel/platform/ErrorText.h"
#include "tessel/platform/File.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/Process.h"
#include "tessel/supervision/WatchdogClient.h"

namespace P = Tessel::Platform;

// The size word is stored as the machine holds it.
static_assert(std::endian::native == std::endian::little);

namespace {

constexpr unsigned int kLogBufferSize = 0x10000;
// Records walked between two notices of a long operation to the watchdog.
constexpr std::uint64_t kRecordsPerWatchdogNotice = 6002;
// The largest record whose size and size word still fit the 32-bit reservation.
constexpr std::size_t kMaxRecordSize = 0xFFFFFFFFu - 4;

// The platform's text for error, without its line end.
std::string errorText(P::DWORD error) {
    char text[256] = {};
    P::FormatMessageA(P::FORMAT_MESSAGE_FROM_SYSTEM | P::FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                      error, 0, text, sizeof text, nullptr);
    CUtil::CleanUnprintableString(text, CUtil::NO_SIZE_LIMIT);
    return text;
}

void logError(const char* category, const std::string& message) {
    ILogging::getInstance().log(category, ILogging::Error, message);
}

bool writeText(CFileWriteBuffer& file, const CStringA& text) {
    return file.WriteToBuffer(reinterpret_cast<const unsigned char*>(text.data()),
                              static_cast<unsigned int>(text.size()), nullptr);
}

// Whether name is an existing file without content: a temporary file with no records.
bool isEmptyFile(const CStringA& name) {
    std::error_code error;
    return !name.empty() && std::filesystem::file_size(name, error) == 0 && !error;
}

// Takes the spin guard, spinning until it is free. The acquiring exchange lets the new holder
// see all that the former holder did under the guard.
void lockGuard(std::atomic<bool>& guard) {
    while (guard.exchange(true, std::memory_order_acquire)) {
        // The holder may be writing a full buffer to the disk: give way instead of burning.
        while (guard.load(std::memory_order_relaxed)) {
            std::this_thread::yield();
        }
    }
}

// Gives the guard back; the releasing store publishes what was done under it.
void unlockGuard(std::atomic<bool>& guard) {
    guard.store(false, std::memory_order_release);
}

// Gives the guard back and logs that bytes could not be reserved in the temporary file name.
// Called under the guard, where name may be read; copies it without allocating, so that
// nothing can throw before the guard is free.
[[gnu::cold, gnu::noinline]] void unlockAndLogReserveFailure(std::atomic<bool>& guard,
                                                             std::uint64_t bytes,
                                                             const CStringA& name) {
    const P::DWORD error = P::GetLastError();
    char copy[CFileWriteBuffer::kFileNameSize] = {};
    name.copy(copy, sizeof copy - 1);
    unlockGuard(guard);
    logError("CDataLogger::AddData",
             fmt::format("Cannot reserve {} bytes in the temporary file {}: {}", bytes, copy,
                         errorText(error)));
}

}  // namespace

CDataLogger::CDataLogger(CDataLogger& source) {
    TakeOver(source);
}

CDataLogger& CDataLogger::operator=(CDataLogger& source) {
    if (this != &source) {
        CloseLogFile("");
        TakeOver(source);
    }
    return *this;
}

CDataLogger::~CDataLogger() {
    CloseLogFile("");
}

void CDataLogger::TakeOver(CDataLogger& source) {
    const int enabled = source.m_iAddEnabled.exchange(0, std::memory_order_relaxed);
    m_DataFile = source.m_DataFile;
    m_LogFile = source.m_LogFile;
    m_strTempFileName.swap(source.m_strTempFileName);
    source.m_strTempFileName.clear();
    m_bReserveFailureLogged = source.m_bReserveFailureLogged;
    m_iAddEnabled.store(enabled, std::memory_order_relaxed);
}

void CDataLogger::StartAddData(unsigned int bufferSize) {
    Clear();
    char name[CFileWriteBuffer::kFileNameSize];
    if (P::GetTempFileNameA(".", "tvw", 0, name) == 0) {
        logError("CDataLogger::StartAddData",
                 fmt::format("Cannot make a temporary file in the present folder: {}",
                             errorText(P::GetLastError())));
        return;
    }
    m_strTempFileName = name;
    lockGuard(m_bAdding);
    m_bReserveFailureLogged = false;
    const bool opened = m_DataFile.Open(name, bufferSize, 0, true, 0, nullptr);
    const P::DWORD error = P::GetLastError();
    unlockGuard(m_bAdding);
    if (!opened) {
        logError("CDataLogger::StartAddData",
                 fmt::format("Cannot open the temporary file {}: {}", name, errorText(error)));
        return;
    }
    m_iAddEnabled.store(1, std::memory_order_relaxed);
}

int CDataLogger::AddData(IPersistData* data) {
    if (data == nullptr || m_iAddEnabled.load(std::memory_order_relaxed) == 0) {
        return 0;
    }
    const std::size_t size = data->getSize();
    if (size > kMaxRecordSize) {
        return 0;
    }
    const auto n = static_cast<std::uint32_t>(size);
    lockGuard(m_bAdding);
    // Checked again under the guard: a stop that has begun has closed the file or waits for
    // the guard to do so.
    if (m_iAddEnabled.load(std::memory_order_relaxed) != 0 && m_DataFile.IsOpen()) {
        unsigned char* target = nullptr;
        if (m_DataFile.GetBuffer(n + 4, target, nullptr)) [[likely]] {
            std::memcpy(target, &n, sizeof n);
            data->saveData(target + sizeof n, n);
            unlockGuard(m_bAdding);
            return 1;
        }
        if (!m_bReserveFailureLogged) {
            m_bReserveFailureLogged = true;
            unlockAndLogReserveFailure(m_bAdding, std::uint64_t{n} + 4, m_strTempFileName);
            return 0;
        }
    }
    unlockGuard(m_bAdding);
    return 0;
}

int CDataLogger::CanAddData() const {
    return m_iAddEnabled.load(std::memory_order_relaxed);
}

void CDataLogger::EnableAddData(int enable) {
    m_iAddEnabled.store(enable != 0 ? 1 : 0, std::memory_order_relaxed);
}

void CDataLogger::StopAddData() {
    m_iAddEnabled.store(0, std::memory_order_relaxed);
    lockGuard(m_bAdding);
    m_DataFile.Close();
    unlockGuard(m_bAdding);
}

int CDataLogger::CreateLogFile(const CStringA& fileName, IDataLog& log) {
    StopAddData();
    CFileReadBuffer records;
    const bool hasRecords = records.Open(m_strTempFileName.c_str(), 0, nullptr);
    // An empty file cannot be mapped; it goes on to the head text all the same.
    if (!hasRecords && !isEmptyFile(m_strTempFileName)) {
        logError("CDataLogger::CreateLogFile",
                 fmt::format("Cannot open the temporary file {}: {}", m_strTempFileName,
                             errorText(P::GetLastError())));
        return 0;
    }

    std::string folder = P::GetApplicationDirectory();
    if (folder.back() != '/') {
        folder += '/';
    }
    const char* const drive = "";  // paths have no drive here
    char path[CFileWriteBuffer::kFileNameSize];
    P::sprintf_s(path, sizeof path, "%s%s%s", drive, folder.c_str(), fileName.c_str());
    if (!m_LogFile.Open(path, kLogBufferSize, 0, true, 0, nullptr)) {
        logError("CDataLogger::CreateLogFile", fmt::format("Cannot open the log file {}: {}", path,
                                                           errorText(P::GetLastError())));
        return 0;
    }

    CStringA text;
    log.GetHeadText(text);
    if (!writeText(m_LogFile, text)) {
        logError("CDataLogger::CreateLogFile",
                 fmt::format("Cannot write the head text to the log file {}: {}", path,
                             errorText(P::GetLastError())));
        return 0;
    }

    unsigned char* bytes = nullptr;
    if (!hasRecords || !records.GetBuffer(0, 4, bytes)) {
        return 0;
    }
    std::uint32_t size;
    std::memcpy(&size, bytes, sizeof size);
    // Each range but the last holds a record and the size word of the next one.
    std::uint64_t position = 4;
    std::uint64_t walked = 0;
    bool written = true;
    P::DWORD error = 0;
    CWatchdogClient watchdog;
    while (records.GetBuffer(static_cast<std::size_t>(position), std::size_t{size} + 4, bytes)) {
        text.clear();
        log.GetRecordText(bytes, size + 4, text);
        if (!writeText(m_LogFile, text)) {
            written = false;
            error = P::GetLastError();
            break;
        }
        position += std::uint64_t{size} + 4;
        std::memcpy(&size, bytes + size, sizeof size);
        if (++walked % kRecordsPerWatchdogNotice == 0) {
            watchdog.NotifyWatchdogLongOperationIsOk(0);
        }
    }
    if (records.GetBuffer(static_cast<std::size_t>(position), size, bytes)) {
        text.clear();
        log.GetRecordText(bytes, size, text);
        if (!writeText(m_LogFile, text) && written) {
            written = false;
            error = P::GetLastError();
        }
    }
    if (!written) {
        logError("CDataLogger::CreateLogFile",
                 fmt::format("Cannot write a record's text to the log file {}: {}", path,
                             errorText(error)));
    }
    records.Close();
    return 1;
}

void CDataLogger::CloseLogFile(const CStringA& tail) {
    if (!tail.empty()) {
        writeText(m_LogFile, tail);
    }
    m_LogFile.Close();
    Clear();
}

void CDataLogger::Clear() {
    StopAddData();
    if (!m_strTempFileName.empty()) {
        P::DeleteFileA(m_strTempFileName.c_str());
        m_strTempFileName.clear();
    }
}
