// A package folder on disk and its snapshot document, made at run time, for
// the validator and file operation tests.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <string>

#include "snapshot/snapshot_builder.h"
#include "snapshot/validation.h"
#include "snapshot_test_support.h"
#include "support/temp_dir.h"

namespace pkgdlv::testing {

inline constexpr uint32_t kSmallBlock = 4096;  // a file-system block, so holes line up with hash blocks

inline std::string Pattern(size_t size, int seed) {
  std::string data(size, '\0');
  for (size_t i = 0; i < size; ++i) data[i] = static_cast<char>(seed + i * 7 + i / 4096);
  return data;
}

// Sets a file's last-write time to a whole-second file time.
inline void SetFileTime(const std::filesystem::path& path, FileTime time) {
  timespec times[2] = {TimespecFromFileTime(time), TimespecFromFileTime(time)};
  ::utimensat(AT_FDCWD, path.c_str(), times, 0);
}

// "big.bin" (40 blocks), "sub\small.txt" (100 bytes), "empty.dat" (0 bytes)
// in package/, and the snapshot loaded from its composed document, as the
// engine would hold it.
struct PackageFixture {
  TempDir dir;
  std::filesystem::path folder = dir / "package";
  std::string big = Pattern(40 * kSmallBlock, 3);
  std::string small = Pattern(100, 9);
  LoggedSnapshot loaded;
  Snapshot& snapshot = loaded.snapshot;
  RecordingLogger& log = *loaded.log;

  PackageFixture() {
    WriteFile(folder / "big.bin", big);
    WriteFile(folder / "sub" / "small.txt", small);
    WriteFile(folder / "empty.dat", "");
    Snapshot built;
    SnapshotBuildOptions options;
    options.blockSize = kSmallBlock;
    BuildSnapshotFromFolder(folder, options, built);
    built.id = *Guid::Parse(kTestId);
    built.time = FileTimeFromUnixSeconds(1700000000);
    if (!snapshot.LoadXml(built.ComposeXml())) throw std::runtime_error("the composed snapshot does not load");
    snapshot.path = folder.string();
    // Files on disk carry exactly the (whole-second) times of the document.
    for (const SnapshotEntry& entry : snapshot.entries) {
      if (entry.IsFile()) SetFileTime(EntryPath(snapshot, entry), entry.lastModified);
    }
    log.Clear();
  }

  std::filesystem::path PathOf(std::string_view name) const { return folder / name; }
  SnapshotEntry& Entry(std::string_view folderName, std::string_view name) {
    return *snapshot.FindEntry(folderName, name);
  }
};

}  // namespace pkgdlv::testing
