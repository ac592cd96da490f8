// A package for the block download tests, made at run time: its files in a
// source folder, its snapshot (4096-byte blocks, so a few kilobytes make
// several blocks) loaded from the composed document as the engine holds it,
// and an empty target folder; and a runner that computes the update list as
// the engine does and runs one attempt, recording the last file's end and stored maps.
#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "records/package_request.h"
#include "snapshot/snapshot_builder.h"
#include "snapshot/validation.h"
#include "support/temp_dir.h"
#include "support/test_util.h"
#include "transport/block_download.h"
#include "transport/download_events.h"
#include "transport/package_download.h"
#include "util/format.h"

namespace pkgdlv::testing {

inline constexpr uint32_t kBlock = 4096;
inline constexpr const char* kBlockPackageId = "{5B1D0C9E-3A2F-4E6D-8C7B-9A0F1E2D3C4B}";

// A document path ("sub\b.txt") as a URL path ("sub/b.txt").
inline std::string UrlPath(std::string path) {
  for (char& c : path) c = c == '\\' ? '/' : c;
  return path;
}

class BlockPackage {
 public:
  using Files = std::vector<std::pair<std::string, std::string>>;  // document path, content

  explicit BlockPackage(Files files) : files_(std::move(files)) {
    for (const auto& [path, content] : files_) WriteFile(source / UrlPath(path), content);
    Snapshot built;
    SnapshotBuildOptions options;
    options.blockSize = kBlock;
    BuildSnapshotFromFolder(source, options, built);
    built.id = *Guid::Parse(kBlockPackageId);
    built.time = FileTimeFromUnixSeconds(1700000000);
    if (!snapshot.LoadXml(built.ComposeXml())) throw std::runtime_error("the composed snapshot does not load");
    snapshot.path = target.string();
  }

  const Files& files() const { return files_; }
  std::string Content(const std::string& path) const {
    for (const auto& [name, content] : files_) {
      if (name == path) return content;
    }
    throw std::runtime_error("no file " + path);
  }
  const SnapshotEntry& Entry(const std::string& path) const {
    for (const SnapshotEntry& entry : snapshot.entries) {
      if (entry.IsFile() && entry.RelativePath() == path) return entry;
    }
    throw std::runtime_error("no entry " + path);
  }
  // The package's block numbers of a file whose bits are set in map.
  std::vector<uint32_t> BitsOf(const std::string& path, const DynamicBitset& map) const {
    const SnapshotEntry& entry = Entry(path);
    std::vector<uint32_t> bits;
    for (uint32_t i = 0; i < entry.BlockCount(kBlock); ++i) {
      if (map.Check(entry.firstBlock + i)) bits.push_back(i);
    }
    return bits;
  }

  TempDir dir;
  std::filesystem::path source = dir / "source";
  std::filesystem::path target = dir / "target";
  Snapshot snapshot;

 private:
  Files files_;
};

// Keeps the end of the last file as "end <name> <result>" (the target's file name).
class EventLog final : public DownloadEvents {
 public:
  void OnBeginFile(const Guid&, const std::string&) override {}
  void OnBeginTransfer(const Guid&, const std::string&) override {}
  void OnProgress(const Guid&, uint64_t, uint64_t, uint64_t, uint64_t) override {}
  void OnEndFile(const Guid&, const std::string& path, int32_t result) override {
    std::lock_guard lock(mutex_);
    lastEnd_ = Format("end %ls 0x%08X", std::filesystem::path(path).filename().string(), result);
  }
  std::string LastEnd() {
    std::lock_guard lock(mutex_);
    return lastEnd_;
  }

 private:
  std::mutex mutex_;
  std::string lastEnd_;
};

class AttemptRunner {
 public:
  AttemptRunner(const AgentServices& services, BlockPackage& package)
      : download(services),
        record(services),
        blocks(download, services.site_limits, &events, [this](const DynamicBitset& map) { stored.push_back(map); }),
        package_(package) {
    record.SetId(*Guid::Parse(kBlockPackageId));
    record.name = "Demo";
  }

  // Computes the update list and the local map of the target folder, lets
  // adjust change the input (and them), and runs one attempt.
  Result Run(const std::string& source, const std::function<void(AttemptInput&)>& adjust = {}) {
    Validator validator;
    validator.GetUpdateList(package_.snapshot, updateList, &map, {});
    AttemptInput input;
    input.package = &record;
    input.snapshot = &package_.snapshot;
    input.updateList = &updateList;
    input.localMap = &map;
    input.sourceUrl = source;
    if (adjust) adjust(input);
    return blocks.DownloadAttempt(input);
  }

  PackageDownload download;
  PackageRequest record;
  EventLog events;
  BlockDownload blocks;
  std::vector<DynamicBitset> stored;
  Snapshot updateList;
  DynamicBitset map;

 private:
  BlockPackage& package_;
};

}  // namespace pkgdlv::testing
