#include "transport/url_parts.h"

#include "util/format.h"
#include "util/strings.h"

namespace pkgdlv {

std::string UrlParts::WithoutQuery() const {
  std::string out;
  if (!scheme.empty() || !host.empty()) {
    out = scheme + "://" + host;
    if (!port.empty()) out += ":" + port;
  }
  return out + path;
}

UrlParts SplitUrl(std::string_view url) {
  UrlParts parts;
  if (size_t mark = url.find('?'); mark != std::string_view::npos) {
    parts.query = url.substr(mark + 1);
    parts.hasQuery = true;
    url = url.substr(0, mark);
  }
  size_t schemeEnd = url.find("://");
  if (schemeEnd == std::string_view::npos) {
    parts.path = url;
    return parts;
  }
  parts.scheme = url.substr(0, schemeEnd);
  std::string_view rest = url.substr(schemeEnd + 3);
  size_t pathStart = rest.find_first_of("/\\");
  std::string_view authority = rest.substr(0, pathStart);
  parts.path = pathStart == std::string_view::npos ? std::string() : std::string(rest.substr(pathStart));
  // The port follows the last ":" after any user information and outside an
  // IPv6 literal.
  size_t at = authority.rfind('@');
  size_t hostStart = at == std::string_view::npos ? 0 : at + 1;
  size_t colon = authority.rfind(':');
  size_t bracket = authority.rfind(']');
  if (colon != std::string_view::npos && colon >= hostStart && (bracket == std::string_view::npos || colon > bracket)) {
    parts.port = authority.substr(colon + 1);
    authority = authority.substr(0, colon);
  }
  parts.host = authority;
  return parts;
}

std::string PathExtension(std::string_view url) {
  std::string path = SplitUrl(url).path;
  size_t lastSeparator = path.find_last_of("/\\");
  size_t dot = path.rfind('.');
  if (dot == std::string::npos || (lastSeparator != std::string::npos && dot < lastSeparator)) return {};
  return path.substr(dot + 1);
}

bool HasAspExtension(std::string_view url) {
  std::string extension = PathExtension(url);
  return EqualsNoCase(extension, "asp") || EqualsNoCase(extension, "aspx");
}

bool PathEndsInDynamicPage(std::string_view url) {
  std::string path = SplitUrl(url).path;
  return EndsWithNoCase(path, "aspx") || EndsWithNoCase(path, "asp") || EndsWithNoCase(path, "cgi");
}

std::string PercentEncode(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size() * 3);
  for (char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    const bool unreserved = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                            c == '-' || c == '.' || c == '_' || c == '~';
    if (unreserved) {
      out += c;
    } else {
      out += '%';
      out += kHex[byte >> 4];
      out += kHex[byte & 0xF];
    }
  }
  return out;
}

std::string SnapshotRequestUrl(std::string_view url, std::string_view resource, std::string_view packageIdText,
                               int32_t version) {
  std::string out(url);
  if (!PathEndsInDynamicPage(url)) return out;
  out += Format("?Resource=%ls&PackageId=%ls", PercentEncode(resource), PercentEncode(packageIdText));
  if (version > 0) out += Format("&PkgVersion=%d", version);
  return out + "&compress=1";
}

std::string RedirectRequestUrl(std::string_view requestedUrl, std::string_view redirect,
                               std::string_view requestDocument) {
  UrlParts target = SplitUrl(redirect);
  if (target.host.empty() && (target.path.starts_with('/') || target.path.starts_with('\\'))) {
    UrlParts requested = SplitUrl(requestedUrl);
    target.scheme = requested.scheme;
    target.host = requested.host;
    target.port = requested.port;
  }
  if (target.hasQuery) return Format("%ls?%ls", target.WithoutQuery(), target.query);
  return Format("%ls?xml=%ls&redirect=true", target.WithoutQuery(), PercentEncode(requestDocument));
}

std::string SiblingLocation(std::string_view location, std::string_view name) {
  std::string_view base = location.substr(0, location.find('?'));
  size_t lastSeparator = base.find_last_of("/\\");
  if (lastSeparator == std::string_view::npos) return std::string(name);
  return std::string(base.substr(0, lastSeparator + 1)) + std::string(name);
}

std::string JoinLocation(std::string_view folder, std::string_view name) {
  const bool url = folder.find("://") != std::string_view::npos;
  const char separator = url ? '/' : '\\';
  std::string out(folder);
  if (!out.empty() && out.back() != '/' && out.back() != '\\') out += separator;
  return out + std::string(name);
}

bool IsUncPath(std::string_view location) {
  auto isSlash = [](char c) { return c == '/' || c == '\\'; };
  return location.size() >= 2 && isSlash(location[0]) && isSlash(location[1]);
}

}  // namespace pkgdlv
