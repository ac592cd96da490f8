#include "agent/smb_library.h"

#include <dlfcn.h>

#include "util/error.h"

namespace pkgdlv {

namespace {

// The library stays loaded for the life of the process: contexts made from
// it may outlive any one user.
SmbClientFunctions Load() {
  void* library = ::dlopen("libsmbclient.so.0", RTLD_NOW | RTLD_LOCAL);
  if (!library) Throw(result::kFail, "Cannot start the file share client: %hs", ::dlerror());
  SmbClientFunctions functions;
#define PKGDLV_SMBC_LOAD(name)                                                                     \
  functions.name = reinterpret_cast<decltype(functions.name)>(::dlsym(library, "smbc_" #name));   \
  if (!functions.name) Throw(result::kFail, "Cannot start the file share client: %hs", "smbc_" #name " is missing");
  PKGDLV_SMBC_FUNCTIONS(PKGDLV_SMBC_LOAD)
#undef PKGDLV_SMBC_LOAD
  return functions;
}

}  // namespace

// A failed load leaves the static uninitialised, so the next call tries again.
const SmbClientFunctions& SmbClient() {
  static const SmbClientFunctions functions = Load();
  return functions;
}

}  // namespace pkgdlv
