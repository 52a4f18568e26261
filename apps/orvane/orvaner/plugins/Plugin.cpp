#include "orvaner/plugins/Plugin.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "log/Log.h"
#include "orvaner/Exception.h"
#include "orvaner/Logging.h"
#include "orvaner/RunOptions.h"
#include "orvaner/graph/Executor.h"
#include "orvaner/graph/PassObserver.h"
#include "orvaner/plugins/HostProfile.h"
#include "orvaner/plugins/InteractiveConsole.h"

namespace orvane {
namespace {

constexpr std::int64_t kMicrosecondsPerSecond = 1000000;

// The virtual terminals the console shows: the boot's own, and the one an
// operator who lets the boot continue goes back to.
constexpr int kBootTerminal = 1;
constexpr int kContinueTerminal = 11;

}  // namespace

Plugin::Plugin(std::string name) : Plugin(std::move(name), kDefaultSchedulingClass) {}

Plugin::Plugin(std::string name, std::uint32_t schedulingClass)
    : Node(std::move(name), schedulingClass) {}

void Plugin::Execute(Executor& executor) {
  std::string reason;
  gettimeofday(&startTime, nullptr);
  PassObserver* observer = executor.Observer();
  if (observer != nullptr) observer->ActivationStarted(*this);
  if (!AskOperator()) {
    if (observer != nullptr)
      observer->ActivationFinished(*this, PassObserver::Outcome::Skipped, "");
    return;
  }

  const RunOptions& options = RunOptions::Instance();
  if (options.trace) {
    Log_Level(LOG_LEVEL_INFO, "starting execution of plugin: %s\n", Name().c_str());
  }
  LogAlert("Activating Orvane plugin %s.", Name().c_str());
  const bool succeeded = RunChosenMethod(reason);
  Finish(succeeded, reason);
  if (observer != nullptr) {
    observer->ActivationFinished(
        *this, succeeded ? PassObserver::Outcome::Activated : PassObserver::Outcome::Failed,
        reason);
  }
}

bool Plugin::AskOperator() {
  RunOptions& options = RunOptions::Instance();
  if (!options.interactive) return true;

  InteractiveConsole& console = InteractiveConsole::Instance();
  std::vector<std::string>& requirements = options.interactiveModeRequires;
  if (!requirements.empty()) {
    // Prompting begins only after every listed plugin has been reached; the
    // one that completes the list still runs unprompted.
    std::erase(requirements, Name());
    if (requirements.empty()) console.SwitchConsole(kBootTerminal);
    return true;
  }

  console.SwitchConsole(kBootTerminal);
  const char choice = console.Prompt(Name());
  switch (choice) {
    case InteractiveConsole::kContinue:
      console.ShowChoice(choice);
      options.interactive = false;
      console.SwitchConsole(kContinueTerminal);
      return true;
    case InteractiveConsole::kSkip:
      Log_Level(LOG_LEVEL_INFO, "skipping plugin %s (interactive mode request)\n", Name().c_str());
      console.ShowChoice(choice);
      return false;
    case InteractiveConsole::kTroubleshoot:
      console.ShowChoice(choice);
      console.RunTroubleshootingShell();
      return true;
    default:  // execute
      console.ShowChoice(choice);
      return true;
  }
}

bool Plugin::RunChosenMethod(std::string& reason) {
  const std::string& method = RunOptions::Instance().method;
  try {
    if (!method.empty()) {
      if (InvokeMethod(method)) return true;
      reason += "Method invocation failed";
      return false;
    }
    if (SupportsHostProfile() && HostProfilePresent()) {
      Log_Level(LOG_LEVEL_INFO, "executing host profile plugin: %s\n", Name().c_str());
      ApplyHostProfile();
    } else {
      Log_Level(LOG_LEVEL_INFO, "executing start plugin: %s\n", Name().c_str());
      Start();
    }
    return true;
  } catch (const MethodFailedException& failure) {
    Log_Level(LOG_LEVEL_ERROR, "Method invocation failed: %s\n", failure.what());
    reason += failure.what();
  } catch (const std::exception& error) {
    Log_Level(LOG_LEVEL_ERROR, "unhandled exception whilst processing %s: %s\n", Name().c_str(),
              error.what());
    reason += error.what();
  } catch (...) {
    Log_Level(LOG_LEVEL_ERROR, "ignoring unknown exception whilst processing %s ...\n",
              Name().c_str());
    reason += "unknown exception";
  }
  return false;
}

void Plugin::Finish(bool succeeded, const std::string& reason) {
  gettimeofday(&endTime, nullptr);
  if (RunOptions::Instance().trace) {
    Log_Level(LOG_LEVEL_INFO, "completed execution of plugin: %s (took %lld us)\n", Name().c_str(),
              static_cast<long long>(GetElapsedMicroseconds()));
  }
  if (succeeded) {
    LogAlert("Orvane plugin %s activated.", Name().c_str());
  } else {
    LogAlert("Orvane plugin %s activation failed: %s", Name().c_str(), reason.c_str());
  }
}

std::string Plugin::DotAttributes() { return ""; }

std::int64_t Plugin::GetElapsedMicroseconds() const {
  return (static_cast<std::int64_t>(endTime.tv_sec) - startTime.tv_sec) * kMicrosecondsPerSecond +
         (static_cast<std::int64_t>(endTime.tv_usec) - startTime.tv_usec);
}

bool Plugin::InvokeMethod(const std::string& method) {
  try {
    if (method == "start") {
      Log_Level(LOG_LEVEL_INFO, "executing start plugin: %s\n", Name().c_str());
      Start();
    } else if (method == "apply_host_profile") {
      Log_Level(LOG_LEVEL_INFO, "executing host profile plugin: %s\n", Name().c_str());
      ApplyHostProfile();
    }
    // Any other name succeeds silently; invoke runs rely on it.
    return true;
  } catch (const MethodFailedException& failure) {
    Log_Level(LOG_LEVEL_ERROR, "Method invocation failed: %s\n", failure.what());
  } catch (const std::exception& error) {
    Log_Level(LOG_LEVEL_ERROR, "unable to invoke method '%s' on plugin '%s': %s\n", method.c_str(),
              Name().c_str(), error.what());
  } catch (...) {
    Log_Level(LOG_LEVEL_ERROR,
              "unknown exception whilst attempting to execute method '%s' on plugin '%s'\n",
              method.c_str(), Name().c_str());
  }
  return false;
}

}  // namespace orvane
