#include "util/xml.h"

#include <libxml/SAX2.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xpath.h>

#include <memory>

#include "util/error.h"
#include "util/xml_parse_guard.h"

namespace pkgdlv::xml {

namespace {

const xmlChar* AsXmlChar(const char* text) { return reinterpret_cast<const xmlChar*>(text); }
const char* AsChar(const xmlChar* text) { return reinterpret_cast<const char*>(text); }

// Frees what libxml2 allocated for the caller, even when an exception passes.
struct XmlFree {
  void operator()(xmlChar* text) const { xmlFree(text); }
  void operator()(xmlParserCtxt* context) const { xmlFreeParserCtxt(context); }
  void operator()(xmlXPathContext* context) const { xmlXPathFreeContext(context); }
  void operator()(xmlXPathObject* object) const { xmlXPathFreeObject(object); }
  void operator()(xmlBuffer* buffer) const { xmlBufferFree(buffer); }
};
template <class T>
using XmlPtr = std::unique_ptr<T, XmlFree>;

std::string TakeString(xmlChar* text) {
  XmlPtr<xmlChar> owned(text);
  return text ? std::string(AsChar(text)) : std::string();
}

std::string QualifiedName(const xmlChar* name, const xmlNs* ns) {
  std::string out;
  if (ns != nullptr && ns->prefix != nullptr) {
    out = AsChar(ns->prefix);
    out += ':';
  }
  if (name != nullptr) out += AsChar(name);
  return out;
}

bool NameMatches(const xmlChar* name, const xmlNs* ns, std::string_view wanted) {
  if (ns != nullptr && ns->prefix != nullptr) return QualifiedName(name, ns) == wanted;
  return name != nullptr && std::string_view(AsChar(name)) == wanted;
}

xmlAttr* FindAttribute(xmlNode* node, std::string_view name) {
  if (node == nullptr || node->type != XML_ELEMENT_NODE) return nullptr;
  for (xmlAttr* attr = node->properties; attr != nullptr; attr = attr->next) {
    if (NameMatches(attr->name, attr->ns, name)) return attr;
  }
  return nullptr;
}

std::string AttributeValue(xmlAttr* attr) {
  xmlNode* first = attr->children;
  if (first == nullptr) return {};
  // The usual case, one plain text child, needs no copy through libxml2.
  if (first->next == nullptr && first->type == XML_TEXT_NODE) return first->content ? AsChar(first->content) : "";
  // Entity references in the value are expanded in line.
  return TakeString(xmlNodeListGetString(attr->doc, first, 1));
}

std::vector<Node> Evaluate(xmlDoc* doc, xmlNode* context_node, std::string_view path) {
  if (doc == nullptr) return {};
  internal::ErrorCapture errors;
  XmlPtr<xmlXPathContext> context(xmlXPathNewContext(doc));
  if (!context) Throw(result::kFail, "Out of memory creating an XPath context");
  context->node = context_node;
  const std::string expression(path);
  XmlPtr<xmlXPathObject> found(xmlXPathEvalExpression(AsXmlChar(expression.c_str()), context.get()));
  if (!found) {
    Throw(result::kInvalidArg, "Invalid XPath expression '%hs': %hs", expression,
          errors.Description("evaluation failed"));
  }
  std::vector<Node> nodes;
  if (found->type != XPATH_NODESET || found->nodesetval == nullptr) return nodes;
  const xmlNodeSet* set = found->nodesetval;
  nodes.reserve(static_cast<size_t>(set->nodeNr));
  for (int i = 0; i < set->nodeNr; ++i) {
    if (set->nodeTab[i]->type == XML_ELEMENT_NODE) nodes.emplace_back(set->nodeTab[i]);
  }
  return nodes;
}

Node First(std::vector<Node> nodes) { return nodes.empty() ? Node() : nodes.front(); }

// The tree parser's context is its callbacks' context; _private holds the
// parse's guard.
struct TreeGuard {
  internal::ErrorCapture* errors;
  int depth = 0;
};
TreeGuard& GuardOf(xmlParserCtxt* context) { return *static_cast<TreeGuard*>(context->_private); }

void OnEntityDeclaration(void* raw_context, const xmlChar* name, int, const xmlChar*, const xmlChar*, xmlChar*) {
  auto* context = static_cast<xmlParserCtxt*>(raw_context);
  GuardOf(context).errors->RefuseEntity(context, name);
}

// libxml2's own element handlers, behind a check of the depth (which libxml2
// leaves unchecked for the options we parse with).
void OnStartElement(void* raw_context, const xmlChar* local_name, const xmlChar* prefix, const xmlChar* uri,
                    int namespace_count, const xmlChar** namespaces, int attribute_count, int defaulted_count,
                    const xmlChar** attributes) {
  auto* context = static_cast<xmlParserCtxt*>(raw_context);
  TreeGuard& guard = GuardOf(context);
  if (++guard.depth > internal::kMaxDepth) return guard.errors->Refuse(context, internal::TooDeepDescription());
  xmlSAX2StartElementNs(raw_context, local_name, prefix, uri, namespace_count, namespaces, attribute_count,
                        defaulted_count, attributes);
}

void OnEndElement(void* raw_context, const xmlChar* local_name, const xmlChar* prefix, const xmlChar* uri) {
  auto* context = static_cast<xmlParserCtxt*>(raw_context);
  --GuardOf(context).depth;
  xmlSAX2EndElementNs(raw_context, local_name, prefix, uri);
}

}  // namespace

// ---- Node ----

std::string Node::Name() const { return node_ ? QualifiedName(node_->name, node_->ns) : std::string(); }

std::optional<std::string> Node::Attribute(std::string_view name) const {
  xmlAttr* attr = FindAttribute(node_, name);
  if (attr == nullptr) return std::nullopt;
  return AttributeValue(attr);
}

bool Node::HasAttribute(std::string_view name) const { return FindAttribute(node_, name) != nullptr; }

std::vector<std::pair<std::string, std::string>> Node::Attributes() const {
  std::vector<std::pair<std::string, std::string>> out;
  if (node_ == nullptr || node_->type != XML_ELEMENT_NODE) return out;
  for (xmlAttr* attr = node_->properties; attr != nullptr; attr = attr->next) {
    out.emplace_back(QualifiedName(attr->name, attr->ns), AttributeValue(attr));
  }
  return out;
}

std::string Node::Text() const { return node_ ? TakeString(xmlNodeGetContent(node_)) : std::string(); }

std::vector<Node> Node::Children() const {
  std::vector<Node> out;
  if (node_ == nullptr) return out;
  for (xmlNode* child = node_->children; child != nullptr; child = child->next) {
    if (child->type == XML_ELEMENT_NODE) out.emplace_back(child);
  }
  return out;
}

std::vector<Node> Node::Select(std::string_view path) const {
  return node_ ? Evaluate(node_->doc, node_, path) : std::vector<Node>();
}

Node Node::SelectFirst(std::string_view path) const { return First(Select(path)); }

std::string Node::OuterXml() const {
  if (node_ == nullptr) return {};
  XmlPtr<xmlBuffer> buffer(xmlBufferCreate());
  if (!buffer || xmlNodeDump(buffer.get(), node_->doc, node_, 0, 0) < 0) {
    Throw(result::kFail, "Unable to write the XML of element '%hs'", Name());
  }
  return std::string(AsChar(xmlBufferContent(buffer.get())), static_cast<size_t>(xmlBufferLength(buffer.get())));
}

// ---- Document ----

std::optional<Document> Document::TryParse(std::string_view text, std::string* error) {
  auto fail = [error](std::string message) -> std::optional<Document> {
    if (error != nullptr) *error = std::move(message);
    return std::nullopt;
  };
  if (text.size() > kMaxDocumentBytes) return fail(internal::TooLargeDescription(text.size()));
  internal::InitLibrary();
  internal::ErrorCapture errors;
  XmlPtr<xmlParserCtxt> context(xmlNewParserCtxt());
  if (!context) return fail("Out of memory creating an XML parser");
  TreeGuard guard{&errors};
  context->_private = &guard;
  context->sax->entityDecl = OnEntityDeclaration;
  context->sax->startElementNs = OnStartElement;
  context->sax->endElementNs = OnEndElement;
  // Blank text between elements is dropped, as a document object does by
  // default, so that element children follow each other directly.
  const int options = internal::SafeParseOptions() | XML_PARSE_NOBLANKS | XML_PARSE_NOCDATA | XML_PARSE_COMPACT;
  xmlDoc* doc = xmlCtxtReadMemory(context.get(), text.data(), static_cast<int>(text.size()), nullptr, nullptr, options);
  if (doc == nullptr || !context->wellFormed) {
    if (doc != nullptr) xmlFreeDoc(doc);
    return fail(errors.Description("XML document failed to load"));
  }
  Document document;
  document.doc_ = doc;
  return document;
}

Document Document::Parse(std::string_view text) {
  std::string error;
  std::optional<Document> document = TryParse(text, &error);
  if (!document) throw Error(result::kInvalidData, std::move(error));
  return std::move(*document);
}

Document::Document(Document&& other) noexcept : doc_(other.doc_) { other.doc_ = nullptr; }

Document& Document::operator=(Document&& other) noexcept {
  if (this != &other) {
    if (doc_ != nullptr) xmlFreeDoc(doc_);
    doc_ = other.doc_;
    other.doc_ = nullptr;
  }
  return *this;
}

Document::~Document() {
  if (doc_ != nullptr) xmlFreeDoc(doc_);
}

Node Document::Root() const { return Node(doc_ ? xmlDocGetRootElement(doc_) : nullptr); }

std::vector<Node> Document::Select(std::string_view path) const {
  return Evaluate(doc_, reinterpret_cast<xmlNode*>(doc_), path);
}

Node Document::SelectFirst(std::string_view path) const { return First(Select(path)); }

}  // namespace pkgdlv::xml
