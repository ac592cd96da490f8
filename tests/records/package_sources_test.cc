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
      {"//srv/share/a%20b", "//srv/share/a%20b"},
  };
  for (const auto& [value, stored] : cases) EXPECT_EQ(DecodeCodebaseLocation(value), stored) << value;
}

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
  // The response replaces the site query's resource and type only.
  EXPECT_EQ(std::tuple(record_->codebases[0].packageServer, record_->sourceTime, record_->siteQueryUrl,
                       record_->siteQueryResource, record_->IsPackageServerQuery()),
            std::tuple(true, *ParseDocumentTime("2026-01-01T10:00:00"), "http://qs1/q", "res", true));
  EXPECT_EQ(std::tuple(record_->UserAccessName, record_->UserAccessPassword(), record_->sourceKey),
            std::tuple("CORP\\bob", kPassword, "S0VZ"));
  // The snapshot keeps its copy of optionalHashCheck.
  EXPECT_EQ(std::tuple(record_->optionalHashCheck(), record_->snapshot().hashNotRequired, record_->timeoutExceeded),
            std::tuple(true, true, true));
  EXPECT_TRUE(services_.log->Lines().empty());

  // The next answer: a user without a domain, no password (the old one stays),
  // no time (now), no site query, timeoutExceeded absent.
  ASSERT_TRUE(record_->ApplySourcesResponse(R"(<r username="alice"><Source><Codebase unc="\\s\p"/></Source></r>)"));
  EXPECT_EQ(std::tuple(record_->UserAccessName, record_->UserAccessPassword(), record_->sourceTime,
                       record_->siteQueryResource, record_->timeoutExceeded),
            std::tuple("alice", kPassword, services_.clock->Now(), "res", false));
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

// A missing key keeps the stored one, with a note, unless the check may be skipped.
TEST(SourcesResponseKeyTest, MissingKey) {
  const std::tuple<std::string, std::string, std::string> cases[] = {  // the answer's package element, type, key after
      {R"(<package sourceKey="TkVX"/>)", "codebases", "TkVX"},
      {R"(<Package sourceKey="Q0FQ"/>)", "codebases", "Q0FQ"},
      {R"(<package sourceKey=""/>)", "codebases", "T0xE"},
      {R"(<package optionalHashCheck="true"/>)", "packageServers", "T0xE"},
      {R"(<package optionalHashCheck="yes"/>)", "codebases", ""},
  };
  for (const auto& [package, siteQueryType, key] : cases) {
    SCOPED_TRACE(package);
    RecordServices services;
    auto record = services.NewRecord();
    record->sourceKey = "T0xE";
    record->siteQueryType = siteQueryType;
    ASSERT_TRUE(record->ApplySourcesResponse("<r>" + package + "</r>"));
    EXPECT_EQ(record->sourceKey, key);
    EXPECT_EQ(services.Messages(loglevel::kInfo).size(), key == "T0xE" ? 1u : 0u);
  }
}

}  // namespace
}  // namespace pkgdlv
