#include "engine/package_store.h"

#include <algorithm>
#include <system_error>

#include "agent/logger.h"
#include "records/package_request.h"
#include "snapshot/snapshot_file.h"
#include "util/error.h"

namespace pkgdlv {

namespace {
constexpr std::string_view kComponent = "PackageManager";
}

PackageStore::PackageStore(const AgentServices& services, std::filesystem::path workFolder)
    : services_(services), workFolder_(std::move(workFolder)) {}

std::filesystem::path PackageStore::workFolder() const {
  std::lock_guard lock(mutex_);
  return workFolder_;
}

void PackageStore::SetWorkFolder(std::filesystem::path folder) {
  std::lock_guard lock(mutex_);
  workFolder_ = std::move(folder);
}

void PackageStore::Relocate(const std::filesystem::path& oldFolder, const std::filesystem::path& newFolder) {
  std::vector<std::shared_ptr<PackageRequest>> held;
  {
    std::lock_guard lock(mutex_);
    workFolder_ = newFolder;
    for (auto& [id, record] : records_) {
      if (std::shared_ptr<PackageRequest> request = record.lock()) held.push_back(std::move(request));
    }
  }
  // Record locks are taken without the store's mutex: a record's holder may
  // call the store while holding its lock.
  for (const std::shared_ptr<PackageRequest>& request : held) {
    auto lock = request->Lock();
    const std::string name = request->id().ToString();
    Snapshot& snapshot = request->snapshot();
    if (std::filesystem::path(snapshot.path) == oldFolder / name) snapshot.path = (newFolder / name).string();
  }
}

std::filesystem::path PackageStore::FolderOf(const Guid& id) const { return workFolder() / id.ToString(); }

std::filesystem::path PackageStore::DocumentPathOf(const Guid& id) const {
  return PackageRequest::DocumentPath(FolderOf(id));
}

std::shared_ptr<PackageRequest> PackageStore::Find(const Guid& id) {
  std::error_code ec;
  const bool documentExists = std::filesystem::is_regular_file(DocumentPathOf(id), ec);
  {
    std::lock_guard lock(mutex_);
    auto found = records_.find(id);
    if (found != records_.end()) {
      std::shared_ptr<PackageRequest> held = found->second.lock();
      if (held && documentExists) return held;
      records_.erase(found);
    }
  }
  if (!documentExists) return nullptr;

  std::shared_ptr<PackageRequest> loaded = Load(id);
  if (!loaded) return nullptr;
  std::lock_guard lock(mutex_);
  // Another thread may have loaded the same package meanwhile: keep one.
  auto [slot, inserted] = records_.try_emplace(id, loaded);
  if (!inserted) {
    if (std::shared_ptr<PackageRequest> held = slot->second.lock()) return held;
    slot->second = loaded;
  }
  return loaded;
}

std::shared_ptr<PackageRequest> PackageStore::Load(const Guid& id) {
  const std::filesystem::path document = DocumentPathOf(id);
  auto request = std::make_shared<PackageRequest>(services_);
  bool loaded = false;
  try {
    loaded = request->Load(document);
  } catch (const Error& e) {
    services_.log->Log(loglevel::kWarning, kComponent, "Cannot read package document %ls: %ls (0x%08X)",
                       document.string(), e.description(), e.code());
    return nullptr;
  }
  if (!loaded || request->id() != id) {
    services_.log->Log(loglevel::kWarning, kComponent, "Package document %ls is damaged or names another package",
                       document.string());
    return nullptr;
  }

  auto lock = request->Lock();
  Snapshot& snapshot = request->snapshot();
  if (snapshot.path.empty()) snapshot.path = FolderOf(id).string();
  if (!request->hasSnapshot) LoadSnapshotFromFolder(snapshot, snapshot.path, id);
  return request;
}

void PackageStore::Adopt(const std::shared_ptr<PackageRequest>& request) {
  const Guid id = request->id();
  std::lock_guard lock(mutex_);
  records_[id] = request;
}

bool PackageStore::Save(PackageRequest& request) {
  const std::filesystem::path path = DocumentPathOf(request.id());
  try {
    std::filesystem::create_directories(path.parent_path());
    request.Save(path);
    return true;
  } catch (...) {
    services_.log->Log(loglevel::kWarning, kComponent, "Failed to save package: %ls", path.string());
    return false;
  }
}

std::vector<Guid> PackageStore::ListPackageIds(const Event* stop) const {
  std::vector<Guid> ids;
  std::error_code ec;
  for (std::filesystem::directory_iterator it(workFolder(), ec), end; !ec && it != end; it.increment(ec)) {
    if (stop && stop->IsSet()) break;
    std::error_code typeError;
    if (!it->is_directory(typeError)) continue;
    // Only the form the engine writes: on a file system that tells letter
    // case apart, "{abc...}" is not the folder of package "{ABC...}".
    const std::string name = it->path().filename().string();
    std::optional<Guid> id = Guid::Parse(name);
    if (id && id->ToString() == name) ids.push_back(*id);
  }
  std::sort(ids.begin(), ids.end(), [](const Guid& a, const Guid& b) { return a.ToString() < b.ToString(); });
  return ids;
}

}  // namespace pkgdlv
