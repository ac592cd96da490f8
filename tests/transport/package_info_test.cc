// The package information request against a real HTTP server on 127.0.0.1
// and a scripted persistent connection sender: answers good and bad, binary
// answers with their integrity check and the back-off after busy answers.
#include <gtest/gtest.h>

#include <chrono>

#include "agent/crypto.h"
#include "agent/response_decryptor.h"
#include "agent/server_profile.h"
#include "agent/signing_keys.h"
#include "snapshot/snapshot.h"
#include "support/fake_connection_sender.h"
#include "support/http_test_server.h"
#include "support/test_keys.h"
#include "support/transport_services.h"
#include "transport/package_download.h"
#include "util/base64.h"
#include "util/compressed_frame.h"
#include "util/xml.h"

namespace pkgdlv {
namespace {

using testing::HttpTestServer;
using Headers = std::vector<std::pair<std::string, std::string>>;

const char* const kPackage = "{8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6B}";
const std::string kSources = "<PackageSources><Codebases><Codebase href=\"http://ps/pkg\"/></Codebases></PackageSources>";

std::string Framed(std::string_view text) {
  std::vector<uint8_t> buffer(text.begin(), text.end());
  testing::RecordingLogger log;
  EXPECT_TRUE(Compress(buffer, 1, loglevel::kSilent, log));
  return std::string(buffer.begin(), buffer.end());
}

class PackageInfoTest : public ::testing::Test {
 protected:
  void SetUp() override { PackageDownload::ResetProcessBackoff(); }
  void TearDown() override { PackageDownload::ResetProcessBackoff(); }

  // Serves the body at a path of its own, for a case that starts with no
  // back-off and no server errors, and returns that path.
  std::string FreshCase(const std::string& body, const Headers& headers, const testing::HttpFault& fault = {}) {
    PackageDownload::ResetProcessBackoff();
    env_.services.server_profile = NewMemoryServerProfile();
    const std::string path = "/q" + std::to_string(served_++) + ".aspx";
    server_.AddFile(path, body, headers);
    server_.SetFault(path, fault);
    return path;
  }

  PackageInfoQuery Query(const std::string& path) {
    return {.packageId = *Guid::Parse(kPackage), .url = server_.Url(path), .resource = "agent-7",
            .requestType = "packageServers", .totalTime = 120, .totalFailureTime = 30};
  }

  Crypto& crypto() { return *env_.services.crypto; }
  Headers BinaryHeaders(std::string_view body, std::optional<std::string> signature = std::nullopt) {
    Headers headers = {{"Content-Hash", Base64Encode(crypto().Sha256(AsBytes(body)))}};
    if (signature) headers.emplace_back("Content-Signature", *signature);
    return headers;
  }
  std::string SignatureBy(int key, std::string_view body) {
    return Base64Encode(crypto().Sign(AsBytes(body), testing::TestKey("EC", key)));
  }
  std::string PublicKey(int key) { return crypto().PublicKeyBase64FromPrivateKey(testing::TestKey("EC", key)); }
  static std::span<const uint8_t> AsBytes(std::string_view s) {
    return {reinterpret_cast<const uint8_t*>(s.data()), s.size()};
  }

  testing::TransportServices env_;
  HttpTestServer server_;
  int served_ = 0;
};

TEST_F(PackageInfoTest, AnswersOverHttp) {
  env_.services.signing_keys->StoreDefaultKey(PublicKey(0));
  env_.services.signing_keys->AddOtherKey("not a key");  // a broken stored key does not stop the others
  env_.services.signing_keys->AddOtherKey(PublicKey(1));
  const Headers xml = {{"Content-Type", "text/xml"}};
  const std::string frame = Framed(kSources);
  const std::string root = "Invalid XML returned by server. Root of the document is not found.";
  const std::string binary = "Binary response validation failed: ";
  struct Case {
    std::string name, body;
    Headers headers;
    Result code;
    std::string text;  // the answer, or the start of the failure's description
    uint32_t profileErrors = 0;
    testing::HttpFault fault = {};
  } cases[] = {
      {"plain", kSources, xml, 0, kSources},
      {"byte order mark skipped", "\xEF\xBB\xBF" + kSources, xml, 0, kSources},
      // "<a>é😀" and an unpaired surrogate, as UTF-16.
      {"utf16", std::string("\xFF\xFE<\0a\0>\0\xE9\0\x3D\xD8\0\xDE\0\xD8<\0/\0a\0>\0", 24), xml, 0,
       "<a>\xC3\xA9\xF0\x9F\x98\x80\xEF\xBF\xBD</a>"},
      {"paused", "<Error number=\"8004200E\"/>", xml, 0x8004200E, "WARNING: The server is currently paused", 1},
      {"number 1", "<Error number=\"1\"/>", xml, 0x80004005, "Invalid response from server", 1},
      {"own text", "<Error number=\"80070005\"> Denied </Error>", xml, 0x80070005, "Denied", 1},
      {"other number", "<Error number=\"8004ABCD\"/>", xml, 0x8004ABCD, "Server error", 1},
      {"not xml", "Service Unavailable", {{"Content-Type", "text/html"}}, 0x80004005, root, 1},
      {"invalid utf-8", "<a>\xC3\x28\xFF</a>", xml, 0x80004005, root, 1},
      {"entity bomb", "<!DOCTYPE a [<!ENTITY x \"xxxx\"><!ENTITY y \"&x;&x;&x;&x;\">]><a>&y;&y;</a>", xml, 0x80004005,
       root, 1},
      {"huge", std::string(17u << 20, 'x'), xml, 0x800700DF, ""},
      {"truncated", std::string(100'000, 'x'), xml, 0x800C0008, "", 0, {.truncateAfter = 5000}},
      {"unavailable", kSources, xml, 0x80042D21, "", 0, {.status = 500}},
      {"binary without hash", frame, {}, 0x80073600, binary},
      {"binary with wrong hash", frame, BinaryHeaders("other"), 0x8007362E, binary},
      {"binary with short hash", frame, {{"Content-Hash", "c2hvcnQ="}}, 0x80073630, binary},
      {"binary, not a frame", "\x01\x02\x03", BinaryHeaders("\x01\x02\x03"), 0x80004005,
       "Invalid response from server", 1},
      {"binary frame, unsigned", frame, BinaryHeaders(frame), 0, kSources},
      {"signed, default key", frame, BinaryHeaders(frame, SignatureBy(0, frame)), 0, kSources},
      {"signed, other key", frame, BinaryHeaders(frame, SignatureBy(1, frame)), 0, kSources},
      {"signed, unknown key", frame, BinaryHeaders(frame, SignatureBy(2, frame)), 0x80073602, binary},
      {"signature not base64", frame, BinaryHeaders(frame, "@@@"), 0x8007000D, binary},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = FreshCase(c.body, c.headers, c.fault);
    env_.log->Clear();
    PackageDownload download(env_.services);
    std::string answer;
    EXPECT_EQ(download.GetPackageInfo(Query(path), answer), c.code == 0);
    EXPECT_EQ(download.LastResult(), c.code) << download.LastDescription();
    EXPECT_EQ(c.code == 0 ? answer : download.LastDescription().substr(0, c.text.size()), c.text);
    EXPECT_EQ(env_.services.server_profile->ErrorCount(server_.Url(path)), c.profileErrors);
    EXPECT_EQ(env_.log->Contains("Failed to validate the binary response"), c.code == 0x80073602);
  }
  EXPECT_TRUE(env_.log->Contains(
      "Download package sources failed: Binary response validation failed: The data is invalid (0x8007000D)"));
}

// The back-off is shared by every object of the process and ends with a good answer.
TEST_F(PackageInfoTest, BusyAnswersBackOffDoublingToTheMaximumWithoutContactingTheServer) {
  env_.settings->Set("Communications\\Package Delivery", "Server Request Maximum Backoff Interval (mins)",
                     SettingValue::Number(10));
  server_.AddFile("/busy.aspx", "<Error number=\"8004200C\"/>", {{"Content-Type", "text/xml"}});
  PackageDownload download(env_.services), other(env_.services);
  std::string answer;
  size_t requests = 0;
  for (uint32_t wait : {3, 6, 10, 10}) {
    env_.log->Clear();
    ASSERT_FALSE(download.GetPackageInfo(Query("/busy.aspx"), answer));
    ASSERT_EQ(server_.RequestCount("/busy.aspx"), ++requests);
    EXPECT_TRUE(env_.log->Contains("GetPackageInfo server request is backing off and will be retried in " +
                                   std::to_string(wait) + " minutes."));
    EXPECT_EQ(download.NextAllowedTime(), env_.clock->Now() + wait * kFileTimeTicksPerMinute);
    env_.clock->Advance(wait * 60'000ull - 1'000);
    EXPECT_FALSE(other.GetPackageInfo(Query("/busy.aspx"), answer));
    EXPECT_EQ(other.LastDescription(), "WARNING: Server is busy or paused. Package sources request is backing off.");
    EXPECT_EQ(server_.RequestCount("/busy.aspx"), requests) << "no request while backing off";
    env_.clock->Advance(1'000);
  }
  server_.AddFile("/good.aspx", kSources, {{"Content-Type", "text/xml"}});
  EXPECT_TRUE(other.GetPackageInfo(Query("/good.aspx"), answer));
  env_.log->Clear();
  EXPECT_FALSE(download.GetPackageInfo(Query("/busy.aspx"), answer));
  EXPECT_TRUE(env_.log->Contains("will be retried in 3 minutes."));
}

// A busy server or proxy may say so with its status alone.
TEST_F(PackageInfoTest, BusyStatusesBackOffUntilRetryAfter) {
  const FileTime now = env_.clock->Now();
  struct Case {
    int status;
    std::optional<std::string> retryAfter;
    uint64_t waitSeconds;
  } cases[] = {
      {503, std::nullopt, 3 * 60},
      {429, "600", 10 * 60},
      {503, "999999", 120 * 60},  // later than the maximum
      {503, "30", 3 * 60},        // sooner than the interval
      {429, "Thu, 01 Jan 2026 00:20:00 GMT", 20 * 60},  // the fake clock starts at 00:00
      {503, "soon", 3 * 60},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.retryAfter.value_or("none"));
    testing::HttpFault busy{.status = c.status};
    if (c.retryAfter) busy.statusHeaders = {{"Retry-After", *c.retryAfter}};
    const std::string path = FreshCase(kSources, {{"Content-Type", "text/xml"}}, busy);
    PackageDownload download(env_.services);
    std::string answer;
    EXPECT_FALSE(download.GetPackageInfo(Query(path), answer));
    EXPECT_EQ(std::make_pair(download.LastResult(), download.LastDescription()),
              std::make_pair(result::kServerBusy, std::string("WARNING: The server is currently busy")));
    EXPECT_EQ(download.NextAllowedTime(), now + c.waitSeconds * kFileTimeTicksPerSecond);
    EXPECT_EQ(env_.services.server_profile->ErrorCount(server_.Url(path)), 1u);
    // No request goes out before that time, and one does at it.
    env_.clock->Advance(c.waitSeconds * 1000 - 1);
    EXPECT_FALSE(download.GetPackageInfo(Query(path), answer));
    EXPECT_EQ(server_.RequestCount(path), 1u);
    server_.SetFault(path, {});
    env_.clock->Advance(1);
    EXPECT_TRUE(download.GetPackageInfo(Query(path), answer)) << download.LastDescription();
    env_.clock->SetNow(now);
  }
}

// The document reaches the server as one value, whatever its text holds.
TEST_F(PackageInfoTest, RequestDocumentArrivesWhole) {
  const std::string resource = "a+b%41c&d#e \"q\" 'q' <x> \xc3\xa9";
  server_.AddFile("/GetPackageInfo.aspx", kSources, {{"Content-Type", "text/xml"}});
  PackageInfoQuery query = Query("/GetPackageInfo.aspx");
  query.resource = resource;
  PackageDownload download(env_.services);
  std::string answer;
  ASSERT_TRUE(download.GetPackageInfo(query, answer)) << download.LastDescription();
  const testing::RecordedRequest request = server_.Requests().back();
  ASSERT_EQ(request.params.size(), 1u) << request.query;
  xml::Document document = xml::Document::Parse(request.Param("xml"));
  EXPECT_EQ(document.Root().Attribute("resource"), resource);
  EXPECT_EQ(document.Root().Attribute("totalFailureTime"), "30") << "the document's end arrived too";
}

// A peer's rate limit set for an earlier transfer of the same object never
// slows the request for sources.
TEST_F(PackageInfoTest, RunsAsANormalDownloadAfterAPeerTransfer) {
  const std::string large = "<PackageSources><!--" + std::string(8 * 1024, 'x') + "--></PackageSources>";
  server_.AddFile("/sources.aspx", large, {{"Content-Type", "text/xml"}});
  PackageDownload download(env_.services);
  SnapshotQuery peer;
  peer.packageId = *Guid::Parse(kPackage);
  peer.snapshotUrl = server_.Url("/missing.xml");
  peer.peerDownload = true;
  peer.peerRateKBps = 1;
  Snapshot snapshot;
  EXPECT_FALSE(download.DownloadSnapshot(peer, snapshot));
  const auto start = std::chrono::steady_clock::now();
  std::string answer;
  ASSERT_TRUE(download.GetPackageInfo(Query("/sources.aspx"), answer)) << download.LastDescription();
  EXPECT_EQ(answer, large);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}

// Memory that runs out inside an operation is reported as such, never as an
// unknown error.
TEST_F(PackageInfoTest, OutOfMemoryKeepsItsCodeAndText) {
  class StarvedDecryptor final : public ResponseDecryptor {
   public:
    DecryptedResponse DecryptResponse(std::span<const uint8_t>) override { throw std::bad_alloc(); }
    std::string DecryptBase64String(std::string_view) override { throw std::bad_alloc(); }
  };
  auto sender = std::make_shared<testing::FakeConnectionSender>();
  sender->SetResponse({{}, std::string("\x01\x02\x03", 3)});
  env_.services.connection_senders = std::make_shared<testing::FakeConnectionSenderLookup>(sender);
  env_.services.decryptor = std::make_shared<StarvedDecryptor>();
  const std::string text = std::system_category().message(ENOMEM);
  PackageDownload download(env_.services);
  std::string answer;
  EXPECT_FALSE(download.GetPackageInfo(Query("/GetPackageInfo.aspx"), answer));
  EXPECT_EQ(std::tuple(download.LastResult(), download.LastDescription()), std::tuple(0x8007000Eu, text));
  EXPECT_TRUE(env_.log->Contains("Download package sources failed: " + text + " (0x8007000E)"));
  SnapshotQuery query;
  query.packageId = *Guid::Parse(kPackage);
  query.snapshotUrl = server_.Url("/s.xml");
  query.user = "agent";
  query.encryptedPassword = "cGFzcw==";  // the decryptor runs out of memory on it
  Snapshot snapshot;
  EXPECT_FALSE(download.DownloadSnapshot(query, snapshot));
  EXPECT_EQ(std::tuple(download.LastResult(), download.LastDescription()), std::tuple(0x8007000Eu, text));
  EXPECT_FALSE(env_.log->Contains("Unknown error"));
}

class SenderTest : public PackageInfoTest {
 protected:
  SenderTest() {
    env_.services.connection_senders = std::make_shared<testing::FakeConnectionSenderLookup>(sender_);
  }
  std::shared_ptr<testing::FakeConnectionSender> sender_ = std::make_shared<testing::FakeConnectionSender>();
};

TEST_F(SenderTest, RequestDocumentGoesToTheEndpoint) {
  sender_->SetResponse({{}, kSources});
  PackageInfoQuery query = Query("/GetPackageInfo.ASPX");
  query.requestCodebases = true;
  PackageDownload download(env_.services);
  std::string answer;
  ASSERT_TRUE(download.GetPackageInfo(query, answer)) << download.LastDescription();
  EXPECT_EQ(answer, kSources);
  ASSERT_EQ(sender_->Sent().size(), 1u);
  const testing::SentRequest sent = sender_->Sent()[0];
  EXPECT_EQ(std::tie(sent.endpointName, sent.endpointId), std::make_tuple("GetPackageInfo", "{6F1C2A7E-94B3-4D58-A0E6-3B8C5D2F71A4}"));
  EXPECT_EQ(sent.body,
            "<request resource=\"agent-7\" version=\"1\" type=\"packageServers\" compress=\"1\" "
            "requestQSCodebases=\"true\" totalTime=\"120\" totalFailureTime=\"30\"><packages><package "
            "guid=\"{8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6B}\"/></packages><addresses><address "
            "ip=\"10.1.2.3\"/></addresses></request>");
  EXPECT_EQ(server_.Requests().size(), 0u);

  env_.services.network_addresses = std::make_shared<testing::FixedNetworkAddresses>(std::vector<std::string>{});
  ASSERT_TRUE(PackageDownload(env_.services).GetPackageInfo(Query("/x.asp"), answer));
  EXPECT_TRUE(env_.log->Contains("No IPv4 addresses assigned - package will get no specific sources unless agent "
                                 "is manually assigned."));
}

// A decryptor that finds every body encrypted and none it can open.
class RefusingDecryptor final : public ResponseDecryptor {
 public:
  DecryptedResponse DecryptResponse(std::span<const uint8_t>) override { return {result::kDecryptFailed, {}}; }
  std::string DecryptBase64String(std::string_view) override { Throw(result::kDecryptFailed, "no key"); }
};

TEST_F(SenderTest, Answers) {
  server_.AddFile("/moved.aspx", kSources, {{"Content-Type", "text/xml"}});
  using ScriptedSenderResponse = testing::ScriptedSenderResponse;
  struct Case {
    std::string name;
    ScriptedSenderResponse response;
    Result code;
    std::string text;  // the answer, or the failure's description
    uint32_t profileErrors;
    std::shared_ptr<ResponseDecryptor> decryptor = NewDefaultResponseDecryptor();
  };
  const std::vector<Case> cases = {
      {"server error header", {{{"X-TLX-QSError", "8004200D"}}, kSources}, 0x8004200D,
       "WARNING: The server is not ready to process", 1},
      {"unreadable server error", {{{"x-tlx-qserror", "zz"}}, ""}, 0x8007203F, "Server error", 1},
      {"relative redirect", {{{"RedirectUrl", "/moved.aspx"}}, ""}, 0, kSources, 0},
      {"framed body, not checked", {{}, Framed(kSources)}, 0, kSources, 0},
      {"empty body", {{}, ""}, 0x80004005, "Empty response from server", 1},
      {"undecryptable", {{}, std::string("\x01\x02\x03", 3)}, 0x80090005,
       "Unable to decrypt the GetPackageInfo response", 0, std::make_shared<RefusingDecryptor>()},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    PackageDownload::ResetProcessBackoff();
    env_.services.server_profile = NewMemoryServerProfile();
    env_.services.decryptor = c.decryptor;
    sender_->SetResponse(c.response);
    PackageDownload download(env_.services);
    std::string answer;
    EXPECT_EQ(download.GetPackageInfo(Query("/GetPackageInfo.aspx"), answer), c.code == 0);
    EXPECT_EQ(download.LastResult(), c.code);
    EXPECT_EQ(c.code == 0 ? answer : download.LastDescription(), c.text);
    EXPECT_EQ(env_.services.server_profile->ErrorCount(server_.Url("/GetPackageInfo.aspx")), c.profileErrors);
  }
  EXPECT_EQ(server_.RequestCount("/moved.aspx"), 1u);
  EXPECT_TRUE(env_.log->Contains("HTTP request redirected to " + server_.Url("/moved.aspx") + "?xml=%3Crequest%20"));
  const testing::RecordedRequest moved = server_.Requests().back();
  EXPECT_EQ(moved.Param("redirect"), "true");
  EXPECT_EQ(xml::Document::Parse(moved.Param("xml")).Root().Attribute("resource"), "agent-7");
}

}  // namespace
}  // namespace pkgdlv
