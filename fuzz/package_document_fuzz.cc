// A package document ("package.xml", or the request document the agent hands
// over): loading reports a bad document through its result, and a loaded
// record writes a document that loads again.
#include <cstdlib>
#include <string>

#include "fuzz/fuzz_input.h"
#include "records/package_request.h"
#include "util/strings.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace pkgdlv;
  const std::string_view text = fuzz::AsText(data, size);
  // A locally managed package makes the record hash the folder it names:
  // that walks the file system, which is not the parser under test.
  if (ToLowerAscii(text).find("localmanaged") != std::string::npos) return 0;

  PackageRequest record(fuzz::SharedNullLogger(), fuzz::SharedClock(), fuzz::SharedCrypto());
  if (!record.LoadFromXml(text)) return 0;
  const std::string saved = record.ToXml();
  PackageRequest reloaded(fuzz::SharedNullLogger(), fuzz::SharedClock(), fuzz::SharedCrypto());
  if (!reloaded.LoadFromXml(saved)) std::abort();
  (void)record.ToXml(PackageRequest::PasswordForm::kMasked);
  return 0;
}
