#include "records/package_request.h"

#include <gtest/gtest.h>

#include <functional>

#include "records/package_test_support.h"
#include "snapshot/snapshot_builder.h"
#include "support/temp_dir.h"
#include "util/base64.h"
#include "util/error.h"

namespace pkgdlv {
namespace {

using testing::kOtherPackageId;
using testing::kPackageId;
using testing::RecordServices;
using testing::TempDir;

Guid ParseId(const char* text) { return *Guid::Parse(text); }
const std::string kId = kPackageId;

// ---- Names ----

TEST(PackageNamesTest, StatusNamesReadExactlyExceptInvalid) {
  struct Case {
    std::optional<std::string_view> text;
    int32_t status;
    bool warned;
  };
  const Case cases[] = {
      {"valid", PKGDLV_VALID, false},       {"downloading", PKGDLV_DOWNLOADING, false},
      {"pending", PKGDLV_PENDING, false},   {"retrying", PKGDLV_RETRYING, false},
      {"invalid", PKGDLV_INVALID, false},   {"InVaLiD", PKGDLV_INVALID, false},
      {"Valid", PKGDLV_INVALID, true},      {"PENDING", PKGDLV_INVALID, true},
      {"1", PKGDLV_INVALID, true},          {"", PKGDLV_INVALID, true},
      {std::nullopt, PKGDLV_INVALID, true},
  };
  for (const Case& c : cases) {
    testing::RecordingLogger log;
    EXPECT_EQ(ParseStatusName(c.text, log), c.status) << c.text.value_or("(missing)");
    EXPECT_EQ(log.Contains("Invalid package XML: Invalid status: \"invalid\" assumed"), c.warned)
        << c.text.value_or("(missing)");
  }
  testing::RecordingLogger log;
  for (int32_t status : {PKGDLV_VALID, PKGDLV_DOWNLOADING, PKGDLV_PENDING, PKGDLV_RETRYING, PKGDLV_INVALID}) {
    EXPECT_EQ(ParseStatusName(StatusName(status), log), status);
  }
  EXPECT_EQ(StatusName(5), "invalid");
  EXPECT_EQ(StatusName(-1), "invalid");
  EXPECT_TRUE(log.Lines().empty());
}

TEST(PackageNamesTest, PriorityNamesAndNumbers) {
  const std::pair<std::string_view, int32_t> parsed[] = {
      {"7", 7},          {"-10", -10}, {"0010", 10},  {"2147483647", 2147483647},
      {"2147483648", 0}, {" 7", 0},    {"+7", 0},     {"7x", 0},
      {"HIGH", 10},      {"low", -10}, {"Normal", 0}, {"urgent", 0},
      {"", 0},           {"-", 0},
  };
  for (const auto& [text, priority] : parsed) EXPECT_EQ(ParsePriorityName(text), priority) << text;
  const std::pair<int32_t, std::string_view> written[] = {
      {-10, "Low"}, {0, "Normal"}, {10, "High"}, {7, "7"}, {-11, "-11"},
  };
  for (const auto& [priority, text] : written) EXPECT_EQ(PriorityName(priority), text) << priority;
}

// ---- Status ----

TEST(PackageRequestTest, SetStatusDescribesChangesAndAlwaysNotifies) {
  RecordServices services;
  auto record = services.NewRecord();
  record->SetId(ParseId(kPackageId));
  std::vector<std::pair<Guid, int32_t>> told;
  record->SetStatusNotifier([&](const Guid& id, int32_t status) { told.emplace_back(id, status); });

  record->SetStatus(PKGDLV_PENDING, "", true);
  EXPECT_EQ(record->statusDescription, "pending");
  record->SetStatus(PKGDLV_PENDING, "waiting for a slot", false);
  EXPECT_EQ(record->statusDescription, "waiting for a slot");
  record->SetStatus(PKGDLV_PENDING, "", true);  // unchanged, no description: only notifies
  EXPECT_EQ(record->statusDescription, "waiting for a slot");
  record->SetStatus(PKGDLV_VALID, "", true);
  EXPECT_EQ(record->statusDescription, "valid");
  EXPECT_EQ(record->status(), PKGDLV_VALID);

  ASSERT_TRUE(record->LoadFromXml("<Package status=\"downloading\"/>"));
  ASSERT_TRUE(record->LoadFromXml("<Package name=\"no status, no notice\"/>"));

  const Guid id = ParseId(kPackageId);
  std::vector<std::pair<Guid, int32_t>> expected = {
      {id, PKGDLV_PENDING}, {id, PKGDLV_PENDING}, {id, PKGDLV_VALID}, {id, PKGDLV_DOWNLOADING}};
  EXPECT_EQ(told, expected);
}

TEST(PackageRequestTest, IdentifierAndVersionKeepTheirRules) {
  RecordServices services;
  auto record = services.NewRecord();
  EXPECT_TRUE(record->SetId(ParseId(kOtherPackageId))) << "a zero identifier takes any";
  EXPECT_TRUE(record->SetId(ParseId(kOtherPackageId)));
  EXPECT_FALSE(record->SetId(ParseId(kPackageId)));
  EXPECT_EQ(record->id(), ParseId(kOtherPackageId));
  EXPECT_THROW(PackageRequest(services.log, nullptr, services.crypto), Error);
}

// ---- Package key ----

std::string Hex(const PackageKey& key) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  for (uint8_t b : key) {
    out += digits[b >> 4];
    out += digits[b & 15];
  }
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

// ---- Urgent download ----

TEST(PackageRequestTest, SlaRemainingMinutes) {
  struct Case {
    int32_t sla;
    int64_t startedSecondsAgo;  // negative: in the future
    int32_t remaining;
  };
  const Case cases[] = {
      {30, 45 * 60, 0},  {30, 10 * 60, 20}, {30, 10 * 60 + 59, 20}, {30, -300, 30},
      {-1, 45 * 60, -1}, {0, 60, 0},        {5, 5 * 60, 0},         {1, 59, 1},
  };
  for (const Case& c : cases) {
    RecordServices services;
    auto record = services.NewRecord();
    record->downloadStartSLA = c.sla;
    record->SLAStartTime = services.clock->Now() - c.startedSecondsAgo * static_cast<int64_t>(kFileTimeTicksPerSecond);
    EXPECT_EQ(record->GetSlaRemainingMinutes(), c.remaining) << c.sla << " started " << c.startedSecondsAgo << "s ago";
    std::vector<testing::LogLine> lines = services.log->Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].component, "PackageDownload");
    EXPECT_EQ(EffectiveSeverity(lines[0].level), loglevel::kTrace);
    EXPECT_EQ(lines[0].message, "Urgent download SLA remaining minutes: " + std::to_string(c.remaining));
  }
}

TEST(PackageRequestTest, InitUrgentSlaStartsTheClockOfUrgentPackagesOnly) {
  RecordServices services;
  auto record = services.NewRecord();
  record->downloadStartSLA = 30;
  record->InitUrgentSla();
  EXPECT_EQ(record->SLAStartTime, 0u);
  EXPECT_TRUE(services.log->Lines().empty());

  record->urgentDownload = true;
  record->InitUrgentSla();
  EXPECT_EQ(record->SLAStartTime, services.clock->Now());
  EXPECT_EQ(services.Messages(loglevel::kInfo),
            std::vector<std::string>{
                "Initializing the SLA start time 2026-01-01 00:00:00 for urgent package. Timeout 30 minutes."});
}

// ---- Size, equality, storage ----

TEST(PackageRequestTest, SizeFallsBackToTheSnapshotsTotal) {
  RecordServices services;
  auto record = services.NewRecord();
  SnapshotEntry folder, a, b, unknown;
  folder.folder = "sub";
  folder.size = 0;
  a.name = "a";
  a.size = 100;
  b.name = "b";
  b.folder = "sub";
  b.size = 23;
  unknown.name = "u";
  record->snapshot().entries = {folder, a, b, unknown};
  EXPECT_EQ(record->GetSize(), 123u);
  record->size = 7;
  EXPECT_EQ(record->GetSize(), 7u);
  record->location = "\\srv\\pkg";
  EXPECT_EQ(record->GetSize(), 123u) << "a locally managed package's size is always its files'";
}

TEST(PackageRequestTest, EqualityComparesTheListedFieldsOnly) {
  RecordServices services;
  using Change = std::function<void(PackageRequest&)>;
  // One field of each kind: text, number, flag, set through a method, inside a codebase.
  const std::pair<const char*, Change> compared[] = {
      {"name", [](PackageRequest& r) { r.name = "x"; }},
      {"version", [](PackageRequest& r) { r.SetVersion(2); }},
      {"status", [](PackageRequest& r) { r.SetStatus(PKGDLV_VALID, "", false); }},
      {"codebases", [](PackageRequest& r) { r.codebases[0].packageServer = true; }},
      {"location", [](PackageRequest& r) { r.location = "\\l"; }},
      {"optionalHashCheck", [](PackageRequest& r) { r.SetOptionalHashCheck(true); }},
      {"enableMulticast", [](PackageRequest& r) { r.enableMulticast = false; }},
      {"downloadStartSLA", [](PackageRequest& r) { r.downloadStartSLA = 5; }},
  };
  const std::pair<const char*, Change> ignored[] = {
      {"statusDescription", [](PackageRequest& r) { r.statusDescription = "d"; }},
      {"password", [](PackageRequest& r) { r.SetUserAccessPassword("p"); }},
      {"timeoutExceeded", [](PackageRequest& r) { r.timeoutExceeded = true; }},
      {"serverDescription", [](PackageRequest& r) { r.codebases[0].serverDescription = "s"; }},
  };
  auto base = services.NewRecord();
  base->codebases.push_back(CodebaseEntry());
  base->codebases[0].location = "http://a";
  for (const auto& [field, change] : compared) {
    auto other = services.NewRecord();
    other->codebases = base->codebases;
    EXPECT_TRUE(*base == *other);
    change(*other);
    EXPECT_FALSE(*base == *other) << field;
  }
  for (const auto& [field, change] : ignored) {
    auto other = services.NewRecord();
    other->codebases = base->codebases;
    change(*other);
    EXPECT_TRUE(*base == *other) << field;
  }
}

TEST(PackageRequestTest, CreateStorageAreaMakesThePackageFolder) {
  RecordServices services;
  TempDir dir;
  auto record = services.NewRecord();
  record->SetId(ParseId(kPackageId));
  EXPECT_TRUE(record->CreateStorageArea(dir / "work" / kPackageId));
  EXPECT_TRUE(std::filesystem::is_directory(dir / "work" / kPackageId));
  EXPECT_EQ(record->packageFolder(), (dir / "work" / kPackageId).string());

  testing::WriteFile(dir / "file", "x");
  EXPECT_FALSE(record->CreateStorageArea(dir / "file" / "pkg"));
  EXPECT_EQ(record->packageFolder(), (dir / "work" / kPackageId).string());
  EXPECT_EQ(services.Messages(loglevel::kError),
            std::vector<std::string>{"Cannot create storage area for package: " + kId +
                                     ". Error: Not a directory (0x00000014)"});
}

// ---- Snapshot trust ----

TEST(PackageRequestTest, IsSnapshotValidDecidesAndLogs) {
  struct Case {
    const char* name;
    std::function<void(PackageRequest&)> setup;
    bool valid;
    std::string info;  // the one info line when asked to log; empty: none
    bool logsAlways;   // the line is written when not asked to log too
  };
  const std::string unsignedLine = "Snapshot signature is empty for package: '" + kId + "'";
  const Case cases[] = {
      {"NoFolder", [](PackageRequest& r) { r.snapshot().path.clear(); }, false, "Snapshot path is empty", false},
      {"RequestsOwnSnapshot", [](PackageRequest& r) { r.hasSnapshot = true; r.SetVersion(9); }, true, "", false},
      {"NoIdentifier", [](PackageRequest& r) { r.snapshot().id = Guid(); r.SetVersion(0); }, false,
       "Snapshot ID is empty", false},
      {"NoVersion", [](PackageRequest& r) { r.SetVersion(0); }, false, "Package version is empty", false},
      {"PackageNewer", [](PackageRequest& r) { r.SetVersion(4); }, false,
       "Package version (4) is greater than Snapshot version (3)", false},
      {"SnapshotNewer", [](PackageRequest& r) { r.SetVersion(2); }, false,
       "Snapshot version (3) is greater than Package version (2)", true},
      {"EqualVersionsCheckTheSignature", [](PackageRequest&) {}, true, "", false},
      {"UnsignedWithoutPermission", [](PackageRequest& r) { r.SetOptionalHashCheck(false); }, false, unsignedLine, true},
  };
  for (const Case& c : cases) {
    for (bool log : {true, false}) {
      SCOPED_TRACE(std::string(c.name) + (log ? " logged" : " quiet"));
      RecordServices services;
      auto record = services.NewRecord();
      record->SetId(ParseId(kPackageId));
      record->SetVersion(3);
      record->snapshot().version = 3;
      record->snapshot().path = "/srv/pkg";
      record->SetOptionalHashCheck(true);  // an unsigned snapshot may pass: the last step is the signature check
      c.setup(*record);
      EXPECT_EQ(record->IsSnapshotValid(log), c.valid);
      std::vector<std::string> expected;
      if (!c.info.empty() && (log || c.logsAlways)) expected.push_back(c.info);
      EXPECT_EQ(services.Messages(loglevel::kInfo), expected);
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
  Snapshot signed_;
  Snapshot unsignedLine;
};

TEST_F(CheckSnapshotSignatureTest, UnsignedSnapshot) {
  record_->siteQueryType = "packageServers";
  record_->SetOptionalHashCheck(true);
  EXPECT_FALSE(record_->CheckSnapshotSignature(unsignedLine)) << "a package server's package must be signed";
  EXPECT_EQ(services_.Messages(loglevel::kTrace),
            std::vector<std::string>{"Snapshot signature is empty for Package Server's package."});

  services_.log->Clear();
  record_->siteQueryType = "PackageServers";  // the query type is compared exactly
  EXPECT_TRUE(record_->CheckSnapshotSignature(unsignedLine));
  EXPECT_EQ(services_.Messages(loglevel::kTrace),
            std::vector<std::string>{
                "Skip snapshot signature check: we have legacy codebases and QS permission to skip the check."});
}

TEST_F(CheckSnapshotSignatureTest, SignedSnapshotAgainstTheKey) {
  struct Case {
    std::string key;
    bool valid;
    uint32_t severity;    // of the record's own line; 0: none
    std::string message;  // the record's own line
  };
  const std::string good = PublicKey(0);
  const Case cases[] = {
      {good, true, 0, ""},
      {good.substr(0, 20) + "\n " + good.substr(20), true, 0, ""},  // white space in the key text
      {PublicKey(1), false, loglevel::kInfo, "Snapshot signature is not valid for package: '" + kId + "'"},
      {"AAAA", false, loglevel::kInfo, "Snapshot signature is not valid for package: '" + kId + "'"},
      {"not*base64", false, loglevel::kWarning,
       "Failed to decode Base64 Data while snapshot validity check for package: '" + kId + "'"},
      {"", false, loglevel::kInfo, "Snapshot signature is empty for package: '" + kId + "'"},
  };
  for (const Case& c : cases) {
    services_.log->Clear();
    record_->sourceKey = c.key;
    record_->SetOptionalHashCheck(true);  // a signature, when there is one, is always checked
    EXPECT_EQ(record_->CheckSnapshotSignature(signed_), c.valid) << c.key;
    std::vector<std::string> lines;
    for (const testing::LogLine& line : services_.log->Lines()) {
      if (line.component != "PackageRequest") continue;
      lines.push_back(line.message);
      EXPECT_EQ(EffectiveSeverity(line.level), c.severity) << c.key;
    }
    EXPECT_EQ(lines, c.message.empty() ? std::vector<std::string>{} : std::vector<std::string>{c.message}) << c.key;
  }
}

}  // namespace
}  // namespace pkgdlv
