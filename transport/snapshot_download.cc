// Snapshot retrieval: the package's snapshot from a snapshot URL, else from
// the listing file in the package's source folder, else from a listing of
// the source folder itself; with the snapshot's security data and the
// response's signature.
#include <algorithm>
#include <string>
#include <vector>

#include "agent/logger.h"
#include "records/package_request.h"
#include "snapshot/snapshot.h"
#include "snapshot/snapshot_builder.h"
#include "transport/location.h"
#include "transport/package_download.h"
#include "transport/response_text.h"
#include "transport/server_answer.h"
#include "transport/url_parts.h"
#include "util/compressed_frame.h"
#include "util/error.h"
#include "util/file_reader.h"
#include "util/strings.h"

namespace pkgdlv {
namespace {

constexpr std::string_view kLog = kPackageDownloadLogComponent;

bool HasFileEntries(const Snapshot& snapshot) {
  return std::any_of(snapshot.entries.begin(), snapshot.entries.end(),
                     [](const SnapshotEntry& entry) { return !entry.name.empty(); });
}

// The listing file describes the folder it lies in; it is not a file of the
// package. A listing that names itself is taken out of the snapshot: the hash
// it carries for itself was computed before it was written, so the file could
// never validate and would be fetched again on every check.
void RemoveListingFileEntry(Snapshot& snapshot) {
  auto isListingFile = [](const SnapshotEntry& entry) {
    return entry.folder.empty() && EqualsNoCase(entry.name, kListingFileName);
  };
  auto removed = std::remove_if(snapshot.entries.begin(), snapshot.entries.end(), isListingFile);
  if (removed == snapshot.entries.end()) return;
  snapshot.entries.erase(removed, snapshot.entries.end());
  snapshot.OrderEntries();
}

bool ListingFileMissing(Result code, int httpStatus) {
  return code == result::kFileNotFound || code == result::kPathNotFound || code == result::kPeerFilesNotReady ||
         (code == result::kHttpNotFound && httpStatus == 404);
}

// A body sent as a compressed frame (a dynamic page asked with "compress=1")
// is unpacked; any other body stays as it came.
void UnpackCompressedBody(std::string& body, Logger& log) {
  if (!IsCompressed(reinterpret_cast<const uint8_t*>(body.data()), body.size())) return;
  std::vector<uint8_t> bytes(body.begin(), body.end());
  if (!Decompress(bytes, xml::kMaxDocumentBytes, loglevel::kSilent, log)) {
    Failure failure = LastFrameFailure();
    Throw(failure.code, "Error during decompression: %ls", failure.description);
  }
  body.assign(bytes.begin(), bytes.end());
}

}  // namespace

bool PackageDownload::DownloadSnapshot(const SnapshotQuery& query, Snapshot& snapshot) {
  if (!Prepare(query.packageId)) {
    log().Log(loglevel::kError, kLog, "Download Snapshot failed: %ls (%d)", LastDescription(), LastResult());
    return false;
  }
  try {
    SetConnectionOptions(query.peerDownload, query.peerRateKBps, 0);
    SetSourceCredentials(query.user, query.encryptedPassword);
    if (!query.snapshotUrl.empty()) {
      FetchSnapshot(query, query.snapshotUrl, snapshot);
    } else if (query.sourceDirectory.empty()) {
      Throw(result::kInvalidArg, "No package or snapshot source");
    } else if (!TryListingFile(query, snapshot)) {
      ListSourceDirectory(query, snapshot);
    }
    log().Log(loglevel::kInfo, kLog, "Download Snapshot complete: OK");
  } catch (...) {
    const Failure failure = OperationFailure();
    SetLastResult(failure.code, failure.description);
    if (failure.unexpected) {
      log().Log(loglevel::kError, kLog, "Download Snapshot failed: Unknown error");
    } else {
      log().Log(loglevel::kError, kLog, "Download Snapshot failed: %ls (%d)", failure.description, failure.code);
    }
  }
  Finish();
  return LastResult() == result::kOk;
}

void PackageDownload::FetchSnapshot(const SnapshotQuery& query, const std::string& url, Snapshot& snapshot) {
  const std::string requestUrl = SnapshotRequestUrl(url, query.resource, query.packageId.ToString(), query.version);
  log().Log(loglevel::kInfo, kLog, "Download Snapshot: %ls", requestUrl);

  NetworkTransport& network = transport();
  std::string body = network.DownloadText(requestUrl);
  std::optional<std::string> signature = network.ResponseHeader("Content-Signature");
  UnpackCompressedBody(body, log());
  CheckServerAnswer(body, [&] { RecordServerError(url); });

  // A fresh fetch: what the object held from an earlier snapshot must not
  // pass for this one's signature.
  snapshot.signature.clear();
  snapshot.signedData.clear();
  if (!snapshot.LoadXml(body)) {
    RecordServerError(url);
    Throw(result::kFail, "Invalid snapshot XML returned by server");
  }
  snapshot.id = query.packageId;
  // The signature covers the document exactly as received.
  snapshot.signedData.assign(body.begin(), body.end());
  if (signature) snapshot.signature = std::string(TrimAscii(*signature));

  FetchSecurityData(query, url, snapshot);
}

// The security data is needed when the response carried no signature and
// the snapshot names files (an empty package has nothing a signature would
// protect) or the caller requires it.
void PackageDownload::FetchSecurityData(const SnapshotQuery& query, const std::string& snapshotUrl,
                                        Snapshot& snapshot) {
  if (!snapshot.signature.empty() || !(HasFileEntries(snapshot) || query.securityDataRequired)) return;
  const std::string dataUrl = SiblingLocation(snapshotUrl, kSecurityDataFileName);
  try {
    log().Log(loglevel::kInfo, kLog, "Download Snapshot extra data: %ls", dataUrl);
    std::string body = transport().DownloadText(dataUrl);
    CheckServerAnswer(body, [&] { RecordServerError(dataUrl); });
    // The document names a package folder and an id of its own; the folder
    // on this computer and the package are the caller's, never the server's.
    const std::string path = snapshot.path;
    const bool loaded = snapshot.LoadXml(body, true);
    snapshot.path = path;
    snapshot.id = query.packageId;
    if (!loaded) {
      RecordServerError(dataUrl);
      Throw(result::kFail, "Invalid snapshot extra data XML returned by server");
    }
  } catch (const Error& error) {
    // A cancellation is never taken for a missing optional document.
    if (query.securityDataOptional && !IsUncPath(dataUrl) && error.code() != result::kCancelled) return;
    throw;
  }
}

bool PackageDownload::TryListingFile(const SnapshotQuery& query, Snapshot& snapshot) {
  const std::string path = JoinLocation(query.sourceDirectory, kListingFileName);
  log().Log(loglevel::kInfo, kLog, "Download snapshot from file: %ls", path);
  try {
    if (TransportLocation local = ConvertLocation(path); local.kind == TransportLocation::Kind::kLocalFile)
      CheckFileToReadIfPresent(local.localPath);  // never wait on a FIFO put there
    FetchSnapshot(query, path, snapshot);
  } catch (const Error& error) {
    log().Log(loglevel::kWarning, kLog, "Failed to load snapshot from file: %ls (%d)", path, error.code());
    if (ListingFileMissing(error.code(), transport().HttpStatus())) return false;
    throw;
  }
  RemoveListingFileEntry(snapshot);
  return true;
}

void PackageDownload::ListSourceDirectory(const SnapshotQuery& query, Snapshot& snapshot) {
  log().Log(loglevel::kInfo, kLog, "Download snapshot from directory: %ls", query.sourceDirectory);
  std::vector<DirectoryEntry> listing = transport().ListDirectory(query.sourceDirectory, true);
  std::vector<ListedItem> items;
  items.reserve(listing.size());
  for (const DirectoryEntry& entry : listing) {
    items.push_back(ListedItem{entry.relativePath, entry.isDirectory,
                               entry.isDirectory ? 0 : static_cast<int64_t>(entry.size), entry.lastWriteTime});
  }
  SetEntriesFromListing(items, snapshot);
  snapshot.signature.clear();
  snapshot.signedData.clear();
  snapshot.id = query.packageId;
}

}  // namespace pkgdlv
