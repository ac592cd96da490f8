// Small pieces shared by the OpenSSL-based hashing and signature code.
#pragma once

#include <openssl/evp.h>

#include <memory>
#include <span>
#include <string>

#include "agent/crypto.h"

namespace pkgdlv::openssl {

// The text of OpenSSL's queued errors ("unknown" when none), emptying the
// queue so that a later failure does not report an old cause.
std::string TakeErrorText();

// Throws Error 0x80004005 naming what failed and OpenSSL's reason.
[[noreturn]] void ThrowFailure(const char* what);

// SHA-256, fetched once for the process.
const EVP_MD* Sha256Algorithm();

struct Free {
  void operator()(EVP_MD_CTX* p) const { EVP_MD_CTX_free(p); }
  void operator()(EVP_MAC_CTX* p) const { EVP_MAC_CTX_free(p); }
  void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
};
template <class T>
using Ptr = std::unique_ptr<T, Free>;

// A running SHA-256.
class Sha256Stream {
 public:
  Sha256Stream();
  void Update(std::span<const uint8_t> data);
  Sha256Digest Finish();  // also makes the stream ready for new data
  void Restart();         // drops what was added since the last Finish

 private:
  Ptr<EVP_MD_CTX> context_;
};

// HMAC-SHA-256 whose context is set up once and re-keyed per message.
class HmacSha256 {
 public:
  HmacSha256();
  Sha256Digest Compute(std::span<const uint8_t> message, std::span<const uint8_t> key);
  // The same in parts: Start with the key, Add the message piece by piece,
  // then Finish.
  void Start(std::span<const uint8_t> key);
  void Add(std::span<const uint8_t> part);
  Sha256Digest Finish();

 private:
  Ptr<EVP_MAC_CTX> context_;
};

}  // namespace pkgdlv::openssl
