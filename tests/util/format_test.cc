#include "util/format.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace pkgdlv {
namespace {

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

}  // namespace
}  // namespace pkgdlv
