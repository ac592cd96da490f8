// A document named on the command line: a file, or "-" for standard input;
// either is read with the tool's size cap (FIFOs and devices refused).
#pragma once

#include <iostream>
#include <string>

#include "util/file_reader.h"

namespace pkgdlv::cli {

inline std::string ReadDocumentArgument(const std::string& path) {
  return path == "-" ? ReadStreamCapped(std::cin) : ReadFileTextCapped(path);
}

}  // namespace pkgdlv::cli
