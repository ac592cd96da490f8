// pkgdlv snapshot create | verify | show, run as a separate process.
#include "cli_test_support.h"
#include "support/test_keys.h"

namespace pkgdlv {
namespace {

const std::string kId = kCliPackageId;

// A package of four files, two folders, 5,000,004 bytes, and the package
// document that only the out folder's own copy of is left out.
class SnapshotCliTest : public CliTest {
 protected:
  void SetUp() override {
    WriteFile(dir_ / "pkg" / "setup.bin", std::string(5'000'000, 'x'));
    WriteFile(dir_ / "pkg" / "docs" / "readme.txt", "read");
    WriteFile(dir_ / "pkg" / "docs" / "empty", "");
    fs::create_directories(dir_ / "pkg" / "docs" / "more");
    WriteFile(dir_ / "pkg" / "package.xml", "<Package/>");
  }
};

class SignedSnapshotCliTest : public SnapshotCliTest, public ::testing::WithParamInterface<std::string> {};

TEST_P(SignedSnapshotCliTest, CreateSignedThenVerifyThenTamper) {
  const fs::path key = testing::TestKey(GetParam());
  const std::string created = Ok("snapshot create " + Quote(dir_ / "pkg") + " --id " + kId +
                                 " --version 3 --block-size 1048576 --sign-key " + Quote(key) + " --out " +
                                 Quote(dir_ / "out") + " --print-key");
  EXPECT_NE(created.find("4 files, 2 folders, 5000014 bytes, 7 blocks, signed"), std::string::npos) << created;
  const std::string printedKey = created.substr(created.find('\n') + 1);
  const fs::path snapshot = dir_ / "out" / "snapshot.xml";
  // The key as the printed Base64 text, as the private key file.
  const std::string printed = "'" + printedKey.substr(0, printedKey.size() - 1) + "'";
  for (const std::string& option : {printed, Quote(key)}) {
    EXPECT_EQ(Ok("snapshot verify " + Quote(snapshot) + " --key " + option), "signature valid\n") << option;
  }

  std::string bytes = ReadFile(snapshot);
  bytes[bytes.find("version=\"3\"") + 9] = '4';
  WriteFile(snapshot, bytes);
  ToolResult tampered = Run("snapshot verify " + Quote(snapshot) + " --key " + printed);
  EXPECT_EQ(std::make_tuple(tampered.exit_code, tampered.out), std::make_tuple(1, std::string()));
  EXPECT_NE(tampered.err.find("signature not valid"), std::string::npos) << tampered.err;
}

INSTANTIATE_TEST_SUITE_P(Keys, SignedSnapshotCliTest, ::testing::Values("RSA", "EC"));

// A name that would leave the package is refused with the reason; names that
// would hide or reorder text are escaped in text and kept in JSON.
TEST_F(SnapshotCliTest, HostileNamesAreRefusedOrEscaped) {
  WriteFile(dir_ / "unsafe.xml",
            "<Snapshot blockSize=\"4\"><Root size=\"0\"><File name=\"..\\..\\etc\\passwd\" "
            "size=\"0\"/></Root></Snapshot>");
  EXPECT_NE(Fails("snapshot show " + Quote(dir_ / "unsafe.xml"))
                .find("Invalid snapshot XML: Unsafe path '..\\..\\etc\\passwd'"),
            std::string::npos);

  WriteFile(dir_ / "snapshot.xml",
            "<Snapshot blockSize=\"4\"><Root size=\"0\"><File name=\"invoice&#x202E;fdp.exe\" size=\"0\"/>"
            "<File name=\"b&#x9B;2J&#x2028;x\" size=\"0\"/></Root></Snapshot>");
  const std::string shown = Ok("snapshot show " + Quote(dir_ / "snapshot.xml"));
  EXPECT_NE(shown.find("\tinvoice\\u202Efdp.exe\n"), std::string::npos) << shown;
  EXPECT_NE(shown.find("\tb\\u009B2J\\u2028x\n"), std::string::npos) << shown;
  const nlohmann::json json = nlohmann::json::parse(Ok("snapshot show --json " + Quote(dir_ / "snapshot.xml")));
  std::vector<std::string> paths;
  for (const auto& file : json["files"]) paths.push_back(file["path"]);
  EXPECT_EQ(paths, (std::vector<std::string>{"b\u009B2J\u2028x", "invoice\u202Efdp.exe"})) << "JSON keeps names";
}

}  // namespace
}  // namespace pkgdlv
