#include "support/server_process.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>
#include <thread>

#include "support/temp_dir.h"

extern char** environ;

namespace pkgdlv::testing {
namespace {

sockaddr_in Loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

bool Accepts(int port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = Loopback(port);
  const bool ok = fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
  if (fd >= 0) ::close(fd);
  return ok;
}

}  // namespace

int FreeLocalPort() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) throw std::runtime_error("socket failed");
  sockaddr_in address = Loopback(0);
  socklen_t size = sizeof(address);
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    ::close(fd);
    throw std::runtime_error("cannot find a free port");
  }
  ::close(fd);
  return ntohs(address.sin_port);
}

void ServerProcess::Start(std::vector<std::string> args, int port, std::chrono::seconds timeout,
                          const std::filesystem::path& output, const std::filesystem::path& log) {
  const std::string program = args.front();
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  // A group of its own, so stopping it reaches the children it forks too.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
  posix_spawnattr_setpgroup(&attributes, 0);
  std::vector<char*> argv;
  for (auto& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  int spawned = posix_spawn(&pid_, program.c_str(), &actions, &attributes, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  if (spawned != 0) {
    pid_ = -1;
    throw std::runtime_error("cannot start " + program);
  }
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!Accepts(port)) {
    int status = 0;
    bool exited = ::waitpid(pid_, &status, WNOHANG) == pid_;
    if (exited || std::chrono::steady_clock::now() > deadline) {
      if (!exited) {
        ::kill(-pid_, SIGKILL);
        ::waitpid(pid_, &status, 0);
      }
      pid_ = -1;
      throw std::runtime_error(program + " did not start: " + ReadFile(log.empty() ? output : log));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

ServerProcess::~ServerProcess() {
  if (pid_ <= 0) return;
  ::kill(-pid_, SIGTERM);
  int status = 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (::waitpid(pid_, &status, WNOHANG) == 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ::kill(-pid_, SIGKILL);  // what outlived five seconds, and children that outlived the parent
  ::waitpid(pid_, &status, 0);
}

}  // namespace pkgdlv::testing
