#include "transport/server_backoff.h"

#include <curl/curl.h>

#include <algorithm>
#include <string>

#include "util/strings.h"

namespace pkgdlv {

std::optional<FileTime> BackoffState::ActiveUntil(FileTime now) const {
  if (busyTime == 0) return std::nullopt;
  const FileTime end = std::max(busyTime + intervalMinutes * kFileTimeTicksPerMinute, retryNotBefore);
  if (now < busyTime || now >= end) return std::nullopt;
  return end;
}

FileTime BackoffState::RecordBusy(FileTime now, uint32_t maxMinutes, FileTime retryAfter) {
  if (busyTime != 0) {
    if (intervalMinutes < maxMinutes / 2) {
      intervalMinutes *= 2;
      if (intervalMinutes < 1) intervalMinutes = maxMinutes;
    } else {
      intervalMinutes = maxMinutes;
    }
  }
  busyTime = now;
  retryNotBefore = retryAfter == 0 ? 0 : now + std::min<FileTime>(retryAfter, maxMinutes * kFileTimeTicksPerMinute);
  return std::max(now + intervalMinutes * kFileTimeTicksPerMinute, retryNotBefore);
}

void BackoffState::RecordSuccess() {
  busyTime = 0;
  intervalMinutes = kInitialBackoffMinutes;
  retryNotBefore = 0;
}

std::optional<FileTime> ParseRetryAfter(std::string_view text, FileTime now) {
  text = TrimAscii(text);
  if (text.empty()) return std::nullopt;
  // A year of seconds is more than any back-off allows; the cap keeps the
  // product in range.
  constexpr uint64_t kMaxSeconds = 366ull * 24 * 3600;
  if (std::optional<uint64_t> seconds = ParseUInt64(text)) {
    return std::min(*seconds, kMaxSeconds) * kFileTimeTicksPerSecond;
  }
  const time_t when = curl_getdate(std::string(text).c_str(), nullptr);
  if (when < 0) return std::nullopt;
  const FileTime at = FileTimeFromUnixSeconds(static_cast<int64_t>(when));
  return at > now ? at - now : 0;
}

LockedBackoff ProcessBackoff() {
  static std::mutex mutex;
  static BackoffState state;
  return LockedBackoff{std::unique_lock(mutex), state};
}

}  // namespace pkgdlv
