// Verifies and writes the blocks of a file on a thread of its own, so that
// the check and the write of block n overlap the request of block n + 1 while
// the blocks are still requested one at a time, in file order.
//
// The pipeline holds at most two buffers: the one the writer works on and
// the one the next request fills, so a process that is killed loses at most
// those two blocks. Block n + 1 is keyed with the snapshot's expected hash of
// block n, so a check never waits for another one.
//
// Use, per file: Begin, then for each block Buffer (fill it), Collect (the
// block before: written, or its failure thrown), Submit; at the end (and on
// any failure) Collect once more. A block is reported by Collect only after
// it was verified and written; a block that fails is never written.
//
// Ownership: the target (descriptor, snapshot, entry and its block hashes)
// is the caller's and must stay open and unchanged until the last Collect.
//
// Threads: every method is for the one owning thread (the engine's). The
// writer thread logs its failures itself (component "PackageDownload"; the
// validator's block line goes to the snapshot's logger), so the logger must
// accept calls from another thread.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <exception>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "snapshot/validation.h"

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
  // Where Submit verifies and writes a block: on the writer's thread, or at
  // once on the caller's. A file's last block is waited for right away, so
  // nothing could overlap it and the hand-over would only add two wake-ups
  // (which dominate a package of small files).
  enum class Handling { kInBackground, kNow };

  explicit BlockWriter(Logger& log);
  // Waits for the block in hand (its outcome is dropped) and ends the thread.
  ~BlockWriter();
  BlockWriter(const BlockWriter&) = delete;
  BlockWriter& operator=(const BlockWriter&) = delete;

  // The next file. Nothing may be in hand (Collect first).
  void Begin(const Target& target);
  // The buffer the next block is to be received into: never the one the
  // writer works on. Valid until the next Submit.
  std::span<uint8_t> Buffer(uint32_t length);
  // Waits for the block handed over last: nullopt when there is none, the
  // block when it is verified and written; throws its Error (already logged)
  // when it failed.
  std::optional<Block> Collect();
  // Hands over the block received into Buffer(). Call Collect before. With
  // kNow the block is verified and written when Submit returns; its outcome
  // is still taken by the next Collect.
  void Submit(const Block& block, Handling how = Handling::kInBackground);

 private:
  void Run();
  void Process(Validator& validator, const Block& block, std::span<const uint8_t> data);

  Logger& log_;
  Target target_;
  Validator validator_;     // the writer thread's: a validator keeps state
  Validator ownValidator_;  // the owning thread's, for kNow
  std::vector<uint8_t> buffers_[2];
  int next_ = 0;  // the buffer Buffer() gives; the writer's is the other one

  std::mutex mutex_;
  std::condition_variable changed_;
  std::optional<Block> pending_;  // handed over, not yet taken by the thread
  std::optional<Block> inHand_;   // handed over, not yet collected
  bool finished_ = false;         // the thread is done with inHand_
  std::exception_ptr failure_;
  bool stop_ = false;
  std::thread thread_;  // last: started when everything above exists
};

}  // namespace pkgdlv
