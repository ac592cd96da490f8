#include "agent/secure_store.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <string>

#include "support/temp_dir.h"
#include "support/test_util.h"
#include "util/error.h"

namespace pkgdlv {
namespace {

using testing::TempDir;

std::vector<uint8_t> Bytes(std::string_view text) { return {text.begin(), text.end()}; }

class SecureStoreTest : public ::testing::Test {
 protected:
  std::shared_ptr<SecureStore> Open(std::string_view keyName = "machine.key") {
    return OpenSqliteSecureStore(dir_ / "securestore.db", dir_ / keyName);
  }
  // Runs sql on the database file behind the store's back.
  void Exec(const std::string& sql) {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open((dir_ / "securestore.db").c_str(), &db), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
    sqlite3_close(db);
  }
  TempDir dir_;
};

TEST_F(SecureStoreTest, RoundTripReplaceDeleteAndPrefix) {
  auto store = Open();
  EXPECT_EQ(store->Read("a"), std::nullopt);
  store->Write("Package Delivery\\{A}\\hash\\x.bin", Bytes("one"));
  store->Write("Package Delivery\\{A}\\hash\\x.bin", Bytes("two"));
  store->Write("Package Delivery\\{A}\\hash\\sub\\y.bin", Bytes(""));
  store->Write("Package Delivery\\{A}\\hashes", Bytes("sibling"));
  store->Write("Package Delivery\\{B}\\hash\\x.bin", Bytes("other package"));
  EXPECT_EQ(store->Read("Package Delivery\\{A}\\hash\\x.bin"), Bytes("two"));
  EXPECT_EQ(store->Read("Package Delivery\\{A}\\hash\\sub\\y.bin"), Bytes(""));
  EXPECT_EQ(store->Read("package delivery\\{A}\\hash\\x.bin"), std::nullopt);  // paths compare exactly

  EXPECT_EQ(store->DeletePrefix("Package Delivery\\{A}\\hash\\"), 2u);
  EXPECT_EQ(store->Read("Package Delivery\\{A}\\hash\\x.bin"), std::nullopt);
  EXPECT_EQ(store->Read("Package Delivery\\{A}\\hashes"), Bytes("sibling"));
  EXPECT_TRUE(store->Delete("Package Delivery\\{B}\\hash\\x.bin"));
  EXPECT_FALSE(store->Delete("Package Delivery\\{B}\\hash\\x.bin"));

  // A second object (as another process would) reads with the same key.
  EXPECT_EQ(Open()->Read("Package Delivery\\{A}\\hashes"), Bytes("sibling"));
  struct stat info {};
  ASSERT_EQ(::stat((dir_ / "machine.key").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  EXPECT_EQ(info.st_size, 32);
}

TEST_F(SecureStoreTest, ValuesThatCannotBeOpenedAreRefused) {
  auto store = Open();
  store->Write("moved", Bytes("block hashes"));
  store->Write("tampered", Bytes("block hashes"));
  store->Write("short", Bytes("x"));
  Exec("INSERT INTO secure_values (path, value) SELECT 'copy', value FROM secure_values WHERE path = 'moved'");
  // Change one byte of the ciphertext, and cut a value to less than its tag.
  Exec("UPDATE secure_values SET value = CAST(substr(value, 1, 15) || CASE WHEN substr(value, 16, 1) = X'00' "
       "THEN X'01' ELSE X'00' END || substr(value, 17) AS BLOB) WHERE path = 'tampered'");
  Exec("UPDATE secure_values SET value = substr(value, 1, 5) WHERE path = 'short'");
  for (const char* path : {"copy", "tampered", "short"}) {
    EXPECT_EQ(testing::CodeOf([&] { store->Read(path); }), result::kDecryptFailed) << path;
  }
  EXPECT_EQ(store->Read("moved"), Bytes("block hashes"));
  // The same database under another machine's key.
  EXPECT_EQ(testing::CodeOf([&] { Open("other.key")->Read("moved"); }), result::kDecryptFailed);

  testing::WriteFile(dir_ / "short.key", "short");
  EXPECT_THROW(Open("short.key"), Error) << "a key file of the wrong size";
}

TEST_F(SecureStoreTest, ProcessesStartingAtOnceShareOneKeyAndAllWritesLand) {
  constexpr int kProcesses = 3;
  constexpr int kValues = 40;
  ASSERT_TRUE(testing::RunInChildren(kProcesses, [&](int p) {
    auto store = Open();
    for (int i = 0; i < kValues; ++i) store->Write(std::to_string(p) + "\\" + std::to_string(i), Bytes("v"));
  }));
  auto store = Open();
  for (int p = 0; p < kProcesses; ++p) {
    for (int i = 0; i < kValues; ++i) {
      EXPECT_EQ(store->Read(std::to_string(p) + "\\" + std::to_string(i)), Bytes("v")) << p << " " << i;
    }
  }
}

}  // namespace
}  // namespace pkgdlv
