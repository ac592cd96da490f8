#include "transport/location.h"

#include <gtest/gtest.h>

#include "util/error.h"

namespace pkgdlv {
namespace {

using K = TransportLocation::Kind;

TEST(LocationTest, ConvertsStoredForms) {
  struct Case {
    const char *stored, *url, *localPath;
    K kind;
  } cases[] = {
      {"HTTPS://server:8443/p?x=1&y=2#f", "HTTPS://server:8443/p?x=1&y=2#f", "", K::kHttp},
      // The request document placed in the query as it stands is encoded here.
      {"http://qs/GetPackageInfo.aspx?xml=<request a=\"1\"/>",
       "http://qs/GetPackageInfo.aspx?xml=%3Crequest%20a=%221%22/%3E", "", K::kHttp},
      {"http://h/a\\b\r\n|{}^`\x7f\xc3\xa9%41", "http://h/a%5Cb%0D%0A%7C%7B%7D%5E%60%7F%C3%A9%41", "", K::kHttp},
      {"\\\\\\srv\\pkg\\setup file.msi", "file:///srv/pkg/setup%20file.msi", "/srv/pkg/setup file.msi", K::kLocalFile},
      {"\\\\\\srv\\pkg\\", "file:///srv/pkg", "/srv/pkg", K::kLocalFile},
      {"\\\\\\data\\100%\\#1?", "file:///data/100%25/%231%3F", "/data/100%/#1?", K::kLocalFile},
      {"\\\\host\\share", "smb://host/share", "", K::kSmb},
      {"\\\\host\\share name\\a&b", "smb://host/share%20name/a%26b", "", K::kSmb},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.stored);
    TransportLocation location = ConvertLocation(c.stored);
    EXPECT_EQ(std::make_tuple(location.kind, location.url, location.localPath.string()),
              std::make_tuple(c.kind, std::string(c.url), std::string(c.localPath)));
    EXPECT_TRUE(HasKnownProtocol(c.stored));
  }
}

TEST(LocationTest, RefusesHostileAndUnknownForms) {
  const char* const unknown[] = {"ftp://server/pkg", "file:///etc/passwd", "smb://h/s", "/etc/passwd", "C:\\pkg",
                                 "", "\\single", "httpx://h/"};
  // Known forms, hostile or malformed.
  const char* const invalid[] = {"http://", "http:///path", "http://h\r\nX-Injected: 1/", "http://a b/",
                                 "http://@evil/", "http://h\\x/", "\\\\\\", "\\\\\\srv\\..\\etc\\passwd",
                                 "\\\\\\srv\\.\\x", "\\\\\\srv\\\\x", "\\\\\\srv/../etc", "\\\\\\srv\\a\x01",
                                 "\\\\host", "\\\\host\\", "\\\\host\\share\\..\\..\\x", "\\\\\\\\x\\y"};
  for (const auto& [list, code] : {std::pair(std::span<const char* const>(unknown), result::kInvalidProtocol),
                                   std::pair(std::span<const char* const>(invalid), result::kInvalidArg)}) {
    for (const char* stored : list) {
      try {
        ConvertLocation(stored);
        ADD_FAILURE() << "accepted " << stored;
      } catch (const Error& e) {
        EXPECT_EQ(e.code(), code) << stored;
      }
      EXPECT_EQ(HasKnownProtocol(stored), code != result::kInvalidProtocol) << stored;
    }
  }
}

}  // namespace
}  // namespace pkgdlv
