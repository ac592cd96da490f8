// Verifies and writes the blocks of a file on threads of their own, so that
// the blocks are still requested one at a time, in file order, while the
// check and the write of one overlap the request of the next.
//
// Two stages, each on its thread: the verifier checks a block against the
// snapshot, the writer writes the blocks the verifier passed. A block that
// fails its check is never written. Block n + 1 is keyed with the snapshot's
// expected hash of block n, so a check never waits for another one.
//
// The next block is received only once the write of the block two back has
// begun: a process that is killed loses the block it was receiving and the
// one before it, and a third only when it is killed in the instant between
// the writer taking a block and handing it to the kernel (a write the kernel
// has begun on its way past the page cache is finished even then).
//
// The writer thread's writes of whole, aligned blocks bypass the page cache
// (O_DIRECT) where the file system allows it: a copy into the page cache
// costs more processor time than the check itself, and a package written
// once is not read back soon. A file system that refuses such writes gets
// ordinary ones, and so does a block handled at once (kNow), where a write
// that waits for the disk would overlap nothing.
//
// Use, per file: Begin; for each block Receive, Collect while InHand() >
// kUnsettled (those blocks are written by then, so this never waits), Append
// its bytes (the transport's sink), Submit; at the end (and on any failure)
// Collect until it gives nothing. A block received but not submitted (a
// failed or repeated request) is dropped by the next Receive or Begin.
// Collect gives the blocks in the order they were submitted, each only after
// it was verified and written.
//
// Ownership: the target (descriptor, snapshot, entry and its block hashes)
// is the caller's and must stay open and unchanged until the last Collect.
//
// Threads: every method is for the one owning thread (the engine's). The
// stage threads log their failures themselves (component "PackageDownload";
// the validator's block line goes to the snapshot's logger), so the logger
// must accept calls from another thread.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>

#include "snapshot/validation.h"
#include "util/unique_fd.h"

namespace pkgdlv {

class Logger;
class Snapshot;
struct SnapshotEntry;

class BlockWriter {
 public:
  struct Target {
    int fd = -1;
    const Snapshot* snapshot = nullptr;
    const SnapshotEntry* entry = nullptr;  // unverified when it holds no block hashes
    std::string path;                      // for the log lines
  };
  struct Block {
    uint32_t index = 0;  // within the file
    uint64_t offset = 0;
    uint32_t length = 0;
  };
  // Where a block is verified and written: on the stage threads, or at once
  // on the caller's thread by Submit. A file's last block is waited for
  // right away, so nothing could overlap it and the hand-over would only add
  // wake-ups (which dominate a package of small files).
  enum class Handling { kInBackground, kNow };
  // Blocks submitted that may still be unwritten when Receive returns.
  static constexpr size_t kUnsettled = 2;
  // Blocks longer than this are handled at once, one at a time, and their
  // buffer is given back after the write: a snapshot's block size must not
  // make the writer hold several such blocks (a block is never longer than
  // its file, but a file may be gigabytes).
  static constexpr uint32_t kLargeBlock = 16u << 20;

  explicit BlockWriter(Logger& log, uint32_t largeBlock = kLargeBlock);
  // Waits for the blocks submitted (their outcomes are dropped) and ends the
  // threads.
  ~BlockWriter();
  BlockWriter(const BlockWriter&) = delete;
  BlockWriter& operator=(const BlockWriter&) = delete;

  // The next file. Nothing submitted may be left uncollected.
  void Begin(const Target& target);
  // Starts receiving block: waits until the write of every block submitted
  // but the last has begun. Drops the bytes of a block received before and
  // not submitted.
  void Receive(const Block& block, Handling how);
  // The next bytes of the block being received. Throws Error 0x800C0008 when
  // they go past its length.
  void Append(std::span<const uint8_t> bytes);
  // Hands over the block being received, whose bytes must all be there. With
  // kNow the block is verified and written when Submit returns; its outcome
  // is still taken by Collect.
  void Submit();
  // Blocks submitted and not yet collected.
  size_t InHand() const;
  // The memory the block buffers take.
  size_t BufferBytes() const;
  // Waits for the oldest block submitted and not collected: nullopt when
  // there is none, the block when it is verified and written. When it failed,
  // waits for the rest submitted, drops them, and throws its Error (already
  // logged).
  std::optional<Block> Collect();

 private:
  class AlignedBuffer {
   public:
    // Room for length bytes (kept for longer blocks); the contents are lost
    // when it grows.
    std::span<uint8_t> Get(uint32_t length);
    void Release();
    uint8_t* data() const { return data_.get(); }
    size_t capacity() const { return capacity_; }

   private:
    struct Free {
      void operator()(uint8_t* data) const;
    };
    std::unique_ptr<uint8_t[], Free> data_;
    size_t capacity_ = 0;
  };
  struct Slot {
    Block block;
    std::exception_ptr failure;
    bool dropped = false;  // after a failed block of its file: not written
  };
  // The block being received, the two before (being checked or written) and
  // the one before those (written, perhaps not yet collected).
  static constexpr size_t kSlots = kUnsettled + 2;

  void Verify();
  void Write();
  void Check(Validator& validator, const Block& block, std::span<const uint8_t> data);
  void Store(const Block& block, std::span<const uint8_t> data, bool background);
  std::span<const uint8_t> DataOf(uint64_t sequence) const;
  void OpenDirect();

  Logger& log_;
  const uint32_t largeBlock_;
  Target target_;
  // The target opened again without the page cache (or -1), on the writer
  // thread's first block of the file.
  UniqueFd direct_;
  bool directTried_ = false;
  Validator verifierValidator_;  // the verifier thread's: a validator keeps state
  Validator ownValidator_;       // the owning thread's, for kNow
  AlignedBuffer buffers_[kSlots];
  Slot slots_[kSlots];  // block number s sits in slot s % kSlots

  // Block numbers, counted since construction: each stage has passed every
  // block below its mark; collected_ <= written_ <= started_ <= verified_ <=
  // submitted_, where started_ counts the blocks whose write has begun. Block
  // submitted_ is the one being received.
  mutable std::mutex mutex_;
  std::condition_variable verifierWake_, writerWake_, ownerWake_;
  uint64_t submitted_ = 0;
  uint64_t verified_ = 0;
  uint64_t started_ = 0;
  uint64_t written_ = 0;
  uint64_t collected_ = 0;
  // The block being received (only the owning thread touches these).
  Handling receiving_ = Handling::kNow;
  bool receivingOpen_ = false;
  uint32_t received_ = 0;
  // A block of this file failed its check (set by the verifier, which runs
  // ahead of the writer) or its write (set by the writer).
  bool checkFailed_ = false;
  bool writeFailed_ = false;
  bool stop_ = false;
  std::thread verifier_;  // last: started when everything above exists
  std::thread writer_;
};

}  // namespace pkgdlv
