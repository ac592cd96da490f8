#include "snapshot/snapshot_builder.h"

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <set>
#include <thread>

#include "agent/crypto.h"
#include "snapshot/snapshot_limits.h"
#include "util/base64.h"
#include "util/errno_result.h"
#include "util/error.h"
#include "util/safe_path.h"
#include "util/strings.h"
#include "util/xml.h"

namespace fs = std::filesystem;

namespace pkgdlv {

namespace {

bool IsValidUtf8(std::string_view text) {
  for (size_t i = 0; i < text.size();) {
    auto c = static_cast<unsigned char>(text[i]);
    size_t length = c < 0x80                   ? 1
                    : (c >= 0xC2 && c <= 0xDF) ? 2
                    : (c >= 0xE0 && c <= 0xEF) ? 3
                    : (c >= 0xF0 && c <= 0xF4) ? 4
                                               : 0;
    if (length == 0 || i + length > text.size()) return false;
    for (size_t k = 1; k < length; ++k) {
      if ((static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80) return false;
    }
    // Overlong three- and four-byte forms, surrogates and values above U+10FFFF.
    auto next = static_cast<unsigned char>(length > 1 ? text[i + 1] : 0);
    if ((c == 0xE0 && next < 0xA0) || (c == 0xED && next > 0x9F) || (c == 0xF0 && next < 0x90) ||
        (c == 0xF4 && next > 0x8F)) {
      return false;
    }
    i += length;
  }
  return true;
}

void CheckName(std::string_view folder, std::string_view name) {
  if (!IsValidUtf8(name) || !IsSafeRelativeName(name)) {
    Throw(result::kInvalidArg, "Unsafe file name '%ls'", PrintableName(JoinDocPath(folder, name)));
  }
}

bool LiesBelow(const fs::path& root, const fs::path& path) {
  fs::path relative = path.lexically_relative(root);
  return !relative.empty() && *relative.begin() != "..";
}

// Twins are neighbours in entry order.
void CheckNoCaseTwins(const Snapshot::Totals& totals) {
  if (!totals.twin) return;
  const SnapshotEntry& before = *(totals.twin - 1);
  Throw(result::kInvalidArg, "Names differ only in letter case: '%ls' and '%ls'", before.RelativePath(),
        totals.twin->RelativePath());
}

struct HashJob {
  size_t entry;
  fs::path path;
};

// Walks a folder without following links to folders; links to files inside
// the folder count as the files they name.
class FolderWalk {
 public:
  FolderWalk(const fs::path& root, const SnapshotBuildOptions& options) : root_(root), options_(options) {
    for (const fs::path& excluded : options.excludedFiles) {
      std::error_code ec;
      fs::path resolved = fs::weakly_canonical(fs::absolute(excluded), ec);
      excluded_.insert(ec ? excluded.lexically_normal() : resolved);
    }
  }

  void Walk(const fs::path& directory, const std::string& docPath) {
    std::error_code ec;
    fs::directory_iterator it(directory, ec);
    if (ec) ThrowFileError(ec.value(), "list", directory);
    for (; it != fs::directory_iterator(); it.increment(ec)) {
      AddItem(it->path(), docPath);
    }
    if (ec) ThrowFileError(ec.value(), "list", directory);
  }

  std::vector<SnapshotEntry>& entries() { return entries_; }
  std::vector<HashJob>& jobs() { return jobs_; }

 private:
  void AddItem(const fs::path& path, const std::string& folder) {
    std::string name = path.filename().string();
    CheckName(folder, name);
    struct stat info {};
    if (lstat(path.c_str(), &info) != 0) ThrowFileError(errno, "read the attributes of", path);
    if (S_ISLNK(info.st_mode)) {
      std::error_code ec;
      fs::path target = fs::canonical(path, ec);
      if (ec || !LiesBelow(root_, target)) {
        Throw(result::kInvalidArg, "Symbolic link '%ls' leads outside the folder", path.string());
      }
      if (stat(target.c_str(), &info) != 0) ThrowFileError(errno, "read the attributes of", target);
      if (S_ISDIR(info.st_mode)) return Skip("Skipping symbolic link to a folder: '%ls'", path);
    }
    if (S_ISDIR(info.st_mode)) {
      std::string subfolder = JoinDocPath(folder, name);
      SnapshotEntry& entry = entries_.emplace_back();
      entry.folder = subfolder;
      entry.size = 0;
      Walk(path, subfolder);
      return;
    }
    if (!S_ISREG(info.st_mode)) return Skip("Skipping '%ls': not a regular file or folder", path);
    if (excluded_.count(path)) return;
    SnapshotEntry& entry = entries_.emplace_back();
    entry.folder = folder;
    entry.name = std::move(name);
    entry.size = info.st_size;
    entry.lastModified = FileTimeFromTimespec(info.st_mtim);
    jobs_.push_back({entries_.size() - 1, path});
  }

  void Skip(std::string_view format, const fs::path& path) {
    if (options_.log) options_.log->Log(loglevel::kWarning, kSnapshotLogComponent, format, path.string());
  }

  fs::path root_;
  const SnapshotBuildOptions& options_;
  std::set<fs::path> excluded_;
  std::vector<SnapshotEntry> entries_;
  std::vector<HashJob> jobs_;
};

// Hashes the files of the jobs on a few threads, each with its own hasher;
// the first failure stops the others and is rethrown.
void HashFiles(std::vector<HashJob>& jobs, std::vector<SnapshotEntry>& entries, const SnapshotBuildOptions& options) {
  unsigned threads = options.hashThreads;
  if (threads == 0) threads = std::clamp(std::thread::hardware_concurrency(), 1u, 2u);
  threads = static_cast<unsigned>(std::min<size_t>(threads, jobs.size()));
  std::atomic<size_t> next{0};
  std::atomic<bool> failed{false};
  std::exception_ptr failure;
  std::mutex failureLock;

  auto work = [&] {
    try {
      FileHasher hasher(options.blockSize);
      for (size_t i = next++; i < jobs.size() && !failed; i = next++) {
        FileHashes hashes = hasher.Hash(jobs[i].path);
        SnapshotEntry& entry = entries[jobs[i].entry];
        entry.size = static_cast<int64_t>(hashes.size);  // what the hashes describe
        entry.fileHash = Base64Encode(hashes.file_hash);
        entry.blockHashes = std::move(hashes.block_hashes);
        entry.hasBlockHash = !entry.blockHashes.empty();
        entry.state = entrystate::kValid;
        entry.validBytes = entry.size;
      }
    } catch (...) {
      std::lock_guard lock(failureLock);
      if (!failure) failure = std::current_exception();
      failed = true;
    }
  };
  std::vector<std::thread> helpers;
  for (unsigned t = 1; t < threads; ++t) helpers.emplace_back(work);
  work();
  for (std::thread& helper : helpers) helper.join();
  if (failure) std::rethrow_exception(failure);
}

// An upper bound of the length of the document that ComposeDocumentFile
// writes for these entries: per element its fixed text with the widest
// numbers, times and file hash, the escaped name, the indentation, and the
// Base64 block hashes that dominate it.
uint64_t ComposedSizeBound(const std::vector<SnapshotEntry>& entries, uint32_t blockSize, const fs::path& root,
                           bool withHashes) {
  constexpr uint64_t kFixed = 1024;       // declaration, root element, Root folder
  constexpr uint64_t kPerElement = 200;   // tags, attribute names, 20-digit numbers, times, file hash
  uint64_t total = kFixed + 6 * root.string().size();
  for (const SnapshotEntry& entry : entries) {
    const uint64_t depth = static_cast<uint64_t>(std::count(entry.folder.begin(), entry.folder.end(), '\\')) + 3;
    total += kPerElement + 4 * depth + xml::Escape(entry.IsFolder() ? entry.folder : entry.name).size();
    if (withHashes && entry.size > 0) total += (entry.BlockCount(blockSize) * kBlockHashSize + 2) / 3 * 4;
  }
  return total;
}

// A document the readers would refuse is never written: refused before the
// files are hashed, and again after (a file may have grown meanwhile).
void CheckComposedSize(const std::vector<SnapshotEntry>& entries, const SnapshotBuildOptions& options,
                       const fs::path& root) {
  const uint64_t bound = ComposedSizeBound(entries, options.blockSize, root, options.computeHashes);
  if (bound <= kMaxSnapshotDocumentBytes) return;
  Throw(result::kInvalidArg,
        "The snapshot document would take up to %I64u bytes, more than the %I64u a snapshot document may have: "
        "choose a larger hash block size",
        bound, kMaxSnapshotDocumentBytes);
}

void Commit(Snapshot& snapshot, Snapshot& built) {
  snapshot.entries = std::move(built.entries);
  snapshot.blockSize = built.blockSize;
  snapshot.declaredBlockSize = built.declaredBlockSize;
  snapshot.totalBlocks = built.totalBlocks;
  snapshot.hasUnhashedFiles = built.hasUnhashedFiles;
}

}  // namespace

void BuildSnapshotFromFolder(const fs::path& folder, const SnapshotBuildOptions& options, Snapshot& snapshot) {
  if (options.blockSize == 0) Throw(result::kInvalidArg, "The hash block size must not be 0");
  std::error_code ec;
  fs::path root = fs::canonical(folder, ec);
  if (ec) ThrowFileError(ec.value(), "open the folder", folder);
  if (!fs::is_directory(root)) Throw(result::kPathNotFound, "'%ls' is not a folder", folder.string());

  FolderWalk walk(root, options);
  walk.Walk(root, std::string());
  Snapshot built;
  built.entries = std::move(walk.entries());
  CheckComposedSize(built.entries, options, root);
  if (options.computeHashes) {
    HashFiles(walk.jobs(), built.entries, options);
    CheckComposedSize(built.entries, options, root);
  } else {
    built.hasUnhashedFiles = !walk.jobs().empty();
  }
  built.blockSize = options.blockSize;
  built.declaredBlockSize = options.blockSize;
  Snapshot::Totals totals = built.OrderEntries();
  if (totals.tooManyBlocks) Throw(result::kInvalidArg, "The folder holds too many hash blocks");
  CheckNoCaseTwins(totals);
  Commit(snapshot, built);
}

void SetEntriesFromListing(std::span<const ListedItem> items, Snapshot& snapshot) {
  Snapshot built;
  std::set<std::string, LessNoCase> folders;
  auto addFolderChain = [&](std::string_view folder) {
    // The folder and each folder above it, once each.
    while (!folder.empty() && folders.insert(std::string(folder)).second) {
      size_t cut = folder.rfind('\\');
      folder = cut == std::string_view::npos ? std::string_view() : folder.substr(0, cut);
    }
  };
  for (const ListedItem& item : items) {
    if (item.relativePath.empty() || !IsSafeRelativePath(item.relativePath) || !IsValidUtf8(item.relativePath)) {
      Throw(result::kInvalidArg, "Unsafe path '%ls'", PrintableName(item.relativePath));
    }
    if (item.isDirectory) {
      addFolderChain(item.relativePath);
      continue;
    }
    size_t cut = item.relativePath.rfind('\\');
    SnapshotEntry& entry = built.entries.emplace_back();
    entry.folder = cut == std::string::npos ? std::string() : item.relativePath.substr(0, cut);
    entry.name = cut == std::string::npos ? item.relativePath : item.relativePath.substr(cut + 1);
    entry.size = item.size < 0 ? -1 : item.size;
    entry.lastModified = item.lastModified;
    addFolderChain(entry.folder);
    built.hasUnhashedFiles = true;
  }
  for (const std::string& folder : folders) {
    SnapshotEntry& entry = built.entries.emplace_back();
    entry.folder = folder;
    entry.size = 0;
  }
  built.blockSize = snapshot.blockSize;
  built.declaredBlockSize = snapshot.declaredBlockSize;
  Snapshot::Totals totals = built.OrderEntries();
  if (totals.tooManyBlocks) Throw(result::kInvalidArg, "The listing holds too many hash blocks");
  CheckNoCaseTwins(totals);
  Commit(snapshot, built);
}

}  // namespace pkgdlv
