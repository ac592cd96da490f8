#include "multicast/multicast_settings.h"

#include <algorithm>

#include "agent/object_settings.h"
#include "util/error.h"
#include "util/format.h"
#include "util/strings.h"
#include "util/xml.h"

namespace pkgdlv {

namespace {

constexpr std::string_view kDefaultAddress = "224.0.255.135";
constexpr uint32_t kDefaultInactiveMinutes = 360;
constexpr uint32_t kMinInactiveMinutes = 5;
constexpr uint32_t kMaxInactiveMinutes = 10080;
constexpr std::string_view kListenPrefix = "Listen Range IP";
constexpr std::string_view kExclusionPrefix = "Exclusion Range IP";
constexpr std::string_view kListenerList = "Multicast Listener Range";
constexpr std::string_view kExclusionList = "Multicast Exclusion Range";

void CheckAddressLength(std::string_view what, std::string_view address) {
  if (address.size() <= kMaxAddressTextBytes) return;
  Throw(result::kInvalidArg, "%ls: an address of %u bytes is longer than the %u allowed", what,
        static_cast<uint32_t>(address.size()), static_cast<uint32_t>(kMaxAddressTextBytes));
}

// Refuses, before anything is stored, a list that the limits do not allow.
void CheckRanges(std::string_view listName, const std::vector<AddressRange>& ranges) {
  if (ranges.size() > kMaxAddressRanges) {
    Throw(result::kInvalidArg, "%ls: %u ranges are more than the %u allowed", listName,
          static_cast<uint32_t>(ranges.size()), static_cast<uint32_t>(kMaxAddressRanges));
  }
  for (const AddressRange& range : ranges) {
    CheckAddressLength(listName, range.start);
    CheckAddressLength(listName, range.end);
  }
}

}  // namespace

// ---- Reading ----

std::optional<int32_t> MulticastSettings::ReadSigned(std::string_view name) {
  std::optional<SettingValue> value = store_.Get(kMulticastSettingsKey, name);
  if (!value || value->type != SettingValue::Type::kNumber) return std::nullopt;
  return static_cast<int32_t>(value->number);
}

uint32_t MulticastSettings::ReadNonNegative(std::string_view name, uint32_t defaultValue) {
  std::optional<int32_t> value = ReadSigned(name);
  return value && *value >= 0 ? static_cast<uint32_t>(*value) : defaultValue;
}

bool MulticastSettings::ReadFlag(std::string_view name, bool defaultValue) {
  std::optional<int32_t> value = ReadSigned(name);
  return value ? *value != 0 : defaultValue;
}

bool MulticastSettings::Enabled() { return ReadFlag("Enabled", false); }

std::string MulticastSettings::IPAddress() {
  std::optional<SettingValue> value = store_.Get(kMulticastSettingsKey, "IP Address");
  if (!value || value->type != SettingValue::Type::kText || value->text.empty()) return std::string(kDefaultAddress);
  return value->text;
}

uint32_t MulticastSettings::Port() { return ReadNonNegative("Port", 52030); }

uint32_t MulticastSettings::MaxMastersPerClient() {
  std::optional<int32_t> value = ReadSigned("Max Master sessions per client");
  return value ? static_cast<uint32_t>(std::max(*value, 1)) : 1;
}

uint32_t MulticastSettings::MinNumberOfClients() { return ReadNonNegative("Min number of clients per session", 5); }
uint32_t MulticastSettings::TimeToWaitToBeginSession() {
  return ReadNonNegative("Time to wait to begin session (secs)", 240);
}
uint32_t MulticastSettings::NumClientsToWaitToBegin() { return ReadNonNegative("No. clients to wait to begin", 5); }
uint32_t MulticastSettings::MaxTransmissions() { return ReadNonNegative("Max Transmissions", 1); }
uint32_t MulticastSettings::MaxBandwidth() { return ReadNonNegative("Max Bandwidth (bytes per sec)", 5000); }

uint32_t MulticastSettings::MinBandwidth() {
  // The default (65536) is above the maximum's default on purpose: the cap
  // brings an untouched installation to the maximum.
  std::optional<int32_t> value = ReadSigned("Min Bandwidth (bytes per sec)");
  const uint32_t minimum = !value ? 65536 : *value < 0 ? 0 : static_cast<uint32_t>(*value);
  return std::min(minimum, MaxBandwidth());
}

uint32_t MulticastSettings::MaxSessionsPerSegment() { return ReadNonNegative("Max sessions per segment", 1); }
bool MulticastSettings::ByDefaultUseMulticast() { return ReadFlag("By default use multicast", true); }
uint32_t MulticastSettings::MinPackageSizeKb() {
  std::optional<int32_t> value = ReadSigned("Min package size (kb)");
  return value ? static_cast<uint32_t>(*value) : 500;
}

uint32_t MulticastSettings::MasterSessionInactiveMinutes() {
  ObjectSettings object(store_, log_, std::string(kMulticastSettingsKey));
  const int32_t value = static_cast<int32_t>(object.ReadNumber("Master session inactive time (min)", kDefaultInactiveMinutes));
  return static_cast<uint32_t>(
      std::clamp<int32_t>(value, static_cast<int32_t>(kMinInactiveMinutes), static_cast<int32_t>(kMaxInactiveMinutes)));
}

bool MulticastSettings::CanNeverBeMaster() { return ReadFlag("Master Status: Can never be master", false); }
bool MulticastSettings::IsAlwaysMaster() { return ReadFlag("Master Status: Is always master", false); }

// ---- Writing ----

void MulticastSettings::WriteNumber(std::string_view name, uint32_t value) {
  ObjectSettings(store_, log_, std::string(kMulticastSettingsKey)).WriteNumber(name, value);
}

void MulticastSettings::WriteText(std::string_view name, std::string_view value) {
  ObjectSettings(store_, log_, std::string(kMulticastSettingsKey)).WriteText(name, value);
}

void MulticastSettings::SetEnabled(bool value) { WriteNumber("Enabled", value ? 1 : 0); }
void MulticastSettings::SetIPAddress(std::string_view value) {
  CheckAddressLength("Multicast IP Address", value);
  WriteText("IP Address", value);
}
void MulticastSettings::SetPort(uint32_t value) { WriteNumber("Port", value); }
void MulticastSettings::SetMaxMastersPerClient(uint32_t value) { WriteNumber("Max Master sessions per client", value); }
void MulticastSettings::SetMinNumberOfClients(uint32_t value) {
  WriteNumber("Min number of clients per session", value);
}
void MulticastSettings::SetTimeToWaitToBeginSession(uint32_t value) {
  WriteNumber("Time to wait to begin session (secs)", value);
}
void MulticastSettings::SetNumClientsToWaitToBegin(uint32_t value) { WriteNumber("No. clients to wait to begin", value); }
void MulticastSettings::SetMaxTransmissions(uint32_t value) { WriteNumber("Max Transmissions", value); }
void MulticastSettings::SetMaxBandwidth(uint32_t value) { WriteNumber("Max Bandwidth (bytes per sec)", value); }
void MulticastSettings::SetMaxSessionsPerSegment(uint32_t value) { WriteNumber("Max sessions per segment", value); }
void MulticastSettings::SetByDefaultUseMulticast(bool value) { WriteNumber("By default use multicast", value ? 1 : 0); }
void MulticastSettings::SetMinPackageSizeKb(uint32_t value) { WriteNumber("Min package size (kb)", value); }

// ---- Address ranges ----

std::vector<AddressRange> MulticastSettings::ReadRanges(std::string_view prefix) {
  std::vector<AddressRange> ranges;
  for (int n = 1; n <= static_cast<int>(kMaxAddressRanges); ++n) {
    std::optional<SettingValue> start = store_.Get(kMulticastSettingsKey, Format("%ls %d Start", prefix, n));
    std::optional<SettingValue> end = store_.Get(kMulticastSettingsKey, Format("%ls %d End", prefix, n));
    if (!start || !end) break;
    ranges.push_back({start->text, end->text});
  }
  return ranges;
}

void MulticastSettings::WriteRanges(std::string_view prefix, std::string_view listName,
                                    const std::vector<AddressRange>& ranges) {
  CheckRanges(listName, ranges);
  try {
    for (int n = 1;; ++n) {
      const bool hadStart = store_.Delete(kMulticastSettingsKey, Format("%ls %d Start", prefix, n));
      const bool hadEnd = store_.Delete(kMulticastSettingsKey, Format("%ls %d End", prefix, n));
      if (!hadStart && !hadEnd) break;
    }
  } catch (const Error& e) {
    log_.Log(loglevel::kWarning, "ObjectSettings::SetValue", "Unable to save setting: %ls: %ls (%d)",
             std::string(prefix), e.description(), static_cast<int>(e.code()));
  }
  for (size_t i = 0; i < ranges.size(); ++i) {
    const int n = static_cast<int>(i + 1);
    WriteText(Format("%ls %d Start", prefix, n), ranges[i].start);
    WriteText(Format("%ls %d End", prefix, n), ranges[i].end);
  }
}

std::vector<AddressRange> MulticastSettings::ListenerRanges() { return ReadRanges(kListenPrefix); }
std::vector<AddressRange> MulticastSettings::ExclusionRanges() { return ReadRanges(kExclusionPrefix); }
void MulticastSettings::SetListenerRanges(const std::vector<AddressRange>& ranges) {
  WriteRanges(kListenPrefix, kListenerList, ranges);
}
void MulticastSettings::SetExclusionRanges(const std::vector<AddressRange>& ranges) {
  WriteRanges(kExclusionPrefix, kExclusionList, ranges);
}

std::string MulticastSettings::RangeDocument(std::string_view element, const std::vector<AddressRange>& ranges) {
  xml::Writer writer;
  writer.StartElement(element);
  for (const AddressRange& range : ranges) {
    writer.StartElement("address");
    writer.StartElement("start").Text(range.start).EndElement();
    writer.StartElement("end").Text(range.end).EndElement();
    writer.EndElement();
  }
  writer.EndElement();
  return writer.Finish();
}

std::vector<AddressRange> MulticastSettings::ParseRangeDocument(std::string_view text, std::string_view path,
                                                                std::string_view listName) {
  std::string reason;
  std::optional<xml::Document> document = xml::Document::TryParse(text, &reason);
  if (!document) Throw(result::kInvalidArg, "%ls XML failed to load: %ls", listName, reason);
  std::vector<AddressRange> ranges;
  const std::vector<xml::Node> addresses = document->Select(path);
  // Checked again in full before storing; this only spares the copies.
  if (addresses.size() > kMaxAddressRanges) CheckRanges(listName, std::vector<AddressRange>(addresses.size()));
  for (const xml::Node& address : addresses) {
    xml::Node start = address.SelectFirst("start");
    xml::Node end = address.SelectFirst("end");
    ranges.push_back({start ? start.Text() : "", end ? end.Text() : ""});
  }
  return ranges;
}

std::string MulticastSettings::ListenerRangeDocument() { return RangeDocument("listenerRange", ListenerRanges()); }
std::string MulticastSettings::ExclusionRangeDocument() { return RangeDocument("exclusionRange", ExclusionRanges()); }

void MulticastSettings::SetListenerRangeDocument(std::string_view xml) {
  SetListenerRanges(ParseRangeDocument(xml, "/listenRange/address", kListenerList));
}

void MulticastSettings::SetExclusionRangeDocument(std::string_view xml) {
  SetExclusionRanges(
      ParseRangeDocument(xml, "/exclusionRange/address", kExclusionList));
}

}  // namespace pkgdlv
