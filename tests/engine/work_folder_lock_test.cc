// The work folder's lock file raced by two processes.
#include "engine/work_folder_lock.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "support/temp_dir.h"
#include "util/error.h"

namespace pkgdlv {
namespace {

struct Shared {
  std::atomic<int> holders, overlaps, granted;
};

// Takes and gives back the lock `rounds` times; counts any moment at which
// another process held it too.
[[noreturn]] void Race(const std::filesystem::path& folder, Shared* shared, int rounds) {
  for (int i = 0; i < rounds; ++i) {
    WorkFolderLock lock;
    try {
      lock.Open(folder);
    } catch (const Error&) {
      continue;  // held by the other process: that is the lock working
    }
    if (shared->holders.fetch_add(1) != 0) shared->overlaps.fetch_add(1);
    shared->granted.fetch_add(1);
    std::this_thread::sleep_for(std::chrono::microseconds(50));
    shared->holders.fetch_sub(1);
    lock.Close();
  }
  ::_exit(0);
}

TEST(WorkFolderLockTest, TwoProcessesNeverHoldTheLockAtOnce) {
  testing::TempDir dir;
  void* memory = ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(memory, MAP_FAILED);
  Shared* shared = new (memory) Shared{};
  pid_t children[2];
  for (pid_t& child : children) {
    child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      ::alarm(60);  // a process stuck in the race dies of the alarm and fails the test
      Race(dir.path(), shared, 1000);
    }
  }
  for (pid_t child : children) {
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
  }
  EXPECT_EQ(shared->overlaps.load(), 0) << "of " << shared->granted.load() << " grants";
  EXPECT_GT(shared->granted.load(), 0);
  ::munmap(memory, sizeof(Shared));
}

}  // namespace
}  // namespace pkgdlv
