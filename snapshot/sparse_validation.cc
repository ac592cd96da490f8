// Files that the block download writes as sparse files: a block is present
// when all its bytes are allocated; a present block that fails its hash is
// punched out so that it reads as zeros and counts as missing again.
#include <linux/falloc.h>
#include <sys/stat.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "snapshot/validation.h"
#include "snapshot/validation_io.h"
#include "util/unique_fd.h"

namespace pkgdlv {

using validation_io::ErrorText;
using validation_io::ReadFully;

namespace {

constexpr std::string_view kComponent = kSnapshotLogComponent;

// The allocated byte ranges [begin, end) of the file below size; false (errno
// set) when the file system cannot say.
bool AllocatedRanges(int fd, int64_t size, std::vector<std::pair<int64_t, int64_t>>& ranges) {
  for (int64_t offset = 0; offset < size;) {
    off_t data = ::lseek(fd, offset, SEEK_DATA);
    if (data < 0) return errno == ENXIO;  // no data after offset
    off_t hole = ::lseek(fd, data, SEEK_HOLE);
    if (hole < 0) return false;
    ranges.emplace_back(data, std::min<int64_t>(hole, size));
    offset = hole;
  }
  return true;
}

bool Covered(const std::vector<std::pair<int64_t, int64_t>>& ranges, int64_t begin, int64_t end) {
  for (const auto& [first, last] : ranges) {
    if (first <= begin && end <= last) return true;
  }
  return false;
}

}  // namespace

void Validator::ValidateSparseFile(const Snapshot& snapshot, SnapshotEntry& entry, DynamicBitset* bitset,
                                   bool skipHash) {
  if (entry.size < 1 || (entry.blockHashes.empty() && !skipHash)) return;
  Logger& log = snapshot.log();
  std::filesystem::path path;
  try {
    path = EntryPath(snapshot, entry);
  } catch (const Error& e) {
    log.Log(loglevel::kWarning, kComponent, "%ls", e.description());
    return;
  }
  const std::string pathText = path.string();
  UniqueFd file(::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
  if (!file.ok()) {
    log.LogWithError(loglevel::kError, kComponent, ErrorText(errno), "Failed to open sparse file '%ls'", pathText);
    return;
  }

  const uint32_t blockSize = snapshot.blockSize;
  const int64_t size = entry.size;
  const uint64_t fileBlocks = entry.BlockCount(blockSize);
  uint32_t blocksInSet = 0;  // the file's blocks that have a bit
  if (bitset != nullptr && entry.firstBlock != kNoBlock && entry.firstBlock < bitset->size()) {
    blocksInSet = static_cast<uint32_t>(std::min<uint64_t>(fileBlocks, bitset->size() - entry.firstBlock));
  }

  struct stat info {};
  std::vector<std::pair<int64_t, int64_t>> ranges;
  if (::fstat(file.get(), &info) != 0 || !AllocatedRanges(file.get(), std::min<int64_t>(size, info.st_size), ranges)) {
    log.LogWithError(loglevel::kError, kComponent, ErrorText(errno), "Failed to get the sparse ranges for file: '%ls'",
                     pathText);
    return;
  }
  bool anySet = false;
  for (uint32_t i = 0; i < blocksInSet; ++i) {
    int64_t begin = int64_t{i} * blockSize;
    int64_t end = std::min<int64_t>(begin + blockSize, size);
    if (Covered(ranges, begin, end)) {
      bitset->Set(entry.firstBlock + i, true);
      anySet = true;
    }
  }
  if (skipHash || bitset == nullptr || !anySet) return;

  auto clearFrom = [&](uint32_t first) {
    bitset->SetRange(entry.firstBlock + first, entry.firstBlock + blocksInSet - 1, false);
  };
  for (uint32_t i = 0; i < blocksInSet; ++i) {
    if (!bitset->Check(entry.firstBlock + i)) continue;
    const int64_t offset = int64_t{i} * blockSize;
    if (::lseek(file.get(), offset, SEEK_SET) < 0) {
      log.LogWithError(loglevel::kError, kComponent, ErrorText(errno),
                       "Failed to change position in sparse file '%ls' to %I64d (block %d)", pathText, offset,
                       static_cast<int>(i));
      clearFrom(i);
      return;
    }
    const uint32_t want = static_cast<uint32_t>(std::min<int64_t>(blockSize, size - offset));
    // want stays within the allocated ranges found above, so within the file.
    std::span<uint8_t> buffer = Buffer(want);
    ssize_t got = ReadFully(file.get(), buffer);
    if (got < 0) {
      log.LogWithError(loglevel::kError, kComponent, ErrorText(errno), "Failed to read block %d from sparse file '%ls'",
                       static_cast<int>(i), pathText);
      clearFrom(i);
      return;
    }
    if (static_cast<uint32_t>(got) != want) {
      log.Log(loglevel::kWarning, kComponent,
              "Failed to read block %u (%u/%u) from sparse file '%ls'. Read %u bytes while required %u.", i,
              entry.firstBlock + i + 1, snapshot.totalBlocks, pathText, static_cast<uint32_t>(got), want);
      clearFrom(i);
      return;
    }
    Result code = ValidateBlock(snapshot, entry, i, buffer, pathText, 0, false);
    if (code == validation::kCancelled) return;
    if (code == 0) continue;
    const uint64_t begin = static_cast<uint64_t>(offset);
    const uint64_t end = begin + want;
    log.Log(loglevel::kDebug, kComponent, "Zero the invalid block %I64u-%I64u of sparse file '%ls'. Hash check failed",
            begin, end, pathText);
    if (::fallocate(file.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, offset, want) != 0) {
      log.LogWithError(loglevel::kDebug, kComponent, ErrorText(errno),
                       "Failed to zero the block %I64u-%I64u of sparse file '%ls'", begin, end, pathText);
    }
    bitset->Set(entry.firstBlock + i, false);
  }
}

}  // namespace pkgdlv
