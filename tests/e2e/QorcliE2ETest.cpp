// The installed qorcli, run in a sandboxed copy of the host with command
// definitions written into the host's own definition directories.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "HostPaths.h"
#include "Sandbox.h"
#include "SandboxGTest.h"
#include "orvane/FixedPaths.h"

namespace orvane::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr const char* kJournal = "/var/log/qorcli-e2e.txt";

/// The definition directory number @p index (0 to 3) joined with @p name.
std::string InDirectory(int index, const std::string& name) {
  return std::string(paths::kQorcliDirectories[index]) + "/" + name;
}

/// A sandbox whose first definition directory holds a small network
/// namespace: one command appends its message to a journal file, one
/// prints, one fails.
class QorcliE2E : public ::testing::Test {
 protected:
  void SetUp() override {
    ORVANE_REQUIRE_SANDBOX();
    sandbox_ = std::make_unique<Sandbox>();
    sandbox_->WriteFile(InDirectory(0, "network.json"), R"(// network commands
{
  "commands": [
    {
      "path": ["network", "journal", "add"],
      "help": "Append a line to the journal.",
      "parameters": [
        {"name": "message", "short": "m", "required": true, "help": "the line to add"},
        {"name": "level", "type": "int"}
      ],
      "exec": ["/bin/sh", "-c", "echo \"${QORCLI_LEVEL:-0} $QORCLI_MESSAGE $1\" >> /var/log/qorcli-e2e.txt",
               "sh", "{message}"]
    },
    {"path": ["network", "status"], "help": "Print the link state.",
     "exec": ["/bin/echo", "link up"]},
    {"path": ["network", "down"], "exec": ["/bin/sh", "-c", "echo going down >&2; exit 2"]}
  ]
})");
  }

  RunResult Qorcli(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), kQorcli);
    return sandbox_->Run(arguments);
  }

  std::unique_ptr<Sandbox> sandbox_;
};

TEST_F(QorcliE2E, RunsACommandThatAppendsToAFile) {
  RunResult first = Qorcli({"network", "journal", "add", "--message", "hello world"});
  EXPECT_EQ(first.exitStatus, 0) << first.err;
  EXPECT_EQ(first.err, "");
  RunResult second = Qorcli({"network", "journal", "add", "-m", "again", "--level=-2"});
  EXPECT_EQ(second.exitStatus, 0) << second.err;
  EXPECT_EQ(sandbox_->ReadFile(kJournal), "0 hello world hello world\n-2 again again\n");
}

TEST_F(QorcliE2E, TheCommandWritesToQorclisOwnOutputs) {
  RunResult status = Qorcli({"network", "status"});
  EXPECT_EQ(status.exitStatus, 0);
  EXPECT_EQ(status.out, "link up\n");
  EXPECT_EQ(status.err, "");

  RunResult down = Qorcli({"network", "down"});
  EXPECT_EQ(down.exitStatus, 1);
  EXPECT_EQ(down.out, "");
  EXPECT_EQ(down.err, "going down\nqorcli: command 'network down' failed with status 2\n");
}

TEST_F(QorcliE2E, UsageErrorsPrintOneLineEachAndExitOne) {
  RunResult unknown = Qorcli({"network", "bogus"});
  EXPECT_EQ(unknown.exitStatus, 1);
  EXPECT_EQ(unknown.err, "qorcli: unknown command 'network bogus'\n");

  RunResult invalid = Qorcli({"network", "journal", "add", "--level", "high", "--colour", "red"});
  EXPECT_EQ(invalid.exitStatus, 1);
  EXPECT_EQ(invalid.err,
            "qorcli: parameter '--level' of command 'network journal add' takes a whole decimal "
            "number from -9223372036854775808 to 9223372036854775807, not 'high'\n"
            "qorcli: unknown parameter '--colour' for command 'network journal add'\n"
            "qorcli: missing required parameter '--message' for command 'network journal add'\n");

  RunResult stray = Qorcli({"network", "status", "--verbose", "yes", "please"});
  EXPECT_EQ(stray.exitStatus, 1);
  EXPECT_EQ(stray.err, "qorcli: unexpected word 'please' where a parameter was expected\n");

  EXPECT_FALSE(sandbox_->Exists(kJournal));
}

TEST_F(QorcliE2E, HelpListsNamespacesCommandsAndParameters) {
  RunResult top = Qorcli({"--help"});
  EXPECT_EQ(top.exitStatus, 0);
  EXPECT_EQ(top.err, "");
  EXPECT_EQ(top.out,
            "Usage: <namespace>... <command> [--<name> <value>]...\n"
            "\n"
            "Namespaces:\n"
            "  network\n");
  // Nothing at all lists the same.
  RunResult bare = Qorcli({});
  EXPECT_EQ(bare.exitStatus, 0);
  EXPECT_EQ(bare.out, top.out);

  RunResult network = Qorcli({"network", "--help"});
  EXPECT_EQ(network.exitStatus, 0);
  EXPECT_EQ(network.out,
            "Usage: network <namespace>... <command> [--<name> <value>]...\n"
            "\n"
            "Namespaces:\n"
            "  network journal\n"
            "\n"
            "Commands:\n"
            "  network down\n"
            "  network status  Print the link state.\n");

  RunResult command = Qorcli({"network", "journal", "add", "-h"});
  EXPECT_EQ(command.exitStatus, 0);
  EXPECT_EQ(command.out,
            "Usage: network journal add --message <string> [--level <int>]\n"
            "\n"
            "Append a line to the journal.\n"
            "\n"
            "Parameters:\n"
            "  --message, -m <string> (required)  the line to add\n"
            "  --level <int>\n");
  EXPECT_FALSE(sandbox_->Exists(kJournal));
}

TEST_F(QorcliE2E, HelpForAnUnknownNamespaceFails) {
  RunResult result = Qorcli({"storage", "--help"});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "qorcli: unknown command or namespace 'storage'\n");
}

TEST_F(QorcliE2E, LaterDirectoriesOverrideAndBrokenFilesAreReported) {
  sandbox_->WriteFile(InDirectory(3, "status.json"), R"({"commands": [
      {"path": ["network", "status"], "exec": ["/bin/echo", "from ext"]}]})");
  sandbox_->WriteFile(InDirectory(1, "broken.json"), R"({"commands": [)");
  RunResult result = Qorcli({"network", "status"});
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_EQ(result.out, "from ext\n");
  EXPECT_THAT(result.err, StartsWith("qorcli: " + InDirectory(1, "broken.json") +
                                     ": invalid JSON at line 1, column 15: "));
}

TEST_F(QorcliE2E, MissingDefinitionDirectoriesAreSkippedSilently) {
  sandbox_->Remove(paths::kQorcliDirectories[1]);  // takes int/ext with it
  sandbox_->Remove(paths::kQorcliDirectories[3]);
  RunResult result = Qorcli({"network", "status"});
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_EQ(result.out, "link up\n");
  EXPECT_EQ(result.err, "");
}

TEST(QorcliE2EEmpty, FreshInstallationHasNoCommands) {
  ORVANE_REQUIRE_SANDBOX();
  Sandbox sandbox;
  RunResult result = sandbox.Run({kQorcli});
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_EQ(result.out, "no commands are defined\n");
  EXPECT_EQ(result.err, "");
}

}  // namespace
}  // namespace orvane::testing
