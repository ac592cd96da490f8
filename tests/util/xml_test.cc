#include "util/xml.h"

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/http_test_server.h"
#include "util/error.h"
#include "util/xml_sax.h"
#include "support/temp_dir.h"

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

struct HostileXml {
  std::string name;
  std::string text;
  bool must_fail;  // false: reading may succeed, but must not leak anything
};

std::string Repeat(const std::string& piece, size_t count) {
  std::string out;
  while (count--) out += piece;
  return out;
}

std::string BillionLaughs() {
  std::string text = "<?xml version=\"1.0\"?>\n<!DOCTYPE lolz [\n<!ENTITY lol0 \"lol\">\n";
  for (int i = 1; i <= 9; ++i) {
    text += "<!ENTITY lol" + std::to_string(i) + " \"" + Repeat("&lol" + std::to_string(i - 1) + ";", 10) + "\">\n";
  }
  return text + "]>\n<lolz a=\"&lol9;\">&lol9;</lolz>\n";
}

// One entity of 50,000 characters referred to 50,000 times: no nesting for
// a loop check to see, only a quadratic amount of text.
std::string QuadraticBlowup() {
  return "<!DOCTYPE q [<!ENTITY big \"" + std::string(50000, 'x') + "\">]><q>" + Repeat("&big;", 50000) + "</q>";
}

// External content is named by the caller's URL so that a test can watch a
// local server for a request.
std::vector<HostileXml> HostileDocuments(const std::string& url) {
  return {
      {"Truncated", "<Snapshot id=\"1\"><Root size=\"3\"><File name=\"a\" si", true},
      {"InvalidUtf8", "<a x=\"\xC3\x28\xFF\"/>", true},
      {"UnknownEncoding", "<?xml version=\"1.0\" encoding=\"x-no-such-encoding\"?><a/>", true},
      {"Utf16DeclaredButUtf8", "<?xml version=\"1.0\" encoding=\"UTF-16\"?><a x=\"\xC3\xA9\"/>", true},
      {"DeepNesting", Repeat("<a>", 100000) + Repeat("</a>", 100000), true},
      {"BillionLaughs", BillionLaughs(), true},
      {"QuadraticBlowup", QuadraticBlowup(), true},
      {"UndefinedEntity", "<a>&nowhere;</a>", true},
      // Past libxml2's 10,000,000-byte limit on one value: refused or read whole.
      {"HugeAttribute", "<a v=\"" + std::string(10 * 1024 * 1024, 'v') + "\"/>", false},
      {"ExternalEntity", "<!DOCTYPE a [<!ENTITY x SYSTEM \"file:///etc/passwd\">]><a>&x;</a>", false},
      {"ExternalEntityInAttribute", "<!DOCTYPE a [<!ENTITY x SYSTEM \"file:///etc/passwd\">]><a v=\"&x;\"/>", true},
      {"NetworkEntity", "<!DOCTYPE a [<!ENTITY x SYSTEM \"" + url + "/entity\">]><a>&x;</a>", false},
      {"NetworkDtd", "<!DOCTYPE a SYSTEM \"" + url + "/dtd\"><a>text</a>", false},
      {"NetworkParameterEntity", "<!DOCTYPE a [<!ENTITY % p SYSTEM \"" + url + "/p\"> %p;]><a/>", false},
      {"XInclude",
       "<a xmlns:xi=\"http://www.w3.org/2001/XInclude\"><xi:include href=\"file:///etc/passwd\" parse=\"text\"/></a>",
       false},
  };
}

// Writes every event as one line: "<name a=v b=w", "text", "</name>". Runs of
// text are joined, as a handler must join them.
struct RecordingHandler : SAXContentHandler {
  SAXAction StartElement(std::string_view name, const SAXAttributes& attributes) override {
    Flush();
    std::string line = "<" + std::string(name);
    for (const SAXAttribute& a : attributes) {
      line += " " + std::string(a.name) + "=" + std::string(a.value);
      if (attributes.Find(a.name) != a.value) ++bad_lookups;
    }
    if (attributes.Find("NAME")) ++bad_lookups;  // names are case-sensitive
    events.push_back(line);
    return SAXAction::kContinue;
  }
  SAXAction EndElement(std::string_view name) override {
    Flush();
    events.push_back("</" + std::string(name) + ">");
    return SAXAction::kContinue;
  }
  SAXAction Characters(std::string_view part) override {
    text += part;
    return SAXAction::kContinue;
  }
  void Flush() {
    if (!text.empty()) events.push_back(text);
    text.clear();
  }
  std::vector<std::string> Finish() { return Flush(), events; }

  int bad_lookups = 0;  // attributes that lookup by name did not find as the walk gave them
  std::vector<std::string> events;
  std::string text;
};

using Events = std::vector<std::string>;

// Events come in document order, with references resolved and runs of text
// joined; a file, in UTF-8 or UTF-16, gives the same events as memory.
TEST(XmlSaxTest, DeliversEventsInDocumentOrderFromMemoryAndFile) {
  const std::string doc = R"(<?xml version="1.0"?>
<!DOCTYPE Snapshot SYSTEM "snapshot.dtd">
<Snapshot id="{1}" xmlns:x="urn:x">
<!-- a comment --><Root size="3"><File name="a&#38;b" x:tag="&lt;&#x41;&amp;&quot;&amp;lt;" blockHash="  AAAA
"/>text &amp; &#233; <![CDATA[<raw>]]></Root><?pi ignored?></Snapshot>)";
  RecordingHandler handler;
  SAXParser parser;  // reused below: its buffers carry over between parses
  EXPECT_EQ(parser.ParseMemory(doc, handler), SAXParser::Outcome::kCompleted);
  EXPECT_EQ(handler.Finish(),
            (Events{"<Snapshot id={1}", "\n", "<Root size=3", "<File name=a&b x:tag=<A&\"&lt; blockHash=  AAAA ",
                    "</File>", "text & \xC3\xA9 <raw>", "</Root>", "</Snapshot>"}));
  EXPECT_EQ(handler.bad_lookups, 0);

  testing::TempDir dir;
  // Larger than the reader's chunks, so that parsing crosses them; the
  // same text as UTF-16 (little-endian) with a byte order mark.
  std::string utf8 = "<Snapshot><Root>", utf16 = "\xFF\xFE";
  for (int i = 0; i < 20000; ++i) utf8 += "<File name=\"file" + std::to_string(i) + ".bin\" blockHash=\"AAAA\"/>";
  utf8 += "</Root></Snapshot>";
  for (char c : utf8) utf16 += std::string{c, '\0'};
  ASSERT_GT(utf8.size(), 3u * 256 * 1024);
  testing::WriteFile(dir / "utf8.xml", utf8);
  testing::WriteFile(dir / "utf16.xml", utf16);
  RecordingHandler from_memory, from_file, from_utf16;
  EXPECT_EQ(parser.ParseMemory(utf8, from_memory), SAXParser::Outcome::kCompleted);
  EXPECT_EQ(parser.ParseFile(dir / "utf8.xml", from_file), SAXParser::Outcome::kCompleted);
  EXPECT_EQ(parser.ParseFile(dir / "utf16.xml", from_utf16), SAXParser::Outcome::kCompleted);
  const Events events = from_memory.Finish();
  ASSERT_EQ(events.size(), 2u * 20000 + 4);
  EXPECT_EQ(events[2 + 2 * 19999], "<File name=file19999.bin blockHash=AAAA");
  EXPECT_EQ(from_file.Finish(), events);
  EXPECT_EQ(from_utf16.Finish(), events);
}

// A handler that throws leaves the parse, and the parser stays usable.
TEST(XmlSaxTest, HandlerExceptionLeavesTheParse) {
  struct Throwing : SAXContentHandler {
    SAXAction StartElement(std::string_view name, const SAXAttributes&) override {
      return name == "b" ? throw std::runtime_error("handler gave up") : SAXAction::kContinue;
    }
  } handler;
  SAXParser parser;
  EXPECT_THROW(parser.ParseMemory("<a><b/><c/></a>", handler), std::runtime_error);
  SAXContentHandler quiet;
  EXPECT_EQ(parser.ParseMemory("<a/>", quiet), SAXParser::Outcome::kCompleted);
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

TEST(XmlDocumentTest, ReadsAttributesInOrderChildrenTextAndPaths) {
  Document moved = Document::Parse("<c/>");
  moved = Document::Parse(kPackage);  // a moved document keeps its nodes
  const Document doc(std::move(moved));
  const Node root = doc.Root();
  EXPECT_EQ(root.Attributes(),
            (Pairs{{"id", "{1}"}, {"name", "Tools & more"}, {"version", "3"}, {"note", "a&b<cA\nd"}}));
  // Blank text between elements is not a child: children follow each other.
  EXPECT_EQ(Names(root.Children()), (std::vector<std::string>{"Source:", "Text:"}));

  const Node source = root.SelectFirst("Source");
  const std::pair<std::string, std::vector<std::string>> from_source[] = {
      {"Codebase", {"Codebase:1", "Codebase:2"}},
      {"Extra/Codebase", {"Codebase:3"}},
      {".//Codebase", {"Codebase:1", "Codebase:2", "Codebase:3"}},
      {"//Codebase", {"Codebase:1", "Codebase:2", "Codebase:3"}},  // // searches the whole document
      {"Codebase[@unc]", {"Codebase:2"}},
      {"@time", {}},  // attributes are not elements
  };
  for (const auto& [path, want] : from_source) EXPECT_EQ(Names(source.Select(path)), want) << path;
  EXPECT_FALSE(doc.SelectFirst("//codebase"));  // case-sensitive
  EXPECT_FALSE(Node().SelectFirst("a"));
  EXPECT_EQ(ErrorOf([&] { doc.Select("Source["); }).value_or(Error(result::kOk, "")).code(), result::kInvalidArg);
}

// The tree and the streaming reader share their limits: an attribute may be
// as long as a document may be (a block hash list of a large file passes
// libxml2's own 10 MB), while depth and document size stay bounded with a
// reason that says which limit was hit.
TEST(XmlDocumentTest, BothReadersShareTheSizeAndDepthLimits) {
  const std::string longValue(11'200'000, 'A');
  const std::string huge = "<a>" + std::string(kMaxDocumentBytes, ' ') + "</a>";
  const std::pair<std::string, std::string> cases[] = {  // the document; the start of its failure, empty: loads
      {"<r h=\"" + longValue + "\"/>", ""},
      {Repeat("<a>", kMaxDepth) + Repeat("</a>", kMaxDepth), ""},
      {Repeat("<a>", kMaxDepth + 1) + Repeat("</a>", kMaxDepth + 1), "Excessive depth in document: 256"},
      {huge, "XML document is too large: " + std::to_string(huge.size()) + " bytes, the limit is 67108864"},
  };
  for (const auto& [text, failure] : cases) {
    SCOPED_TRACE(failure);
    std::string error;
    std::optional<Document> doc = Document::TryParse(text, &error);
    EXPECT_EQ(doc.has_value(), failure.empty()) << error;
    EXPECT_EQ(error.substr(0, failure.size()), failure);
    RecordingHandler handler;
    SAXParser parser;
    const std::optional<Error> e = ErrorOf([&] { parser.ParseMemory(text, handler); });
    EXPECT_EQ(e.value_or(Error(0, "")).description().substr(0, failure.size()), failure);
    EXPECT_EQ(e.has_value(), !failure.empty());
    if (text.starts_with("<r")) {
      EXPECT_EQ(doc->Root().Attribute("h")->size(), longValue.size());
      EXPECT_EQ(handler.Finish().at(0).size(), longValue.size() + 5);
    }
  }
}

// Neither reader fetches, expands without bound or prints anything, and what
// a reader takes never holds the contents of a local file.
TEST(XmlDocumentTest, HostileInputFailsCleanlyInBothReaders) {
  const testing::HttpTestServer watch;
  SAXParser parser;
  ::testing::internal::CaptureStderr();
  for (const HostileXml& c : HostileDocuments(watch.Url(""))) {
    SCOPED_TRACE(c.name);
    std::string error;
    const std::optional<Document> doc = Document::TryParse(c.text, &error);
    EXPECT_TRUE(doc ? !c.must_fail : !error.empty());
    std::string taken = doc ? doc->Root().Text() : "";
    for (const auto& [name, value] : doc ? doc->Root().Attributes() : Pairs{}) taken += value;
    RecordingHandler handler;
    const std::optional<Error> e = ErrorOf([&] { parser.ParseMemory(c.text, handler); });
    EXPECT_TRUE(e ? e->code() == result::kInvalidData && !e->description().empty() : !c.must_fail);
    for (const std::string& event : handler.Finish()) taken += event;
    EXPECT_EQ(taken.find("root:"), std::string::npos);
  }
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");  // messages go into descriptions only
  EXPECT_TRUE(watch.Requests().empty());
}

// What cannot be written in XML reads back as U+FFFD.
TEST(XmlEscapeTest, ValuesSurviveWritingAndReadingBack) {
  const std::pair<std::string, std::string> cases[] = {  // the value; what a reader gets, empty: the value
      {R"(<a href="x">'&amp;'</a>)", ""},
      {"tab\there\nnew line\r\nwindows", ""},
      {"caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80", ""},
      {"del\x7F nel\xC2\x85", ""},  // written as references
      {"bell\x07", "bell\xEF\xBF\xBD"},
      {"bad\xC3\x28 end\xE2\x82", "bad\xEF\xBF\xBD( end\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"s\xED\xA0\x80", "s\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},  // a surrogate
      {"n\xEF\xBF\xBF", "n\xEF\xBF\xBD"},                         // a non-character
  };
  for (const auto& [value, read_back] : cases) {
    SCOPED_TRACE(value);
    const std::string want = read_back.empty() ? value : read_back;
    Writer writer;
    writer.StartElement("e").Attribute("v", value).Text(value).EndElement();
    const std::string text = writer.Finish();
    std::string error;
    const std::optional<Document> doc = Document::TryParse(text, &error);
    ASSERT_TRUE(doc) << error << "\n" << text;
    EXPECT_EQ(std::pair(doc->Root().Attribute("v").value_or(""), doc->Root().Text()), std::pair(want, want));
    EXPECT_EQ(Document::Parse("<e v=\"" + Escape(value) + "\"/>").Root().Attribute("v"), want);
  }
  EXPECT_EQ(Escape(R"(&<>"')"), "&amp;&lt;&gt;&quot;&apos;");
}

}  // namespace
}  // namespace pkgdlv::xml
