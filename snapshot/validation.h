// Which files of a package are complete and valid, which blocks of partly
// present files are already good, and which files must be fetched (the update
// list); block hashes of files on disk and the hash store; zeroing the bad
// blocks of sparse files so that the block download fetches them again.
//
// How the package record uses this (PackageRequest::CheckStatus and the
// download procedure):
//
//   Validator validator(options);           // one per engine thread; keeps one read buffer
//   Snapshot updateList;
//   DynamicBitset good;
//   validator.GetUpdateList(snapshot, updateList, &good, {.skipHash = ...});
//   // updateList.entries: the files to fetch, each with its state
//   // (0 missing or incomplete, 2 invalid, 3 hash not computed);
//   // good: one bit per package block, set when the block is present and good;
//   // snapshot.entries: state and validBytes of every file checked.
//
//   validator.ValidateFile(snapshot, entry, nullptr);  // one file: state 1 valid, else 2 or 3
//   validator.ValidateSparseFile(snapshot, entry, &good, false);  // during a block download
//
// Threads and ownership: a Validator is used by one thread at a time (its
// read buffer is reused across blocks and files). The snapshot passed in is
// owned by the caller, who holds the package record's lock; the validator
// changes only the entries' state and validBytes (and their blockHashes while
// GetUpdateList runs, see there). Lines go to the snapshot's logger,
// component "Snapshot".
//
// Failure behaviour: nothing here throws for a file that cannot be read or
// hashed; such a file is invalid and fetched again. Only out-of-memory
// escapes, and the bitset's own misuse where noted.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "snapshot/dynamic_bitset.h"
#include "snapshot/snapshot.h"

namespace pkgdlv {

class HashStore;
class VolumeInfo;

// Results of ValidateBlock and CalculateBlockHashes besides 0 (success) and
// the system's codes (ResultFromErrno).
namespace validation {
constexpr Result kReadFault = 30;           // fewer bytes read than the block needs
constexpr Result kCancelled = 1223;         // the caller's cancellation was seen
constexpr Result kBadHashSize = 1630;       // the hash function gave other than 32 bytes
constexpr Result kBadBlock = 0x80090002;    // the block's hash differs from the snapshot's
}  // namespace validation

// Computes the hash of one block: fills out with the hash of block, keyed
// with previous (empty for block 0) and returns 0, or returns a failure code.
using BlockHashFunction =
    std::function<Result(std::span<const uint8_t> block, std::span<const uint8_t> previous, std::vector<uint8_t>& out)>;

struct ValidatorOptions {
  // The volume of the package folder (time-stamp precision). Null: exact
  // times, as when the volume cannot be determined.
  std::shared_ptr<VolumeInfo> volumes;
  // Where HashFileIntoStore reads and keeps block hashes. Null: hashes are
  // always computed and not kept.
  std::shared_ptr<HashStore> hashStore;
  // Polled before each block; true stops the walk with kCancelled.
  std::function<bool()> cancelled;
  // Null: BlockHash of agent/crypto.h (the chain the publisher uses).
  BlockHashFunction hashBlock;
};

struct UpdateListOptions {
  // Judge present files by their allocated ranges (a block download in
  // progress writes sparse files) instead of listing them; the bitset carries
  // the result. Absent files are still listed.
  bool sparseMode = false;
  // Any time-stamp difference is a mismatch (on volumes with exact times).
  bool strictTime = false;
  // Trust size and time; read nothing (PKGDLV_VALIDATE_SKIPHASH).
  bool skipHash = false;
  // Check again files that an earlier validation found valid
  // (PKGDLV_VALIDATE_FORCEHASH): every state is reset first.
  bool forceHash = false;
};

class Validator {
 public:
  explicit Validator(ValidatorOptions options = {});
  ~Validator();
  Validator(const Validator&) = delete;
  Validator& operator=(const Validator&) = delete;

  // The block hashes of the file at filePath (32 bytes per block of
  // snapshot.blockSize, block 0 keyed with nothing, block i with the hash of
  // block i - 1). Returns 0, or the failure code after an error line; hashes
  // is then unspecified.
  Result CalculateBlockHashes(const Snapshot& snapshot, const std::filesystem::path& filePath,
                              std::vector<uint8_t>& hashes);

  // Appends to snapshot.entries the folder folderPath (package-relative,
  // document form; empty for the package folder itself) and its files, each
  // with size and time from disk, state valid and hasBlockHash, and keeps
  // their block hashes in the hash store (computing those it cannot read).
  // Recurses into subfolders when asked; symbolic links are skipped. Returns
  // 0, or the first failure code (the walk stops there).
  Result HashFileIntoStore(Snapshot& snapshot, std::string_view folderPath, bool recurse);

  // Checks block blockIndex of entry, given as data, against the snapshot's
  // hash: keyed with the snapshot's expected hash of the block before (never
  // the one computed from disk, so each block is judged by itself). Returns
  // 0 or a failure code (validation::kBadBlock, kBadHashSize, kCancelled, the
  // hash function's code). Writes its lines at logFlags' severity (warning
  // when 0) only when log is true.
  Result ValidateBlock(const Snapshot& snapshot, const SnapshotEntry& entry, uint32_t blockIndex,
                       std::span<const uint8_t> data, const std::string& filePath, uint32_t logFlags, bool log);

  // Checks one file against the snapshot and sets entry.state (1 valid, 2
  // invalid, 3 hash not computed) and entry.validBytes. With block hashes in
  // the entry each block is read once; with a bitset every block is examined
  // and its bit set to whether it is good (the file's range is cleared
  // first), without one the first bad block ends the walk. Without block
  // hashes the whole-file SHA-256 is compared with fileHash.
  void ValidateFile(const Snapshot& snapshot, SnapshotEntry& entry, DynamicBitset* bitset);

  // For a file being written as a sparse file by the block download: sets
  // the bits of the blocks whose bytes are all allocated; unless skipHash,
  // checks those blocks and punches out (and clears) the bad ones, so they
  // read as zeros and are fetched again. Does nothing for an empty or
  // unknown size, or without block hashes unless skipHash.
  void ValidateSparseFile(const Snapshot& snapshot, SnapshotEntry& entry, DynamicBitset* bitset, bool skipHash);

  // Fills updateList with the snapshot's header (id, path, time, version,
  // block counts and sizes) and copies of the file entries to fetch, and,
  // when given, sizes bitset to snapshot.totalBlocks and sets the bits of the
  // blocks present and good. Block hashes are read from
  // snapshot.documentText when the snapshot declares a block size and has
  // that text (and dropped again at the end); an in-memory snapshot without
  // document text uses the hashes its entries hold. Updates the entries'
  // state and validBytes: files found invalid before are judged again, files
  // found valid before keep that state without being hashed again (unless
  // options.forceHash). A file whose size and time match is hashed unless
  // options.skipHash; a time stamp that says the file changed (see
  // UpdateListOptions) lists it unread. Throws only for out-of-memory.
  void GetUpdateList(Snapshot& snapshot, Snapshot& updateList, DynamicBitset* bitset,
                     const UpdateListOptions& options);

  // Whether GetUpdateList (normal or sparse mode) would list anything.
  bool HasUpdates(Snapshot& snapshot, bool sparseMode, bool skipHash);

 private:
  struct OpenFile;
  Result HashBlock(std::span<const uint8_t> block, std::span<const uint8_t> previous, std::vector<uint8_t>& out);
  // The reused read buffer, at least `bytes` long.
  std::span<uint8_t> Buffer(size_t bytes);
  void ValidateWholeFile(const Snapshot& snapshot, SnapshotEntry& entry, const std::filesystem::path& path);
  void ValidateBlocks(const Snapshot& snapshot, SnapshotEntry& entry, const std::filesystem::path& path,
                      DynamicBitset* bitset);
  Result HashFolder(Snapshot& snapshot, const std::filesystem::path& root, const std::string& folderPath,
                    bool recurse);
  void CheckNormalEntry(Snapshot& snapshot, SnapshotEntry& entry, Snapshot& updateList, DynamicBitset* bitset,
                        const UpdateListOptions& options, bool exactTimes);
  bool LoadHashesOnce(Snapshot& snapshot, std::string_view warning);

  ValidatorOptions options_;
  std::vector<uint8_t> buffer_;  // at most one block (never more than the file), reused across blocks and files
  std::vector<uint8_t> hashOut_;
  bool hashesLoaded_ = false;    // GetUpdateList's "load the block hashes once"
  bool hashesFromText_ = false;
};

// The package-relative folder and file of an entry resolved below the
// snapshot's package folder (util/safe_path.h); throws Error for a name that
// would leave it.
std::filesystem::path EntryPath(const Snapshot& snapshot, const SnapshotEntry& entry);

}  // namespace pkgdlv
