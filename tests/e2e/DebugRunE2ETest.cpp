// Plain runs of the installed orvane on the sandboxed host with injections
// from the debug configuration: the order they run in, the worker pool's
// options, what is logged, and the executor process around the run.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <algorithm>
#include <chrono>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "HostPaths.h"
#include "OrvaneRunTest.h"
#include "OutputText.h"
#include "Sandbox.h"
#include "SandboxGTest.h"

namespace orvane::testing {
namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::UnorderedElementsAre;

/// Two injections that each leave a marker and wait up to 3 seconds for the
/// other's: they meet only when they run at the same time.
constexpr const char* kRendezvous =
    "left:::touch /tmp/left; i=0; while [ ! -e /tmp/right ] && [ $i -lt 30 ]; do sleep 0.1; "
    "i=$((i+1)); done; if [ -e /tmp/right ]; then echo left met; else echo left alone; fi >> "
    "/tmp/record\n"
    "right:::touch /tmp/right; i=0; while [ ! -e /tmp/left ] && [ $i -lt 30 ]; do sleep 0.1; "
    "i=$((i+1)); done; if [ -e /tmp/left ]; then echo right met; else echo right alone; fi >> "
    "/tmp/record\n";

/// A line an injection records, one per run of an injection, as an
/// append to kRecord.
std::string Record(const std::string& name, const std::string& text) {
  return name + ":::echo " + text + " >> /tmp/record\n";
}

class DebugRunE2E : public OrvaneRunTest {
 protected:
  void WriteDebugConfiguration(const std::string& content) {
    sandbox_->WriteFile(kDebugConfiguration, content);
  }
};

// ---- order

TEST_F(DebugRunE2E, InjectionsRunInDependencyOrderNotFileOrder) {
  WriteDebugConfiguration(
      "late:mid::echo late >> /tmp/record\n"
      "early::base:echo early >> /tmp/record\n"
      "middle:base:mid:echo middle >> /tmp/record\n");
  RunResult result = Orvane({});
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
  EXPECT_THAT(Recorded(), ElementsAre("early", "middle", "late"));
  EXPECT_THAT(Activations(),
              ElementsAre("Activating Orvane plugin early.", "Orvane plugin early activated.",
                          "Activating Orvane plugin middle.", "Orvane plugin middle activated.",
                          "Activating Orvane plugin late.", "Orvane plugin late activated."));
}

TEST_F(DebugRunE2E, IndependentInjectionsRunInFileOrderOnOneWorker) {
  WriteDebugConfiguration(Record("one", "one") + Record("two", "two") + Record("three", "three"));
  EXPECT_EQ(Orvane({}).exitStatus, 0);
  EXPECT_THAT(Recorded(), ElementsAre("one", "two", "three"));
}

TEST_F(DebugRunE2E, MissingProviderRaisesItsAlertAndTheRequirerStillRuns) {
  WriteDebugConfiguration("needy:ghost::echo needy >> /tmp/record\n");
  RunResult result = Orvane({});
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_THAT(Recorded(), ElementsAre("needy"));
  const std::string alert =
      "Orvane dependency error: Initialization barrier \"ghost\" is not provided by any plugin "
      "but the following plugins require it: \"needy\"";
  EXPECT_THAT(KernelLog(), Contains("<1>orvane: " + alert));
  EXPECT_THAT(messages_, Contains(alert));
  EXPECT_THAT(Activations(),
              ElementsAre("Activating Orvane plugin needy.", "Orvane plugin needy activated."));
}

TEST_F(DebugRunE2E, MissingProviderOfAnInvokedPluginIsLoggedButRaisesNoAlert) {
  WriteDebugConfiguration("needy:ghost::echo needy >> /tmp/record\n");
  RunResult result = Orvane({"--invoke", "--method=start", "--plugin=needy.debug"});
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
  EXPECT_THAT(Recorded(), ElementsAre("needy"));
  const std::string report =
      "Orvane dependency error: Initialization barrier \"ghost\" is not provided by any plugin "
      "but the following plugins require it: \"needy\"";
  EXPECT_THAT(messages_, Contains(report));
  EXPECT_THAT(KernelLog(), Not(Contains("<1>orvane: " + report)));
}

// ---- the worker pool

TEST_F(DebugRunE2E, WithoutParallelIndependentInjectionsRunOneAfterTheOther) {
  WriteDebugConfiguration(kRendezvous);
  EXPECT_EQ(Orvane({}).exitStatus, 0);
  EXPECT_THAT(Recorded(), ElementsAre("left alone", "right met"));
}

TEST_F(DebugRunE2E, ParallelRunsIndependentInjectionsAtTheSameTime) {
  WriteDebugConfiguration(kRendezvous);
  EXPECT_EQ(Orvane({"--parallel"}).exitStatus, 0);
  EXPECT_THAT(Recorded(), UnorderedElementsAre("left met", "right met"));
}

TEST_F(DebugRunE2E, HangingInjectionHoldsOnlyItsOwnWorker) {
  // "hang" holds its worker until the injections after it have all run on
  // the other worker (or gives up after 10 seconds, which would mean they
  // waited for it).
  WriteDebugConfiguration(
      "hang:::i=0; while [ ! -e /tmp/released ] && [ $i -lt 100 ]; do sleep 0.1; i=$((i+1)); "
      "done; if [ -e /tmp/released ]; then echo hang released; else echo hang gave up; fi >> "
      "/tmp/record\n" +
      Record("first", "first") + Record("second", "second") +
      "release:::echo release >> /tmp/record; touch /tmp/released\n");
  EXPECT_EQ(Orvane({"--parallel"}).exitStatus, 0);
  const std::vector<std::string> recorded = Recorded();
  EXPECT_THAT(recorded, UnorderedElementsAre("first", "second", "release", "hang released"));
  // Released, not given up: "release" ran while "hang" still held its worker.
  EXPECT_LT(Position(recorded, "release"), Position(recorded, "hang released"));
}

TEST_F(DebugRunE2E, StatelessMarkerTurnsParallelOff) {
  WriteDebugConfiguration(kRendezvous);
  sandbox_->WriteFile(kStatelessMarker, "");
  EXPECT_EQ(Orvane({"--parallel"}).exitStatus, 0);
  EXPECT_THAT(Recorded(), ElementsAre("left alone", "right met"));
}

TEST_F(DebugRunE2E, ParallelStillRespectsDependencies) {
  WriteDebugConfiguration(
      "second:gate::sleep 0.3; echo second >> /tmp/record\n"
      "first::gate:sleep 0.5; echo first >> /tmp/record\n" +
      Record("free", "free"));
  EXPECT_EQ(Orvane({"--parallel"}).exitStatus, 0);
  std::vector<std::string> recorded = Recorded();
  EXPECT_THAT(recorded, UnorderedElementsAre("first", "second", "free"));
  EXPECT_LT(Position(recorded, "first"), Position(recorded, "second"));
}

TEST_F(DebugRunE2E, RandomizeStillRespectsDependencies) {
  // A chain of four and four free injections, in file order against the chain.
  std::string configuration;
  configuration += "c4:b3::echo c4 >> /tmp/record\n";
  configuration += "c3:b2:b3:echo c3 >> /tmp/record\n";
  configuration += "c2:b1:b2:echo c2 >> /tmp/record\n";
  configuration += "c1::b1:echo c1 >> /tmp/record\n";
  for (const char* name : {"f1", "f2", "f3", "f4"}) configuration += Record(name, name);
  WriteDebugConfiguration(configuration);
  for (const std::vector<std::string>& options :
       {std::vector<std::string>{"--randomize"}, {"--randomize=7", "--parallel"}}) {
    // One executor per boot: its socket file stays until the next boot
    // clears /var/run, which a second run in the same sandbox stands for.
    sandbox_->Remove(kRecord);
    sandbox_->Remove(kExecutorSocket);
    RunResult result = Orvane(options);
    EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
    std::vector<std::string> recorded = Recorded();
    EXPECT_THAT(recorded, UnorderedElementsAre("c1", "c2", "c3", "c4", "f1", "f2", "f3", "f4"));
    EXPECT_LT(Position(recorded, "c1"), Position(recorded, "c2"));
    EXPECT_LT(Position(recorded, "c2"), Position(recorded, "c3"));
    EXPECT_LT(Position(recorded, "c3"), Position(recorded, "c4"));
  }
}

// ---- what a run logs

TEST_F(DebugRunE2E, TraceLogsTheStartAndEndOfEveryInjection) {
  WriteDebugConfiguration(Record("a", "a") + Record("b", "b"));
  EXPECT_EQ(Orvane({"--trace"}).exitStatus, 0);
  std::vector<std::string> traced;
  static const std::regex kTraceLine(
      R"((starting execution of plugin: \w+)|(completed execution of plugin: \w+) \(took \d+ us\))");
  for (const std::string& message : messages_) {
    std::smatch match;
    if (std::regex_match(message, match, kTraceLine)) {
      traced.push_back(match[1].matched ? match[1].str() : match[2].str());
    }
  }
  EXPECT_THAT(traced,
              ElementsAre("starting execution of plugin: a", "completed execution of plugin: a",
                          "starting execution of plugin: b", "completed execution of plugin: b"));
}

TEST_F(DebugRunE2E, WithoutTraceNoTraceLines) {
  WriteDebugConfiguration(Record("a", "a"));
  EXPECT_EQ(Orvane({}).exitStatus, 0);
  EXPECT_THAT(messages_, Not(Contains(HasSubstr("execution of plugin"))));
}

TEST_F(DebugRunE2E, FailingInjectionLogsItsStatusWordAndStillCountsAsActivated) {
  WriteDebugConfiguration("x::done:exit 1\n" +
                          std::string("after:done::echo after >> /tmp/record\n"));
  EXPECT_EQ(Orvane({}).exitStatus, 0);
  EXPECT_THAT(messages_, Contains("debug injection 'x' returned 0x000100"));
  EXPECT_TRUE(SyslogHas(LOG_INFO, "debug injection 'x' returned 0x000100"));
  EXPECT_THAT(Activations(),
              ElementsAre("Activating Orvane plugin x.", "Orvane plugin x activated.",
                          "Activating Orvane plugin after.", "Orvane plugin after activated."));
  EXPECT_THAT(Recorded(), ElementsAre("after"));
}

TEST_F(DebugRunE2E, MalformedLineIsReportedAndSkipped) {
  WriteDebugConfiguration(Record("a", "a") + "  broken:line  \n" + Record("b", "b"));
  EXPECT_EQ(Orvane({}).exitStatus, 0);
  EXPECT_THAT(messages_, Contains("ignoring malformed debug entry at line 2: broken:line"));
  EXPECT_TRUE(SyslogHas(LOG_INFO, "ignoring malformed debug entry at line 2: broken:line"));
  EXPECT_THAT(Recorded(), ElementsAre("a", "b"));
}

// The loader reads the configuration once before walking the directory and
// again for every file name that has an extension, whatever the extension;
// each read reports the malformed lines. A configuration written well before
// the run (older than the loader's settling margin, so that a stat stands in
// for reading it) reports exactly as often as one written just before.
class DebugConfigurationEveryNameE2E : public DebugRunE2E {
 protected:
  /// Runs over three names with an extension and one without, and checks
  /// what the configuration gave and how often its bad line was reported.
  void RunAndCheckTheReports() {
    sandbox_->WriteFile(PluginFile("inj.debug"), "");
    sandbox_->WriteFile(PluginFile("notes.txt"), "");
    sandbox_->WriteFile(PluginFile("other.debug"), "");
    sandbox_->WriteFile(PluginFile("README"), "");
    RunResult result = Orvane({});
    EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
    const std::string report = "ignoring malformed debug entry at line 2: broken:line";
    EXPECT_EQ(std::count(messages_.begin(), messages_.end(), report), 4) << result.out;
    // inj.debug and the configuration's own entry.
    EXPECT_THAT(Recorded(), ElementsAre("inj", "inj"));
  }

  static constexpr const char* kConfiguration = "inj:::echo inj >> /tmp/record\nbroken:line\n";
};

TEST_F(DebugConfigurationEveryNameE2E, ConfigurationWrittenJustBeforeTheRun) {
  WriteDebugConfiguration(kConfiguration);
  RunAndCheckTheReports();
}

TEST_F(DebugConfigurationEveryNameE2E, ConfigurationWrittenLongBeforeTheRun) {
  WriteDebugConfiguration(kConfiguration);
  std::this_thread::sleep_for(std::chrono::milliseconds(2500));
  RunAndCheckTheReports();
}

TEST_F(DebugRunE2E, QuotedCommandWithColonsRuns) {
  WriteDebugConfiguration("inj:::'echo a:b:c >> /tmp/record'\n");
  EXPECT_EQ(Orvane({}).exitStatus, 0);
  EXPECT_THAT(Recorded(), ElementsAre("a:b:c"));
}

// ---- which injections take part

TEST_F(DebugRunE2E, PluginListRunsOnlyTheEntriesOfTheNamedInjection) {
  WriteDebugConfiguration(Record("inj", "inj first") + Record("other", "other") +
                          Record("inj", "inj second"));
  EXPECT_EQ(Orvane({"--plugin=inj.debug"}).exitStatus, 0);
  EXPECT_THAT(Recorded(), ElementsAre("inj first", "inj second"));
}

TEST_F(DebugRunE2E, PluginListWithLibPrefixAndUnknownNames) {
  WriteDebugConfiguration(Record("inj", "inj") + Record("other", "other"));
  EXPECT_EQ(Orvane({"--plugin=README,libinj.debug,notes.txt"}).exitStatus, 0);
  EXPECT_THAT(Recorded(), ElementsAre("inj"));
  EXPECT_THAT(messages_, Contains("ignoring plugin 'README' of unspecified type..."));
  EXPECT_THAT(messages_, Contains("ignoring plugin 'notes.txt' of unknown type (txt)..."));
  EXPECT_TRUE(SyslogHas(LOG_WARNING, "ignoring plugin 'notes.txt' of unknown type (txt)..."));
}

TEST_F(DebugRunE2E, EmptyDebugConfigurationGivesARunThatDoesNothing) {
  WriteDebugConfiguration("\n   \n");
  RunResult result = Orvane({"--parallel"});
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_THAT(messages_, ElementsAre("Launching Executor", "Setting up Executor - Reset Requested",
                                     "Executor has been Successfully Stopped"));
  EXPECT_EQ(sandbox_->Kmsg(), "");
}

TEST_F(DebugRunE2E, NoDebugConfigurationGivesARunThatDoesNothing) {
  RunResult result = Orvane({});
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_THAT(messages_, ElementsAre("Launching Executor", "Setting up Executor - Reset Requested",
                                     "Executor has been Successfully Stopped"));
  EXPECT_EQ(sandbox_->Kmsg(), "");
}

TEST_F(DebugRunE2E, DumpModeRunsNoInjection) {
  WriteDebugConfiguration(Record("inj", "inj"));
  EXPECT_EQ(Orvane({"--dump-dependency-tree=/tmp/graph.dot"}).exitStatus, 0);
  EXPECT_THAT(Recorded(), IsEmpty());
  EXPECT_THAT(Activations(), IsEmpty());
}

// A provider, a barrier and a requirer, each shown by its label line; the
// vertices are numbered by address, so only their shape is fixed.
constexpr const char* kDumpedGraph = "provider::ready:true\nrequirer:ready::true\n";
const std::regex kProviderLine(R"((\d+) \[label="provider"\];)");
const std::regex kRequirerLine(R"((\d+) \[label="requirer"\];)");
const std::regex kBarrierLine(R"((\d+) \[label="ready" shape=box\];)");

/// Checks a whole dump of kDumpedGraph: framing, plugins in load order, then
/// the barrier, with the edges provider -> barrier -> requirer.
void ExpectDumpedGraph(const std::vector<std::string>& lines) {
  ASSERT_EQ(lines.size(), 7u);
  EXPECT_EQ(lines[0], "digraph g {");
  std::smatch provider, requirer, barrier;
  ASSERT_TRUE(std::regex_match(lines[1], provider, kProviderLine)) << lines[1];
  ASSERT_TRUE(std::regex_match(lines[3], requirer, kRequirerLine)) << lines[3];
  ASSERT_TRUE(std::regex_match(lines[4], barrier, kBarrierLine)) << lines[4];
  EXPECT_EQ(lines[2], provider[1].str() + " -> " + barrier[1].str() + ";");
  EXPECT_EQ(lines[5], barrier[1].str() + " -> " + requirer[1].str() + ";");
  EXPECT_EQ(lines[6], "}");
}

TEST_F(DebugRunE2E, DumpWithoutAPathGoesToStandardOutput) {
  WriteDebugConfiguration(kDumpedGraph);
  RunResult result = Orvane({"--dump-dependency-tree"});
  EXPECT_EQ(result.exitStatus, 0);
  // Log lines share standard output; the dump's own lines are the others.
  std::vector<std::string> dump;
  for (const std::string& line : Lines(result.out)) {
    if (line.find(" orvane: ") == std::string::npos) dump.push_back(line);
  }
  ExpectDumpedGraph(dump);
  EXPECT_THAT(Activations(), IsEmpty());
}

TEST_F(DebugRunE2E, DumpToAFileReplacesItsContent) {
  WriteDebugConfiguration(kDumpedGraph);
  sandbox_->WriteFile("/tmp/graph.dot", std::string(5000, 'x'));
  EXPECT_EQ(Orvane({"--dump-dependency-tree=/tmp/graph.dot"}).exitStatus, 0);
  ExpectDumpedGraph(Lines(sandbox_->ReadFile("/tmp/graph.dot")));
}

TEST_F(DebugRunE2E, DumpThatCannotBeOpenedWritesNothingRunsTheClosingStepsAndEndsWithOne) {
  WriteDebugConfiguration(kDumpedGraph);
  RunResult result = Orvane({"--dump-dependency-tree=/nowhere/graph.dot"});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_THAT(result.out, Not(HasSubstr("digraph")));
  EXPECT_THAT(messages_, Contains("unable to open '/nowhere/graph.dot' for the dependency tree: No "
                                  "such file or directory"));
  EXPECT_THAT(messages_, Contains("Executor has been Successfully Stopped"));
  EXPECT_FALSE(sandbox_->Exists("/nowhere"));
}

// ---- the executor process around the run

TEST_F(DebugRunE2E, ExecutorRunsBeforeThePluginsAndStopsAfterThem) {
  WriteDebugConfiguration(
      "probe:::test -S /var/run/talvek/orvaneExecutor.sock && echo executor up >> /tmp/record; "
      "exit 1\n");
  EXPECT_EQ(Orvane({}).exitStatus, 0);
  EXPECT_THAT(Recorded(), ElementsAre("executor up"));
  EXPECT_THAT(messages_, ElementsAre("Launching Executor", "Setting up Executor - Reset Requested",
                                     "executing start plugin: probe",
                                     "debug injection 'probe' returned 0x000100",
                                     "Executor has been Successfully Stopped"));
}

// ---- interactive mode

TEST_F(DebugRunE2E, InteractiveSkipAndExecuteChooseWhichInjectionsRun) {
  WriteDebugConfiguration(Record("a", "a") + Record("b", "b"));
  RunSettings settings;
  settings.stdinText = "se";
  EXPECT_EQ(Orvane({"--interactive"}, settings).exitStatus, 0);
  EXPECT_THAT(Recorded(), ElementsAre("b"));
  // On standard output the line follows the prompt's, so look in syslog.
  EXPECT_TRUE(SyslogHas(LOG_INFO, "skipping plugin a (interactive mode request)"));
  EXPECT_THAT(Activations(),
              ElementsAre("Activating Orvane plugin b.", "Orvane plugin b activated."));
}

TEST_F(DebugRunE2E, InteractiveContinueRunsTheRestWithoutPrompting) {
  WriteDebugConfiguration(Record("a", "a") + Record("b", "b") + Record("c", "c"));
  RunSettings settings;
  settings.stdinText = "c";
  RunResult result = Orvane({"--interactive"}, settings);
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_THAT(Recorded(), ElementsAre("a", "b", "c"));
  EXPECT_THAT(result.out, HasSubstr("current plugin: \x1b[36m"
                                    "a\n"));
  EXPECT_THAT(result.out, Not(HasSubstr("current plugin: \x1b[36m"
                                        "b")));
}

}  // namespace
}  // namespace orvane::testing
