// A package's snapshot as its folder keeps it: "snapshot.xml" (whose exact
// bytes the signature covers) and, beside it, the security data
// "snapdata.xml".
#pragma once

#include <filesystem>

#include "snapshot/snapshot.h"

namespace pkgdlv {

// Replaces snapshot with the one saved in folder: the document, its bytes as
// signedData, the security data when present, and folder as the path. False
// (snapshot unchanged) when "snapshot.xml" is missing, unreadable or does not
// load, or names a package other than expectedId (unless expectedId is zero);
// a document that does not load is reported by the snapshot's own warning.
// The caller holds the owning record's lock.
bool LoadSnapshotFromFolder(Snapshot& snapshot, const std::filesystem::path& folder, const Guid& expectedId);

// The reset of a record's snapshot from its file on a restart: the snapshot
// is reloaded from its own path; with no path the warning "No path specified
// for snapshot" is written and nothing changes.
bool ReloadSnapshotFromPath(Snapshot& snapshot);

}  // namespace pkgdlv
