// The fixed texts and sizes that the ciphers of this folder share.
#pragma once

#include <cstddef>

namespace Tessel::Crypto::Detail {

// The password text that every key of the folder starts from. It looks like a print format
// but is never formatted: its placeholder characters are part of the key.
inline constexpr const char kPassword[] = "K#4%d&9#";

// Size in bytes of the fields that the machine's name and the password are copied into.
inline constexpr std::size_t kComputerNameField = 255;
inline constexpr std::size_t kPasswordField = 255;

}  // namespace Tessel::Crypto::Detail
