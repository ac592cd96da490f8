// The compressed data frame: its exact layout, checked against a reader and a
// writer built here from the layout alone on plain zlib, its failures, and
// hostile frames.
#include "util/compressed_frame.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <optional>
#include <ostream>
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
  return uint32_t{b.at(at)} | uint32_t{b.at(at + 1)} << 8 | uint32_t{b.at(at + 2)} << 16 |
         uint32_t{b.at(at + 3)} << 24;
}
uint64_t ReadU64(const Bytes& b, size_t at) { return ReadU32(b, at) | uint64_t{ReadU32(b, at + 4)} << 32; }
void PutU32(Bytes& b, uint32_t v) {
  for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
}
void PutU64(Bytes& b, uint64_t v) {
  PutU32(b, static_cast<uint32_t>(v));
  PutU32(b, static_cast<uint32_t>(v >> 32));
}

struct ParsedFrame {
  uint32_t magic = 0, reserved = 0, chunk_count = 0, end_marker = 0;
  uint64_t crc_sum = 0;
  std::vector<Bytes> chunks;  // each chunk's zlib stream
  size_t trailing = 0;        // bytes after the last chunk
};

ParsedFrame Parse(const Bytes& frame) {
  ParsedFrame p;
  p.magic = ReadU32(frame, 0);
  p.reserved = ReadU32(frame, 4);
  p.crc_sum = ReadU64(frame, 8);
  p.chunk_count = ReadU32(frame, 16);
  p.end_marker = ReadU32(frame, 20);
  size_t at = 24;
  for (uint32_t i = 0; i < p.chunk_count; ++i) {
    uint32_t length = ReadU32(frame, at);
    at += 4;
    p.chunks.emplace_back(frame.begin() + at, frame.begin() + at + length);
    at += length;
  }
  p.trailing = frame.size() - at;
  return p;
}

Bytes Uncompress(const Bytes& stream, size_t capacity = 0x10000) {
  Bytes out(capacity);
  uLongf length = out.size();
  int code = uncompress(out.data(), &length, stream.data(), stream.size());
  EXPECT_EQ(code, Z_OK);
  out.resize(length);
  return out;
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
    size_t size = std::min(slice, data.size() - at);
    Bytes stream = CompressStream(data.data() + at, size, level);
    PutU32(chunks, static_cast<uint32_t>(stream.size()));
    chunks.insert(chunks.end(), stream.begin(), stream.end());
    crc_sum += Crc(data.data() + at, size);
  }
  Bytes frame = Header(crc_sum, count);
  frame.insert(frame.end(), chunks.begin(), chunks.end());
  return frame;
}

Bytes ReferenceUnpack(const Bytes& frame) {
  ParsedFrame p = Parse(frame);
  EXPECT_EQ(p.magic, 0x09176045u);
  EXPECT_EQ(p.reserved, 0u);
  EXPECT_EQ(p.end_marker, 0xCFCFCFCFu);
  EXPECT_EQ(p.trailing, 0u);
  Bytes data;
  uint64_t crc_sum = 0;
  for (const Bytes& chunk : p.chunks) {
    Bytes part = Uncompress(chunk);
    crc_sum += Crc(part.data(), part.size());
    data.insert(data.end(), part.begin(), part.end());
  }
  EXPECT_EQ(crc_sum, p.crc_sum);
  return data;
}

// ---- Data.

enum class Kind { kText, kRandom, kZeros };

Bytes MakeData(Kind kind, size_t size, unsigned seed = 1) {
  std::mt19937 rng(seed);
  Bytes data(size);
  static const char* const words[] = {"<file ", "name=\"", "setup.exe\" ", "size=\"", "blockHash=\"", "/>\r\n"};
  for (size_t i = 0; i < size;) {
    if (kind == Kind::kZeros) break;
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

// ---- Round trips.

struct RoundTripCase {
  Kind kind;
  size_t size;
  uint32_t expected_chunks;
};

void PrintTo(const RoundTripCase& c, std::ostream* out) { *out << KindName(c.kind) << " " << c.size; }

class FrameRoundTripTest : public ::testing::TestWithParam<RoundTripCase> {};

TEST_P(FrameRoundTripTest, PacksIntoTheLayoutAndUnpacksBack) {
  const RoundTripCase& c = GetParam();
  const Bytes data = MakeData(c.kind, c.size);
  RecordingLogger log;

  Bytes buffer = data;
  ASSERT_TRUE(Compress(buffer, 1, 0, log));
  EXPECT_EQ(LastFrameError(), result::kOk);
  EXPECT_TRUE(IsCompressed(buffer.data(), buffer.size()));
  ParsedFrame parsed = Parse(buffer);
  EXPECT_EQ(parsed.chunk_count, c.expected_chunks);
  for (size_t i = 0; i < parsed.chunks.size(); ++i) {
    size_t slice = std::min<size_t>(0x10000, c.size - i * 0x10000);
    EXPECT_EQ(Uncompress(parsed.chunks[i], 0x20000).size(), slice) << "chunk " << i;
  }
  EXPECT_EQ(ReferenceUnpack(buffer), data);
  const size_t frame_size = buffer.size();

  ASSERT_TRUE(Decompress(buffer, 0, log));
  EXPECT_EQ(buffer, data);

  std::vector<testing::LogLine> lines = log.Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].level, loglevel::kTrace);
  EXPECT_EQ(lines[0].component, "Compress");
  EXPECT_EQ(lines[0].message, "Compressed data: " + std::to_string(c.size) + " -> " + std::to_string(frame_size));
  EXPECT_EQ(lines[1].level, loglevel::kTrace);
  EXPECT_EQ(lines[1].component, "Decompress");
  EXPECT_EQ(lines[1].message, "Decompressed data: " + std::to_string(frame_size) + " -> " + std::to_string(c.size));
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, FrameRoundTripTest,
    ::testing::Values(RoundTripCase{Kind::kText, 1, 1}, RoundTripCase{Kind::kText, 65536, 1},
                      RoundTripCase{Kind::kText, 65537, 2}, RoundTripCase{Kind::kText, 1'000'003, 16},
                      RoundTripCase{Kind::kRandom, 65536, 1}, RoundTripCase{Kind::kRandom, 65537, 2},
                      RoundTripCase{Kind::kZeros, 2 * 65536 + 5, 3}),
    [](const auto& info) { return std::string(KindName(info.param.kind)) + std::to_string(info.param.size); });

TEST(CompressedFrameTest, EmptyInputIsABareHeaderAndUnpacksToNothing) {
  RecordingLogger log;
  Bytes buffer;
  ASSERT_TRUE(Compress(buffer, 1, 0, log));
  const Bytes expected = {0x45, 0x60, 0x17, 0x09, 0, 0, 0, 0, 0, 0, 0, 0,
                          0,    0,    0,    0,    0, 0, 0, 0, 0xCF, 0xCF, 0xCF, 0xCF};
  EXPECT_EQ(buffer, expected);
  EXPECT_TRUE(log.Contains("Compressed data: 0 -> 24"));

  ASSERT_TRUE(Decompress(buffer, 0, log));
  EXPECT_TRUE(buffer.empty());
  EXPECT_TRUE(log.Contains("Decompressed data: 24 -> 0"));
}

// ---- Interoperation with the independent writer.

// Random data also checks a slice whose zlib output outgrows the 64 KiB window.
TEST(CompressedFrameTest, FramesMatchPlainCompress2ByteForByte) {
  RecordingLogger log;
  for (Kind kind : {Kind::kText, Kind::kRandom}) {
    const Bytes data = MakeData(kind, 200'000, 3);
    for (int level : {1, 9}) {
      Bytes buffer = data;
      ASSERT_TRUE(Compress(buffer, level, 0, log));
      EXPECT_EQ(buffer, ReferenceFrame(data, level, 0x10000)) << KindName(kind) << " level " << level;
    }
  }
}

// Other writers may slice differently, up to 1 MiB in one chunk.
TEST(CompressedFrameTest, UnpacksFramesOfOtherWriters) {
  struct Case {
    Kind kind;
    size_t size;
    int level;
    size_t slice;
  };
  const Case cases[] = {{Kind::kText, 150'000, 9, 1000},  {Kind::kText, 150'000, 9, 0x10000},
                        {Kind::kRandom, 5000, 0, 7},      {Kind::kText, 70'000, 1, 1},
                        {Kind::kZeros, 100'000, 9, 33333}, {Kind::kText, 300'000, 6, 300'000},
                        {Kind::kText, 1 << 20, 6, 1 << 20}};
  RecordingLogger log;
  for (const Case& c : cases) {
    const Bytes data = MakeData(c.kind, c.size, 5);
    Bytes buffer = ReferenceFrame(data, c.level, c.slice);
    ASSERT_TRUE(Decompress(buffer, 0, log)) << KindName(c.kind) << " slice " << c.slice;
    EXPECT_EQ(buffer, data) << KindName(c.kind) << " slice " << c.slice;
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

std::vector<FailureCase> DecompressFailures() {
  const Bytes data = MakeData(Kind::kText, 100'000, 4);
  const Bytes good = ReferenceFrame(data, 1, 0x10000);
  std::vector<FailureCase> cases;
  cases.push_back({"empty", {}, result::kInvalidData, "Data is not compressed"});
  cases.push_back({"short", Bytes(good.begin(), good.begin() + 23), result::kInvalidData, "Data is not compressed"});
  cases.push_back({"bad magic", Header(0, 0, 0x09176046), result::kInvalidData, "Data is not compressed"});
  cases.push_back({"bad end marker", Header(0, 0, 0x09176045, 0xCFCFCFCE), result::kInvalidData,
                   "Data is not compressed"});
  cases.push_back({"plain zlib", CompressStream(data.data(), 1000, 1), result::kInvalidData,
                   "Data is not compressed"});

  Bytes crc_off(good.begin(), good.begin() + 8);
  PutU64(crc_off, ReadU64(good, 8) + 1);
  crc_off.insert(crc_off.end(), good.begin() + 16, good.end());
  cases.push_back({"crc off by one", crc_off, result::kCrcMismatch, "Incorrect CRC for decompressed data"});
  cases.push_back({"crc of an empty frame", Header(1, 0), result::kCrcMismatch, "Incorrect CRC for decompressed data"});

  Bytes corrupt = good;
  corrupt[24 + 4] ^= 0xFF;  // the first chunk's zlib header
  cases.push_back({"corrupt zlib header", corrupt, result::kFail, "Compression error -3:"});

  Bytes flipped = good;
  flipped[flipped.size() - 1] ^= 0x01;  // the last chunk's Adler-32
  cases.push_back({"bad adler", flipped, result::kFail, "Compression error -3:"});

  // A chunk whose zlib stream stops early, with a length field that agrees.
  const Bytes part(data.begin(), data.begin() + 1000);
  Bytes stream = CompressStream(part.data(), part.size(), 1);
  stream.resize(stream.size() / 2);
  cases.push_back({"stream cut short", FrameWithChunk(part, stream), result::kFail, "Compression error -3:"});

  // A stream that asks for a preset dictionary (FDICT set in its header).
  cases.push_back({"needs dictionary", FrameWithChunk(part, {0x78, 0xBB, 0, 0, 0, 1, 0, 0, 0}), result::kFail,
                   "Compression error -3:"});
  cases.push_back({"empty chunk", FrameWithChunk({}, {}), result::kFail, "Compression error -3:"});

  // A chunk that inflates past the 1 MiB bound of one chunk.
  const Bytes big(1 << 20 | 1, 'x');
  cases.push_back({"chunk past 1 MiB", FrameWithChunk(big, CompressStream(big.data(), big.size(), 9)), result::kFail,
                   "Compression error -5:"});
  return cases;
}

TEST(CompressedFrameTest, DecompressFailures) {
  for (const FailureCase& c : DecompressFailures()) {
    SCOPED_TRACE(c.name);
    RecordingLogger log;
    Bytes buffer = c.frame;
    EXPECT_FALSE(Decompress(buffer, 0, log));
    EXPECT_EQ(buffer, c.frame);
    EXPECT_EQ(LastFrameError(), c.code);
    EXPECT_EQ(LastFrameFailure().description, c.description);
    std::vector<testing::LogLine> lines = log.Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, loglevel::kError);
    EXPECT_EQ(lines[0].component, "Decompress");
    EXPECT_EQ(lines[0].message, "Error while decompressing data: " + c.description + " (" +
                                    std::to_string(static_cast<int32_t>(c.code)) + ")");
  }
}

TEST(CompressedFrameTest, IsCompressedTestsOnlyLengthMagicAndEndMarker) {
  Bytes header = Header(12345, 99);
  EXPECT_TRUE(IsCompressed(header.data(), header.size()));
  EXPECT_FALSE(IsCompressed(header.data(), 23));
  header[4] = 0xAA;  // reserved and everything after it are not looked at
  header.push_back(0x55);
  EXPECT_TRUE(IsCompressed(header.data(), header.size()));
  header[20] = 0xCE;
  EXPECT_FALSE(IsCompressed(header.data(), header.size()));
}

// A frame cut short returns false with no description and no log line.
TEST(CompressedFrameTest, FrameCutShortAtEveryLength) {
  const Bytes data = MakeData(Kind::kText, 3000, 6);
  const Bytes frame = ReferenceFrame(data, 1, 1000);
  for (size_t length = 0; length < frame.size(); ++length) {
    SCOPED_TRACE(length);
    RecordingLogger log;
    Bytes buffer(frame.begin(), frame.begin() + length);
    const Bytes before = buffer;
    EXPECT_FALSE(Decompress(buffer, 0, log));
    EXPECT_EQ(buffer, before);
    if (length < 24) {
      EXPECT_EQ(LastFrameError(), result::kInvalidData);
    } else {
      EXPECT_EQ(LastFrameError(), result::kEndOfData);
      EXPECT_EQ(LastFrameFailure().description, "");
      EXPECT_TRUE(log.Lines().empty());
    }
  }
}

// Chunk lengths or counts past the end: no allocation for the claim, no
// wrap-around of the bounds test, no log line.
TEST(CompressedFrameTest, ClaimsPastTheEndAreTruncation) {
  const Bytes good = ReferenceFrame(MakeData(Kind::kText, 5000, 2), 1, 0x10000);
  const struct {
    size_t at;
    Bytes bytes;
  } cases[] = {{24, {static_cast<uint8_t>(good[24] + 1)}}, {24, {0xFF, 0xFF, 0xFF, 0xFF}}, {16, {0xFF, 0xFF, 0xFF, 0xFF}}};
  for (const auto& c : cases) {
    Bytes frame = good;
    std::copy(c.bytes.begin(), c.bytes.end(), frame.begin() + static_cast<std::ptrdiff_t>(c.at));
    RecordingLogger log;
    Bytes buffer = frame;
    EXPECT_FALSE(Decompress(buffer, 0, log));
    EXPECT_EQ(buffer, frame);
    EXPECT_EQ(LastFrameError(), result::kEndOfData);
    EXPECT_TRUE(log.Lines().empty());
  }
}

TEST(CompressedFrameTest, RandomFramesNeverCrash) {
  std::mt19937 rng(11);
  const Bytes data = MakeData(Kind::kText, 4000, 3);
  const Bytes good = ReferenceFrame(data, 1, 500);
  RecordingLogger log;
  for (int round = 0; round < 1000; ++round) {
    Bytes frame;
    if (round % 2 == 0) {  // a sound frame with a few bytes changed
      frame = good;
      for (int n = 1 + rng() % 4; n > 0; --n) frame[rng() % frame.size()] = static_cast<uint8_t>(rng());
    } else {  // a valid header over random bytes
      frame = Header(rng(), rng() % 8);
      for (size_t n = rng() % 200; n > 0; --n) frame.push_back(static_cast<uint8_t>(rng()));
    }
    Bytes buffer = frame;
    if (Decompress(buffer, 0, log)) {
      EXPECT_EQ(LastFrameError(), result::kOk);
    } else {
      EXPECT_EQ(buffer, frame);
      EXPECT_NE(LastFrameError(), result::kOk);
    }
  }
}

TEST(CompressedFrameTest, InvalidLevelFailsAndLeavesTheBuffer) {
  RecordingLogger log;
  const Bytes data = MakeData(Kind::kText, 1000);
  Bytes buffer = data;
  EXPECT_FALSE(Compress(buffer, 10, 0, log));
  EXPECT_EQ(buffer, data);
  EXPECT_EQ(LastFrameError(), result::kFail);
  EXPECT_EQ(LastFrameFailure().description, "Compression error -2:");
  std::vector<testing::LogLine> lines = log.Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level, loglevel::kError);
  EXPECT_EQ(lines[0].component, "Compress");
  EXPECT_EQ(lines[0].message, "Error while compressing data: Compression error -2: (-2147467259)");
}

TEST(CompressedFrameTest, LogFlagsAreAddedToTheLevel) {
  const Bytes data = MakeData(Kind::kText, 1000);
  RecordingLogger log;
  Bytes buffer = data;
  ASSERT_TRUE(Compress(buffer, 1, loglevel::kErrorAsInfo, log));
  ASSERT_TRUE(Decompress(buffer, loglevel::kErrorAsInfo, log));
  Bytes not_a_frame = data;
  EXPECT_FALSE(Decompress(not_a_frame, loglevel::kErrorAsInfo, log));
  std::vector<testing::LogLine> lines = log.Lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].level, loglevel::kTrace | loglevel::kErrorAsInfo);
  EXPECT_EQ(lines[1].level, loglevel::kTrace | loglevel::kErrorAsInfo);
  EXPECT_EQ(lines[2].level, loglevel::kError | loglevel::kErrorAsInfo);

  log.Clear();
  ASSERT_TRUE(Compress(buffer, 1, loglevel::kSilent, log));
  ASSERT_TRUE(Decompress(buffer, loglevel::kSilent, log));
  EXPECT_FALSE(Decompress(not_a_frame, loglevel::kSilent, log));
  EXPECT_EQ(LastFrameError(), result::kInvalidData);
  EXPECT_TRUE(log.Lines().empty());
}

TEST(CompressedFrameTest, LastErrorBelongsToTheCallingThread) {
  RecordingLogger log;
  Bytes not_a_frame = {1, 2, 3};
  EXPECT_FALSE(Decompress(not_a_frame, 0, log));
  std::thread([&] {
    EXPECT_EQ(LastFrameError(), result::kOk);
    Bytes data = MakeData(Kind::kText, 10);
    EXPECT_TRUE(Compress(data, 1, 0, log));
    EXPECT_EQ(LastFrameError(), result::kOk);
  }).join();
  EXPECT_EQ(LastFrameError(), result::kInvalidData);
  Bytes empty;
  EXPECT_TRUE(Compress(empty, 1, 0, log));
  EXPECT_EQ(LastFrameError(), result::kOk);
}

}  // namespace
}  // namespace pkgdlv
