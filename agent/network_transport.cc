#include "agent/network_transport.h"

#include "util/strings.h"

namespace pkgdlv {
namespace {

// Leading decimal digits of text ("100d" -> 100); what follows is ignored,
// since the rate is written with "%ud" and so carries a trailing letter.
uint64_t LeadingNumber(std::string_view text) {
  text = TrimAscii(text);
  uint64_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') break;
    if (value > (UINT64_MAX - 9) / 10) return UINT64_MAX;
    value = value * 10 + static_cast<uint64_t>(c - '0');
  }
  return value;
}

}  // namespace

void ConnectionOptions::Set(std::string_view name, std::string_view value) {
  if (name == kPeerDownloadMaxRate) {
    uint64_t kilobytes = LeadingNumber(value);
    maxReceiveBytesPerSecond = kilobytes > UINT64_MAX / 1024 ? UINT64_MAX : kilobytes * 1024;
  } else if (name == kPeerConnectionModeOn) {
    peerConnection = true;
  } else if (name == kPeerConnectionModeOff) {
    peerConnection = false;
  } else if (name == kSecureConnectionMode) {
    secureConnectionMode = static_cast<uint32_t>(LeadingNumber(value));
  } else if (name == kLoggingFlags) {
    loggingFlags = static_cast<uint32_t>(LeadingNumber(value));
  }
  // kExactHttpErrorOn and kAuthenticateClientOff describe what this transport
  // always does: exact HTTP statuses, no client certificate.
}

}  // namespace pkgdlv
