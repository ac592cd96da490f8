// Moving a work folder's packages to another folder, and finishing in place
// the moves that an older store left as links.
//
// A move is all or nothing: every package is checked before the first one
// moves (a link that is not a package left behind, a name already taken in
// the new folder), and when a later step fails — or the stop event is set —
// the packages already moved go back, so every package stays where it was,
// whole. Each package folder (named by its identifier, in any letter case)
// is renamed into the new folder; across file systems it is copied in blocks
// (the stop event is tested between files and blocks) and the originals are
// removed only once every package has been copied. A copy leaves working
// files behind — a package's "cache" folder and names ending in "-tmp" —
// since the engine makes them again. Symbolic links inside a package are
// moved as links by a rename and left out of a copy; they are never followed.
//
// A link in the store named by a package is followed only when it leads to a
// real folder of the same name that holds that package's document (what an
// older partial move left); any other link aborts the move.
//
// Lines go to the logger, component "PackageManager". One thread at a time;
// the engine holds its download and queue locks around a move.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <vector>

#include "agent/logger.h"
#include "util/event.h"

namespace pkgdlv {

// What a store holds, in bytes, for the space a move needs.
struct StoreSize {
  uint64_t packageData = 0;   // the packages' own files
  uint64_t documents = 0;     // "package.xml", "snapshot.xml", "snapdata.xml", "log.xml"
  uint64_t workingFiles = 0;  // "cache" folders and "-tmp" names
};
// Measures the package folders of workFolder (symbolic links are not followed).
StoreSize MeasureStore(const std::filesystem::path& workFolder);

// The folder itself, or the nearest of its parents that exists (empty when
// none does): where a folder still to be made would live.
std::filesystem::path NearestExistingFolder(std::filesystem::path folder);

// Copies source's tree to target (which must not exist), time stamps kept,
// leaving working files and symbolic links behind. stop (may be null) ends
// the copy between files and blocks. error: the errno of the first failure
// (ECANCELED when stopped). A failed copy may leave part of target behind.
bool CopyFolderTree(const std::filesystem::path& source, const std::filesystem::path& target, const Event* stop,
                    int& error);

enum class MoveResult {
  kAllMoved = 0,     // every package is in the new folder
  kPartlyMoved = 1,  // some packages are still reached through links to their old place
  kFailed = 2,       // aborted (or stopped) with every package where it was; see the log
};

class StoreMover {
 public:
  // The rename of one package folder: 0, or the errno of the failure (EXDEV
  // makes the mover copy). Replaceable so that tests can simulate another
  // file system or a failure.
  using Rename = std::function<int(const std::filesystem::path& from, const std::filesystem::path& to)>;

  // stop (may be null; must outlive the mover) ends a move between packages,
  // files and blocks, as a failure.
  explicit StoreMover(Logger& log, const Event* stop = nullptr);

  // Moves every package folder of from into to (created when missing). With
  // from and to the same folder, only finishes the moves left as links.
  // from itself stays; see RemoveOldFolder.
  MoveResult Move(const std::filesystem::path& from, const std::filesystem::path& to);

  // Looks at folder without changing it: kFailed when a package link leads
  // to a foreign place, kPartlyMoved when moves are left as links, else
  // kAllMoved.
  MoveResult Check(const std::filesystem::path& folder);

  // After a complete move: removes from's "cache" folder and from itself
  // when empty ("Cannot clean-up directory after relocation: '%ls'" if not).
  void RemoveOldFolder(const std::filesystem::path& from);

  void SetRename(Rename rename) { rename_ = std::move(rename); }

 private:
  struct Step;
  // Every package of from with where it really is and where it goes; none
  // when a package cannot be moved (logged).
  std::optional<std::vector<Step>> Plan(const std::filesystem::path& from, const std::filesystem::path& to);
  // Renames or copies one package; false (nothing left at target) on failure.
  bool Place(Step& step);
  void Undo(const std::vector<Step>& done);
  MoveResult FinishLinkedPackage(const std::filesystem::path& linkPath);
  // The package links of folder, all leading to packages left behind; none
  // (logged) when one leads elsewhere.
  std::optional<std::vector<std::filesystem::path>> LeftBehindLinks(const std::filesystem::path& folder);
  bool Stopped() const { return stop_ && stop_->IsSet(); }
  // The warning for a package link that leads out of the store.
  void LogForeignLink(const std::filesystem::path& link);

  Logger& log_;
  const Event* stop_;
  Rename rename_;
};

}  // namespace pkgdlv
