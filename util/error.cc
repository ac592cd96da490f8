#include "util/error.h"

#include <new>

namespace pkgdlv {

Failure CurrentFailure() noexcept {
  try {
    throw;
  } catch (const Error& e) {
    return {e.code(), e.description()};
  } catch (const std::bad_alloc&) {
    return {0x8007000E, "Out of memory"};
  } catch (const std::exception& e) {
    return {result::kFail, e.what()};
  } catch (...) {
    return {result::kFail, "Unknown error"};
  }
}

}  // namespace pkgdlv
