#include "transport/block_writer.h"

#include <unistd.h>

#include <cerrno>
#include <utility>

#include "snapshot/snapshot.h"
#include "transport/block_download_internal.h"

namespace pkgdlv {

using blockdownload::Fail;
using blockdownload::FailErrno;

BlockWriter::BlockWriter(Logger& log) : log_(log), thread_([this] { Run(); }) {}

BlockWriter::~BlockWriter() {
  {
    std::lock_guard lock(mutex_);
    stop_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void BlockWriter::Begin(const Target& target) {
  std::lock_guard lock(mutex_);
  target_ = target;
}

std::span<uint8_t> BlockWriter::Buffer(uint32_t length) {
  std::vector<uint8_t>& buffer = buffers_[next_];
  if (buffer.size() < length) buffer.resize(length);
  return std::span(buffer.data(), length);
}

std::optional<BlockWriter::Block> BlockWriter::Collect() {
  std::unique_lock lock(mutex_);
  if (!inHand_) return std::nullopt;
  changed_.wait(lock, [this] { return finished_; });
  const Block block = *inHand_;
  inHand_.reset();
  if (failure_) std::rethrow_exception(std::exchange(failure_, nullptr));
  return block;
}

void BlockWriter::Submit(const Block& block, Handling how) {
  if (how == Handling::kNow) {
    // Nothing is in hand (Collect came first): the thread is idle.
    std::exception_ptr failure;
    try {
      Process(ownValidator_, block, std::span(buffers_[next_].data(), block.length));
    } catch (...) {
      failure = std::current_exception();
    }
    std::lock_guard lock(mutex_);
    inHand_ = block;
    finished_ = true;
    failure_ = failure;
    return;
  }
  {
    std::lock_guard lock(mutex_);
    pending_ = block;
    inHand_ = block;
    finished_ = false;
    next_ ^= 1;
  }
  changed_.notify_all();
}

void BlockWriter::Run() {
  std::unique_lock lock(mutex_);
  while (true) {
    changed_.wait(lock, [this] { return stop_ || pending_; });
    if (!pending_) return;  // stopping with nothing handed over
    const Block block = *std::exchange(pending_, std::nullopt);
    // Submit flipped next_: the block sits in the other buffer, which the
    // owner leaves alone until it has collected this block.
    std::span<const uint8_t> data(buffers_[next_ ^ 1].data(), block.length);
    lock.unlock();
    std::exception_ptr failure;
    try {
      Process(validator_, block, data);
    } catch (...) {
      failure = std::current_exception();
    }
    lock.lock();
    failure_ = failure;
    finished_ = true;
    changed_.notify_all();
  }
}

void BlockWriter::Process(Validator& validator, const Block& block, std::span<const uint8_t> data) {
  const Snapshot& snapshot = *target_.snapshot;
  const SnapshotEntry& entry = *target_.entry;
  if (!entry.blockHashes.empty()) {
    const Result code = validator.ValidateBlock(snapshot, entry, block.index, data, target_.path, 0, true);
    if (code == validation::kBadBlock) {
      throw Error(code, Format("Block %u (%u/%u) is invalid for file '%ls'", block.index,
                               entry.firstBlock + block.index + 1, snapshot.totalBlocks, target_.path));
    }
    if (code != 0) throw Error(code, Format("Failed to calculate block hash for file '%ls'", target_.path));
  }
  // One call for the place and the bytes: no separate seek per block.
  size_t written = 0;
  while (written < data.size()) {
    const ssize_t n = ::pwrite(target_.fd, data.data() + written, data.size() - written,
                               static_cast<off_t>(block.offset + written));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) FailErrno(log_, errno, "Failed to write to file '%ls'", target_.path);
    if (n == 0) {
      Fail(log_, loglevel::kError, result::kDiskFull, "Failed to write to file '%ls', not all written", target_.path);
    }
    written += static_cast<size_t>(n);
  }
}

}  // namespace pkgdlv
