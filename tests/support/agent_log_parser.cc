#include "support/agent_log_parser.h"

#include <array>

namespace pkgdlv::testing {
namespace {

constexpr std::array<std::string_view, 9> kAttributeOrder = {"date",    "severity", "hostName", "source",   "module",
                                                             "process", "pid",      "thread",   "tickCount"};

std::string DecodeEntities(std::string_view value) {
  static const std::array<std::pair<std::string_view, char>, 5> kEntities = {
      {{"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&apos;", '\''}, {"&quot;", '"'}}};
  std::string out;
  for (size_t i = 0; i < value.size();) {
    bool decoded = false;
    for (const auto& [entity, c] : kEntities) {
      if (value.substr(i).starts_with(entity)) {
        out += c;
        i += entity.size();
        decoded = true;
        break;
      }
    }
    if (!decoded) out += value[i++];
  }
  return out;
}

// "%02d/%02d/%04d %02d:%02d:%02d.%03d0000 %c%02d:%02d": N is a digit, S a sign.
bool IsLogDate(std::string_view text) {
  constexpr std::string_view kShape = "NN/NN/NNNN NN:NN:NN.NNN0000 SNN:NN";
  if (text.size() != kShape.size()) return false;
  for (size_t i = 0; i < kShape.size(); ++i) {
    const char c = text[i];
    bool fits = c == kShape[i];
    if (kShape[i] == 'N') fits = c >= '0' && c <= '9';
    if (kShape[i] == 'S') fits = c == '+' || c == '-';
    if (!fits) return false;
  }
  return true;
}

bool IsDecimal(std::string_view text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

class Reader {
 public:
  explicit Reader(std::string_view text) : text_(text) {}

  ParsedLogFile Parse() {
    ParsedLogFile file;
    bool first = true;
    while (pos_ < text_.size()) {
      ParsedLogRecord record;
      record.start = first && Peek("<event ");
      if (!record.start && !Expect("\r\n")) return Fail(file, "expected a record");
      if (!Expect("<event ")) return Fail(file, "expected <event");
      if (!ReadAttributes(record)) return Fail(file, error_);
      if (!Expect(record.start ? ">\r\n <![CDATA[" : " >\r\n  <![CDATA[")) return Fail(file, "bad record head");
      if (!ReadCdata(record.text)) return Fail(file, "bad CDATA or record end");
      file.records.push_back(std::move(record));
      first = false;
    }
    return file;
  }

 private:
  bool Peek(std::string_view s) const { return text_.substr(pos_).starts_with(s); }
  bool Expect(std::string_view s) {
    if (!Peek(s)) return false;
    pos_ += s.size();
    return true;
  }

  bool ReadAttributes(ParsedLogRecord& record) {
    for (size_t i = 0; i < kAttributeOrder.size(); ++i) {
      if (i > 0 && !Expect(" ")) return Error("expected a space between attributes");
      if (!Expect(kAttributeOrder[i]) || !Expect("='")) {
        return Error("expected attribute " + std::string(kAttributeOrder[i]));
      }
      size_t end = text_.find('\'', pos_);
      if (end == std::string_view::npos) return Error("unterminated attribute");
      std::string_view raw = text_.substr(pos_, end - pos_);
      if (raw.find_first_of("<>\r\n") != std::string_view::npos) return Error("raw markup in an attribute");
      std::string value = DecodeEntities(raw);
      pos_ = end + 1;
      const std::string_view name = kAttributeOrder[i];
      if (name == "date" && !IsLogDate(value)) return Error("bad date '" + value + "'");
      if ((name == "severity" || name == "pid" || name == "thread" || name == "tickCount") && !IsDecimal(value)) {
        return Error("attribute " + std::string(name) + " is not a number");
      }
      record.attributes.emplace_back(name, std::move(value));
    }
    return true;
  }

  // Sections split to carry "]]>" are joined; the record ends after the last.
  bool ReadCdata(std::string& out) {
    for (;;) {
      size_t end = text_.find("]]>", pos_);
      if (end == std::string_view::npos) return false;
      out.append(text_.substr(pos_, end - pos_));
      pos_ = end + 3;
      if (Expect("<![CDATA[")) continue;
      return Expect("\r\n</event>");
    }
  }

  bool Error(std::string message) {
    error_ = std::move(message);
    return false;
  }

  ParsedLogFile& Fail(ParsedLogFile& file, const std::string& message) {
    file.error = message + " at offset " + std::to_string(pos_);
    return file;
  }

  std::string_view text_;
  size_t pos_ = 0;
  std::string error_;
};

}  // namespace

std::string ParsedLogRecord::Attribute(std::string_view name) const {
  for (const auto& [key, value] : attributes) {
    if (key == name) return value;
  }
  return {};
}

ParsedLogFile ParseAgentLog(std::string_view text) { return Reader(text).Parse(); }

}  // namespace pkgdlv::testing
