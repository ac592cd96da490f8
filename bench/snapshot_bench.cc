// Snapshot speed against reference tools run in the same process.
//
// 1. Loading a snapshot of 100,000 files with block hashes (tree pass and
//    streaming pass, from the file's bytes) against `xmllint --stream
//    --noout` over the same file. Target: at most 2.0 times its time.
// 2. `pkgdlv snapshot create` over 1 GiB of files (64 x 16 MiB, page cache
//    warm) against `openssl dgst -sha256` over the same files. Target: at
//    least 0.45 of its throughput.
//
// Usage: bench_snapshot [PKGDLV_TOOL] (default: pkgdlv beside this program).
// Each figure is the best of three runs after a warm-up run.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <random>
#include <string>

#include "bench_util.h"
#include "snapshot/snapshot.h"
#include "util/atomic_file.h"
#include "util/filetime.h"

namespace fs = std::filesystem;
using namespace pkgdlv;

namespace {

using bench::BestOfThree;
using bench::System;
using bench::TempFolder;

std::string ReadText(const fs::path& path) {
  std::string text(fs::file_size(path), '\0');
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (!file || std::fread(text.data(), 1, text.size(), file) != text.size()) std::exit(1);
  std::fclose(file);
  return text;
}

// 100,000 files in 1,000 folders (ten top folders of 99 subfolders each plus
// themselves), each file 1 to 3 blocks long, with whole-file and block hashes.
std::string GenerateDocument() {
  std::mt19937_64 rng(7);
  Snapshot snapshot;
  snapshot.id = *Guid::Parse("{8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6B}");
  snapshot.version = 12;
  snapshot.time = SystemFileTimeNow();
  snapshot.path = "/var/lib/pkgdlv/Package Delivery/{8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6B}";
  const FileTime modified = *ParseDocumentTime("2024-05-06 07:08:09");
  for (int top = 0; top < 10; ++top) {
    for (int sub = 0; sub < 100; ++sub) {
      std::string folder = "Component " + std::to_string(top);
      if (sub > 0) folder += "\\Module " + std::to_string(sub);
      SnapshotEntry& entry = snapshot.entries.emplace_back();
      entry.folder = folder;
      entry.size = 0;
      for (int f = 0; f < 100; ++f) {
        SnapshotEntry& file = snapshot.entries.emplace_back();
        file.folder = folder;
        file.name = "file_" + std::to_string(f) + ".dat";
        file.size = static_cast<int64_t>(rng() % (3ull * kDefaultBlockSize)) + 1;
        file.lastModified = modified;
        file.blockHashes.resize(file.BlockCount(kDefaultBlockSize) * kBlockHashSize);
        for (uint8_t& b : file.blockHashes) b = static_cast<uint8_t>(rng());
        file.fileHash = "q2lN0Yk4yYyGsDpA0q6bUJw0l3XyWc9oq9xv7c0d4ZY=";
      }
    }
  }
  snapshot.OrderEntries();
  return snapshot.ComposeDocumentFile();
}

void LoadBenchmark() {
  TempFolder temp;
  const fs::path file = temp.path() / "snapshot.xml";
  WriteFileAtomically(file, GenerateDocument());
  std::cout << "snapshot document: 100000 files, " << fs::file_size(file) / (1024 * 1024) << " MiB\n";

  double ours = BestOfThree([&] {
    Snapshot snapshot;
    if (!snapshot.LoadXml(ReadText(file)) || !snapshot.LoadBlockHashes() || snapshot.entries.size() != 101'000) {
      std::cerr << "the generated snapshot did not load\n";
      std::exit(1);
    }
  });
  double reference = BestOfThree([&] { System("xmllint --stream --noout '" + file.string() + "'"); });
  double ratio = ours / reference;
  std::printf("load (tree + block hashes): %.3f s\n", ours);
  std::printf("xmllint --stream --noout:   %.3f s\n", reference);
  std::printf("ratio: %.2f (target <= 2.0) %s\n\n", ratio, ratio <= 2.0 ? "OK" : "MISSED");
}

void CreateBenchmark(const fs::path& tool) {
  constexpr int kFiles = 64;
  constexpr size_t kFileSize = 16 << 20;
  TempFolder temp;
  const fs::path package = temp.path() / "package";
  fs::create_directories(package);
  std::mt19937_64 rng(11);
  std::vector<uint8_t> data(kFileSize);
  std::string fileList;
  for (int i = 0; i < kFiles; ++i) {
    for (size_t k = 0; k + 8 <= data.size(); k += 8) {
      uint64_t v = rng();
      std::memcpy(&data[k], &v, 8);
    }
    fs::path path = package / ("part" + std::to_string(i) + ".bin");
    WriteFileAtomically(path, data);
    fileList += " '" + path.string() + "'";
  }
  System("cat" + fileList + " > /dev/null");  // warm the page cache

  const double mebibytes = kFiles * (kFileSize / (1024.0 * 1024.0));
  double ours = BestOfThree([&] {
    System("'" + tool.string() + "' snapshot create '" + package.string() +
           "' --id {8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6B} --version 1 --out '" + (temp.path() / "out").string() +
           "' > /dev/null");
  });
  double reference = BestOfThree([&] { System("openssl dgst -sha256" + fileList + " > /dev/null"); });
  double ratio = (mebibytes / ours) / (mebibytes / reference);
  std::printf("pkgdlv snapshot create:  %.0f MB/s (%.3f s for %.0f MiB)\n", mebibytes / ours, ours, mebibytes);
  std::printf("openssl dgst -sha256:    %.0f MB/s (%.3f s)\n", mebibytes / reference, reference);
  std::printf("ratio: %.2f (target >= 0.45) %s\n", ratio, ratio >= 0.45 ? "OK" : "MISSED");
}

}  // namespace

int main(int argc, char** argv) {
  fs::path tool = argc > 1 ? fs::path(argv[1]) : fs::read_symlink("/proc/self/exe").parent_path() / "pkgdlv";
  if (!fs::exists(tool)) {
    std::cerr << "pkgdlv tool not found at " << tool << " (build target pkgdlv_cli or pass its path)\n";
    return 1;
  }
  try {
    LoadBenchmark();
    CreateBenchmark(tool);
  } catch (const std::exception& e) {
    std::cerr << "bench_snapshot_bench: " << e.what() << "\n";
    return 1;
  }
  return 0;
}
