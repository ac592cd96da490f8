#include "agent/sqlite_open.h"

#include <chrono>
#include <thread>

namespace pkgdlv {

int ExecRetryingBusy(sqlite3* db, const char* sql, int timeout_ms) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    int rc = sqlite3_exec(db, sql, nullptr, nullptr, nullptr);
    if (rc == SQLITE_OK || (rc & 0xFF) != SQLITE_BUSY || std::chrono::steady_clock::now() >= deadline) return rc;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

}  // namespace pkgdlv
