#include "snapshot/snapshot.h"

#include <algorithm>

#include "util/strings.h"
#include "util/xml.h"

namespace pkgdlv {

BlockHashSource::Lookup EntryBlockHashes::Read(const Snapshot&, const SnapshotEntry& file, const std::string&,
                                               std::vector<uint8_t>& hashes) {
  if (file.blockHashes.empty()) return Lookup::kNone;
  hashes = file.blockHashes;
  return Lookup::kFound;
}

std::string HashStoreKey(std::string_view idText, std::string_view relativePath) {
  return Format("Package Delivery\\%ls\\hash\\%ls", idText, relativePath);
}

Snapshot::Snapshot(std::shared_ptr<Logger> log) { SetLogger(std::move(log)); }

void Snapshot::SetLogger(std::shared_ptr<Logger> log) { log_ = log ? std::move(log) : std::make_shared<NullLogger>(); }

void Snapshot::Reset() {
  id = Guid();
  time = 0;
  version = 0;
  deleteInvalidOnly = 0;
  path.clear();
  documentText.clear();
  signature.clear();
  entries.clear();
  signedData.clear();
  hashNotRequired = false;
  hasUnhashedFiles = false;
  totalBlocks = 0;
  declaredBlockSize = 0;
  blockSize = kDefaultBlockSize;
  idText_.clear();
}

const std::string& Snapshot::GetIdText() const {
  if (idText_.empty() || idTextOf_ != id) {
    idText_ = id.ToString();
    idTextOf_ = id;
  }
  return idText_;
}

bool Snapshot::IsIncomplete() const {
  return std::any_of(entries.begin(), entries.end(), [this](const SnapshotEntry& e) {
    if (!e.IsFile()) return false;
    if (e.size == -1 || e.lastModified == 0) return true;
    return !hashNotRequired && e.fileHash.empty() && !e.hasBlockHash;
  });
}

const SnapshotEntry* Snapshot::FindEntry(std::string_view folder, std::string_view name) const {
  auto it = std::lower_bound(entries.begin(), entries.end(), 0, [&](const SnapshotEntry& e, int) {
    return CompareEntryKeys(e.folder, e.name, folder, name) < 0;
  });
  if (it == entries.end() || CompareEntryKeys(it->folder, it->name, folder, name) != 0) return nullptr;
  return &*it;
}

SnapshotEntry* Snapshot::FindEntry(std::string_view folder, std::string_view name) {
  return const_cast<SnapshotEntry*>(std::as_const(*this).FindEntry(folder, name));
}

bool Snapshot::SetEntryState(std::string_view folder, std::string_view name, uint32_t state) {
  SnapshotEntry* entry = FindEntry(folder, name);
  if (!entry) return false;
  entry->state = state;
  return true;
}

void Snapshot::ResetStates() {
  for (SnapshotEntry& e : entries) {
    if (e.IsFile() && e.state != entrystate::kValid) e.state = entrystate::kNotChecked;
  }
}

Snapshot::Totals Snapshot::OrderEntries() {
  Totals totals;
  // Documents list most entries in order already: one look at the neighbours
  // tells whether sorting is needed and, when it is not, finds twins too.
  bool sorted = true;
  for (size_t i = 1; i < entries.size() && sorted; ++i) {
    const SnapshotEntry& a = entries[i - 1];
    const SnapshotEntry& b = entries[i];
    int order = CompareEntryKeys(a.folder, a.name, b.folder, b.name);
    if (order > 0) sorted = false;
    if (order == 0 && !totals.twin) totals.twin = &b;
  }
  if (!sorted) {
    std::stable_sort(entries.begin(), entries.end(), EntryOrder());
    totals.twin = nullptr;
    for (size_t i = 1; i < entries.size() && !totals.twin; ++i) {
      const SnapshotEntry& a = entries[i - 1];
      const SnapshotEntry& b = entries[i];
      if (CompareEntryKeys(a.folder, a.name, b.folder, b.name) == 0) totals.twin = &b;
    }
  }
  uint64_t blocks = 0;
  for (SnapshotEntry& e : entries) {
    if (!e.IsFile()) continue;
    e.firstBlock = static_cast<uint32_t>(std::min<uint64_t>(blocks, kNoBlock));
    if (e.size < 0) {
      totals.unknownSize = true;
      continue;
    }
    // Block numbers are 32-bit: a package beyond that cannot be numbered, and
    // the sums saturate instead of wrapping.
    blocks = std::min<uint64_t>(blocks + e.BlockCount(blockSize), kNoBlock);
    if (blocks >= kNoBlock) totals.tooManyBlocks = true;
    uint64_t size = static_cast<uint64_t>(e.size);
    totals.knownSize = totals.knownSize > UINT64_MAX - size ? UINT64_MAX : totals.knownSize + size;
  }
  totalBlocks = static_cast<uint32_t>(blocks);
  return totals;
}

bool operator==(const Snapshot& a, const Snapshot& b) {
  return a.id == b.id && SameSecond(a.time, b.time) && a.version == b.version && EqualsNoCase(a.path, b.path) &&
         a.entries == b.entries;
}

}  // namespace pkgdlv
