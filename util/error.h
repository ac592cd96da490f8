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

// The code of memory that could not be had (the platform's E_OUTOFMEMORY).
inline constexpr Result kOutOfMemory = 0x8007000E;

// Throws Error 0x8007000E with the system's text for missing memory, for a
// library that reports it by a null result rather than std::bad_alloc.
[[noreturn]] void ThrowOutOfMemory();

// The outcome of an operation caught at its boundary: the code and the text
// the caller sees.
struct Failure {
  Result code = result::kFail;
  std::string description;
  // Neither an Error nor missing memory: a fault of the component itself.
  bool unexpected = false;
};

// Call inside a catch (...) block. Turns whatever was thrown into a code and
// a description: an Error keeps both; std::bad_alloc is 0x8007000E with the
// system's text for missing memory; another std::exception is 0x80004005
// with its what(); anything else 0x80004005 "Unknown error". Never throws
// (when even the text cannot be made, the description is empty).
Failure CurrentFailure() noexcept;

// The same at an operation's end, where an unexpected failure is reported as
// 0x80004005 "Unknown error" whatever it said.
Failure OperationFailure() noexcept;

}  // namespace pkgdlv
