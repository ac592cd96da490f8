#include "records/configuration_document.h"

#include <array>
#include <cstdint>
#include <optional>

#include "util/error.h"
#include "util/strings.h"
#include "util/xml.h"

namespace pkgdlv {
namespace {

constexpr std::string_view kElement = "PackageDelivery";
constexpr std::string_view kWorkFolder = "workFolder";
constexpr std::string_view kHistorySize = "historySize";
constexpr std::string_view kRetryDelay = "retryDelay";
constexpr std::string_view kRetryMaxDelay = "retryMaxDelay";
constexpr std::string_view kRetryMaxTries = "retryMaxTries";
constexpr std::string_view kRetryMaxTime = "retryMaxTime";

// The numeric attributes in the order they are written and applied.
struct NumericAttribute {
  std::string_view name;
  uint64_t (*read)(DeliverySettings&);
  void (*apply)(DeliverySettings&, int64_t);
};

constexpr std::array<NumericAttribute, 5> kNumericAttributes{{
    {kHistorySize, [](DeliverySettings& s) -> uint64_t { return s.HistorySize(); },
     [](DeliverySettings& s, int64_t v) { s.SetHistorySize(static_cast<uint32_t>(v)); }},
    {kRetryDelay, [](DeliverySettings& s) -> uint64_t { return s.RetryDelayMs(); },
     [](DeliverySettings& s, int64_t v) { s.SetRetryDelayMs(v); }},
    {kRetryMaxDelay, [](DeliverySettings& s) -> uint64_t { return s.MaxRetryDelayMs(); },
     [](DeliverySettings& s, int64_t v) { s.SetMaxRetryDelayMs(v); }},
    {kRetryMaxTries, [](DeliverySettings& s) -> uint64_t { return s.MaxDownloadAttempts(); },
     [](DeliverySettings& s, int64_t v) { s.SetMaxDownloadAttempts(static_cast<uint32_t>(v)); }},
    {kRetryMaxTime, [](DeliverySettings& s) -> uint64_t { return s.MaxDownloadAttemptTimeMs(); },
     [](DeliverySettings& s, int64_t v) { s.SetMaxDownloadAttemptTime(static_cast<uint32_t>(v)); }},
}};

// A 32-bit number written either signed or unsigned; negative counts are
// stored as their two's complement, as a 32-bit automation argument would be.
int64_t ParseNumber(std::string_view attribute, const std::string& text) {
  std::optional<int64_t> value = ParseInt64(text);
  if (!value || *value < INT32_MIN || *value > UINT32_MAX) {
    Throw(result::kInvalidArg, "Configuration attribute %ls is not a 32-bit number: '%ls'", attribute, text);
  }
  return *value;
}

}  // namespace

std::string ReadConfigurationDocument(DeliverySettings& settings, const WorkFolderAccess& work_folder) {
  xml::Writer writer;
  writer.StartElement(kElement);
  writer.Attribute(kWorkFolder, work_folder.current());
  for (const NumericAttribute& attribute : kNumericAttributes) {
    writer.Attribute(attribute.name, std::to_string(attribute.read(settings)));
  }
  writer.EndElement();
  return writer.Finish();
}

void WriteConfigurationDocument(std::string_view xml, DeliverySettings& settings, const WorkFolderAccess& work_folder) {
  std::string reason = "the document has no root element";
  std::optional<xml::Document> document = xml::Document::TryParse(xml, &reason);
  xml::Node root = document ? document->Root() : xml::Node();
  if (!root) Throw(result::kInvalidArg, "Configuration XML failed to load: %ls", reason);

  std::array<std::optional<int64_t>, kNumericAttributes.size()> numbers;
  for (size_t i = 0; i < kNumericAttributes.size(); ++i) {
    std::optional<std::string> text = root.Attribute(kNumericAttributes[i].name);
    if (text) numbers[i] = ParseNumber(kNumericAttributes[i].name, *text);
  }

  if (std::optional<std::string> folder = root.Attribute(kWorkFolder)) work_folder.change(*folder);
  for (size_t i = 0; i < kNumericAttributes.size(); ++i) {
    if (numbers[i]) kNumericAttributes[i].apply(settings, *numbers[i]);
  }
}

}  // namespace pkgdlv
