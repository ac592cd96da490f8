#include "util/xml_parse_guard.h"

#include <libxml/globals.h>
#include <libxml/parser.h>

#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "util/format.h"

namespace pkgdlv::xml::internal {

namespace {

std::string_view TrimMessage(const char* message) {
  std::string_view text = message ? message : "";
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ')) text.remove_suffix(1);
  return text;
}

void OnStructuredError(void* self, xmlErrorPtr error) {
  // Warnings (an unknown encoding name that libxml2 works around, say) do not
  // make a document unreadable; only errors are worth describing.
  if (error == nullptr || error->level < XML_ERR_ERROR) return;
  static_cast<ErrorCapture*>(self)->Record(TrimMessage(error->message), error->line);
}

void OnGenericError(void* self, const char* format, ...) {
  char buffer[512];
  va_list args;
  va_start(args, format);
  std::vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  static_cast<ErrorCapture*>(self)->Record(TrimMessage(buffer), 0);
}

}  // namespace

int SafeParseOptions() { return XML_PARSE_NONET | XML_PARSE_HUGE; }

std::string TooLargeDescription(uint64_t size) {
  return Format("XML document is too large: %I64u bytes, the limit is %I64u", size, kMaxDocumentBytes);
}

std::string TooDeepDescription() { return Format("Excessive depth in document: %d", kMaxDepth); }

void InitLibrary() {
  static std::once_flag once;
  std::call_once(once, [] { xmlInitParser(); });
}

// libxml2 keeps its error handlers per thread, so swapping them here affects
// only the parse running on this thread.
ErrorCapture::ErrorCapture()
    : saved_structured_(xmlStructuredError),
      saved_structured_context_(xmlStructuredErrorContext),
      saved_generic_(xmlGenericError),
      saved_generic_context_(xmlGenericErrorContext) {
  xmlSetStructuredErrorFunc(this, OnStructuredError);
  xmlSetGenericErrorFunc(this, OnGenericError);
}

ErrorCapture::~ErrorCapture() {
  xmlSetStructuredErrorFunc(saved_structured_context_, saved_structured_);
  xmlSetGenericErrorFunc(saved_generic_context_, saved_generic_);
}

void ErrorCapture::Record(std::string_view message, int line) {
  if (has_error_) return;
  has_error_ = true;
  first_message_ = message.empty() ? "unknown XML error" : std::string(message);
  for (char& c : first_message_) {
    if (c == '\n' || c == '\r') c = ' ';  // one line, for the log
  }
  first_line_ = line;
}

void ErrorCapture::RefuseEntity(xmlParserCtxt* context, const xmlChar* name) {
  Refuse(context, Format("%hs: '%hs'", kEntityRefused, reinterpret_cast<const char*>(name)));
}

void ErrorCapture::Refuse(xmlParserCtxt* context, std::string_view message) {
  Record(message, context->input ? context->input->line : 0);
  context->wellFormed = 0;
  xmlStopParser(context);
}

std::string ErrorCapture::Description(std::string_view fallback) const {
  if (!has_error_) return std::string(fallback);
  if (first_line_ <= 0) return first_message_;
  return Format("%hs (line %d)", first_message_, first_line_);
}

}  // namespace pkgdlv::xml::internal
