#include "orvaner/Main.h"

#include <sys/sysinfo.h>
#include <sys/time.h>

#include <exception>

#include "log/Log.h"
#include "orvaner/CommandLine.h"
#include "orvaner/Logging.h"
#include "orvaner/RunOptions.h"
#include "orvaner/RunState.h"

namespace orvane {
namespace {

constexpr int kExitSuccess = 0;
constexpr int kExitFailure = 1;

constexpr const char* kLogIdentifier = "orvane";

void ReadStartClock(RunState& state) {
  gettimeofday(&state.startTime, nullptr);
  struct sysinfo kernelInformation {};
  if (sysinfo(&kernelInformation) == 0) {
    state.kernelUptimeSeconds = kernelInformation.uptime;
  }
}

bool StartLogging() {
  try {
    InitLogging(kLogIdentifier);
    return true;
  } catch (const std::exception& error) {
    Log_Level(LOG_LEVEL_WARNING, "Failed to initialize orvane: %s\n", error.what());
  } catch (...) {
    Log_Level(LOG_LEVEL_WARNING, "Failed to initialize orvane\n");
  }
  return false;
}

// Logs why a combination of options is rejected; true when it is accepted.
bool AcceptCombination(const RunOptions& options, const RunState& state) {
  switch (CheckCombination(options, state)) {
    case Combination::Valid: return true;
    case Combination::InvalidDaemonCombination:
      Log_Level(LOG_LEVEL_ERROR, "Invalid combination of options passed. Exiting\n");
      return false;
    case Combination::InvokeIncomplete:
      Log_Level(LOG_LEVEL_ERROR, "invoke requires a method and plugin specified\n");
      PrintUsage();
      return false;
  }
  return false;
}

}  // namespace

int Main(int argc, char* argv[], char* envp[]) {
  RunOptions& options = RunOptions::Instance();
  options.environment = envp;
  RunState state;
  ReadStartClock(state);
  if (!StartLogging()) {
    return kExitFailure;
  }

  switch (ParseCommandLine(argc, argv, options, state)) {
    case ParseOutcome::Help: PrintUsage(); return kExitSuccess;
    case ParseOutcome::UsageError: PrintUsageHint(argv[0]); return kExitFailure;
    case ParseOutcome::Run: break;
  }
  if (!AcceptCombination(options, state)) {
    return kExitFailure;
  }
  return kExitSuccess;
}

}  // namespace orvane
