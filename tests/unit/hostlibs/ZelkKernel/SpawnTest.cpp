// The kernel spawn call on Linux: the request's checks, the new process id,
// the descriptors the new process gets, and the wait for a process to end.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <string>

#include "TemporaryDirectory.h"
#include "ZelkKernel/ProcessExitWatch.h"
#include "ZelkKernel/Spawn.h"

namespace {

using Clock = std::chrono::steady_clock;
using ZelkKernel::ProcessExitWatch;
using ZelkKernel::SpawnRequest;
using ZelkKernel::ZelkKernel_Spawn;

class SpawnTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root = ::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GT(root, 0);
  }
  void TearDown() override { ::close(root); }

  /// Spawns /bin/sh -c @p script with @p descriptors; returns the call's
  /// result and stores the process id in @p child.
  int Shell(const std::string& script, const int (&descriptors)[3], std::int32_t& child,
            std::uint32_t userId = getuid(), std::uint8_t flags = 0) {
    std::string program = "/bin/sh";
    std::string option = "-c";
    std::string body = script;
    char* argv[] = {program.data(), option.data(), body.data(), nullptr};
    char* envp[] = {nullptr};
    SpawnRequest request{3, userId, static_cast<std::uint32_t>(getgid()), flags, &child};
    return ZelkKernel_Spawn(program.c_str(), argv, envp, root, descriptors, &request);
  }

  static int ExitCode(pid_t child) {
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  int root = -1;
  unit_testing::TemporaryDirectory directory;
};

TEST_F(SpawnTest, RequestIsPackedToTwentyOneBytes) {
  EXPECT_EQ(sizeof(SpawnRequest), 21u);
  EXPECT_EQ(offsetof(SpawnRequest, flags), 12u);
  EXPECT_EQ(offsetof(SpawnRequest, processId), 13u);
}

TEST_F(SpawnTest, NewProcessIsAChildWhoseIdIsStored) {
  const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  std::int32_t child = 0;
  ASSERT_EQ(Shell("exit 7", {null, null, null}, child), 0);
  EXPECT_GT(child, 0);
  EXPECT_EQ(ExitCode(child), 7);
  ::close(null);
}

TEST_F(SpawnTest, DescriptorArrayBecomesTheStandardStreamsEvenWhenSourcesOverlapTargets) {
  // The new process's standard output comes from the caller's descriptor 0
  // position in the array and vice versa: placing one must not clobber the
  // other.
  const std::string output = directory / "output";
  const int file = ::open(output.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  const int savedInput = ::dup(0);
  ASSERT_EQ(::dup2(file, 0), 0);  // the caller's 0 is now the file
  std::int32_t child = 0;
  ASSERT_EQ(Shell("echo out; echo err >&2", {null, 0, 0}, child), 0);
  ::dup2(savedInput, 0);
  ::close(savedInput);
  EXPECT_EQ(ExitCode(child), 0);
  EXPECT_EQ(directory.Read("output"), "out\nerr\n");
  ::close(file);
  ::close(null);
}

TEST_F(SpawnTest, WorkingDirectoryIsTheOneGiven) {
  const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  std::int32_t child = 0;
  ASSERT_EQ(Shell("[ \"$(pwd)\" = / ]", {null, null, null}, child), 0);
  EXPECT_EQ(ExitCode(child), 0);
  ::close(null);
}

TEST_F(SpawnTest, ProgramThatDoesNotExistIsANegatedErrorNumber) {
  const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  std::string program = directory / "missing";
  char* argv[] = {program.data(), nullptr};
  char* envp[] = {nullptr};
  const int descriptors[] = {null, null, null};
  std::int32_t child = 0;
  SpawnRequest request{3, static_cast<std::uint32_t>(getuid()),
                       static_cast<std::uint32_t>(getgid()), 0, &child};
  EXPECT_EQ(ZelkKernel_Spawn(program.c_str(), argv, envp, root, descriptors, &request), -ENOENT);
  EXPECT_EQ(child, 0);
  ::close(null);
}

TEST_F(SpawnTest, AnotherUserOrAFlagIsRefused) {
  const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  std::int32_t child = 0;
  EXPECT_EQ(Shell("exit 0", {null, null, null}, child, getuid() + 1), -EPERM);
  EXPECT_EQ(Shell("exit 0", {null, null, null}, child, getuid(), 1), -EINVAL);
  EXPECT_EQ(child, 0);
  ::close(null);
}

TEST_F(SpawnTest, ExitWatchReturnsEarlyWhenTheChildEnds) {
  // A period of a minute, which nothing but the child's end cuts short.
  constexpr std::chrono::minutes kLongPeriod{1};
  const pid_t child = fork();
  if (child == 0) _exit(0);
  const ProcessExitWatch watch(child);
  const Clock::time_point begin = Clock::now();
  watch.WaitAtMost(kLongPeriod);
  EXPECT_LT(Clock::now() - begin, kLongPeriod);
  EXPECT_EQ(ExitCode(child), 0);  // the watch did not reap it
}

TEST_F(SpawnTest, ExitWatchWaitsTheWholePeriodWhileTheChildRuns) {
  const pid_t child = fork();
  if (child == 0) {
    pause();
    _exit(0);
  }
  const ProcessExitWatch watch(child);
  const Clock::time_point begin = Clock::now();
  watch.WaitAtMost(std::chrono::milliseconds(50));
  EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(50));
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
}

}  // namespace
