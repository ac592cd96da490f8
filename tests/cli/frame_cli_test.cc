// pkgdlv frame pack | unpack | info, run as a separate process.
#include <sys/resource.h>
#include <zlib.h>

#include "agent/logger.h"
#include "cli_test_support.h"
#include "util/compressed_frame.h"

namespace pkgdlv {
namespace {

using FrameCliTest = CliTest;

// A frame of `count` chunks that each hold `chunk`, built by hand so that a
// huge frame costs only one compression.
std::string FrameOf(const std::string& chunk, uint32_t count) {
  std::vector<uint8_t> one(chunk.begin(), chunk.end());
  NullLogger log;
  if (!Compress(one, 9, 0, log)) return {};
  std::string frame(reinterpret_cast<const char*>(one.data()), 24);
  const uint64_t crc = uint64_t{count} * crc32(0, reinterpret_cast<const Bytef*>(chunk.data()), chunk.size());
  for (int i = 0; i < 8; ++i) frame[8 + i] = static_cast<char>(crc >> (8 * i));
  for (int i = 0; i < 4; ++i) frame[16 + i] = static_cast<char>(count >> (8 * i));
  const std::string body(reinterpret_cast<const char*>(one.data()) + 24, one.size() - 24);
  for (uint32_t i = 0; i < count; ++i) frame += body;
  return frame;
}

// Packing and unpacking through the standard streams are binary-safe.
// Unpacking streams: a frame of 512 MiB of zeros (about 700 KB packed) is
// described and unpacked in flat memory; a device named by -i is refused; a
// file named by -o is removed when the frame fails part-way.
TEST_F(FrameCliTest, PacksAndStreamsAnySizeAndReadsOnlyRegularFiles) {
  std::string data(300'000, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>((i * 2654435761u) >> 13);
  const std::string packed = Ok("frame pack --level 9", data);
  EXPECT_EQ(static_cast<uint8_t>(packed[16]), 5) << "chunks of 64 KiB";
  EXPECT_EQ(Ok("frame unpack", packed), data);
  EXPECT_EQ(Fails("frame unpack", packed.substr(0, packed.size() - 1)),
            "pkgdlv: Truncated frame: a chunk runs past the end of the data (0x80070026)\n");

  std::string frame = FrameOf(std::string(0x10000, '\0'), 8192);
  WriteFile(dir_ / "bomb", frame);
  const std::string unpack = "frame unpack -i " + Quote(dir_ / "bomb") + " -o " + Quote(dir_ / "out");
  EXPECT_EQ(nlohmann::json::parse(Ok("frame info --json -i " + Quote(dir_ / "bomb")))["unpackedSize"],
            uint64_t{8192} << 16);
  Ok(unpack);
  EXPECT_EQ(fs::file_size(dir_ / "out"), uint64_t{8192} << 16);
  rusage usage{};
  ::getrusage(RUSAGE_CHILDREN, &usage);
  // Far below the 512 MiB unpacked, whatever a sanitizer build adds.
  EXPECT_LT(usage.ru_maxrss, 256 * 1024) << "KiB at the peak of a tool run";

  frame[8] ^= 1;  // the crc sum
  WriteFile(dir_ / "bomb", frame);
  EXPECT_EQ(Fails(unpack), "pkgdlv: Incorrect CRC for decompressed data\n");
  EXPECT_FALSE(fs::exists(dir_ / "out"));
  EXPECT_EQ(Fails("frame unpack -i /dev/null"), "pkgdlv: '/dev/null' is not a regular file\n");
}

}  // namespace
}  // namespace pkgdlv
