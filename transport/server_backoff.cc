#include "transport/server_backoff.h"

namespace pkgdlv {

std::optional<FileTime> BackoffState::ActiveUntil(FileTime now) const {
  if (busyTime == 0) return std::nullopt;
  const FileTime end = busyTime + intervalMinutes * kFileTimeTicksPerMinute;
  if (now < busyTime || now >= end) return std::nullopt;
  return end;
}

uint32_t BackoffState::RecordBusy(FileTime now, uint32_t maxMinutes) {
  if (busyTime != 0) {
    if (intervalMinutes < maxMinutes / 2) {
      intervalMinutes *= 2;
      if (intervalMinutes < 1) intervalMinutes = maxMinutes;
    } else {
      intervalMinutes = maxMinutes;
    }
  }
  busyTime = now;
  return intervalMinutes;
}

void BackoffState::RecordSuccess() {
  busyTime = 0;
  intervalMinutes = kInitialBackoffMinutes;
}

LockedBackoff ProcessBackoff() {
  static std::mutex mutex;
  static BackoffState state;
  return LockedBackoff{std::unique_lock(mutex), state};
}

}  // namespace pkgdlv
