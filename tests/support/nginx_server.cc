#include "support/nginx_server.h"

#include <unistd.h>

#include <fstream>

namespace pkgdlv::testing {
namespace {

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

bool NginxServer::Available() { return ::access(kBinary, X_OK) == 0; }

NginxServer::NginxServer(const std::filesystem::path& root, std::string_view extra_config) {
  port_ = FreeLocalPort();
  std::filesystem::path conf = dir_ / "nginx.conf";
  WriteFile(conf, Configuration(dir_.path(), std::filesystem::absolute(root), port_, extra_config));
  const std::string prefix = dir_.path().string() + "/";
  process_.Start({kBinary, "-p", prefix, "-e", (dir_ / "error.log").string(), "-c", conf.string(), "-g", "daemon off;"},
                 port_, std::chrono::seconds(5), dir_ / "nginx.out", dir_ / "error.log");
}

NginxServer::~NginxServer() = default;

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
