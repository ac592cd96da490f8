#include "support/nginx_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <stdexcept>
#include <thread>
#include <vector>

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
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return false;
  sockaddr_in address = Loopback(port);
  bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
  ::close(fd);
  return ok;
}

std::string Configuration(const std::filesystem::path& dir, const std::filesystem::path& root, int port,
                          std::string_view extra) {
  std::string d = dir.string();
  std::string conf;
  // Workers of a root master would otherwise run as "nobody" and could not
  // read a test's private temporary folder.
  if (::geteuid() == 0) conf += "user root;\n";
  conf += "worker_processes 1;\npid " + d + "/nginx.pid;\nerror_log " + d + "/error.log warn;\n";
  conf += "events { worker_connections 128; }\n";
  conf += "http {\n  default_type application/octet-stream;\n  sendfile on;\n";
  // One line a request, written as it ends (also when the client goes away
  // mid-answer), so a test can count what the server really sent.
  conf += "  log_format sent '$uri $status $body_bytes_sent';\n";
  conf += "  access_log " + d + "/access.log sent;\n";
  conf += "  keepalive_requests 100000;\n";
  for (const char* temp : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"}) {
    conf += std::string("  ") + temp + "_temp_path " + d + "/" + temp + ";\n";
  }
  conf += "  server {\n    listen 127.0.0.1:" + std::to_string(port) + ";\n    root " + root.string() + ";\n";
  conf += std::string(extra) + "\n  }\n}\n";
  return conf;
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

bool NginxServer::Available() { return ::access(kBinary, X_OK) == 0; }

NginxServer::NginxServer(const std::filesystem::path& root, std::string_view extra_config) {
  port_ = FreeLocalPort();
  std::filesystem::path conf = dir_ / "nginx.conf";
  WriteFile(conf, Configuration(dir_.path(), std::filesystem::absolute(root), port_, extra_config));
  std::string prefix = dir_.path().string() + "/";
  std::string conf_text = conf.string();
  std::string error_log = (dir_ / "error.log").string();
  std::vector<std::string> args = {kBinary, "-p", prefix, "-e", error_log, "-c", conf_text, "-g", "daemon off;"};
  std::vector<char*> argv;
  for (auto& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  if (posix_spawn(&pid_, kBinary, nullptr, nullptr, argv.data(), environ) != 0) {
    throw std::runtime_error("cannot start nginx");
  }
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (!Accepts(port_)) {
    int status = 0;
    bool exited = ::waitpid(pid_, &status, WNOHANG) == pid_;
    if (exited || std::chrono::steady_clock::now() > deadline) {
      if (!exited) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, &status, 0);
      }
      pid_ = -1;
      throw std::runtime_error("nginx did not start: " + ReadFile(dir_ / "error.log"));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

NginxServer::~NginxServer() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGTERM);  // fast shutdown; the master stops its workers
  int status = 0;
  ::waitpid(pid_, &status, 0);
}

std::vector<NginxServer::AccessRecord> NginxServer::AccessLog() const {
  std::vector<AccessRecord> records;
  std::ifstream log(dir_ / "access.log");
  AccessRecord record;
  while (log >> record.path >> record.status >> record.bodyBytesSent) records.push_back(record);
  return records;
}

uint64_t NginxServer::BodyBytesSent() const {
  uint64_t total = 0;
  for (const AccessRecord& record : AccessLog()) total += record.bodyBytesSent;
  return total;
}

std::string NginxServer::Url(std::string_view path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + std::string(path);
}

}  // namespace pkgdlv::testing
