#include "transport/response_text.h"

#include "util/strings.h"

namespace pkgdlv {
namespace {

void AppendUtf8(std::string& out, uint32_t cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

constexpr uint32_t kReplacement = 0xFFFD;

}  // namespace

bool IsUtf16Text(std::span<const uint8_t> body) {
  return body.size() >= 2 && ((body[0] == 0xFF && body[1] == 0xFE) || (body[0] == 0xFE && body[1] == 0xFF));
}

std::string Utf16ToUtf8(std::span<const uint8_t> body) {
  if (!IsUtf16Text(body)) return {};
  const bool bigEndian = body[0] == 0xFE;
  auto unit = [&](size_t i) -> uint32_t {
    return bigEndian ? (uint32_t{body[i]} << 8 | body[i + 1]) : (uint32_t{body[i + 1]} << 8 | body[i]);
  };
  std::string out;
  out.reserve(body.size());
  size_t i = 2;
  for (; i + 1 < body.size(); i += 2) {
    uint32_t u = unit(i);
    if (u >= 0xD800 && u < 0xDC00 && i + 3 < body.size()) {
      uint32_t low = unit(i + 2);
      if (low >= 0xDC00 && low < 0xE000) {
        AppendUtf8(out, 0x10000 + ((u - 0xD800) << 10) + (low - 0xDC00));
        i += 2;
        continue;
      }
    }
    AppendUtf8(out, (u >= 0xD800 && u < 0xE000) ? kReplacement : u);
  }
  if (i < body.size()) AppendUtf8(out, kReplacement);
  return out;
}

bool LooksLikeXmlText(std::span<const uint8_t> body) { return body.size() >= 3 && body[0] == '<' && body[1] < 128; }

bool IsTextContentType(std::string_view contentType) {
  std::string_view type = TrimAscii(contentType.substr(0, contentType.find(';')));
  return StartsWithNoCase(type, "text/") || EndsWithNoCase(type, "/xml") || EndsWithNoCase(type, "+xml");
}

std::string_view SkipByteOrderMark(std::string_view text) {
  if (text.starts_with("\xEF\xBB\xBF")) text.remove_prefix(3);
  return text;
}

}  // namespace pkgdlv
