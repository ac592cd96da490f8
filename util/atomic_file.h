// Durable small files (snapshot.xml, snapdata.xml, package.xml): written to a
// temporary name in the same folder, flushed, and renamed into place, so that
// a reader never sees one half-written.
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <string_view>
#include <vector>

namespace pkgdlv {

// Replaces path with contents. Throws Error (the errno's code, the path) when
// the file cannot be written; the temporary file is removed then and the old
// file, if any, stays as it was. Any thread; callers serialise writes of the
// same path.
void WriteFileAtomically(const std::filesystem::path& path, std::span<const uint8_t> contents);
inline void WriteFileAtomically(const std::filesystem::path& path, std::string_view contents) {
  WriteFileAtomically(path, std::span(reinterpret_cast<const uint8_t*>(contents.data()), contents.size()));
}

// The whole file's bytes. Throws Error (the errno's code) when it cannot be read.
std::vector<uint8_t> ReadWholeFile(const std::filesystem::path& path);

}  // namespace pkgdlv
