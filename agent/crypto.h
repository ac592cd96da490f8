// Hashing and signatures.
//
// The crypto service is the agent core's hashing, file-signing and
// signature-verification service (one interface, an OpenSSL implementation,
// handed around in the agent's service bundle). The block hash chain and the
// file hasher are plain functions of the data, shared by the validator and the
// publisher, so that both compute hashes the same way.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace pkgdlv {

constexpr size_t kSha256Size = 32;
using Sha256Digest = std::array<uint8_t, kSha256Size>;

// The hash of one block in a file's block hash chain: HMAC-SHA-256 over the
// block's bytes, keyed with the 32-byte expected hash of the block before it,
// or with an empty key for block 0 (previous_hash empty). "Expected" means:
// the validator passes the previous block's hash from the snapshot, so one bad
// block does not make every later block fail too. Any thread may call; throws
// Error only when OpenSSL itself fails (out of memory).
Sha256Digest BlockHash(std::span<const uint8_t> block, std::span<const uint8_t> previous_hash);

// A file's whole-file SHA-256 and its block hash chain.
struct FileHashes {
  uint64_t size = 0;                  // bytes read
  Sha256Digest file_hash{};           // SHA-256 of all bytes
  std::vector<uint8_t> block_hashes;  // 32 bytes per block, block 0 first; none for an empty file
};

// Computes FileHashes reading each file once, through one buffer of a block's
// size that is reused from file to file. One thread at a time per object.
class FileHasher {
 public:
  // The most the hasher reads at once, whatever the block size.
  static constexpr size_t kMaxReadBytes = 1u << 20;
  // Throws Error 0x80070057 for a block size of 0.
  explicit FileHasher(uint32_t block_size);
  ~FileHasher();
  FileHasher(const FileHasher&) = delete;
  FileHasher& operator=(const FileHasher&) = delete;

  // Throws Error when the file cannot be read (0x80070002 when it does not
  // exist).
  FileHashes Hash(const std::filesystem::path& path);

 private:
  struct Contexts;
  uint32_t block_size_;
  std::vector<uint8_t> buffer_;
  std::unique_ptr<Contexts> contexts_;
};

// The agent core's crypto service. Every method may be called from any
// thread. Signatures use SHA-256 with RSA (PKCS#1 v1.5) or ECDSA (DER-encoded
// signature), chosen by the key; other key types are refused. Private keys
// are read from PEM files (PKCS#8 or traditional, unencrypted) and the copy
// of the file's text is wiped after use; keys are never logged.
class Crypto {
 public:
  virtual ~Crypto() = default;

  virtual Sha256Digest Sha256(std::span<const uint8_t> data) = 0;
  // Throws Error when the file cannot be read.
  virtual Sha256Digest Sha256File(const std::filesystem::path& path) = 0;

  // The signature of data, or of the file's bytes, with the private key in
  // private_key_pem. Throws Error when a file cannot be read (its code from
  // the system error) or the key is not a usable private key (0x8007000D).
  virtual std::vector<uint8_t> Sign(std::span<const uint8_t> data, const std::filesystem::path& private_key_pem) = 0;
  virtual std::vector<uint8_t> SignFile(const std::filesystem::path& file,
                                        const std::filesystem::path& private_key_pem) = 0;

  // Whether signature is a valid signature of data by the key, given as
  // Base64 of a DER SubjectPublicKeyInfo (what a package's "sourceKey"
  // carries; white space in it is ignored). A wrong or malformed signature is
  // false; a key text that is not such a key throws Error 0x80070057.
  virtual bool Verify(std::span<const uint8_t> data, std::span<const uint8_t> signature,
                      std::string_view public_key_base64) = 0;

  // The public half of the key in private_key_pem, as Verify takes it.
  // Throws like Sign.
  virtual std::string PublicKeyBase64FromPrivateKey(const std::filesystem::path& private_key_pem) = 0;
};

std::shared_ptr<Crypto> NewOpenSslCrypto();

}  // namespace pkgdlv
