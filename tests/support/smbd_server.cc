#include "support/smbd_server.h"

#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>

namespace pkgdlv::testing {
namespace {

std::string Configuration(const std::filesystem::path& dir, int port, const std::vector<SmbdServer::Share>& shares,
                          const std::string& account) {
  std::string d = dir.string();
  std::string conf = "[global]\n";
  conf += "  smb ports = " + std::to_string(port) + "\n";
  conf += "  interfaces = 127.0.0.1\n  bind interfaces only = yes\n  disable netbios = yes\n";
  conf += "  server min protocol = SMB2\n  workgroup = TESTGROUP\n";
  for (const char* folder : {"private dir", "lock directory", "state directory", "cache directory", "pid directory",
                             "ncalrpc dir"}) {
    std::string name = folder;
    std::string leaf = name.substr(0, name.find(' '));
    std::filesystem::create_directories(dir / leaf);
    conf += "  " + name + " = " + d + "/" + leaf + "\n";
  }
  conf += "  log file = " + d + "/log.smbd\n  log level = 1\n";
  conf += "  passdb backend = tdbsam:" + d + "/private/passdb.tdb\n";
  conf += "  username map = " + d + "/users.map\n";
  conf += "  map to guest = Bad User\n";
  conf += "  load printers = no\n  printcap name = /dev/null\n  disable spoolss = yes\n";
  conf += "  mangled names = no\n";
  for (const auto& share : shares) {
    conf += "[" + share.name + "]\n  path = " + std::filesystem::absolute(share.folder).string() + "\n";
    // Guests would be "nobody", who cannot enter a test's private folder.
    conf += "  read only = yes\n  force user = " + account + "\n";
    conf += std::string("  guest ok = ") + (share.guest ? "yes" : "no") + "\n";
    conf += std::string("  follow symlinks = ") + (share.followLinks ? "yes" : "no") + "\n";
  }
  return conf;
}

// smbpasswd reads the new password twice from standard input.
void AddUser(const std::filesystem::path& conf, const std::string& account, const std::string& password,
             const std::filesystem::path& log) {
  std::string command = "/usr/bin/smbpasswd -c '" + conf.string() + "' -a -s '" + account + "' >'" + log.string() +
                        "' 2>&1";
  FILE* pipe = ::popen(command.c_str(), "w");
  if (!pipe) throw std::runtime_error("cannot run smbpasswd");
  std::string lines = password + "\n" + password + "\n";
  std::fwrite(lines.data(), 1, lines.size(), pipe);
  int status = ::pclose(pipe);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    throw std::runtime_error("smbpasswd failed: " + ReadFile(log));
  }
}

}  // namespace

SmbdServer::SmbdServer(std::vector<Share> shares, std::optional<User> user) {
  if (::geteuid() != 0) throw std::runtime_error("smbd needs root to serve a share; run the test as root");
  if (::access(kBinary, X_OK) != 0) throw std::runtime_error(std::string(kBinary) + " is not installed");
  port_ = FreeLocalPort();
  const std::filesystem::path conf = dir_ / "smb.conf";
  const passwd* entry = ::getpwuid(::geteuid());
  if (!entry) throw std::runtime_error("no name for the account running the test");
  const std::string account = entry->pw_name;
  WriteFile(conf, Configuration(dir_.path(), port_, shares, account));
  WriteFile(dir_ / "users.map", user ? account + " = " + user->name + "\n" : std::string());
  if (user) AddUser(conf, account, user->password, dir_ / "smbpasswd.log");

  process_.Start({kBinary, "--foreground", "--no-process-group", "--debug-stdout", "-s", conf.string()}, port_,
                 std::chrono::seconds(10), dir_ / "smbd.out");
}

SmbdServer::~SmbdServer() = default;

std::string SmbdServer::Location(std::string_view path) const { return "\\\\127.0.0.1\\" + std::string(path); }

}  // namespace pkgdlv::testing
