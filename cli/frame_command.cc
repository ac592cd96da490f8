// pkgdlv frame pack|unpack|info: the compressed data frame from the command
// line, standard input to standard output unless -i / -o name files. Needs
// none of the agent's services.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "agent/logger.h"
#include "cli/command_registry.h"
#include "util/compressed_frame.h"
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

std::vector<uint8_t> ReadAll(FILE* file, const std::string& name) {
  std::vector<uint8_t> data;
  size_t size = 0;
  for (;;) {
    data.resize(size + (1 << 20));
    size_t got = std::fread(data.data() + size, 1, data.size() - size, file);
    size += got;
    if (got == 0) break;
  }
  data.resize(size);
  if (std::ferror(file)) throw CommandFailure{"cannot read " + name + ": " + SystemError()};
  return data;
}

std::vector<uint8_t> ReadInput(const FrameArguments& args) {
  if (args.input.empty()) return ReadAll(stdin, "standard input");
  std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(args.input.c_str(), "rb"), &std::fclose);
  if (!file) throw CommandFailure{"cannot open '" + args.input + "': " + SystemError()};
  return ReadAll(file.get(), "'" + args.input + "'");
}

void WriteAll(FILE* file, const std::vector<uint8_t>& data, const std::string& name) {
  const bool written = data.empty() || std::fwrite(data.data(), 1, data.size(), file) == data.size();
  if (!written || std::fflush(file) != 0) {
    throw CommandFailure{"cannot write " + name + ": " + SystemError()};
  }
}

void WriteOutput(const FrameArguments& args, const std::vector<uint8_t>& data) {
  if (args.output.empty()) return WriteAll(stdout, data, "standard output");
  std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(args.output.c_str(), "wb"), &std::fclose);
  if (!file) throw CommandFailure{"cannot create '" + args.output + "': " + SystemError()};
  WriteAll(file.get(), data, "'" + args.output + "'");
  if (std::fclose(file.release()) != 0) throw CommandFailure{"cannot write '" + args.output + "': " + SystemError()};
}

[[noreturn]] void FailWithLastFrameError() {
  Failure failure = LastFrameFailure();
  if (failure.description.empty()) {
    throw CommandFailure{Format("Truncated frame: a chunk runs past the end of the data (0x%08X)", failure.code)};
  }
  throw CommandFailure{failure.description};
}

void Pack(const FrameArguments& args) {
  std::vector<uint8_t> data = ReadInput(args);
  NullLogger log;
  if (!Compress(data, args.level, 0, log)) FailWithLastFrameError();
  WriteOutput(args, data);
}

void Unpack(const FrameArguments& args) {
  std::vector<uint8_t> data = ReadInput(args);
  NullLogger log;
  if (!Decompress(data, 0, log)) FailWithLastFrameError();
  WriteOutput(args, data);
}

uint64_t ReadLe(const std::vector<uint8_t>& data, size_t offset, int width) {
  uint64_t value = 0;
  for (int i = width - 1; i >= 0; --i) value = value << 8 | data[offset + i];
  return value;
}

// The header's fields and, after a full unpack (which checks every chunk and
// the crc sum), the unpacked size.
void Info(const FrameArguments& args) {
  std::vector<uint8_t> data = ReadInput(args);
  const size_t frame_size = data.size();
  const bool is_frame = IsCompressed(data.data(), data.size());
  const uint64_t crc_sum = is_frame ? ReadLe(data, 8, 8) : 0;
  const uint64_t chunk_count = is_frame ? ReadLe(data, 16, 4) : 0;
  NullLogger log;
  if (!Decompress(data, 0, log)) FailWithLastFrameError();
  if (args.json) {
    nlohmann::json out = {{"frameSize", frame_size},
                          {"chunks", chunk_count},
                          {"crcSum", crc_sum},
                          {"unpackedSize", data.size()}};
    std::cout << out.dump(2) << "\n";
    return;
  }
  std::cout << Format("frame size:    %I64u bytes\n", uint64_t{frame_size})
            << Format("chunks:        %I64u\n", chunk_count) << Format("crc sum:       0x%016I64X\n", crc_sum)
            << Format("unpacked size: %I64u bytes\n", uint64_t{data.size()});
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
  unpack->callback([args] { Unpack(*args); });

  CLI::App* info = frame->add_subcommand("info", "Describe a frame: size, chunk count, crc sum, unpacked size");
  add_files(info, false);
  info->add_flag("--json", args->json, "Print a JSON object {frameSize, chunks, crcSum, unpackedSize}");
  info->callback([args] { Info(*args); });
}

const CommandRegistration registration(10, Install);

}  // namespace
}  // namespace pkgdlv::cli
