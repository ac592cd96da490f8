// Private keys for signing tests, made with the openssl tool once per test
// program and removed when it exits: RSA key generation is slow.
#pragma once

#include <filesystem>
#include <string>

namespace pkgdlv::testing {

// A PEM private key file: kind "RSA" (2048 bits) or "EC" (P-256); a different
// index gives a different key of the same kind. Throws when openssl fails.
// Not thread-safe: call from the test's own thread.
const std::filesystem::path& TestKey(const std::string& kind, int index = 0);

}  // namespace pkgdlv::testing
