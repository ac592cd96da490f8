#include "util/compressed_frame.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace pkgdlv {

namespace {

constexpr size_t kLengthSize = 4;
// Packing writes each chunk into a window of 64 KiB, enlarged by 64 KiB each
// time zlib fills it; unpacking passes its output on one 64 KiB window at a
// time.
constexpr size_t kWindowStep = 0x10000;
// A writer of the format never puts more than 64 KiB into a chunk; a chunk
// from a writer that used larger slices is still read up to this much. Over
// a whole frame the output is bounded by the caller's cap and by deflate's
// own limit of about 1032 output bytes per input byte.
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

// Where a frame's bytes come from: a buffer in memory or a stream.
class FrameInput {
 public:
  virtual ~FrameInput() = default;
  // Up to `max` of the next bytes, as a view valid until the next call;
  // empty at the end of the input.
  virtual std::span<const uint8_t> Next(size_t max) = 0;
  // The bytes left, when known; a chunk claiming more is then truncation
  // before anything of it is inflated.
  virtual std::optional<uint64_t> Remaining() const { return std::nullopt; }
  uint64_t consumed() const { return consumed_; }

 protected:
  uint64_t consumed_ = 0;
};

class MemoryInput final : public FrameInput {
 public:
  explicit MemoryInput(std::span<const uint8_t> bytes) : rest_(bytes) {}
  std::span<const uint8_t> Next(size_t max) override {
    std::span<const uint8_t> piece = rest_.first(std::min(max, rest_.size()));
    rest_ = rest_.subspan(piece.size());
    consumed_ += piece.size();
    return piece;
  }
  std::optional<uint64_t> Remaining() const override { return rest_.size(); }

 private:
  std::span<const uint8_t> rest_;
};

class StreamInput final : public FrameInput {
 public:
  explicit StreamInput(const std::function<size_t(std::span<uint8_t>)>& read) : read_(read), buffer_(kWindowStep) {}
  std::span<const uint8_t> Next(size_t max) override {
    const size_t got = read_(std::span(buffer_.data(), std::min(max, buffer_.size())));
    consumed_ += got;
    return std::span<const uint8_t>(buffer_.data(), got);
  }

 private:
  const std::function<size_t(std::span<uint8_t>)>& read_;
  std::vector<uint8_t> buffer_;
};

// Fills `out` completely; false when the input ends first.
bool ReadExact(FrameInput& in, std::span<uint8_t> out) {
  for (size_t filled = 0; filled < out.size();) {
    std::span<const uint8_t> piece = in.Next(out.size() - filled);
    if (piece.empty()) return false;
    std::memcpy(out.data() + filled, piece.data(), piece.size());
    filled += piece.size();
  }
  return true;
}

using Sink = std::function<void(std::span<const uint8_t>)>;

// Inflates chunk after chunk through one 64 KiB output window, handing each
// window's bytes on as they come, so that neither a chunk nor the frame is
// ever held whole, and counting the output against the caller's cap before
// any of it is passed on.
class FrameUnpacker {
 public:
  FrameUnpacker(FrameInput& in, uint64_t max_output, const Sink& sink)
      : in_(in), max_output_(max_output), sink_(sink), window_(kWindowStep) {}
  ~FrameUnpacker() {
    if (ready_) inflateEnd(&stream_);
  }
  FrameUnpacker(const FrameUnpacker&) = delete;
  FrameUnpacker& operator=(const FrameUnpacker&) = delete;

  // False when the frame is cut short; throws for every other failure.
  bool Run(FrameSummary& summary) {
    std::array<uint8_t, kFrameHeaderSize> header{};
    if (!ReadExact(in_, header) || !IsCompressed(header.data(), header.size())) {
      Throw(result::kInvalidData, "Data is not compressed");
    }
    summary.crc_sum = LoadLe64(header.data() + 8);
    summary.chunks = LoadLe32(header.data() + 16);
    uint64_t crc_left = summary.crc_sum;
    for (uint32_t i = 0; i < summary.chunks; ++i) {
      std::array<uint8_t, kLengthSize> length_field{};
      if (!ReadExact(in_, length_field)) return false;
      const uint32_t length = LoadLe32(length_field.data());
      if (std::optional<uint64_t> remaining = in_.Remaining(); remaining && length > *remaining) return false;
      uint32_t crc = 0;
      if (!InflateChunk(length, crc)) return false;
      crc_left -= crc;
    }
    summary.frame_size = in_.consumed();
    summary.unpacked_size = total_;
    if (crc_left != 0) Throw(result::kCrcMismatch, "Incorrect CRC for decompressed data");
    return true;
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

  // The next piece of the chunk's bytes into the stream; false at the end of
  // the input.
  bool Feed(uint32_t& left) {
    std::span<const uint8_t> piece = in_.Next(std::min<size_t>(left, kWindowStep));
    if (piece.empty()) return false;
    left -= static_cast<uint32_t>(piece.size());
    stream_.next_in = const_cast<Bytef*>(piece.data());
    stream_.avail_in = static_cast<uInt>(piece.size());
    return true;
  }

  void Emit(size_t produced, uint64_t& chunk_output, uint32_t& crc) {
    if (produced == 0) return;
    chunk_output += produced;
    // A writer of the format puts at most 64 KiB into a chunk; other writers'
    // larger slices are read up to 1 MiB, reported as zlib's too-small-buffer
    // error past it.
    if (chunk_output > kMaxChunkOutput) ThrowZlibError(Z_BUF_ERROR);
    if (produced > max_output_ - total_) {
      Throw(result::kResponseTooLarge, "Decompressed data exceeds the limit of %I64u bytes", max_output_);
    }
    total_ += produced;
    crc = static_cast<uint32_t>(crc32(crc, window_.data(), static_cast<uInt>(produced)));
    sink_(std::span<const uint8_t>(window_.data(), produced));
  }

  // Inflates one chunk of `length` bytes and sets crc to the CRC-32 of its
  // output. Failures carry the codes uncompress would give: a stream that
  // ends early or wants a preset dictionary is a data error (-3). Bytes after
  // the end of the zlib stream, within the chunk, are skipped.
  bool InflateChunk(uint32_t length, uint32_t& crc) {
    Begin();
    crc = static_cast<uint32_t>(crc32(0, nullptr, 0));
    uint32_t left = length;
    uint64_t chunk_output = 0;
    stream_.avail_in = 0;
    for (;;) {
      if (stream_.avail_in == 0 && left > 0 && !Feed(left)) return false;
      stream_.next_out = window_.data();
      stream_.avail_out = static_cast<uInt>(window_.size());
      const int code = inflate(&stream_, left == 0 ? Z_FINISH : Z_NO_FLUSH);
      const bool window_full = stream_.avail_out == 0;
      Emit(window_.size() - stream_.avail_out, chunk_output, crc);
      if (code == Z_STREAM_END) break;
      if (code == Z_NEED_DICT) ThrowZlibError(Z_DATA_ERROR);
      if (code != Z_OK && code != Z_BUF_ERROR) ThrowZlibError(code);
      // Without progress: more room or more input goes on, anything else is
      // a stream that stops short.
      if (code == Z_BUF_ERROR && !window_full && (stream_.avail_in != 0 || left == 0)) ThrowZlibError(Z_DATA_ERROR);
    }
    while (left > 0) {
      if (!Feed(left)) return false;
    }
    return true;
  }

  FrameInput& in_;
  const uint64_t max_output_;
  const Sink& sink_;
  std::vector<uint8_t> window_;
  uint64_t total_ = 0;
  bool ready_ = false;
  z_stream stream_{};
};

// What the output may need: a full slice per chunk, but never more than the
// frame's bytes could inflate to nor than the caller takes, so a hostile
// chunk count reserves nothing out of proportion.
size_t OutputReservation(std::span<const uint8_t> frame, uint64_t max_output) {
  if (frame.size() < kFrameHeaderSize) return 0;
  const uint64_t by_count = uint64_t{LoadLe32(frame.data() + 16)} * kFrameSliceSize;
  const uint64_t by_size = uint64_t{frame.size() - kFrameHeaderSize} * kMaxInflateRatio;
  return static_cast<size_t>(std::min({by_count, by_size, max_output}));
}

// The unpacked bytes, or nullopt when the frame is cut short.
std::optional<std::vector<uint8_t>> UnpackFrame(std::span<const uint8_t> frame, uint64_t max_output) {
  std::vector<uint8_t> out;
  out.reserve(OutputReservation(frame, max_output));
  // Growth past the reservation (chunks of other writers) stays within the cap.
  const Sink append = [&out, max_output](std::span<const uint8_t> piece) {
    if (out.capacity() - out.size() < piece.size()) {
      const uint64_t wanted = std::max<uint64_t>(2 * out.capacity(), out.size() + piece.size());
      out.reserve(static_cast<size_t>(std::min(wanted, max_output)));
    }
    out.insert(out.end(), piece.begin(), piece.end());
  };
  MemoryInput input(frame);
  FrameSummary summary;
  if (!FrameUnpacker(input, max_output, append).Run(summary)) return std::nullopt;
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

bool Decompress(std::vector<uint8_t>& buffer, uint64_t max_output, uint32_t log_flags, Logger& log) {
  try {
    std::optional<std::vector<uint8_t>> data = UnpackFrame(buffer, max_output);
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

FrameSummary UnpackFrameStream(const std::function<size_t(std::span<uint8_t>)>& read,
                               const std::function<void(std::span<const uint8_t>)>& write, uint64_t max_output) {
  StreamInput input(read);
  FrameSummary summary;
  if (!FrameUnpacker(input, max_output, write).Run(summary)) {
    Throw(result::kEndOfData, "Truncated frame: a chunk runs past the end of the data");
  }
  return summary;
}

Failure LastFrameFailure() { return t_last_failure; }

}  // namespace pkgdlv
