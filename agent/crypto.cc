// The block hash chain and the file hasher.
#include "agent/crypto.h"

#include <algorithm>

#include "agent/openssl_helpers.h"
#include "util/error.h"
#include "util/file_reader.h"

namespace pkgdlv {

namespace {

void CheckPreviousHash(std::span<const uint8_t> previous_hash) {
  if (!previous_hash.empty() && previous_hash.size() != kSha256Size) {
    Throw(result::kInvalidArg, "A block hash key must be %u bytes, not %u", static_cast<uint32_t>(kSha256Size),
          static_cast<uint32_t>(previous_hash.size()));
  }
}

}  // namespace

Sha256Digest BlockHash(std::span<const uint8_t> block, std::span<const uint8_t> previous_hash) {
  CheckPreviousHash(previous_hash);
  // One context per thread, re-keyed per block: setting up an HMAC context
  // costs more than hashing a small block.
  thread_local openssl::HmacSha256 hmac;
  return hmac.Compute(block, previous_hash);
}

struct FileHasher::Contexts {
  openssl::Sha256Stream file;
  openssl::HmacSha256 block;
};

FileHasher::FileHasher(uint32_t block_size) : block_size_(block_size) {
  if (block_size == 0) Throw(result::kInvalidArg, "The hash block size must not be 0");
}

FileHasher::~FileHasher() = default;

// The file is read in pieces of at most kMaxReadBytes whatever the block
// size, so that a large block size cannot make the hasher take its size in
// memory; each block's HMAC is fed piece by piece.
FileHashes FileHasher::Hash(const std::filesystem::path& path) {
  FileReader file(path);
  if (!contexts_) contexts_ = std::make_unique<Contexts>();
  contexts_->file.Restart();  // a failed earlier file may have left bytes in it
  buffer_.resize(std::min<size_t>(block_size_, kMaxReadBytes));
  FileHashes hashes;
  Sha256Digest previous{};
  for (bool end = false; !end;) {
    contexts_->block.Start(hashes.size == 0 ? std::span<const uint8_t>() : std::span<const uint8_t>(previous));
    uint64_t inBlock = 0;
    while (inBlock < block_size_) {
      const size_t want = static_cast<size_t>(std::min<uint64_t>(buffer_.size(), block_size_ - inBlock));
      const size_t got = file.Read(std::span(buffer_.data(), want));
      const std::span<const uint8_t> piece(buffer_.data(), got);
      contexts_->file.Update(piece);
      contexts_->block.Add(piece);
      inBlock += got;
      if (got < want) {
        end = true;
        break;
      }
    }
    if (inBlock == 0) break;
    previous = contexts_->block.Finish();
    hashes.block_hashes.insert(hashes.block_hashes.end(), previous.begin(), previous.end());
    hashes.size += inBlock;
  }
  hashes.file_hash = contexts_->file.Finish();
  return hashes;
}

}  // namespace pkgdlv
