#include "agent/log_file.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <system_error>
#include <vector>

#include "util/unique_fd.h"

namespace pkgdlv::agent_log {
namespace {

namespace fs = std::filesystem;

constexpr mode_t kFileMode = 0644;
constexpr unsigned kMaxRenameAttempts = 100'000;

int OpenRetrying(const char* path, int flags, mode_t mode) {
  int fd;
  do {
    fd = open(path, flags | O_CLOEXEC, mode);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

// Held for the life of the object; closing the descriptor releases it.
class ExclusiveFileLock {
 public:
  explicit ExclusiveFileLock(const fs::path& lock_file)
      : fd_(OpenRetrying(lock_file.c_str(), O_RDONLY | O_CREAT, kFileMode)) {
    if (!fd_.ok()) return;
    int rc;
    do {
      rc = flock(fd_.get(), LOCK_EX);
    } while (rc != 0 && errno == EINTR);
    locked_ = rc == 0;
  }
  bool locked() const { return locked_; }

 private:
  UniqueFd fd_;
  bool locked_ = false;
};

std::optional<off_t> FileSize(const fs::path& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) return std::nullopt;
  return info.st_size;
}

bool WriteAll(int fd, std::string_view text) {
  while (!text.empty()) {
    ssize_t written = write(fd, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written == 0) errno = EIO;  // no progress and no reason given
    if (written <= 0) return false;
    text.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

// Renames without replacing an existing file: EEXIST when the name is taken
// (Linux's rename() would silently replace it).
int RenameNoReplace(const fs::path& from, const fs::path& to) {
  if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
  if (errno != EINVAL && errno != ENOSYS) return errno;
  // A file system without RENAME_NOREPLACE: testing first is safe here because
  // every process that renames files of the set holds the log's lock.
  struct stat info {};
  if (lstat(to.c_str(), &info) == 0) return EEXIST;
  return rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

struct SetMember {
  fs::path path;
  fs::file_time_type last_write;
};

// The files named base name*extension, compared case-sensitively as Linux
// names are; the lock file is never a member.
std::vector<SetMember> ListSet(const fs::path& folder, const std::string& file_name) {
  const fs::path name(file_name);
  const std::string base = name.stem().string();
  const std::string extension = name.extension().string();
  const std::string lock_name = file_name + ".lock";
  std::vector<SetMember> members;
  std::error_code ec;
  for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
    const std::string candidate = it->path().filename().string();
    if (candidate.size() < base.size() + extension.size() || !candidate.starts_with(base) ||
        !candidate.ends_with(extension) || candidate == lock_name) {
      continue;
    }
    std::error_code entry_ec;
    if (!it->is_regular_file(entry_ec)) continue;
    fs::file_time_type last_write = it->last_write_time(entry_ec);
    if (entry_ec) continue;
    members.push_back({it->path(), last_write});
  }
  return members;
}

void DeleteOldestOtherThan(const std::vector<SetMember>& members, const std::string& current_name) {
  const SetMember* oldest = nullptr;
  for (const SetMember& member : members) {
    if (member.path.filename() == current_name) continue;
    if (!oldest || member.last_write < oldest->last_write ||
        (member.last_write == oldest->last_write && member.path < oldest->path)) {
      oldest = &member;
    }
  }
  if (oldest) unlink(oldest->path.c_str());
}

}  // namespace

std::string NumberedFileName(const std::string& file_name, unsigned n) {
  const fs::path name(file_name);
  return name.stem().string() + std::to_string(n) + name.extension().string();
}

void RollOver(const fs::path& folder, const std::string& file_name, uint32_t max_files) {
  std::vector<SetMember> members = ListSet(folder, file_name);
  if (members.size() >= max_files) DeleteOldestOtherThan(members, file_name);

  const fs::path current = folder / file_name;
  for (unsigned n = 1; n <= kMaxRenameAttempts; ++n) {
    int error = RenameNoReplace(current, folder / NumberedFileName(file_name, n));
    if (error != EEXIST) return;
  }
}

bool AppendToLogFile(const AppendRequest& request, const RecordBuilder& build, std::string* failure) {
  const auto fail = [failure](std::string_view action, const fs::path& path, int error) {
    if (failure) {
      *failure = "cannot " + std::string(action) + " '" + path.string() + "': " +
                 std::error_code(error, std::generic_category()).message();
    }
    return false;
  };
  std::error_code ec;
  fs::create_directories(request.folder, ec);
  if (ec) return fail("create the log folder", request.folder, ec.value());

  const fs::path lock_file = request.folder / (request.file_name + ".lock");
  ExclusiveFileLock lock(lock_file);
  if (!lock.locked()) return fail("lock", lock_file, errno);

  const fs::path file = request.folder / request.file_name;
  if (std::optional<off_t> size = FileSize(file); size && static_cast<uint64_t>(*size) > request.max_bytes) {
    RollOver(request.folder, request.file_name, request.max_files);
  }

  UniqueFd fd(OpenRetrying(file.c_str(), O_WRONLY | O_APPEND | O_CREAT, kFileMode));
  if (!fd.ok()) return fail("open", file, errno);
  struct stat info {};
  if (fstat(fd.get(), &info) != 0) return fail("read the size of", file, errno);
  if (!WriteAll(fd.get(), build(info.st_size == 0))) return fail("write to", file, errno);
  return true;
}

}  // namespace pkgdlv::agent_log
