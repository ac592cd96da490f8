// What the download procedure adds to the block transfer, and how soon the
// engine starts a new package in a large work folder, all in this run:
//   1. a package of 8 files (1 GiB in all; PKGDLV_BENCH_MIB changes it) from
//      nginx on 127.0.0.1, page cache warm, medians of three: `pkgdlv
//      download` of a request document against `pkgdlv fetch` of the same
//      snapshot. Target: at least 0.95x.
//   2. a work folder of 10,000 finished packages (PKGDLV_BENCH_PACKAGES) and
//      one new request: the time from the tool's start to the new package's
//      first request at the server, against the same request in an empty
//      work folder. Target: within 2 s.
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "bench_util.h"
#include "support/nginx_server.h"
#include "support/test_keys.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using pkgdlv::bench::TempFolder;
using pkgdlv::bench::WallSeconds;

constexpr const char* kPackageId = "{2B7C9D1E-3F40-4A5B-8C6D-7E8F9A0B1C2D}";

[[noreturn]] void Die(const std::string& why) {
  std::fprintf(stderr, "download_bench: %s\n", why.c_str());
  std::exit(1);
}

uint64_t EnvNumber(const char* name, uint64_t fallback) {
  const char* text = std::getenv(name);
  return text && *text ? std::strtoull(text, nullptr, 10) : fallback;
}

// Starts the tool with PKGDLV_HOME set and its output in out (stderr thrown
// away); returns the process.
pid_t Start(const std::vector<std::string>& args, const fs::path& home, const fs::path& out) {
  std::string command = "exec env PKGDLV_HOME='" + home.string() + "' '" + PKGDLV_CLI_PATH + "'";
  for (const std::string& arg : args) command += " '" + arg + "'";
  command += " >'" + out.string() + "' 2>/dev/null";
  const char* argv[] = {"/bin/sh", "-c", command.c_str(), nullptr};
  pid_t pid = -1;
  if (posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ) != 0) Die("cannot start");
  return pid;
}

void Finish(pid_t pid, const std::string& what) {
  int status = 0;
  ::waitpid(pid, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) Die(what + " failed");
}

double RunTool(const std::vector<std::string>& args, const fs::path& home, const fs::path& out) {
  const double start = WallSeconds();
  Finish(Start(args, home, out), args.front());
  return WallSeconds() - start;
}

std::string ReadAll(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Publishes root/pkg (files of fileBytes each) with a signed snapshot in
// root/snap, and writes a request document for it; returns its path.
fs::path Publish(const fs::path& root, int files, uint64_t fileBytes, const std::string& id, const std::string& url,
                 const fs::path& scratch) {
  fs::create_directories(root / "pkg");
  for (int f = 0; f < files; ++f) {
    pkgdlv::bench::System("head -c " + std::to_string(fileBytes) + " /dev/urandom >'" +
                          (root / "pkg" / ("file" + std::to_string(f) + ".bin")).string() + "'");
  }
  const fs::path keyOut = scratch / "key.txt";
  RunTool({"snapshot", "create", (root / "pkg").string(), "--id", id, "--version", "1", "--sign-key",
           pkgdlv::testing::TestKey("EC", 0).string(), "--out", (root / "snap").string(), "--print-key"},
          scratch / "home", keyOut);
  std::string key = ReadAll(keyOut);
  key = key.substr(key.rfind('\n', key.size() - 2) + 1);
  key.pop_back();
  const fs::path request = scratch / (id + ".xml");
  std::ofstream(request) << "<Package id=\"" << id << "\" name=\"bench\" version=\"1\" sourceKey=\"" << key
                         << "\"><Source><Codebase href=\"" << url << "/pkg\" snapshot=\"" << url
                         << "/snap/snapshot.xml\"/></Source></Package>\n";
  return request;
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

void CompareWithFetch(const fs::path& scratchRoot) {
  const uint64_t mib = EnvNumber("PKGDLV_BENCH_MIB", 1024);
  const uint64_t fileBytes = mib * 1048576 / 8;
  TempFolder served("pkgdlv-bench-served");
  pkgdlv::testing::NginxServer nginx(served.path(), "types { text/xml xml; }");
  const fs::path request = Publish(served.path(), 8, fileBytes, kPackageId, nginx.Url(""), scratchRoot);
  const double bytes = static_cast<double>(fileBytes * 8);

  std::vector<double> fetch, download;
  const auto runFetch = [&](bool counted) {
    TempFolder dest("pkgdlv-bench-fetch");
    const double seconds = RunTool({"fetch", "--snapshot", (served.path() / "snap" / "snapshot.xml").string(), "--source",
                                    nginx.Url("/pkg"), "--dest", dest.path().string()},
                                   scratchRoot / "home", scratchRoot / "out");
    if (counted) fetch.push_back(seconds);
  };
  const auto runDownload = [&](bool counted) {
    TempFolder home("pkgdlv-bench-download");
    const double seconds = RunTool({"download", request.string()}, home.path(), scratchRoot / "out");
    if (counted) download.push_back(seconds);
  };
  // The first round warms the caches and is not counted; the order
  // alternates, so that neither side always follows the other's clean-up.
  for (int round = 0; round < 4; ++round) {
    if (round % 2 == 0) {
      runFetch(round > 0);
      runDownload(round > 0);
    } else {
      runDownload(true);
      runFetch(true);
    }
  }
  const double fetchRate = bytes / Median(fetch) / 1e6, downloadRate = bytes / Median(download) / 1e6;
  std::printf("package of %llu MiB (8 files), medians of 3:\n", static_cast<unsigned long long>(mib));
  std::printf("  pkgdlv fetch     %8.1f MB/s\n", fetchRate);
  std::printf("  pkgdlv download  %8.1f MB/s  %.2fx fetch (target >= 0.95x)\n", downloadRate,
              downloadRate / fetchRate);
}

// A work folder of `count` finished packages: one real package.xml, copied
// under new identifiers.
void FillWorkFolder(const fs::path& workFolder, const fs::path& templateDocument, size_t count) {
  const std::string document = ReadAll(templateDocument);
  char id[64];
  for (size_t i = 0; i < count; ++i) {
    std::snprintf(id, sizeof id, "{%08zX-0000-4000-8000-%012zX}", i, i);
    std::string copy = document;
    for (size_t at = copy.find(kPackageId); at != std::string::npos; at = copy.find(kPackageId, at + 1)) {
      copy.replace(at, std::string(kPackageId).size(), id);
    }
    fs::create_directories(workFolder / id);
    std::ofstream(workFolder / id / "package.xml") << copy;
  }
}

// Seconds from the tool's start to the package's first request at nginx.
double SecondsToFirstRequest(const fs::path& home, const fs::path& request, pkgdlv::testing::NginxServer& nginx,
                             const fs::path& out) {
  const size_t before = nginx.AccessLog().size();
  const double start = WallSeconds();
  const pid_t pid = Start({"download", request.string()}, home, out);
  double first = -1;
  while (first < 0 && WallSeconds() - start < 120) {
    if (nginx.AccessLog().size() > before) first = WallSeconds() - start;
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  Finish(pid, "download");
  return first;
}

void StartInALargeWorkFolder(const fs::path& scratchRoot) {
  const size_t count = EnvNumber("PKGDLV_BENCH_PACKAGES", 10000);
  TempFolder served("pkgdlv-bench-small");
  pkgdlv::testing::NginxServer nginx(served.path(), "types { text/xml xml; }");
  const fs::path finished = Publish(served.path() / "old", 1, 4096, kPackageId, nginx.Url("/old"), scratchRoot);
  const std::string newId = "{9E8D7C6B-5A49-4837-A625-140312F0E1D2}";
  const fs::path request = Publish(served.path() / "new", 1, 4096, newId, nginx.Url("/new"), scratchRoot);

  TempFolder large("pkgdlv-bench-large"), empty("pkgdlv-bench-empty");
  RunTool({"download", finished.string()}, large.path(), scratchRoot / "out");
  const fs::path workFolder = large.path() / "Package Delivery";
  FillWorkFolder(workFolder, workFolder / kPackageId / "package.xml", count);

  const double reference = SecondsToFirstRequest(empty.path(), request, nginx, scratchRoot / "out");
  const double crowded = SecondsToFirstRequest(large.path(), request, nginx, scratchRoot / "out");
  std::printf("new request, time to its first request at the server:\n");
  std::printf("  empty work folder             %6.3f s\n", reference);
  std::printf("  %zu finished packages      %6.3f s  (target <= 2 s)\n", count, crowded);
}

}  // namespace

int main() {
  try {
    TempFolder scratch("pkgdlv-bench-download-scratch");
    fs::create_directories(scratch.path() / "home");
    CompareWithFetch(scratch.path());
    StartInALargeWorkFolder(scratch.path());
  } catch (const std::exception& e) {
    Die(e.what());
  }
  return 0;
}
