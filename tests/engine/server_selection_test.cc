#include "engine/server_selection.h"

#include <gtest/gtest.h>

#include "agent/crypto.h"
#include "agent/server_profile.h"
#include "support/fake_clock.h"
#include "support/recording_logger.h"
#include "util/error.h"

namespace pkgdlv {
namespace {

class FakeProfile final : public ServerProfile {
 public:
  void AddError(std::string_view) override {}
  uint32_t ErrorCount(std::string_view) const override { return 0; }
  std::optional<size_t> BestServer(std::span<const std::string>) const override { return best; }
  uint32_t ConnectionSpeed(std::string_view host) const override { return host == "fast" ? 90000 : 0; }
  std::optional<size_t> best = 0;
};

CodebaseEntry Source(std::string location, uint32_t type = 0) {
  CodebaseEntry entry;
  entry.location = std::move(location);
  entry.sourceType = type;
  return entry;
}

class ServerSelectionTest : public ::testing::Test {
 protected:
  ServerSelectionTest() { request_.SetId(Guid::Generate()); }

  // Selects for a request with these sources, keeping the cycle's lists.
  ServerSelection Choose(std::vector<CodebaseEntry> sources, bool urgent = false, std::string siteQueryType = "") {
    {
      auto lock = request_.Lock();
      request_.codebases = std::move(sources);
      request_.urgentDownload = urgent;
      request_.siteQueryType = std::move(siteQueryType);
    }
    return selector_.ChooseForPass(request_, tried_, peers_, bad_, queueLock_);
  }
  Result FailureOf(std::vector<CodebaseEntry> sources) {
    try {
      Choose(std::move(sources));
    } catch (const Error& e) {
      return e.code();
    }
    return 0;
  }

  std::shared_ptr<testing::RecordingLogger> log_ = std::make_shared<testing::RecordingLogger>();
  PackageRequest request_{log_, std::make_shared<testing::FakeClock>(), NewOpenSslCrypto()};
  FakeProfile profile_;
  Event stop_;
  ServerSelector selector_{*log_, profile_, "THIS", stop_};
  std::recursive_mutex queueLock_;
  std::vector<CodebaseEntry> tried_, peers_;
  std::vector<std::string> bad_;
};

TEST_F(ServerSelectionTest, SourcesOnThisComputerWinAndTheSpeedComesFromTheProfile) {
  ServerSelection chosen = Choose({Source("http://fast/a"), Source("\\\\this\\share\\b")});
  EXPECT_EQ(std::make_tuple(chosen.location, chosen.value, chosen.speed),
            std::make_tuple("\\\\this\\share\\b", 1u, ServerSelector::kDefaultSpeed));
  tried_.clear();
  EXPECT_EQ(Choose({Source("http://fast/a")}).speed, 90000u);
}

TEST_F(ServerSelectionTest, AServerWithEveryRecordTriedBecomesBadAndTheTriedListEmpties) {
  const std::vector<CodebaseEntry> sources = {Source("http://s0/a"), Source("http://s1/b")};
  EXPECT_EQ(Choose(sources).location, "http://s0/a");
  EXPECT_EQ(Choose(sources).location, "http://s1/b");  // s0's one source was tried: s0 is bad now
  EXPECT_EQ(std::make_tuple(bad_, tried_.size()), std::make_tuple(std::vector<std::string>{"s0"}, size_t{1}));
  EXPECT_EQ(FailureOf(sources), 0x80004005u);
  EXPECT_EQ(bad_, (std::vector<std::string>{"s0", "s1"}));
}

// The profile counts what the transport records, the URLs it used; the
// selection ranks servers by their host.
TEST(ServerSelectionProfileTest, ErrorsRecordedByTheTransportMoveTheChoice) {
  auto log = std::make_shared<testing::RecordingLogger>();
  auto profile = NewMemoryServerProfile();
  Event stop;
  ServerSelector selector(*log, *profile, "THIS", stop);
  const std::vector<CodebaseEntry> sources = {Source("http://s0:8080/pkg"), Source("http://s1/pkg")};
  auto choose = [&] {
    ServerSelection chosen;
    std::vector<CodebaseEntry> tried;
    std::vector<std::string> bad;
    EXPECT_TRUE(selector.SelectServer({"s0", "s1"}, sources, chosen, bad, tried, {}, false));
    return chosen.location;
  };
  EXPECT_EQ(choose(), "http://s0:8080/pkg");
  for (int i = 0; i < 5; ++i) profile->AddError("http://user@S0:8080/pkg/snapshot.xml?Resource=r&compress=1");
  EXPECT_EQ(choose(), "http://s1/pkg");
  EXPECT_EQ(profile->ErrorCount("s0"), 5u);
}

}  // namespace
}  // namespace pkgdlv
