// The files the tool is pointed at are read only when they are regular files
// of bounded size: a FIFO with no writer is refused at once instead of
// holding the tool, and a file longer than any document is refused unread.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "cli_test_support.h"

namespace pkgdlv {
namespace {

// Frees whoever waits to read one of the FIFOs (a tool that should have
// refused them), so that such a fault fails the test instead of hanging it.
class FifoRelease {
 public:
  explicit FifoRelease(std::vector<fs::path> fifos)
      : fifos_(std::move(fifos)), thread_([this] { Run(); }) {}
  ~FifoRelease() {
    done_ = true;
    thread_.join();
  }

 private:
  void Run() {
    while (!done_) {
      for (const auto& fifo : fifos_) {
        const int fd = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK);  // succeeds only when a reader waits
        if (fd >= 0) ::close(fd);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
  }

  std::vector<fs::path> fifos_;
  std::atomic<bool> done_{false};
  std::thread thread_;
};

TEST(InputFilesCliTest, OnlyRegularFilesOfBoundedSizeAreRead) {
  TempDir dir;
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
  fs::create_directory(dir / "history");
  ASSERT_EQ(::mkfifo((dir / "history" / "log.xml").c_str(), 0600), 0);
  fs::create_directory(dir / "source");
  ASSERT_EQ(::mkfifo((dir / "source" / "dirlisting.tavorin.xml").c_str(), 0600), 0);
  WriteFile(dir / "huge.xml", "");
  fs::resize_file(dir / "huge.xml", (uint64_t{64} << 20) + 1);  // sparse
  const std::string fifo = (dir / "fifo").string(), huge = (dir / "huge.xml").string(),
                    history = (dir / "history").string();
  const FifoRelease release({dir / "fifo", dir / "history" / "log.xml", dir / "source" / "dirlisting.tavorin.xml"});
  const struct {
    std::string arguments;
    std::string error;
  } cases[] = {
      {"snapshot show '" + fifo + "'", "pkgdlv: '" + fifo + "' is not a regular file (0x80070057)\n"},
      {"frame unpack -i '" + fifo + "'", "pkgdlv: '" + fifo + "' is not a regular file\n"},
      {"snapshot show '" + huge + "'", "pkgdlv: '" + huge + "' is larger than 67108864 bytes (0x800700DF)\n"},
      {"request show '" + fifo + "'", "pkgdlv: '" + fifo + "' is not a regular file (0x80070057)\n"},
      {"check '" + history + "' --snapshot '" + huge + "'",
       "pkgdlv: '" + huge + "' is larger than 67108864 bytes\n"},
      {"download '" + huge + "' --work-folder '" + (dir / "work").string() + "'",
       "pkgdlv: '" + huge + "' is larger than 67108864 bytes (0x800700DF)\n"},
      {"history '" + history + "'",
       "pkgdlv: Error loading log: '" + history + "/log.xml' is not a regular file\n"},
      {"snapshot fetch --package {11111111-2222-3333-4444-555555555555} --dir '" + (dir / "source").string() +
           "' -o '" + (dir / "out").string() + "'",
       "pkgdlv: '" + (dir / "source" / "dirlisting.tavorin.xml").string() + "' is not a regular file (0x80070057)\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.arguments);
    const ToolResult result = RunTool(c.arguments, {}, dir.path());
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_EQ(result.err, c.error);
  }
}

}  // namespace
}  // namespace pkgdlv
