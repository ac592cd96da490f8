#include "util/safe_path.h"

#include "util/error.h"

namespace pkgdlv {

namespace {

bool IsControl(char c) {
  auto u = static_cast<unsigned char>(c);
  return u < 0x20 || u == 0x7F;
}

// True when the lexically normal form of path starts with every component of root.
bool LiesInside(const std::filesystem::path& root, const std::filesystem::path& path) {
  std::filesystem::path normalRoot = root.lexically_normal();
  std::filesystem::path normalPath = path.lexically_normal();
  auto r = normalRoot.begin();
  auto p = normalPath.begin();
  for (; r != normalRoot.end(); ++r, ++p) {
    if (r->empty()) continue;  // the empty last element of a root written with a trailing "/"
    if (p == normalPath.end() || *p != *r) return false;
  }
  for (; p != normalPath.end(); ++p) {
    if (*p == "..") return false;
  }
  return true;
}

}  // namespace

bool IsSafeRelativeName(std::string_view name) {
  if (name.empty() || name == "." || name == "..") return false;
  for (char c : name) {
    if (c == '/' || c == '\\' || c == ':' || IsControl(c)) return false;
  }
  return true;
}

bool IsSafeRelativePath(std::string_view docPath) {
  if (docPath.empty()) return true;
  size_t start = 0;
  while (true) {
    size_t end = docPath.find('\\', start);
    std::string_view component = docPath.substr(start, end == std::string_view::npos ? end : end - start);
    if (!IsSafeRelativeName(component)) return false;
    if (end == std::string_view::npos) return true;
    start = end + 1;
  }
}

std::filesystem::path ResolveInside(const std::filesystem::path& root, std::string_view docPath) {
  if (!IsSafeRelativePath(docPath)) Throw(result::kInvalidArg, "Unsafe path '%ls'", PrintableName(docPath));
  std::filesystem::path result = root;
  size_t start = 0;
  while (start < docPath.size()) {
    size_t end = docPath.find('\\', start);
    if (end == std::string_view::npos) end = docPath.size();
    result /= std::string(docPath.substr(start, end - start));
    start = end + 1;
  }
  // The components are safe names, so this only guards against a root that is
  // itself relative or oddly written.
  if (!LiesInside(root, result)) Throw(result::kInvalidArg, "Unsafe path '%ls'", PrintableName(docPath));
  return result;
}

std::string PrintableName(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (IsControl(c)) c = '?';
  }
  return out;
}

}  // namespace pkgdlv
