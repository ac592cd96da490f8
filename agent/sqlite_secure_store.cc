// The secure store on SQLite: one table, one row per path, holding the sealed
// value.
//
//   CREATE TABLE secure_values (path TEXT PRIMARY KEY, value BLOB)
//
// A sealed value is: format byte 1, a 12-byte random nonce, the AES-256-GCM
// ciphertext, the 16-byte tag. The path is the additional authenticated data,
// so a row copied to another path, a row written under another machine's key
// and a changed byte all fail to open, and are reported as a decryption
// failure rather than taken as hashes.
//
// Several processes share the file as the settings store does: WAL mode, a
// busy timeout, one autocommit statement per write, and the opening steps
// retried while another process creates the file.
#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <mutex>
#include <thread>

#include "agent/openssl_helpers.h"
#include "agent/secure_store.h"
#include "agent/sqlite_open.h"
#include "util/errno_result.h"
#include "util/error.h"

namespace pkgdlv {
namespace {

namespace fs = std::filesystem;

constexpr int kBusyTimeoutMs = 5000;
constexpr size_t kKeySize = 32;
constexpr size_t kNonceSize = 12;
constexpr size_t kTagSize = 16;
constexpr uint8_t kSealFormat = 1;

constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS secure_values (path TEXT NOT NULL PRIMARY KEY, value BLOB NOT NULL) WITHOUT ROWID";

// The machine key, wiped when it goes.
class MachineKey {
 public:
  MachineKey() = default;
  ~MachineKey() { OPENSSL_cleanse(bytes_.data(), bytes_.size()); }
  MachineKey(const MachineKey&) = delete;
  MachineKey& operator=(const MachineKey&) = delete;
  uint8_t* data() { return bytes_.data(); }
  const uint8_t* data() const { return bytes_.data(); }

 private:
  std::array<uint8_t, kKeySize> bytes_{};
};

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) ::close(fd_);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

// Reads exactly the key's bytes; a file of another size is not a key file.
bool ReadKeyFile(const fs::path& file, MachineKey& key) {
  Fd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (fd.get() < 0) {
    if (errno == ENOENT) return false;
    ThrowFileError(errno, "open the machine key", file);
  }
  uint8_t extra = 0;
  size_t got = 0;
  while (got < kKeySize) {
    ssize_t n = ::read(fd.get(), key.data() + got, kKeySize - got);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) ThrowFileError(errno, "read the machine key", file);
    if (n == 0) break;
    got += static_cast<size_t>(n);
  }
  if (got != kKeySize || ::read(fd.get(), &extra, 1) != 0) {
    Throw(result::kFail, "The machine key file %ls does not hold a key", file.string());
  }
  return true;
}

// A new key is written whole to a private temporary file (O_EXCL, mode 0600)
// and linked to the key file's name; link() fails when the name exists, so
// of two processes starting at once exactly one key wins and both read it.
void LoadOrCreateKey(const fs::path& file, MachineKey& key) {
  if (ReadKeyFile(file, key)) return;
  std::error_code ec;
  if (file.has_parent_path()) fs::create_directories(file.parent_path(), ec);

  MachineKey fresh;
  if (RAND_bytes(fresh.data(), static_cast<int>(kKeySize)) != 1) openssl::ThrowFailure("RAND_bytes");
  fs::path temporary = file;
  temporary += ".tmp." + std::to_string(::getpid());
  {
    Fd fd(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (fd.get() < 0) ThrowFileError(errno, "create the machine key", temporary);
    bool written = ::write(fd.get(), fresh.data(), kKeySize) == static_cast<ssize_t>(kKeySize) && ::fsync(fd.get()) == 0;
    int error = errno;
    if (!written) {
      ::unlink(temporary.c_str());
      ThrowFileError(error, "write the machine key", temporary);
    }
  }
  int linked = ::link(temporary.c_str(), file.c_str());
  int error = errno;
  ::unlink(temporary.c_str());
  if (linked != 0 && error != EEXIST) ThrowFileError(error, "create the machine key", file);
  if (!ReadKeyFile(file, key)) ThrowFileError(ENOENT, "read the machine key", file);
}

class CipherContext {
 public:
  CipherContext() : context_(EVP_CIPHER_CTX_new()) {
    if (!context_) openssl::ThrowFailure("EVP_CIPHER_CTX_new");
  }
  ~CipherContext() { EVP_CIPHER_CTX_free(context_); }
  CipherContext(const CipherContext&) = delete;
  CipherContext& operator=(const CipherContext&) = delete;
  EVP_CIPHER_CTX* get() const { return context_; }

 private:
  EVP_CIPHER_CTX* context_;
};

std::vector<uint8_t> Seal(const MachineKey& key, std::string_view path, std::span<const uint8_t> plain) {
  std::vector<uint8_t> sealed(1 + kNonceSize + plain.size() + kTagSize);
  sealed[0] = kSealFormat;
  uint8_t* nonce = sealed.data() + 1;
  uint8_t* cipher = nonce + kNonceSize;
  if (RAND_bytes(nonce, static_cast<int>(kNonceSize)) != 1) openssl::ThrowFailure("RAND_bytes");
  CipherContext context;
  int length = 0;
  if (EVP_EncryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, key.data(), nonce) != 1 ||
      EVP_EncryptUpdate(context.get(), nullptr, &length, reinterpret_cast<const uint8_t*>(path.data()),
                        static_cast<int>(path.size())) != 1 ||
      EVP_EncryptUpdate(context.get(), cipher, &length, plain.data(), static_cast<int>(plain.size())) != 1 ||
      EVP_EncryptFinal_ex(context.get(), cipher + length, &length) != 1 ||
      EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_GET_TAG, static_cast<int>(kTagSize),
                          cipher + plain.size()) != 1) {
    openssl::ThrowFailure("AES-256-GCM sealing");
  }
  return sealed;
}

[[noreturn]] void ThrowUnopenable(std::string_view path) {
  Throw(result::kDecryptFailed,
        "Cannot open the secure store value '%ls': it was sealed under another key, under another path, or altered",
        path);
}

std::vector<uint8_t> Open(const MachineKey& key, std::string_view path, std::span<const uint8_t> sealed) {
  if (sealed.size() < 1 + kNonceSize + kTagSize || sealed[0] != kSealFormat) ThrowUnopenable(path);
  const uint8_t* nonce = sealed.data() + 1;
  std::span<const uint8_t> cipher = sealed.subspan(1 + kNonceSize, sealed.size() - 1 - kNonceSize - kTagSize);
  std::array<uint8_t, kTagSize> tag;
  std::copy(sealed.end() - kTagSize, sealed.end(), tag.begin());

  std::vector<uint8_t> plain(cipher.size());
  CipherContext context;
  int length = 0;
  bool opened =
      EVP_DecryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, key.data(), nonce) == 1 &&
      EVP_DecryptUpdate(context.get(), nullptr, &length, reinterpret_cast<const uint8_t*>(path.data()),
                        static_cast<int>(path.size())) == 1 &&
      EVP_DecryptUpdate(context.get(), plain.data(), &length, cipher.data(), static_cast<int>(cipher.size())) == 1 &&
      EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_SET_TAG, static_cast<int>(kTagSize), tag.data()) == 1 &&
      EVP_DecryptFinal_ex(context.get(), plain.data() + length, &length) == 1;
  if (!opened) {
    OPENSSL_cleanse(plain.data(), plain.size());
    openssl::TakeErrorText();  // the queue must not carry this failure into an unrelated report
    ThrowUnopenable(path);
  }
  return plain;
}

class SqliteSecureStore final : public SecureStore {
 public:
  SqliteSecureStore(const fs::path& database, const fs::path& keyFile) : file_(database.string()) {
    LoadOrCreateKey(keyFile, key_);
    if (sqlite3_open_v2(file_.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                        nullptr) != SQLITE_OK) {
      FailOpen();
    }
    sqlite3_extended_result_codes(db_, 1);
    sqlite3_busy_timeout(db_, kBusyTimeoutMs);
    ExecOrFailOpen("PRAGMA journal_mode=WAL");
    ExecOrFailOpen("PRAGMA synchronous=NORMAL");
    ExecOrFailOpen(kSchema);
    ::chmod(file_.c_str(), 0600);  // the values are sealed, but their paths name the packages
  }

  ~SqliteSecureStore() override { sqlite3_close_v2(db_); }

  std::optional<std::vector<uint8_t>> Read(std::string_view path) override {
    std::lock_guard lock(mutex_);
    Statement statement(db_, "SELECT value FROM secure_values WHERE path = ?1");
    statement.Bind(1, path);
    int rc = sqlite3_step(statement.get());
    if (rc == SQLITE_DONE) return std::nullopt;
    if (rc != SQLITE_ROW) ThrowLastError();
    const auto* bytes = static_cast<const uint8_t*>(sqlite3_column_blob(statement.get(), 0));
    auto size = static_cast<size_t>(sqlite3_column_bytes(statement.get(), 0));
    return Open(key_, path, std::span(bytes, bytes ? size : 0));
  }

  void Write(std::string_view path, std::span<const uint8_t> value) override {
    std::vector<uint8_t> sealed = Seal(key_, path, value);
    std::lock_guard lock(mutex_);
    Statement statement(db_, "INSERT INTO secure_values (path, value) VALUES (?1, ?2)"
                             " ON CONFLICT (path) DO UPDATE SET value = excluded.value");
    statement.Bind(1, path);
    sqlite3_bind_blob(statement.get(), 2, sealed.data(), static_cast<int>(sealed.size()), SQLITE_TRANSIENT);
    if (sqlite3_step(statement.get()) != SQLITE_DONE) ThrowLastError();
  }

  bool Delete(std::string_view path) override {
    std::lock_guard lock(mutex_);
    Statement statement(db_, "DELETE FROM secure_values WHERE path = ?1");
    statement.Bind(1, path);
    if (sqlite3_step(statement.get()) != SQLITE_DONE) ThrowLastError();
    return sqlite3_changes(db_) != 0;
  }

  size_t DeletePrefix(std::string_view prefix) override {
    while (!prefix.empty() && prefix.back() == '\\') prefix.remove_suffix(1);
    std::lock_guard lock(mutex_);
    // Paths below P run from "P\" up to (not including) "P]", since ']'
    // follows '\'; this keeps the primary key's index usable.
    Statement statement(db_, "DELETE FROM secure_values WHERE path = ?1 OR (path >= ?1 || '\\' AND path < ?1 || ']')");
    statement.Bind(1, prefix);
    if (sqlite3_step(statement.get()) != SQLITE_DONE) ThrowLastError();
    return static_cast<size_t>(sqlite3_changes(db_));
  }

 private:
  class Statement {
   public:
    Statement(sqlite3* db, const char* sql) {
      if (sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr) != SQLITE_OK) {
        Throw(static_cast<Result>(sqlite3_extended_errcode(db)), "%hs", sqlite3_errmsg(db));
      }
    }
    ~Statement() { sqlite3_finalize(stmt_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;
    void Bind(int index, std::string_view text) {
      sqlite3_bind_text(stmt_, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
    }
    sqlite3_stmt* get() const { return stmt_; }

   private:
    sqlite3_stmt* stmt_ = nullptr;
  };

  [[noreturn]] void ThrowLastError() {
    Throw(result::kFail, "Secure store %ls: %hs (%d)", file_, sqlite3_errmsg(db_), sqlite3_extended_errcode(db_));
  }

  void ExecOrFailOpen(const char* sql) {
    if (ExecRetryingBusy(db_, sql, kBusyTimeoutMs) != SQLITE_OK) FailOpen();
  }

  [[noreturn]] void FailOpen() {
    int code = db_ ? sqlite3_extended_errcode(db_) : SQLITE_NOMEM;
    std::string message = db_ ? sqlite3_errmsg(db_) : "out of memory";
    sqlite3_close_v2(db_);
    db_ = nullptr;
    Throw(result::kFail, "Cannot open the secure store %ls: %ls (%d)", file_, message, code);
  }

  std::string file_;
  MachineKey key_;
  std::mutex mutex_;
  sqlite3* db_ = nullptr;
};

}  // namespace

std::shared_ptr<SecureStore> OpenSqliteSecureStore(const fs::path& database_file, const fs::path& key_file) {
  std::error_code ec;
  if (database_file.has_parent_path()) fs::create_directories(database_file.parent_path(), ec);
  return std::make_shared<SqliteSecureStore>(database_file, key_file);
}

}  // namespace pkgdlv
