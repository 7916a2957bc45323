#include "tessel/host/FileHelper.h"

#include <fmt/format.h>

#include <boost/filesystem.hpp>
#include <boost/regex.hpp>
#include <cerrno>
#include <cstring>

#include "tessel/platform/Diagnostics.h"
#include "tessel/platform/FileFind.h"

namespace {

constexpr std::size_t kMaxPathLength = 259;

// Creates a directory path; only the last level's failure counts.
bool directoryCreate(const char* path, const char* category) {
    if (path == nullptr) {
        return false;
    }
    const std::size_t length = std::strlen(path);
    if (length >= kMaxPathLength) {
        return false;
    }
    if (length < 4 && std::strchr(path, ':') != nullptr) {
        return true;  // a drive root is taken to exist
    }
    if (std::strchr(path, '\\') == nullptr) {
        // A path in '/' form: the file-system library makes it.
        boost::system::error_code error;
        if (boost::filesystem::exists(path, error)) {
            return true;
        }
        if (boost::filesystem::create_directories(path, error)) {
            return true;
        }
        if (error) {
            Tessel::Platform::ReportError(
                category, fmt::format("Failed to create {} : {}", path, error.message()));
        }
        return false;
    }
    // A path in '\' form (as written by the platform's users): each prefix is made in turn.
    std::string work(path);
    for (char& c : work) {
        if (c == '\\') {
            c = '/';
        }
    }
    // The positions at which a prefix ends: every separator but a leading one.
    std::vector<std::size_t> ends;
    for (std::size_t i = 1; i < work.size(); ++i) {
        if (work[i] == '/' && work[i - 1] != '/') {
            ends.push_back(i);
        }
    }
    if (work.size() > 1 && work.back() == '/') {
        ends.pop_back();  // a trailing separator names no further level
    }
    ends.push_back(work.size());
    for (std::size_t level = 0; level < ends.size(); ++level) {
        const std::string prefix = work.substr(0, ends[level]);
        if (Tessel::Platform::_mkdir(prefix.c_str()) != 0) {
            const int error = errno;
            if (error != 0 && error != EEXIST && level + 1 == ends.size()) {
                Tessel::Platform::ReportError(
                    category,
                    fmt::format("Failed to create dir \"{}\" with error {}", prefix, error));
                return false;
            }
        }
    }
    return true;
}

bool findFiles(const std::string& path, const std::string& pattern,
               std::vector<std::string>* names) {
    if (path.empty() || pattern.empty()) {
        return false;
    }
    std::string search = path;
    if (search.back() != '/' && search.back() != '\\') {
        search += '/';
    }
    search += pattern;
    Tessel::Platform::WIN32_FIND_DATAA data;
    Tessel::Platform::FIND_HANDLE found = Tessel::Platform::FindFirstFileA(search.c_str(), &data);
    if (found == Tessel::Platform::INVALID_FIND_HANDLE) {
        return false;
    }
    bool any = false;
    do {
        if (std::strcmp(data.cFileName, ".") != 0 && std::strcmp(data.cFileName, "..") != 0 &&
            (data.dwFileAttributes & Tessel::Platform::FILE_ATTRIBUTE_DIRECTORY) == 0) {
            if (names != nullptr) {
                names->emplace_back(data.cFileName);
            }
            any = true;
        }
    } while (Tessel::Platform::FindNextFileA(found, &data));
    Tessel::Platform::FindClose(found);
    return any;
}

}  // namespace

bool CFileHelper::DirectoryCreate(const char* path) {
    return directoryCreate(path, "CFileHelper::DirectoryCreate");
}

bool CFileHelper::DirectoryCreateA(const char* path) {
    return directoryCreate(path, "CFileHelper::DirectoryCreateA");
}

bool CFileHelper::FindFiles(const std::string& path, const std::string& pattern,
                            std::vector<std::string>* names) {
    return findFiles(path, pattern, names);
}

bool CFileHelper::FindFilesA(const std::string& path, const std::string& pattern,
                             std::vector<std::string>* names) {
    return findFiles(path, pattern, names);
}

bool CFileHelper::FindFiles(const std::string& path, const std::string& regularExpression,
                            std::vector<std::string>& names) {
    names.clear();
    const boost::regex expression(regularExpression);
    for (const boost::filesystem::directory_entry& entry :
         boost::filesystem::directory_iterator(path)) {
        if (boost::filesystem::is_regular_file(entry.status())) {
            const std::string name = entry.path().filename().generic_string();
            if (boost::regex_match(name, expression)) {
                names.push_back(name);
            }
        }
    }
    return !names.empty();
}
