// The tree pass over a snapshot document: structure, names, sizes and times.
// Block hashes are read later by the streaming pass (snapshot_xml_parser.cc).
//
// This is the walk over a document tree (ParseSnapshotElement); LoadXml
// walks plain documents without a tree (snapshot_stream_parse.cc). The walk
// reads libxml2's nodes directly: a document of 100,000 files has half a
// million attributes, and reading them in place avoids a string per
// attribute.
#include <libxml/tree.h>

#include <algorithm>

#include "snapshot/snapshot_limits.h"
#include "snapshot/snapshot_tree_reader.h"
#include "util/xml.h"

namespace pkgdlv {

namespace {

// Names are compared exactly, as written (a prefixed "x:File" is not "File").
bool NameIs(const xmlNode* node, const char* name) {
  if (node->ns && node->ns->prefix) return false;
  return xmlStrEqual(node->name, reinterpret_cast<const xmlChar*>(name)) != 0;
}

// The attributes of one element. Values that libxml2 keeps as one text node
// are read in place; others are joined into the scratch string.
class DomAttributes {
 public:
  DomAttributes(const xmlNode* element, std::string& scratch) : element_(element), scratch_(scratch) {}

  std::optional<std::string_view> Get(const char* name) const {
    for (const xmlAttr* a = element_->properties; a; a = a->next) {
      if (a->ns && a->ns->prefix) continue;
      if (!xmlStrEqual(a->name, reinterpret_cast<const xmlChar*>(name))) continue;
      const xmlNode* value = a->children;
      if (!value) return std::string_view();
      if (!value->next && value->type == XML_TEXT_NODE && value->content) {
        return std::string_view(reinterpret_cast<const char*>(value->content));
      }
      xmlChar* joined = xmlNodeListGetString(element_->doc, value, 1);
      scratch_ = joined ? reinterpret_cast<const char*>(joined) : "";
      xmlFree(joined);
      return std::string_view(scratch_);
    }
    return std::nullopt;
  }

 private:
  const xmlNode* element_;
  std::string& scratch_;
};

bool IsBlankText(const xmlNode* node) {
  if (node->type != XML_TEXT_NODE || !node->content) return false;
  for (const xmlChar* c = node->content; *c; ++c) {
    if (*c != ' ' && *c != '\t' && *c != '\r' && *c != '\n') return false;
  }
  return true;
}

class DomWalk {
 public:
  explicit DomWalk(SnapshotTreeReader& reader) : reader_(reader) {}

  bool Read(const xmlNode* root, Snapshot& fresh) {
    if (!NameIs(root, "Snapshot") && !NameIs(root, "FolderSnapShot")) {
      return reader_.Warn("Invalid snapshot XML: Incorrect root element");
    }
    if (!reader_.ReadRootAttributes(DomAttributes(root, scratch_), fresh)) return false;
    const xmlNode* rootFolder = nullptr;
    for (const xmlNode* child = root->children; child && !rootFolder; child = child->next) {
      if (child->type == XML_ELEMENT_NODE && NameIs(child, "Root")) rootFolder = child;
    }
    if (!rootFolder) return reader_.Warn("Invalid snapshot XML: Missing Root element");
    if (!ParseFolder(rootFolder, std::string(), fresh.entries)) return false;
    std::optional<std::string_view> size = DomAttributes(rootFolder, scratch_).Get("size");
    std::string sizeText(size.value_or(""));
    return reader_.Finish(size ? std::optional<std::string_view>(sizeText) : std::nullopt, fresh) &&
           CheckBlocksJustified(reader_, fresh, hashTextBytes_);
  }

 private:
  // The walk visits the children in order and ends at the first one that is
  // not an element; the blank text between elements (indentation) does not
  // count as a child, as a document object drops it.
  bool ParseFolder(const xmlNode* element, const std::string& folderPath, std::vector<SnapshotEntry>& entries) {
    if (!folderPath.empty()) {
      SnapshotEntry& folder = entries.emplace_back();
      folder.folder = folderPath;
      folder.size = 0;
    }
    for (const xmlNode* child = element->children; child; child = child->next) {
      if (IsBlankText(child)) continue;
      if (child->type != XML_ELEMENT_NODE) break;
      if (NameIs(child, "File")) {
        DomAttributes attributes(child, scratch_);
        if (!reader_.ReadFile(attributes, folderPath, entries)) return false;
        hashTextBytes_ += attributes.Get("blockHash").value_or("").size();
      } else if (NameIs(child, "Folder")) {
        std::optional<std::string> subfolder = reader_.SubfolderPath(DomAttributes(child, scratch_), folderPath);
        if (!subfolder || !ParseFolder(child, *subfolder, entries)) return false;
      }
    }
    return true;
  }

  SnapshotTreeReader& reader_;
  std::string scratch_;
  uint64_t hashTextBytes_ = 0;
};

}  // namespace

bool CheckBlocksJustified(SnapshotTreeReader& reader, const Snapshot& fresh, uint64_t hashTextBytes) {
  const uint64_t justified = hashTextBytes * 3 / 4 / kBlockHashSize + kUnhashedBlockAllowance;
  if (fresh.totalBlocks <= justified) return true;
  return reader.Warn("Invalid snapshot XML: Too many hash blocks: %u blocks, the document justifies %I64u",
                     fresh.totalBlocks, justified);
}

bool SnapshotTreeReader::BadValue(std::string_view attribute, std::string_view value) {
  return Warn("Invalid snapshot XML: Bad value '%ls' of attribute '%ls'", PrintableName(value.substr(0, 64)),
              attribute);
}

bool SnapshotTreeReader::Finish(std::optional<std::string_view> rootSizeText, Snapshot& fresh) {
  if (!rootSizeText) return Warn("Invalid snapshot XML: Missing Root element's size");
  std::optional<uint64_t> rootSize = ParseUInt64(*rootSizeText);
  if (!rootSize) return BadValue("size", *rootSizeText);

  Snapshot::Totals totals = fresh.OrderEntries();
  if (totals.twin) {
    return Warn("Invalid snapshot XML: Duplicate entry '%ls'", PrintableName(totals.twin->RelativePath()));
  }
  if (totals.tooManyBlocks) return Warn("Invalid snapshot XML: Too many hash blocks");
  // A total that includes an unknown size is written as 0 and cannot be checked.
  if (!totals.unknownSize && totals.knownSize != *rootSize) {
    return Warn("Invalid snapshot XML: Total file size mismatch, expected %I64u, actual: %I64u", totals.knownSize,
                *rootSize);
  }
  return true;
}

void SnapshotTreeReader::Flush() {
  for (const Line& line : pending_) target_.log().Log(line.level, kSnapshotLogComponent, "%ls", line.message);
  pending_.clear();
  if (unhashedFiles_) target_.hasUnhashedFiles = true;
}

void Snapshot::TakeTreePass(Snapshot& fresh) {
  id = fresh.id;
  time = fresh.time;
  version = fresh.version;
  declaredBlockSize = fresh.declaredBlockSize;
  blockSize = fresh.blockSize;
  totalBlocks = fresh.totalBlocks;
  entries = std::move(fresh.entries);
  documentText.clear();
  idText_.clear();
}

bool Snapshot::ParseSnapshotElement(const xml::Node& root) {
  if (!root) {
    log_->Log(loglevel::kWarning, kSnapshotLogComponent, "Invalid snapshot XML: XML failed to load");
    return false;
  }
  Snapshot fresh(log_);
  SnapshotTreeReader reader(*this);
  bool ok = DomWalk(reader).Read(root.raw(), fresh);
  reader.Flush();
  if (ok) TakeTreePass(fresh);
  return ok;
}

}  // namespace pkgdlv
