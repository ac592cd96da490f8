#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <functional>

#include "records/package_request.h"
#include "records/package_test_support.h"
#include "snapshot/snapshot_builder.h"
#include "support/temp_dir.h"
#include "util/error.h"
#include "util/xml.h"

namespace pkgdlv {
namespace {

using testing::kOtherPackageId;
using testing::kPackageId;
using testing::RecordServices;
using testing::TempDir;

std::string Doc(const std::string& attributes, const std::string& children = "") {
  return "<Package " + attributes + ">" + children + "</Package>";
}
std::string IdAttr(const char* id = kPackageId) { return std::string("id=\"") + id + "\" "; }
Guid ParseId(const char* text) { return *Guid::Parse(text); }

// ---- LoadFromXml: edge cases and hostile documents ----

struct LoadCase {
  std::string name;
  std::string text;
  bool loaded;
  std::string warning;  // the one warning expected; empty: no warning at all
  std::function<void(PackageRequest&)> check = [](PackageRequest&) {};
  std::function<void(PackageRequest&)> setup = [](PackageRequest& r) { r.SetId(ParseId(kPackageId)); };
};

class LoadFromXmlTest : public ::testing::TestWithParam<LoadCase> {};

TEST_P(LoadFromXmlTest, LoadsOrRefuses) {
  const LoadCase& c = GetParam();
  RecordServices services;
  auto record = services.NewRecord();
  c.setup(*record);
  EXPECT_EQ(record->LoadFromXml(c.text), c.loaded);
  std::vector<std::string> warnings = services.Messages(loglevel::kWarning);
  if (c.warning.empty()) {
    EXPECT_TRUE(warnings.empty()) << warnings.front();
  } else {
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_EQ(warnings[0].substr(0, c.warning.size()), c.warning);
  }
  c.check(*record);
}

const LoadCase kEdgeCases[] = {
    {"EmptyTextChangesNothing", "", true, "",
     [](PackageRequest& r) {
       RecordServices other;
       auto fresh = other.NewRecord();
       fresh->SetId(ParseId(kPackageId));
       EXPECT_EQ(r.ToXml(), fresh->ToXml());
     }},
    {"OtherIdRefused", Doc(IdAttr(kOtherPackageId) + "name=\"n\""), false,
     "Invalid Package XML: Attempt to change package ID",
     [](PackageRequest& r) {
       EXPECT_EQ(r.id(), ParseId(kPackageId));
       EXPECT_EQ(r.name, "");
     }},
    {"ZeroIdAcceptsAnyId", Doc(IdAttr(kOtherPackageId)), true, "",
     [](PackageRequest& r) { EXPECT_EQ(r.id(), ParseId(kOtherPackageId)); }, [](PackageRequest&) {}},
    {"ChangedStatusReplacesDescription", Doc(IdAttr() + "status=\"retrying\" statusDescription=\"why\""), true, "",
     [](PackageRequest& r) {
       EXPECT_EQ(r.status(), PKGDLV_RETRYING);
       EXPECT_EQ(r.statusDescription, "retrying");
     }},
    {"SameStatusKeepsDescription", Doc(IdAttr() + "status=\"invalid\" statusDescription=\"why\""), true, "",
     [](PackageRequest& r) { EXPECT_EQ(r.statusDescription, "why"); }},
    {"MulticastAbsentMeansOn", Doc(IdAttr()), true, "", [](PackageRequest& r) { EXPECT_TRUE(r.enableMulticast); },
     [](PackageRequest& r) {
       r.SetId(ParseId(kPackageId));
       r.enableMulticast = false;
     }},
    {"EmptyHrefFailsTheParse", Doc(IdAttr(), "<Source><Codebase href=\"http://a/p\"/><Codebase href=\"\"/></Source>"),
     false, "Invalid package XML: source requires a href or unc attribute with a value"},
    {"VersionAbsentTakesTheSnapshots", Doc(IdAttr()), true, "", [](PackageRequest& r) { EXPECT_EQ(r.version(), 4); },
     [](PackageRequest& r) {
       r.SetId(ParseId(kPackageId));
       r.snapshot().version = 4;
     }},
    {"OptionalAttributesOnlyWhenPresent", Doc(IdAttr()), true, "",
     [](PackageRequest& r) {
       EXPECT_TRUE(r.urgentDownload);
       EXPECT_EQ(r.downloadStartSLA, 12);
     },
     [](PackageRequest& r) {
       r.SetId(ParseId(kPackageId));
       r.urgentDownload = true;
       r.downloadStartSLA = 12;
     }},
    {"FileStoreFixesTheStore", Doc(IdAttr() + "fileStore=\"/srv/pkgs//p1/\""), true, "",
     [](PackageRequest& r) {
       EXPECT_TRUE(r.fixedStore);
       EXPECT_EQ(r.packageFolder(), "/srv/pkgs/p1");
       EXPECT_EQ(r.snapshot().deleteInvalidOnly, 1u);
     }},
    {"FixedStoreAttributeOverrides", Doc(IdAttr() + "fileStore=\"/srv/p1\" fixedStore=\"false\""), true, "",
     [](PackageRequest& r) {
       EXPECT_FALSE(r.fixedStore);
       EXPECT_EQ(r.packageFolder(), "/srv/p1");
       EXPECT_EQ(r.snapshot().deleteInvalidOnly, 0u);
     }},
    {"SiteQueryTypeFromRoot", Doc(IdAttr() + "type=\"special\"", "<Source><SiteQuery url=\"http://qs/q\"/></Source>"),
     true, "", [](PackageRequest& r) { EXPECT_EQ(r.siteQueryType, "special"); }},
    {"SiteQueryTypeDefault", Doc(IdAttr(), "<Source><SiteQuery url=\"http://qs/q\" resource=\"r\"/></Source>"), true,
     "",
     [](PackageRequest& r) {
       EXPECT_EQ(r.siteQueryResource, "r");
       EXPECT_EQ(r.siteQueryType, "codebases");
     }},
};
INSTANTIATE_TEST_SUITE_P(EdgeCases, LoadFromXmlTest, ::testing::ValuesIn(kEdgeCases),
                         [](const auto& info) { return info.param.name; });

std::string Nested(int depth) {
  std::string open, close;
  for (int i = 0; i < depth; ++i) {
    open += "<a>";
    close += "</a>";
  }
  return open + close;
}

const LoadCase kHostileCases[] = {
    {"NotXml", "<Package id=", false, "Invalid package XML: XML failed to load"},
    {"WrongRoot", "<package " + IdAttr() + "/>", false, "Invalid package XML: Incorrect root element"},
    {"BadGuid", Doc("id=\"{not-a-guid}\""), false, "Invalid package XML: Invalid package ID '{not-a-guid}'"},
    {"HugeAttribute", Doc(IdAttr() + "name=\"" + std::string(xml::kMaxDocumentBytes, 'x') + "\""), false,
     "Invalid package XML: XML failed to load", [](PackageRequest& r) { EXPECT_EQ(r.name, ""); }},
    {"EntityDeclaration", "<!DOCTYPE Package [<!ENTITY e \"x\">]>" + Doc(IdAttr() + "name=\"&e;\""), false,
     "Invalid package XML: XML failed to load"},
    {"DeepNesting", Doc(IdAttr(), Nested(400)), false, "Invalid package XML: XML failed to load"},
    {"RelativeFileStore", Doc(IdAttr() + "fileStore=\"pkgs/p1\""), false,
     "Invalid package XML: fileStore is not an absolute folder path: 'pkgs/p1'"},
    {"ClimbingFileStore", Doc(IdAttr() + "fileStore=\"/srv/pkgs/../../etc\""), false,
     "Invalid package XML: fileStore is not an absolute folder path",
     [](PackageRequest& r) {
       EXPECT_FALSE(r.fixedStore);
       EXPECT_EQ(r.packageFolder(), "");
     }},
    {"RootFileStore", Doc(IdAttr() + "fileStore=\"//\""), false,
     "Invalid package XML: fileStore is not an absolute folder path"},
    {"ControlCharacterFileStore", Doc(IdAttr() + "fileStore=\"/srv/a&#9;b\""), false,
     "Invalid package XML: fileStore is not an absolute folder path: '/srv/a?b'"},
    {"ClimbingLocalManaged", Doc(IdAttr(), "<LocalManaged location=\"\\srv\\..\\..\\etc\"/>"), false,
     "Invalid package XML: LocalManaged location is not an absolute folder path",
     [](PackageRequest& r) { EXPECT_EQ(r.location, ""); }},
    {"MissingLocalManagedFolder", Doc(IdAttr(), "<LocalManaged location=\"/no/such/pkgdlv/folder\"/>"), false,
     "Cannot build the snapshot of Local Managed package '" + std::string(kPackageId) + "'"},
    {"SnapshotOfAnotherPackage",
     Doc(IdAttr(), std::string("<Snapshot id=\"") + kOtherPackageId +
                       "\" version=\"1\" time=\"2026-01-01T00:00:00\"><Root size=\"0\"/></Snapshot>"),
     false, "Invalid Package XML: Attempt to change package ID",
     [](PackageRequest& r) {
       EXPECT_EQ(r.id(), ParseId(kPackageId));
       EXPECT_FALSE(r.hasSnapshot);
     }},
    {"SnapshotAndSecurityDataOfTwoPackages",
     Doc("", std::string("<Snapshot id=\"") + kPackageId +
                 "\" version=\"1\" time=\"2026-01-01T00:00:00\"><Root size=\"0\"/></Snapshot><SnapshotData id=\"" +
                 kOtherPackageId + "\"><Security signature=\"QUJD\"/></SnapshotData>"),
     false, "Invalid Package XML: Attempt to change package ID",
     [](PackageRequest& r) { EXPECT_FALSE(r.hasSnapshot); },
     [](PackageRequest&) {}},  // a record without an identifier yet
    {"SecurityDataCannotMoveThePackage",
     Doc(IdAttr() + "fileStore=\"/srv/p1\"",
         "<Snapshot version=\"1\" time=\"2026-01-01T00:00:00\"><Root size=\"0\"/></Snapshot>"
         "<SnapshotData path=\"/etc\"><Security signature=\"QUJD\"/></SnapshotData>"),
     true, "",
     [](PackageRequest& r) {
       EXPECT_EQ(r.packageFolder(), "/srv/p1");
       EXPECT_EQ(r.snapshot().signature, "QUJD");
       EXPECT_TRUE(r.hasSnapshot);
     }},
};
INSTANTIATE_TEST_SUITE_P(Hostile, LoadFromXmlTest, ::testing::ValuesIn(kHostileCases),
                         [](const auto& info) { return info.param.name; });

// ---- Writing ----

TEST(PackageDocumentTest, WritesAttributesAndChildrenInTheirOrder) {
  RecordServices services;
  auto record = services.NewRecord();
  ASSERT_TRUE(record->LoadFromXml(
      Doc(IdAttr() + "type=\"ignored\" fileStore=\"/srv/pkg\" sourceKey=\"QUJD\" SLAStartTime=\"2026-01-01T00:00:00\" "
                     "downloadStartSLA=\"30\" urgentDownload=\"true\" clientDownloadsDisabled=\"false\" "
                     "optionalHashCheck=\"true\" enableMulticast=\"false\" minspeed=\"64\" status=\"pending\" "
                     "priority=\"-10\" remote=\"yes\" version=\"3\" size=\"1048576\" name=\"Office &amp; Tools\"",
          "<Source time=\"2025-12-31T23:00:00\">"
          "<SiteQuery url=\"http://qs/Q.aspx\" resource=\"r1\" type=\"packageServers\"/>"
          "<Codebase href=\"http://ps1/PS/Share/p\" snapshot=\"http://ps1/snap.xml\"/>"
          "<Codebase unc=\"\\\\srv\\share\\p\"/>"
          "<Codebase url=\"file:///C:/pkgs/p%20q\"/>"
          "<Codebase href=\"FILE://host/share/x\" snapshot=\"file://host/share/x/snapshot.xml\"/>"
          "</Source>")));
  record->UserAccessName = "DOM\\user";
  record->SetUserAccessPassword("s3cret");

  const std::string expected =
      std::string(R"(<?xml version="1.0" encoding="UTF-8"?>
<Package id=")") +
      kPackageId +
      R"(" name="Office &amp; Tools" size="1048576" version="3" remote="true" priority="Low" status="pending" minspeed="64" enableMulticast="false" statusDescription="pending" UserAccessName="DOM\user" UserAccessPassword="s3cret" optionalHashCheck="true" clientDownloadsDisabled="false" urgentDownload="true" downloadStartSLA="30" SLAStartTime="2026-01-01T00:00:00" sourceKey="QUJD" fileStore="/srv/pkg">
  <Source time="2025-12-31T23:00:00">
    <SiteQuery url="http://qs/Q.aspx" resource="r1" type="packageServers"/>
    <Codebase href="http://ps1/PS/Share/p" snapshot="http://ps1/snap.xml"/>
    <Codebase unc="\\srv\share\p"/>
    <Codebase unc="\\\C:\pkgs\p q"/>
    <Codebase unc="\\host\share\x" snapshot="\\host\share\x\snapshot.xml"/>
  </Source>
</Package>
)";
  EXPECT_EQ(record->ToXml(), expected);

  std::string masked = record->ToXml(PackageRequest::PasswordForm::kMasked);
  EXPECT_NE(masked.find(" UserAccessPassword=\"********\" "), std::string::npos);
  EXPECT_EQ(masked.find("s3cret"), std::string::npos);
}

TEST(PackageDocumentTest, LeavesOutWhatIsUnsetAndWritesTheDefaults) {
  RecordServices services;
  auto record = services.NewRecord();
  record->SetId(ParseId(kPackageId));
  record->SetUserAccessPassword("never written without a user name");
  EXPECT_EQ(
      record->ToXml(),
      std::string(R"(<?xml version="1.0" encoding="UTF-8"?>
<Package id=")") +
          kPackageId +
          R"(" name="" size="0" version="1" remote="false" priority="Normal" status="invalid" minspeed="0" enableMulticast="true" statusDescription="" optionalHashCheck="false" clientDownloadsDisabled="false" sourceKey="">
  <Source/>
</Package>
)");
}

// The snapshot of a folder, signed with a key made for the test.
struct SignedSnapshot {
  TempDir dir;
  std::filesystem::path key = testing::TestKey("EC");
  Snapshot snapshot;

  explicit SignedSnapshot(Crypto& crypto) {
    testing::WriteFile(dir / "pkg" / "readme.txt", "hello");
    testing::WriteFile(dir / "pkg" / "Ünïcode ✓" / "data.bin", std::string(3000, 'd'));
    SnapshotBuildOptions options;
    options.blockSize = 1024;
    BuildSnapshotFromFolder(dir / "pkg", options, snapshot);
    snapshot.id = ParseId(kPackageId);
    snapshot.version = 3;
    snapshot.time = *ParseDocumentTime("2026-01-02T03:04:05");
    snapshot.path = (dir / "pkg").string();
    std::filesystem::create_directories(dir / "docs");
    if (!snapshot.SaveSnapshot(dir / "docs" / "snapshot.xml", crypto, key) || snapshot.signature.empty()) {
      throw std::runtime_error("cannot sign the test snapshot");
    }
  }
};

TEST(PackageDocumentTest, PackageXmlReadAndWrittenAgainIsTheSameText) {
  RecordServices services;
  SignedSnapshot signedSnapshot(*services.crypto);
  const Snapshot& snapshot = signedSnapshot.snapshot;
  auto first = services.NewRecord();
  ASSERT_TRUE(first->LoadFromXml(
      Doc(IdAttr() + "name=\"Ünïcode ✓ &lt;&amp;&gt;\" version=\"3\" statusDescription=\"two&#10;lines\tand tab\" "
                     "urgentDownload=\"1\" downloadStartSLA=\"0\" SLAStartTime=\"2026-01-01T00:00:00\" priority=\"3\"",
          snapshot.ComposeXml() + snapshot.ComposeSecurityData() +
              "<Source time=\"2026-01-01T00:00:00\"><Codebase href=\"http://ps/PS/Share/p?a=1&amp;b=2\"/>"
              "<Codebase unc=\"//srv/PkgSvrHost/p\" snapshot=\"file:///mnt/p/s.xml\"/></Source>")));
  ASSERT_TRUE(first->hasSnapshot);

  const std::string written = first->ToXml();
  auto second = services.NewRecord();
  ASSERT_TRUE(second->LoadFromXml(written)) << written;
  EXPECT_EQ(second->ToXml(), written);
  EXPECT_TRUE(*first == *second);

  // The embedded snapshot came back whole: entries, signature, block hashes.
  const Snapshot& reread = second->snapshot();
  EXPECT_EQ(reread.entries, snapshot.entries);
  EXPECT_EQ(reread.signature, snapshot.signature);
  Snapshot withHashes = reread;
  ASSERT_TRUE(withHashes.LoadBlockHashes());
  EXPECT_EQ(withHashes.FindEntry("Ünïcode ✓", "data.bin")->blockHashes,
            snapshot.FindEntry("Ünïcode ✓", "data.bin")->blockHashes);
  ASSERT_TRUE(second->CreateStorageArea(signedSnapshot.dir / "store"));
  EXPECT_TRUE(second->IsSnapshotValid(true)) << "a request's own snapshot is trusted once it has a folder";
}

TEST(PackageDocumentTest, LocallyManagedPackageDescribesItsFolder) {
  RecordServices services;
  TempDir dir;
  testing::WriteFile(dir / "pkg" / "a.txt", "abc");
  testing::WriteFile(dir / "pkg" / "sub" / "b.bin", "12345");
  testing::WriteFile(dir / "pkg" / "package.xml", "<Package/>");  // the package's own document
  const std::filesystem::path key = testing::TestKey("EC");
  const std::string folder = (dir / "pkg").string();
  std::string documentForm = folder;
  std::replace(documentForm.begin(), documentForm.end(), '/', '\\');

  auto record = services.NewRecord();
  record->SetLocalSigningKey(key);
  ASSERT_TRUE(record->LoadFromXml(
      Doc(IdAttr() + "version=\"0\" size=\"999\"", "<LocalManaged location=\"" + folder + "/\"/><Source/>")));
  EXPECT_EQ(record->location, documentForm + "\\");
  EXPECT_EQ(record->packageFolder(), folder);
  EXPECT_EQ(record->version(), 1);
  EXPECT_EQ(record->snapshot().version, 1u);
  EXPECT_EQ(record->snapshot().blockSize, kDefaultBlockSize);
  EXPECT_EQ(record->GetSize(), 8u) << "a locally managed package's size is its files'";
  ASSERT_NE(record->snapshot().FindEntry("sub", "b.bin"), nullptr);
  EXPECT_EQ(record->snapshot().FindEntry("", "package.xml"), nullptr);
  EXPECT_EQ(record->sourceKey, services.crypto->PublicKeyBase64FromPrivateKey(key));

  std::string written = record->ToXml();
  EXPECT_NE(written.find("<LocalManaged location=\"" + documentForm + "\\\"/>"), std::string::npos);
  EXPECT_EQ(written.find("<Source"), std::string::npos);
  auto reread = services.NewRecord();
  ASSERT_TRUE(reread->LoadFromXml(written));
  EXPECT_EQ(reread->packageFolder(), folder);
  EXPECT_EQ(reread->ToXml(), written);

  testing::WriteFile(dir / "bad.pem", "not a key");
  auto badKey = services.NewRecord();
  badKey->SetLocalSigningKey(dir / "bad.pem");
  services.log->Clear();
  EXPECT_TRUE(badKey->LoadFromXml(Doc(IdAttr(), "<LocalManaged location=\"" + folder + "\"/>")));
  EXPECT_EQ(services.Messages(loglevel::kError),
            std::vector<std::string>{"Failed to encode public key for Local Managed package: '" +
                                     std::string(kPackageId) + "'"});
}

TEST(PackageDocumentTest, SaveWritesAtomicallyAndLoadReadsBack) {
  RecordServices services;
  TempDir dir;
  auto record = services.NewRecord();
  ASSERT_TRUE(record->LoadFromXml(Doc(IdAttr() + "name=\"n\" status=\"valid\"")));
  record->UserAccessName = "user";
  record->SetUserAccessPassword("pw");
  const auto path = PackageRequest::DocumentPath(dir.path());
  EXPECT_EQ(path, dir / "package.xml");
  record->Save(path);
  EXPECT_EQ(testing::ReadFile(path), record->ToXml());
  struct stat info {};
  ASSERT_EQ(stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0077, 0u) << "a document with a password is the owner's alone";
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1) << "no temporary file left";

  auto reread = services.NewRecord();
  EXPECT_TRUE(reread->Load(path));
  EXPECT_TRUE(*reread == *record);
  EXPECT_EQ(reread->UserAccessName, "") << "the account comes from the server, not from the file";
  EXPECT_EQ(reread->UserAccessPassword(), "");

  EXPECT_THROW(record->Save(dir / "missing" / "package.xml"), Error);
  EXPECT_THROW(reread->Load(dir / "missing.xml"), Error);
}

}  // namespace
}  // namespace pkgdlv
