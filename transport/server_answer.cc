#include "transport/server_answer.h"

#include <optional>
#include <string>

#include "transport/response_text.h"
#include "util/error.h"
#include "util/strings.h"
#include "util/xml.h"

namespace pkgdlv {
namespace {

// An error report: a root element with the error's number (hexadecimal) and,
// perhaps, its text.
void ThrowIfErrorReport(const xml::Node& root, const std::function<void()>& recordServerError) {
  std::optional<std::string> number = root ? root.Attribute("number") : std::nullopt;
  if (!number) return;
  recordServerError();
  Result code = ParseHex32(TrimAscii(*number)).value_or(result::kServerErrorUnparsable);
  ThrowServerError(code, TrimAscii(root.Text()));
}

}  // namespace

void ThrowServerError(Result number, std::string_view text) {
  if (!text.empty()) throw Error(number, std::string(text));
  switch (number) {
    case result::kServerBusy:
    case result::kServerBusyAlt:
      throw Error(number, "WARNING: The server is currently busy");
    case result::kServerNotReady:
      throw Error(number, "WARNING: The server is not ready to process");
    case result::kServerPaused:
      throw Error(number, "WARNING: The server is currently paused");
    case 1:
      throw Error(result::kFail, "Invalid response from server");
    default:
      throw Error(number, "Server error");
  }
}

void CheckServerAnswer(std::string_view text, const std::function<void()>& recordServerError) {
  if (text.empty()) throw Error(result::kFail, "Invalid XML returned by server");
  std::optional<xml::Document> document = xml::Document::TryParse(SkipByteOrderMark(text));
  xml::Node root = document ? document->Root() : xml::Node();
  if (!root) {
    recordServerError();
    throw Error(result::kFail, "Invalid XML returned by server. Root of the document is not found.");
  }
  ThrowIfErrorReport(root, recordServerError);
}

void CheckErrorReport(std::string_view text, const std::function<void()>& recordServerError) {
  std::optional<xml::Document> document = xml::Document::TryParse(SkipByteOrderMark(text));
  if (document) ThrowIfErrorReport(document->Root(), recordServerError);
}

bool IsServerBusyCode(Result code) {
  return code == result::kServerBusy || code == result::kServerNotReady || code == result::kServerPaused ||
         code == result::kServerBusyAlt;
}

}  // namespace pkgdlv
