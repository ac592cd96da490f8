#include "agent/response_decryptor.h"

#include <openssl/crypto.h>

#include "util/base64.h"
#include "util/error.h"

namespace pkgdlv {
namespace {

class DefaultResponseDecryptor final : public ResponseDecryptor {
 public:
  DecryptedResponse DecryptResponse(std::span<const uint8_t>) override {
    return DecryptedResponse{result::kNotImplemented, {}};
  }

  std::string DecryptBase64String(std::string_view base64) override {
    std::optional<std::vector<uint8_t>> bytes = Base64Decode(base64);
    if (!bytes) Throw(result::kDecryptFailed, "The stored password cannot be decrypted");
    std::string plain(bytes->begin(), bytes->end());
    OPENSSL_cleanse(bytes->data(), bytes->size());
    return plain;
  }
};

}  // namespace

std::shared_ptr<ResponseDecryptor> NewDefaultResponseDecryptor() {
  return std::make_shared<DefaultResponseDecryptor>();
}

}  // namespace pkgdlv
