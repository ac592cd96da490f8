// The work folder as the engine sees it: one folder per package, named by the
// package's braced identifier, holding its "package.xml" (and, for packages
// kept in the work folder, its files and snapshot).
//
// A package's record is loaded from its "package.xml" when first looked up
// and kept in memory for as long as anyone holds it, so the engine, the
// transport and the automation objects share one PackageRequest per package.
//
// A package folder that is a symbolic link is never used: its record is not
// loaded or saved and it is not listed, so nothing is read or written through
// it outside the store.
//
// Threads: any thread; the store's own mutex guards only its maps and is never
// held while a record's lock is taken for more than a load.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include <pkgdlv/agent_services.h>

#include "util/event.h"
#include "util/guid.h"

namespace pkgdlv {

class PackageRequest;

class PackageStore {
 public:
  PackageStore(const AgentServices& services, std::filesystem::path workFolder);

  std::filesystem::path workFolder() const;
  void SetWorkFolder(std::filesystem::path folder);

  // A read-only store writes nothing: Save and CreateFolder only report
  // success, and every record found or adopted is kept in memory, so what
  // the engine decided stays visible. For showing what the engine would do
  // (the tool's queue).
  void SetReadOnly(bool readOnly);
  bool readOnly() const;

  // The store moved from oldFolder to newFolder: the work folder changes and
  // every record in memory whose package folder was oldFolder/<{ID}> follows.
  void Relocate(const std::filesystem::path& oldFolder, const std::filesystem::path& newFolder);

  // "<work folder>/<{ID}>" (or the folder's name in another letter case, as
  // ListPackageIds found it) and its "package.xml".
  std::filesystem::path FolderOf(const Guid& id) const;
  std::filesystem::path DocumentPathOf(const Guid& id) const;

  // The package's record, or null when its "package.xml" is gone or cannot
  // be used (unreadable, not a package document, or naming another package;
  // logged at warning level, component "PackageManager"). A record loaded here
  // gets the package folder (the document's own store, else FolderOf) and
  // the snapshot saved there. A record still held elsewhere is returned as it
  // is, provided its document still exists.
  std::shared_ptr<PackageRequest> Find(const Guid& id);

  // Makes Find return this record (one built from a request document).
  void Adopt(const std::shared_ptr<PackageRequest>& request);

  // Writes the record's "package.xml" (creating its folder). A failure (a
  // package folder that is a link included) is logged at warning level,
  // "Failed to save package: %ls" with the path, and returns false; the
  // record is unchanged.
  bool Save(PackageRequest& request);
  // Creates a package folder when missing; false on failure.
  bool CreateFolder(const std::filesystem::path& folder);

  // The records held in memory now (for the engine to settle before a move).
  std::vector<std::shared_ptr<PackageRequest>> HeldRecords() const;

  // The identifiers of the work folder's package folders (real directories,
  // not links, named by a braced GUID in any letter case; the upper-case
  // name wins when both exist), in identifier order; stops early when stop
  // is set.
  std::vector<Guid> ListPackageIds(const Event* stop = nullptr) const;

 private:
  std::shared_ptr<PackageRequest> Load(const Guid& id);

  const AgentServices& services_;
  mutable std::mutex mutex_;
  std::filesystem::path workFolder_;
  bool readOnly_ = false;
  std::map<Guid, std::weak_ptr<PackageRequest>> records_;
  mutable std::map<Guid, std::string> folderNames_;  // package folders not named in upper case
  std::vector<std::shared_ptr<PackageRequest>> pinned_;  // read-only: records never let go
};

// True when folder (not a link) holds the package id: its "package.xml" or
// "snapshot.xml" (regular files, read up to a size cap) names that
// identifier. Any thread.
bool HoldsPackage(const std::filesystem::path& folder, const Guid& id);

}  // namespace pkgdlv
