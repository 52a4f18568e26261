// Every run mode of the installed orvane and every combination of modes, on
// one small sandboxed host: which steps of the run each takes (boot daemons,
// executor, plugins, run-once record, profiling log, dependency dump), the
// combinations that are refused before any step, the failures that end a
// run with status 1, and a profiling log that survives orvane being killed
// while it writes it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "HostPaths.h"
#include "OrvaneRunTest.h"
#include "OutputText.h"
#include "Sandbox.h"
#include "SandboxGTest.h"
#include "orvane/FixedPaths.h"

namespace orvane::testing {
namespace {

using ::testing::Contains;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

constexpr const char* kGraph = "/tmp/graph.dot";
constexpr const char* kPreviousLog = "previous run\n";

constexpr const char* kJSONPlugin =
    "{\"metadata\": {\"version\": 1, \"requires\": [], \"provides\": []},\n"
    " \"operations\": {\"start\": [\"test record --text jplug\"]}}\n";

constexpr const char* kInjection = "inject:::echo inject >> /tmp/record\n";

// The boot daemons only record that they were started; the syslog daemon
// writes no pid file, so the closing syslog step of an init run reports it.
constexpr const char* kSyslogDaemon = "#!/bin/sh\necho zelsyslogd >> /tmp/record\n";
constexpr const char* kEventDaemon = "#!/bin/sh\necho \"wexd $1\" >> /tmp/record\n";
constexpr const char* kMissingPidFile = "unable to open zelksyslogd pid file.";

// One init.d daemon, listed by the stand-in service tool.
constexpr const char* kServiceTool =
    "#!/bin/sh\n[ \"$1\" = -p ] || exit 2\necho '/etc/init.d/svc 10'\n";
constexpr const char* kInitdScript = "#!/bin/sh\necho \"$1 svc\" >> /tmp/record\n";

enum class Executor { NotLaunched, LaunchedAndStopped, FailedToStart };
enum class ProfilingLog { Untouched, BootBlock, DaemonBlock };
enum class Dump { None, ToFile, ToStdout, Unopenable };
enum class Setup { Host, StaleExecutorSocket };

struct ModeCase {
  const char* name;
  std::vector<std::string> options;
  int exitStatus;
  std::vector<std::string> recorded;     ///< what ran, in any order
  std::vector<std::string> activations;  ///< kernel-log plugin lines, in any order
  Executor executor;
  ProfilingLog log;
  bool runOnceWritten;
  Dump dump = Dump::None;
  std::vector<std::string> graphHas = {};  ///< plugin names the dump must show
  std::vector<std::string> graphHasNot = {};
  std::vector<std::string> messagesHave = {};  ///< standard-output log messages
  Setup setup = Setup::Host;
};

void PrintTo(const ModeCase& mode, std::ostream* out) { *out << mode.name; }

const std::vector<std::string> kStarted = {
    "Activating Orvane plugin inject.", "Orvane plugin inject activated.",
    "Activating Orvane plugin jplug.", "Orvane plugin jplug activated."};
const std::vector<std::string> kJPlugStarted = {"Activating Orvane plugin jplug.",
                                                "Orvane plugin jplug activated."};
const std::vector<std::string> kInvoke = {"--invoke", "--method=start", "--plugin=jplug.json"};

std::vector<std::string> With(std::vector<std::string> options,
                              const std::vector<std::string>& more) {
  options.insert(options.end(), more.begin(), more.end());
  return options;
}

std::vector<ModeCase> Modes() {
  const std::string dumpToFile = std::string("--dump-dependency-tree=") + kGraph;
  std::vector<ModeCase> modes = {
      {"Plain",
       {},
       0,
       {"inject", "jplug"},
       kStarted,
       Executor::LaunchedAndStopped,
       ProfilingLog::BootBlock,
       true},
      {"Init",
       {"--init"},
       0,
       {"zelsyslogd", "wexd start", "inject", "jplug"},
       kStarted,
       Executor::LaunchedAndStopped,
       ProfilingLog::BootBlock,
       true,
       Dump::None,
       {},
       {},
       {kMissingPidFile}},
      {"Invoke",
       kInvoke,
       0,
       {"jplug"},
       kJPlugStarted,
       Executor::LaunchedAndStopped,
       ProfilingLog::Untouched,
       true},
      {"DaemonStart",
       {"--daemon", "--method=start"},
       0,
       {"start svc"},
       {"Activating Orvane plugin svc.", "Orvane plugin svc activated."},
       Executor::NotLaunched,
       ProfilingLog::DaemonBlock,
       false},
      {"DaemonStop",
       {"--daemon", "--method=stop"},
       0,
       {"stop svc"},
       {"Deactivating Daemon svc.", "Daemon svc deactivated."},
       Executor::NotLaunched,
       ProfilingLog::DaemonBlock,
       false},
      {"DumpToFile",
       {dumpToFile},
       0,
       {},
       {},
       Executor::LaunchedAndStopped,
       ProfilingLog::BootBlock,
       false,
       Dump::ToFile,
       {"inject", "jplug"}},
      {"DumpToStdout",
       {"--dump-dependency-tree"},
       0,
       {},
       {},
       Executor::LaunchedAndStopped,
       ProfilingLog::BootBlock,
       false,
       Dump::ToStdout,
       {"inject", "jplug"}},
      {"InitInvoke",
       With({"--init"}, kInvoke),
       0,
       {"zelsyslogd", "wexd start", "jplug"},
       kJPlugStarted,
       Executor::LaunchedAndStopped,
       ProfilingLog::Untouched,
       true,
       Dump::None,
       {},
       {},
       {kMissingPidFile}},
      {"InitDump",
       {"--init", dumpToFile},
       0,
       {"zelsyslogd", "wexd start"},
       {},
       Executor::LaunchedAndStopped,
       ProfilingLog::BootBlock,
       false,
       Dump::ToFile,
       {"inject", "jplug"},
       {},
       {kMissingPidFile}},
      {"InvokeDump",
       With(kInvoke, {dumpToFile}),
       0,
       {},
       {},
       Executor::LaunchedAndStopped,
       ProfilingLog::Untouched,
       false,
       Dump::ToFile,
       {"jplug"},
       {"inject"}},
      {"DaemonDump",
       {"--daemon", "--method=start", dumpToFile},
       0,
       {},
       {},
       Executor::NotLaunched,
       ProfilingLog::DaemonBlock,
       false,
       Dump::ToFile,
       {"svc"},
       {"inject", "jplug"}},
      // --help wins over everything before it.
      {"HelpAfterOtherOptions",
       {"--init", "--invoke", "--daemon", dumpToFile, "--help"},
       0,
       {},
       {},
       Executor::NotLaunched,
       ProfilingLog::Untouched,
       false},
      // Failures that end the run with 1.
      {"StaleExecutorSocket",
       {"--init"},
       1,
       {"zelsyslogd", "wexd start"},
       {},
       Executor::FailedToStart,
       ProfilingLog::Untouched,
       false,
       Dump::None,
       {},
       {},
       {},
       Setup::StaleExecutorSocket},
      {"MissingPluginDirectory",
       {"--plugin-directory=/nowhere"},
       1,
       {},
       {},
       Executor::LaunchedAndStopped,
       ProfilingLog::BootBlock,
       false,
       Dump::None,
       {},
       {},
       {"unhandled exception whilst enumerating plugins."}},
      {"DumpToAnUnopenablePath",
       {"--dump-dependency-tree=/nowhere/graph.dot"},
       1,
       {},
       {},
       Executor::LaunchedAndStopped,
       ProfilingLog::BootBlock,
       false,
       Dump::Unopenable,
       {},
       {},
       {"unable to open '/nowhere/graph.dot' for the dependency tree"}},
  };
  // Refused before any step of the run.
  const std::vector<std::pair<const char*, std::vector<std::string>>> refused = {
      {"RefusedDaemonInit", {"--daemon", "--method=start", "--init"}},
      {"RefusedDaemonInvoke", {"--daemon", "--method=start", "--invoke", "--plugin=jplug.json"}},
      {"RefusedDaemonInteractive", {"--daemon", "--method=start", "--interactive"}},
      {"RefusedDaemonPluginList", {"--daemon", "--method=start", "--plugin=jplug.json"}},
      {"RefusedDaemonRestart", {"--daemon", "--method=restart"}},
      {"RefusedInvokeWithoutMethod", {"--invoke", "--plugin=jplug.json"}},
      {"RefusedInvokeWithoutPlugin", {"--invoke", "--method=start"}},
      {"RefusedInitInvokeWithoutPlugin", {"--init", "--invoke", "--method=start"}},
  };
  for (const auto& [name, options] : refused) {
    modes.push_back(
        {name, options, 1, {}, {}, Executor::NotLaunched, ProfilingLog::Untouched, false});
  }
  return modes;
}

std::vector<std::string> Sorted(std::vector<std::string> items) {
  std::sort(items.begin(), items.end());
  return items;
}

class RunModesE2E : public ::testing::TestWithParam<ModeCase> {
 protected:
  void SetUp() override {
    ORVANE_REQUIRE_SANDBOX();
    sandbox_ = std::make_unique<Sandbox>();
    for (const char* path : {paths::kSyslogUpgradeScript, paths::kSyslogConf,
                             paths::kSyslogDaemonPidFile, paths::kRunOnceRecord, kRecord, kGraph}) {
      sandbox_->Remove(path);
    }
    sandbox_->WriteFile(paths::kSyslogDaemon, kSyslogDaemon, 0755);
    sandbox_->WriteFile(paths::kEventDaemonScript, kEventDaemon, 0755);
    sandbox_->WriteFile(paths::kChkconfig, kServiceTool, 0755);
    sandbox_->WriteFile("/etc/init.d/svc", kInitdScript, 0755);
    InstallRecordingCommands(*sandbox_);
    sandbox_->WriteFile(PluginFile("jplug.json"), kJSONPlugin);
    sandbox_->WriteFile(paths::kDebugConfiguration, kInjection);
    sandbox_->WriteFile(paths::kProfilingLog, kPreviousLog);
  }

  std::vector<std::string> Recorded() {
    return sandbox_->Exists(kRecord) ? Lines(sandbox_->ReadFile(kRecord))
                                     : std::vector<std::string>{};
  }

  /// The kernel-log lines about plugins and daemons, without their prefix.
  std::vector<std::string> Activations() {
    std::vector<std::string> activations;
    for (std::string line : Lines(sandbox_->Kmsg())) {
      if (line.starts_with("<6>orvane: ")) line = line.substr(11);
      if (line.find("plugin") != std::string::npos || line.find("Daemon") != std::string::npos) {
        activations.push_back(line);
      }
    }
    return activations;
  }

  std::unique_ptr<Sandbox> sandbox_;
};

TEST_P(RunModesE2E, TakesExactlyTheStepsOfItsMode) {
  const ModeCase& mode = GetParam();
  if (mode.setup == Setup::StaleExecutorSocket) {
    // Something already holds the executor's socket path: its bind fails.
    sandbox_->WriteFile(paths::kExecutorSocket, "");
  }
  std::vector<std::string> argv = mode.options;
  argv.insert(argv.begin(), kOrvane);
  const RunResult result = sandbox_->Run(argv);
  ASSERT_FALSE(result.timedOut);
  const std::vector<std::string> messages = LogMessages(result.out);

  EXPECT_EQ(result.exitStatus, mode.exitStatus) << result.out << result.err;
  EXPECT_EQ(Sorted(Recorded()), Sorted(mode.recorded));
  EXPECT_EQ(Sorted(Activations()), Sorted(mode.activations));

  switch (mode.executor) {
    case Executor::NotLaunched: EXPECT_THAT(messages, Not(Contains(HasSubstr("Executor")))); break;
    case Executor::LaunchedAndStopped:
      EXPECT_THAT(messages, Contains("Launching Executor"));
      EXPECT_THAT(messages, Contains("Executor has been Successfully Stopped"));
      EXPECT_EQ(messages.back(), "Executor has been Successfully Stopped") << result.out;
      break;
    case Executor::FailedToStart:
      EXPECT_THAT(messages, Contains("Launching Executor"));
      EXPECT_THAT(messages, Contains(StartsWith("Failed to start executor")));
      EXPECT_THAT(messages, Not(Contains(HasSubstr("Stopped"))));
      break;
  }

  const std::string log = sandbox_->ReadFile(paths::kProfilingLog);
  switch (mode.log) {
    case ProfilingLog::Untouched: EXPECT_EQ(log, kPreviousLog); break;
    case ProfilingLog::BootBlock:
      EXPECT_THAT(log, StartsWith("ZELKernel Initialization Time: "));
      EXPECT_THAT(log, HasSubstr("\n=== Orvane configuration info ===\n"));
      EXPECT_THAT(log, Not(HasSubstr(kPreviousLog)));
      EXPECT_THAT(log, Not(HasSubstr("Daemon configuration")));
      break;
    case ProfilingLog::DaemonBlock:
      EXPECT_THAT(log, StartsWith(kPreviousLog));
      EXPECT_THAT(log, HasSubstr("\n=== Daemon configuration info ===\n"));
      EXPECT_THAT(log, Not(HasSubstr("Orvane configuration")));
      break;
  }
  // Every plugin that was activated has its own times in the log.
  if (mode.log != ProfilingLog::Untouched) {
    for (const std::string& activation : mode.activations) {
      if (!activation.starts_with("Activating Orvane plugin ")) continue;
      const std::string name = activation.substr(25, activation.size() - 26);
      bool found = false;
      for (const std::string& line : Lines(log)) {
        if (line.ends_with(": " + name)) {
          found = true;
          EXPECT_THAT(line, Not(HasSubstr("1970"))) << log;
        }
      }
      EXPECT_TRUE(found) << name << " has no line in\n" << log;
    }
  }

  EXPECT_EQ(sandbox_->Exists(paths::kRunOnceRecord), mode.runOnceWritten);

  std::string graph;
  switch (mode.dump) {
    case Dump::None:
    case Dump::Unopenable:
      EXPECT_FALSE(sandbox_->Exists(kGraph));
      EXPECT_THAT(result.out, Not(HasSubstr("digraph")));
      break;
    case Dump::ToFile:
      ASSERT_TRUE(sandbox_->Exists(kGraph));
      graph = sandbox_->ReadFile(kGraph);
      EXPECT_THAT(result.out, Not(HasSubstr("digraph")));
      break;
    case Dump::ToStdout:
      EXPECT_FALSE(sandbox_->Exists(kGraph));
      graph = result.out.substr(std::min(result.out.find("digraph g {\n"), result.out.size()));
      break;
  }
  if (mode.dump == Dump::ToFile || mode.dump == Dump::ToStdout) {
    EXPECT_THAT(graph, StartsWith("digraph g {\n"));
    EXPECT_THAT(graph, HasSubstr("\n}\n"));
    for (const std::string& name : mode.graphHas) {
      EXPECT_THAT(graph, HasSubstr("\"" + name + "\"")) << graph;
    }
    for (const std::string& name : mode.graphHasNot) {
      EXPECT_THAT(graph, Not(HasSubstr("\"" + name + "\""))) << graph;
    }
  }

  for (const std::string& message : mode.messagesHave) {
    EXPECT_THAT(messages, Contains(StartsWith(message))) << result.out;
  }
  if (mode.setup == Setup::Host &&
      mode.options == std::vector<std::string>{"--plugin-directory=/nowhere"}) {
    EXPECT_THAT(result.out, HasSubstr("Details:\n filesystem error: directory iterator cannot open "
                                      "directory: No such file or directory [/nowhere] \n"));
  }
  if (mode.exitStatus == 1 && mode.executor == Executor::NotLaunched) {
    // A refused run ends before its first step.
    EXPECT_THAT(Recorded(), IsEmpty());
    EXPECT_EQ(sandbox_->Kmsg(), "");
  }
}

INSTANTIATE_TEST_SUITE_P(EveryMode, RunModesE2E, ::testing::ValuesIn(Modes()),
                         [](const ::testing::TestParamInfo<ModeCase>& info) {
                           return std::string(info.param.name);
                         });

// ---- a profiling log that survives a kill at any moment

constexpr int kPlugins = 1500;  // enough lines that writing them takes milliseconds
/// Kills during the write that the test needs to show anything, and the most
/// kills it makes to get them: on a busy machine fewer kills land mid-write.
constexpr int kWantedKillsDuringTheWrite = 20;
constexpr int kMostKills = 600;

/// Starts orvane again and again in one sandbox and SIGKILLs it, until $1
/// kills have landed during the write or $2 kills were made: every
/// fourth run at a random moment of a whole run, the others a random few
/// microseconds after the temporary file of the profiling log
/// appears. After each kill it removes the temporary file (noting that there
/// was one), the executor the killed run left behind and its socket, and
/// keeps a copy of the log as /tmp/snap/<run>. /tmp/snap/index gets one line
/// "<run> <way> <temporary-file-left>" per kill.
constexpr const char* kKillLoop = R"SH(#!/bin/bash
log=/var/log/sysboot.log
sock=/var/run/talvek/orvaneExecutor.sock
mkdir -p /tmp/snap
rm -f "$sock"
start=${EPOCHREALTIME/./}
/usr/bin/orvane >/dev/null 2>&1 || exit 3
whole=$(( ${EPOCHREALTIME/./} - start ))
cp "$log" /tmp/snap/0
hits=0
for ((i = 1; i <= $2 && hits < $1; i++)); do
  /usr/bin/orvane >/dev/null 2>&1 &
  pid=$!
  if ((i % 4 == 0)); then
    way=anytime
    delay=$(( (RANDOM * 32768 + RANDOM) % whole ))
    sleep "$(printf '%d.%06d' $((delay / 1000000)) $((delay % 1000000)))"
  else
    way=writing
    while kill -0 $pid 2>/dev/null && ! compgen -G "$log.??????" >/dev/null; do :; done
    for ((spin = RANDOM % 8; spin > 0; spin--)); do :; done
  fi
  # Builtins only between the trigger and the kill: the write is short.
  children=()
  read -r -a children < /proc/$pid/task/$pid/children 2>/dev/null
  kill -KILL $pid 2>/dev/null
  wait $pid 2>/dev/null
  for child in "${children[@]}"; do kill -KILL "$child" 2>/dev/null; done
  left=0
  for temporary in "$log".??????; do
    if [ -e "$temporary" ]; then left=1; rm -f "$temporary"; fi
  done
  rm -f "$sock"
  if [ -e "$log" ]; then cp "$log" /tmp/snap/$i; fi
  hits=$((hits + left))
  echo "$i $way $left" >> /tmp/snap/index
done
)SH";

/// Whether @p text is one whole boot block of @p plugins plugin lines.
::testing::AssertionResult IsWholeBootBlock(const std::string& text, int plugins) {
  if (text.empty() || text.back() != '\n') {
    return ::testing::AssertionFailure() << "does not end with a line end";
  }
  const std::vector<std::string> lines = Lines(text);
  if (lines.size() != static_cast<std::size_t>(plugins) + 9) {
    return ::testing::AssertionFailure() << lines.size() << " lines";
  }
  if (!lines.front().starts_with("ZELKernel Initialization Time: ")) {
    return ::testing::AssertionFailure() << "first line " << lines.front();
  }
  for (int index = 1; index <= plugins; ++index) {
    if (!lines[index].starts_with("[") || lines[index].find("] sysboot: p") == std::string::npos) {
      return ::testing::AssertionFailure() << "line " << index << ": " << lines[index];
    }
  }
  if (lines[plugins + 1] != "=== Orvane configuration info ===" ||
      !lines.back().starts_with(" Random Seed: ")) {
    return ::testing::AssertionFailure() << "bad closing lines";
  }
  return ::testing::AssertionSuccess();
}

/// The " Start: " line of a boot block, which tells one run's block from another's.
std::string StartLine(const std::string& text) {
  for (const std::string& line : Lines(text)) {
    if (line.starts_with(" Start: ")) return line;
  }
  return {};
}

TEST(RunModesDurabilityE2E, KillingOrvaneWhileItWritesTheProfilingLogNeverLeavesAPartialLog) {
  ORVANE_REQUIRE_SANDBOX();
  Sandbox sandbox;
  sandbox.Remove(paths::kDebugConfiguration);
  sandbox.Remove(paths::kProfilingLog);
  // Plugins that run no command, so that a run is mostly loading and logging.
  for (int index = 0; index < kPlugins; ++index) {
    char name[32];
    std::snprintf(name, sizeof name, "/p%04d.json", index);
    sandbox.WriteFile(std::string(paths::kPluginDirectory) + name,
                      "{\"metadata\": {\"version\": 1, \"requires\": [], \"provides\": []},"
                      " \"operations\": {\"start\": []}}\n");
  }
  sandbox.WriteFile("/tmp/kill-loop", kKillLoop, 0755);
  RunSettings settings;
  settings.timeout = std::chrono::seconds(300);
  const RunResult result =
      sandbox.Run({"/bin/bash", "/tmp/kill-loop", std::to_string(kWantedKillsDuringTheWrite),
                   std::to_string(kMostKills)},
                  settings);
  ASSERT_FALSE(result.timedOut);
  ASSERT_EQ(result.exitStatus, 0) << result.out << result.err;

  std::string previous = sandbox.ReadFile("/tmp/snap/0");
  ASSERT_TRUE(IsWholeBootBlock(previous, kPlugins));
  const std::vector<std::string> index = Lines(sandbox.ReadFile("/tmp/snap/index"));
  ASSERT_GE(index.size(), static_cast<std::size_t>(kWantedKillsDuringTheWrite));
  ASSERT_LE(index.size(), static_cast<std::size_t>(kMostKills));
  const int kills = static_cast<int>(index.size());
  int temporaryLeft = 0;
  int replaced = 0;
  int untouched = 0;
  for (const std::string& entry : index) {
    int run = 0;
    char way[16] = {};
    int left = 0;
    ASSERT_EQ(std::sscanf(entry.c_str(), "%d %15s %d", &run, way, &left), 3) << entry;
    const std::string snapshot = "/tmp/snap/" + std::to_string(run);
    ASSERT_TRUE(sandbox.Exists(snapshot)) << "no profiling log after kill " << run;
    const std::string log = sandbox.ReadFile(snapshot);
    EXPECT_TRUE(IsWholeBootBlock(log, kPlugins)) << "after kill " << run << " (" << way << ")";
    if (log == previous) {
      ++untouched;
    } else {
      EXPECT_NE(StartLine(log), StartLine(previous)) << "after kill " << run;
      ++replaced;
    }
    temporaryLeft += left;
    previous = log;
  }
  std::printf(
      "kills: %d; during the write (temporary file left behind): %d; "
      "log replaced by a new whole block: %d; log left as it was: %d\n",
      kills, temporaryLeft, replaced, untouched);
  // The kills must really hit the write, or this test shows nothing.
  EXPECT_GE(temporaryLeft, kWantedKillsDuringTheWrite);
}

}  // namespace
}  // namespace orvane::testing
