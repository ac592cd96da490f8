#include "transport/block_writer.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>

#include "snapshot/snapshot.h"
#include "transport/block_download_internal.h"

namespace pkgdlv {

using blockdownload::Fail;
using blockdownload::FailErrno;

namespace {

// What a write that bypasses the page cache needs of its buffer, offset and
// length: the logical block size of any disk of today.
constexpr size_t kDirectAlignment = 4096;

bool Aligned(uint64_t value) { return value % kDirectAlignment == 0; }

}  // namespace

void BlockWriter::AlignedBuffer::Free::operator()(uint8_t* data) const {
  ::operator delete[](data, std::align_val_t{kDirectAlignment});
}

std::span<uint8_t> BlockWriter::AlignedBuffer::Get(uint32_t length) {
  if (capacity_ < length) {
    const size_t capacity = (size_t{length} + kDirectAlignment - 1) / kDirectAlignment * kDirectAlignment;
    data_.reset(static_cast<uint8_t*>(::operator new[](capacity, std::align_val_t{kDirectAlignment})));
    capacity_ = capacity;
  }
  return std::span(data_.get(), length);
}

void BlockWriter::AlignedBuffer::Release() {
  data_.reset();
  capacity_ = 0;
}

BlockWriter::BlockWriter(Logger& log, uint32_t largeBlock)
    : log_(log), largeBlock_(largeBlock), verifier_([this] { Verify(); }), writer_([this] { Write(); }) {}

BlockWriter::~BlockWriter() {
  {
    std::lock_guard lock(mutex_);
    stop_ = true;
  }
  verifierWake_.notify_all();
  writerWake_.notify_all();
  verifier_.join();
  writer_.join();
}

void BlockWriter::Begin(const Target& target) {
  std::lock_guard lock(mutex_);
  receivingOpen_ = false;
  target_ = target;
  checkFailed_ = writeFailed_ = false;
  direct_.Reset();
  directTried_ = false;
}

// The same open file, reached again through /proc so that no name is looked
// up twice; without /proc, or on a file system that refuses O_DIRECT, every
// write goes through the page cache. A descriptor not open for writing is
// not widened by the reopening.
void BlockWriter::OpenDirect() {
  directTried_ = true;
  if (target_.fd < 0) return;
  const int flags = ::fcntl(target_.fd, F_GETFL);
  if (flags < 0 || (flags & O_ACCMODE) == O_RDONLY) return;
  const std::string self = "/proc/self/fd/" + std::to_string(target_.fd);
  direct_.Reset(::open(self.c_str(), O_WRONLY | O_DIRECT | O_CLOEXEC));
}

void BlockWriter::Receive(const Block& block, Handling how) {
  std::unique_lock lock(mutex_);
  // This block's slot must have been collected.
  if (submitted_ - collected_ >= kSlots) throw std::logic_error("BlockWriter: blocks left uncollected");
  // The write of every block but the last one under way: a killed process
  // loses this block and the last one.
  ownerWake_.wait(lock, [this] { return started_ + 1 >= submitted_; });
  Slot& slot = slots_[submitted_ % kSlots];
  slot.block = block;
  slot.failure = nullptr;
  slot.dropped = false;
  buffers_[submitted_ % kSlots].Get(block.length);
  receiving_ = block.length > largeBlock_ ? Handling::kNow : how;
  receivingOpen_ = true;
  received_ = 0;
}

// No lock: the stage threads never look at the block being received.
void BlockWriter::Append(std::span<const uint8_t> bytes) {
  const Block& block = slots_[submitted_ % kSlots].block;
  if (!receivingOpen_) throw std::logic_error("BlockWriter: no block is being received");
  if (bytes.size() > block.length - received_) {
    Throw(result::kDownloadFailed, "More than the %u bytes of block %u arrived for file '%ls'", block.length,
          block.index, target_.path);
  }
  std::memcpy(buffers_[submitted_ % kSlots].data() + received_, bytes.data(), bytes.size());
  received_ += static_cast<uint32_t>(bytes.size());
}

void BlockWriter::Submit() {
  const uint64_t sequence = submitted_;
  Slot& slot = slots_[sequence % kSlots];
  if (!receivingOpen_ || received_ != slot.block.length) {
    throw std::logic_error("BlockWriter: the block submitted is not complete");
  }
  std::unique_lock lock(mutex_);
  receivingOpen_ = false;
  if (receiving_ == Handling::kInBackground) {
    ++submitted_;
    lock.unlock();
    verifierWake_.notify_one();
    return;
  }
  // The stage threads are idle once the blocks before are written.
  ownerWake_.wait(lock, [this] { return written_ == submitted_; });
  slot.dropped = checkFailed_ || writeFailed_;
  lock.unlock();
  if (!slot.dropped) {
    try {
      const std::span<const uint8_t> data = DataOf(sequence);
      Check(ownValidator_, slot.block, data);
      Store(slot.block, data, false);
    } catch (...) {
      slot.failure = std::current_exception();
    }
  }
  if (slot.block.length > largeBlock_) buffers_[sequence % kSlots].Release();
  lock.lock();
  if (slot.failure) checkFailed_ = true;  // the file ends here, as after a failure in the background
  verified_ = started_ = written_ = ++submitted_;
}

size_t BlockWriter::BufferBytes() const {
  size_t bytes = 0;
  for (const AlignedBuffer& buffer : buffers_) bytes += buffer.capacity();
  return bytes;
}

size_t BlockWriter::InHand() const {
  std::lock_guard lock(mutex_);
  return static_cast<size_t>(submitted_ - collected_);
}

std::optional<BlockWriter::Block> BlockWriter::Collect() {
  std::unique_lock lock(mutex_);
  if (collected_ == submitted_) return std::nullopt;
  ownerWake_.wait(lock, [this] { return written_ > collected_; });
  Slot& slot = slots_[collected_ % kSlots];
  ++collected_;
  if (!slot.failure) return slot.block;
  // The blocks after a failed one are not reported: the file ends here.
  ownerWake_.wait(lock, [this] { return written_ == submitted_; });
  collected_ = submitted_;
  std::rethrow_exception(std::exchange(slot.failure, nullptr));
}

std::span<const uint8_t> BlockWriter::DataOf(uint64_t sequence) const {
  return std::span<const uint8_t>(buffers_[sequence % kSlots].data(), slots_[sequence % kSlots].block.length);
}

void BlockWriter::Verify() {
  std::unique_lock lock(mutex_);
  while (true) {
    verifierWake_.wait(lock, [this] { return stop_ || verified_ < submitted_; });
    if (verified_ == submitted_) return;  // stopping with nothing handed over
    Slot& slot = slots_[verified_ % kSlots];
    const std::span<const uint8_t> data = DataOf(verified_);
    const bool skip = checkFailed_ || writeFailed_;
    lock.unlock();
    try {
      if (!skip) Check(verifierValidator_, slot.block, data);
    } catch (...) {
      slot.failure = std::current_exception();
    }
    lock.lock();
    // The file ends at a failed block: what follows is neither checked nor
    // written, so the file holds no block past the failure.
    if (slot.failure) checkFailed_ = true;
    slot.dropped = skip;
    ++verified_;
    writerWake_.notify_one();
  }
}

void BlockWriter::Write() {
  std::unique_lock lock(mutex_);
  while (true) {
    writerWake_.wait(lock, [this] { return written_ < verified_ || (stop_ && verified_ == submitted_); });
    if (written_ == verified_) return;  // stopping with everything written
    Slot& slot = slots_[written_ % kSlots];
    const std::span<const uint8_t> data = DataOf(written_);
    // Not checkFailed_: the verifier runs ahead, and the blocks before its
    // failure are still written.
    const bool skip = slot.failure || slot.dropped || writeFailed_;
    started_ = written_ + 1;
    lock.unlock();
    ownerWake_.notify_one();  // the next block may be received now
    if (!skip) {
      try {
        Store(slot.block, data, true);
      } catch (...) {
        slot.failure = std::current_exception();
      }
    }
    lock.lock();
    if (slot.failure) writeFailed_ = true;
    ++written_;
    ownerWake_.notify_one();
  }
}

void BlockWriter::Check(Validator& validator, const Block& block, std::span<const uint8_t> data) {
  const Snapshot& snapshot = *target_.snapshot;
  const SnapshotEntry& entry = *target_.entry;
  if (entry.blockHashes.empty()) return;
  const Result code = validator.ValidateBlock(snapshot, entry, block.index, data, target_.path, 0, true);
  if (code == validation::kBadBlock) {
    throw Error(code, Format("Block %u (%u/%u) is invalid for file '%ls'", block.index,
                             entry.firstBlock + block.index + 1, snapshot.totalBlocks, target_.path));
  }
  if (code != 0) throw Error(code, Format("Failed to calculate block hash for file '%ls'", target_.path));
}

// Only the writer thread's writes bypass the page cache: such a write waits
// for the disk, which only pays where it overlaps the next check and request.
void BlockWriter::Store(const Block& block, std::span<const uint8_t> data, bool background) {
  const bool direct = background && Aligned(block.offset) && Aligned(data.size());
  if (direct && !directTried_) OpenDirect();
  // One call for the place and the bytes: no separate seek per block.
  int fd = direct && direct_.ok() ? direct_.get() : target_.fd;
  size_t written = 0;
  while (written < data.size()) {
    const ssize_t n =
        ::pwrite(fd, data.data() + written, data.size() - written, static_cast<off_t>(block.offset + written));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EINVAL && fd == direct_.get()) {
      // The file system takes no writes past its cache after all.
      direct_.Reset();
      fd = target_.fd;
      continue;
    }
    if (n < 0) FailErrno(log_, errno, "Failed to write to file '%ls'", target_.path);
    if (n == 0) {
      Fail(log_, loglevel::kError, result::kDiskFull, "Failed to write to file '%ls', not all written", target_.path);
    }
    written += static_cast<size_t>(n);
  }
}

}  // namespace pkgdlv
