// A package's download history, "log.xml" in its folder: running totals and
// one record per download cycle, newest first.
//
// The engine adds a record at the end of each cycle (RecordCycle) and saves
// the document; the package object reads it back for its callers. One thread
// at a time per object; the owner serialises access.
#pragma once

#include <pkgdlv/result_codes.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "agent/logger.h"
#include "records/delivery_settings.h"
#include "util/filetime.h"

namespace pkgdlv {

inline constexpr std::string_view kPackageLogComponent = "PackageLog";
inline constexpr std::string_view kPackageLogFileName = "log.xml";

// One download cycle. Times are 0 when not known.
struct DownloadRecord {
  uint32_t version = 0;
  int32_t status = 0;  // PkgDlv_Status at the end of the cycle
  std::string statusDescr;
  FileTime nextRetry = 0;  // meaningful only for a retrying status
  uint64_t transferBytes = 0;
  uint64_t packageSize = 0;
  FileTime startTime = 0;
  FileTime endTime = 0;
  std::string source;  // the URL or path the cycle used
  uint32_t transferRate = 0;   // bytes per second
  uint64_t transferCache = 0;  // bytes found already present
  Result result = 0;

  friend bool operator==(const DownloadRecord&, const DownloadRecord&) = default;
};

struct DownloadTotals {
  std::string id;  // the package identifier, braced
  uint32_t downloadEvent = 0;
  uint64_t transferBytes = 0;
  uint32_t transferRate = 0;  // average over the cycles, bytes per second
  uint32_t attempts = 0;
  uint32_t successes = 0;
  FileTime attemptTime = 0;          // start of the last cycle
  FileTime downloadFailureTime = 0;  // end of the last failed cycle

  friend bool operator==(const DownloadTotals&, const DownloadTotals&) = default;
};

class PackageLog {
 public:
  // The settings give the history size at every save; both must outlive the
  // object.
  PackageLog(Logger& log, DeliverySettings& settings) : log_(log), settings_(settings) {}

  DownloadTotals totals;
  std::vector<DownloadRecord> entries;  // newest first

  // Adds a finished cycle in front and updates the totals: one more event and
  // attempt, a success when its result is 0, its bytes, the average rate, the
  // attempt time and (for a failure) the failure time. With a history size
  // set, older records beyond it are dropped.
  void RecordCycle(const DownloadRecord& cycle);

  // The document text. Writes at most "Download history size" records (all
  // of them when the setting is 0), warning when more than 50 are written.
  std::string Save() const;
  // Fills the object from a document; on failure throws Error (0x80004005,
  // "Invalid XML: XML failed to load", "... Incorrect root element", "...
  // Missing ID") and leaves the object as it was.
  void Load(std::string_view text);

  // "log.xml" in a package folder, written through a temporary file. Throws
  // Error when it cannot be written or read; loading a folder without one
  // leaves the object empty but for the identifier.
  void SaveToFolder(const std::filesystem::path& folder) const;
  void LoadFromFolder(const std::filesystem::path& folder);

 private:
  Logger& log_;
  DeliverySettings& settings_;
};

}  // namespace pkgdlv
