// Writing the snapshot document: attribute order, folder order and sizes, the
// block hash source, and composing then reading back.
#include <gtest/gtest.h>

#include "snapshot/snapshot.h"
#include "snapshot_test_support.h"

namespace pkgdlv {
namespace {

using testing::LoggedSnapshot;

SnapshotEntry File(std::string folder, std::string name, int64_t size, FileTime time = 0, std::string hash = "",
                   std::vector<uint8_t> blocks = {}) {
  SnapshotEntry e;
  e.folder = std::move(folder);
  e.name = std::move(name);
  e.size = size;
  e.lastModified = time;
  e.fileHash = std::move(hash);
  e.blockHashes = std::move(blocks);
  e.hasBlockHash = !e.blockHashes.empty();
  return e;
}

SnapshotEntry Folder(std::string path) {
  SnapshotEntry e;
  e.folder = std::move(path);
  e.size = 0;
  return e;
}

Snapshot Sample(std::shared_ptr<Logger> log = nullptr) {
  Snapshot s(std::move(log));
  s.id = *Guid::Parse(testing::kTestId);
  s.path = "/work/pkg";
  s.time = *ParseDocumentTime("2024-03-01T10:20:30");
  s.version = 4;
  s.blockSize = 4;
  s.declaredBlockSize = 4;
  s.entries = {File("", "a.txt", 5, *ParseDocumentTime("2024-02-01 01:02:03"), "SGFzaA==", std::vector<uint8_t>(64, 7)),
               File("", "empty", 0),
               Folder("b"),
               File("b", "c", 3),
               Folder("A"),
               Folder("a b"),
               Folder("A\\z")};
  s.OrderEntries();
  return s;
}

TEST(ComposeTest, WritesAttributesAndFoldersInOrder) {
  const std::string hashes = Base64Encode(std::vector<uint8_t>(64, 7));
  const std::string want =
      R"(<Snapshot id="{8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6B}" blockSize="4" path="/work/pkg" time="2024-03-01T10:20:30" version="4">
  <Root size="8" files="2" folders="3">
    <File name="a.txt" size="5" lastModifiedTime="2024-02-01 01:02:03" fileHash="SGFzaA==" blockHash=")" +
      hashes + R"("/>
    <File name="empty" size="0"/>
    <Folder name="A" size="0" files="0" folders="1">
      <Folder name="z" size="0" files="0" folders="0"/>
    </Folder>
    <Folder name="a b" size="0" files="0" folders="0"/>
    <Folder name="b" size="3" files="1" folders="0">
      <File name="c" size="3"/>
    </Folder>
  </Root>
</Snapshot>)";
  EXPECT_EQ(Sample().ComposeXml(), want);
  EXPECT_EQ(Sample().ComposeDocumentFile(), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n" + want + "\n");
}

TEST(ComposeTest, AnUnknownSizeZeroesEveryEnclosingFolder) {
  Snapshot s = Sample();
  s.entries.push_back(Folder("A\\z\\deep"));
  s.entries.push_back(File("A\\z\\deep", "nosize", -1));
  s.entries.push_back(File("A", "known", 7));
  s.OrderEntries();
  const std::string xml = s.ComposeXml();
  EXPECT_NE(xml.find(R"(<Root size="0" files="2" folders="3">)"), std::string::npos) << xml;
  EXPECT_NE(xml.find(R"(<Folder name="A" size="0" files="1" folders="1">)"), std::string::npos) << xml;
  EXPECT_NE(xml.find(R"(<Folder name="z" size="0" files="0" folders="1">)"), std::string::npos) << xml;
  EXPECT_NE(xml.find(R"(<Folder name="b" size="3" files="1" folders="0">)"), std::string::npos) << xml;
  EXPECT_NE(xml.find(R"(<File name="nosize"/>)"), std::string::npos) << xml;

  // ... and reads back, keeping the unknown size.
  LoggedSnapshot back;
  back.snapshot.path = s.path;
  ASSERT_TRUE(back.snapshot.LoadXml(xml));
  EXPECT_EQ(back.snapshot.FindEntry("A\\z\\deep", "nosize")->size, -1);
  EXPECT_EQ(back.snapshot, s);
}

// Equality decides whether a received snapshot differs from the one held.
TEST(ComposeTest, EqualityComparesOnlyWhatTheDocumentCarries) {
  const Snapshot s = Sample();
  // Compared fields make a difference, of the snapshot and of an entry ...
  std::vector<std::function<void(Snapshot&)>> changes = {
      [](Snapshot& x) { x.version++; },
      [](Snapshot& x) { x.path = "/elsewhere"; },
      [](Snapshot& x) { x.entries.pop_back(); },
      [](Snapshot& x) { x.entries[0].fileHash = "other"; },
      [](Snapshot& x) { x.entries[0].lastModified += kFileTimeTicksPerSecond; },
  };
  for (size_t i = 0; i < changes.size(); ++i) {
    Snapshot changed = s;
    changes[i](changed);
    EXPECT_FALSE(changed == s) << i;
  }
  // ... and these do not.
  Snapshot same = s;
  same.path = "/WORK/PKG";
  same.entries[0].name = "A.TXT";
  same.entries[0].state = entrystate::kInvalid;
  same.entries[0].validBytes = 3;
  same.entries[0].blockHashes.clear();
  same.entries[0].lastModified += kFileTimeTicksPerSecond / 2;
  same.time += 4'000'000;  // a fraction of a second is not written
  EXPECT_EQ(same, s);
}

class FakeStore final : public BlockHashSource {
 public:
  Lookup Read(const Snapshot&, const SnapshotEntry& file, const std::string& storeKey,
              std::vector<uint8_t>& hashes) override {
    keys.push_back(storeKey);
    if (file.name == "a.txt") return Lookup::kReadFailed;
    if (file.name == "c") {
      hashes.assign(32, 9);
      return Lookup::kFound;
    }
    return Lookup::kNone;
  }
  std::vector<std::string> keys;
};

TEST(ComposeTest, BlockHashesComeFromTheGivenSource) {
  LoggedSnapshot s;
  s.snapshot = Sample(s.log);
  FakeStore store;
  const std::string xml = s.snapshot.ComposeXml(&store);
  EXPECT_EQ(store.keys,
            (std::vector<std::string>{"Package Delivery\\{8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6B}\\hash\\a.txt",
                                      "Package Delivery\\{8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6B}\\hash\\empty",
                                      "Package Delivery\\{8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6B}\\hash\\b\\c"}));
  EXPECT_NE(xml.find(R"(fileHash="SGFzaA=="/>)"), std::string::npos);  // the entry's own hashes are not used
  EXPECT_NE(xml.find(R"(<File name="c" size="3" blockHash=")" + Base64Encode(std::vector<uint8_t>(32, 9))),
            std::string::npos);
  EXPECT_TRUE(
      s.log->Contains("Failed to read hash for file '/work/pkg/a.txt' from Secure Storage 'Package "
                      "Delivery\\{8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6B}\\hash\\a.txt' while composing the "
                      "snapshot XML"));
}

TEST(ComposeTest, NamesAreEscaped) {
  Snapshot s;
  s.entries = {File("", "a&b <c> \"d\" 'e'", 1)};
  s.OrderEntries();
  LoggedSnapshot back;
  ASSERT_TRUE(back.snapshot.LoadXml(s.ComposeXml()));
  EXPECT_EQ(back.snapshot.entries[0].name, "a&b <c> \"d\" 'e'");
}

}  // namespace
}  // namespace pkgdlv
