// Endpoint descriptors of the persistent connection sender
// (agent/connection_sender.h): the sender addresses an endpoint of the
// Quillon Server by one of these small objects instead of by URL.
#pragma once

#include <string_view>

#include "util/guid.h"

namespace pkgdlv::TLXFrame {

class EndPoint {
 public:
  virtual ~EndPoint() = default;
  // In the order the sender calls them: the endpoint's name, a flag that no
  // endpoint of this component sets, and the endpoint's fixed identifier.
  virtual std::string_view Name() const = 0;
  virtual bool Flag() const { return false; }
  virtual Guid Identifier() const = 0;
};

class GetPackageInfoEP final : public EndPoint {
 public:
  static constexpr std::string_view kIdentifier = "{6F1C2A7E-94B3-4D58-A0E6-3B8C5D2F71A4}";
  std::string_view Name() const override { return "GetPackageInfo"; }
  Guid Identifier() const override { return *Guid::Parse(kIdentifier); }
};

class SiteTransferEP final : public EndPoint {
 public:
  static constexpr std::string_view kIdentifier = "{C84E0B59-2F6D-4A13-9E7B-50D1A8C3F629}";
  std::string_view Name() const override { return "SiteTransfer"; }
  Guid Identifier() const override { return *Guid::Parse(kIdentifier); }
};

}  // namespace pkgdlv::TLXFrame
