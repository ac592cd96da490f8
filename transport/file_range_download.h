// The download of one byte range of one package file: the blocks that cover
// the range are fetched from a source the caller selected, each verified
// against the snapshot's block hash when the file has them, and written in
// place into a sparse target, so that the range can be served before the
// whole package is there.
//
// Ownership: the request's snapshot, entry and map are the caller's and must
// stay unchanged by other threads during the call. The target file is
// created when missing, grown (as a hole) to the file's size when shorter,
// and never truncated.
//
// Threads: the engine's thread; another thread cancels through
// PackageDownload::Cancel() (the call then ends with 1223 or 0x800704C7).
//
// Failure behaviour: returns 0 or the failure's code, which is also the
// transport's last result with its description; the failure is logged where
// it happens and the call ends with "Failed to download file range ..."
// (component "PackageDownload"). Nothing escapes. Blocks written before a
// failure stay written (and set in the map).
#pragma once

#include <pkgdlv/result_codes.h>

#include <cstdint>
#include <string>

namespace pkgdlv {

class DynamicBitset;
class PackageDownload;
class Snapshot;
struct SnapshotEntry;

struct FileRangeRequest {
  const Snapshot* snapshot = nullptr;  // required: package id, block size and count
  // Required: the package file. Its block hashes (Snapshot::LoadBlockHashes)
  // verify the blocks; without them each block is logged as not verified.
  const SnapshotEntry* file = nullptr;
  std::string sourceUrl;   // the selected source, stored location form; the file's path is joined to it
  uint64_t first = 0;      // first byte of the range
  uint64_t last = 0;       // last byte of the range, inclusive
  std::string targetPath;  // the sparse file that receives the blocks
  bool peer = false;
  uint32_t peerRateKBps = 0;
  // May be null. Blocks it has are not fetched again; blocks written are set.
  DynamicBitset* localMap = nullptr;
};

Result DownloadFileRange(PackageDownload& download, const FileRangeRequest& request);

}  // namespace pkgdlv
