#include "util/error.h"

#include <cerrno>
#include <new>
#include <system_error>

namespace pkgdlv {
namespace {

// The system's text, made without a second allocation failure escaping.
std::string OutOfMemoryText() noexcept {
  try {
    return std::system_category().message(ENOMEM);
  } catch (...) {
    return {};
  }
}

}  // namespace

void ThrowOutOfMemory() { throw Error(kOutOfMemory, OutOfMemoryText()); }

Failure CurrentFailure() noexcept {
  try {
    throw;
  } catch (const Error& e) {
    try {
      return {e.code(), e.description()};
    } catch (...) {
      return {e.code(), {}};
    }
  } catch (const std::bad_alloc&) {
    return {kOutOfMemory, OutOfMemoryText()};
  } catch (const std::exception& e) {
    try {
      return {result::kFail, e.what(), true};
    } catch (...) {
      return {result::kFail, {}, true};
    }
  } catch (...) {
    try {
      return {result::kFail, "Unknown error", true};
    } catch (...) {
      return {result::kFail, {}, true};
    }
  }
}

Failure OperationFailure() noexcept {
  Failure failure = CurrentFailure();
  if (failure.unexpected) {
    try {
      failure.code = result::kFail;
      failure.description = "Unknown error";
    } catch (...) {
      failure.description.clear();
    }
  }
  return failure;
}

}  // namespace pkgdlv
