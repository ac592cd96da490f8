// The XML writer and the escaping it shares with callers.
#include <cstdint>
#include <string>
#include <tuple>

#include "util/display_text.h"
#include "util/error.h"
#include "util/xml.h"

namespace pkgdlv::xml {

namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD

void AppendReference(std::string& out, uint32_t code_point) {
  out += "&#";
  out += std::to_string(code_point);
  out += ';';
}

// attribute: also encode tab and line feed, which an attribute value would
// otherwise turn into spaces when read back.
void EscapeInto(std::string& out, std::string_view text, bool attribute) {
  out.reserve(out.size() + text.size());
  for (size_t i = 0; i < text.size();) {
    const auto c = static_cast<uint8_t>(text[i]);
    if (c >= 0x80) {
      uint32_t code_point = 0;
      const size_t length = DecodeUtf8At(text, i, code_point);
      if (length == 0 || code_point == 0xFFFE || code_point == 0xFFFF) {
        out += kReplacement;
        i += length == 0 ? 1 : length;
      } else {
        if (code_point <= 0x9F) {
          AppendReference(out, code_point);  // C1 controls are legal but invisible
        } else {
          out.append(text, i, length);
        }
        i += length;
      }
      continue;
    }
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\'': out += "&apos;"; break;
      case '\r': out += "&#13;"; break;  // line-end normalisation would drop it
      case '\t':
      case '\n':
        if (attribute) {
          AppendReference(out, c);
        } else {
          out += static_cast<char>(c);
        }
        break;
      case 0x7F: AppendReference(out, c); break;
      default:
        if (c < 0x20) {
          out += kReplacement;  // not allowed in XML 1.0, not even as a reference
        } else {
          out += static_cast<char>(c);
        }
    }
    ++i;
  }
}

bool IsNameCharacter(char c) {
  const auto u = static_cast<uint8_t>(c);
  return u >= 0x80 || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         c == ':' || c == '-' || c == '.';
}

// A light check that catches mistakes in the code's own names; names from
// documents are not expected here.
void CheckName(std::string_view name) {
  bool valid = !name.empty() && !(name[0] >= '0' && name[0] <= '9') && name[0] != '-' && name[0] != '.';
  for (char c : name) valid = valid && IsNameCharacter(c);
  if (!valid) Throw(result::kInvalidArg, "XML writer: '%hs' is not a valid XML name", name);
}

}  // namespace

std::string Escape(std::string_view text) {
  std::string out;
  EscapeInto(out, text, true);
  return out;
}

Writer::Writer() : Writer(Options{}) {}

Writer::Writer(Options options) : options_(std::move(options)) {
  if (options_.declaration) out_ = R"(<?xml version="1.0" encoding="UTF-8"?>)";
}

Writer& Writer::StartElement(std::string_view name) {
  CheckName(name);
  CloseStartTag();
  // A new line before every element except the first thing written and a
  // child of an element that already holds text.
  if (!out_.empty() && !had_text_) NewLine(open_.size());
  if (!open_.empty()) {
    had_children_ = true;
    enclosing_.emplace_back(had_children_, had_text_);
  }
  out_ += '<';
  out_ += name;
  open_.emplace_back(name);
  start_tag_open_ = true;
  had_children_ = false;
  had_text_ = false;
  return *this;
}

Writer& Writer::Attribute(std::string_view name, std::string_view value) {
  CheckName(name);
  if (!start_tag_open_) Throw(result::kInvalidArg, "XML writer: attribute '%hs' written outside a start tag", name);
  out_ += ' ';
  out_ += name;
  out_ += "=\"";
  EscapeInto(out_, value, true);
  out_ += '"';
  return *this;
}

Writer& Writer::Text(std::string_view text) {
  if (open_.empty()) Throw(result::kInvalidArg, "XML writer: text written outside an element");
  CloseStartTag();
  EscapeInto(out_, text, false);
  had_text_ = true;
  return *this;
}

Writer& Writer::Raw(std::string_view xml) {
  if (open_.empty()) Throw(result::kInvalidArg, "XML writer: raw XML written outside an element");
  CloseStartTag();
  if (!had_text_) NewLine(open_.size());
  out_ += xml;
  had_children_ = true;
  return *this;
}

Writer& Writer::EndElement() {
  if (open_.empty()) Throw(result::kInvalidArg, "XML writer: EndElement without an open element");
  if (start_tag_open_) {
    out_ += "/>";
    start_tag_open_ = false;
  } else {
    if (had_children_ && !had_text_) NewLine(open_.size() - 1);
    out_ += "</";
    out_ += open_.back();
    out_ += '>';
  }
  open_.pop_back();
  if (!enclosing_.empty() && enclosing_.size() == open_.size()) {
    std::tie(had_children_, had_text_) = enclosing_.back();
    enclosing_.pop_back();
  } else {
    had_children_ = had_text_ = false;
  }
  return *this;
}

std::string Writer::Finish() {
  while (!open_.empty()) EndElement();
  std::string text = std::move(out_);
  out_.clear();
  enclosing_.clear();
  start_tag_open_ = had_children_ = had_text_ = false;
  return text;
}

void Writer::CloseStartTag() {
  if (!start_tag_open_) return;
  out_ += '>';
  start_tag_open_ = false;
}

void Writer::NewLine(size_t depth) {
  if (options_.indent.empty()) return;
  out_ += options_.newline;
  for (size_t i = 0; i < depth; ++i) out_ += options_.indent;
}

}  // namespace pkgdlv::xml
