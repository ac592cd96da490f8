// The configuration document of the delivery object: applied to delivery
// settings in memory (a bad document throws Error and changes nothing), then
// read back.
#include <string>

#include "fuzz/fuzz_input.h"
#include "records/configuration_document.h"
#include "support/memory_settings_store.h"
#include "util/error.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace pkgdlv;
  testing::MemorySettingsStore store;
  NullLogger log;
  DeliverySettings settings(store, log);
  std::string workFolder = "/var/tmp/pkgdlv-fuzz-work";  // only remembered, never created
  const WorkFolderAccess access{[&] { return workFolder; }, [&](const std::string& folder) { workFolder = folder; }};
  try {
    WriteConfigurationDocument(fuzz::AsText(data, size), settings, access);
  } catch (const Error&) {
  }
  (void)ReadConfigurationDocument(settings, access);
  return 0;
}
