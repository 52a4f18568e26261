// The manual page of orvane-analyze documents every command and option the
// program takes (ManualPagesTest lints and renders it with the others).
#include <gtest/gtest.h>

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
