// The check of the file functions for mapped sections (private to the library).
//
// A mapping object holds an OFD read lock of its section's bytes while it exists
// (FileMapping.h). Before a file is cut, SetEndOfFile and the truncating dispositions of
// CreateFileA ask here whether such a lock stands in the way.
#pragma once

#include <cstdint>

namespace Tessel::Platform {

// Whether a mapped section, of any process or of another open of the file in this one, holds
// bytes of the file fd at or beyond newSize, so that cutting the file to newSize must fail
// with ERROR_USER_MAPPED_FILE. false when fd's file has no such section, and when the check
// itself fails (a descriptor that allows no locks): a cut is then not held back. A section of
// fd's own open file description is not seen; mappings never lock through the descriptor of
// a file handle, they open the file anew.
bool MappedSectionInTheWay(int fd, std::uint64_t newSize);

}  // namespace Tessel::Platform
