// The state of the download cycle that runs now (internal to the cycle's
// files).
#pragma once

#include <filesystem>
#include <string>

#include "engine/download_cycle.h"
#include "engine/transfer_control.h"

namespace pkgdlv {

struct DownloadCycle::Cycle {
  Cycle(PackageRequest& request, TransferControl& transfer, DownloadContext& engine)
      : request(request), transfer(transfer), engine(engine) {}

  PackageRequest& request;
  TransferControl& transfer;
  DownloadContext& engine;
  Guid id;
  std::string name;
  std::string folder;  // the package folder, native form
  Result code = 0;
  std::string description;
  bool sourcesObtained = false;
  bool forceSnapshot = false;
  // The peer step: the search's result bits, peers in use, and peers that
  // hold the package but did not answer (the servers are not tried).
  uint32_t peerResult = 0;
  bool peerMode = false;
  bool waitForPeer = false;  // the first pass fetches the snapshot whatever is held
  FileTime busyUntil = 0;  // a busy Quillon Server's earliest retry time
  // The files still to fetch and the blocks already good, from the last
  // update list.
  Snapshot updateList;
  DynamicBitset good;
  uint64_t missingBytes = 0;

  size_t FilesToUpdate() const {
    size_t files = 0;
    for (const SnapshotEntry& entry : updateList.entries) files += entry.IsFile() ? 1 : 0;
    return files;
  }
  // "name {id}", as the transfer's lines name the package.
  std::string Label() const { return name + " " + id.ToString(); }
};

}  // namespace pkgdlv
