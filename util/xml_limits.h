// The limits of the XML readers (util/xml.h, util/xml_sax.h), for the code
// that must stay within them: writers of documents that have to load again,
// and callers that fetch or unpack a document before reading it.
#pragma once

#include <cstdint>

namespace pkgdlv::xml {

// The largest document either reader takes, in bytes of text; a longer one
// fails to load with "XML document is too large". Within it one attribute
// value or text may be as long as the document: the readers lift libxml2's
// own 10,000,000-byte limit on those, which a snapshot's "blockHash" passes
// already for a file of 1 GiB hashed in 4 KiB blocks (11,184,812 bytes).
inline constexpr uint64_t kMaxDocumentBytes = uint64_t{64} << 20;

// The deepest element nesting either reader accepts.
inline constexpr int kMaxDepth = 256;

}  // namespace pkgdlv::xml
