// The engine's side of the peer download coordination: the directory of
// package holders on the local network, which learns the blocks this computer
// holds and forgets packages that are gone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "util/guid.h"

namespace pkgdlv {

class PackageRequest;

// What a search for peers holding a package found.
struct PeerSearch {
  static constexpr uint32_t kPeerMode = 0x1;        // peers serve this package: a peer download
  static constexpr uint32_t kCountWaitAttempt = 0x2;  // a failed wait for peers counts as an attempt
  uint32_t result = 0;
  size_t peersFound = 0;
};

class PeerDirectory {
 public:
  static constexpr int kRunningState = 4;
  virtual ~PeerDirectory() = default;

  virtual int State() = 0;
  // Publishes the package's current block state (after a quick check of its
  // files); final says the state will not change soon. May throw Error.
  virtual void RefreshPackageBlocks(PackageRequest& request, bool final) = 0;
  // The package is withdrawn and announced again (its status changed).
  virtual void Republish(const Guid& id) = 0;
  virtual void DropPackage(const Guid& id) = 0;
  // Looks for peers that hold the package's blocks (engine thread, in the
  // download cycle, only while State() is kRunningState). May throw Error.
  virtual PeerSearch FindPeers(PackageRequest& request) {
    (void)request;
    return {};
  }
};

// The Linux agent runs no peer directory: its state is never running and it
// keeps nothing.
class IdlePeerDirectory final : public PeerDirectory {
 public:
  int State() override { return 0; }
  void RefreshPackageBlocks(PackageRequest&, bool) override {}
  void Republish(const Guid&) override {}
  void DropPackage(const Guid&) override {}
};

}  // namespace pkgdlv
