#include "agent/logger.h"

namespace pkgdlv {

uint32_t EffectiveSeverity(uint32_t level) {
  uint32_t severity = level & loglevel::kSeverityMask;
  if (level & loglevel::kForceTrace) severity = loglevel::kTrace;
  if ((level & loglevel::kErrorAsInfo) && severity < loglevel::kWarning) severity = loglevel::kInfo;
  if (severity < 1) severity = 1;
  if (severity > 32) severity = 32;
  return severity;
}

const char* SeverityTag(uint32_t severity) {
  switch (severity) {
    case loglevel::kError: return "*ERRR";
    case loglevel::kWarning: return "*WARN";
    case loglevel::kInfo: return " INFO";
    case loglevel::kTrace: return "<TRC>";
    case loglevel::kVerbose: return "<VRB>";
    case loglevel::kDebug: return "<DBG>";
    default: return "?UNKN";
  }
}

}  // namespace pkgdlv
