// Throughput of the compressed data frame against plain zlib at level 1, on
// the same 64 MiB in the same process: zlib over the same 64 KiB slices
// (compress2 / uncompress per slice) and over the whole buffer as one stream.
// Figures are MB/s of uncompressed data over the thread's CPU time (the
// machine is shared, so wall time says more about the neighbours than about
// the code), best of three interleaved rounds; the wall-clock ratios are
// printed too.
#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <vector>

#include "agent/logger.h"
#include "bench_util.h"
#include "util/compressed_frame.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr size_t kDataSize = 64u << 20;
constexpr size_t kSlice = 0x10000;
constexpr int kLevel = 1;
constexpr int kRounds = 3;
constexpr double kTarget = 0.9;

// Text-like stretches (a package listing: tags, names, numbers) mixed with
// random stretches (already compressed content), about one part in four.
Bytes MakeData() {
  static const char* const words[] = {"<file name=\"", "setup",       ".msi\" ",  "size=\"",    "\" lastModified=\"",
                                      "blockHash=\"",  "\"/>\r\n",    "<folder ", "data\\bin\\", "version=\"",
                                      "package ",      "delivery ",   "server ",  "snapshot ",  "2026-01-01T00:00:00"};
  std::mt19937_64 rng(20260101);
  Bytes data(kDataSize);
  size_t i = 0;
  while (i < data.size()) {
    const bool random_stretch = rng() % 4 == 0;
    const size_t end = std::min(data.size(), i + 512 + rng() % 4096);
    while (i < end) {
      if (random_stretch) {
        data[i++] = static_cast<uint8_t>(rng());
        continue;
      }
      for (const char* w = words[rng() % std::size(words)]; *w && i < end; ++w) data[i++] = static_cast<uint8_t>(*w);
      if (i < end && rng() % 2) data[i++] = static_cast<uint8_t>('0' + rng() % 10);
    }
  }
  return data;
}

using pkgdlv::bench::ThreadSeconds;
using pkgdlv::bench::WallSeconds;

// Runs `body` after `prepare` (not timed) and keeps the best times.
struct Timer {
  double best_cpu = 1e30;
  double best_wall = 1e30;
  void Run(const std::function<void()>& prepare, const std::function<void()>& body) {
    prepare();
    const double cpu = ThreadSeconds(), wall = WallSeconds();
    body();
    best_cpu = std::min(best_cpu, ThreadSeconds() - cpu);
    best_wall = std::min(best_wall, WallSeconds() - wall);
  }
  double MegabytesPerSecond() const { return kDataSize / best_cpu / 1e6; }
  double WallMegabytesPerSecond() const { return kDataSize / best_wall / 1e6; }
};

void Check(bool ok, const char* what) {
  if (!ok) {
    std::fprintf(stderr, "frame_bench: %s\n", what);
    std::exit(1);
  }
}

const char* Verdict(double ratio) { return ratio >= kTarget ? "ok   " : "BELOW"; }

void PrintRow(const char* name, const Timer& ours, const Timer& chunked, const Timer& whole) {
  const double vs_chunked = ours.MegabytesPerSecond() / chunked.MegabytesPerSecond();
  const double vs_whole = ours.MegabytesPerSecond() / whole.MegabytesPerSecond();
  const double wall_vs_chunked = ours.WallMegabytesPerSecond() / chunked.WallMegabytesPerSecond();
  const double wall_vs_whole = ours.WallMegabytesPerSecond() / whole.WallMegabytesPerSecond();
  std::printf("%-11s %9.1f %13.1f %9.3f %s %11.1f %9.3f %s   wall: %.3f / %.3f\n", name, ours.MegabytesPerSecond(),
              chunked.MegabytesPerSecond(), vs_chunked, Verdict(vs_chunked), whole.MegabytesPerSecond(), vs_whole,
              Verdict(vs_whole), wall_vs_chunked, wall_vs_whole);
}

}  // namespace

int main() {
  const Bytes data = MakeData();
  const size_t slices = (data.size() + kSlice - 1) / kSlice;
  const size_t slice_bound = compressBound(kSlice);
  const size_t whole_bound = compressBound(data.size());
  pkgdlv::NullLogger log;

  Bytes frame, buffer;
  std::unique_ptr<uint8_t[]> chunked, whole, plain;
  std::vector<uLongf> chunk_lengths(slices);
  uLongf whole_length = 0;

  Timer pack, pack_chunked, pack_whole, unpack, unpack_chunked, unpack_whole;
  for (int round = 0; round < kRounds; ++round) {
    pack.Run([&] { buffer = data; },
             [&] { Check(pkgdlv::Compress(buffer, kLevel, pkgdlv::loglevel::kSilent, log), "Compress failed"); });
    frame = buffer;

    pack_chunked.Run([&] { chunked.reset(); }, [&] {
      chunked.reset(new uint8_t[slices * slice_bound]);
      for (size_t i = 0; i < slices; ++i) {
        const size_t size = std::min(kSlice, data.size() - i * kSlice);
        chunk_lengths[i] = slice_bound;
        Check(compress2(chunked.get() + i * slice_bound, &chunk_lengths[i], data.data() + i * kSlice, size,
                        kLevel) == Z_OK,
              "compress2 failed");
      }
    });

    pack_whole.Run([&] { whole.reset(); }, [&] {
      whole.reset(new uint8_t[whole_bound]);
      whole_length = whole_bound;
      Check(compress2(whole.get(), &whole_length, data.data(), data.size(), kLevel) == Z_OK, "compress2 failed");
    });

    unpack.Run([&] { buffer = frame; },
               [&] { Check(pkgdlv::Decompress(buffer, pkgdlv::kNoFrameOutputLimit, pkgdlv::loglevel::kSilent, log), "Decompress failed"); });
    Check(buffer == data, "Decompress gave other bytes");

    unpack_chunked.Run([&] { plain.reset(); }, [&] {
      plain.reset(new uint8_t[data.size()]);
      for (size_t i = 0; i < slices; ++i) {
        uLongf length = kSlice;
        Check(uncompress(plain.get() + i * kSlice, &length, chunked.get() + i * slice_bound, chunk_lengths[i]) ==
                  Z_OK,
              "uncompress failed");
      }
    });
    Check(std::memcmp(plain.get(), data.data(), data.size()) == 0, "uncompress gave other bytes");

    unpack_whole.Run([&] { plain.reset(); }, [&] {
      plain.reset(new uint8_t[data.size()]);
      uLongf length = data.size();
      Check(uncompress(plain.get(), &length, whole.get(), whole_length) == Z_OK, "uncompress failed");
    });
    Check(std::memcmp(plain.get(), data.data(), data.size()) == 0, "uncompress gave other bytes");
  }

  std::printf("data %.1f MiB, frame %.1f MiB (%.3f of the data), zlib %s level %d, best of %d\n",
              data.size() / 1048576.0, frame.size() / 1048576.0, double(frame.size()) / data.size(), zlibVersion(),
              kLevel, kRounds);
  std::printf("%-11s %9s %13s %9s %5s %11s %9s %5s   %s\n", "MB/s (cpu)", "frame", "zlib slices", "ratio", "",
              "zlib whole", "ratio", "", "ratios by wall time");
  PrintRow("compress", pack, pack_chunked, pack_whole);
  PrintRow("decompress", unpack, unpack_chunked, unpack_whole);
  std::printf("target: ratio (frame / plain zlib) >= %.1f\n", kTarget);
  return 0;
}
