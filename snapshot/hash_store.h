// The hash store: the block hashes of each file of each package, kept in the
// agent's secure store under HashStoreKey(package id text, the file's
// package-relative path), 32 bytes per block laid end to end.
//
// Also the snapshot composer's BlockHashSource, so that a snapshot composed
// on this computer carries the hashes kept for its files.
//
// Holds a shared reference to the secure store; calls go straight through,
// so any thread may use it as the store allows.
#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "snapshot/snapshot.h"

namespace pkgdlv {

class SecureStore;

class HashStore final : public BlockHashSource {
 public:
  explicit HashStore(std::shared_ptr<SecureStore> store);

  // The file's hashes; nullopt when none are kept. Throws Error when the store
  // cannot be read or the value cannot be opened, or when it is not whole
  // 32-byte hashes (0x80090005).
  std::optional<std::vector<uint8_t>> ReadHashes(const Snapshot& snapshot, const SnapshotEntry& file);
  // Throws Error when the write fails.
  void WriteHashes(const Snapshot& snapshot, const SnapshotEntry& file, std::span<const uint8_t> hashes);
  // Forgets every file of the package. Throws Error on failure.
  void DeletePackage(const Snapshot& snapshot);

  // BlockHashSource: kFound, kNone when nothing is kept, kReadFailed when
  // reading throws.
  Lookup Read(const Snapshot& snapshot, const SnapshotEntry& file, const std::string& storeKey,
              std::vector<uint8_t>& hashes) override;

 private:
  std::shared_ptr<SecureStore> store_;
};

}  // namespace pkgdlv
