// The work folder as the engine sees it: one folder per package, named by the
// package's braced identifier, holding its "package.xml" (and, for packages
// kept in the work folder, its files and snapshot).
//
// A package's record is loaded from its "package.xml" when first looked up
// and kept in memory for as long as anyone holds it, so the engine, the
// transport and the automation objects share one PackageRequest per package.
//
// Threads: any thread; the store's own mutex guards only its map and is never
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

  // The store moved from oldFolder to newFolder: the work folder changes and
  // every record in memory whose package folder was oldFolder/<{ID}> follows.
  void Relocate(const std::filesystem::path& oldFolder, const std::filesystem::path& newFolder);

  // "<work folder>/<{ID}>" and its "package.xml".
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

  // Writes the record's "package.xml" (creating its folder). A failure is
  // logged at warning level, "Failed to save package: %ls" with the path, and
  // returns false; the record is unchanged.
  bool Save(PackageRequest& request);

  // The identifiers of the work folder's package folders (directories named
  // by a braced upper-case GUID, as FolderOf names them), in name order;
  // stops early when stop is set.
  std::vector<Guid> ListPackageIds(const Event* stop = nullptr) const;

 private:
  std::shared_ptr<PackageRequest> Load(const Guid& id);

  const AgentServices& services_;
  mutable std::mutex mutex_;
  std::filesystem::path workFolder_;
  std::map<Guid, std::weak_ptr<PackageRequest>> records_;
};

}  // namespace pkgdlv
