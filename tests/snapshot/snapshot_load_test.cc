// Loading a snapshot document: the tree pass with its refusals and the line
// each writes, hostile documents, and the block hash pass.
#include <gtest/gtest.h>

#include <tuple>

#include "snapshot/snapshot.h"
#include "snapshot/snapshot_builder.h"
#include "snapshot/snapshot_limits.h"
#include "support/temp_dir.h"
#include "snapshot_test_support.h"
#include "util/error.h"
#include "util/xml.h"

namespace pkgdlv {
namespace {

using testing::HashText;
using testing::LoggedSnapshot;
using testing::SnapshotDoc;
using testing::StdAttributes;

const std::string kOneFile = R"(<Root size="10" files="1" folders="0"><File name="a" size="10"/></Root>)";

// ASCII text as UTF-16 (little-endian) with a byte order mark.
std::string ToUtf16(std::string_view ascii) {
  std::string out = "\xFF\xFE";
  for (char c : ascii) out += std::string{c, '\0'};
  return out;
}

// A document with the usual root attributes around `body`.
std::string Doc(const std::string& body) { return SnapshotDoc(StdAttributes(), body); }

// Each document loads or is refused with its line, and the streaming walk
// (LoadXml) and the tree walk (ParseSnapshotElement) come to the same result
// with the same lines.
TEST(SnapshotLoadTest, DocumentsLoadOrAreRefusedAlikeByBothWalks) {
  const std::string kInvalid = "Invalid snapshot XML: ";
  const std::string kSizeMismatch = kInvalid + "Total file size mismatch, expected 1, actual: 3";
  const std::string kLegacy = "Legacy snapshot XML: Missing hash block size";
  const struct {
    std::string document;
    bool loads;
    std::string line;  // the start of a warning, or of an info line when `info`, that must be logged
    bool info = false;
  } cases[] = {
      {Doc(kOneFile), true, ""},
      {SnapshotDoc(R"(PkgVersion="7" blockSize="0")", kOneFile, "FolderSnapShot"), true, ""},
      {SnapshotDoc(R"(version="1")", kOneFile), true, kLegacy, true},
      {"<Snapshot>\n<Root", false, kInvalid + "XML failed to load, error: "},
      {SnapshotDoc(StdAttributes(), kOneFile, "snapshot"), false, kInvalid + "Incorrect root element"},
      {Doc("<Folder name=\"x\"/>"), false, kInvalid + "Missing Root element"},
      {Doc(R"(<Root><File name="a" size="10"/></Root>)"), false, kInvalid + "Missing Root element's size"},
      {Doc(R"(<Root size="11"><File name="a" size="10"/></Root>)"), false,
       kInvalid + "Total file size mismatch, expected 10, actual: 11"},
      {Doc(R"(<Root size="0"><File size="0"/></Root>)"), false, kInvalid + "Missing file name"},
      {Doc(R"(<Root size="0"><Folder/></Root>)"), false, kInvalid + "Missing folder name"},
      {Doc(R"(<Root size="0"><File name="a" size="-1"/></Root>)"), false,
       kInvalid + "Bad value '-1' of attribute 'size'"},
      {Doc(R"(<Root size="0"><File name="a" size="9223372036854775808"/></Root>)"), false,
       kInvalid + "Bad value '9223372036854775808' of attribute 'size'"},
      {SnapshotDoc(R"(id="{nope}" blockSize="4")", kOneFile), false, kInvalid + "Bad value '{nope}' of attribute 'id'"},
      {SnapshotDoc(R"(blockSize="4294967296")", kOneFile), false,
       kInvalid + "Bad value '4294967296' of attribute 'blockSize'"},
      {SnapshotDoc(R"(blockSize="1")", R"(<Root size="9000000000"><File name="a" size="9000000000"/></Root>)"), false,
       kInvalid + "Too many hash blocks"},
      {Doc(R"(<Root size="2"><File name="a" size="1"/><File name="A" size="1"/></Root>)"), false,
       kInvalid + "Duplicate entry 'A'"},
      // Comments and text end the walk of their folder; unknown elements are skipped.
      {Doc(R"(<Root size="3"><File name="a" size="1"/><!-- --><File name="b" size="2"/></Root>)"), false,
       kSizeMismatch},
      {Doc(R"(<Root size="3"><File name="a" size="1"/><Extra/><File name="b" size="2"/></Root>)"), true, ""},
      {Doc(R"(<Root size="3"><Folder name="d">text<File name="x" size="9"/></Folder><File name="b" size="3"/></Root>)"),
       true, ""},
      {Doc(R"(<Root size="0"><File name="a"/><File name="b" size="4"/></Root>)"), true, ""},  // no size: not counted
      {Doc(R"(<Other><Root size="7"/></Other><Root size="1"><File name="a" size="1"/></Root><Root/>)"), true, ""},
      {Doc(R"(<Root size="0"><File/></Root><x>)"), false, kInvalid + "XML failed to load, error: "},
      // One bit per block: a document justifies the blocks its hashes cover,
      // plus an allowance for files it describes without hashes.
      {SnapshotDoc(R"(blockSize="1")", R"(<Root size="8388608"><File name="a" size="8388608"/></Root>)"), true, ""},
      {SnapshotDoc(R"(blockSize="1")", R"(<Root size="8388609"><File name="a" size="8388609"/></Root>)"), false,
       kInvalid + "Too many hash blocks: 8388609 blocks, the document justifies 8388608"},
      {SnapshotDoc(R"(blockSize="1")",
                   R"(<Root size="8388609"><File name="a" size="8388609" blockHash=")" + HashText(32) +
                       R"("/></Root>)"),
       true, ""},
      // Empty values are refused; a document of nothing but a Root is an empty legacy snapshot.
      {SnapshotDoc("", R"(<Root size="0"/>)"), true, ""},
      {SnapshotDoc("", R"(<Root size=""/>)"), false, kInvalid},
      {Doc(R"(<Root size="0"><File name="a" size=""/></Root>)"), false, kInvalid},
      {Doc(R"(<Root size="0"><x:File xmlns:x="urn:x" name="a" size="5"/></Root>)"), true, ""},
      {ToUtf16(SnapshotDoc("version=\"2\"", R"(<Root size="1"><File name="a" size="1"/></Root>)")),
       true, kLegacy, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.document.substr(0, 300));
    LoggedSnapshot streamed, walked;
    EXPECT_EQ(streamed.snapshot.LoadXml(c.document), c.loads);
    if (!c.line.empty()) {
      const uint32_t level = c.info ? loglevel::kInfo : loglevel::kWarning;
      ASSERT_FALSE(streamed.log->Lines().empty());
      const testing::LogLine last = streamed.log->Lines().back();
      EXPECT_EQ(std::tuple(last.message.substr(0, c.line.size()), last.level, last.component),
                std::tuple(c.line, level, "Snapshot"));
    }
    std::optional<xml::Document> document = xml::Document::TryParse(c.document);
    bool walkedOk = document && walked.snapshot.ParseSnapshotElement(document->Root());
    EXPECT_EQ(walkedOk, c.loads);
    EXPECT_EQ(streamed.snapshot, walked.snapshot);
    const auto counts = [](const Snapshot& s) { return std::tuple(s.blockSize, s.totalBlocks, s.hasUnhashedFiles); };
    EXPECT_EQ(counts(streamed.snapshot), counts(walked.snapshot));
    if (!document) continue;  // the tree walk never started
    std::vector<std::string> a, b;
    for (const auto& line : streamed.log->Lines()) a.push_back(line.message);
    for (const auto& line : walked.log->Lines()) b.push_back(line.message);
    EXPECT_EQ(a, b);
  }
}

TEST(SnapshotLoadTest, AFailedLoadLeavesTheObjectAsItWasExceptTheUnhashedFlag) {
  LoggedSnapshot s;
  ASSERT_TRUE(s.snapshot.LoadXml(Doc(R"(<Root size="10"><File name="a" size="10" fileHash="h"/></Root>)")));
  s.snapshot.path = "/pkg";
  s.snapshot.signature = "c2ln";
  s.snapshot.signedData = {1, 2, 3};
  s.snapshot.hashNotRequired = true;
  const Snapshot before = s.snapshot;

  // An unhashed file, then a size mismatch: the load fails after the walk.
  EXPECT_FALSE(s.snapshot.LoadXml(
      SnapshotDoc(R"(version="9" blockSize="4")", R"(<Root size="99"><File name="z" size="1"/></Root>)")));
  EXPECT_TRUE(s.snapshot == before && s.snapshot.documentText == before.documentText);
  EXPECT_EQ(std::tuple(s.snapshot.version, s.snapshot.blockSize, s.snapshot.hasUnhashedFiles),
            std::tuple(5u, 2097152u, true));

  // A successful load keeps the object's own path, signature, signed data and flags.
  ASSERT_TRUE(s.snapshot.LoadXml(
      SnapshotDoc(R"(version="9" blockSize="4")", R"(<Root size="1"><File name="z" size="1" fileHash="h"/></Root>)")));
  EXPECT_EQ(std::tuple(s.snapshot.version, s.snapshot.path, s.snapshot.signature, s.snapshot.signedData,
                       s.snapshot.hashNotRequired, s.snapshot.hasUnhashedFiles, s.snapshot.id.IsNull()),
            std::tuple(9u, "/pkg", "c2ln", std::vector<uint8_t>{1, 2, 3}, true, true, true));
}

TEST(SnapshotLoadTest, EntryLookupIgnoresCaseAndAResetKeepsOnlyValidStates) {
  LoggedSnapshot s;
  ASSERT_TRUE(s.snapshot.LoadXml(Doc(
      R"(<Root size="2"><File name="one" size="1"/><Folder name="Dir"><File name="two" size="1"/></Folder></Root>)")));
  Snapshot& snap = s.snapshot;
  EXPECT_TRUE(snap.SetEntryState("", "ONE", entrystate::kValid) && snap.SetEntryState("dir", "TWO", entrystate::kInvalid));
  EXPECT_FALSE(snap.SetEntryState("", "two", entrystate::kValid));
  snap.ResetStates();
  EXPECT_EQ(std::pair(snap.FindEntry("", "one")->state, snap.FindEntry("DIR", "two")->state),
            std::pair(entrystate::kValid, entrystate::kNotChecked));
}

TEST(SnapshotLoadTest, IncompleteFiles) {
  const std::string t = R"( lastModifiedTime="2024-01-01 00:00:00")";
  const std::tuple<std::string, bool, bool> cases[] = {  // the Root, hash not required, incomplete
      {R"(<Root size="1"><File name="a" size="1" fileHash="h")" + t + "/>", false, false},
      {R"(<Root size="1"><File name="a" size="1" blockHash="h")" + t + "/>", false, false},
      {R"(<Root size="1"><File name="a" size="1")" + t + "/>", false, true},  // no hash
      {R"(<Root size="1"><File name="a" size="1")" + t + "/>", true, false},  // ... unless none is required
      {R"(<Root size="0"><File name="a" fileHash="h")" + t + "/>", true, true},  // no size
      {R"(<Root size="1"><File name="a" size="1" fileHash="h"/>)", true, true},  // no time
  };
  for (const auto& [root, hashNotRequired, incomplete] : cases) {
    LoggedSnapshot s;
    s.snapshot.hashNotRequired = hashNotRequired;
    ASSERT_TRUE(s.snapshot.LoadXml(Doc(root + "</Root>"))) << root;
    EXPECT_EQ(s.snapshot.IsIncomplete(), incomplete) << root;
  }
  EXPECT_FALSE(Snapshot().IsIncomplete());  // no entries
}

// The document a build writes always loads back, block hashes included: a
// 1 GiB sparse file at 4 KiB blocks fits the reader's limits, and a block
// size whose hashes would not fit is refused when building.
TEST(SnapshotLoadTest, ACreatedSnapshotAlwaysLoadsBack) {
  constexpr uint64_t kFileSize = uint64_t{1} << 30;
  for (const auto& [blockSize, builds] : {std::pair(4096u, true), std::pair(256u, false)}) {
    SCOPED_TRACE(blockSize);
    testing::TempDir dir;
    testing::WriteFile(dir / "package" / "big.bin", "");
    std::filesystem::resize_file(dir / "package" / "big.bin", kFileSize);  // sparse: no disk needed
    SnapshotBuildOptions options;
    options.blockSize = blockSize;
    Snapshot built;
    try {
      BuildSnapshotFromFolder(dir / "package", options, built);
      EXPECT_TRUE(builds);
    } catch (const Error& e) {
      EXPECT_FALSE(builds);
      EXPECT_NE(e.description().find("choose a larger hash block size"), std::string::npos) << e.description();
      continue;
    }
    LoggedSnapshot loaded;
    ASSERT_TRUE(loaded.snapshot.LoadXml(built.ComposeDocumentFile()));
    ASSERT_TRUE(loaded.snapshot.LoadBlockHashes());
    const SnapshotEntry* big = loaded.snapshot.FindEntry("", "big.bin");
    ASSERT_NE(big, nullptr);
    EXPECT_EQ(big->blockHashes, built.FindEntry("", "big.bin")->blockHashes);
  }
}

// ---- Hostile documents
// A document with the usual root attributes whose Root of `size` bytes holds `body`.
std::string InRoot(int size, const std::string& body) {
  return SnapshotDoc(StdAttributes(), "<Root size=\"" + std::to_string(size) + "\">" + body + "</Root>");
}

// A name that would leave the package folder or forge a log line is refused
// by the tree pass, quoted in the warning, and the snapshot stays as it was.
TEST(HostileDocumentTest, UnsafeNamesAreRefused) {
  const std::pair<std::string, std::string> cases[] = {  // inside Root; the path as the warning quotes it
      {R"(<File name="..\..\etc\passwd" size="0"/>)", "..\\..\\etc\\passwd"},
      {R"(<Folder name="."><File name="x" size="0"/></Folder>)", "."},
      {R"(<Folder name="a"><Folder name=".."/></Folder>)", "a\\.."},
      {R"(<File name="C:x" size="0"/>)", "C:x"},
      {R"(<Folder name="\Windows"/>)", "\\Windows"},
      {R"(<Folder name="a"><File name="b/c" size="0"/></Folder>)", "a\\b/c"},
      {R"(<File name="a&#10;INFO forged" size="0"/>)", "a?INFO forged"},
      {R"(<Folder name=""/>)", ""},
  };
  for (const auto& [body, shown] : cases) {
    SCOPED_TRACE(body);
    LoggedSnapshot s;
    ASSERT_TRUE(s.snapshot.LoadXml(InRoot(1, R"(<File name="ok" size="1" fileHash="h"/>)")));
    const Snapshot before = s.snapshot;
    EXPECT_FALSE(s.snapshot.LoadXml(InRoot(0, body)));
    EXPECT_EQ(s.log->Count("Invalid snapshot XML: Unsafe path '" + shown + "'"), 1u);
    EXPECT_EQ(s.snapshot, before);
    EXPECT_EQ(s.snapshot.documentText, before.documentText);
  }
}

// Folders nested `depth` deep around `inside`.
std::string NestedFolders(int depth, const std::string& inside) {
  return depth == 0 ? inside : "<Folder name=\"d\">" + NestedFolders(depth - 1, inside) + "</Folder>";
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

// ---- The block hash pass

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

TEST(BlockHashesTest, UnparsableTextFailsWithTheEnginesError) {
  Snapshot snapshot;
  snapshot.documentText = "<Snapshot><Root>";
  EXPECT_FALSE(snapshot.LoadBlockHashes());
  EXPECT_EQ(LastSnapshotError(), 0x8007000Du);
}

}  // namespace
}  // namespace pkgdlv
