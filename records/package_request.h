// The record of one package the component is asked to deliver, and its
// document "package.xml" in the package's folder.
//
// A PackageRequest is built from the request document the agent hands to the
// delivery object (LoadFromXml), updated by later request documents and by the
// source list of the Quillon Server (ApplySourcesResponse), and written back
// as "package.xml" (ToXml, Save) whenever the engine changes it. It also
// decides whether the package's snapshot may be trusted (IsSnapshotValid,
// CheckSnapshotSignature) and keeps the urgent-download time budget.
//
// Ownership and threads: one record is shared (std::shared_ptr) by the
// engine, the transport and the automation objects. Every method takes the
// record's own recursive lock for the fields it touches; code that reads or
// writes the public fields directly, or uses the snapshot, holds Lock() for as
// long as it does. The record's lock is the last in the engine's lock order.
//
// Failure behaviour: the document operations report a bad document through
// their bool result and one warning line (component "PackageRequest"); they
// update the record field by field, so a failure leaves what was read before
// it in place. Only resource failures escape as exceptions. Secrets: the
// account password is never logged and is wiped when replaced or destroyed.
#pragma once

#include <pkgdlv/package_enums.h>

#include <array>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/clock.h"
#include "agent/crypto.h"
#include "agent/logger.h"
#include "snapshot/snapshot.h"
#include "util/filetime.h"
#include "util/guid.h"

namespace pkgdlv {

class Validator;

struct AgentServices;
namespace xml {
class Document;
class Node;
class Writer;
}  // namespace xml

inline constexpr std::string_view kPackageRequestLogComponent = "PackageRequest";
inline constexpr std::string_view kPackageDownloadLogComponent = "PackageDownload";
inline constexpr std::string_view kPackageFileName = "package.xml";
// siteQueryType of a source list that names package servers.
inline constexpr std::string_view kPackageServersQueryType = "packageServers";

constexpr size_t kPackageKeySize = 20;
using PackageKey = std::array<uint8_t, kPackageKeySize>;

// One place a package can be fetched from.
struct CodebaseEntry {
  // The href, url or unc value; a file URL as a path (see
  // DecodeCodebaseLocation). The transport turns it into what it opens.
  std::string location;
  std::string snapshotLocation;   // the "snapshot" value, decoded the same way; may be empty
  std::string serverDescription;  // filled by server selection; not part of the document
  uint32_t sourceType = 0;        // codebaseSourceType: 1 when it came from the Quillon Server itself
  bool packageServer = false;     // the location points at a package server
};
// Entries are equal when location, snapshotLocation, sourceType and
// packageServer are; the server description is the selection's working data.
bool operator==(const CodebaseEntry& a, const CodebaseEntry& b);

// ---- Names in documents (records/package_names.cc) ----

// "valid" 1, "downloading" 2, "pending" 3, "retrying" 4 (exact); "invalid" in
// any letter case 0. A missing value or any other text is 0 with the warning
// "Invalid package XML: Invalid status: \"invalid\" assumed".
int32_t ParseStatusName(std::optional<std::string_view> text, Logger& log);
// 1 "valid", 2 "downloading", 3 "pending", 4 "retrying", anything else "invalid".
std::string_view StatusName(int32_t status);
// A text made only of decimal digits (with an optional leading "-") that fits
// 32 bits is that number; otherwise "normal" 0, "high" 10, "low" -10 in any
// letter case; any other text 0.
int32_t ParsePriorityName(std::string_view text);
// -10 "Low", 0 "Normal", 10 "High", any other value its decimal digits.
std::string PriorityName(int32_t priority);

// ---- Codebase locations (records/package_sources.cc) ----

// A codebase or snapshot location as the record keeps it. A value that
// begins with "file:" (any letter case) is a file URL and becomes a path: the
// prefix is removed, percent escapes are decoded as UTF-8 and every "/" turns
// into "\" ("file:///C:/a%20b/" gives "\\\C:\a b\", "file://host/share"
// gives "\\host\share"). Escapes that are not "%" and two hexadecimal digits,
// runs of escaped bytes that are not valid UTF-8, and escaped control
// characters are kept as written, so the path is valid UTF-8 when the value
// was and never gains a control character. An absolute path ("/srv/pkg")
// becomes the same local path ("\\\srv\pkg"). Any other value (http, https,
// a UNC path) is kept as written: the transport reads URLs as URLs.
std::string DecodeCodebaseLocation(std::string_view value);

class PackageRequest {
 public:
  // Told after every SetStatus with notify set; the engine refreshes the
  // package's peer status from it. Called on the thread that set the status,
  // after the record's lock taken by SetStatus is released (it is still held
  // when that thread held Lock() around the call).
  using StatusNotifier = std::function<void(const Guid& id, int32_t status)>;
  enum class PasswordForm { kAsStored, kMasked };

  // The logger may be null (lines are dropped); clock and crypto are required
  // (Error 0x80070057 otherwise). The record keeps the references.
  PackageRequest(std::shared_ptr<Logger> log, std::shared_ptr<Clock> clock, std::shared_ptr<Crypto> crypto);
  explicit PackageRequest(const AgentServices& services);
  ~PackageRequest();  // wipes the password
  PackageRequest(const PackageRequest&) = delete;
  PackageRequest& operator=(const PackageRequest&) = delete;

  // The record's lock, held by the returned guard.
  [[nodiscard]] std::unique_lock<std::recursive_mutex> Lock() const { return std::unique_lock(mutex_); }

  // ---- Plain fields (hold Lock() while touching them) ----
  std::string name;
  uint64_t size = 0;  // declared size in bytes; 0 unknown. GetSize() is what callers want.
  int32_t priority = PKGDLV_PRI_NORMAL;
  std::string statusDescription;
  bool fixedStore = false;   // lives in a caller-chosen folder ("fileStore")
  // Moved by the engine to another store folder for space ("fileStore" with
  // fixedStore="false"): its document stays in the work folder, its files
  // live there, and it may be moved again.
  bool otherStore = false;
  bool remote = false;       // only referenced, not brought into the store
  bool hasSnapshot = false;  // the request document carried a Snapshot element
  std::vector<CodebaseEntry> codebases;
  FileTime sourceTime = 0;  // when the source list was obtained
  std::string siteQueryUrl;
  std::string siteQueryResource;
  std::string siteQueryType;
  int32_t minspeed = 0;
  bool enableMulticast = true;
  // Folder of a locally managed package in document form ("\" separators);
  // non-empty makes the package locally managed.
  std::string location;
  std::string UserAccessName;  // domain\user, or user alone
  std::string sourceKey;       // Base64 DER public key that signs the snapshot
  bool clientDownloadsDisabled = false;
  bool urgentDownload = false;
  bool timeoutExceeded = false;
  FileTime SLAStartTime = 0;
  int32_t downloadStartSLA = -1;  // minutes; negative means no deadline

  // ---- Fields with rules ----

  // The package identifier (kept in the snapshot). It never changes once it is
  // non-zero: SetId refuses another value (false) and accepts the same one.
  Guid id() const;
  bool SetId(const Guid& id);
  // Any change of the version clears the package key; for a locally managed
  // package the snapshot's version follows.
  int32_t version() const;
  void SetVersion(int32_t version);
  int32_t status() const;
  // The Quillon Server allows the signature check to be skipped; the snapshot
  // keeps a copy (Snapshot::hashNotRequired).
  bool optionalHashCheck() const;
  void SetOptionalHashCheck(bool value);
  // The account password as delivered. Never log it. Callers copying it wipe
  // their copy (WipeString) when done.
  std::string UserAccessPassword() const;
  void SetUserAccessPassword(std::string_view password);  // wipes the old one
  // The package folder: the snapshot's path (native form).
  std::string packageFolder() const;
  bool IsLocallyManaged() const;
  // The snapshot: use it while holding Lock().
  Snapshot& snapshot() { return snapshot_; }
  const Snapshot& snapshot() const { return snapshot_; }
  // The private key (PEM) whose public half becomes the sourceKey of a locally
  // managed package. None by default: this build has no agent signing key, so
  // a locally managed package keeps the sourceKey its document gave.
  void SetLocalSigningKey(std::filesystem::path privateKeyPem);
  void SetStatusNotifier(StatusNotifier notifier);

  // ---- Documents ----

  // Updates the record from a request document (or a saved "package.xml"),
  // in the steps listed in package_document.cc. Empty text: true, nothing
  // changes. The package folder follows the document's "fileStore" (without
  // one it is empty until CreateStorageArea gives it); a "fileStore" or
  // LocalManaged location that is not an absolute folder path without "." or
  // ".." components fails the load. The account is not read (it comes with
  // the source response). An embedded Snapshot or SnapshotData naming another
  // package fails the load, and SnapshotData cannot move the package folder.
  // The notifier is told (outside the lock) when the document had a status.
  bool LoadFromXml(std::string_view text);
  // The "package.xml" text (UTF-8 with a declaration). The request's own
  // Snapshot and SnapshotData elements are written back as they were read
  // (composed from the snapshot when hasSnapshot was set without a document).
  // kMasked writes "********" for a password, for output meant for people.
  std::string ToXml(PasswordForm form = PasswordForm::kAsStored) const;
  // Updates codebases, account, key and flags from the source response of the
  // Quillon Server. When the answer carries no key: with a required check
  // (optionalHashCheck false, or a package-server query) the stored key stays,
  // with an info line; otherwise the key is cleared, as the server no longer
  // asks for the check. "timeoutExceeded" is read from the root, else from the
  // package element; absent is false. The caller wipes its copy of the text.
  bool ApplySourcesResponse(std::string_view text);

  // "package.xml" in a package folder.
  static std::filesystem::path DocumentPath(const std::filesystem::path& packageFolder);
  // Writes ToXml() to path through a temporary file and a rename, under the
  // lock; a document with a password is then made readable by its owner only.
  // Throws Error when the file cannot be written (the old file stays).
  void Save(const std::filesystem::path& path) const;
  // LoadFromXml of the file's text. Throws Error when it cannot be read.
  bool Load(const std::filesystem::path& path);

  // ---- Status and trust ----

  // An empty description with an unchanged status only notifies. Otherwise
  // statusDescription becomes the description, or the status name when the
  // description is empty, and the status is set. notify calls the notifier.
  void SetStatus(int32_t status, std::string_view description, bool notify);
  // Decides valid or invalid from the package's files and sets the status
  // with its reason (notify set); returns the status. fullCheck hashes every
  // file (unless the server allows skipping the check); skipHash trusts size
  // and time in the quick check. The validator belongs to the calling thread.
  int32_t CheckStatus(bool fullCheck, bool skipHash, Validator& validator);

  // Whether the package's snapshot may be trusted. With log, each refusal is
  // logged at info level; a snapshot newer than the package is logged always.
  bool IsSnapshotValid(bool log) const;
  // Whether the snapshot's signature is good under sourceKey, or may be skipped.
  bool CheckSnapshotSignature(const Snapshot& snapshot) const;

  // Creates folder with its parents and makes it the package folder; a locally
  // managed package's snapshot is built anew from it. False, with an error
  // line, when the folder cannot be created (or the snapshot cannot be built).
  bool CreateStorageArea(const std::filesystem::path& folder);

  // ---- Urgent download ----

  // For an urgent package: SLAStartTime becomes now (with an info line).
  void InitUrgentSla();
  // downloadStartSLA minus the whole minutes since SLAStartTime, never below
  // 0, when downloadStartSLA is positive; otherwise downloadStartSLA itself.
  int32_t GetSlaRemainingMinutes() const;

  // ---- Identity ----

  // The declared size, or the snapshot's total when the declared size is 0 or
  // the package is locally managed.
  uint64_t GetSize() const;
  // The package's key among peers, computed on first use and cached until the
  // version changes. Throws Error when the digest cannot be computed.
  PackageKey GetPackageKey();
  bool IsPackageServerQuery() const;

  // Equal when name, size, version, priority, status, fixedStore, remote,
  // hasSnapshot, codebases, the site query, minspeed, enableMulticast,
  // location, sourceKey, optionalHashCheck, clientDownloadsDisabled,
  // urgentDownload and downloadStartSLA are equal.
  friend bool operator==(const PackageRequest& a, const PackageRequest& b);

  Logger& log() const { return *log_; }

 private:
  // Steps of LoadFromXml (package_document.cc), under the lock. statusRead
  // tells that the status was set, so the notifier is due.
  bool ReadDocument(const xml::Document& document, const xml::Node& root, bool& statusRead);
  bool ReadIdentity(const xml::Node& root);
  void ReadOptions(const xml::Node& root);
  bool ReadStore(const xml::Node& root);
  bool ReadLocalManaged(const std::string& locationText);
  bool ReadSources(const xml::Document& document, const xml::Node& root);
  bool ReadEmbeddedSnapshot(const xml::Node& root);
  // Replaces the snapshot's entries with those of the locally managed folder.
  bool BuildLocalSnapshot(const std::filesystem::path& folder);
  void EncodeLocalPublicKey();
  void WriteEmbeddedSnapshot(xml::Writer& writer) const;
  void WriteSource(xml::Writer& writer) const;
  // SetStatus without the notification; the caller holds the lock.
  void SetStatusLocked(int32_t status, std::string_view description);
  // Calls the notifier with the current identifier and status.
  void Notify();

  std::shared_ptr<Logger> log_;
  std::shared_ptr<Clock> clock_;
  std::shared_ptr<Crypto> crypto_;
  mutable std::recursive_mutex mutex_;

  int32_t version_ = 1;
  int32_t status_ = PKGDLV_INVALID;
  bool optionalHashCheck_ = false;
  std::string userAccessPassword_;
  PackageKey packageKey_{};  // all zero: not computed
  Snapshot snapshot_;
  // The request's Snapshot and SnapshotData elements as read, written back
  // unchanged (empty: composed from the snapshot).
  std::string embeddedSnapshotXml_;
  std::string embeddedSecurityXml_;
  std::filesystem::path localSigningKey_;
  StatusNotifier notifier_;
};

}  // namespace pkgdlv
