// The text forms documents, messages and the terminal carry: GUIDs,
// times, formatted messages, escaped untrusted text, and wiped secrets.
#include <gtest/gtest.h>

#include "util/display_text.h"
#include "util/filetime.h"
#include "util/format.h"
#include "util/guid.h"
#include "util/strings.h"

namespace pkgdlv {
namespace {

using namespace std::string_literals;

TEST(GuidTest, ParseAndFormat) {
  auto g = Guid::Parse("{8c2f4e1a-0b3d-4f5e-9a7b-1c2d3e4f5a6b}");
  ASSERT_TRUE(g.has_value());
  EXPECT_EQ(g->ToString(), "{8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6B}");
  EXPECT_FALSE(Guid::Parse("8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6B").has_value());
  EXPECT_TRUE(Guid::Parse("8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6B", /*allow_bare=*/true).has_value());
  for (const char* bad : {"", "{8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6}", "{8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6BB}",
                          "{8C2F4E1A 0B3D-4F5E-9A7B-1C2D3E4F5A6B}", "{8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6G}",
                          "{..\\..\\etc\\passwd-aaaa-bbbb-cccccccc}"}) {
    EXPECT_FALSE(IsBracedGuid(bad)) << bad;
  }
  EXPECT_NE(Guid::Generate(), Guid::Generate());
}

TEST(StringsTest, WipeClearsTheText) {
  std::string secret = "hunter2";
  const char* data = secret.data();
  WipeString(secret);
  EXPECT_TRUE(secret.empty());
  for (size_t i = 0; i < 7; ++i) EXPECT_EQ(data[i], '\0');  // small-string buffer still owned by `secret`
}

TEST(FileTimeTest, DocumentFormsRoundTrip) {
  FileTime t = *FromCivilUtc({2024, 2, 29, 23, 5, 9, 0});
  EXPECT_EQ(FormatDocumentTime(t, DateForm::kIsoT), "2024-02-29T23:05:09");
  EXPECT_EQ(FormatDocumentTime(t, DateForm::kSpaced), "2024-02-29 23:05:09");
  EXPECT_EQ(ParseDocumentTime("2024-02-29T23:05:09"), t);
  EXPECT_EQ(ParseDocumentTime("2024-02-29 23:05:09"), t);
  EXPECT_EQ(ParseDocumentTime("2024-02-29T23:05:09.250Z"), t);
  EXPECT_EQ(ParseDocumentTime("1601-01-01T00:00:00"), FileTime{0});
}

TEST(FileTimeTest, RejectsImpossibleDates) {
  for (const char* bad : {"2023-02-29T00:00:00", "2024-13-01T00:00:00", "2024-01-01T24:00:00", "2024-01-01",
                          "2024/01/01 00:00:00", "2024-01-01T00:00:00+01:00", "", "1500-01-01T00:00:00",
                          "2024-1-01T00:00:00"}) {
    EXPECT_FALSE(ParseDocumentTime(bad).has_value()) << bad;
  }
}

TEST(FormatTest, MessagesWithWindowsSpecifiers) {
  struct Case {
    std::string got;
    std::string want;
  };
  const uint32_t code = 0x80004005;
  const Case cases[] = {
      {Format("Unable to save setting: %ls: %ls (%d)", "Retry delay (mins)", "disk I/O error", 10),
       "Unable to save setting: Retry delay (mins): disk I/O error (10)"},
      {Format("%ls (0x%08X)", "Invalid package ID", code), "Invalid package ID (0x80004005)"},
      {Format("0x%08X", 0x2A), "0x0000002A"},
      {Format("%d", code), "-2147467259"},  // 32-bit signed view, as printf shows a code with %d
      {Format("%u", code), "2147500037"},
      {Format("%I64d / %I64u", int64_t{-5'000'000'000}, uint64_t{18'000'000'000'000'000'000u}),
       "-5000000000 / 18000000000000000000"},
      {Format("%hs|%ls|%s", "a", std::string("b"), std::string_view("c")), "a|b|c"},
      {Format("[%5s][%-5s][%.2s]", "ab", "ab", "abcdef"), "[   ab][ab   ][ab]"},
      {Format("%03d|%+d|%x|%llu", 7, 7, 255u, 12ULL), "007|+7|ff|12"},
      {Format("100%% of %d", 3), "100% of 3"},
      {Format("%.1f", 2.25), "2.2"},
      {Format("%c", 'A'), "A"},
  };
  for (const Case& c : cases) EXPECT_EQ(c.got, c.want);
}

TEST(FormatTest, MismatchedArgumentsNeverCrash) {
  EXPECT_EQ(Format("%ls and %d", "one"), "one and (missing)");
  EXPECT_EQ(Format("%d", "text"), "text");           // text given to a number prints the text
  EXPECT_EQ(Format("%s", 42), "42");                 // number given to a text prints the number
  EXPECT_EQ(Format("trailing %"), "trailing %");
  EXPECT_EQ(Format("%q", 1), "%q");
  EXPECT_EQ(Format("%s", static_cast<const char*>(nullptr)), "(null)");
  std::string long_text(10000, 'x');
  EXPECT_EQ(Format("<%ls>", long_text).size(), 10002u);
}

TEST(DisplayTextTest, EscapesWhatHidesOrMovesTextAndKeepsTheRest) {
  // Letters with accents, a check mark, an emoji, a no-break space, U+FFFD.
  const std::string kVisible = "\xC3\xA9t\xC3\xA9 \xE2\x9C\x93 \xF0\x9F\x98\x80 \xC2\xA0 \xEF\xBF\xBD";
  const std::pair<std::string, std::string> cases[] = {
      {"docs\\read me.txt", "docs\\read me.txt"},
      {kVisible, kVisible},
      {"a\x1B[2Jb\x7F", "a\\x1B[2Jb\\x7F"},
      {"n\0ul\x01"s, "n\\x00ul\\x01"},
      {"a\tb\nc\rd", "a\\tb\\nc\\rd"},
      // C1 controls, U+0085 NEL and U+009B CSI among them.
      {"\xC2\x80\xC2\x85\xC2\x9B", "\\u0080\\u0085\\u009B"},
      // Line and paragraph separators; the characters on either side stay.
      {"\xE2\x80\xA7\xE2\x80\xA8\xE2\x80\xA9\xE2\x80\xAF", "\xE2\x80\xA7\\u2028\\u2029\xE2\x80\xAF"},
      // Embeddings and overrides U+202A..U+202E, isolates U+2066..U+2069.
      {"invoice\xE2\x80\xAE" "fdp.exe", "invoice\\u202Efdp.exe"},
      {"\xE2\x80\xAA\xE2\x81\xA5\xE2\x81\xA6\xE2\x81\xA9\xE2\x81\xAA", "\\u202A\xE2\x81\xA5\\u2066\\u2069\xE2\x81\xAA"},
      {"\xEF\xBF\xBE\xEF\xBF\xBF", "\\uFFFE\\uFFFF"},
      // Bytes that are not well-formed UTF-8: lone continuation, overlong,
      // surrogate, beyond U+10FFFF, truncated at the end and before ASCII.
      {"\x80|\xC0\xAF|\xED\xA0\x80|\xF4\x90\x80\x80|\xFF",
       "\\x80|\\xC0\\xAF|\\xED\\xA0\\x80|\\xF4\\x90\\x80\\x80|\\xFF"},
      {"\xE2\x80x\xE2\x80", "\\xE2\\x80x\\xE2\\x80"},
  };
  for (const auto& [input, escaped] : cases) EXPECT_EQ(EscapeForDisplay(input), escaped) << escaped;
  EXPECT_EQ(EscapeForDisplay("a\tb\nc\rd\x1B", LineBreaks::kKeep), "a\tb\nc\rd\\x1B");
}

}  // namespace
}  // namespace pkgdlv
