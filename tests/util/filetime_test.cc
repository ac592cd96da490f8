#include "util/filetime.h"

#include <gtest/gtest.h>

namespace pkgdlv {
namespace {

TEST(FileTimeTest, UnixEpochAndConversions) {
  EXPECT_EQ(FileTimeFromUnixSeconds(0), kUnixEpochFileTime);
  EXPECT_EQ(UnixSecondsFromFileTime(kUnixEpochFileTime + 25 * kFileTimeTicksPerSecond), 25);
  timespec ts{1'700'000'000, 123'456'700};
  EXPECT_EQ(TimespecFromFileTime(FileTimeFromTimespec(ts)).tv_nsec, ts.tv_nsec);
  EXPECT_EQ(TimespecFromFileTime(FileTimeFromTimespec(ts)).tv_sec, ts.tv_sec);
  // Before 1970 the conversion still holds.
  EXPECT_EQ(UnixSecondsFromFileTime(FileTimeFromUnixSeconds(-86400)), -86400);
}

TEST(FileTimeTest, DocumentFormsRoundTrip) {
  FileTime t = *FromCivilUtc({2024, 2, 29, 23, 5, 9, 0});
  EXPECT_EQ(FormatDocumentTime(t, DateForm::kIsoT), "2024-02-29T23:05:09");
  EXPECT_EQ(FormatDocumentTime(t, DateForm::kSpaced), "2024-02-29 23:05:09");
  EXPECT_EQ(ParseDocumentTime("2024-02-29T23:05:09"), t);
  EXPECT_EQ(ParseDocumentTime("2024-02-29 23:05:09"), t);
  EXPECT_EQ(ParseDocumentTime("2024-02-29T23:05:09.250Z"), t);
  EXPECT_EQ(ParseDocumentTime("1601-01-01T00:00:00"), FileTime{0});
}

TEST(FileTimeTest, RejectsImpossibleDates) {
  for (const char* bad : {"2023-02-29T00:00:00", "2024-13-01T00:00:00", "2024-01-01T24:00:00", "2024-01-01",
                          "2024/01/01 00:00:00", "2024-01-01T00:00:00+01:00", "", "1500-01-01T00:00:00",
                          "2024-1-01T00:00:00"}) {
    EXPECT_FALSE(ParseDocumentTime(bad).has_value()) << bad;
  }
}

TEST(FileTimeTest, DurationText) {
  EXPECT_EQ(FormatDuration(250), "250 ms");
  EXPECT_EQ(FormatDuration(1000), "1 second");
  EXPECT_EQ(FormatDuration(45'000), "45 seconds");
  EXPECT_EQ(FormatDuration(180'000), "3 minutes");
  EXPECT_EQ(FormatDuration(3'900'000), "1 hour 5 minutes");
  EXPECT_EQ(FormatDuration(3'600'000 + 5'000), "1 hour");
  EXPECT_EQ(FormatDuration(2 * 86'400'000ULL + 3 * 3'600'000ULL), "2 days 3 hours");
}

}  // namespace
}  // namespace pkgdlv
