#include "util/xml_sax.h"

#include <libxml/SAX2.h>
#include <libxml/parser.h>
#include <libxml/parserInternals.h>

#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "util/error.h"
#include "util/file_reader.h"
#include "util/xml_parse_guard.h"

namespace pkgdlv::xml {

namespace internal {

// Scratch space reused from one element, and one parse, to the next, so that
// a long document is read without an allocation per attribute.
struct SAXBuffers {
  std::vector<SAXAttribute> attributes;
  std::vector<std::string> owned;  // decoded values and prefixed names of the current start tag
  std::string element_name;
  std::vector<char> chunk;
};

}  // namespace internal

namespace {

constexpr size_t kChunkSize = 256 * 1024;

struct Session {
  SAXContentHandler* handler = nullptr;
  internal::SAXBuffers* buffers = nullptr;
  internal::ErrorCapture* errors = nullptr;
  xmlParserCtxt* main = nullptr;
  int depth = 0;
  bool stopped = false;  // by the handler
  bool failed = false;   // by a check of ours; the message is in errors
  std::exception_ptr exception;

  bool halted() const { return stopped || failed || exception; }
};

// The parser context is the callbacks' context, as libxml2's own DTD
// callbacks (which we keep) expect; the session rides in its _private.
xmlParserCtxt* ContextOf(void* context) { return static_cast<xmlParserCtxt*>(context); }
Session& SessionOf(xmlParserCtxt* context) { return *static_cast<Session*>(context->_private); }

void Halt(Session& session, xmlParserCtxt* current) {
  xmlStopParser(current);
  if (current != session.main) xmlStopParser(session.main);  // current parses an entity's content
}

void Fail(Session& session, xmlParserCtxt* current, std::string_view message) {
  session.errors->Record(message, xmlSAX2GetLineNumber(current));
  session.failed = true;
  Halt(session, current);
}

// Runs one handler call, turning kStop and exceptions into a halted parse:
// nothing may be thrown through libxml2's C frames.
template <class Call>
void Deliver(Session& session, xmlParserCtxt* context, Call&& call) {
  try {
    if (call() == SAXAction::kStop) {
      session.stopped = true;
      Halt(session, context);
    }
  } catch (...) {
    session.exception = std::current_exception();
    Halt(session, context);
  }
}

const char* AsChar(const xmlChar* text) { return reinterpret_cast<const char*>(text); }

std::string_view JoinName(const xmlChar* prefix, const xmlChar* local, std::string& scratch) {
  if (prefix == nullptr) return AsChar(local);
  scratch.assign(AsChar(prefix));
  scratch += ':';
  scratch += AsChar(local);
  return scratch;
}

// With entity substitution off, libxml2 leaves some references in the raw
// attribute value (a character reference to '&' stays "&#38;"); they are
// replaced here as its own tree builder does. False when that fails.
bool DecodeValue(xmlParserCtxt* context, const xmlChar* begin, const xmlChar* end, std::string& out) {
  xmlChar* decoded =
      xmlStringLenDecodeEntities(context, begin, static_cast<int>(end - begin), XML_SUBSTITUTE_REF, 0, 0, 0);
  if (decoded == nullptr) return false;
  out.assign(AsChar(decoded));
  xmlFree(decoded);
  return true;
}

// Attributes come as five pointers each: local name, prefix, URI, value
// start, value end. Defaulted attributes (from a DTD) come last and are left
// out, as the tree reader leaves them out.
bool CollectAttributes(xmlParserCtxt* context, internal::SAXBuffers& buffers, int count, const xmlChar** raw) {
  buffers.attributes.clear();
  if (buffers.owned.size() < static_cast<size_t>(count) * 2) buffers.owned.resize(static_cast<size_t>(count) * 2);
  for (int i = 0; i < count; ++i) {
    const xmlChar** attribute = raw + 5 * i;
    std::string& name_scratch = buffers.owned[2 * static_cast<size_t>(i)];
    std::string& value_scratch = buffers.owned[2 * static_cast<size_t>(i) + 1];
    SAXAttribute item;
    item.name = JoinName(attribute[1], attribute[0], name_scratch);
    const auto length = static_cast<size_t>(attribute[4] - attribute[3]);
    item.value = std::string_view(AsChar(attribute[3]), length);
    if (std::memchr(item.value.data(), '&', length) != nullptr) {
      if (!DecodeValue(context, attribute[3], attribute[4], value_scratch)) return false;
      item.value = value_scratch;
    }
    buffers.attributes.push_back(item);
  }
  return true;
}

void OnStartElement(void* raw_context, const xmlChar* local_name, const xmlChar* prefix, const xmlChar* /*uri*/,
                    int /*namespace_count*/, const xmlChar** /*namespaces*/, int attribute_count, int defaulted_count,
                    const xmlChar** attributes) {
  xmlParserCtxt* context = ContextOf(raw_context);
  Session& session = SessionOf(context);
  if (session.halted()) return;
  if (++session.depth > internal::kMaxDepth) {
    return Fail(session, context, internal::TooDeepDescription());
  }
  internal::SAXBuffers& buffers = *session.buffers;
  if (!CollectAttributes(context, buffers, attribute_count - defaulted_count, attributes)) {
    return Fail(session, context, "Invalid entity reference in an attribute value");
  }
  const std::string_view name = JoinName(prefix, local_name, buffers.element_name);
  Deliver(session, context, [&] { return session.handler->StartElement(name, SAXAttributes(buffers.attributes)); });
}

void OnEndElement(void* raw_context, const xmlChar* local_name, const xmlChar* prefix, const xmlChar* /*uri*/) {
  xmlParserCtxt* context = ContextOf(raw_context);
  Session& session = SessionOf(context);
  if (session.halted()) return;
  --session.depth;
  const std::string_view name = JoinName(prefix, local_name, session.buffers->element_name);
  Deliver(session, context, [&] { return session.handler->EndElement(name); });
}

void OnCharacters(void* raw_context, const xmlChar* text, int length) {
  xmlParserCtxt* context = ContextOf(raw_context);
  Session& session = SessionOf(context);
  if (session.halted()) return;
  const std::string_view piece(AsChar(text), static_cast<size_t>(length));
  Deliver(session, context, [&] { return session.handler->Characters(piece); });
}

void OnEntityDeclaration(void* raw_context, const xmlChar* name, int, const xmlChar*, const xmlChar*, xmlChar*) {
  xmlParserCtxt* context = ContextOf(raw_context);
  Session& session = SessionOf(context);
  session.errors->RefuseEntity(context, name);
  session.failed = true;
  if (context != session.main) xmlStopParser(session.main);
}

// libxml2's SAX2 defaults for the DTD never load anything external without
// the options we leave off; the content callbacks and the refusal of entity
// declarations are ours.
xmlSAXHandler MakeHandler() {
  xmlSAXHandler sax;
  std::memset(&sax, 0, sizeof sax);
  xmlSAXVersion(&sax, 2);
  sax.startElement = nullptr;
  sax.endElement = nullptr;
  sax.startElementNs = OnStartElement;
  sax.endElementNs = OnEndElement;
  sax.characters = OnCharacters;
  sax.ignorableWhitespace = OnCharacters;
  sax.cdataBlock = OnCharacters;
  sax.reference = nullptr;
  sax.comment = nullptr;
  sax.processingInstruction = nullptr;
  sax.entityDecl = OnEntityDeclaration;
  return sax;
}

struct PushContext {
  xmlParserCtxt* context;
  ~PushContext() {
    if (context == nullptr) return;
    if (context->myDoc != nullptr) xmlFreeDoc(context->myDoc);  // holds the DTD, if any
    xmlFreeParserCtxt(context);
  }
};

// Feeds the document to a push parser piece by piece. next(piece) fills the
// next piece and returns false at the end of the input.
template <class NextPiece>
SAXParser::Outcome Run(SAXContentHandler& handler, internal::SAXBuffers& buffers, NextPiece&& next) {
  internal::InitLibrary();
  internal::ErrorCapture errors;
  xmlSAXHandler sax = MakeHandler();
  PushContext push{xmlCreatePushParserCtxt(&sax, nullptr, nullptr, 0, nullptr)};
  if (push.context == nullptr) Throw(result::kFail, "Out of memory creating an XML parser");
  xmlCtxtUseOptions(push.context, internal::SafeParseOptions());
  Session session;
  session.handler = &handler;
  session.buffers = &buffers;
  session.errors = &errors;
  session.main = push.context;
  push.context->_private = &session;

  // xmlParseChunk's result also reports errors that leave the document well
  // formed (a namespace fault), so wellFormed decides whether to go on.
  const auto going = [&] { return !session.halted() && push.context->wellFormed; };
  std::string_view piece;
  bool empty = true;
  uint64_t fed = 0;
  while (going() && next(piece)) {
    empty = false;
    fed += piece.size();
    if (fed > kMaxDocumentBytes) Throw(result::kInvalidData, "%ls", internal::TooLargeDescription(fed));
    xmlParseChunk(push.context, piece.data(), static_cast<int>(piece.size()), 0);
  }
  // libxml2's push parser names an empty input oddly; say it plainly.
  if (empty) Throw(result::kInvalidData, "Document is empty");
  if (going()) xmlParseChunk(push.context, nullptr, 0, 1);

  if (session.exception) std::rethrow_exception(session.exception);
  if (session.stopped) return SAXParser::Outcome::kStopped;
  if (session.failed || !push.context->wellFormed) {
    throw Error(result::kInvalidData, errors.Description("XML document failed to load"));
  }
  return SAXParser::Outcome::kCompleted;
}

}  // namespace

std::optional<std::string_view> SAXAttributes::Find(std::string_view name) const {
  for (const SAXAttribute& attribute : items_) {
    if (attribute.name == name) return attribute.value;
  }
  return std::nullopt;
}

SAXAction SAXContentHandler::StartElement(std::string_view, const SAXAttributes&) { return SAXAction::kContinue; }
SAXAction SAXContentHandler::EndElement(std::string_view) { return SAXAction::kContinue; }
SAXAction SAXContentHandler::Characters(std::string_view) { return SAXAction::kContinue; }

SAXParser::SAXParser() : buffers_(std::make_unique<internal::SAXBuffers>()) {}
SAXParser::~SAXParser() = default;

SAXParser::Outcome SAXParser::ParseMemory(std::string_view text, SAXContentHandler& handler) {
  if (text.size() > kMaxDocumentBytes) Throw(result::kInvalidData, "%ls", internal::TooLargeDescription(text.size()));
  return Run(handler, *buffers_, [&text](std::string_view& piece) {
    if (text.empty()) return false;
    piece = text.substr(0, kChunkSize);
    text.remove_prefix(piece.size());
    return true;
  });
}

SAXParser::Outcome SAXParser::ParseFile(const std::filesystem::path& path, SAXContentHandler& handler) {
  FileReader file(path);
  std::vector<char>& chunk = buffers_->chunk;
  chunk.resize(kChunkSize);
  return Run(handler, *buffers_, [&](std::string_view& piece) {
    const size_t got = file.Read(std::span<char>(chunk));
    piece = std::string_view(chunk.data(), got);
    return got > 0;
  });
}

}  // namespace pkgdlv::xml
