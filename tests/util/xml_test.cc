#include "util/xml.h"

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "util/error.h"
#include "util/xml_sax.h"
#include "util/xml_test_support.h"

namespace pkgdlv::xml {
namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

std::vector<std::string> Names(const std::vector<Node>& nodes) {
  std::vector<std::string> names;
  for (const Node& node : nodes) names.push_back(node.Name() + ":" + node.Attribute("n").value_or(""));
  return names;
}

// The error a call throws, if any.
std::optional<Error> ErrorOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const Error& e) {
    return e;
  }
  return std::nullopt;
}

constexpr char kPackage[] = R"(<?xml version="1.0" encoding="UTF-8"?>
<Package id="{1}" name="Tools &amp; more" version="3" note="a&#38;b&lt;c&#x41;&#10;d">
  <Source time="2024-01-02T03:04:05">
    <Codebase n="1" href="http://a/"/>
    <Codebase n="2" unc="\\b\c"/>
    <Extra><Codebase n="3"/></Extra>
  </Source>
  <Text>one <![CDATA[<two>]]> three</Text>
</Package>)";

TEST(XmlDocumentTest, ReadsAttributesInOrderChildrenAndText) {
  const Document doc = Document::Parse(kPackage);
  const Node root = doc.Root();
  ASSERT_TRUE(root);
  EXPECT_EQ(root.Name(), "Package");
  EXPECT_EQ(root.Attributes(),
            (Pairs{{"id", "{1}"}, {"name", "Tools & more"}, {"version", "3"}, {"note", "a&b<cA\nd"}}));
  EXPECT_EQ(root.Attribute("version"), "3");
  EXPECT_EQ(root.Attribute("Version"), std::nullopt);  // names are case-sensitive
  EXPECT_FALSE(root.HasAttribute("missing"));
  EXPECT_TRUE(root.HasAttribute("id"));

  // Blank text between elements is not a child: children follow each other.
  const std::vector<Node> children = root.Children();
  ASSERT_EQ(children.size(), 2u);
  EXPECT_EQ(children[0].Name(), "Source");
  EXPECT_EQ(children[1].Name(), "Text");
  EXPECT_EQ(children[1].Text(), "one <two> three");
  EXPECT_EQ(Names(children[0].Children()), (std::vector<std::string>{"Codebase:1", "Codebase:2", "Extra:"}));
}

TEST(XmlDocumentTest, SelectsRelativeAndDescendantPaths) {
  const Document doc = Document::Parse(kPackage);
  const Node source = doc.Root().SelectFirst("Source");
  ASSERT_TRUE(source);
  EXPECT_EQ(source.Attribute("time"), "2024-01-02T03:04:05");

  struct Case {
    std::string path;
    std::vector<std::string> want;
  };
  const Case from_source[] = {
      {"Codebase", {"Codebase:1", "Codebase:2"}},
      {"Extra/Codebase", {"Codebase:3"}},
      {".//Codebase", {"Codebase:1", "Codebase:2", "Codebase:3"}},
      {"//Codebase", {"Codebase:1", "Codebase:2", "Codebase:3"}},  // // searches the whole document
      {"Codebase[@unc]", {"Codebase:2"}},
      {"Missing", {}},
      {"@time", {}},  // attributes are not elements
  };
  for (const Case& c : from_source) EXPECT_EQ(Names(source.Select(c.path)), c.want) << c.path;

  EXPECT_EQ(Names(doc.Select("//Codebase")).size(), 3u);
  EXPECT_EQ(doc.SelectFirst("Package/Source/Codebase").Attribute("n"), "1");
  EXPECT_FALSE(doc.SelectFirst("//codebase"));  // case-sensitive
  EXPECT_FALSE(Node().SelectFirst("a"));
  EXPECT_TRUE(Node().Select("a").empty());
  EXPECT_EQ(ErrorOf([&] { doc.Select("Source["); }).value_or(Error(result::kOk, "")).code(), result::kInvalidArg);
}

TEST(XmlDocumentTest, ReadsUtf16WithByteOrderMark) {
  const std::string utf8 = "<a v=\"caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80\">t\xC3\xA9xt</a>";
  const std::string inputs[] = {testing::ToUtf16(utf8, false), testing::ToUtf16(utf8, true), "\xEF\xBB\xBF" + utf8};
  for (const std::string& input : inputs) {
    std::string error;
    const std::optional<Document> doc = Document::TryParse(input, &error);
    ASSERT_TRUE(doc) << error;
    EXPECT_EQ(doc->Root().Attribute("v"), "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80");
    EXPECT_EQ(doc->Root().Text(), "t\xC3\xA9xt");
  }
}

TEST(XmlDocumentTest, HostileInputFailsCleanlyAndLoadsNothing) {
  const testing::ConnectionWatch watch;
  ::testing::internal::CaptureStderr();
  for (const testing::HostileXml& c : testing::HostileDocuments(watch.url())) {
    SCOPED_TRACE(c.name);
    std::string error;
    const std::optional<Document> doc = Document::TryParse(c.text, &error);
    if (c.must_fail) {
      EXPECT_FALSE(doc);
      EXPECT_FALSE(error.empty());
    }
    if (doc) {
      EXPECT_EQ(doc->Root().Text().find("root:"), std::string::npos);
      for (const auto& [name, value] : doc->Root().Attributes()) EXPECT_EQ(value.find("root:"), std::string::npos);
    }
  }
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");  // messages go into descriptions only
  EXPECT_FALSE(watch.Contacted());
}

// The tree and the streaming reader share their limits: an attribute may be
// as long as a document may be (a block hash list of a large file passes
// libxml2's own 10 MB), while depth and document size stay bounded with a
// reason that says which limit was hit.
TEST(XmlDocumentTest, BothReadersShareTheSizeAndDepthLimits) {
  class ValueLength final : public SAXContentHandler {
   public:
    SAXAction StartElement(std::string_view, const SAXAttributes& attributes) override {
      if (auto value = attributes.Find("h")) length = value->size();
      return SAXAction::kContinue;
    }
    size_t length = 0;
  };
  const std::string longValue(11'200'000, 'A');
  const std::string deep = testing::Repeat("<a>", kMaxDepth + 1) + testing::Repeat("</a>", kMaxDepth + 1);
  const std::string deepest = testing::Repeat("<a>", kMaxDepth) + testing::Repeat("</a>", kMaxDepth);
  const std::string huge = "<a>" + std::string(kMaxDocumentBytes, ' ') + "</a>";
  const struct {
    const char* name;
    std::string text;
    std::string failure;  // empty: loads
  } cases[] = {
      {"long attribute", "<r h=\"" + longValue + "\"/>", ""},
      {"deepest nesting", deepest, ""},
      {"too deep", deep, "Excessive depth in document: 256"},
      {"too large", huge,
       "XML document is too large: " + std::to_string(huge.size()) + " bytes, the limit is 67108864"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::string error;
    std::optional<Document> doc = Document::TryParse(c.text, &error);
    EXPECT_EQ(doc.has_value(), c.failure.empty()) << error;
    EXPECT_EQ(error.substr(0, c.failure.size()), c.failure);
    if (doc && c.text.starts_with("<r")) {
      EXPECT_EQ(doc->Root().Attribute("h")->size(), longValue.size());
    }

    ValueLength handler;
    SAXParser parser;
    const std::optional<Error> e = ErrorOf([&] { parser.ParseMemory(c.text, handler); });
    EXPECT_EQ(e.has_value(), !c.failure.empty());
    if (e) {
      EXPECT_EQ(e->description().substr(0, c.failure.size()), c.failure);
    }
    if (c.text.starts_with("<r")) {
      EXPECT_EQ(handler.length, longValue.size());
    }
  }
}

TEST(XmlDocumentTest, MovedDocumentKeepsItsNodes) {
  Document first = Document::Parse("<a><b/></a>");
  Document second = Document::Parse("<c/>");
  second = std::move(first);
  EXPECT_EQ(second.Root().Children().at(0).Name(), "b");
  Document third(std::move(second));
  EXPECT_EQ(third.Root().Name(), "a");
}

// ---- Writer ----

TEST(XmlEscapeTest, ValuesSurviveWritingAndReadingBack) {
  struct Case {
    std::string name;
    std::string value;
    std::string read_back;  // what a reader gets; the value itself unless noted
  };
  const Case cases[] = {
      {"Markup", R"(<a href="x">'&amp;'</a>)", ""},
      {"WhiteSpace", "tab\there\nnew line\r\nwindows", ""},
      {"Unicode", "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80", ""},
      {"DelAndC1Controls", "del\x7F nel\xC2\x85", ""},
      {"ControlCharacter", "bell\x07", "bell\xEF\xBF\xBD"},
      {"InvalidUtf8", "bad\xC3\x28 end\xE2\x82", "bad\xEF\xBF\xBD( end\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"Surrogate", "s\xED\xA0\x80", "s\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"NonCharacter", "n\xEF\xBF\xBF", "n\xEF\xBF\xBD"},
      {"Empty", "", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string want = c.read_back.empty() ? c.value : c.read_back;
    Writer writer;
    writer.StartElement("e").Attribute("v", c.value).Text(c.value).EndElement();
    const std::string text = writer.Finish();
    std::string error;
    const std::optional<Document> doc = Document::TryParse(text, &error);
    ASSERT_TRUE(doc) << error << "\n" << text;
    EXPECT_EQ(doc->Root().Attribute("v"), want);
    EXPECT_EQ(doc->Root().Text(), want);
    EXPECT_EQ(Document::Parse("<e v=\"" + Escape(c.value) + "\"/>").Root().Attribute("v"), want);
  }
  EXPECT_EQ(Escape(R"(&<>"')"), "&amp;&lt;&gt;&quot;&apos;");
}

TEST(XmlWriterTest, WritesNestedElementsWithIndentation) {
  Writer writer(Writer::Options{.declaration = true, .indent = "  ", .newline = "\n"});
  writer.StartElement("Snapshot").Attribute("id", "{1}").Attribute("blockSize", "2097152");
  writer.StartElement("Folder").Attribute("name", "Root");
  writer.StartElement("File").Attribute("name", "a.txt").EndElement();
  writer.StartElement("Note").Text("mixed ").StartElement("b").Text("bold").EndElement().EndElement();
  writer.StartElement("Empty").Text("").EndElement();
  writer.Raw("<Kept x=\"1\"/>");
  EXPECT_EQ(writer.Finish(),  // Finish closes Folder and Snapshot
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<Snapshot id=\"{1}\" blockSize=\"2097152\">\n"
            "  <Folder name=\"Root\">\n"
            "    <File name=\"a.txt\"/>\n"
            "    <Note>mixed <b>bold</b></Note>\n"
            "    <Empty></Empty>\n"
            "    <Kept x=\"1\"/>\n"
            "  </Folder>\n"
            "</Snapshot>");

  Writer compact;
  compact.StartElement("a").StartElement("b").EndElement().StartElement("c").Text("t");
  EXPECT_EQ(compact.Finish(), "<a><b/><c>t</c></a>");
}

TEST(XmlWriterTest, RefusesCallsOutOfOrderAndBadNames) {
  const auto code_of = [](void (*call)(Writer&)) {
    Writer writer;
    return ErrorOf([&] { call(writer); }).value_or(Error(result::kOk, "")).code();
  };
  EXPECT_EQ(code_of([](Writer& w) { w.EndElement(); }), result::kInvalidArg);
  EXPECT_EQ(code_of([](Writer& w) { w.Attribute("a", "b"); }), result::kInvalidArg);
  EXPECT_EQ(code_of([](Writer& w) { w.StartElement("a").Text("t").Attribute("x", "y"); }), result::kInvalidArg);
  EXPECT_EQ(code_of([](Writer& w) { w.Text("loose"); }), result::kInvalidArg);
  EXPECT_EQ(code_of([](Writer& w) { w.StartElement("a b"); }), result::kInvalidArg);
  EXPECT_EQ(code_of([](Writer& w) { w.StartElement("a").Attribute("x=\"1\" y", "z"); }), result::kInvalidArg);
  EXPECT_EQ(code_of([](Writer& w) { w.StartElement("ns:a-b.c_1").Attribute("xml:lang", "en"); }), result::kOk);
}

}  // namespace
}  // namespace pkgdlv::xml
