// Building a snapshot's entries from files rather than from a document: from
// a folder on disk (the publisher tool, a locally managed package) or from a
// directory listing (snapshot retrieval without a snapshot document).
//
// Both refuse names that a snapshot document could not carry safely (see
// util/safe_path.h) by throwing Error, so a built snapshot always composes
// into a document that loads again.
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "snapshot/snapshot.h"

namespace pkgdlv {

struct SnapshotBuildOptions {
  uint32_t blockSize = kDefaultBlockSize;
  // Whole-file SHA-256 and block hashes, each file read once. Without them
  // the entries carry sizes and times only (and hasUnhashedFiles is set).
  bool computeHashes = true;
  // Files never listed, such as the snapshot's own documents when they are
  // written into the folder being described. Compared after resolving.
  std::vector<std::filesystem::path> excludedFiles;
  // Files hashed at the same time; 0 picks up to two (the hashing is bound by
  // the processor, and a file is read once whichever thread hashes it).
  unsigned hashThreads = 0;
  // Receives the warnings about skipped entries (a link to a folder, a
  // device); null drops them.
  Logger* log = nullptr;
};

// Replaces snapshot.entries with every folder and file below folder and sets
// blockSize, declaredBlockSize, totalBlocks and hasUnhashedFiles; id, version,
// time and path are the caller's. Entries are in entry order; each file has
// its size and last-write time, and with hashes its fileHash, blockHashes,
// hasBlockHash (for files of one byte or more) and state valid.
//
// Throws Error: the folder cannot be read; a symbolic link leads outside the
// folder (0x80070057); the snapshot's document would be longer than
// kMaxSnapshotDocumentBytes (0x80070057, "The snapshot document would take
// up to ... choose a larger hash block size"; checked before hashing, so
// that nothing is written that could not be read back); a name is not valid UTF-8 or not a safe name
// (0x80070057); two names differ only in letter case (0x80070057); a file
// cannot be hashed. The snapshot is left unchanged then. Any thread; the
// snapshot must not be used elsewhere meanwhile.
void BuildSnapshotFromFolder(const std::filesystem::path& folder, const SnapshotBuildOptions& options,
                             Snapshot& snapshot);

// One item of a directory listing, with its path relative to the listed
// folder in document form ("sub\file.txt").
struct ListedItem {
  std::string relativePath;
  bool isDirectory = false;
  int64_t size = -1;          // -1 when the listing does not say
  FileTime lastModified = 0;  // 0 when the listing does not say
};

// Replaces snapshot.entries with the listed folders and files (no hashes;
// hasUnhashedFiles set when there is a file) and numbers the blocks with the
// snapshot's blockSize. Folders that only appear as part of a path get entries
// of their own. Throws Error 0x80070057 for an unsafe path or twins that
// differ only in case, leaving the snapshot unchanged.
void SetEntriesFromListing(std::span<const ListedItem> items, Snapshot& snapshot);

}  // namespace pkgdlv
