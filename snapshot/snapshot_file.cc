#include "snapshot/snapshot_file.h"

#include <system_error>

#include "util/atomic_file.h"
#include "util/error.h"

namespace pkgdlv {

namespace {

std::string ReadText(const std::filesystem::path& path) {
  std::vector<uint8_t> bytes = ReadWholeFile(path);
  return std::string(bytes.begin(), bytes.end());
}

}  // namespace

bool LoadSnapshotFromFolder(Snapshot& snapshot, const std::filesystem::path& folder, const Guid& expectedId) {
  const std::filesystem::path documentPath = folder / kSnapshotFileName;
  std::error_code ec;
  if (!std::filesystem::is_regular_file(documentPath, ec)) return false;

  Snapshot fresh(snapshot.logger());
  try {
    std::string text = ReadText(documentPath);
    fresh.signedData.assign(text.begin(), text.end());
    if (!fresh.LoadXml(std::move(text))) return false;
    if (!expectedId.IsNull() && fresh.id != expectedId) {
      snapshot.log().Log(loglevel::kWarning, kSnapshotLogComponent, "Snapshot %ls names package %ls, expected %ls",
                         documentPath.string(), fresh.GetIdText(), expectedId.ToString());
      return false;
    }
    const std::filesystem::path securityPath = Snapshot::GetSecurityDataPath(documentPath);
    if (std::filesystem::is_regular_file(securityPath, ec)) fresh.LoadXml(ReadText(securityPath), true);
  } catch (const Error& e) {
    snapshot.log().Log(loglevel::kWarning, kSnapshotLogComponent, "Cannot read snapshot %ls: %ls (0x%08X)",
                       documentPath.string(), e.description(), e.code());
    return false;
  }
  fresh.path = folder.string();
  fresh.hashNotRequired = snapshot.hashNotRequired;
  snapshot = std::move(fresh);
  return true;
}

bool ReloadSnapshotFromPath(Snapshot& snapshot) {
  if (snapshot.path.empty()) {
    snapshot.log().Log(loglevel::kWarning, kSnapshotLogComponent, "No path specified for snapshot");
    return false;
  }
  return LoadSnapshotFromFolder(snapshot, snapshot.path, snapshot.id);
}

}  // namespace pkgdlv
