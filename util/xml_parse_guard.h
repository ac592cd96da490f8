// What the tree reader and the streaming reader share: the libxml2 options
// that make parsing safe for hostile input, and the capture of libxml2's
// messages so that they end up in an error description instead of on
// standard error.
#pragma once

#include <libxml/parser.h>
#include <libxml/xmlerror.h>

#include <string>
#include <string_view>

#include "util/xml_limits.h"

namespace pkgdlv::xml::internal {

// No network access, no DTD loading, no entity substitution (so external
// entities are never read). libxml2's 10 MB limit on one attribute value or
// text is lifted (XML_PARSE_HUGE): a snapshot's block hashes pass it. What
// that limit guarded is kept by our own: documents are at most
// kMaxDocumentBytes long and declare no entities, and both readers check the
// depth themselves, since libxml2 stops checking it under that option.
int SafeParseOptions();

// libxml2's limits catch nested expansion (the "billion laughs") but not one
// large entity referred to many times, so documents that declare entities are
// refused outright; none of the component's documents declares any.
constexpr std::string_view kEntityRefused = "Entity declarations are not accepted";

using xml::kMaxDepth;

// The description of a document longer than kMaxDocumentBytes.
std::string TooLargeDescription(uint64_t size);
// The description of nesting deeper than kMaxDepth.
std::string TooDeepDescription();

// Initialises libxml2 once per process; libxml2 requires this before it is
// used from several threads. Safe to call from any thread, any number of times.
void InitLibrary();

// While it lives, collects every libxml2 message raised on the calling thread
// (parser, encoding, XPath and generic messages) and restores the thread's
// previous handlers when it goes. Create one per parse, on the parsing thread.
class ErrorCapture {
 public:
  ErrorCapture();
  ~ErrorCapture();
  ErrorCapture(const ErrorCapture&) = delete;
  ErrorCapture& operator=(const ErrorCapture&) = delete;

  bool has_error() const { return has_error_; }
  // The first error, as "message (line N)", or fallback when none was seen.
  std::string Description(std::string_view fallback) const;
  // Records an error found by the caller rather than by libxml2 (an excess of
  // depth, for example); kept only when it is the first.
  void Record(std::string_view message, int line);

  // Refuses an entity declaration met by the parser: records kEntityRefused
  // and ends the parse as not well formed. For the entityDecl callback.
  void RefuseEntity(xmlParserCtxt* context, const xmlChar* name);
  // Records message at the parser's current line and ends the parse as not
  // well formed.
  void Refuse(xmlParserCtxt* context, std::string_view message);

 private:
  bool has_error_ = false;
  std::string first_message_;
  int first_line_ = 0;
  xmlStructuredErrorFunc saved_structured_ = nullptr;
  void* saved_structured_context_ = nullptr;
  xmlGenericErrorFunc saved_generic_ = nullptr;
  void* saved_generic_context_ = nullptr;
};

}  // namespace pkgdlv::xml::internal
