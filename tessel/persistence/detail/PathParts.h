// The folder part of a file name (private to the persistence classes).
#pragma once

#include <string>

namespace Tessel::Persistence::Detail {

// Drive and folder of fileName together, as the platform's path split gives them: everything
// up to and including the last separator, '\' or '/'; "" for a bare name. A Linux path has no
// drive, so a leading "X:" is part of the folder or of the name.
inline std::string FolderOf(const std::string& fileName) {
    const std::string::size_type last = fileName.find_last_of("/\\");
    return last == std::string::npos ? std::string() : fileName.substr(0, last + 1);
}

}  // namespace Tessel::Persistence::Detail
