#include "transport/block_writer.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <new>
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

std::span<const uint8_t> BlockWriter::AlignedBuffer::View(uint32_t length) const {
  return std::span<const uint8_t>(data_.get(), length);
}

BlockWriter::BlockWriter(Logger& log)
    : log_(log), verifier_([this] { Verify(); }), writer_([this] { Write(); }) {}

BlockWriter::~BlockWriter() {
  {
    std::lock_guard lock(mutex_);
    stop_ = true;
  }
  changed_.notify_all();
  verifier_.join();
  writer_.join();
}

void BlockWriter::Begin(const Target& target) {
  std::lock_guard lock(mutex_);
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

std::span<uint8_t> BlockWriter::Buffer(uint32_t length) { return buffers_[submitted_ % kSlots].Get(length); }

size_t BlockWriter::InHand() const {
  std::lock_guard lock(mutex_);
  return static_cast<size_t>(submitted_ - collected_);
}

std::optional<BlockWriter::Block> BlockWriter::Collect() {
  std::unique_lock lock(mutex_);
  if (collected_ == submitted_) return std::nullopt;
  changed_.wait(lock, [this] { return written_ > collected_; });
  Slot& slot = slots_[collected_ % kSlots];
  ++collected_;
  if (!slot.failure) return slot.block;
  // The blocks after a failed one are not reported: the file ends here.
  changed_.wait(lock, [this] { return written_ == submitted_; });
  collected_ = submitted_;
  std::rethrow_exception(std::exchange(slot.failure, nullptr));
}

void BlockWriter::Submit(const Block& block, Handling how) {
  Slot& slot = slots_[submitted_ % kSlots];
  slot.block = block;
  slot.failure = nullptr;
  slot.dropped = false;
  if (how == Handling::kNow) {
    // Nothing is in hand: both stage threads are idle.
    try {
      const std::span<const uint8_t> data = DataOf(submitted_);
      Check(ownValidator_, block, data);
      Store(block, data, false);
    } catch (...) {
      slot.failure = std::current_exception();
    }
    std::lock_guard lock(mutex_);
    verified_ = written_ = ++submitted_;
    return;
  }
  {
    std::lock_guard lock(mutex_);
    ++submitted_;
  }
  changed_.notify_all();
}

std::span<const uint8_t> BlockWriter::DataOf(uint64_t sequence) const {
  return buffers_[sequence % kSlots].View(slots_[sequence % kSlots].block.length);
}

void BlockWriter::Verify() {
  std::unique_lock lock(mutex_);
  while (true) {
    changed_.wait(lock, [this] { return stop_ || verified_ < submitted_; });
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
    changed_.notify_all();
  }
}

void BlockWriter::Write() {
  std::unique_lock lock(mutex_);
  while (true) {
    changed_.wait(lock, [this] { return written_ < verified_ || (stop_ && written_ == submitted_); });
    if (written_ == verified_) return;  // stopping with everything written
    Slot& slot = slots_[written_ % kSlots];
    const std::span<const uint8_t> data = DataOf(written_);
    // Not checkFailed_: the verifier runs ahead, and the blocks before its
    // failure are still written.
    const bool skip = slot.failure || slot.dropped || writeFailed_;
    lock.unlock();
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
    changed_.notify_all();
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
