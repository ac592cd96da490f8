// What the block download's sources share (block_download.cc, the
// attempt; block_file.cc, one file; block_writer.cc; file_range_download.cc):
// block arithmetic over the local map and
// the one way a step fails, logged where it happens and thrown as Error; and
// where a file is found at the source.
// Not a public interface. Pure helpers; any thread.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "agent/logger.h"
#include "records/package_request.h"
#include "snapshot/dynamic_bitset.h"
#include "snapshot/snapshot_entry.h"
#include "transport/location.h"
#include "util/errno_result.h"
#include "util/error.h"
#include "util/strings.h"

namespace pkgdlv::blockdownload {

inline constexpr std::string_view kLog = kPackageDownloadLogComponent;

// Bytes of block index of a file of fileSize bytes: the last one is cut to
// the end of the file.
inline uint32_t BlockLength(uint64_t fileSize, uint32_t blockSize, uint64_t index) {
  const uint64_t offset = index * blockSize;
  return offset >= fileSize ? 0 : static_cast<uint32_t>(std::min<uint64_t>(blockSize, fileSize - offset));
}

// Bytes of the file's blocks that the map has; a block the map does not
// reach counts as absent.
inline uint64_t PresentBytes(const SnapshotEntry& file, uint32_t blockSize, const DynamicBitset& map) {
  if (file.size <= 0 || file.firstBlock == kNoBlock || !map.IsCreated()) return 0;
  const uint64_t size = static_cast<uint64_t>(file.size);
  const uint64_t blocks = file.BlockCount(blockSize);
  uint64_t present = 0;
  for (uint64_t i = 0; i < blocks; ++i) {
    const uint64_t bit = file.firstBlock + i;
    if (bit < map.size() && map.Check(static_cast<uint32_t>(bit))) present += BlockLength(size, blockSize, i);
  }
  return present;
}

// The entry's location at the source: URL components joined with "/" and
// percent-encoded, share and folder paths joined with "\".
inline std::string SourceOf(std::string_view sourceUrl, const SnapshotEntry& entry) {
  const bool http = StartsWithNoCase(sourceUrl, "http://") || StartsWithNoCase(sourceUrl, "https://");
  std::string location(sourceUrl);
  const std::string relative = entry.RelativePath();
  if (!http) {
    if (!location.ends_with('\\')) location += '\\';
    return location + relative;
  }
  if (!location.ends_with('/')) location += '/';
  size_t start = 0;
  while (true) {
    const size_t end = relative.find('\\', start);
    location += PercentEncodeComponent(std::string_view(relative).substr(start, end - start));
    if (end == std::string::npos) break;
    location += '/';
    start = end + 1;
  }
  return location;
}

// Logs the message with its code at level and throws it as the step's Error.
template <class... Args>
[[noreturn]] void Fail(Logger& log, uint32_t level, Result code, std::string_view format, const Args&... args) {
  std::string message = Format(format, args...);
  log.Log(level, kLog, "%ls (0x%08X)", message, code);
  throw Error(code, message);
}

// For a failed system call: the error's text is logged after the message and
// becomes part of the description; the code is the errno's.
template <class... Args>
[[noreturn]] void FailErrno(Logger& log, int error, std::string_view format, const Args&... args) {
  std::string message = Format(format, args...);
  const std::string reason = std::strerror(error);
  log.LogWithError(loglevel::kError, kLog, reason, "%ls", message);
  throw Error(ResultFromErrno(error), message + ": " + reason);
}

}  // namespace pkgdlv::blockdownload
