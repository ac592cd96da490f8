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

// Removing a package's hashes leaves a sibling key and other packages alone;
// a second object (as another process would) reads with the same private key.
TEST_F(SecureStoreTest, PrefixDeleteStopsAtTheKeyAndTheMachineKeyIsPrivate) {
  auto store = Open();
  for (const char* key : {"P\\{A}\\hash\\x", "P\\{A}\\hash\\sub\\y", "P\\{A}\\hashes", "P\\{B}\\hash\\x"}) {
    store->Write(key, Bytes(key));
  }
  EXPECT_EQ(store->DeletePrefix("P\\{A}\\hash\\"), 2u);
  EXPECT_EQ(std::tuple(store->Read("P\\{A}\\hash\\x"), store->Read("p\\{B}\\hash\\x"), Open()->Read("P\\{A}\\hashes")),
            std::tuple(std::nullopt, std::nullopt, Bytes("P\\{A}\\hashes")));
  EXPECT_TRUE(store->Delete("P\\{B}\\hash\\x"));
  EXPECT_FALSE(store->Delete("P\\{B}\\hash\\x"));
  struct stat info {};
  ASSERT_EQ(::stat((dir_ / "machine.key").c_str(), &info), 0);
  EXPECT_EQ(std::tuple(info.st_mode & 0777, info.st_size), std::tuple(0600u, 32));
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
