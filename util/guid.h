// Package identifiers: GUIDs in their braced text form,
// "{8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6B}".
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace pkgdlv {

class Guid {
 public:
  Guid() = default;

  // Accepts the braced form (any letter case); also the bare 36-character form
  // when allow_bare is set. nullopt for anything else.
  static std::optional<Guid> Parse(std::string_view text, bool allow_bare = false);
  // A new random (version 4) identifier.
  static Guid Generate();

  // Upper-case braced text, the form used as a package's key and folder name.
  std::string ToString() const;
  bool IsNull() const;

  const std::array<uint8_t, 16>& bytes() const { return bytes_; }
  auto operator<=>(const Guid&) const = default;

 private:
  std::array<uint8_t, 16> bytes_{};  // in text order
};

// True when the text is a braced GUID.
bool IsBracedGuid(std::string_view text);

}  // namespace pkgdlv
