#include "transport/file_range_download.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "snapshot/snapshot.h"
#include "snapshot/validation.h"
#include "transport/block_download.h"
#include "transport/block_download_internal.h"
#include "transport/package_download.h"

namespace pkgdlv {

using blockdownload::BlockLength;
using blockdownload::Fail;
using blockdownload::FailErrno;
using blockdownload::kLog;
using blockdownload::SourceOf;

namespace {

class RangeDownload {
 public:
  RangeDownload(PackageDownload& download, const FileRangeRequest& request)
      : download_(download), log_(download.log()), request_(request), file_(*request.file),
        name_(request.file->RelativePath()) {}
  ~RangeDownload() {
    if (fd_ >= 0) ::close(fd_);
  }

  void Run() {
    const Snapshot& snapshot = *request_.snapshot;
    log_.Log(loglevel::kInfo, kLog, "Requested range %I64u-%I64u download of a file '%ls'", request_.first,
             request_.last, name_);
    if (file_.size < 0 || request_.first > request_.last || request_.last >= static_cast<uint64_t>(file_.size) ||
        snapshot.blockSize == 0) {
      Fail(log_, loglevel::kError, result::kInvalidArg,
           "Invalid range request specified (%I64u-%I64u) for downloading the file '%ls'", request_.first,
           request_.last, name_);
    }
    if (!HasKnownProtocol(request_.sourceUrl)) {
      Fail(log_, loglevel::kError, result::kInvalidProtocol,
           "Failed to download range of a file '%ls', invalid protocol specified in '%ls'", name_,
           request_.sourceUrl);
    }
    download_.SetConnectionOptions(request_.peer, request_.peerRateKBps, kBlockDownloadLoggingFlags);
    source_ = SourceOf(request_.sourceUrl, file_);
    OpenTarget();
    const uint32_t blockSize = snapshot.blockSize;
    for (uint64_t index = request_.first / blockSize; index <= request_.last / blockSize; ++index) {
      const uint32_t bit = file_.firstBlock + static_cast<uint32_t>(index);
      if (request_.localMap && bit < request_.localMap->size() && request_.localMap->Check(bit)) continue;
      if (download_.State() == PackageDownload::kStateCancelled || download_.transport().IsAborted()) {
        Fail(log_, loglevel::kWarning, blockresult::kCancelled, "File range download of '%ls' cancelled", name_);
      }
      FetchBlock(static_cast<uint32_t>(index));
      if (request_.localMap && bit < request_.localMap->size()) request_.localMap->Set(bit, true);
    }
  }

 private:
  void OpenTarget() {
    const std::string& path = request_.targetPath;
    fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd_ < 0) FailErrno(log_, errno, "Failed to open the target sparse file '%ls'", path);
    // A file shorter than the package's grows as a hole: the blocks not
    // written stay unallocated, which is how a sparse check tells them.
    struct stat info {};
    if (::fstat(fd_, &info) != 0) FailErrno(log_, errno, "Failed to write to sparse file '%ls'", path);
    if (static_cast<uint64_t>(info.st_size) < static_cast<uint64_t>(file_.size) &&
        ::ftruncate(fd_, static_cast<off_t>(file_.size)) != 0) {
      FailErrno(log_, errno, "Failed to write to sparse file '%ls'", path);
    }
  }

  void FetchBlock(uint32_t index) {
    const Snapshot& snapshot = *request_.snapshot;
    const std::string& path = request_.targetPath;
    const uint64_t offset = uint64_t{index} * snapshot.blockSize;
    const uint32_t length = BlockLength(static_cast<uint64_t>(file_.size), snapshot.blockSize, index);
    if (buffer_.size() < length) buffer_.resize(length);
    const std::span<uint8_t> block(buffer_.data(), length);
    RangeResult range;
    try {
      range = download_.transport().DownloadRange(source_, offset, block);
    } catch (const Error& e) {
      log_.Log(loglevel::kError, kLog, "%ls (0x%08X)", e.description(), e.code());
      throw;
    }
    if (!range.effectiveUrl.empty() &&
        (StartsWithNoCase(range.effectiveUrl, "http://") || StartsWithNoCase(range.effectiveUrl, "https://"))) {
      source_ = range.effectiveUrl;  // a moved source serves the rest of the range
    }
    if (range.received < length) {
      Fail(log_, loglevel::kError, blockresult::kShortBlock, "Failed to write to sparse file '%ls', not enough data",
           path);
    }
    if (file_.blockHashes.empty()) {
      log_.Log(loglevel::kWarning, kLog, "Downloaded block hash is not verified: file block hash is missing.");
    } else {
      const Result code = validator_.ValidateBlock(snapshot, file_, index, block, path, 0, true);
      if (code == validation::kBadBlock) {
        throw Error(code, Format("Block %u (%u/%u) is invalid for file '%ls'", index, file_.firstBlock + index + 1,
                                 snapshot.totalBlocks, path));
      }
      if (code != 0) throw Error(code, Format("Failed to calculate block hash for file '%ls'", path));
    }
    size_t written = 0;
    while (written < length) {
      const ssize_t n = ::pwrite(fd_, block.data() + written, length - written, static_cast<off_t>(offset + written));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) FailErrno(log_, n < 0 ? errno : ENOSPC, "Failed to write to sparse file '%ls'", path);
      written += static_cast<size_t>(n);
    }
  }

  PackageDownload& download_;
  Logger& log_;
  const FileRangeRequest& request_;
  const SnapshotEntry& file_;
  const std::string name_;
  std::string source_;
  int fd_ = -1;
  Validator validator_;
  std::vector<uint8_t> buffer_;
};

}  // namespace

Result DownloadFileRange(PackageDownload& download, const FileRangeRequest& request) {
  Logger& log = download.log();
  if (!request.snapshot || !request.file) {
    download.SetLastResult(result::kInvalidArg, "Invalid Argument");
    return result::kInvalidArg;
  }
  if (!download.Prepare(request.snapshot->id)) return download.LastResult();
  try {
    RangeDownload(download, request).Run();
  } catch (...) {
    const Failure failure = CurrentFailure();
    download.SetLastResult(failure.code, failure.description);
    const std::string line = Format("Failed to download file range %I64u-%I64u of '%ls'", request.first,
                                    request.last, request.file->RelativePath());
    log.Log(loglevel::kError, kLog, "%ls (0x%08X)", line, failure.code);
  }
  download.Finish();
  return download.LastResult();
}

}  // namespace pkgdlv
