// Transfer failures and their result codes, checked in this order:
//
//   Abort called (or CURLE_ABORTED_BY_CALLBACK)        0x800704C7  cancelled (Win32 1223)
//   too few bytes in a window of the low-speed rule     0x800705B4  time-out (Win32 1460)
//   body over the caller's limit, CURLE_FILESIZE_EXCEEDED 0x800700DF (Win32 223)
//   answer not the range asked for                      0x800C0008  download failed
//   HTTP status 400 or more                             0x80042D21  status kept (404: not found)
//   CURLE_UNSUPPORTED_PROTOCOL (also a redirect to a
//     scheme other than http/https)                     0x800C000D  invalid protocol
//   CURLE_TOO_MANY_REDIRECTS                            0x800C0014  redirect failed
//   CURLE_OPERATION_TIMEDOUT (connect time-out, stall
//     under the low-speed limit)                        0x800705B4  time-out (Win32 1460)
//   CURLE_COULDNT_CONNECT with ECONNREFUSED             0x800704C9  connection refused (Win32 1225)
//   CURLE_COULDNT_CONNECT otherwise                     0x800C0004  cannot connect
//   CURLE_COULDNT_RESOLVE_HOST / _PROXY                 0x800C0005  host not found
//   CURLE_FILE_COULDNT_READ_FILE, CURLE_REMOTE_FILE_NOT_FOUND:
//     local file whose folder is missing                0x80070003  path not found
//     local file that exists but cannot be read         0x80070005  access denied
//     otherwise                                         0x80070002  file not found
//   CURLE_REMOTE_ACCESS_DENIED, CURLE_LOGIN_DENIED      0x80070005  access denied
//   CURLE_SSL_* , CURLE_PEER_FAILED_VERIFICATION        0x800C0019  secure channel failed
//   CURLE_URL_MALFORMAT                                 0x80070057  invalid argument
//   anything else (reset, truncated body, no answer,
//     a malformed answer, a failed send)                0x800C0008  download failed
#include "agent/transport_errors.h"

#include <cerrno>
#include <system_error>

#include "util/error.h"

namespace pkgdlv {
namespace {

Result MapLocalNotFound(const std::filesystem::path& path) {
  if (path.empty()) return result::kFileNotFound;
  std::error_code ec;
  if (std::filesystem::exists(path, ec)) return result::kAccessDenied;
  if (!std::filesystem::is_directory(path.parent_path(), ec)) return result::kPathNotFound;
  return result::kFileNotFound;
}

Result MapCurlCode(const TransferOutcome& outcome) {
  switch (outcome.curlCode) {
    case CURLE_OK:
      return result::kOk;
    case CURLE_ABORTED_BY_CALLBACK:
      return result::kCancelled;
    case CURLE_FILESIZE_EXCEEDED:
      return result::kResponseTooLarge;
    case CURLE_UNSUPPORTED_PROTOCOL:
      return result::kInvalidProtocol;
    case CURLE_TOO_MANY_REDIRECTS:
      return result::kRedirectFailed;
    case CURLE_OPERATION_TIMEDOUT:
      return result::kTransferTimeout;
    case CURLE_COULDNT_CONNECT:
      return outcome.osErrno == ECONNREFUSED ? result::kConnectionRefused : result::kCannotConnect;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return result::kHostNotFound;
    case CURLE_FILE_COULDNT_READ_FILE:
    case CURLE_REMOTE_FILE_NOT_FOUND:
      return MapLocalNotFound(outcome.localPath);
    case CURLE_REMOTE_ACCESS_DENIED:
    case CURLE_LOGIN_DENIED:
      return result::kAccessDenied;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
    case CURLE_PEER_FAILED_VERIFICATION:
      return result::kSecureChannelFailed;
    case CURLE_URL_MALFORMAT:
      return result::kInvalidArg;
    default:
      return result::kDownloadFailed;
  }
}

}  // namespace

Result MapTransferOutcome(const TransferOutcome& outcome) {
  if (outcome.aborted) return result::kCancelled;
  if (outcome.tooSlow) return result::kTransferTimeout;
  if (outcome.bodyTooLarge) return result::kResponseTooLarge;
  if (outcome.rangeMismatch) return result::kDownloadFailed;
  if (outcome.httpStatus >= 400) return result::kHttpNotFound;
  return MapCurlCode(outcome);
}

void ThrowIfFailed(const TransferOutcome& outcome, std::string_view url) {
  Result code = MapTransferOutcome(outcome);
  if (code == result::kOk) return;
  std::string where = RedactUrl(url);
  if (code == result::kCancelled) Throw(code, "The download of '%ls' was cancelled", where);
  if (outcome.tooSlow) Throw(code, "The download of '%ls' timed out: %ls", where, outcome.detail);
  if (code == result::kResponseTooLarge) Throw(code, "The response from '%ls' is larger than allowed", where);
  if (outcome.rangeMismatch) Throw(code, "'%ls' did not answer with the requested range: %ls", where, outcome.detail);
  if (outcome.httpStatus >= 400) Throw(code, "HTTP status %d from '%ls'", static_cast<int>(outcome.httpStatus), where);
  const char* text = outcome.detail.empty() ? curl_easy_strerror(outcome.curlCode) : outcome.detail.c_str();
  Throw(code, "Failed to download '%ls': %hs", where, text);
}

std::string RedactUrl(std::string_view url) {
  size_t scheme_end = url.find("://");
  if (scheme_end == std::string_view::npos) return std::string(url);
  size_t authority_start = scheme_end + 3;
  size_t authority_end = url.find_first_of("/?#", authority_start);
  size_t at = url.rfind('@', authority_end == std::string_view::npos ? url.size() : authority_end);
  if (at == std::string_view::npos || at < authority_start) return std::string(url);
  return std::string(url.substr(0, authority_start)) + std::string(url.substr(at + 1));
}

}  // namespace pkgdlv
