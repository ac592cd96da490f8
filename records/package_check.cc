// Whether the files of a package in its folder match its snapshot.
#include "records/package_request.h"
#include "snapshot/validation.h"

namespace pkgdlv {

namespace {

// Every file of the snapshot checked by its hashes; true when all are valid.
bool AllFilesValid(Snapshot& snapshot, Validator& validator) {
  bool all_valid = true;
  for (SnapshotEntry& entry : snapshot.entries) {
    if (entry.name.empty()) continue;  // folder entries
    validator.ValidateFile(snapshot, entry, nullptr);
    if (entry.state != entrystate::kValid) all_valid = false;
  }
  return all_valid;
}

}  // namespace

int32_t PackageRequest::CheckStatus(bool fullCheck, bool skipHash, Validator& validator) {
  auto lock = Lock();
  int32_t result = PKGDLV_INVALID;
  const char* message = "";

  if (clientDownloadsDisabled) {
    if (IsSnapshotValid(false)) {
      // The agent may not fetch anything itself: the files present are only
      // judged, so that their states and the hash store are up to date.
      Snapshot updateList;
      UpdateListOptions options;
      options.skipHash = skipHash;
      validator.GetUpdateList(snapshot_, updateList, nullptr, options);
      result = PKGDLV_VALID;
      message = "Package is up to date";
    } else {
      message = "Codebases need to be received from the Quillon Server";
    }
  } else if (!IsSnapshotValid(false)) {
    message = "Snapshot is invalid or out of date";
  } else if (fullCheck && !optionalHashCheck()) {
    bool valid = AllFilesValid(snapshot_, validator);
    result = valid ? PKGDLV_VALID : PKGDLV_INVALID;
    message = valid ? "Package is up to date" : "Some files need to be updated";
  } else {
    bool updates = validator.HasUpdates(snapshot_, /*sparseMode=*/false, skipHash);
    result = updates ? PKGDLV_INVALID : PKGDLV_VALID;
    message = updates ? "Some files need to be updated" : "Package is up to date";
  }

  SetStatus(result, message, /*notify=*/true);
  return result;
}

}  // namespace pkgdlv
