#include "snapshot/hash_store.h"

#include "agent/secure_store.h"
#include "util/error.h"

namespace pkgdlv {
namespace {

std::optional<std::vector<uint8_t>> ReadKey(SecureStore& store, const std::string& key) {
  std::optional<std::vector<uint8_t>> hashes = store.Read(key);
  if (hashes && hashes->size() % kBlockHashSize != 0) {
    Throw(result::kDecryptFailed, "The hashes kept under '%ls' are not whole block hashes", key);
  }
  return hashes;
}

}  // namespace

HashStore::HashStore(std::shared_ptr<SecureStore> store) : store_(std::move(store)) {
  if (!store_) Throw(result::kInvalidArg, "Invalid Argument");
}

std::optional<std::vector<uint8_t>> HashStore::ReadHashes(const Snapshot& snapshot, const SnapshotEntry& file) {
  return ReadKey(*store_, HashStoreKey(snapshot.GetIdText(), file.RelativePath()));
}

void HashStore::WriteHashes(const Snapshot& snapshot, const SnapshotEntry& file, std::span<const uint8_t> hashes) {
  store_->Write(HashStoreKey(snapshot.GetIdText(), file.RelativePath()), hashes);
}

void HashStore::DeletePackage(const Snapshot& snapshot) {
  std::string key = HashStoreKey(snapshot.GetIdText(), "");
  key.pop_back();  // "Package Delivery\<id>\hash"
  store_->DeletePrefix(key);
}

BlockHashSource::Lookup HashStore::Read(const Snapshot&, const SnapshotEntry&, const std::string& storeKey,
                                        std::vector<uint8_t>& hashes) {
  try {
    std::optional<std::vector<uint8_t>> found = ReadKey(*store_, storeKey);
    if (!found || found->empty()) return Lookup::kNone;
    hashes = std::move(*found);
    return Lookup::kFound;
  } catch (...) {
    return Lookup::kReadFailed;
  }
}

}  // namespace pkgdlv
