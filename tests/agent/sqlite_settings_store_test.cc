#include <gtest/gtest.h>

#include <thread>

#include <sqlite3.h>

#include "agent/setting_limits.h"
#include "agent/settings_store.h"
#include "support/temp_dir.h"
#include "support/test_util.h"
#include "util/error.h"
#include "util/format.h"

namespace pkgdlv {
namespace {

using testing::TempDir;

std::vector<std::string> KeysAndNames(const std::vector<NamedSetting>& settings) {
  std::vector<std::string> out;
  for (const NamedSetting& s : settings) out.push_back(s.key + "|" + s.name);
  return out;
}

class SqliteSettingsStoreTest : public ::testing::Test {
 protected:
  std::shared_ptr<SettingsStore> Open() { return OpenSqliteSettingsStore(dir_ / "settings.db"); }

  TempDir dir_;
};

TEST_F(SqliteSettingsStoreTest, ValuesKeepTheirTypeAndNamesCompareCaseInsensitively) {
  const std::vector<SettingValue> values = {SettingValue::Number(0), SettingValue::Number(0xFFFFFFFF),
                                            SettingValue::Text(""), SettingValue::Text("42"),
                                            SettingValue::Text("C:\\Program Files\\Stöße \"quoted\" 'x'")};
  auto store = Open(), other = Open();
  for (size_t i = 0; i < values.size(); ++i) store->Set("K", Format("v%d", static_cast<int>(i)), values[i]);
  // Replacing a value may change its type; a later spelling keeps the first one.
  store->Set("Communications\\Package Delivery", "Retry delay (mins)", SettingValue::Number(3));
  uint64_t counter = store->ChangeCounter();
  other->Set("communications\\PACKAGE DELIVERY", "retry DELAY (mins)", SettingValue::Text("nine"));
  EXPECT_NE(store->ChangeCounter(), counter) << "another connection's write must move the counter";
  counter = store->ChangeCounter();
  store->Get("K", "v0");
  EXPECT_EQ(store->ChangeCounter(), counter) << "reads must not move the counter";

  store.reset();
  auto reopened = Open();
  for (size_t i = 0; i < values.size(); ++i) EXPECT_EQ(reopened->Get("K", Format("v%d", static_cast<int>(i))), values[i]) << i;
  EXPECT_EQ(reopened->Get("K", "missing"), std::nullopt);
  EXPECT_EQ(reopened->Get("COMMUNICATIONS\\package delivery", "RETRY DELAY (MINS)"), SettingValue::Text("nine"));
  std::vector<NamedSetting> listed = reopened->List("Communications");
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_EQ(std::make_pair(listed[0].key, listed[0].name),
            std::make_pair(std::string("Communications\\Package Delivery"), std::string("Retry delay (mins)")));
  EXPECT_TRUE(reopened->Delete("communications\\package delivery", "retry delay (MINS)"));
  EXPECT_FALSE(reopened->Delete("Communications\\Package Delivery", "Retry delay (mins)"));
}

TEST_F(SqliteSettingsStoreTest, ListGivesTheKeyAndKeysBelowItOnly) {
  auto store = Open();
  for (const char* key : {"B", "AB", "A\\B\\C", "A", "a\\x", "A\\B", "A]", "A\\"}) {
    store->Set(key, "n", SettingValue::Number(1));
  }
  const std::vector<std::string> all_of_a = {"A|n", "A\\|n", "A\\B|n", "A\\B\\C|n", "a\\x|n"};
  const std::pair<std::string, std::vector<std::string>> cases[] = {
      {"A", all_of_a}, {"a\\", all_of_a}, {"A\\B", {"A\\B|n", "A\\B\\C|n"}}, {"A\\B\\C\\D", {}}};
  for (const auto& [prefix, expected] : cases) EXPECT_EQ(KeysAndNames(store->List(prefix)), expected) << prefix;
}

// Texts, key paths and names are bounded: at the limit they are kept, past
// it Set refuses them and stores nothing, and a longer text put into the
// database by another writer reads as missing.
TEST_F(SqliteSettingsStoreTest, TextsKeysAndNamesHaveALengthLimit) {
  auto store = Open();
  const std::string longName(kMaxSettingNameBytes + 1, 'n');
  const struct {
    std::string key, name;
    SettingValue value;
    bool stored;
  } cases[] = {
      {"K", "at the limit", SettingValue::Text(std::string(kMaxSettingTextBytes, 'x')), true},
      {"K", "past the limit", SettingValue::Text(std::string(kMaxSettingTextBytes + 1, 'x')), false},
      {longName, "n", SettingValue::Number(1), false},
      {"K", longName, SettingValue::Number(1), false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name.substr(0, 20));
    try {
      store->Set(c.key, c.name, c.value);
      EXPECT_TRUE(c.stored);
    } catch (const Error& e) {
      EXPECT_FALSE(c.stored);
      EXPECT_EQ(e.code(), result::kInvalidArg);
    }
    EXPECT_EQ(store->Get(c.key, c.name), c.stored ? std::optional(c.value) : std::nullopt);
  }

  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open((dir_ / "settings.db").c_str(), &db), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(db, "INSERT INTO settings VALUES ('K', 'hand made', 'text', hex(zeroblob(20000)))", nullptr,
                         nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(db);
  EXPECT_EQ(store->Get("K", "hand made"), std::nullopt);
  EXPECT_EQ(KeysAndNames(store->List("K")), std::vector<std::string>{"K|at the limit"});
}

TEST_F(SqliteSettingsStoreTest, DamagedFilesFailWithAClearDescriptionWithoutCrashing) {
  testing::WriteFile(dir_ / "settings.db", testing::PatternBytes(8192));
  try {
    Open();
    FAIL() << "opened a file of random bytes";
  } catch (const Error& e) {
    EXPECT_NE(e.description().find("settings.db"), std::string::npos) << e.description();
    EXPECT_NE(e.description().find("not a database"), std::string::npos) << e.description();
    EXPECT_NE(e.code(), 0u);
  }

  // A database whose pages after the first are damaged: reads miss, writes throw.
  std::filesystem::remove_all(dir_.path());
  std::filesystem::create_directory(dir_.path());
  {
    auto store = Open();
    for (int i = 0; i < 300; ++i) store->Set("Damaged", Format("value %d", i), SettingValue::Text(std::string(40, 'x')));
  }  // the last close checkpoints the log into the database file
  const std::string whole = testing::ReadFile(dir_ / "settings.db");
  ASSERT_GT(whole.size(), 3 * 4096u);
  testing::WriteFile(dir_ / "settings.db", whole.substr(0, 4096) + testing::PatternBytes(whole.size() - 4096));
  std::shared_ptr<SettingsStore> store;
  try {
    store = Open();
  } catch (const Error&) {
    return;  // refusing to open a damaged file is an acceptable outcome
  }
  EXPECT_EQ(store->Get("Damaged", "value 5"), std::nullopt);
  EXPECT_TRUE(store->List("Damaged").empty());
  try {
    store->Set("Damaged", "value 5", SettingValue::Number(1));
    FAIL() << "a write into a damaged database succeeded";
  } catch (const Error& e) {
    EXPECT_NE(e.description().find("malformed"), std::string::npos) << e.description();
  }
}

// Two processes, each writing from two threads through one store.
TEST_F(SqliteSettingsStoreTest, TwoProcessesOfTwoThreadsWritingAtOnceLoseNothing) {
  constexpr int kValuesPerWriter = 500;
  ASSERT_TRUE(testing::RunInChildren(2, [&](int writer) {
    auto store = Open();  // both race to create the file and the table
    auto write = [&](int first) {
      for (int i = first; i < kValuesPerWriter; i += 2) {
        store->Set(Format("Concurrent\\Writer %d", writer), Format("Value %d", i),
                   SettingValue::Number(static_cast<uint32_t>(writer * 100000 + i)));
      }
    };
    std::thread second(write, 1);
    write(0);
    second.join();
  }));
  auto store = Open();
  EXPECT_EQ(store->List("Concurrent").size(), 2u * kValuesPerWriter);
  for (int writer = 0; writer < 2; ++writer) {
    for (int i = 0; i < kValuesPerWriter; i += 97) {
      EXPECT_EQ(store->Get(Format("concurrent\\writer %d", writer), Format("value %d", i)),
                SettingValue::Number(static_cast<uint32_t>(writer * 100000 + i)));
    }
  }
}

}  // namespace
}  // namespace pkgdlv
