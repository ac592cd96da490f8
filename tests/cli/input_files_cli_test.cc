// The files the tool is pointed at are read only when they are regular files
// of bounded size: a FIFO with no writer is refused at once instead of
// holding the tool, and a file longer than any document is refused unread.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "cli_test_support.h"

namespace pkgdlv {
namespace {

using InputFilesCliTest = CliTest;

TEST_F(InputFilesCliTest, OnlyRegularFilesOfBoundedSizeAreRead) {
  const fs::path fifo = dir_ / "fifo", logFifo = dir_ / "history" / "log.xml",
                 listingFifo = dir_ / "source" / "dirlisting.tavorin.xml", huge = dir_ / "huge.xml";
  for (const fs::path& path : {fifo, logFifo, listingFifo}) {
    fs::create_directories(path.parent_path());
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  }
  WriteFile(huge, "");
  fs::resize_file(huge, (uint64_t{64} << 20) + 1);  // sparse
  // Frees whoever waits to read a FIFO (a tool that should have refused
  // it), so that such a fault fails the test instead of hanging it.
  std::atomic<bool> done{false};
  std::jthread release([&] {
    while (!done) {
      for (const fs::path& path : {fifo, logFifo, listingFifo}) {
        const int fd = ::open(path.c_str(), O_WRONLY | O_NONBLOCK);  // succeeds only when a reader waits
        if (fd >= 0) ::close(fd);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
  });
  const std::string notRegular = " is not a regular file", tooLarge = " is larger than 67108864 bytes";
  const std::pair<std::string, std::string> cases[] = {
      {"snapshot show " + Quote(fifo), Quote(fifo) + notRegular + " (0x80070057)"},
      {"frame unpack -i " + Quote(fifo), Quote(fifo) + notRegular},
      {"snapshot show " + Quote(huge), Quote(huge) + tooLarge + " (0x800700DF)"},
      {"request show " + Quote(fifo), Quote(fifo) + notRegular + " (0x80070057)"},
      {"check " + Quote(dir_ / "history") + " --snapshot " + Quote(huge), Quote(huge) + tooLarge},
      {"download " + Quote(huge) + " --work-folder " + Quote(dir_ / "work"), Quote(huge) + tooLarge + " (0x800700DF)"},
      {"history " + Quote(dir_ / "history"), "Error loading log: " + Quote(logFifo) + notRegular},
      {"snapshot fetch --package '" + std::string(kCliPackageId) + "' --dir " + Quote(dir_ / "source") + " -o " +
           Quote(dir_ / "out"),
       Quote(listingFifo) + notRegular + " (0x80070057)"},
  };
  for (const auto& [arguments, error] : cases) EXPECT_EQ(Fails(arguments), "pkgdlv: " + error + "\n") << arguments;
  done = true;
}

}  // namespace
}  // namespace pkgdlv
