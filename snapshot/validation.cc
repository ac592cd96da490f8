// Hashing files into block hash chains and checking files and blocks against
// a snapshot.
#include "snapshot/validation.h"

#include <sys/stat.h>

#include <algorithm>

#include "agent/crypto.h"
#include "agent/openssl_helpers.h"
#include "snapshot/hash_store.h"
#include "snapshot/validation_io.h"
#include "util/base64.h"
#include "util/errno_result.h"
#include "util/safe_path.h"
#include "util/unique_fd.h"

namespace pkgdlv {

using validation_io::ErrorText;
using validation_io::ReadFully;

namespace {
constexpr std::string_view kComponent = kSnapshotLogComponent;
// The whole-file hash reads in pieces of at most this much.
constexpr size_t kWholeFileChunk = 1 << 20;
}  // namespace

std::filesystem::path EntryPath(const Snapshot& snapshot, const SnapshotEntry& entry) {
  return ResolveInside(snapshot.path, entry.RelativePath());
}

Validator::Validator(ValidatorOptions options) : options_(std::move(options)) {}
Validator::~Validator() = default;

std::span<uint8_t> Validator::Buffer(size_t bytes) {
  if (buffer_.size() < bytes) buffer_.resize(bytes);
  return std::span(buffer_.data(), bytes);
}

Result Validator::HashBlock(std::span<const uint8_t> block, std::span<const uint8_t> previous,
                            std::vector<uint8_t>& out) {
  if (options_.hashBlock) return options_.hashBlock(block, previous, out);
  Sha256Digest digest = BlockHash(block, previous);
  out.assign(digest.begin(), digest.end());
  return 0;
}

Result Validator::CalculateBlockHashes(const Snapshot& snapshot, const std::filesystem::path& filePath,
                                       std::vector<uint8_t>& hashes) {
  Logger& log = snapshot.log();
  std::string path = filePath.string();
  try {
    hashes.clear();
    UniqueFd file(::open(filePath.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.ok()) {
      int error = errno;
      log.LogWithError(loglevel::kError, kComponent, ErrorText(error),
                       "Failed to open the target file '%ls' while hash generation", path);
      return ResultFromErrno(error);
    }
    struct stat info {};
    if (::fstat(file.get(), &info) != 0) {
      int error = errno;
      log.LogWithError(loglevel::kError, kComponent, ErrorText(error),
                       "Failed to get the size of the target file '%ls' while hash generation", path);
      return ResultFromErrno(error);
    }
    if (info.st_size == 0) return 0;
    ::posix_fadvise(file.get(), 0, 0, POSIX_FADV_SEQUENTIAL);

    const uint64_t size = static_cast<uint64_t>(info.st_size);
    const uint32_t blockSize = snapshot.blockSize;
    const uint64_t blocks = (size + blockSize - 1) / blockSize;
    hashes.resize(blocks * kBlockHashSize);
    // A block never holds more than the file: the block size alone (a
    // number from a document) does not size the buffer.
    std::span<uint8_t> buffer = Buffer(static_cast<size_t>(std::min<uint64_t>(blockSize, size)));
    for (uint64_t i = 0; i < blocks; ++i) {
      uint32_t want = static_cast<uint32_t>(std::min<uint64_t>(blockSize, size - i * blockSize));
      ssize_t got = ReadFully(file.get(), buffer.first(want));
      if (got < 0) {
        int error = errno;
        log.LogWithError(loglevel::kError, kComponent, ErrorText(error),
                         "Failed to read from file '%ls' while hash generation", path);
        return ResultFromErrno(error);
      }
      if (static_cast<uint32_t>(got) != want) {
        log.Log(loglevel::kWarning, kComponent,
                "Failed to read block %u from file '%ls' while hash generation. Read %u bytes while required %u",
                static_cast<uint32_t>(i), path, static_cast<uint32_t>(got), want);
        return validation::kReadFault;
      }
      std::span<const uint8_t> previous;
      if (i > 0) previous = std::span(hashes).subspan((i - 1) * kBlockHashSize, kBlockHashSize);
      Result code = HashBlock(buffer.first(want), previous, hashOut_);
      if (code != 0) return code;
      if (hashOut_.size() != kBlockHashSize) return validation::kBadHashSize;
      std::copy(hashOut_.begin(), hashOut_.end(), hashes.begin() + static_cast<ptrdiff_t>(i * kBlockHashSize));
    }
    return 0;
  } catch (const std::exception& e) {
    log.LogWithCrtError(loglevel::kError, kComponent, e, "Failed to calculate hash for file '%ls'", path);
    return CurrentFailure().code;
  }
}

Result Validator::ValidateBlock(const Snapshot& snapshot, const SnapshotEntry& entry, uint32_t blockIndex,
                                std::span<const uint8_t> data, const std::string& filePath, uint32_t logFlags,
                                bool log) {
  if (options_.cancelled && options_.cancelled()) return validation::kCancelled;
  const uint32_t level = logFlags == 0 ? loglevel::kWarning : logFlags;
  std::span<const uint8_t> expectedHashes(entry.blockHashes);
  std::span<const uint8_t> previous;
  if (blockIndex > 0 && size_t{blockIndex} * kBlockHashSize <= expectedHashes.size()) {
    previous = expectedHashes.subspan((blockIndex - 1) * kBlockHashSize, kBlockHashSize);
  }
  Result code = HashBlock(data, previous, hashOut_);
  if (code == 0 && hashOut_.size() != kBlockHashSize) code = validation::kBadHashSize;
  if (code != 0) {
    if (log) snapshot.log().Log(loglevel::kError, kComponent, "Failed to calculate block hash for file '%ls'", filePath);
    return code;
  }
  bool matches = (size_t{blockIndex} + 1) * kBlockHashSize <= expectedHashes.size() &&
                 std::equal(hashOut_.begin(), hashOut_.end(), expectedHashes.begin() + blockIndex * kBlockHashSize);
  if (matches) return 0;
  if (log) {
    snapshot.log().Log(level, kComponent, "Block %u (%u/%u) is invalid for file '%ls'", blockIndex,
                       entry.firstBlock + blockIndex + 1, snapshot.totalBlocks, filePath);
  }
  return validation::kBadBlock;
}

void Validator::ValidateFile(const Snapshot& snapshot, SnapshotEntry& entry, DynamicBitset* bitset) {
  entry.state = entrystate::kNotChecked;
  entry.validBytes = 0;
  std::filesystem::path path;
  try {
    path = EntryPath(snapshot, entry);
  } catch (const Error& e) {
    snapshot.log().Log(loglevel::kWarning, kComponent, "%ls", e.description());
    entry.state = entrystate::kInvalid;
    return;
  }
  if (entry.blockHashes.empty()) {
    ValidateWholeFile(snapshot, entry, path);
  } else {
    ValidateBlocks(snapshot, entry, path, bitset);
  }
}

// Legacy per-file hashing: the whole file's SHA-256 against fileHash.
void Validator::ValidateWholeFile(const Snapshot& snapshot, SnapshotEntry& entry, const std::filesystem::path& path) {
  Logger& log = snapshot.log();
  Sha256Digest digest{};
  bool hashed = false;
  {
    UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.ok()) {
      ::posix_fadvise(file.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
      openssl::Sha256Stream stream;
      std::span<uint8_t> buffer = Buffer(std::min<size_t>(snapshot.blockSize, kWholeFileChunk));
      ssize_t got = 0;
      while ((got = ReadFully(file.get(), buffer)) > 0) {
        if (options_.cancelled && options_.cancelled()) {
          entry.state = entrystate::kInvalid;  // unread to its end: not known to be good
          return;
        }
        stream.Update(buffer.first(static_cast<size_t>(got)));
      }
      if (got == 0) {
        digest = stream.Finish();
        hashed = true;
      }
    }
  }
  if (!hashed) {
    log.Log(loglevel::kWarning, kComponent, "Failed to calculate hash for file: '%ls'", path.string());
    entry.state = entrystate::kHashNotComputed;
    return;
  }
  std::optional<std::vector<uint8_t>> expected = Base64Decode(entry.fileHash);
  if (!expected) {
    log.Log(loglevel::kWarning, kComponent, "Failed to decode Base64 data while validating the file '%ls'. Hash: '%ls'",
            path.string(), entry.fileHash);
  }
  if (expected && std::equal(digest.begin(), digest.end(), expected->begin(), expected->end())) {
    entry.state = entrystate::kValid;
    entry.validBytes = entry.size;
    return;
  }
  log.Log(loglevel::kWarning, kComponent, "Hashes are different for file: '%ls'", path.string());
  entry.state = entrystate::kInvalid;
}

void Validator::ValidateBlocks(const Snapshot& snapshot, SnapshotEntry& entry, const std::filesystem::path& path,
                               DynamicBitset* bitset) {
  Logger& log = snapshot.log();
  const std::string pathText = path.string();
  entry.state = entrystate::kInvalid;
  UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file.ok()) {
    log.LogWithError(loglevel::kError, kComponent, ErrorText(errno), "Failed to open the target file '%ls'", pathText);
    return;
  }
  struct stat info {};
  if (::fstat(file.get(), &info) != 0) {
    log.LogWithError(loglevel::kError, kComponent, ErrorText(errno), "Failed to get the size of the target file '%ls'",
                     pathText);
    return;
  }
  const int64_t diskSize = info.st_size;
  if (entry.size == 0) {
    if (diskSize == 0) entry.state = entrystate::kValid;
    return;
  }
  ::posix_fadvise(file.get(), 0, 0, POSIX_FADV_SEQUENTIAL);

  const uint32_t blockSize = snapshot.blockSize;
  const uint64_t blockCount = entry.BlockCount(blockSize);
  const bool tracksBits = bitset != nullptr && entry.firstBlock != kNoBlock && blockCount > 0 &&
                          entry.firstBlock + blockCount <= bitset->size();
  if (tracksBits) {
    bitset->SetRange(entry.firstBlock, static_cast<uint32_t>(entry.firstBlock + blockCount - 1), false);
  }

  // Blocks are read only as far as the file on disk goes, so the buffer never
  // needs more than it holds, whatever block size and size the document says.
  std::span<uint8_t> buffer = Buffer(static_cast<size_t>(std::min<int64_t>({blockSize, diskSize, entry.size})));
  bool failed = false;
  uint32_t logFlags = 0;
  uint32_t index = 0;
  for (int64_t offset = 0; offset < diskSize && offset < entry.size; offset += blockSize, ++index) {
    uint32_t want = static_cast<uint32_t>(std::min<int64_t>(blockSize, entry.size - offset));
    ssize_t got = ReadFully(file.get(), buffer.first(static_cast<size_t>(std::min<int64_t>(want, diskSize - offset))));
    Result code = 0;
    if (got < 0) {
      int error = errno;
      log.LogWithError(loglevel::kError | logFlags, kComponent, ErrorText(error), "Failed to read from file '%ls'",
                       pathText);
      code = ResultFromErrno(error);
    } else if (static_cast<uint32_t>(got) != want) {
      log.Log(loglevel::kWarning | logFlags, kComponent,
              "Failed to read block %u (%u/%u) from file '%ls'. Read %u bytes while required %u.", index,
              entry.firstBlock + index + 1, snapshot.totalBlocks, pathText, static_cast<uint32_t>(got), want);
      code = validation::kReadFault;
    } else {
      code = ValidateBlock(snapshot, entry, index, buffer.first(want), pathText, loglevel::kWarning | logFlags, true);
    }
    if (tracksBits) bitset->Set(entry.firstBlock + index, code == 0);
    if (code == 0) {
      entry.validBytes += want;
      continue;
    }
    failed = true;
    logFlags = loglevel::kForceTrace;
    if (bitset == nullptr || code == validation::kCancelled || got < 0) break;
  }
  if (!failed && diskSize == entry.size) entry.state = entrystate::kValid;
}

Result Validator::HashFileIntoStore(Snapshot& snapshot, std::string_view folderPath, bool recurse) {
  try {
    return HashFolder(snapshot, ResolveInside(snapshot.path, folderPath), std::string(folderPath), recurse);
  } catch (...) {
    Failure failure = CurrentFailure();
    snapshot.log().Log(loglevel::kError, kComponent, "%ls (0x%08X)", failure.description, failure.code);
    return failure.code;
  }
}

Result Validator::HashFolder(Snapshot& snapshot, const std::filesystem::path& root, const std::string& folderPath,
                             bool recurse) {
  namespace fs = std::filesystem;
  Logger& log = snapshot.log();
  if (!folderPath.empty()) {
    SnapshotEntry folder;
    folder.folder = folderPath;
    folder.size = 0;
    snapshot.entries.push_back(std::move(folder));
  }
  std::error_code ec;
  std::vector<fs::directory_entry> items;
  for (fs::directory_iterator it(root, ec), end; !ec && it != end; it.increment(ec)) items.push_back(*it);
  if (ec) return ResultFromErrno(ec.value());
  std::sort(items.begin(), items.end());

  for (const fs::directory_entry& item : items) {
    std::string name = item.path().filename().string();
    if (!IsSafeRelativeName(name) || item.is_symlink(ec)) continue;  // nothing a snapshot could name, or a link
    if (item.is_directory(ec)) {
      if (!recurse) continue;
      Result code = HashFolder(snapshot, item.path(), JoinDocPath(folderPath, name), recurse);
      if (code != 0) return code;
      continue;
    }
    if (!item.is_regular_file(ec)) continue;

    SnapshotEntry file;
    file.name = name;
    file.folder = folderPath;
    std::string fullPath = item.path().string();
    std::string storeKey = HashStoreKey(snapshot.GetIdText(), file.RelativePath());
    std::optional<std::vector<uint8_t>> hashes;
    try {
      if (options_.hashStore) hashes = options_.hashStore->ReadHashes(snapshot, file);
    } catch (const Error&) {
      hashes.reset();
    }
    if (!hashes) {
      log.Log(loglevel::kWarning, kComponent, "Failed to read hash from Secure Storage '%ls' while adding the file: '%ls'",
              storeKey, fullPath);
      std::vector<uint8_t> computed;
      if (Result code = CalculateBlockHashes(snapshot, item.path(), computed); code != 0) {
        log.Log(loglevel::kError, kComponent, "Failed to calculate hash while adding the file: '%ls'", fullPath);
        return code;
      }
      try {
        if (!options_.hashStore) Throw(result::kFail, "no hash store");
        options_.hashStore->WriteHashes(snapshot, file, computed);
        log.Log(loglevel::kInfo, kComponent,
                "Stored newly calulated hash while adding the file: '%ls' (storage path: '%ls')", fullPath, storeKey);
      } catch (const Error&) {
        log.Log(loglevel::kWarning, kComponent,
                "Failed to store newly calulated hash while adding the file: '%ls' (storage path: '%ls')", fullPath,
                storeKey);
      }
    }
    struct stat info {};
    if (::stat(item.path().c_str(), &info) != 0) return ResultFromErrno(errno);
    file.size = info.st_size;
    file.lastModified = FileTimeFromTimespec(info.st_mtim);
    file.state = entrystate::kValid;
    file.hasBlockHash = true;
    file.validBytes = -1;
    file.firstBlock = kNoBlock;
    snapshot.entries.push_back(std::move(file));
  }
  return 0;
}

}  // namespace pkgdlv
