#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "orvaner/RedirectStdio.h"

namespace orvane {
namespace {

using ::testing::HasSubstr;

std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

/// A log path in a fresh temporary directory, removed with the test.
class RedirectStdioTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/orvane-redirect-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    directory_ = pattern;
    log_ = directory_ / "child.log";
  }
  void TearDown() override { std::filesystem::remove_all(directory_); }

  std::filesystem::path directory_;
  std::filesystem::path log_;
};

// Each redirection happens in a child process (a death test), so that this
// process keeps its own streams.
TEST_F(RedirectStdioTest, OutputAndErrorAreAppendedToTheLogAndInputIsEmpty) {
  {
    std::ofstream earlier(log_);
    earlier << "earlier\n";
  }
  EXPECT_EXIT(
      {
        RedirectStdio(log_.c_str());
        std::printf("to stdout\n");
        std::fflush(stdout);
        std::fprintf(stderr, "to stderr\n");
        char byte;
        std::exit(read(STDIN_FILENO, &byte, 1) == 0 ? 0 : 1);  // /dev/null: end of file
      },
      ::testing::ExitedWithCode(0), "");
  EXPECT_EQ(ReadFile(log_), "earlier\nto stdout\nto stderr\n");
}

TEST_F(RedirectStdioTest, MissingLogIsCreatedWithModeSixFourFour) {
  EXPECT_EXIT(
      {
        umask(0);
        RedirectStdio(log_.c_str());
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "");
  struct stat status {};
  ASSERT_EQ(stat(log_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644u);
}

TEST_F(RedirectStdioTest, LogThatCannotBeOpenedIsWarnedAboutAndStdoutStaysAsItWas) {
  const std::string unopenable = (directory_ / "no-such-directory" / "child.log").string();
  // The warning goes to standard error, which is still the original one.
  EXPECT_EXIT(
      {
        RedirectStdio(unopenable.c_str());
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), HasSubstr("Failed opening log file " + unopenable));
  EXPECT_FALSE(std::filesystem::exists(unopenable));
}

}  // namespace
}  // namespace orvane
