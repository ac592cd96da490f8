#include "multicast/multicast_engine.h"

#include "util/error.h"

namespace pkgdlv {

namespace {
constexpr std::string_view kComponent = "MulticastEngine";
}

MulticastEngine::MulticastEngine(SettingsStore& settings, Logger& log, Dependencies dependencies)
    : settings_(settings, log), log_(log), deps_(std::move(dependencies)) {
  if (!deps_.core) deps_.core = std::make_shared<UnavailableMulticastCore>();
  cached_ = ReadSettings();
}

MulticastEngine::~MulticastEngine() { Manage(kTerminate); }

int MulticastEngine::state() const {
  std::lock_guard lock(mutex_);
  return state_;
}

MulticastEngine::CachedSettings MulticastEngine::ReadSettings() {
  CachedSettings s;
  s.enabled = settings_.Enabled();
  s.address = settings_.IPAddress();
  s.port = settings_.Port();
  s.maxMasters = settings_.MaxMastersPerClient();
  s.minClients = settings_.MinNumberOfClients();
  s.waitSeconds = settings_.TimeToWaitToBeginSession();
  s.clientsToWait = settings_.NumClientsToWaitToBegin();
  s.transmissions = settings_.MaxTransmissions();
  s.maxBandwidth = settings_.MaxBandwidth();
  s.minBandwidth = settings_.MinBandwidth();
  s.sessionsPerSegment = settings_.MaxSessionsPerSegment();
  s.minPackageKb = settings_.MinPackageSizeKb();
  s.byDefault = settings_.ByDefaultUseMulticast();
  s.neverMaster = settings_.CanNeverBeMaster();
  s.alwaysMaster = settings_.IsAlwaysMaster();
  s.listenerRanges = settings_.ListenerRanges();
  s.exclusionRanges = settings_.ExclusionRanges();
  return s;
}

MulticastEngine::CoreSettings MulticastEngine::CoreSettingsNow() {
  CoreSettings core;
  MulticastCoreParameters& parameters = core.parameters;
  parameters.groupAddress = cached_.address;
  parameters.port = cached_.port;
  parameters.localAddress = deps_.localAddress ? deps_.localAddress() : std::string();
  parameters.masterRank = cached_.neverMaster ? -1 : cached_.alwaysMaster ? 1 : 0;
  parameters.waitSeconds = cached_.waitSeconds;
  parameters.minClients = cached_.minClients;
  parameters.clientsToWait = cached_.clientsToWait;
  parameters.listenerRanges = cached_.listenerRanges;
  parameters.exclusionRanges = cached_.exclusionRanges;
  core.maxBandwidth = cached_.maxBandwidth;
  core.minBandwidth = cached_.minBandwidth;
  return core;
}

bool MulticastEngine::RegistrationIsGood() {
  try {
    return deps_.client && deps_.client->IsRegistered();
  } catch (...) {
    log_.Log(loglevel::kWarning, kComponent, "Exception checking client status. Multicast is disabled.");
    return false;
  }
}

int MulticastEngine::Manage(int message) {
  std::lock_guard lock(mutex_);
  log_.Log(loglevel::kTrace, kComponent, "Manage(): Entering; state = %d, message = %d", state_, message);
  if (state_ != kEnded) {
    if (message == kSettingsMayHaveChanged) {
      CachedSettings now = ReadSettings();
      if (now == cached_) {
        log_.Log(loglevel::kTrace, kComponent, "Manage(): no multicast settings changed");
        message = 0;
      } else {
        message = now.enabled == cached_.enabled ? kSettingsChangedSameEnabled : kReevaluate;
        cached_ = now;
      }
    }
    if (message == kReevaluate) {
      const bool vetoed = deps_.agentDisablesMulticast && deps_.agentDisablesMulticast();
      message = cached_.enabled && !vetoed && RegistrationIsGood() ? kEnable : kDisable;
    }
    if (message == kBlockoutStarted) {
      blockout_ = true;
      message = kStop;
    } else if (message == kBlockoutExpired) {
      blockout_ = false;  // nothing restarts by itself
      message = 0;
    }
    while (message != 0 && state_ != kEnded) message = Step(message);
  }
  log_.Log(loglevel::kTrace, kComponent, "Manage(): Leaving; state = %d", state_);
  return state_;
}

bool MulticastEngine::BlockoutInForce() {
  try {
    return deps_.client && deps_.client->IsDownloadBlocked();
  } catch (...) {
    // Unknown: the flag stays as the blockout events left it.
    return blockout_;
  }
}

bool MulticastEngine::InitialiseCore() {
  CoreSettings core = CoreSettingsNow();
  if (!deps_.core->Initialize(core.parameters)) return false;
  deps_.core->SetSpeedLimits(core.maxBandwidth, core.minBandwidth);
  handed_ = std::move(core);
  return true;
}

bool MulticastEngine::HandChangedSettingsToCore() {
  CoreSettings core = CoreSettingsNow();
  if (handed_ == core) return true;
  if (!handed_ || handed_->parameters != core.parameters) {
    if (!deps_.core->Reconfigure(core.parameters)) {
      log_.Log(loglevel::kWarning, kComponent, "The multicast core refused the changed multicast settings");
      return false;
    }
  }
  deps_.core->SetSpeedLimits(core.maxBandwidth, core.minBandwidth);
  handed_ = std::move(core);
  return true;
}

void MulticastEngine::ShutDownCore() {
  deps_.core->Shutdown();
  handed_.reset();
}

void MulticastEngine::EndEngine() {
  if (state_ >= kInterfaceClosed) ShutDownCore();
  state_ = kEnded;
}

int MulticastEngine::Step(int message) {
  switch (state_) {
    case kCreated:
      if (message == kTerminate) {
        EndEngine();
        return 0;
      }
      // A blockout that began before the engine was made sent no event here.
      blockout_ = BlockoutInForce();
      if (message == kEnable) {
        state_ = kNotInitialised;
      } else if (message == kDisable) {
        state_ = kDisabled;
      }
      return 0;
    case kDisabled:
      if (message == kEnable) state_ = kNotInitialised;
      if (message == kTerminate) EndEngine();
      return 0;
    case kNotInitialised:
      if (message == kStart) {
        if (!InitialiseCore()) return 0;
        state_ = kInterfaceClosed;
        return kReopen;
      }
      if (message == kDisable) state_ = kDisabled;
      if (message == kTerminate) EndEngine();
      return 0;
    case kInterfaceClosed:
      if (message == kStart || message == kReopen || message == kDownloadBegins) {
        if (blockout_) {
          log_.Log(loglevel::kTrace, kComponent,
                   "Manage(): Communication blockout is now in effect. Multicast engine can not be started");
          return 0;
        }
        log_.Log(loglevel::kTrace, kComponent, "Getting multicast management interface");
        if (!HandChangedSettingsToCore() || !deps_.core->OpenManagement()) return 0;
        state_ = kIdle;
        return message;
      }
      if (message == kDisable || message == kShutDown || message == kTerminate) {
        ShutDownCore();
        state_ = kNotInitialised;
        return message;
      }
      return 0;
    case kIdle:
      if (message == kStop || message == kDisable || message == kShutDown || message == kTerminate ||
          message == kSettingsChangedSameEnabled) {
        log_.Log(loglevel::kTrace, kComponent, "Closing multicast management interface");
        deps_.core->CloseManagement();
        state_ = kInterfaceClosed;
        return message == kSettingsChangedSameEnabled ? kReopen : message;
      }
      if (message == kDownloadBegins) {
        state_ = kDownloading;
        deferred_ = 0;
        downloadEnded_ = false;
      }
      return 0;
    case kDownloading:
      if (message == kStop || message == kDisable || message == kShutDown || message == kTerminate) {
        if (session_) session_->Stop();
        state_ = kIdle;
        return message;
      }
      if (message == kSettingsChangedSameEnabled) {
        deferred_ = message;
        return downloadEnded_ ? kDownloadEnded : 0;
      }
      if (message == kDownloadEnded) {
        const int deferred = deferred_;
        deferred_ = 0;
        state_ = kIdle;
        return deferred;
      }
      return 0;
    default:
      return 0;
  }
}

bool MulticastEngine::SettingsAreValid() {
  return !cached_.address.empty() && static_cast<int32_t>(cached_.port) >= 0 && cached_.minClients >= 1 &&
         !settings_.ListenerRanges().empty();
}

bool MulticastEngine::CanDownloadPackage() {
  std::lock_guard lock(mutex_);
  switch (state_) {
    case kEnded:
      return false;
    case kDisabled:
      log_.Log(loglevel::kInfo, kComponent, "Multicast is disabled. Multicast download not attempted.");
      return false;
    case kNotInitialised:
      log_.Log(loglevel::kInfo, kComponent, "Engine is not multicast owner. Multicast download not attempted.");
      return false;
    case kDownloading:
      if (session_ && session_->IsBusy()) {
        log_.Log(loglevel::kInfo, kComponent, "Multicast engine is busy. Multicast download not attempted.");
        return false;
      }
      downloadEnded_ = true;
      Manage(kDownloadEnded);
      return CanDownloadPackage();
    default:
      if (!SettingsAreValid()) {
        log_.Log(loglevel::kInfo, kComponent, "Multicast settings are not valid. Multicast download not attempted.");
        return false;
      }
      return deps_.core->CanDownload();
  }
}

int MulticastEngine::Download_Try(const Guid& package, uint64_t size) {
  if (!CanDownloadPackage()) return kMulticastNotAttempted;
  const uint64_t minimum = static_cast<uint64_t>(settings_.MinPackageSizeKb()) * 1024;
  if (size < minimum) {
    log_.Log(loglevel::kInfo, kComponent,
             "Download_Try(): Multicast not attempted, package too small (Package Size = %I64d, MinPackageSize = %I64d)",
             static_cast<int64_t>(size), static_cast<int64_t>(minimum));
    return kMulticastNotAttempted;
  }
  std::shared_ptr<MulticastSession> session = deps_.core->PrepareDownload(package, size);
  if (!session) {
    log_.Log(loglevel::kWarning, kComponent, "Download_Try(): Cannot initialize multicast download!");
    return kMulticastNotAttempted;
  }
  {
    std::lock_guard lock(mutex_);
    session_ = session;
    if (Manage(kDownloadBegins) != kDownloading) {
      session_.reset();
      return kMulticastNotAttempted;
    }
  }
  // Not under the lock: a blockout or a stop from another thread ends it.
  const int result = session->Run();
  session->Stop();
  std::lock_guard lock(mutex_);
  session_.reset();
  downloadEnded_ = true;
  if (state_ == kDownloading) Manage(kDownloadEnded);
  return result;
}

void MulticastEngine::StopSession() {
  std::shared_ptr<MulticastSession> session;
  {
    std::lock_guard lock(mutex_);
    session = session_;
  }
  if (session) session->Stop();
}

void MulticastEngine::OnBlockoutStarted() {
  log_.Log(loglevel::kInfo, kComponent, "OnBlockoutStarted() Communication blockout started. Shutting down multicast engine");
  Manage(kBlockoutStarted);
}

void MulticastEngine::OnBlockoutExpired() {
  log_.Log(loglevel::kInfo, kComponent, "OnBlockoutExpired() Communication blockout expired.");
  Manage(kBlockoutExpired);
}

void MulticastEngine::OnRegistrationChanged(int status) {
  log_.Log(loglevel::kInfo, kComponent, "Client registration status changed to %d.", status);
  Manage(kReevaluate);
}

bool MulticastEngine::AddMasterSession(const Guid& package) {
  std::lock_guard lock(mutex_);
  const uint32_t maximum = settings_.MaxMastersPerClient();
  if (!masterSessions_.contains(package) && masterSessions_.size() >= maximum) {
    log_.Log(loglevel::kWarning, kComponent,
             "Cannot add package to master session. Too many local active master sessions: local = %d. Max master "
             "sessions per client = %d",
             static_cast<int>(masterSessions_.size()), static_cast<int>(maximum));
    return false;
  }
  masterSessions_.insert(package);
  return true;
}

void MulticastEngine::EndMasterSession(const Guid& package) {
  std::lock_guard lock(mutex_);
  masterSessions_.erase(package);
}

}  // namespace pkgdlv
