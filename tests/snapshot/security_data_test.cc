// The security data document, the signature check and the writing of both
// snapshot files, with RSA and EC keys made by openssl.
#include <gtest/gtest.h>

#include <algorithm>

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

const std::string kOtherId = "{11111111-2222-3333-4444-555555555555}";

TEST(SecurityDataTest, WhatADocumentReplaces) {
  struct Case {
    std::string title, document;
    bool parses;
    std::string id, path, signature, line;
  };
  const std::string kId = testing::kTestId;
  const Case cases[] = {
      {"ZeroIdAndEmptyPathOnlyReplaceTheSignature",
       R"(<SnapshotData id="{00000000-0000-0000-0000-000000000000}" path=""><Security signature="bmV3"/></SnapshotData>)",
       true, kId, "/old", "bmV3", ""},
      {"AllThree", R"(<SnapshotData id=")" + kOtherId + R"(" path="/new"><Security signature="bmV3"/></SnapshotData>)",
       true, kOtherId, "/new", "bmV3", ""},
      {"NoSignatureEmptiesIt", R"(<SnapshotData><Security/></SnapshotData>)", true, kId, "/old", "", ""},
      {"WrongRoot", R"(<Snapshot><Security signature="bmV3"/></Snapshot>)", false, kId, "/old", "b2xk",
       "Invalid SnapshotData XML: Incorrect root element"},
      {"NoSecurity", R"(<SnapshotData id=")" + kOtherId + R"("><Other/></SnapshotData>)", false, kId, "/old", "b2xk",
       "Invalid SnapshotData XML: Missing Security element"},
      {"NotXml", "<SnapshotData", false, kId, "/old", "b2xk", "Invalid snapshot XML: XML failed to load"},
  };
  for (const Case& c : cases) {
    LoggedSnapshot s;
    s.snapshot.id = *Guid::Parse(kId);
    ASSERT_EQ(s.snapshot.GetIdText(), kId);
    s.snapshot.path = "/old";
    s.snapshot.signature = "b2xk";
    EXPECT_EQ(s.snapshot.LoadXml(c.document, true), c.parses) << c.title;
    EXPECT_EQ(s.snapshot.GetIdText(), c.id) << c.title;
    EXPECT_EQ(s.snapshot.path, c.path) << c.title;
    EXPECT_EQ(s.snapshot.signature, c.signature) << c.title;
    if (!c.line.empty()) {
      EXPECT_TRUE(s.log->Contains(c.line)) << c.title;
    }
  }
}

class SignatureTest : public ::testing::TestWithParam<std::string> {
 protected:
  std::filesystem::path Key() const { return testing::TestKey(GetParam()); }
  std::vector<uint8_t> PublicKey(const std::filesystem::path& key) {
    return *Base64Decode(crypto_->PublicKeyBase64FromPrivateKey(key));
  }

  // A signed snapshot of two files written to dir.
  LoggedSnapshot SignedSnapshot(const std::filesystem::path& dir) {
    LoggedSnapshot s;
    EXPECT_TRUE(s.snapshot.LoadXml(
        SnapshotDoc(StdAttributes(), R"(<Root size="3"><File name="a" size="1"/><File name="b" size="2"/></Root>)")));
    s.snapshot.path = dir.string();
    EXPECT_TRUE(s.snapshot.SaveSnapshot(dir / "snapshot.xml", *crypto_, Key()));
    return s;
  }

  std::shared_ptr<Crypto> crypto_ = NewOpenSslCrypto();
};

TEST_P(SignatureTest, SavedSnapshotVerifiesAndAnyChangeBreaksIt) {
  TempDir dir;
  LoggedSnapshot s = SignedSnapshot(dir.path());
  EXPECT_FALSE(s.snapshot.signature.empty());
  const std::string written = ReadFile(dir / "snapshot.xml");
  EXPECT_EQ(std::string(s.snapshot.signedData.begin(), s.snapshot.signedData.end()), written);
  EXPECT_EQ(written, s.snapshot.ComposeDocumentFile());
  EXPECT_TRUE(s.snapshot.IsValidSignature(*crypto_, PublicKey(Key())));

  // What a receiver does: the security data from snapdata.xml, the bytes from snapshot.xml.
  LoggedSnapshot received;
  ASSERT_TRUE(received.snapshot.LoadXml(ReadFile(dir / "snapdata.xml"), true));
  EXPECT_EQ(received.snapshot.signature, s.snapshot.signature);
  EXPECT_EQ(received.snapshot.path, dir.path().string());
  received.snapshot.signedData.assign(written.begin(), written.end());
  EXPECT_TRUE(received.snapshot.IsValidSignature(*crypto_, PublicKey(Key())));

  received.snapshot.signedData[written.find("size=\"3\"") + 6] ^= 1;  // size="2"
  EXPECT_FALSE(received.snapshot.IsValidSignature(*crypto_, PublicKey(Key())));
  received.snapshot.signedData.assign(written.begin(), written.end());
  EXPECT_FALSE(received.snapshot.IsValidSignature(*crypto_, PublicKey(testing::TestKey(GetParam(), 1))));
  received.snapshot.signedData.push_back('\n');  // even a trailing line break
  EXPECT_FALSE(received.snapshot.IsValidSignature(*crypto_, PublicKey(Key())));
}

TEST_P(SignatureTest, ReSavingKeepsTheReceivedBytes) {
  TempDir dir;
  // Received bytes that composing would not reproduce (spacing, attribute order).
  const std::string received = "<Snapshot   version='5' id='" + std::string(testing::kTestId) +
                               "'>\r\n<Root size='1'><File size='1' name='a' fileHash='x'/></Root></Snapshot>";
  WriteFile(dir / "source.xml", received);
  std::vector<uint8_t> signature = crypto_->SignFile(dir / "source.xml", Key());

  LoggedSnapshot s;
  ASSERT_TRUE(s.snapshot.LoadXml(received));
  s.snapshot.signedData.assign(received.begin(), received.end());
  s.snapshot.signature = Base64Encode(signature);
  ASSERT_TRUE(s.snapshot.SaveSecurityData(dir / "snapshot.xml"));
  EXPECT_EQ(ReadFile(dir / "snapshot.xml"), received);

  LoggedSnapshot reloaded;
  ASSERT_TRUE(reloaded.snapshot.LoadXml(ReadFile(dir / "snapshot.xml")));
  ASSERT_TRUE(reloaded.snapshot.LoadXml(ReadFile(dir / "snapdata.xml"), true));
  std::string bytes = ReadFile(dir / "snapshot.xml");
  reloaded.snapshot.signedData.assign(bytes.begin(), bytes.end());
  EXPECT_TRUE(reloaded.snapshot.IsValidSignature(*crypto_, PublicKey(Key())));
  EXPECT_EQ(reloaded.snapshot, s.snapshot);

  // Without signed data only the security data is written.
  std::filesystem::remove(dir / "snapshot.xml");
  s.snapshot.signedData.clear();
  ASSERT_TRUE(s.snapshot.SaveSecurityData(dir / "snapshot.xml"));
  EXPECT_FALSE(std::filesystem::exists(dir / "snapshot.xml"));
}

INSTANTIATE_TEST_SUITE_P(Keys, SignatureTest, ::testing::Values("RSA", "EC"));

TEST(SignatureCheckTest, RefusalsBeforeVerification) {
  struct Case {
    std::string signature, data, line;
  };
  const Case cases[] = {
      {"", "data", "IsValidSignature - the signature is empty, nothing to validate."},
      {"c2ln", "", "IsValidSignature - the raw data of the response is empty, nothing to validate."},
      {"A", "data", "IsValidSignature - failed to decode Base64 Data: 'A'"},
  };
  std::shared_ptr<Crypto> crypto = NewOpenSslCrypto();
  for (const Case& c : cases) {
    LoggedSnapshot s;
    s.snapshot.signature = c.signature;
    s.snapshot.signedData.assign(c.data.begin(), c.data.end());
    // The key is not even a key: the refusal comes before verification.
    EXPECT_FALSE(s.snapshot.IsValidSignature(*crypto, std::vector<uint8_t>{1, 2, 3}));
    ASSERT_EQ(s.log->Lines().size(), 1u) << c.line;
    EXPECT_EQ(s.log->Lines()[0].message, c.line);
    EXPECT_EQ(s.log->Lines()[0].level, loglevel::kError);
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
    EXPECT_EQ(s.snapshot.signature, "b2xk");
    EXPECT_EQ(s.snapshot.signedData, (std::vector<uint8_t>{1, 2}));
    EXPECT_EQ(ReadFile(dir / "snapshot.xml"), s.snapshot.ComposeDocumentFile());
    EXPECT_NE(ReadFile(dir / "snapdata.xml").find(R"(<Security signature="b2xk"/>)"), std::string::npos);
  }
  // Written through temporary files that are gone once renamed into place.
  std::vector<std::string> names;
  for (const auto& item : std::filesystem::directory_iterator(dir.path())) names.push_back(item.path().filename());
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"snapdata.xml", "snapshot.xml"}));

  // A failed write is reported.
  LoggedSnapshot s;
  s.snapshot.signedData = {'x'};
  EXPECT_FALSE(s.snapshot.SaveSecurityData(dir / "no" / "such" / "snapshot.xml"));
  EXPECT_FALSE(s.snapshot.SaveSnapshot(dir / "no" / "such" / "snapshot.xml", *crypto));
  EXPECT_FALSE(s.log->Lines().empty());
  EXPECT_EQ(Snapshot::GetSecurityDataPath("/a/b/snapshot.xml"), std::filesystem::path("/a/b/snapdata.xml"));
}

}  // namespace
}  // namespace pkgdlv
