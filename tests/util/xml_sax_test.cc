#include "util/xml_sax.h"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/temp_dir.h"
#include "util/error.h"
#include "util/xml.h"
#include "util/xml_test_support.h"

namespace pkgdlv::xml {
namespace {

// Writes every event as one line: "<name a=v b=w", "text", "</name>". Runs of
// text are joined, as a handler must join them.
class RecordingHandler : public SAXContentHandler {
 public:
  SAXAction StartElement(std::string_view name, const SAXAttributes& attributes) override {
    FlushText();
    std::string line = "<" + std::string(name);
    for (const SAXAttribute& a : attributes) {
      line += " " + std::string(a.name) + "=" + std::string(a.value);
      if (attributes.Find(a.name) != a.value) ++bad_lookups;
    }
    if (attributes.Find("NAME")) ++bad_lookups;  // names are case-sensitive
    events.push_back(line);
    return ++starts == stop_at_start ? SAXAction::kStop : SAXAction::kContinue;
  }
  SAXAction EndElement(std::string_view name) override {
    FlushText();
    events.push_back("</" + std::string(name) + ">");
    return SAXAction::kContinue;
  }
  SAXAction Characters(std::string_view text) override {
    text_ += text;
    return SAXAction::kContinue;
  }
  std::vector<std::string> Finish() {
    FlushText();
    return events;
  }

  int stop_at_start = 0;  // 0: never
  int starts = 0;
  int bad_lookups = 0;  // attributes that lookup by name did not find as the walk gave them
  std::vector<std::string> events;

 private:
  void FlushText() {
    if (!text_.empty()) events.push_back(text_);
    text_.clear();
  }
  std::string text_;
};

using Events = std::vector<std::string>;

TEST(XmlSaxTest, DeliversEventsInDocumentOrder) {
  const std::string doc = R"(<?xml version="1.0"?>
<!DOCTYPE Snapshot SYSTEM "snapshot.dtd">
<Snapshot id="{1}" blockSize="4" xmlns:x="urn:x">
<!-- a comment --><Root size="3"><File name="a&#38;b" x:tag="&lt;&#x41;&amp;&quot;&amp;lt;" blockHash="  AAAA
"/>text &amp; &#233; <![CDATA[<raw>]]></Root><?pi ignored?></Snapshot>)";
  RecordingHandler handler;
  SAXParser parser;
  EXPECT_EQ(parser.ParseMemory(doc, handler), SAXParser::Outcome::kCompleted);
  EXPECT_EQ(handler.Finish(), (Events{"<Snapshot id={1} blockSize=4", "\n", "<Root size=3",
                                      "<File name=a&b x:tag=<A&\"&lt; blockHash=  AAAA ", "</File>",
                                      "text & \xC3\xA9 <raw>", "</Root>", "</Snapshot>"}));
  EXPECT_EQ(handler.bad_lookups, 0);
}

// A document larger than the reader's chunks, so that parsing crosses them.
std::string LargeSnapshot(int files) {
  std::string doc = "<Snapshot><Root>";
  for (int i = 0; i < files; ++i) {
    doc += "<File name=\"file" + std::to_string(i) + ".bin\" size=\"" + std::to_string(i) + "\" blockHash=\"" +
           std::string(44, 'A') + "\"/>";
  }
  return doc + "</Root></Snapshot>";
}

TEST(XmlSaxTest, FileAndMemoryGiveTheSameEvents) {
  testing::TempDir dir;
  const std::string utf8 = LargeSnapshot(10000);  // about 950 KB
  ASSERT_GT(utf8.size(), 3u * 256 * 1024);
  testing::WriteFile(dir / "utf8.xml", utf8);
  testing::WriteFile(dir / "utf16.xml", testing::ToUtf16(utf8, false));

  SAXParser parser;  // reused: its buffers carry over between parses
  RecordingHandler from_memory, from_file, from_utf16;
  EXPECT_EQ(parser.ParseMemory(utf8, from_memory), SAXParser::Outcome::kCompleted);
  EXPECT_EQ(parser.ParseFile(dir / "utf8.xml", from_file), SAXParser::Outcome::kCompleted);
  EXPECT_EQ(parser.ParseFile(dir / "utf16.xml", from_utf16), SAXParser::Outcome::kCompleted);
  const Events events = from_memory.Finish();
  ASSERT_EQ(events.size(), 2u * 10000 + 4);
  EXPECT_EQ(events[2 + 2 * 9999], "<File name=file9999.bin size=9999 blockHash=" + std::string(44, 'A'));
  EXPECT_EQ(from_file.Finish(), events);
  EXPECT_EQ(from_utf16.Finish(), events);
}

TEST(XmlSaxTest, HandlerStopsTheParseMidway) {
  const std::string doc = LargeSnapshot(10000) + "<not well formed";  // the fault is never reached
  testing::TempDir dir;
  testing::WriteFile(dir / "doc.xml", doc);
  for (bool from_file : {false, true}) {
    RecordingHandler handler;
    handler.stop_at_start = 5000;
    SAXParser parser;
    const SAXParser::Outcome outcome =
        from_file ? parser.ParseFile(dir / "doc.xml", handler) : parser.ParseMemory(doc, handler);
    EXPECT_EQ(outcome, SAXParser::Outcome::kStopped);
    EXPECT_EQ(handler.starts, 5000);  // nothing is delivered after the stop
    EXPECT_EQ(handler.events.back().substr(0, 19), "<File name=file4997");
  }
}

TEST(XmlSaxTest, HandlerExceptionLeavesTheParse) {
  struct Throwing : SAXContentHandler {
    SAXAction StartElement(std::string_view name, const SAXAttributes&) override {
      if (name == "b") throw std::runtime_error("handler gave up");
      return SAXAction::kContinue;
    }
  } handler;
  SAXParser parser;
  EXPECT_THROW(parser.ParseMemory("<a><b/><c/></a>", handler), std::runtime_error);
  // The parser is usable afterwards.
  SAXContentHandler quiet;
  EXPECT_EQ(parser.ParseMemory("<a/>", quiet), SAXParser::Outcome::kCompleted);
}

// Both readers: the tree and the streaming one.
TEST(XmlSaxTest, ErrorsCarryCodeAndReason) {
  SAXParser parser;
  SAXContentHandler handler;
  testing::TempDir dir;
  const struct {
    std::function<void()> parse;
    Result code;
    const char* reason;
  } cases[] = {
      {[&] { parser.ParseMemory("<a>\n<b></a>", handler); }, result::kInvalidData, "line 2"},
      {[&] { Document::Parse("<a>\n<b></a>"); }, result::kInvalidData, "line 2"},
      {[&] { parser.ParseFile(dir / "missing.xml", handler); }, result::kFileNotFound, "missing.xml"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reason);
    try {
      c.parse();
      ADD_FAILURE() << "the parse succeeded";
    } catch (const Error& e) {
      EXPECT_EQ(e.code(), c.code);
      EXPECT_NE(e.description().find(c.reason), std::string::npos) << e.description();
    }
  }
}

TEST(XmlSaxTest, HostileInputFailsCleanlyAndLoadsNothing) {
  const testing::ConnectionWatch watch;
  SAXParser parser;
  ::testing::internal::CaptureStderr();
  for (const testing::HostileXml& c : testing::HostileDocuments(watch.url())) {
    SCOPED_TRACE(c.name);
    RecordingHandler handler;
    try {
      parser.ParseMemory(c.text, handler);
      EXPECT_FALSE(c.must_fail);
    } catch (const Error& e) {
      EXPECT_EQ(e.code(), result::kInvalidData);
      EXPECT_FALSE(e.description().empty());
    }
    for (const std::string& event : handler.Finish()) EXPECT_EQ(event.find("root:"), std::string::npos);
  }
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  EXPECT_FALSE(watch.Contacted());
}

}  // namespace
}  // namespace pkgdlv::xml
