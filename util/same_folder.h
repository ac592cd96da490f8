// Folders compared by what they are, not by how their paths are spelled: on a
// file system that tells letter case apart "/a/Store" and "/a/store" are two
// folders, and a symbolic link names the folder it leads to.
// Pure functions over the file system; any thread may call them.
#pragma once

#include <filesystem>

namespace pkgdlv {

// The absolute path with every symbolic link of its existing part resolved
// and "." / ".." removed; the part that does not exist yet is kept as
// written. An empty path stays empty.
std::filesystem::path ResolvedFolder(const std::filesystem::path& folder);

// True when both name the same folder: the same device and inode when both
// exist, else the same resolved path (compared exactly, letter case included).
bool SameFolder(const std::filesystem::path& a, const std::filesystem::path& b);

// True when folder (resolved) lies strictly below parent (resolved).
bool IsBelow(const std::filesystem::path& folder, const std::filesystem::path& parent);

// True when path itself is a symbolic link (not followed).
bool IsSymbolicLink(const std::filesystem::path& path);

}  // namespace pkgdlv
