#include "engine/package_store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <system_error>

#include "agent/logger.h"
#include "records/package_request.h"
#include "snapshot/snapshot_file.h"
#include "util/error.h"
#include "util/same_folder.h"
#include "util/xml.h"

namespace pkgdlv {

namespace {
constexpr std::string_view kComponent = "PackageManager";
constexpr off_t kPackageDocumentCap = 1 << 20;
constexpr off_t kSnapshotDocumentCap = 64 << 20;

// A regular file's text, or none when it is missing, not a regular file (a
// link, a FIFO, a device) or larger than cap.
std::optional<std::string> ReadSmallFile(const std::filesystem::path& path, off_t cap) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  struct stat info {};
  std::optional<std::string> text;
  if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_size <= cap) {
    std::string bytes(static_cast<size_t>(info.st_size), '\0');
    size_t got = 0;
    while (got < bytes.size()) {
      const ssize_t n = ::read(fd, bytes.data() + got, bytes.size() - got);
      if (n <= 0) break;
      got += static_cast<size_t>(n);
    }
    if (got == bytes.size()) text = std::move(bytes);
  }
  ::close(fd);
  return text;
}

bool DocumentNames(const std::filesystem::path& path, off_t cap, const Guid& id) {
  std::optional<std::string> text = ReadSmallFile(path, cap);
  if (!text) return false;
  std::optional<xml::Document> document = xml::Document::TryParse(*text);
  if (!document || !document->Root()) return false;
  std::optional<std::string> named = document->Root().Attribute("id");
  std::optional<Guid> parsed = named ? Guid::Parse(*named) : std::nullopt;
  return parsed && *parsed == id;
}
}  // namespace

bool HoldsPackage(const std::filesystem::path& folder, const Guid& id) {
  if (IsSymbolicLink(folder)) return false;
  return DocumentNames(folder / "package.xml", kPackageDocumentCap, id) ||
         DocumentNames(folder / "snapshot.xml", kSnapshotDocumentCap, id);
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
  folderNames_.clear();  // names found in the old folder say nothing of the new one
}

void PackageStore::SetReadOnly(bool readOnly) {
  std::lock_guard lock(mutex_);
  readOnly_ = readOnly;
}

bool PackageStore::readOnly() const {
  std::lock_guard lock(mutex_);
  return readOnly_;
}

void PackageStore::Relocate(const std::filesystem::path& oldFolder, const std::filesystem::path& newFolder) {
  std::vector<std::shared_ptr<PackageRequest>> held = HeldRecords();
  std::map<Guid, std::string> names;
  {
    std::lock_guard lock(mutex_);
    workFolder_ = newFolder;
    names = folderNames_;
  }
  // Record locks are taken without the store's mutex: a record's holder may
  // call the store while holding its lock.
  for (const std::shared_ptr<PackageRequest>& request : held) {
    auto lock = request->Lock();
    auto named = names.find(request->id());
    const std::string name = named != names.end() ? named->second : request->id().ToString();
    Snapshot& snapshot = request->snapshot();
    if (std::filesystem::path(snapshot.path) == oldFolder / name) snapshot.path = (newFolder / name).string();
  }
}

std::vector<std::shared_ptr<PackageRequest>> PackageStore::HeldRecords() const {
  std::vector<std::shared_ptr<PackageRequest>> held;
  std::lock_guard lock(mutex_);
  for (const auto& [id, record] : records_) {
    if (std::shared_ptr<PackageRequest> request = record.lock()) held.push_back(std::move(request));
  }
  return held;
}

std::filesystem::path PackageStore::FolderOf(const Guid& id) const {
  std::lock_guard lock(mutex_);
  auto named = folderNames_.find(id);
  return workFolder_ / (named != folderNames_.end() ? named->second : id.ToString());
}

std::filesystem::path PackageStore::DocumentPathOf(const Guid& id) const {
  return PackageRequest::DocumentPath(FolderOf(id));
}

std::shared_ptr<PackageRequest> PackageStore::Find(const Guid& id) {
  std::error_code ec;
  // A package folder or document that is a link is never read through.
  const bool documentExists = !IsSymbolicLink(FolderOf(id)) &&
                              std::filesystem::is_regular_file(std::filesystem::symlink_status(DocumentPathOf(id), ec));
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
  if (readOnly_) pinned_.push_back(loaded);
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
  if (readOnly_) pinned_.push_back(request);
}

bool PackageStore::Save(PackageRequest& request) {
  if (readOnly()) return true;
  const std::filesystem::path path = DocumentPathOf(request.id());
  try {
    if (IsSymbolicLink(path.parent_path())) Throw(result::kAccessDenied, "The package folder is a link");
    std::filesystem::create_directories(path.parent_path());
    request.Save(path);
    return true;
  } catch (...) {
    services_.log->Log(loglevel::kWarning, kComponent, "Failed to save package: %ls", path.string());
    return false;
  }
}

bool PackageStore::CreateFolder(const std::filesystem::path& folder) {
  if (readOnly()) return true;
  std::error_code ec;
  std::filesystem::create_directories(folder, ec);
  return !ec;
}

std::vector<Guid> PackageStore::ListPackageIds(const Event* stop) const {
  std::map<Guid, std::string> found;  // id -> folder name, upper case preferred
  std::error_code ec;
  for (std::filesystem::directory_iterator it(workFolder(), ec), end; !ec && it != end; it.increment(ec)) {
    if (stop && stop->IsSet()) break;
    std::error_code typeError;
    if (!std::filesystem::is_directory(it->symlink_status(typeError))) continue;  // links are never followed
    const std::string name = it->path().filename().string();
    std::optional<Guid> id = Guid::Parse(name);
    if (!id) continue;
    auto [slot, inserted] = found.try_emplace(*id, name);
    if (!inserted && name == id->ToString()) slot->second = name;
  }
  std::vector<Guid> ids;
  std::lock_guard lock(mutex_);
  for (const auto& [id, name] : found) {
    ids.push_back(id);
    if (name == id.ToString()) {
      folderNames_.erase(id);
    } else {
      folderNames_[id] = name;
    }
  }
  std::sort(ids.begin(), ids.end(), [](const Guid& a, const Guid& b) { return a.ToString() < b.ToString(); });
  return ids;
}

}  // namespace pkgdlv
