// The security data document ("snapdata.xml"): identifier, path and
// signature of a snapshot, read into a snapshot and written back.
#include <string>

#include "fuzz/fuzz_input.h"
#include "snapshot/snapshot.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace pkgdlv;
  Snapshot snapshot(fuzz::SharedNullLogger());
  if (snapshot.LoadXml(std::string(reinterpret_cast<const char*>(data), size), /*isSecurityData=*/true)) {
    (void)snapshot.ComposeSecurityData();
  }
  return 0;
}
