// Escaping of untrusted text before it is printed or logged.
#include "util/display_text.h"

#include <gtest/gtest.h>

#include <string>

namespace pkgdlv {
namespace {

using namespace std::string_literals;

struct EscapeCase {
  std::string input;
  std::string escaped;        // lines escaped
  std::string keeping_lines;  // tab, line feed and carriage return kept
};

TEST(DisplayTextTest, EscapesWhatHidesOrMovesTextAndKeepsTheRest) {
  // Letters with accents, a check mark, an emoji, a no-break space, U+FFFD.
  const std::string kVisible = "\xC3\xA9t\xC3\xA9 \xE2\x9C\x93 \xF0\x9F\x98\x80 \xC2\xA0 \xEF\xBF\xBD";
  const EscapeCase cases[] = {
      {"docs\\read me.txt", "docs\\read me.txt", "docs\\read me.txt"},
      {kVisible, kVisible, kVisible},
      {"a\x1B[2Jb\x7F", "a\\x1B[2Jb\\x7F", "a\\x1B[2Jb\\x7F"},
      {"n\0ul\x01"s, "n\\x00ul\\x01", "n\\x00ul\\x01"},
      {"a\tb\nc\rd", "a\\tb\\nc\\rd", "a\tb\nc\rd"},
      // C1 controls, U+0085 NEL and U+009B CSI among them.
      {"\xC2\x80\xC2\x85\xC2\x9B", "\\u0080\\u0085\\u009B", "\\u0080\\u0085\\u009B"},
      // Line and paragraph separators; the characters on either side stay.
      {"\xE2\x80\xA7\xE2\x80\xA8\xE2\x80\xA9\xE2\x80\xAF", "\xE2\x80\xA7\\u2028\\u2029\xE2\x80\xAF",
       "\xE2\x80\xA7\\u2028\\u2029\xE2\x80\xAF"},
      // Embeddings and overrides U+202A..U+202E, isolates U+2066..U+2069.
      {"invoice\xE2\x80\xAE" "fdp.exe", "invoice\\u202Efdp.exe", "invoice\\u202Efdp.exe"},
      {"\xE2\x80\xAA\xE2\x81\xA5\xE2\x81\xA6\xE2\x81\xA9\xE2\x81\xAA",
       "\\u202A\xE2\x81\xA5\\u2066\\u2069\xE2\x81\xAA", "\\u202A\xE2\x81\xA5\\u2066\\u2069\xE2\x81\xAA"},
      {"\xEF\xBF\xBE\xEF\xBF\xBF", "\\uFFFE\\uFFFF", "\\uFFFE\\uFFFF"},
      // Bytes that are not well-formed UTF-8: lone continuation, overlong,
      // surrogate, beyond U+10FFFF, truncated at the end and before ASCII.
      {"\x80|\xC0\xAF|\xED\xA0\x80|\xF4\x90\x80\x80|\xFF",
       "\\x80|\\xC0\\xAF|\\xED\\xA0\\x80|\\xF4\\x90\\x80\\x80|\\xFF",
       "\\x80|\\xC0\\xAF|\\xED\\xA0\\x80|\\xF4\\x90\\x80\\x80|\\xFF"},
      {"\xE2\x80x\xE2\x80", "\\xE2\\x80x\\xE2\\x80", "\\xE2\\x80x\\xE2\\x80"},
  };
  for (const EscapeCase& c : cases) {
    EXPECT_EQ(EscapeForDisplay(c.input), c.escaped) << c.escaped;
    EXPECT_EQ(EscapeForDisplay(c.input, LineBreaks::kKeep), c.keeping_lines) << c.escaped;
  }
}

}  // namespace
}  // namespace pkgdlv
