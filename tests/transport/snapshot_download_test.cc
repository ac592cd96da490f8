// Snapshot retrieval from real servers on 127.0.0.1 (nginx serving package
// folders, an in-process server for headers and faults) and from local
// folders: snapshot URLs with their security data, listing files, folder
// listings and hostile documents.
#include <gtest/gtest.h>

#include "agent/crypto.h"
#include "agent/server_profile.h"
#include "block_test_support.h"
#include "snapshot/snapshot.h"
#include "support/http_test_server.h"
#include "support/nginx_server.h"
#include "support/test_keys.h"
#include "support/transport_services.h"
#include "transport/package_download.h"
#include "util/base64.h"
#include "util/compressed_frame.h"

namespace pkgdlv {
namespace {

using testing::HttpTestServer;
using testing::TempDir;
using testing::WriteFile;

const char* const kPackage = "{8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6B}";

// A snapshot document of files in the root folder, each 4 bytes.
std::string SnapshotDocument(const std::vector<std::string>& names) {
  std::string files;
  for (const std::string& name : names) {
    files += "<File name=\"" + name + "\" size=\"4\" lastModifiedTime=\"2026-01-01 00:00:00\"/>";
  }
  return "<?xml version=\"1.0\"?><Snapshot id=\"{00000000-0000-0000-0000-000000000001}\" blockSize=\"1048576\" "
         "time=\"2026-01-01T00:00:00\" version=\"3\"><Root size=\"" +
         std::to_string(4 * names.size()) + "\" files=\"" + std::to_string(names.size()) +
         "\" folders=\"0\">" + files + "</Root></Snapshot>\n";
}

const std::string kSecurityData =
    "<SnapshotData id=\"{00000000-0000-0000-0000-0000000000EE}\" path=\"/etc\"><Security signature=\"c2lnbmF0dXJl\"/>"
    "</SnapshotData>";

std::vector<std::string> Names(const Snapshot& snapshot) {
  std::vector<std::string> names;
  for (const SnapshotEntry& entry : snapshot.entries) {
    names.push_back(entry.folder.empty() ? entry.name : entry.folder + (entry.name.empty() ? "" : "\\" + entry.name));
  }
  return names;
}

class SnapshotDownloadTest : public ::testing::Test {
 protected:
  SnapshotQuery Query() {
    SnapshotQuery query;
    query.packageId = *Guid::Parse(kPackage);
    query.resource = "agent-7";
    query.version = 3;
    return query;
  }
  // Runs DownloadSnapshot into a snapshot whose folder is "/keep".
  bool Fetch(const SnapshotQuery& query, Snapshot& snapshot, PackageDownload& download) {
    snapshot.path = "/keep";
    return download.DownloadSnapshot(query, snapshot);
  }

  testing::TransportServices env_;
};

class NginxSnapshotTest : public SnapshotDownloadTest {
 protected:
  void SetUp() override {
    if (!testing::NginxServer::Available()) GTEST_SKIP() << "nginx is not installed";
    const auto& root = dir_.path();
    WriteFile(root / "signed" / "snapshot.xml", SnapshotDocument({"a.txt"}));
    WriteFile(root / "signed" / "snapdata.xml", kSecurityData);
    WriteFile(root / "unsigned" / "snapshot.xml", SnapshotDocument({"a.txt"}));
    WriteFile(root / "nofiles" / "snapshot.xml", SnapshotDocument({}));
    WriteFile(root / "broken" / "snapshot.xml", "<Inventory/>");
    WriteFile(root / "paused" / "snapshot.xml", "<Error number=\"8004200E\"/>");
    WriteFile(root / "badsec" / "snapshot.xml", SnapshotDocument({"a.txt"}));
    WriteFile(root / "badsec" / "snapdata.xml", "<Inventory/>");
    WriteFile(root / "listed" / "dirlisting.tavorin.xml", SnapshotDocument({"a.txt", "dirlisting.tavorin.xml"}));
    WriteFile(root / "listed" / "snapdata.xml", kSecurityData);
    WriteFile(root / "plain" / "a.txt", "data");
    WriteFile(root / "hostile" / "dirlisting.tavorin.xml", SnapshotDocument({"..\\..\\etc\\passwd"}));
    nginx_ = std::make_unique<testing::NginxServer>(root);
  }

  TempDir dir_;
  std::unique_ptr<testing::NginxServer> nginx_;
};

TEST_F(NginxSnapshotTest, SnapshotUrls) {
  struct Case {
    std::string path;
    bool required, optional;
    Result code;
    std::string description;
    std::string signature;
    uint32_t profileErrors;
  } cases[] = {
      {"/signed/snapshot.xml", false, false, 0, "", "c2lnbmF0dXJl", 0},
      {"/unsigned/snapshot.xml", false, false, 0x80042D21, "", "", 0},
      {"/unsigned/snapshot.xml", false, true, 0, "", "", 0},
      {"/nofiles/snapshot.xml", false, false, 0, "", "", 0},
      {"/nofiles/snapshot.xml", true, false, 0x80042D21, "", "", 0},
      {"/broken/snapshot.xml", false, false, 0x80004005, "Invalid snapshot XML returned by server", "", 1},
      {"/paused/snapshot.xml", false, false, 0x8004200E, "WARNING: The server is currently paused", "", 1},
      {"/badsec/snapshot.xml", false, false, 0x80004005, "Invalid snapshot extra data XML returned by server", "", 1},
      {"/badsec/snapshot.xml", false, true, 0, "", "", 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path + (c.required ? " required" : "") + (c.optional ? " optional" : ""));
    env_.services.server_profile = NewMemoryServerProfile();
    SnapshotQuery query = Query();
    query.snapshotUrl = nginx_->Url(c.path);
    query.securityDataRequired = c.required;
    query.securityDataOptional = c.optional;
    PackageDownload download(env_.services);
    Snapshot snapshot;
    EXPECT_EQ(Fetch(query, snapshot, download), c.code == 0);
    EXPECT_EQ(download.LastResult(), c.code) << download.LastDescription();
    EXPECT_EQ(c.description.empty() ? c.description : download.LastDescription(), c.description);
    EXPECT_EQ(env_.services.server_profile->ErrorCount(query.snapshotUrl), c.profileErrors);
    if (c.code != 0) continue;
    EXPECT_EQ(snapshot.signature, c.signature);
    EXPECT_EQ(snapshot.id.ToString(), kPackage);
    EXPECT_EQ(snapshot.path, "/keep") << "the folder is never the server's";
    const std::string received = testing::ReadFile(dir_.path() / c.path.substr(1));
    EXPECT_EQ(std::string(snapshot.signedData.begin(), snapshot.signedData.end()), received);
  }
  EXPECT_TRUE(env_.log->Contains("Download Snapshot extra data: " + nginx_->Url("/signed/snapdata.xml")));
  EXPECT_TRUE(env_.log->Contains("Download Snapshot complete: OK"));
}

TEST_F(NginxSnapshotTest, ListingFilesAndFolders) {
  TempDir local;
  WriteFile(local / "a.txt", "data");
  WriteFile(local / "sub" / "b.txt", "more");
  std::filesystem::create_directory_symlink("/etc", local / "etc");
  struct Case {
    std::string source;
    Result code;
    std::vector<std::string> names;
    size_t listingWarnings;
  } cases[] = {
      // A listing that names itself loses that entry.
      {nginx_->Url("/listed"), 0, {"a.txt"}, 0},
      {nginx_->Url("/listed/"), 0, {"a.txt"}, 0},
      // No listing file (404): the folder is listed instead, which HTTP cannot do.
      {nginx_->Url("/plain"), 0x80004001, {}, 1},
      // A local folder is listed; the link that leads out of it is left out.
      {testing::StoredFolder(local.path()), 0, {"a.txt", "sub", "sub\\b.txt"}, 1},
      {testing::StoredFolder(local / "missing"), 0x80070003, {}, 1},
      // A listing that names a file outside the folder is refused outright.
      {nginx_->Url("/hostile"), 0x80004005, {}, 1},
      {"", 0x80070057, {}, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.source);
    env_.log->Clear();
    SnapshotQuery query = Query();
    query.sourceDirectory = c.source;
    PackageDownload download(env_.services);
    Snapshot snapshot;
    EXPECT_EQ(Fetch(query, snapshot, download), c.code == 0);
    EXPECT_EQ(download.LastResult(), c.code) << download.LastDescription();
    EXPECT_EQ(env_.log->Count("Failed to load snapshot from file: "), c.listingWarnings);
    if (c.code == 0) {
      EXPECT_EQ(Names(snapshot), c.names);
      EXPECT_EQ(snapshot.id.ToString(), kPackage);
    }
  }
  EXPECT_FALSE(std::filesystem::exists("/keep"));
}

// The header's signature is the security data; credentials reach the
// server but never the log; every value of a dynamic page's query arrives as
// it was given.
TEST_F(SnapshotDownloadTest, HeadersQueriesAndCredentials) {
  HttpTestServer server;
  const std::string document = SnapshotDocument({"a.txt", "b.txt"});
  for (const char* path : {"/signed.aspx", "/private/snapshot.xml"}) {
    SCOPED_TRACE(path);
    server.AddFile(path, document, {{"Content-Signature", "c2lnbmVk"}});
    server.SetFault(path, {.requireAuth = true});
    SnapshotQuery query = Query();
    query.resource = "a+b%41c&d#e \"<x>\"";
    query.snapshotUrl = server.Url(path);
    query.securityDataRequired = true;
    query.user = "pkguser";
    query.encryptedPassword = Base64Encode(std::string_view("s3cret"));
    PackageDownload download(env_.services);
    Snapshot snapshot;
    ASSERT_TRUE(Fetch(query, snapshot, download)) << download.LastDescription();
    EXPECT_EQ(snapshot.signature, "c2lnbmVk");
    EXPECT_EQ(std::string(snapshot.signedData.begin(), snapshot.signedData.end()), document);
    EXPECT_EQ(Names(snapshot), (std::vector<std::string>{"a.txt", "b.txt"}));
    EXPECT_EQ(server.Requests().back().Header("Authorization"), "Basic " + Base64Encode(std::string_view("pkguser:s3cret")));
  }
  using Params = std::vector<std::pair<std::string, std::string>>;
  EXPECT_EQ(server.Requests().front().params,
            (Params{{"Resource", "a+b%41c&d#e \"<x>\""}, {"PackageId", kPackage}, {"PkgVersion", "3"}, {"compress", "1"}}));
  EXPECT_EQ(server.RequestCount("/snapdata.xml") + server.RequestCount("/private/snapdata.xml"), 0u);
  EXPECT_FALSE(env_.log->Contains("s3cret"));
}

// A dynamic page may send the snapshot packed in a compressed frame; the
// signature is the document's, checked over the bytes inside the frame.
TEST_F(SnapshotDownloadTest, SignatureCoversTheDocumentInsideTheFrame) {
  Crypto& crypto = *env_.services.crypto;
  const std::filesystem::path& key = testing::TestKey("EC", 0);
  const std::optional<std::vector<uint8_t>> publicKey =
      Base64Decode(crypto.PublicKeyBase64FromPrivateKey(key));
  ASSERT_TRUE(publicKey);
  auto bytes = [](std::string_view text) { return std::vector<uint8_t>(text.begin(), text.end()); };
  auto framed = [&](const std::string& text) {
    std::vector<uint8_t> frame = bytes(text);
    EXPECT_TRUE(Compress(frame, 1, loglevel::kSilent, *env_.log));
    return std::string(frame.begin(), frame.end());
  };
  auto signature = [&](std::string_view text) { return Base64Encode(crypto.Sign(bytes(text), key)); };
  // A byte order mark and a line end are part of what was signed.
  const std::string document = "\xEF\xBB\xBF" + SnapshotDocument({"a.txt"}) + "\r\n";
  const std::string tampered = SnapshotDocument({"b.txt"});
  struct Case {
    std::string name, body, signature;
    bool valid;
  } cases[] = {
      {"framed and signed", framed(document), signature(document), true},
      {"plain and signed", document, signature(document), true},
      {"framed, another document inside", framed(tampered), signature(document), false},
      {"signature of the frame", framed(document), signature(framed(document)), false},
  };
  HttpTestServer server;
  int index = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = "/snap" + std::to_string(index++) + ".cgi";
    server.AddFile(path, c.body, {{"Content-Signature", c.signature}});
    SnapshotQuery query = Query();
    query.snapshotUrl = server.Url(path);
    PackageDownload download(env_.services);
    Snapshot snapshot(env_.log);
    ASSERT_TRUE(Fetch(query, snapshot, download)) << download.LastDescription();
    EXPECT_EQ(snapshot.signature, c.signature);
    EXPECT_EQ(snapshot.IsValidSignature(crypto, *publicKey), c.valid);
    if (c.valid) {
      EXPECT_EQ(std::string(snapshot.signedData.begin(), snapshot.signedData.end()), document);
    }
  }
}

}  // namespace
}  // namespace pkgdlv
