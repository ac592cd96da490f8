// Documents and keys made at run time for the snapshot tests.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "snapshot/snapshot.h"
#include "support/recording_logger.h"
#include "util/base64.h"

namespace pkgdlv::testing {

inline constexpr const char* kTestId = "{8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6B}";

// A snapshot document: the root element with the given attributes around body.
inline std::string SnapshotDoc(const std::string& rootAttributes, const std::string& body,
                               const std::string& rootName = "Snapshot") {
  return "<" + rootName + " " + rootAttributes + ">" + body + "</" + rootName + ">";
}

// The usual root attributes with a block size.
inline std::string StdAttributes(const std::string& blockSize = "2097152") {
  return std::string("id=\"") + kTestId + "\" blockSize=\"" + blockSize +
         "\" path=\"ignored\" time=\"2024-03-01T10:20:30\" version=\"5\"";
}

// Base64 of n bytes whose values start at seed.
inline std::string HashText(size_t bytes, uint8_t seed = 1) {
  std::vector<uint8_t> data(bytes);
  for (size_t i = 0; i < bytes; ++i) data[i] = static_cast<uint8_t>(seed + i);
  return Base64Encode(data);
}

struct LoggedSnapshot {
  std::shared_ptr<RecordingLogger> log = std::make_shared<RecordingLogger>();
  Snapshot snapshot{log};
};

// Generates a private key into path with openssl: "RSA" (2048 bits) or "EC" (P-256).
inline void GenerateKey(const std::filesystem::path& path, const std::string& kind) {
  std::string options =
      kind == "RSA" ? "-algorithm RSA -pkeyopt rsa_keygen_bits:2048" : "-algorithm EC -pkeyopt ec_paramgen_curve:P-256";
  std::string command = "openssl genpkey " + options + " -out '" + path.string() + "' 2>/dev/null";
  if (std::system(command.c_str()) != 0) throw std::runtime_error("openssl genpkey failed");
}

}  // namespace pkgdlv::testing
