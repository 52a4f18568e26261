#include "orvaner/run/Main.h"

#include <sys/sysinfo.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <utility>

#include "ZelkCtl/CpuInfo.h"
#include "ZelkCtl/KernelProgressScreenImpl.h"
#include "log/Log.h"
#include "orvane/FixedPaths.h"
#include "orvaner/Logging.h"
#include "orvaner/RunOptions.h"
#include "orvaner/cli/QorcliExecutor.h"
#include "orvaner/graph/BarrierRegistry.h"
#include "orvaner/graph/DependencyDump.h"
#include "orvaner/graph/Executor.h"
#include "orvaner/plugins/InitdDiscovery.h"
#include "orvaner/plugins/LoadedPlugins.h"
#include "orvaner/run/CommandLine.h"
#include "orvaner/run/InitMode.h"
#include "orvaner/run/PluginEnumeration.h"
#include "orvaner/run/ProfilingLog.h"
#include "orvaner/run/RunOnceRecord.h"
#include "orvaner/run/RunRecord.h"
#include "orvaner/run/RunState.h"

namespace orvane {
namespace {

constexpr int kExitSuccess = 0;
constexpr int kExitFailure = 1;

constexpr const char* kLogIdentifier = "orvane";
constexpr const char* kActivatingPlugins = "Activating Orvane Plugins";
constexpr const char* kStopMethod = "stop";

void ReadStartClock(RunState& state) {
  gettimeofday(&state.startTime, nullptr);
  state.startMonotonic = std::chrono::steady_clock::now();
  struct sysinfo kernelInformation {};
  if (sysinfo(&kernelInformation) == 0) {
    state.kernelUptimeSeconds = kernelInformation.uptime;
  }
}

void ReadEndClock(RunState& state) { gettimeofday(&state.endTime, nullptr); }

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

// Forks the executor process and waits until it listens.
bool StartExecutor() {
  Log_Level(LOG_LEVEL_INFO, "Launching Executor\n");
  try {
    QorcliExecutor::Instance().Reset();
    return true;
  } catch (const std::exception& error) {
    Log_Level(LOG_LEVEL_WARNING, "Failed to start executor %s\n", error.what());
  } catch (...) {
    Log_Level(LOG_LEVEL_WARNING, "Failed to start executor\n");
  }
  return false;
}

// A failure is logged and the closing steps go on.
void StopExecutor() {
  try {
    QorcliExecutor::Instance().Stop();
  } catch (const std::exception& error) {
    Log_Level(LOG_LEVEL_ERROR, "Failed to stop Executor: %s\n", error.what());
  } catch (...) {
    Log_Level(LOG_LEVEL_ERROR, "Failed to stop Executor\n");
  }
}

// The plugin directory as given, made absolute against the working
// directory of the command line, before that directory changes.
void StoreAbsolutePluginDirectory(RunOptions& options, const RunState& state) {
  std::error_code error;
  std::filesystem::path absolute = std::filesystem::absolute(state.pluginDirectory, error);
  options.pluginDirectory = error ? state.pluginDirectory : absolute.string();
}

// Leaves the caller's working directory and terminal session behind; neither
// failure stops the run. The message says "root" although only the working
// directory changes.
void DetachFromCaller() {
  if (chdir(paths::kRoot) != 0) {
    Log_Level(LOG_LEVEL_INFO, "unable to change filesystem root: %s.\n", std::strerror(errno));
  }
  if (setsid() < 0) {
    Log_Level(LOG_LEVEL_INFO, "unable to create session: %s.\n", std::strerror(errno));
  }
}

// Daemon mode takes its plugins from the init.d scripts alone, in start
// order. Otherwise the plugin directory or the --plugin names go through the
// filters, and the run-once plugins accepted add their keys to
// state.runOnce. Only an invoke run reads the run-once record first: a boot
// starts from the command-line keys and rewrites the record with what it
// loads.
void LoadPlugins(const RunOptions& options, RunState& state, LoadedPlugins& plugins,
                 BarrierRegistry& registry) {
  if (state.daemon) {
    for (std::unique_ptr<Plugin>& daemon : DiscoverInitdDaemons(registry)) {
      plugins.Append(std::move(daemon));
    }
    return;
  }
  if (options.invoke) {
    ReadRunOnceRecord(state.runOnce);
  }
  EnumeratePlugins(state.pluginList, {state.pluginFlags, options.disabledPlugins, state.runOnce},
                   options, plugins, registry);
}

// The worker count. A stateless host always starts its plugins one at a time.
void ChooseThreadCount(RunOptions& options, const PluginList& plugins) {
  std::error_code error;
  if (std::filesystem::exists(paths::kStatelessMarker, error)) {
    options.parallel = false;
  }
  options.threadCount =
      options.parallel ? Executor::ParallelThreadCount(plugins.size(), ZelkCtl::System::CpuCount())
                       : 1;
}

// A pass is over when every plugin has finished. The waits go from the last
// plugin to the first: the workers take plugins in about list order, so this
// thread wakes about once in a pass, where waiting in list order woke it at
// every plugin, and each wake-up cost the worker a system call and a round of
// contention for the graph lock. A plugin already finished returns at once.
void StartAll(const PluginList& plugins, Executor& executor) {
  for (Plugin* plugin : plugins) plugin->ScheduleStart(executor);
  for (auto plugin = plugins.rbegin(); plugin != plugins.rend(); ++plugin) (*plugin)->WaitStarted();
}

void StopAll(const PluginList& plugins, Executor& executor) {
  for (Plugin* plugin : plugins) plugin->ScheduleStop(executor);
  for (auto plugin = plugins.rbegin(); plugin != plugins.rend(); ++plugin) (*plugin)->WaitStopped();
}

// One pass over the graph on a pool that lives as long as the pass; the
// run record hears of every step.
void RunPluginPass(const PluginList& plugins, const RunOptions& options, const RunState& state,
                   RunRecord& record) {
  Executor executor(static_cast<int>(options.threadCount), options.randomize);
  executor.SetObserver(&record);
  // Invoking a method on chosen plugins is no boot: a barrier that nobody
  // among them provides is expected and raises no alert.
  executor.SetRaisesAlerts(!options.invoke);
  if (state.daemon && options.method == kStopMethod) {
    StopAll(plugins, executor);
    return;
  }
  if (!state.daemon) {
    ZelkCtl::System::KernelProgressScreenImpl progressScreen;
    progressScreen.ProgressText(kActivatingPlugins);
    progressScreen.StatusText("");
  }
  StartAll(plugins, executor);
  if (!state.daemon) {
    WriteRunOnceRecord(state.runOnce);
  }
}

// True when @p stream took the whole dump; otherwise says so, with the
// cause that the failed write left in errno.
bool CheckDumpWritten(std::ostream& stream, const std::string& destination) {
  const int error = errno;
  if (stream.flush()) return true;
  Log_Level(LOG_LEVEL_ERROR, "unable to write the dependency tree to %s: %s\n", destination.c_str(),
            std::strerror(error != 0 ? error : EIO));
  return false;
}

// The whole graph in the dot language, to the --dump-dependency-tree file
// (truncated) or to standard output; false when the file cannot be opened,
// in which case nothing is written, or when writing fails (a full disk):
// a dump cut short must not pass for the graph.
bool DumpDependencyTree(const PluginList& pluginList, BarrierRegistry& registry,
                        const RunState& state) {
  const std::deque<Node*> plugins(pluginList.begin(), pluginList.end());
  errno = 0;  // what a failed write leaves here is the cause to report
  if (!state.dumpPath) {
    WriteDependencyTree(plugins, registry.ListBarriers(), std::cout);
    return CheckDumpWritten(std::cout, "standard output");
  }
  std::ofstream file(*state.dumpPath, std::ios::out | std::ios::trunc);
  if (!file) {
    Log_Level(LOG_LEVEL_ERROR, "unable to open '%s' for the dependency tree: %s\n",
              state.dumpPath->c_str(), std::strerror(errno));
    return false;
  }
  WriteDependencyTree(plugins, registry.ListBarriers(), file);
  file.close();
  return CheckDumpWritten(file, "'" + *state.dumpPath + "'");
}

// Loads the plugins into the graph of @p registry, then dumps the graph or
// runs them; false when a standard exception ended either or the dump could
// not be written.
bool LoadAndRunPlugins(RunOptions& options, RunState& state, LoadedPlugins& plugins,
                       BarrierRegistry& registry, RunRecord& record) {
  try {
    LoadPlugins(options, state, plugins, registry);
    ChooseThreadCount(options, plugins.List());
    if (state.dump) {
      return DumpDependencyTree(plugins.List(), registry, state);
    }
    record.Open(options, state, plugins, registry.ListBarriers());
    RunPluginPass(plugins.List(), options, state, record);
    return true;
  } catch (const std::exception& error) {
    Log_Level(LOG_LEVEL_ERROR,
              "unhandled exception whilst enumerating plugins.\nDetails:\n %s \n\n", error.what());
    return false;
  } catch (...) {
    // Not one of ours nor a standard one, but the closing steps still run.
    Log_Level(LOG_LEVEL_ERROR, "unhandled exception of unknown type whilst enumerating plugins.\n");
    return false;
  }
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

  if (state.init) {
    StartBootDaemons(options.environment);
  }
  const bool runsExecutor = !state.daemon;
  if (runsExecutor && !StartExecutor()) {
    return kExitFailure;
  }
  StoreAbsolutePluginDirectory(options, state);
  DetachFromCaller();

  // The run links its plugins into the process-wide registry. This is the
  // one place that picks it; every loader is handed it from here.
  BarrierRegistry& registry = BarrierRegistry::Instance();
  LoadedPlugins plugins;
  RunRecord record;
  const bool succeeded = LoadAndRunPlugins(options, state, plugins, registry, record);

  // The closing steps, whatever became of the plugins; each is attempted
  // even when the one before failed.
  ReadEndClock(state);
  WriteProfilingLog(plugins.List(), options, state);
  if (state.init) {
    ReloadSyslogDaemon();
  }
  if (runsExecutor) {
    StopExecutor();
    EndBootConfiguration();
  }
  const int status = succeeded ? kExitSuccess : kExitFailure;
  record.End(status);
  return status;
}

}  // namespace orvane
