// The block hash chain and the file hasher.
#include "agent/crypto.h"

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

FileHashes FileHasher::Hash(const std::filesystem::path& path) {
  FileReader file(path);
  if (!contexts_) contexts_ = std::make_unique<Contexts>();
  contexts_->file.Restart();  // a failed earlier file may have left bytes in it
  buffer_.resize(block_size_);
  FileHashes hashes;
  Sha256Digest previous{};
  for (;;) {
    const size_t got = file.Read(std::span(buffer_));
    if (got == 0) break;
    const std::span<const uint8_t> block(buffer_.data(), got);
    contexts_->file.Update(block);
    const std::span<const uint8_t> key = hashes.size == 0 ? std::span<const uint8_t>() : std::span(previous);
    previous = contexts_->block.Compute(block, key);
    hashes.block_hashes.insert(hashes.block_hashes.end(), previous.begin(), previous.end());
    hashes.size += got;
    if (got < buffer_.size()) break;
  }
  hashes.file_hash = contexts_->file.Finish();
  return hashes;
}

}  // namespace pkgdlv
