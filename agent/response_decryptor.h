// The agent's decryption of server responses and of stored passwords.
//
// The keys behind the decryption belong to the agent; the component only
// hands it bytes. Threads: any thread may call; implementations are
// thread-safe.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <pkgdlv/result_codes.h>

namespace pkgdlv {

struct DecryptedResponse {
  // 0 when plain holds the decrypted bytes; otherwise why not. 0x80090005
  // means the body was encrypted but could not be opened; any other code
  // means it was not an encrypted body (the caller tries other readings).
  Result code = result::kOk;
  std::vector<uint8_t> plain;  // the caller wipes it after use
};

class ResponseDecryptor {
 public:
  virtual ~ResponseDecryptor() = default;

  // Never throws for bad input; the code says what happened.
  virtual DecryptedResponse DecryptResponse(std::span<const uint8_t> body) = 0;
  // A password stored as Base64 text of its encrypted bytes, as plain text.
  // The caller wipes the result (WipeString) once it has handed it on.
  // Throws Error 0x80090005 when the text cannot be decrypted.
  virtual std::string DecryptBase64String(std::string_view base64) = 0;
};

// The Linux agent has no response key: DecryptResponse reports every body as
// not encrypted (0x80004001), so a binary answer falls through to the
// compressed frame. Passwords are stored as the Base64 text of the plain
// password's UTF-8 bytes (the settings and package files that hold them are
// readable by their owner only), so DecryptBase64String decodes the Base64;
// text that is not strict Base64 fails with 0x80090005.
std::shared_ptr<ResponseDecryptor> NewDefaultResponseDecryptor();

}  // namespace pkgdlv
