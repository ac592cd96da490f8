// Reading files that someone else may have put in our way: sequential reads
// of a whole file through a caller's buffer (hashing, XML, the frame tool),
// and whole small files with a cap on their size (documents the tool is
// pointed at).
//
// Only regular files are read. A FIFO, a device, a socket or a folder is
// refused before anything is read from it, so that a reader never waits on a
// pipe without a writer nor reads a device without end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <iosfwd>
#include <span>
#include <string>
#include <vector>

#include "util/xml_limits.h"

namespace pkgdlv {

// What the tool reads of one file it is pointed at (a snapshot, a request or
// configuration document, a download history): the documents are XML, so
// nothing longer could be read anyway.
inline constexpr uint64_t kMaxToolFileBytes = xml::kMaxDocumentBytes;

// Owns an open file descriptor of a regular file. Failures throw Error: the
// errno's code (0x80070002 for a missing file) and the path, or 0x80070057
// "'%ls' is not a regular file". One thread at a time.
class FileReader {
 public:
  explicit FileReader(const std::filesystem::path& path);
  ~FileReader();
  FileReader(const FileReader&) = delete;
  FileReader& operator=(const FileReader&) = delete;

  // The size when the file was opened.
  uint64_t size() const { return size_; }

  // Reads up to buffer.size() bytes; fewer only at the end of the file, 0 at
  // the end.
  size_t Read(std::span<uint8_t> buffer);
  size_t Read(std::span<char> buffer) {
    return Read(std::span<uint8_t>(reinterpret_cast<uint8_t*>(buffer.data()), buffer.size()));
  }

 private:
  std::filesystem::path path_;
  int fd_ = -1;
  uint64_t size_ = 0;
};

// The whole of a regular file of at most max_bytes. Throws what FileReader
// throws, or 0x800700DF "'%ls' is larger than %I64u bytes" when the file is
// longer (also when it grows past the cap while being read); never holds
// more than max_bytes + 1 bytes of it.
std::vector<uint8_t> ReadFileCapped(const std::filesystem::path& path, uint64_t max_bytes = kMaxToolFileBytes);
std::string ReadFileTextCapped(const std::filesystem::path& path, uint64_t max_bytes = kMaxToolFileBytes);

// Throws as ReadFileCapped would for a file that is missing, not regular, or
// longer than max_bytes, without reading it: for a file that another layer
// reads whole.
void CheckFileToRead(const std::filesystem::path& path, uint64_t max_bytes = kMaxToolFileBytes);

// The same, except that a path naming nothing passes: its reader reports
// that in its own words.
void CheckFileToReadIfPresent(const std::filesystem::path& path, uint64_t max_bytes = kMaxToolFileBytes);

// All of a stream (standard input, which the user chose to be a pipe or a
// terminal) up to max_bytes; 0x800700DF "The input is larger than %I64u
// bytes" past it.
std::string ReadStreamCapped(std::istream& in, uint64_t max_bytes = kMaxToolFileBytes);

}  // namespace pkgdlv
