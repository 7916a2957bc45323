#include "tessel/platform/Resources.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "tessel/platform/LastError.h"

namespace Tessel::Platform {
namespace {

struct StringTable {
    std::mutex lock;
    std::map<std::pair<HINSTANCE, unsigned int>, std::string> texts;  // guarded by lock
};

StringTable& table() {
    static StringTable* const strings = new StringTable();
    return *strings;
}

}  // namespace

void RegisterStringResource(HINSTANCE module, unsigned int id, const char* text) {
    StringTable& strings = table();
    std::lock_guard<std::mutex> guard(strings.lock);
    strings.texts[{module, id}] = text != nullptr ? text : "";
}

int LoadStringA(HINSTANCE module, unsigned int id, char* buffer, int size) {
    if (buffer == nullptr || size <= 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    StringTable& strings = table();
    std::lock_guard<std::mutex> guard(strings.lock);
    const auto found = strings.texts.find({module, id});
    if (found == strings.texts.end()) {
        buffer[0] = '\0';
        SetLastError(ERROR_RESOURCE_NAME_NOT_FOUND);
        return 0;
    }
    const std::size_t length = std::min(found->second.size(), static_cast<std::size_t>(size - 1));
    std::memcpy(buffer, found->second.data(), length);
    buffer[length] = '\0';
    return static_cast<int>(length);
}

}  // namespace Tessel::Platform
