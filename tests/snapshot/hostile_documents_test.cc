// Documents made to hurt: names that would leave the package folder and deep
// nesting. Each is refused cleanly, leaves the snapshot as it was, and says why.
#include <gtest/gtest.h>

#include "snapshot/snapshot.h"
#include "snapshot_test_support.h"

namespace pkgdlv {
namespace {

using testing::HashText;
using testing::LoggedSnapshot;
using testing::SnapshotDoc;
using testing::StdAttributes;

// A document with the usual root attributes whose Root of `size` bytes holds `body`.
std::string InRoot(int size, const std::string& body) {
  return SnapshotDoc(StdAttributes(), "<Root size=\"" + std::to_string(size) + "\">" + body + "</Root>");
}

struct UnsafeCase {
  std::string title;
  std::string body;   // inside Root
  std::string shown;  // the path as the warning quotes it
};

void PrintTo(const UnsafeCase& c, std::ostream* out) { *out << c.title; }

class UnsafeNameTest : public ::testing::TestWithParam<UnsafeCase> {};

TEST_P(UnsafeNameTest, IsRefusedByTheTreePass) {
  const UnsafeCase& c = GetParam();
  LoggedSnapshot s;
  ASSERT_TRUE(s.snapshot.LoadXml(InRoot(1, R"(<File name="ok" size="1" fileHash="h"/>)")));
  const Snapshot before = s.snapshot;
  EXPECT_FALSE(s.snapshot.LoadXml(InRoot(0, c.body)));
  EXPECT_EQ(s.log->Count("Invalid snapshot XML: Unsafe path '" + c.shown + "'"), 1u);
  EXPECT_EQ(s.snapshot, before);
  EXPECT_EQ(s.snapshot.documentText, before.documentText);
}

INSTANTIATE_TEST_SUITE_P(
    Names, UnsafeNameTest,
    ::testing::Values(
        UnsafeCase{"TraversalInAFileName", R"(<File name="..\..\etc\passwd" size="0"/>)", "..\\..\\etc\\passwd"},
        UnsafeCase{"DotFolder", R"(<Folder name="."><File name="x" size="0"/></Folder>)", "."},
        UnsafeCase{"DotDotFolder", R"(<Folder name="a"><Folder name=".."/></Folder>)", "a\\.."},
        UnsafeCase{"DriveLetter", R"(<File name="C:x" size="0"/>)", "C:x"},
        UnsafeCase{"AbsoluteSlash", R"(<File name="/etc/passwd" size="0"/>)", "/etc/passwd"},
        UnsafeCase{"AbsoluteBackslash", R"(<Folder name="\Windows"/>)", "\\Windows"},
        UnsafeCase{"SlashInside", R"(<Folder name="a"><File name="b/c" size="0"/></Folder>)", "a\\b/c"},
        UnsafeCase{"LineFeedByReference", R"(<File name="a&#10;INFO forged" size="0"/>)", "a?INFO forged"},
        UnsafeCase{"Delete", R"(<File name="a&#127;" size="0"/>)", "a?"},
        UnsafeCase{"EmptyFileName", R"(<File name="" size="0"/>)", ""},
        UnsafeCase{"EmptyFolderName", R"(<Folder name=""/>)", ""}),
    [](const auto& info) { return info.param.title; });

// Folders nested `depth` deep around `inside`.
std::string NestedFolders(int depth, const std::string& inside) {
  std::string open, close;
  for (int i = 0; i < depth; ++i) {
    open += "<Folder name=\"d\">";
    close += "</Folder>";
  }
  return open + inside + close;
}

TEST(HostileDocumentTest, DeepNestingIsRefusedWithoutHarm) {
  LoggedSnapshot s;
  EXPECT_FALSE(s.snapshot.LoadXml(InRoot(0, NestedFolders(5000, ""))));
  EXPECT_TRUE(s.log->Contains("Invalid snapshot XML: XML failed to load"));

  // Nesting within the reader's limit loads, with the whole path.
  std::string path = "d";
  for (int i = 1; i < 200; ++i) path += "\\d";
  const std::string file = "<File name=\"f\" size=\"1\" blockHash=\"" + HashText(32) + "\"/>";
  ASSERT_TRUE(s.snapshot.LoadXml(InRoot(1, NestedFolders(200, file))));
  ASSERT_TRUE(s.snapshot.LoadBlockHashes());
  EXPECT_EQ(s.snapshot.FindEntry(path, "f")->blockHashes.size(), 32u);
}

}  // namespace
}  // namespace pkgdlv
