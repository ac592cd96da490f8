// pkgdlv log write|path: the agent log from the command line, for scripts
// and for checking that several processes can share the log.
#include <cstdint>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/agent_log.h"
#include "agent/logger.h"
#include "cli/command_registry.h"
#include "util/format.h"
#include "util/paths.h"
#include "util/strings.h"

namespace pkgdlv::cli {
namespace {

struct WriteArguments {
  std::string level = "4";
  std::string component = "pkgdlv";
  uint32_t count = 0;
  std::vector<std::string> words;
};

// Decimal or "0x" hexadecimal, so flags such as 0x4000004 can be given as they are documented.
uint32_t ParseLevel(const std::string& text) {
  std::string_view trimmed = TrimAscii(text);
  if (StartsWithNoCase(trimmed, "0x")) {
    if (std::optional<uint32_t> hex = ParseHex32(trimmed)) return *hex;
  } else if (std::optional<int64_t> n = ParseInt64(trimmed); n && *n >= 0 && *n <= UINT32_MAX) {
    return static_cast<uint32_t>(*n);
  }
  throw CommandFailure{"not a log level: '" + text + "' (a 32-bit number, decimal or 0x hexadecimal)"};
}

std::string JoinWords(const std::vector<std::string>& words) {
  std::string joined;
  for (const std::string& word : words) {
    if (!joined.empty()) joined += ' ';
    joined += word;
  }
  return joined;
}

// A line the filter drops is not an error: the command behaves as any other
// caller of the log would. A line the filter lets through but the file does
// not take (an unwritable folder, a full disk) fails the command, so that a
// script never believes it logged what it did not.
void Write(Logger& log, const WriteArguments& args) {
  const uint32_t level = ParseLevel(args.level);
  const std::string message = JoinWords(args.words);
  if (args.count == 0 && message.empty()) throw CommandFailure{"nothing to write: give a message or --count"};
  const uint64_t dropped_before = DroppedAgentLogLines(log).lines;
  if (args.count == 0) {
    log.Log(level, args.component, "%ls", message);
  } else {
    const std::string prefix = message.empty() ? "line" : message;
    for (uint32_t i = 1; i <= args.count; ++i) log.Log(level, args.component, "%ls %u", prefix, i);
  }
  const AgentLogDrops drops = DroppedAgentLogLines(log);
  if (drops.lines == dropped_before) return;
  const uint64_t lines = args.count == 0 ? 1 : args.count;
  throw CommandFailure{Format("%I64u of %I64u lines not written to the agent log: %ls", drops.lines - dropped_before,
                              lines, drops.last_reason)};
}

void Install(CLI::App& app, Context& context) {
  CLI::App* log = app.add_subcommand("log", "Write to the agent log, or show where it is");
  log->require_subcommand(1);

  auto args = std::make_shared<WriteArguments>();
  CLI::App* write = log->add_subcommand("write", "Write a line (or --count numbered lines) to the agent log");
  write->add_option("--level", args->level, "Severity and flags: 1 error, 2 warning, 4 info, 8 trace, ... (default 4)");
  write->add_option("--component", args->component, "Component name written as the record's source")
      ->capture_default_str();
  write->add_option("--count", args->count, "Write this many lines, numbered from 1 (\"MESSAGE n\", or \"line n\")");
  write->add_option("MESSAGE", args->words, "The message; several words are joined with spaces");
  write->callback([&context, args] { Write(*context.services().log, *args); });

  CLI::App* path = log->add_subcommand("path", "Print the path of the current log file");
  path->callback([&context] {
    AgentServices& services = context.services();
    std::cout << CurrentAgentLogFile(*services.settings, DefaultLogFolder(services.data_folder)).string() << "\n";
  });
}

const CommandRegistration registration(80, Install);

}  // namespace
}  // namespace pkgdlv::cli
