#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "TemporaryDirectory.h"
#include "orvaner/run/RunProgram.h"

namespace orvane {
namespace {

/// Scripts in a scratch directory, run through RunProgram.
class RunProgramTest : public ::testing::Test {
 protected:
  std::string Script(const std::string& name, const std::string& body) {
    directory_.Write(name, "#!/bin/sh\n" + body + "\n");
    const std::string path = directory_ / name;
    ::chmod(path.c_str(), 0755);
    return path;
  }

  /// RunProgram with @p words as the argument vector and @p environment.
  static bool Run(std::vector<std::string> words, std::vector<std::string> environment = {}) {
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (std::string& entry : environment) envp.push_back(entry.data());
    envp.push_back(nullptr);
    return RunProgram(argv.data(), envp.data());
  }

  unit_testing::TemporaryDirectory directory_;
};

TEST_F(RunProgramTest, ExitStatusZeroIsSuccess) { EXPECT_TRUE(Run({Script("ok", "exit 0")})); }

TEST_F(RunProgramTest, NonZeroExitStatusIsFailure) {
  EXPECT_FALSE(Run({Script("fails", "exit 3")}));
}

TEST_F(RunProgramTest, ChildEndedBySignalIsFailure) {
  EXPECT_FALSE(Run({Script("killed", "kill -TERM $$; sleep 5")}));
}

TEST_F(RunProgramTest, ProgramThatCannotBeExecutedIsFailure) {
  EXPECT_FALSE(Run({directory_ / "missing"}));
  directory_.Write("not-executable", "#!/bin/sh\nexit 0\n");
  EXPECT_FALSE(Run({directory_ / "not-executable"}));
}

TEST_F(RunProgramTest, WaitsForTheChildToEnd) {
  const std::string done = directory_ / "done";
  EXPECT_TRUE(Run({Script("slow", "sleep 0.3; touch " + done)}));
  EXPECT_TRUE(directory_.Exists("done"));
}

TEST_F(RunProgramTest, ArgumentsAndEnvironmentAreExactlyThoseGiven) {
  const std::string seen = directory_ / "seen";
  const std::string script =
      Script("record", "printf '%s|' \"$@\" > " + seen +
                           "; echo \"$GIVEN_VALUE ${HOME:-nohome}\" >> " + seen);
  EXPECT_TRUE(Run({script, "-i", "two words"}, {"GIVEN_VALUE=given"}));
  EXPECT_EQ(directory_.Read("seen"), "-i|two words|given nohome\n");
}

TEST_F(RunProgramTest, StandardStreamsAreTheNullDevice) {
  const std::string seen = directory_ / "seen";
  const std::string script =
      Script("streams",
             "in=$(readlink /proc/$$/fd/0); out=$(readlink /proc/$$/fd/1); "
             "errors=$(readlink /proc/$$/fd/2); printf '%s\\n' \"$in\" \"$out\" \"$errors\" > " +
                 seen);
  EXPECT_TRUE(Run({script}));
  EXPECT_EQ(directory_.Read("seen"), "/dev/null\n/dev/null\n/dev/null\n");
}

TEST_F(RunProgramTest, DescriptorsBeyondTheStandardStreamsAreClosed) {
  directory_.Write("inherited", "");
  const std::string inherited = directory_ / "inherited";
  const int descriptor = ::open(inherited.c_str(), O_RDONLY);  // deliberately without O_CLOEXEC
  ASSERT_GT(descriptor, STDERR_FILENO);
  ASSERT_LT(descriptor, 10);  // the shell keeps its own descriptors at 10 and above
  const std::string seen = directory_ / "seen";
  const std::string script =
      Script("descriptors", "if [ -e /proc/$$/fd/" + std::to_string(descriptor) +
                                " ]; then echo open; else echo closed; fi > " + seen);
  EXPECT_TRUE(Run({script}));
  ::close(descriptor);
  EXPECT_EQ(directory_.Read("seen"), "closed\n");
}

}  // namespace
}  // namespace orvane
