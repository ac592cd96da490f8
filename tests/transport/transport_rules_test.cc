// The rules of the package download transport that need no server: URLs
// built from requests and redirects and the reading of text bodies.
#include <gtest/gtest.h>

#include "transport/package_download.h"
#include "transport/response_text.h"
#include "transport/url_parts.h"

namespace pkgdlv {
namespace {

TEST(TransportRulesTest, RedirectUrls) {
  struct Case {
    const char* redirect;
    const char* expected;
  } cases[] = {
      // A path alone keeps scheme, host and port of the request and gets the document.
      {"/qs/GetPackageInfo.aspx", "https://qs.example:8443/qs/GetPackageInfo.aspx?xml=%3Cr%2F%3E&redirect=true"},
      {"\\qs\\x.aspx", "https://qs.example:8443\\qs\\x.aspx?xml=%3Cr%2F%3E&redirect=true"},
      // A query of its own is kept instead.
      {"/qs/x.aspx?ticket=7", "https://qs.example:8443/qs/x.aspx?ticket=7"},
      {"http://other:81/a.asp", "http://other:81/a.asp?xml=%3Cr%2F%3E&redirect=true"},
      {"http://other/a.asp?b=c", "http://other/a.asp?b=c"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(RedirectRequestUrl("https://qs.example:8443/old/GetPackageInfo.aspx?xml=<r/>", c.redirect, "<r/>"),
              c.expected)
        << c.redirect;
  }
}

TEST(TransportRulesTest, PercentEncodingLeavesOnlyUnreservedBytes) {
  EXPECT_EQ(PercentEncode("AZaz09-._~"), "AZaz09-._~");
  EXPECT_EQ(PercentEncode("a+b%41c&d#e"), "a%2Bb%2541c%26d%23e");
  EXPECT_EQ(PercentEncode("<r a=\"1\" b='2'/>?"), "%3Cr%20a%3D%221%22%20b%3D%272%27%2F%3E%3F");
  EXPECT_EQ(PercentEncode(std::string("\xC3\xA9\0\n", 4)), "%C3%A9%00%0A");
}

TEST(TransportRulesTest, SnapshotRequestUrls) {
  const std::string id = "%7B8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6B%7D";
  struct Case {
    const char* url;
    int32_t version;
    std::string expected;
  } cases[] = {
      {"http://s/snap.aspx", 0, "http://s/snap.aspx?Resource=R1&PackageId=" + id + "&compress=1"},
      {"http://s/snap.ASP", 4, "http://s/snap.ASP?Resource=R1&PackageId=" + id + "&PkgVersion=4&compress=1"},
      {"http://s/pkg/snapshot.xml", 4, "http://s/pkg/snapshot.xml"},
      {"\\\\\\srv\\pkg\\dirlisting.tavorin.xml", 4, "\\\\\\srv\\pkg\\dirlisting.tavorin.xml"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(SnapshotRequestUrl(c.url, "R1", "{8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6B}", c.version), c.expected)
        << c.url;
  }
}

TEST(TransportRulesTest, DynamicPagesAndUncPaths) {
  EXPECT_TRUE(HasAspExtension("http://h/GetPackageInfo.ASPX") && HasAspExtension("http://h/a.asp?x=y.xml"));
  EXPECT_FALSE(HasAspExtension("http://h/sources.xml") || HasAspExtension("http://h/dir.aspx/sources"));
  EXPECT_TRUE(IsUncPath("\\\\srv\\x") && IsUncPath("//srv/x") && IsUncPath("\\/srv"));
  EXPECT_FALSE(IsUncPath("http://h/x") || IsUncPath("\\x"));
}

TEST(TransportRulesTest, TextBodies) {
  auto bytes = [](std::string_view s) { return std::vector<uint8_t>(s.begin(), s.end()); };
  // "<a>é😀" in UTF-16 both ways, with an unpaired surrogate and an odd byte at the end.
  const std::string little("\xFF\xFE<\0a\0>\0\xE9\0\x3D\xD8\x00\xDE\x00\xD8x\0!", 19);
  EXPECT_EQ(Utf16ToUtf8(bytes(little)), "<a>\xC3\xA9\xF0\x9F\x98\x80\xEF\xBF\xBDx\xEF\xBF\xBD");
  const std::string big("\xFE\xFF\0<\0a", 6);
  EXPECT_EQ(Utf16ToUtf8(bytes(big)), "<a");
  EXPECT_FALSE(LooksLikeXmlText(bytes("<a")) || LooksLikeXmlText(bytes("<\xC3\xA9")));
  EXPECT_TRUE(IsTextContentType("application/rss+xml; charset=utf-8"));
  EXPECT_FALSE(IsTextContentType("application/xml-dtd"));
}

}  // namespace
}  // namespace pkgdlv
