// The secure store: small values (a package file's block hashes) kept by
// path, sealed so that they can be read back only on this computer, only
// under the path they were written to, and only unaltered.
//
// Paths compare exactly (byte for byte). Several threads and processes may
// use one store at once.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace pkgdlv {

class SecureStore {
 public:
  virtual ~SecureStore() = default;

  // The value, or nullopt when none is stored under path. Throws Error
  // 0x80090005 when the stored value cannot be opened (sealed under another
  // machine key, moved from another path, altered), or the store's own error
  // when it cannot be read.
  virtual std::optional<std::vector<uint8_t>> Read(std::string_view path) = 0;
  // Seals value and stores it under path, replacing what was there. Throws
  // Error when the write fails.
  virtual void Write(std::string_view path, std::span<const uint8_t> value) = 0;
  // Removes the value; false when there was none. Throws Error on failure.
  virtual bool Delete(std::string_view path) = 0;
  // Removes every value whose path is prefix or lies below it ("prefix\...");
  // returns how many went. Used when a package is removed. Throws Error on
  // failure.
  virtual size_t DeletePrefix(std::string_view prefix) = 0;
};

// The SQLite store ("securestore.db"): each value sealed with AES-256-GCM
// under the 32-byte machine key held in key_file (created with mode 0600 on
// first use; processes that start at once agree on one key), a fresh random
// nonce per value, and the path as additional authenticated data. The key is
// kept in memory for the store's life and wiped when it goes; it is never
// logged. Throws Error when the database or the key file cannot be opened or
// created, or the key file does not hold a key.
std::shared_ptr<SecureStore> OpenSqliteSecureStore(const std::filesystem::path& database_file,
                                                   const std::filesystem::path& key_file);

}  // namespace pkgdlv
