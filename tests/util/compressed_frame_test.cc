// The compressed data frame: its exact layout, checked against a reader and a
// writer built here from the layout alone on plain zlib, its failures, and
// hostile frames.
#include "util/compressed_frame.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/recording_logger.h"

namespace pkgdlv {
namespace {

using Bytes = std::vector<uint8_t>;
using testing::RecordingLogger;

// ---- An independent reader and writer of the frame, straight from its layout.

uint32_t ReadU32(const Bytes& b, size_t at) {
  return uint32_t{b.at(at)} | uint32_t{b.at(at + 1)} << 8 | uint32_t{b.at(at + 2)} << 16 | uint32_t{b.at(at + 3)} << 24;
}
uint64_t ReadU64(const Bytes& b, size_t at) { return ReadU32(b, at) | uint64_t{ReadU32(b, at + 4)} << 32; }
void PutU32(Bytes& b, uint32_t v) {
  for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
}
void PutU64(Bytes& b, uint64_t v) {
  PutU32(b, static_cast<uint32_t>(v));
  PutU32(b, static_cast<uint32_t>(v >> 32));
}

Bytes CompressStream(const uint8_t* data, size_t size, int level) {
  Bytes out(compressBound(size));
  uLongf length = out.size();
  EXPECT_EQ(compress2(out.data(), &length, data, size, level), Z_OK);
  out.resize(length);
  return out;
}

uint32_t Crc(const uint8_t* data, size_t size) { return static_cast<uint32_t>(crc32(0, data, size)); }

Bytes Header(uint64_t crc_sum, uint32_t count, uint32_t magic = 0x09176045, uint32_t end = 0xCFCFCFCF) {
  Bytes frame;
  PutU32(frame, magic);
  PutU32(frame, 0);
  PutU64(frame, crc_sum);
  PutU32(frame, count);
  PutU32(frame, end);
  return frame;
}

// A frame written with plain compress2 in slices of `slice` bytes.
Bytes ReferenceFrame(const Bytes& data, int level, size_t slice) {
  Bytes chunks;
  uint64_t crc_sum = 0;
  uint32_t count = 0;
  for (size_t at = 0; at < data.size(); at += slice, ++count) {
    const size_t size = std::min(slice, data.size() - at);
    const Bytes stream = CompressStream(data.data() + at, size, level);
    PutU32(chunks, static_cast<uint32_t>(stream.size()));
    chunks.insert(chunks.end(), stream.begin(), stream.end());
    crc_sum += Crc(data.data() + at, size);
  }
  Bytes frame = Header(crc_sum, count);
  frame.insert(frame.end(), chunks.begin(), chunks.end());
  return frame;
}

enum class Kind { kText, kRandom, kZeros };

Bytes MakeData(Kind kind, size_t size, unsigned seed = 1) {
  std::mt19937 rng(seed);
  Bytes data(size);
  static const char* const words[] = {"<file ", "name=\"", "setup.exe\" ", "size=\"", "blockHash=\"", "/>\r\n"};
  for (size_t i = 0; i < size && kind != Kind::kZeros;) {
    if (kind == Kind::kRandom) {
      data[i++] = static_cast<uint8_t>(rng());
      continue;
    }
    for (const char* w = words[rng() % 6]; *w && i < size; ++w) data[i++] = static_cast<uint8_t>(*w);
    if (i < size) data[i++] = static_cast<uint8_t>('0' + rng() % 10);
  }
  return data;
}

const char* KindName(Kind kind) { return kind == Kind::kText ? "text" : kind == Kind::kRandom ? "random" : "zeros"; }

void ExpectOneLine(RecordingLogger& log, uint32_t level, const std::string& component, const std::string& message) {
  const std::vector<testing::LogLine> lines = log.Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level, level);
  EXPECT_EQ(lines[0].component, component);
  EXPECT_EQ(lines[0].message, message);
}

// Unpacks through the streaming reader, handing it `piece` bytes at a time.
std::pair<Bytes, FrameSummary> UnpackStream(const Bytes& frame, size_t piece) {
  size_t at = 0;
  Bytes out;
  FrameSummary summary = UnpackFrameStream(
      [&](std::span<uint8_t> buffer) {
        const size_t n = std::min({piece, buffer.size(), frame.size() - at});
        std::copy_n(frame.begin() + static_cast<std::ptrdiff_t>(at), n, buffer.begin());
        at += n;
        return n;
      },
      [&](std::span<const uint8_t> data) {
        EXPECT_LE(data.size(), 0x10000u);
        out.insert(out.end(), data.begin(), data.end());
      });
  return {out, summary};
}

// The error a call throws, if any.
std::optional<Error> ErrorOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const Error& e) {
    return e;
  }
  return std::nullopt;
}

// The process's peak resident memory in bytes since the last reset.
uint64_t PeakResidentBytes() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmHWM:", 0) == 0) return std::stoull(line.substr(6)) * 1024;
  }
  ADD_FAILURE() << "no VmHWM in /proc/self/status";
  return 0;
}
void ResetPeakResidentBytes() { std::ofstream("/proc/self/clear_refs") << "5"; }

// ---- Round trips across the 64 KiB slice boundary, through both readers;
// random data also has a slice whose zlib output outgrows the 64 KiB window.

TEST(CompressedFrameTest, PacksLikePlainCompress2AndUnpacksBack) {
  const struct {
    Kind kind;
    size_t size;
    int level;
    uint32_t chunks;
    size_t piece;  // what the streaming reader is handed at a time
  } cases[] = {
      {Kind::kText, 0, 1, 0, 1},          {Kind::kText, 1, 1, 1, 1},
      {Kind::kText, 65536, 9, 1, 4093},   {Kind::kRandom, 65537, 1, 2, 1 << 20},
      {Kind::kZeros, 2 * 65536 + 5, 1, 3, 1}, {Kind::kText, 300'000, 1, 5, 4093},
      {Kind::kRandom, 200'000, 9, 4, 1 << 20},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(KindName(c.kind)) + " " + std::to_string(c.size) + " level " + std::to_string(c.level));
    const Bytes data = MakeData(c.kind, c.size, 3);
    RecordingLogger log;
    Bytes buffer = data;
    ASSERT_TRUE(Compress(buffer, c.level, 0, log));
    EXPECT_EQ(LastFrameError(), result::kOk);
    EXPECT_TRUE(IsCompressed(buffer.data(), buffer.size()));
    EXPECT_EQ(ReadU32(buffer, 16), c.chunks);
    EXPECT_EQ(buffer, ReferenceFrame(data, c.level, 0x10000));
    const size_t frame_size = buffer.size();
    ExpectOneLine(log, loglevel::kTrace, "Compress",
                  "Compressed data: " + std::to_string(c.size) + " -> " + std::to_string(frame_size));

    // The streaming reader gives the same bytes and header fields.
    auto [streamed, summary] = UnpackStream(buffer, c.piece);
    EXPECT_EQ(streamed, data);
    EXPECT_EQ(summary.frame_size, frame_size);
    EXPECT_EQ(summary.chunks, c.chunks);
    EXPECT_EQ(summary.crc_sum, ReadU64(buffer, 8));
    EXPECT_EQ(summary.unpacked_size, c.size);

    log.Clear();
    ASSERT_TRUE(Decompress(buffer, kNoFrameOutputLimit, 0, log));
    EXPECT_EQ(buffer, data);
    ExpectOneLine(log, loglevel::kTrace, "Decompress",
                  "Decompressed data: " + std::to_string(frame_size) + " -> " + std::to_string(c.size));
  }
}

// Other writers may slice differently, up to 1 MiB in one chunk.
TEST(CompressedFrameTest, UnpacksFramesOfOtherWriters) {
  RecordingLogger log;
  for (size_t slice : {size_t{1}, size_t{1000}, size_t{1} << 20}) {
    const Bytes data = MakeData(Kind::kText, slice == 1 ? 5000 : size_t{1} << 20, 5);
    Bytes buffer = ReferenceFrame(data, 6, slice);
    ASSERT_TRUE(Decompress(buffer, kNoFrameOutputLimit, 0, log)) << "slice " << slice;
    EXPECT_EQ(buffer, data) << "slice " << slice;
  }
}

// ---- Failures: the buffer stays as it was, the code is the thread's last
// frame error, and one error line names the description and the code.

struct FailureCase {
  const char* name;
  Bytes frame;
  Result code;
  std::string description;
};

Bytes FrameWithChunk(const Bytes& data, const Bytes& stream) {
  Bytes frame = Header(Crc(data.data(), data.size()), 1);
  PutU32(frame, static_cast<uint32_t>(stream.size()));
  frame.insert(frame.end(), stream.begin(), stream.end());
  return frame;
}

TEST(CompressedFrameTest, DecompressFailures) {
  const Bytes data = MakeData(Kind::kText, 100'000, 4);
  const Bytes good = ReferenceFrame(data, 1, 0x10000);
  const Bytes part(data.begin(), data.begin() + 1000);
  const std::string not_compressed = "Data is not compressed", bad_crc = "Incorrect CRC for decompressed data",
                    zlib_data = "Compression error -3:";
  Bytes crc_off = good;
  crc_off[8] ^= 1;
  Bytes flipped = good;
  flipped.back() ^= 0x01;  // the last chunk's Adler-32
  Bytes cut_stream = CompressStream(part.data(), part.size(), 1);
  cut_stream.resize(cut_stream.size() / 2);  // stops early, with a length field that agrees
  const Bytes big(1 << 20 | 1, 'x');
  const FailureCase cases[] = {
      {"empty", {}, result::kInvalidData, not_compressed},
      {"bad magic", Header(0, 0, 0x09176046), result::kInvalidData, not_compressed},
      {"bad end marker", Header(0, 0, 0x09176045, 0xCFCFCFCE), result::kInvalidData, not_compressed},
      {"plain zlib", CompressStream(data.data(), 1000, 1), result::kInvalidData, not_compressed},
      {"crc off by one", crc_off, result::kCrcMismatch, bad_crc},
      {"crc of an empty frame", Header(1, 0), result::kCrcMismatch, bad_crc},
      {"bad adler", flipped, result::kFail, zlib_data},
      {"stream cut short", FrameWithChunk(part, cut_stream), result::kFail, zlib_data},
      // FDICT set: the stream asks for a preset dictionary.
      {"needs dictionary", FrameWithChunk(part, {0x78, 0xBB, 0, 0, 0, 1, 0, 0, 0}), result::kFail, zlib_data},
      {"empty chunk", FrameWithChunk({}, {}), result::kFail, zlib_data},
      {"chunk past 1 MiB", FrameWithChunk(big, CompressStream(big.data(), big.size(), 9)), result::kFail,
       "Compression error -5:"},
  };
  for (const FailureCase& c : cases) {
    SCOPED_TRACE(c.name);
    RecordingLogger log;
    Bytes buffer = c.frame;
    EXPECT_FALSE(Decompress(buffer, kNoFrameOutputLimit, 0, log));
    EXPECT_EQ(buffer, c.frame);
    EXPECT_EQ(LastFrameError(), c.code);
    EXPECT_EQ(LastFrameFailure().description, c.description);
    ExpectOneLine(
        log, loglevel::kError, "Decompress",
        "Error while decompressing data: " + c.description + " (" + std::to_string(static_cast<int32_t>(c.code)) + ")");
    // The streaming reader fails alike.
    const std::optional<Error> e = ErrorOf([&] { UnpackStream(c.frame, 1000); });
    ASSERT_TRUE(e) << "the stream was unpacked";
    EXPECT_EQ(e->code(), c.code);
    EXPECT_EQ(e->description(), c.description);
  }
}

TEST(CompressedFrameTest, IsCompressedTestsOnlyLengthMagicAndEndMarker) {
  Bytes header = Header(12345, 99);
  EXPECT_FALSE(IsCompressed(header.data(), 23));
  header[4] = 0xAA;  // reserved and everything after it are not looked at
  header.push_back(0x55);
  EXPECT_TRUE(IsCompressed(header.data(), header.size()));
  header[20] = 0xCE;
  EXPECT_FALSE(IsCompressed(header.data(), header.size()));
}

// A frame cut short, or whose chunk lengths or count claim more than is
// there, is truncation: no allocation for the claim, no wrap-around of the
// bounds test, no description and no log line.
TEST(CompressedFrameTest, TruncatedFramesAndClaimsPastTheEnd) {
  const Bytes frame = ReferenceFrame(MakeData(Kind::kText, 3000, 6), 1, 1000);
  std::vector<Bytes> truncated;
  for (size_t length = 0; length < frame.size(); ++length)
    truncated.emplace_back(frame.begin(), frame.begin() + length);
  for (const auto& [at, bytes] : std::vector<std::pair<size_t, Bytes>>{{24, {static_cast<uint8_t>(frame[24] + 1)}},
                                                                       {24, {0xFF, 0xFF, 0xFF, 0xFF}},
                                                                       {16, {0xFF, 0xFF, 0xFF, 0xFF}}}) {
    truncated.push_back(frame);
    std::copy(bytes.begin(), bytes.end(), truncated.back().begin() + static_cast<std::ptrdiff_t>(at));
  }
  for (const Bytes& c : truncated) {
    SCOPED_TRACE(c.size());
    RecordingLogger log;
    Bytes buffer = c;
    EXPECT_FALSE(Decompress(buffer, kNoFrameOutputLimit, 0, log));
    EXPECT_EQ(buffer, c);
    if (c.size() < 24) {
      EXPECT_EQ(LastFrameError(), result::kInvalidData);
      continue;
    }
    EXPECT_EQ(LastFrameError(), result::kEndOfData);
    EXPECT_EQ(LastFrameFailure().description, "");
    EXPECT_TRUE(log.Lines().empty());
    if (c.size() < frame.size()) {  // cut short: the streaming reader runs out of bytes too
      EXPECT_EQ(ErrorOf([&] { UnpackStream(c, 1000); }).value_or(Error(0, "")).code(), result::kEndOfData);
    }
  }
}

TEST(CompressedFrameTest, InvalidLevelFailsAndLogFlagsAreAddedToTheLevel) {
  const Bytes data = MakeData(Kind::kText, 1000);
  RecordingLogger log;
  Bytes buffer = data, not_a_frame = data;
  EXPECT_FALSE(Compress(buffer, 10, 0, log));
  EXPECT_EQ(buffer, data);
  EXPECT_EQ(LastFrameError(), result::kFail);
  EXPECT_EQ(LastFrameFailure().description, "Compression error -2:");
  ExpectOneLine(log, loglevel::kError, "Compress", "Error while compressing data: Compression error -2: (-2147467259)");

  log.Clear();
  ASSERT_TRUE(Compress(buffer, 1, loglevel::kErrorAsInfo, log));
  ASSERT_TRUE(Decompress(buffer, kNoFrameOutputLimit, loglevel::kErrorAsInfo, log));
  EXPECT_FALSE(Decompress(not_a_frame, kNoFrameOutputLimit, loglevel::kErrorAsInfo, log));
  const std::vector<testing::LogLine> lines = log.Lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].level, loglevel::kTrace | loglevel::kErrorAsInfo);
  EXPECT_EQ(lines[1].level, loglevel::kTrace | loglevel::kErrorAsInfo);
  EXPECT_EQ(lines[2].level, loglevel::kError | loglevel::kErrorAsInfo);

  log.Clear();
  ASSERT_TRUE(Compress(buffer, 1, loglevel::kSilent, log));
  EXPECT_FALSE(Decompress(not_a_frame, kNoFrameOutputLimit, loglevel::kSilent, log));
  EXPECT_TRUE(log.Lines().empty());
}

// A cap on the output holds exactly at its value, and a small frame that
// expands far past it is refused without the process ever holding the
// expansion.
TEST(CompressedFrameTest, OutputPastTheCapIsRefusedWithoutBeingHeld) {
  const Bytes data = MakeData(Kind::kText, 200'000, 9);
  const Bytes frame = ReferenceFrame(data, 1, 0x10000);
  const std::vector<std::pair<uint64_t, bool>> caps = {{200'000, true}, {199'999, false}, {0, false}};
  for (const auto& [cap, fits] : caps) {
    SCOPED_TRACE(cap);
    RecordingLogger log;
    Bytes buffer = frame;
    EXPECT_EQ(Decompress(buffer, cap, 0, log), fits);
    EXPECT_EQ(buffer, fits ? data : frame);
    EXPECT_EQ(LastFrameError(), fits ? result::kOk : result::kResponseTooLarge);
    if (!fits) {
      EXPECT_EQ(LastFrameFailure().description,
                "Decompressed data exceeds the limit of " + std::to_string(cap) + " bytes");
    }
  }

  // 4096 chunks of 64 KiB of zeros: a frame of about 400 KB holding 256 MiB.
  const Bytes zeros(0x10000, 0);
  const Bytes stream = CompressStream(zeros.data(), zeros.size(), 9);
  const uint32_t count = 4096;
  Bytes bomb = Header(uint64_t{count} * Crc(zeros.data(), zeros.size()), count);
  for (uint32_t i = 0; i < count; ++i) {
    PutU32(bomb, static_cast<uint32_t>(stream.size()));
    bomb.insert(bomb.end(), stream.begin(), stream.end());
  }
  constexpr uint64_t kCap = 16 << 20;
  ResetPeakResidentBytes();
  const uint64_t before = PeakResidentBytes();
  RecordingLogger log;
  Bytes buffer = bomb;
  EXPECT_FALSE(Decompress(buffer, kCap, 0, log));
  EXPECT_EQ(LastFrameError(), result::kResponseTooLarge);
  uint64_t streamed = 0;
  const std::optional<Error> e = ErrorOf([&] {
    UnpackFrameStream(
        [&, at = size_t{0}](std::span<uint8_t> out) mutable {
          const size_t n = std::min(out.size(), bomb.size() - at);
          std::copy_n(bomb.begin() + static_cast<std::ptrdiff_t>(at), n, out.begin());
          at += n;
          return n;
        },
        [&](std::span<const uint8_t> piece) { streamed += piece.size(); }, kCap);
  });
  EXPECT_EQ(e.value_or(Error(0, "")).code(), result::kResponseTooLarge) << "the stream passed the cap";
  EXPECT_EQ(streamed, kCap);
  EXPECT_LT(PeakResidentBytes() - before, 3 * kCap) << "the expansion was held in memory";
}

TEST(CompressedFrameTest, LastErrorBelongsToTheCallingThread) {
  RecordingLogger log;
  Bytes not_a_frame = {1, 2, 3};
  EXPECT_FALSE(Decompress(not_a_frame, kNoFrameOutputLimit, 0, log));
  std::thread([&] {
    EXPECT_EQ(LastFrameError(), result::kOk);
    Bytes data = MakeData(Kind::kText, 10);
    EXPECT_TRUE(Compress(data, 1, 0, log));
  }).join();
  EXPECT_EQ(LastFrameError(), result::kInvalidData);
  Bytes empty;
  EXPECT_TRUE(Compress(empty, 1, 0, log));
  EXPECT_EQ(LastFrameError(), result::kOk);
}

}  // namespace
}  // namespace pkgdlv
