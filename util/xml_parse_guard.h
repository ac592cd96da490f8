// What the tree reader and the streaming reader share: the libxml2 options
// that make parsing safe for hostile input, and the capture of libxml2's
// messages so that they end up in an error description instead of on
// standard error.
#pragma once

#include <libxml/parser.h>
#include <libxml/xmlerror.h>

#include <string>
#include <string_view>

namespace pkgdlv::xml::internal {

// No network access, no DTD loading, no entity substitution (so external
// entities are never read), and libxml2's default limits on entity expansion
// and text length (XML_PARSE_HUGE is never set).
int SafeParseOptions();

// libxml2's limits catch nested expansion (the "billion laughs") but not one
// large entity referred to many times, so documents that declare entities are
// refused outright; none of the component's documents declares any.
constexpr std::string_view kEntityRefused = "Entity declarations are not accepted";

// Deepest element nesting accepted. libxml2 enforces the same number in the
// tree parser; the streaming reader checks it itself because libxml2's push
// parser does not.
constexpr int kMaxDepth = 256;

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
