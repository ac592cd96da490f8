#include "util/filetime.h"

#include <chrono>
#include <ctime>

#include "util/format.h"

namespace pkgdlv {

FileTime FileTimeFromTimespec(const timespec& ts) {
  int64_t ticks = static_cast<int64_t>(ts.tv_sec) * 10'000'000 + ts.tv_nsec / 100;
  int64_t ft = static_cast<int64_t>(kUnixEpochFileTime) + ticks;
  return ft < 0 ? 0 : static_cast<FileTime>(ft);
}

timespec TimespecFromFileTime(FileTime ft) {
  int64_t ticks = static_cast<int64_t>(ft) - static_cast<int64_t>(kUnixEpochFileTime);
  timespec ts{};
  int64_t sec = ticks / 10'000'000;
  int64_t rem = ticks % 10'000'000;
  if (rem < 0) {
    rem += 10'000'000;
    --sec;
  }
  ts.tv_sec = static_cast<time_t>(sec);
  ts.tv_nsec = static_cast<long>(rem * 100);
  return ts;
}

FileTime FileTimeFromUnixSeconds(int64_t seconds) {
  return FileTimeFromTimespec(timespec{static_cast<time_t>(seconds), 0});
}

int64_t UnixSecondsFromFileTime(FileTime ft) { return TimespecFromFileTime(ft).tv_sec; }

FileTime SystemFileTimeNow() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return FileTimeFromTimespec(ts);
}

CivilTime ToCivilUtc(FileTime ft) {
  timespec ts = TimespecFromFileTime(ft);
  tm parts{};
  gmtime_r(&ts.tv_sec, &parts);
  return CivilTime{parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday, parts.tm_hour,
                   parts.tm_min,         parts.tm_sec,     static_cast<int>(ts.tv_nsec / 1'000'000)};
}

std::optional<FileTime> FromCivilUtc(const CivilTime& c) {
  using namespace std::chrono;
  if (c.year < 1601 || c.year > 30827) return std::nullopt;
  year_month_day ymd{year{c.year}, month{static_cast<unsigned>(c.month)}, day{static_cast<unsigned>(c.day)}};
  if (!ymd.ok()) return std::nullopt;
  if (c.hour < 0 || c.hour > 23 || c.minute < 0 || c.minute > 59 || c.second < 0 || c.second > 60 ||
      c.millisecond < 0 || c.millisecond > 999) {
    return std::nullopt;
  }
  int64_t days = sys_days(ymd).time_since_epoch().count();
  int64_t seconds = days * 86400 + c.hour * 3600 + c.minute * 60 + c.second;
  return FileTimeFromUnixSeconds(seconds) + static_cast<FileTime>(c.millisecond) * kFileTimeTicksPerMs;
}

std::string FormatDocumentTime(FileTime ft, DateForm form) {
  CivilTime c = ToCivilUtc(ft);
  return Format(form == DateForm::kIsoT ? "%04d-%02d-%02dT%02d:%02d:%02d" : "%04d-%02d-%02d %02d:%02d:%02d",
                c.year, c.month, c.day, c.hour, c.minute, c.second);
}

namespace {

bool ReadDigits(std::string_view& s, size_t count, int& out) {
  if (s.size() < count) return false;
  int v = 0;
  for (size_t i = 0; i < count; ++i) {
    if (s[i] < '0' || s[i] > '9') return false;
    v = v * 10 + (s[i] - '0');
  }
  out = v;
  s.remove_prefix(count);
  return true;
}

bool Expect(std::string_view& s, char c) {
  if (s.empty() || s.front() != c) return false;
  s.remove_prefix(1);
  return true;
}

}  // namespace

std::optional<FileTime> ParseDocumentTime(std::string_view s) {
  CivilTime c;
  if (!ReadDigits(s, 4, c.year) || !Expect(s, '-') || !ReadDigits(s, 2, c.month) || !Expect(s, '-') ||
      !ReadDigits(s, 2, c.day)) {
    return std::nullopt;
  }
  if (s.empty() || (s.front() != 'T' && s.front() != ' ')) return std::nullopt;
  s.remove_prefix(1);
  if (!ReadDigits(s, 2, c.hour) || !Expect(s, ':') || !ReadDigits(s, 2, c.minute) || !Expect(s, ':') ||
      !ReadDigits(s, 2, c.second)) {
    return std::nullopt;
  }
  if (!s.empty() && s.front() == '.') {
    s.remove_prefix(1);
    while (!s.empty() && s.front() >= '0' && s.front() <= '9') s.remove_prefix(1);
  }
  if (!s.empty() && s.front() == 'Z') s.remove_prefix(1);
  if (!s.empty()) return std::nullopt;
  return FromCivilUtc(c);
}

std::string FormatLocalTime(FileTime ft) {
  const time_t seconds = static_cast<time_t>(UnixSecondsFromFileTime(ft));
  tm local{};
  if (!localtime_r(&seconds, &local)) return {};
  return Format("%04d-%02d-%02d %02d:%02d:%02d", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
                local.tm_hour, local.tm_min, local.tm_sec);
}

std::string FormatDuration(uint64_t ms) {
  uint64_t seconds = (ms + 500) / 1000;
  struct Unit {
    uint64_t size;
    const char* name;
  };
  static const Unit kUnits[] = {{86400, "day"}, {3600, "hour"}, {60, "minute"}, {1, "second"}};
  if (seconds == 0) return Format("%I64u ms", ms);
  std::string out;
  int shown = 0;
  for (const Unit& unit : kUnits) {
    uint64_t n = seconds / unit.size;
    seconds %= unit.size;
    if (n == 0 && shown == 0) continue;
    if (shown > 0 && n == 0) break;
    if (!out.empty()) out += ' ';
    out += Format("%I64u %hs%hs", n, unit.name, n == 1 ? "" : "s");
    if (++shown == 2) break;
  }
  return out;
}

}  // namespace pkgdlv
