#include "util/strings.h"

#include <charconv>
#include <cstring>

#include <openssl/crypto.h>

namespace pkgdlv {

char ToLowerAscii(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + ('a' - 'A')) : c; }

std::string ToLowerAscii(std::string_view s) {
  std::string out(s);
  for (char& c : out) c = ToLowerAscii(c);
  return out;
}

std::string ToUpperAscii(std::string_view s) {
  std::string out(s);
  for (char& c : out) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - ('a' - 'A'));
  }
  return out;
}

int CompareNoCase(std::string_view a, std::string_view b) {
  size_t n = a.size() < b.size() ? a.size() : b.size();
  for (size_t i = 0; i < n; ++i) {
    unsigned char ca = static_cast<unsigned char>(ToLowerAscii(a[i]));
    unsigned char cb = static_cast<unsigned char>(ToLowerAscii(b[i]));
    if (ca != cb) return ca < cb ? -1 : 1;
  }
  if (a.size() == b.size()) return 0;
  return a.size() < b.size() ? -1 : 1;
}

bool EqualsNoCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && CompareNoCase(a, b) == 0;
}

bool StartsWithNoCase(std::string_view s, std::string_view prefix) {
  return s.size() >= prefix.size() && EqualsNoCase(s.substr(0, prefix.size()), prefix);
}

bool EndsWithNoCase(std::string_view s, std::string_view suffix) {
  return s.size() >= suffix.size() && EqualsNoCase(s.substr(s.size() - suffix.size()), suffix);
}

std::string_view TrimAscii(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t' || s.front() == '\r' || s.front() == '\n')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r' || s.back() == '\n')) s.remove_suffix(1);
  return s;
}

std::optional<int64_t> ParseInt64(std::string_view text) {
  text = TrimAscii(text);
  if (!text.empty() && text.front() == '+') text.remove_prefix(1);
  if (text.empty()) return std::nullopt;
  int64_t value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::optional<uint64_t> ParseUInt64(std::string_view text) {
  text = TrimAscii(text);
  if (!text.empty() && text.front() == '+') text.remove_prefix(1);
  if (text.empty()) return std::nullopt;
  uint64_t value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::optional<uint32_t> ParseHex32(std::string_view text) {
  text = TrimAscii(text);
  if (StartsWithNoCase(text, "0x")) text.remove_prefix(2);
  if (text.empty()) return std::nullopt;
  uint32_t value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value, 16);
  if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

int HexDigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool ReadBool(std::string_view text) {
  if (EqualsNoCase(text, "true") || EqualsNoCase(text, "yes")) return true;
  auto n = ParseInt64(text);
  return n.has_value() && *n != 0;
}

void WipeString(std::string& s) {
  if (!s.empty()) OPENSSL_cleanse(s.data(), s.size());
  s.clear();
}

}  // namespace pkgdlv
