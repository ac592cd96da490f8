// Requests per second of the curl transport fetching a 5 MB snapshot document
// from nginx 100 times over one transport (one kept-alive connection), as the
// engine fetches a snapshot (as text), against the curl
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
    if (transport.DownloadText(url, options).size() != kFileSize) {
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

// A snapshot document of kFileSize bytes: one folder after another, each
// with files carrying sizes, times and hashes as a publisher writes them.
std::string SnapshotDocument() {
  const std::string head =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Snapshot id=\"{8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6B}\" "
      "blockSize=\"2097152\" time=\"2026-01-01T00:00:00\" version=\"3\">\n<Root>\n";
  const std::string tail = "</Root>\n</Snapshot>\n";
  std::string body;
  for (int file = 0; head.size() + body.size() + tail.size() < kFileSize - 256; ++file) {
    if (file % 50 == 0) body += (file ? "</Folder>\n" : "") + std::string("<Folder name=\"dir") + std::to_string(file / 50) + "\">\n";
    body += "  <File name=\"file" + std::to_string(file) +
            ".dat\" size=\"1048576\" lastModifiedTime=\"2026-01-01 00:00:00\" "
            "fileHash=\"n4bQgYhMfWWaL+qgxVrQFaO/TxsrC4Is0V1sFbDwCgg=\" "
            "blockHash=\"n4bQgYhMfWWaL+qgxVrQFaO/TxsrC4Is0V1sFbDwCgg=\"/>\n";
  }
  body += "</Folder>\n";
  std::string document = head + body + tail;
  document.insert(document.size() - tail.size(), kFileSize - document.size(), ' ');  // exactly kFileSize
  return document;
}

}  // namespace

int main() {
  if (!pkgdlv::testing::NginxServer::Available()) {
    std::printf("nginx is not installed; nothing measured\n");
    return 0;
  }
  try {
    pkgdlv::testing::TempDir dir;
    const std::string document = SnapshotDocument();
    pkgdlv::testing::WriteFile(dir / "root" / "pkg" / "snapshot.xml", document);
    pkgdlv::testing::NginxServer nginx(dir / "root", "types { text/xml xml; }");
    std::string url = nginx.Url("/pkg/snapshot.xml");
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
    std::printf("%d requests of a %zu-byte snapshot document from nginx, best of %d rounds\n", kRequests, kFileSize, kRounds);
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
