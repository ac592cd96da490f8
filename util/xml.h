// XML on libxml2: a document tree with path selection, and a writer.
//
// Parsing is safe for hostile input: no network access, no external entities
// or DTDs loaded, documents that declare entities refused (so nothing expands
// beyond the five predefined entities and character references), documents
// of at most xml::kMaxDocumentBytes, depth limited to 256 levels (see
// util/xml_limits.h). UTF-16 input with its byte order mark is converted; all
// text handed out is UTF-8.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "util/xml_limits.h"

struct _xmlNode;
struct _xmlDoc;

namespace pkgdlv::xml {

// A handle to an element of a Document; valid while the Document lives.
class Node {
 public:
  Node() = default;
  explicit Node(_xmlNode* node) : node_(node) {}

  explicit operator bool() const { return node_ != nullptr; }
  std::string Name() const;  // the element's name as written
  std::optional<std::string> Attribute(std::string_view name) const;
  bool HasAttribute(std::string_view name) const;
  // Attributes in document order as (name, value).
  std::vector<std::pair<std::string, std::string>> Attributes() const;
  std::string Text() const;               // concatenated text content
  std::vector<Node> Children() const;     // element children, in order
  // XPath relative to this element ("listenRange/address", "//Codebases").
  std::vector<Node> Select(std::string_view path) const;
  Node SelectFirst(std::string_view path) const;
  // The element and everything in it written as XML text (UTF-8), for
  // keeping an element of one document inside another.
  std::string OuterXml() const;

  _xmlNode* raw() const { return node_; }

 private:
  _xmlNode* node_ = nullptr;
};

class Document {
 public:
  // Parses text (UTF-8, or UTF-16 with a byte order mark). Throws Error with
  // code 0x8007000D (invalid data) and libxml2's message on malformed input.
  static Document Parse(std::string_view text);
  // The same without throwing: nullopt and, when error is given, the message.
  static std::optional<Document> TryParse(std::string_view text, std::string* error = nullptr);

  Document(Document&&) noexcept;
  Document& operator=(Document&&) noexcept;
  ~Document();

  Node Root() const;  // the document element; empty Node when there is none
  std::vector<Node> Select(std::string_view path) const;
  Node SelectFirst(std::string_view path) const;

 private:
  Document() = default;
  _xmlDoc* doc_ = nullptr;
};

// Builds a document as text, element by element. Attribute values and text
// are escaped; characters that XML 1.0 cannot carry at all (most C0 control
// characters, invalid UTF-8) are written as U+FFFD. Without an XML declaration
// unless asked for. Calls out of order (an attribute after content, an end
// without a start) and names that cannot be XML names throw Error 0x80070057.
// One thread at a time.
class Writer {
 public:
  struct Options {
    bool declaration = false;      // <?xml version="1.0" encoding="UTF-8"?>
    std::string indent;            // "" writes everything on one line
    std::string newline = "\n";    // line break used when indenting
  };
  Writer();
  explicit Writer(Options options);

  Writer& StartElement(std::string_view name);
  Writer& Attribute(std::string_view name, std::string_view value);
  Writer& Text(std::string_view text);
  Writer& EndElement();  // writes "/>" for an element without content
  // Inserts text that is already XML (an element written elsewhere) as a
  // child of the open element, unchanged; the caller vouches that it is
  // well formed.
  Writer& Raw(std::string_view xml);
  // Closes what is open and returns the text.
  std::string Finish();

 private:
  void CloseStartTag();
  void NewLine(size_t depth);

  Options options_;
  std::string out_;
  std::vector<std::string> open_;
  bool start_tag_open_ = false;
  bool had_children_ = false;
  bool had_text_ = false;
  // had_children_ and had_text_ of each enclosing element, saved while a
  // child is open, so that indentation never adds space to mixed content.
  std::vector<std::pair<bool, bool>> enclosing_;
};

// Escapes &, <, >, " and ' for use in an attribute value or text; tab, line
// feed, carriage return, DEL and C1 controls become character references so
// that they survive attribute-value normalisation.
std::string Escape(std::string_view text);

}  // namespace pkgdlv::xml
