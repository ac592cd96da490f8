// Documents made at run time for the snapshot tests.
#pragma once

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

// The Base64 text of n bytes.
inline std::string HashText(size_t n) { return Base64Encode(std::vector<uint8_t>(n, 7)); }

struct LoggedSnapshot {
  std::shared_ptr<RecordingLogger> log = std::make_shared<RecordingLogger>();
  Snapshot snapshot{log};
};

}  // namespace pkgdlv::testing
