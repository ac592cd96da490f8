#include "engine/server_selection.h"

#include <algorithm>

#include "util/error.h"
#include "util/strings.h"

namespace pkgdlv {

namespace {

constexpr std::string_view kComponent = "PackageManager";

bool Contains(const std::vector<std::string>& servers, const std::string& server) {
  return std::any_of(servers.begin(), servers.end(), [&](const std::string& s) { return EqualsNoCase(s, server); });
}

void AddOnce(std::vector<std::string>& servers, const std::string& server) {
  if (!Contains(servers, server)) servers.push_back(server);
}

}  // namespace

std::string ServerOf(std::string_view location, std::string_view computerName) {
  std::string host = HostOfLocation(location);
  return host.empty() ? std::string(computerName) : host;
}

ServerSelector::ServerSelector(Logger& log, ServerProfile& profile, std::string computerName, Event& stop)
    : log_(log), profile_(profile), computerName_(std::move(computerName)), stop_(stop) {}

ServerLists ServerSelector::GetServerLists(const std::vector<CodebaseEntry>& sources, bool urgent, const Guid& id,
                                           std::string_view siteQueryType) {
  ServerLists lists;
  for (const CodebaseEntry& source : sources) {
    const std::string server = ServerOf(source.location, computerName_);
    if (EqualsNoCase(server, computerName_)) {
      AddOnce(lists.local, server);
    } else if (source.sourceType == 1 && urgent) {
      AddOnce(lists.quillon, server);
    } else {
      AddOnce(lists.ordinary, server);
    }
  }
  std::erase_if(lists.ordinary, [&](const std::string& s) { return Contains(lists.quillon, s); });
  if (lists.local.empty() && !id.IsNull() && siteQueryType != kPackageServersQueryType) {
    log_.Log(loglevel::kInfo, kComponent,
             "GetServerLists: Local codebase(s) have not been received from QS. Trying to get it from locally installed "
             "PS...");
    // No package server is ever installed beside the Linux agent.
    log_.Log(loglevel::kInfo, kComponent, "GetPackageLocalSources: Locally installed Package Server not found");
  }
  return lists;
}

void ServerSelector::LogBadServers(const std::vector<std::string>& badServers) {
  for (size_t i = 0; i < badServers.size(); ++i) {
    log_.Log(loglevel::kTrace, kComponent, "SelectServer: bad server %d: %ls", static_cast<int>(i), badServers[i]);
  }
}

bool ServerSelector::SelectServer(const std::vector<std::string>& servers, const std::vector<CodebaseEntry>& sources,
                                  ServerSelection& out, std::vector<std::string>& badServers,
                                  std::vector<CodebaseEntry>& tried, const ServerFilter& filter, bool peerMode) {
  out = ServerSelection{};
  if (servers.empty()) return false;
  if (stop_.IsSet()) Throw(result::kAborted, "Server selection aborted due to Agent stop.");
  for (size_t i = 0; i < sources.size(); ++i) {
    log_.Log(loglevel::kTrace, kComponent, "SelectServer: source list %d: %ls - %ls", static_cast<int>(i),
             sources[i].location, sources[i].snapshotLocation);
  }
  for (size_t i = 0; i < servers.size(); ++i) {
    log_.Log(loglevel::kTrace, kComponent, "SelectServer: server %d: %ls", static_cast<int>(i), servers[i]);
  }

  size_t index = 0;
  if (peerMode) {
    log_.Log(loglevel::kTrace, kComponent, "Best peer: %d", 0);
  } else {
    std::optional<size_t> best = profile_.BestServer(servers);
    log_.Log(loglevel::kTrace, kComponent, "Best server from profile: %d", best ? static_cast<int>(*best) : -1);
    if (!best || *best >= servers.size()) return false;
    index = *best;
  }
  if (Contains(badServers, servers[index])) {
    log_.Log(loglevel::kTrace, kComponent, "SelectServer: best server reset to 0 because it's in a bad server list");
    LogBadServers(badServers);
    index = 0;
  }

  while (index < servers.size()) {
    const std::string& server = servers[index];
    if (Contains(badServers, server)) {
      ++index;
      log_.Log(loglevel::kTrace, kComponent, "SelectServer: best server changed to %d because it's in a bad server list",
               static_cast<int>(index));
      LogBadServers(badServers);
      continue;
    }
    for (size_t i = 0; i < sources.size(); ++i) {
      const CodebaseEntry& source = sources[i];
      if (!EqualsNoCase(ServerOf(source.location, computerName_), server)) continue;
      if (std::find(tried.begin(), tried.end(), source) != tried.end()) continue;
      if (filter && !filter(server)) continue;
      out.location = source.location;
      out.snapshotLocation = source.snapshotLocation;
      out.description = source.serverDescription;
      out.value = static_cast<uint32_t>(i);
      const uint32_t speed = peerMode ? 0 : profile_.ConnectionSpeed(server);
      out.speed = speed == 0 ? kDefaultSpeed : speed;
      log_.Log(loglevel::kTrace, kComponent, "SelectServer: trying source list %d: %ls %ls %lu", static_cast<int>(i),
               out.location, out.snapshotLocation, static_cast<unsigned long>(out.speed));
      tried.push_back(source);
      break;
    }
    if (!out.location.empty()) break;
    badServers.push_back(server);
    tried.clear();
    log_.Log(loglevel::kTrace, kComponent, "SelectServer: new bad server %ls", server);
    index = 0;
  }
  log_.Log(loglevel::kTrace, kComponent, "SelectServer: selected package url: %ls", out.location);
  return !out.location.empty();
}

ServerSelection ServerSelector::ChooseForPass(PackageRequest& request, std::vector<CodebaseEntry>& tried,
                                              const std::vector<CodebaseEntry>& peers,
                                              std::vector<std::string>& badServers, std::recursive_mutex& queueLock,
                                              const ServerFilter& filter) {
  Guid id;
  std::string siteQueryType;
  bool urgent = false;
  std::vector<CodebaseEntry> sources;
  {
    std::lock_guard lock(queueLock);
    auto recordLock = request.Lock();
    id = request.id();
    siteQueryType = request.siteQueryType;
    urgent = request.urgentDownload;
    sources = request.codebases;
  }
  const ServerLists lists = GetServerLists(sources, urgent, id, siteQueryType);
  ServerSelection selection;
  if (SelectServer(lists.local, sources, selection, badServers, tried, filter, false)) return selection;
  if (!peers.empty()) {
    std::vector<std::string> peerServers;
    for (const CodebaseEntry& peer : peers) AddOnce(peerServers, ServerOf(peer.location, computerName_));
    if (SelectServer(peerServers, peers, selection, badServers, tried, filter, true)) return selection;
    Throw(result::kFail, "No server found");
  }
  if (SelectServer(lists.ordinary, sources, selection, badServers, tried, filter, false)) return selection;
  if (urgent && !lists.quillon.empty()) {
    log_.Log(loglevel::kInfo, kPackageDownloadLogComponent,
             "Selecting from QS servers list since SLA is ended for urgent package download.");
    if (SelectServer(lists.quillon, sources, selection, badServers, tried, filter, false)) return selection;
  }
  Throw(result::kFail, "No server found");
}

}  // namespace pkgdlv
