// The package information request: the Quillon Server's list of sources for
// a package, over the persistent connection sender when the agent has one,
// else over HTTP, with the process-wide back-off after busy answers.
#include <openssl/crypto.h>

#include <optional>
#include <string>
#include <vector>

#include "agent/connection_sender.h"
#include "agent/crypto.h"
#include "agent/logger.h"
#include "agent/network_addresses.h"
#include "agent/response_decryptor.h"
#include "records/delivery_settings.h"
#include "records/package_request.h"
#include "transport/binary_response.h"
#include "transport/package_download.h"
#include "transport/response_text.h"
#include "transport/server_answer.h"
#include "transport/server_backoff.h"
#include "transport/tlx_frame.h"
#include "transport/url_parts.h"
#include "util/compressed_frame.h"
#include "util/error.h"
#include "util/strings.h"
#include "util/xml.h"

namespace pkgdlv {
namespace {

constexpr std::string_view kLog = kPackageDownloadLogComponent;
// Answers are small documents; anything far larger is refused before it is
// all read.
constexpr uint64_t kMaxAnswerBytes = 16ull << 20;

void WipeBytes(std::vector<uint8_t>& bytes) {
  if (!bytes.empty()) OPENSSL_cleanse(bytes.data(), bytes.size());
  bytes.clear();
}

// An answer as it arrived: text, or binary data still to be opened.
struct Answer {
  bool isText = false;
  std::string text;
  std::vector<uint8_t> bytes;
  ~Answer() { WipeBytes(bytes); }
};

void TakeBody(std::span<const uint8_t> body, Answer& answer) {
  answer.isText = true;
  if (IsUtf16Text(body)) {
    answer.text = Utf16ToUtf8(body);
  } else {
    answer.text.assign(body.begin(), body.end());
  }
}

}  // namespace

bool PackageDownload::GetPackageInfo(const PackageInfoQuery& query, std::string& response) {
  if (!Prepare(query.packageId)) {
    log().Log(loglevel::kError, kLog, "Download package sources failed: %ls (0x%08X)", LastDescription(),
              LastResult());
    return false;
  }
  if (!BackoffInForce()) {
    try {
      response = RequestPackageInfo(query);
      std::lock_guard lock(mutex_);
      ProcessBackoff().state.RecordSuccess();
    } catch (...) {
      const Failure failure = OperationFailure();
      SetLastResult(failure.code, failure.description);
      if (IsServerBusyCode(failure.code)) {
        BackoffAfterBusyAnswer(failure.code);
      } else if (failure.unexpected) {
        log().Log(loglevel::kError, kLog, "Download package sources failed: Unknown error");
      } else {
        log().Log(loglevel::kError, kLog, "Download package sources failed: %ls (0x%08X)", failure.description,
                  failure.code);
      }
    }
  }
  retryAfter_ = 0;
  Finish();
  return LastResult() == result::kOk;
}

bool PackageDownload::BackoffInForce() {
  const FileTime now = Now();
  std::optional<FileTime> end;
  {
    std::lock_guard lock(mutex_);
    end = ProcessBackoff().state.ActiveUntil(now);
    if (!end) return false;
    nextAllowedTime_ = *end;
    lastResult_ = result::kServerBusy;
    lastDescription_ = "WARNING: Server is busy or paused. Package sources request is backing off.";
  }
  log().Log(loglevel::kTrace, kLog, "Server is busy or paused. GetPackageInfo server request will be retried in %ls.",
            FormatDuration((*end - now) / kFileTimeTicksPerMs));
  return true;
}

void PackageDownload::BackoffAfterBusyAnswer(Result code) {
  const uint32_t maxMinutes = DeliverySettings(*services_.settings, log()).ServerRequestMaxBackoffMinutes();
  const FileTime now = Now();
  FileTime end = 0;
  {
    std::lock_guard lock(mutex_);
    end = ProcessBackoff().state.RecordBusy(now, maxMinutes, retryAfter_);
    nextAllowedTime_ = end;
  }
  log().Log(loglevel::kWarning, kLog,
            "Server is busy or paused (0x%08X). GetPackageInfo server request is backing off and will be retried in "
            "%ls.",
            code, FormatDuration((end - now) / kFileTimeTicksPerMs));
}

std::string PackageDownload::ComposeRequestDocument(const PackageInfoQuery& query) {
  xml::Writer writer;
  writer.StartElement("request")
      .Attribute("resource", query.resource)
      .Attribute("version", "1")
      .Attribute("type", query.requestType)
      .Attribute("compress", "1");
  if (query.requestCodebases) writer.Attribute("requestQSCodebases", "true");
  writer.Attribute("totalTime", std::to_string(query.totalTime))
      .Attribute("totalFailureTime", std::to_string(query.totalFailureTime));
  writer.StartElement("packages").StartElement("package").Attribute("guid", query.packageId.ToString());
  writer.EndElement().EndElement();

  std::vector<std::string> addresses;
  try {
    if (services_.network_addresses) addresses = services_.network_addresses->IPv4Addresses();
  } catch (const Error&) {
    addresses.clear();  // reported below like a computer without addresses
  }
  if (addresses.empty()) {
    log().Log(loglevel::kWarning, kLog,
              "No IPv4 addresses assigned - package will get no specific sources unless agent is manually assigned.");
  }
  writer.StartElement("addresses");
  for (const std::string& address : addresses) writer.StartElement("address").Attribute("ip", address).EndElement();
  writer.EndElement();
  writer.EndElement();
  return writer.Finish();
}

std::string PackageDownload::RequestPackageInfo(const PackageInfoQuery& query) {
  // A normal download, whatever options an earlier transfer of this object
  // left behind (a peer's rate limit above all).
  SetConnectionOptions(false, 0, 0);
  std::string document;
  std::string url = query.url;
  if (HasAspExtension(query.url)) {
    document = ComposeRequestDocument(query);
    url = Format("%ls?xml=%ls", query.url, PercentEncode(document));
  }
  log().Log(loglevel::kInfo, kLog, "Download package sources from: %ls", url);

  Answer answer;
  std::string httpUrl = url;
  std::shared_ptr<ConnectionSender> sender =
      services_.connection_senders ? services_.connection_senders->Find(kConnectionSenderName) : nullptr;
  if (sender) {
    std::unique_ptr<ConnectionSenderRequest> request = sender->CreateRequest(TLXFrame::GetPackageInfoEP());
    if (!request) Throw(result::kNullPointer, "Invalid pointer");
    request->SetBody(AsBytes(document));
    std::unique_ptr<ConnectionSenderResponse> reply = request->Send();
    if (!reply) Throw(result::kNullPointer, "Invalid pointer");
    if (std::optional<std::string> qsError = reply->Header("X-TLX-QSError")) {
      Result number = ParseHex32(TrimAscii(*qsError)).value_or(result::kServerErrorUnparsable);
      RecordServerError(query.url);
      ThrowServerError(number, {});
    }
    if (std::optional<std::string> redirect = reply->Header("RedirectUrl")) {
      httpUrl = RedirectRequestUrl(url, *redirect, document);
      log().Log(loglevel::kInfo, kLog, "HTTP request redirected to %ls", httpUrl);
      sender.reset();
    } else {
      std::span<const uint8_t> body = reply->Body();
      if (IsUtf16Text(body) || LooksLikeXmlText(body)) {
        TakeBody(body, answer);
      } else {
        answer.bytes.assign(body.begin(), body.end());
      }
    }
  }
  if (!sender) {
    RequestOptions options;
    options.maxBodyBytes = kMaxAnswerBytes;
    NetworkTransport& network = transport();
    std::vector<uint8_t> body = DownloadAnswer(network, httpUrl, options, query.url);
    // The transport hands over bytes. A body an HTTP server declared as text
    // is the text answer, any other HTTP body binary data that has to prove
    // its integrity by its headers. A file from a folder or share comes
    // without headers, so it cannot; it is read as text.
    std::optional<std::string> contentType = network.ResponseHeader("Content-Type");
    const bool isText = !contentType || IsTextContentType(*contentType);
    if (isText) {
      TakeBody(body, answer);
      WipeBytes(body);
    } else {
      answer.bytes = std::move(body);
      uint32_t check = CheckBinaryResponse(
          answer.bytes, [&network](std::string_view name) { return network.ResponseHeader(name); },
          *services_.crypto, services_.signing_keys.get(), log(), kLog);
      if (check != binarycheck::kGood) {
        Throw(BinaryCheckResult(check), "Binary response validation failed: %ls", BinaryCheckText(check));
      }
    }
  }
  if (!answer.isText) answer.text = BinaryAnswerToText(answer.bytes, query.url);

  CheckServerAnswer(answer.text, [&] { RecordServerError(query.url); });
  return std::string(SkipByteOrderMark(answer.text));
}

// A busy proxy or server may say so with its HTTP status instead of an
// answer document; that is the same busy answer, and its Retry-After is the
// earliest time to ask again.
std::vector<uint8_t> PackageDownload::DownloadAnswer(NetworkTransport& network, const std::string& httpUrl,
                                                     const RequestOptions& options, const std::string& serverUrl) {
  try {
    return network.DownloadBytes(httpUrl, options);
  } catch (const Error& error) {
    const int status = network.HttpStatus();
    if (error.code() != result::kHttpNotFound || (status != 503 && status != 429)) throw;
    if (std::optional<std::string> retryAfter = network.ResponseHeader("Retry-After")) {
      retryAfter_ = ParseRetryAfter(*retryAfter, Now()).value_or(0);
    }
    RecordServerError(serverUrl);
    ThrowServerError(result::kServerBusy, {});
  }
}

std::string PackageDownload::BinaryAnswerToText(std::vector<uint8_t>& bytes, const std::string& url) {
  if (bytes.empty()) {
    RecordServerError(url);
    Throw(result::kFail, "Empty response from server");
  }
  DecryptedResponse decrypted{result::kNotImplemented, {}};
  if (services_.decryptor) decrypted = services_.decryptor->DecryptResponse(bytes);
  std::optional<std::string> text;
  if (decrypted.code == result::kOk) {
    text.emplace(decrypted.plain.begin(), decrypted.plain.end());
  } else if (IsCompressed(bytes.data(), bytes.size())) {
    if (Decompress(bytes, kMaxAnswerBytes, loglevel::kSilent, log())) {
      text.emplace(bytes.begin(), bytes.end());
    } else {
      log().Log(loglevel::kError, kLog, "Error during decompression");
    }
  }
  WipeBytes(decrypted.plain);
  WipeBytes(bytes);
  if (text) return std::move(*text);
  if (decrypted.code == result::kDecryptFailed) {
    Throw(result::kDecryptFailed, "Unable to decrypt the GetPackageInfo response");
  }
  RecordServerError(url);
  Throw(result::kFail, "Invalid response from server");
}

}  // namespace pkgdlv
