// pkgdlv queue and pkgdlv history over a work folder and a package log
// written by the test.
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

using HistoryCliTest = CliTest;

TEST_F(HistoryCliTest, PrintsTotalsAndCyclesOrFailsWithTheReason) {
  WriteFile(dir_ / "pkg" / "log.xml",
            R"(<Log id="{X}" attempts="3" successes="1" transferBytes="10"><History>)"
            R"(<Download version="2" status="retrying" statusDescr="Server is busy" transferBytes="4">)"
            R"(<Session startTime="2026-03-01 09:00:03" source="http://ps/x" result="-2147213300"/></Download>)"
            R"(</History></Log>)");
  nlohmann::json out = nlohmann::json::parse(Ok("history --json " + Quote(dir_ / "pkg")));
  EXPECT_EQ(out["failures"], 2);
  EXPECT_EQ(out["history"][0]["result"], "0x8004200C");
  EXPECT_EQ(out["history"][0]["statusDescr"], "Server is busy");

  WriteFile(dir_ / "bad" / "log.xml", "<PackageLog id=\"{X}\"/>");
  EXPECT_NE(Fails("history " + Quote(dir_ / "bad")).find("Error loading log: Invalid XML: Incorrect root element"),
            std::string::npos);
}

}  // namespace
}  // namespace pkgdlv
