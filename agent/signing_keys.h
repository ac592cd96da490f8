// The keys that may sign binary responses of the Quillon Server: one default
// key and any number of other keys, kept in the agent core's secure store.
//
// Each key is the Base64 text of a DER SubjectPublicKeyInfo, as Crypto::Verify
// takes it. They live under fixed paths of the secure store:
//   default key:  "Agent Core\{5B0F7C2E-3D41-4A8E-9C6B-2E7F1A9D4C30}\ResponseSigningKey"
//   other keys:   "Agent Core\{A3E1D9B4-6C2F-4F70-8B15-7D9E2C4A6B81}\Key0", "...\Key1", ...
// The other keys are enumerated from Key0 up to the first number that holds
// nothing, so their enumeration order is their numbering.
//
// Threads: any thread may call; the secure store serialises access.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pkgdlv {

class SecureStore;

inline constexpr std::string_view kDefaultSigningKeyPath =
    "Agent Core\\{5B0F7C2E-3D41-4A8E-9C6B-2E7F1A9D4C30}\\ResponseSigningKey";
inline constexpr std::string_view kOtherSigningKeysPath = "Agent Core\\{A3E1D9B4-6C2F-4F70-8B15-7D9E2C4A6B81}";

class SigningKeys {
 public:
  // A null store holds no keys and refuses to store any.
  explicit SigningKeys(std::shared_ptr<SecureStore> store);

  // The default key, or nullopt when none is stored. Throws Error when the
  // store cannot be read.
  std::optional<std::string> DefaultKey() const;
  // The other keys in enumeration order. Throws Error when the store cannot
  // be read.
  std::vector<std::string> OtherKeys() const;

  // Replaces the default key. Throws Error when the store cannot be written
  // (0x80070057 without a store or for an empty key).
  void StoreDefaultKey(std::string_view key);
  // Adds a key after the other keys; returns its number.
  size_t AddOtherKey(std::string_view key);

  static std::string OtherKeyPath(size_t index);

 private:
  std::shared_ptr<SecureStore> store_;
};

}  // namespace pkgdlv
