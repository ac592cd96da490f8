// pkgdlv frame pack|unpack|info: the compressed data frame from the command
// line, standard input to standard output unless -i / -o name files (-i only
// a regular file). Unpacking streams: memory stays flat for any frame size.
// Needs none of the agent's services.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "agent/logger.h"
#include "cli/command_registry.h"
#include "util/compressed_frame.h"
#include "util/error.h"
#include "util/file_reader.h"
#include "util/format.h"

namespace pkgdlv::cli {
namespace {

struct FrameArguments {
  std::string input;   // empty: standard input
  std::string output;  // empty: standard output
  int level = 1;
  bool json = false;
};

std::string SystemError() { return std::strerror(errno); }

// Where the frame commands read from: standard input, or a regular file
// named by -i (a FIFO or device is refused, never waited on).
class Input {
 public:
  explicit Input(const FrameArguments& args) {
    if (!args.input.empty()) file_.emplace(args.input);
  }
  // Up to buffer.size() bytes; 0 at the end.
  size_t Read(std::span<uint8_t> buffer) {
    if (file_) return file_->Read(buffer);
    const size_t got = std::fread(buffer.data(), 1, buffer.size(), stdin);
    if (got < buffer.size() && std::ferror(stdin)) throw CommandFailure{"cannot read standard input: " + SystemError()};
    return got;
  }

 private:
  std::optional<FileReader> file_;
};

Input OpenInput(const FrameArguments& args) {
  try {
    return Input(args);
  } catch (const Error& e) {
    if (e.code() == result::kInvalidArg) throw CommandFailure{e.description()};
    throw CommandFailure{"cannot open '" + args.input + "': " + SystemError()};
  }
}

// Where the frame commands write to: standard output, or the file named by
// -o, which is removed again when the command fails part-way.
class Output {
 public:
  explicit Output(const FrameArguments& args) : path_(args.output) {
    if (path_.empty()) return;
    file_ = std::fopen(path_.c_str(), "wb");
    if (!file_) throw CommandFailure{"cannot create '" + path_ + "': " + SystemError()};
  }
  ~Output() {
    if (!file_) return;
    std::fclose(file_);
    if (!committed_) std::remove(path_.c_str());
  }
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  void Write(std::span<const uint8_t> data) {
    if (!data.empty() && std::fwrite(data.data(), 1, data.size(), stream()) != data.size()) Fail();
  }
  void Commit() {
    if (std::fflush(stream()) != 0) Fail();
    if (file_) {
      FILE* file = std::exchange(file_, nullptr);
      if (std::fclose(file) != 0) {
        std::remove(path_.c_str());
        Fail();
      }
    }
    committed_ = true;
  }

 private:
  FILE* stream() const { return file_ ? file_ : stdout; }
  [[noreturn]] void Fail() const {
    throw CommandFailure{"cannot write " + (path_.empty() ? std::string("standard output") : "'" + path_ + "'") +
                         ": " + SystemError()};
  }

  std::string path_;
  FILE* file_ = nullptr;
  bool committed_ = false;
};

[[noreturn]] void FailWithLastFrameError() {
  Failure failure = LastFrameFailure();
  if (failure.description.empty()) {
    throw CommandFailure{Format("Truncated frame: a chunk runs past the end of the data (0x%08X)", failure.code)};
  }
  throw CommandFailure{failure.description};
}

// Packing needs the whole input (the header counts the chunks and sums their
// CRCs before the first of them).
void Pack(const FrameArguments& args) {
  Input input = OpenInput(args);
  std::vector<uint8_t> data;
  for (size_t size = 0;;) {
    data.resize(size + (1 << 20));
    const size_t got = input.Read(std::span(data).subspan(size));
    size += got;
    if (got == 0) {
      data.resize(size);
      break;
    }
  }
  NullLogger log;
  if (!Compress(data, args.level, 0, log)) FailWithLastFrameError();
  Output output(args);
  output.Write(data);
  output.Commit();
}

// Unpacks chunk by chunk, so memory stays flat for a frame of any size; the
// output of a frame that fails part-way (a bad chunk, the crc sum) is
// incomplete, and a file named by -o is removed then.
FrameSummary Unpack(const FrameArguments& args, Output* output) {
  Input input = OpenInput(args);
  try {
    return UnpackFrameStream([&input](std::span<uint8_t> buffer) { return input.Read(buffer); },
                             [output](std::span<const uint8_t> data) {
                               if (output) output->Write(data);
                             });
  } catch (const Error& e) {
    if (e.code() == result::kEndOfData) {
      throw CommandFailure{Format("%ls (0x%08X)", e.description(), e.code())};
    }
    throw CommandFailure{e.description()};
  }
}

void UnpackToOutput(const FrameArguments& args) {
  Output output(args);
  Unpack(args, &output);
  output.Commit();
}

// The header's fields and, after a full unpack (which checks every chunk and
// the crc sum), the unpacked size.
void Info(const FrameArguments& args) {
  const FrameSummary summary = Unpack(args, nullptr);
  if (args.json) {
    nlohmann::json out = {{"frameSize", summary.frame_size},
                          {"chunks", summary.chunks},
                          {"crcSum", summary.crc_sum},
                          {"unpackedSize", summary.unpacked_size}};
    std::cout << out.dump(2) << "\n";
    return;
  }
  std::cout << Format("frame size:    %I64u bytes\n", summary.frame_size)
            << Format("chunks:        %u\n", summary.chunks) << Format("crc sum:       0x%016I64X\n", summary.crc_sum)
            << Format("unpacked size: %I64u bytes\n", summary.unpacked_size);
}

void Install(CLI::App& app, Context&) {
  CLI::App* frame = app.add_subcommand("frame", "Pack data into, or unpack it from, the compressed data frame");
  frame->require_subcommand(1);
  auto args = std::make_shared<FrameArguments>();
  auto add_files = [&args](CLI::App* command, bool with_output) {
    command->add_option("-i,--input", args->input, "Read this file instead of standard input");
    if (with_output) command->add_option("-o,--output", args->output, "Write this file instead of standard output");
  };

  CLI::App* pack = frame->add_subcommand("pack", "Pack the input into a frame");
  add_files(pack, true);
  pack->add_option("-l,--level", args->level, "zlib compression level")->check(CLI::Range(-1, 9))->default_val(1);
  pack->callback([args] { Pack(*args); });

  CLI::App* unpack = frame->add_subcommand("unpack", "Unpack a frame, checking every chunk and the crc sum");
  add_files(unpack, true);
  unpack->callback([args] { UnpackToOutput(*args); });

  CLI::App* info = frame->add_subcommand("info", "Describe a frame: size, chunk count, crc sum, unpacked size");
  add_files(info, false);
  info->add_flag("--json", args->json, "Print a JSON object {frameSize, chunks, crcSum, unpackedSize}");
  info->callback([args] { Info(*args); });
}

const CommandRegistration registration(10, Install);

}  // namespace
}  // namespace pkgdlv::cli
