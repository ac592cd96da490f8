// The text of the agent log: the message limit, the date, and the XML event
// records that are appended to the file. Pure functions, any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "util/filetime.h"

namespace pkgdlv::agent_log {

constexpr size_t kMaxMessageCharacters = 4096;

// The first kMaxMessageCharacters characters (code points) of a UTF-8
// message; a multi-byte sequence is never split.
std::string_view TruncateMessage(std::string_view message);

// Local time of a file time as "%02d/%02d/%04d %02d:%02d:%02d.%03d0000 %c%02d:%02d"
// (month/day/year, milliseconds and four zeros, zone offset with "-" west of
// UTC). Uses the process's time zone (TZ, read by tzset).
std::string FormatLogDate(FileTime time);

// The attributes every record carries.
struct RecordContext {
  std::string date;
  uint32_t severity = 0;
  std::string host_name;
  std::string module;
  std::string process;
  uint64_t pid = 0;
  uint64_t thread = 0;
  uint64_t tick_count = 0;
};

// "\r\n<event date='…' severity='…' … tickCount='…' >\r\n  <![CDATA[message]]>\r\n</event>"
// The record is always well-formed XML: attribute values and the message go
// through EscapeForDisplay (util/display_text.h; the message keeps its tabs
// and line breaks), then the XML escapes of their place.
std::string BuildEventRecord(const RecordContext& context, std::string_view source, std::string_view message);
// The first record of a new file: source 'Log File Start', the header as its text.
std::string BuildStartRecord(const RecordContext& context, std::string_view header);

}  // namespace pkgdlv::agent_log
