// The templates of snapshot_tree_reader.h.
#pragma once

#include <limits>

#include "util/safe_path.h"
#include "util/strings.h"

namespace pkgdlv {

namespace treereader {

inline std::optional<uint32_t> ReadUInt32(std::string_view text) {
  std::optional<uint64_t> value = ParseUInt64(text);
  if (!value || *value > std::numeric_limits<uint32_t>::max()) return std::nullopt;
  return static_cast<uint32_t>(*value);
}

}  // namespace treereader

template <class Attributes>
bool SnapshotTreeReader::ReadRootAttributes(const Attributes& attributes, Snapshot& fresh) {
  if (auto text = attributes.Get("id")) {
    std::optional<Guid> id = Guid::Parse(*text, /*allow_bare=*/true);
    if (!id) return BadValue("id", *text);
    fresh.id = *id;
  }
  if (auto text = attributes.Get("time")) {
    std::optional<FileTime> time = ParseDocumentTime(TrimAscii(*text));
    if (!time) return BadValue("time", *text);
    fresh.time = *time;
  }
  const char* versionName = attributes.Get("version") ? "version" : "PkgVersion";
  if (auto text = attributes.Get(versionName)) {
    std::optional<uint32_t> version = treereader::ReadUInt32(*text);
    if (!version) return BadValue(versionName, *text);
    fresh.version = *version;
  }
  if (auto text = attributes.Get("blockSize")) {
    std::optional<uint32_t> size = treereader::ReadUInt32(*text);
    if (!size) return BadValue("blockSize", *text);
    fresh.declaredBlockSize = *size;
    fresh.blockSize = *size != 0 ? *size : kDefaultBlockSize;
  } else {
    Info("Legacy snapshot XML: Missing hash block size");
    fresh.declaredBlockSize = 0;
    fresh.blockSize = kDefaultBlockSize;
  }
  return true;
}

template <class Attributes>
bool SnapshotTreeReader::ReadFile(const Attributes& attributes, const std::string& folderPath,
                                  std::vector<SnapshotEntry>& entries) {
  std::optional<std::string_view> name = attributes.Get("name");
  if (!name) return Warn("Invalid snapshot XML: Missing file name");
  if (!IsSafeRelativeName(*name)) {
    return Warn("Invalid snapshot XML: Unsafe path '%ls'", PrintableName(JoinDocPath(folderPath, *name)));
  }
  SnapshotEntry& entry = entries.emplace_back();
  entry.folder = folderPath;
  entry.name = *name;
  if (auto text = attributes.Get("size")) {
    std::optional<uint64_t> size = ParseUInt64(*text);
    if (!size || *size > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) return BadValue("size", *text);
    entry.size = static_cast<int64_t>(*size);
  }
  if (auto text = attributes.Get("lastModifiedTime")) {
    std::optional<FileTime> time = ParseDocumentTime(TrimAscii(*text));
    if (!time) return BadValue("lastModifiedTime", *text);
    entry.lastModified = *time;
  }
  std::optional<std::string_view> fileHash = attributes.Get("fileHash");
  if (fileHash) entry.fileHash = *fileHash;
  entry.hasBlockHash = attributes.Get("blockHash").has_value();
  if (!fileHash && !entry.hasBlockHash) unhashedFiles_ = true;
  return true;
}

template <class Attributes>
std::optional<std::string> SnapshotTreeReader::SubfolderPath(const Attributes& attributes,
                                                             const std::string& folderPath) {
  std::optional<std::string_view> name = attributes.Get("name");
  if (!name) {
    Warn("Invalid snapshot XML: Missing folder name");
    return std::nullopt;
  }
  std::string subfolder = JoinDocPath(folderPath, *name);
  if (!IsSafeRelativeName(*name)) {
    Warn("Invalid snapshot XML: Unsafe path '%ls'", PrintableName(subfolder));
    return std::nullopt;
  }
  return subfolder;
}

}  // namespace pkgdlv
