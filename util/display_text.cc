#include "util/display_text.h"

namespace pkgdlv {
namespace {

constexpr char kHexDigits[] = "0123456789ABCDEF";

void AppendByteEscape(std::string& out, uint8_t byte) {
  out += "\\x";
  out += kHexDigits[byte >> 4];
  out += kHexDigits[byte & 0xF];
}

void AppendCodePointEscape(std::string& out, uint32_t code_point) {
  out += "\\u";
  for (int shift = 12; shift >= 0; shift -= 4) out += kHexDigits[(code_point >> shift) & 0xF];
}

// Code points above U+007F that are escaped.
bool IsHiddenCodePoint(uint32_t code_point) {
  return code_point <= 0x9F || code_point == 0x2028 || code_point == 0x2029 ||
         (code_point >= 0x202A && code_point <= 0x202E) || (code_point >= 0x2066 && code_point <= 0x2069) ||
         code_point == 0xFFFE || code_point == 0xFFFF;
}

void AppendAscii(std::string& out, char c, LineBreaks line_breaks) {
  const auto byte = static_cast<uint8_t>(c);
  if (byte >= 0x20 && byte != 0x7F) {
    out += c;
    return;
  }
  const bool layout = c == '\t' || c == '\n' || c == '\r';
  if (layout && line_breaks == LineBreaks::kKeep) {
    out += c;
  } else if (layout) {
    out += c == '\t' ? "\\t" : c == '\n' ? "\\n" : "\\r";
  } else {
    AppendByteEscape(out, byte);
  }
}

}  // namespace

size_t DecodeUtf8At(std::string_view text, size_t i, uint32_t& code_point) {
  const auto byte = [&](size_t k) { return static_cast<uint8_t>(text[i + k]); };
  const uint8_t lead = byte(0);
  size_t length;
  uint32_t minimum;
  if (lead < 0x80) {
    code_point = lead;
    return 1;
  } else if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2, minimum = 0x80, code_point = lead & 0x1Fu;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3, minimum = 0x800, code_point = lead & 0x0Fu;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4, minimum = 0x10000, code_point = lead & 0x07u;
  } else {
    return 0;
  }
  if (length > text.size() - i) return 0;
  for (size_t k = 1; k < length; ++k) {
    if ((byte(k) & 0xC0) != 0x80) return 0;
    code_point = code_point << 6 | (byte(k) & 0x3Fu);
  }
  if (code_point < minimum || code_point > 0x10FFFF || (code_point >= 0xD800 && code_point <= 0xDFFF)) return 0;
  return length;
}

std::string EscapeForDisplay(std::string_view text, LineBreaks line_breaks) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    if (static_cast<uint8_t>(text[i]) < 0x80) {
      AppendAscii(out, text[i++], line_breaks);
      continue;
    }
    uint32_t code_point = 0;
    const size_t length = DecodeUtf8At(text, i, code_point);
    if (length == 0) {
      AppendByteEscape(out, static_cast<uint8_t>(text[i++]));
    } else {
      if (IsHiddenCodePoint(code_point)) {
        AppendCodePointEscape(out, code_point);
      } else {
        out.append(text, i, length);
      }
      i += length;
    }
  }
  return out;
}

}  // namespace pkgdlv
