// The streaming XML reader: walks a document held in memory or in a file
// without building a tree, handing each start tag with its attributes, each
// end tag and each piece of text to a handler as it is read.
//
// Parsing is as safe for hostile input as the tree reader's (util/xml.h): no
// network access, no external entities or DTDs loaded, documents that declare
// entities refused, documents of at most xml::kMaxDocumentBytes, at most 256
// levels of nesting (see util/xml_limits.h). UTF-16 input with its byte order
// mark is converted; all text handed out is UTF-8.
#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string_view>

#include "util/xml_limits.h"

namespace pkgdlv::xml {

// One attribute of a start tag. Both views point into the reader's buffers
// and are valid only during the StartElement call that received them.
struct SAXAttribute {
  std::string_view name;   // as written, with its prefix when it has one
  std::string_view value;  // references replaced, white space normalised as XML reads attribute values
};

// The attributes of one start tag in document order, handed out without
// copies; valid only during the StartElement call that received them.
class SAXAttributes {
 public:
  SAXAttributes() = default;
  explicit SAXAttributes(std::span<const SAXAttribute> items) : items_(items) {}

  size_t size() const { return items_.size(); }
  bool empty() const { return items_.empty(); }
  const SAXAttribute& operator[](size_t index) const { return items_[index]; }
  auto begin() const { return items_.begin(); }
  auto end() const { return items_.end(); }
  // The value of the attribute with exactly this name; nullopt when absent.
  std::optional<std::string_view> Find(std::string_view name) const;

 private:
  std::span<const SAXAttribute> items_;
};

// What a handler tells the reader after each event.
enum class SAXAction { kContinue, kStop };

// Receives the events of one parse, on the thread that runs it. Each
// operation does nothing by default; override those of interest. The views it
// receives are valid only during the call. Returning kStop ends the parse at
// once (SAXParser then reports kStopped); an exception thrown by an operation
// also ends it and leaves the parser's call.
class SAXContentHandler {
 public:
  virtual ~SAXContentHandler() = default;

  // name as written, with its prefix when it has one.
  virtual SAXAction StartElement(std::string_view name, const SAXAttributes& attributes);
  virtual SAXAction EndElement(std::string_view name);
  // Text between tags (CDATA sections and white space included). One run of
  // text may arrive in several calls.
  virtual SAXAction Characters(std::string_view text);
};

namespace internal {
struct SAXBuffers;
}

// Runs parses, one at a time; the buffers it keeps between parses make later
// parses allocate less. Not for use by several threads at once.
class SAXParser {
 public:
  enum class Outcome {
    kCompleted,  // the whole document was read and is well formed
    kStopped,    // the handler returned kStop
  };

  SAXParser();
  ~SAXParser();
  SAXParser(const SAXParser&) = delete;
  SAXParser& operator=(const SAXParser&) = delete;

  // Both throw Error 0x8007000D (invalid data) with libxml2's message and
  // line when the document is malformed, too deep or exceeds a limit (events
  // before the fault have been delivered by then), and rethrow whatever the
  // handler threw. ParseFile also throws Error when the file cannot be read
  // (0x80070002 when it does not exist). The file is read in chunks, never
  // whole.
  Outcome ParseMemory(std::string_view text, SAXContentHandler& handler);
  Outcome ParseFile(const std::filesystem::path& path, SAXContentHandler& handler);

 private:
  std::unique_ptr<internal::SAXBuffers> buffers_;
};

}  // namespace pkgdlv::xml
