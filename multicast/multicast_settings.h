// The multicast settings under "Communications\Multicast": whether multicast
// is used, its group address and port, session sizes and waits, bandwidth,
// master status, and the listener and exclusion address ranges with their
// documents.
//
// Every getter reads the store afresh (another process may change it) and
// applies its reading rule; missing values read as their defaults (only the
// master session inactive time is written back when missing). Setters write
// the value as given; a failed write is logged and otherwise ignored. Any
// thread; the object keeps references to the store and the logger.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "agent/logger.h"
#include "agent/settings_store.h"

namespace pkgdlv {

inline constexpr std::string_view kMulticastSettingsKey = "Communications\\Multicast";

// Limits of the address ranges: ranges in one list, and bytes of one address
// text (an IPv4 address takes at most 15; the rest is room for what a person
// may type). A list or range document past them is refused whole with Error
// 0x80070057 and changes nothing; reading a stored list stops after
// kMaxAddressRanges pairs. The group address ("IP Address") has the same
// length limit.
inline constexpr size_t kMaxAddressRanges = 256;
inline constexpr size_t kMaxAddressTextBytes = 64;

// One IPv4 range as stored: an empty end means the single start address.
struct AddressRange {
  std::string start;
  std::string end;
  friend bool operator==(const AddressRange&, const AddressRange&) = default;
};

class MulticastSettings {
 public:
  MulticastSettings(SettingsStore& store, Logger& log) : store_(store), log_(log) {}

  bool Enabled();
  std::string IPAddress();
  uint32_t Port();
  uint32_t MaxMastersPerClient();
  uint32_t MinNumberOfClients();
  uint32_t TimeToWaitToBeginSession();  // seconds
  uint32_t NumClientsToWaitToBegin();
  uint32_t MaxTransmissions();
  uint32_t MaxBandwidth();  // bytes per second ("DataLimit")
  uint32_t MinBandwidth();  // bytes per second, never above MaxBandwidth()
  uint32_t MaxSessionsPerSegment();
  bool ByDefaultUseMulticast();
  uint32_t MinPackageSizeKb();
  uint32_t MasterSessionInactiveMinutes();  // 5 to 10080; written as 360 when missing
  bool CanNeverBeMaster();
  bool IsAlwaysMaster();

  void SetEnabled(bool value);
  // Throws Error 0x80070057 for an address longer than kMaxAddressTextBytes.
  void SetIPAddress(std::string_view value);
  void SetPort(uint32_t value);
  void SetMaxMastersPerClient(uint32_t value);
  void SetMinNumberOfClients(uint32_t value);
  void SetTimeToWaitToBeginSession(uint32_t value);
  void SetNumClientsToWaitToBegin(uint32_t value);
  void SetMaxTransmissions(uint32_t value);
  void SetMaxBandwidth(uint32_t value);
  void SetMaxSessionsPerSegment(uint32_t value);
  void SetByDefaultUseMulticast(bool value);
  void SetMinPackageSizeKb(uint32_t value);

  // The stored lists: pairs numbered from 1, read up to the first gap.
  std::vector<AddressRange> ListenerRanges();
  std::vector<AddressRange> ExclusionRanges();
  // Deletes the numbered pairs from 1 while they exist, then writes these.
  // Throws Error 0x80070057 (nothing changed) past the limits above.
  void SetListenerRanges(const std::vector<AddressRange>& ranges);
  void SetExclusionRanges(const std::vector<AddressRange>& ranges);

  // The range documents: "listenerRange" (or "exclusionRange") holding one
  // "address" with "start" and "end" per range.
  std::string ListenerRangeDocument();
  std::string ExclusionRangeDocument();
  // Reads "listenRange/address" (or "exclusionRange/address") elements and
  // replaces the list. A text that does not load throws Error 0x80070057
  // "Multicast Listener Range XML failed to load: " (or "... Exclusion ...")
  // followed by the parser's reason and line, and changes nothing; so do
  // ranges past the limits above. The listener document is read under the root name
  // "listenRange", not the "listenerRange" its getter writes: a document
  // handed back unchanged selects no address and empties the list.
  void SetListenerRangeDocument(std::string_view xml);
  void SetExclusionRangeDocument(std::string_view xml);

 private:
  // The stored number read as signed; nullopt when missing.
  std::optional<int32_t> ReadSigned(std::string_view name);
  uint32_t ReadNonNegative(std::string_view name, uint32_t defaultValue);
  bool ReadFlag(std::string_view name, bool defaultValue);
  void WriteNumber(std::string_view name, uint32_t value);
  void WriteText(std::string_view name, std::string_view value);
  std::vector<AddressRange> ReadRanges(std::string_view prefix);
  void WriteRanges(std::string_view prefix, std::string_view listName, const std::vector<AddressRange>& ranges);
  std::string RangeDocument(std::string_view element, const std::vector<AddressRange>& ranges);
  std::vector<AddressRange> ParseRangeDocument(std::string_view xml, std::string_view path, std::string_view listName);

  SettingsStore& store_;
  Logger& log_;
};

}  // namespace pkgdlv
