// What pkgdlv check and pkgdlv package share: the snapshot of a package
// folder, loaded from its document with the folder as its path, and a logger
// that shows the component's warnings and errors on standard error.
#pragma once

#include <iostream>
#include <memory>
#include <string>

#include "cli/command_registry.h"
#include "snapshot/snapshot.h"
#include "util/atomic_file.h"
#include "util/error.h"
#include "util/file_reader.h"

namespace pkgdlv::cli {

class StderrLogger final : public Logger {
 public:
  bool IsEnabled(uint32_t level) override {
    return (level & loglevel::kSilent) == 0 && EffectiveSeverity(level) <= loglevel::kWarning;
  }
  void Write(uint32_t level, std::string_view component, std::string_view message) noexcept override {
    std::cerr << SeverityTag(EffectiveSeverity(level)) << ' ' << component << ": " << message << '\n';
  }
};

inline Snapshot LoadPackageSnapshot(const std::string& folder, const std::string& snapshotFile) {
  std::vector<uint8_t> bytes;
  try {
    bytes = ReadFileCapped(snapshotFile);
  } catch (const Error& e) {
    throw CommandFailure{e.description()};
  }
  Snapshot snapshot(std::make_shared<StderrLogger>());
  if (!snapshot.LoadXml(std::string(bytes.begin(), bytes.end()))) {
    throw CommandFailure{"'" + snapshotFile + "' is not a valid snapshot"};
  }
  std::error_code ec;
  if (!std::filesystem::is_directory(folder, ec)) throw CommandFailure{"'" + folder + "' is not a folder"};
  snapshot.path = folder;
  return snapshot;
}

}  // namespace pkgdlv::cli
