// Reading the source list ("Source" or "Codebases" element) shared by the
// request document and the source response of the Quillon Server. Internal to
// the package record.
#pragma once

#include <string>
#include <vector>

#include "agent/logger.h"
#include "records/package_request.h"
#include "util/filetime.h"
#include "util/xml.h"

namespace pkgdlv {

struct SourceList {
  bool found = false;  // the document has a source element
  std::vector<CodebaseEntry> codebases;
  FileTime time = 0;          // "time" of the source element; 0 when absent or unreadable
  bool hasSiteQuery = false;  // a SiteQuery with a "url"
  std::string siteQueryUrl;
  std::string siteQueryResource;
  std::string siteQueryType;
};

// Finds the source element (the root's child "Source", else the first
// "//Codebases", else the first "//codebases") and reads its SiteQuery and
// Codebase children, names matched in any letter case. No source element:
// true with found false. A Codebase without a location: the warning "Invalid
// package XML: source requires a href or unc attribute with a value" and false.
bool ReadSourceList(const xml::Document& document, const xml::Node& root, Logger& log, SourceList& list);

}  // namespace pkgdlv
