// How the tool's commands take a source from the command line.
#pragma once

#include <cctype>
#include <filesystem>
#include <string>
#include <string_view>

#include "records/package_request.h"
#include "util/strings.h"

namespace pkgdlv::cli {

// "scheme://..." with a scheme of letters, digits, "+", "-" or ".".
inline bool IsUrlWithScheme(std::string_view text) {
  const size_t colon = text.find("://");
  if (colon == std::string_view::npos || colon == 0 || !std::isalpha(static_cast<unsigned char>(text[0]))) {
    return false;
  }
  for (char c : text.substr(0, colon)) {
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '+' && c != '-' && c != '.') return false;
  }
  return true;
}

// The stored form the transport opens, from what a user typed:
//   a "file:" URL         decoded as a codebase location is ("file:///srv/p%20q" gives "\\\srv\p q")
//   another URL, a UNC path ("\\host\share")   kept as given
//   a path, absolute or relative to the current folder   made absolute, with
//                         "/" turned into "\" ("/srv/pkg" gives "\\\srv\pkg")
//   empty                 empty (no source given)
// Throws std::filesystem::filesystem_error only when the current folder
// cannot be read for a relative path.
inline std::string StoredSource(const std::string& source) {
  if (source.empty()) return source;
  if (StartsWithNoCase(source, "file:")) return DecodeCodebaseLocation(source);
  if (IsUrlWithScheme(source) || source.starts_with("\\\\")) return source;
  std::string stored = "\\\\" + std::filesystem::absolute(source).lexically_normal().string();
  for (char& c : stored) c = c == '/' ? '\\' : c;
  return stored;
}

}  // namespace pkgdlv::cli
