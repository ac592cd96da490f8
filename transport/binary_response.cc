#include "transport/binary_response.h"

#include <algorithm>
#include <vector>

#include "agent/crypto.h"
#include "agent/logger.h"
#include "agent/signing_keys.h"
#include "util/base64.h"
#include "util/error.h"
#include "util/format.h"
#include "util/strings.h"

namespace pkgdlv {
namespace {

bool VerifiesWith(Crypto& crypto, std::span<const uint8_t> body, std::span<const uint8_t> signature,
                  const std::string& key) {
  try {
    return crypto.Verify(body, signature, key);
  } catch (const Error&) {
    return false;  // not a usable key: the next one may be
  }
}

}  // namespace

uint32_t CheckBinaryResponse(std::span<const uint8_t> body, const HeaderReader& header, Crypto& crypto,
                             const SigningKeys* keys, Logger& log, std::string_view logComponent) {
  try {
    std::optional<std::string> hashText = header("Content-Hash");
    if (!hashText) return binarycheck::kNoContentHash;
    std::optional<std::vector<uint8_t>> expected = Base64Decode(TrimAscii(*hashText));
    if (!expected) return binarycheck::kNotBase64;
    if (expected->size() != kSha256Size) return binarycheck::kBadHashLength;
    Sha256Digest digest = crypto.Sha256(body);
    if (digest.size() != kSha256Size) return binarycheck::kBadDigestLength;
    if (!std::equal(digest.begin(), digest.end(), expected->begin())) return binarycheck::kHashMismatch;

    // The signature is optional by design: a hashed response is good without it.
    std::optional<std::string> signatureText = header("Content-Signature");
    if (!signatureText) return binarycheck::kGood;
    std::optional<std::vector<uint8_t>> signature = Base64Decode(TrimAscii(*signatureText));
    if (!signature) return binarycheck::kNotBase64;
    if (keys != nullptr) {
      if (std::optional<std::string> key = keys->DefaultKey(); key && VerifiesWith(crypto, body, *signature, *key)) {
        return binarycheck::kGood;
      }
      for (const std::string& key : keys->OtherKeys()) {
        if (VerifiesWith(crypto, body, *signature, key)) return binarycheck::kGood;
      }
    }
    log.Log(loglevel::kWarning, logComponent, "Failed to validate the binary response");
    return binarycheck::kSignatureNotVerified;
  } catch (...) {
    return CurrentFailure().code;
  }
}

Result BinaryCheckResult(uint32_t code) { return Succeeded(code) ? (0x80070000u | (code & 0xFFFFu)) : code; }

std::string BinaryCheckText(uint32_t code) {
  switch (code) {
    case binarycheck::kNoContentHash:
      return "The response carries no Content-Hash header";
    case binarycheck::kBadHashLength:
      return "The Content-Hash header does not hold a SHA-256 digest";
    case binarycheck::kHashMismatch:
      return "The response body does not match its Content-Hash";
    case binarycheck::kBadDigestLength:
      return "An internal error occurred";
    case binarycheck::kSignatureNotVerified:
      return "The response signature could not be verified";
    case binarycheck::kNotBase64:
      return "The data is invalid";
    default:
      return Format("Error 0x%08X", code);
  }
}

}  // namespace pkgdlv
