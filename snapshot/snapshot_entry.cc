#include "snapshot/snapshot_entry.h"

#include "util/strings.h"

namespace pkgdlv {

uint64_t SnapshotEntry::BlockCount(uint32_t blockSize) const {
  if (IsFolder() || size <= 0 || blockSize == 0) return 0;
  uint64_t bytes = static_cast<uint64_t>(size);
  return bytes / blockSize + (bytes % blockSize != 0 ? 1 : 0);
}

std::string SnapshotEntry::RelativePath() const { return IsFolder() ? folder : JoinDocPath(folder, name); }

bool SameSecond(FileTime a, FileTime b) { return a / kFileTimeTicksPerSecond == b / kFileTimeTicksPerSecond; }

bool operator==(const SnapshotEntry& a, const SnapshotEntry& b) {
  return EqualsNoCase(a.name, b.name) && EqualsNoCase(a.folder, b.folder) && a.fileHash == b.fileHash &&
         a.hasBlockHash == b.hasBlockHash && a.size == b.size && SameSecond(a.lastModified, b.lastModified);
}

int CompareEntryKeys(std::string_view folderA, std::string_view nameA, std::string_view folderB,
                     std::string_view nameB) {
  // Neighbouring entries mostly share their folder; an exact match is quicker to see.
  int byFolder = folderA == folderB ? 0 : CompareNoCase(folderA, folderB);
  return byFolder != 0 ? byFolder : CompareNoCase(nameA, nameB);
}

std::string JoinDocPath(std::string_view folder, std::string_view name) {
  std::string out;
  out.reserve(folder.size() + 1 + name.size());
  out += folder;
  if (!folder.empty() && !name.empty()) out += '\\';
  out += name;
  return out;
}

}  // namespace pkgdlv
