// Whole download cycles through the running engine: the Quillon Server's
// sources from an in-process server, the package from nginx on 127.0.0.1,
// with a signed snapshot, and the outcome in the record, "package.xml" and
// the history.
#include "engine/download_cycle.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "agent/client_agent.h"
#include "agent/crypto.h"
#include "agent/volume_info.h"
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

namespace pkgdlv {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

const char* const kPackage = "{5B1E2C3D-4F50-4A6B-8C7D-9E0F1A2B3C4D}";

// A volume of a fixed size, for the free-space check.
class FixedVolume final : public VolumeInfo {
 public:
  explicit FixedVolume(uint64_t freeBytes) : freeBytes_(freeBytes) {}
  std::optional<VolumeDetails> Query(const fs::path&) override {
    VolumeDetails details;
    details.fileSystem = "ext4";
    details.freeBytes = freeBytes_;
    return details;
  }

 private:
  uint64_t freeBytes_;
};

class DownloadCycleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!testing::NginxServer::Available()) GTEST_SKIP() << "nginx is not installed";
    PackageDownload::ResetProcessBackoff();
    // The package as its publisher made it: files, then a signed snapshot
    // kept beside the folder.
    const fs::path files = env_.dir / "pub" / "pkg";
    std::string big(2 * 1048576 + 1048576 / 2, '\0');
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>((i * 2654435761u) >> 11);
    testing::WriteFile(files / "bin" / "tool.bin", big);
    testing::WriteFile(files / "readme.txt", "hello\n");
    testing::WriteFile(files / "empty.dat", "");
    Snapshot snapshot(env_.log);
    SnapshotBuildOptions options;
    options.blockSize = 1048576;
    BuildSnapshotFromFolder(files, options, snapshot);
    snapshot.id = *Guid::Parse(kPackage);
    snapshot.version = 2;
    snapshot.time = env_.clock->Now();
    snapshot.path = files.string();
    fs::create_directories(env_.dir / "pub" / "snap");
    ASSERT_TRUE(snapshot.SaveSnapshot(env_.dir / "pub" / "snap" / "snapshot.xml", *env_.services.crypto,
                                      testing::TestKey("EC", 0)));
    publicKey_ = env_.services.crypto->PublicKeyBase64FromPrivateKey(testing::TestKey("EC", 0));
    nginx_ = std::make_unique<testing::NginxServer>(env_.dir / "pub", "types { text/xml xml; }");

    env_.services.client = std::make_shared<testing::FakeClientAgent>();
    env_.services.peer_configuration = std::make_shared<testing::FakePeerConfigurationSource>();
  }

  // The Quillon Server's answer: one package server with the snapshot beside
  // the files, the key that signs it.
  void AnswerSources(const std::string& key) {
    sources_.AddFile("/QS/GetPackageInfo.aspx",
                     "<response><Codebases><Codebase href=\"" + nginx_->Url("/pkg") + "\" snapshot=\"" +
                         nginx_->Url("/snap/snapshot.xml") + "\"/></Codebases><package sourceKey=\"" + key +
                         "\"/></response>",
                     {{"Content-Type", "text/xml"}});
  }

  std::shared_ptr<PackageRequest> Request() {
    auto request = std::make_shared<PackageRequest>(env_.services);
    EXPECT_TRUE(request->LoadFromXml(std::string("<Package id=\"") + kPackage +
                                     "\" name=\"tool\" version=\"2\" priority=\"Normal\"><Source><SiteQuery url=\"" +
                                     sources_.Url("/QS/GetPackageInfo.aspx") +
                                     "\" resource=\"agent-7\" type=\"codebases\"/></Source></Package>"));
    return request;
  }

  fs::path WorkFolder() const { return env_.dir / "work"; }
  fs::path PackageFolder() const { return WorkFolder() / kPackage; }

  // Runs one cycle through the engine, without its thread. Null when the
  // engine found the package complete and queued nothing.
  std::shared_ptr<PackageRequest> RunOneCycle(const std::shared_ptr<PackageRequest>& request) {
    auto cycle = std::make_shared<DownloadCycle>(env_.services, nullptr);
    PackageManager engine(env_.services, WorkFolder(), cycle);
    engine.QueuePackage(request, false);
    if (!engine.queue().Contains(request->id())) return nullptr;
    std::shared_ptr<PackageRequest> taken = engine.WaitForReadyPackage();
    EXPECT_TRUE(taken);
    if (taken) engine.PerformDownload(taken);
    return taken;
  }

  testing::TransportServices env_;
  testing::HttpTestServer sources_;
  std::unique_ptr<testing::NginxServer> nginx_;
  std::string publicKey_;
};

TEST_F(DownloadCycleTest, ThePackageArrivesIntactAndTheHistoryRecordsTheCycle) {
  AnswerSources(publicKey_);
  auto request = Request();
  RunOneCycle(request);

  EXPECT_EQ(request->status(), PKGDLV_VALID) << request->statusDescription;
  for (const char* file : {"bin/tool.bin", "readme.txt", "empty.dat"}) {
    EXPECT_EQ(testing::ReadFile(PackageFolder() / file), testing::ReadFile(env_.dir / "pub" / "pkg" / file)) << file;
  }
  EXPECT_EQ(testing::ReadFile(PackageFolder() / "snapshot.xml"), testing::ReadFile(env_.dir / "pub" / "snap" / "snapshot.xml"))
      << "kept byte for byte: its signature covers it";
  PackageRequest saved(env_.services);
  ASSERT_TRUE(saved.Load(PackageFolder() / "package.xml"));
  EXPECT_EQ(saved.status(), PKGDLV_VALID);

  testing::RecordingLogger& log = *env_.log;
  EXPECT_TRUE(log.Contains(std::string("Begin download for package: tool ") + kPackage));
  EXPECT_TRUE(log.Contains(std::string("End download for package: tool ") + kPackage + ". Status: valid. Downloaded "));
  EXPECT_TRUE(log.Contains("DHT engine is not running. Skip peer activity."));
  PackageLog history(*env_.log, *std::make_unique<DeliverySettings>(*env_.services.settings, *env_.log));
  history.LoadFromFolder(PackageFolder());
  ASSERT_EQ(history.entries.size(), 1u);
  EXPECT_EQ(history.entries[0].result, 0u);
  EXPECT_EQ(history.entries[0].status, PKGDLV_VALID);
  EXPECT_EQ(history.entries[0].source, nginx_->Url("/pkg"));
  EXPECT_GE(history.entries[0].transferBytes, 2 * 1048576u + 1048576u / 2);

  // Queued again, the package is found complete on disk: no cycle, no
  // request to any server.
  const size_t asked = sources_.Requests().size();
  EXPECT_EQ(RunOneCycle(request), nullptr);
  EXPECT_EQ(request->status(), PKGDLV_VALID);
  EXPECT_EQ(sources_.Requests().size(), asked);
}

TEST_F(DownloadCycleTest, FailuresBecomeTheStatusAndTheRetry) {
  struct Case {
    const char* name;
    std::string key;  // the key the sources name
    uint64_t freeBytes;
    int32_t status;
    std::string description;
  } cases[] = {
      {"snapshot signed by another key", env_.services.crypto->PublicKeyBase64FromPrivateKey(testing::TestKey("EC", 1)),
       UINT64_MAX, PKGDLV_RETRYING, "The snapshot received does not correspond the signature."},
      {"disk too small", publicKey_, 500ull * 1048576, PKGDLV_RETRYING, "There is not enough space on the disk"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(WorkFolder());
    AnswerSources(c.key);
    env_.services.volumes = std::make_shared<FixedVolume>(c.freeBytes);
    auto request = Request();
    RunOneCycle(request);
    EXPECT_EQ(request->status(), c.status);
    EXPECT_EQ(request->statusDescription, c.description);
    EXPECT_FALSE(fs::exists(PackageFolder() / "bin" / "tool.bin"));
  }
  EXPECT_TRUE(env_.log->Contains("Cannot download the package, there is not enough space on the disk"));
}

TEST_F(DownloadCycleTest, ABusyQuillonServerPutsTheRetryAfterItsBackOff) {
  sources_.AddFile("/QS/GetPackageInfo.aspx", "<Error number=\"8004200C\"/>", {{"Content-Type", "text/xml"}});
  auto cycle = std::make_shared<DownloadCycle>(env_.services, nullptr);
  PackageManager engine(env_.services, WorkFolder(), cycle);
  auto request = Request();
  engine.QueuePackage(request, false);
  engine.PerformDownload(engine.WaitForReadyPackage());
  EXPECT_EQ(request->status(), PKGDLV_RETRYING);
  EXPECT_EQ(request->statusDescription, "WARNING: The server is currently busy");
  // Not before the back-off of 3 minutes, and a minute past it.
  const std::optional<FileTime> next = engine.queue().GetNextAttemptTime(request->id());
  ASSERT_TRUE(next);
  EXPECT_GE(*next, env_.clock->Now() + 4 * kFileTimeTicksPerMinute);
}

TEST_F(DownloadCycleTest, ALocallyManagedPackageIsValidWithoutTheNetwork) {
  auto request = std::make_shared<PackageRequest>(env_.services);
  ASSERT_TRUE(request->LoadFromXml(std::string("<Package id=\"") + kPackage + "\" name=\"local\" version=\"1\">" +
                                   "<LocalManaged location=\"" + (env_.dir / "pub" / "pkg").string() +
                                   "\"/></Package>"));
  RunOneCycle(request);
  EXPECT_EQ(request->status(), PKGDLV_VALID);
  EXPECT_EQ(sources_.Requests().size(), 0u);
  EXPECT_TRUE(env_.log->Contains("End download for package: local " + std::string(kPackage) + ". Status: ."));
}

}  // namespace
}  // namespace pkgdlv
