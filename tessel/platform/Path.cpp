#include "tessel/platform/Path.h"

#include <algorithm>
#include <cstring>

#include "tessel/platform/FileFind.h"
#include "tessel/platform/LastError.h"

namespace Tessel::Platform {
namespace {

bool isSeparator(char c) {
    return c == '/' || c == '\\';
}

bool isDrivePath(const std::string& path) {
    return path.size() >= 2 && path[1] == ':' &&
           ((path[0] >= 'A' && path[0] <= 'Z') || (path[0] >= 'a' && path[0] <= 'z'));
}

// path with '/' separators.
std::string forwardSlashes(const char* path) {
    std::string text(path);
    for (char& c : text) {
        if (c == '\\') {
            c = '/';
        }
    }
    return text;
}

// The length of the root of a path in '/' form: "//server/share" (without the separator
// behind it), "C:" or "C:/", "/", or 0 for a relative path.
std::size_t rootLength(const std::string& path) {
    if (path.size() >= 2 && path[0] == '/' && path[1] == '/') {
        std::size_t end = path.find('/', 2);  // behind the server
        if (end != std::string::npos) {
            end = path.find('/', end + 1);  // behind the share
        }
        return end == std::string::npos ? path.size() : end;
    }
    if (isDrivePath(path)) {
        return path.size() > 2 && path[2] == '/' ? 3 : 2;
    }
    return !path.empty() && path[0] == '/' ? 1 : 0;
}

// The canonical form of path (see PathCanonicalizeA).
std::string canonical(const char* source) {
    const std::string path = forwardSlashes(source);
    const std::size_t root = rootLength(path);
    std::vector<std::string> elements;
    std::size_t start = root;
    while (start < path.size()) {
        std::size_t end = path.find('/', start);
        if (end == std::string::npos) {
            end = path.size();
        }
        const std::string element = path.substr(start, end - start);
        if (element == "..") {
            if (!elements.empty()) {
                elements.pop_back();
            }
        } else if (!element.empty() && element != ".") {
            elements.push_back(element);
        }
        start = end + 1;
    }
    std::string result = path.substr(0, root);
    const bool universal = root > 2 && path[0] == '/' && path[1] == '/';
    for (std::size_t i = 0; i < elements.size(); ++i) {
        if ((i > 0 || universal) && result.back() != '/') {
            result += '/';
        }
        result += elements[i];
    }
    if (!elements.empty() && path.size() > root && path.back() == '/') {
        result += '/';
    }
    return result;
}

}  // namespace

BOOL PathCanonicalizeA(char* destination, const char* source) {
    if (destination == nullptr || source == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (std::strlen(source) >= MAX_PATH) {
        SetLastError(ERROR_FILENAME_EXCED_RANGE);
        return FALSE;
    }
    const std::string result = canonical(source);
    if (result.size() >= MAX_PATH) {
        SetLastError(ERROR_FILENAME_EXCED_RANGE);
        return FALSE;
    }
    std::memcpy(destination, result.c_str(), result.size() + 1);
    return TRUE;
}

std::string PathRootOf(const std::vector<MountEntry>& table, const char* path) {
    if (path == nullptr) {
        return "";
    }
    const std::string text = forwardSlashes(path);
    const std::size_t root = rootLength(text);
    if (root == 0) {
        return "";
    }
    if (text[0] != '/' || (text.size() > 1 && text[1] == '/')) {
        return text.substr(0, root);  // a drive or a universal name
    }
    std::string absolute = canonical(path);
    if (absolute.size() > 1 && absolute.back() == '/') {
        absolute.pop_back();
    }
    const MountEntry* mount = FindMountOf(table, absolute);
    return mount != nullptr ? mount->mountPoint : "/";
}

BOOL PathStripToRootA(char* path) {
    if (path == nullptr) {
        return FALSE;
    }
    const std::string root = PathRootOf(ReadMountTable(), path);
    // The root is never longer than the path: a mount point is a prefix of the canonical form.
    const std::size_t length = std::min(root.size(), std::strlen(path));
    std::memcpy(path, root.c_str(), length);
    path[length] = '\0';
    return root.empty() ? FALSE : TRUE;
}

BOOL PathIsUNCA(const char* path) {
    if (path == nullptr || !isSeparator(path[0]) || !isSeparator(path[1])) {
        return FALSE;
    }
    if (path[0] == '\\' && path[1] == '\\' && path[2] == '?' && path[3] == '\\') {
        return std::strncmp(path + 4, "UNC\\", 4) == 0 ? TRUE : FALSE;
    }
    return TRUE;
}

char* PathAddBackslashA(char* path) {
    if (path == nullptr) {
        return nullptr;
    }
    const std::size_t length = std::strlen(path);
    if (length == 0 || isSeparator(path[length - 1])) {
        return path + length;
    }
    if (length + 1 >= MAX_PATH) {
        return nullptr;
    }
    path[length] = '/';
    path[length + 1] = '\0';
    return path + length + 1;
}

UINT PathGetCharTypeA(unsigned char ch) {
    switch (ch) {
        case '\0':
            return GCT_INVALID;
        case '/':
        case '\\':
            return GCT_SEPARATOR;
        case '*':
        case '?':
            return GCT_WILD;
        default:
            return GCT_LFNCHAR | GCT_SHORTCHAR;
    }
}

}  // namespace Tessel::Platform
