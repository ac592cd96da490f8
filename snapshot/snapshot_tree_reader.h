// Internal to the snapshot: the tree pass's reading of one element's
// attributes and the checks after the walk, shared by its two front ends,
// the walk over a document tree (snapshot_parse.cc) and the equivalent walk
// over the streaming reader's events (snapshot_stream_parse.cc), which
// LoadXml uses for plain documents because it builds no tree.
//
// Lines and the hasUnhashedFiles flag are held back until the reader knows
// the document is well formed, so that both front ends say the same things
// about the same text.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "snapshot/snapshot.h"

namespace pkgdlv {

class SnapshotTreeReader {
 public:
  explicit SnapshotTreeReader(Snapshot& target) : target_(target) {}

  // An element's attributes, looked up by exact name: an object with
  // std::optional<std::string_view> Get(const char* name); a value stays valid
  // until the next Get.
  template <class Attributes>
  bool ReadRootAttributes(const Attributes& attributes, Snapshot& fresh);
  template <class Attributes>
  bool ReadFile(const Attributes& attributes, const std::string& folderPath, std::vector<SnapshotEntry>& entries);
  // The folder path of a Folder element's children; nullopt (with the
  // warning) when its name is missing or unsafe.
  template <class Attributes>
  std::optional<std::string> SubfolderPath(const Attributes& attributes, const std::string& folderPath);

  // After a complete walk: Root's size, order, numbering and totals.
  bool Finish(std::optional<std::string_view> rootSizeText, Snapshot& fresh);

  template <class... Args>
  bool Warn(std::string_view format, const Args&... args) {
    pending_.push_back({loglevel::kWarning, Format(format, args...)});
    return false;
  }
  bool BadValue(std::string_view attribute, std::string_view value);
  void Info(std::string message) { pending_.push_back({loglevel::kInfo, std::move(message)}); }

  // Writes the held-back lines and sets hasUnhashedFiles when a File had no
  // hash. For a document that turned out not to be well formed, call Discard
  // instead.
  void Flush();
  void Discard() { pending_.clear(); }

 private:
  struct Line {
    uint32_t level;
    std::string message;
  };
  Snapshot& target_;
  std::vector<Line> pending_;
  bool unhashedFiles_ = false;
};

}  // namespace pkgdlv

#include "snapshot/snapshot_tree_reader_impl.h"
