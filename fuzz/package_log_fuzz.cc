// A package's download history ("log.xml"): a bad document throws Error and
// leaves the object as it was; a loaded one is saved and loads again.
#include <cstdlib>
#include <string>

#include "fuzz/fuzz_input.h"
#include "records/package_log.h"
#include "support/memory_settings_store.h"
#include "util/error.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace pkgdlv;
  testing::MemorySettingsStore store;
  NullLogger log;
  DeliverySettings settings(store, log);
  PackageLog history(log, settings);
  try {
    history.Load(fuzz::AsText(data, size));
  } catch (const Error&) {
    return 0;
  }
  const std::string saved = history.Save();
  PackageLog reloaded(log, settings);
  try {
    reloaded.Load(saved);
  } catch (const Error&) {
    std::abort();  // what Save writes must load
  }
  return 0;
}
