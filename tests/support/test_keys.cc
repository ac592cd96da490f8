#include "support/test_keys.h"

#include <cstdlib>
#include <map>
#include <stdexcept>

#include "support/temp_dir.h"

namespace pkgdlv::testing {

const std::filesystem::path& TestKey(const std::string& kind, int index) {
  static TempDir folder;
  static std::map<std::string, std::filesystem::path> made;
  const std::string name = kind + std::to_string(index) + ".pem";
  auto found = made.find(name);
  if (found != made.end()) return found->second;
  const std::string options =
      kind == "RSA" ? "-algorithm RSA -pkeyopt rsa_keygen_bits:2048" : "-algorithm EC -pkeyopt ec_paramgen_curve:P-256";
  const std::filesystem::path path = folder / name;
  const std::string command = "openssl genpkey " + options + " -out '" + path.string() + "' 2>/dev/null";
  if (std::system(command.c_str()) != 0) throw std::runtime_error("openssl genpkey failed: " + command);
  return made.emplace(name, path).first->second;
}

}  // namespace pkgdlv::testing
