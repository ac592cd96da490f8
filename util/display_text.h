// Text that came from a document, a server or the file system, made safe to
// print on a terminal or to write into the agent log.
//
// A name such as "setup\x1B[2J.exe" or one carrying a right-to-left override
// would otherwise clear a terminal or make a listing show something other
// than what is there. Pure functions; any thread may call them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace pkgdlv {

// Whether tab, line feed and carriage return pass through as they are
// (a multi-line message) or are escaped (a name on one line of a listing).
enum class LineBreaks { kEscape, kKeep };

// The text with every character a reader cannot see, or that changes how
// the text around it is shown, written as a visible escape:
//   C0 controls and DEL         "\t" "\n" "\r", else "\x1B" (two hex digits)
//   C1 controls U+0080..U+009F  "\u0085"
//   U+2028, U+2029              "\u2028"
//   bidirectional embeddings, overrides U+202A..U+202E and isolates
//   U+2066..U+2069              "\u202E"
//   non-characters U+FFFE, U+FFFF (not allowed in XML)  "\uFFFE"
//   a byte that is not part of well-formed UTF-8 (overlong forms and
//   surrogates included)        "\xFF"
// Everything else, including any other valid UTF-8, is kept byte for byte,
// so the result is always valid UTF-8 that XML 1.0 allows. A backslash is
// kept as it is (document paths are joined with it): the escaping is meant
// for reading, not for decoding again; scripts read the tools' JSON output.
std::string EscapeForDisplay(std::string_view text, LineBreaks line_breaks = LineBreaks::kEscape);

// Length of the well-formed UTF-8 sequence that starts at text[i], and its
// code point; 0 when the bytes there are not one (a lone continuation byte,
// a truncated sequence, an overlong form, a surrogate, beyond U+10FFFF).
// i must be less than text.size().
size_t DecodeUtf8At(std::string_view text, size_t i, uint32_t& code_point);

}  // namespace pkgdlv
