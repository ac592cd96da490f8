#include "util/compressed_frame.h"

#include <zlib.h>

#include <algorithm>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace pkgdlv {

namespace {

constexpr size_t kLengthSize = 4;
// Each chunk's output goes into a window of 64 KiB, enlarged by 64 KiB each
// time zlib fills it.
constexpr size_t kWindowStep = 0x10000;
// A writer of the format never puts more than 64 KiB into a chunk, but the
// window grows for inflating as it does for deflating, so a chunk from a
// writer that used larger slices is still read. The growth stops here: a
// chunk that inflates past 1 MiB fails as zlib's own too-small-buffer error,
// so a hostile chunk cannot make us allocate without bound. Over a whole
// frame the output is then bounded by deflate's own limit of about 1032
// output bytes per input byte.
constexpr size_t kMaxChunkOutput = 16 * kWindowStep;
constexpr uint64_t kMaxInflateRatio = 1032;

thread_local Failure t_last_failure{result::kOk, {}};

void StoreLe32(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}
void StoreLe64(uint8_t* p, uint64_t v) {
  for (int i = 0; i < 8; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}
uint32_t LoadLe32(const uint8_t* p) {
  uint32_t v = 0;
  for (int i = 3; i >= 0; --i) v = v << 8 | p[i];
  return v;
}
uint64_t LoadLe64(const uint8_t* p) {
  uint64_t v = 0;
  for (int i = 7; i >= 0; --i) v = v << 8 | p[i];
  return v;
}

[[noreturn]] void ThrowZlibError(int code) { Throw(result::kFail, "Compression error %d:", code); }

uint32_t Crc32(const uint8_t* bytes, size_t length) {
  return static_cast<uint32_t>(crc32(0, bytes, static_cast<uInt>(length)));
}

// Runs one zlib stream whose output goes straight to the end of `out`, in a
// window that grows whenever zlib fills it. The stream carries on where it
// stopped rather than starting again, so a slice is never compressed twice.
// At levels 1 to 9 deflate's output does not depend on the room it is given,
// so the bytes are those of compress2; level 0 may cut its stored blocks
// differently, which any reader takes. Returns the number of bytes appended.
template <class Step>
size_t RunIntoWindow(z_stream& stream, std::vector<uint8_t>& out, size_t max_output, Step step) {
  const size_t start = out.size();
  size_t window = kWindowStep;
  out.resize(start + window);
  stream.next_out = out.data() + start;
  stream.avail_out = static_cast<uInt>(window);
  for (;;) {
    int code = step(stream);
    if (code == Z_STREAM_END) break;
    bool window_full = stream.avail_out == 0 && (code == Z_OK || code == Z_BUF_ERROR);
    if (!window_full) ThrowZlibError(code);
    if (window + kWindowStep > max_output) ThrowZlibError(Z_BUF_ERROR);
    window += kWindowStep;
    out.resize(start + window);
    stream.next_out = out.data() + start + window - kWindowStep;
    stream.avail_out = static_cast<uInt>(kWindowStep);
  }
  const size_t produced = window - stream.avail_out;
  out.resize(start + produced);
  return produced;
}

// One zlib stream object for every chunk of a frame, reset between chunks
// instead of set up anew for each (which is what compress2 and uncompress
// would do). Set up on first use, so a frame without chunks needs none.
class ChunkDeflater {
 public:
  explicit ChunkDeflater(int level) : level_(level) {}
  ~ChunkDeflater() {
    if (ready_) deflateEnd(&stream_);
  }
  ChunkDeflater(const ChunkDeflater&) = delete;
  ChunkDeflater& operator=(const ChunkDeflater&) = delete;

  // Appends the slice as one zlib stream to `out`; returns its length.
  size_t Deflate(std::span<const uint8_t> slice, std::vector<uint8_t>& out) {
    Begin();
    stream_.next_in = const_cast<Bytef*>(slice.data());
    stream_.avail_in = static_cast<uInt>(slice.size());
    return RunIntoWindow(stream_, out, kMaxChunkOutput, [](z_stream& s) { return deflate(&s, Z_FINISH); });
  }

 private:
  void Begin() {
    if (ready_) {
      deflateReset(&stream_);
      return;
    }
    int code = deflateInit(&stream_, level_);
    if (code != Z_OK) ThrowZlibError(code);
    ready_ = true;
  }

  int level_;
  bool ready_ = false;
  z_stream stream_{};
};

class ChunkInflater {
 public:
  ChunkInflater() = default;
  ~ChunkInflater() {
    if (ready_) inflateEnd(&stream_);
  }
  ChunkInflater(const ChunkInflater&) = delete;
  ChunkInflater& operator=(const ChunkInflater&) = delete;

  // Appends the chunk's inflated bytes to `out`; returns how many. Failures
  // carry the codes uncompress would give: a stream that ends early or wants
  // a preset dictionary is a data error (-3).
  size_t Inflate(std::span<const uint8_t> chunk, std::vector<uint8_t>& out) {
    Begin();
    stream_.next_in = const_cast<Bytef*>(chunk.data());
    stream_.avail_in = static_cast<uInt>(chunk.size());
    return RunIntoWindow(stream_, out, kMaxChunkOutput, [](z_stream& s) {
      // Z_FINISH: the whole chunk is here, so zlib keeps no sliding window
      // copy of its own unless the output window runs out.
      int code = inflate(&s, Z_FINISH);
      if (code == Z_NEED_DICT || (code == Z_BUF_ERROR && s.avail_out != 0)) return Z_DATA_ERROR;
      return code;
    });
  }

 private:
  void Begin() {
    if (ready_) {
      inflateReset(&stream_);
      return;
    }
    int code = inflateInit(&stream_);
    if (code != Z_OK) ThrowZlibError(code);
    ready_ = true;
  }

  bool ready_ = false;
  z_stream stream_{};
};

void WriteHeader(uint8_t* header, uint64_t crc_sum, uint32_t chunk_count) {
  StoreLe32(header, kFrameMagic);
  StoreLe32(header + 4, 0);
  StoreLe64(header + 8, crc_sum);
  StoreLe32(header + 16, chunk_count);
  StoreLe32(header + 20, kFrameEndMarker);
}

std::vector<uint8_t> PackFrame(std::span<const uint8_t> input, int level) {
  const size_t slices = (input.size() + kFrameSliceSize - 1) / kFrameSliceSize;
  std::vector<uint8_t> frame;
  // Room for the input stored as it is plus zlib's few bytes of overhead per
  // chunk and one spare window, so the windows seldom move the frame.
  if (slices > 0) frame.reserve(kFrameHeaderSize + input.size() + slices * (kLengthSize + 64) + kWindowStep);
  frame.resize(kFrameHeaderSize);

  ChunkDeflater deflater(level);
  uint64_t crc_sum = 0;
  for (size_t offset = 0; offset < input.size(); offset += kFrameSliceSize) {
    auto slice = input.subspan(offset, std::min(kFrameSliceSize, input.size() - offset));
    const size_t slot = frame.size();
    frame.resize(slot + kLengthSize);
    const size_t length = deflater.Deflate(slice, frame);
    StoreLe32(frame.data() + slot, static_cast<uint32_t>(length));
    crc_sum += Crc32(slice.data(), slice.size());
  }
  WriteHeader(frame.data(), crc_sum, static_cast<uint32_t>(slices));
  // Well compressed data leaves most of the reservation unused; give it back
  // (one copy of the output, small beside the compression itself).
  if (frame.capacity() > 2 * frame.size()) frame.shrink_to_fit();
  return frame;
}

// What the output may need: a full slice per chunk, but never more than the
// frame's bytes could inflate to, so a hostile chunk count reserves nothing
// out of proportion to the input.
size_t OutputReservation(uint32_t chunk_count, size_t frame_size) {
  const uint64_t by_count = uint64_t{chunk_count} * kFrameSliceSize;
  const uint64_t by_size = uint64_t{frame_size - kFrameHeaderSize} * kMaxInflateRatio;
  return static_cast<size_t>(std::min(by_count, by_size));
}

// The unpacked bytes, or nullopt when the frame is cut short.
std::optional<std::vector<uint8_t>> UnpackFrame(std::span<const uint8_t> frame) {
  if (!IsCompressed(frame.data(), frame.size())) Throw(result::kInvalidData, "Data is not compressed");
  uint64_t crc_left = LoadLe64(frame.data() + 8);
  const uint32_t chunk_count = LoadLe32(frame.data() + 16);

  std::vector<uint8_t> out;
  out.reserve(OutputReservation(chunk_count, frame.size()));
  ChunkInflater inflater;
  size_t offset = kFrameHeaderSize;
  for (uint32_t i = 0; i < chunk_count; ++i) {
    const size_t remaining = frame.size() - offset;
    if (remaining < kLengthSize) return std::nullopt;
    const uint32_t length = LoadLe32(frame.data() + offset);
    if (uint64_t{length} + kLengthSize > remaining) return std::nullopt;
    const size_t produced = inflater.Inflate(frame.subspan(offset + kLengthSize, length), out);
    crc_left -= Crc32(out.data() + out.size() - produced, produced);
    offset += kLengthSize + length;
  }
  if (crc_left != 0) Throw(result::kCrcMismatch, "Incorrect CRC for decompressed data");
  return out;
}

void SetLastFailure(Result code, std::string_view description) noexcept {
  t_last_failure.code = code;
  try {
    t_last_failure.description = description;
  } catch (...) {  // out of memory: the code alone has to do
    t_last_failure.description.clear();
  }
}

// Turns the failure being handled into the thread's last frame error and one
// error line. Call inside a catch block.
void RecordFailure(Logger& log, uint32_t log_flags, const char* component, const char* described_format,
                   const char* unexpected_message) noexcept {
  try {
    throw;
  } catch (const Error& e) {
    SetLastFailure(e.code(), e.description());
    log.Log(loglevel::kError | log_flags, component, described_format, e.description(), e.code());
  } catch (...) {
    SetLastFailure(result::kFail, "Unexpected error");
    log.Log(loglevel::kError | log_flags, component, unexpected_message);
  }
}

}  // namespace

bool IsCompressed(const uint8_t* bytes, size_t length) {
  return length >= kFrameHeaderSize && LoadLe32(bytes) == kFrameMagic && LoadLe32(bytes + 20) == kFrameEndMarker;
}

bool Compress(std::vector<uint8_t>& buffer, int level, uint32_t log_flags, Logger& log) {
  try {
    std::vector<uint8_t> frame = PackFrame(buffer, level);
    log.Log(loglevel::kTrace | log_flags, "Compress", "Compressed data: %d -> %d", buffer.size(), frame.size());
    buffer.swap(frame);
    SetLastFailure(result::kOk, {});
    return true;
  } catch (...) {
    RecordFailure(log, log_flags, "Compress", "Error while compressing data: %ls (%d)",
                  "Error while compressing data: Unexpected error");
    return false;
  }
}

bool Decompress(std::vector<uint8_t>& buffer, uint32_t log_flags, Logger& log) {
  try {
    std::optional<std::vector<uint8_t>> data = UnpackFrame(buffer);
    if (!data) {
      SetLastFailure(result::kEndOfData, {});
      return false;
    }
    log.Log(loglevel::kTrace | log_flags, "Decompress", "Decompressed data: %d -> %d", buffer.size(), data->size());
    buffer.swap(*data);
    SetLastFailure(result::kOk, {});
    return true;
  } catch (...) {
    RecordFailure(log, log_flags, "Decompress", "Error while decompressing data: %ls (%d)",
                  "Error while decompressing data: Unexpected error");
    return false;
  }
}

Failure LastFrameFailure() { return t_last_failure; }

}  // namespace pkgdlv
