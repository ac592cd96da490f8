// How the tool's commands take a source from the command line.
#pragma once

#include <string>

namespace pkgdlv::cli {

// A local file or folder given as a native path takes the stored form the transport
// opens ("/srv/pkg" becomes three backslashes, "srv", a backslash, "pkg");
// URLs and UNC paths stay as given.
inline std::string StoredSource(const std::string& source) {
  if (!source.starts_with('/')) return source;
  std::string stored = "\\\\" + source;
  for (char& c : stored) c = c == '/' ? '\\' : c;
  return stored;
}

}  // namespace pkgdlv::cli
