#include "agent/smb_share.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "agent/smb_library.h"
#include "transport/location.h"
#include "util/error.h"
#include "util/filetime.h"
#include "util/safe_path.h"
#include "util/strings.h"

namespace pkgdlv {
namespace {

constexpr uint16_t kAttributeDirectory = 0x10;
constexpr uint16_t kAttributeDevice = 0x40;
constexpr uint16_t kAttributeReparsePoint = 0x400;  // a link or junction on the server

// libsmbclient's global state (configuration, talloc stack frames) is not
// safe for concurrent calls, even on separate contexts.
std::mutex& LibraryLock() {
  static std::mutex lock;
  return lock;
}

// Runs one libsmbclient call under the lock; errno is read before the lock
// is released, while it still belongs to that call.
template <class Call>
auto Locked(int& error, Call&& call) {
  std::lock_guard lock(LibraryLock());
  errno = 0;
  auto outcome = call();
  error = errno;
  return outcome;
}

void CopyField(char* out, int capacity, const std::string& value) {
  if (capacity <= 0) return;
  size_t count = std::min(value.size(), static_cast<size_t>(capacity - 1));
  std::memcpy(out, value.data(), count);
  out[count] = '\0';
}

std::string ParentUrl(const std::string& url) {
  size_t slash = url.rfind('/');
  return slash == std::string::npos ? url : url.substr(0, slash);
}

// The share root is smb://host/share: three "/" after the scheme's colon.
bool IsBelowShare(const std::string& url) {
  return std::count(url.begin(), url.end(), '/') > 3;
}

}  // namespace

Result MapShareErrno(int error) {
  switch (error) {
    case ENOENT:
      return result::kFileNotFound;
    case ENOTDIR:
      return result::kPathNotFound;
    case EACCES:
    case EPERM:
    case EISDIR:
      return result::kAccessDenied;
    case ECONNREFUSED:
      return result::kConnectionRefused;
    case ETIMEDOUT:
      return result::kTransferTimeout;
    case EHOSTUNREACH:
    case ENETUNREACH:
    case ENETDOWN:
    case EHOSTDOWN:
      return result::kCannotConnect;
    case EINVAL:
      return result::kInvalidArg;
    case ECANCELED:
      return result::kCancelled;
    default:
      return result::kDownloadFailed;
  }
}

namespace {

// An open remote file or folder handle, closed when it goes.
template <class Handle, class Closer>
class RemoteHandle {
 public:
  RemoteHandle(SMBCCTX* ctx, Handle* handle) : ctx_(ctx), handle_(handle) {}
  ~RemoteHandle() {
    if (!handle_) return;
    int error = 0;
    Locked(error, [&] { return Closer{}(ctx_, handle_); });
  }
  RemoteHandle(const RemoteHandle&) = delete;
  RemoteHandle& operator=(const RemoteHandle&) = delete;
  Handle* get() const { return handle_; }

 private:
  SMBCCTX* ctx_;
  Handle* handle_;
};

struct CloseFile {
  int operator()(SMBCCTX* ctx, SMBCFILE* file) const { return SmbClient().getFunctionClose(ctx)(ctx, file); }
};
struct CloseFolder {
  int operator()(SMBCCTX* ctx, SMBCFILE* folder) const { return SmbClient().getFunctionClosedir(ctx)(ctx, folder); }
};
using RemoteFile = RemoteHandle<SMBCFILE, CloseFile>;
using RemoteFolder = RemoteHandle<SMBCFILE, CloseFolder>;

// One item of a folder as the server reported it.
struct RawEntry {
  std::string name;
  uint16_t attributes = 0;
  struct stat st {};
  timespec writeTime{};
  timespec accessTime{};
};

}  // namespace

class SmbShare::Context {
 public:
  Context(AbortCheck aborted, uint16_t port) : aborted_(std::move(aborted)) {
    std::lock_guard lock(LibraryLock());
    SMBCCTX* made = SmbClient().new_context();
    if (!made) Throw(result::kFail, "Cannot start the file share client: %hs", std::strerror(errno));
    SmbClient().setDebug(made, 0);
    SmbClient().setOptionUserData(made, this);
    SmbClient().setFunctionAuthDataWithContext(made, &Context::Authenticate);
    SmbClient().setOptionUseKerberos(made, false);
    SmbClient().setOptionUseCCache(made, false);
    SmbClient().setOptionNoAutoAnonymousLogin(made, false);
    SmbClient().setOptionProtocols(made, "SMB2_02", "SMB3");
    SmbClient().setTimeout(made, 30'000);
    if (port != 0) SmbClient().setPort(made, port);
    if (!SmbClient().init_context(made)) {
      int error = errno;
      SmbClient().free_context(made, 1);
      Throw(result::kFail, "Cannot start the file share client: %hs", std::strerror(error));
    }
    ctx_ = made;
  }

  ~Context() {
    {
      std::lock_guard lock(LibraryLock());
      SmbClient().free_context(ctx_, 1);
    }
    Wipe();
  }

  void SetCredentials(std::string_view user, std::string_view password) {
    size_t slash = user.find('\\');
    std::string_view domain = slash == std::string_view::npos ? std::string_view() : user.substr(0, slash);
    std::string_view name = slash == std::string_view::npos ? user : user.substr(slash + 1);
    if (domain == domain_ && name == user_ && password == password_) return;
    Wipe();
    domain_ = domain;
    user_ = name;
    password_ = password;
    std::lock_guard lock(LibraryLock());
    // Cached sessions carry the old logon; the next call makes a new one.
    SmbClient().getFunctionPurgeCachedServers(ctx_)(ctx_);
    // Credentials that the server refuses must fail, not become a guest
    // session.
    SmbClient().setOptionNoAutoAnonymousLogin(ctx_, !user_.empty());
  }

  void SetTimeout(uint32_t timeout_ms) {
    std::lock_guard lock(LibraryLock());
    SmbClient().setTimeout(ctx_, static_cast<int>(std::min<uint32_t>(timeout_ms, INT32_MAX)));
  }

  uint64_t ReadRange(const std::string& url, uint64_t first, uint64_t length, const Sink& sink) {
    ThrowIfAborted(url);
    RemoteFile file = Open(url);
    if (first > 0) {
      int error = 0;
      off_t at = Locked(error, [&] {
        return SmbClient().getFunctionLseek(ctx_)(ctx_, file.get(), static_cast<off_t>(first), SEEK_SET);
      });
      if (at < 0) Fail(url, error);
    }
    return ReadInto(file, url, length, sink);
  }

  uint64_t ReadFile(const std::string& url, uint64_t max_bytes, const Sink& sink) {
    ThrowIfAborted(url);
    RemoteFile file = Open(url);
    struct stat st {};
    int error = 0;
    if (Locked(error, [&] { return SmbClient().getFunctionFstat(ctx_)(ctx_, file.get(), &st); }) == 0 &&
        static_cast<uint64_t>(st.st_size) > max_bytes) {
      TooLarge(url);
    }
    uint64_t received = ReadInto(file, url, max_bytes, sink);
    // The file may have grown since; one more byte tells.
    uint8_t extra = 0;
    if (received == max_bytes &&
        Locked(error, [&] { return SmbClient().getFunctionRead(ctx_)(ctx_, file.get(), &extra, 1); }) > 0) {
      TooLarge(url);
    }
    return received;
  }

  std::vector<DirectoryEntry> List(const std::string& url, bool recursive) {
    ThrowIfAborted(url);
    struct stat st {};
    int error = 0;
    int rc = Locked(error, [&] { return SmbClient().getFunctionStat(ctx_)(ctx_, url.c_str(), &st); });
    if (rc != 0 || !S_ISDIR(st.st_mode)) {
      Result code = rc == 0 ? result::kPathNotFound : MapShareErrno(error);
      if (code == result::kFileNotFound) code = result::kPathNotFound;
      Throw(code, "Cannot list the folder '%ls': %hs", url, std::strerror(rc == 0 ? ENOTDIR : error));
    }
    std::vector<DirectoryEntry> out;
    std::vector<ino_t> parents{st.st_ino};
    ListInto(url, "", recursive, parents, out);
    return out;
  }

 private:
  static void Authenticate(SMBCCTX* c, const char*, const char*, char* workgroup, int workgroup_size,
                           char* user, int user_size, char* password, int password_size) {
    auto* self = static_cast<Context*>(SmbClient().getOptionUserData(c));
    if (!self->domain_.empty()) CopyField(workgroup, workgroup_size, self->domain_);
    CopyField(user, user_size, self->user_);
    CopyField(password, password_size, self->password_);
  }

  void Wipe() {
    WipeString(domain_);
    WipeString(user_);
    WipeString(password_);
    domain_.clear();
    user_.clear();
    password_.clear();
  }

  void ThrowIfAborted(const std::string& url) const {
    if (aborted_ && aborted_()) Throw(result::kCancelled, "The download of '%ls' was cancelled", url);
  }

  [[noreturn]] static void Fail(const std::string& url, int error) {
    Throw(MapShareErrno(error), "Failed to download '%ls': %hs", url, std::strerror(error));
  }

  [[noreturn]] static void TooLarge(const std::string& url) {
    Throw(result::kResponseTooLarge, "The response from '%ls' is larger than allowed", url);
  }

  bool IsFolder(const std::string& url) {
    struct stat st {};
    int error = 0;
    int rc = Locked(error, [&] { return SmbClient().getFunctionStat(ctx_)(ctx_, url.c_str(), &st); });
    return rc == 0 && S_ISDIR(st.st_mode);
  }

  RemoteFile Open(const std::string& url) {
    int error = 0;
    SMBCFILE* file = Locked(error, [&] { return SmbClient().getFunctionOpen(ctx_)(ctx_, url.c_str(), O_RDONLY, 0); });
    if (!file) {
      // A file whose folder is missing is "path not found".
      if (MapShareErrno(error) == result::kFileNotFound && IsBelowShare(url) && !IsFolder(ParentUrl(url))) {
        Throw(result::kPathNotFound, "Failed to download '%ls': %hs", url, std::strerror(error));
      }
      Fail(url, error);
    }
    return RemoteFile(ctx_, file);
  }

  uint64_t ReadInto(const RemoteFile& file, const std::string& url, uint64_t length, const Sink& sink) {
    std::vector<uint8_t> buffer(static_cast<size_t>(std::min<uint64_t>(length, kMaxReadBytes)));
    uint64_t done = 0;
    while (done < length) {
      ThrowIfAborted(url);
      size_t want = static_cast<size_t>(std::min<uint64_t>(buffer.size(), length - done));
      int error = 0;
      ssize_t got =
          Locked(error, [&] { return SmbClient().getFunctionRead(ctx_)(ctx_, file.get(), buffer.data(), want); });
      if (got < 0) Fail(url, error);
      if (got == 0) break;
      done += static_cast<uint64_t>(got);
      sink(std::span<const uint8_t>(buffer.data(), static_cast<size_t>(got)));
    }
    return done;
  }

  std::vector<RawEntry> ReadFolder(const std::string& url) {
    int error = 0;
    SMBCFILE* handle = Locked(error, [&] { return SmbClient().getFunctionOpendir(ctx_)(ctx_, url.c_str()); });
    if (!handle) {
      Result code = MapShareErrno(error);
      Throw(code == result::kFileNotFound ? result::kPathNotFound : code, "Cannot list the folder '%ls': %hs", url,
            std::strerror(error));
    }
    RemoteFolder folder(ctx_, handle);
    std::vector<RawEntry> entries;
    while (true) {
      RawEntry entry;
      bool more = Locked(error, [&] {
        const libsmb_file_info* info = SmbClient().getFunctionReaddirPlus2(ctx_)(ctx_, folder.get(), &entry.st);
        if (!info) return false;
        entry.name = info->name ? info->name : "";
        entry.attributes = info->attrs;
        entry.writeTime = info->mtime_ts;
        entry.accessTime = info->atime_ts;
        return true;
      });
      if (!more) break;
      entries.push_back(std::move(entry));
    }
    return entries;
  }

  void ListInto(const std::string& url, const std::string& prefix, bool recursive, std::vector<ino_t>& parents,
                std::vector<DirectoryEntry>& out) {
    ThrowIfAborted(url);
    if (parents.size() > static_cast<size_t>(kMaxDepth)) {
      Throw(result::kDownloadFailed, "The folder '%ls' is nested too deeply", url);
    }
    for (const RawEntry& raw : ReadFolder(url)) {
      if (!IsSafeRelativeName(raw.name)) continue;
      if (raw.attributes & (kAttributeReparsePoint | kAttributeDevice)) continue;
      bool is_dir = (raw.attributes & kAttributeDirectory) != 0 || S_ISDIR(raw.st.st_mode);
      // A folder that is one of its own parents (the server followed a link)
      // would repeat the tree without end.
      if (is_dir && raw.st.st_ino != 0 &&
          std::find(parents.begin(), parents.end(), raw.st.st_ino) != parents.end()) {
        continue;
      }
      if (out.size() >= kMaxEntries) {
        Throw(result::kResponseTooLarge, "The folder '%ls' holds more entries than allowed", url);
      }
      DirectoryEntry entry;
      entry.relativePath = prefix.empty() ? raw.name : prefix + "\\" + raw.name;
      entry.isDirectory = is_dir;
      entry.size = is_dir ? 0 : static_cast<uint64_t>(raw.st.st_size);
      entry.lastWriteTime = FileTimeFromTimespec(raw.writeTime);
      entry.lastAccessTime = FileTimeFromTimespec(raw.accessTime);
      out.push_back(entry);
      if (is_dir && recursive) {
        parents.push_back(raw.st.st_ino);
        ListInto(url + "/" + PercentEncodeComponent(raw.name), entry.relativePath, recursive, parents, out);
        parents.pop_back();
      }
    }
  }

  SMBCCTX* ctx_ = nullptr;
  AbortCheck aborted_;
  std::string domain_;
  std::string user_;
  std::string password_;
};

uint16_t SmbShare::PortFromEnvironment() {
  const char* text = std::getenv(kPortVariable);
  if (!text) return 0;
  auto port = ParseUInt64(text);
  return port && *port >= 1 && *port <= 65535 ? static_cast<uint16_t>(*port) : 0;
}

SmbShare::SmbShare(AbortCheck aborted, uint16_t port)
    : context_(std::make_unique<Context>(std::move(aborted), port)) {}

SmbShare::~SmbShare() = default;

void SmbShare::SetCredentials(std::string_view user, std::string_view password) {
  context_->SetCredentials(user, password);
}

void SmbShare::SetTimeout(uint32_t timeout_ms) { context_->SetTimeout(timeout_ms); }

uint64_t SmbShare::ReadRange(const std::string& url, uint64_t first, uint64_t length, const Sink& sink) {
  return length == 0 ? 0 : context_->ReadRange(url, first, length, sink);
}

uint64_t SmbShare::ReadFile(const std::string& url, uint64_t max_bytes, const Sink& sink) {
  return context_->ReadFile(url, max_bytes, sink);
}

std::vector<DirectoryEntry> SmbShare::List(const std::string& url, bool recursive) {
  return context_->List(url, recursive);
}

}  // namespace pkgdlv

// libsmbclient leaks the name of its log file each time a context is made
// (debug_set_logfile through reopen_logs); the leak is the library's, so
// sanitizer builds leave it out of the leak report. Its allocations come
// through talloc, which has no frame pointers, so the fast unwinder's stack
// ends there: only talloc (used by the share client alone) can name it.
#if defined(__SANITIZE_ADDRESS__)
#define PKGDLV_LEAK_CHECKED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define PKGDLV_LEAK_CHECKED 1
#endif
#endif
#ifdef PKGDLV_LEAK_CHECKED
extern "C" const char* __lsan_default_suppressions() { return "leak:libtalloc.so\n"; }
// The tool's standard error is read by scripts and tests: no report of the
// suppression itself at exit.
extern "C" const char* __lsan_default_options() { return "print_suppressions=0"; }
#endif
