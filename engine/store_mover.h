// Moving a work folder's packages to another folder, and finishing such a move
// in place.
//
// Each package folder (named by its braced identifier) is renamed into the new
// folder; across file systems it is copied and the original removed. A package
// that cannot be moved whole stays where it is, and a symbolic link in the new
// folder points to it until a later move finishes the job (a move onto the
// current folder does that: it replaces each such link with the folder it
// points to). A copy leaves working files behind — a package's "cache"
// folder and names ending in "-tmp" — since the engine makes them again.
//
// Lines go to the logger, component "PackageManager". One thread at a time;
// the engine holds its download and queue locks around a move.
#pragma once

#include <cstdint>
#include <filesystem>

#include "agent/logger.h"

namespace pkgdlv {

// What a store holds, in bytes, for the space a move needs.
struct StoreSize {
  uint64_t packageData = 0;   // the packages' own files
  uint64_t documents = 0;     // "package.xml", "snapshot.xml", "snapdata.xml", "log.xml"
  uint64_t workingFiles = 0;  // "cache" folders and "-tmp" names
};
// Measures the package folders of workFolder (symbolic links are not followed).
StoreSize MeasureStore(const std::filesystem::path& workFolder);

enum class MoveResult {
  kAllMoved = 0,     // every package is in the new folder
  kPartlyMoved = 1,  // some packages are reached through links to their old place
  kFailed = 2,       // the move was aborted; see the log
};

class StoreMover {
 public:
  explicit StoreMover(Logger& log) : log_(log) {}

  // Moves every package folder of from into to (created when missing); with
  // from equal to to, only finishes earlier partial moves. The old folder is
  // removed when it is left empty.
  MoveResult Move(const std::filesystem::path& from, const std::filesystem::path& to);

 private:
  // Moves one package folder's contents to target; on failure nothing is
  // left at target.
  bool MovePackage(const std::filesystem::path& source, const std::filesystem::path& target);
  // Replaces the link at linkPath with the folder it points to.
  MoveResult FinishLinkedPackage(const std::filesystem::path& linkPath);
  // Makes target a link to source, for a package left behind.
  bool LinkInPlace(const std::filesystem::path& source, const std::filesystem::path& target);

  Logger& log_;
};

}  // namespace pkgdlv
