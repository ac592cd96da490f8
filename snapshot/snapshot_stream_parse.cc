// LoadXml, and the tree pass without a tree.
//
// Building a document tree costs several times what reading the text does,
// and the tree pass visits every element once in document order, so for a
// plain document (elements, attributes and text only) LoadXml runs the same
// walk over the streaming reader's events. A document with comments,
// processing instructions, CDATA sections or a document type declaration
// takes the tree walk, whose rule "the walk ends at the first child that is
// not an element" needs to see those nodes.
#include <algorithm>
#include <cstring>

#include "snapshot/snapshot_limits.h"
#include "snapshot/snapshot_tree_reader.h"
#include "util/error.h"
#include "util/xml.h"
#include "util/xml_sax.h"

namespace pkgdlv {

namespace {

struct StreamAttributes {
  const xml::SAXAttributes& attributes;
  std::optional<std::string_view> Get(const char* name) const { return attributes.Find(name); }
};

bool IsBlank(std::string_view text) {
  for (char c : text) {
    if (c != ' ' && c != '\t' && c != '\r' && c != '\n') return false;
  }
  return true;
}

// When the text is UTF-8 (or ASCII-compatible) and holds no "<!" or "<?"
// after its XML declaration (nothing but elements, attributes and text), the
// number of its tags, which bounds the number of entries; else nullopt.
std::optional<size_t> CountTagsOfPlainDocument(std::string_view text) {
  if (text.size() < 4) return std::nullopt;
  if (std::memchr(text.data(), '\0', 4) != nullptr) return std::nullopt;  // UTF-16 or UTF-32
  auto first = static_cast<unsigned char>(text[0]);
  if (first == 0xFE || first == 0xFF) return std::nullopt;  // a UTF-16 byte order mark
  if (text.starts_with("\xEF\xBB\xBF")) text.remove_prefix(3);
  if (text.starts_with("<?xml")) {
    size_t end = text.find("?>");
    if (end == std::string_view::npos) return std::nullopt;
    text.remove_prefix(end + 2);
  }
  size_t tags = 0;
  const char* p = text.data();
  const char* last = text.data() + text.size();
  while ((p = static_cast<const char*>(std::memchr(p, '<', static_cast<size_t>(last - p)))) != nullptr) {
    if (++p == last) break;
    if (*p == '!' || *p == '?') return std::nullopt;
    ++tags;
  }
  return tags;
}

// The tree walk of snapshot_parse.cc, one event at a time. Each open element
// is a frame: the document element, a folder being walked (Root or Folder),
// or an element whose content the walk does not visit.
class StreamWalk final : public xml::SAXContentHandler {
 public:
  StreamWalk(SnapshotTreeReader& reader, Snapshot& fresh) : reader_(reader), fresh_(fresh) {
    path_.reserve(520);
    frames_.reserve(32);
  }

  xml::SAXAction StartElement(std::string_view name, const xml::SAXAttributes& attributes) override {
    if (failed_) return xml::SAXAction::kContinue;
    StreamAttributes attrs{attributes};
    if (frames_.empty()) {
      if (name != "Snapshot" && name != "FolderSnapShot") {
        return Fail(reader_.Warn("Invalid snapshot XML: Incorrect root element"));
      }
      if (!reader_.ReadRootAttributes(attrs, fresh_)) return Fail(false);
      frames_.push_back({Kind::kDocument, true, 0});
      return xml::SAXAction::kContinue;
    }
    Frame& parent = frames_.back();
    if (parent.kind == Kind::kDocument && !sawRoot_ && name == "Root") {
      sawRoot_ = true;
      if (auto size = attrs.Get("size")) rootSize_ = std::string(*size);
      frames_.push_back({Kind::kFolder, true, 0});
      return xml::SAXAction::kContinue;
    }
    if (parent.kind != Kind::kFolder || !parent.walking) return Skip();
    if (name == "File") {
      if (!reader_.ReadFile(attrs, path_, fresh_.entries)) return Fail(false);
      hashTextBytes_ += attrs.Get("blockHash").value_or("").size();
      return Skip();
    }
    if (name == "Folder") {
      std::optional<std::string> subfolder = reader_.SubfolderPath(attrs, path_);
      if (!subfolder) return Fail(false);
      frames_.push_back({Kind::kFolder, true, path_.size()});
      path_ = std::move(*subfolder);
      SnapshotEntry& folder = fresh_.entries.emplace_back();
      folder.folder = path_;
      folder.size = 0;
      return xml::SAXAction::kContinue;
    }
    return Skip();
  }

  xml::SAXAction EndElement(std::string_view) override {
    if (failed_ || frames_.empty()) return xml::SAXAction::kContinue;
    if (frames_.back().kind == Kind::kFolder) path_.resize(frames_.back().parentPathLength);
    frames_.pop_back();
    return xml::SAXAction::kContinue;
  }

  // Text other than blanks ends the walk of the folder it stands in.
  xml::SAXAction Characters(std::string_view text) override {
    if (failed_ || frames_.empty()) return xml::SAXAction::kContinue;
    Frame& top = frames_.back();
    if (top.kind == Kind::kFolder && top.walking && !IsBlank(text)) top.walking = false;
    return xml::SAXAction::kContinue;
  }

  // After a well-formed document: the checks that follow the walk.
  bool Finish() {
    if (failed_) return false;
    if (!sawRoot_) return reader_.Warn("Invalid snapshot XML: Missing Root element");
    return reader_.Finish(rootSize_ ? std::optional<std::string_view>(*rootSize_) : std::nullopt, fresh_) &&
           CheckBlocksJustified(reader_, fresh_, hashTextBytes_);
  }

 private:
  enum class Kind { kDocument, kFolder, kSkipped };
  struct Frame {
    Kind kind;
    bool walking;             // a folder whose walk has not ended
    size_t parentPathLength;  // where path_ is cut when the folder ends
  };

  xml::SAXAction Skip() {
    frames_.push_back({Kind::kSkipped, false, 0});
    return xml::SAXAction::kContinue;
  }
  // The first failure ends the walk; the rest of the text is still read, so
  // that a document that is not well formed says so instead.
  xml::SAXAction Fail(bool) {
    failed_ = true;
    return xml::SAXAction::kContinue;
  }

  SnapshotTreeReader& reader_;
  Snapshot& fresh_;
  std::vector<Frame> frames_;
  std::string path_;
  std::optional<std::string> rootSize_;
  bool sawRoot_ = false;
  bool failed_ = false;
  uint64_t hashTextBytes_ = 0;
};

}  // namespace

bool Snapshot::LoadXml(std::string text, bool isSecurityData) {
  std::optional<size_t> tags = isSecurityData ? std::nullopt : CountTagsOfPlainDocument(text);
  if (!tags) {
    std::string reason = "the document has no root element";
    std::optional<xml::Document> document = xml::Document::TryParse(text, &reason);
    xml::Node root = document ? document->Root() : xml::Node();
    if (!root) {
      log_->LogWithError(loglevel::kWarning, kSnapshotLogComponent, reason, "Invalid snapshot XML: XML failed to load");
      return false;
    }
    if (isSecurityData) return ParseSecurityData(root);
    if (!ParseSnapshotElement(root)) return false;
    documentText = std::move(text);
    return true;
  }

  Snapshot fresh(log_);
  // One allocation instead of a series of growing copies; every entry has a tag.
  fresh.entries.reserve(std::min<size_t>(*tags, 1'000'000));
  SnapshotTreeReader reader(*this);
  StreamWalk walk(reader, fresh);
  try {
    xml::SAXParser parser;
    parser.ParseMemory(text, walk);
  } catch (const Error& e) {
    reader.Discard();
    log_->LogWithError(loglevel::kWarning, kSnapshotLogComponent, e.description(),
                       "Invalid snapshot XML: XML failed to load");
    return false;
  }
  bool ok = walk.Finish();
  reader.Flush();
  if (!ok) return false;
  TakeTreePass(fresh);
  documentText = std::move(text);
  return true;
}

}  // namespace pkgdlv
