// Writing the snapshot document, the security data document, the signature
// check and the writing of both snapshot files, with RSA and EC keys made by
// openssl.
#include <gtest/gtest.h>

#include "agent/crypto.h"
#include "snapshot/snapshot.h"
#include "snapshot_test_support.h"
#include "support/temp_dir.h"
#include "support/test_keys.h"

namespace pkgdlv {
namespace {

using testing::LoggedSnapshot;
using testing::ReadFile;
using testing::SnapshotDoc;
using testing::StdAttributes;
using testing::TempDir;
using testing::WriteFile;

// A non-zero identifier and a non-empty path replace the snapshot's; a refused
// document replaces nothing.
TEST(SecurityDataTest, WhatADocumentReplaces) {
  const std::string kId = testing::kTestId, kOtherId = "{11111111-2222-3333-4444-555555555555}";
  const std::tuple<std::string, bool, std::string, std::string, std::string> cases[] = {  // loads; id, path, signature
      {R"(<SnapshotData id="{00000000-0000-0000-0000-000000000000}" path="">)"
       R"(<Security signature="bmV3"/></SnapshotData>)",
       true, kId, "/old", "bmV3"},
      {R"(<SnapshotData id=")" + kOtherId + R"(" path="/new"><Security signature="bmV3"/></SnapshotData>)", true,
       kOtherId, "/new", "bmV3"},
      {R"(<SnapshotData><Security/></SnapshotData>)", true, kId, "/old", ""},
      {R"(<Snapshot><Security signature="bmV3"/></Snapshot>)", false, kId, "/old", "b2xk"},
      {R"(<SnapshotData id=")" + kOtherId + R"("><Other/></SnapshotData>)", false, kId, "/old", "b2xk"},
      {"<SnapshotData", false, kId, "/old", "b2xk"},
  };
  for (const auto& [document, loads, id, path, signature] : cases) {
    SCOPED_TRACE(document);
    LoggedSnapshot s;
    s.snapshot.id = *Guid::Parse(kId);
    s.snapshot.path = "/old";
    s.snapshot.signature = "b2xk";
    EXPECT_EQ(s.snapshot.LoadXml(document, true), loads);
    EXPECT_EQ(std::tuple(s.snapshot.GetIdText(), s.snapshot.path, s.snapshot.signature),
              std::tuple(id, path, signature));
    EXPECT_EQ(s.log->Lines().size(), loads ? 0u : 1u);
  }
}

class SignatureTest : public ::testing::TestWithParam<std::string> {
 protected:
  std::vector<uint8_t> PublicKey(int index = 0) {
    return *Base64Decode(crypto_->PublicKeyBase64FromPrivateKey(testing::TestKey(GetParam(), index)));
  }
  std::shared_ptr<Crypto> crypto_ = NewOpenSslCrypto();
};

TEST_P(SignatureTest, SavedSnapshotVerifiesAndAnyChangeBreaksIt) {
  TempDir dir;
  LoggedSnapshot s;
  ASSERT_TRUE(s.snapshot.LoadXml(
      SnapshotDoc(StdAttributes(), R"(<Root size="3"><File name="a" size="1"/><File name="b" size="2"/></Root>)")));
  s.snapshot.path = dir.path().string();
  ASSERT_TRUE(s.snapshot.SaveSnapshot(dir / "snapshot.xml", *crypto_, testing::TestKey(GetParam())));
  const std::string written = ReadFile(dir / "snapshot.xml");
  EXPECT_EQ(std::string(s.snapshot.signedData.begin(), s.snapshot.signedData.end()), written);
  EXPECT_EQ(written, s.snapshot.ComposeDocumentFile());

  // What a receiver does: the security data from snapdata.xml, the bytes from snapshot.xml.
  LoggedSnapshot received;
  ASSERT_TRUE(received.snapshot.LoadXml(ReadFile(dir / "snapdata.xml"), true));
  EXPECT_EQ(std::tuple(received.snapshot.signature, received.snapshot.path),
            std::tuple(s.snapshot.signature, dir.path().string()));
  std::vector<uint8_t>& data = received.snapshot.signedData;
  data.assign(written.begin(), written.end());
  EXPECT_TRUE(received.snapshot.IsValidSignature(*crypto_, PublicKey()));
  EXPECT_FALSE(received.snapshot.IsValidSignature(*crypto_, PublicKey(1)));
  data[written.find("size=\"3\"") + 6] ^= 1;  // size="2"
  EXPECT_FALSE(received.snapshot.IsValidSignature(*crypto_, PublicKey()));
  data.assign(written.begin(), written.end());
  data.push_back('\n');  // even a trailing line break
  EXPECT_FALSE(received.snapshot.IsValidSignature(*crypto_, PublicKey()));
}

TEST_P(SignatureTest, ReSavingKeepsTheReceivedBytes) {
  TempDir dir;
  // Received bytes that composing would not reproduce (spacing, attribute order).
  const std::string received = "<Snapshot   version='5' id='" + std::string(testing::kTestId) +
                               "'>\r\n<Root size='1'><File size='1' name='a' fileHash='x'/></Root></Snapshot>";
  WriteFile(dir / "source.xml", received);
  std::vector<uint8_t> signature = crypto_->SignFile(dir / "source.xml", testing::TestKey(GetParam()));

  LoggedSnapshot s;
  ASSERT_TRUE(s.snapshot.LoadXml(received));
  s.snapshot.signedData.assign(received.begin(), received.end());
  s.snapshot.signature = Base64Encode(signature);
  ASSERT_TRUE(s.snapshot.SaveSecurityData(dir / "snapshot.xml"));
  EXPECT_EQ(ReadFile(dir / "snapshot.xml"), received);

  LoggedSnapshot reloaded;
  ASSERT_TRUE(reloaded.snapshot.LoadXml(received));
  ASSERT_TRUE(reloaded.snapshot.LoadXml(ReadFile(dir / "snapdata.xml"), true));
  reloaded.snapshot.signedData.assign(received.begin(), received.end());
  EXPECT_TRUE(reloaded.snapshot.IsValidSignature(*crypto_, PublicKey()));
  EXPECT_EQ(reloaded.snapshot, s.snapshot);

}

INSTANTIATE_TEST_SUITE_P(Keys, SignatureTest, ::testing::Values("RSA", "EC"));

TEST(SignatureCheckTest, RefusalsBeforeVerification) {
  const std::tuple<std::string, std::string, std::string> cases[] = {  // signature, data, the error line
      {"", "data", "IsValidSignature - the signature is empty, nothing to validate."},
      {"c2ln", "", "IsValidSignature - the raw data of the response is empty, nothing to validate."},
      {"A", "data", "IsValidSignature - failed to decode Base64 Data: 'A'"},
  };
  std::shared_ptr<Crypto> crypto = NewOpenSslCrypto();
  for (const auto& [signature, data, line] : cases) {
    LoggedSnapshot s;
    s.snapshot.signature = signature;
    s.snapshot.signedData.assign(data.begin(), data.end());
    // The key is not even a key: the refusal comes before verification.
    EXPECT_FALSE(s.snapshot.IsValidSignature(*crypto, std::vector<uint8_t>{1, 2, 3}));
    ASSERT_EQ(s.log->Lines().size(), 1u) << line;
    EXPECT_EQ(std::pair(s.log->Lines()[0].message, s.log->Lines()[0].level), std::pair(line, loglevel::kError));
  }
}

TEST(SignatureCheckTest, SavingWithoutAKeyKeepsSignatureAndSignedDataAndAFailedWriteIsReported) {
  TempDir dir;
  std::shared_ptr<Crypto> crypto = NewOpenSslCrypto();
  for (const std::filesystem::path& key : {std::filesystem::path(), dir / "missing.pem"}) {
    LoggedSnapshot s;
    s.snapshot.signature = "b2xk";
    s.snapshot.signedData = {1, 2};
    EXPECT_TRUE(s.snapshot.SaveSnapshot(dir / "snapshot.xml", *crypto, key));
    EXPECT_EQ(std::pair(s.snapshot.signature, s.snapshot.signedData),
              std::pair(std::string("b2xk"), std::vector<uint8_t>{1, 2}));
    EXPECT_EQ(ReadFile(dir / "snapshot.xml"), s.snapshot.ComposeDocumentFile());
    EXPECT_NE(ReadFile(dir / "snapdata.xml").find(R"(<Security signature="b2xk"/>)"), std::string::npos);
  }
  // Written through temporary files that are gone once renamed into place.
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 2);

  // A failed write is reported.
  LoggedSnapshot s;
  s.snapshot.signedData = {'x'};
  EXPECT_FALSE(s.snapshot.SaveSecurityData(dir / "no" / "such" / "snapshot.xml"));
  EXPECT_FALSE(s.snapshot.SaveSnapshot(dir / "no" / "such" / "snapshot.xml", *crypto));
  EXPECT_FALSE(s.log->Lines().empty());
}

// ---- Composing the document

SnapshotEntry File(std::string folder, std::string name, int64_t size, std::vector<uint8_t> blocks = {}) {
  const bool hashed = !blocks.empty();
  return {.name = std::move(name), .folder = std::move(folder), .fileHash = hashed ? "SGFzaA==" : "",
          .hasBlockHash = hashed, .size = size, .blockHashes = std::move(blocks)};
}

Snapshot Sample(std::shared_ptr<Logger> log) {
  Snapshot s(std::move(log));
  s.id = *Guid::Parse(testing::kTestId);
  s.path = "/work/pkg";
  s.entries = {File("", "a.txt", 5, std::vector<uint8_t>(64, 7)), File("", "empty", 0), File("b", "", 0),
               File("b", "c", 3), File("A", "", 0), File("A\\z", "", 0), File("A\\z", "nosize", -1)};
  s.OrderEntries();
  return s;
}

class FakeStore final : public BlockHashSource {
 public:
  Lookup Read(const Snapshot&, const SnapshotEntry& file, const std::string& storeKey,
              std::vector<uint8_t>& hashes) override {
    keys.push_back(storeKey);
    if (file.name == "a.txt") return Lookup::kReadFailed;
    if (file.name == "c") {
      hashes.assign(32, 9);
      return Lookup::kFound;
    }
    return Lookup::kNone;
  }
  std::vector<std::string> keys;
};

TEST(ComposeTest, BlockHashesComeFromTheGivenSource) {
  LoggedSnapshot s;
  s.snapshot = Sample(s.log);
  FakeStore store;
  const std::string xml = s.snapshot.ComposeXml(&store);
  std::vector<std::string> keys;
  for (const char* file : {"a.txt", "empty", "A\\z\\nosize", "b\\c"}) {
    keys.push_back(std::string("Package Delivery\\") + testing::kTestId + "\\hash\\" + file);
  }
  EXPECT_EQ(store.keys, keys);
  EXPECT_NE(xml.find(R"(fileHash="SGFzaA=="/>)"), std::string::npos);  // the entry's own hashes are not used
  EXPECT_NE(xml.find(R"(<File name="c" size="3" blockHash=")" + Base64Encode(std::vector<uint8_t>(32, 9))),
            std::string::npos);
  EXPECT_TRUE(
      s.log->Contains("Failed to read hash for file '/work/pkg/a.txt' from Secure Storage 'Package "
                      "Delivery\\{8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6B}\\hash\\a.txt' while composing the "
                      "snapshot XML"));
}

}  // namespace
}  // namespace pkgdlv
