// Whole download cycles under faults: a block that does not match its hash, an
// agent stopped in the middle of a transfer, a more urgent package arriving,
// an urgent package with only the Quillon Server's own sources, a package
// that wants only its sources, and answers the agent cannot decrypt. The
// package files come from a scripted server on 127.0.0.1 where a fault has
// to be injected, from nginx otherwise.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "agent/response_decryptor.h"
#include "engine/download_cycle_fixture.h"
#include "records/delivery_settings.h"
#include "snapshot/validation.h"
#include "transport/response_text.h"
#include "util/base64.h"
#include "util/error.h"
#include "util/strings.h"
#include "util/xml.h"

namespace pkgdlv::testing {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

const char* const kFiles[] = {"bin/tool.bin", "readme.txt", "empty.dat"};
const char* const kOtherPackage = "{0A1B2C3D-4E5F-4061-8293-A4B5C6D7E8F9}";
constexpr uint64_t kThrottle = 1048576;  // bytes per second while a test needs time to act

// The agent's decryption that finds every answer encrypted and cannot open
// any, as when the server encrypted it for an identity the agent lost.
class RefusingDecryptor final : public ResponseDecryptor {
 public:
  DecryptedResponse DecryptResponse(std::span<const uint8_t>) override { return {result::kDecryptFailed, {}}; }
  std::string DecryptBase64String(std::string_view) override { Throw(result::kDecryptFailed, "no key"); }
};

class DownloadCycleFaultTest : public DownloadCycleFixture {
 protected:
  // The engine, and with it its connections, goes before the servers it
  // talks to: an open connection would hold a server's shutdown.
  void TearDown() override { RestartEngine(); }

  // The published package, files and snapshot, from the scripted server,
  // which the sources name instead of nginx.
  void ServeFromScriptedServer() {
    for (const char* file : kFiles) files_.AddFile(std::string("/pkg/") + file, ReadFile(PublishedFiles() / file));
    ServeSnapshot("/snap/", env_.dir / "pub" / "snap");
    AnswerSources(publicKey_, Codebase(files_.Url("/pkg"), files_.Url("/snap/snapshot.xml")));
  }

  // The snapshot and its security data beside it.
  void ServeSnapshot(const std::string& prefix, const fs::path& folder) {
    for (const fs::directory_entry& document : fs::directory_iterator(folder)) {
      files_.AddFile(prefix + document.path().filename().string(), ReadFile(document.path()),
                     {{"Content-Type", "text/xml"}});
    }
  }

  // A second, small package with its own signed snapshot and its own
  // sources page; its request has the given priority.
  std::shared_ptr<PackageRequest> OtherPackage(const std::string& priority) {
    const fs::path files = env_.dir / "pub" / "other";
    WriteFile(files / "other.txt", "the other package\n");
    Snapshot snapshot(env_.log);
    SnapshotBuildOptions options;
    options.blockSize = kCycleBlockSize;
    BuildSnapshotFromFolder(files, options, snapshot);
    snapshot.id = *Guid::Parse(kOtherPackage);
    snapshot.version = 1;
    snapshot.time = env_.clock->Now();
    snapshot.path = files.string();
    const fs::path snapshotFolder = env_.dir / "pub" / "other-snap";
    fs::create_directories(snapshotFolder);
    EXPECT_TRUE(snapshot.SaveSnapshot(snapshotFolder / "snapshot.xml", *env_.services.crypto, TestKey("EC", 0)));
    files_.AddFile("/other/other.txt", ReadFile(files / "other.txt"));
    ServeSnapshot("/other-snap/", snapshotFolder);
    sources_.AddFile("/QS/other/GetPackageInfo.aspx",
                     "<response><Codebases>" + Codebase(files_.Url("/other"), files_.Url("/other-snap/snapshot.xml")) +
                         "</Codebases><package sourceKey=\"" + publicKey_ + "\"/></response>",
                     {{"Content-Type", "text/xml"}});
    auto request = std::make_shared<PackageRequest>(env_.services);
    EXPECT_TRUE(request->LoadFromXml(std::string("<Package id=\"") + kOtherPackage +
                                     "\" name=\"other\" version=\"1\" priority=\"" + priority +
                                     "\"><Source><SiteQuery url=\"" + sources_.Url("/QS/other/GetPackageInfo.aspx") +
                                     "\" resource=\"agent-7\" type=\"codebases\"/></Source></Package>"));
    return request;
  }

  // The engine goes as when the agent ends; the next Engine() is a new one
  // over the same work folder.
  void RestartEngine() {
    if (engine_) engine_->Stop();
    engine_.reset();
    cycle_.reset();
  }

  // Moves the fake clock past the package's next attempt time.
  void AdvancePastRetry(const char* id = kCyclePackage) {
    const std::optional<FileTime> next = Engine().queue().GetNextAttemptTime(*Guid::Parse(id));
    ASSERT_TRUE(next);
    const FileTime now = env_.clock->Now();
    env_.clock->Advance((*next > now ? (*next - now) / kFileTimeTicksPerMs : 0) + 2000);
  }

  // Waits in real time for the condition, at most limit.
  static bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit = 20s) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
      if (std::chrono::steady_clock::now() > end) return false;
      std::this_thread::sleep_for(10ms);
    }
    return true;
  }

  // The record as "package.xml" holds it; null when it cannot be read.
  std::unique_ptr<PackageRequest> Saved(const fs::path& folder) {
    auto saved = std::make_unique<PackageRequest>(env_.services);
    if (!saved->Load(folder / "package.xml")) return nullptr;
    return saved;
  }

  // The byte ranges asked of the scripted server for paths below prefix:
  // what it can have sent at most.
  uint64_t BytesAsked(const std::string& prefix) const {
    uint64_t total = 0;
    for (const RecordedRequest& request : files_.Requests()) {
      if (!request.path.starts_with(prefix)) continue;
      const std::string range = request.Header("Range");
      const size_t dash = range.find('-');
      const std::optional<uint64_t> first = ParseUInt64(range.substr(6, dash - 6));
      const std::optional<uint64_t> last = ParseUInt64(range.substr(dash + 1));
      EXPECT_TRUE(range.starts_with("bytes=") && first && last) << "an unbounded request: " << range;
      if (first && last) total += *last - *first + 1;
    }
    return total;
  }
  size_t RangeRequests(const std::string& path, uint64_t first) const {
    size_t count = 0;
    for (const RecordedRequest& request : files_.Requests()) {
      count += request.path == path && request.Header("Range").starts_with("bytes=" + std::to_string(first) + "-");
    }
    return count;
  }
  uint64_t PackageBytes() const {
    uint64_t total = 0;
    for (const char* file : kFiles) total += fs::file_size(PublishedFiles() / file);
    return total;
  }

  // The messages of the begin lines, in order.
  std::vector<std::string> BeginLines() {
    std::vector<std::string> lines;
    for (const LogLine& line : env_.log->Lines()) {
      if (line.message.starts_with("Begin download for package: ")) lines.push_back(line.message);
    }
    return lines;
  }

  HttpTestServer files_;
};

TEST_F(DownloadCycleFaultTest, ACorruptBlockIsRefusedAndTheNextCycleRepairsIt) {
  ServeFromScriptedServer();
  const std::string published = ReadFile(PublishedFiles() / "bin" / "tool.bin");
  const uint64_t corrupt = kCycleBlockSize + 4321;  // in the file's second block
  ASSERT_NE(published[corrupt], '\xFF') << "a flipped byte must not read as zero";
  files_.SetFault("/pkg/bin/tool.bin", HttpFault{.corruptByte = static_cast<int64_t>(corrupt)});

  auto request = Request();
  RunOneCycle(request);
  EXPECT_EQ(request->status(), PKGDLV_RETRYING);
  EXPECT_NE(request->statusDescription.find("is invalid for file"), std::string::npos) << request->statusDescription;
  EXPECT_NE(request->statusDescription.find("tool.bin"), std::string::npos) << request->statusDescription;
  PackageLog history = History(PackageFolder());
  ASSERT_EQ(history.entries.size(), 1u);
  EXPECT_EQ(history.entries[0].result, validation::kBadBlock);
  EXPECT_EQ(history.entries[0].status, PKGDLV_RETRYING);
  // Only verified blocks reach the disk: what the file holds is the
  // publisher's bytes or a hole, never the flipped byte.
  const std::string partial = ReadFile(PackageFolder() / "bin" / "tool.bin");
  ASSERT_LE(partial.size(), published.size());
  EXPECT_TRUE(partial.compare(0, kCycleBlockSize, published, 0, kCycleBlockSize) == 0) << "the good first block stays";
  for (size_t i = 0; i < partial.size(); ++i) {
    if (partial[i] != published[i] && partial[i] != '\0') {
      ADD_FAILURE() << "byte " << i << " of the file is neither the publisher's nor a hole";
      break;
    }
  }

  files_.SetFault("/pkg/bin/tool.bin", HttpFault{});
  AdvancePastRetry();
  ASSERT_EQ(RunNextCycle(), request);
  EXPECT_EQ(request->status(), PKGDLV_VALID) << request->statusDescription;
  EXPECT_TRUE(FilesMatchPublished(PackageFolder()));
  EXPECT_EQ(RangeRequests("/pkg/bin/tool.bin", 0), 1u) << "the block written before the fault is not fetched again";
  PackageLog after = History(PackageFolder());  // newest first
  ASSERT_EQ(after.entries.size(), 2u);
  EXPECT_EQ(after.entries[0].result, 0u);
}

TEST_F(DownloadCycleFaultTest, AStopMidTransferIsSavedPendingAndANewEngineResumesIt) {
  ServeFromScriptedServer();
  files_.SetFault("/pkg/bin/tool.bin", HttpFault{.bytesPerSecond = kThrottle});
  Engine().Start();
  Engine().QueuePackage(Request(), false);
  // The second block of the big file is on its way: the first one is in.
  ASSERT_TRUE(WaitUntil([&] { return RangeRequests("/pkg/bin/tool.bin", kCycleBlockSize) == 1; }));
  std::this_thread::sleep_for(200ms);
  Engine().Stop();

  const xml::Document stopped = xml::Document::Parse(ReadFile(PackageFolder() / "package.xml"));
  EXPECT_EQ(stopped.Root().Attribute("status"), "pending");
  EXPECT_EQ(stopped.Root().Attribute("statusDescription"), "Package download suspended");
  EXPECT_TRUE(ReadFile(PackageFolder() / "bin" / "tool.bin")
                  .compare(0, kCycleBlockSize, ReadFile(PublishedFiles() / "bin" / "tool.bin"), 0, kCycleBlockSize) ==
              0)
      << "the block received before the stop is written";

  RestartEngine();
  files_.SetFault("/pkg/bin/tool.bin", HttpFault{});
  Engine().Start();
  ASSERT_TRUE(WaitUntil([&] {
    std::unique_ptr<PackageRequest> saved = Saved(PackageFolder());
    return saved && saved->status() == PKGDLV_VALID;
  })) << "the package was not resumed to valid";
  Engine().Stop();
  EXPECT_TRUE(FilesMatchPublished(PackageFolder()));
  EXPECT_EQ(RangeRequests("/pkg/bin/tool.bin", 0), 1u) << "the first block is not fetched again";
  // At most the package, the block in flight at the stop and the one in the
  // writer's hands.
  EXPECT_LE(BytesAsked("/pkg/"), PackageBytes() + 2 * kCycleBlockSize);
}

TEST_F(DownloadCycleFaultTest, AMoreUrgentPackagePreemptsTheRunningOneWhichResumesAfterIt) {
  ServeFromScriptedServer();
  files_.SetFault("/pkg/bin/tool.bin", HttpFault{.bytesPerSecond = kThrottle});
  auto running = Request();
  auto urgent = OtherPackage("High");
  Engine().Start();
  Engine().QueuePackage(running, false);
  ASSERT_TRUE(WaitUntil([&] { return RangeRequests("/pkg/bin/tool.bin", 0) == 1; }));
  files_.SetFault("/pkg/bin/tool.bin", HttpFault{});
  Engine().QueuePackage(urgent, false);

  ASSERT_TRUE(WaitUntil([&] { return running->status() == PKGDLV_VALID && urgent->status() == PKGDLV_VALID; }))
      << running->status() << " " << urgent->status() << " " << urgent->statusDescription;
  Engine().Stop();
  EXPECT_TRUE(FilesMatchPublished(PackageFolder()));

  PackageLog history = History(PackageFolder());  // newest first
  ASSERT_EQ(history.entries.size(), 2u);
  EXPECT_EQ(history.entries[1].status, PKGDLV_PENDING);
  EXPECT_EQ(history.entries[1].statusDescr, "Package download waiting for completion of higher priority job");
  EXPECT_EQ(history.entries[0].status, PKGDLV_VALID);
  EXPECT_TRUE(env_.log->Contains(std::string("Package '") + kCyclePackage +
                                 "' was preempted by higher priority package '" + kOtherPackage + "'"));
  const std::vector<std::string> begins = BeginLines();
  ASSERT_EQ(begins.size(), 3u);
  EXPECT_NE(begins[0].find(kCyclePackage), std::string::npos);
  EXPECT_NE(begins[1].find(kOtherPackage), std::string::npos) << "the urgent package runs next";
  EXPECT_NE(begins[2].find(kCyclePackage), std::string::npos);
}

TEST_F(DownloadCycleFaultTest, AnUrgentPackageFallsBackToTheQuillonServersOwnSources) {
  // A source the Quillon Server marks as its own, and an ordinary one on
  // another host name of this computer (a server is told apart by its host).
  const std::string own = "<Codebase href=\"" + nginx_->Url("/pkg") + "\" snapshot=\"" +
                          nginx_->Url("/snap/snapshot.xml") + "\" codebaseSourceType=\"QS\"/>";
  const std::string ordinaryElsewhere =
      "<Codebase href=\"http://localhost:" + std::to_string(files_.port()) + "/nothing\" snapshot=\"http://localhost:" +
      std::to_string(files_.port()) + "/nothing.xml\" codebaseSourceType=\"QS\"/>" +
      Codebase(nginx_->Url("/pkg"), nginx_->Url("/snap/snapshot.xml"));
  const std::string urgent = "priority=\"Normal\" urgentDownload=\"true\" downloadStartSLA=\"1\"";
  struct Case {
    const char* name;
    std::string attributes;
    std::string codebases;
    bool fallback;  // the Quillon Server's list was used
  } cases[] = {
      {"urgent, only the server's own source", urgent, own, true},
      {"not urgent, the same source is an ordinary one", "priority=\"Normal\"", own, false},
      {"urgent, an ordinary source comes first", urgent, ordinaryElsewhere, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RestartEngine();
    fs::remove_all(WorkFolder());
    env_.log->Clear();
    const size_t asked = sources_.Requests().size();
    AnswerSources(publicKey_, c.codebases);
    auto request = Request(c.attributes);
    Engine().QueuePackage(request, false);
    env_.clock->Advance(2 * 60'000);  // past the urgent package's deadline
    RunNextCycle();

    EXPECT_EQ(request->status(), PKGDLV_VALID) << request->statusDescription;
    EXPECT_TRUE(FilesMatchPublished(PackageFolder()));
    EXPECT_EQ(env_.log->Contains("Selecting from QS servers list since SLA is ended for urgent package download."),
              c.fallback);
    ASSERT_EQ(sources_.Requests().size(), asked + 1);
    const bool urgentPackage = c.attributes == urgent;
    EXPECT_EQ(sources_.Requests().back().Param("xml").find("requestQSCodebases=\"true\"") != std::string::npos,
              urgentPackage)
        << "an urgent package asks for the server's own sources";
  }
  EXPECT_EQ(files_.Requests().size(), 0u) << "the server's own source is not tried while an ordinary one serves";
}

TEST_F(DownloadCycleFaultTest, ARemotePackageFetchesOnlyItsSources) {
  AnswerSources(publicKey_);
  auto request = Request("priority=\"Normal\" remote=\"true\"");
  RunOneCycle(request);

  EXPECT_EQ(request->status(), PKGDLV_INVALID);
  EXPECT_EQ(request->statusDescription, "Download package sources completed OK");
  EXPECT_FALSE(Engine().queue().Contains(request->id()));
  EXPECT_EQ(sources_.RequestCount("/QS/GetPackageInfo.aspx"), 1u);
  EXPECT_TRUE(nginx_->AccessLog().empty()) << "neither the snapshot nor a file is fetched";
  EXPECT_FALSE(fs::exists(PackageFolder() / "snapshot.xml"));
  EXPECT_FALSE(fs::exists(PackageFolder() / "readme.txt"));
  std::unique_ptr<PackageRequest> saved = Saved(PackageFolder());
  ASSERT_TRUE(saved);
  EXPECT_EQ(saved->statusDescription, "Download package sources completed OK");
  ASSERT_EQ(saved->codebases.size(), 1u) << "the sources are kept";
  EXPECT_TRUE(env_.log->Contains("Status: Download package sources completed OK."));
}

TEST_F(DownloadCycleFaultTest, UndecryptableSourcesInARowResetTheClientIdentity) {
  env_.settings->Set(kDeliverySettingsKey, "Maximum decrypt failures", SettingValue::Number(3));
  env_.services.decryptor = std::make_shared<RefusingDecryptor>();
  auto client = std::make_shared<FakeClientAgent>();
  env_.services.client = client;
  // An answer that proves its integrity but is encrypted for someone else.
  const std::string sealed("\x17\x03\x03sealed for another identity", 30);
  const auto answerSealed = [&] {
    sources_.AddFile("/QS/GetPackageInfo.aspx", sealed,
                     {{"Content-Type", "application/octet-stream"},
                      {"Content-Hash", Base64Encode(env_.services.crypto->Sha256(AsBytes(sealed)))}});
  };
  const auto failedCycle = [&](bool first, const std::shared_ptr<PackageRequest>& request) {
    if (first) {
      RunOneCycle(request);
    } else {
      AdvancePastRetry();
      RunNextCycle();
    }
    EXPECT_EQ(request->status(), PKGDLV_RETRYING);
    EXPECT_EQ(request->statusDescription, "Unable to decrypt the GetPackageInfo response");
  };
  const auto countLine = [](int n) {
    return "This is a " + std::to_string(n) + " decrypt failure in a row of maximum allowed 3.";
  };

  answerSealed();
  auto request = Request();
  for (int n = 1; n <= 3; ++n) {
    SCOPED_TRACE(n);
    failedCycle(n == 1, request);
    EXPECT_EQ(env_.log->Count(countLine(n)), 1u);
    EXPECT_EQ(client->resets.load(), n == 3 ? 1 : 0);
  }
  EXPECT_TRUE(env_.log->Contains("Decrypting errors are reached the allowed maximum (3). Resetting the Client GUID"));
  EXPECT_EQ(Engine().DecryptFailureCount(), 0u);

  // The run starts again after the reset, and a readable answer ends it.
  env_.log->Clear();
  for (int n = 1; n <= 2; ++n) failedCycle(false, request);
  EXPECT_EQ(env_.log->Count(countLine(2)), 1u);
  AnswerSources(publicKey_);
  AdvancePastRetry();
  RunNextCycle();
  EXPECT_EQ(request->status(), PKGDLV_VALID) << request->statusDescription;
  EXPECT_EQ(Engine().DecryptFailureCount(), 0u);
  EXPECT_EQ(client->resets.load(), 1);
}

}  // namespace
}  // namespace pkgdlv::testing
