// Rules of the package download transport that need no server: the encoding
// of values placed in a URL and the reading of text bodies.
#include <gtest/gtest.h>

#include "transport/response_text.h"
#include "transport/url_parts.h"

namespace pkgdlv {
namespace {

TEST(TransportRulesTest, PercentEncodingLeavesOnlyUnreservedBytes) {
  EXPECT_EQ(PercentEncode("AZaz09-._~"), "AZaz09-._~");
  EXPECT_EQ(PercentEncode("a+b%41c&d#e"), "a%2Bb%2541c%26d%23e");
  EXPECT_EQ(PercentEncode("<r a=\"1\" b='2'/>?"), "%3Cr%20a%3D%221%22%20b%3D%272%27%2F%3E%3F");
  EXPECT_EQ(PercentEncode(std::string("\xC3\xA9\0\n", 4)), "%C3%A9%00%0A");
}

TEST(TransportRulesTest, TextBodies) {
  auto bytes = [](std::string_view s) { return std::vector<uint8_t>(s.begin(), s.end()); };
  // "<a>é😀" in UTF-16 both ways, with an unpaired surrogate and an odd byte at the end.
  const std::string little("\xFF\xFE<\0a\0>\0\xE9\0\x3D\xD8\x00\xDE\x00\xD8x\0!", 19);
  EXPECT_EQ(Utf16ToUtf8(bytes(little)), "<a>\xC3\xA9\xF0\x9F\x98\x80\xEF\xBF\xBDx\xEF\xBF\xBD");
  EXPECT_EQ(Utf16ToUtf8(bytes(std::string("\xFE\xFF\0<\0a", 6))), "<a");
  EXPECT_FALSE(LooksLikeXmlText(bytes("<a")) || LooksLikeXmlText(bytes("<\xC3\xA9")));
  EXPECT_TRUE(IsTextContentType("application/rss+xml; charset=utf-8"));
  EXPECT_FALSE(IsTextContentType("application/xml-dtd"));
}

}  // namespace
}  // namespace pkgdlv
