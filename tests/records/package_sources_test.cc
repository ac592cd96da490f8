#include <gtest/gtest.h>

#include "records/package_request.h"
#include "records/package_test_support.h"

namespace pkgdlv {
namespace {

using testing::kPackageId;
using testing::RecordServices;

std::string Doc(const std::string& children, const std::string& attributes = "") {
  return std::string("<Package id=\"") + kPackageId + "\" " + attributes + ">" + children + "</Package>";
}

TEST(DecodeCodebaseLocationTest, FileUrlsBecomePathsOtherValuesStay) {
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"file:///C:/a%20b/", "\\\\\\C:\\a b\\"},
      {"FILE://host/share/x", "\\\\host\\share\\x"},
      {"file:/srv/a%2Fb", "\\srv\\a\\b"},
      {"file:///p/%C3%A9t%C3%A9", "\\\\\\p\\été"},
      {"file:%E2%9C%93", "✓"},
      {"file:///p/100%25", "\\\\\\p\\100%"},
      // Not decodable: kept as written.
      {"file:///p/%C3", "\\\\\\p\\%C3"},
      {"file:///p/%C3%28", "\\\\\\p\\%C3("},
      {"file:///p/%C0%AF", "\\\\\\p\\%C0%AF"},  // an overlong "/"
      {"file:///p/%zz%4", "\\\\\\p\\%zz%4"},
      {"file:///p/%00%0A%7F", "\\\\\\p\\%00%0A%7F"},
      {"file:", ""},
      // Absolute paths of this computer.
      {"/srv/pkgs/a b", "\\\\\\srv\\pkgs\\a b"},
      // Not file URLs.
      {"http://h/PS/Share/a%20b", "http://h/PS/Share/a%20b"},
      {"\\\\srv\\share", "\\\\srv\\share"},
      {"//srv/share/a%20b", "//srv/share/a%20b"},
      {"", ""},
  };
  for (const auto& [value, stored] : cases) EXPECT_EQ(DecodeCodebaseLocation(value), stored) << value;
}

TEST(SourceListTest, CodebaseAttributes) {
  struct Case {
    std::string codebase;
    std::string location;
    bool packageServer;
    uint32_t sourceType;
    std::string snapshot;
  };
  const Case cases[] = {
      {R"(<Codebase href="http://a/PS/Share/p" url="http://b/" unc="\\c\d"/>)", "http://a/PS/Share/p", true, 0, ""},
      {R"(<Codebase url="http://b/ps/share/x" codebaseSourceType="qs"/>)", "http://b/ps/share/x", true, 1, ""},
      {R"(<Codebase unc="//srv/PKGSVRHOST/p" codebaseSourceType="QS2"/>)", "//srv/PKGSVRHOST/p", true, 0, ""},
      {R"(<Codebase unc="\\srv\PkgSvrHost\p"/>)", "\\\\srv\\PkgSvrHost\\p", false, 0, ""},
      {R"(<Codebase href="http://a/PkgSvrHost/"/>)", "http://a/PkgSvrHost/", false, 0, ""},
      {R"(<codebase HREF="x" href="file:///s" snapshot="file:///s%20x.xml"/>)", "\\\\\\s", false, 0, "\\\\\\s x.xml"},
  };
  for (const Case& c : cases) {
    RecordServices services;
    auto record = services.NewRecord();
    ASSERT_TRUE(record->LoadFromXml(Doc("<Source><Unknown href=\"ignored\"/>" + c.codebase + "</Source>")))
        << c.codebase;
    ASSERT_EQ(record->codebases.size(), 1u) << c.codebase;
    const CodebaseEntry& entry = record->codebases[0];
    EXPECT_EQ(entry.location, c.location) << c.codebase;
    EXPECT_EQ(entry.packageServer, c.packageServer) << c.codebase;
    EXPECT_EQ(entry.sourceType, c.sourceType) << c.codebase;
    EXPECT_EQ(entry.snapshotLocation, c.snapshot) << c.codebase;
  }
}

TEST(SourceListTest, WhereTheSourceElementIsFound) {
  struct Case {
    std::string children;
    std::vector<std::string> locations;  // after the load; the record starts with "old"
  };
  const Case cases[] = {
      {R"(<Codebases><Codebase href="c1"/></Codebases><Source><Codebase href="s1"/></Source>)", {"s1"}},
      {R"(<Extra><Codebases><Codebase href="deep"/></Codebases></Extra>)", {"deep"}},
      {R"(<x><codebases><CODEBASE href="lower"/></codebases></x>)", {"lower"}},
      {R"(<Source time="2026-01-01T00:00:00"/>)", {}},
      {R"(<Other/>)", {"old"}},
  };
  for (const Case& c : cases) {
    RecordServices services;
    auto record = services.NewRecord();
    record->codebases.emplace_back().location = "old";
    ASSERT_TRUE(record->LoadFromXml(Doc(c.children))) << c.children;
    std::vector<std::string> locations;
    for (const CodebaseEntry& entry : record->codebases) locations.push_back(entry.location);
    EXPECT_EQ(locations, c.locations) << c.children;
  }
}

// ---- The source response ----

constexpr const char* kPassword = "Pa$$w0rd-S3cret";

class SourcesResponseTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(record_->LoadFromXml(
        Doc(R"(<Source time="2025-01-01T00:00:00"><SiteQuery url="http://qs1/q" resource="r0" type="codebases"/>)"
            R"(<Codebase href="http://old/"/></Source>)",
            "sourceKey=\"T0xE\"")));
    services_.log->Clear();
  }
  void TearDown() override {
    for (const testing::LogLine& line : services_.log->Lines()) {
      EXPECT_EQ(line.message.find(kPassword), std::string::npos) << "password logged: " << line.message;
    }
    EXPECT_EQ(record_->ToXml(PackageRequest::PasswordForm::kMasked).find(kPassword), std::string::npos);
  }
  std::vector<std::string> Locations() {
    std::vector<std::string> out;
    for (const CodebaseEntry& entry : record_->codebases) out.push_back(entry.location);
    return out;
  }

  RecordServices services_;
  std::unique_ptr<PackageRequest> record_ = services_.NewRecord();
};

TEST_F(SourcesResponseTest, TakesCodebasesAccountKeyAndFlags) {
  ASSERT_TRUE(record_->ApplySourcesResponse(
      std::string(R"(<response username="bob" domain="CORP" password=")") + kPassword +
      R"(" timeoutExceeded="true"><Codebases time="2026-01-01T10:00:00">)"
      R"(<SiteQuery url="http://qs2/q" resource="res" type="packageServers"/>)"
      R"(<Codebase href="http://ps/PS/Share/p"/></Codebases><package sourceKey="S0VZ" optionalHashCheck="true"/>)"
      R"(</response>)"));
  EXPECT_EQ(Locations(), std::vector<std::string>{"http://ps/PS/Share/p"});
  EXPECT_TRUE(record_->codebases[0].packageServer);
  EXPECT_EQ(record_->sourceTime, *ParseDocumentTime("2026-01-01T10:00:00"));
  EXPECT_EQ(record_->siteQueryUrl, "http://qs1/q") << "the response replaces resource and type only";
  EXPECT_EQ(record_->siteQueryResource, "res");
  EXPECT_TRUE(record_->IsPackageServerQuery());
  EXPECT_EQ(record_->UserAccessName, "CORP\\bob");
  EXPECT_EQ(record_->UserAccessPassword(), kPassword);
  EXPECT_EQ(record_->sourceKey, "S0VZ");
  EXPECT_TRUE(record_->optionalHashCheck());
  EXPECT_TRUE(record_->snapshot().hashNotRequired) << "the snapshot keeps its copy of optionalHashCheck";
  EXPECT_TRUE(record_->timeoutExceeded);
  EXPECT_TRUE(services_.log->Lines().empty());

  // The next answer: a user without a domain, no password (the old one stays),
  // no time (now), no site query, timeoutExceeded absent.
  ASSERT_TRUE(record_->ApplySourcesResponse(R"(<r username="alice"><Source><Codebase unc="\\s\p"/></Source></r>)"));
  EXPECT_EQ(record_->UserAccessName, "alice");
  EXPECT_EQ(record_->UserAccessPassword(), kPassword);
  EXPECT_EQ(record_->sourceTime, services_.clock->Now());
  EXPECT_EQ(record_->siteQueryResource, "res");
  EXPECT_FALSE(record_->timeoutExceeded);
  ASSERT_TRUE(record_->ApplySourcesResponse(R"(<r password="new"/>)"));
  EXPECT_EQ(record_->UserAccessPassword(), "new");
  EXPECT_TRUE(record_->codebases.empty()) << "an answer without sources leaves none";
}

TEST_F(SourcesResponseTest, RefusedAnswersChangeNothing) {
  const std::pair<std::string, std::string> cases[] = {
      // The parser's reason follows, and never the password it read.
      {std::string("<r password=\"") + kPassword + "\"",
       "Invalid source XML: XML failed to load, error: attributes construct error (line 1)"},
      {"", "Invalid source XML: XML failed to load, error: Document is empty (line 1)"},
      {std::string("<r password=\"") + kPassword +
           "\"><Source><Codebase href=\"http://new/\"/><Codebase/></Source></r>",
       "Invalid package XML: source requires a href or unc attribute with a value"},
  };
  for (const auto& [text, warning] : cases) {
    services_.log->Clear();
    EXPECT_FALSE(record_->ApplySourcesResponse(text)) << text;
    EXPECT_EQ(services_.Messages(loglevel::kWarning), std::vector<std::string>{warning}) << text;
    EXPECT_EQ(Locations(), std::vector<std::string>{"http://old/"}) << text;
    EXPECT_EQ(record_->UserAccessPassword(), "") << text;
  }
}

TEST_F(SourcesResponseTest, MissingKey) {
  struct Case {
    std::string name;
    std::string package;  // the package element of the answer
    std::string siteQueryType;
    std::string key;  // sourceKey afterwards
    bool info;        // "Security key ... missing" logged
  };
  const Case cases[] = {
      {"KeyGiven", R"(<package sourceKey="TkVX"/>)", "codebases", "TkVX", false},
      {"CapitalPackageElement", R"(<Package sourceKey="Q0FQ"/>)", "codebases", "Q0FQ", false},
      {"NoKeyCheckRequired", R"(<package/>)", "codebases", "T0xE", true},
      {"EmptyKeyCheckRequired", R"(<package sourceKey=""/>)", "codebases", "T0xE", true},
      {"NoPackageElement", "", "codebases", "T0xE", true},
      {"NoKeyPackageServers", R"(<package optionalHashCheck="true"/>)", "packageServers", "T0xE", true},
      {"NoKeyCheckSkippable", R"(<package optionalHashCheck="yes"/>)", "codebases", "", false},
  };
  for (const Case& c : cases) {
    RecordServices services;
    auto record = services.NewRecord();
    record->sourceKey = "T0xE";
    record->siteQueryType = c.siteQueryType;
    ASSERT_TRUE(record->ApplySourcesResponse("<r>" + c.package + "</r>")) << c.name;
    EXPECT_EQ(record->sourceKey, c.key) << c.name;
    std::vector<std::string> expected;
    if (c.info) {
      expected.push_back(
          "Security key for package validation is missing from response. Previously stored key will be used (if "
          "exist).");
    }
    EXPECT_EQ(services.Messages(loglevel::kInfo), expected) << c.name;
  }
}

}  // namespace
}  // namespace pkgdlv
