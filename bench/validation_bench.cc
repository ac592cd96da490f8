// Validation speed against reference runs in the same process.
//
// 1. Full validation (every block of every file hashed and compared) of a
//    1 GiB package (64 x 16 MiB, page cache warm) against `openssl dgst
//    -sha256` over the same files. Target: at least 0.85 of its throughput.
// 2. The update list of an unchanged package of 10,000 small files with
//    hashing skipped, against a plain stat() of each file. Both printed.
//
// Usage: bench_validation_bench. Each figure is the best of three runs after
// an untimed warm-up run.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <random>
#include <string>

#include "bench_util.h"
#include "snapshot/snapshot_builder.h"
#include "snapshot/validation.h"
#include "util/atomic_file.h"
#include "util/format.h"
#include "util/safe_path.h"

namespace fs = std::filesystem;
using namespace pkgdlv;

namespace {

using bench::BestOfThree;

// A snapshot of folder as the engine holds it: composed, loaded again from
// its document (block hashes read from the text when needed).
Snapshot LoadedSnapshotOf(const fs::path& folder) {
  Snapshot built;
  BuildSnapshotFromFolder(folder, SnapshotBuildOptions{}, built);
  built.id = Guid::Generate();
  Snapshot snapshot;
  if (!snapshot.LoadXml(built.ComposeXml())) throw std::runtime_error("snapshot does not load");
  snapshot.path = folder.string();
  return snapshot;
}

void WriteRandomFile(const fs::path& path, size_t size, std::mt19937_64& random) {
  std::vector<uint8_t> data(size);
  for (size_t i = 0; i + 8 <= size; i += 8) {
    uint64_t value = random();
    std::memcpy(data.data() + i, &value, 8);
  }
  WriteFileAtomically(path, data);
}

void FullValidation(const fs::path& root) {
  constexpr int kFiles = 64;
  constexpr size_t kFileSize = 16u << 20;
  fs::path folder = root / "large";
  std::mt19937_64 random(42);
  std::string files;
  for (int i = 0; i < kFiles; ++i) {
    fs::path file = folder / Format("file%d.bin", i);
    fs::create_directories(folder);
    WriteRandomFile(file, kFileSize, random);
    files += " '" + file.string() + "'";
  }
  Snapshot snapshot = LoadedSnapshotOf(folder);
  Validator validator;
  UpdateListOptions options;
  options.forceHash = true;
  size_t listed = 0;
  double ours = BestOfThree([&] {
    Snapshot list;
    validator.GetUpdateList(snapshot, list, nullptr, options);
    listed = list.entries.size();
  });
  std::string command = "openssl dgst -sha256" + files + " > /dev/null";
  double reference = BestOfThree([&] { bench::System(command); });
  double gib = kFiles * static_cast<double>(kFileSize) / (1u << 30);
  std::cout << "full validation of 1 GiB: " << ours << " s (" << gib / ours << " GiB/s), files listed: " << listed
            << "\nopenssl dgst -sha256:     " << reference << " s (" << gib / reference << " GiB/s)\n"
            << "throughput ratio: " << reference / ours << " (target >= 0.85)\n";
}

void UnchangedManyFiles(const fs::path& root) {
  constexpr int kFolders = 100, kPerFolder = 100;
  fs::path folder = root / "many";
  std::vector<fs::path> paths;
  for (int f = 0; f < kFolders; ++f) {
    for (int i = 0; i < kPerFolder; ++i) {
      fs::path file = folder / Format("dir%d", f) / Format("f%d.txt", i);
      fs::create_directories(file.parent_path());
      WriteFileAtomically(file, std::string(100 + i, 'x'));
      paths.push_back(file);
    }
  }
  Snapshot snapshot = LoadedSnapshotOf(folder);
  // The document keeps whole seconds; the files get the same times.
  for (const SnapshotEntry& entry : snapshot.entries) {
    if (!entry.IsFile()) continue;
    timespec times[2] = {TimespecFromFileTime(entry.lastModified), TimespecFromFileTime(entry.lastModified)};
    ::utimensat(AT_FDCWD, EntryPath(snapshot, entry).c_str(), times, 0);
  }
  Validator validator;
  UpdateListOptions options;
  options.skipHash = true;
  size_t listed = 0;
  double ours = BestOfThree([&] {
    Snapshot list;
    validator.GetUpdateList(snapshot, list, nullptr, options);
    listed = list.entries.size();
  });
  size_t present = 0;
  double reference = BestOfThree([&] {
    present = 0;
    struct stat info {};
    for (const fs::path& path : paths) present += ::stat(path.c_str(), &info) == 0;
  });
  std::cout << "update list of 10,000 unchanged files, hashing skipped: " << ours * 1000 << " ms (listed " << listed
            << ")\nplain stat of each file: " << reference * 1000 << " ms (" << present << " present)\n"
            << "ratio: " << ours / reference << "\n";
}

}  // namespace

int main() {
  try {
    bench::TempFolder root("pkgdlv-validation-bench");
    FullValidation(root.path());
    UnchangedManyFiles(root.path());
  } catch (const std::exception& e) {
    std::cerr << "bench_validation_bench: " << e.what() << '\n';
    return 1;
  }
  return 0;
}
