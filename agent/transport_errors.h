// The one place where the outcome of a transfer becomes a result code.
// Internal to the curl transport (agent/curl_transport.cc).
#pragma once

#include <curl/curl.h>

#include <filesystem>
#include <string>
#include <string_view>

#include <pkgdlv/result_codes.h>

namespace pkgdlv {

// What the transfer loop observed, beyond curl's own code.
struct TransferOutcome {
  CURLcode curlCode = CURLE_OK;
  long httpStatus = 0;        // 0 when there was no HTTP answer
  long osErrno = 0;           // CURLINFO_OS_ERRNO
  bool aborted = false;       // Abort was called during or before the transfer
  bool bodyTooLarge = false;  // the body passed the caller's limit
  bool rangeMismatch = false; // the answer was not the range asked for
  bool tooSlow = false;       // the transfer broke the low-speed rule
  std::string detail;         // curl's error buffer or our own finding
  // For a local file: the path, to tell a missing file from a missing folder.
  std::filesystem::path localPath;
};

// Returns 0 for a good transfer, else the code of the table in
// transport_errors.cc.
Result MapTransferOutcome(const TransferOutcome& outcome);

// Throws Error with MapTransferOutcome's code and a description naming the
// location (without any user name or password in it); returns for a good
// transfer.
void ThrowIfFailed(const TransferOutcome& outcome, std::string_view url);

// The URL without "user:password@".
std::string RedactUrl(std::string_view url);

}  // namespace pkgdlv
