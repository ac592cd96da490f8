#include "support/agent_log_parser.h"

#include <regex>

namespace pkgdlv::testing {
namespace {

std::string DecodeEntities(std::string value) {
  static const std::pair<const char*, const char*> kEntities[] = {
      {"&lt;", "<"}, {"&gt;", ">"}, {"&apos;", "'"}, {"&quot;", "\""}, {"&amp;", "&"}};
  for (const auto& [entity, c] : kEntities) {
    for (size_t at = value.find(entity); at != std::string::npos; at = value.find(entity, at + 1)) {
      value.replace(at, std::string_view(entity).size(), c);
    }
  }
  return value;
}

}  // namespace

std::string ParsedLogRecord::Attribute(std::string_view name) const {
  for (const auto& [key, value] : attributes) {
    if (key == name) return value;
  }
  return {};
}

ParsedLogFile ParseAgentLog(std::string_view text) {
  // Attributes in their order; a value holds no raw markup or line break.
  static const std::regex kHead(
      "(\r\n)?<event date='(\\d\\d/\\d\\d/\\d{4} \\d\\d:\\d\\d:\\d\\d\\.\\d{3}0000 [+-]\\d\\d:\\d\\d)' "
      "severity='(\\d+)' hostName='([^'<>\r\n]*)' source='([^'<>\r\n]*)' module='([^'<>\r\n]*)' "
      "process='([^'<>\r\n]*)' pid='(\\d+)' thread='(\\d+)' tickCount='(\\d+)'( ?)>\r\n( +)<!\\[CDATA\\[");
  static const char* const kNames[] = {"date",    "severity", "hostName", "source",   "module",
                                       "process", "pid",      "thread",   "tickCount"};
  ParsedLogFile file;
  size_t pos = 0;
  auto fail = [&](const char* what) {
    file.error = std::string(what) + " at offset " + std::to_string(pos);
    return file;
  };
  while (pos < text.size()) {
    std::cmatch m;
    if (!std::regex_search(text.data() + pos, text.data() + text.size(), m, kHead,
                           std::regex_constants::match_continuous)) {
      return fail("expected a record");
    }
    ParsedLogRecord record;
    record.start = !m[1].matched;
    // The start record comes only first: "<event ...>\r\n <![CDATA["; events: "\r\n<event ... >\r\n  <![CDATA[".
    if (record.start ? pos != 0 || m[11].length() != 0 || m[12].length() != 1
                     : m[11].length() != 1 || m[12].length() != 2) {
      return fail("bad record head");
    }
    for (size_t i = 0; i < std::size(kNames); ++i) record.attributes.emplace_back(kNames[i], DecodeEntities(m[i + 2]));
    pos += static_cast<size_t>(m.length(0));
    // Sections split to carry "]]>" are joined; the record ends after the last.
    for (;;) {
      const size_t end = text.find("]]>", pos);
      if (end == std::string_view::npos) return fail("unterminated CDATA");
      record.text.append(text.substr(pos, end - pos));
      pos = end + 3;
      if (text.substr(pos).starts_with("<![CDATA[")) {
        pos += 9;
      } else if (text.substr(pos).starts_with("\r\n</event>")) {
        pos += 10;
        break;
      } else {
        return fail("bad record end");
      }
    }
    file.records.push_back(std::move(record));
  }
  return file;
}

}  // namespace pkgdlv::testing
