#include "transport/package_download.h"

#include "agent/clock.h"
#include "agent/logger.h"
#include "agent/response_decryptor.h"
#include "agent/server_profile.h"
#include "records/package_request.h"
#include "transport/server_backoff.h"
#include "util/error.h"
#include "util/format.h"
#include "util/strings.h"

namespace pkgdlv {

std::vector<std::pair<std::string, std::string>> ConnectionOptionRows(bool peer, uint32_t peerRateKBps,
                                                                      uint32_t loggingFlags) {
  std::vector<std::pair<std::string, std::string>> rows;
  auto set = [&rows](std::string_view name, std::string value) { rows.emplace_back(std::string(name), value); };
  set(ConnectionOptions::kExactHttpErrorOn, "");
  set(ConnectionOptions::kAuthenticateClientOff, "");
  if (peer) set(ConnectionOptions::kSecureConnectionMode, "2");
  if (peer) set(ConnectionOptions::kPeerConnectionModeOn, "");
  if (!peer) set(ConnectionOptions::kPeerConnectionModeOff, "");
  // "%ud" on purpose: the text is the number followed by the letter d, and the
  // agent core reads it that way.
  set(ConnectionOptions::kPeerDownloadMaxRate, peer ? Format("%ud", peerRateKBps) : "0");
  set(ConnectionOptions::kLoggingFlags, Format("%u", loggingFlags));
  return rows;
}

PackageDownload::PackageDownload(const AgentServices& services) : services_(services) {
  if (!services_.clock || !services_.log || !services_.settings || !services_.transports || !services_.crypto) {
    Throw(result::kInvalidArg, "The package download transport needs a clock, a log, settings, transports and crypto");
  }
}

PackageDownload::~PackageDownload() = default;

bool PackageDownload::Prepare(const Guid& packageId) {
  std::lock_guard lock(mutex_);
  state_ = 0;
  lastResult_ = result::kOk;
  lastDescription_.clear();
  packageId_ = packageId;
  if (!transport_) {
    try {
      transport_ = services_.transports->Create();
      if (!transport_) Throw(result::kNullPointer, "Invalid pointer");
    } catch (...) {
      Failure failure = CurrentFailure();
      lastResult_ = failure.code;
      lastDescription_ = failure.description;
      return false;
    }
  }
  transport_->Reset();
  return true;
}

void PackageDownload::SetConnectionOptions(bool peer, uint32_t peerRateKBps, uint32_t loggingFlags) {
  ConnectionOptions options;
  for (const auto& [name, value] : ConnectionOptionRows(peer, peerRateKBps, loggingFlags)) options.Set(name, value);
  transport().SetConnectionOptions(options);
  if (peer) {
    log().Log(loglevel::kTrace, kPackageDownloadLogComponent, "Downloading from peer. Limit bandwidth to: %d KBytes/sec",
              peerRateKBps);
  }
}

void PackageDownload::SetSourceCredentials(std::string_view user, std::string_view encryptedPassword) {
  if (user.empty()) return;
  if (!services_.decryptor) Throw(result::kNullPointer, "Invalid pointer");
  std::string password = services_.decryptor->DecryptBase64String(encryptedPassword);
  try {
    transport().SetCredentials(user, password);
  } catch (...) {
    WipeString(password);
    throw;
  }
  WipeString(password);
  credentialsSet_ = true;
}

void PackageDownload::SetLastResult(Result code, std::string description) {
  std::lock_guard lock(mutex_);
  lastResult_ = code;
  lastDescription_ = std::move(description);
}

void PackageDownload::Finish() {
  std::lock_guard lock(mutex_);
  if (!transport_) return;
  if (state_ != kStateCancelled) transportEndedNormally_ = transport_->State() == TransportState::kCompleted;
  if (credentialsSet_) {
    transport_->SetCredentials({}, {});  // the transport wipes its copy
    credentialsSet_ = false;
  }
}

void PackageDownload::Cancel() {
  std::lock_guard lock(mutex_);
  state_ = kStateCancelled;
  if (transport_) transport_->Abort();
}

NetworkTransport& PackageDownload::transport() {
  std::lock_guard lock(mutex_);
  if (!transport_) Throw(result::kNullPointer, "The network transport has not been made");
  return *transport_;
}

Result PackageDownload::LastResult() const {
  std::lock_guard lock(mutex_);
  return lastResult_;
}

std::string PackageDownload::LastDescription() const {
  std::lock_guard lock(mutex_);
  return lastDescription_;
}

int32_t PackageDownload::State() const {
  std::lock_guard lock(mutex_);
  return state_;
}

FileTime PackageDownload::NextAllowedTime() const {
  std::lock_guard lock(mutex_);
  return nextAllowedTime_;
}

bool PackageDownload::TransportEndedNormally() const {
  std::lock_guard lock(mutex_);
  return transportEndedNormally_;
}

void PackageDownload::ResetProcessBackoff() { ProcessBackoff().state.RecordSuccess(); }

void PackageDownload::RecordServerError(std::string_view url) {
  try {
    if (!services_.server_profile) Throw(result::kNullPointer, "No server profile");
    services_.server_profile->AddError(url);
  } catch (...) {
    log().Log(loglevel::kWarning, kPackageDownloadLogComponent, "Failed to add Server Profile error. Url: %ls", url);
  }
}

FileTime PackageDownload::Now() const { return services_.clock->Now(); }

}  // namespace pkgdlv
