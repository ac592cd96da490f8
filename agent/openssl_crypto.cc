// The crypto service on OpenSSL: SHA-256, signing with a PEM private key and
// verifying with a Base64 DER public key.
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include "agent/crypto.h"
#include "agent/openssl_helpers.h"
#include "util/base64.h"
#include "util/error.h"
#include "util/file_reader.h"

namespace pkgdlv {

namespace {

constexpr size_t kFileChunk = 1 << 20;

using openssl::Ptr;

struct BioFree {
  void operator()(BIO* bio) const { BIO_free(bio); }
};

constexpr size_t kMaxKeyFile = 64 * 1024;  // far more than any PEM key needs

// Encrypted keys are refused rather than prompting on a terminal.
int NoPassphrase(char*, int, int, void*) { return -1; }

// Overwrites a buffer that held key material, however its scope is left.
struct WipeOnExit {
  std::string& text;
  ~WipeOnExit() { OPENSSL_cleanse(text.data(), text.size()); }
};

bool IsSupportedKey(const EVP_PKEY* key) { return EVP_PKEY_is_a(key, "RSA") || EVP_PKEY_is_a(key, "EC"); }

Ptr<EVP_PKEY> LoadPrivateKey(const std::filesystem::path& path) {
  // Read into a buffer that never reallocates, so that no stray copy of the
  // key is left behind in freed memory.
  std::string pem(kMaxKeyFile + 1, '\0');
  const WipeOnExit wipe{pem};
  const size_t length = FileReader(path).Read(std::span<char>(pem));
  if (length > kMaxKeyFile) Throw(result::kInvalidData, "'%ls' is too large to be a private key file", path.string());
  std::unique_ptr<BIO, BioFree> bio(BIO_new_mem_buf(pem.data(), static_cast<int>(length)));
  Ptr<EVP_PKEY> key(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, NoPassphrase, nullptr) : nullptr);
  if (!key) {
    Throw(result::kInvalidData, "'%ls' does not hold an unencrypted PEM private key: %hs", path.string(),
          openssl::TakeErrorText());
  }
  if (!IsSupportedKey(key.get())) {
    Throw(result::kInvalidData, "The private key in '%ls' is of type %hs; only RSA and EC keys can sign", path.string(),
          EVP_PKEY_get0_type_name(key.get()));
  }
  return key;
}

Ptr<EVP_PKEY> ParsePublicKey(std::string_view base64) {
  std::string compact;
  compact.reserve(base64.size());
  for (char c : base64) {
    if (c != ' ' && c != '\t' && c != '\r' && c != '\n') compact += c;
  }
  const std::optional<std::vector<uint8_t>> der = Base64Decode(compact);
  if (!der || der->empty()) Throw(result::kInvalidArg, "The public key is not valid Base64 text");
  const unsigned char* cursor = der->data();
  Ptr<EVP_PKEY> key(d2i_PUBKEY(nullptr, &cursor, static_cast<long>(der->size())));
  if (!key || cursor != der->data() + der->size()) {
    Throw(result::kInvalidArg, "The public key is not a DER SubjectPublicKeyInfo: %hs", openssl::TakeErrorText());
  }
  if (!IsSupportedKey(key.get())) {
    Throw(result::kInvalidArg, "The public key is of type %hs; only RSA and EC keys are accepted",
          EVP_PKEY_get0_type_name(key.get()));
  }
  return key;
}

// RSA signs with PKCS#1 v1.5 padding, said explicitly so that a changed
// library default cannot change the scheme.
void SetPadding(EVP_PKEY_CTX* context, const EVP_PKEY* key) {
  if (EVP_PKEY_is_a(key, "RSA") && EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PADDING) <= 0) {
    openssl::ThrowFailure("Setting RSA padding");
  }
}

// Signs what feed() passes to the update function it is given.
template <class Feed>
std::vector<uint8_t> SignWith(const std::filesystem::path& private_key_pem, Feed&& feed) {
  Ptr<EVP_PKEY> key = LoadPrivateKey(private_key_pem);
  Ptr<EVP_MD_CTX> context(EVP_MD_CTX_new());
  EVP_PKEY_CTX* key_context = nullptr;  // owned by context
  if (!context ||
      EVP_DigestSignInit_ex(context.get(), &key_context, "SHA256", nullptr, nullptr, key.get(), nullptr) != 1) {
    openssl::ThrowFailure("Signature setup");
  }
  SetPadding(key_context, key.get());
  feed([&](std::span<const uint8_t> data) {
    if (EVP_DigestSignUpdate(context.get(), data.data(), data.size()) != 1) openssl::ThrowFailure("Signing");
  });
  size_t length = 0;
  if (EVP_DigestSignFinal(context.get(), nullptr, &length) != 1) openssl::ThrowFailure("Signing");
  std::vector<uint8_t> signature(length);
  if (EVP_DigestSignFinal(context.get(), signature.data(), &length) != 1) openssl::ThrowFailure("Signing");
  signature.resize(length);  // an ECDSA signature is often shorter than its maximum
  return signature;
}

class OpenSslCrypto final : public Crypto {
 public:
  Sha256Digest Sha256(std::span<const uint8_t> data) override {
    openssl::Sha256Stream stream;
    stream.Update(data);
    return stream.Finish();
  }

  Sha256Digest Sha256File(const std::filesystem::path& path) override {
    FileReader file(path);
    openssl::Sha256Stream stream;
    std::vector<uint8_t> buffer(kFileChunk);
    while (const size_t got = file.Read(std::span(buffer))) stream.Update(std::span(buffer.data(), got));
    return stream.Finish();
  }

  std::vector<uint8_t> Sign(std::span<const uint8_t> data, const std::filesystem::path& private_key_pem) override {
    return SignWith(private_key_pem, [&](auto update) { update(data); });
  }

  std::vector<uint8_t> SignFile(const std::filesystem::path& path,
                                const std::filesystem::path& private_key_pem) override {
    return SignWith(private_key_pem, [&](auto update) {
      FileReader file(path);
      std::vector<uint8_t> buffer(kFileChunk);
      while (const size_t got = file.Read(std::span(buffer))) update(std::span<const uint8_t>(buffer.data(), got));
    });
  }

  bool Verify(std::span<const uint8_t> data, std::span<const uint8_t> signature,
              std::string_view public_key_base64) override {
    Ptr<EVP_PKEY> key = ParsePublicKey(public_key_base64);
    Ptr<EVP_MD_CTX> context(EVP_MD_CTX_new());
    EVP_PKEY_CTX* key_context = nullptr;  // owned by context
    if (!context ||
        EVP_DigestVerifyInit_ex(context.get(), &key_context, "SHA256", nullptr, nullptr, key.get(), nullptr) != 1) {
      openssl::ThrowFailure("Signature check setup");
    }
    SetPadding(key_context, key.get());
    const int verdict = EVP_DigestVerify(context.get(), signature.data(), signature.size(), data.data(), data.size());
    // A bad signature leaves its reasons queued; they explain nothing later.
    ERR_clear_error();
    return verdict == 1;
  }

  std::string PublicKeyBase64FromPrivateKey(const std::filesystem::path& private_key_pem) override {
    Ptr<EVP_PKEY> key = LoadPrivateKey(private_key_pem);
    unsigned char* der = nullptr;
    const int length = i2d_PUBKEY(key.get(), &der);
    if (length <= 0) openssl::ThrowFailure("Encoding the public key");
    std::string text = Base64Encode(std::span<const uint8_t>(der, static_cast<size_t>(length)));
    OPENSSL_free(der);
    return text;
  }
};

}  // namespace

std::shared_ptr<Crypto> NewOpenSslCrypto() { return std::make_shared<OpenSslCrypto>(); }

}  // namespace pkgdlv
