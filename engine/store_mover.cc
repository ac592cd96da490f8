#include "engine/store_mover.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>

#include "engine/package_store.h"
#include "util/guid.h"
#include "util/same_folder.h"

namespace pkgdlv {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kComponent = "PackageManager";
constexpr size_t kCopyBlock = 1 << 20;

bool IsWorkingFile(const fs::path& name) {
  const std::string text = name.string();
  return text == "cache" || text.ends_with("-tmp");
}

bool IsDocument(const fs::path& name) {
  const std::string text = name.string();
  return text == "package.xml" || text == "snapshot.xml" || text == "snapdata.xml" || text == "log.xml";
}

uint64_t TreeSize(const fs::path& folder) {
  uint64_t total = 0;
  std::error_code ec;
  for (fs::recursive_directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
    std::error_code sizeError;
    if (it->is_regular_file(sizeError) && !it->is_symlink(sizeError)) total += it->file_size(sizeError);
  }
  return total;
}

struct Entry {
  fs::path path;
  Guid id;
  bool link = false;
};

// The entries of a work folder named by a package identifier (in any letter
// case) that are folders or links; links are not followed.
std::vector<Entry> PackageEntries(const fs::path& workFolder) {
  std::vector<Entry> entries;
  std::error_code ec;
  for (fs::directory_iterator it(workFolder, ec), end; !ec && it != end; it.increment(ec)) {
    std::optional<Guid> id = Guid::Parse(it->path().filename().string());
    if (!id) continue;
    std::error_code typeError;
    const fs::file_status status = it->symlink_status(typeError);
    if (fs::is_symlink(status)) {
      entries.push_back({it->path(), *id, true});
    } else if (fs::is_directory(status)) {
      entries.push_back({it->path(), *id, false});
    }
  }
  return entries;
}

// Where a package link left by an earlier partial move leads: a real folder
// (not a link) of the link's own name that holds that package. Anything else
// is a foreign place and none is returned.
std::optional<fs::path> LeftBehindFolder(const Entry& entry) {
  std::error_code ec;
  const fs::path target = fs::read_symlink(entry.path, ec);
  if (ec || !target.is_absolute() || target.filename() != entry.path.filename()) return std::nullopt;
  struct stat info {};
  if (::lstat(target.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) return std::nullopt;
  if (!HoldsPackage(target, entry.id)) return std::nullopt;
  return target;
}

bool CopyFileInBlocks(const fs::path& source, const fs::path& target, const Event* stop, int& error) {
  const int in = ::open(source.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (in < 0) {
    error = errno;
    return false;
  }
  struct stat info {};
  if (::fstat(in, &info) != 0 || !S_ISREG(info.st_mode)) {
    error = EINVAL;
    ::close(in);
    return false;
  }
  const int out = ::open(target.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, info.st_mode & 07777);
  if (out < 0) {
    error = errno;
    ::close(in);
    return false;
  }
  std::vector<char> block(kCopyBlock);
  bool ok = true;
  while (ok) {
    if (stop && stop->IsSet()) {
      error = ECANCELED;
      ok = false;
      break;
    }
    const ssize_t got = ::read(in, block.data(), block.size());
    if (got == 0) break;
    if (got < 0) {
      if (errno == EINTR) continue;
      error = errno;
      ok = false;
      break;
    }
    for (ssize_t written = 0; written < got;) {
      const ssize_t put = ::write(out, block.data() + written, static_cast<size_t>(got - written));
      if (put < 0) {
        if (errno == EINTR) continue;
        error = errno;
        ok = false;
        break;
      }
      written += put;
    }
  }
  const struct timespec times[2] = {info.st_atim, info.st_mtim};
  if (ok && ::futimens(out, times) != 0) {
    error = errno;
    ok = false;
  }
  if (::close(out) != 0 && ok) {
    error = errno;
    ok = false;
  }
  ::close(in);
  return ok;
}

int SystemRename(const fs::path& from, const fs::path& to) {
  return std::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

}  // namespace

fs::path NearestExistingFolder(fs::path folder) {
  std::error_code ec;
  while (!folder.empty() && !fs::exists(folder, ec)) {
    if (folder == folder.parent_path()) break;
    folder = folder.parent_path();
  }
  return folder;
}

bool CopyFolderTree(const fs::path& source, const fs::path& target, const Event* stop, int& error) {
  std::error_code ec;
  fs::create_directory(target, ec);
  if (ec) {
    error = ec.value();
    return false;
  }
  for (fs::directory_iterator it(source, ec), end; !ec && it != end; it.increment(ec)) {
    if (stop && stop->IsSet()) {
      error = ECANCELED;
      return false;
    }
    const fs::path name = it->path().filename();
    if (IsWorkingFile(name)) continue;
    std::error_code typeError;
    const fs::file_status status = it->symlink_status(typeError);
    if (fs::is_directory(status)) {
      if (!CopyFolderTree(it->path(), target / name, stop, error)) return false;
    } else if (fs::is_regular_file(status)) {
      if (!CopyFileInBlocks(it->path(), target / name, stop, error)) return false;
    }
  }
  if (ec) error = ec.value();
  return !ec;
}

// One package of a move: the entry in the old folder, the folder it really
// is (the entry, or where its link leads) and where it goes.
struct StoreMover::Step {
  fs::path entry;
  fs::path source;
  fs::path target;
  bool alreadyThere = false;  // a link whose package already lives at target
  bool renamed = false;
  bool copied = false;
};

StoreSize MeasureStore(const fs::path& workFolder) {
  StoreSize size;
  for (const Entry& package : PackageEntries(workFolder)) {
    if (package.link) continue;
    std::error_code ec;
    for (fs::directory_iterator it(package.path, ec), end; !ec && it != end; it.increment(ec)) {
      const fs::path name = it->path().filename();
      std::error_code typeError;
      if (it->is_symlink(typeError)) continue;
      const uint64_t bytes = it->is_directory(typeError) ? TreeSize(it->path()) : it->file_size(typeError);
      if (IsWorkingFile(name)) {
        size.workingFiles += bytes;
      } else if (IsDocument(name)) {
        size.documents += bytes;
      } else {
        size.packageData += bytes;
      }
    }
  }
  return size;
}

StoreMover::StoreMover(Logger& log, const Event* stop) : log_(log), stop_(stop), rename_(SystemRename) {}

void StoreMover::LogForeignLink(const fs::path& link) {
  std::error_code ec;
  log_.Log(loglevel::kWarning, kComponent,
           "Target Directory '%ls' contain Directory Junction to foreign location: '%ls'. Aborting the package "
           "relocation.",
           link.string(), fs::read_symlink(link, ec).string());
}

std::optional<std::vector<StoreMover::Step>> StoreMover::Plan(const fs::path& from, const fs::path& to) {
  std::vector<Step> steps;
  for (const Entry& package : PackageEntries(from)) {
    Step step{package.path, package.path, to / package.path.filename()};
    if (package.link) {
      std::optional<fs::path> leadsTo = LeftBehindFolder(package);
      if (!leadsTo) {
        LogForeignLink(package.path);
        return std::nullopt;
      }
      step.source = *leadsTo;
      step.alreadyThere = SameFolder(step.source, step.target);
    }
    if (!step.alreadyThere && (IsBelow(to, step.source) || SameFolder(to, step.source))) {
      log_.Log(loglevel::kWarning, kComponent, "Failed to move the package: '%ls'", package.path.string());
      return std::nullopt;
    }
    std::error_code ec;
    const fs::file_status there = fs::symlink_status(step.target, ec);
    if (!step.alreadyThere && fs::exists(there)) {
      if (fs::is_symlink(there)) {
        LogForeignLink(step.target);
      } else {
        log_.Log(loglevel::kWarning, kComponent, "Failed to move the package: '%ls'", package.path.string());
      }
      return std::nullopt;
    }
    steps.push_back(std::move(step));
  }
  return steps;
}

bool StoreMover::Place(Step& step) {
  if (step.alreadyThere) return true;
  log_.Log(loglevel::kInfo, kComponent, "Moving package %ls from <%ls> to <%ls>", step.entry.filename().string(),
           step.source.string(), step.target.string());
  int error = Stopped() ? ECANCELED : rename_(step.source, step.target);
  if (error == 0) {
    step.renamed = true;
    return true;
  }
  if (error == EXDEV) {
    if (CopyFolderTree(step.source, step.target, stop_, error)) {
      step.copied = true;
      return true;
    }
    std::error_code ec;
    fs::remove_all(step.target, ec);
  }
  log_.Log(loglevel::kWarning, kComponent, "Error moving package: %ls (%d)", std::string(std::strerror(error)), error);
  return false;
}

void StoreMover::Undo(const std::vector<Step>& done) {
  for (auto it = done.rbegin(); it != done.rend(); ++it) {
    std::error_code ec;
    if (it->copied) fs::remove_all(it->target, ec);
    if (it->renamed && rename_(it->target, it->source) != 0) {
      log_.Log(loglevel::kWarning, kComponent, "Failed to move the package: '%ls'", it->target.string());
    }
  }
}

std::optional<std::vector<fs::path>> StoreMover::LeftBehindLinks(const fs::path& folder) {
  std::vector<fs::path> links;
  for (const Entry& package : PackageEntries(folder)) {
    if (!package.link) continue;
    if (!LeftBehindFolder(package)) {
      LogForeignLink(package.path);
      return std::nullopt;
    }
    links.push_back(package.path);
  }
  return links;
}

MoveResult StoreMover::Check(const fs::path& folder) {
  std::optional<std::vector<fs::path>> links = LeftBehindLinks(folder);
  if (!links) return MoveResult::kFailed;
  return links->empty() ? MoveResult::kAllMoved : MoveResult::kPartlyMoved;
}

MoveResult StoreMover::Move(const fs::path& from, const fs::path& to) {
  if (SameFolder(from, to)) {
    // Every link is checked first, then each is finished on its own.
    std::optional<std::vector<fs::path>> links = LeftBehindLinks(to);
    if (!links) return MoveResult::kFailed;
    MoveResult result = MoveResult::kAllMoved;
    for (const fs::path& link : *links) {
      if (Stopped()) return MoveResult::kPartlyMoved;
      const MoveResult finished = FinishLinkedPackage(link);
      if (finished == MoveResult::kFailed) return finished;
      if (finished == MoveResult::kPartlyMoved) result = finished;
    }
    return result;
  }

  std::optional<std::vector<Step>> plan = Plan(from, to);
  if (!plan) return MoveResult::kFailed;
  std::error_code ec;
  fs::create_directories(to, ec);
  if (ec) {
    log_.Log(loglevel::kWarning, kComponent,
             "Can't create the folder '%ls' for Directory Junction. Aborting the package relocation.", to.string());
    return MoveResult::kFailed;
  }
  std::vector<Step> done;
  for (Step& step : *plan) {
    if (!Place(step)) {
      Undo(done);
      return MoveResult::kFailed;
    }
    done.push_back(step);
  }
  // Every package is in place: only now do the originals of copies go.
  for (const Step& step : done) {
    if (step.copied) fs::remove_all(step.source, ec);
    if (step.entry != step.source) fs::remove(step.entry, ec);
  }
  return MoveResult::kAllMoved;
}

void StoreMover::RemoveOldFolder(const fs::path& from) {
  std::error_code ec;
  fs::remove_all(from / "cache", ec);  // a link there goes, not what it leads to
  if (!fs::remove(from, ec)) {
    log_.Log(loglevel::kWarning, kComponent, "Cannot clean-up directory after relocation: '%ls'", from.string());
  }
}

MoveResult StoreMover::FinishLinkedPackage(const fs::path& linkPath) {
  std::error_code ec;
  const fs::path source = fs::read_symlink(linkPath, ec);
  if (!fs::remove(linkPath, ec)) {
    log_.Log(loglevel::kWarning, kComponent, "Cannot unlink Directory Junction '%ls'", linkPath.string());
    return MoveResult::kPartlyMoved;
  }
  Step step{linkPath, source, linkPath};
  if (Place(step)) {
    if (step.copied) fs::remove_all(source, ec);
    return MoveResult::kAllMoved;
  }
  log_.Log(loglevel::kWarning, kComponent, "Failed to move the package: '%ls'", source.string());
  fs::create_directory_symlink(source, linkPath, ec);
  if (ec) {
    log_.Log(loglevel::kWarning, kComponent,
             "Directory Junction creation '%ls' is failed. Aborting the package relocation.", linkPath.string());
    return MoveResult::kFailed;
  }
  return MoveResult::kPartlyMoved;
}

}  // namespace pkgdlv
