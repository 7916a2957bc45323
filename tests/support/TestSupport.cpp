#include "support/TestSupport.h"

#include <mutex>

namespace TesselTest {
namespace {
std::mutex g_captureMutex;
std::vector<std::string> g_captured;

void captureSink(const char* text) {
    std::lock_guard<std::mutex> lock(g_captureMutex);
    g_captured.emplace_back(text);
}

void throwingHandler(const char* expression, const char*, const char*, unsigned int) {
    throw InvalidParameterError(expression != nullptr ? expression : "invalid parameter");
}
}  // namespace

DebugOutputCapture::DebugOutputCapture() {
    {
        std::lock_guard<std::mutex> lock(g_captureMutex);
        g_captured.clear();
    }
    m_previous = Tessel::Platform::SetDebugOutputSink(&captureSink);
}

DebugOutputCapture::~DebugOutputCapture() {
    Tessel::Platform::SetDebugOutputSink(m_previous);
}

std::vector<std::string> DebugOutputCapture::texts() const {
    std::lock_guard<std::mutex> lock(g_captureMutex);
    return g_captured;
}

std::string DebugOutputCapture::joined() const {
    std::string all;
    for (const std::string& text : texts()) {
        all += text;
    }
    return all;
}

InvalidParameterThrows::InvalidParameterThrows()
    : m_previous(Tessel::Platform::SetInvalidParameterHandler(&throwingHandler)) {}

InvalidParameterThrows::~InvalidParameterThrows() {
    Tessel::Platform::SetInvalidParameterHandler(m_previous);
}

}  // namespace TesselTest
