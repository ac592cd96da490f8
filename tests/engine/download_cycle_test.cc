// Whole download cycles through the engine: the package arrives intact, a
// busy or bad server is waited for or passed over, a full disk moves the
// package to another store folder, and a package with much left yields to
// the one now at the front of the queue.
#include "engine/download_cycle.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include "agent/server_profile.h"
#include "multicast/multicast_settings.h"
#include "support/fake_multicast_core.h"
#include "agent/settings_store.h"
#include "transport/site_limits.h"
#include "engine/download_cycle_fixture.h"

namespace pkgdlv {
namespace {

using testing::kCyclePackage;
namespace fs = std::filesystem;

class DownloadCycleTest : public testing::DownloadCycleFixture {};

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

TEST_F(DownloadCycleTest, ThePackageArrivesIntactAndTheHistoryRecordsTheCycle) {
  AnswerSources(publicKey_);
  auto request = Request();
  RunOneCycle(request);

  EXPECT_EQ(request->status(), PKGDLV_VALID) << request->statusDescription;
  EXPECT_TRUE(FilesMatchPublished(PackageFolder()));
  EXPECT_EQ(testing::ReadFile(PackageFolder() / "snapshot.xml"), testing::ReadFile(env_.dir / "pub" / "snap" / "snapshot.xml"))
      << "kept byte for byte: its signature covers it";
  PackageRequest saved(env_.services);
  ASSERT_TRUE(saved.Load(PackageFolder() / "package.xml"));
  EXPECT_EQ(saved.status(), PKGDLV_VALID);

  testing::RecordingLogger& log = *env_.log;
  EXPECT_TRUE(log.Contains(std::string("Begin download for package: tool ") + kCyclePackage));
  EXPECT_TRUE(log.Contains(std::string("End download for package: tool ") + kCyclePackage + ". Status: valid. Downloaded "));
  EXPECT_TRUE(log.Contains("DHT engine is not running. Skip peer activity."));
  PackageLog history = History(PackageFolder());
  ASSERT_EQ(history.entries.size(), 1u);
  EXPECT_EQ(history.entries[0].result, 0u);
  EXPECT_EQ(history.entries[0].status, PKGDLV_VALID);
  EXPECT_EQ(history.entries[0].source, nginx_->Url("/pkg"));
  EXPECT_GE(history.entries[0].transferBytes, 2 * testing::kCycleBlockSize + testing::kCycleBlockSize / 2);

  // Queued again, the package is found complete on disk: no cycle, no
  // request to any server.
  const size_t asked = sources_.Requests().size();
  EXPECT_EQ(RunOneCycle(request), nullptr);
  EXPECT_EQ(request->status(), PKGDLV_VALID);
  EXPECT_EQ(sources_.Requests().size(), asked);
}

TEST_F(DownloadCycleTest, ABadSnapshotOrAFullDiskFailsTheCycleBeforeAnyFileIsFetched) {
  struct Case {
    const char* name;
    std::string key;  // the key the sources name
    uint64_t freeBytes;
    std::string description;
  } cases[] = {
      {"snapshot signed by another key", env_.services.crypto->PublicKeyBase64FromPrivateKey(testing::TestKey("EC", 1)),
       UINT64_MAX / 2, "The snapshot received does not correspond the signature."},
      // 2,621,446 bytes missing need a fifth more above the 500 MiB minimum.
      {"disk one byte short", publicKey_, 500ull * 1048576 + 2'621'446ull * 6 / 5 - 1,
       "There is not enough space on the disk"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    engine_.reset();
    fs::remove_all(WorkFolder());
    AnswerSources(c.key);
    volumes_->Set(WorkFolder(), c.freeBytes);
    auto request = Request();
    RunOneCycle(request);
    EXPECT_EQ(request->status(), PKGDLV_RETRYING);
    EXPECT_EQ(request->statusDescription, c.description);
    EXPECT_FALSE(fs::exists(PackageFolder() / "bin" / "tool.bin"));
  }
  EXPECT_TRUE(env_.log->Contains("Cannot download the package, there is not enough space on the disk"));
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
  PackageManager restarted(env_.services, WorkFolder(), std::make_shared<DownloadCycle>(env_.services, nullptr));
  std::shared_ptr<PackageRequest> found = restarted.store().Find(*Guid::Parse(kCyclePackage));
  ASSERT_TRUE(found);
  EXPECT_EQ(found->packageFolder(), moved.string());
  EXPECT_TRUE(found->otherStore);
  EXPECT_FALSE(found->fixedStore);
  EXPECT_EQ(found->status(), PKGDLV_VALID);
}

TEST_F(DownloadCycleTest, APackageInAFixedStoreIsNeverMoved) {
  AnswerSources(publicKey_);
  const fs::path fixed = env_.dir / "caller" / "tool";
  volumes_->Set(fixed.parent_path(), 100);
  env_.services.settings->Set(kDeliverySettingsKey, DeliverySettings::kOtherStoreFoldersName,
                              SettingValue::Text((env_.dir / "roomy").string()));
  auto request = Request("priority=\"Normal\" fileStore=\"" + fixed.string() + "\"");
  RunOneCycle(request);
  EXPECT_EQ(request->status(), PKGDLV_RETRYING);
  EXPECT_EQ(request->statusDescription, "There is not enough space on the disk");
  EXPECT_FALSE(fs::exists(env_.dir / "roomy" / kCyclePackage));
}

TEST_F(DownloadCycleTest, ABusyQuillonServerIsAskedAgainOnlyAfterItsBackOff) {
  sources_.AddFile("/QS/GetPackageInfo.aspx", "<Error number=\"8004200C\"/>", {{"Content-Type", "text/xml"}});
  auto request = Request();
  RunOneCycle(request);
  EXPECT_EQ(request->status(), PKGDLV_RETRYING);
  EXPECT_EQ(request->statusDescription, "WARNING: The server is currently busy");
  // Not before the back-off of 3 minutes, and a minute past it.
  const std::optional<FileTime> next = Engine().queue().GetNextAttemptTime(request->id());
  ASSERT_TRUE(next);
  EXPECT_GE(*next, env_.clock->Now() + 4 * kFileTimeTicksPerMinute);
  EXPECT_EQ(sources_.RequestCount("/QS/GetPackageInfo.aspx"), 1u);

  // Ready again: once the retry is due the package arrives, after one more
  // request to the server.
  AnswerSources(publicKey_);
  env_.clock->SetNow(*next);
  RunNextCycle();
  EXPECT_EQ(request->status(), PKGDLV_VALID) << request->statusDescription;
  EXPECT_EQ(sources_.RequestCount("/QS/GetPackageInfo.aspx"), 2u);
}

TEST_F(DownloadCycleTest, AServerThatFailedIsPassedOverInTheNextCycle) {
  AnswerSources(publicKey_, Codebase("http://127.0.0.2:1/pkg", "http://127.0.0.2:1/snap/snapshot.xml") +
                                Codebase(nginx_->Url("/pkg"), nginx_->Url("/snap/snapshot.xml")));
  auto request = Request();
  RunOneCycle(request);
  EXPECT_EQ(request->status(), PKGDLV_RETRYING);
  const uint32_t errors = env_.services.server_profile->ErrorCount("127.0.0.2");
  EXPECT_GT(errors, 0u) << "the profile remembers the failure";

  // The next cycle starts with the server that has no failures.
  env_.clock->SetNow(*Engine().queue().GetNextAttemptTime(request->id()));
  RunNextCycle();
  ASSERT_EQ(request->status(), PKGDLV_VALID) << request->statusDescription;
  EXPECT_EQ(History(PackageFolder()).entries.at(0).source, nginx_->Url("/pkg"));
  EXPECT_EQ(env_.services.server_profile->ErrorCount("127.0.0.2"), errors);
  EXPECT_TRUE(FilesMatchPublished(PackageFolder()));
}

// Peers that hold the package but do not answer hold the servers back: the
// cycle fails and waits for them, counting an attempt only when the search
// says so. A package server in this computer's subnet is preferred to peers
// when the peer configuration asks for that.
TEST_F(DownloadCycleTest, ThePeerStepWaitsForPeersOrPrefersAServerInTheSubnet) {
  struct Case {
    const char* name;
    uint32_t flags;         // of the peer configuration
    uint32_t searchResult;  // what the peer search answers
    bool attachFails;
    int32_t status;
    std::string description;
    int searches;
    int32_t attemptsCounted;
    const char* line;
  } cases[] = {
      {"peers hold it, none answers", 0, PeerSearch::kPeerMode, false, PKGDLV_RETRYING,
       "Waiting for peers that hold the package", 1, 0,
       "Peer Downloading info: retry: 0, max: 3, delay: 60, wait for peer: yes, max rate: 0, find result: 1"},
      {"the wait counts as an attempt", 0, PeerSearch::kPeerMode | PeerSearch::kCountWaitAttempt, false,
       PKGDLV_RETRYING, "Waiting for peers that hold the package", 1, 1, "wait for peer: yes"},
      {"no peer holds it", 0, 0, false, PKGDLV_VALID, "", 1, 0, "wait for peer: no, max rate: 0, find result: 0"},
      {"a package server in the subnet", PeerConfiguration::kPreferLocalSubnetServers, PeerSearch::kPeerMode, false,
       PKGDLV_VALID, "", 0, 0, "Found preferable Package Server in local subnet."},
      {"no configuration", 0, 0, true, PKGDLV_RETRYING, "Can't attach to the configuration.", 0, 1, ""},
  };
  // The package server's path marks it as one ("/PS/Share/").
  fs::create_directories(env_.dir / "pub" / "PS");
  fs::create_directory_symlink(env_.dir / "pub", env_.dir / "pub" / "PS" / "Share");
  env_.services.network_addresses = std::make_shared<testing::FixedNetworkAddresses>(std::vector<std::string>{"127.0.0.1"});
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    engine_.reset();
    fs::remove_all(WorkFolder());
    env_.log->Clear();
    auto peers = std::make_shared<RunningPeerDirectory>(PeerSearch{c.searchResult, 0});
    peers_ = peers;
    auto config = std::make_shared<testing::FakePeerConfigurationSource>();
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
    EXPECT_EQ(request->status(), c.status) << request->statusDescription;
    if (c.status != PKGDLV_VALID) {
      EXPECT_EQ(request->statusDescription, c.description);
    }
    EXPECT_EQ(peers->searches, c.searches);
    EXPECT_EQ(Engine().queue().GetAttemptCount(request->id()), c.attemptsCounted);
    EXPECT_TRUE(env_.log->Contains(c.line));
  }
}

// Files that came by multicast are checked like any others; on a volume
// whose times are not exact they pass with the times they came with, which
// are then set to the snapshot's. Nothing is fetched from the server, and
// the end line names the multicast download.
TEST_F(DownloadCycleTest, FilesThatCameByMulticastTakeTheSnapshotsTimes) {
  auto core = std::make_shared<testing::FakeMulticastCore>();
  core->sessionsEndAtOnce = true;
  core->onPrepare = [this] {
    for (const char* file : {"bin/tool.bin", "readme.txt", "empty.dat"}) {
      testing::WriteFile(PackageFolder() / file, testing::ReadFile(PublishedFiles() / file));
    }
  };
  env_.services.multicast_core = core;
  env_.services.settings->Set(kMulticastSettingsKey, "Enabled", SettingValue::Number(1));
  env_.services.settings->Set(kMulticastSettingsKey, "Listen Range IP 1 Start", SettingValue::Text("10.0.0.1"));
  env_.services.settings->Set(kMulticastSettingsKey, "Listen Range IP 1 End", SettingValue::Text(""));
  volumes_->exactTimes = false;
  AnswerSources(publicKey_);
  Engine().multicast().Manage(MulticastEngine::kReevaluate);
  ASSERT_EQ(Engine().multicast().Manage(MulticastEngine::kStart), MulticastEngine::kIdle);
  auto request = Request();
  RunOneCycle(request);

  ASSERT_EQ(request->status(), PKGDLV_VALID) << request->statusDescription;
  EXPECT_TRUE(env_.log->Contains("Some downloaded files have timestamps that do not match the snapshot."));
  struct stat published {}, received {};
  ASSERT_EQ(::stat((PublishedFiles() / "bin" / "tool.bin").c_str(), &published), 0);
  ASSERT_EQ(::stat((PackageFolder() / "bin" / "tool.bin").c_str(), &received), 0);
  // The snapshot keeps whole seconds.
  const FileTime publishedTime = FileTimeFromTimespec(published.st_mtim);
  EXPECT_EQ(FileTimeFromTimespec(received.st_mtim), publishedTime - publishedTime % kFileTimeTicksPerSecond);
  EXPECT_EQ(nginx_->AccessLog().size(), 2u) << "the snapshot and its security data only";
  EXPECT_TRUE(env_.log->Contains(std::string("End download for package: tool ") + kCyclePackage +
                                 ". Status: Multicast download completed."));
}

// A package server of the older kind keeps a snapshot without security data:
// the Quillon Server that answered the package-server query supplies the
// signed one, and without it nothing is trusted.
TEST_F(DownloadCycleTest, ALegacySnapshotIsReplacedByTheQuillonServersSignedOne) {
  Snapshot unsigned_(env_.log);
  ASSERT_TRUE(unsigned_.LoadXml(testing::ReadFile(env_.dir / "pub" / "snap" / "snapshot.xml")));
  testing::WriteFile(env_.dir / "pub" / "legacy" / "snapshot.xml", unsigned_.ComposeDocumentFile());
  AnswerSources(publicKey_, Codebase(nginx_->Url("/pkg"), nginx_->Url("/legacy/snapshot.xml")));
  for (const char* document : {"snapshot.xml", "snapdata.xml"}) {
    sources_.AddFile(std::string("/QS/") + (document == std::string("snapshot.xml") ? "GetPackageSnapshot.aspx" : document),
                     testing::ReadFile(env_.dir / "pub" / "snap" / document), {{"Content-Type", "text/xml"}});
  }
  auto request = std::make_shared<PackageRequest>(env_.services);
  ASSERT_TRUE(request->LoadFromXml(std::string("<Package id=\"") + kCyclePackage +
                                   "\" name=\"tool\" version=\"2\"><Source><SiteQuery url=\"" +
                                   sources_.Url("/QS/GetPackageInfo.aspx") +
                                   "\" resource=\"agent-7\" type=\"packageServers\"/></Source></Package>"));
  RunOneCycle(request);

  ASSERT_EQ(request->status(), PKGDLV_VALID) << request->statusDescription;
  EXPECT_TRUE(env_.log->Contains("GetUpdateList: Received/existing snapshot is in legacy format."));
  EXPECT_EQ(sources_.RequestCount("/QS/GetPackageSnapshot.aspx"), 1u);
  EXPECT_EQ(testing::ReadFile(PackageFolder() / "snapshot.xml"), testing::ReadFile(env_.dir / "pub" / "snap" / "snapshot.xml"));
  EXPECT_TRUE(FilesMatchPublished(PackageFolder()));
}

// The package server (127.0.0.1) lies in site "Head"; this computer in
// "Branch" or "Head". A download leaving a site with a limit reserves a slot
// with the Quillon Server first and gives it back at the end.
TEST_F(DownloadCycleTest, ADownloadLeavingItsSiteReservesAnOutboundSlot) {
  struct Case {
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
  for (const Case& c : cases) {
    SCOPED_TRACE(c.localSite + (" " + c.answer));
    engine_.reset();
    fs::remove_all(WorkFolder());
    env_.log->Clear();
    env_.services.settings->Set(sites, kLocalSiteValue, SettingValue::Text(c.localSite));
    AnswerSources(publicKey_);
    sources_.AddFile("/QS/Agent/SiteTransfer.aspx", c.answer, {{"Content-Type", "text/xml"}});
    const size_t before = sources_.Requests().size();
    auto request = Request();
    RunOneCycle(request);
    EXPECT_EQ(request->status(), c.status) << request->statusDescription;
    EXPECT_TRUE(env_.log->Contains(c.line));
    std::vector<std::string> operations;
    const std::vector<testing::RecordedRequest> requests = sources_.Requests();
    for (size_t i = before; i < requests.size(); ++i) {
      if (requests[i].path != "/QS/Agent/SiteTransfer.aspx") continue;
      const std::string& query = requests[i].query;
      const size_t op = query.find("op='");
      ASSERT_NE(op, std::string::npos) << query;
      operations.push_back(query.substr(op + 4, query.find('\'', op + 4) - op - 4));
    }
    EXPECT_EQ(operations, c.operations);
    EXPECT_EQ(fs::exists(PackageFolder() / "readme.txt"), c.status == PKGDLV_VALID);
  }
}

// A package that still misses more than 5,000,000 bytes gives way when
// another package takes the front of the queue; a smaller rest is finished.
TEST_F(DownloadCycleTest, APackageWithMuchLeftYieldsToTheNewFrontOfTheQueue) {
  struct Case {
    uint64_t bigFileBytes;
    int32_t status;
  } cases[] = {{6'000'000, PKGDLV_PENDING}, {5'000'000 - 7, PKGDLV_VALID}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.bigFileBytes);
    engine_.reset();
    fs::remove_all(WorkFolder());
    testing::WriteFile(PublishedFiles() / "bin" / "tool.bin", std::string(c.bigFileBytes, 'x'));
    Publish(2);
    AnswerSources(publicKey_);
    // Both wait with the same priority; the smaller announced size goes
    // first, until the cycle learns what this package really misses.
    auto first = Request("priority=\"Normal\" size=\"10\"");
    auto second = Request("priority=\"Normal\" size=\"2000000\"", "{0F0E0D0C-0B0A-4908-8706-050403020100}");
    Engine().QueuePackage(first, false);
    Engine().QueuePackage(second, false);
    ASSERT_EQ(Engine().WaitForReadyPackage(), first);
    Engine().PerformDownload(first);
    EXPECT_EQ(first->status(), c.status) << first->statusDescription;
    if (c.status == PKGDLV_PENDING) {
      EXPECT_EQ(first->statusDescription, "Package download waiting for completion of higher priority job");
      EXPECT_FALSE(fs::exists(PackageFolder() / "bin" / "tool.bin"));
      EXPECT_TRUE(env_.log->Contains("was preempted by package '{0F0E0D0C-0B0A-4908-8706-050403020100}'"));
    }
  }
}

}  // namespace
}  // namespace pkgdlv
