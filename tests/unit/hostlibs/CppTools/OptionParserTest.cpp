#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "CppTools/AutoCli/Dispatcher.h"
#include "CppTools/AutoCli/OptionParser.h"
#include "TemporaryDirectory.h"

namespace {

using CppTools::AutoCli::Dispatcher;
using CppTools::AutoCli::OptionParser;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;

/// Parses one line with no help source; the help text, if any, is kept.
struct Parsed {
  bool help = false;
  std::vector<std::string> errors;
  std::vector<std::string> path;
  std::vector<std::pair<std::string, std::string>> parameters;
  std::string helpText;
};

Parsed Parse(const std::string& line) {
  std::ostringstream helpStream;
  OptionParser parser(nullptr, &helpStream);
  Parsed parsed;
  parsed.help = parser.ParseString(line);
  parsed.errors = parser.GetParseErrors();
  parsed.path = parser.GetCommandPath();
  parsed.parameters = parser.GetCommandParameters();
  parsed.helpText = helpStream.str();
  return parsed;
}

TEST(OptionParser, LeadingWordsAreThePathAndEveryParameterFormIsRead) {
  Parsed parsed = Parse("network firewall set --enabled=true --count 3 -e no --verbose");
  EXPECT_FALSE(parsed.help);
  EXPECT_THAT(parsed.errors, IsEmpty());
  EXPECT_THAT(parsed.path, ElementsAre("network", "firewall", "set"));
  EXPECT_THAT(parsed.parameters, ElementsAre(Pair("enabled", "true"), Pair("count", "3"),
                                             Pair("-e", "no"), Pair("verbose", "true")));
}

TEST(OptionParser, AnOptionFollowedByAnotherOptionHasTheValueTrue) {
  Parsed parsed = Parse("cmd --first --second -x -y");
  EXPECT_THAT(parsed.errors, IsEmpty());
  EXPECT_THAT(parsed.parameters, ElementsAre(Pair("first", "true"), Pair("second", "true"),
                                             Pair("-x", "true"), Pair("-y", "true")));
}

TEST(OptionParser, ValueAfterEqualsMayBeEmptyOrContainEqualsAndDashes) {
  Parsed parsed = Parse("cmd --empty= --expr=a=b --flag=-x --dashes=--help");
  EXPECT_FALSE(parsed.help);
  EXPECT_THAT(parsed.errors, IsEmpty());
  EXPECT_THAT(parsed.parameters, ElementsAre(Pair("empty", ""), Pair("expr", "a=b"),
                                             Pair("flag", "-x"), Pair("dashes", "--help")));
}

TEST(OptionParser, NegativeNumbersAndALoneDashAreValuesNotOptions) {
  Parsed parsed = Parse("cmd --count -3 -o -0.5 --file -");
  EXPECT_THAT(parsed.errors, IsEmpty());
  EXPECT_THAT(parsed.parameters,
              ElementsAre(Pair("count", "-3"), Pair("-o", "-0.5"), Pair("file", "-")));
}

TEST(OptionParser, AValueBeginningWithADashAndALetterIsTheNextOption) {
  Parsed parsed = Parse("cmd --message -x");
  EXPECT_THAT(parsed.errors, IsEmpty());
  EXPECT_THAT(parsed.parameters, ElementsAre(Pair("message", "true"), Pair("-x", "true")));
}

TEST(OptionParser, SplitsLikeAShellWithQuotesAndEscapes) {
  Parsed parsed = Parse(
      R"(say 'hello world' "a \"quoted\" \$x \n" back\ slash\\ mixed'sin'"gle" --e1 '' --e2 "" --m='it''s')");
  EXPECT_THAT(parsed.errors, IsEmpty());
  // A backslash in double quotes escapes only $ ` " \ and newline; "" and ''
  // are empty words of their own; adjacent quoted parts join.
  EXPECT_THAT(parsed.path, ElementsAre("say", "hello world", R"(a "quoted" $x \n)",
                                       R"(back slash\)", "mixedsingle"));
  EXPECT_THAT(parsed.parameters, ElementsAre(Pair("e1", ""), Pair("e2", ""), Pair("m", "its")));
}

TEST(OptionParser, ShellCharactersAreOrdinaryAndNothingIsExpanded) {
  Parsed parsed = Parse("run $HOME * ; | & > `x` ~ --v=$(id)");
  EXPECT_THAT(parsed.errors, IsEmpty());
  EXPECT_THAT(parsed.path, ElementsAre("run", "$HOME", "*", ";", "|", "&", ">", "`x`", "~"));
  EXPECT_THAT(parsed.parameters, ElementsAre(Pair("v", "$(id)")));
}

TEST(OptionParser, BlanksAreSpacesTabsAndNewlinesAndBackslashNewlineJoins) {
  Parsed parsed = Parse("\t a\tb\n c\\\nd \"e\\\nf\"  \\");
  EXPECT_THAT(parsed.errors, IsEmpty());
  // A backslash at the very end stays what it is.
  EXPECT_THAT(parsed.path, ElementsAre("a", "b", "cd", "ef", "\\"));
}

TEST(OptionParser, QuotedDashWordStillEndsThePath) {
  // Quotes only group characters; the word "-x" is an option either way.
  Parsed parsed = Parse("cmd '-x' 1");
  EXPECT_THAT(parsed.errors, IsEmpty());
  EXPECT_THAT(parsed.path, ElementsAre("cmd"));
  EXPECT_THAT(parsed.parameters, ElementsAre(Pair("-x", "1")));
}

TEST(OptionParser, UnterminatedQuotesAreParseErrors) {
  EXPECT_THAT(Parse("cmd 'open").errors, ElementsAre("unterminated single quote"));
  EXPECT_THAT(Parse("cmd --v=\"open").errors, ElementsAre("unterminated double quote"));
  EXPECT_THAT(Parse("cmd \"escaped end\\\"").errors, ElementsAre("unterminated double quote"));
  // Even a help request cannot be read out of a line that does not split.
  Parsed parsed = Parse("cmd --help 'open");
  EXPECT_FALSE(parsed.help);
  EXPECT_EQ(parsed.helpText, "");
  EXPECT_THAT(parsed.errors, ElementsAre("unterminated single quote"));
}

TEST(OptionParser, AnEmptyPathIsAParseError) {
  for (const char* line : {"", "   \t\n", "--enabled true", "-3"}) {
    Parsed parsed = Parse(line);
    EXPECT_FALSE(parsed.help) << line;
    ASSERT_FALSE(parsed.errors.empty()) << line;
    EXPECT_THAT(parsed.errors[0], HasSubstr("no command given")) << line;
    EXPECT_THAT(parsed.path, IsEmpty()) << line;
  }
}

TEST(OptionParser, AnEmptyWordInThePathIsAParseError) {
  EXPECT_THAT(Parse("network '' set").errors,
              ElementsAre("the command path contains an empty word"));
}

TEST(OptionParser, AWordWhereAParameterIsExpectedIsAParseError) {
  Parsed parsed = Parse("network set --enabled true stray --count=2 other");
  EXPECT_THAT(parsed.errors, ElementsAre("unexpected word 'stray' where a parameter was expected",
                                         "unexpected word 'other' where a parameter was expected"));
}

TEST(OptionParser, AnOptionWithoutANameIsAParseError) {
  EXPECT_THAT(Parse("cmd --").errors, ElementsAre("option '--' has no name"));
  EXPECT_THAT(Parse("cmd --=x").errors, ElementsAre("option '--=x' has no name"));
}

TEST(OptionParser, ALongNameBeginningWithADashIsAParseErrorNotAShortName) {
  // Passed on, "---e" would have read as "-e", the short name e.
  EXPECT_THAT(Parse("network firewall set ---e true").errors,
              ElementsAre("option '---e' has a name beginning with \"-\"",
                          "unexpected word 'true' where a parameter was expected"));
  EXPECT_THAT(Parse("cmd ---").errors, ElementsAre("option '---' has a name beginning with \"-\""));
  EXPECT_THAT(Parse("cmd ----name=v").errors,
              ElementsAre("option '----name=v' has a name beginning with \"-\""));
}

TEST(OptionParser, ANulByteIsAParseError) {
  Parsed parsed = Parse(std::string("cmd --v=a\0b", 11));
  EXPECT_THAT(parsed.errors, ElementsAre("the command line contains a NUL byte"));
}

TEST(OptionParser, EachParseStartsAfresh) {
  std::ostringstream helpStream;
  OptionParser parser(nullptr, &helpStream);
  EXPECT_FALSE(parser.ParseString("a b --x 1 stray"));
  EXPECT_FALSE(parser.GetParseErrors().empty());
  EXPECT_FALSE(parser.ParseString("c --y 2"));
  EXPECT_THAT(parser.GetParseErrors(), IsEmpty());
  EXPECT_THAT(parser.GetCommandPath(), ElementsAre("c"));
  EXPECT_THAT(parser.GetCommandParameters(), ElementsAre(Pair("y", "2")));
}

TEST(OptionParser, ParseWordsTakesEachWordAsItIs) {
  std::ostringstream helpStream;
  OptionParser parser(nullptr, &helpStream);
  EXPECT_FALSE(parser.ParseWords({"say", "two words", "--m", "it's \"quoted\"", "--v=a b"}));
  EXPECT_THAT(parser.GetParseErrors(), IsEmpty());
  EXPECT_THAT(parser.GetCommandPath(), ElementsAre("say", "two words"));
  EXPECT_THAT(parser.GetCommandParameters(),
              ElementsAre(Pair("m", "it's \"quoted\""), Pair("v", "a b")));
}

TEST(OptionParser, HelpWithoutDefinitionsSaysSoAndReturnsTrue) {
  for (const char* line : {"--help", "-h", "network --help", "a b --x 1 stray -h"}) {
    Parsed parsed = Parse(line);
    EXPECT_TRUE(parsed.help) << line;
    EXPECT_EQ(parsed.helpText, "no command definitions are available\n") << line;
  }
}

class OptionParserHelp : public ::testing::Test {
 protected:
  void SetUp() override {
    directory_.Write("commands.json", R"({"commands": [
      {"path": ["network", "firewall", "set"], "help": "Enable or disable the firewall.",
       "parameters": [{"name": "enabled", "short": "e", "type": "bool", "required": true,
                       "help": "true to enable"}],
       "exec": ["/bin/true"]},
      {"path": ["network", "status"], "help": "Show the link state.", "exec": ["/bin/true"]}
    ]})");
    dispatcher_.AddExternalDirectory(directory_.Path().string());
    ASSERT_THAT(dispatcher_.GetLoadErrors(), IsEmpty());
  }

  /// The help a line prints, or "(not help)".
  std::string HelpFor(const std::string& line) {
    std::ostringstream helpStream;
    OptionParser parser(&dispatcher_, &helpStream);
    return parser.ParseString(line) ? helpStream.str() : "(not help)";
  }

  std::string DispatcherHelp(const std::vector<std::string>& path) {
    std::ostringstream stream;
    dispatcher_.WriteHelp(path, stream);
    return stream.str();
  }

  unit_testing::TemporaryDirectory directory_;
  Dispatcher dispatcher_;
};

TEST_F(OptionParserHelp, HelpAnywhereWritesTheHelpOfThePathBeforeIt) {
  EXPECT_EQ(HelpFor("--help"), DispatcherHelp({}));
  EXPECT_EQ(HelpFor("network -h"), DispatcherHelp({"network"}));
  EXPECT_EQ(HelpFor("network firewall set --enabled true --help"),
            DispatcherHelp({"network", "firewall", "set"}));
  // Other problems of the line do not stop a help request.
  EXPECT_EQ(HelpFor("network firewall set --enabled true stray --bogus -h"),
            DispatcherHelp({"network", "firewall", "set"}));
  EXPECT_THAT(HelpFor("network firewall set -h"), HasSubstr("--enabled, -e <bool> (required)"));
}

TEST_F(OptionParserHelp, HelpInsideAValueIsNotARequest) {
  EXPECT_EQ(HelpFor("network firewall set --enabled=--help"), "(not help)");
  EXPECT_EQ(HelpFor("network firewall set --enabled '--help=1'"), "(not help)");
}

// Bad input must never crash the parser: every line either parses (with a
// command path), asks for help, or reports at least one error.
void CheckOutcome(OptionParser& parser, bool help, const std::string& line) {
  if (help) {
    return;
  }
  if (!parser.GetParseErrors().empty()) {
    return;
  }
  ASSERT_FALSE(parser.GetCommandPath().empty()) << line;
  for (const std::string& word : parser.GetCommandPath()) {
    ASSERT_FALSE(word.empty()) << line;
    ASSERT_NE(word[0], '-') << line;
  }
  for (const auto& [name, value] : parser.GetCommandParameters()) {
    ASSERT_FALSE(name.empty()) << line;
    // A long name, or a short one: "-" and a character other than "-".
    ASSERT_FALSE(name[0] == '-' && (name.size() < 2 || name[1] == '-')) << line;
  }
}

/// Quotes a word so that the parser reads it back unchanged.
std::string Quote(const std::string& word) {
  std::string quoted = "'";
  for (char character : word) {
    quoted += character == '\'' ? std::string("'\\''") : std::string(1, character);
  }
  return quoted + "'";
}

/// A line that reads back as @p path and @p parameters. A short name's value
/// that looks like an option has no such line; @p readsBack is then false.
std::string Requote(const std::vector<std::string>& path,
                    const std::vector<std::pair<std::string, std::string>>& parameters,
                    bool& readsBack) {
  std::string line;
  for (const std::string& word : path) {
    line += Quote(word) + " ";
  }
  for (const auto& [name, value] : parameters) {
    if (name[0] != '-') {
      line += Quote("--" + name + "=" + value) + " ";
      continue;
    }
    line += Quote(name) + " " + Quote(value) + " ";
    if (value.size() >= 2 && value[0] == '-' && (value[1] < '0' || value[1] > '9')) {
      readsBack = false;
    }
  }
  return line;
}

TEST(OptionParserRobustness, RandomLinesAlwaysParseOrReportAnError) {
  std::mt19937 random(20261121);
  // Characters the parser treats specially, more often than the rest.
  const std::string special = " \t\n'\"\\-=-hel";
  std::ostringstream helpStream;
  OptionParser parser(nullptr, &helpStream);
  int parsedLines = 0;
  int rejectedLines = 0;
  int requotedLines = 0;
  for (int round = 0; round < 5000; ++round) {
    std::size_t length = random() % 120;
    std::string line;
    for (std::size_t index = 0; index < length; ++index) {
      line += random() % 2 == 0 ? special[random() % special.size()]
                                : static_cast<char>(random() % 256);
    }
    bool help = parser.ParseString(line);
    CheckOutcome(parser, help, line);
    (parser.GetParseErrors().empty() ? parsedLines : rejectedLines) += 1;

    if (!help && parser.GetParseErrors().empty()) {
      // What was read, quoted again, reads back the same.
      std::vector<std::string> path = parser.GetCommandPath();
      auto parameters = parser.GetCommandParameters();
      bool readsBack = true;
      std::string requoted = Requote(path, parameters, readsBack);
      if (readsBack) {
        ASSERT_FALSE(parser.ParseString(requoted)) << requoted;
        EXPECT_THAT(parser.GetParseErrors(), IsEmpty()) << requoted;
        EXPECT_EQ(parser.GetCommandPath(), path) << requoted;
        EXPECT_EQ(parser.GetCommandParameters(), parameters) << requoted;
        ++requotedLines;
      }
    }
  }
  // The generator must exercise both outcomes, or the loop proves little.
  EXPECT_GT(parsedLines, 100);
  EXPECT_GT(rejectedLines, 100);
  EXPECT_GT(requotedLines, 100);
}

TEST(OptionParserRobustness, HundredThousandByteLinesAreHandled) {
  std::mt19937 random(7);
  std::ostringstream helpStream;
  OptionParser parser(nullptr, &helpStream);
  const std::size_t kLength = 100000;

  std::string oneWord(kLength, 'a');
  EXPECT_FALSE(parser.ParseString(oneWord));
  EXPECT_THAT(parser.GetParseErrors(), IsEmpty());
  ASSERT_EQ(parser.GetCommandPath().size(), 1u);
  EXPECT_EQ(parser.GetCommandPath()[0].size(), kLength);

  std::string unterminated = "cmd --v='" + std::string(kLength, 'x');
  EXPECT_FALSE(parser.ParseString(unterminated));
  EXPECT_THAT(parser.GetParseErrors(), ElementsAre("unterminated single quote"));

  std::string manyOptions;
  while (manyOptions.size() < kLength) {
    manyOptions += "--o ";
  }
  EXPECT_FALSE(parser.ParseString("cmd " + manyOptions));
  EXPECT_THAT(parser.GetParseErrors(), IsEmpty());
  EXPECT_EQ(parser.GetCommandParameters().size(), kLength / 4);

  for (int round = 0; round < 20; ++round) {
    std::string line;
    for (std::size_t index = 0; index < kLength; ++index) {
      line += static_cast<char>(random() % 256);
    }
    bool help = parser.ParseString(line);
    CheckOutcome(parser, help, "(random 100,000 bytes)");
  }
}

TEST(OptionParserRobustness, RandomWordListsAlwaysParseOrReportAnError) {
  std::mt19937 random(42);
  const std::vector<std::string> pieces = {
      "a", "", "-", "--", "-x", "--x", "--x=", "=", "-1", "--help=1", "b c", "'", "\"", "\\"};
  std::ostringstream helpStream;
  OptionParser parser(nullptr, &helpStream);
  for (int round = 0; round < 3000; ++round) {
    std::vector<std::string> words(random() % 8);
    for (std::string& word : words) {
      word = pieces[random() % pieces.size()];
    }
    bool help = parser.ParseWords(words);
    CheckOutcome(parser, help, "(word list)");
  }
}

}  // namespace
