// pkgdlv queue over a work folder written by the test.
#include <map>

#include "cli_test_support.h"
#include "util/format.h"

namespace pkgdlv {
namespace {

void WritePackage(const fs::path& work, const char* id, const char* status, const char* priority, int size,
                  std::string folderName = {}) {
  WriteFile(work / (folderName.empty() ? std::string(id) : folderName) / "package.xml",
            Format("<Package id=\"%hs\" name=\"n%d\" size=\"%d\" version=\"1\" priority=\"%hs\" status=\"%hs\"/>", id,
                   size, size, priority, status));
}

// Every file below folder with its bytes, links not followed.
std::map<std::string, std::string> Contents(const fs::path& folder) {
  std::map<std::string, std::string> files;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    if (entry.is_symlink()) {
      files[entry.path().string()] = "-> " + fs::read_symlink(entry.path()).string();
    } else if (entry.is_regular_file()) {
      files[entry.path().string()] = ReadFile(entry.path());
    }
  }
  return files;
}

TEST(QueueCliTest, ListsUnfinishedPackagesInDownloadOrderAndWritesNothing) {
  TempDir dir;
  const fs::path work = dir / "work";
  WritePackage(work, "{00000000-0000-0000-0000-000000000001}", "pending", "Normal", 300);
  WritePackage(work, "{00000000-0000-0000-0000-000000000002}", "retrying", "Normal", 100);
  WritePackage(work, "{00000000-0000-0000-0000-000000000003}", "downloading", "High", 900);
  WritePackage(work, "{00000000-0000-0000-0000-000000000004}", "valid", "High", 1);
  WritePackage(work, "{0000000A-0000-0000-0000-00000000000B}", "pending", "Low", 50,
               "{0000000a-0000-0000-0000-00000000000b}");
  WriteFile(work / "{00000000-0000-0000-0000-000000000005}" / "package.xml", "not xml");
  WriteFile(work / "stray" / "package.xml", "<Package/>");
  // A package-named link to a folder outside the store: never read or written.
  WritePackage(dir / "foreign", "{00000000-0000-0000-0000-000000000006}", "pending", "High", 7, "elsewhere");
  fs::create_directory_symlink(dir / "foreign" / "elsewhere", work / "{00000000-0000-0000-0000-000000000006}");
  const auto before = Contents(work);
  const auto foreignBefore = Contents(dir / "foreign");

  ToolResult listed = RunTool("queue --json --work-folder '" + work.string() + "'", {}, dir / "home");
  ASSERT_EQ(listed.exit_code, 0) << listed.err;
  nlohmann::json entries = nlohmann::json::parse(listed.out);
  std::vector<std::string> ids;
  for (const auto& entry : entries) ids.push_back(entry["id"]);
  EXPECT_EQ(ids, (std::vector<std::string>{"{00000000-0000-0000-0000-000000000003}",
                                           "{00000000-0000-0000-0000-000000000002}",
                                           "{00000000-0000-0000-0000-000000000001}",
                                           "{0000000A-0000-0000-0000-00000000000B}"}));
  EXPECT_EQ(entries[0]["priority"], 10);
  EXPECT_EQ(entries[0]["missingBytes"], 900);
  EXPECT_EQ(entries[0]["status"], "pending");  // what the engine would make of it
  EXPECT_EQ(Contents(work), before);
  EXPECT_EQ(Contents(dir / "foreign"), foreignBefore);
}

}  // namespace
}  // namespace pkgdlv
