#include "orvaner/plugins/DaemonPlugin.h"

#include <exception>
#include <utility>

#include "ZelkCtl/KernelProgressScreenImpl.h"
#include "log/Log.h"
#include "orvaner/Exception.h"
#include "orvaner/Logging.h"
#include "orvaner/graph/Executor.h"
#include "orvaner/graph/PassObserver.h"
#include "orvaner/plugins/DaemonCommandRunner.h"

namespace orvane {
namespace {

constexpr const char* kStartingService = "Starting service ";
constexpr const char* kOperationsMissing = " Daemon operations are not initialized";

}  // namespace

DaemonPlugin::DaemonPlugin(std::string name, std::int32_t number)
    : Plugin(std::move(name), kLegacyDaemonSchedulingClass), number_(number) {}

void DaemonPlugin::Execute(Executor& executor) {
  ZelkCtl::System::KernelProgressScreenImpl progressScreen;
  progressScreen.ProgressText(kStartingService + Name());
  Plugin::Execute(executor);
  progressScreen.AdvanceProgress();
}

void DaemonPlugin::ExecuteReverse(Executor& executor) {
  PassObserver* observer = executor.Observer();
  if (observer != nullptr) observer->ActivationStarted(*this);
  LogAlert("Deactivating Daemon %s.", Name().c_str());
  Log_Level(LOG_LEVEL_INFO, "executing stop for daemon %s.\n", Name().c_str());
  try {
    Stop();
    LogAlert("Daemon %s deactivated.", Name().c_str());
    if (observer != nullptr)
      observer->ActivationFinished(*this, PassObserver::Outcome::Activated, "");
  } catch (const std::exception& error) {
    // A daemon that fails to stop must not hold up the others.
    LogAlert("Daemon %s deactivation failed: %s", Name().c_str(), error.what());
    if (observer != nullptr) {
      observer->ActivationFinished(*this, PassObserver::Outcome::Failed, error.what());
    }
  }
}

void DaemonPlugin::Start() {
  try {
    RunDaemonCommand(Name(), Operation(kStartOperation));
    daemonState_ = kStarted;
    Log_Level(LOG_LEVEL_INFO, "%s started.\n", Name().c_str());
  } catch (const std::exception& error) {
    daemonState_ = kStartFailed;
    Log_Level(LOG_LEVEL_WARNING, "Orvane failed to start: %s reason: %s\n", Name().c_str(),
              error.what());
    throw MethodFailedException("start", Name(), error.what());
  }
}

void DaemonPlugin::Stop() {
  try {
    RunDaemonCommand(Name(), Operation(kStopOperation));
    daemonState_ = kStopped;
    Log_Level(LOG_LEVEL_INFO, "%s stopped.\n", Name().c_str());
  } catch (const std::exception& error) {
    Log_Level(LOG_LEVEL_WARNING, "Orvane failed to stop: %s reason: %s\n", Name().c_str(),
              error.what());
    throw;
  }
}

void DaemonPlugin::ApplyHostProfile() {
  throw NotImplementedException("DaemonPlugin::ApplyHostProfile");
}

void DaemonPlugin::Restart() { throw NotImplementedException("DaemonPlugin::Restart"); }

void DaemonPlugin::SSLReset() { throw NotImplementedException("DaemonPlugin::SSLReset"); }

const std::string& DaemonPlugin::Operation(std::int32_t code) const {
  const auto found = operations_.find(code);
  if (found == operations_.end()) {
    throw Exception(Name() + kOperationsMissing);
  }
  return found->second;
}

void DaemonPlugin::SetOperation(std::int32_t code, std::string commandLine) {
  operations_[code] = std::move(commandLine);
}

}  // namespace orvane
