#include "util/guid.h"

#include <openssl/rand.h>

#include "util/strings.h"

namespace pkgdlv {

std::optional<Guid> Guid::Parse(std::string_view text, bool allow_bare) {
  if (text.size() == 38 && text.front() == '{' && text.back() == '}') {
    text = text.substr(1, 36);
  } else if (!(allow_bare && text.size() == 36)) {
    return std::nullopt;
  }
  Guid guid;
  size_t byte = 0;
  for (size_t i = 0; i < text.size();) {
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (text[i] != '-') return std::nullopt;
      ++i;
      continue;
    }
    int hi = HexDigitValue(text[i]);
    int lo = HexDigitValue(text[i + 1]);
    if (hi < 0 || lo < 0) return std::nullopt;
    guid.bytes_[byte++] = static_cast<uint8_t>(hi << 4 | lo);
    i += 2;
  }
  return guid;
}

Guid Guid::Generate() {
  Guid guid;
  RAND_bytes(guid.bytes_.data(), static_cast<int>(guid.bytes_.size()));
  guid.bytes_[6] = static_cast<uint8_t>((guid.bytes_[6] & 0x0F) | 0x40);
  guid.bytes_[8] = static_cast<uint8_t>((guid.bytes_[8] & 0x3F) | 0x80);
  return guid;
}

std::string Guid::ToString() const {
  static const char kDigits[] = "0123456789ABCDEF";
  std::string out = "{";
  for (size_t i = 0; i < bytes_.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) out.push_back('-');
    out.push_back(kDigits[bytes_[i] >> 4]);
    out.push_back(kDigits[bytes_[i] & 0xF]);
  }
  out.push_back('}');
  return out;
}

bool Guid::IsNull() const {
  for (uint8_t b : bytes_) {
    if (b != 0) return false;
  }
  return true;
}

bool IsBracedGuid(std::string_view text) { return Guid::Parse(text).has_value(); }

}  // namespace pkgdlv
