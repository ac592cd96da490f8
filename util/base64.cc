#include "util/base64.h"

#include <array>

namespace pkgdlv {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<int8_t, 256> MakeReverse() {
  std::array<int8_t, 256> table{};
  for (auto& v : table) v = -1;
  for (int i = 0; i < 64; ++i) table[static_cast<unsigned char>(kAlphabet[i])] = static_cast<int8_t>(i);
  return table;
}
constexpr std::array<int8_t, 256> kReverse = MakeReverse();

}  // namespace

std::string Base64Encode(std::span<const uint8_t> data) {
  std::string out;
  out.reserve((data.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 3 <= data.size(); i += 3) {
    uint32_t v = uint32_t{data[i]} << 16 | uint32_t{data[i + 1]} << 8 | data[i + 2];
    out.push_back(kAlphabet[v >> 18]);
    out.push_back(kAlphabet[(v >> 12) & 63]);
    out.push_back(kAlphabet[(v >> 6) & 63]);
    out.push_back(kAlphabet[v & 63]);
  }
  size_t rest = data.size() - i;
  if (rest == 1) {
    uint32_t v = uint32_t{data[i]} << 16;
    out.push_back(kAlphabet[v >> 18]);
    out.push_back(kAlphabet[(v >> 12) & 63]);
    out += "==";
  } else if (rest == 2) {
    uint32_t v = uint32_t{data[i]} << 16 | uint32_t{data[i + 1]} << 8;
    out.push_back(kAlphabet[v >> 18]);
    out.push_back(kAlphabet[(v >> 12) & 63]);
    out.push_back(kAlphabet[(v >> 6) & 63]);
    out.push_back('=');
  }
  return out;
}

std::optional<std::vector<uint8_t>> Base64Decode(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  std::vector<uint8_t> out;
  out.reserve(text.size() / 4 * 3);
  for (size_t i = 0; i < text.size(); i += 4) {
    bool last = i + 4 == text.size();
    int pad = 0;
    if (last) {
      if (text[i + 3] == '=') ++pad;
      if (pad && text[i + 2] == '=') ++pad;
    }
    uint32_t v = 0;
    for (size_t k = 0; k < 4; ++k) {
      if (k >= 4 - static_cast<size_t>(pad)) {
        v <<= 6;
        continue;
      }
      int8_t d = kReverse[static_cast<unsigned char>(text[i + k])];
      if (d < 0) return std::nullopt;
      v = v << 6 | static_cast<uint32_t>(d);
    }
    out.push_back(static_cast<uint8_t>(v >> 16));
    if (pad < 2) out.push_back(static_cast<uint8_t>(v >> 8));
    if (pad < 1) out.push_back(static_cast<uint8_t>(v));
    // The bits that padding discards must be zero, or two texts would decode alike.
    if ((pad == 1 && (v & 0xFF) != 0) || (pad == 2 && (v & 0xFFFF) != 0)) return std::nullopt;
  }
  return out;
}

}  // namespace pkgdlv
