#include "records/package_request.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <functional>

#include "records/package_test_support.h"
#include "snapshot/snapshot_builder.h"
#include "snapshot/validation.h"
#include "support/temp_dir.h"
#include "util/error.h"
#include "util/format.h"

namespace pkgdlv {
namespace {

using testing::kPackageId;
using testing::RecordServices;
using testing::TempDir;

Guid ParseId(const char* text) { return *Guid::Parse(text); }
const std::string kId = kPackageId;

TEST(PackageRequestTest, SetStatusDescribesChangesAndAlwaysNotifies) {
  RecordServices services;
  auto record = services.NewRecord();
  record->SetId(ParseId(kPackageId));
  std::vector<std::pair<Guid, int32_t>> told;
  record->SetStatusNotifier([&](const Guid& id, int32_t status) { told.emplace_back(id, status); });

  using Status = std::pair<int32_t, std::string>;
  const auto set = [&](int32_t status, const char* description, bool notify) {
    record->SetStatus(status, description, notify);
    return Status(record->status(), record->statusDescription);
  };
  EXPECT_EQ(set(PKGDLV_PENDING, "", true), Status(PKGDLV_PENDING, "pending"));
  EXPECT_EQ(set(PKGDLV_PENDING, "waiting for a slot", false).second, "waiting for a slot");
  // Unchanged, without a description: only notifies.
  EXPECT_EQ(set(PKGDLV_PENDING, "", true).second, "waiting for a slot");
  EXPECT_EQ(set(PKGDLV_VALID, "", true), Status(PKGDLV_VALID, "valid"));

  ASSERT_TRUE(record->LoadFromXml("<Package status=\"downloading\"/>"));
  ASSERT_TRUE(record->LoadFromXml("<Package name=\"no status, no notice\"/>"));

  const Guid id = ParseId(kPackageId);
  EXPECT_EQ(told, (std::vector<std::pair<Guid, int32_t>>{
                      {id, PKGDLV_PENDING}, {id, PKGDLV_PENDING}, {id, PKGDLV_VALID}, {id, PKGDLV_DOWNLOADING}}));
}

std::string Hex(const PackageKey& key) {
  std::string out;
  for (uint8_t b : key) out += Format("%02x", b);
  return out;
}

TEST(PackageRequestTest, PackageKeyDigestsIdentifierAndVersion) {
  RecordServices services;
  auto record = services.NewRecord();
  record->SetId(ParseId(kPackageId));
  record->SetVersion(5);
  // SHA-1 of 1A4E2F8C 3D0B 5E4F 9A7B1C2D3E4F5A6B 05000000: the identifier's
  // first three groups little-endian, then the version little-endian.
  EXPECT_EQ(Hex(record->GetPackageKey()), "85a676f9d62b308afd9fc34f81a3e8dd07a1c29d");
  record->SetVersion(6);
  EXPECT_EQ(Hex(record->GetPackageKey()), "606007c718b1da8ce4cdedcd27bca483da3ad333") << "a new version, a new key";
}

// Each reason is logged when asked to, and the last two always.
TEST(PackageRequestTest, IsSnapshotValidDecidesAndLogs) {
  using Setup = std::function<void(PackageRequest&)>;
  const std::tuple<Setup, bool, std::string, bool> cases[] = {  // setup, valid, the info line, logged always
      {[](PackageRequest& r) { r.snapshot().path.clear(); }, false, "Snapshot path is empty", false},
      {[](PackageRequest& r) { r.hasSnapshot = true, r.SetVersion(9); }, true, "", false},  // the request's own
      {[](PackageRequest& r) { r.snapshot().id = Guid(), r.SetVersion(0); }, false, "Snapshot ID is empty", false},
      {[](PackageRequest& r) { r.SetVersion(0); }, false, "Package version is empty", false},
      {[](PackageRequest& r) { r.SetVersion(4); }, false, "Package version (4) is greater than Snapshot version (3)",
       false},
      {[](PackageRequest& r) { r.SetVersion(2); }, false, "Snapshot version (3) is greater than Package version (2)",
       true},
      {[](PackageRequest&) {}, true, "", false},  // equal versions: the signature decides
      {[](PackageRequest& r) { r.SetOptionalHashCheck(false); }, false,
       "Snapshot signature is empty for package: '" + kId + "'", true},
  };
  for (const auto& [setup, valid, info, always] : cases) {
    for (bool log : {true, false}) {
      SCOPED_TRACE(info + (log ? " logged" : " quiet"));
      RecordServices services;
      auto record = services.NewRecord();
      record->SetId(ParseId(kPackageId));
      record->SetVersion(3);
      record->snapshot().version = 3;
      record->snapshot().path = "/srv/pkg";
      record->SetOptionalHashCheck(true);  // an unsigned snapshot may pass: the last step is the signature check
      setup(*record);
      EXPECT_EQ(record->IsSnapshotValid(log), valid);
      EXPECT_EQ(services.Messages(loglevel::kInfo),
                info.empty() || !(log || always) ? std::vector<std::string>{} : std::vector<std::string>{info});
    }
  }
}

// The key kinds are the crypto tests' concern; one kind suffices here.
class CheckSnapshotSignatureTest : public ::testing::Test {
 protected:
  void SetUp() override {
    testing::WriteFile(dir_ / "pkg" / "a.txt", "contents");
    BuildSnapshotFromFolder(dir_ / "pkg", {}, signed_);
    signed_.id = ParseId(kPackageId);
    signed_.version = 1;
    std::filesystem::create_directories(dir_ / "docs");
    ASSERT_TRUE(signed_.SaveSnapshot(dir_ / "docs" / "snapshot.xml", *services_.crypto, testing::TestKey("EC")));
    ASSERT_FALSE(signed_.signature.empty());
    record_->SetId(ParseId(kPackageId));
  }
  std::string PublicKey(int index) {
    return services_.crypto->PublicKeyBase64FromPrivateKey(testing::TestKey("EC", index));
  }

  TempDir dir_;
  RecordServices services_;
  std::unique_ptr<PackageRequest> record_ = services_.NewRecord();
  Snapshot signed_, unsigned_;
};

TEST_F(CheckSnapshotSignatureTest, UnsignedSnapshot) {
  record_->siteQueryType = "packageServers";
  record_->SetOptionalHashCheck(true);
  EXPECT_FALSE(record_->CheckSnapshotSignature(unsigned_)) << "a package server's package must be signed";
  record_->siteQueryType = "PackageServers";  // the query type is compared exactly
  EXPECT_TRUE(record_->CheckSnapshotSignature(unsigned_));
  EXPECT_EQ(services_.Messages(loglevel::kTrace),
            (std::vector<std::string>{
                "Snapshot signature is empty for Package Server's package.",
                "Skip snapshot signature check: we have legacy codebases and QS permission to skip the check."}));
}

TEST_F(CheckSnapshotSignatureTest, SignedSnapshotAgainstTheKey) {
  const std::string good = PublicKey(0), invalid = "Snapshot signature is not valid for package: '" + kId + "'";
  const std::tuple<std::string, bool, uint32_t, std::string> cases[] = {  // key, valid, the record's own line
      {good, true, 0, ""},
      {good.substr(0, 20) + "\n " + good.substr(20), true, 0, ""},  // white space in the key text
      {PublicKey(1), false, loglevel::kInfo, invalid},
      {"AAAA", false, loglevel::kInfo, invalid},
      {"not*base64", false, loglevel::kWarning,
       "Failed to decode Base64 Data while snapshot validity check for package: '" + kId + "'"},
      {"", false, loglevel::kInfo, "Snapshot signature is empty for package: '" + kId + "'"},
  };
  for (const auto& [key, valid, severity, message] : cases) {
    SCOPED_TRACE(key);
    services_.log->Clear();
    record_->sourceKey = key;
    record_->SetOptionalHashCheck(true);  // a signature, when there is one, is always checked
    EXPECT_EQ(record_->CheckSnapshotSignature(signed_), valid);
    std::vector<std::pair<uint32_t, std::string>> lines, want;
    for (const testing::LogLine& line : services_.log->Lines()) {
      if (line.component == "PackageRequest") lines.emplace_back(EffectiveSeverity(line.level), line.message);
    }
    if (!message.empty()) want.emplace_back(severity, message);
    EXPECT_EQ(lines, want);
  }
}

// ---- The status decided from the files

using Outcome = std::pair<int32_t, std::string>;
const Outcome kUpToDate{PKGDLV_VALID, "Package is up to date"};
const Outcome kNeedsFiles{PKGDLV_INVALID, "Some files need to be updated"};

class CheckStatusTest : public ::testing::Test {
 protected:
  void SetUp() override {
    testing::WriteFile(dir_ / "pkg" / "a.bin", std::string(10'000, 'a'));
    testing::WriteFile(dir_ / "pkg" / "sub" / "b.txt", "second file");
    record_->SetId(*Guid::Parse(testing::kPackageId));
    record_->SetVersion(1);
    auto lock = record_->Lock();
    Snapshot& snapshot = record_->snapshot();
    SnapshotBuildOptions options;
    options.blockSize = 4096;
    BuildSnapshotFromFolder(dir_ / "pkg", options, snapshot);
    snapshot.path = (dir_ / "pkg").string();
    snapshot.version = 1;
    for (SnapshotEntry& entry : snapshot.entries) entry.state = entrystate::kNotChecked;  // as after a load
    record_->hasSnapshot = true;
  }

  Outcome Check(bool full, bool skipHash) {
    record_->SetStatus(PKGDLV_VALID, "", false);
    const int32_t status = record_->CheckStatus(full, skipHash, validator_);
    return {status, record_->statusDescription};
  }

  testing::TempDir dir_;
  testing::RecordServices services_;
  std::unique_ptr<PackageRequest> record_ = services_.NewRecord();
  Validator validator_;
};

TEST_F(CheckStatusTest, ChangedBytesAreFoundByHashingOnlyAndMissingFilesByEveryCheck) {
  EXPECT_EQ(Check(/*full=*/true, /*skipHash=*/false), kUpToDate);
  // One byte changed in place, its time stamp put back: only hashing can tell.
  const auto path = dir_ / "pkg" / "a.bin";
  struct stat before {};
  ASSERT_EQ(stat(path.c_str(), &before), 0);
  testing::WriteFile(path, std::string(5000, 'a') + "X" + std::string(4999, 'a'));
  const timespec times[2] = {before.st_atim, before.st_mtim};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);

  EXPECT_EQ(Check(/*full=*/false, /*skipHash=*/true), kUpToDate) << "size and time are trusted";
  EXPECT_EQ(Check(/*full=*/true, /*skipHash=*/false), kNeedsFiles);
  EXPECT_EQ(Check(/*full=*/false, /*skipHash=*/false), kNeedsFiles);
  // When the server allows it the full check is skipped: the quick check trusts size and time.
  record_->SetOptionalHashCheck(true);
  EXPECT_EQ(Check(/*full=*/true, /*skipHash=*/true), kUpToDate);

  record_->SetOptionalHashCheck(false);
  std::filesystem::remove(dir_ / "pkg" / "sub" / "b.txt");
  for (bool full : {false, true}) EXPECT_EQ(Check(full, !full), kNeedsFiles) << full;
}

TEST_F(CheckStatusTest, UntrustedSnapshotAndDisabledDownloads) {
  record_->hasSnapshot = false;  // now the signature decides, and there is none
  EXPECT_EQ(Check(true, false), Outcome(PKGDLV_INVALID, "Snapshot is invalid or out of date"));
  record_->clientDownloadsDisabled = true;
  EXPECT_EQ(Check(true, false), Outcome(PKGDLV_INVALID, "Codebases need to be received from the Quillon Server"));

  // With downloads disabled a trusted snapshot makes the package valid even
  // when files are missing: nothing could fetch them anyway.
  record_->hasSnapshot = true;
  std::filesystem::remove(dir_ / "pkg" / "a.bin");
  EXPECT_EQ(Check(false, false), kUpToDate);
}

}  // namespace
}  // namespace pkgdlv
