// nginx from a generated configuration, serving a folder on 127.0.0.1 at a
// free port, as a real package server for integration tests and benchmarks.
// Configuration, pid file, logs and temporary files live in a folder of its
// own; the server stops when the object goes.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "support/server_process.h"
#include "support/temp_dir.h"

namespace pkgdlv::testing {

class NginxServer {
 public:
  static constexpr const char* kBinary = "/usr/sbin/nginx";
  static bool Available();

  // Serves root at "/". extra_config is placed inside the server block
  // (locations with redirects and the like). Throws std::runtime_error, with
  // the error log, when nginx does not come up within five seconds.
  explicit NginxServer(const std::filesystem::path& root, std::string_view extra_config = {});
  ~NginxServer();
  NginxServer(const NginxServer&) = delete;
  NginxServer& operator=(const NginxServer&) = delete;

  int port() const { return port_; }

  // The requests answered so far, in the order they ended: path (decoded,
  // no query), status and the body bytes the server sent. A request whose
  // client went away is logged once nginx notices, with what it sent.
  struct AccessRecord {
    std::string path;
    int status = 0;
    uint64_t bodyBytesSent = 0;
  };
  std::vector<AccessRecord> AccessLog() const;
  uint64_t BodyBytesSent() const;
  std::string Url(std::string_view path) const;

 private:
  TempDir dir_;
  int port_ = 0;
  ServerProcess process_;  // stopped before dir_ goes
};

}  // namespace pkgdlv::testing
