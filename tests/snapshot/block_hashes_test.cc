// The streaming pass: block hashes into entries, the refusals, the final
// report of files left without hashes, and the prefix matching of names.
#include <gtest/gtest.h>

#include "snapshot/snapshot.h"
#include "snapshot/snapshot_xml_parser.h"
#include "snapshot_test_support.h"

namespace pkgdlv {
namespace {

using testing::HashText;
using testing::LoggedSnapshot;
using testing::SnapshotDoc;
using testing::StdAttributes;

TEST(BlockHashesTest, BadHashesAreRefusedAndTheFileReportedAsWithoutHashes) {
  const std::string bad = "Invalid snapshot XML: Bad block hash detected for file '\\a'";
  const std::pair<std::string, std::string> cases[] = {  // the blockHash attribute of a 5 byte file, the line
      {"blockHash=\"" + HashText(33) + "\"", bad},
      {"blockHash=\"" + HashText(32) + "\"", bad},  // one hash for two blocks of 4 bytes
      {"blockHash=\"" + HashText(96) + "\"", bad},  // three
      {"blockHash=\"!!!!\"", bad + ", error: invalid character"},
      {"blockHash=\"A\"", bad + ", error: "},
      {"blockHash=\"AB==\"", "error: non-zero padding bits"},
      {"blockHash=\"\"", ""},  // empty is no hash
      {"fileHash=\"x\"", ""},
  };
  for (const auto& [attribute, badLine] : cases) {
    SCOPED_TRACE(attribute);
    LoggedSnapshot s;
    ASSERT_TRUE(s.snapshot.LoadXml(
        SnapshotDoc(StdAttributes("4"), "<Root size=\"5\"><File name=\"a\" size=\"5\" " + attribute + "/></Root>")));
    EXPECT_FALSE(s.snapshot.LoadBlockHashes());
    EXPECT_EQ(LastSnapshotError(), 0x80070491u);
    EXPECT_TRUE(s.snapshot.entries[0].blockHashes.empty());
    if (!badLine.empty()) {
      EXPECT_EQ(s.log->Count(badLine), 1u);
    }
    EXPECT_EQ(s.log->Count("Invalid snapshot XML: No block hash detected for file '\\a'"), 1u);
    for (const auto& line : s.log->Lines()) EXPECT_EQ(line.level, loglevel::kWarning);
  }
}

TEST(BlockHashesTest, EveryFileWithoutHashesIsReported) {
  const std::string doc = SnapshotDoc(StdAttributes("4"), R"(<Root size="3">
      <File name="a" size="1"/><File name="b" size="1"/><File name="c" size="0"/><File name="u"/>
      <Folder name="d"><File name="e" size="1"/></Folder></Root>)");
  LoggedSnapshot s;
  ASSERT_TRUE(s.snapshot.LoadXml(doc));
  EXPECT_FALSE(s.snapshot.LoadBlockHashes());
  EXPECT_EQ(LastSnapshotError(), 0x80070491u);
  EXPECT_EQ(s.log->Count("No block hash detected"), 3u);
  EXPECT_TRUE(s.log->Contains("No block hash detected for file '\\b'"));
  EXPECT_TRUE(s.log->Contains("No block hash detected for file 'd\\e'"));
}

TEST(BlockHashesTest, NamesMatchByPrefixIgnoringCase) {
  // The tree pass knows only "Folder", "File" and "name"; the streaming pass
  // takes "FOLDER", "F", "Fil", "n" and "b" for them, so the hashes below land
  // in entries the tree pass built from the exactly named elements.
  const std::string doc = SnapshotDoc(StdAttributes("4"), R"(<Root size="4">
      <File name="a" size="1" n="b" blockHash=")" + HashText(32, 1) +
                                                              R"("/>
      <File name="b" size="1"/>
      <File name="c" size="1" fileHash="x" b=")" + HashText(32, 2) +
                                                              R"("/>
      <Folder name="sub"><File name="f" size="1"/></Folder>
      <FOLDER NAME="sub"><fil N="f" BLOCKHASH=")" + HashText(32, 3) +
                                                              R"("/></FOLDER>
      <F name="other"></F>
      <File name="after" size="0"/>
    </Root>)");
  LoggedSnapshot s;
  ASSERT_TRUE(s.snapshot.LoadXml(doc));
  EXPECT_FALSE(s.snapshot.FindEntry("", "c")->hasBlockHash);  // "b" is no "blockHash" to the tree pass
  EXPECT_FALSE(s.snapshot.LoadBlockHashes());                 // "a" lost its hashes to "b"
  EXPECT_EQ(s.log->Count("No block hash detected"), 1u);
  EXPECT_TRUE(s.log->Contains("No block hash detected for file '\\a'"));
  EXPECT_EQ(s.snapshot.FindEntry("", "b")->blockHashes, testing::HashBytes(32, 1));
  EXPECT_EQ(s.snapshot.FindEntry("", "c")->blockHashes, testing::HashBytes(32, 2));
  EXPECT_EQ(s.snapshot.FindEntry("sub", "f")->blockHashes, testing::HashBytes(32, 3));
}

TEST(BlockHashesTest, PrefixMatching) {
  struct Case {
    std::string_view name, wanted;
    bool matches;
  };
  const Case cases[] = {{"F", "Folder", true},    {"folder", "Folder", true}, {"FOLDERS", "Folder", false},
                        {"Fi", "Folder", false},  {"", "Folder", false},      {"n", "name", true},
                        {"Name", "name", true},   {"names", "name", false},   {"blockhash", "blockHash", true},
                        {"x:File", "File", false}};
  for (const Case& c : cases) EXPECT_EQ(MatchesSnapshotName(c.name, c.wanted), c.matches) << c.name;
}

TEST(BlockHashesTest, Base64DecodingIntoABuffer) {
  std::vector<uint8_t> out;
  for (size_t n : {0, 1, 2, 3, 31, 32, 33, 96}) {
    std::string text = HashText(n, 200);
    ASSERT_EQ(DecodeBase64Into(text, out), nullptr) << n;
    EXPECT_EQ(out, testing::HashBytes(n, 200)) << n;
  }
  for (const char* bad : {"A", "AB=", "A===", "AB=C", "ab\ncd==", "QUJD\x80", "=AAA"}) {
    EXPECT_NE(DecodeBase64Into(bad, out), nullptr) << bad;
  }
}

TEST(BlockHashesTest, UnparsableTextFailsWithTheEnginesError) {
  Snapshot snapshot;
  snapshot.documentText = "<Snapshot><Root>";
  EXPECT_FALSE(snapshot.LoadBlockHashes());
  EXPECT_EQ(LastSnapshotError(), 0x8007000Du);
}

}  // namespace
}  // namespace pkgdlv
