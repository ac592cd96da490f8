// The package download transport: one object per engine that does the
// component's network work through the agent's network transport. It asks
// the Quillon Server for a package's sources (GetPackageInfo), fetches a
// package's snapshot (DownloadSnapshot), and is the object the block
// download and the site transfer reservation use as well.
//
// State: the network transport (made on first use from services.transports
// and kept while the object lives), the package of the current operation,
// the state (kCancelled after Cancel), the last result and the time before
// which the next package sources request will not be made. Besides, every
// object shares the process-wide back-off of package sources requests
// (transport/server_backoff.h).
//
// Threads: operations run on the engine's thread, one at a time. Cancel,
// LastResult, LastDescription and State may be called from any thread. The
// object's lock guards its state and is never held during network input or
// output.
//
// Failure behaviour: operations return false and keep the failure's code and
// description as the last result (readable until the next operation), after
// one log line (component "PackageDownload"). Nothing escapes them.
#pragma once

#include <pkgdlv/agent_services.h>
#include <pkgdlv/result_codes.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/network_transport.h"
#include "util/filetime.h"
#include "util/guid.h"

namespace pkgdlv {

class Logger;
class Snapshot;

// What GetPackageInfo asks.
struct PackageInfoQuery {
  Guid packageId;
  std::string url;             // the request URL, from the agent's server list
  std::string resource;        // the agent's identity as the server knows it
  std::string requestType;     // "type" of the request document
  uint32_t totalTime = 0;      // the package's total download time so far
  uint32_t totalFailureTime = 0;
  bool requestCodebases = false;
};

// What DownloadSnapshot fetches.
struct SnapshotQuery {
  Guid packageId;
  std::string resource;
  int32_t version = 0;
  std::string sourceDirectory;  // a URL or a UNC path; may be empty
  std::string snapshotUrl;      // may be empty
  std::string user;             // may be empty
  std::string encryptedPassword;  // Base64 of the encrypted password; never logged
  bool securityDataRequired = false;
  bool securityDataOptional = false;
  bool peerDownload = false;
  uint32_t peerRateKBps = 0;
};

// The file in a source folder that holds a snapshot of the folder.
inline constexpr std::string_view kListingFileName = "dirlisting.tavorin.xml";

// The transport connection options for a download, in the order they are
// set: (name, value), an empty value meaning "set".
std::vector<std::pair<std::string, std::string>> ConnectionOptionRows(bool peer, uint32_t peerRateKBps,
                                                                      uint32_t loggingFlags);

class PackageDownload {
 public:
  static constexpr int32_t kStateCancelled = 2;

  // Uses services.clock, log, settings, transports, crypto (required: Error
  // 0x80070057 when one is missing) and server_profile, decryptor,
  // connection_senders, signing_keys and network_addresses when present (a
  // missing one acts as a service that has nothing to offer). Keeps copies
  // of the service references.
  explicit PackageDownload(const AgentServices& services);
  ~PackageDownload();
  PackageDownload(const PackageDownload&) = delete;
  PackageDownload& operator=(const PackageDownload&) = delete;

  // Asks the Quillon Server for the package's sources; on success response
  // holds the answer document (UTF-8). Runs as a normal download: the
  // connection options of an earlier transfer (a peer's rate limit) are
  // replaced first. The request document goes into the query percent-encoded
  // whole. A busy answer (in the document, or an HTTP status 503 or 429 from
  // the server or a proxy) starts or prolongs the back-off; a Retry-After
  // header makes it last at least that long, up to the maximum back-off.
  bool GetPackageInfo(const PackageInfoQuery& query, std::string& response);

  // Fills snapshot (its entries, id, signature and signed bytes; the caller's
  // path is kept) from the snapshot URL, else the source folder's listing
  // file, else a listing of the source folder. After a failure the snapshot
  // may hold part of what was read; the caller discards it.
  //
  // What is signed: the snapshot document, byte for byte as the server
  // produced it. A dynamic page may send it packed in a compressed frame;
  // the frame is only the way it travels, so the signature covers the
  // document after decompression, never the frame. signedData holds exactly
  // those bytes (no byte order mark removed, nothing re-encoded): they become
  // snapshot.xml, so the signature can be checked again from the file.
  //
  // The values placed in a dynamic page's query are percent-encoded whole.
  bool DownloadSnapshot(const SnapshotQuery& query, Snapshot& snapshot);

  // Any thread: ends the running operation promptly through the network
  // transport's abort; the operation then fails with 0x800704C7. A cancel
  // between operations is forgotten: the next operation starts afresh.
  void Cancel();

  Result LastResult() const;
  std::string LastDescription() const;
  int32_t State() const;
  // When the back-off in force lets the next package sources request go.
  FileTime NextAllowedTime() const;
  // Counts an error against the server of url in the agent's server profile,
  // so that server selection avoids it; a failure to record is a warning.
  void RecordServerError(std::string_view url);
  // Whether the network transport ended the last operation in its normal end
  // state (not recorded for a cancelled operation).
  bool TransportEndedNormally() const;

  // ---- For the operations built on this object (block download, site
  // transfer): each runs Prepare, its work, then Finish. ----

  // Takes the lock, sets state 0, clears the last result, remembers the
  // package, makes the network transport if there is none and resets it.
  // False (with the last result set) when the transport cannot be made.
  bool Prepare(const Guid& packageId);
  // Sets the options of ConnectionOptionRows on the network transport and
  // logs the peer limit for a peer download. Call after Prepare.
  void SetConnectionOptions(bool peer, uint32_t peerRateKBps, uint32_t loggingFlags);
  // Decrypts the password (the agent's DecryptBase64String) and gives the
  // source credentials to the network transport until Finish; the plain text
  // is wiped. Nothing happens for an empty user. Throws Error when the
  // password cannot be decrypted. Call after Prepare.
  void SetSourceCredentials(std::string_view user, std::string_view encryptedPassword);
  // Keeps a failure as the last result.
  void SetLastResult(Result code, std::string description);
  // Records the transport's end state (unless cancelled) and drops the
  // operation's credentials.
  void Finish();
  // The network transport; valid after a successful Prepare, for the
  // engine's thread. Its lifetime is this object's.
  NetworkTransport& transport();
  Logger& log() const { return *services_.log; }
  const AgentServices& services() const { return services_; }

  // Tests: ends the process-wide back-off as if the process had restarted.
  static void ResetProcessBackoff();

 private:
  std::string RequestPackageInfo(const PackageInfoQuery& query);
  std::string ComposeRequestDocument(const PackageInfoQuery& query);
  bool BackoffInForce();
  void BackoffAfterBusyAnswer(Result code);
  std::string AnswerFromSender(const std::string& url, const std::string& document, std::string& redirectUrl);
  std::vector<uint8_t> DownloadAnswer(NetworkTransport& network, const std::string& httpUrl,
                                      const RequestOptions& options, const std::string& serverUrl);
  std::string BinaryAnswerToText(std::vector<uint8_t>& body, const std::string& url);

  void FetchSnapshot(const SnapshotQuery& query, const std::string& url, Snapshot& snapshot);
  void FetchSecurityData(const SnapshotQuery& query, const std::string& snapshotUrl, Snapshot& snapshot);
  bool TryListingFile(const SnapshotQuery& query, Snapshot& snapshot);
  void ListSourceDirectory(const SnapshotQuery& query, Snapshot& snapshot);

  FileTime Now() const;

  AgentServices services_;
  mutable std::mutex mutex_;
  std::unique_ptr<NetworkTransport> transport_;
  Guid packageId_;
  int32_t state_ = 0;
  Result lastResult_ = result::kOk;
  std::string lastDescription_;
  FileTime nextAllowedTime_ = 0;
  bool transportEndedNormally_ = true;
  bool credentialsSet_ = false;  // engine thread only
  FileTime retryAfter_ = 0;      // engine thread only: the busy answer's Retry-After, in ticks
};

}  // namespace pkgdlv
