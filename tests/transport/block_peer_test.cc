// Block downloads from a peer, on a scripted transport and the fake clock:
// the wait for blocks or files the peer does not have yet, a cancel during
// that wait, and the peer configuration read again as the download goes.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "block_test_support.h"
#include "support/fake_peer_configuration.h"
#include "support/scripted_transport.h"
#include "support/transport_services.h"

namespace pkgdlv {
namespace {

using testing::AttemptRunner;
using testing::BlockPackage;
using testing::kBlock;
using testing::RangeCall;

constexpr const char* kPeer = "http://peer.invalid/pkg";

class BlockPeerTest : public ::testing::Test {
 protected:
  BlockPeerTest() {
    env_.services.transports = transports_;
    env_.services.peer_configuration = peerConfig_;
    peerConfig_->Set({.progressIntervalSeconds = 60});
  }

  // The peer's answer: the block from the package's content, or notReady
  // for the block at notReadyOffset while answersLeft says so.
  RangeResult Serve(const RangeCall& call, std::span<uint8_t> buffer) {
    if (call.first == notReadyOffset_ && notReadyAnswers_ != 0) {
      if (notReadyAnswers_ > 0) --notReadyAnswers_;
      Throw(notReadyCode_, "The peer is not ready");
    }
    if (onServe_) onServe_();
    const std::string& content = content_;
    const size_t n = std::min<size_t>(buffer.size(), content.size() - call.first);
    std::copy_n(content.data() + call.first, n, buffer.data());
    return RangeResult{n, {}};
  }

  // Runs the attempt on another thread and moves the fake clock to each wait's
  // end as soon as the attempt waits, until it returns.
  Result RunWithClockDriven(AttemptRunner& runner, const std::function<void(AttemptInput&)>& adjust) {
    std::atomic<bool> done{false};
    Result code = 0;
    std::thread attempt([&] {
      code = runner.Run(kPeer, adjust);
      done = true;
    });
    while (!done) {
      if (!env_.clock->AwaitTimedWaiters(1, 20)) continue;
      const uint64_t due = env_.clock->EarliestDeadline();
      const uint64_t now = env_.clock->TickCount();
      if (due > now) {
        env_.clock->Advance(due - now);
      } else {
        std::this_thread::yield();
      }
    }
    attempt.join();
    return code;
  }

  testing::TransportServices env_;
  BlockPackage package_{{{"p.bin", testing::PatternBytes(6 * kBlock, 5)}}};
  std::string content_ = package_.Content("p.bin");
  std::shared_ptr<testing::ScriptedTransportFactory> transports_ = std::make_shared<testing::ScriptedTransportFactory>(
      [this](const RangeCall& call, std::span<uint8_t> buffer) { return Serve(call, buffer); });
  std::shared_ptr<testing::FakePeerConfigurationSource> peerConfig_ =
      std::make_shared<testing::FakePeerConfigurationSource>();
  std::function<void()> onServe_;
  uint64_t notReadyOffset_ = UINT64_MAX;
  int notReadyAnswers_ = 0;  // negative: for ever
  Result notReadyCode_ = result::kPeerBlocksNotReady;
};

TEST_F(BlockPeerTest, NotReadyAnswersAreWaitedForAQuarterIntervalAtATimeUpToTwoIntervals) {
  struct Case {
    std::string name;
    std::optional<std::vector<uint32_t>> peerBlocks;  // the server block map; none without a value
    uint32_t waitMode;
    Result notReady;
    uint32_t block;
    int notReadyAnswers;
    Result code;
    size_t waits;
    std::string waitLine;
    std::string limitLine;
  } cases[] = {
      {"peer map lacks the block", std::vector<uint32_t>{0}, 2, result::kPeerBlocksNotReady, 1, -1, 1223, 8,
       "Wait '15' seconds for required blocks to become ready...", "Wait limit of '120' seconds is exceeded."},
      {"no peer map: a 180-second interval", std::nullopt, 0, result::kPeerFilesNotReady, 1, -1, 1223, 8,
       "Wait '45' seconds for required files to become ready...", "Wait limit of '360' seconds is exceeded."},
      {"ready after three waits", std::vector<uint32_t>{0}, 2, result::kPeerBlocksNotReady, 1, 3, 0, 3,
       "Wait '15' seconds for required blocks to become ready...", ""},
      {"peer map has the block", std::vector<uint32_t>{0, 1}, 2, result::kPeerBlocksNotReady, 1, -1,
       result::kPeerBlocksNotReady, 0, "", ""},
      {"another wait mode", std::vector<uint32_t>{0}, 0x11, result::kPeerBlocksNotReady, 1, -1,
       result::kPeerBlocksNotReady, 0, "", ""},
      {"nothing of the file downloaded yet", std::vector<uint32_t>{}, 2, result::kPeerBlocksNotReady, 0, -1,
       result::kPeerBlocksNotReady, 0, "", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::filesystem::remove_all(package_.target);
    env_.log->Clear();
    notReadyOffset_ = uint64_t{c.block} * kBlock;
    notReadyAnswers_ = c.notReadyAnswers;
    notReadyCode_ = c.notReady;
    const size_t callsBefore = transports_->Calls().size();
    DynamicBitset peerMap;
    peerMap.Create(6);
    if (c.peerBlocks) {
      for (uint32_t bit : *c.peerBlocks) peerMap.Set(bit, true);
    }
    AttemptRunner runner(env_.services, package_);
    const Result code = RunWithClockDriven(runner, [&](AttemptInput& input) {
      input.peer = true;
      input.waitForPeerMode = c.waitMode;
      input.serverMap = c.peerBlocks ? &peerMap : nullptr;
    });
    EXPECT_EQ(code, c.code) << runner.download.LastDescription();

    size_t requestsOfBlock = 0;
    const std::vector<RangeCall> calls = transports_->Calls();
    for (size_t i = callsBefore; i < calls.size(); ++i) requestsOfBlock += calls[i].first == notReadyOffset_ ? 1 : 0;
    EXPECT_EQ(requestsOfBlock, c.waits + 1);
    EXPECT_EQ(c.waitLine.empty() ? c.waits : env_.log->Count(c.waitLine), c.waits);
    EXPECT_EQ(env_.log->Count(c.limitLine.empty() ? "Wait limit of" : c.limitLine), c.limitLine.empty() ? 0u : 1u);
    if (c.code == 1223) {
      EXPECT_TRUE(env_.log->Contains("Package 'Demo' download cancelled"));
      EXPECT_EQ(package_.BitsOf("p.bin", runner.map), std::vector<uint32_t>{0});
    }
  }
}

TEST_F(BlockPeerTest, ACancelEndsAPeerWaitAtOnce) {
  notReadyOffset_ = kBlock;
  notReadyAnswers_ = -1;
  DynamicBitset peerMap;
  peerMap.Create(6);
  peerMap.Set(0, true);
  AttemptRunner runner(env_.services, package_);
  std::thread canceller([&] {
    // The clock never moves: only the cancel can end the wait.
    if (env_.clock->AwaitTimedWaiters(1)) runner.download.Cancel();
  });
  const Result code = runner.Run(kPeer, [&](AttemptInput& input) {
    input.peer = true;
    input.waitForPeerMode = 2;
    input.serverMap = &peerMap;
  });
  canceller.join();
  EXPECT_EQ(code, 1223u);
  EXPECT_EQ(env_.log->Count("Wait '15' seconds for required blocks to become ready..."), 1u);
  EXPECT_TRUE(env_.log->Contains("Package 'Demo' download cancelled"));
}

TEST_F(BlockPeerTest, PeerConfigurationIsReadAgainEachProgressInterval) {
  // Each block takes 30 seconds; the agent halves the peer rate after the second block.
  peerConfig_->Set({.maxRateKBps = 100, .progressIntervalSeconds = 60});
  onServe_ = [this, served = 0]() mutable {
    env_.clock->Advance(30'000);
    if (++served == 2) peerConfig_->Set({.maxRateKBps = 50, .progressIntervalSeconds = 60});
  };
  AttemptRunner runner(env_.services, package_);
  ASSERT_EQ(runner.Run(kPeer, [](AttemptInput& input) { input.peer = true, input.storeProgressSeconds = 60; }), 0u)
      << runner.download.LastDescription();
  EXPECT_EQ(env_.log->Count("New peer download max rate is set to 50 KBytes\\sec"), 1u);
  EXPECT_EQ(runner.stored.size(), 3u) << "after 90 and 180 seconds, and at the end";
}

}  // namespace
}  // namespace pkgdlv
