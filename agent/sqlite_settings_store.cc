// The settings store on SQLite: one table, one row per (key path, value name).
//
//   CREATE TABLE settings (key TEXT COLLATE NOCASE, name TEXT COLLATE NOCASE,
//                          type TEXT ('number' or 'text'), value, PRIMARY KEY (key, name))
//
// Several processes share the file: it runs in WAL mode (readers never block
// the writer), every write is one autocommit statement (one short transaction)
// and a busy timeout makes a writer wait for another instead of failing. One
// connection per store object, guarded by a mutex because the store is used
// from several threads.
//
// Failures carry SQLite's own extended result code and message, as a registry
// call would carry the system's error code and text. Texts, key paths and
// names are limited in length (agent/setting_limits.h).
#include <sqlite3.h>

#include <chrono>
#include <cstdint>
#include <mutex>
#include <system_error>
#include <thread>

#include "agent/setting_limits.h"
#include "agent/settings_store.h"
#include "agent/sqlite_open.h"
#include "util/error.h"

namespace pkgdlv {
namespace {

constexpr int kBusyTimeoutMs = 5000;
constexpr const char* kNumberType = "number";
constexpr const char* kTextType = "text";

constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS settings ("
    " key TEXT NOT NULL COLLATE NOCASE,"
    " name TEXT NOT NULL COLLATE NOCASE,"
    " type TEXT NOT NULL CHECK (type IN ('number', 'text')),"
    " value,"  // no declared type: numbers stay integers, texts stay texts
    " PRIMARY KEY (key, name)"
    ") WITHOUT ROWID";

// Owns one prepared statement; resets it when a use ends so that no read
// transaction stays open between calls.
class Statement {
 public:
  Statement() = default;
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  ~Statement() { Finalize(); }

  void Prepare(sqlite3* db, const char* sql) {
    if (sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &stmt_, nullptr) != SQLITE_OK) {
      Throw(static_cast<Result>(sqlite3_extended_errcode(db)), "%hs", sqlite3_errmsg(db));
    }
  }
  void Finalize() {
    sqlite3_finalize(stmt_);
    stmt_ = nullptr;
  }
  sqlite3_stmt* get() const { return stmt_; }

 private:
  sqlite3_stmt* stmt_ = nullptr;
};

class StatementUse {
 public:
  explicit StatementUse(const Statement& statement) : stmt_(statement.get()) {}
  ~StatementUse() {
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
  }
  StatementUse(const StatementUse&) = delete;
  StatementUse& operator=(const StatementUse&) = delete;

  void BindText(int index, std::string_view text) {
    sqlite3_bind_text(stmt_, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
  }
  void BindInt64(int index, int64_t value) { sqlite3_bind_int64(stmt_, index, value); }
  int Step() { return sqlite3_step(stmt_); }
  sqlite3_stmt* get() const { return stmt_; }

 private:
  sqlite3_stmt* stmt_;
};

std::string ColumnText(sqlite3_stmt* stmt, int column) {
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, column));
  return text ? std::string(text, static_cast<size_t>(sqlite3_column_bytes(stmt, column))) : std::string();
}

// A stored row as a value; nullopt when the row does not hold what its type
// says (edited by hand, say), which readers treat like a missing value.
std::optional<SettingValue> ColumnValue(sqlite3_stmt* stmt, int type_column, int value_column) {
  std::string type = ColumnText(stmt, type_column);
  int storage = sqlite3_column_type(stmt, value_column);
  if (type == kTextType && storage == SQLITE_TEXT) {
    // Longer than Set allows: written by something else, not taken.
    if (static_cast<size_t>(sqlite3_column_bytes(stmt, value_column)) > kMaxSettingTextBytes) return std::nullopt;
    return SettingValue::Text(ColumnText(stmt, value_column));
  }
  if (type == kNumberType && storage == SQLITE_INTEGER) {
    int64_t n = sqlite3_column_int64(stmt, value_column);
    // Negative numbers written by other tools are taken as their 32 bits.
    if (n < INT32_MIN || n > UINT32_MAX) return std::nullopt;
    return SettingValue::Number(static_cast<uint32_t>(n));
  }
  return std::nullopt;
}

// A key prefix without a trailing separator, so "A\" lists like "A".
std::string_view TrimSeparator(std::string_view key) {
  while (!key.empty() && key.back() == '\\') key.remove_suffix(1);
  return key;
}

class SqliteSettingsStore final : public SettingsStore {
 public:
  explicit SqliteSettingsStore(const std::filesystem::path& file) : file_(file.string()) {
    int rc =
        sqlite3_open_v2(file_.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    if (rc != SQLITE_OK) FailOpen();
    sqlite3_extended_result_codes(db_, 1);
    sqlite3_busy_timeout(db_, kBusyTimeoutMs);
    // The first statements read the file's header: a file that is not a
    // database fails here, with SQLite's "file is not a database".
    ExecOrFailOpen("PRAGMA journal_mode=WAL");
    ExecOrFailOpen("PRAGMA synchronous=NORMAL");
    ExecOrFailOpen(kSchema);
    try {
      get_.Prepare(db_, "SELECT type, value FROM settings WHERE key = ?1 AND name = ?2");
      set_.Prepare(db_,
                   "INSERT INTO settings (key, name, type, value) VALUES (?1, ?2, ?3, ?4)"
                   " ON CONFLICT (key, name) DO UPDATE SET type = excluded.type, value = excluded.value");
      delete_.Prepare(db_, "DELETE FROM settings WHERE key = ?1 AND name = ?2");
      // Keys below a prefix P are those from "P\" up to (not including) "P]",
      // since ']' follows '\' and NOCASE only folds letters; this keeps the
      // primary key's index usable, and "PX" stays outside.
      list_.Prepare(db_,
                    "SELECT key, name, type, value FROM settings"
                    " WHERE ?1 = '' OR key = ?1 OR (key >= ?1 || '\\' AND key < ?1 || ']')"
                    " ORDER BY key, name");
      data_version_.Prepare(db_, "PRAGMA data_version");
    } catch (const Error& e) {
      Close();
      // SQLite's own numbers read as success codes; an open failure must not.
      Throw(result::kFail, "Cannot open the settings database %ls: %ls (%d)", file_, e.description(), e.code());
    }
  }

  ~SqliteSettingsStore() override { Close(); }

  std::optional<SettingValue> Get(std::string_view key, std::string_view name) override {
    std::lock_guard lock(mutex_);
    StatementUse use(get_);
    use.BindText(1, key);
    use.BindText(2, name);
    if (use.Step() != SQLITE_ROW) return std::nullopt;  // missing, or the read failed
    return ColumnValue(use.get(), 0, 1);
  }

  void Set(std::string_view key, std::string_view name, const SettingValue& value) override {
    CheckLengths(key, name, value);
    std::lock_guard lock(mutex_);
    StatementUse use(set_);
    use.BindText(1, key);
    use.BindText(2, name);
    if (value.type == SettingValue::Type::kNumber) {
      use.BindText(3, kNumberType);
      use.BindInt64(4, value.number);
    } else {
      use.BindText(3, kTextType);
      use.BindText(4, value.text);
    }
    if (use.Step() != SQLITE_DONE) ThrowLastError();
    ++own_writes_;
  }

  bool Delete(std::string_view key, std::string_view name) override {
    std::lock_guard lock(mutex_);
    StatementUse use(delete_);
    use.BindText(1, key);
    use.BindText(2, name);
    if (use.Step() != SQLITE_DONE) ThrowLastError();
    if (sqlite3_changes(db_) == 0) return false;
    ++own_writes_;
    return true;
  }

  std::vector<NamedSetting> List(std::string_view key_prefix) override {
    std::lock_guard lock(mutex_);
    StatementUse use(list_);
    use.BindText(1, TrimSeparator(key_prefix));
    std::vector<NamedSetting> settings;
    while (use.Step() == SQLITE_ROW) {
      std::optional<SettingValue> value = ColumnValue(use.get(), 2, 3);
      if (!value) continue;  // unreadable rows are left out, as Get treats them as missing
      settings.push_back({ColumnText(use.get(), 0), ColumnText(use.get(), 1), std::move(*value)});
    }
    return settings;
  }

  // Why data_version and not a counter row: "PRAGMA data_version" moves
  // whenever another connection (of any process, or a person with the
  // sqlite3 tool) commits, without costing every write a second row update
  // or a trigger in the schema. It does not move for this connection's own
  // commits, so those are counted here and added. Both parts only grow, so
  // the sum moves on every write; it is meaningful only to this object.
  uint64_t ChangeCounter() override {
    std::lock_guard lock(mutex_);
    StatementUse use(data_version_);
    if (use.Step() == SQLITE_ROW) last_data_version_ = static_cast<uint64_t>(sqlite3_column_int64(use.get(), 0));
    return last_data_version_ + own_writes_;
  }

 private:
  static void CheckLengths(std::string_view key, std::string_view name, const SettingValue& value) {
    if (key.size() > kMaxSettingNameBytes || name.size() > kMaxSettingNameBytes) {
      Throw(result::kInvalidArg, "The setting's key path or name is longer than %u bytes",
            static_cast<uint32_t>(kMaxSettingNameBytes));
    }
    if (value.type == SettingValue::Type::kText && value.text.size() > kMaxSettingTextBytes) {
      Throw(result::kInvalidArg, "The text of setting '%ls' is %I64u bytes long; a setting holds at most %u",
            std::string(name), uint64_t{value.text.size()}, static_cast<uint32_t>(kMaxSettingTextBytes));
    }
  }

  [[noreturn]] void ThrowLastError() {
    Throw(static_cast<Result>(sqlite3_extended_errcode(db_)), "%hs", sqlite3_errmsg(db_));
  }

  void ExecOrFailOpen(const char* sql) {
    if (ExecRetryingBusy(db_, sql, kBusyTimeoutMs) != SQLITE_OK) FailOpen();
  }

  [[noreturn]] void FailOpen() {
    Result code = db_ ? static_cast<Result>(sqlite3_extended_errcode(db_)) : static_cast<Result>(SQLITE_NOMEM);
    std::string message = db_ ? sqlite3_errmsg(db_) : "out of memory";
    Close();
    Throw(result::kFail, "Cannot open the settings database %ls: %ls (%d)", file_, message, code);
  }

  void Close() {
    // Statements must go before the connection they belong to.
    for (Statement* statement : {&get_, &set_, &delete_, &list_, &data_version_}) statement->Finalize();
    sqlite3_close_v2(db_);
    db_ = nullptr;
  }

  std::string file_;
  std::mutex mutex_;
  sqlite3* db_ = nullptr;
  Statement get_, set_, delete_, list_, data_version_;
  uint64_t own_writes_ = 0;
  uint64_t last_data_version_ = 0;
};

}  // namespace

std::shared_ptr<SettingsStore> OpenSqliteSettingsStore(const std::filesystem::path& database_file) {
  std::error_code ec;
  if (database_file.has_parent_path()) std::filesystem::create_directories(database_file.parent_path(), ec);
  return std::make_shared<SqliteSettingsStore>(database_file);
}

}  // namespace pkgdlv
