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

std::string Document(std::string_view op, std::string_view site, int limit, uint64_t total, uint64_t done) {
  return "<resource guid='" + std::string(kResource) + "' op='" + std::string(op) + "'><site>" + std::string(site) +
         "</site><entity>" + kPackage + "</entity><max>" + std::to_string(limit) + "</max><total>" +
         std::to_string(total) + "</total><done>" + std::to_string(done) + "</done></resource>";
}

class SiteTransferTest : public ::testing::Test {
 protected:
  SiteTransferTest() : request_(env_.services) {
    request_.SetId(*Guid::Parse(kPackage));
    request_.siteQueryResource = kResource;
    env_.settings->Set(kSitesSettingsKey, kSiteTransferServerUrlValue, SettingValue::Text(server_.Url("")));
    server_.AddFile(kPage, "<SiteTransfer/>", {{"Content-Type", "text/xml"}});
  }

  testing::TransportServices env_;
  HttpTestServer server_;
  std::shared_ptr<testing::FakeConnectionSender> sender_ = std::make_shared<testing::FakeConnectionSender>();
  PackageRequest request_;
};

TEST_F(SiteTransferTest, EachActionSendsItsDocumentToTheSitePage) {
  PackageDownload download(env_.services);
  SiteTransfer transfer(download, env_.services.site_limits);
  const uint64_t total = 5'000'000'000;  // past 32 bits
  const std::tuple<int, uint64_t, std::string> cases[] = {{SiteTransfer::kStart, 0, "Start"},
                                                          {SiteTransfer::kUpdate, 2'500'000'000, "Update"},
                                                          {7, 3'000'000'000, ""},
                                                          {SiteTransfer::kDone, total, "Done"}};
  size_t sent = 0;
  for (const auto& [action, done, op] : cases) {
    // The site and limit are those of Start; later actions do not change them.
    const bool start = action == SiteTransfer::kStart;
    EXPECT_TRUE(transfer.Perform(action, start ? &request_ : nullptr, start ? "S-1" : "", start ? 4 : 9, total, done));
    const std::vector<testing::RecordedRequest> requests = server_.Requests();
    ASSERT_EQ(requests.size(), ++sent);
    const std::string document = Document(op, "S-1", 4, total, done);
    EXPECT_EQ(std::tie(requests.back().method, requests.back().path, requests.back().query),
              std::make_tuple("GET", kPage, "xml=" + document));
    EXPECT_TRUE(env_.log->Contains("Performing SiteTransfer action '" + op + "' with XML: '" + document + "'"));
  }
  EXPECT_EQ(env_.log->Count("Site outbound data transfer is allowed by QS"), 1u);

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

TEST_F(SiteTransferTest, FailuresReturnFalseWithTheirWarning) {
  const std::string notReady = "WARNING: The server is not ready to process";
  const std::string refused = "<Error number=\"8004200D\"/>";
  struct Case {
    bool sender;
    std::string qsError;  // X-TLX-QSError of the sender's answer; empty: none
    std::string answer;   // the body of the answer
    int httpStatus;       // a failing HTTP status; 0: none
    int action;
    Result code;
    std::string description;  // empty: the transport's own text, not compared
    bool limitReached;        // the refusal of a Start: last result and its own warning
    uint32_t profileErrors;
  } cases[] = {
      {true, "8004200D", "", 0, SiteTransfer::kStart, 0x8004200D, notReady, true, 1},
      {false, "", refused, 0, SiteTransfer::kStart, 0x8004200D, notReady, true, 1},
      {true, "", refused, 0, SiteTransfer::kStart, 0x8004200D, notReady, true, 1},
      {true, "8004200D", "", 0, SiteTransfer::kUpdate, 0x8004200D, notReady, false, 1},  // a refused update only warns
      {true, "zz", "", 0, SiteTransfer::kStart, 0x8007203F, "Server error", false, 1},
      {false, "", "<Error number=\"8004200C\"/>", 0, SiteTransfer::kStart, 0x8004200C,
       "WARNING: The server is currently busy", false, 1},
      {false, "", "<Error number=\"80070005\">Denied</Error>", 0, SiteTransfer::kDone, 0x80070005, "Denied", false, 1},
      {false, "", "", 503, SiteTransfer::kStart, 0x80042D21, "", false, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.answer + c.qsError + std::to_string(c.action));
    env_.services.server_profile = NewMemoryServerProfile();
    env_.services.connection_senders = c.sender ? std::make_shared<testing::FakeConnectionSenderLookup>(sender_) : nullptr;
    testing::ScriptedSenderResponse response{{}, c.answer};
    if (!c.qsError.empty()) response.headers["X-TLX-QSError"] = c.qsError;
    sender_->SetResponse(response);
    server_.AddFile(kPage, c.answer, {{"Content-Type", "text/xml"}});
    server_.SetFault(kPage, {.status = c.httpStatus});
    PackageDownload download(env_.services);
    SiteTransfer transfer(download, env_.services.site_limits);
    if (c.action != SiteTransfer::kStart) {
      ASSERT_TRUE(transfer.PrepareRequest(&request_, "S-1", 3));
    }
    env_.log->Clear();

    EXPECT_FALSE(transfer.Perform(c.action, &request_, "S-1", 3, 100, 0));
    const Failure failure = transfer.LastFailure();
    EXPECT_EQ(failure.code, c.code);
    EXPECT_EQ(c.description.empty() ? c.description : failure.description, c.description);
    EXPECT_EQ(download.LastResult(), c.limitReached ? c.code : result::kOk);
    EXPECT_EQ(env_.log->Contains(kLimitWarning), c.limitReached);
    EXPECT_EQ(
        env_.log->Contains(Format("Failed to execute SiteTransfer action: %ls (0x%08X)", failure.description, c.code)),
        !c.limitReached);
    EXPECT_FALSE(env_.log->Contains("Site outbound data transfer is allowed by QS"));
    EXPECT_EQ(env_.services.server_profile->ErrorCount(server_.Url("")), c.profileErrors);
  }
}

TEST_F(SiteTransferTest, UpdateWhileAnotherIsRunningReturnsAtOnce) {
  env_.services.connection_senders = std::make_shared<testing::FakeConnectionSenderLookup>(sender_);
  Event release(Event::Reset::kManual);
  sender_->SetOnSend([&release] { release.Wait(10'000); });
  PackageDownload download(env_.services);
  SiteTransfer transfer(download, env_.services.site_limits);
  ASSERT_TRUE(transfer.PrepareRequest(&request_, "S-1", 3));

  bool first = false;
  std::thread keepAlive([&] { first = transfer.Perform(SiteTransfer::kUpdate, nullptr, "", 0, 100, 10); });
  for (int i = 0; i < 5000 && sender_->Sent().empty(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  ASSERT_EQ(sender_->Sent().size(), 1u);
  EXPECT_TRUE(transfer.Perform(SiteTransfer::kUpdate, nullptr, "", 0, 100, 20));
  EXPECT_EQ(sender_->Sent().size(), 1u) << "the second keep-alive must not be sent";
  release.Set();
  keepAlive.join();
  EXPECT_TRUE(first);

  // Once the first has ended, the next keep-alive goes out again.
  EXPECT_TRUE(transfer.Perform(SiteTransfer::kUpdate, nullptr, "", 0, 100, 30));
  ASSERT_EQ(sender_->Sent().size(), 2u);
  const testing::SentRequest sent = sender_->Sent()[1];
  EXPECT_EQ(std::tie(sent.body, sent.endpointName, sent.endpointId),
            std::make_tuple(Document("Update", "S-1", 3, 100, 30), "SiteTransfer", "{C84E0B59-2F6D-4A13-9E7B-50D1A8C3F629}"));
  EXPECT_EQ(server_.Requests().size(), 0u);
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
