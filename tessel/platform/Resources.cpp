#include "tessel/platform/Resources.h"

#include <dlfcn.h>
#include <link.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>

#include "tessel/platform/LastError.h"
#include "tessel/platform/detail/Modules.h"

namespace Tessel::Platform {
namespace {

// The library's own texts, used by the command executor, the file and disk helpers and the
// configuration check (6011 its title, 6012 its button).
// Number 6004 is not assigned.
constexpr std::pair<unsigned int, const char*> kLibraryStrings[] = {
    {6000, "Could not execute command, syntax error near character %d"},
    {6001, "Could not execute command, but syntax seems to be valid."},
    {6002, "Terminated process, it exceeded the time out limit of %dsec."},
    {6003, "Terminated process on system shutdown."},
    {6005, "Path name is not vaild."},
    {6006, "In remote GUI mode entered drives must be UNC conform."},
    {6007,
     "No network drives are accessable when Site server is running under local system "
     "account."},
    {6008, "Drive: %s, Total : %I64dMB, Free : %I64dMB."},
    {6009, "Product creation stopped for this drive."},
    {6010, "Cannot write to drive or folder '%s'."},
    {6011, "GNSS Velkor configuration not complete"},
    {6012, "Start Velkor Configuration Tool"},
};

struct StringTable {
    std::mutex lock;
    std::map<std::pair<HINSTANCE, unsigned int>, std::string> texts;  // guarded by lock
};

StringTable& table() {
    static StringTable* const strings = [] {
        auto* created = new StringTable();
        const HINSTANCE library = LibraryModule();
        for (const auto& [id, text] : kLibraryStrings) {
            created->texts[{library, id}] = text;
        }
        return created;
    }();
    return *strings;
}

// The key of a resource name or type: "#n" for a number n, else the text in upper case.
std::string resourceKey(const char* name) {
    if (IS_INTRESOURCE(name)) {
        std::string key = "#";
        key += std::to_string(reinterpret_cast<std::uintptr_t>(name));
        return key;
    }
    std::string key(name);
    for (char& c : key) {
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    return key;
}

}  // namespace

struct ResourceObject {
    const void* data;
    std::size_t size;
};

namespace {

// module, type, name
using ResourceKey = std::tuple<HMODULE, std::string, std::string>;

struct ResourceTable {
    std::mutex lock;
    std::map<ResourceKey, std::unique_ptr<ResourceObject>> resources;  // guarded by lock
};

ResourceTable& resourceTable() {
    static ResourceTable* const resources = new ResourceTable();
    return *resources;
}

}  // namespace

HMODULE ModuleFromAddress(const void* address) {
    Dl_info info{};
    link_map* map = nullptr;
    if (address == nullptr ||
        dladdr1(address, &info, reinterpret_cast<void**>(&map), RTLD_DL_LINKMAP) == 0 ||
        map == nullptr || map == ProgramLinkMap()) {
        return nullptr;
    }
    return reinterpret_cast<HMODULE>(map);
}

HINSTANCE LibraryModule() {
    static const HINSTANCE library =
        ModuleFromAddress(reinterpret_cast<const void*>(&LibraryModule));
    return library;
}

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

void RegisterResource(HMODULE module, const char* name, const char* type, const void* data,
                      std::size_t size) {
    if (name == nullptr || type == nullptr) {
        return;
    }
    ResourceTable& table = resourceTable();
    std::lock_guard<std::mutex> guard(table.lock);
    table.resources[{module, resourceKey(type), resourceKey(name)}] =
        std::make_unique<ResourceObject>(ResourceObject{data, size});
}

void UnregisterResource(HMODULE module, const char* name, const char* type, const void* data) {
    if (name == nullptr || type == nullptr) {
        return;
    }
    ResourceTable& table = resourceTable();
    std::lock_guard<std::mutex> guard(table.lock);
    const auto found = table.resources.find({module, resourceKey(type), resourceKey(name)});
    if (found != table.resources.end() && found->second->data == data) {
        table.resources.erase(found);
    }
}

HRSRC FindResourceA(HMODULE module, const char* name, const char* type) {
    if (name == nullptr || type == nullptr) {
        SetLastError(ERROR_RESOURCE_NAME_NOT_FOUND);
        return nullptr;
    }
    const std::string typeKey = resourceKey(type);
    ResourceTable& table = resourceTable();
    std::lock_guard<std::mutex> guard(table.lock);
    const auto found = table.resources.find({module, typeKey, resourceKey(name)});
    if (found != table.resources.end()) {
        return found->second.get();
    }
    const auto ofType = table.resources.lower_bound({module, typeKey, std::string()});
    const bool typeKnown = ofType != table.resources.end() &&
                           std::get<0>(ofType->first) == module &&
                           std::get<1>(ofType->first) == typeKey;
    SetLastError(typeKnown ? ERROR_RESOURCE_NAME_NOT_FOUND : ERROR_RESOURCE_TYPE_NOT_FOUND);
    return nullptr;
}

HGLOBAL LoadResource(HMODULE /*module*/, HRSRC resource) {
    if (resource == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    return const_cast<void*>(resource->data);
}

void* LockResource(HGLOBAL loaded) {
    return loaded;
}

DWORD SizeofResource(HMODULE /*module*/, HRSRC resource) {
    return resource != nullptr ? static_cast<DWORD>(resource->size) : 0;
}

ResourceRegistration::ResourceRegistration(unsigned int id, const char* type,
                                           const unsigned char* begin, const unsigned char* end)
    : m_module(ModuleFromAddress(begin)), m_id(id), m_type(type), m_data(begin) {
    RegisterResource(m_module, MAKEINTRESOURCEA(m_id), m_type, m_data,
                     static_cast<std::size_t>(end - begin));
}

ResourceRegistration::~ResourceRegistration() {
    UnregisterResource(m_module, MAKEINTRESOURCEA(m_id), m_type, m_data);
}

}  // namespace Tessel::Platform
