// The compressed data frame as it arrives from the network. Unpacking must
// refuse any malformed frame without touching memory it does not own and
// leave the buffer as it was; the streaming unpacker must accept what the
// whole-buffer one accepts and give the same bytes; and what was unpacked
// must pack and unpack back to itself.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz/fuzz_input.h"
#include "util/compressed_frame.h"
#include "util/error.h"

namespace {

// The cap the transport puts on a server's answer.
constexpr uint64_t kCap = 16ull << 20;

bool StreamUnpack(const std::vector<uint8_t>& frame, std::vector<uint8_t>& out) {
  size_t at = 0;
  try {
    pkgdlv::UnpackFrameStream(
        [&](std::span<uint8_t> into) {
          const size_t n = std::min(into.size(), frame.size() - at);
          if (n > 0) std::memcpy(into.data(), frame.data() + at, n);
          at += n;
          return n;
        },
        [&](std::span<const uint8_t> piece) { out.insert(out.end(), piece.begin(), piece.end()); }, kCap);
    return true;
  } catch (const pkgdlv::Error&) {
    return false;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace pkgdlv;
  NullLogger log;
  const std::vector<uint8_t> input(data, data + size);
  std::vector<uint8_t> buffer = input;
  std::vector<uint8_t> streamed;
  const bool streamOk = StreamUnpack(input, streamed);
  if (!Decompress(buffer, kCap, loglevel::kSilent, log)) {
    if (buffer != input) std::abort();  // a failure leaves the buffer as it was
    return 0;
  }
  if (!streamOk || streamed != buffer) std::abort();
  const std::vector<uint8_t> plain = buffer;
  if (!Compress(buffer, 1, loglevel::kSilent, log)) std::abort();
  if (!Decompress(buffer, kNoFrameOutputLimit, loglevel::kSilent, log) || buffer != plain) std::abort();
  return 0;
}
