// pkgdlv frame pack | unpack | info, run as a separate process.
#include <sys/resource.h>
#include <zlib.h>

#include <random>

#include "agent/logger.h"
#include "cli_test_support.h"
#include "util/compressed_frame.h"

namespace pkgdlv {
namespace {

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

// Text with a stretch of random bytes (including NULs and newlines) so that
// the tool's input and output must be binary-safe.
std::string SampleData(size_t size) {
  std::mt19937 rng(21);
  std::string data;
  while (data.size() < size) data += "<file name=\"setup" + std::to_string(rng() % 1000) + ".msi\"/>\n";
  data.resize(size);
  for (size_t i = size / 3; i < size / 2; ++i) data[i] = static_cast<char>(rng());
  return data;
}

// Through the standard streams and through files; the failures of the
// frame itself are the library's, printed with their description.
TEST(FrameCliTest, PackUnpackAndInfo) {
  TempDir dir;
  for (size_t size : {size_t{0}, size_t{300'000}}) {
    SCOPED_TRACE(size);
    const std::string data = SampleData(size);
    ToolResult packed = RunTool("frame pack", data, dir.path());
    ASSERT_EQ(packed.exit_code, 0) << packed.err;
    EXPECT_TRUE(IsCompressed(reinterpret_cast<const uint8_t*>(packed.out.data()), packed.out.size()));
    EXPECT_EQ(static_cast<uint8_t>(packed.out[16]), (size + 0xFFFF) / 0x10000);  // chunk count

    ToolResult unpacked = RunTool("frame unpack", packed.out, dir.path());
    ASSERT_EQ(unpacked.exit_code, 0) << unpacked.err;
    EXPECT_EQ(unpacked.out, data);
  }

  const std::string data = SampleData(200'000);
  WriteFile(dir / "plain", data);
  const std::string plain = Quote(dir / "plain"), packed = Quote(dir / "packed"), back = Quote(dir / "back");
  ASSERT_EQ(RunTool("frame pack --level 9 -i " + plain + " -o " + packed, {}, dir.path()).exit_code, 0);
  ASSERT_EQ(RunTool("frame unpack -i " + packed + " -o " + back, {}, dir.path()).exit_code, 0);
  EXPECT_EQ(ReadFile(dir / "back"), data);
  ToolResult info = RunTool("frame info --json -i " + packed, {}, dir.path());
  ASSERT_EQ(info.exit_code, 0) << info.err;
  uint64_t crcSum = 0;
  for (size_t at = 0; at < data.size(); at += 0x10000) {
    crcSum += crc32(0, reinterpret_cast<const Bytef*>(data.data() + at), std::min<size_t>(0x10000, data.size() - at));
  }
  EXPECT_EQ(nlohmann::json::parse(info.out),
            nlohmann::json({{"chunks", 4}, {"crcSum", crcSum}, {"unpackedSize", data.size()},
                            {"frameSize", ReadFile(dir / "packed").size()}}));

  const std::string frame = ReadFile(dir / "packed");
  const struct {
    std::string arguments;
    std::string input;
    std::string error;
  } failures[] = {
      {"frame unpack", "not a frame at all, just some text", "pkgdlv: Data is not compressed\n"},
      {"frame unpack", frame.substr(0, frame.size() - 1),
       "pkgdlv: Truncated frame: a chunk runs past the end of the data (0x80070026)\n"},
      {"frame unpack -i " + Quote(dir / "missing"), "",
       "pkgdlv: cannot open '" + (dir / "missing").string() + "': No such file or directory\n"},
  };
  for (const auto& c : failures) {
    SCOPED_TRACE(c.arguments);
    ToolResult result = RunTool(c.arguments, c.input, dir.path());
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_EQ(result.err, c.error);
  }
}

// Unpacking streams: a frame of 512 MiB of zeros (about 700 KB packed) is
// described and unpacked in flat memory; a device named by -i is refused; a
// file named by -o is removed when the frame fails part-way.
TEST(FrameCliTest, StreamsAnySizeAndReadsOnlyRegularFiles) {
  TempDir dir;
  const std::string zeros(0x10000, '\0');
  std::string frame = FrameOf(zeros, 8192);
  WriteFile(dir / "bomb", frame);
  const std::string bomb = (dir / "bomb").string(), out = (dir / "out").string();

  ToolResult info = RunTool("frame info --json -i '" + bomb + "'", {}, dir.path());
  ASSERT_EQ(info.exit_code, 0) << info.err;
  EXPECT_EQ(nlohmann::json::parse(info.out)["unpackedSize"], uint64_t{8192} << 16);
  ASSERT_EQ(RunTool("frame unpack -i '" + bomb + "' -o '" + out + "'", {}, dir.path()).exit_code, 0);
  EXPECT_EQ(std::filesystem::file_size(dir / "out"), uint64_t{8192} << 16);
  rusage usage{};
  ::getrusage(RUSAGE_CHILDREN, &usage);
  // Far below the 512 MiB unpacked, whatever a sanitizer build adds.
  EXPECT_LT(usage.ru_maxrss, 256 * 1024) << "KiB at the peak of a tool run";

  frame[8] ^= 1;  // the crc sum
  WriteFile(dir / "bomb", frame);
  EXPECT_EQ(RunTool("frame unpack -i '" + bomb + "' -o '" + out + "'", {}, dir.path()).err,
            "pkgdlv: Incorrect CRC for decompressed data\n");
  EXPECT_FALSE(std::filesystem::exists(dir / "out"));

  ToolResult device = RunTool("frame unpack -i /dev/null", {}, dir.path());  // FIFOs: input_files_cli_test.cc
  EXPECT_EQ(device.exit_code, 1);
  EXPECT_EQ(device.err, "pkgdlv: '/dev/null' is not a regular file\n");
}

}  // namespace
}  // namespace pkgdlv
