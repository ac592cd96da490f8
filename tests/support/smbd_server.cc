#include "support/smbd_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <thread>

#include "support/nginx_server.h"

extern char** environ;

namespace pkgdlv::testing {
namespace {

bool Accepts(int port) {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return false;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
  ::close(fd);
  return ok;
}

std::string AccountName() {
  const passwd* entry = ::getpwuid(::geteuid());
  if (!entry) throw std::runtime_error("no name for the account running the test");
  return entry->pw_name;
}

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
  const std::string account = AccountName();
  WriteFile(conf, Configuration(dir_.path(), port_, shares, account));
  WriteFile(dir_ / "users.map", user ? account + " = " + user->name + "\n" : std::string());
  if (user) AddUser(conf, account, user->password, dir_ / "smbpasswd.log");

  const std::string output = (dir_ / "smbd.out").string();
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  // A group of its own, so stopping it reaches the children it forks per
  // connection too.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
  posix_spawnattr_setpgroup(&attributes, 0);
  std::vector<std::string> args = {kBinary, "--foreground", "--no-process-group", "--debug-stdout", "-s",
                                   conf.string()};
  std::vector<char*> argv;
  for (auto& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  int spawned = posix_spawn(&pid_, kBinary, &actions, &attributes, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  if (spawned != 0) {
    pid_ = -1;
    throw std::runtime_error("cannot start smbd");
  }
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!Accepts(port_)) {
    int status = 0;
    bool exited = ::waitpid(pid_, &status, WNOHANG) == pid_;
    if (exited || std::chrono::steady_clock::now() > deadline) {
      if (!exited) {
        ::kill(-pid_, SIGKILL);
        ::waitpid(pid_, &status, 0);
      }
      pid_ = -1;
      throw std::runtime_error("smbd did not start: " + ReadFile(output));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

SmbdServer::~SmbdServer() {
  if (pid_ <= 0) return;
  ::kill(-pid_, SIGTERM);
  int status = 0;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (::waitpid(pid_, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      ::kill(-pid_, SIGKILL);
      ::waitpid(pid_, &status, 0);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  ::kill(-pid_, SIGKILL);  // children that outlived the parent
}

std::string SmbdServer::Location(std::string_view path) const { return "\\\\127.0.0.1\\" + std::string(path); }

}  // namespace pkgdlv::testing
