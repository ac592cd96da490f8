// The source list of a package: codebase locations, their decoding, and the
// source response of the Quillon Server (codebases, account, key and flags).
#include "records/package_sources.h"

#include <libxml/tree.h>
#include <openssl/crypto.h>

#include "util/strings.h"

namespace pkgdlv {

namespace {

bool IsEscapeAt(std::string_view text, size_t i) {
  return i + 2 < text.size() && text[i] == '%' && HexDigitValue(text[i + 1]) >= 0 && HexDigitValue(text[i + 2]) >= 0;
}

// Length of the well-formed UTF-8 sequence starting at bytes[i] (overlong
// forms, surrogates and values above U+10FFFF refused), or 0.
size_t Utf8SequenceLength(std::string_view bytes, size_t i) {
  auto at = [&](size_t k) { return static_cast<unsigned char>(bytes[i + k]); };
  unsigned char lead = at(0);
  size_t length = lead < 0x80                      ? 1
                  : (lead >= 0xC2 && lead <= 0xDF) ? 2
                  : (lead >= 0xE0 && lead <= 0xEF) ? 3
                  : (lead >= 0xF0 && lead <= 0xF4) ? 4
                                                   : 0;
  if (length == 0 || i + length > bytes.size()) return 0;
  for (size_t k = 1; k < length; ++k) {
    if ((at(k) & 0xC0) != 0x80) return 0;
  }
  if (length > 1) {
    unsigned char next = at(1);
    if ((lead == 0xE0 && next < 0xA0) || (lead == 0xED && next > 0x9F) || (lead == 0xF0 && next < 0x90) ||
        (lead == 0xF4 && next > 0x8F)) {
      return 0;
    }
  }
  return length;
}

bool IsAsciiControl(unsigned char c) { return c < 0x20 || c == 0x7F; }

void AppendConverted(std::string& out, char c) { out += c == '/' ? '\\' : c; }

// Decodes one run of consecutive escapes (escapedText holds them as written,
// three characters per byte): every well-formed character that is not a
// control character is decoded; any other byte keeps its escape.
void AppendEscapeRun(std::string& out, std::string_view escapedText) {
  std::string bytes;
  for (size_t i = 0; i < escapedText.size(); i += 3) {
    bytes += static_cast<char>(HexDigitValue(escapedText[i + 1]) * 16 + HexDigitValue(escapedText[i + 2]));
  }
  for (size_t i = 0; i < bytes.size();) {
    size_t length = Utf8SequenceLength(bytes, i);
    if (length == 0 || (length == 1 && IsAsciiControl(static_cast<unsigned char>(bytes[i])))) {
      out.append(escapedText.substr(i * 3, 3));
      ++i;
      continue;
    }
    for (size_t k = 0; k < length; ++k) AppendConverted(out, bytes[i + k]);
    i += length;
  }
}

bool ContainsNoCase(std::string_view text, std::string_view part) {
  return ToLowerAscii(text).find(ToLowerAscii(part)) != std::string::npos;
}

xml::Node FindSourceElement(const xml::Document& document, const xml::Node& root) {
  for (const xml::Node& child : root.Children()) {
    if (child.Name() == "Source") return child;
  }
  if (xml::Node codebases = document.SelectFirst("//Codebases")) return codebases;
  return document.SelectFirst("//codebases");
}

bool ReadCodebase(const xml::Node& element, Logger& log, CodebaseEntry& entry) {
  std::optional<std::string> value;
  if ((value = element.Attribute("href")) || (value = element.Attribute("url"))) {
    entry.packageServer = ContainsNoCase(*value, "/PS/Share/");
  } else if ((value = element.Attribute("unc"))) {
    entry.packageServer = ContainsNoCase(*value, "/PkgSvrHost");
  }
  if (!value || value->empty()) {
    log.Log(loglevel::kWarning, kPackageRequestLogComponent,
            "Invalid package XML: source requires a href or unc attribute with a value");
    return false;
  }
  entry.location = DecodeCodebaseLocation(*value);
  entry.sourceType = EqualsNoCase(element.Attribute("codebaseSourceType").value_or(""), "QS") ? 1 : 0;
  entry.snapshotLocation = DecodeCodebaseLocation(element.Attribute("snapshot").value_or(""));
  return true;
}

// Overwrites an attribute's value inside the parsed tree, so that the
// document's copy of a secret does not outlive it in freed memory.
void WipeAttributeInTree(const xml::Node& element, std::string_view name) {
  if (!element) return;
  for (xmlAttr* attr = element.raw()->properties; attr != nullptr; attr = attr->next) {
    if (attr->name == nullptr || std::string_view(reinterpret_cast<const char*>(attr->name)) != name) continue;
    for (xmlNode* text = attr->children; text != nullptr; text = text->next) {
      if (text->content != nullptr) OPENSSL_cleanse(text->content, static_cast<size_t>(xmlStrlen(text->content)));
    }
  }
}

}  // namespace

bool operator==(const CodebaseEntry& a, const CodebaseEntry& b) {
  return a.location == b.location && a.snapshotLocation == b.snapshotLocation && a.sourceType == b.sourceType &&
         a.packageServer == b.packageServer;
}

std::string DecodeCodebaseLocation(std::string_view value) {
  if (value.starts_with('/') && !value.starts_with("//")) {
    // An absolute path of this computer, as a person writes one.
    std::string out = "\\\\";
    for (char c : value) AppendConverted(out, c);
    return out;
  }
  if (!StartsWithNoCase(value, "file:")) return std::string(value);
  value.remove_prefix(5);
  std::string out;
  out.reserve(value.size());
  for (size_t i = 0; i < value.size();) {
    if (!IsEscapeAt(value, i)) {
      AppendConverted(out, value[i]);
      ++i;
      continue;
    }
    // Consecutive escapes are decoded together: one character may take several.
    size_t start = i;
    while (IsEscapeAt(value, i)) i += 3;
    AppendEscapeRun(out, value.substr(start, i - start));
  }
  return out;
}

bool ReadSourceList(const xml::Document& document, const xml::Node& root, Logger& log, SourceList& list) {
  xml::Node source = FindSourceElement(document, root);
  if (!source) return true;
  list.found = true;
  list.time = ParseDocumentTime(source.Attribute("time").value_or("")).value_or(0);
  for (const xml::Node& child : source.Children()) {
    std::string name = child.Name();
    if (EqualsNoCase(name, "SiteQuery")) {
      std::optional<std::string> url = child.Attribute("url");
      if (!url) continue;
      list.hasSiteQuery = true;
      list.siteQueryUrl = std::move(*url);
      list.siteQueryResource = child.Attribute("resource").value_or("");
      list.siteQueryType = child.Attribute("type").value_or("");
    } else if (EqualsNoCase(name, "Codebase")) {
      CodebaseEntry entry;
      if (!ReadCodebase(child, log, entry)) return false;
      list.codebases.push_back(std::move(entry));
    }
  }
  return true;
}

bool PackageRequest::ReadSources(const xml::Document& document, const xml::Node& root) {
  SourceList list;
  if (!ReadSourceList(document, root, *log_, list)) return false;
  if (list.found) {
    codebases = std::move(list.codebases);
    sourceTime = list.time;
    if (list.hasSiteQuery) {
      siteQueryUrl = std::move(list.siteQueryUrl);
      siteQueryResource = std::move(list.siteQueryResource);
      siteQueryType = std::move(list.siteQueryType);
    }
  }
  if (!siteQueryUrl.empty() && siteQueryType.empty()) siteQueryType = root.Attribute("type").value_or("codebases");
  return true;
}

bool PackageRequest::ApplySourcesResponse(std::string_view text) {
  std::string reason = "the document has no root element";
  std::optional<xml::Document> document = xml::Document::TryParse(text, &reason);
  xml::Node root = document ? document->Root() : xml::Node();
  if (!root) {
    log_->LogWithError(loglevel::kWarning, kPackageRequestLogComponent, reason, "Invalid source XML: XML failed to load");
    return false;
  }
  // The tree's copy of the password is wiped however this ends.
  struct TreeWipe {
    const xml::Node& root;
    ~TreeWipe() { WipeAttributeInTree(root, "password"); }
  } treeWipe{root};

  SourceList list;
  if (!ReadSourceList(*document, root, *log_, list)) return false;

  auto guard = Lock();
  codebases = std::move(list.codebases);
  sourceTime = list.time != 0 ? list.time : clock_->Now();
  if (list.hasSiteQuery) {
    siteQueryResource = std::move(list.siteQueryResource);
    siteQueryType = std::move(list.siteQueryType);
  }

  if (std::optional<std::string> user = root.Attribute("username")) {
    std::string domain = root.Attribute("domain").value_or("");
    UserAccessName = domain.empty() ? *user : domain + "\\" + *user;
  }
  if (std::optional<std::string> password = root.Attribute("password")) {
    SetUserAccessPassword(*password);
    WipeString(*password);
  }

  xml::Node package = document->SelectFirst("//package");
  if (!package) package = document->SelectFirst("//Package");
  std::optional<std::string> key = package ? package.Attribute("sourceKey") : std::nullopt;
  if (package) {
    if (std::optional<std::string> optional = package.Attribute("optionalHashCheck")) {
      SetOptionalHashCheck(ReadBool(*optional));
    }
  }
  if (key && !key->empty()) {
    sourceKey = std::move(*key);
  } else if (!optionalHashCheck_ || IsPackageServerQuery()) {
    log_->Log(loglevel::kInfo, kPackageRequestLogComponent,
              "Security key for package validation is missing from response. Previously stored key will be used "
              "(if exist).");
  } else {
    // The server lets the check be skipped for these legacy codebases and
    // sends no key: the key of an earlier answer no longer applies.
    sourceKey.clear();
  }

  // The flag is an attribute of the root; answers that carry it on the
  // package element are read as well.
  std::optional<std::string> timeout = root.Attribute("timeoutExceeded");
  if (!timeout && package) timeout = package.Attribute("timeoutExceeded");
  timeoutExceeded = ReadBool(timeout.value_or(""));
  return true;
}

}  // namespace pkgdlv
