#include "transport/location.h"

#include <vector>

#include "util/error.h"
#include "util/strings.h"

namespace pkgdlv {
namespace {

bool IsControl(unsigned char c) { return c < 0x20 || c == 0x7F; }

bool IsUnreserved(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
         c == '_' || c == '~';
}

void AppendEscaped(std::string& out, unsigned char c) {
  static const char kHex[] = "0123456789ABCDEF";
  out += '%';
  out += kHex[c >> 4];
  out += kHex[c & 0xF];
}

// Bytes that may not appear in a URL as it goes on the wire; the rest of
// the URL syntax ("/?&=#%:@") is the caller's and stays.
bool NeedsEscapeInUrl(unsigned char c) {
  return c <= 0x20 || c >= 0x7F || c == '"' || c == '<' || c == '>' || c == '\\' || c == '^' || c == '`' ||
         c == '{' || c == '|' || c == '}';
}

std::vector<std::string_view> SplitBackslash(std::string_view text) {
  std::vector<std::string_view> parts;
  size_t start = 0;
  while (true) {
    size_t end = text.find('\\', start);
    parts.push_back(text.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start));
    if (end == std::string_view::npos) break;
    start = end + 1;
  }
  // A folder may be stored with one trailing "\"; it names the same folder.
  if (parts.size() > 1 && parts.back().empty()) parts.pop_back();
  return parts;
}

// A component of a local or share path: not empty, not "." or "..", no
// control character, no "/" (which the stored form never has: "/" was turned
// into "\" when it was stored, so one here is a forged name).
void CheckPathComponent(std::string_view stored, std::string_view component) {
  bool bad = component.empty() || component == "." || component == ".." ||
             component.find('/') != std::string_view::npos;
  for (unsigned char c : component) bad = bad || IsControl(c);
  if (bad) Throw(result::kInvalidArg, "Invalid path is specified: '%ls'", stored);
}

TransportLocation ConvertHttp(std::string_view stored) {
  size_t authority_start = stored.find("://") + 3;
  size_t authority_end = stored.find_first_of("/?#", authority_start);
  std::string_view authority = stored.substr(authority_start, authority_end == std::string_view::npos
                                                                  ? std::string_view::npos
                                                                  : authority_end - authority_start);
  bool bad_host = authority.empty() || authority.front() == '@' || authority.front() == ':';
  for (unsigned char c : authority) bad_host = bad_host || c <= 0x20 || c == 0x7F || c == '\\';
  if (bad_host) Throw(result::kInvalidArg, "Invalid server name in '%ls'", stored);

  TransportLocation location;
  location.kind = TransportLocation::Kind::kHttp;
  location.url.reserve(stored.size());
  for (unsigned char c : stored) {
    if (NeedsEscapeInUrl(c)) {
      AppendEscaped(location.url, c);
    } else {
      location.url += static_cast<char>(c);
    }
  }
  return location;
}

TransportLocation ConvertLocal(std::string_view stored) {
  std::string_view rest = stored.substr(3);  // after "\\\"
  TransportLocation location;
  location.kind = TransportLocation::Kind::kLocalFile;
  location.url = "file://";
  std::string native;
  for (std::string_view component : SplitBackslash(rest)) {
    CheckPathComponent(stored, component);
    native += '/';
    native += component;
    location.url += '/';
    location.url += PercentEncodeComponent(component);
  }
  location.localPath = native;
  return location;
}

TransportLocation ConvertShare(std::string_view stored) {
  std::vector<std::string_view> parts = SplitBackslash(stored.substr(2));
  if (parts.size() < 2) Throw(result::kInvalidArg, "Invalid path is specified: '%ls'", stored);
  TransportLocation location;
  location.kind = TransportLocation::Kind::kSmb;
  location.url = "smb:/";
  for (std::string_view component : parts) {
    CheckPathComponent(stored, component);
    location.url += '/';
    location.url += PercentEncodeComponent(component);
  }
  return location;
}

}  // namespace

std::string PercentEncodeComponent(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (unsigned char c : text) {
    if (IsUnreserved(c)) {
      out += static_cast<char>(c);
    } else {
      AppendEscaped(out, c);
    }
  }
  return out;
}

bool HasKnownProtocol(std::string_view stored) {
  return StartsWithNoCase(stored, "http://") || StartsWithNoCase(stored, "https://") || stored.starts_with("\\\\");
}

TransportLocation ConvertLocation(std::string_view stored) {
  if (StartsWithNoCase(stored, "http://") || StartsWithNoCase(stored, "https://")) return ConvertHttp(stored);
  if (stored.starts_with("\\\\\\")) return ConvertLocal(stored);
  if (stored.starts_with("\\\\")) return ConvertShare(stored);
  Throw(result::kInvalidProtocol, "Invalid protocol specified in '%ls'", stored);
}

}  // namespace pkgdlv
