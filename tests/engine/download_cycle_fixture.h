// Whole download cycles through the engine: a package published with a
// signed snapshot and served by nginx on 127.0.0.1, a scripted Quillon
// Server (an in-process HTTP server) answering the package information
// request, and the outcome in the record, "package.xml" and the history.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>

#include "agent/client_agent.h"
#include "agent/crypto.h"
#include "agent/volume_info.h"
#include "engine/download_cycle.h"
#include "engine/package_manager.h"
#include "records/package_log.h"
#include "snapshot/snapshot_builder.h"
#include "support/fake_peer_configuration.h"
#include "support/http_test_server.h"
#include "support/nginx_server.h"
#include "support/recording_logger.h"
#include "support/scripted_downloader.h"
#include "support/test_keys.h"
#include "support/transport_services.h"

namespace pkgdlv::testing {

inline constexpr const char* kCyclePackage = "{5B1E2C3D-4F50-4A6B-8C7D-9E0F1A2B3C4D}";
inline constexpr uint32_t kCycleBlockSize = 1048576;

// Free space by folder: the longest configured prefix of a path decides;
// anything else has plenty.
class FolderVolumes final : public VolumeInfo {
 public:
  void Set(const std::filesystem::path& folder, uint64_t freeBytes) { free_[folder.string()] = freeBytes; }
  bool exactTimes = true;
  std::optional<VolumeDetails> Query(const std::filesystem::path& path) override {
    VolumeDetails details;
    details.fileSystem = exactTimes ? "ext4" : "vfat";
    details.exactTimes = exactTimes;
    details.freeBytes = UINT64_MAX / 2;
    size_t longest = 0;
    for (const auto& [folder, bytes] : free_) {
      const std::string text = path.string();
      if (text.compare(0, folder.size(), folder) == 0 && folder.size() >= longest) {
        longest = folder.size();
        details.freeBytes = bytes;
      }
    }
    return details;
  }

 private:
  std::map<std::string, uint64_t> free_;
};

class DownloadCycleFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!NginxServer::Available()) GTEST_SKIP() << "nginx is not installed";
    PackageDownload::ResetProcessBackoff();
    // The package as its publisher made it: files, then a signed snapshot
    // kept beside the folder.
    std::string big(2 * kCycleBlockSize + kCycleBlockSize / 2, '\0');
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>((i * 2654435761u) >> 11);
    WriteFile(PublishedFiles() / "bin" / "tool.bin", big);
    WriteFile(PublishedFiles() / "readme.txt", "hello\n");
    WriteFile(PublishedFiles() / "empty.dat", "");
    Publish(2);
    nginx_ = std::make_unique<NginxServer>(env_.dir / "pub", "types { text/xml xml; }");

    env_.services.client = std::make_shared<FakeClientAgent>();
    env_.services.peer_configuration = std::make_shared<FakePeerConfigurationSource>();
    env_.services.volumes = volumes_;
  }

  std::filesystem::path PublishedFiles() const { return env_.dir / "pub" / "pkg"; }

  // Signs a snapshot of the published files with key 0 into pub/snap.
  void Publish(uint32_t version) {
    Snapshot snapshot(env_.log);
    SnapshotBuildOptions options;
    options.blockSize = kCycleBlockSize;
    BuildSnapshotFromFolder(PublishedFiles(), options, snapshot);
    snapshot.id = *Guid::Parse(kCyclePackage);
    snapshot.version = version;
    snapshot.time = env_.clock->Now();
    snapshot.path = PublishedFiles().string();
    std::filesystem::create_directories(env_.dir / "pub" / "snap");
    ASSERT_TRUE(snapshot.SaveSnapshot(env_.dir / "pub" / "snap" / "snapshot.xml", *env_.services.crypto,
                                      TestKey("EC", 0)));
    publicKey_ = env_.services.crypto->PublicKeyBase64FromPrivateKey(TestKey("EC", 0));
  }

  // The Quillon Server's answer: the given codebases (default: nginx with
  // the snapshot beside the files) and the key that signs the snapshot.
  void AnswerSources(const std::string& key, std::string codebases = {}) {
    if (codebases.empty()) codebases = Codebase(nginx_->Url("/pkg"), nginx_->Url("/snap/snapshot.xml"));
    sources_.AddFile("/QS/GetPackageInfo.aspx",
                     "<response><Codebases>" + codebases + "</Codebases><package sourceKey=\"" + key +
                         "\"/></response>",
                     {{"Content-Type", "text/xml"}});
  }
  static std::string Codebase(const std::string& href, const std::string& snapshot) {
    return "<Codebase href=\"" + href + "\" snapshot=\"" + snapshot + "\"/>";
  }

  // A request that asks the scripted Quillon Server for its sources.
  std::shared_ptr<PackageRequest> Request(const std::string& attributes = "priority=\"Normal\"",
                                          const char* id = kCyclePackage) {
    auto request = std::make_shared<PackageRequest>(env_.services);
    EXPECT_TRUE(request->LoadFromXml(std::string("<Package id=\"") + id + "\" name=\"tool\" version=\"2\" " +
                                     attributes + "><Source><SiteQuery url=\"" +
                                     sources_.Url("/QS/GetPackageInfo.aspx") +
                                     "\" resource=\"agent-7\" type=\"codebases\"/></Source></Package>"));
    return request;
  }

  std::filesystem::path WorkFolder() const { return env_.dir / "work"; }
  std::filesystem::path PackageFolder() const { return WorkFolder() / kCyclePackage; }

  // The engine of the test, made at first use; its thread is not started.
  PackageManager& Engine() {
    if (!engine_) {
      cycle_ = std::make_shared<DownloadCycle>(env_.services, env_.services.site_limits);
      engine_ = std::make_unique<PackageManager>(env_.services, WorkFolder(), cycle_, peers_);
    }
    return *engine_;
  }

  // Queues the request and runs one cycle, without the engine's thread.
  // Null when the engine found the package complete and queued nothing.
  std::shared_ptr<PackageRequest> RunOneCycle(const std::shared_ptr<PackageRequest>& request) {
    Engine().QueuePackage(request, false);
    return RunNextCycle();
  }
  // Runs the cycle of the package the engine takes next (null: none ready).
  std::shared_ptr<PackageRequest> RunNextCycle() {
    if (Engine().queue().Size() == 0) return nullptr;
    std::shared_ptr<PackageRequest> taken = Engine().WaitForReadyPackage();
    if (taken) Engine().PerformDownload(taken);
    return taken;
  }

  bool FilesMatchPublished(const std::filesystem::path& folder) const {
    for (const char* file : {"bin/tool.bin", "readme.txt", "empty.dat"}) {
      if (!std::filesystem::exists(folder / file) || ReadFile(folder / file) != ReadFile(PublishedFiles() / file)) {
        return false;
      }
    }
    return true;
  }

  PackageLog History(const std::filesystem::path& folder) {
    settings_ = std::make_unique<DeliverySettings>(*env_.services.settings, *env_.log);
    PackageLog history(*env_.log, *settings_);
    history.LoadFromFolder(folder);
    return history;
  }

  TransportServices env_;
  HttpTestServer sources_;
  std::unique_ptr<NginxServer> nginx_;
  std::shared_ptr<FolderVolumes> volumes_ = std::make_shared<FolderVolumes>();
  std::string publicKey_;
  std::shared_ptr<PeerDirectory> peers_;  // null: none runs
  std::shared_ptr<DownloadCycle> cycle_;
  std::unique_ptr<PackageManager> engine_;
  std::unique_ptr<DeliverySettings> settings_;
};

}  // namespace pkgdlv::testing
