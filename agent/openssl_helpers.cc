#include "agent/openssl_helpers.h"

#include <openssl/core_names.h>
#include <openssl/err.h>

#include "util/error.h"

namespace pkgdlv::openssl {

std::string TakeErrorText() {
  std::string text;
  while (const unsigned long code = ERR_get_error()) {
    char buffer[256];
    ERR_error_string_n(code, buffer, sizeof buffer);
    if (!text.empty()) text += "; ";
    text += buffer;
  }
  return text.empty() ? "unknown" : text;
}

void ThrowFailure(const char* what) { Throw(result::kFail, "%hs failed: %hs", what, TakeErrorText()); }

const EVP_MD* Sha256Algorithm() {
  // Fetched once: an explicit fetch per digest would look the algorithm up
  // in the provider tables every time. Kept for the life of the process.
  static EVP_MD* const algorithm = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  if (algorithm == nullptr) ThrowFailure("Fetching SHA-256");
  return algorithm;
}

namespace {

EVP_MAC* HmacAlgorithm() {
  static EVP_MAC* const algorithm = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
  if (algorithm == nullptr) ThrowFailure("Fetching HMAC");
  return algorithm;
}

}  // namespace

Sha256Stream::Sha256Stream() : context_(EVP_MD_CTX_new()) {
  if (!context_) ThrowFailure("SHA-256 setup");
  Restart();
}

void Sha256Stream::Restart() {
  if (EVP_DigestInit_ex(context_.get(), Sha256Algorithm(), nullptr) != 1) ThrowFailure("SHA-256 setup");
}

void Sha256Stream::Update(std::span<const uint8_t> data) {
  if (EVP_DigestUpdate(context_.get(), data.data(), data.size()) != 1) ThrowFailure("SHA-256");
}

Sha256Digest Sha256Stream::Finish() {
  Sha256Digest digest{};
  unsigned int length = 0;
  if (EVP_DigestFinal_ex(context_.get(), digest.data(), &length) != 1 || length != digest.size()) {
    ThrowFailure("SHA-256");
  }
  Restart();
  return digest;
}

HmacSha256::HmacSha256() : context_(EVP_MAC_CTX_new(HmacAlgorithm())) {
  char digest_name[] = "SHA256";
  const OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest_name, 0),
                               OSSL_PARAM_construct_end()};
  if (!context_ || EVP_MAC_CTX_set_params(context_.get(), params) != 1) ThrowFailure("HMAC-SHA-256 setup");
}

Sha256Digest HmacSha256::Compute(std::span<const uint8_t> message, std::span<const uint8_t> key) {
  Start(key);
  Add(message);
  return Finish();
}

void HmacSha256::Start(std::span<const uint8_t> key) {
  // A null key would make EVP_MAC_init reuse the previous message's key, so
  // the empty key of block 0 is given as a real pointer with length 0.
  static constexpr uint8_t kNoKey = 0;
  const uint8_t* key_bytes = key.empty() ? &kNoKey : key.data();
  if (EVP_MAC_init(context_.get(), key_bytes, key.size(), nullptr) != 1) ThrowFailure("HMAC-SHA-256");
}

void HmacSha256::Add(std::span<const uint8_t> part) {
  if (EVP_MAC_update(context_.get(), part.data(), part.size()) != 1) ThrowFailure("HMAC-SHA-256");
}

Sha256Digest HmacSha256::Finish() {
  Sha256Digest digest{};
  size_t length = 0;
  if (EVP_MAC_final(context_.get(), digest.data(), &length, digest.size()) != 1 || length != digest.size()) {
    ThrowFailure("HMAC-SHA-256");
  }
  return digest;
}

}  // namespace pkgdlv::openssl
