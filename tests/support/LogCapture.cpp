#include "support/LogCapture.h"

#include <filesystem>
#include <fstream>
#include <iterator>

#include "tessel/logging/ILogging.h"
#include "tessel/logging/VelkorLog.h"

namespace TesselTest {

LogCapture::LogCapture()
    : m_folder(dynamic_cast<VelkorLog&>(ILogging::getInstance()).getLogFolder()) {
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(m_folder, error)) {
        m_sizes[entry.path().string()] = entry.file_size(error);
    }
}

std::string LogCapture::text() const {
    std::map<std::string, std::uintmax_t> files;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(m_folder, error)) {
        const auto known = m_sizes.find(entry.path().string());
        files[entry.path().string()] = known != m_sizes.end() ? known->second : 0;
    }
    std::string text;
    for (const auto& [path, offset] : files) {
        std::ifstream in(path, std::ios::binary);
        in.seekg(static_cast<std::streamoff>(offset));
        text.append(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    return text;
}

std::string LogCapture::all() {
    LogCapture capture;
    capture.m_sizes.clear();
    return capture.text();
}

}  // namespace TesselTest
