// The one failure type of the component.
//
// Inside an operation a failure is thrown as an Error carrying a result code
// and a description; the operation catches it once at its end, where it becomes
// the operation's result and one log line.
#pragma once

#include <exception>
#include <string>
#include <string_view>

#include <pkgdlv/result_codes.h>

#include "util/format.h"

namespace pkgdlv {

class Error : public std::exception {
 public:
  Error(Result code, std::string description) : code_(code), description_(std::move(description)) {}

  Result code() const noexcept { return code_; }
  const std::string& description() const noexcept { return description_; }
  const char* what() const noexcept override { return description_.c_str(); }

 private:
  Result code_;
  std::string description_;
};

// Throws an Error whose description is the formatted message.
template <class... Args>
[[noreturn]] void Throw(Result code, std::string_view format, const Args&... args) {
  throw Error(code, Format(format, args...));
}

// The outcome of an operation caught at its boundary: the code and the text
// the caller sees. Turns whatever was thrown into a code and a description;
// an unknown failure becomes 0x80004005 "Unknown error".
struct Failure {
  Result code = result::kFail;
  std::string description;
};
Failure CurrentFailure() noexcept;  // call inside a catch (...) block

}  // namespace pkgdlv
