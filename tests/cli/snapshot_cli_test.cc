// pkgdlv snapshot create | verify | show, run as a separate process.
#include "cli_test_support.h"
#include "support/test_keys.h"

namespace pkgdlv {
namespace {

const std::string kId = kCliPackageId;

void RunShell(const std::string& command) { ASSERT_EQ(std::system(command.c_str()), 0) << command; }

// A package of four files, two folders, 5,000,004 bytes.
void MakePackage(const fs::path& folder) {
  WriteFile(folder / "setup.bin", std::string(5'000'000, 'x'));
  WriteFile(folder / "docs" / "readme.txt", "read");
  WriteFile(folder / "docs" / "empty", "");
  fs::create_directories(folder / "docs" / "more");
  WriteFile(folder / "package.xml", "<Package/>");  // only the out folder's own package.xml is left out
}

class SnapshotCliTest : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    fs::copy_file(testing::TestKey(GetParam()), dir_ / "key.pem");
    RunShell("openssl pkey -in " + Quote(dir_ / "key.pem") + " -pubout -out " + Quote(dir_ / "pub.pem"));
    MakePackage(dir_ / "pkg");
  }
  TempDir dir_;
};

TEST_P(SnapshotCliTest, CreateSignedThenVerifyThenTamper) {
  ToolResult created = RunTool("snapshot create " + Quote(dir_ / "pkg") + " --id " + kId +
                               " --version 3 --block-size 1048576 --sign-key " + Quote(dir_ / "key.pem") + " --out " +
                               Quote(dir_ / "out") + " --print-key");
  ASSERT_EQ(created.exit_code, 0) << created.err;
  EXPECT_NE(created.out.find("4 files, 2 folders, 5000014 bytes, 7 blocks, signed"), std::string::npos) << created.out;
  const std::string printedKey = created.out.substr(created.out.find('\n') + 1);
  ASSERT_GT(printedKey.size(), 40u);
  const fs::path snapshot = dir_ / "out" / "snapshot.xml";
  ASSERT_TRUE(fs::exists(dir_ / "out" / "snapdata.xml"));

  // The key as the printed Base64 text, as a public PEM file, as the private key file.
  for (const std::string& key :
       {"'" + printedKey.substr(0, printedKey.size() - 1) + "'", Quote(dir_ / "pub.pem"), Quote(dir_ / "key.pem")}) {
    ToolResult verified = RunTool("snapshot verify " + Quote(snapshot) + " --key " + key);
    EXPECT_EQ(verified.exit_code, 0) << key << ": " << verified.err;
    EXPECT_EQ(verified.out, "signature valid\n");
  }

  std::string bytes = ReadFile(snapshot);
  bytes[bytes.find("version=\"3\"") + 9] = '4';
  WriteFile(snapshot, bytes);
  ToolResult tampered = RunTool("snapshot verify " + Quote(snapshot) + " --key " + Quote(dir_ / "pub.pem"));
  EXPECT_EQ(tampered.exit_code, 1);
  EXPECT_NE(tampered.err.find("signature not valid"), std::string::npos) << tampered.err;
  EXPECT_EQ(tampered.out, "");
}

INSTANTIATE_TEST_SUITE_P(Keys, SnapshotCliTest, ::testing::Values("RSA", "EC"));

TEST(SnapshotCliShowTest, JsonTotalsAndOwnDocumentsLeftOut) {
  TempDir dir;
  MakePackage(dir / "pkg");
  // Created twice into the package folder itself: the second run must not list
  // the first run's snapshot.xml or the package.xml beside it.
  for (int run = 0; run < 2; ++run) {
    ToolResult created = RunTool("snapshot create " + Quote(dir / "pkg") + " --id " + kId + " --version 2");
    ASSERT_EQ(created.exit_code, 0) << created.err;
  }
  EXPECT_FALSE(fs::exists(dir / "pkg" / "snapdata.xml"));  // nothing signed it
  ToolResult shown = RunTool("snapshot show " + Quote(dir / "pkg" / "snapshot.xml") + " --json");
  ASSERT_EQ(shown.exit_code, 0) << shown.err;
  nlohmann::json doc = nlohmann::json::parse(shown.out);
  EXPECT_EQ(doc["id"], kId);
  EXPECT_EQ(doc["version"], 2);
  EXPECT_EQ(doc["blockSize"], 2097152);
  EXPECT_EQ(doc["blockHashesComplete"], true);
  EXPECT_EQ(doc["totals"]["files"], 3);
  EXPECT_EQ(doc["totals"]["folders"], 2);
  EXPECT_EQ(doc["totals"]["size"], 5'000'004);
  EXPECT_EQ(doc["totals"]["blocks"], 4);  // 3 blocks of setup.bin, 1 of readme.txt
  std::vector<std::string> paths;
  for (const auto& file : doc["files"]) paths.push_back(file["path"]);
  EXPECT_EQ(paths, (std::vector<std::string>{"setup.bin", "docs\\empty", "docs\\readme.txt"}));
  EXPECT_EQ(doc["files"][0]["blockHashes"], 3);

  ToolResult text = RunTool("snapshot show " + Quote(dir / "pkg" / "snapshot.xml"));
  ASSERT_EQ(text.exit_code, 0) << text.err;
  EXPECT_NE(text.out.find("3 files, 2 folders, 5000004 bytes, 4 blocks"), std::string::npos) << text.out;
}

// A name that would leave the package is refused with the reason; names that
// would hide or reorder text are escaped in text and kept in JSON.
TEST(SnapshotCliShowTest, HostileNamesAreRefusedOrEscaped) {
  TempDir dir;
  WriteFile(dir / "unsafe.xml",
            "<Snapshot blockSize=\"4\"><Root size=\"0\"><File name=\"..\\..\\etc\\passwd\" "
            "size=\"0\"/></Root></Snapshot>");
  ToolResult unsafe = RunTool("snapshot show " + Quote(dir / "unsafe.xml"));
  EXPECT_EQ(unsafe.exit_code, 1);
  EXPECT_NE(unsafe.err.find("Invalid snapshot XML: Unsafe path '..\\..\\etc\\passwd'"), std::string::npos)
      << unsafe.err;

  WriteFile(dir / "snapshot.xml",
            "<Snapshot blockSize=\"4\"><Root size=\"0\"><File name=\"invoice&#x202E;fdp.exe\" size=\"0\"/>"
            "<File name=\"b&#x9B;2J&#x2028;x\" size=\"0\"/></Root></Snapshot>");
  ToolResult shown = RunTool("snapshot show " + Quote(dir / "snapshot.xml"));
  ASSERT_EQ(shown.exit_code, 0) << shown.err;
  EXPECT_NE(shown.out.find("\tinvoice\\u202Efdp.exe\n"), std::string::npos) << shown.out;
  EXPECT_NE(shown.out.find("\tb\\u009B2J\\u2028x\n"), std::string::npos) << shown.out;
  ToolResult json = RunTool("snapshot show --json " + Quote(dir / "snapshot.xml"));
  std::vector<std::string> paths;
  const nlohmann::json doc = nlohmann::json::parse(json.out);
  for (const auto& file : doc["files"]) paths.push_back(file["path"]);
  EXPECT_EQ(paths, (std::vector<std::string>{"b\u009B2J\u2028x", "invoice\u202Efdp.exe"})) << "JSON keeps names";
}

TEST(SnapshotCliShowTest, VerifyRefusals) {
  TempDir dir;
  WriteFile(dir / "snapshot.xml", "<Snapshot/>");
  WriteFile(dir / "snapdata.xml", "<SnapshotData><Security signature=\"A\"/></SnapshotData>");
  const std::pair<std::string, std::string> cases[] = {
      {" --key QUJD", "IsValidSignature - failed to decode Base64 Data: 'A'"},
      {" --key 'not base64!'", "neither Base64 text nor a PEM key file"},
      {" --snapdata " + Quote(dir / "missing.xml") + " --key QUJD", ""},
  };
  for (const auto& [options, error] : cases) {
    ToolResult verified = RunTool("snapshot verify " + Quote(dir / "snapshot.xml") + options);
    EXPECT_EQ(verified.exit_code, 1) << options;
    EXPECT_NE(verified.err.find(error), std::string::npos) << options << ": " << verified.err;
  }
}

}  // namespace
}  // namespace pkgdlv
