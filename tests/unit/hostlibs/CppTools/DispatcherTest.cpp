#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <initializer_list>
#include <sstream>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "CppTools/AutoCli/CommandInput.h"
#include "CppTools/AutoCli/CommandOutput.h"
#include "CppTools/AutoCli/Dispatcher.h"
#include "TemporaryDirectory.h"

namespace {

using CppTools::AutoCli::CommandInput;
using CppTools::AutoCli::CommandOutput;
using CppTools::AutoCli::Dispatcher;
using CppTools::AutoCli::ParameterDefinition;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

/// A JSON string literal holding @p text.
std::string Json(const std::string& text) {
  std::string quoted = "\"";
  for (char character : text) {
    if (character == '"' || character == '\\') {
      quoted += '\\';
    }
    quoted += character;
  }
  return quoted + "\"";
}

/// A definition file with one command that runs @p script with /bin/sh.
std::string ShellCommand(const std::string& pathJson, const std::string& script,
                         const std::string& parametersJson = "[]") {
  return R"({"commands": [{"path": )" + pathJson + R"(, "parameters": )" + parametersJson +
         R"(, "exec": ["/bin/sh", "-c", )" + Json(script) + "]}]}";
}

class DispatcherTest : public ::testing::Test {
 protected:
  /// Runs @p path with @p parameters and returns the output's errors.
  std::vector<std::string> Execute(
      const std::vector<std::string>& path,
      std::initializer_list<std::pair<std::string, std::string>> parameters = {}) {
    auto input = CommandInput::New();
    auto output = CommandOutput::New();
    input->SetDispatcher("orvane");
    input->SetCommandPath(path);
    for (const auto& [name, value] : parameters) {
      input->AddParameter(name, value);
    }
    dispatcher_.ExecuteCommand(input, output);
    EXPECT_EQ(output->HasError(), !output->GetErrors().empty());
    return output->GetErrors();
  }

  void Load(const std::string& directory) {
    dispatcher_.AddExternalDirectory(directory_ / directory);
  }

  std::string Help(const std::vector<std::string>& path) {
    std::ostringstream stream;
    dispatcher_.WriteHelp(path, stream);
    return stream.str();
  }

  unit_testing::TemporaryDirectory directory_;
  Dispatcher dispatcher_;
};

// --- Loading definitions -------------------------------------------------

TEST_F(DispatcherTest, LaterDirectoriesOverrideEarlierOnesAndAddCommands) {
  std::string out = directory_ / "out";
  directory_.Write("first/a.json", ShellCommand(R"(["net", "show"])", "echo first >> " + out));
  directory_.Write("first/b.json", ShellCommand(R"(["net", "keep"])", "echo keep >> " + out));
  directory_.Write("second/a.json", ShellCommand(R"(["net", "show"])", "echo second >> " + out));
  directory_.Write("second/c.json", ShellCommand(R"(["extra"])", "echo extra >> " + out));
  Load("first");
  Load("second");
  ASSERT_THAT(dispatcher_.GetLoadErrors(), IsEmpty());

  EXPECT_THAT(Execute({"net", "show"}), IsEmpty());
  EXPECT_THAT(Execute({"net", "keep"}), IsEmpty());
  EXPECT_THAT(Execute({"extra"}), IsEmpty());
  EXPECT_EQ(directory_.Read("out"), "second\nkeep\nextra\n");
  EXPECT_EQ(dispatcher_.FindCommand({"net", "show"})->sourceFile, directory_ / "second/a.json");
}

TEST_F(DispatcherTest, FilesOfOneDirectoryLoadInByteWiseNameOrder) {
  // Byte-wise, "B" (0x42) comes before "a" (0x61) and "a.json" before
  // "a0.json" ('.' is 0x2e); a locale's order would differ.
  directory_.Write("defs/a0.json", ShellCommand(R"(["which"])", "exit 0"));
  directory_.Write("defs/B.json", ShellCommand(R"(["which"])", "exit 0"));
  directory_.Write("defs/a.json", ShellCommand(R"(["which"])", "exit 0"));
  Load("defs");
  EXPECT_EQ(dispatcher_.FindCommand({"which"})->sourceFile, directory_ / "defs/a0.json");

  Dispatcher withoutLast;
  std::filesystem::remove(directory_ / "defs/a0.json");
  withoutLast.AddExternalDirectory(directory_ / "defs");
  EXPECT_EQ(withoutLast.FindCommand({"which"})->sourceFile, directory_ / "defs/a.json");
}

TEST_F(DispatcherTest, LaterCommandInTheSameFileReplacesAnEarlierOne) {
  directory_.Write("defs/x.json", R"({"commands": [
      {"path": ["dup"], "help": "first", "exec": ["/bin/true"]},
      {"path": ["dup"], "help": "second", "exec": ["/bin/true"]}]})");
  Load("defs");
  EXPECT_EQ(dispatcher_.FindCommand({"dup"})->help, "second");
}

TEST_F(DispatcherTest, OnlyNamesEndingInJsonAreRead) {
  directory_.Write("defs/notes.txt", "not json at all");
  directory_.Write("defs/old.json.bak", "{ broken");
  directory_.Write("defs/JSON", "{ broken");
  directory_.Write("defs/sub/inner.json", ShellCommand(R"(["inner"])", "exit 0"));
  directory_.Write("defs/ok.json", ShellCommand(R"(["ok"])", "exit 0"));
  Load("defs");
  EXPECT_THAT(dispatcher_.GetLoadErrors(), IsEmpty());
  EXPECT_NE(dispatcher_.FindCommand({"ok"}), nullptr);
  EXPECT_EQ(dispatcher_.FindCommand({"inner"}), nullptr);  // not directly in the directory
}

TEST_F(DispatcherTest, CommentsAreAllowed) {
  directory_.Write("defs/commented.json", R"(// line comment
    { /* block comment */ "commands": [
      {"path": ["c"], // the path
       "exec": ["/bin/true"]}
    ]})");
  Load("defs");
  EXPECT_THAT(dispatcher_.GetLoadErrors(), IsEmpty());
  EXPECT_NE(dispatcher_.FindCommand({"c"}), nullptr);
}

TEST_F(DispatcherTest, MissingDirectoryThrowsNamingIt) {
  std::string missing = directory_ / "missing";
  try {
    dispatcher_.AddExternalDirectory(missing);
    FAIL() << "no exception";
  } catch (const std::system_error& error) {
    EXPECT_THAT(error.what(), HasSubstr("'" + missing + "'"));
    EXPECT_EQ(error.code(), std::errc::no_such_file_or_directory);
  }
  // Catchable as the std::exception the executor's dispatcher expects.
  EXPECT_THROW(dispatcher_.AddExternalDirectory(missing), std::runtime_error);
}

TEST_F(DispatcherTest, AFileInPlaceOfTheDirectoryThrows) {
  directory_.Write("plain", "");
  EXPECT_THROW(dispatcher_.AddExternalDirectory(directory_ / "plain"), std::system_error);
}

TEST_F(DispatcherTest, UnreadableEntriesAreReportedAndSkippedWhileOthersLoad) {
  directory_.Write("defs/a.json", ShellCommand(R"(["before"])", "exit 0"));
  std::filesystem::create_directories(directory_ / "defs/b-directory.json");
  std::filesystem::create_symlink(directory_ / "nowhere", directory_ / "defs/c-dangling.json");
  ASSERT_EQ(::mkfifo((directory_ / "defs/d-fifo.json").c_str(), 0644), 0);
  directory_.Write("defs/e.json", ShellCommand(R"(["after"])", "exit 0"));
  Load("defs");

  EXPECT_THAT(
      dispatcher_.GetLoadErrors(),
      ElementsAre(directory_ / "defs/b-directory.json" + ": not a regular file (a directory)",
                  StartsWith(directory_ / "defs/c-dangling.json" + ": cannot be opened: "),
                  directory_ / "defs/d-fifo.json" + ": not a regular file (a FIFO)"));
  EXPECT_NE(dispatcher_.FindCommand({"before"}), nullptr);
  EXPECT_NE(dispatcher_.FindCommand({"after"}), nullptr);
}

TEST_F(DispatcherTest, SymlinkToADefinitionFileIsRead) {
  directory_.Write("elsewhere/real", ShellCommand(R"(["linked"])", "exit 0"));
  std::filesystem::create_directories(directory_ / "defs");
  std::filesystem::create_symlink(directory_ / "elsewhere/real", directory_ / "defs/l.json");
  Load("defs");
  EXPECT_THAT(dispatcher_.GetLoadErrors(), IsEmpty());
  EXPECT_NE(dispatcher_.FindCommand({"linked"}), nullptr);
}

TEST_F(DispatcherTest, MalformedJsonIsReportedWithItsPlaceAndSkipped) {
  directory_.Write("defs/a.json", "{\n  \"commands\": [\n    {\"path\": [\"x\"] oops\n");
  directory_.Write("defs/b.json", "");
  directory_.Write("defs/c.json", ShellCommand(R"(["good"])", "exit 0"));
  Load("defs");
  EXPECT_THAT(
      dispatcher_.GetLoadErrors(),
      ElementsAre(StartsWith(directory_ / "defs/a.json" + ": invalid JSON at line 3, column 20: "),
                  StartsWith(directory_ / "defs/b.json" + ": invalid JSON at line 1, column 1: ")));
  EXPECT_EQ(dispatcher_.FindCommand({"x"}), nullptr);
  EXPECT_NE(dispatcher_.FindCommand({"good"}), nullptr);
}

TEST_F(DispatcherTest, SchemaViolationsRejectTheWholeFile) {
  struct Case {
    std::string document;
    std::string error;
  };
  const std::string ok = R"({"path": ["ok"], "exec": ["/bin/true"]})";
  const std::vector<Case> cases = {
      {"[]", "the document: must be an object"},
      {"{}", "the document: has no \"commands\""},
      {R"({"commands": {}})", "commands: must be a list"},
      {R"({"commands": [)" + ok + R"(, 5]})", "commands[1]: must be an object"},
      {R"({"commands": [{"exec": ["/bin/true"]}]})", "commands[0]: has no \"path\""},
      {R"({"commands": [{"path": [], "exec": ["/bin/true"]}]})",
       "commands[0].path: must not be empty"},
      {R"({"commands": [{"path": ["a", 1], "exec": ["/bin/true"]}]})",
       "commands[0].path[1]: must be a string"},
      {R"({"commands": [{"path": ["-a"], "exec": ["/bin/true"]}]})",
       "commands[0].path: words must not be empty or begin with \"-\""},
      {R"({"commands": [{"path": ["a"]}]})", "commands[0]: has no \"exec\""},
      {R"({"commands": [{"path": ["a"], "exec": []}]})", "commands[0].exec: must not be empty"},
      {R"({"commands": [{"path": ["a"], "exec": "/bin/true"}]})",
       "commands[0].exec: must be a list of strings"},
      {R"({"commands": [{"path": ["a"], "help": 3, "exec": ["/bin/true"]}]})",
       "commands[0].help: must be a string"},
      {R"({"commands": [{"path": ["a"], "parameters": [{"name": "x", "type": "float"}], "exec": ["/bin/true"]}]})",
       "commands[0].parameters[0].type: must be \"string\", \"int\" or \"bool\", not \"float\""},
      {R"({"commands": [{"path": ["a"], "parameters": [{"type": "int"}], "exec": ["/bin/true"]}]})",
       "commands[0].parameters[0]: has no \"name\""},
      {R"({"commands": [{"path": ["a"], "parameters": [{"name": "a=b"}], "exec": ["/bin/true"]}]})",
       "commands[0].parameters[0].name: must not be empty, begin with \"-\" or contain \"=\""},
      {R"({"commands": [{"path": ["a"], "parameters": [{"name": "help"}], "exec": ["/bin/true"]}]})",
       "commands[0].parameters[0].name: \"help\" is reserved for help requests"},
      {R"({"commands": [{"path": ["a"], "parameters": [{"name": "x", "short": "xy"}], "exec": ["/bin/true"]}]})",
       "commands[0].parameters[0].short: must be one character other than \"-\", \"=\" or a digit"},
      {R"({"commands": [{"path": ["a"], "parameters": [{"name": "x", "short": "7"}], "exec": ["/bin/true"]}]})",
       "commands[0].parameters[0].short: must be one character other than \"-\", \"=\" or a digit"},
      {R"({"commands": [{"path": ["a"], "parameters": [{"name": "x", "short": "h"}], "exec": ["/bin/true"]}]})",
       "commands[0].parameters[0].short: \"h\" is reserved for help requests"},
      {R"({"commands": [{"path": ["a"], "parameters": [{"name": "x", "required": "yes"}], "exec": ["/bin/true"]}]})",
       "commands[0].parameters[0].required: must be true or false"},
      {R"({"commands": [{"path": ["a"], "parameters": [{"name": "x"}, {"name": "x"}], "exec": ["/bin/true"]}]})",
       "commands[0].parameters: parameter \"x\" is defined twice"},
      {R"({"commands": [{"path": ["a"], "parameters": [{"name": "x", "short": "s"}, {"name": "y", "short": "s"}], "exec": ["/bin/true"]}]})",
       "commands[0].parameters: short name \"s\" is used twice"},
  };
  for (std::size_t index = 0; index < cases.size(); ++index) {
    std::string name = "case" + std::to_string(index);
    directory_.Write(name + "/bad.json", cases[index].document);
    Dispatcher dispatcher;
    dispatcher.AddExternalDirectory(directory_ / name);
    EXPECT_THAT(dispatcher.GetLoadErrors(),
                ElementsAre(directory_ / (name + "/bad.json") + ": " + cases[index].error))
        << cases[index].document;
    // Nothing of a rejected file is kept, not even its valid commands.
    EXPECT_EQ(dispatcher.FindCommand({"ok"}), nullptr);
  }
}

TEST_F(DispatcherTest, UnknownKeysAreIgnoredAndDefaultsApply) {
  directory_.Write("defs/x.json", R"({"version": 2, "commands": [
      {"path": ["a"], "owner": "net", "parameters": [{"name": "p", "colour": "red"}],
       "exec": ["/bin/true"]}]})");
  Load("defs");
  ASSERT_THAT(dispatcher_.GetLoadErrors(), IsEmpty());
  const ParameterDefinition& parameter = dispatcher_.FindCommand({"a"})->parameters.at(0);
  EXPECT_EQ(parameter.type, ParameterDefinition::Type::String);
  EXPECT_FALSE(parameter.required);
  EXPECT_EQ(parameter.shortName, "");
}

// --- Validating a call ---------------------------------------------------

class DispatcherCallTest : public DispatcherTest {
 protected:
  void SetUp() override {
    // Every run of the command leaves a mark, so tests can see that an
    // invalid call ran nothing.
    directory_.Write(
        "defs/net.json",
        ShellCommand(R"(["network", "firewall", "set"])", "echo ran >> " + (directory_ / "ran"),
                     R"([{"name": "enabled", "short": "e", "type": "bool", "required": true},
                         {"name": "count", "short": "c", "type": "int"},
                         {"name": "label"}])"));
    Load("defs");
    ASSERT_THAT(dispatcher_.GetLoadErrors(), IsEmpty());
  }

  bool Ran() const { return directory_.Exists("ran"); }
};

TEST_F(DispatcherCallTest, UnknownCommandNamesItsWords) {
  EXPECT_THAT(Execute({"network", "firewall", "sett"}),
              ElementsAre("unknown command 'network firewall sett'"));
  EXPECT_THAT(Execute({}), ElementsAre("unknown command ''"));
  EXPECT_FALSE(Ran());
}

TEST_F(DispatcherCallTest, ANamespaceIsNotACommand) {
  EXPECT_THAT(Execute({"network", "firewall"}),
              ElementsAre("unknown command 'network firewall': it is a namespace; name one of "
                          "its commands"));
  EXPECT_FALSE(Ran());
}

TEST_F(DispatcherCallTest, UnknownParametersAreErrorsAndNothingRuns) {
  EXPECT_THAT(
      Execute({"network", "firewall", "set"}, {{"enabled", "true"}, {"bogus", "1"}, {"-z", "2"}}),
      ElementsAre("unknown parameter '--bogus' for command 'network firewall set'",
                  "unknown parameter '-z' for command 'network firewall set'"));
  EXPECT_FALSE(Ran());
}

TEST_F(DispatcherCallTest, MissingRequiredParameterIsAnError) {
  EXPECT_THAT(
      Execute({"network", "firewall", "set"}, {{"count", "1"}}),
      ElementsAre("missing required parameter '--enabled' for command 'network firewall set'"));
  EXPECT_FALSE(Ran());
}

TEST_F(DispatcherCallTest, AParameterGivenTwiceIsAnError) {
  EXPECT_THAT(Execute({"network", "firewall", "set"}, {{"enabled", "true"}, {"-e", "false"}}),
              ElementsAre("parameter '--enabled' given more than once for command "
                          "'network firewall set'"));
  EXPECT_FALSE(Ran());
}

TEST_F(DispatcherCallTest, ValuesThatDoNotFitTheirTypeAreErrors) {
  const std::string boolError =
      "parameter '--enabled' of command 'network firewall set' takes true, false, 1, 0, yes or "
      "no, not '";
  const std::string intError =
      "parameter '--count' of command 'network firewall set' takes a whole decimal number from "
      "-9223372036854775808 to 9223372036854775807, not '";
  for (const char* value : {"maybe", "TRUE", "Yes", "", "2", " true"}) {
    EXPECT_THAT(Execute({"network", "firewall", "set"}, {{"enabled", value}}),
                ElementsAre(boolError + value + "'"));
  }
  for (const char* value :
       {"1.5", "+3", "", "-", "0x10", "1e3", " 1", "9223372036854775808", "-9223372036854775809"}) {
    EXPECT_THAT(Execute({"network", "firewall", "set"}, {{"enabled", "true"}, {"count", value}}),
                ElementsAre(intError + value + "'"));
  }
  EXPECT_FALSE(Ran());
}

TEST_F(DispatcherCallTest, ValuesThatFitTheirTypeRunTheCommand) {
  int runs = 0;
  for (const char* value : {"true", "false", "1", "0", "yes", "no"}) {
    EXPECT_THAT(Execute({"network", "firewall", "set"}, {{"enabled", value}}), IsEmpty()) << value;
    ++runs;
  }
  for (const char* value : {"0", "-3", "007", "9223372036854775807", "-9223372036854775808"}) {
    EXPECT_THAT(Execute({"network", "firewall", "set"}, {{"-e", "yes"}, {"-c", value}}), IsEmpty())
        << value;
    ++runs;
  }
  EXPECT_THAT(
      Execute({"network", "firewall", "set"}, {{"e", "no"}, {"label", ""}}),
      ElementsAre("unknown parameter '--e' for command 'network firewall set'",
                  "missing required parameter '--enabled' for command 'network firewall set'"));
  std::string expected;
  for (int run = 0; run < runs; ++run) {
    expected += "ran\n";
  }
  EXPECT_EQ(directory_.Read("ran"), expected);
}

TEST_F(DispatcherCallTest, ANullOutputIsRefusedAndANullInputReported) {
  EXPECT_THROW(dispatcher_.ExecuteCommand(CommandInput::New(), nullptr), std::invalid_argument);
  auto output = CommandOutput::New();
  dispatcher_.ExecuteCommand(nullptr, output);
  EXPECT_THAT(output->GetErrors(), ElementsAre("no command was given"));
}

// --- Running the program -------------------------------------------------

class DispatcherRunTest : public DispatcherTest {
 protected:
  /// Defines "show" with @p exec (a JSON list) and parameters a, b
  /// (string), flag (bool) and max-count (int, short m), then loads it.
  void DefineShow(const std::string& execJson) {
    directory_.Write("defs/show.json", R"({"commands": [{"path": ["show"], "parameters": [
        {"name": "a"}, {"name": "b"}, {"name": "flag", "type": "bool"},
        {"name": "max-count", "short": "m", "type": "int"}], "exec": )" +
                                           execJson + "}]}");
    Load("defs");
    ASSERT_THAT(dispatcher_.GetLoadErrors(), IsEmpty());
  }

  /// An exec list that writes each of its arguments as "[arg]" per line.
  std::string PrintArguments(const std::string& argumentsJson) {
    return R"(["/bin/sh", "-c", "printf '[%s]\\n' \"$@\" > )" + (directory_ / "args") +
           R"(", "sh", )" + argumentsJson + "]";
  }
};

TEST_F(DispatcherRunTest, WholePlaceholdersAreReplacedOrDropped) {
  DefineShow(PrintArguments(R"("{a}", "{b}", "{flag}", "literal")"));
  EXPECT_THAT(Execute({"show"}, {{"a", "one two"}, {"flag", "yes"}}), IsEmpty());
  // {b} was not given, so its element is gone; a value stays one argument.
  EXPECT_EQ(directory_.Read("args"), "[one two]\n[yes]\n[literal]\n");

  EXPECT_THAT(Execute({"show"}, {{"b", ""}}), IsEmpty());
  // Given empty, the element stays as an empty argument.
  EXPECT_EQ(directory_.Read("args"), "[]\n[literal]\n");
}

TEST_F(DispatcherRunTest, PlaceholdersInsideLongerElementsAreSubstitutedInPlace) {
  DefineShow(PrintArguments(R"("--a={a}", "{a}-{b}", "x{max-count}y{b}z", "{a}{a}")"));
  EXPECT_THAT(Execute({"show"}, {{"a", "A"}, {"-m", "-7"}}), IsEmpty());
  EXPECT_EQ(directory_.Read("args"), "[--a=A]\n[A-]\n[x-7yz]\n[AA]\n");
}

TEST_F(DispatcherRunTest, BracesThatNameNoParameterStayAsTheyAre) {
  DefineShow(PrintArguments(R"("{print $1}", "{}", "{unknown}", "{a", "a}", "{{a}}", "}{a}{")"));
  EXPECT_THAT(Execute({"show"}, {{"a", "V"}}), IsEmpty());
  EXPECT_EQ(directory_.Read("args"), "[{print $1}]\n[{}]\n[{unknown}]\n[{a]\n[a}]\n[{V}]\n[}V{]\n");
}

TEST_F(DispatcherRunTest, SubstitutedValuesAreNotScannedAgain) {
  DefineShow(PrintArguments(R"("{a}", "<{a}>")"));
  EXPECT_THAT(Execute({"show"}, {{"a", "{b}"}, {"b", "no"}}), IsEmpty());
  EXPECT_EQ(directory_.Read("args"), "[{b}]\n[<{b}>]\n");
}

TEST_F(DispatcherRunTest, GivenParametersAreExportedAsQorcliVariables) {
  DefineShow(R"(["/bin/sh", "-c", "env | grep -E '^(QORCLI_|CPPTOOLS_TEST_)' | LC_ALL=C sort > )" +
             (directory_ / "env") + R"("])");
  ::setenv("CPPTOOLS_TEST_INHERITED", "kept", 1);
  ::setenv("QORCLI_B", "stale from the caller", 1);
  ::setenv("QORCLI_A", "replaced", 1);
  std::vector<std::string> errors = Execute({"show"}, {{"a", "x y"}, {"-m", "5"}, {"flag", "no"}});
  ::unsetenv("CPPTOOLS_TEST_INHERITED");
  ::unsetenv("QORCLI_B");
  ::unsetenv("QORCLI_A");
  EXPECT_THAT(errors, IsEmpty());
  // Names: upper case, "-" as "_"; b was not given, so the caller's
  // QORCLI_B does not reach the program.
  EXPECT_EQ(directory_.Read("env"),
            "CPPTOOLS_TEST_INHERITED=kept\n"
            "QORCLI_A=x y\n"
            "QORCLI_FLAG=no\n"
            "QORCLI_MAX_COUNT=5\n");
}

TEST_F(DispatcherRunTest, NonZeroExitStatusIsReportedWithTheCommandsWords) {
  directory_.Write("defs/fail.json", ShellCommand(R"(["disk", "check"])", "exit 3"));
  Load("defs");
  EXPECT_THAT(Execute({"disk", "check"}), ElementsAre("command 'disk check' failed with status 3"));
}

TEST_F(DispatcherRunTest, DeathBySignalIsReported) {
  directory_.Write("defs/kill.json", ShellCommand(R"(["self", "destruct"])", "kill -TERM $$"));
  Load("defs");
  EXPECT_THAT(Execute({"self", "destruct"}),
              ElementsAre("command 'self destruct' killed by signal " + std::to_string(SIGTERM)));
}

TEST_F(DispatcherRunTest, AProgramThatCannotStartIsAnError) {
  directory_.Write("defs/none.json", R"({"commands": [
      {"path": ["absent"], "exec": ["/nonexistent/program", "arg"]},
      {"path": ["notexec"], "exec": [)" + Json(directory_ / "defs/none.json") +
                                         R"(]}]})");
  Load("defs");
  EXPECT_THAT(Execute({"absent"}),
              ElementsAre("command 'absent' could not run '/nonexistent/program': No such file "
                          "or directory"));
  EXPECT_THAT(Execute({"notexec"}),
              ElementsAre("command 'notexec' could not run '" + (directory_ / "defs/none.json") +
                          "': Permission denied"));
}

TEST_F(DispatcherRunTest, AnExecOfOnlyMissingParametersIsAnError) {
  DefineShow(R"(["{a}", "{b}"])");
  EXPECT_THAT(Execute({"show"}), ElementsAre("command 'show' has no program to run: its exec names "
                                             "only parameters not given"));
}

TEST_F(DispatcherRunTest, AProgramNameWithoutSlashIsFoundThroughPath) {
  DefineShow(R"(["sh", "-c", "echo found > )" + (directory_ / "found") + R"("])");
  EXPECT_THAT(Execute({"show"}), IsEmpty());
  EXPECT_EQ(directory_.Read("found"), "found\n");
}

/// The signal bits of one "Sig...:" line of a /proc status text, for the
/// standard signals 1 to 31 (glibc keeps the real-time signals 32 and 33
/// for itself and decides their disposition in a spawned child).
unsigned long long StandardSignals(const std::string& status, const std::string& field) {
  std::size_t start = status.find(field + ":\t");
  if (start == std::string::npos) {
    ADD_FAILURE() << "no " << field << " in " << status;
    return ~0ULL;
  }
  return std::stoull(status.substr(start + field.size() + 2, 16), nullptr, 16) & 0x7fffffffULL;
}

TEST_F(DispatcherRunTest, TheProgramStartsWithDefaultSignalsAndOnlyStandardDescriptors) {
  // A caller like the executor ignores SIGPIPE, may block signals in its
  // thread and holds sockets that are not close-on-exec; none of it may
  // reach the program.
  int leaked = ::open("/dev/null", O_RDONLY);
  ASSERT_GE(leaked, 3);
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  struct sigaction previous {};
  ::sigaction(SIGPIPE, &ignore, &previous);
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR1);
  sigset_t previousMask;
  ::pthread_sigmask(SIG_BLOCK, &blocked, &previousMask);
  DefineShow(R"(["/bin/sh", "-c", "if [ -e /proc/$$/fd/)" + std::to_string(leaked) +
             R"( ]; then echo leaked; else echo closed; fi > )" + (directory_ / "descriptor") +
             R"(; exec grep -E '^Sig(Ign|Blk)' /proc/self/status > )" + (directory_ / "signals") +
             R"("])");
  std::vector<std::string> errors = Execute({"show"});
  ::pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
  ::sigaction(SIGPIPE, &previous, nullptr);
  ::close(leaked);
  EXPECT_THAT(errors, IsEmpty());
  EXPECT_EQ(directory_.Read("descriptor"), "closed\n");
  std::string signals = directory_.Read("signals");
  EXPECT_EQ(StandardSignals(signals, "SigIgn"), 0u) << signals;
  EXPECT_EQ(StandardSignals(signals, "SigBlk"), 0u) << signals;
}

/// A dispatcher whose programs never start: it records what it was asked
/// to run and answers with a chosen result.
class RecordingDispatcher : public Dispatcher {
 public:
  CppTools::AutoCli::ProgramResult answer;
  std::vector<std::vector<std::string>> runs;
  std::vector<std::pair<std::string, std::string>> environment;
  std::vector<std::string> removedVariables;

 protected:
  CppTools::AutoCli::ProgramResult RunCommandProgram(
      const std::vector<std::string>& arguments,
      const std::vector<std::pair<std::string, std::string>>& givenVariables,
      const std::vector<std::string>& notGivenVariables) override {
    runs.push_back(arguments);
    environment = givenVariables;
    removedVariables = notGivenVariables;
    return answer;
  }
};

TEST_F(DispatcherRunTest, ASubclassRunnerReplacesTheProgramAndItsResultIsReported) {
  DefineShow(R"(["/bin/sh", "-c", "echo ran > )" + (directory_ / "ran") + R"(", "{a}", "{b}"])");
  RecordingDispatcher recording;
  recording.AddExternalDirectory(directory_ / "defs");
  recording.answer.exitStatus = 3;
  auto input = CommandInput::New();
  auto output = CommandOutput::New();
  input->SetCommandPath({"show"});
  input->AddParameter("a", "x y");
  input->AddParameter("-m", "5");
  recording.ExecuteCommand(input, output);

  ASSERT_THAT(recording.runs, SizeIs(1));
  EXPECT_THAT(recording.runs[0],
              ElementsAre("/bin/sh", "-c", "echo ran > " + (directory_ / "ran"), "x y"));
  EXPECT_THAT(recording.environment,
              ElementsAre(std::pair<std::string, std::string>("QORCLI_A", "x y"),
                          std::pair<std::string, std::string>("QORCLI_MAX_COUNT", "5")));
  EXPECT_THAT(recording.removedVariables, ElementsAre("QORCLI_B", "QORCLI_FLAG"));
  EXPECT_THAT(output->GetErrors(), ElementsAre("command 'show' failed with status 3"));
  EXPECT_FALSE(directory_.Exists("ran")) << "the program itself must not have run";

  // The same definition through the base class really runs the program.
  EXPECT_THAT(Execute({"show"}, {{"a", "x y"}}), IsEmpty());
  EXPECT_EQ(directory_.Read("ran"), "ran\n");
}

// --- Help ----------------------------------------------------------------

class DispatcherHelpTest : public DispatcherTest {
 protected:
  void SetUp() override {
    directory_.Write("defs/a.json", R"({"commands": [
      {"path": ["network", "firewall", "set"], "help": "Enable or disable the firewall.",
       "parameters": [{"name": "enabled", "short": "e", "type": "bool", "required": true,
                       "help": "true to enable"},
                      {"name": "zone", "help": "which zone"}],
       "exec": ["/bin/true"]},
      {"path": ["network", "firewall", "rules", "list"], "exec": ["/bin/true"]},
      {"path": ["network", "status"], "help": "Show the link state.",
       "parameters": [{"name": "count", "type": "int"}], "exec": ["/bin/true"]},
      {"path": ["network"], "help": "Summarise the network.", "exec": ["/bin/true"]},
      {"path": ["reboot"], "help": "Restart the host.", "exec": ["/bin/true"]}
    ]})");
    Load("defs");
    ASSERT_THAT(dispatcher_.GetLoadErrors(), IsEmpty());
  }
};

TEST_F(DispatcherHelpTest, TopListsNamespacesAndCommandsWithTheirParameters) {
  EXPECT_EQ(Help({}),
            "Usage: <namespace>... <command> [--<name> <value>]...\n"
            "\n"
            "Namespaces:\n"
            "  network\n"
            "\n"
            "Commands:\n"
            "  network  Summarise the network.\n"
            "  reboot  Restart the host.\n");
}

TEST_F(DispatcherHelpTest, ANamespaceListsWhatIsBelowIt) {
  EXPECT_EQ(Help({"network", "firewall"}),
            "Usage: network firewall <namespace>... <command> [--<name> <value>]...\n"
            "\n"
            "Namespaces:\n"
            "  network firewall rules\n"
            "\n"
            "Commands:\n"
            "  network firewall set  Enable or disable the firewall.\n"
            "      --enabled, -e <bool> (required)  true to enable\n"
            "      --zone <string>  which zone\n");
}

TEST_F(DispatcherHelpTest, ACommandShowsItsUsageAndParameters) {
  EXPECT_EQ(Help({"network", "firewall", "set"}),
            "Usage: network firewall set --enabled <bool> [--zone <string>]\n"
            "\n"
            "Enable or disable the firewall.\n"
            "\n"
            "Parameters:\n"
            "  --enabled, -e <bool> (required)  true to enable\n"
            "  --zone <string>  which zone\n");
}

TEST_F(DispatcherHelpTest, APathThatIsBothCommandAndNamespaceShowsBoth) {
  std::string help = Help({"network"});
  EXPECT_THAT(help, StartsWith("Usage: network\n\nSummarise the network.\n\nUsage: network "));
  EXPECT_THAT(help, HasSubstr("Namespaces:\n  network firewall\n"));
  EXPECT_THAT(help, HasSubstr("Commands:\n  network status  Show the link state.\n"
                              "      --count <int>\n"));
}

TEST_F(DispatcherHelpTest, AnUnknownPathSaysSo) {
  EXPECT_FALSE(dispatcher_.IsKnownPath({"network", "bogus"}));
  EXPECT_TRUE(dispatcher_.IsKnownPath({"network", "firewall"}));
  EXPECT_TRUE(dispatcher_.IsKnownPath({}));
  EXPECT_EQ(Help({"network", "bogus"}), "unknown command or namespace 'network bogus'\n");
}

TEST_F(DispatcherHelpTest, NextWordsAreTheNamespacesAndCommandsDirectlyBelowAPath) {
  EXPECT_THAT(dispatcher_.GetNextWords({}), ElementsAre("network", "reboot"));
  // "network" is a command as well; its own path is not a next word.
  EXPECT_THAT(dispatcher_.GetNextWords({"network"}), ElementsAre("firewall", "status"));
  // "rules" and "set" each once, though "rules" has a command below it.
  EXPECT_THAT(dispatcher_.GetNextWords({"network", "firewall"}), ElementsAre("rules", "set"));
  EXPECT_THAT(dispatcher_.GetNextWords({"network", "firewall", "set"}), IsEmpty());
  EXPECT_THAT(dispatcher_.GetNextWords({"network", "bogus"}), IsEmpty());
  EXPECT_THAT(dispatcher_.GetNextWords({"net"}), IsEmpty());  // whole words, not prefixes
}

TEST(DispatcherHelp, NoDefinitionsAtAllSaysSo) {
  Dispatcher empty;
  std::ostringstream stream;
  empty.WriteHelp({}, stream);
  EXPECT_EQ(stream.str(), "no commands are defined\n");
  EXPECT_THAT(empty.GetNextWords({}), IsEmpty());
}

}  // namespace
