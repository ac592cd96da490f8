// One entry of the update list: a folder is created; a file is opened in
// place and walked block by block (skip what the local map has, wait for a
// peer that is not ready yet, request the range, verify, write, mark), then
// cut to its size and given the snapshot's time.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <span>

#include "agent/clock.h"
#include "snapshot/snapshot.h"
#include "transport/block_download.h"
#include "transport/block_download_internal.h"
#include "transport/block_writer.h"
#include "transport/download_events.h"
#include "transport/location.h"
#include "transport/package_download.h"
#include "util/safe_path.h"
#include "util/strings.h"
#include "util/unique_fd.h"

namespace pkgdlv {

namespace fs = std::filesystem;
using blockdownload::BlockLength;
using blockdownload::Fail;
using blockdownload::FailErrno;
using blockdownload::kLog;
using blockdownload::PresentBytes;
using blockdownload::SourceOf;

namespace {

// The entry's place below the package folder. A name from the server never
// leads outside it: the path is resolved lexically inside the folder, and no
// folder on the way may be a symbolic link (the file itself is opened
// without following one).
fs::path SafeTarget(const Snapshot& snapshot, const SnapshotEntry& entry) {
  const fs::path root = snapshot.path;
  const fs::path path = ResolveInside(root, entry.RelativePath());
  fs::path walked = root;
  const fs::path relative = path.lexically_relative(root);
  for (auto it = relative.begin(); it != relative.end(); ++it) {
    if (std::next(it) == relative.end() && entry.IsFile()) break;
    walked /= *it;
    struct stat info {};
    if (::lstat(walked.c_str(), &info) == 0 && S_ISLNK(info.st_mode)) {
      Throw(result::kInvalidArg, "Unsafe path '%ls': '%ls' is a symbolic link", PrintableName(entry.RelativePath()),
            walked.string());
    }
  }
  return path;
}

bool HoldsFiles(const Snapshot& snapshot, const std::string& folder) {
  return std::any_of(snapshot.entries.begin(), snapshot.entries.end(), [&](const SnapshotEntry& entry) {
    return entry.IsFile() && (EqualsNoCase(entry.folder, folder) ||
                              (entry.folder.size() > folder.size() && entry.folder[folder.size()] == '\\' &&
                               StartsWithNoCase(entry.folder, folder)));
  });
}

}  // namespace

struct BlockDownload::FileRun {
  const SnapshotEntry& listed;  // the update list's entry
  SnapshotEntry* held;          // the snapshot's own entry, which holds the block hashes; may be null
  fs::path path;
  std::string pathText;
  std::string source;   // stored location at the source; a changed URL replaces it for this file
  std::string wireUrl;  // what the transport asks for source, to tell a changed URL from it
  UniqueFd file;
  uint64_t size = 0;
  uint64_t done = 0;  // bytes of the file present so far
  bool downloadedBlock = false;

  const SnapshotEntry& entry() const { return held && !held->blockHashes.empty() ? *held : listed; }
};

void BlockDownload::DownloadEntry(const AttemptInput& input, const SnapshotEntry& entry) {
  Logger& log = download_.log();
  if (entry.IsFolder()) {
    CreateFolder(input, entry);
    return;
  }
  FileRun run{entry, input.snapshot->FindEntry(entry.folder, entry.name), {}, {}, {}, {}, {}, 0, 0, false};
  try {
    run.path = SafeTarget(*input.snapshot, entry);
  } catch (const Error& e) {
    Fail(log, loglevel::kError, e.code(), "%ls", e.description());
  }
  run.pathText = run.path.string();
  RaiseBeginFile(events_, log, packageId_, run.pathText);
  Result code = result::kOk;
  try {
    DownloadFile(input, run);
  } catch (...) {
    code = CurrentFailure().code;
    run.file.Reset();
    RaiseEndFile(events_, log, packageId_, run.pathText, static_cast<int32_t>(code));
    if (run.held) std::vector<uint8_t>().swap(run.held->blockHashes);
    throw;
  }
  run.file.Reset();
  RaiseEndFile(events_, log, packageId_, run.pathText, 0);
  if (run.held) std::vector<uint8_t>().swap(run.held->blockHashes);
}

void BlockDownload::CreateFolder(const AttemptInput& input, const SnapshotEntry& entry) {
  Logger& log = download_.log();
  fs::path path;
  try {
    path = SafeTarget(*input.snapshot, entry);
  } catch (const Error& e) {
    Fail(log, loglevel::kError, e.code(), "%ls", e.description());
  }
  std::error_code ec;
  fs::create_directories(path, ec);
  if (ec) FailErrno(log, ec.value(), "Failed to create directory '%ls'", path.string());
  if (!HoldsFiles(*input.snapshot, entry.folder)) {
    log.Log(loglevel::kTrace, kLog, "Empty directory '%ls' has been created", path.string());
  }
}

void BlockDownload::DownloadFile(const AttemptInput& input, FileRun& run) {
  Logger& log = download_.log();
  const SnapshotEntry& entry = run.entry();
  if (entry.size < 0) {
    Fail(log, loglevel::kError, result::kInvalidData, "Failed to download file '%ls', its size is not known",
         run.pathText);
  }
  run.size = static_cast<uint64_t>(entry.size);
  run.source = SourceOf(input.sourceUrl, entry);
  run.wireUrl = ConvertLocation(run.source).url;

  std::error_code ec;
  fs::create_directories(run.path.parent_path(), ec);
  if (ec) FailErrno(log, ec.value(), "Failed to create directory '%ls'", run.path.parent_path().string());
  run.file.Reset(::open(run.path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644));
  if (run.file.get() < 0) FailErrno(log, errno, "Failed to open the target file '%ls'", run.pathText);

  const Snapshot& snapshot = *input.snapshot;
  const DynamicBitset& local = *input.localMap;
  const uint32_t fileBlocks = static_cast<uint32_t>(entry.BlockCount(snapshot.blockSize));
  log.Log(loglevel::kTrace, kLog,
          "Downloading '%ls' from '%ls', size %I64u, in cache %I64u, total file blocks %u, blocks position %u/%u, "
          "local blocks: %u/%u, server blocks: %u/%u, value rank on server: %x",
          run.pathText, run.source, run.size, PresentBytes(entry, snapshot.blockSize, local), fileBlocks,
          entry.firstBlock, snapshot.totalBlocks, local.Count(), local.size(),
          input.serverMap ? input.serverMap->Count() : 0u, input.serverMap ? input.serverMap->size() : 0u,
          // The peer coordination of this agent ranks no source; 0 says so.
          0u);
  RaiseBeginTransfer(events_, log, packageId_, run.pathText);
  if (run.size == 0) log.Log(loglevel::kTrace, kLog, "Empty file '%ls' has been created", run.pathText);
  RaiseProgress(run);
  RunBlockLoop(input, run);
  FinishFile(run);
}

void BlockDownload::RunBlockLoop(const AttemptInput& input, FileRun& run) {
  writer_->Begin({run.file.get(), input.snapshot, &run.entry(), run.pathText});
  try {
    WalkBlocks(input, run);
  } catch (...) {
    // The blocks in the writer's hands were received before this failure:
    // they are still written and marked, and a failure of theirs, an
    // earlier one in the file, takes precedence.
    CollectBlocks(input, run);
    throw;
  }
  CollectBlocks(input, run);
}

void BlockDownload::WalkBlocks(const AttemptInput& input, FileRun& run) {
  Logger& log = download_.log();
  const Snapshot& snapshot = *input.snapshot;
  const SnapshotEntry& entry = run.entry();
  const DynamicBitset& local = *input.localMap;
  const uint32_t blockSize = snapshot.blockSize;
  uint64_t offset = 0;
  for (uint32_t index = 0; offset < run.size; ++index) {
    if (Cancelled()) ThrowCancelled(loglevel::kError);
    if (input.peer && Tick() - lastConfigTick_ > uint64_t{progressIntervalSeconds_} * 1000) {
      ReadPeerConfiguration(input, true);
    }
    const uint32_t length = BlockLength(run.size, blockSize, index);
    const uint32_t bit = entry.firstBlock + index;
    if (local.Check(bit)) {
      log.Log(loglevel::kDebug, kLog, "Skip locally existing block %u (%u/%u) of file '%ls'", index, bit + 1,
              snapshot.totalBlocks, run.pathText);
      run.done += length;
      offset += length;
      continue;
    }

    // A peer may be waited for only once it has shown that it serves this
    // file; with its block map, only for a block the map says it lacks.
    uint32_t waitSeconds = 0;
    bool mayWait = run.downloadedBlock;
    if (input.serverMap) {
      mayWait = mayWait && !input.serverMap->Check(bit) && (input.waitForPeerMode & 0xF) == 2;
      waitSeconds = progressIntervalSeconds_;
    } else {
      waitSeconds = kUnmappedPeerIntervalSeconds;
    }
    const uint32_t waitMs = !mayWait ? 0 : waitSeconds != 0 ? waitSeconds * 1000 : kDefaultPeerWaitMs;

    log.Log(loglevel::kDebug, kLog, "Requesting block %I64u-%I64u, block %u (%u/%u) of file '%ls'", offset,
            offset + length - 1, index, bit + 1, snapshot.totalBlocks, run.pathText);
    const BlockWriter::Block block{index, offset, length};
    const uint64_t received = RequestBlock(input, run, block, waitMs);
    if (received < length) {
      Fail(log, loglevel::kError, blockresult::kShortBlock, "Failed to write to file '%ls', not enough data",
           run.pathText);
    }
    run.downloadedBlock = true;
    offset += length;
    writer_->Submit();
  }
}

void BlockDownload::CollectBlocks(const AttemptInput& input, FileRun& run) {
  while (CollectBlock(input, run)) {
  }
}

bool BlockDownload::CollectBlock(const AttemptInput& input, FileRun& run) {
  const std::optional<BlockWriter::Block> block = writer_->Collect();
  if (!block) return false;
  input.localMap->Set(run.entry().firstBlock + block->index, true);
  stats_.downloaded += block->length;
  transferred_ += block->length;
  run.done += block->length;
  if (input.storeProgressSeconds != 0 && Tick() - lastStoreTick_ > uint64_t{input.storeProgressSeconds} * 1000) {
    StoreMap(*input.localMap);
  }
  if (Tick() - lastProgressTick_ > kProgressEventIntervalMs) RaiseProgress(run);
  return true;
}

uint64_t BlockDownload::RequestBlock(const AttemptInput& input, FileRun& run, const BlockWriter::Block& block,
                                     uint32_t waitMs) {
  Logger& log = download_.log();
  NetworkTransport& transport = download_.transport();
  // The file's last block is checked and written at once: nothing is left
  // to overlap it.
  const auto handling = block.offset + block.length >= run.size ? BlockWriter::Handling::kNow
                                                                : BlockWriter::Handling::kInBackground;
  const NetworkTransport::ByteSink sink = [this](std::span<const uint8_t> bytes) { writer_->Append(bytes); };
  std::optional<uint64_t> firstNotReady;
  while (true) {
    // Each try starts the block afresh. The blocks before the last two are
    // written by then and are marked (a failure of theirs ends the file);
    // the last two are left for later blocks, so that what is marked when
    // does not depend on the disk's speed.
    writer_->Receive(block, handling);
    while (writer_->InHand() > BlockWriter::kUnsettled) CollectBlock(input, run);
    try {
      RangeResult range = transport.DownloadRange(run.source, block.offset, block.length, sink);
      // A source that moved (a redirect) is asked directly for the rest of
      // this file; the next file starts again from the source given.
      if (!range.effectiveUrl.empty() && range.effectiveUrl != run.wireUrl &&
          (StartsWithNoCase(range.effectiveUrl, "http://") || StartsWithNoCase(range.effectiveUrl, "https://"))) {
        run.source = range.effectiveUrl;
        run.wireUrl = ConvertLocation(run.source).url;
      }
      return range.received;
    } catch (const Error& e) {
      if (Cancelled()) ThrowCancelled(loglevel::kWarning);
      const bool blocksNotReady = e.code() == result::kPeerBlocksNotReady;
      const bool notReady = blocksNotReady || e.code() == result::kPeerFilesNotReady;
      if (!notReady || waitMs == 0) {
        log.Log(loglevel::kError, kLog, "%ls (0x%08X)", e.description(), e.code());
        throw;
      }
      // What arrived so far is marked before a wait that may take minutes.
      CollectBlocks(input, run);
      const uint64_t now = Tick();
      if (!firstNotReady) firstNotReady = now;
      // An exhausted wait ends the file as a cancellation, not as a server
      // error: the peer is not at fault for blocks it has not received yet.
      if (now - *firstNotReady >= uint64_t{waitMs} * 2) {
        log.Log(loglevel::kTrace, kLog, "Wait limit of '%d' seconds is exceeded.", static_cast<int>(waitMs * 2 / 1000));
        ThrowCancelled(loglevel::kWarning);
      }
      log.Log(loglevel::kTrace, kLog, "Wait '%d' seconds for required %ls to become ready...",
              static_cast<int>(waitMs / 4000), blocksNotReady ? "blocks" : "files");
      if (download_.services().clock->WaitFor(transport.CancellationEvent(), waitMs / 4)) {
        ThrowCancelled(loglevel::kWarning);
      }
    }
  }
}

void BlockDownload::FinishFile(FileRun& run) {
  Logger& log = download_.log();
  const int fd = run.file.get();
  if (::lseek(fd, static_cast<off_t>(run.size), SEEK_SET) < 0) {
    FailErrno(log, errno, "Failed to write to file '%ls', failed to change the position to %I64u", run.pathText,
              run.size);
  }
  if (::ftruncate(fd, static_cast<off_t>(run.size)) != 0) {
    FailErrno(log, errno, "Failed to set end of file '%ls'", run.pathText);
  }
  // Linux keeps no creation time; access and write times take the snapshot's.
  const FileTime time = run.entry().lastModified;
  if (time != 0) {
    const timespec times[2] = {TimespecFromFileTime(time), TimespecFromFileTime(time)};
    if (::futimens(fd, times) != 0)
      log.Log(loglevel::kWarning, kLog, "Failed to set file time for '%ls'", run.pathText);
  }
  RaiseProgress(run);
}

void BlockDownload::RaiseProgress(const FileRun& run) {
  lastProgressTick_ = Tick();
  const uint64_t packageDone = std::min(stats_.packageSize, stats_.cacheBytes + stats_.downloaded);
  pkgdlv::RaiseProgress(events_, download_.log(), packageId_, stats_.packageSize, packageDone, run.size, run.done);
}

}  // namespace pkgdlv
