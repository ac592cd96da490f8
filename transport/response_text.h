// Telling text from binary in a response body, and turning text bodies into
// the UTF-8 the component works in. Pure functions; any thread may call them.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace pkgdlv {

// A UTF-16 body: it starts with a byte order mark (FF FE or FE FF).
bool IsUtf16Text(std::span<const uint8_t> body);

// The UTF-8 form of a UTF-16 body (byte order from its mark, the mark
// dropped). Unpaired surrogates and a trailing odd byte become U+FFFD.
std::string Utf16ToUtf8(std::span<const uint8_t> body);

// A UTF-8 XML body as the persistent connection sender's answer test sees
// it: at least 3 bytes, the first "<", the second below 128.
bool LooksLikeXmlText(std::span<const uint8_t> body);

// A body that an HTTP server declared as text: a Content-Type of "text/...",
// ".../xml" or ".../...+xml" (parameters ignored).
bool IsTextContentType(std::string_view contentType);

// The text without a leading U+FEFF (UTF-8 EF BB BF).
std::string_view SkipByteOrderMark(std::string_view text);

inline std::span<const uint8_t> AsBytes(std::string_view text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

}  // namespace pkgdlv
