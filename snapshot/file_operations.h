// Operations on a package's files as its snapshot lists them: copy them
// elsewhere, move them to a new package folder, delete invalid ones or the
// whole package, and complete entries whose size, time or hash is unknown.
//
// Every path is the snapshot's package folder (snapshot.path) joined with an
// entry's folder and name, resolved with ResolveInside, and no folder on the
// way may be a symbolic link, nor may the package folder itself (the
// snapshot's, or MoveFiles' new folder; CopyFiles' target folder may be one):
// a hostile name in a snapshot, or a link put in the store, never reaches a
// file outside the package folder (or the target folder). Such an entry is
// refused with a warning and counts as a failure. A file that is a link is
// moved or deleted as a link, never read or copied through.
//
// A file or folder that is not there (a package may lack files still to be
// downloaded) is never a failure; any other failure is logged per file (the
// snapshot's logger, component "Snapshot") and the walk goes on. Nothing here
// throws except for out-of-memory. One thread at a time per snapshot; the
// caller holds the package record's lock.
#pragma once

#include <filesystem>

#include "snapshot/snapshot.h"

namespace pkgdlv {

// Copies every folder and file to the same place below targetFolder,
// overwriting; with skipUnchanged a target whose size and last-write time
// already match the snapshot is left alone. True when no file failed.
bool CopyFiles(const Snapshot& snapshot, const std::filesystem::path& targetFolder, bool skipUnchanged);

// Moves every folder and file to the same place below newFolder (created even
// when the snapshot lists nothing), then tries to remove each old folder, in
// ascending path order, leaving those that are not empty. Does not change
// snapshot.path. True when no file failed.
bool MoveFiles(const Snapshot& snapshot, const std::filesystem::path& newFolder);

// Deletes the files in state invalid (invalidOnly) or every listed file
// (then also removes the emptied folders, as MoveFiles does). True when no
// file failed.
bool DeleteInvalidFiles(const Snapshot& snapshot, bool invalidOnly);

// Removes the package: only its listed files when snapshot.deleteInvalidOnly
// is set, else the whole package folder tree (symbolic links inside are
// removed, never followed). 0, or the failure's code.
Result DeletePackageFiles(const Snapshot& snapshot);

// For each file entry with an unknown size, a zero time or (when hashes are
// required) no hash that exists on disk: takes the size and last-write time
// from disk where unknown, and when fileHash is empty computes the whole-file
// SHA-256 into it (Base64).
void UpdateUnknownFiles(Snapshot& snapshot);

}  // namespace pkgdlv
