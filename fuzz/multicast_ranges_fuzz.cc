// The multicast address range documents (listener and exclusion): the first
// byte picks the list, the rest is the document. A document that does not
// load throws Error and leaves the stored list alone; one that loads is
// stored and composed again.
#include <string_view>

#include "fuzz/fuzz_input.h"
#include "multicast/multicast_settings.h"
#include "support/memory_settings_store.h"
#include "util/error.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace pkgdlv;
  if (size == 0) return 0;
  const bool listener = (data[0] & 1) != 0;
  const std::string_view document = fuzz::AsText(data + 1, size - 1);

  testing::MemorySettingsStore store;
  NullLogger log;
  MulticastSettings settings(store, log);
  try {
    if (listener) {
      settings.SetListenerRangeDocument(document);
      (void)settings.ListenerRangeDocument();
    } else {
      settings.SetExclusionRangeDocument(document);
      (void)settings.ExclusionRangeDocument();
    }
  } catch (const Error&) {
  }
  return 0;
}
