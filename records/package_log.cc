#include "records/package_log.h"

#include <algorithm>

#include "records/package_request.h"
#include "util/atomic_file.h"
#include "util/error.h"
#include "util/strings.h"
#include "util/xml.h"

namespace pkgdlv {

namespace {

constexpr size_t kLargeHistory = 50;

// A time that was never set has no date: only the time of day is written.
std::string TimeText(FileTime time) {
  if (time == 0) return "00:00:00";
  return FormatDocumentTime(time, DateForm::kSpaced);
}

FileTime ReadTime(const xml::Node& node, std::string_view name) {
  std::optional<std::string> text = node.Attribute(name);
  if (!text) return 0;
  return ParseDocumentTime(*text).value_or(0);
}

uint64_t ReadUnsigned(const xml::Node& node, std::string_view name) {
  std::optional<std::string> text = node.Attribute(name);
  return text ? ParseUInt64(*text).value_or(0) : 0;
}

uint32_t ReadUnsigned32(const xml::Node& node, std::string_view name) {
  return static_cast<uint32_t>(std::min<uint64_t>(ReadUnsigned(node, name), UINT32_MAX));
}

std::string Decimal(uint64_t value) { return std::to_string(value); }

DownloadRecord ReadRecord(const xml::Node& download, Logger& log) {
  DownloadRecord record;
  record.version = ReadUnsigned32(download, "version");
  record.status = ParseStatusName(download.Attribute("status"), log);
  record.statusDescr = download.Attribute("statusDescr").value_or("");
  record.nextRetry = ReadTime(download, "nextRetry");
  record.transferBytes = ReadUnsigned(download, "transferBytes");
  record.packageSize = ReadUnsigned(download, "packageSize");
  if (xml::Node session = download.SelectFirst("Session")) {
    record.startTime = ReadTime(session, "startTime");
    record.endTime = ReadTime(session, "endTime");
    record.source = session.Attribute("source").value_or("");
    record.transferRate = ReadUnsigned32(session, "transferRate");
    if (session.HasAttribute("transferBytes")) record.transferBytes = ReadUnsigned(session, "transferBytes");
    record.transferCache = ReadUnsigned(session, "transferCache");
    std::optional<std::string> result = session.Attribute("result");
    record.result = static_cast<Result>(result ? ParseInt64(*result).value_or(0) : 0);
  }
  return record;
}

}  // namespace

void PackageLog::RecordCycle(const DownloadRecord& cycle) {
  entries.insert(entries.begin(), cycle);
  const uint32_t limit = settings_.HistorySize();
  if (limit != 0 && entries.size() > limit) entries.resize(limit);

  ++totals.downloadEvent;
  ++totals.attempts;
  if (cycle.result == 0) ++totals.successes;
  totals.transferBytes += cycle.transferBytes;
  // The average of the cycles' rates, each cycle weighing the same.
  totals.transferRate = static_cast<uint32_t>(
      (static_cast<uint64_t>(totals.transferRate) * (totals.attempts - 1) + cycle.transferRate) / totals.attempts);
  totals.attemptTime = cycle.startTime;
  if (cycle.result != 0) totals.downloadFailureTime = cycle.endTime;
}

std::string PackageLog::Save() const {
  xml::Writer writer({.declaration = true, .indent = "  "});
  writer.StartElement("Log")
      .Attribute("id", totals.id)
      .Attribute("downloadEvent", Decimal(totals.downloadEvent))
      .Attribute("transferBytes", Decimal(totals.transferBytes))
      .Attribute("transferRate", Decimal(totals.transferRate))
      .Attribute("attempts", Decimal(totals.attempts))
      .Attribute("successes", Decimal(totals.successes))
      .Attribute("attemptTime", TimeText(totals.attemptTime))
      .Attribute("downloadFailureTime", TimeText(totals.downloadFailureTime));

  const uint32_t limit = settings_.HistorySize();
  const size_t count = limit == 0 ? entries.size() : std::min<size_t>(entries.size(), limit);
  if (count > kLargeHistory) {
    log_.Log(loglevel::kWarning, kPackageLogComponent, "Storing log file with very large history: %d entries",
             static_cast<int>(count));
  }
  writer.StartElement("History");
  for (size_t i = 0; i < count; ++i) {
    const DownloadRecord& record = entries[i];
    writer.StartElement("Download")
        .Attribute("version", Decimal(record.version))
        .Attribute("status", StatusName(record.status))
        .Attribute("statusDescr", record.statusDescr);
    if (record.status == PKGDLV_RETRYING) writer.Attribute("nextRetry", TimeText(record.nextRetry));
    writer.Attribute("transferBytes", Decimal(record.transferBytes))
        .Attribute("packageSize", Decimal(record.packageSize))
        .StartElement("Session")
        .Attribute("startTime", TimeText(record.startTime))
        .Attribute("endTime", TimeText(record.endTime))
        .Attribute("source", record.source)
        .Attribute("transferRate", Decimal(record.transferRate))
        .Attribute("transferBytes", Decimal(record.transferBytes))
        .Attribute("transferCache", Decimal(record.transferCache))
        .Attribute("result", std::to_string(static_cast<int32_t>(record.result)))
        .EndElement()
        .EndElement();
  }
  writer.EndElement().EndElement();
  return writer.Finish();
}

void PackageLog::Load(std::string_view text) {
  std::string reason;
  std::optional<xml::Document> document = xml::Document::TryParse(text, &reason);
  if (!document) Throw(result::kFail, "Invalid XML: XML failed to load: %ls", reason);
  xml::Node root = document->Root();
  if (!root || root.Name() != "Log") Throw(result::kFail, "Invalid XML: Incorrect root element");
  std::optional<std::string> id = root.Attribute("id");
  if (!id) Throw(result::kFail, "Invalid XML: Missing ID");

  DownloadTotals read;
  read.id = *id;
  read.downloadEvent = ReadUnsigned32(root, "downloadEvent");
  read.transferBytes = ReadUnsigned(root, "transferBytes");
  read.transferRate = ReadUnsigned32(root, "transferRate");
  read.attempts = ReadUnsigned32(root, "attempts");
  read.successes = ReadUnsigned32(root, "successes");
  read.attemptTime = ReadTime(root, "attemptTime");
  read.downloadFailureTime = ReadTime(root, "downloadFailureTime");
  std::vector<DownloadRecord> records;
  for (const xml::Node& download : root.Select("History/Download")) records.push_back(ReadRecord(download, log_));

  totals = std::move(read);
  entries = std::move(records);
}

void PackageLog::SaveToFolder(const std::filesystem::path& folder) const {
  WriteFileAtomically(folder / kPackageLogFileName, Save());
}

void PackageLog::LoadFromFolder(const std::filesystem::path& folder) {
  const std::filesystem::path path = folder / kPackageLogFileName;
  std::error_code ec;
  if (!std::filesystem::exists(path, ec)) {
    const std::string id = totals.id;
    totals = DownloadTotals{};
    totals.id = id;
    entries.clear();
    return;
  }
  std::vector<uint8_t> bytes = ReadWholeFile(path);
  Load(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

}  // namespace pkgdlv
