// pkgdlv queue over a work folder written by the test.
#include <map>

#include "cli_test_support.h"
#include "util/format.h"

namespace pkgdlv {
namespace {

using QueueCliTest = CliTest;

std::string IdOf(int n) { return Format("{00000000-0000-0000-0000-%012d}", n); }

void WritePackage(const fs::path& folder, const std::string& id, const char* status, const char* priority, int size) {
  WriteFile(folder / "package.xml", Format("<Package id=\"%hs\" name=\"n\" size=\"%d\" version=\"1\" priority=\"%hs\" "
                                           "status=\"%hs\"/>",
                                           id, size, priority, status));
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

TEST_F(QueueCliTest, ListsUnfinishedPackagesInDownloadOrderAndWritesNothing) {
  const fs::path work = dir_ / "work";
  const auto folder = [&](int n) { return work / IdOf(n); };
  WritePackage(folder(1), IdOf(1), "pending", "Normal", 300);
  WritePackage(folder(2), IdOf(2), "retrying", "Normal", 100);
  WritePackage(folder(3), IdOf(3), "downloading", "High", 900);
  WritePackage(folder(4), IdOf(4), "valid", "High", 1);
  // Folder names are matched to identifiers in any case.
  WritePackage(work / "{0000000a-0000-0000-0000-00000000000b}", "{0000000A-0000-0000-0000-00000000000B}", "pending",
               "Low", 50);
  WriteFile(folder(5) / "package.xml", "not xml");
  WriteFile(work / "stray" / "package.xml", "<Package/>");
  // A package-named link to a folder outside the store: never read or written.
  WritePackage(dir_ / "foreign", IdOf(6), "pending", "High", 7);
  fs::create_directory_symlink(dir_ / "foreign", folder(6));
  const auto before = Contents(work);
  const auto foreignBefore = Contents(dir_ / "foreign");

  nlohmann::json entries = nlohmann::json::parse(Ok("queue --json --work-folder " + Quote(work)));
  std::vector<std::string> ids;
  for (const auto& entry : entries) ids.push_back(entry["id"]);
  EXPECT_EQ(ids, (std::vector<std::string>{IdOf(3), IdOf(2), IdOf(1), "{0000000A-0000-0000-0000-00000000000B}"}));
  // The status is what the engine would make of it.
  EXPECT_EQ(std::make_tuple(entries[0]["priority"], entries[0]["missingBytes"], entries[0]["status"]),
            std::make_tuple(10, 900, "pending"));
  EXPECT_EQ(Contents(work), before);
  EXPECT_EQ(Contents(dir_ / "foreign"), foreignBefore);
}

}  // namespace
}  // namespace pkgdlv
