// The package record: its fields with rules, status, snapshot trust, storage
// area, urgent-download timing and identity.
#include "records/package_request.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <pkgdlv/agent_services.h>
#include <sys/stat.h>

#include "util/atomic_file.h"
#include "util/base64.h"
#include "util/error.h"
#include "util/strings.h"

namespace fs = std::filesystem;

namespace pkgdlv {

namespace {

constexpr std::string_view kComponent = kPackageRequestLogComponent;

template <class T>
std::shared_ptr<T> Required(std::shared_ptr<T> service, std::string_view what) {
  if (!service) Throw(result::kInvalidArg, "PackageRequest needs a %hs", what);
  return service;
}

std::string WithoutAsciiSpace(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    if (c != ' ' && c != '\t' && c != '\r' && c != '\n') out += c;
  }
  return out;
}

}  // namespace

PackageRequest::PackageRequest(std::shared_ptr<Logger> log, std::shared_ptr<Clock> clock,
                               std::shared_ptr<Crypto> crypto)
    : log_(log ? std::move(log) : std::make_shared<NullLogger>()),
      clock_(Required(std::move(clock), "clock")),
      crypto_(Required(std::move(crypto), "crypto service")),
      snapshot_(log_) {}

PackageRequest::PackageRequest(const AgentServices& services)
    : PackageRequest(services.log, services.clock, services.crypto) {}

PackageRequest::~PackageRequest() { WipeString(userAccessPassword_); }

// ---- Fields with rules ----

Guid PackageRequest::id() const {
  auto guard = Lock();
  return snapshot_.id;
}

bool PackageRequest::SetId(const Guid& id) {
  auto guard = Lock();
  if (!snapshot_.id.IsNull() && snapshot_.id != id) return false;
  snapshot_.id = id;
  return true;
}

int32_t PackageRequest::version() const {
  auto guard = Lock();
  return version_;
}

void PackageRequest::SetVersion(int32_t version) {
  auto guard = Lock();
  if (version != version_) {
    version_ = version;
    packageKey_ = {};
  }
  if (!location.empty()) snapshot_.version = static_cast<uint32_t>(version_);
}

int32_t PackageRequest::status() const {
  auto guard = Lock();
  return status_;
}

bool PackageRequest::optionalHashCheck() const {
  auto guard = Lock();
  return optionalHashCheck_;
}

void PackageRequest::SetOptionalHashCheck(bool value) {
  auto guard = Lock();
  optionalHashCheck_ = value;
  snapshot_.hashNotRequired = value;
}

std::string PackageRequest::UserAccessPassword() const {
  auto guard = Lock();
  return userAccessPassword_;
}

void PackageRequest::SetUserAccessPassword(std::string_view password) {
  auto guard = Lock();
  WipeString(userAccessPassword_);
  userAccessPassword_.assign(password);
}

std::string PackageRequest::packageFolder() const {
  auto guard = Lock();
  return snapshot_.path;
}

bool PackageRequest::IsLocallyManaged() const {
  auto guard = Lock();
  return !location.empty();
}

void PackageRequest::SetLocalSigningKey(fs::path privateKeyPem) {
  auto guard = Lock();
  localSigningKey_ = std::move(privateKeyPem);
}

void PackageRequest::SetStatusNotifier(StatusNotifier notifier) {
  auto guard = Lock();
  notifier_ = std::move(notifier);
}

// ---- Status ----

void PackageRequest::SetStatus(int32_t status, std::string_view description, bool notify) {
  {
    auto guard = Lock();
    SetStatusLocked(status, description);
  }
  if (notify) Notify();
}

void PackageRequest::SetStatusLocked(int32_t status, std::string_view description) {
  if (description.empty() && status == status_) return;
  statusDescription = description.empty() ? std::string(StatusName(status)) : std::string(description);
  status_ = status;
}

void PackageRequest::Notify() {
  StatusNotifier notifier;
  Guid id;
  int32_t status;
  {
    auto guard = Lock();
    notifier = notifier_;
    id = snapshot_.id;
    status = status_;
  }
  if (notifier) notifier(id, status);
}

// ---- Snapshot trust ----

bool PackageRequest::IsSnapshotValid(bool log) const {
  auto guard = Lock();
  auto refuse = [&](std::string_view format, auto... args) {
    if (log) log_->Log(loglevel::kInfo, kComponent, format, args...);
    return false;
  };
  if (snapshot_.path.empty()) return refuse("Snapshot path is empty");
  if (hasSnapshot) return true;  // the request brought its own snapshot
  if (snapshot_.id.IsNull()) return refuse("Snapshot ID is empty");
  if (version_ == 0) return refuse("Package version is empty");
  int64_t packageVersion = version_;
  int64_t snapshotVersion = snapshot_.version;
  if (packageVersion > snapshotVersion) {
    return refuse("Package version (%i) is greater than Snapshot version (%i)", packageVersion, snapshotVersion);
  }
  if (snapshotVersion > packageVersion) {
    // Logged whatever log says: a snapshot newer than the request is worth a line.
    log_->Log(loglevel::kInfo, kComponent, "Snapshot version (%i) is greater than Package version (%i)",
              snapshotVersion, packageVersion);
    return false;
  }
  return CheckSnapshotSignature(snapshot_);
}

bool PackageRequest::CheckSnapshotSignature(const Snapshot& snapshot) const {
  auto guard = Lock();
  if (snapshot.signature.empty()) {
    if (IsPackageServerQuery()) {
      log_->Log(loglevel::kTrace, kComponent, "Snapshot signature is empty for Package Server's package.");
      return false;
    }
    if (optionalHashCheck_) {
      log_->Log(loglevel::kTrace, kComponent,
                "Skip snapshot signature check: we have legacy codebases and QS permission to skip the check.");
      return true;
    }
  }
  if (sourceKey.empty()) {
    // The wording names the signature although it is the key that is missing.
    log_->Log(loglevel::kInfo, kComponent, "Snapshot signature is empty for package: '%ls'", snapshot_.GetIdText());
    return false;
  }
  std::optional<std::vector<uint8_t>> key = Base64Decode(WithoutAsciiSpace(sourceKey));
  if (!key) {
    log_->Log(loglevel::kWarning, kComponent,
              "Failed to decode Base64 Data while snapshot validity check for package: '%ls'", snapshot_.GetIdText());
    return false;
  }
  // A key that is not a public key makes IsValidSignature false (with its own line).
  if (snapshot.IsValidSignature(*crypto_, *key)) return true;
  log_->Log(loglevel::kInfo, kComponent, "Snapshot signature is not valid for package: '%ls'", snapshot_.GetIdText());
  return false;
}

// ---- Storage area ----

bool PackageRequest::CreateStorageArea(const fs::path& folder) {
  std::error_code ec;
  fs::create_directories(folder, ec);
  if (ec) {
    log_->Log(loglevel::kError, kComponent, "Cannot create storage area for package: %ls. Error: %ls (0x%08X)",
              id().ToString(), ec.message(), static_cast<uint32_t>(ec.value()));
    return false;
  }
  auto guard = Lock();
  snapshot_.path = folder.string();
  // A locally managed package's snapshot describes the folder's own files;
  // a served package's snapshot comes from its server and only needs the path.
  if (!location.empty()) return BuildLocalSnapshot(folder);
  return true;
}

// ---- Urgent download ----

void PackageRequest::InitUrgentSla() {
  auto guard = Lock();
  if (!urgentDownload) return;
  SLAStartTime = clock_->Now();
  log_->Log(loglevel::kInfo, kComponent, "Initializing the SLA start time %ls for urgent package. Timeout %d minutes.",
            FormatDocumentTime(SLAStartTime, DateForm::kSpaced), downloadStartSLA);
}

int32_t PackageRequest::GetSlaRemainingMinutes() const {
  auto guard = Lock();
  int32_t remaining = downloadStartSLA;
  if (downloadStartSLA > 0) {
    FileTime now = clock_->Now();
    uint64_t elapsed = now > SLAStartTime ? (now - SLAStartTime) / kFileTimeTicksPerMinute : 0;
    remaining =
        elapsed >= static_cast<uint64_t>(downloadStartSLA) ? 0 : downloadStartSLA - static_cast<int32_t>(elapsed);
  }
  log_->Log(loglevel::kTrace, kPackageDownloadLogComponent, "Urgent download SLA remaining minutes: %d", remaining);
  return remaining;
}

// ---- Identity ----

uint64_t PackageRequest::GetSize() const {
  auto guard = Lock();
  if (size != 0 && location.empty()) return size;
  uint64_t total = 0;
  for (const SnapshotEntry& entry : snapshot_.entries) {
    if (!entry.IsFile() || entry.size <= 0) continue;
    auto fileSize = static_cast<uint64_t>(entry.size);
    total = total > UINT64_MAX - fileSize ? UINT64_MAX : total + fileSize;
  }
  return total;
}

PackageKey PackageRequest::GetPackageKey() {
  auto guard = Lock();
  if (packageKey_ != PackageKey{}) return packageKey_;
  // Input: the identifier in the GUID binary layout of the platform the peers
  // share (Data1 as 4 bytes little-endian, Data2 and Data3 as 2 bytes
  // little-endian each, Data4's 8 bytes as they are), then the version as 4
  // bytes little-endian: 20 bytes. The digest is SHA-1 (OpenSSL EVP), whose
  // 20 bytes are the key.
  const std::array<uint8_t, 16>& text = snapshot_.id.bytes();  // in text order
  std::array<uint8_t, 20> input{};
  const int layout[16] = {3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15};
  for (size_t i = 0; i < 16; ++i) input[i] = text[layout[i]];
  auto version = static_cast<uint32_t>(version_);
  for (size_t i = 0; i < 4; ++i) input[16 + i] = static_cast<uint8_t>(version >> (8 * i));

  PackageKey key{};
  unsigned int length = 0;
  if (EVP_Digest(input.data(), input.size(), key.data(), &length, EVP_sha1(), nullptr) != 1 ||
      length != kPackageKeySize) {
    Throw(result::kFail, "Cannot compute the package key of package %ls", snapshot_.GetIdText());
  }
  packageKey_ = key;
  return key;
}

bool PackageRequest::IsPackageServerQuery() const {
  auto guard = Lock();
  return siteQueryType == kPackageServersQueryType;
}

bool operator==(const PackageRequest& a, const PackageRequest& b) {
  if (&a == &b) return true;
  std::scoped_lock locks(a.mutex_, b.mutex_);
  return a.name == b.name && a.size == b.size && a.version_ == b.version_ && a.priority == b.priority &&
         a.status_ == b.status_ && a.fixedStore == b.fixedStore && a.remote == b.remote &&
         a.hasSnapshot == b.hasSnapshot && a.codebases == b.codebases && a.siteQueryUrl == b.siteQueryUrl &&
         a.siteQueryResource == b.siteQueryResource && a.siteQueryType == b.siteQueryType && a.minspeed == b.minspeed &&
         a.enableMulticast == b.enableMulticast && a.location == b.location && a.sourceKey == b.sourceKey &&
         a.optionalHashCheck_ == b.optionalHashCheck_ && a.clientDownloadsDisabled == b.clientDownloadsDisabled &&
         a.urgentDownload == b.urgentDownload && a.downloadStartSLA == b.downloadStartSLA;
}

// ---- The file ----

fs::path PackageRequest::DocumentPath(const fs::path& packageFolder) { return packageFolder / kPackageFileName; }

void PackageRequest::Save(const fs::path& path) const {
  auto guard = Lock();  // one writer of the file at a time
  std::string text = ToXml();
  bool secret = !userAccessPassword_.empty();
  try {
    WriteFileAtomically(path, text);
    // The file holds the account's password as delivered: keep it from other
    // users. (Between the rename and this call the file has the usual mode.)
    if (secret && chmod(path.c_str(), S_IRUSR | S_IWUSR) != 0) {
      log_->Log(loglevel::kWarning, kComponent, "Cannot restrict access to '%ls'", path.string());
    }
  } catch (...) {
    WipeString(text);
    throw;
  }
  WipeString(text);
}

bool PackageRequest::Load(const fs::path& path) {
  std::vector<uint8_t> bytes = ReadWholeFile(path);
  std::string text(bytes.begin(), bytes.end());
  OPENSSL_cleanse(bytes.data(), bytes.size());
  bool loaded = LoadFromXml(text);
  WipeString(text);
  return loaded;
}

}  // namespace pkgdlv
