// Times of the engine: 64-bit file times, 100-nanosecond units since
// 1601-01-01 UTC. Delays are milliseconds.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace pkgdlv {

using FileTime = uint64_t;

constexpr FileTime kFileTimeTicksPerMs = 10'000;
constexpr FileTime kFileTimeTicksPerSecond = 10'000'000;
constexpr FileTime kFileTimeTicksPerMinute = 60 * kFileTimeTicksPerSecond;
// 1970-01-01 expressed as a file time.
constexpr FileTime kUnixEpochFileTime = 116'444'736'000'000'000ULL;

FileTime FileTimeFromTimespec(const timespec& ts);
timespec TimespecFromFileTime(FileTime ft);
FileTime FileTimeFromUnixSeconds(int64_t seconds);
int64_t UnixSecondsFromFileTime(FileTime ft);

// The system's current time as a file time (not through the agent clock; the
// engine reads time through its Clock so tests can move it).
FileTime SystemFileTimeNow();

// Broken-down UTC time of a file time.
struct CivilTime {
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, millisecond = 0;
};
CivilTime ToCivilUtc(FileTime ft);
std::optional<FileTime> FromCivilUtc(const CivilTime& civil);

// Document date-time forms, both UTC:
//   kIsoT:   "%04d-%02d-%02dT%02d:%02d:%02d"
//   kSpaced: "%04d-%02d-%02d %02d:%02d:%02d"
enum class DateForm { kIsoT, kSpaced };
std::string FormatDocumentTime(FileTime ft, DateForm form);
// Reads either form (and a trailing "Z" or fraction of a second, which are
// ignored); nullopt for anything else or an impossible date.
std::optional<FileTime> ParseDocumentTime(std::string_view text);

// Local date and time "%04d-%02d-%02d %02d:%02d:%02d", for log lines;
// empty when the time cannot be converted.
std::string FormatLocalTime(FileTime ft);

// A delay for log lines: "45 seconds", "3 minutes", "1 hour 5 minutes",
// "2 days 3 hours".
std::string FormatDuration(uint64_t milliseconds);

}  // namespace pkgdlv
