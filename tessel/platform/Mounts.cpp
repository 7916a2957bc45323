#include "tessel/platform/Mounts.h"

#include <strings.h>
#include <fstream>
#include <sstream>

namespace Tessel::Platform {
namespace {

// Decodes the kernel's octal escapes ("\040" blank, "\011" tab, "\012" line end, "\134" '\').
std::string unescape(const std::string& field) {
    std::string text;
    text.reserve(field.size());
    for (std::size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size() && field[i + 1] >= '0' &&
            field[i + 1] <= '3' && field[i + 2] >= '0' && field[i + 2] <= '7' &&
            field[i + 3] >= '0' && field[i + 3] <= '7') {
            text += static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 +
                                      (field[i + 3] - '0'));
            i += 3;
        } else {
            text += field[i];
        }
    }
    return text;
}

bool isSeparator(char c) {
    return c == '/' || c == '\\';
}

// The first two elements of a name that starts with two separators, as "//server/share";
// "" if it has no server and share.
std::string shareOf(const std::string& name) {
    if (name.size() < 3 || !isSeparator(name[0]) || !isSeparator(name[1])) {
        return {};
    }
    std::size_t serverEnd = 2;
    while (serverEnd < name.size() && !isSeparator(name[serverEnd])) {
        ++serverEnd;
    }
    if (serverEnd == 2 || serverEnd + 1 >= name.size()) {
        return {};
    }
    std::size_t shareEnd = serverEnd + 1;
    while (shareEnd < name.size() && !isSeparator(name[shareEnd])) {
        ++shareEnd;
    }
    return "//" + name.substr(2, serverEnd - 2) + "/" +
           name.substr(serverEnd + 1, shareEnd - serverEnd - 1);
}

}  // namespace

std::vector<MountEntry> ParseMountInfo(const std::string& text) {
    // "36 35 98:0 /mnt1 /mnt/parent rw,noatime master:1 - ext3 /dev/root rw,errors=continue":
    // the mount point is the fifth field; behind the optional fields, ended by "-", come the
    // type and the source.
    std::vector<MountEntry> table;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream fields(line);
        std::vector<std::string> words;
        std::string word;
        while (fields >> word) {
            words.push_back(word);
        }
        std::size_t dash = 6;
        while (dash < words.size() && words[dash] != "-") {
            ++dash;
        }
        if (words.size() < 5 || dash + 2 >= words.size() || words[4].empty() ||
            words[4][0] != '/') {
            continue;
        }
        table.push_back({unescape(words[4]), unescape(words[dash + 2]), words[dash + 1]});
    }
    return table;
}

std::vector<MountEntry> ReadMountTable() {
    std::ifstream file("/proc/self/mountinfo");
    std::ostringstream text;
    text << file.rdbuf();
    return ParseMountInfo(text.str());
}

const MountEntry* FindMountOf(const std::vector<MountEntry>& table, const std::string& path) {
    if (path.empty() || path[0] != '/') {
        return nullptr;
    }
    const MountEntry* best = nullptr;
    for (const MountEntry& mount : table) {
        const std::string& point = mount.mountPoint;
        const bool contains =
            point == "/" || (path.compare(0, point.size(), point) == 0 &&
                             (path.size() == point.size() || path[point.size()] == '/'));
        if (contains && (best == nullptr || point.size() >= best->mountPoint.size())) {
            best = &mount;
        }
    }
    return best;
}

bool IsNetworkFileSystem(const std::string& fsType) {
    return fsType == "cifs" || fsType == "smb3" || fsType == "smbfs" || fsType == "nfs" ||
           fsType == "nfs4";
}

std::string UniversalName(const MountEntry& mount) {
    if (!IsNetworkFileSystem(mount.fsType)) {
        return {};
    }
    const std::size_t colon = mount.source.find(":/");
    if (mount.fsType.compare(0, 3, "nfs") == 0 && colon != std::string::npos && colon > 0) {
        // "server:/export/dir" names the export "/export/dir" of server.
        std::string export_ = mount.source.substr(colon + 1);
        while (export_.size() > 1 && export_.back() == '/') {
            export_.pop_back();
        }
        return "//" + mount.source.substr(0, colon) + export_;
    }
    std::string name = mount.source;
    for (char& c : name) {
        if (c == '\\') {
            c = '/';
        }
    }
    while (name.size() > 2 && name.back() == '/') {
        name.pop_back();
    }
    return shareOf(name).empty() ? std::string() : name;
}

const MountEntry* FindNetworkMount(const std::vector<MountEntry>& table, const std::string& name) {
    if (shareOf(name).empty()) {
        return nullptr;
    }
    std::string wanted = name;
    for (char& c : wanted) {
        if (c == '\\') {
            c = '/';
        }
    }
    const MountEntry* found = nullptr;
    std::size_t foundLength = 0;
    for (const MountEntry& mount : table) {
        // Server and share names are case-blind on the file servers of the platform.
        const std::string universal = UniversalName(mount);
        const std::size_t length = universal.size();
        if (length != 0 && length >= foundLength && wanted.size() >= length &&
            strncasecmp(wanted.c_str(), universal.c_str(), length) == 0 &&
            (wanted.size() == length || wanted[length] == '/')) {
            found = &mount;
            foundLength = length;
        }
    }
    return found;
}

}  // namespace Tessel::Platform
