// Verifies and writes the blocks of a file on threads of their own, so that
// the check of block n, the write of block n - 1 and the request of block
// n + 1 overlap while the blocks are still requested one at a time, in file
// order.
//
// Two stages, each on its thread: the verifier checks a block against the
// snapshot, the writer writes the blocks the verifier passed. A block that
// fails its check is never written. Block n + 1 is keyed with the snapshot's
// expected hash of block n, so a check never waits for another one.
//
// The writer thread's writes of whole, aligned blocks bypass the page cache
// (O_DIRECT) where the file system allows it: a copy into the page cache
// costs more processor time than the check itself, and a package written
// once is not read back soon. A file system that refuses such writes gets
// ordinary ones, and so does a block handled at once (kNow), where a write
// that waits for the disk would overlap nothing.
//
// At most kDepth blocks are in hand (handed over, not yet collected) while
// the next one is received, so a process that is killed loses at most
// kDepth + 1 received blocks.
//
// Use, per file: Begin, then for each block Buffer (fill it), Collect while
// InHand() is kDepth, Submit; at the end (and on any failure) Collect until
// it gives nothing. Collect gives the blocks in the order they were handed
// over, each only after it was verified and written.
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
  // Where Submit verifies and writes a block: on the stage threads, or at
  // once on the caller's. A file's last block is waited for right away, so
  // nothing could overlap it and the hand-over would only add wake-ups
  // (which dominate a package of small files).
  enum class Handling { kInBackground, kNow };
  // Blocks that may be in hand while the next one is received.
  static constexpr size_t kDepth = 2;

  explicit BlockWriter(Logger& log);
  // Waits for the blocks in hand (their outcomes are dropped) and ends the
  // threads.
  ~BlockWriter();
  BlockWriter(const BlockWriter&) = delete;
  BlockWriter& operator=(const BlockWriter&) = delete;

  // The next file. Nothing may be in hand (collect first).
  void Begin(const Target& target);
  // The buffer the next block is to be received into: never one that is in
  // hand. Valid until the next Submit.
  std::span<uint8_t> Buffer(uint32_t length);
  // Blocks handed over and not yet collected.
  size_t InHand() const;
  // Waits for the oldest block in hand: nullopt when there is none, the
  // block when it is verified and written. When it failed, waits for the
  // rest in hand, drops them, and throws its Error (already logged).
  std::optional<Block> Collect();
  // Hands over the block received into Buffer(). At most kDepth - 1 blocks
  // may be in hand; with kNow, none. With kNow the block is verified and
  // written when Submit returns; its outcome is still taken by Collect.
  void Submit(const Block& block, Handling how = Handling::kInBackground);

 private:
  class AlignedBuffer {
   public:
    // Room for length bytes (kept for longer blocks); the contents are lost
    // when it grows.
    std::span<uint8_t> Get(uint32_t length);
    std::span<const uint8_t> View(uint32_t length) const;

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
  static constexpr size_t kSlots = kDepth + 1;

  void Verify();
  void Write();
  void Check(Validator& validator, const Block& block, std::span<const uint8_t> data);
  void Store(const Block& block, std::span<const uint8_t> data, bool background);
  std::span<const uint8_t> DataOf(uint64_t sequence) const;
  void OpenDirect();

  Logger& log_;
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
  // block below its mark; collected_ <= written_ <= verified_ <= submitted_.
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  uint64_t submitted_ = 0;
  uint64_t verified_ = 0;
  uint64_t written_ = 0;
  uint64_t collected_ = 0;
  // A block of this file failed its check (set by the verifier, which runs
  // ahead of the writer) or its write (set by the writer).
  bool checkFailed_ = false;
  bool writeFailed_ = false;
  bool stop_ = false;
  std::thread verifier_;  // last: started when everything above exists
  std::thread writer_;
};

}  // namespace pkgdlv
