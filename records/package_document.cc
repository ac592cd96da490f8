// The package document: reading a request document (or a saved
// "package.xml") into the record, and writing "package.xml".
//
// LoadFromXml, step by step:
//   1. load the text ("Invalid package XML: XML failed to load");
//   2. the root must be "Package" ("Invalid package XML: Incorrect root element");
//   3. "id": a record with a non-zero identifier refuses another one
//      ("Invalid Package XML: Attempt to change package ID");
//   4. "name", "size", "version" (absent: the snapshot's version);
//   5. "remote", "statusDescription", "minspeed", "sourceKey",
//      "enableMulticast" (absent: true); when present "optionalHashCheck",
//      "clientDownloadsDisabled", "urgentDownload", "downloadStartSLA",
//      "SLAStartTime";
//   6. "status" through SetStatus (a changed status replaces the description);
//   7. "fileStore" becomes the package folder (fixedStore when non-empty), then
//      "fixedStore" and "priority" when present;
//   8. a LocalManaged location: the package folder, with a snapshot built from it;
//   9. otherwise the source list;
//  10. an embedded Snapshot (and SnapshotData) element;
//  11. fixedStore is copied into the snapshot.
//
// Folders named by a document ("fileStore", the LocalManaged location) must
// be absolute, without "." or ".." components or control characters, and not
// the file system root; anything else fails the load with a warning, so a
// document can never point the package's files at a relative or climbing path.
#include <libxml/tree.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <utility>

#include "records/package_request.h"
#include "snapshot/snapshot_builder.h"
#include "util/error.h"
#include "util/safe_path.h"
#include "util/strings.h"
#include "util/xml.h"

namespace fs = std::filesystem;

namespace pkgdlv {

namespace {

constexpr std::string_view kComponent = kPackageRequestLogComponent;
constexpr std::string_view kMaskedPassword = "********";
constexpr size_t kMaxQuotedLength = 260;

xml::Node FirstChild(const xml::Node& parent, std::string_view name) {
  for (const xml::Node& child : parent.Children()) {
    if (child.Name() == name) return child;
  }
  return {};
}

std::string Attr(const xml::Node& element, std::string_view name) {
  return element.Attribute(name).value_or(std::string());
}

// Numbers that do not parse or do not fit read as 0.
int32_t ReadInt32(std::string_view text) {
  std::optional<int64_t> value = ParseInt64(text);
  if (!value || *value < INT32_MIN || *value > INT32_MAX) return 0;
  return static_cast<int32_t>(*value);
}

// A document's value quoted in a log line: printable and of bounded length.
std::string Quoted(std::string_view text) {
  if (text.size() <= kMaxQuotedLength) return PrintableName(text);
  return PrintableName(text.substr(0, kMaxQuotedLength)) + "...";
}

// The native folder a document names, or nullopt when it is not an absolute
// path below the root made of ordinary components (no ".", "..", or control
// character; backslash and ":" are ordinary characters of a file name here).
std::optional<fs::path> DocumentFolder(std::string_view text) {
  if (!text.starts_with('/')) return std::nullopt;
  bool hasComponent = false;
  for (size_t start = 1; start <= text.size();) {
    size_t end = std::min(text.find('/', start), text.size());
    std::string_view component = text.substr(start, end - start);
    if (component == "." || component == "..") return std::nullopt;
    for (char c : component) {
      auto u = static_cast<unsigned char>(c);
      if (u < 0x20 || u == 0x7F) return std::nullopt;
    }
    hasComponent = hasComponent || !component.empty();
    start = end + 1;
  }
  if (!hasComponent) return std::nullopt;  // the file system root is no package folder
  fs::path folder = fs::path(std::string(text)).lexically_normal();
  if (!folder.has_filename()) folder = folder.parent_path();  // no trailing separator
  return folder;
}

std::string Replaced(std::string text, char from, char to) {
  for (char& c : text) {
    if (c == from) c = to;
  }
  return text;
}

constexpr std::string_view kUtf8Declaration = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";

// The element text as it reads back from "package.xml" (a UTF-8 document), so
// that a record written, read and written again gives the same text.
std::string Reserialized(const std::string& elementText) {
  return xml::Document::Parse(std::string(kUtf8Declaration) + elementText).Root().OuterXml();
}

// An element's text for keeping in "package.xml". libxml2 writes characters
// beyond ASCII as character references when the element's document declared
// no encoding; written as they would read back from "package.xml" instead.
std::string ElementText(const xml::Node& element) {
  std::string text = element.OuterXml();
  const _xmlDoc* doc = element.raw()->doc;
  if (doc == nullptr || doc->encoding == nullptr) text = Reserialized(text);
  return text;
}

// A location written under "unc": two leading slashes of either kind, or a
// drive letter.
bool IsUncForm(std::string_view location) {
  auto slash = [](char c) { return c == '\\' || c == '/'; };
  return (location.size() >= 2 && slash(location[0]) && slash(location[1])) ||
         (location.size() >= 2 && location[1] == ':');
}

// The identifier an embedded element names, when it names one that is not zero.
std::optional<Guid> NamedId(const xml::Node& element) {
  std::optional<std::string> text = element.Attribute("id");
  if (!text) return std::nullopt;
  std::optional<Guid> id = Guid::Parse(*text, /*allow_bare=*/true);
  if (!id || id->IsNull()) return std::nullopt;
  return id;
}

}  // namespace

bool PackageRequest::LoadFromXml(std::string_view text) {
  if (text.empty()) return true;
  std::string reason = "the document has no root element";
  std::optional<xml::Document> document = xml::Document::TryParse(text, &reason);
  xml::Node root = document ? document->Root() : xml::Node();
  if (!root) {
    log_->LogWithError(loglevel::kWarning, kComponent, reason, "Invalid package XML: XML failed to load");
    return false;
  }
  if (root.Name() != "Package") {
    log_->Log(loglevel::kWarning, kComponent, "Invalid package XML: Incorrect root element");
    return false;
  }

  bool statusRead = false;
  bool loaded;
  {
    auto guard = Lock();
    loaded = ReadDocument(*document, root, statusRead);
  }
  if (statusRead) Notify();  // outside the lock, whatever the outcome
  return loaded;
}

bool PackageRequest::ReadDocument(const xml::Document& document, const xml::Node& root, bool& statusRead) {
  if (!ReadIdentity(root)) return false;
  ReadOptions(root);
  if (root.HasAttribute("status")) {
    SetStatusLocked(ParseStatusName(root.Attribute("status"), *log_), "");
    statusRead = true;
  }
  if (!ReadStore(root)) return false;
  xml::Node localManaged = FirstChild(root, "LocalManaged");
  std::string localLocation = localManaged ? Attr(localManaged, "location") : std::string();
  if (!localLocation.empty()) {
    if (!ReadLocalManaged(localLocation)) return false;
  } else if (!ReadSources(document, root)) {
    return false;
  }
  if (!ReadEmbeddedSnapshot(root)) return false;
  snapshot_.deleteInvalidOnly = fixedStore ? 1 : 0;  // a caller's folder is never emptied wholesale
  return true;
}

bool PackageRequest::ReadIdentity(const xml::Node& root) {
  if (std::optional<std::string> idText = root.Attribute("id")) {
    std::optional<Guid> id = Guid::Parse(*idText);
    if (!id) {
      log_->Log(loglevel::kWarning, kComponent, "Invalid package XML: Invalid package ID '%ls'", Quoted(*idText));
      return false;
    }
    if (!SetId(*id)) {
      log_->Log(loglevel::kWarning, kComponent, "Invalid Package XML: Attempt to change package ID");
      return false;
    }
  }
  name = Attr(root, "name");
  size = ParseUInt64(Attr(root, "size")).value_or(0);
  std::optional<std::string> versionText = root.Attribute("version");
  SetVersion(versionText ? ReadInt32(*versionText) : static_cast<int32_t>(snapshot_.version));
  return true;
}

void PackageRequest::ReadOptions(const xml::Node& root) {
  remote = ReadBool(Attr(root, "remote"));
  statusDescription = Attr(root, "statusDescription");
  minspeed = ReadInt32(Attr(root, "minspeed"));
  sourceKey = Attr(root, "sourceKey");
  std::optional<std::string> multicast = root.Attribute("enableMulticast");
  enableMulticast = multicast ? ReadBool(*multicast) : true;
  if (std::optional<std::string> v = root.Attribute("optionalHashCheck")) SetOptionalHashCheck(ReadBool(*v));
  if (std::optional<std::string> v = root.Attribute("clientDownloadsDisabled")) clientDownloadsDisabled = ReadBool(*v);
  if (std::optional<std::string> v = root.Attribute("urgentDownload")) urgentDownload = ReadBool(*v);
  if (std::optional<std::string> v = root.Attribute("downloadStartSLA")) downloadStartSLA = ReadInt32(*v);
  if (std::optional<std::string> v = root.Attribute("SLAStartTime")) SLAStartTime = ParseDocumentTime(*v).value_or(0);
}

bool PackageRequest::ReadStore(const xml::Node& root) {
  // The package folder follows the document: without a fileStore it stays
  // empty until the engine gives the package its folder (CreateStorageArea).
  std::string fileStore = Attr(root, "fileStore");
  if (fileStore.empty()) {
    snapshot_.path.clear();
  } else {
    std::optional<fs::path> folder = DocumentFolder(fileStore);
    if (!folder) {
      log_->Log(loglevel::kWarning, kComponent, "Invalid package XML: fileStore is not an absolute folder path: '%ls'",
                Quoted(fileStore));
      return false;
    }
    snapshot_.path = folder->string();
    fixedStore = true;
  }
  if (std::optional<std::string> v = root.Attribute("fixedStore")) fixedStore = ReadBool(*v);
  otherStore = !fileStore.empty() && !fixedStore;
  if (std::optional<std::string> v = root.Attribute("priority")) priority = ParsePriorityName(*v);
  return true;
}

bool PackageRequest::ReadLocalManaged(const std::string& locationText) {
  // The record keeps the document form ("\"); the folder on this computer is
  // the same path with "/".
  std::string documentForm = Replaced(locationText, '/', '\\');
  std::optional<fs::path> folder = DocumentFolder(Replaced(documentForm, '\\', '/'));
  if (!folder) {
    log_->Log(loglevel::kWarning, kComponent,
              "Invalid package XML: LocalManaged location is not an absolute folder path: '%ls'", Quoted(locationText));
    return false;
  }
  // A folder that cannot be described leaves the record as it was.
  std::string previousLocation = std::exchange(location, std::move(documentForm));
  std::string previousPath = std::exchange(snapshot_.path, folder->string());
  if (!BuildLocalSnapshot(*folder)) {
    location = std::move(previousLocation);
    snapshot_.path = std::move(previousPath);
    return false;
  }
  if (version_ < 1) SetVersion(1);
  snapshot_.version = static_cast<uint32_t>(version_);
  EncodeLocalPublicKey();
  return true;
}

bool PackageRequest::BuildLocalSnapshot(const fs::path& folder) {
  SnapshotBuildOptions options;
  options.blockSize = kDefaultBlockSize;
  options.log = log_.get();
  // The package's own documents live in its folder and are not package files.
  for (std::string_view document :
       {kPackageFileName, kSnapshotFileName, kSecurityDataFileName, std::string_view("log.xml")}) {
    options.excludedFiles.push_back(folder / document);
  }
  try {
    BuildSnapshotFromFolder(folder, options, snapshot_);
    snapshot_.time = clock_->Now();
    return true;
  } catch (...) {
    Failure failure = CurrentFailure();
    log_->Log(loglevel::kWarning, kComponent, "Cannot build the snapshot of Local Managed package '%ls': %ls (0x%08X)",
              snapshot_.GetIdText(), failure.description, failure.code);
    return false;
  }
}

void PackageRequest::EncodeLocalPublicKey() {
  // A locally managed package is signed by this agent's own key; its public
  // half is the package's key. Without a configured key there is nothing to
  // encode and the document's sourceKey stays.
  if (localSigningKey_.empty()) return;
  try {
    sourceKey = crypto_->PublicKeyBase64FromPrivateKey(localSigningKey_);
  } catch (...) {
    log_->Log(loglevel::kError, kComponent, "Failed to encode public key for Local Managed package: '%ls'",
              snapshot_.GetIdText());
  }
}

bool PackageRequest::ReadEmbeddedSnapshot(const xml::Node& root) {
  xml::Node element = FirstChild(root, "Snapshot");
  if (!element) {
    hasSnapshot = false;
    embeddedSnapshotXml_.clear();
    embeddedSecurityXml_.clear();
    return true;
  }
  xml::Node security = FirstChild(root, "SnapshotData");
  // A snapshot of another package must not rename this one, nor may the
  // snapshot and its security data name two packages (the record would be
  // written under one and never read back).
  std::optional<Guid> expected = snapshot_.id.IsNull() ? std::nullopt : std::optional<Guid>(snapshot_.id);
  for (const xml::Node& part : {element, security}) {
    std::optional<Guid> named = part ? NamedId(part) : std::nullopt;
    if (!named) continue;
    if (expected && *named != *expected) {
      log_->Log(loglevel::kWarning, kComponent, "Invalid Package XML: Attempt to change package ID");
      return false;
    }
    expected = named;
  }
  Guid before = snapshot_.id;
  if (!snapshot_.ParseSnapshotElement(element)) return false;
  if (snapshot_.id.IsNull()) snapshot_.id = before;
  embeddedSnapshotXml_ = ElementText(element);
  snapshot_.documentText = embeddedSnapshotXml_;  // for LoadBlockHashes
  embeddedSecurityXml_.clear();
  if (security) {
    // The package folder is the record's to decide, not the security data's.
    std::string folder = snapshot_.path;
    if (snapshot_.ParseSecurityData(security)) embeddedSecurityXml_ = ElementText(security);
    snapshot_.path = std::move(folder);
  }
  hasSnapshot = true;
  return true;
}

std::string PackageRequest::ToXml(PasswordForm form) const {
  auto guard = Lock();
  xml::Writer writer(xml::Writer::Options{.declaration = true, .indent = "  ", .newline = "\n"});
  writer.StartElement("Package")
      .Attribute("id", snapshot_.GetIdText())
      .Attribute("name", name)
      .Attribute("size", std::to_string(size))
      .Attribute("version", std::to_string(version_))
      .Attribute("remote", WriteBool(remote))
      .Attribute("priority", PriorityName(priority))
      .Attribute("status", StatusName(status_))
      .Attribute("minspeed", std::to_string(minspeed))
      .Attribute("enableMulticast", WriteBool(enableMulticast))
      .Attribute("statusDescription", statusDescription);
  if (!UserAccessName.empty()) {
    // The document carries the password as the server delivered it; it is
    // not read back (the next source response brings it again). Protecting
    // the file is Save's business: a document with a password is owner-only.
    writer.Attribute("UserAccessName", UserAccessName);
    bool mask = form == PasswordForm::kMasked && !userAccessPassword_.empty();
    writer.Attribute("UserAccessPassword", mask ? kMaskedPassword : std::string_view(userAccessPassword_));
  }
  writer.Attribute("optionalHashCheck", WriteBool(optionalHashCheck_))
      .Attribute("clientDownloadsDisabled", WriteBool(clientDownloadsDisabled));
  if (urgentDownload) writer.Attribute("urgentDownload", "true");
  if (downloadStartSLA >= 0) writer.Attribute("downloadStartSLA", std::to_string(downloadStartSLA));
  if (SLAStartTime != 0) writer.Attribute("SLAStartTime", FormatDocumentTime(SLAStartTime, DateForm::kIsoT));
  writer.Attribute("sourceKey", sourceKey);
  if (fixedStore || otherStore) writer.Attribute("fileStore", snapshot_.path);
  if (otherStore && !fixedStore) writer.Attribute("fixedStore", "false");

  if (hasSnapshot) WriteEmbeddedSnapshot(writer);
  if (!location.empty()) {
    writer.StartElement("LocalManaged").Attribute("location", location).EndElement();
  } else {
    WriteSource(writer);
  }
  writer.EndElement();
  std::string text = writer.Finish();
  text += '\n';
  return text;
}

void PackageRequest::WriteEmbeddedSnapshot(xml::Writer& writer) const {
  if (!embeddedSnapshotXml_.empty()) {
    writer.Raw(embeddedSnapshotXml_);
    if (!embeddedSecurityXml_.empty()) writer.Raw(embeddedSecurityXml_);
    return;
  }
  // hasSnapshot set without a document: the snapshot as it is now.
  writer.Raw(Reserialized(snapshot_.ComposeXml()));
  if (!snapshot_.signature.empty()) writer.Raw(Reserialized(snapshot_.ComposeSecurityData()));
}

void PackageRequest::WriteSource(xml::Writer& writer) const {
  writer.StartElement("Source");
  if (sourceTime != 0) writer.Attribute("time", FormatDocumentTime(sourceTime, DateForm::kIsoT));
  if (!siteQueryUrl.empty()) {
    writer.StartElement("SiteQuery")
        .Attribute("url", siteQueryUrl)
        .Attribute("resource", siteQueryResource)
        .Attribute("type", siteQueryType)
        .EndElement();
  }
  for (const CodebaseEntry& codebase : codebases) {
    writer.StartElement("Codebase").Attribute(IsUncForm(codebase.location) ? "unc" : "href", codebase.location);
    if (!codebase.snapshotLocation.empty()) writer.Attribute("snapshot", codebase.snapshotLocation);
    writer.EndElement();
  }
  writer.EndElement();
}

}  // namespace pkgdlv
