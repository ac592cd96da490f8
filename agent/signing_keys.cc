#include "agent/signing_keys.h"

#include "agent/secure_store.h"
#include "util/error.h"

namespace pkgdlv {
namespace {

std::optional<std::string> ReadKey(SecureStore* store, std::string_view path) {
  if (store == nullptr) return std::nullopt;
  std::optional<std::vector<uint8_t>> value = store->Read(path);
  if (!value || value->empty()) return std::nullopt;
  return std::string(value->begin(), value->end());
}

void WriteKey(SecureStore* store, std::string_view path, std::string_view key) {
  if (store == nullptr) Throw(result::kInvalidArg, "No secure store to keep the signing key in");
  if (key.empty()) Throw(result::kInvalidArg, "The signing key is empty");
  store->Write(path, std::span(reinterpret_cast<const uint8_t*>(key.data()), key.size()));
}

}  // namespace

SigningKeys::SigningKeys(std::shared_ptr<SecureStore> store) : store_(std::move(store)) {}

std::string SigningKeys::OtherKeyPath(size_t index) {
  return std::string(kOtherSigningKeysPath) + "\\Key" + std::to_string(index);
}

std::optional<std::string> SigningKeys::DefaultKey() const { return ReadKey(store_.get(), kDefaultSigningKeyPath); }

std::vector<std::string> SigningKeys::OtherKeys() const {
  std::vector<std::string> keys;
  while (std::optional<std::string> key = ReadKey(store_.get(), OtherKeyPath(keys.size()))) {
    keys.push_back(std::move(*key));
  }
  return keys;
}

void SigningKeys::StoreDefaultKey(std::string_view key) { WriteKey(store_.get(), kDefaultSigningKeyPath, key); }

size_t SigningKeys::AddOtherKey(std::string_view key) {
  size_t index = OtherKeys().size();
  WriteKey(store_.get(), OtherKeyPath(index), key);
  return index;
}

}  // namespace pkgdlv
