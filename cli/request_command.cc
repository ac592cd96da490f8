// pkgdlv request show: reads a package request document the way the
// component does and prints the "package.xml" the record would write, with
// the warnings the reading produced. Needs no agent settings or data folder.
#include <iostream>
#include <iterator>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "agent/clock.h"
#include "agent/crypto.h"
#include "cli/command_registry.h"
#include "cli/document_input.h"
#include "records/package_request.h"
#include "util/atomic_file.h"
#include "util/strings.h"

namespace pkgdlv::cli {
namespace {

// Keeps the component's error, warning and information lines.
class CollectingLogger final : public Logger {
 public:
  struct Line {
    uint32_t severity;
    std::string component;
    std::string message;
  };

  bool IsEnabled(uint32_t level) override {
    return (level & loglevel::kSilent) == 0 && EffectiveSeverity(level) <= loglevel::kInfo;
  }
  void Write(uint32_t level, std::string_view component, std::string_view message) noexcept override {
    try {
      std::lock_guard lock(mutex_);
      lines_.push_back({EffectiveSeverity(level), std::string(component), std::string(message)});
    } catch (...) {  // a line that cannot be kept is dropped
    }
  }
  std::vector<Line> lines() {
    std::lock_guard lock(mutex_);
    return lines_;
  }

 private:
  std::mutex mutex_;
  std::vector<Line> lines_;
};

const char* LevelName(uint32_t severity) {
  switch (severity) {
    case loglevel::kError: return "error";
    case loglevel::kWarning: return "warning";
    default: return "info";
  }
}

nlohmann::json Summary(const PackageRequest& record) {
  auto guard = record.Lock();
  nlohmann::json codebases = nlohmann::json::array();
  for (const CodebaseEntry& codebase : record.codebases) {
    codebases.push_back({{"location", codebase.location},
                         {"snapshot", codebase.snapshotLocation},
                         {"packageServer", codebase.packageServer},
                         {"sourceType", codebase.sourceType}});
  }
  return {{"id", record.id().ToString()},
          {"name", record.name},
          {"version", record.version()},
          {"priority", record.priority},
          {"status", std::string(StatusName(record.status()))},
          {"size", record.GetSize()},
          {"locallyManaged", record.IsLocallyManaged()},
          {"hasSnapshot", record.hasSnapshot},
          {"codebases", codebases}};
}

struct ShowArgs {
  std::string request;
  bool json = false;
};

void Show(const ShowArgs& args, Context& context) {
  auto log = std::make_shared<CollectingLogger>();
  PackageRequest record(log, NewSystemClock(), NewOpenSslCrypto());
  std::string text = ReadDocumentArgument(args.request);
  bool loaded = record.LoadFromXml(text);
  WipeString(text);
  std::vector<CollectingLogger::Line> lines = log->lines();

  if (args.json) {
    nlohmann::json warnings = nlohmann::json::array();
    for (const CollectingLogger::Line& line : lines) {
      warnings.push_back(
          {{"level", LevelName(line.severity)}, {"component", line.component}, {"message", line.message}});
    }
    nlohmann::json out = {{"loaded", loaded}, {"warnings", warnings}};
    if (loaded) {
      out["package"] = Summary(record);
      out["packageXml"] = record.ToXml(PackageRequest::PasswordForm::kMasked);
    }
    std::cout << out.dump(2) << "\n";
    if (!loaded) context.exit_code = 1;
    return;
  }
  if (loaded) std::cout << record.ToXml(PackageRequest::PasswordForm::kMasked);
  std::cout.flush();
  for (const CollectingLogger::Line& line : lines) {
    std::cerr << SeverityTag(line.severity) << ' ' << line.component << ": " << line.message << '\n';
  }
  if (!loaded) throw CommandFailure{"'" + args.request + "' is not a valid package request"};
}

void Install(CLI::App& app, Context& context) {
  CLI::App* request = app.add_subcommand("request", "Read package request documents");
  request->require_subcommand(1);

  auto show = std::make_shared<ShowArgs>();
  CLI::App* s = request->add_subcommand(
      "show",
      "Parse a package request document and print the package.xml the record would write, then the warnings (on "
      "standard error). A password is printed as ********. Exit code 1 when the document is refused.");
  s->add_option("REQUEST", show->request, "The request document (\"-\" for standard input)")->required();
  s->add_flag("--json", show->json,
              "Print a JSON object: loaded, warnings (level, component, message), package (a summary) and "
              "packageXml (password masked)");
  s->callback([show, &context] { Show(*show, context); });
}

const CommandRegistration registration(20, Install);

}  // namespace
}  // namespace pkgdlv::cli
