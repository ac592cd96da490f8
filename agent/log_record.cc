#include "agent/log_record.h"

#include <cstdlib>
#include <ctime>

#include "util/display_text.h"
#include "util/format.h"

namespace pkgdlv::agent_log {
namespace {

bool IsUtf8Continuation(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

// Attribute values are written between single quotes; a component name that
// carries a quote, an ampersand or a control character must not break the
// record (a raw line break would also be read back as a space).
std::string EscapeAttribute(std::string_view raw) {
  const std::string text = EscapeForDisplay(raw);
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '\'': out += "&apos;"; break;
      case '"': out += "&quot;"; break;
      default: out += c;
    }
  }
  return out;
}

// "]]>" would end the CDATA section early: it is split across two sections.
// A character XML does not allow (a C0 control, invalid UTF-8) would make the
// whole file unreadable, and a bidirectional override would make the record
// read otherwise than it is: they are escaped; line breaks and tabs stay.
void AppendCdataText(std::string& out, std::string_view raw) {
  const std::string text = EscapeForDisplay(raw, LineBreaks::kKeep);
  constexpr std::string_view kEnd = "]]>";
  size_t start = 0;
  for (size_t found; (found = text.find(kEnd, start)) != std::string_view::npos; start = found + kEnd.size()) {
    out.append(text, start, found - start);
    out += "]]]]><![CDATA[>";
  }
  out.append(text, start);
}

void AppendAttributes(std::string& out, const RecordContext& context, std::string_view source) {
  out += "<event date='";
  out += EscapeAttribute(context.date);
  out += "' severity='";
  out += std::to_string(context.severity);
  out += "' hostName='";
  out += EscapeAttribute(context.host_name);
  out += "' source='";
  out += EscapeAttribute(source);
  out += "' module='";
  out += EscapeAttribute(context.module);
  out += "' process='";
  out += EscapeAttribute(context.process);
  out += "' pid='";
  out += std::to_string(context.pid);
  out += "' thread='";
  out += std::to_string(context.thread);
  out += "' tickCount='";
  out += std::to_string(context.tick_count);
  out += "'";
}

}  // namespace

std::string_view TruncateMessage(std::string_view message) {
  size_t characters = 0;
  for (size_t i = 0; i < message.size(); ++i) {
    if (IsUtf8Continuation(message[i])) continue;
    if (++characters > kMaxMessageCharacters) return message.substr(0, i);
  }
  return message;
}

std::string FormatLogDate(FileTime time) {
  const time_t seconds = static_cast<time_t>(UnixSecondsFromFileTime(time));
  const int milliseconds = static_cast<int>((time / kFileTimeTicksPerMs) % 1000);
  tm local{};
  if (!localtime_r(&seconds, &local)) return {};
  const long offset_minutes = local.tm_gmtoff / 60;
  const long magnitude = std::labs(offset_minutes);
  return Format("%02d/%02d/%04d %02d:%02d:%02d.%03d0000 %c%02d:%02d", local.tm_mon + 1, local.tm_mday,
                local.tm_year + 1900, local.tm_hour, local.tm_min, local.tm_sec, milliseconds,
                offset_minutes < 0 ? '-' : '+', magnitude / 60, magnitude % 60);
}

std::string BuildEventRecord(const RecordContext& context, std::string_view source, std::string_view message) {
  std::string record = "\r\n";
  record.reserve(message.size() + 300);
  AppendAttributes(record, context, source);
  record += " >\r\n  <![CDATA[";
  AppendCdataText(record, message);
  record += "]]>\r\n</event>";
  return record;
}

std::string BuildStartRecord(const RecordContext& context, std::string_view header) {
  std::string record;
  AppendAttributes(record, context, "Log File Start");
  record += ">\r\n <![CDATA[";
  AppendCdataText(record, header);
  record += "]]>\r\n</event>";
  return record;
}

}  // namespace pkgdlv::agent_log
