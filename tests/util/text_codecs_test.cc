// Base64, GUIDs, booleans and number parsing: the text forms documents carry.
#include <gtest/gtest.h>

#include <random>

#include "util/base64.h"
#include "util/guid.h"
#include "util/strings.h"

namespace pkgdlv {
namespace {

std::vector<uint8_t> Bytes(std::string_view s) { return {s.begin(), s.end()}; }

TEST(Base64Test, KnownVectorsRoundTripsAndMalformedText) {
  const std::pair<const char*, const char*> vectors[] = {
      {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="},
      {"foobar", "Zm9vYmFy"}};
  for (auto [plain, encoded] : vectors) {
    EXPECT_EQ(Base64Encode(std::string_view(plain)), encoded);
    auto decoded = Base64Decode(encoded);
    ASSERT_TRUE(decoded.has_value()) << encoded;
    EXPECT_EQ(*decoded, Bytes(plain));
  }
  std::mt19937 rng(7);
  for (size_t size = 0; size < 300; ++size) {
    std::vector<uint8_t> data(size);
    for (auto& b : data) b = static_cast<uint8_t>(rng());
    auto decoded = Base64Decode(Base64Encode(data));
    ASSERT_TRUE(decoded.has_value());
    EXPECT_EQ(*decoded, data);
  }
  for (const char* bad : {"Zg", "Zg=", "Z===", "Zm9v\n", " Zm9v", "Zm9v====", "Zm=v", "Zh==", "Zm9=", "Zm9v!A==",
                          "=Zm9", "Zm8=Zm8="}) {
    EXPECT_FALSE(Base64Decode(bad).has_value()) << bad;
  }
}

TEST(GuidTest, ParseAndFormat) {
  auto g = Guid::Parse("{8c2f4e1a-0b3d-4f5e-9a7b-1c2d3e4f5a6b}");
  ASSERT_TRUE(g.has_value());
  EXPECT_EQ(g->ToString(), "{8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6B}");
  EXPECT_EQ(Guid::Parse(g->ToString()), g);
  EXPECT_FALSE(Guid::Parse("8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6B").has_value());
  EXPECT_TRUE(Guid::Parse("8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6B", /*allow_bare=*/true).has_value());
  for (const char* bad : {"", "{}", "{8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6}", "{8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6BB}",
                          "{8C2F4E1A 0B3D-4F5E-9A7B-1C2D3E4F5A6B}", "{8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6G}",
                          "(8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6B)", "{..\\..\\etc\\passwd-aaaa-bbbb-cccccccc}"}) {
    EXPECT_FALSE(IsBracedGuid(bad)) << bad;
  }
  Guid a = Guid::Generate(), b = Guid::Generate();
  EXPECT_NE(a, b);
  EXPECT_FALSE(a.IsNull());
  EXPECT_TRUE(Guid().IsNull());
}

TEST(StringsTest, BooleanReadingRule) {
  for (const char* yes : {"true", "TRUE", "True", "yes", "YeS", "1", "-1", "42", " 7 "}) EXPECT_TRUE(ReadBool(yes)) << yes;
  for (const char* no : {"false", "no", "0", "", "on", "y", "t", "1.5", "0x1", "truex"}) EXPECT_FALSE(ReadBool(no)) << no;
}

TEST(StringsTest, CaseInsensitiveOrderIsAsciiOnly) {
  EXPECT_EQ(CompareNoCase("Program Files", "program files"), 0);
  EXPECT_LT(CompareNoCase("abc", "ABD"), 0);
  EXPECT_LT(CompareNoCase("ab", "ABC"), 0);
  EXPECT_GT(CompareNoCase("b", "A"), 0);
  EXPECT_LT(CompareNoCase("A_", "Aa"), 0);
  EXPECT_FALSE(EqualsNoCase("\xC3\x84", "\xC3\xA4"));  // non-ASCII letters are not folded
  EXPECT_TRUE(StartsWithNoCase("Dirlisting.Tavorin.XML", "dirlisting"));
  EXPECT_TRUE(EndsWithNoCase("page.ASPX", ".aspx"));
}

TEST(StringsTest, NumberParsing) {
  EXPECT_EQ(ParseInt64("-12"), -12);
  EXPECT_EQ(ParseInt64(" +7 "), 7);
  EXPECT_EQ(ParseUInt64("18446744073709551615"), UINT64_MAX);
  EXPECT_FALSE(ParseUInt64("18446744073709551616").has_value());
  EXPECT_FALSE(ParseInt64("12abc").has_value());
  EXPECT_FALSE(ParseInt64("").has_value());
  EXPECT_EQ(ParseHex32("8004200C"), 0x8004200Cu);
  EXPECT_EQ(ParseHex32("0x80070057"), 0x80070057u);
  EXPECT_FALSE(ParseHex32("busy").has_value());
  EXPECT_FALSE(ParseHex32("100000000").has_value());
}

TEST(StringsTest, WipeClearsTheText) {
  std::string secret = "hunter2";
  const char* data = secret.data();
  WipeString(secret);
  EXPECT_TRUE(secret.empty());
  for (size_t i = 0; i < 7; ++i) EXPECT_EQ(data[i], '\0');  // small-string buffer still owned by `secret`
}

}  // namespace
}  // namespace pkgdlv
