#include "tessel/host/FileHelper.h"

#include <fmt/format.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <boost/regex.hpp>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <thread>

#include "tessel/host/DiskSpaceUtil.h"
#include "tessel/host/Util.h"
#include "tessel/platform/CheckedPrint.h"
#include "tessel/platform/Clock.h"
#include "tessel/platform/Diagnostics.h"
#include "tessel/platform/Drive.h"
#include "tessel/platform/ErrorText.h"
#include "tessel/platform/ExecutableVersion.h"
#include "tessel/platform/File.h"
#include "tessel/platform/FileFind.h"
#include "tessel/platform/FileTime.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/Path.h"
#include "tessel/platform/Resources.h"

namespace P = Tessel::Platform;

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
    // Only the names and the folder bit are read: the search need not look at each file.
    Tessel::Platform::WIN32_FIND_DATAA data;
    Tessel::Platform::FIND_HANDLE found = Tessel::Platform::FindFirstFileExA(
        search.c_str(), Tessel::Platform::FindExInfoNamesAndTypes, &data,
        Tessel::Platform::FindExSearchNameMatch, nullptr, 0);
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

bool isSeparator(char c) {
    return c == '\\' || c == '/';
}

// text with '/' for each '\'.
std::string forwardSlashes(std::string text) {
    for (char& c : text) {
        if (c == '\\') {
            c = '/';
        }
    }
    return text;
}

std::string upper(std::string text) {
    for (char& c : text) {
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    return text;
}

// A folder with a trailing separator ('/' where it had none).
std::string withSeparator(const char* path) {
    std::string folder(path);
    if (folder.empty() || !isSeparator(folder.back())) {
        folder += '/';
    }
    return folder;
}

bool isDots(const char* name) {
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

bool isFolder(const P::WIN32_FIND_DATAA& data) {
    return (data.dwFileAttributes & P::FILE_ATTRIBUTE_DIRECTORY) != 0;
}

bool isLink(const P::WIN32_FIND_DATAA& data) {
    return (data.dwFileAttributes & P::FILE_ATTRIBUTE_REPARSE_POINT) != 0;
}

// The entries of a search, one call of visit each; false where the search could not start.
// level: FindExInfoNamesAndTypes where only names and the folder bit are read.
template <class Visit>
bool forEachEntry(const std::string& search, P::FINDEX_INFO_LEVELS level, Visit visit) {
    P::WIN32_FIND_DATAA data;
    P::FIND_HANDLE found =
        P::FindFirstFileExA(search.c_str(), level, &data, P::FindExSearchNameMatch, nullptr, 0);
    if (found == P::INVALID_FIND_HANDLE) {
        return false;
    }
    do {
        visit(data);
    } while (P::FindNextFileA(found, &data));
    P::FindClose(found);
    return true;
}

// True where the folder entry (with a trailing separator) is one of the exclusions, which are
// compared with a trailing separator, ignoring case and the kind of separator.
bool isExcluded(const std::vector<std::string>* excludedDirectories, const std::string& entry) {
    if (excludedDirectories == nullptr) {
        return false;
    }
    const std::string folder = upper(forwardSlashes(entry + "/"));
    for (const std::string& exclusion : *excludedDirectories) {
        if (upper(forwardSlashes(withSeparator(exclusion.c_str()))) == folder) {
            return true;
        }
    }
    return false;
}

// True where the entry is to be kept by the time rule: a zero cut-off, or one not later than
// the entry's last write.
bool keptByTime(const P::WIN32_FIND_DATAA& filter, const P::WIN32_FIND_DATAA& entry) {
    const auto cutOff = static_cast<std::uint64_t>(filter.ftLastWriteTime);
    return cutOff == 0 || cutOff <= static_cast<std::uint64_t>(entry.ftLastWriteTime);
}

// The platform's text for error as one line.
std::string errorText(P::DWORD error) {
    char text[512];
    if (P::FormatMessageA(P::FORMAT_MESSAGE_FROM_SYSTEM | P::FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                          error, 0, text, sizeof text, nullptr) == 0) {
        return std::to_string(error);
    }
    CUtil::CleanUnprintableString(text, sizeof text);
    return text;
}

// The library's string resource id.
std::string resourceText(unsigned int id) {
    char text[1024];
    const int length = P::LoadStringA(P::LibraryModule(), id, text, sizeof text);
    return std::string(text, length > 0 ? static_cast<std::size_t>(length) : 0);
}

// The legacy bounded print: at most count characters; their number, or -1 where the text is
// longer. buffer holds count + 1 bytes, so that a cut text still ends in a zero byte.
int legacyPrint(char* buffer, std::size_t count, const char* format, std::va_list arguments) {
    const int length = std::vsnprintf(buffer, count + 1, format, arguments);
    return length < 0 || static_cast<std::size_t>(length) > count ? -1 : length;
}

void formatInto(std::string& result, const char* format, std::va_list arguments) {
    result.clear();
    std::size_t size = std::strlen(format) + 1024;
    for (;;) {
        std::vector<char> buffer(size + 1, '\0');
        std::va_list copy;
        va_copy(copy, arguments);
        const int length = legacyPrint(buffer.data(), size, format, copy);
        va_end(copy);
        if (length == static_cast<int>(size)) {
            size *= 2;
            continue;
        }
        result.assign(buffer.data());
        return;
    }
}

// GMB::Format for a format that is not known when compiling (a resource text).
void formatText(std::string& result, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    formatInto(result, format, arguments);
    va_end(arguments);
}

// Splits text at the separators, keeping empty pieces between two of them; nothing follows a
// trailing separator.
std::vector<std::string> splitPath(const std::string& text) {
    std::vector<std::string> pieces;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = start;
        while (end < text.size() && !isSeparator(text[end])) {
            ++end;
        }
        pieces.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return pieces;
}

// The drive (at most 2 characters: "C:") and the directory (up to and including the last
// separator, at most 255 characters) of path, in '/' form, as the runtime's path splitter
// fills its fixed fields.
void splitDriveAndDirectory(const std::string& path, std::string& drive, std::string& directory) {
    std::size_t start = 0;
    drive.clear();
    if (path.size() >= 2 && path[1] == ':') {
        drive = path.substr(0, 2);
        start = 2;
    }
    directory.clear();
    std::size_t last = std::string::npos;
    for (std::size_t i = start; i < path.size(); ++i) {
        if (isSeparator(path[i])) {
            last = i;
        }
    }
    if (last != std::string::npos) {
        directory =
            forwardSlashes(path.substr(start, std::min<std::size_t>(last + 1 - start, 255)));
    }
}

// The time in ticks, then read as local time and turned to UTC.
P::WIN32_FIND_DATAA cutOffFilter(std::uint64_t localTicks) {
    P::WIN32_FIND_DATAA filter{};
    const P::FILETIME local = P::ToFileTime(localTicks);
    P::FILETIME utc = local;
    P::LocalFileTimeToFileTime(&local, &utc);
    filter.ftLastWriteTime = static_cast<std::int64_t>(P::FromFileTime(utc));
    return filter;
}

std::uint64_t now() {
    P::FILETIME time;
    P::GetSystemTimeAsFileTime(&time);
    return P::FromFileTime(time);
}

constexpr std::uint64_t kTicksPerDay = 864000000000ull;
constexpr std::uint64_t kTicksPerWeek = 6048000000000ull;

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

// GMB ---------------------------------------------------------------------------------------

P::HANDLE GMB::OpenTextFile(const char* path, bool create, bool overwrite) {
    const P::DWORD disposition = overwrite ? P::CREATE_ALWAYS
                                 : create  ? P::OPEN_ALWAYS
                                           : P::OPEN_EXISTING;
    P::HANDLE file = P::CreateFileA(path, P::GENERIC_READ | P::GENERIC_WRITE, 0, nullptr,
                                    disposition, P::FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file != P::INVALID_HANDLE_VALUE && create && !overwrite) {
        P::LARGE_INTEGER distance{};
        if (!P::SetFilePointerEx(file, distance, nullptr, P::FILE_END)) {
            P::CloseHandle(file);
            return P::INVALID_HANDLE_VALUE;
        }
    }
    return file;
}

bool GMB::WriteToFile(P::HANDLE file, const char* text, bool timestamp, bool newline) {
    P::DWORD written = 0;
    if (timestamp) {
        P::SYSTEMTIME time;
        P::GetLocalTime(&time);
        char stamp[64];
        const int length = std::snprintf(stamp, sizeof stamp, "%02d.%02d.%04d %02d:%02d:%02d.%03d ",
                                         time.wDay, time.wMonth, time.wYear, time.wHour,
                                         time.wMinute, time.wSecond, time.wMilliseconds);
        P::WriteFile(file, stamp, static_cast<P::DWORD>(length), &written, nullptr);
    }
    if (text != nullptr) {
        P::WriteFile(file, text, static_cast<P::DWORD>(std::strlen(text)), &written, nullptr);
    }
    if (newline) {
        P::WriteFile(file, "\r\n", 2, &written, nullptr);
    }
    return true;
}

void GMB::CloseTextFile(P::HANDLE file, bool flush) {
    if (file == P::INVALID_HANDLE_VALUE) {
        return;
    }
    if (flush) {
        P::FlushFileBuffers(file);
    }
    P::CloseHandle(file);
}

int GMB::Format(std::string& result, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    formatInto(result, format, arguments);
    va_end(arguments);
    return 0;
}

// The file object --------------------------------------------------------------------------

CFileHelper::CFileHelper() : m_hFile(P::INVALID_HANDLE_VALUE), m_bOpen(false) {}

CFileHelper::CFileHelper(const char* path, bool create, bool overwrite) : CFileHelper() {
    OpenFile(path, create, overwrite);
}

CFileHelper::~CFileHelper() {
    CloseFile(true);
}

bool CFileHelper::OpenFile(const char* path, bool create, bool overwrite) {
    m_hFile = GMB::OpenTextFile(path, create, overwrite);
    m_bOpen = m_hFile != P::INVALID_HANDLE_VALUE;
    return m_bOpen;
}

void CFileHelper::CloseFile(bool flush) {
    if (m_hFile != P::INVALID_HANDLE_VALUE && m_bOpen) {
        GMB::CloseTextFile(m_hFile, flush);
    }
    m_bOpen = false;
}

bool CFileHelper::Read(unsigned char* buffer, unsigned int count) {
    P::DWORD read = 0;
    return P::ReadFile(m_hFile, buffer, count, &read, nullptr) && read == count;
}

bool CFileHelper::Write(unsigned char* buffer, unsigned int count) {
    P::DWORD written = 0;
    return P::WriteFile(m_hFile, buffer, count, &written, nullptr) && written == count;
}

bool CFileHelper::WriteLine(const char* text, bool timestamp, bool newline) {
    return m_bOpen && GMB::WriteToFile(m_hFile, text, timestamp, newline);
}

// Streams and existence ----------------------------------------------------------------------

FILE* CFileHelper::Open(const char* path, const char* mode) {
    FILE* stream = std::fopen(path, mode);
    if (stream == nullptr) {
        P::ReportError("CFileHelper::Open",
                       fmt::format("Failed to open \"{}\"", path != nullptr ? path : ""));
    }
    return stream;
}

int CFileHelper::Close(FILE* stream) {
    return std::fclose(stream);
}

bool CFileHelper::DirExist(const char* path) {
    if (path == nullptr) {
        return false;
    }
    boost::system::error_code error;
    const boost::filesystem::file_status status =
        boost::filesystem::status(forwardSlashes(path), error);
    return !error && boost::filesystem::exists(status);
}

bool CFileHelper::MakePath(const char* path, unsigned int /*unused*/) {
    if (path == nullptr) {
        return false;
    }
    const std::string text(path);
    if (text.empty()) {
        return true;
    }
    std::string root;
    GetPartOfFilename(path, PartDrive, root);
    std::string prefix;
    std::vector<std::string> pieces;
    if (!root.empty()) {
        prefix = root.size() == 1 ? root + ":/" : root + "/";
        pieces = splitPath(text.size() > prefix.size() ? text.substr(prefix.size()) : "");
    } else {
        pieces = splitPath(text);
        if (!pieces.empty() && pieces.front().empty()) {
            prefix = "/";
            pieces.erase(pieces.begin());
        }
    }
    for (const std::string& piece : pieces) {
        prefix += piece;
        if (!DirExist(prefix.c_str()) && !P::CreateDirectoryA(prefix.c_str(), nullptr)) {
            return false;
        }
        prefix += '/';
    }
    return true;
}

bool CFileHelper::AddFolderPermissions(const std::string& path) {
    try {
        boost::filesystem::permissions(forwardSlashes(path),
                                       boost::filesystem::perms::add_perms |
                                           boost::filesystem::perms::owner_all |
                                           boost::filesystem::perms::others_all);
    } catch (const boost::filesystem::filesystem_error& e) {
        P::ReportError("CFileHelper::AddFolderPermissions",
                       fmt::format("Failed to set permissins on {} : {}", path, e.what()));
        return false;
    } catch (const std::exception&) {
        return false;
    }
    return true;
}

// Deletion -------------------------------------------------------------------------------------

void CFileHelper::DeleteFileSecure(const std::string& path, int retries, bool removeEmptyParents,
                                   const std::string& rootPath) {
    if (path.empty()) {
        return;
    }
    const boost::filesystem::path file(forwardSlashes(path));
    for (int counter = retries;; --counter) {
        boost::system::error_code error;
        const boost::filesystem::file_status status = boost::filesystem::status(file, error);
        if (error || !boost::filesystem::exists(status) || counter < 1) {
            break;
        }
        if (boost::filesystem::remove(file, error) && !error) {
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    boost::system::error_code error;
    if (boost::filesystem::exists(file, error)) {
        P::MoveFileExA(file.string().c_str(), nullptr, P::MOVEFILE_DELAY_UNTIL_REBOOT);
        return;
    }
    if (removeEmptyParents) {
        DeleteEmptyDirectoryUntilRootPath(file.parent_path().string(), rootPath);
    }
}

void CFileHelper::DeleteEmptyDirectoryUntilRootPath(const std::string& path,
                                                    const std::string& rootPath) {
    if (path.empty() || rootPath.empty()) {
        return;
    }
    std::string root = forwardSlashes(rootPath);
    if (root.size() > 1 && root.back() == '/') {
        root.pop_back();
    }
    root = upper(root);
    std::string start = forwardSlashes(path);
    while (start.size() > 1 && start.back() == '/') {
        start.pop_back();  // so that the parent of the start is the folder above it
    }
    boost::filesystem::path current(start);
    try {
        for (;;) {
            boost::system::error_code error;
            const boost::filesystem::file_status status = boost::filesystem::status(current, error);
            if (error || !boost::filesystem::exists(status)) {
                break;
            }
            std::string text = current.string();
            if (text.size() > 1 && text.back() == '/') {
                text.pop_back();
            }
            if (upper(text) == root) {
                break;
            }
            if (!boost::filesystem::is_directory(status) || !boost::filesystem::is_empty(current) ||
                !current.has_relative_path()) {
                break;
            }
            boost::filesystem::remove(current);
            current = current.parent_path();
        }
    } catch (const boost::filesystem::filesystem_error& e) {
        P::ReportError(
            "CFileHelper::DeleteEmptyDirectoryUntilRootPath",
            fmt::format("Exception while deleting directory {} : {}", current.string(), e.what()));
    }
}

bool CFileHelper::DeleteFileAndPath(const char* path) {
    if (path == nullptr) {
        return false;
    }
    if (!P::DeleteFileA(forwardSlashes(path).c_str())) {
        const P::DWORD error = P::GetLastError();
        if (error != P::ERROR_FILE_NOT_FOUND && error != P::ERROR_PATH_NOT_FOUND) {
            return false;
        }
    }
    std::string drive;
    std::string directory;
    splitDriveAndDirectory(path, drive, directory);
    std::string joined = drive + directory;
    while (joined.size() > drive.size()) {
        if (!DeletePath(joined.c_str(), 1, 0)) {
            break;
        }
        joined.pop_back();
        splitDriveAndDirectory(joined, drive, directory);
        joined = drive + directory;
    }
    return true;
}

bool CFileHelper::DeleteFiles(const char* path, P::WIN32_FIND_DATAA* filter, bool recursive,
                              std::vector<std::string>* excludedDirectories, bool checkTime,
                              bool* anyDeleted) {
    if (path == nullptr || *path == '\0') {
        return false;
    }
    const std::string folder = withSeparator(path);
    // Subdirectory pass: only the names and the folder bit are needed.
    const bool listed = forEachEntry(
        folder + "*.*", P::FindExInfoNamesAndTypes, [&](const P::WIN32_FIND_DATAA& entry) {
            if (!recursive || isDots(entry.cFileName) || !isFolder(entry)) {
                return;
            }
            const std::string subfolder = folder + entry.cFileName;
            if (isExcluded(excludedDirectories, subfolder)) {
                return;
            }
            // A link to a folder elsewhere goes as a link: the files it points to stay.
            if (!isLink(entry)) {
                DeleteFiles(subfolder.c_str(), filter, recursive, excludedDirectories, checkTime,
                            anyDeleted);
            }
            P::RemoveDirectoryA(subfolder.c_str());
        });
    if (!listed) {
        return false;
    }
    // File pass, pattern by pattern; empty pieces of the list are passed over.
    std::vector<std::string> patterns;
    if (filter != nullptr && filter->cFileName[0] != '\0') {
        const std::string list(filter->cFileName);
        std::size_t start = 0;
        while (start <= list.size()) {
            std::size_t end = list.find(',', start);
            if (end == std::string::npos) {
                end = list.size();
            }
            if (end > start) {
                patterns.push_back(list.substr(start, end - start));
            }
            start = end + 1;
        }
    } else {
        patterns.emplace_back("*.*");
    }
    const bool byTime = filter != nullptr && checkTime;
    for (const std::string& pattern : patterns) {
        forEachEntry(folder + pattern, byTime ? P::FindExInfoStandard : P::FindExInfoNamesAndTypes,
                     [&](const P::WIN32_FIND_DATAA& entry) {
                         if (isDots(entry.cFileName) || isFolder(entry) ||
                             (byTime && keptByTime(*filter, entry))) {
                             return;
                         }
                         const std::string file = folder + entry.cFileName;
                         if (P::DeleteFileA(file.c_str())) {
                             if (anyDeleted != nullptr) {
                                 *anyDeleted = true;
                             }
                             return;
                         }
                         P::ReportError("CFileHelper::DeleteFiles",
                                        fmt::format("Delete of file {} failed with error {}", file,
                                                    errorText(P::GetLastError())));
                     });
    }
    return true;
}

bool CFileHelper::DeleteFiles2(const char* path, P::WIN32_FIND_DATAA* filter, bool recursive,
                               bool checkTime, bool* anyDeleted) {
    return DeleteFiles(path, filter, recursive, nullptr, checkTime, anyDeleted);
}

bool CFileHelper::DeleteFilesOlderThanDays(const std::string& path, int days,
                                           const std::vector<std::string>& patterns) {
    const std::uint64_t time = now();
    std::uint64_t cutOff =
        time - static_cast<std::uint64_t>(days) * kTicksPerDay - time % kTicksPerDay;
    // Of the low half only its 16 low bits stay: up to about seven minutes earlier.
    cutOff = (cutOff & 0xFFFFFFFF00000000ull) | (cutOff & 0x000000000000FFFFull);
    P::WIN32_FIND_DATAA filter = cutOffFilter(cutOff);
    bool any = false;
    for (const std::string& pattern : patterns) {
        const std::size_t length = std::min(pattern.size(), P::MAX_PATH - 1);
        std::memcpy(filter.cFileName, pattern.c_str(), length);
        filter.cFileName[length] = '\0';
        bool deleted = false;
        DeleteFiles2(path.c_str(), &filter, false, true, &deleted);
        any = any || deleted;
    }
    return any;
}

void CFileHelper::Cleanup(const char* path, unsigned int weeks) {
    const std::uint64_t time = now();
    const std::uint64_t cutOff =
        time - static_cast<std::uint64_t>(weeks) * kTicksPerWeek - time % kTicksPerWeek;
    P::WIN32_FIND_DATAA filter = cutOffFilter(cutOff);
    DeleteFiles(path, &filter, true, nullptr, true, nullptr);
}

bool CFileHelper::DeletePath(const char* path, int keepFiles, int removeSubdirectories) {
    return DirectoryDelete(path, keepFiles, removeSubdirectories);
}

bool CFileHelper::DirectoryDelete(const char* path, int keepFiles, int removeSubdirectories) {
    if (path == nullptr) {
        return false;
    }
    if (keepFiles == 0) {
        DeleteFiles(path, nullptr, true, nullptr, false, nullptr);
    }
    if (removeSubdirectories != 0) {
        return RemoveDirectories(path, nullptr, keepFiles == 1, removeSubdirectories == 1, nullptr,
                                 false, nullptr);
    }
    return P::RemoveDirectoryA(path) == 1;
}

bool CFileHelper::RemoveDirectories(const char* path, P::WIN32_FIND_DATAA* filter, bool keepFiles,
                                    bool removeSubdirectories,
                                    std::vector<std::string>* excludedDirectories, bool checkTime,
                                    bool* anyRemoved) {
    if (path == nullptr || *path == '\0') {
        return false;
    }
    const std::string folder = withSeparator(path);
    const bool byTime = filter != nullptr && checkTime;
    return forEachEntry(folder + "*.*", byTime ? P::FindExInfoStandard : P::FindExInfoNamesAndTypes,
                        [&](const P::WIN32_FIND_DATAA& entry) {
                            if (isDots(entry.cFileName)) {
                                return;
                            }
                            if (!keepFiles) {
                                DeleteFiles(path, nullptr, true, nullptr, false, nullptr);
                            }
                            if (!isFolder(entry) || !removeSubdirectories) {
                                return;
                            }
                            const std::string subfolder = folder + entry.cFileName;
                            if (isExcluded(excludedDirectories, subfolder) ||
                                (byTime && keptByTime(*filter, entry))) {
                                return;
                            }
                            if (!P::RemoveDirectoryA(subfolder.c_str())) {
                                if (isLink(entry)) {
                                    return;  // never entered: the files it points to stay
                                }
                                // Not empty: its own subdirectories first, then once more if that
                                // removed any. Without a flag nothing counts as removed.
                                const bool emptied =
                                    RemoveDirectories(subfolder.c_str(), filter, keepFiles, true,
                                                      excludedDirectories, checkTime, anyRemoved);
                                if (!emptied || anyRemoved == nullptr || !*anyRemoved ||
                                    !P::RemoveDirectoryA(subfolder.c_str())) {
                                    return;
                                }
                            }
                            if (anyRemoved != nullptr) {
                                *anyRemoved = true;
                            }
                        });
}

bool CFileHelper::RemoveExpiredDirectories(const std::string& path, const P::FILETIME& cutOff,
                                           bool keepFiles, bool removeSubdirectories,
                                           std::vector<std::string>* /*excludedDirectories*/,
                                           bool* anyRemoved) {
    P::WIN32_FIND_DATAA filter{};
    filter.ftLastWriteTime = static_cast<std::int64_t>(P::FromFileTime(cutOff));
    filter.cFileName[0] = '*';
    return RemoveDirectories(path.c_str(), &filter, keepFiles, removeSubdirectories, nullptr, true,
                             anyRemoved);
}

bool CFileHelper::CountFilesAndDirectories(const std::string& path, int& files, int& directories) {
    files = 0;
    if (path.empty()) {
        return false;
    }
    return forEachEntry(withSeparator(path.c_str()) + "*.*", P::FindExInfoNamesAndTypes,
                        [&](const P::WIN32_FIND_DATAA& entry) {
                            if (!isDots(entry.cFileName)) {
                                ++(isFolder(entry) ? directories : files);
                            }
                        });
}

// Names ----------------------------------------------------------------------------------------

void CFileHelper::GetPartOfFilename(const char* path, EPartOfFilename part, std::string& result) {
    result.clear();
    if (path == nullptr || *path == '\0') {
        return;
    }
    const std::string text(path);
    constexpr std::size_t none = std::string::npos;
    std::size_t last = none;  // the last separator
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (isSeparator(text[i])) {
            last = i;
        }
    }
    const std::size_t dot = text.rfind('.');
    const bool drive = text.size() >= 2 && text[1] == ':';
    // The separator that ends the share of a UNC path, none without one.
    std::size_t shareEnd = none;
    if (text.size() >= 2 && isSeparator(text[0]) && isSeparator(text[1])) {
        std::size_t serverEnd = 2;
        while (serverEnd < text.size() && !isSeparator(text[serverEnd])) {
            ++serverEnd;
        }
        for (std::size_t i = serverEnd + 1; i < text.size(); ++i) {
            if (isSeparator(text[i])) {
                shareEnd = i;
                break;
            }
        }
    }
    // Where the name starts: behind the last separator, else behind the first colon.
    std::size_t nameStart = 0;
    if (last != none) {
        nameStart = last + 1;
    } else if (const std::size_t colon = text.find(':'); colon != none) {
        nameStart = colon + 1;
    }
    const bool dotInName = dot != none && (last == none || dot > last) && dot >= nameStart;
    switch (part) {
        case PartDrive:
            if (text.size() < 2) {
                return;
            }
            if (drive) {
                result = text.substr(0, 1);
            } else if (shareEnd != none) {
                result = text.substr(0, shareEnd);
            }
            break;
        case PartDirectory: {
            const std::size_t start = drive ? 2 : shareEnd != none ? shareEnd : 0;
            if (last == none || start > last) {
                return;
            }
            result = start == last ? std::string(1, '/') : text.substr(start, last - start);
            break;
        }
        case PartDriveAndDirectory:
            if (last == none) {
                return;
            }
            result = last == 0 ? std::string(1, '/') : text.substr(0, last);
            break;
        case PartPathWithoutExtension:
            result = dot == none || (last != none && dot < last) ? text : text.substr(0, dot);
            break;
        case PartBaseName:
            result = dotInName ? text.substr(nameStart, dot - nameStart) : text.substr(nameStart);
            break;
        case PartFileName:
            result = text.substr(nameStart);
            break;
        case PartExtension:
            if (dot != none && (last == none || dot > last)) {
                result = text.substr(dot + 1);
            }
            break;
        default:
            return;
    }
    result = forwardSlashes(result);
}

std::string CFileHelper::GetNotAllowedChars() {
    return "?|><:/*\"+,;=[]";
}

bool CFileHelper::IsValidFileName(const char* name) {
    if (name == nullptr) {
        return false;
    }
    return std::strpbrk(name, GetNotAllowedChars().c_str()) == nullptr;
}

unsigned int CFileHelper::ReplaceInvalidFilenameCharacters(char* name, char replacement,
                                                           unsigned int allowedTypes) {
    if (name == nullptr) {
        return 0;
    }
    unsigned int count = 0;
    for (char* p = name; *p != '\0';) {
        // One character: a UTF-8 sequence is judged by its lead byte and replaced whole.
        const auto lead = static_cast<unsigned char>(*p);
        std::size_t length = lead < 0xC0 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
        for (std::size_t i = 1; i < length; ++i) {
            if (p[i] == '\0') {
                length = i;
            }
        }
        if ((P::PathGetCharTypeA(lead) & allowedTypes) == 0) {
            std::memset(p, replacement, length);
            ++count;
        }
        p += length;
    }
    return count;
}

unsigned int CFileHelper::ReplaceInvalidFilenameCharactersStd(std::string& name,
                                                              const std::string& replacement,
                                                              unsigned int allowedTypes) {
    if (name.empty()) {
        return 0;
    }
    unsigned int count = 0;
    std::string result;
    for (const char c : name) {
        if ((P::PathGetCharTypeA(static_cast<unsigned char>(c)) & allowedTypes) == 0) {
            result += replacement;
            ++count;
        } else {
            result += c;
        }
    }
    name = result;
    return count;
}

void CFileHelper::EnsureTrailingBackslash(char* path) {
    if (path != nullptr) {
        P::PathAddBackslashA(path);
    }
}

// Version, copy, space, network -----------------------------------------------------------------

bool CFileHelper::GetFileVersion(const char* path, std::string& version, unsigned long& build,
                                 bool& debug) {
    P::DWORD handle = 0;
    const P::DWORD size = P::GetFileVersionInfoSizeA(path, &handle);
    if (size == 0) {
        return false;
    }
    std::vector<unsigned char> block(size);
    if (!P::GetFileVersionInfoA(path, handle, size, block.data())) {
        return false;
    }
    void* value = nullptr;
    P::UINT length = 0;
    if (!P::VerQueryValueA(block.data(), "\\", &value, &length) || value == nullptr ||
        length < sizeof(P::VS_FIXEDFILEINFO)) {
        return false;
    }
    P::VS_FIXEDFILEINFO fixed;
    std::memcpy(&fixed, value, sizeof fixed);
    GMB::Format(version, "%hu.%hu.%hu", static_cast<unsigned short>(fixed.dwFileVersionMS >> 16),
                static_cast<unsigned short>(fixed.dwFileVersionMS & 0xFFFF),
                static_cast<unsigned short>(fixed.dwFileVersionLS >> 16));
    build = fixed.dwFileVersionLS & 0xFFFF;
    debug = (fixed.dwFileFlags & P::VS_FF_DEBUG) != 0;
    return true;
}

bool CFileHelper::copyFile(const char* from, const char* to, bool overwrite, bool deleteSource) {
    if (from == nullptr || to == nullptr || std::strcmp(from, to) == 0) {
        return false;
    }
    if (!P::CopyFileA(from, to, overwrite ? P::FALSE : P::TRUE)) {
        P::ReportError("CFileHelper::copyFile",
                       fmt::format("Failed to copy \"{}\" -> \"{}\"", from, to));
        return false;
    }
    if (deleteSource) {
        return P::DeleteFileA(from) != 0;
    }
    return true;
}

bool CFileHelper::CheckFreeDiskSpace(const std::string& path, std::string& message,
                                     bool& stateChanged, bool& stopProduct,
                                     CDiskSpace::StateType* state) {
    stateChanged = false;
    stopProduct = false;
    std::string target = path;
    if (target.empty()) {
        boost::system::error_code error;
        target = boost::filesystem::current_path(error).string();
        target = target.substr(0, std::min<std::size_t>(target.size(), P::MAX_PATH));
    }
    message.clear();
    std::string disk;
    unsigned long long total = 0;
    unsigned long long freeBytes = 0;
    CDiskSpace::StateType lastState = CDiskSpace::StateUnknown;
    const CDiskSpace::StateType result =
        CDiskSpaceUtil::CheckDiskSpaceState(target, &disk, &total, &freeBytes, &lastState);
    if (state != nullptr) {
        *state = result;
    }
    switch (result) {
        case CDiskSpace::StateNormal:
            if (DirExist(target.c_str()) || DirectoryCreate(target.c_str())) {
                return true;
            }
            break;
        case CDiskSpace::StateLow:
        case CDiskSpace::StateCritical: {
            // A "MB" of this message is 1000 times 1024 bytes.
            formatText(message, P::ToPosixFormat(resourceText(6008).c_str()).c_str(), disk.c_str(),
                       static_cast<long long>(total / 1024000),
                       static_cast<long long>(freeBytes / 1024000));
            stateChanged = lastState != result;
            if (result == CDiskSpace::StateCritical) {
                message += " " + resourceText(6009);
                return false;
            }
            return true;
        }
        default:
            break;
    }
    formatText(message, resourceText(6010).c_str(), target.c_str());
    stateChanged = true;
    stopProduct = true;
    return false;
}

bool CFileHelper::CheckFreeDiskSpace(const char* path) {
    std::string message;
    bool stateChanged = false;
    bool stopProduct = false;
    return CheckFreeDiskSpace(path != nullptr ? path : "", message, stateChanged, stopProduct,
                              nullptr);
}

bool CFileHelper::ValidateNetworkDrives(bool localSystemAccount, char* path, bool remoteGui,
                                        std::string& error, std::string& resultPath,
                                        bool allowNetworkDrives) {
    resultPath = path != nullptr ? path : "";
    char canonical[P::MAX_PATH];
    if (path == nullptr || !P::PathCanonicalizeA(canonical, path)) {
        error = resourceText(6005);
        return false;
    }
    if (remoteGui) {
        return true;
    }
    if (localSystemAccount) {
        char root[P::MAX_PATH];
        std::memcpy(root, canonical, sizeof root);
        P::PathStripToRootA(root);
        if (allowNetworkDrives) {
            return true;
        }
        if (P::GetDriveTypeA(root) == P::DRIVE_REMOTE || P::PathIsUNCA(root)) {
            error = resourceText(6007);
            return false;
        }
        return true;
    }
    if (!P::PathIsUNCA(canonical)) {
        alignas(P::UNIVERSAL_NAME_INFOA) char buffer[P::MAX_PATH];
        P::DWORD size = sizeof buffer;
        if (P::WNetGetUniversalNameA(canonical, P::UNIVERSAL_NAME_INFO_LEVEL, buffer, &size) ==
            P::ERROR_SUCCESS) {
            resultPath = reinterpret_cast<const P::UNIVERSAL_NAME_INFOA*>(buffer)->lpUniversalName;
        }
    }
    return true;
}
