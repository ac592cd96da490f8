// Small text helpers: ASCII case-insensitive comparison, the boolean reading
// rule of the component's documents, and number parsing that never throws.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace pkgdlv {

char ToLowerAscii(char c);
std::string ToLowerAscii(std::string_view s);
std::string ToUpperAscii(std::string_view s);

// <0, 0 or >0 comparing a and b with ASCII letters folded to lower case.
int CompareNoCase(std::string_view a, std::string_view b);
bool EqualsNoCase(std::string_view a, std::string_view b);
bool StartsWithNoCase(std::string_view s, std::string_view prefix);
bool EndsWithNoCase(std::string_view s, std::string_view suffix);

// Strict-weak-order functor for maps and sorts keyed case-insensitively.
struct LessNoCase {
  using is_transparent = void;
  bool operator()(std::string_view a, std::string_view b) const { return CompareNoCase(a, b) < 0; }
};

// Booleans in documents read as true for "true", "yes" (ASCII
// case-insensitive) or a non-zero whole number; anything else is false.
bool ReadBool(std::string_view text);
inline const char* WriteBool(bool value) { return value ? "true" : "false"; }

// Whole decimal numbers, optionally signed, with nothing else around them
// except ASCII spaces. nullopt when the text is not such a number or the
// value does not fit.
std::optional<int64_t> ParseInt64(std::string_view text);
std::optional<uint64_t> ParseUInt64(std::string_view text);
// Hexadecimal, with or without a leading "0x".
std::optional<uint32_t> ParseHex32(std::string_view text);

std::string_view TrimAscii(std::string_view s);

// The value of a hexadecimal digit, or -1 for any other character.
int HexDigitValue(char c);

// Overwrites a string's characters with zeros before it is released; used for
// plain-text secrets and decrypted working copies.
void WipeString(std::string& s);

}  // namespace pkgdlv
