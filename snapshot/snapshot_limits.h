// What a snapshot document may describe, so that nothing sized from it (the
// block bitset, read buffers) is out of proportion to the document itself,
// and what the tool may write so that the document loads again.
#pragma once

#include <cstdint>

#include "util/xml_limits.h"

namespace pkgdlv {

class Snapshot;
class SnapshotTreeReader;

// The largest snapshot document: what the XML readers take. Creating a
// snapshot whose document would be longer is refused before any file is
// hashed (see BuildSnapshotFromFolder).
inline constexpr uint64_t kMaxSnapshotDocumentBytes = xml::kMaxDocumentBytes;

// A document justifies one block per 32 bytes of block hashes it carries.
// Files it describes without block hashes (legacy documents, listings) may
// add this many blocks besides: a bitset of 1 MiB, 16 TiB of files at the
// default block size.
inline constexpr uint64_t kUnhashedBlockAllowance = 8'388'608;

// After the tree pass has numbered the blocks of fresh: false, with the
// warning "Invalid snapshot XML: Too many hash blocks: ...", when
// fresh.totalBlocks is more than hashTextBytes (the length of all the
// "blockHash" texts of the document) justifies.
bool CheckBlocksJustified(SnapshotTreeReader& reader, const Snapshot& fresh, uint64_t hashTextBytes);

}  // namespace pkgdlv
