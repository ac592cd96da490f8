// The agent log file on disk: the cross-process lock, rollover by size, and
// the append. Internal to the agent log.
//
// Every process that appends to a log file takes an exclusive flock on
// "<file name>.lock" beside it first, so rollover and append happen one
// process after another. The lock file is never removed: a process that
// removed it could let the next two lock different files.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

namespace pkgdlv::agent_log {

// Builds the text to append; is_new_file is true when the file was empty.
using RecordBuilder = std::function<std::string(bool is_new_file)>;

struct AppendRequest {
  std::filesystem::path folder;
  std::string file_name;
  uint64_t max_bytes = 0;  // roll over when the file is larger
  uint32_t max_files = 0;  // files of the set kept, counting the current one
};

// Creates the folder when missing, takes the lock, rolls the file over when
// it is larger than max_bytes, opens it for appending and writes the built
// text with one write. False when the text could not be written (nothing is
// thrown); then failure, when given, receives why ("cannot open '<file>':
// Permission denied"). The caller serialises the threads of its own process.
bool AppendToLogFile(const AppendRequest& request, const RecordBuilder& build, std::string* failure = nullptr);

// The file name that takes the place of the current one at rollover n:
// "Agent.log" and 3 give "Agent3.log".
std::string NumberedFileName(const std::string& file_name, unsigned n);

// Rollover of a file that has grown too large: when the set (files of the
// folder named base name*extension) already holds max_files files, the one
// written longest ago other than the current file is deleted; then the
// current file is renamed to the first numbered name that does not exist.
// Failures leave the file where it is.
void RollOver(const std::filesystem::path& folder, const std::string& file_name, uint32_t max_files);

}  // namespace pkgdlv::agent_log
