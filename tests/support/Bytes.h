// Bytes for the tests of files: contents that tell their offsets apart, whole files.
#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace TesselTest {

using Bytes = std::vector<unsigned char>;

// The byte at offset of a content that tells offsets apart within any window.
inline unsigned char PatternAt(std::uint64_t offset) {
    return static_cast<unsigned char>((offset * 7 + offset / 251) & 0xFF);
}

inline Bytes Pattern(std::size_t size) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = PatternAt(i);
    }
    return bytes;
}

inline Bytes ReadFile(const std::string& name) {
    std::ifstream in(name, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}

// Replaces the file name with bytes, making its folder where needed.
inline void WriteFile(const std::string& name, const Bytes& bytes) {
    std::filesystem::create_directories(std::filesystem::path(name).parent_path());
    std::ofstream(name, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

}  // namespace TesselTest
