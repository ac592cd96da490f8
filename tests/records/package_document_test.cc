#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>

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
std::string Nested(int depth) { return depth == 0 ? "" : "<a>" + Nested(depth - 1) + "</a>"; }
const std::string kId = kPackageId;

// Each document loads or is refused with one warning; refused ones leave the
// record's identifier, name, folder and snapshot alone.
TEST(PackageDocumentTest, LoadsOrRefusesHostileDocuments) {
  const std::string snapshot = " version=\"1\" time=\"2026-01-01T00:00:00\"><Root size=\"0\"/></Snapshot>";
  const struct {
    const char* name;
    std::string text;
    bool loaded;
    std::string warning;  // the start of the one warning expected; empty: no warning at all
    bool withId = true;   // the record has its identifier before the load
  } cases[] = {
      {"OtherIdRefused", Doc(IdAttr(kOtherPackageId) + "name=\"n\""), false,
       "Invalid Package XML: Attempt to change package ID"},
      {"EmptyHrefFailsTheParse", Doc(IdAttr(), "<Source><Codebase href=\"http://a/p\"/><Codebase href=\"\"/></Source>"),
       false, "Invalid package XML: source requires a href or unc attribute with a value"},
      {"NotXml", "<Package id=", false, "Invalid package XML: XML failed to load"},
      {"WrongRoot", "<package " + IdAttr() + "/>", false, "Invalid package XML: Incorrect root element"},
      {"BadGuid", Doc("id=\"{not-a-guid}\""), false, "Invalid package XML: Invalid package ID '{not-a-guid}'"},
      {"HugeAttribute", Doc(IdAttr() + "name=\"" + std::string(xml::kMaxDocumentBytes, 'x') + "\""), false,
       "Invalid package XML: XML failed to load"},
      {"EntityDeclaration", "<!DOCTYPE Package [<!ENTITY e \"x\">]>" + Doc(IdAttr() + "name=\"&e;\""), false,
       "Invalid package XML: XML failed to load"},
      {"DeepNesting", Doc(IdAttr(), Nested(400)), false, "Invalid package XML: XML failed to load"},
      {"RelativeFileStore", Doc(IdAttr() + "fileStore=\"pkgs/p1\""), false,
       "Invalid package XML: fileStore is not an absolute folder path: 'pkgs/p1'"},
      {"ClimbingFileStore", Doc(IdAttr() + "fileStore=\"/srv/pkgs/../../etc\""), false,
       "Invalid package XML: fileStore is not an absolute folder path"},
      {"ControlCharacterFileStore", Doc(IdAttr() + "fileStore=\"/srv/a&#9;b\""), false,
       "Invalid package XML: fileStore is not an absolute folder path: '/srv/a?b'"},
      {"ClimbingLocalManaged", Doc(IdAttr(), "<LocalManaged location=\"\\srv\\..\\..\\etc\"/>"), false,
       "Invalid package XML: LocalManaged location is not an absolute folder path"},
      {"MissingLocalManagedFolder", Doc(IdAttr(), "<LocalManaged location=\"/no/such/pkgdlv/folder\"/>"), false,
       "Cannot build the snapshot of Local Managed package '" + std::string(kPackageId) + "'"},
      {"SnapshotOfAnotherPackage", Doc(IdAttr(), std::string("<Snapshot id=\"") + kOtherPackageId + "\"" + snapshot),
       false, "Invalid Package XML: Attempt to change package ID"},
      {"SnapshotAndSecurityDataOfTwoPackages",
       Doc("", std::string("<Snapshot id=\"") + kPackageId + "\"" + snapshot + "<SnapshotData id=\"" +
                   kOtherPackageId + "\"><Security signature=\"QUJD\"/></SnapshotData>"),
       false, "Invalid Package XML: Attempt to change package ID", false},
      {"FileStoreFixesTheStore", Doc(IdAttr() + "fileStore=\"/srv/pkgs//p1/\""), true, ""},
      {"SecurityDataCannotMoveThePackage",
       Doc(IdAttr() + "fileStore=\"/srv/p1\"",
           "<Snapshot" + snapshot + "<SnapshotData path=\"/etc\"><Security signature=\"QUJD\"/></SnapshotData>"),
       true, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    RecordServices services;
    auto record = services.NewRecord();
    if (c.withId) record->SetId(ParseId(kPackageId));
    EXPECT_EQ(record->LoadFromXml(c.text), c.loaded);
    const std::vector<std::string> warnings = services.Messages(loglevel::kWarning);
    ASSERT_EQ(warnings.size(), c.warning.empty() ? 0u : 1u);
    if (!c.warning.empty()) {
      EXPECT_EQ(warnings[0].substr(0, c.warning.size()), c.warning);
    }
    if (c.loaded) {  // the folder as fileStore gives it, tidied; never the security data's
      EXPECT_EQ(record->packageFolder(), c.text.find("/srv/p1") != std::string::npos ? "/srv/p1" : "/srv/pkgs/p1");
      EXPECT_TRUE(record->fixedStore);
    } else {
      EXPECT_EQ(record->id(), c.withId ? ParseId(kPackageId) : Guid());
      EXPECT_EQ(std::tuple(record->name, record->hasSnapshot), std::tuple("", false));
      EXPECT_EQ(std::tuple(record->packageFolder(), record->location), std::tuple("", ""));
    }
  }
}

TEST(PackageDocumentTest, PackageXmlReadAndWrittenAgainIsTheSameText) {
  RecordServices services;
  TempDir dir;
  testing::WriteFile(dir / "pkg" / "readme.txt", "hello");
  testing::WriteFile(dir / "pkg" / "Ünïcode ✓" / "data.bin", std::string(3000, 'd'));
  Snapshot snapshot;
  SnapshotBuildOptions options;
  options.blockSize = 1024;
  BuildSnapshotFromFolder(dir / "pkg", options, snapshot);
  snapshot.id = ParseId(kPackageId);
  snapshot.version = 3;
  snapshot.path = (dir / "pkg").string();
  ASSERT_TRUE(snapshot.SaveSnapshot(dir / "snapshot.xml", *services.crypto, testing::TestKey("EC")));
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
  EXPECT_TRUE(second->ToXml() == written && *first == *second);

  // The embedded snapshot came back whole: entries, signature, block hashes.
  Snapshot reread = second->snapshot();
  ASSERT_TRUE(reread.LoadBlockHashes());
  const auto hashes = [](const Snapshot& s) { return s.FindEntry("Ünïcode ✓", "data.bin")->blockHashes; };
  EXPECT_EQ(std::tuple(reread.entries, reread.signature, hashes(reread)),
            std::tuple(snapshot.entries, snapshot.signature, hashes(snapshot)));
  ASSERT_TRUE(second->CreateStorageArea(dir / "store"));
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
  EXPECT_EQ(std::tuple(record->location, record->packageFolder(), record->version(), record->snapshot().version,
                       record->snapshot().blockSize, record->GetSize()),
            std::tuple(documentForm + "\\", folder, 1, 1u, kDefaultBlockSize, 8u));
  EXPECT_TRUE(record->snapshot().FindEntry("sub", "b.bin") && !record->snapshot().FindEntry("", "package.xml"));
  EXPECT_EQ(record->sourceKey, services.crypto->PublicKeyBase64FromPrivateKey(key));

  std::string written = record->ToXml();
  EXPECT_NE(written.find("<LocalManaged location=\"" + documentForm + "\\\"/>"), std::string::npos);
  EXPECT_EQ(written.find("<Source"), std::string::npos);
  auto reread = services.NewRecord();
  ASSERT_TRUE(reread->LoadFromXml(written));
  EXPECT_EQ(std::pair(reread->packageFolder(), reread->ToXml()), std::pair(folder, written));

  testing::WriteFile(dir / "bad.pem", "not a key");
  auto badKey = services.NewRecord();
  badKey->SetLocalSigningKey(dir / "bad.pem");
  services.log->Clear();
  EXPECT_TRUE(badKey->LoadFromXml(Doc(IdAttr(), "<LocalManaged location=\"" + folder + "\"/>")));
  EXPECT_EQ(services.Messages(loglevel::kError),
            std::vector<std::string>{"Failed to encode public key for Local Managed package: '" + kId + "'"});
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
  // The account comes from the server, not from the file.
  EXPECT_EQ(std::pair(reread->UserAccessName, reread->UserAccessPassword()), std::pair(std::string(), std::string()));

  EXPECT_THROW(record->Save(dir / "missing" / "package.xml"), Error);
  EXPECT_THROW(reread->Load(dir / "missing.xml"), Error);
}

}  // namespace
}  // namespace pkgdlv
