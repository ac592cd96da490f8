// Whole download cycles through the engine: a signed package served by nginx
// (or a scripted server that injects faults) and a scripted Quillon Server.
#include "engine/download_cycle.h"

#include <gtest/gtest.h>

#include <map>

#include "agent/client_agent.h"
#include "agent/crypto.h"
#include "agent/volume_info.h"
#include "engine/package_manager.h"
#include "records/package_log.h"
#include "snapshot/snapshot_builder.h"
#include "snapshot/validation.h"
#include "support/fake_peer_configuration.h"
#include "support/http_test_server.h"
#include "support/nginx_server.h"
#include "support/recording_logger.h"
#include "support/scripted_downloader.h"
#include "support/test_keys.h"
#include "support/transport_services.h"
#include "transport/site_limits.h"

namespace pkgdlv::testing {
namespace {

namespace fs = std::filesystem;

constexpr const char* kCyclePackage = "{5B1E2C3D-4F50-4A6B-8C7D-9E0F1A2B3C4D}";
constexpr uint32_t kBlockSize = 1048576;
const char* const kFiles[] = {"bin/tool.bin", "readme.txt", "empty.dat"};

using Outcome = std::pair<int32_t, std::string>;
Outcome OutcomeOf(const PackageRequest& request) { return {request.status(), request.statusDescription}; }

// Free space by folder: the longest configured prefix of a path decides.
class FolderVolumes final : public VolumeInfo {
 public:
  void Set(const fs::path& folder, uint64_t freeBytes) { free_[folder.string()] = freeBytes; }
  std::optional<VolumeDetails> Query(const fs::path& path) override {
    VolumeDetails details{"ext4", true, true, UINT64_MAX / 2, true};
    size_t longest = 0;
    for (const auto& [folder, bytes] : free_) {
      if (path.string().starts_with(folder) && folder.size() >= longest) {
        longest = folder.size();
        details.freeBytes = bytes;
      }
    }
    return details;
  }

 private:
  std::map<std::string, uint64_t> free_;
};

// A peer directory that runs and answers every search the same way.
class RunningPeerDirectory final : public PeerDirectory {
 public:
  explicit RunningPeerDirectory(PeerSearch answer) : answer_(answer) {}
  int State() override { return kRunningState; }
  void RefreshPackageBlocks(PackageRequest&, bool) override {}
  void Republish(const Guid&) override {}
  void DropPackage(const Guid&) override {}
  PeerSearch FindPeers(PackageRequest&) override {
    ++searches;
    return answer_;
  }
  int searches = 0;

 private:
  PeerSearch answer_;
};

class DownloadCycleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!NginxServer::Available()) GTEST_SKIP() << "nginx is not installed";
    PackageDownload::ResetProcessBackoff();
    std::string big(2 * kBlockSize + kBlockSize / 2, '\0');
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

  fs::path PublishedFiles() const { return env_.dir / "pub" / "pkg"; }

  // Signs a snapshot of the published files with key 0 into pub/snap, beside the folder.
  void Publish(uint32_t version) {
    Snapshot snapshot(env_.log);
    SnapshotBuildOptions options;
    options.blockSize = kBlockSize;
    BuildSnapshotFromFolder(PublishedFiles(), options, snapshot);
    snapshot.id = *Guid::Parse(kCyclePackage);
    snapshot.version = version;
    snapshot.time = env_.clock->Now();
    snapshot.path = PublishedFiles().string();
    fs::create_directories(env_.dir / "pub" / "snap");
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
                                          const char* id = kCyclePackage, const char* type = "codebases") {
    auto request = std::make_shared<PackageRequest>(env_.services);
    EXPECT_TRUE(request->LoadFromXml(std::string("<Package id=\"") + id + "\" name=\"tool\" version=\"2\" " +
                                     attributes + "><Source><SiteQuery url=\"" +
                                     sources_.Url("/QS/GetPackageInfo.aspx") + "\" resource=\"agent-7\" type=\"" +
                                     type + "\"/></Source></Package>"));
    return request;
  }

  fs::path WorkFolder() const { return env_.dir / "work"; }
  fs::path PackageFolder() const { return WorkFolder() / kCyclePackage; }

  // The engine of the test, made at first use; its thread is not started.
  PackageManager& Engine() {
    if (!engine_) {
      auto cycle = std::make_shared<DownloadCycle>(env_.services, env_.services.site_limits);
      engine_ = std::make_unique<PackageManager>(env_.services, WorkFolder(), cycle, peers_);
    }
    return *engine_;
  }
  // A new engine over an empty work folder.
  void Restart() {
    engine_.reset();
    fs::remove_all(WorkFolder());
    env_.log->Clear();
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
  // Moves the fake clock past the package's next attempt time and runs its cycle.
  void RunRetry() {
    const std::optional<FileTime> next = Engine().queue().GetNextAttemptTime(*Guid::Parse(kCyclePackage));
    ASSERT_TRUE(next);
    env_.clock->SetNow(std::max(*next, env_.clock->Now()) + 2000 * kFileTimeTicksPerMs);
    RunNextCycle();
  }

  bool FilesMatchPublished(const fs::path& folder) const {
    for (const char* file : kFiles) {
      if (!fs::exists(folder / file) || ReadFile(folder / file) != ReadFile(PublishedFiles() / file)) return false;
    }
    return true;
  }
  PackageLog History(const fs::path& folder) {
    settings_ = std::make_unique<DeliverySettings>(*env_.services.settings, *env_.log);
    PackageLog history(*env_.log, *settings_);
    history.LoadFromFolder(folder);
    return history;
  }

  // The servers go after the engine: an open connection would hold their shutdown.
  TransportServices env_;
  HttpTestServer sources_, files_;
  std::unique_ptr<NginxServer> nginx_;
  std::shared_ptr<FolderVolumes> volumes_ = std::make_shared<FolderVolumes>();
  std::string publicKey_;
  std::shared_ptr<PeerDirectory> peers_;  // null: none runs
  std::unique_ptr<DeliverySettings> settings_;
  std::unique_ptr<PackageManager> engine_;
};

TEST_F(DownloadCycleTest, ThePackageArrivesIntactAndTheHistoryRecordsTheCycle) {
  AnswerSources(publicKey_);
  auto request = Request("priority=\"Normal\" urgentDownload=\"true\" downloadStartSLA=\"60\"");
  RunOneCycle(request);
  EXPECT_EQ(request->status(), PKGDLV_VALID) << request->statusDescription;
  EXPECT_EQ(request->GetSlaRemainingMinutes(), 60) << "the urgent download's deadline starts when it is queued";
  EXPECT_TRUE(FilesMatchPublished(PackageFolder()));
  EXPECT_EQ(ReadFile(PackageFolder() / "snapshot.xml"), ReadFile(env_.dir / "pub" / "snap" / "snapshot.xml"))
      << "kept byte for byte: its signature covers it";
  EXPECT_TRUE(env_.log->Contains(std::string("End download for package: tool ") + kCyclePackage +
                                 ". Status: valid. Downloaded "));
  PackageLog history = History(PackageFolder());
  ASSERT_EQ(history.entries.size(), 1u);
  EXPECT_EQ(std::make_tuple(history.entries[0].result, history.entries[0].status, history.entries[0].source),
            std::make_tuple(0u, PKGDLV_VALID, nginx_->Url("/pkg")));
  EXPECT_GE(history.entries[0].transferBytes, 2 * kBlockSize + kBlockSize / 2);

  // Queued again, the package is found complete on disk: no cycle, no
  // request to any server.
  const size_t asked = sources_.Requests().size();
  EXPECT_EQ(RunOneCycle(request), nullptr);
  EXPECT_EQ(sources_.Requests().size(), asked);
  // A request for the sources only leaves the files alone.
  Restart();
  auto remote = Request("priority=\"Normal\" remote=\"true\"");
  RunOneCycle(remote);
  EXPECT_EQ(OutcomeOf(*remote), Outcome(PKGDLV_INVALID, "Download package sources completed OK"));
  EXPECT_FALSE(fs::exists(PackageFolder() / "readme.txt"));
}

TEST_F(DownloadCycleTest, ABadSnapshotOrAFullDiskFailsTheCycleBeforeAnyFileIsFetched) {
  const struct {
    const char* name;
    std::string key;  // the key the sources name
    uint64_t freeBytes;
    std::string description;
    std::string sources = {};  // the Quillon Server's answer instead of the package's sources
  } cases[] = {
      {"snapshot signed by another key", env_.services.crypto->PublicKeyBase64FromPrivateKey(TestKey("EC", 1)),
       UINT64_MAX / 2, "The snapshot received does not correspond the signature."},
      // 2,621,446 bytes missing need a fifth more above the 500 MiB minimum.
      {"disk one byte short", publicKey_, 500ull * 1048576 + 2'621'446ull * 6 / 5 - 1,
       "There is not enough space on the disk"},
      {"server busy", publicKey_, UINT64_MAX / 2, "WARNING: The server is currently busy",
       "<Error number=\"8004200C\"/>"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Restart();
    AnswerSources(c.key);
    if (!c.sources.empty()) sources_.AddFile("/QS/GetPackageInfo.aspx", c.sources, {{"Content-Type", "text/xml"}});
    volumes_->Set(WorkFolder(), c.freeBytes);
    auto request = Request();
    RunOneCycle(request);
    EXPECT_EQ(OutcomeOf(*request), Outcome(PKGDLV_RETRYING, c.description));
    EXPECT_FALSE(fs::exists(PackageFolder() / "bin" / "tool.bin"));
  }
}

TEST_F(DownloadCycleTest, AFullDiskMovesThePackageToAnotherStoreFolderWithRoom) {
  AnswerSources(publicKey_);
  const fs::path small = env_.dir / "small-store", roomy = env_.dir / "roomy-store";
  volumes_->Set(WorkFolder(), 100);
  volumes_->Set(small, 100);
  fs::create_directories(small);
  fs::create_directories(roomy);
  env_.services.settings->Set(kDeliverySettingsKey, DeliverySettings::kOtherStoreFoldersName,
                              SettingValue::Text(small.string() + "; relative/store ;" + roomy.string()));
  // A package in a fixed store is never moved.
  const fs::path fixed = env_.dir / "caller" / "tool";
  volumes_->Set(fixed.parent_path(), 100);
  auto pinned = Request("priority=\"Normal\" fileStore=\"" + fixed.string() + "\"");
  RunOneCycle(pinned);
  EXPECT_EQ(OutcomeOf(*pinned), Outcome(PKGDLV_RETRYING, "There is not enough space on the disk"));
  EXPECT_FALSE(fs::exists(roomy / kCyclePackage));

  Restart();
  auto request = Request();
  RunOneCycle(request);
  ASSERT_EQ(request->status(), PKGDLV_VALID) << request->statusDescription;
  const fs::path moved = roomy / kCyclePackage;
  EXPECT_TRUE(FilesMatchPublished(moved));
  EXPECT_FALSE(fs::exists(PackageFolder() / "readme.txt"));
  EXPECT_FALSE(fs::exists(small / kCyclePackage));
  EXPECT_TRUE(env_.log->Contains("'relative/store' in 'Package Store Folders' is not an absolute folder"));

  // The work folder keeps the document, which names the new folder: a new
  // engine finds the package there, complete, and may move it again.
  engine_.reset();
  std::shared_ptr<PackageRequest> found = Engine().store().Find(*Guid::Parse(kCyclePackage));
  ASSERT_TRUE(found);
  EXPECT_EQ(std::make_tuple(found->packageFolder(), found->otherStore, found->fixedStore, found->status()),
            std::make_tuple(moved.string(), true, false, PKGDLV_VALID));
}

// Peers that hold the package but do not answer hold the servers back: the
// cycle fails and waits for them, counting an attempt only when the search
// says so. A package server in this computer's subnet is preferred to peers
// when the peer configuration asks for that.
TEST_F(DownloadCycleTest, ThePeerStepWaitsForPeersOrPrefersAServerInTheSubnet) {
  const std::string waiting = "Waiting for peers that hold the package";
  const struct {
    const char* name;
    uint32_t flags, searchResult;  // of the peer configuration; what the peer search answers
    bool attachFails;
    int32_t status;
    std::string description;
    int searches, attemptsCounted;
    const char* line;
  } cases[] = {
      {"peers hold it, none answers", 0, PeerSearch::kPeerMode, false, PKGDLV_RETRYING, waiting, 1, 0,
       "Peer Downloading info: retry: 0, max: 3, delay: 60, wait for peer: yes, max rate: 0, find result: 1"},
      {"the wait counts as an attempt", 0, PeerSearch::kPeerMode | PeerSearch::kCountWaitAttempt, false,
       PKGDLV_RETRYING, waiting, 1, 1, "wait for peer: yes"},
      {"no peer holds it", 0, 0, false, PKGDLV_VALID, "", 1, 0, "wait for peer: no, max rate: 0, find result: 0"},
      {"a package server in the subnet", PeerConfiguration::kPreferLocalSubnetServers, PeerSearch::kPeerMode, false,
       PKGDLV_VALID, "", 0, 0, "Found preferable Package Server in local subnet."},
      {"no configuration", 0, 0, true, PKGDLV_RETRYING, "Can't attach to the configuration.", 0, 1, ""},
  };
  // The package server's path marks it as one ("/PS/Share/").
  fs::create_directories(env_.dir / "pub" / "PS");
  fs::create_directory_symlink(env_.dir / "pub", env_.dir / "pub" / "PS" / "Share");
  env_.services.network_addresses = std::make_shared<FixedNetworkAddresses>(std::vector<std::string>{"127.0.0.1"});
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Restart();
    auto peers = std::make_shared<RunningPeerDirectory>(PeerSearch{c.searchResult, 0});
    peers_ = peers;
    auto config = std::make_shared<FakePeerConfigurationSource>();
    PeerConfiguration settings;
    settings.flags = c.flags;
    settings.peerRetryLimit = 3;
    settings.retryDelaySeconds = 60;
    config->Set(settings);
    config->FailAttach(c.attachFails);
    env_.services.peer_configuration = config;
    AnswerSources(publicKey_, Codebase(nginx_->Url("/PS/Share/pkg"), nginx_->Url("/PS/Share/snap/snapshot.xml")));
    auto request = Request();
    RunOneCycle(request);
    EXPECT_EQ(std::make_tuple(request->status(), c.status == PKGDLV_VALID ? "" : request->statusDescription,
                              peers->searches, Engine().queue().GetAttemptCount(request->id())),
              std::make_tuple(c.status, c.description, c.searches, c.attemptsCounted));
    EXPECT_TRUE(env_.log->Contains(c.line));
  }
}

// The package server (127.0.0.1) lies in site "Head"; this computer in
// "Branch" or "Head". A download leaving a site with a limit reserves a slot
// with the Quillon Server first and gives it back at the end.
TEST_F(DownloadCycleTest, ADownloadLeavingItsSiteReservesAnOutboundSlot) {
  const struct {
    const char* localSite;
    std::string answer;  // to the reservation requests
    int32_t status;
    std::vector<std::string> operations;
    const char* line;
  } cases[] = {
      {"Branch", "<SiteTransfer/>", PKGDLV_VALID, {"Start", "Done"},
       "Detected site outbound request. Site ID: Head, remote IP: 127.0.0.1"},
      {"Branch", "<Error number=\"8004200D\"/>", PKGDLV_RETRYING, {"Start"}, "Site ID: Head"},
      {"head", "<SiteTransfer/>", PKGDLV_VALID, {}, "Detected site internal request. Remote IP: 127.0.0.1."},
  };
  const std::string sites(kSitesSettingsKey);
  env_.services.settings->Set(sites, kSiteTransferServerUrlValue, SettingValue::Text(sources_.Url("")));
  env_.services.settings->Set(sites + "\\Head", kSiteSubnetsValue, SettingValue::Text("10.0.0.0/8; 127.0.0.0/8"));
  env_.services.settings->Set(sites + "\\Head", kSiteOutboundLimitValue, SettingValue::Number(2));
  for (const auto& c : cases) {
    SCOPED_TRACE(c.localSite + (" " + c.answer));
    Restart();
    env_.services.settings->Set(sites, kLocalSiteValue, SettingValue::Text(c.localSite));
    AnswerSources(publicKey_);
    sources_.AddFile("/QS/Agent/SiteTransfer.aspx", c.answer, {{"Content-Type", "text/xml"}});
    const size_t before = sources_.Requests().size();
    auto request = Request();
    RunOneCycle(request);
    EXPECT_EQ(request->status(), c.status) << request->statusDescription;
    EXPECT_TRUE(env_.log->Contains(c.line));
    std::vector<std::string> operations;
    const std::vector<RecordedRequest> requests = sources_.Requests();
    for (size_t i = before; i < requests.size(); ++i) {
      const size_t op = requests[i].query.find("op='");
      if (requests[i].path == "/QS/Agent/SiteTransfer.aspx" && op != std::string::npos) {
        operations.push_back(requests[i].query.substr(op + 4, requests[i].query.find('\'', op + 4) - op - 4));
      }
    }
    EXPECT_EQ(operations, c.operations);
  }
}

// A package that still misses more than 5,000,000 bytes gives way when
// another package takes the front of the queue; a smaller rest is finished.
TEST_F(DownloadCycleTest, APackageWithMuchLeftYieldsToTheNewFrontOfTheQueue) {
  for (const auto& [bigFileBytes, status] : {std::pair{6'000'000, PKGDLV_PENDING}, {5'000'000 - 7, PKGDLV_VALID}}) {
    SCOPED_TRACE(bigFileBytes);
    Restart();
    WriteFile(PublishedFiles() / "bin" / "tool.bin", std::string(bigFileBytes, 'x'));
    Publish(2);
    AnswerSources(publicKey_);
    // Both wait with the same priority; the smaller announced size goes
    // first, until the cycle learns what this package really misses.
    auto first = Request("priority=\"Normal\" size=\"10\"");
    Engine().QueuePackage(first, false);
    Engine().QueuePackage(Request("priority=\"Normal\" size=\"2000000\"", "{0F0E0D0C-0B0A-4908-8706-050403020100}"),
                          false);
    ASSERT_EQ(RunNextCycle(), first);
    EXPECT_EQ(first->status(), status) << first->statusDescription;
    if (status == PKGDLV_PENDING) {
      EXPECT_EQ(first->statusDescription, "Package download waiting for completion of higher priority job");
      EXPECT_FALSE(fs::exists(PackageFolder() / "bin" / "tool.bin"));
      EXPECT_TRUE(env_.log->Contains("was preempted by package '{0F0E0D0C-0B0A-4908-8706-050403020100}'"));
    }
  }
}

TEST_F(DownloadCycleTest, ACorruptBlockIsRefusedAndTheNextCycleRepairsIt) {
  // The package from the scripted server, which can damage what it sends.
  for (const auto& entry : fs::recursive_directory_iterator(env_.dir / "pub")) {
    if (!entry.is_regular_file()) continue;
    const std::string path = "/" + fs::relative(entry.path(), env_.dir / "pub").string();
    files_.AddFile(path, ReadFile(entry.path()), {{"Content-Type", "text/xml"}});
  }
  AnswerSources(publicKey_, Codebase(files_.Url("/pkg"), files_.Url("/snap/snapshot.xml")));
  const std::string published = ReadFile(PublishedFiles() / "bin" / "tool.bin");
  const uint64_t corrupt = kBlockSize + 4321;  // in the file's second block
  ASSERT_NE(published[corrupt], '\xFF') << "a flipped byte must not read as zero";
  files_.SetFault("/pkg/bin/tool.bin", HttpFault{.corruptByte = static_cast<int64_t>(corrupt)});
  auto request = Request();
  RunOneCycle(request);
  EXPECT_EQ(request->status(), PKGDLV_RETRYING);
  EXPECT_NE(request->statusDescription.find("is invalid for file"), std::string::npos) << request->statusDescription;
  EXPECT_EQ(History(PackageFolder()).entries.at(0).result, validation::kBadBlock);
  // Only verified blocks reach the disk: what the file holds is the
  // publisher's bytes or a hole, never the flipped byte.
  const std::string partial = ReadFile(PackageFolder() / "bin" / "tool.bin");
  ASSERT_GE(partial.size(), kBlockSize);
  ASSERT_LE(partial.size(), published.size());
  EXPECT_EQ(partial.substr(0, kBlockSize), published.substr(0, kBlockSize)) << "the good first block stays";
  for (size_t i = kBlockSize; i < partial.size(); ++i) {
    ASSERT_TRUE(partial[i] == published[i] || partial[i] == '\0') << "byte " << i << ": neither published nor a hole";
  }

  files_.SetFault("/pkg/bin/tool.bin", HttpFault{});
  RunRetry();
  EXPECT_EQ(request->status(), PKGDLV_VALID) << request->statusDescription;
  EXPECT_TRUE(FilesMatchPublished(PackageFolder()));
  size_t firstBlockAsked = 0;
  for (const RecordedRequest& asked : files_.Requests()) {
    firstBlockAsked += asked.path == "/pkg/bin/tool.bin" && asked.Header("Range").starts_with("bytes=0-");
  }
  EXPECT_EQ(firstBlockAsked, 1u) << "the block written before the fault is not fetched again";
}

}  // namespace
}  // namespace pkgdlv::testing
