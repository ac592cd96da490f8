// The compressed data frame: a byte buffer packed into a chunked sequence of
// zlib streams, as it crosses the network (package information responses,
// compressed snapshots).
//
// Layout, all integers little-endian:
//   header (24 bytes): u32 magic 0x09176045, u32 reserved 0, u64 crc sum (the
//   sum of the CRC-32 of every chunk's uncompressed bytes), u32 chunk count,
//   u32 end marker 0xCFCFCFCF;
//   then each chunk: u32 length L, then L bytes holding one zlib stream (the
//   compress2 format) of at most 65536 uncompressed bytes.
//
// Both operations work in place: on success the buffer's contents are
// replaced by the result; on failure they return false, leave the buffer
// exactly as it was, log one error line (component "Compress" or
// "Decompress") and leave the failure's code as the calling thread's last
// frame error. Any thread may call them; they share no state between calls.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include <pkgdlv/result_codes.h>

#include "agent/logger.h"
#include "util/error.h"
#include "util/xml_limits.h"

namespace pkgdlv {

inline constexpr uint32_t kFrameMagic = 0x09176045;
inline constexpr uint32_t kFrameEndMarker = 0xCFCFCFCF;
inline constexpr size_t kFrameHeaderSize = 24;
inline constexpr size_t kFrameSliceSize = 0x10000;  // uncompressed bytes per chunk

// Packs the buffer into a frame with the zlib compression `level` (callers
// pass 1). `log_flags` is OR-ed into the level of the operation's log lines;
// loglevel::kSilent silences them. Logs "Compressed data: %d -> %d" at trace
// level on success. Fails with 0x80004005 "Compression error %d:" when zlib
// fails (an invalid level gives -2).
bool Compress(std::vector<uint8_t>& buffer, int level, uint32_t log_flags, Logger& log);

// What Decompress may produce for a caller that sets no tighter cap.
inline constexpr uint64_t kNoFrameOutputLimit = UINT64_MAX;

// Unpacks a frame into at most `max_output` bytes. Callers pass the cap of
// what they would have taken unpacked: an answer of the Quillon Server its
// 16 MiB, a snapshot the largest document the XML readers take
// (xml::kMaxDocumentBytes). Fails with 0x8007000D "Data is not compressed"
// when the buffer is not a frame, 0x80004005 "Compression error %d:" when a
// chunk is not a sound zlib stream or inflates past 1 MiB, 0x800700DF
// "Decompressed data exceeds the limit of %I64u bytes" as soon as the output
// would pass max_output (nothing beyond the cap is ever allocated), and
// 0x80070017 "Incorrect CRC for decompressed data" when the crc sum does not
// match. A frame cut short (fewer chunks than its count, or a chunk running
// past the end) returns false with no description and no log line; its code
// is 0x80070026. Logs "Decompressed data: %d -> %d" at trace level on success.
bool Decompress(std::vector<uint8_t>& buffer, uint64_t max_output, uint32_t log_flags, Logger& log);

// A frame read piece by piece, unpacked chunk by chunk: memory stays flat
// whatever the frame's size. `read` fills up to the span's size and returns
// how many bytes it gave (0 at the end of the input); `write` receives the
// unpacked bytes in order, in pieces of at most 64 KiB. Both may throw; their
// exceptions pass through. Throws Error with the codes and descriptions of
// Decompress; a frame cut short throws 0x80070026 "Truncated frame: a chunk
// runs past the end of the data". Bytes after the last chunk are not read.
// When it throws, `write` may already have received part of the data.
struct FrameSummary {
  uint64_t frame_size = 0;  // bytes of the frame that were read
  uint32_t chunks = 0;
  uint64_t crc_sum = 0;
  uint64_t unpacked_size = 0;
};
FrameSummary UnpackFrameStream(const std::function<size_t(std::span<uint8_t>)>& read,
                               const std::function<void(std::span<const uint8_t>)>& write,
                               uint64_t max_output = kNoFrameOutputLimit);

// True when the bytes are at least a header long, start with the magic and
// carry the end marker at offset 20. Nothing else is tested.
bool IsCompressed(const uint8_t* bytes, size_t length);

// The outcome of the calling thread's last Compress or Decompress: code 0
// and no description after a success, otherwise the failure's code and its
// description (empty for a frame cut short, "Unexpected error" for a failure
// that carried no code).
Failure LastFrameFailure();
inline Result LastFrameError() { return LastFrameFailure().code; }

}  // namespace pkgdlv
