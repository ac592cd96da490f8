// The tree pass: document structure, root attributes, block numbering and the
// refusals, each with the line the component writes.
#include <gtest/gtest.h>

#include <tuple>

#include "snapshot/snapshot.h"
#include "snapshot/snapshot_builder.h"
#include "snapshot/snapshot_limits.h"
#include "support/temp_dir.h"
#include "util/error.h"
#include "snapshot_test_support.h"
#include "util/xml.h"
#include "util/xml_test_support.h"

namespace pkgdlv {
namespace {

using testing::HashText;
using testing::LoggedSnapshot;
using testing::SnapshotDoc;
using testing::StdAttributes;

struct LoadCase {
  std::string title;
  std::string document;
  bool loads;
  std::string line;  // the start of a line that must be logged ("" none required)
  uint32_t level = loglevel::kWarning;
  std::string lineAlsoHas = "";  // text the line must also hold
};

void PrintTo(const LoadCase& c, std::ostream* out) { *out << c.title; }

class SnapshotLoadTest : public ::testing::TestWithParam<LoadCase> {};

TEST_P(SnapshotLoadTest, LoadsOrRefusesWithItsLine) {
  const LoadCase& c = GetParam();
  LoggedSnapshot s;
  EXPECT_EQ(s.snapshot.LoadXml(c.document), c.loads);
  if (!c.line.empty()) {
    bool found = false;
    for (const auto& line : s.log->Lines()) {
      if (line.message.starts_with(c.line) && line.message.find(c.lineAlsoHas) != std::string::npos) {
        found = true;
        EXPECT_EQ(line.level, c.level);
        EXPECT_EQ(line.component, "Snapshot");
      }
    }
    EXPECT_TRUE(found) << "missing line: " << c.line;
  }
}

const std::string kOneFile = R"(<Root size="10" files="1" folders="0"><File name="a" size="10"/></Root>)";

// A document with the usual root attributes around `body`.
std::string Doc(const std::string& body) { return SnapshotDoc(StdAttributes(), body); }

const std::string kInvalid = "Invalid snapshot XML: ";
const std::string kSizeMismatch = kInvalid + "Total file size mismatch, expected 1, actual: 3";

const std::vector<LoadCase> kLoadCases = {
    {"Plain", Doc(kOneFile), true, ""},
    {"LegacyRootName", SnapshotDoc(R"(PkgVersion="7" blockSize="0")", kOneFile, "FolderSnapShot"), true, ""},
    {"NoBlockSizeIsLegacy", SnapshotDoc(R"(version="1")", kOneFile), true,
     "Legacy snapshot XML: Missing hash block size", loglevel::kInfo},
    {"NotXml", "<Snapshot>\n<Root", false, kInvalid + "XML failed to load, error: ", loglevel::kWarning, "(line 2)"},
    {"EmptyText", "", false, kInvalid + "XML failed to load, error: Document is empty"},
    {"WrongRoot", SnapshotDoc(StdAttributes(), kOneFile, "Snapshots"), false, kInvalid + "Incorrect root element"},
    {"RootNameIsCaseSensitive", SnapshotDoc(StdAttributes(), kOneFile, "snapshot"), false,
     kInvalid + "Incorrect root element"},
    {"NoRootFolder", Doc("<Folder name=\"x\"/>"), false, kInvalid + "Missing Root element"},
    {"RootWithoutSize", Doc(R"(<Root><File name="a" size="10"/></Root>)"), false,
     kInvalid + "Missing Root element's size"},
    {"RootSizeOneMore", Doc(R"(<Root size="11"><File name="a" size="10"/></Root>)"), false,
     kInvalid + "Total file size mismatch, expected 10, actual: 11"},
    {"RootSizeOneLess", Doc(R"(<Root size="9"><File name="a" size="10"/></Root>)"), false,
     kInvalid + "Total file size mismatch, expected 10, actual: 9"},
    {"FileWithoutName", Doc(R"(<Root size="0"><File size="0"/></Root>)"), false, kInvalid + "Missing file name"},
    {"FolderWithoutName", Doc(R"(<Root size="0"><Folder/></Root>)"), false, kInvalid + "Missing folder name"},
    {"BadSize", Doc(R"(<Root size="0"><File name="a" size="-1"/></Root>)"), false,
     kInvalid + "Bad value '-1' of attribute 'size'"},
    {"SizeBeyondInt64", Doc(R"(<Root size="0"><File name="a" size="9223372036854775808"/></Root>)"), false,
     kInvalid + "Bad value '9223372036854775808' of attribute 'size'"},
    {"BadTime", SnapshotDoc(R"(time="yesterday" blockSize="4")", kOneFile), false,
     kInvalid + "Bad value 'yesterday' of attribute 'time'"},
    {"BadId", SnapshotDoc(R"(id="{nope}" blockSize="4")", kOneFile), false,
     kInvalid + "Bad value '{nope}' of attribute 'id'"},
    {"BlockSizeBeyond32Bits", SnapshotDoc(R"(blockSize="4294967296")", kOneFile), false,
     kInvalid + "Bad value '4294967296' of attribute 'blockSize'"},
    {"TooManyBlocks",
     SnapshotDoc(R"(blockSize="1")", R"(<Root size="9000000000"><File name="a" size="9000000000"/></Root>)"), false,
     kInvalid + "Too many hash blocks"},
    {"CaseTwins", Doc(R"(<Root size="2"><File name="a" size="1"/><File name="A" size="1"/></Root>)"), false,
     kInvalid + "Duplicate entry 'A'"},
    {"CommentEndsTheWalk", Doc(R"(<Root size="3"><File name="a" size="1"/><!-- --><File name="b" size="2"/></Root>)"),
     false, kSizeMismatch},
    {"TextEndsTheWalk", Doc(R"(<Root size="3"><File name="a" size="1"/> x <File name="b" size="2"/></Root>)"), false,
     kSizeMismatch},
    {"UnknownElementIsSkipped",
     Doc(R"(<Root size="3"><File name="a" size="1"/><Extra/><File name="b" size="2"/></Root>)"), true, ""},
    {"CDataEndsTheWalk",
     Doc(R"(<Root size="3"><File name="a" size="1"/><![CDATA[x]]><File name="b" size="2"/></Root>)"), false,
     kSizeMismatch},
    {"TextEndsOnlyItsOwnFolder",
     Doc(R"(<Root size="3"><Folder name="d">text<File name="x" size="9"/></Folder><File name="b" size="3"/></Root>)"),
     true, ""},
    {"FileWithoutSizeIsNotCounted", Doc(R"(<Root size="0"><File name="a"/><File name="b" size="4"/></Root>)"), true,
     ""},
    {"FileContentIsNotVisited", Doc(R"(<Root size="1"><File name="a" size="1">text<File/></File></Root>)"), true, ""},
    {"SecondRootIsIgnored",
     Doc(R"(<Other><Root size="7"/></Other><Root size="1"><File name="a" size="1"/></Root><Root/>)"), true, ""},
    {"MalformedAfterAnError", Doc(R"(<Root size="0"><File/></Root><x>)"), false,
     kInvalid + "XML failed to load, error: ", loglevel::kWarning, "(line 1)"},
    // One bit per block: a document justifies the blocks its hashes cover,
    // plus an allowance for files it describes without hashes.
    {"UnhashedBlocksUpToTheAllowance",
     SnapshotDoc(R"(blockSize="1")", R"(<Root size="8388608"><File name="a" size="8388608"/></Root>)"), true, ""},
    {"UnhashedBlocksPastTheAllowance",
     SnapshotDoc(R"(blockSize="1")", R"(<Root size="8388609"><File name="a" size="8388609"/></Root>)"), false,
     kInvalid + "Too many hash blocks: 8388609 blocks, the document justifies 8388608"},
    {"HashTextJustifiesItsBlocks",
     SnapshotDoc(R"(blockSize="1")",
                 R"(<Root size="8388609"><File name="a" size="8388609" blockHash=")" + HashText(32) + R"("/></Root>)"),
     true, ""},
    // Empty values are refused; a document of nothing but a Root is an empty legacy snapshot.
    {"OnlyAnEmptyRoot", SnapshotDoc("", R"(<Root size="0"/>)"), true, ""},
    {"EmptyRootSize", SnapshotDoc("", R"(<Root size=""/>)"), false, kInvalid},
    {"EmptyId", SnapshotDoc(R"(id="")", R"(<Root size="0"/>)"), false, kInvalid},
    {"EmptyVersion", SnapshotDoc(R"(version="")", R"(<Root size="0"/>)"), false, kInvalid},
    {"EmptyFileSize", Doc(R"(<Root size="0"><File name="a" size=""/></Root>)"), false, kInvalid},
    {"EmptyFileTime", Doc(R"(<Root size="0"><File name="a" lastModifiedTime=""/></Root>)"), false, kInvalid},
    {"NamespacedFileIsNoFile", Doc(R"(<Root size="0"><x:File xmlns:x="urn:x" name="a" size="5"/></Root>)"), true, ""},
    {"Utf16",
     testing::ToUtf16(SnapshotDoc("version=\"2\"", R"(<Root size="1"><File name="a" size="1"/></Root>)"), false), true,
     "Legacy snapshot XML: Missing hash block size", loglevel::kInfo},
};

INSTANTIATE_TEST_SUITE_P(Documents, SnapshotLoadTest, ::testing::ValuesIn(kLoadCases),
                         [](const auto& info) { return info.param.title; });

// LoadXml walks plain documents without building a tree; the tree walk
// (ParseSnapshotElement) must come to the same result, with the same lines.
TEST(SnapshotLoadTest, StreamingAndTreeWalksAgree) {
  for (const LoadCase& c : kLoadCases) {
    LoggedSnapshot streamed, walked;
    bool streamedOk = streamed.snapshot.LoadXml(c.document);
    std::optional<xml::Document> document = xml::Document::TryParse(c.document);
    bool walkedOk = document && walked.snapshot.ParseSnapshotElement(document->Root());
    EXPECT_EQ(streamedOk, walkedOk) << c.title;
    EXPECT_EQ(streamed.snapshot, walked.snapshot) << c.title;
    EXPECT_EQ(streamed.snapshot.blockSize, walked.snapshot.blockSize) << c.title;
    EXPECT_EQ(streamed.snapshot.totalBlocks, walked.snapshot.totalBlocks) << c.title;
    EXPECT_EQ(streamed.snapshot.hasUnhashedFiles, walked.snapshot.hasUnhashedFiles) << c.title;
    if (!document) continue;  // the tree walk never started
    std::vector<std::string> a, b;
    for (const auto& line : streamed.log->Lines()) a.push_back(line.message);
    for (const auto& line : walked.log->Lines()) b.push_back(line.message);
    EXPECT_EQ(a, b) << c.title;
  }
}

TEST(SnapshotLoadTest, RootAttributesAndBlockSizes) {
  struct Case {
    std::string attributes;
    std::string rootName;
    uint32_t version, declared, effective;
    bool legacyLine;
  };
  const Case cases[] = {
      {R"(PkgVersion="7")", "FolderSnapShot", 7, 0, 2097152, true},
      {R"(version="3" PkgVersion="7" blockSize="0")", "Snapshot", 3, 0, 2097152, false},
      {R"(version="3" blockSize="65536")", "Snapshot", 3, 65536, 65536, false},
      {R"(blockSize="1")", "FolderSnapShot", 0, 1, 1, false},
  };
  for (const Case& c : cases) {
    LoggedSnapshot s;
    ASSERT_TRUE(s.snapshot.LoadXml(SnapshotDoc(c.attributes, kOneFile, c.rootName))) << c.attributes;
    EXPECT_EQ(s.snapshot.version, c.version) << c.attributes;
    EXPECT_EQ(s.snapshot.declaredBlockSize, c.declared) << c.attributes;
    EXPECT_EQ(s.snapshot.blockSize, c.effective) << c.attributes;
    EXPECT_EQ(s.log->Contains("Legacy snapshot XML: Missing hash block size"), c.legacyLine) << c.attributes;
  }
}

TEST(SnapshotLoadTest, EntriesAreSortedAndNumberedInBlocks) {
  // b: one byte over the block size (2 blocks); c: empty (none, shares its
  // first block with the next file); D: 1 byte; the sub folder's file comes
  // after the root's files.
  const std::string doc = Doc(R"(
      <Root size="2097156" files="3" folders="1">
        <File name="b" size="2097153" lastModifiedTime="2024-03-01 10:20:30" fileHash="x"/>
        <File name="c" size="0"/>
        <File name="D" size="1"/>
        <Folder name="Sub" size="2" files="1" folders="0">
          <File name="e" size="2"/>
        </Folder>
      </Root>)");
  LoggedSnapshot s;
  ASSERT_TRUE(s.snapshot.LoadXml(doc));
  using Fields = std::tuple<std::string, std::string, int64_t, uint32_t, int64_t, uint32_t>;
  std::vector<Fields> got;
  for (const SnapshotEntry& e : s.snapshot.entries)
    got.emplace_back(e.folder, e.name, e.size, e.firstBlock, e.validBytes, e.state);
  const uint32_t unchecked = entrystate::kNotChecked;
  EXPECT_EQ(got, (std::vector<Fields>{{"", "b", 2097153, 0, -1, unchecked},
                                      {"", "c", 0, 2, -1, unchecked},
                                      {"", "D", 1, 2, -1, unchecked},
                                      {"Sub", "", 0, kNoBlock, -1, unchecked},
                                      {"Sub", "e", 2, 3, -1, unchecked}}));
  EXPECT_EQ(s.snapshot.totalBlocks, 4u);
  EXPECT_EQ(s.snapshot.entries[0].lastModified, *ParseDocumentTime("2024-03-01 10:20:30"));
  EXPECT_EQ(s.snapshot.entries[0].fileHash, "x");
  EXPECT_EQ(s.snapshot.GetIdText(), testing::kTestId);
  EXPECT_EQ(s.snapshot.time, *ParseDocumentTime("2024-03-01T10:20:30"));
  EXPECT_EQ(s.snapshot.version, 5u);
}

TEST(SnapshotLoadTest, AFailedLoadLeavesTheObjectAsItWasExceptTheUnhashedFlag) {
  LoggedSnapshot s;
  ASSERT_TRUE(s.snapshot.LoadXml(Doc(R"(<Root size="10"><File name="a" size="10" fileHash="h"/></Root>)")));
  s.snapshot.path = "/pkg";
  s.snapshot.signature = "c2ln";
  s.snapshot.signedData = {1, 2, 3};
  s.snapshot.hashNotRequired = true;
  const Snapshot before = s.snapshot;
  ASSERT_FALSE(s.snapshot.hasUnhashedFiles);

  // An unhashed file, then a size mismatch: the load fails after the walk.
  EXPECT_FALSE(s.snapshot.LoadXml(
      SnapshotDoc(R"(version="9" blockSize="4")", R"(<Root size="99"><File name="z" size="1"/></Root>)")));
  EXPECT_EQ(s.snapshot, before);
  EXPECT_EQ(s.snapshot.version, 5u);
  EXPECT_EQ(s.snapshot.blockSize, 2097152u);
  EXPECT_EQ(s.snapshot.documentText, before.documentText);
  EXPECT_TRUE(s.snapshot.hasUnhashedFiles);

  // A successful load keeps the object's own path, signature, signed data and flags.
  ASSERT_TRUE(s.snapshot.LoadXml(
      SnapshotDoc(R"(version="9" blockSize="4")", R"(<Root size="1"><File name="z" size="1" fileHash="h"/></Root>)")));
  EXPECT_EQ(s.snapshot.version, 9u);
  EXPECT_EQ(s.snapshot.path, "/pkg");
  EXPECT_EQ(s.snapshot.signature, "c2ln");
  EXPECT_EQ(s.snapshot.signedData, (std::vector<uint8_t>{1, 2, 3}));
  EXPECT_TRUE(s.snapshot.hashNotRequired);
  EXPECT_TRUE(s.snapshot.hasUnhashedFiles);
  EXPECT_TRUE(s.snapshot.id.IsNull());
}

TEST(SnapshotLoadTest, EntryLookupAndStates) {
  LoggedSnapshot s;
  ASSERT_TRUE(s.snapshot.LoadXml(Doc(R"(
      <Root size="3"><File name="one" size="1"/><File name="Two" size="1"/>
        <Folder name="Dir"><File name="three" size="1"/></Folder></Root>)")));
  Snapshot& snap = s.snapshot;
  EXPECT_NE(snap.FindEntry("", "ONE"), nullptr);
  EXPECT_NE(snap.FindEntry("dir", "THREE"), nullptr);
  EXPECT_NE(snap.FindEntry("DIR", ""), nullptr);  // the folder entry
  EXPECT_EQ(snap.FindEntry("", "three"), nullptr);
  EXPECT_EQ(snap.FindEntry("dir", "one"), nullptr);

  EXPECT_TRUE(snap.SetEntryState("", "one", entrystate::kValid));
  EXPECT_TRUE(snap.SetEntryState("", "two", entrystate::kInvalid));
  EXPECT_TRUE(snap.SetEntryState("Dir", "three", entrystate::kHashNotComputed));
  EXPECT_FALSE(snap.SetEntryState("", "four", entrystate::kValid));
  snap.ResetStates();
  EXPECT_EQ(snap.FindEntry("", "one")->state, entrystate::kValid);
  EXPECT_EQ(snap.FindEntry("", "two")->state, entrystate::kNotChecked);
  EXPECT_EQ(snap.FindEntry("dir", "three")->state, entrystate::kNotChecked);
}

TEST(SnapshotLoadTest, IncompleteFiles) {
  struct Case {
    std::string file;
    bool hashNotRequired;
    bool incomplete;
  };
  const std::string t = R"( lastModifiedTime="2024-01-01 00:00:00")";
  const Case cases[] = {
      {R"(<File name="a" size="1" fileHash="h")" + t + "/>", false, false},
      {R"(<File name="a" size="1" blockHash="h")" + t + "/>", false, false},
      {R"(<File name="a" size="1")" + t + "/>", false, true},     // no hash
      {R"(<File name="a" size="1")" + t + "/>", true, false},     // ... unless none is required
      {R"(<File name="a" fileHash="h")" + t + "/>", true, true},  // no size
      {R"(<File name="a" size="1" fileHash="h"/>)", true, true},  // no time
  };
  for (const Case& c : cases) {
    LoggedSnapshot s;
    s.snapshot.hashNotRequired = c.hashNotRequired;
    bool knownSize = c.file.find("size") != std::string::npos;
    const std::string root = knownSize ? "<Root size=\"1\">" : "<Root size=\"0\">";
    ASSERT_TRUE(s.snapshot.LoadXml(Doc(root + c.file + "</Root>"))) << c.file;
    EXPECT_EQ(s.snapshot.IsIncomplete(), c.incomplete) << c.file;
  }
  EXPECT_FALSE(Snapshot().IsIncomplete());  // no entries
}

// What the builder writes loads back: a file of 1 GiB hashed in 4 KiB blocks
// carries 11 MB of block hashes in one attribute. A block size that would
// make the document longer than a reader takes is refused before hashing.
TEST(SnapshotLoadTest, ACreatedSnapshotAlwaysLoadsBack) {
  const struct {
    uint64_t fileSize;
    uint32_t blockSize;
    bool builds;
  } cases[] = {
      {uint64_t{1} << 30, 4096, true},
      {uint64_t{1} << 30, 256, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.blockSize);
    testing::TempDir dir;
    std::filesystem::create_directory(dir / "package");
    testing::WriteFile(dir / "package" / "big.bin", "");
    std::filesystem::resize_file(dir / "package" / "big.bin", c.fileSize);  // sparse: no disk needed
    SnapshotBuildOptions options;
    options.blockSize = c.blockSize;
    Snapshot built;
    try {
      BuildSnapshotFromFolder(dir / "package", options, built);
      EXPECT_TRUE(c.builds);
    } catch (const Error& e) {
      EXPECT_FALSE(c.builds) << e.description();
      EXPECT_NE(e.description().find("choose a larger hash block size"), std::string::npos) << e.description();
      continue;
    }
    LoggedSnapshot loaded;
    ASSERT_TRUE(loaded.snapshot.LoadXml(built.ComposeDocumentFile()));
    ASSERT_TRUE(loaded.snapshot.LoadBlockHashes());
    const SnapshotEntry* big = loaded.snapshot.FindEntry("", "big.bin");
    ASSERT_NE(big, nullptr);
    EXPECT_EQ(big->blockHashes, built.FindEntry("", "big.bin")->blockHashes);
    EXPECT_EQ(big->BlockHashCount(), c.fileSize / c.blockSize);
  }
}

}  // namespace
}  // namespace pkgdlv
