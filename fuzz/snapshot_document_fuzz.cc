// The snapshot document, both passes: the tree pass (LoadXml) and, over the
// text it keeps, the streaming pass that reads the block hashes. A text the
// tree pass refuses still goes through the streaming pass on its own, since
// that pass reads whatever documentText holds.
#include <string>

#include "fuzz/fuzz_input.h"
#include "snapshot/snapshot.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace pkgdlv;
  const std::string text(reinterpret_cast<const char*>(data), size);
  Snapshot snapshot(fuzz::SharedNullLogger());
  if (snapshot.LoadXml(text)) {
    (void)snapshot.LoadBlockHashes();
    (void)snapshot.ComposeXml();
    return 0;
  }
  Snapshot streamOnly(fuzz::SharedNullLogger());
  streamOnly.documentText = text;
  (void)streamOnly.LoadBlockHashes();
  return 0;
}
