// How long the texts of the settings store may be. Settings hold names,
// addresses, paths and short lists; nothing near these sizes is legitimate,
// and a cap keeps a caller (or a hand-edited database) from making every
// reader of a setting take memory out of proportion.
#pragma once

#include <cstddef>

namespace pkgdlv {

// Bytes of a text value. A longer one is refused by Set (Error 0x80070057
// naming the setting) and, found in the database, read as missing.
inline constexpr size_t kMaxSettingTextBytes = 32 * 1024;
// Bytes of a key path or a value name; a longer one is refused by Set.
inline constexpr size_t kMaxSettingNameBytes = 1024;

}  // namespace pkgdlv
