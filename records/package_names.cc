// Status and priority names as the package document writes and reads them.
#include <limits>

#include "records/package_request.h"
#include "util/strings.h"

namespace pkgdlv {

namespace {

struct StatusNameEntry {
  int32_t status;
  std::string_view name;
};
constexpr StatusNameEntry kStatusNames[] = {
    {PKGDLV_VALID, "valid"},
    {PKGDLV_DOWNLOADING, "downloading"},
    {PKGDLV_PENDING, "pending"},
    {PKGDLV_RETRYING, "retrying"},
};

// Only digits after an optional minus sign: no spaces, no plus sign.
std::optional<int32_t> ParseWholeDecimal(std::string_view text) {
  std::string_view digits = text.starts_with('-') ? text.substr(1) : text;
  if (digits.empty()) return std::nullopt;
  for (char c : digits) {
    if (c < '0' || c > '9') return std::nullopt;
  }
  std::optional<int64_t> value = ParseInt64(text);
  if (!value || *value < std::numeric_limits<int32_t>::min() || *value > std::numeric_limits<int32_t>::max()) {
    return std::nullopt;
  }
  return static_cast<int32_t>(*value);
}

}  // namespace

int32_t ParseStatusName(std::optional<std::string_view> text, Logger& log) {
  if (text) {
    // The active names are matched exactly; only "invalid" is forgiving about case.
    for (const StatusNameEntry& entry : kStatusNames) {
      if (*text == entry.name) return entry.status;
    }
    if (EqualsNoCase(*text, "invalid")) return PKGDLV_INVALID;
  }
  log.Log(loglevel::kWarning, kPackageRequestLogComponent, "Invalid package XML: Invalid status: \"invalid\" assumed");
  return PKGDLV_INVALID;
}

std::string_view StatusName(int32_t status) {
  for (const StatusNameEntry& entry : kStatusNames) {
    if (status == entry.status) return entry.name;
  }
  return "invalid";
}

int32_t ParsePriorityName(std::string_view text) {
  if (std::optional<int32_t> number = ParseWholeDecimal(text)) return *number;
  if (EqualsNoCase(text, "high")) return PKGDLV_PRI_HIGH;
  if (EqualsNoCase(text, "low")) return PKGDLV_PRI_LOW;
  return PKGDLV_PRI_NORMAL;  // "normal" and anything unknown
}

std::string PriorityName(int32_t priority) {
  switch (priority) {
    case PKGDLV_PRI_LOW: return "Low";
    case PKGDLV_PRI_NORMAL: return "Normal";
    case PKGDLV_PRI_HIGH: return "High";
    default: return std::to_string(priority);
  }
}

}  // namespace pkgdlv
