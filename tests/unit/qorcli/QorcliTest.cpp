#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "Qorcli.h"
#include "TemporaryDirectory.h"

namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

struct Outcome {
  int status = -1;
  std::string out;
  std::string err;
};

class QorcliTest : public ::testing::Test {
 protected:
  void SetUp() override {
    directory_.Write("base/net.json", R"({"commands": [
      {"path": ["network", "firewall", "set"], "help": "Enable or disable the firewall.",
       "parameters": [{"name": "enabled", "short": "e", "type": "bool", "required": true}],
       "exec": ["/bin/sh", "-c", "echo \"enabled=$QORCLI_ENABLED $1\" >> )" +
                                          (directory_ / "log") + R"(", "sh", "{enabled}"]},
      {"path": ["fail"], "exec": ["/bin/sh", "-c", "exit 4"]}
    ]})");
  }

  /// Runs qorcli over base/, a missing directory and ext/, in that order.
  Outcome Run(const std::vector<std::string>& words) {
    std::ostringstream out;
    std::ostringstream err;
    Outcome outcome;
    outcome.status = qorcli::Run(
        words, {directory_ / "base", directory_ / "missing", directory_ / "ext"}, out, err);
    outcome.out = out.str();
    outcome.err = err.str();
    return outcome;
  }

  unit_testing::TemporaryDirectory directory_;
};

TEST_F(QorcliTest, RunsTheCommandAndExitsZero) {
  Outcome outcome = Run({"network", "firewall", "set", "-e", "yes"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, "");  // the missing directories are skipped silently
  EXPECT_EQ(directory_.Read("log"), "enabled=yes yes\n");
}

TEST_F(QorcliTest, EachArgumentIsOneWordAndIsNeverSplitAgain) {
  Outcome outcome = Run({"network", "firewall", "set", "--enabled", "it's \"1\""});
  // The value is one word with its quotes, and so not a valid bool.
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.err, HasSubstr("not 'it's \"1\"'"));
}

TEST_F(QorcliTest, ErrorsGoToStandardErrorAndExitOne) {
  Outcome failing = Run({"fail"});
  EXPECT_EQ(failing.status, 1);
  EXPECT_EQ(failing.err, "qorcli: command 'fail' failed with status 4\n");

  Outcome unknown = Run({"network", "firewall", "set", "--enabled", "1", "--zone", "a"});
  EXPECT_EQ(unknown.status, 1);
  EXPECT_EQ(unknown.err, "qorcli: unknown parameter '--zone' for command 'network firewall set'\n");

  Outcome parse = Run({"network", "--"});
  EXPECT_EQ(parse.status, 1);
  EXPECT_EQ(parse.err, "qorcli: option '--' has no name\n");
  EXPECT_EQ(directory_.Read("log"), "");
}

TEST_F(QorcliTest, NoWordsListsTheTop) {
  Outcome outcome = Run({});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.out, HasSubstr("Namespaces:\n  network\n"));
  EXPECT_THAT(outcome.out, HasSubstr("Commands:\n  fail\n"));
}

TEST_F(QorcliTest, HelpOfAKnownPathGoesToStandardOutput) {
  Outcome outcome = Run({"network", "--help"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.out, HasSubstr("Namespaces:\n  network firewall\n"));
  EXPECT_EQ(outcome.err, "");

  Outcome command = Run({"network", "firewall", "set", "-h"});
  EXPECT_EQ(command.status, 0);
  EXPECT_THAT(command.out, StartsWith("Usage: network firewall set --enabled <bool>\n"));
}

TEST_F(QorcliTest, HelpOfAnUnknownPathIsAnError) {
  Outcome outcome = Run({"storage", "--help"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err, "qorcli: unknown command or namespace 'storage'\n");
}

TEST_F(QorcliTest, LoadErrorsAreReportedAndTheRestStillRuns) {
  directory_.Write("ext/broken.json", "{");
  directory_.Write("ext/more.json", R"({"commands": [{"path": ["fail"], "exec": ["/bin/true"]}]})");
  Outcome outcome = Run({"fail"});
  // The later directory's definition of "fail" replaced the failing one.
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.err, StartsWith("qorcli: " + (directory_ / "ext/broken.json") +
                                      ": invalid JSON at line 1, column 2: "));
}

TEST_F(QorcliTest, ADirectoryThatExistsButCannotBeReadIsReported) {
  directory_.Write("missing", "a file, not a directory");
  Outcome outcome = Run({"fail"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.err, StartsWith("qorcli: cannot read command definition directory '" +
                                      (directory_ / "missing") + "': Not a directory\n"));
}

// --- Completion -----------------------------------------------------------

/// The definitions of QorcliTest, and in ext/ a later file that redefines
/// "network firewall set" with a second parameter, makes "network" a command
/// as well as a namespace and adds "network status".
class QorcliCompleteTest : public QorcliTest {
 protected:
  void SetUp() override {
    QorcliTest::SetUp();
    directory_.Write("ext/more.json", R"({"commands": [
      {"path": ["network", "firewall", "set"],
       "parameters": [{"name": "enabled", "short": "e", "type": "bool", "required": true},
                      {"name": "zone", "short": "z"}],
       "exec": ["/bin/true"]},
      {"path": ["network", "status"], "parameters": [{"name": "count", "type": "int"}],
       "exec": ["/bin/true"]},
      {"path": ["network"], "parameters": [{"name": "verbose", "type": "bool"}],
       "exec": ["/bin/true"]}
    ]})");
  }

  /// What `qorcli --complete WORD...` prints; it must exit 0 and say
  /// nothing on standard error.
  std::string Complete(std::vector<std::string> words) {
    words.insert(words.begin(), qorcli::kCompleteOption);
    Outcome outcome = Run(words);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "");
    return outcome.out;
  }
};

TEST_F(QorcliCompleteTest, NoWordsOffersTheTopNamespacesAndCommands) {
  EXPECT_EQ(Complete({}), "fail\nnetwork\n");
}

TEST_F(QorcliCompleteTest, ANamespaceOffersWhatIsDirectlyBelowIt) {
  // "network" is also a command: its parameter follows the words below it.
  EXPECT_EQ(Complete({"network"}), "firewall\nstatus\n--verbose\n");
  EXPECT_EQ(Complete({"network", "firewall"}), "set\n");
}

TEST_F(QorcliCompleteTest, ACommandOffersItsParametersAsTheLaterDirectoryDefinesThem) {
  EXPECT_EQ(Complete({"network", "firewall", "set"}), "--enabled\n--zone\n");
  EXPECT_EQ(Complete({"fail"}), "");
}

TEST_F(QorcliCompleteTest, ParametersGivenByEitherNameAreNotOfferedAgain) {
  EXPECT_EQ(Complete({"network", "firewall", "set", "-e", "yes"}), "--zone\n");
  EXPECT_EQ(Complete({"network", "firewall", "set", "--enabled=no"}), "--zone\n");
  EXPECT_EQ(Complete({"network", "firewall", "set", "--zone", "dmz"}), "--enabled\n");
  EXPECT_EQ(Complete({"network", "firewall", "set", "-z", "dmz", "--enabled", "1"}), "");
  // An unknown parameter changes nothing.
  EXPECT_EQ(Complete({"network", "firewall", "set", "--colour=red"}), "--enabled\n--zone\n");
}

TEST_F(QorcliCompleteTest, ABoolOptionWaitingForItsValueOffersTheValuesThenTheOtherParameters) {
  const std::string afterEnabled = "true\nfalse\n1\n0\nyes\nno\n--zone\n";
  EXPECT_EQ(Complete({"network", "firewall", "set", "--enabled"}), afterEnabled);
  EXPECT_EQ(Complete({"network", "firewall", "set", "-e"}), afterEnabled);
  EXPECT_EQ(Complete({"network", "--verbose"}), "true\nfalse\n1\n0\nyes\nno\n");
}

TEST_F(QorcliCompleteTest, AStringOrNumberOptionWaitingForItsValueOffersNothing) {
  EXPECT_EQ(Complete({"network", "firewall", "set", "--zone"}), "");
  EXPECT_EQ(Complete({"network", "firewall", "set", "-z"}), "");
  EXPECT_EQ(Complete({"network", "status", "--count"}), "");
  EXPECT_EQ(Complete({"network", "firewall", "set", "--colour"}), "");
  // A negative number is a value, not an option waiting for one.
  EXPECT_EQ(Complete({"network", "status", "--count", "-3"}), "");
  EXPECT_EQ(Complete({"network", "status", "-3"}), "--count\n");
}

TEST_F(QorcliCompleteTest, OnceAnOptionIsGivenThePathTakesNoMoreWords) {
  EXPECT_EQ(Complete({"network", "--verbose", "yes"}), "");
  EXPECT_EQ(Complete({"network", "firewall", "set", "--zone=dmz"}), "--enabled\n");
}

TEST_F(QorcliCompleteTest, AnUnknownPathOrAHelpRequestOffersNothing) {
  EXPECT_EQ(Complete({"storage"}), "");
  EXPECT_EQ(Complete({"network", "firewall", "set", "extra"}), "");
  EXPECT_EQ(Complete({"net"}), "");  // words are whole, not prefixes
  EXPECT_EQ(Complete({""}), "");
  EXPECT_EQ(Complete({"network", "--help"}), "");
  EXPECT_EQ(Complete({"network", "firewall", "set", "-h"}), "");
  EXPECT_EQ(Complete({"--zone"}), "");
}

TEST_F(QorcliCompleteTest, BrokenDefinitionsAreNotReportedAndTheOthersStillCount) {
  directory_.Write("ext/broken.json", "{");
  directory_.Write("missing", "a file, not a directory");
  EXPECT_EQ(Complete({}), "fail\nnetwork\n");
}

TEST_F(QorcliCompleteTest, NoDefinitionsAtAllOfferNothing) {
  std::ostringstream out;
  std::ostringstream err;
  EXPECT_EQ(qorcli::Run({qorcli::kCompleteOption}, {directory_ / "none"}, out, err), 0);
  EXPECT_EQ(out.str(), "");
  EXPECT_EQ(err.str(), "");
}

TEST_F(QorcliCompleteTest, TheCompleteOptionCountsOnlyAsTheFirstWord) {
  Outcome outcome = Run({"network", qorcli::kCompleteOption});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err, "qorcli: unknown parameter '--complete' for command 'network'\n");
}

}  // namespace
