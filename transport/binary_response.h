// The integrity check of a binary response of the Quillon Server: its body
// must match the SHA-256 digest in "Content-Hash" and, when the response is
// signed ("Content-Signature"), the signature must verify with one of the
// stored response signing keys.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include <pkgdlv/result_codes.h>

namespace pkgdlv {

class Crypto;
class Logger;
class SigningKeys;

// Codes of the check (system error numbers, not result codes).
namespace binarycheck {
constexpr uint32_t kGood = 0;
constexpr uint32_t kNoContentHash = 13824;
constexpr uint32_t kBadHashLength = 13872;
constexpr uint32_t kHashMismatch = 13870;
constexpr uint32_t kBadDigestLength = 1359;
constexpr uint32_t kSignatureNotVerified = 13826;
constexpr uint32_t kNotBase64 = 13;  // the low 16 bits of 0x8007000D
}  // namespace binarycheck

using HeaderReader = std::function<std::optional<std::string>(std::string_view name)>;

// Returns 0 for a good response, else the check's code: one of binarycheck's
// codes or, when hashing or the key store fails, that failure's result code.
// Keys are tried in order: the default key, then each other key; a key that
// is not a usable public key counts as one that does not verify. Logs the
// warning "Failed to validate the binary response" when none verifies.
// Any thread; never throws.
uint32_t CheckBinaryResponse(std::span<const uint8_t> body, const HeaderReader& header, Crypto& crypto,
                             const SigningKeys* keys, Logger& log, std::string_view logComponent);

// The result code of a failed check: a check code c becomes
// 0x80070000 + (c AND 0xFFFF); a result code stays as it is.
Result BinaryCheckResult(uint32_t code);

// The text of a check code, for "Binary response validation failed: %ls".
std::string BinaryCheckText(uint32_t code);

}  // namespace pkgdlv
