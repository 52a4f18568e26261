#include "orvaner/run/CommandLine.h"

#include <getopt.h>

#include <boost/lexical_cast.hpp>
#include <boost/tokenizer.hpp>
#include <cstdint>
#include <cstdio>
#include <optional>

#include "orvaner/RunOptions.h"
#include "orvaner/run/RunState.h"

namespace orvane {
namespace {

// getopt_long codes: 128 upward, in the order of the option table.
enum OptionCode : int {
  kHelp = 128,
  kInit,
  kPluginFlags,
  kTrace,
  kInvoke,
  kMethod,
  kPlugin,
  kVerbose,
  kParallel,
  kRandomize,
  kRunOnce,
  kInteractive,
  kDisablePlugins,
  kPluginDirectory,
  kDumpDependencyTree,
  kInteractiveModeRequires,
  kDaemon,
  kDaemonWaitTimeout,
};

constexpr option kLongOptions[] = {
    {"help", no_argument, nullptr, kHelp},
    {"init", no_argument, nullptr, kInit},
    {"plugin-flags", required_argument, nullptr, kPluginFlags},
    {"trace", no_argument, nullptr, kTrace},
    {"invoke", no_argument, nullptr, kInvoke},
    {"method", required_argument, nullptr, kMethod},
    {"plugin", required_argument, nullptr, kPlugin},
    {"verbose", no_argument, nullptr, kVerbose},
    {"parallel", no_argument, nullptr, kParallel},
    {"randomize", optional_argument, nullptr, kRandomize},
    {"run-once", required_argument, nullptr, kRunOnce},
    {"interactive", no_argument, nullptr, kInteractive},
    {"disable-plugins", required_argument, nullptr, kDisablePlugins},
    {"plugin-directory", required_argument, nullptr, kPluginDirectory},
    {"dump-dependency-tree", optional_argument, nullptr, kDumpDependencyTree},
    {"interactive-mode-requires", required_argument, nullptr, kInteractiveModeRequires},
    {"daemon", optional_argument, nullptr, kDaemon},
    {"daemon-wait-timeout", required_argument, nullptr, kDaemonWaitTimeout},
    {nullptr, 0, nullptr, 0},
};

constexpr const char* kShortOptions = "h";

// Trailing blanks are part of the text.
constexpr const char* kUsageLines[] = {
    " -h,--help                  display this help message",
    "    --init                  run in init mode (this will cause zelsyslog to be",
    "                            launched, and the start method to be invoked on the",
    "                            plugins)",
    "    --invoke                run a particular method from the plugin's function",
    "                            pointer table (requires --method)",
    "    --method=<method>       specifies the method identifier",
    "    --plugin=<plugin>[,<plugin>]",
    "                            comma separated list of plugins to load (note that ",
    "                            this will prevent the loading of all plugins, and ",
    "                            only the specified plugins will be loaded), which",
    "                            are specified by the filename (basename of the",
    "                            plugin path)",
    "    --trace                 trace execution of the plugins for debugging ",
    "                            purposes",
    "    --verbose               logs plugin execution to syslog to aid in debugging",
    "    --randomize[=seed]      evaluate the execution order randomizing the",
    "                            order of independent jobs. Only useful for testing.",
    "                            You can specify an optional seed for reproducibility",
    "    --parallel              evaluate the execution order accounting for",
    "                            parallelism between jobs which are independent",
    "    --plugin-flags=<flag>[,<flag>]",
    "                            specify flags for conditional execution of plugins.",
    "                            If there are multiple occurences of this option, the",
    "                            last one is the only one that counts. See plugin",
    "                            documentation for which plugins support flags.",
    "    --interactive           prompts before performing the action, allowing",
    "                            plugins to be skipped, executed, or to fall to a",
    "                            troubleshooting shell",
    "    --disable-plugins=<plugin>[,<plugin>]",
    "                            a comma separated list of plugins to be disabled",
    "                            during execution, which are specified by the",
    "                            filename (basename of the plugin path)",
    "    --dump-dependency-tree[=<path>]",
    "                            dump plugin dependency tree information to the file",
    "                            specified by path.  If path is not specified, the",
    "                            information will be dumped to the console",
    "    --interactive-mode-requires=<plugin>[,<plugin>]",
    "                            interactive mode requires the specified plugins to ",
    "                            be loaded before it can be activated",
    "    --daemon=[wait|nowait]",
    "                            run daemon operations (requires --method). The ",
    "                            optional wait mode specifies whether orvane ",
    "                            should wait for daemon start/stop to complete. ",
    "                            Defaults to 'nowait' if unspecified.",
    "    --daemon-wait-timeout=timeoutInSecs",
    "                            specify how long orvane should wait for daemons ",
    "                            to start/stop, before moving on to the next one.   ",
    "                            The default is 40 secs.                            ",
};

void AppendCommaList(std::vector<std::string>& list, std::string_view items) {
  for (std::string& item : SplitCommaList(items)) {
    list.push_back(std::move(item));
  }
}

void InsertCommaList(std::set<std::string>& set, std::string_view items) {
  for (std::string& item : SplitCommaList(items)) {
    set.insert(std::move(item));
  }
}

// The number in @p text, or nothing when it is not a number of the type.
// The unsigned conversion takes a leading "-" and negates modulo 2^32, as
// lexical conversion does.
template <typename Number>
std::optional<Number> ParseNumber(const char* text) {
  try {
    return boost::lexical_cast<Number>(text);
  } catch (const boost::bad_lexical_cast&) {
    return std::nullopt;
  }
}

void ApplyOption(int code, const char* argument, RunOptions& options, RunState& state) {
  switch (code) {
    case kInit: state.init = true; break;
    case kPluginFlags:
      // Only the last --plugin-flags counts.
      state.pluginFlags.clear();
      InsertCommaList(state.pluginFlags, argument);
      break;
    case kTrace: options.trace = true; break;
    case kInvoke: options.invoke = true; break;
    case kMethod: options.method = argument; break;
    case kPlugin: AppendCommaList(state.pluginList, argument); break;
    case kVerbose: options.verbose = true; break;
    case kParallel:
      options.parallel = true;
      options.interactive = false;
      break;
    case kRandomize:
      options.randomize = true;
      if (argument == nullptr) {
        break;
      }
      if (auto seed = ParseNumber<std::int32_t>(argument)) {
        options.randomSeed = *seed;
      }
      break;
    case kRunOnce: InsertCommaList(state.runOnce, argument); break;
    case kInteractive:
      options.interactive = true;
      options.parallel = false;
      break;
    case kDisablePlugins: AppendCommaList(options.disabledPlugins, argument); break;
    case kPluginDirectory: state.pluginDirectory = argument; break;
    case kDumpDependencyTree:
      state.dump = true;
      if (argument != nullptr) {
        state.dumpPath = argument;
      }
      break;
    case kInteractiveModeRequires:
      AppendCommaList(options.interactiveModeRequires, argument);
      break;
    case kDaemon:
      state.daemon = true;
      if (argument != nullptr) {
        options.daemonWait = std::string_view(argument) == "wait";
      }
      break;
    case kDaemonWaitTimeout:
      if (auto timeout = ParseNumber<std::uint32_t>(argument)) {
        options.daemonWaitTimeout = *timeout;
      }
      break;
  }
}

}  // namespace

ParseOutcome ParseCommandLine(int argc, char* argv[], RunOptions& options, RunState& state) {
  optind = 0;  // a full re-initialisation of getopt, for every parse
  for (;;) {
    int code = getopt_long(argc, argv, kShortOptions, kLongOptions, nullptr);
    switch (code) {
      case -1: return ParseOutcome::Run;
      case 'h':
      case kHelp: return ParseOutcome::Help;
      case '?':
      case ':': return ParseOutcome::UsageError;
      default: ApplyOption(code, optarg, options, state); break;
    }
  }
}

Combination CheckCombination(const RunOptions& options, const RunState& state) {
  if (state.daemon) {
    bool startOrStop = options.method == "start" || options.method == "stop";
    if (options.interactive || options.invoke || state.init || !state.pluginList.empty() ||
        !startOrStop) {
      return Combination::InvalidDaemonCombination;
    }
  }
  if (options.invoke && (options.method.empty() || state.pluginList.empty())) {
    return Combination::InvokeIncomplete;
  }
  return Combination::Valid;
}

std::vector<std::string> SplitCommaList(std::string_view list) {
  using Tokenizer = boost::tokenizer<boost::char_separator<char>, std::string_view::const_iterator>;
  boost::char_separator<char> commas(",");  // empty items are dropped
  std::vector<std::string> items;
  for (const std::string& item : Tokenizer(list.begin(), list.end(), commas)) {
    items.push_back(item);
  }
  return items;
}

std::span<const char* const> UsageLines() { return kUsageLines; }

void PrintUsage() {
  for (const char* line : kUsageLines) {
    std::printf("%s\n", line);
  }
  std::fflush(stdout);
}

void PrintUsageHint(const char* programPath) {
  std::fprintf(stderr, "usage: %s --help for usage information\n", programPath);
}

}  // namespace orvane
