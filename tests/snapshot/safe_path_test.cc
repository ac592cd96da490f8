// Names and paths from documents that must stay inside their package folder.
#include "util/safe_path.h"

#include <gtest/gtest.h>

#include "util/error.h"

namespace pkgdlv {
namespace {

TEST(SafePathTest, NamesAndDocumentPaths) {
  const std::pair<std::string, bool> names[] = {
      {"file.txt", true}, {"a b", true},   {"...", true},       {"ünïcode", true},   {"x..y", true},
      {"", false},        {".", false},    {"..", false},       {"a/b", false},      {"a\\b", false},
      {"C:x", false},     {"x:", false},   {"/etc", false},     {"\\etc", false},  {"tab\there", false},
      {"nl\n", false},   {"del\x7F", false}, {"..\\..\\etc", false}, {std::string("nul\0x", 5), false},
  };
  for (const auto& [name, safe] : names) EXPECT_EQ(IsSafeRelativeName(name), safe) << PrintableName(name);
  const std::pair<std::string, bool> paths[] = {
      {"", true},        {"a", true},         {"a\\b\\c.txt", true}, {"\\a", false},  {"a\\", false},
      {"a\\\\b", false}, {"a\\..\\b", false}, {"..\\x", false},      {".\\x", false}, {"a/b", false},
      {"/abs", false},   {"C:\\x", false},    {"a\\b\x01", false},
  };
  for (const auto& [path, safe] : paths) EXPECT_EQ(IsSafeRelativePath(path), safe) << PrintableName(path);
}

TEST(SafePathTest, ResolveInsideJoinsWithSlashesAndRefusesEscapes) {
  EXPECT_EQ(ResolveInside("/pkg", "a\\b\\c.txt"), std::filesystem::path("/pkg/a/b/c.txt"));
  EXPECT_EQ(ResolveInside("/pkg/", "x"), std::filesystem::path("/pkg/x"));
  EXPECT_EQ(ResolveInside("/pkg", ""), std::filesystem::path("/pkg"));
  EXPECT_EQ(ResolveInside("rel/pkg", "a"), std::filesystem::path("rel/pkg/a"));
  for (const char* bad : {"..\\..\\etc\\passwd", "\\etc", "/etc", "a/../../x", "C:\\Windows", "a\\\n"}) {
    try {
      ResolveInside("/pkg", bad);
      ADD_FAILURE() << "accepted " << PrintableName(bad);
    } catch (const Error& e) {
      EXPECT_EQ(e.code(), 0x80070057u);
      EXPECT_EQ(e.description().rfind("Unsafe path '", 0), 0u) << e.description();
      EXPECT_EQ(e.description().find('\n'), std::string::npos);
    }
  }
}

}  // namespace
}  // namespace pkgdlv
