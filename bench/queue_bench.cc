// Cost of the download queue's hot operations on queues of 100, 1,000 and
// 10,000 packages: SetPriority (the re-sort after every update list of a
// download), Front (every wake of the engine) and RetryPackage (every failed
// attempt, settings read included).
//
// The queue is a linear array, so the reference is one plain scan of an
// array of the same identifiers (std::find of a package near the end), run in
// the same process: SetPriority should cost a few scans, Front almost
// nothing. Figures are nanoseconds per operation over the thread's CPU time,
// best of three rounds.
#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include "agent/clock.h"
#include "agent/logger.h"
#include "agent/settings_store.h"
#include "bench_util.h"
#include "engine/download_queue.h"
#include "records/delivery_settings.h"

namespace {

using namespace pkgdlv;

constexpr int kRounds = 3;

// Best of kRounds, nanoseconds per operation.
double NanosPerOp(size_t operations, const std::function<void()>& run) {
  return bench::BestOf(kRounds, bench::ThreadSeconds, run) * 1e9 / static_cast<double>(operations);
}

// Settings in memory: the bench measures the queue, not a database.
class InMemorySettings final : public SettingsStore {
 public:
  std::optional<SettingValue> Get(std::string_view key, std::string_view name) override {
    const auto it = values_.find(std::string(key) + "\\" + std::string(name));
    if (it == values_.end()) return std::nullopt;
    return it->second;
  }
  void Set(std::string_view key, std::string_view name, const SettingValue& value) override {
    values_[std::string(key) + "\\" + std::string(name)] = value;
  }
  bool Delete(std::string_view key, std::string_view name) override {
    return values_.erase(std::string(key) + "\\" + std::string(name)) > 0;
  }
  std::vector<NamedSetting> List(std::string_view) override { return {}; }
  uint64_t ChangeCounter() override { return 0; }

 private:
  std::map<std::string, SettingValue> values_;
};

// A clock that does not move: the bench never waits.
class FixedClock final : public Clock {
 public:
  FileTime Now() override { return kUnixEpochFileTime + 56ULL * 365 * 24 * 3600 * kFileTimeTicksPerSecond; }
  uint64_t TickCount() override { return 0; }
  int WaitAny(std::span<Event* const>, uint32_t) override { return Event::kTimedOut; }
};

std::vector<Guid> MakeIds(size_t count) {
  std::vector<Guid> ids(count);
  std::generate(ids.begin(), ids.end(), Guid::Generate);
  return ids;
}

void RunSize(size_t count) {
  InMemorySettings store;
  auto log = std::make_shared<NullLogger>();
  DeliverySettings settings(store, *log);
  DownloadQueue queue(std::make_shared<FixedClock>(), log, settings);

  const std::vector<Guid> ids = MakeIds(count);
  std::mt19937_64 rng(count);
  for (const Guid& id : ids) queue.SetPriority(id, static_cast<int32_t>(rng() % 3) * 10 - 10, rng() % 1'000'000);

  // The reference: one linear scan for a package near the end.
  const size_t operations = std::max<size_t>(2'000, 2'000'000 / count);
  const Guid& last = ids[count - 1];
  size_t found = 0;
  const double scanNs = NanosPerOp(operations, [&] {
    for (size_t i = 0; i < operations; ++i) {
      found += static_cast<size_t>(std::find(ids.begin(), ids.end(), last) - ids.begin());
    }
  });

  // A download's missing size shrinks: the package is re-placed each time.
  int64_t missing = 1'000'000'000;
  const double setPriorityNs = NanosPerOp(operations, [&] {
    for (size_t i = 0; i < operations; ++i) queue.SetPriority(ids[rng() % count], 0, --missing);
  });

  size_t fronts = 0;
  const double frontNs = NanosPerOp(operations * 100, [&] {
    for (size_t i = 0; i < operations * 100; ++i) fronts += queue.Front().IsNull() ? 0 : 1;
  });

  // Failures of random packages; the waits are released between rounds so
  // the queue keeps its mix of ready and waiting entries.
  const double retryNs = NanosPerOp(operations, [&] {
    for (size_t i = 0; i < operations; ++i) {
      queue.RetryPackage(nullptr, ids[rng() % count], false, false, true, 0, false, 0);
    }
    queue.ReleaseRetryWaits();
  });

  std::printf("%7zu entries | scan %9.1f ns | SetPriority %9.1f ns (%5.2fx scan) | Front %6.1f ns | "
              "RetryPackage %9.1f ns (%5.2fx scan)\n",
              count, scanNs, setPriorityNs, setPriorityNs / scanNs, frontNs, retryNs, retryNs / scanNs);
  if (found == 0 || fronts == 0) std::printf("(unexpected: nothing found)\n");
}

}  // namespace

int main() {
  std::printf("Download queue: nanoseconds per operation (thread CPU time, best of %d)\n", kRounds);
  for (size_t count : {100, 1'000, 10'000}) RunSize(count);
  return 0;
}
