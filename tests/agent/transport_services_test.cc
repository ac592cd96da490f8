// The agent services the package download transport relies on: the server
// profile's ranking, the signing keys' enumeration in the secure store and
// the default decryptor.
#include <gtest/gtest.h>

#include "agent/response_decryptor.h"
#include "agent/secure_store.h"
#include "agent/server_profile.h"
#include "agent/signing_keys.h"
#include "support/temp_dir.h"
#include "util/base64.h"
#include "util/error.h"

namespace pkgdlv {
namespace {

// Errors count against the server, whatever URL of it the transport used.
TEST(TransportServicesTest, ServerProfileRanksServersByErrorsThenOrder) {
  auto profile = NewMemoryServerProfile();
  const std::vector<std::string> servers = {"a", "http://b:81/", "\\\\c\\share"};
  struct Step {
    const char* failing;  // error recorded before the ranking
    size_t best;
  } steps[] = {{nullptr, 0},
               {"http://a/GetPackageInfo.aspx?xml=%3Cr%2F%3E", 1},
               {"HTTPS://user:pw@B/pkg/snapshot.xml", 2},
               {"\\\\C\\share\\pkg\\dirlisting.tavorin.xml", 0},
               {"http://a:8080/x#y", 1}};
  for (const Step& step : steps) {
    if (step.failing) profile->AddError(step.failing);
    EXPECT_EQ(profile->BestServer(servers), step.best) << (step.failing ? step.failing : "none");
  }
  EXPECT_EQ(profile->ErrorCount("A"), 2u);
  EXPECT_EQ(profile->ErrorCount("http://[::1]/"), 0u);
  EXPECT_FALSE(profile->BestServer({}));
}

TEST(TransportServicesTest, SigningKeysEnumerateInOrder) {
  testing::TempDir dir;
  auto store = OpenSqliteSecureStore(dir / "s.db", dir / "k");
  SigningKeys keys(store);
  EXPECT_FALSE(keys.DefaultKey());
  EXPECT_TRUE(keys.OtherKeys().empty());
  keys.StoreDefaultKey("DEF");
  EXPECT_EQ(keys.AddOtherKey("K0"), 0u);
  EXPECT_EQ(keys.AddOtherKey("K1"), 1u);
  EXPECT_EQ(SigningKeys(store).DefaultKey(), "DEF");
  EXPECT_EQ(SigningKeys(store).OtherKeys(), (std::vector<std::string>{"K0", "K1"}));
  // A gap ends the enumeration.
  store->Delete(SigningKeys::OtherKeyPath(0));
  EXPECT_TRUE(keys.OtherKeys().empty());
  EXPECT_THROW(SigningKeys(nullptr).AddOtherKey("K"), Error);
}

TEST(TransportServicesTest, DefaultDecryptor) {
  auto decryptor = NewDefaultResponseDecryptor();
  const std::vector<uint8_t> body = {1, 2, 3};
  DecryptedResponse response = decryptor->DecryptResponse(body);
  EXPECT_NE(response.code, result::kOk);
  EXPECT_NE(response.code, result::kDecryptFailed) << "a binary answer must fall through to the frame";
  EXPECT_EQ(decryptor->DecryptBase64String(Base64Encode(std::string_view("p@ss wörd"))), "p@ss wörd");
  EXPECT_THROW(decryptor->DecryptBase64String("not base64!"), Error);
}

}  // namespace
}  // namespace pkgdlv
