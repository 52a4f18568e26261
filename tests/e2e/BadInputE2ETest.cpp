// No input hangs or crashes a boot: runs of the installed orvane on the
// sandboxed host with the inputs that used to hold it for ever (an empty
// command line, FIFOs where files belong, a client of the executor that
// never speaks), a plugin directory of hostile entries, a dump to a full
// device, and a parallel boot of a thousand plugins of which a third fail
// and a third crash. Each run has a short time limit: a hang fails the test
// instead of holding the suite.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "HostPaths.h"
#include "OrvaneRunTest.h"
#include "OutputText.h"
#include "Sandbox.h"
#include "SandboxGTest.h"

namespace orvane::testing {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

constexpr const char* kProbe = "/usr/local/bin/executorprobe";

/// A boot of a few plugins ends within a second; a hang hits this limit.
constexpr std::chrono::seconds kShortLimit{30};

/// A version-1 description.
std::string Description(const std::vector<std::string>& required,
                        const std::vector<std::string>& provided,
                        const std::vector<std::string>& start) {
  return "{\"metadata\": {\"version\": 1, \"requires\": " + JsonList(required) +
         ", \"provides\": " + JsonList(provided) +
         "},\n \"operations\": {\"start\": " + JsonList(start) + "}}\n";
}

/// The command line that records @p text.
std::string Record(const std::string& text) { return "test record --text " + text; }

class BadInputE2E : public OrvaneRunTest {
 protected:
  void SetUp() override {
    OrvaneRunTest::SetUp();
    if (IsSkipped()) return;
    InstallRecordingCommands(*sandbox_);
  }

  void WritePlugin(const std::string& fileName, const std::string& content) {
    sandbox_->WriteFile(PluginFile(fileName), content);
  }

  /// A FIFO at @p inSandbox, which nobody ever writes to.
  void MakeFifo(const std::string& inSandbox) {
    const std::filesystem::path path = sandbox_->HostPath(inSandbox);
    std::filesystem::create_directories(path.parent_path());
    ASSERT_EQ(::mkfifo(path.c_str(), 0644), 0) << path;
  }

  /// A plain run that must end by itself within @p limit.
  RunResult Boot(std::vector<std::string> options = {}, std::chrono::seconds limit = kShortLimit) {
    RunSettings settings;
    settings.timeout = limit;
    RunResult result = Orvane(std::move(options), settings);
    EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
    return result;
  }

  /// Expects the load failure of @p fileName with @p reason as a system
  /// alert and a syslog warning.
  void ExpectLoadFailure(const std::string& fileName, const std::string& reason) {
    const std::string text = "exception occurred whilst loading plugin " + fileName + ": plugin `" +
                             PluginFile(fileName) + "' is invalid: " + reason;
    EXPECT_THAT(KernelLog(), Contains("<1>orvane: " + text));
    EXPECT_TRUE(SyslogHas(LOG_WARNING, text)) << text;
  }

  static std::vector<std::string> Activated(const std::string& name) {
    return {"Activating Orvane plugin " + name + ".", "Orvane plugin " + name + " activated."};
  }
};

// ---- the hangs

TEST_F(BadInputE2E, EmptyStartCommandFailsItsPluginAndThePluginsAfterItStillRun) {
  WritePlugin("empty.json", Description({}, {"empty.done"}, {""}));
  WritePlugin("after.json", Description({"empty.done"}, {}, {Record("after")}));
  Boot();
  EXPECT_THAT(Activations(),
              ElementsAre("Activating Orvane plugin empty.",
                          "Orvane plugin empty activation failed: empty->start() failed: error "
                          "while executing the cli",
                          "Activating Orvane plugin after.", "Orvane plugin after activated."));
  EXPECT_THAT(Recorded(), ElementsAre("after"));
}

TEST_F(BadInputE2E, StartCommandBeginningWithNulIsAnEmptyLineAndHoldsNothingUp) {
  WritePlugin("nul.json",
              "{\"metadata\": {\"version\": 1, \"requires\": [], \"provides\": [\"nul.done\"]},\n"
              " \"operations\": {\"start\": [\"\\u0000test record --text hidden\"]}}\n");
  WritePlugin("after.json", Description({"nul.done"}, {}, {Record("after")}));
  Boot();
  EXPECT_THAT(Activations(), Contains(StartsWith("Orvane plugin nul activation failed: ")));
  EXPECT_THAT(Recorded(), ElementsAre("after"));
}

TEST_F(BadInputE2E, FifoNamedLikeANativePluginIsRefusedAndTheBootGoesOn) {
  MakeFifo(PluginFile("libx.so"));
  WritePlugin("good.json", Description({}, {}, {Record("good")}));
  Boot();
  ExpectLoadFailure("libx.so", "not a regular file (a FIFO)");
  EXPECT_THAT(Activations(), ElementsAre(Activated("good")[0], Activated("good")[1]));
}

TEST_F(BadInputE2E, FifoAsTheDebugConfigurationReadsAsAbsentWithOneWarning) {
  MakeFifo(kDebugConfiguration);
  WritePlugin("good.json", Description({}, {}, {Record("good")}));
  WritePlugin("other.json", Description({}, {}, {Record("other")}));
  Boot();
  const std::string warning = std::string("ignoring the debug configuration ") +
                              kDebugConfiguration + ": not a regular file (a FIFO)";
  EXPECT_EQ(std::count(messages_.begin(), messages_.end(), warning), 1) << warning;
  EXPECT_THAT(Recorded(), ::testing::UnorderedElementsAre("good", "other"));
}

// A client that connects to the executor and says nothing holds it only
// until its receive times out; the boot then goes on. The injection leaves
// such a client running and returns once it is connected.
TEST_F(BadInputE2E, SilentClientOfTheExecutorDelaysTheBootOnlyByTheReceiveTimeOut) {
  sandbox_->CopyIn(ORVANE_EXECUTORPROBE, kProbe);
  sandbox_->WriteFile(kDebugConfiguration,
                      std::string("silent::silent.connected:'") + kProbe +
                          " silent sleep 60000 > /tmp/silent & "
                          "until grep -q connected /tmp/silent; do sleep 0.01; done'\n");
  WritePlugin("after.json", Description({"silent.connected"}, {}, {Record("after")}));
  Boot();
  EXPECT_THAT(Activations(), Contains(Activated("after")[1]));
  EXPECT_THAT(Recorded(), ElementsAre("after"));
  EXPECT_THAT(LogMessages(sandbox_->ReadFile(kExecutorLog)),
              Contains("Failed to read message from socket - Resource temporarily unavailable"));
}

// ---- a hostile plugin directory

TEST_F(BadInputE2E, HostileDirectoryEntriesAreEachRefusedWithTheirReasonAndTheGoodOnesRun) {
  const std::filesystem::path directory = sandbox_->HostPath(kPluginDirectory);
  std::filesystem::create_directories(directory);
  std::filesystem::create_symlink("loop.json", directory / "loop.json");
  std::filesystem::create_symlink("/nowhere/dangling.json", directory / "dangling.json");
  std::filesystem::create_directory(directory / "x.json");
  std::filesystem::create_directory(directory / "libdir.so");
  std::filesystem::create_symlink("libloop.so", directory / "libloop.so");
  // 20 MB of a real description: a start command of that length.
  WritePlugin("big.json", Description({}, {}, {std::string(20 * 1024 * 1024, 'b')}));
  const std::string deep = std::string(200000, '[') + std::string(200000, ']');
  WritePlugin("deep.json",
              "{\"metadata\": {\"version\": 1, \"requires\": [], \"provides\": []},"
              " \"operations\": {\"start\": []}, \"deep\": " +
                  deep + "}");
  WritePlugin("good.json", Description({}, {"good.done"}, {Record("good")}));
  WritePlugin("later.json", Description({"good.done"}, {}, {Record("later")}));

  Boot();
  ExpectLoadFailure("loop.json", "no such file or directory");
  ExpectLoadFailure("dangling.json", "no such file or directory");
  ExpectLoadFailure("x.json", "not a regular file (a directory)");
  ExpectLoadFailure("libdir.so", "not a regular file (a directory)");
  ExpectLoadFailure("libloop.so", PluginFile("libloop.so") +
                                      ": cannot open shared object file: Too many "
                                      "levels of symbolic links");
  ExpectLoadFailure("big.json", "description is larger than 16777216 bytes");
  ExpectLoadFailure("deep.json", "description nests deeper than 64 levels");
  EXPECT_THAT(Recorded(), ElementsAre("good", "later"));
}

// ---- the dependency dump

TEST_F(BadInputE2E, DumpToAFullDeviceEndsWithStatusOneAndSaysWhy) {
  WritePlugin("good.json", Description({}, {"good.done"}, {Record("good")}));
  RunSettings settings;
  settings.timeout = kShortLimit;
  const RunResult result = Orvane({"--dump-dependency-tree=/dev/full"}, settings);
  EXPECT_EQ(result.exitStatus, 1) << result.out << result.err;
  EXPECT_THAT(messages_, Contains("unable to write the dependency tree to '/dev/full': No space "
                                  "left on device"));
  EXPECT_THAT(Recorded(), ::testing::IsEmpty());
}

TEST_F(BadInputE2E, DumpToAStandardOutputOnAFullDeviceEndsWithStatusOne) {
  WritePlugin("good.json", Description({}, {}, {Record("good")}));
  RunSettings settings;
  settings.timeout = kShortLimit;
  const RunResult result = sandbox_->Run(
      {"/bin/sh", "-c", std::string(kOrvane) + " --dump-dependency-tree > /dev/full"}, settings);
  EXPECT_EQ(result.exitStatus, 1) << result.err;
  EXPECT_TRUE(SyslogHas(LOG_ERR,
                        "unable to write the dependency tree to standard output: No space left "
                        "on device"));
}

// ---- a thousand plugins, a third of them failing and a third crashing

/// What a plugin of the mixed boot is and how its activation must end.
struct Expected {
  std::string kind;
  std::string outcome;  ///< "activated", or a text the failure reason must hold
};

TEST_F(BadInputE2E, ThousandPluginsOfEveryKindOfWhichTwoThirdsFailOrCrashAllAreAccountedFor) {
  sandbox_->WriteFile("/usr/lib/talvek/qorcli/crash.json", R"({
  "commands": [
    {"path": ["test", "crash"], "exec": ["/bin/sh", "-c", "kill -SEGV $$"]}
  ]
})");
  std::map<std::string, Expected> plugins;
  std::set<std::string> runOnceKeys;
  std::string injections;
  auto copyNative = [&](const char* object, const std::string& name, Expected expected) {
    sandbox_->CopyIn(object, PluginFile("lib" + name + ".so"), 0644);
    plugins[name] = std::move(expected);
  };
  for (int index = 0; index < 1000; ++index) {
    const std::string number = std::to_string(index);
    switch (index % 9) {
      case 0: {  // a run-once JSON plugin that succeeds, in a chain of them
        const std::string name = "okjson" + number;
        WritePlugin(
            name + ".json",
            "{\"metadata\": {\"version\": 3, \"requires\": " +
                JsonList(index >= 9 ? std::vector<std::string>{"ok" + std::to_string(index - 9)}
                                    : std::vector<std::string>{}) +
                ", \"provides\": [\"ok" + number +
                "\"], \"run_once\": true, "
                "\"plugin_version\": \"1." +
                number +
                "\"},"
                " \"operations\": {\"start\": [\"" +
                Record(name) + "\"]}}\n");
        plugins[name] = {"json", "activated"};
        runOnceKeys.insert(name + "1." + number);
        break;
      }
      case 1:
        copyNative(ORVANE_TEST_PLUGIN_NATIVE_FIRST, "oknative" + number, {"native", "activated"});
        break;
      case 2:  // injections run after the crashes they require
        injections += "okdebug" + number + ":crash.done::true\n";
        plugins["okdebug" + number] = {"debug", "activated"};
        break;
      case 3:
        WritePlugin("failjson" + number + ".json", Description({}, {}, {"test fail"}));
        plugins["failjson" + number] = {"json", "error while executing the cli"};
        break;
      case 4:
        copyNative(ORVANE_TEST_PLUGIN_FAILING, "failnative" + number,
                   {"native", "exited with code 1"});
        break;
      case 5:
        copyNative(ORVANE_TEST_PLUGIN_EXIT3, "exitnative" + number,
                   {"native", "exited with code 3"});
        break;
      case 6:
        copyNative(ORVANE_TEST_PLUGIN_CRASH, "crashnative" + number,
                   {"native", "exited with signal: 11"});
        break;
      case 7:
        copyNative(ORVANE_TEST_PLUGIN_KILLED, "killednative" + number,
                   {"native", "exited with signal: 9"});
        break;
      case 8:
        WritePlugin("crashjson" + number + ".json", Description({}, {}, {"test crash"}));
        plugins["crashjson" + number] = {"json", "error while executing the cli"};
        break;
    }
  }
  sandbox_->WriteFile(kDebugConfiguration, injections);
  ASSERT_EQ(plugins.size(), 1000u);

  Boot({"--parallel"}, std::chrono::seconds(300));

  // Every plugin was activated or its failure reported, exactly once.
  std::map<std::string, std::vector<std::string>> outcomes;
  for (const std::string& record : KernelLog()) {
    const std::string prefix = "Orvane plugin ";
    if (!record.starts_with(prefix)) continue;
    const std::string rest = record.substr(prefix.size());
    const std::size_t blank = rest.find(' ');
    outcomes[rest.substr(0, blank)].push_back(rest.substr(blank + 1));
  }
  for (const auto& [name, expected] : plugins) {
    const std::vector<std::string>& seen = outcomes[name];
    ASSERT_EQ(seen.size(), 1u) << name << ": " << ::testing::PrintToString(seen);
    if (expected.outcome == "activated") {
      EXPECT_EQ(seen[0], "activated.") << name;
    } else {
      EXPECT_THAT(seen[0], StartsWith("activation failed: ")) << name;
      EXPECT_THAT(seen[0], HasSubstr(expected.outcome)) << name;
    }
  }
  EXPECT_EQ(outcomes.size(), plugins.size());

  // The profiling log is whole: its first line, a line per plugin, its end.
  const std::vector<std::string> log = Lines(sandbox_->ReadFile(kProfilingLog));
  ASSERT_EQ(log.size(), 1 + plugins.size() + 8);
  EXPECT_THAT(log.front(), StartsWith("ZELKernel Initialization Time: "));
  std::set<std::string> logged;
  for (std::size_t line = 1; line <= plugins.size(); ++line) {
    const std::size_t tag = log[line].find("] sysboot: ");
    ASSERT_NE(tag, std::string::npos) << log[line];
    logged.insert(log[line].substr(tag + 11));
  }
  EXPECT_EQ(logged.size(), plugins.size());
  EXPECT_THAT(log.back(), StartsWith(" Random Seed: "));

  // The run-once record holds the key of every run-once plugin, whole.
  const RunResult record =
      sandbox_->Run({"/bin/sh", "-c", std::string("gzip -dc ") + kRunOnceRecord});
  ASSERT_EQ(record.exitStatus, 0) << record.err;
  std::string expectedLine = "orvane.run-once=";
  for (const std::string& key : runOnceKeys) expectedLine += key + ",";
  EXPECT_EQ(record.out, expectedLine + "\n");
}

}  // namespace
}  // namespace orvane::testing
