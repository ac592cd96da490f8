// The site outbound transfer reservation against a real HTTP server on
// 127.0.0.1 and a scripted persistent connection sender: the documents and
// URL of each action, refusals and other failures, missing data, keep-alives
// that would overlap, and the keep-alive timer on a fake clock.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "agent/server_profile.h"
#include "records/package_request.h"
#include "support/fake_connection_sender.h"
#include "support/http_test_server.h"
#include "support/transport_services.h"
#include "transport/package_download.h"
#include "transport/site_limits.h"
#include "transport/site_transfer.h"
#include "util/format.h"

namespace pkgdlv {
namespace {

using testing::HttpTestServer;

const char* const kPackage = "{8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6B}";
const char* const kResource = "{0D9E8F7A-6B5C-4D3E-2F1A-0B9C8D7E6F5A}";
const char* const kPage = "/QS/Agent/SiteTransfer.aspx";
const char* const kLimitWarning =
    "Failed to start files downloading: the limit of site outbound data transfers is reached";
const char* const kNoDataWarning = "Failed to execute SiteTransfer action: not enough data to compose the request XML";

std::string Document(std::string_view op, std::string_view site, int limit, uint64_t total, uint64_t done) {
  return "<resource guid='" + std::string(kResource) + "' op='" + std::string(op) + "'><site>" + std::string(site) +
         "</site><entity>" + kPackage + "</entity><max>" + std::to_string(limit) + "</max><total>" +
         std::to_string(total) + "</total><done>" + std::to_string(done) + "</done></resource>";
}

// Polls (real time) until ready() holds or a few seconds pass.
template <class Ready>
bool Eventually(Ready ready) {
  for (int i = 0; i < 5000 && !ready(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return ready();
}

class SiteTransferTest : public ::testing::Test {
 protected:
  SiteTransferTest() : request_(env_.services) {
    request_.SetId(*Guid::Parse(kPackage));
    request_.siteQueryResource = kResource;
    SetServerUrl(server_.Url(""));
    server_.AddFile(kPage, "<SiteTransfer/>", {{"Content-Type", "text/xml"}});
  }

  void SetServerUrl(const std::string& url) {
    env_.settings->Set(kSitesSettingsKey, kSiteTransferServerUrlValue, SettingValue::Text(url));
  }
  void UseSender() {
    env_.services.connection_senders = std::make_shared<testing::FakeConnectionSenderLookup>(sender_);
  }
  uint32_t ProfileErrors() { return env_.services.server_profile->ErrorCount(server_.Url("")); }

  testing::TransportServices env_;
  HttpTestServer server_;
  std::shared_ptr<testing::FakeConnectionSender> sender_ = std::make_shared<testing::FakeConnectionSender>();
  PackageRequest request_;
};

TEST_F(SiteTransferTest, EachActionSendsItsDocumentToTheSitePage) {
  PackageDownload download(env_.services);
  SiteTransfer transfer(download, env_.services.site_limits);
  const uint64_t total = 5'000'000'000;  // past 32 bits
  struct Case {
    int action;
    uint64_t done;
    std::string op;
  } cases[] = {
      {SiteTransfer::kStart, 0, "Start"},
      {SiteTransfer::kUpdate, 2'500'000'000, "Update"},
      {7, 3'000'000'000, ""},
      {SiteTransfer::kDone, total, "Done"},
  };
  size_t sent = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.op);
    // The site and limit are those of Start; later actions do not change them.
    const bool start = c.action == SiteTransfer::kStart;
    EXPECT_TRUE(transfer.Perform(c.action, start ? &request_ : nullptr, start ? "S-1" : "", start ? 4 : 9, total,
                                 c.done));
    const std::vector<testing::RecordedRequest> requests = server_.Requests();
    ASSERT_EQ(requests.size(), ++sent);
    EXPECT_EQ(requests.back().method, "GET");
    EXPECT_EQ(requests.back().path, kPage);
    const std::string document = Document(c.op, "S-1", 4, total, c.done);
    EXPECT_EQ(requests.back().query, "xml=" + document);
    EXPECT_TRUE(env_.log->Contains("Performing SiteTransfer action '" + c.op + "' with XML: '" + document + "'"));
  }
  EXPECT_EQ(env_.log->Count("Site outbound data transfer is allowed by QS"), 1u);
  EXPECT_EQ(env_.log->Count("Failed to get the persistent connection sender, will use ordinary network transport"),
            sent);

  // Done forgets the reservation: nothing more is sent for it.
  EXPECT_EQ(transfer.ComposeDocument(SiteTransfer::kUpdate, 1, 1), "");
  EXPECT_FALSE(transfer.Perform(SiteTransfer::kUpdate, nullptr, "", 0, 1, 1));
  EXPECT_EQ(server_.Requests().size(), sent);
  EXPECT_TRUE(env_.log->Contains("Failed to execute SiteTransfer action: "));
}

// Values of the first stage come out of the second as they went in, escaped
// for XML; percent signs in them are not taken for format fields.
TEST_F(SiteTransferTest, FirstStageValuesAreEscapedAndKept) {
  PackageDownload download(env_.services);
  SiteTransfer transfer(download, env_.services.site_limits);
  ASSERT_TRUE(transfer.PrepareRequest(&request_, "North <'B'> 100%ls", -1));
  EXPECT_EQ(transfer.ComposeDocument(SiteTransfer::kUpdate, 1, 0),
            Document("Update", "North &lt;&apos;B&apos;&gt; 100%ls", -1, 1, 0));
  EXPECT_EQ(server_.Requests().size(), 0u) << "preparing sends nothing";
}

struct FailureCase {
  std::string name;
  bool sender;
  std::string qsError;  // X-TLX-QSError of the sender's answer; empty: none
  std::string answer;   // the body of the answer
  int httpStatus;       // a failing HTTP status; 0: none
  int action;
  Result code;
  std::string description;  // empty: the transport's own text, not compared
  bool limitReached;  // the refusal of a Start: last result and its own warning
  uint32_t profileErrors;
};

class SiteTransferFailureTest : public SiteTransferTest, public ::testing::WithParamInterface<FailureCase> {};

TEST_P(SiteTransferFailureTest, ReturnsFalseWithItsWarning) {
  const FailureCase& c = GetParam();
  if (c.sender) {
    UseSender();
    testing::ScriptedSenderResponse response{{}, c.answer};
    if (!c.qsError.empty()) response.headers["X-TLX-QSError"] = c.qsError;
    sender_->SetResponse(response);
  } else {
    server_.AddFile(kPage, c.answer, {{"Content-Type", "text/xml"}});
    testing::HttpFault fault;
    fault.status = c.httpStatus;
    server_.SetFault(kPage, fault);
  }
  PackageDownload download(env_.services);
  SiteTransfer transfer(download, env_.services.site_limits);
  if (c.action != SiteTransfer::kStart) {
    ASSERT_TRUE(transfer.PrepareRequest(&request_, "S-1", 3));
  }
  env_.log->Clear();

  EXPECT_FALSE(transfer.Perform(c.action, &request_, "S-1", 3, 100, 0));
  const Failure failure = transfer.LastFailure();
  EXPECT_EQ(failure.code, c.code);
  if (!c.description.empty()) {
    EXPECT_EQ(failure.description, c.description);
  }
  EXPECT_EQ(download.LastResult(), c.limitReached ? c.code : result::kOk);
  EXPECT_EQ(env_.log->Contains(kLimitWarning), c.limitReached);
  EXPECT_EQ(
      env_.log->Contains(Format("Failed to execute SiteTransfer action: %ls (0x%08X)", failure.description, c.code)),
      !c.limitReached);
  EXPECT_FALSE(env_.log->Contains("Site outbound data transfer is allowed by QS"));
  EXPECT_EQ(ProfileErrors(), c.profileErrors);
}

const std::string kNotReady = "WARNING: The server is not ready to process";

INSTANTIATE_TEST_SUITE_P(
    Answers, SiteTransferFailureTest,
    ::testing::Values(
        FailureCase{"SenderRefusesStart", true, "8004200D", "", 0, SiteTransfer::kStart, 0x8004200D, kNotReady, true, 1},
        FailureCase{"HttpRefusesStart", false, "", "<Error number=\"8004200D\"/>", 0, SiteTransfer::kStart, 0x8004200D,
                    kNotReady, true, 1},
        FailureCase{"SenderErrorBodyRefusesStart", true, "", "<Error number=\"8004200D\"/>", 0, SiteTransfer::kStart,
                    0x8004200D, kNotReady, true, 1},
        FailureCase{"RefusedUpdateOnlyWarns", true, "8004200D", "", 0, SiteTransfer::kUpdate, 0x8004200D, kNotReady,
                    false, 1},
        FailureCase{"UnreadableServerError", true, "zz", "", 0, SiteTransfer::kStart, 0x8007203F, "Server error", false,
                    1},
        FailureCase{"BusyStart", false, "", "<Error number=\"8004200C\"/>", 0, SiteTransfer::kStart, 0x8004200C,
                    "WARNING: The server is currently busy", false, 1},
        FailureCase{"ErrorWithText", false, "", "<Error number=\"80070005\">Denied</Error>", 0, SiteTransfer::kDone,
                    0x80070005, "Denied", false, 1},
        FailureCase{"HttpStatus", false, "", "", 503, SiteTransfer::kStart, 0x80042D21, "", false, 0}),
    [](const ::testing::TestParamInfo<FailureCase>& info) { return info.param.name; });

TEST_F(SiteTransferTest, StartWithoutEnoughDataSendsNothing) {
  UseSender();
  struct Case {
    std::string name;
    bool request;
    std::string site;
    std::string serverUrl;
  } cases[] = {
      {"no request", false, "S-1", server_.Url("")},
      {"no site", true, "", server_.Url("")},
      {"no server URL", true, "S-1", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    SetServerUrl(c.serverUrl);
    env_.log->Clear();
    PackageDownload download(env_.services);
    SiteTransfer transfer(download, env_.services.site_limits);
    EXPECT_FALSE(transfer.Perform(SiteTransfer::kStart, c.request ? &request_ : nullptr, c.site, 3, 100, 0));
    EXPECT_EQ(env_.log->Count(kNoDataWarning), 1u);
    EXPECT_FALSE(env_.log->Contains(kLimitWarning));
    EXPECT_EQ(transfer.ComposeDocument(SiteTransfer::kUpdate, 1, 1), "");
  }
  EXPECT_EQ(sender_->Sent().size(), 0u);
  // Without site limits nothing tells the server URL either.
  PackageDownload download(env_.services);
  SiteTransfer transfer(download, nullptr);
  EXPECT_FALSE(transfer.Perform(SiteTransfer::kStart, &request_, "S-1", 3, 100, 0));
}

TEST_F(SiteTransferTest, UpdateWhileAnotherIsRunningReturnsAtOnce) {
  UseSender();
  Event release(Event::Reset::kManual);
  sender_->SetOnSend([&release] { release.Wait(10'000); });
  PackageDownload download(env_.services);
  SiteTransfer transfer(download, env_.services.site_limits);
  ASSERT_TRUE(transfer.PrepareRequest(&request_, "S-1", 3));

  bool first = false;
  std::thread keepAlive([&] { first = transfer.Perform(SiteTransfer::kUpdate, nullptr, "", 0, 100, 10); });
  ASSERT_TRUE(Eventually([&] { return sender_->Sent().size() == 1; }));
  EXPECT_TRUE(transfer.Perform(SiteTransfer::kUpdate, nullptr, "", 0, 100, 20));
  EXPECT_EQ(sender_->Sent().size(), 1u) << "the second keep-alive must not be sent";
  release.Set();
  keepAlive.join();
  EXPECT_TRUE(first);

  // Once the first has ended, the next keep-alive goes out again.
  EXPECT_TRUE(transfer.Perform(SiteTransfer::kUpdate, nullptr, "", 0, 100, 30));
  ASSERT_EQ(sender_->Sent().size(), 2u);
  EXPECT_EQ(sender_->Sent()[1].body, Document("Update", "S-1", 3, 100, 30));
  EXPECT_EQ(sender_->Sent()[1].endpointName, "SiteTransfer");
  EXPECT_EQ(sender_->Sent()[1].endpointId, "{C84E0B59-2F6D-4A13-9E7B-50D1A8C3F629}");
  EXPECT_EQ(server_.Requests().size(), 0u);
}

TEST(SiteLimitsTest, ReadsLimitsAndServerUrlFromSettings) {
  auto settings = std::make_shared<testing::MemorySettingsStore>();
  std::shared_ptr<SiteLimits> limits = NewSettingsSiteLimits(settings);
  const std::string key = std::string(kSitesSettingsKey) + "\\";
  settings->Set(key + "Five", kSiteOutboundLimitValue, SettingValue::Number(5));
  settings->Set(key + "Zero", kSiteOutboundLimitValue, SettingValue::Number(0));
  settings->Set(key + "Unlimited", kSiteOutboundLimitValue, SettingValue::Number(0xFFFFFFFF));
  settings->Set(key + "Text", kSiteOutboundLimitValue, SettingValue::Text("5"));
  struct Case {
    std::string site;
    int32_t limit;
  } cases[] = {{"Five", 5}, {"five", 5}, {"Zero", 0}, {"Unlimited", -1}, {"Unknown", -1}};
  for (const Case& c : cases) EXPECT_EQ(limits->OutboundLimit(c.site), c.limit) << c.site;
  try {
    limits->OutboundLimit("Text");
    ADD_FAILURE() << "a limit stored as text must not read as a limit";
  } catch (const Error& e) {
    EXPECT_EQ(e.code(), result::kInvalidData);
  }
  EXPECT_EQ(limits->SiteTransferServerUrl("Five"), "");
  settings->Set(kSitesSettingsKey, kSiteTransferServerUrlValue, SettingValue::Text("https://qs.example"));
  EXPECT_EQ(limits->SiteTransferServerUrl("Five"), "https://qs.example");
}

// A tick that outlasts intervals does not move the schedule: the calls that
// fell due meanwhile are skipped and the next comes at its usual time.
TEST(KeepAliveTimerTest, LongTickSkipsTheCallsItOverlaps) {
  auto clock = std::make_shared<testing::FakeClock>();
  const uint64_t start = clock->TickCount();
  std::atomic<int> ticks{0};
  KeepAliveTimer timer(clock, 1'000, [&] {
    if (ticks++ == 0) clock->Advance(2'500);
  });
  ASSERT_TRUE(clock->AwaitTimedWaiters(1));
  clock->Advance(1'000);
  ASSERT_TRUE(Eventually([&] { return ticks == 1 && clock->TimedWaiters() == 1; }));
  EXPECT_EQ(clock->EarliestDeadline(), start + 4'000);
}

TEST(KeepAliveTimerTest, DestructorWaitsForARunningTick) {
  auto clock = std::make_shared<testing::FakeClock>();
  Event inTick(Event::Reset::kManual);
  Event release(Event::Reset::kManual);
  std::atomic<int> ticks{0};
  auto timer = std::make_unique<KeepAliveTimer>(clock, 300'000, [&] {
    ticks++;
    inTick.Set();
    release.Wait(10'000);
  });
  ASSERT_TRUE(clock->AwaitTimedWaiters(1));
  clock->Advance(300'000);
  ASSERT_TRUE(inTick.Wait(5'000));

  std::atomic<bool> destroyed{false};
  std::thread destroyer([&] {
    timer.reset();
    destroyed = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(destroyed) << "the destructor returned while a tick was running";
  release.Set();
  destroyer.join();
  EXPECT_TRUE(destroyed);
  clock->Advance(600'000);
  EXPECT_EQ(ticks, 1);
}

}  // namespace
}  // namespace pkgdlv
