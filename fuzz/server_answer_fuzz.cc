// The server's answer to a package information request, as the transport
// handles a body: UTF-16 or a compressed frame becomes UTF-8 text, the text
// is checked as an answer (an error report or no document throws Error), and
// an accepted answer updates a package record's sources.
#include <span>
#include <string>
#include <vector>

#include "fuzz/fuzz_input.h"
#include "records/package_request.h"
#include "transport/response_text.h"
#include "transport/server_answer.h"
#include "util/compressed_frame.h"
#include "util/error.h"

namespace {
// What the transport takes of an answer at most.
constexpr uint64_t kMaxAnswerBytes = 16ull << 20;
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace pkgdlv;
  std::span<const uint8_t> body(data, size);
  std::string text;
  if (IsUtf16Text(body)) {
    text = Utf16ToUtf8(body);
  } else if (IsCompressed(data, size)) {
    NullLogger log;
    std::vector<uint8_t> bytes(body.begin(), body.end());
    if (!Decompress(bytes, kMaxAnswerBytes, loglevel::kSilent, log)) return 0;
    text.assign(bytes.begin(), bytes.end());
  } else {
    text.assign(body.begin(), body.end());
  }

  int serverErrors = 0;
  try {
    CheckErrorReport(text, [&] { ++serverErrors; });
    CheckServerAnswer(text, [&] { ++serverErrors; });
  } catch (const Error&) {
    return 0;
  }
  PackageRequest record(fuzz::SharedNullLogger(), fuzz::SharedClock(), fuzz::SharedCrypto());
  (void)record.ApplySourcesResponse(SkipByteOrderMark(text));
  (void)record.ToXml(PackageRequest::PasswordForm::kMasked);
  return 0;
}
