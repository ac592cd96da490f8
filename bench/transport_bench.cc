// Requests per second of the curl transport fetching a 5 MB file from nginx
// 100 times over one transport (one kept-alive connection), against the curl
// command-line tool fetching the same URL 100 times in one invocation (one
// connection, -o /dev/null for each). Both run in this process's time line
// against the same server; the ratio is transport / tool (1.0 means as fast).
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "agent/network_transport.h"
#include "bench_util.h"
#include "support/nginx_server.h"
#include "support/temp_dir.h"
#include "util/error.h"

namespace {

constexpr int kRequests = 100;
constexpr size_t kFileSize = 5u << 20;
constexpr int kRounds = 3;

using pkgdlv::bench::WallSeconds;

double TransportSeconds(pkgdlv::NetworkTransport& transport, const std::string& url) {
  pkgdlv::RequestOptions options;
  options.maxBodyBytes = kFileSize;
  const double start = WallSeconds();
  for (int i = 0; i < kRequests; ++i) {
    if (transport.DownloadBytes(url, options).size() != kFileSize) {
      std::fprintf(stderr, "short body\n");
      std::exit(1);
    }
  }
  return WallSeconds() - start;
}

double ToolSeconds(const pkgdlv::testing::TempDir& dir, const std::string& url) {
  std::string command = "curl -s -f --noproxy '*'";
  for (int i = 0; i < kRequests; ++i) command += " -o /dev/null '" + url + "'";
  pkgdlv::testing::WriteFile(dir / "fetch.sh", command + "\n");
  std::string run = "sh '" + (dir / "fetch.sh").string() + "'";
  const double start = WallSeconds();
  int status = std::system(run.c_str());
  double seconds = WallSeconds() - start;
  if (status != 0) {
    std::fprintf(stderr, "the curl tool failed (%d)\n", status);
    std::exit(1);
  }
  return seconds;
}

}  // namespace

int main() {
  if (!pkgdlv::testing::NginxServer::Available()) {
    std::printf("nginx is not installed; nothing measured\n");
    return 0;
  }
  try {
    pkgdlv::testing::TempDir dir;
    std::string data(kFileSize, '\0');
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>((i * 2654435761u) >> 13);
    pkgdlv::testing::WriteFile(dir / "root" / "pkg" / "file.bin", data);
    pkgdlv::testing::NginxServer nginx(dir / "root");
    std::string url = nginx.Url("/pkg/file.bin");
    auto transport = pkgdlv::NewCurlTransportFactory()->Create();

    // Best of interleaved rounds: the machine is shared, so the fastest round
    // says most about the code.
    double best_transport = 1e9, best_tool = 1e9;
    for (int round = 0; round < kRounds; ++round) {
      best_transport = std::min(best_transport, TransportSeconds(*transport, url));
      best_tool = std::min(best_tool, ToolSeconds(dir, url));
    }
    double transport_rate = kRequests / best_transport;
    double tool_rate = kRequests / best_tool;
    std::printf("%d requests of a %zu-byte file from nginx, best of %d rounds\n", kRequests, kFileSize, kRounds);
    std::printf("  transport (one handle):     %8.1f requests/s  %8.1f MB/s\n", transport_rate,
                transport_rate * kFileSize / 1e6);
    std::printf("  curl tool (one invocation): %8.1f requests/s  %8.1f MB/s\n", tool_rate,
                tool_rate * kFileSize / 1e6);
    std::printf("  ratio transport/tool: %.2f\n", transport_rate / tool_rate);
  } catch (const pkgdlv::Error& e) {
    std::fprintf(stderr, "failed: %s (0x%08X)\n", e.description().c_str(), e.code());
    return 1;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "failed: %s\n", e.what());
    return 1;
  }
  return 0;
}
