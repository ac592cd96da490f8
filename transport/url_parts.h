// Taking request URLs and source locations apart and putting them together:
// the redirect rule of the package information request, the extension test
// for dynamic pages, and names beside a snapshot or inside a source folder.
// Pure functions; any thread may call them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace pkgdlv {

// "scheme://host:port/path?query". A text without "://" has no scheme, host
// or port: all of it up to "?" is the path.
struct UrlParts {
  std::string scheme;
  std::string host;
  std::string port;
  std::string path;
  std::string query;  // without the "?"; empty when there is none
  bool hasQuery = false;

  // scheme://host[:port]path, without the query.
  std::string WithoutQuery() const;
};

UrlParts SplitUrl(std::string_view url);

// The extension of the URL's path (after the last "." of its last
// component), as written; empty when there is none.
std::string PathExtension(std::string_view url);

// The package information request's dynamic page test: the path's
// extension is "asp" or "aspx" (ASCII case-insensitive).
bool HasAspExtension(std::string_view url);
// The snapshot fetch's dynamic page test: the path ends in "aspx", "asp" or
// "cgi" (ASCII case-insensitive).
bool PathEndsInDynamicPage(std::string_view url);

// Every byte of text outside the unreserved set (letters, digits, "-", ".",
// "_", "~") as "%XX", so that any value, a whole XML document included,
// stands in a query as one value: "&", "#", "+", "%", quotes, "<" and
// spaces can never end it or change its meaning on the way.
std::string PercentEncode(std::string_view text);

// The URL a snapshot is fetched from: a dynamic page gets the query
// "?Resource=<resource>&PackageId=<id>[&PkgVersion=<version>]&compress=1"
// (the version only when above 0; each value percent-encoded); any other
// URL stands as it is.
std::string SnapshotRequestUrl(std::string_view url, std::string_view resource, std::string_view packageIdText,
                               int32_t version);

// The URL of a redirect given by the persistent connection sender: a
// redirect without host whose path begins with "/" or "\" takes scheme, host
// and port from the requested URL. A redirect with a query keeps it
// ("%ls?%ls"); one without gets the request document, percent-encoded
// ("%ls?xml=%ls&redirect=true").
std::string RedirectRequestUrl(std::string_view requestedUrl, std::string_view redirect,
                               std::string_view requestDocument);

// A name beside the last component of a URL or path (the query is dropped):
// "http://h/p/snapshot.xml?x" + "snapdata.xml" -> "http://h/p/snapdata.xml".
std::string SiblingLocation(std::string_view location, std::string_view name);

// A name inside a folder given as a URL ("/" joins) or a path ("\" joins).
std::string JoinLocation(std::string_view folder, std::string_view name);

// A UNC path: begins with two slashes or backslashes in any mix (a local
// path "\\\..." counts too).
bool IsUncPath(std::string_view location);

}  // namespace pkgdlv
