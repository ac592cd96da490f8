// What both SQLite stores do when they open their database.
#pragma once

#include <sqlite3.h>

namespace pkgdlv {

// Runs sql, trying again while SQLite answers "busy" for up to timeout_ms.
// Processes that open a new file at the same time race to switch it to WAL
// and to create its table; where waiting for the lock could deadlock, SQLite
// answers "database is locked" at once instead of calling the busy handler,
// so those steps are retried here. Returns SQLite's last result code.
int ExecRetryingBusy(sqlite3* db, const char* sql, int timeout_ms);

}  // namespace pkgdlv
