// Choosing the source of a package for one pass of its download: the sources
// are sorted into server lists (this computer, the others, and the Quillon
// Server's own for an urgent package), the agent's server profile names the
// best server, and servers that offered nothing usable in this cycle (the bad
// server list) and sources already tried are skipped.
//
// One selector per download cycle, on the engine thread.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "agent/logger.h"
#include "agent/server_profile.h"
#include "records/package_request.h"
#include "util/event.h"

namespace pkgdlv {

struct ServerLists {
  std::vector<std::string> local;     // this computer
  std::vector<std::string> ordinary;  // every other server
  std::vector<std::string> quillon;   // the Quillon Server's own sources, for an urgent package only
};

struct ServerSelection {
  std::string location;
  std::string snapshotLocation;
  std::string description;
  uint32_t value = 0;  // the source's index in the request's list
  uint32_t speed = 0;  // from the profile; 1024 when it knows none, and for a peer
};

// Accepts or refuses a server; an empty filter accepts every one.
using ServerFilter = std::function<bool(const std::string& server)>;

// The server of a location: its host (HostOfLocation, the key under which
// the server profile counts the errors the transport records); this
// computer (computerName) for a local path.
std::string ServerOf(std::string_view location, std::string_view computerName);

class ServerSelector {
 public:
  static constexpr uint32_t kDefaultSpeed = 1024;

  // computerName is this computer's name as sources name it; stop ends a
  // selection with 0x80004004.
  ServerSelector(Logger& log, ServerProfile& profile, std::string computerName, Event& stop);

  // The server choice for one pass. Reads the request under queueLock, then
  // selects from the local list, else the peers (peer mode), else the
  // ordinary list, else (urgent only) the Quillon Server list. Throws Error
  // 0x80004005 "No server found" when nothing qualifies, and the stop's
  // 0x80004004. Sources of the local package server fallback are appended to
  // the request's list.
  ServerSelection ChooseForPass(PackageRequest& request, std::vector<CodebaseEntry>& tried,
                                const std::vector<CodebaseEntry>& peers, std::vector<std::string>& badServers,
                                std::recursive_mutex& queueLock, const ServerFilter& filter = {});

  // Sorts the sources' servers into the three lists (each server once, in
  // source order). When no source is on this computer and the package is not
  // a package-server query, asks the local package server, which on Linux
  // does not exist (logged).
  ServerLists GetServerLists(const std::vector<CodebaseEntry>& sources, bool urgent, const Guid& id,
                             std::string_view siteQueryType);

  // Picks the first untried, accepted source of the best server that is not
  // bad; a server with no such source becomes bad (and the tried list is
  // emptied) and the scan starts again from the first server.
  bool SelectServer(const std::vector<std::string>& servers, const std::vector<CodebaseEntry>& sources,
                    ServerSelection& out, std::vector<std::string>& badServers, std::vector<CodebaseEntry>& tried,
                    const ServerFilter& filter, bool peerMode);

 private:
  void LogBadServers(const std::vector<std::string>& badServers);

  Logger& log_;
  ServerProfile& profile_;
  std::string computerName_;
  Event& stop_;
};

}  // namespace pkgdlv
