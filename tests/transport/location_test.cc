#include "transport/location.h"

#include <gtest/gtest.h>

#include "util/error.h"

namespace pkgdlv {
namespace {

struct Converted {
  const char* stored;
  TransportLocation::Kind kind;
  const char* url;
  const char* localPath;
};

class ConvertLocationTest : public ::testing::TestWithParam<Converted> {};

TEST_P(ConvertLocationTest, ConvertsStoredForm) {
  const Converted& c = GetParam();
  TransportLocation location = ConvertLocation(c.stored);
  EXPECT_EQ(location.kind, c.kind);
  EXPECT_EQ(location.url, c.url);
  EXPECT_EQ(location.localPath.string(), c.localPath);
  EXPECT_TRUE(HasKnownProtocol(c.stored));
}

using K = TransportLocation::Kind;
INSTANTIATE_TEST_SUITE_P(
    Forms, ConvertLocationTest,
    ::testing::Values(
        Converted{"http://server/pkg/a.bin", K::kHttp, "http://server/pkg/a.bin", ""},
        Converted{"HTTPS://server:8443/p?x=1&y=2#f", K::kHttp, "HTTPS://server:8443/p?x=1&y=2#f", ""},
        Converted{"Http://x/", K::kHttp, "Http://x/", ""},
        // The request document placed in the query as it stands is encoded here.
        Converted{"http://qs/GetPackageInfo.aspx?xml=<request a=\"1\"/>", K::kHttp,
                  "http://qs/GetPackageInfo.aspx?xml=%3Crequest%20a=%221%22/%3E", ""},
        Converted{"http://h/a\\b\r\n|{}^`\x7f\xc3\xa9%41", K::kHttp, "http://h/a%5Cb%0D%0A%7C%7B%7D%5E%60%7F%C3%A9%41",
                  ""},
        Converted{"\\\\\\srv\\pkg\\setup file.msi", K::kLocalFile, "file:///srv/pkg/setup%20file.msi",
                  "/srv/pkg/setup file.msi"},
        Converted{"\\\\\\srv\\pkg\\", K::kLocalFile, "file:///srv/pkg", "/srv/pkg"},
        Converted{"\\\\\\data\\100%\\#1?", K::kLocalFile, "file:///data/100%25/%231%3F", "/data/100%/#1?"},
        Converted{"\\\\host\\share\\dir\\f.txt", K::kSmb, "smb://host/share/dir/f.txt", ""},
        Converted{"\\\\host\\share", K::kSmb, "smb://host/share", ""},
        Converted{"\\\\host\\share name\\a&b", K::kSmb, "smb://host/share%20name/a%26b", ""}));

struct Refused {
  const char* stored;
  Result code;
};

class RefusedLocationTest : public ::testing::TestWithParam<Refused> {};

TEST_P(RefusedLocationTest, Throws) {
  const Refused& r = GetParam();
  try {
    ConvertLocation(r.stored);
    FAIL() << "accepted " << r.stored;
  } catch (const Error& e) {
    EXPECT_EQ(e.code(), r.code) << r.stored;
  }
  EXPECT_EQ(HasKnownProtocol(r.stored), r.code != result::kInvalidProtocol) << r.stored;
}

INSTANTIATE_TEST_SUITE_P(
    HostileAndUnknown, RefusedLocationTest,
    ::testing::Values(
        Refused{"ftp://server/pkg", result::kInvalidProtocol}, Refused{"gopher://h/", result::kInvalidProtocol},
        Refused{"file:///etc/passwd", result::kInvalidProtocol}, Refused{"smb://h/s", result::kInvalidProtocol},
        Refused{"/etc/passwd", result::kInvalidProtocol}, Refused{"C:\\pkg", result::kInvalidProtocol},
        Refused{"", result::kInvalidProtocol}, Refused{"\\single", result::kInvalidProtocol},
        Refused{"httpx://h/", result::kInvalidProtocol},
        // Known forms, hostile or malformed.
        Refused{"http://", result::kInvalidArg}, Refused{"http:///path", result::kInvalidArg},
        Refused{"http://h\r\nX-Injected: 1/", result::kInvalidArg}, Refused{"http://a b/", result::kInvalidArg},
        Refused{"http://@evil/", result::kInvalidArg}, Refused{"http://h\\x/", result::kInvalidArg},
        Refused{"\\\\\\", result::kInvalidArg}, Refused{"\\\\\\srv\\..\\etc\\passwd", result::kInvalidArg},
        Refused{"\\\\\\srv\\.\\x", result::kInvalidArg}, Refused{"\\\\\\srv\\\\x", result::kInvalidArg},
        Refused{"\\\\\\srv/../etc", result::kInvalidArg}, Refused{"\\\\\\srv\\a\x01", result::kInvalidArg},
        Refused{"\\\\host", result::kInvalidArg}, Refused{"\\\\host\\", result::kInvalidArg},
        Refused{"\\\\host\\share\\..\\..\\x", result::kInvalidArg}, Refused{"\\\\\\\\x\\y", result::kInvalidArg}));

}  // namespace
}  // namespace pkgdlv
