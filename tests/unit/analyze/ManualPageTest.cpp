// The manual page of orvane-analyze: mandoc's linter finds nothing above
// style level in it, and it documents every command and option the program
// takes.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "analyze/CommandLine.h"

namespace orvane::analyze::testing {
namespace {

// tests/e2e/expected is three levels below the source tree's root.
const std::string kManualPage =
    std::string(ORVANE_E2E_EXPECTED_DIR) + "/../../../doc/man/orvane-analyze.1";

std::string ManualPage() {
  std::ifstream stream(kManualPage);
  std::stringstream content;
  content << stream.rdbuf();
  return content.str();
}

TEST(ManualPageTest, MandocFindsNothingAboveStyleLevel) {
  const std::string command = "mandoc -T lint -W warning '" + kManualPage + "' 2>&1";
  FILE* pipe = ::popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::string report;
  char buffer[512];
  while (std::fgets(buffer, sizeof buffer, pipe) != nullptr) {
    report += buffer;
  }
  const int status = ::pclose(pipe);
  // mandoc is installed by scripts/setup-deps; a shell that cannot find it
  // says so here.
  EXPECT_EQ(report, "");
  EXPECT_EQ(status, 0);
}

TEST(ManualPageTest, DocumentsEveryCommandAndOption) {
  const std::string page = ManualPage();
  ASSERT_FALSE(page.empty()) << kManualPage;
  for (const char* command :
       {"blame", "critical-chain", "plot", "trace", "status", "compare", "aggregate", "verify"}) {
    EXPECT_NE(page.find(".It Cm " + std::string(command)), std::string::npos) << command;
    EXPECT_NE(std::string(kUsage).find(command), std::string::npos) << command;
  }
  for (const char* option : {".It Fl r Ar file", "Fl \\-json", ".It Fl \\-threshold Ar ms",
                             ".It Fl \\-root Ar dir", ".It Fl h , Fl \\-help"}) {
    EXPECT_NE(page.find(option), std::string::npos) << option;
  }
  for (const char* section : {".Sh EXIT STATUS", ".Sh FILES", ".Sh EXAMPLES"}) {
    EXPECT_NE(page.find(section), std::string::npos) << section;
  }
}

}  // namespace
}  // namespace orvane::analyze::testing
