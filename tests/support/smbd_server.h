// Samba's smbd from a generated configuration, serving folders on 127.0.0.1
// at a free port, as a real file share for integration tests. Configuration,
// password database, state, locks, caches and log live in a folder of its
// own; the server (and every child it forked) stops when the object goes.
// smbd must run as root; a server that cannot start throws, so its test
// fails rather than passes.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/server_process.h"
#include "support/temp_dir.h"

namespace pkgdlv::testing {

class SmbdServer {
 public:
  static constexpr const char* kBinary = "/usr/sbin/smbd";

  struct Share {
    std::string name;
    std::filesystem::path folder;
    // Anonymous sessions may read it; otherwise only the server's user.
    bool guest = true;
    // Serve symbolic links inside the share as what they point to (smbd
    // hides them otherwise).
    bool followLinks = false;
  };
  // A user of the password database. The name is mapped to the account
  // that runs the server, so it need not exist on the machine.
  struct User {
    std::string name;
    std::string password;
  };

  // Names are served as they are on disk (no 8.3 mangling), so a client
  // sees what the folder holds. Throws std::runtime_error, with the log,
  // when smbd does not accept connections within ten seconds.
  explicit SmbdServer(std::vector<Share> shares, std::optional<User> user = std::nullopt);
  ~SmbdServer();
  SmbdServer(const SmbdServer&) = delete;
  SmbdServer& operator=(const SmbdServer&) = delete;

  int port() const { return port_; }
  // "\\127.0.0.1\<path>", path joined with "\" (share first).
  std::string Location(std::string_view path) const;

 private:
  TempDir dir_;
  int port_ = 0;
  ServerProcess process_;  // stopped before dir_ goes
};

}  // namespace pkgdlv::testing
