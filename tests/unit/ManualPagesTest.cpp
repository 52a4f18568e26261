// The manual pages of doc/man: mandoc's linter finds nothing above style
// level in any of them, man renders each without a warning, and orvane(8)
// documents every option of orvane's usage text.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "orvaner/run/CommandLine.h"

namespace orvane::testing {
namespace {

// tests/e2e/expected is three levels below the source tree's root.
const std::string kManualDirectory = std::string(ORVANE_E2E_EXPECTED_DIR) + "/../../../doc/man/";

struct Output {
  std::string text;
  int status = -1;
};

/// What @p command prints on standard output, and its exit status. mandoc
/// and man are installed by scripts/setup-deps.
Output RunCommand(const std::string& command) {
  Output output;
  FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) return output;
  char buffer[512];
  while (std::fgets(buffer, sizeof buffer, pipe) != nullptr) output.text += buffer;
  const int status = ::pclose(pipe);
  output.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return output;
}

std::string Page(const std::string& name) {
  std::ifstream stream(kManualDirectory + name);
  std::stringstream content;
  content << stream.rdbuf();
  return content.str();
}

class ManualPagesTest : public ::testing::TestWithParam<const char*> {};

TEST_P(ManualPagesTest, MandocFindsNothingAboveStyleLevel) {
  const Output lint =
      RunCommand("mandoc -T lint -W warning '" + kManualDirectory + GetParam() + "' 2>&1");
  EXPECT_EQ(lint.text, "");
  EXPECT_EQ(lint.status, 0);
}

TEST_P(ManualPagesTest, ManRendersItWithoutAWarning) {
  // Only man's warnings reach the pipe; the page itself goes nowhere.
  const Output rendered = RunCommand("MANWIDTH=80 man --warnings -l '" + kManualDirectory +
                                     GetParam() + "' 2>&1 >/dev/null");
  EXPECT_EQ(rendered.text, "");
  EXPECT_EQ(rendered.status, 0);
  const Output text =
      RunCommand("MANWIDTH=80 man -l '" + kManualDirectory + GetParam() + "' 2>/dev/null | wc -l");
  EXPECT_GT(std::stoi(text.text.empty() ? "0" : text.text), 20) << "the page renders empty";
}

INSTANTIATE_TEST_SUITE_P(EveryPage, ManualPagesTest,
                         ::testing::Values("orvane.8", "qorcli.8", "orvane-plugins.5",
                                           "orvane-cli-definitions.5", "orvane-analyze.1"),
                         [](const ::testing::TestParamInfo<const char*>& info) {
                           std::string name = info.param;
                           for (char& character : name) {
                             if (!std::isalnum(static_cast<unsigned char>(character))) {
                               character = '_';
                             }
                           }
                           return name;
                         });

TEST(OrvaneManualPageTest, DocumentsEveryOptionOfTheUsageText) {
  const std::string page = Page("orvane.8");
  ASSERT_FALSE(page.empty());
  const std::regex option("--([a-z][a-z-]*)");
  std::set<std::string> options;
  for (const char* line : UsageLines()) {
    const std::string text = line;
    for (auto match = std::sregex_iterator(text.begin(), text.end(), option);
         match != std::sregex_iterator(); ++match) {
      options.insert((*match)[1]);
    }
  }
  ASSERT_GT(options.size(), 10u);
  for (const std::string& name : options) {
    const bool documented = page.find("Fl \\-" + name) != std::string::npos ||
                            page.find("Fl -" + name) != std::string::npos;
    EXPECT_TRUE(documented) << "--" << name;
  }
  for (const char* section : {".Sh EXIT STATUS", ".Sh FILES", ".Sh EXAMPLES", ".Sh SEE ALSO"}) {
    EXPECT_NE(page.find(section), std::string::npos) << section;
  }
}

}  // namespace
}  // namespace orvane::testing
