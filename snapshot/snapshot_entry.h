// One folder or file of a package snapshot. The snapshot keeps its tree flat:
// every entry carries its folder's package-relative path.
//
// A plain value; not synchronised (the owning snapshot's owner locks).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "util/filetime.h"

namespace pkgdlv {

// Validation results of an entry (SnapshotEntry::state).
namespace entrystate {
constexpr uint32_t kNotChecked = 0;
constexpr uint32_t kValid = 1;
constexpr uint32_t kInvalid = 2;
constexpr uint32_t kHashNotComputed = 3;
}  // namespace entrystate

// firstBlock of an entry whose place in the block numbering is not computed.
constexpr uint32_t kNoBlock = 0xFFFFFFFF;
// Size of one block hash (HMAC-SHA-256) and of the whole-file SHA-256 digest.
constexpr size_t kBlockHashSize = 32;

struct SnapshotEntry {
  std::string name;           // file name; empty for a folder entry
  std::string folder;         // package-relative folder, components joined with "\"; empty for the root
  std::string fileHash;       // Base64 of the whole-file SHA-256; empty when unknown
  bool hasBlockHash = false;  // the document carried a "blockHash" attribute
  int64_t size = -1;          // bytes; -1 unknown; 0 for folder entries
  int64_t validBytes = -1;    // bytes confirmed by the last validation; -1 until validated
  FileTime lastModified = 0;  // last-write time; 0 when none
  uint32_t state = entrystate::kNotChecked;
  uint32_t firstBlock = kNoBlock;    // first block in the package-wide numbering
  std::vector<uint8_t> blockHashes;  // kBlockHashSize bytes per block, block 0 first

  bool IsFolder() const { return name.empty(); }
  bool IsFile() const { return !name.empty(); }
  // Blocks the file occupies: ceil(size / blockSize); 0 for folders, empty
  // files and unknown sizes.
  uint64_t BlockCount(uint32_t blockSize) const;
  // Number of whole block hashes held in blockHashes.
  size_t BlockHashCount() const { return blockHashes.size() / kBlockHashSize; }
  // "folder\name" ("name" at the root); for a folder entry, its folder path.
  std::string RelativePath() const;
};

// Equal when name and folder (ASCII case-insensitive), fileHash (exact),
// hasBlockHash, size and lastModified (to the whole second, the precision of
// the document's date-time form) are equal. validBytes, state, firstBlock and
// blockHashes are not compared.
bool operator==(const SnapshotEntry& a, const SnapshotEntry& b);

// The entry order: by folder, then by name, both ASCII case-insensitive.
int CompareEntryKeys(std::string_view folderA, std::string_view nameA, std::string_view folderB,
                     std::string_view nameB);
struct EntryOrder {
  bool operator()(const SnapshotEntry& a, const SnapshotEntry& b) const {
    return CompareEntryKeys(a.folder, a.name, b.folder, b.name) < 0;
  }
};

// Two file times equal to the whole second.
bool SameSecond(FileTime a, FileTime b);

// Joins a folder path and a name with "\" (the name alone at the root).
std::string JoinDocPath(std::string_view folder, std::string_view name);

}  // namespace pkgdlv
