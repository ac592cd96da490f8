// Codebase locations as the records store them, turned into something the
// network transport can open.
//
// Stored locations have "file:" removed, are percent-decoded and have "/"
// turned into "\". At the transport's edge:
//   "\\\" followed by a path   -> the local absolute path "/path"
//   "\\host\share\rest"        -> "smb://host/share/rest" (components percent-encoded)
//   "http://..." "https://..." -> the URL, with characters a URL may not carry
//                                 (space, quotes, angle brackets, non-ASCII...)
//                                 percent-encoded; "%" is kept as it stands
//   anything else              -> invalid protocol (0x800C000D)
// Pure functions; any thread may call them.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace pkgdlv {

struct TransportLocation {
  enum class Kind { kHttp, kLocalFile, kSmb };
  Kind kind = Kind::kHttp;
  // The URL handed to the transfer library: http(s)://, file:// or smb://.
  std::string url;
  // For kLocalFile: the native absolute path; empty otherwise.
  std::filesystem::path localPath;
};

// Throws Error: 0x800C000D (result::kInvalidProtocol) for a form not listed
// above; 0x80070057 for a location of a known form that is malformed or
// hostile: an empty host or share, a "." or ".." component, an empty
// component or a control character in a share or local path; an empty host
// part, or a space, "\" or control character in it, for an HTTP URL (control
// characters in an HTTP path or query are percent-encoded like other bytes).
TransportLocation ConvertLocation(std::string_view stored);

// True when the stored location has one of the forms above (the block
// download's protocol check); never throws.
bool HasKnownProtocol(std::string_view stored);

// Percent-encodes every byte outside the unreserved set (letters, digits,
// "-._~"); for one path component of a URL.
std::string PercentEncodeComponent(std::string_view text);

}  // namespace pkgdlv
