// Reads an agent log file back into its records, checking every byte against
// the record format, so tests can assert on well-formed files.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace pkgdlv::testing {

struct ParsedLogRecord {
  // The file's 'Log File Start' record.
  bool start = false;
  // In file order, entities decoded.
  std::vector<std::pair<std::string, std::string>> attributes;
  // The CDATA sections joined.
  std::string text;

  // The attribute's value; empty when it is missing.
  std::string Attribute(std::string_view name) const;
};

struct ParsedLogFile {
  std::vector<ParsedLogRecord> records;
  std::string error;  // empty when the whole file is well-formed
};

// A file is an optional start record (only at its very beginning) followed
// by event records; any other byte is an error naming its offset.
ParsedLogFile ParseAgentLog(std::string_view text);

}  // namespace pkgdlv::testing
