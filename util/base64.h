// Standard Base64 (RFC 4648 alphabet, '=' padding).
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace pkgdlv {

std::string Base64Encode(std::span<const uint8_t> data);
inline std::string Base64Encode(std::string_view data) {
  return Base64Encode(std::span(reinterpret_cast<const uint8_t*>(data.data()), data.size()));
}

// Strict decoding: the length must be a multiple of four, padding only at the
// end, unused bits zero, no other characters (no white space). nullopt for
// anything else.
std::optional<std::vector<uint8_t>> Base64Decode(std::string_view text);

}  // namespace pkgdlv
