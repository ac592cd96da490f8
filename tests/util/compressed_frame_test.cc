// The compressed data frame: its exact layout, checked against a writer built
// here from the layout alone on plain zlib, its failures, and hostile frames.
#include "util/compressed_frame.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <random>

#include "support/recording_logger.h"
#include "util/memory_test_support.h"

namespace pkgdlv {
namespace {

using Bytes = std::vector<uint8_t>;
using testing::RecordingLogger;

void PutU32(Bytes& b, uint32_t v) {
  for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

Bytes CompressStream(const uint8_t* data, size_t size, int level) {
  Bytes out(compressBound(size));
  uLongf length = out.size();
  EXPECT_EQ(compress2(out.data(), &length, data, size, level), Z_OK);
  out.resize(length);
  return out;
}

uint32_t Crc(const Bytes& data, size_t at = 0, size_t size = SIZE_MAX) {
  return static_cast<uint32_t>(crc32(0, data.data() + at, static_cast<uInt>(std::min(size, data.size() - at))));
}

Bytes Header(uint64_t crc_sum, uint32_t count, uint32_t magic = 0x09176045, uint32_t end = 0xCFCFCFCF) {
  Bytes frame;
  for (uint32_t v : {magic, 0u, static_cast<uint32_t>(crc_sum), static_cast<uint32_t>(crc_sum >> 32), count, end}) {
    PutU32(frame, v);
  }
  return frame;
}

// A frame written with plain compress2 in slices of `slice` bytes.
Bytes ReferenceFrame(const Bytes& data, int level, size_t slice = 0x10000) {
  Bytes chunks;
  uint64_t crc_sum = 0;
  uint32_t count = 0;
  for (size_t at = 0; at < data.size(); at += slice, ++count) {
    const size_t size = std::min(slice, data.size() - at);
    const Bytes stream = CompressStream(data.data() + at, size, level);
    PutU32(chunks, static_cast<uint32_t>(stream.size()));
    chunks.insert(chunks.end(), stream.begin(), stream.end());
    crc_sum += Crc(data, at, size);
  }
  Bytes frame = Header(crc_sum, count);
  frame.insert(frame.end(), chunks.begin(), chunks.end());
  return frame;
}

// Text-like bytes that compress well, or random bytes that do not.
Bytes MakeData(size_t size, bool random = false) {
  std::mt19937 rng(3);
  Bytes data(size);
  for (size_t i = 0; i < size; ++i) {
    data[i] = random ? static_cast<uint8_t>(rng()) : "<file name=\"a\"/>\r\n"[rng() % 18];
  }
  return data;
}

// What the streaming reader gives when handed `piece` bytes at a time: the
// bytes (kept only without a cap), its summary, or the code and description
// it threw.
struct Streamed {
  Bytes out;
  FrameSummary summary;
  Result code = 0;
  std::string what;
};
Streamed UnpackStream(const Bytes& frame, size_t piece, uint64_t cap = kNoFrameOutputLimit) {
  size_t at = 0;
  Streamed r;
  try {
    r.summary = UnpackFrameStream(
        [&](std::span<uint8_t> buffer) {
          const size_t n = std::min({piece, buffer.size(), frame.size() - at});
          std::copy_n(frame.begin() + static_cast<std::ptrdiff_t>(at), n, buffer.begin());
          return at += n, n;
        },
        [&](std::span<const uint8_t> data) {
          EXPECT_LE(data.size(), 0x10000u);
          if (cap == kNoFrameOutputLimit) r.out.insert(r.out.end(), data.begin(), data.end());
        },
        cap);
  } catch (const Error& e) {
    r.code = e.code(), r.what = e.description();
  }
  return r;
}

// Round trips across the 64 KiB slice boundary, through both readers; random
// data also has a slice whose zlib output outgrows the 64 KiB window. Other
// writers may slice differently, up to 1 MiB in one chunk.
TEST(CompressedFrameTest, PacksLikePlainCompress2AndUnpacksBack) {
  const struct {
    size_t size;
    bool random;
    int level;
    size_t piece;  // what the streaming reader is handed at a time
    size_t slice;  // 0: packed here; otherwise only unpacked, from a frame sliced so
  } cases[] = {
      {0, false, 1, 1, 0},         {1, false, 1, 1, 0},         {65536, false, 9, 4093, 0},
      {65537, true, 1, 1 << 20, 0}, {300'000, false, 1, 4093, 0}, {200'000, true, 9, 1 << 20, 0},
      {5000, false, 6, 1000, 1},   {1 << 20, false, 6, 4093, 1000}, {1 << 20, false, 6, 1 << 20, 1 << 20},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.size) + (c.random ? " random" : " text") + " slice " + std::to_string(c.slice));
    const Bytes data = MakeData(c.size, c.random);
    RecordingLogger log;
    Bytes buffer = data;
    if (c.slice == 0) {
      ASSERT_TRUE(Compress(buffer, c.level, 0, log));
      EXPECT_EQ(buffer, ReferenceFrame(data, c.level));
    } else {
      buffer = ReferenceFrame(data, c.level, c.slice);
    }
    const Streamed streamed = UnpackStream(buffer, c.piece);
    EXPECT_EQ(streamed.out, data);
    const uint32_t chunks = static_cast<uint32_t>(buffer[16] | buffer[17] << 8);
    EXPECT_EQ(std::tuple(streamed.summary.frame_size, streamed.summary.chunks, streamed.summary.unpacked_size),
              std::tuple(buffer.size(), chunks, c.size));
    ASSERT_TRUE(Decompress(buffer, kNoFrameOutputLimit, 0, log));
    EXPECT_EQ(buffer, data);
  }
}

// A failure leaves the buffer as it was, makes its code the thread's last
// frame error and logs one error line naming the description and the code.
TEST(CompressedFrameTest, DecompressFailures) {
  const Bytes data = MakeData(100'000);
  const Bytes good = ReferenceFrame(data, 1);
  const Bytes part(data.begin(), data.begin() + 1000);
  const auto one_chunk = [](const Bytes& unpacked, const Bytes& stream) {
    Bytes frame = Header(Crc(unpacked), 1);
    PutU32(frame, static_cast<uint32_t>(stream.size()));
    frame.insert(frame.end(), stream.begin(), stream.end());
    return frame;
  };
  const std::string not_compressed = "Data is not compressed", bad_crc = "Incorrect CRC for decompressed data",
                    zlib_data = "Compression error -3:";
  Bytes crc_off = good, flipped = good;
  crc_off[8] ^= 1;
  flipped.back() ^= 0x01;  // the last chunk's Adler-32
  Bytes cut_stream = CompressStream(part.data(), part.size(), 1);
  cut_stream.resize(cut_stream.size() / 2);  // stops early, with a length field that agrees
  const Bytes big(1 << 20 | 1, 'x');
  const struct {
    const char* name;
    Bytes frame;
    Result code;
    std::string description;
  } cases[] = {
      {"empty", {}, result::kInvalidData, not_compressed},
      {"bad magic", Header(0, 0, 0x09176046), result::kInvalidData, not_compressed},
      {"plain zlib", CompressStream(data.data(), 1000, 1), result::kInvalidData, not_compressed},
      {"crc off by one", crc_off, result::kCrcMismatch, bad_crc},
      {"crc of an empty frame", Header(1, 0), result::kCrcMismatch, bad_crc},
      {"bad adler", flipped, result::kFail, zlib_data},
      {"stream cut short", one_chunk(part, cut_stream), result::kFail, zlib_data},
      // FDICT set: the stream asks for a preset dictionary.
      {"needs dictionary", one_chunk(part, {0x78, 0xBB, 0, 0, 0, 1, 0, 0, 0}), result::kFail, zlib_data},
      {"empty chunk", one_chunk({}, {}), result::kFail, zlib_data},
      {"chunk past 1 MiB", one_chunk(big, CompressStream(big.data(), big.size(), 9)), result::kFail,
       "Compression error -5:"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    RecordingLogger log;
    Bytes buffer = c.frame;
    EXPECT_FALSE(Decompress(buffer, kNoFrameOutputLimit, 0, log));
    EXPECT_EQ(buffer, c.frame);
    EXPECT_EQ(std::tuple(LastFrameError(), LastFrameFailure().description), std::tuple(c.code, c.description));
    ASSERT_EQ(log.Lines().size(), 1u);
    EXPECT_EQ(std::tuple(log.Lines()[0].level, log.Lines()[0].component, log.Lines()[0].message),
              std::tuple(loglevel::kError, "Decompress",
                         "Error while decompressing data: " + c.description + " (" +
                             std::to_string(static_cast<int32_t>(c.code)) + ")"));
    const Streamed streamed = UnpackStream(c.frame, 1000);
    EXPECT_EQ(std::pair(streamed.code, streamed.what), std::pair(c.code, c.description));
  }
}

// A frame cut short, or whose chunk lengths or count claim more than is
// there, is truncation: no allocation for the claim, no wrap-around of the
// bounds test, no description and no log line.
TEST(CompressedFrameTest, TruncatedFramesAndClaimsPastTheEnd) {
  const Bytes frame = ReferenceFrame(MakeData(3000), 1, 1000);
  std::vector<Bytes> truncated;
  for (size_t length = 0; length < frame.size(); ++length) {
    truncated.emplace_back(frame.begin(), frame.begin() + length);
  }
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
    EXPECT_EQ(std::tuple(LastFrameError(), LastFrameFailure().description, log.Lines().size()),
              std::tuple(result::kEndOfData, "", 0u));
    if (c.size() < frame.size()) {
      EXPECT_EQ(UnpackStream(c, 1000).code, result::kEndOfData);
    }
  }
}

// A cap on the output holds exactly at its value, and a small frame that
// expands far past it is refused without the process ever holding the
// expansion.
TEST(CompressedFrameTest, OutputPastTheCapIsRefusedWithoutBeingHeld) {
  const Bytes data = MakeData(200'000);
  const Bytes frame = ReferenceFrame(data, 1);
  using Cap = std::pair<uint64_t, bool>;
  for (const auto& [cap, fits] : {Cap{200'000, true}, Cap{199'999, false}, Cap{0, false}}) {
    SCOPED_TRACE(cap);
    RecordingLogger log;
    Bytes buffer = frame;
    EXPECT_EQ(Decompress(buffer, cap, 0, log), fits);
    EXPECT_EQ(buffer, fits ? data : frame);
    EXPECT_EQ(LastFrameFailure().description,
              fits ? "" : "Decompressed data exceeds the limit of " + std::to_string(cap) + " bytes");
  }

  // 4096 chunks of 64 KiB of zeros: a frame of about 400 KB holding 256 MiB.
  const Bytes zeros(0x10000, 0);
  const Bytes stream = CompressStream(zeros.data(), zeros.size(), 9);
  const uint32_t count = 4096;
  Bytes bomb = Header(uint64_t{count} * Crc(zeros), count);
  for (uint32_t i = 0; i < count; ++i) {
    PutU32(bomb, static_cast<uint32_t>(stream.size()));
    bomb.insert(bomb.end(), stream.begin(), stream.end());
  }
  constexpr uint64_t kCap = 16 << 20;
  testing::ResetPeakResidentBytes();
  const uint64_t before = testing::PeakResidentBytes();
  RecordingLogger log;
  Bytes buffer = bomb;
  EXPECT_FALSE(Decompress(buffer, kCap, 0, log));
  EXPECT_EQ(LastFrameError(), result::kResponseTooLarge);
  EXPECT_EQ(UnpackStream(bomb, 1 << 20, kCap).code, result::kResponseTooLarge) << "the stream passed the cap";
  EXPECT_LT(testing::PeakResidentBytes() - before, 3 * kCap) << "the expansion was held in memory";
}

}  // namespace
}  // namespace pkgdlv
