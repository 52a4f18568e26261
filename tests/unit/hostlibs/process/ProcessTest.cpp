// The process library on real processes: exit codes and signals decoded,
// waits that survive interruptions, the streams a program gets, the
// descriptors it does not, the shell runs, and the replaceable spawner.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "FakeSpawner.h"
#include "TemporaryDirectory.h"
#include "process/ExitStatus.h"
#include "process/SharedObject.h"
#include "process/Spawner.h"
#include "process/Wait.h"

namespace process {
namespace {

using ::testing::HasSubstr;

/// A child of this process that runs @p script through /bin/sh.
pid_t StartShell(const std::string& script) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::execl("/bin/sh", "sh", "-c", script.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  return child;
}

/// An argument vector of "/bin/sh -c <script>", alive as long as the object.
class ShellArguments {
 public:
  explicit ShellArguments(std::string script) : script_(std::move(script)) {}
  char* const* Get() { return pointers_; }

 private:
  std::string shell_ = "/bin/sh";
  std::string option_ = "-c";
  std::string script_;
  char* pointers_[4] = {shell_.data(), option_.data(), script_.data(), nullptr};
};

RunResult RunScript(const std::string& script, StandardStreams streams = {}) {
  ShellArguments arguments(script);
  Program program;
  program.arguments = arguments.Get();
  program.streams = streams;
  return Spawner::Instance().Run(program);
}

// ---- the decoded status

TEST(ExitStatusTest, ExitCodesAreDecodedAndOnlyZeroSucceeds) {
  for (int code : {0, 1, 3, 255}) {
    const ExitStatus status = WaitForExit(StartShell("exit " + std::to_string(code)));
    EXPECT_TRUE(status.Collected());
    EXPECT_TRUE(status.Exited());
    EXPECT_FALSE(status.Killed());
    EXPECT_EQ(status.Code(), code);
    EXPECT_EQ(status.Succeeded(), code == 0);
    EXPECT_EQ(status.WaitStatus(), code << 8);
    EXPECT_EQ(status.Text(), "exited with status " + std::to_string(code));
  }
}

TEST(ExitStatusTest, SignalThatKillsTheChildIsDecoded) {
  const ExitStatus status = WaitForExit(StartShell("kill -TERM $$"));
  EXPECT_TRUE(status.Killed());
  EXPECT_FALSE(status.Exited());
  EXPECT_FALSE(status.Succeeded());
  EXPECT_EQ(status.Signal(), SIGTERM);
  EXPECT_EQ(status.WaitStatus(), SIGTERM);
  EXPECT_EQ(status.Text(), "killed by signal 15");
}

TEST(ExitStatusTest, MadeStatusesEqualDecodedOnes) {
  EXPECT_EQ(ExitStatus::ExitedWith(7), ExitStatus::FromWaitStatus(7 << 8));
  EXPECT_EQ(ExitStatus::KilledBy(SIGKILL), ExitStatus::FromWaitStatus(SIGKILL));
  EXPECT_NE(ExitStatus::ExitedWith(0), ExitStatus::KilledBy(SIGKILL));
}

TEST(ExitStatusTest, StatusNotCollectedKeepsTheErrorAndReadsAsMinusOne) {
  const ExitStatus status = WaitForExit(::getpid());  // not a child of ours
  EXPECT_FALSE(status.Collected());
  EXPECT_FALSE(status.Succeeded());
  EXPECT_EQ(status.How(), ExitStatus::Kind::NotCollected);
  EXPECT_EQ(status.WaitError(), ECHILD);
  EXPECT_EQ(status.WaitStatus(), -1);
  EXPECT_EQ(status.Text(), "status not collected: No child processes");
}

TEST(ExitStatusTest, StoppedStatusIsNeitherExitNorSignal) {
  const ExitStatus status = ExitStatus::FromWaitStatus(0x137f);
  EXPECT_EQ(status.How(), ExitStatus::Kind::Other);
  EXPECT_TRUE(status.Collected());
  EXPECT_FALSE(status.Succeeded());
  EXPECT_EQ(status.Text(), "ended with wait status 0x137f");
}

// ---- waiting

void CountAlarm(int) {}

TEST(WaitTest, WaitThatASignalInterruptsIsRetried) {
  // A handler without SA_RESTART makes waitpid fail with EINTR at every
  // alarm; the wait must still end with the child's own status.
  struct sigaction alarm {};
  alarm.sa_handler = &CountAlarm;
  struct sigaction previous {};
  ASSERT_EQ(::sigaction(SIGALRM, &alarm, &previous), 0);
  const itimerval every10ms{{0, 10000}, {0, 10000}};
  const itimerval off{};
  const pid_t child = StartShell("sleep 0.3; exit 4");
  ASSERT_EQ(::setitimer(ITIMER_REAL, &every10ms, nullptr), 0);
  const ExitStatus status = WaitForExit(child);
  ::setitimer(ITIMER_REAL, &off, nullptr);
  ::sigaction(SIGALRM, &previous, nullptr);
  EXPECT_TRUE(status.Exited());
  EXPECT_EQ(status.Code(), 4);
}

TEST(WaitTest, PollIsEmptyWhileTheChildRunsAndReapsItAfterwards) {
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    char go = 0;
    ::close(ready[1]);
    ::_exit(::read(ready[0], &go, 1) == 1 ? 9 : 8);
  }
  ::close(ready[0]);
  EXPECT_EQ(PollExit(child), std::nullopt);
  ASSERT_EQ(::write(ready[1], "g", 1), 1);
  ::close(ready[1]);
  std::optional<ExitStatus> status;
  for (int attempt = 0; attempt < 500 && !status; ++attempt) {
    status = PollExit(child);
    if (!status) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(status->Code(), 9);
  EXPECT_FALSE(PollExit(child)->Collected()) << "reaped once only";
}

// ---- running a program

TEST(SpawnerRunTest, ProgramIsRunToItsEndWithItsStatus) {
  const RunResult result = RunScript("exit 6");
  ASSERT_TRUE(result.Started());
  EXPECT_EQ(result.status.Code(), 6);
}

TEST(SpawnerRunTest, ProgramThatCannotBeExecutedDoesNotStart) {
  char program[] = "/nonexistent/program";
  char* const arguments[] = {program, nullptr};
  Program missing;
  missing.arguments = arguments;
  const RunResult result = Spawner::Instance().Run(missing);
  EXPECT_FALSE(result.Started());
  EXPECT_EQ(result.startError, ENOENT);
}

TEST(SpawnerRunTest, PathIsSearchedOnlyWhenAsked) {
  char program[] = "true";
  char* const arguments[] = {program, nullptr};
  Program bare;
  bare.arguments = arguments;
  EXPECT_EQ(Spawner::Instance().Run(bare).startError, ENOENT);
  bare.searchPath = true;
  const RunResult found = Spawner::Instance().Run(bare);
  ASSERT_TRUE(found.Started());
  EXPECT_TRUE(found.status.Succeeded());
}

TEST(SpawnerRunTest, EnvironmentIsExactlyTheOneGiven) {
  unit_testing::TemporaryDirectory directory;
  ShellArguments arguments("env > " + (directory / "env"));
  char variable[] = "ONLY=this";
  char* const environment[] = {variable, nullptr};
  Program program;
  program.arguments = arguments.Get();
  program.environment = environment;
  ASSERT_TRUE(Spawner::Instance().Run(program).status.Succeeded());
  EXPECT_THAT(directory.Read("env"), HasSubstr("ONLY=this\n"));
  EXPECT_THAT(directory.Read("env"), ::testing::Not(HasSubstr("HOME=")));
}

TEST(SpawnerRunTest, NullStreamsAreTheNullDevice) {
  unit_testing::TemporaryDirectory directory;
  const RunResult result =
      // Read before any redirection: the shell applies those to itself.
      RunScript(
          "streams=\"$(readlink /proc/$$/fd/0 /proc/$$/fd/1 /proc/$$/fd/2)\"; "
          "read line; echo \"$streams\" $? > " +
              (directory / "streams"),
          StandardStreams::AllNull());
  ASSERT_TRUE(result.status.Succeeded());
  EXPECT_EQ(directory.Read("streams"), "/dev/null\n/dev/null\n/dev/null 1\n");
}

TEST(SpawnerRunTest, DescriptorStreamsReceiveTheProgramsOutputAndErrors) {
  int output[2];
  int errors[2];
  ASSERT_EQ(::pipe2(output, O_CLOEXEC), 0);
  ASSERT_EQ(::pipe2(errors, O_CLOEXEC), 0);
  StandardStreams streams{Stream::Null(), Stream::Descriptor(output[1]),
                          Stream::Descriptor(errors[1])};
  ASSERT_TRUE(RunScript("echo out; echo err >&2", streams).status.Succeeded());
  ::close(output[1]);
  ::close(errors[1]);
  char buffer[16] = {};
  EXPECT_EQ(::read(output[0], buffer, sizeof buffer - 1), 4);
  EXPECT_STREQ(buffer, "out\n");
  char errorBuffer[16] = {};
  EXPECT_EQ(::read(errors[0], errorBuffer, sizeof errorBuffer - 1), 4);
  EXPECT_STREQ(errorBuffer, "err\n");
  ::close(output[0]);
  ::close(errors[0]);
}

TEST(SpawnerRunTest, DescriptorsBeyondTheStandardStreamsAreNotInherited) {
  unit_testing::TemporaryDirectory directory;
  const int inheritable = ::open("/dev/null", O_RDONLY);  // no close-on-exec
  ASSERT_GE(inheritable, 3);
  const std::string probe = "/proc/self/fd/" + std::to_string(inheritable);
  ASSERT_TRUE(RunScript("if [ -e " + probe + " ]; then echo open; else echo closed; fi > " +
                        (directory / "seen"))
                  .status.Succeeded());
  ::close(inheritable);
  EXPECT_EQ(directory.Read("seen"), "closed\n");
}

TEST(SpawnerRunTest, DefaultSignalsUndoWhatTheCallerIgnores) {
  unit_testing::TemporaryDirectory directory;
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  struct sigaction previous {};
  ASSERT_EQ(::sigaction(SIGPIPE, &ignore, &previous), 0);
  ShellArguments arguments("grep SigIgn /proc/self/status > " + (directory / "ignored"));
  Program program;
  program.arguments = arguments.Get();
  ASSERT_TRUE(Spawner::Instance().Run(program).status.Succeeded());
  const std::string inherited = directory.Read("ignored");
  program.defaultSignals = true;
  ASSERT_TRUE(Spawner::Instance().Run(program).status.Succeeded());
  const std::string defaulted = directory.Read("ignored");
  ::sigaction(SIGPIPE, &previous, nullptr);
  // SIGPIPE is signal 13: bit 12 of the mask, in the fourth hex digit from the right.
  const auto pipeIgnored = [](const std::string& line) {
    const std::string mask = line.substr(line.find_first_of("0123456789abcdef"), 16);
    return (std::stoull(mask, nullptr, 16) >> (SIGPIPE - 1)) & 1u;
  };
  EXPECT_EQ(pipeIgnored(inherited), 1u);
  EXPECT_EQ(pipeIgnored(defaulted), 0u);
}

TEST(SpawnerRunTest, WithoutDefaultSignalsTheProgramKeepsTheCallersMaskAndIgnoredSignals) {
  unit_testing::TemporaryDirectory directory;
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  struct sigaction previous {};
  ASSERT_EQ(::sigaction(SIGPIPE, &ignore, &previous), 0);
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR2);
  sigset_t previousMask;
  ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &blocked, &previousMask), 0);
  // grep reports its own status (a shell would unblock signals first).
  std::string grep = "/bin/grep";
  std::string option = "-E";
  std::string pattern = "^Sig(Ign|Blk)";
  std::string status = "/proc/self/status";
  char* const arguments[] = {grep.data(), option.data(), pattern.data(), status.data(), nullptr};
  const int output = ::open((directory / "signals").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  Program program;
  program.arguments = arguments;
  program.streams.output = Stream::Descriptor(output);
  const RunResult result = Spawner::Instance().Run(program);
  ::close(output);
  ASSERT_TRUE(result.status.Succeeded());
  const std::string signals = directory.Read("signals");
  const auto bit = [&signals](const std::string& field, int signal) {
    const std::size_t start = signals.find(field + ":\t");
    return (std::stoull(signals.substr(start + field.size() + 2, 16), nullptr, 16) >>
            (signal - 1)) &
           1u;
  };
  EXPECT_EQ(bit("SigIgn", SIGPIPE), 1u) << signals;
  EXPECT_EQ(bit("SigBlk", SIGUSR2), 1u) << signals;
}

volatile sig_atomic_t user1Count = 0;
void CountUser1(int) { user1Count = user1Count + 1; }

TEST(SpawnerRunTest, SignalsSentDuringRunsReachTheCallerWhoseHandlerAndMaskStay) {
  // Every signal is blocked while the child shares this process's memory;
  // the caller's own mask must be back when each run returns, so that the
  // signal a program sends to it is delivered to its handler, not lost.
  struct sigaction handler {};
  handler.sa_handler = &CountUser1;
  struct sigaction previous {};
  ASSERT_EQ(::sigaction(SIGUSR1, &handler, &previous), 0);
  sigset_t before;
  ASSERT_EQ(::pthread_sigmask(SIG_SETMASK, nullptr, &before), 0);
  user1Count = 0;
  for (int run = 0; run < 20; ++run) {
    ASSERT_TRUE(RunScript("kill -USR1 $PPID; exit 0").status.Succeeded());
  }
  const int delivered = user1Count;
  struct sigaction after {};
  ::sigaction(SIGUSR1, &previous, &after);
  EXPECT_EQ(delivered, 20);
  EXPECT_EQ(after.sa_handler, &CountUser1);
  sigset_t now;
  ASSERT_EQ(::pthread_sigmask(SIG_SETMASK, nullptr, &now), 0);
  for (int signal = 1; signal < SIGRTMIN; ++signal) {
    EXPECT_EQ(sigismember(&now, signal), sigismember(&before, signal)) << "signal " << signal;
  }
}

/// The bits of the SigIgn line that grep wrote to @p path; all set when
/// there is no such line.
unsigned long long IgnoredBits(const std::string& path) {
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("SigIgn:\t", 0) == 0) return std::stoull(line.substr(8), nullptr, 16);
  }
  return ~0ULL;
}

TEST(SpawnerRunTest, AfterThePromiseOfFixedActionsIgnoredAndHandledSignalsAreStillReset) {
  // The promise lasts for the life of a process, so it is made in a child
  // of the test, which reports through its exit code.
  unit_testing::TemporaryDirectory directory;
  const std::string defaulted = directory / "defaulted";
  const std::string kept = directory / "kept";
  const pid_t child = ::fork();
  if (child == 0) {
    ::signal(SIGPIPE, SIG_IGN);
    ::signal(SIGHUP, SIG_IGN);
    ::signal(SIGUSR1, &CountUser1);
    PromiseFixedSignalActions();
    std::string grep = "/bin/grep";
    std::string pattern = "^SigIgn";
    std::string status = "/proc/self/status";
    char* const arguments[] = {grep.data(), pattern.data(), status.data(), nullptr};
    for (const bool defaultSignals : {true, false}) {
      const int output =
          ::open((defaultSignals ? defaulted : kept).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
      Program program;
      program.arguments = arguments;
      program.streams.output = Stream::Descriptor(output);
      program.defaultSignals = defaultSignals;
      if (!Spawner::Instance().Run(program).status.Succeeded()) ::_exit(2);
      ::close(output);
    }
    ::_exit(0);
  }
  ASSERT_EQ(WaitForExit(child).Code(), 0);
  const unsigned long long pipeAndHangUp = (1ULL << (SIGPIPE - 1)) | (1ULL << (SIGHUP - 1));
  EXPECT_EQ(IgnoredBits(defaulted) & 0x7fffffffULL, 0u);
  EXPECT_EQ(IgnoredBits(kept) & pipeAndHangUp, pipeAndHangUp);
}

TEST(SpawnerRunTest, StreamThatCannotBePlacedIsAStartError) {
  const int closed = ::open("/dev/null", O_RDONLY);
  ASSERT_GE(closed, 3);
  ::close(closed);
  const RunResult result =
      RunScript("exit 0", {Stream::Inherited(), Stream::Descriptor(closed), Stream::Inherited()});
  EXPECT_FALSE(result.Started());
  EXPECT_EQ(result.startError, EBADF);
}

TEST(SpawnerRunTest, FileThatIsNotAProgramIsAStartError) {
  unit_testing::TemporaryDirectory directory;
  directory.Write("data", "not a program\n");
  const std::string path = directory / "data";
  std::string program = path;
  char* const arguments[] = {program.data(), nullptr};
  Program notExecutable;
  notExecutable.arguments = arguments;
  EXPECT_EQ(Spawner::Instance().Run(notExecutable).startError, EACCES);
}

TEST(SpawnerRunTest, ThreadsRunProgramsAtTheSameTime) {
  std::vector<std::thread> threads;
  std::vector<int> codes(4, -1);
  for (std::size_t thread = 0; thread < codes.size(); ++thread) {
    threads.emplace_back([thread, &codes] {
      for (int run = 0; run < 10; ++run) {
        const RunResult result = RunScript("exit " + std::to_string(thread + 1));
        if (!result.Started() || result.status.Code() != static_cast<int>(thread + 1)) return;
      }
      codes[thread] = static_cast<int>(thread + 1);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_THAT(codes, ::testing::ElementsAre(1, 2, 3, 4));
}

// ---- starting without waiting

TEST(SpawnerStartTest, ProgramSharingTheStandardStreamsIsStartedAndWaitedFor) {
  ShellArguments arguments("exit 3");
  const Started started =
      Spawner::Instance().StartSharingStandardStreams("/bin/sh", arguments.Get(), nullptr);
  ASSERT_TRUE(started.Ok());
  EXPECT_EQ(Spawner::Instance().Wait(started.pid).Code(), 3);
}

TEST(SpawnerStartTest, MissingProgramFailsAtTheSpawnStep) {
  char program[] = "/nonexistent/helper";
  char* const arguments[] = {program, nullptr};
  const Started started =
      Spawner::Instance().StartSharingStandardStreams(program, arguments, nullptr);
  EXPECT_FALSE(started.Ok());
  EXPECT_EQ(started.failedStep, StartStep::Spawn);
  EXPECT_EQ(started.error, ENOENT);
}

TEST(SpawnerStartTest, ProgramInADirectoryGetsItAndItsDescriptors) {
  unit_testing::TemporaryDirectory directory;
  const int root = ::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const int output = ::open((directory / "out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  ShellArguments arguments("pwd; exit 2");
  DirectoryStart start;
  start.program = "/bin/sh";
  start.arguments = arguments.Get();
  char* const environment[] = {nullptr};
  start.environment = environment;
  start.workingDirectory = root;
  start.standard[0] = null;
  start.standard[1] = output;
  start.standard[2] = null;
  const Started started = Spawner::Instance().StartInDirectory(start);
  ::close(root);
  ::close(output);
  ::close(null);
  ASSERT_TRUE(started.Ok()) << started.error;
  std::optional<ExitStatus> status;
  for (int attempt = 0; attempt < 500 && !status; ++attempt) {
    status = Spawner::Instance().Poll(started.pid);
    if (!status) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(status->Code(), 2);
  EXPECT_EQ(directory.Read("out"), "/\n");
}

// ---- the shell

TEST(SpawnerShellTest, ShellCommandReturnsItsStatus) {
  EXPECT_TRUE(Spawner::Instance().RunShellCommand("true").Succeeded());
  EXPECT_EQ(Spawner::Instance().RunShellCommand("exit 5").Code(), 5);
  EXPECT_EQ(Spawner::Instance().RunShellCommand("kill -KILL $$").Signal(), SIGKILL);
}

TEST(SpawnerShellTest, ShellOutputIsReadToItsEndWithinTheBound) {
  const ShellOutput listing = Spawner::Instance().ReadShellOutput("printf 'a 1\\nb 2\\n'", 64);
  EXPECT_TRUE(listing.started);
  ASSERT_TRUE(listing.output.Ok());
  EXPECT_EQ(listing.output.text, "a 1\nb 2\n");
  const ShellOutput tooLong = Spawner::Instance().ReadShellOutput("yes", 4096);
  EXPECT_TRUE(tooLong.started);
  EXPECT_EQ(tooLong.output.status, hostfile::ReadStatus::TooLarge);
}

TEST(SpawnerShellTest, ChildRunsTheBodyAndItsExitIsCollected) {
  unit_testing::TemporaryDirectory directory;
  const std::string mark = directory / "mark";
  const RunResult child = Spawner::Instance().RunInChild([&mark] {
    const int file = ::open(mark.c_str(), O_WRONLY | O_CREAT, 0600);
    ::_exit(file >= 0 ? 12 : 13);
  });
  ASSERT_TRUE(child.Started());
  EXPECT_EQ(child.status.Code(), 12);
  EXPECT_TRUE(directory.Exists("mark"));
  EXPECT_TRUE(Spawner::Instance().RunInChild([] {}).status.Succeeded());
}

TEST(SpawnerShellTest, ChildWhoseBodyThrowsExitsOneAndTheCallerGoesOn) {
  const RunResult child =
      Spawner::Instance().RunInChild([] { throw std::runtime_error("in the child"); });
  ASSERT_TRUE(child.Started());
  EXPECT_TRUE(child.status.Exited());
  EXPECT_EQ(child.status.Code(), 1);
}

// The child's report of a failed step: its own exit code tells the parent.
void ExitWithTheStep(SessionStep step, int error) {
  ::_exit(step == SessionStep::ExecShell && error == ENOENT ? 42 : 43);
}

TEST(SpawnerShellTest, SessionShellThatCannotBeExecutedIsReportedFromTheChild) {
  ShellSession session;
  session.shell = "/nonexistent/shell";
  session.childFailure = &ExitWithTheStep;
  const RunResult result = Spawner::Instance().RunShellSession(session);
  ASSERT_TRUE(result.Started());
  EXPECT_EQ(result.status.Code(), 42);
}

TEST(SpawnerShellTest, SessionShellLeadsASessionOfItsOwnAndInheritsNothingElse) {
  unit_testing::TemporaryDirectory directory;
  const int inheritable = ::open("/dev/null", O_RDONLY);
  ASSERT_GE(inheritable, 3);
  const std::string script = directory / "shell";
  directory.Write("shell",
                  "#!/bin/sh\n[ \"$(ps -o sid= -p $$ | tr -d ' ')\" = \"$$\" ] && echo leader > " +
                      (directory / "seen") + "\n[ -e /proc/self/fd/" + std::to_string(inheritable) +
                      " ] || echo closed >> " + (directory / "seen") + "\n");
  ::chmod(script.c_str(), 0755);
  ShellSession session;
  session.shell = script.c_str();
  session.input = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  const RunResult result = Spawner::Instance().RunShellSession(session);
  ::close(session.input);
  ::close(inheritable);
  ASSERT_TRUE(result.Started());
  EXPECT_TRUE(result.status.Exited());
  EXPECT_EQ(directory.Read("seen"), "leader\nclosed\n");
}

// ---- shared objects

TEST(SharedObjectTest, MissingObjectGivesTheLoadersReason) {
  std::string error;
  EXPECT_EQ(OpenSharedObject("/nonexistent/lib.so", error), nullptr);
  EXPECT_THAT(error, HasSubstr("/nonexistent/lib.so"));
}

TEST(SharedObjectTest, SymbolsAreFoundAndMissingOnesReported) {
  std::string error;
  void* library = OpenSharedObject("libc.so.6", error);
  ASSERT_NE(library, nullptr) << error;
  EXPECT_NE(FindSymbol(library, "getpid", error), nullptr);
  EXPECT_EQ(error, "");
  EXPECT_EQ(FindSymbol(library, "no_such_symbol_here", error), nullptr);
  EXPECT_THAT(error, HasSubstr("no_such_symbol_here"));
  CloseSharedObject(library);
}

// ---- the replaceable spawner

TEST(ScopedSpawnerTest, FakeTakesThePlaceOfTheSystemsSpawnerForItsScope) {
  Spawner& system = Spawner::Instance();
  {
    unit_testing::FakeSpawner fake;
    EXPECT_EQ(&Spawner::Instance(), &fake);
    {
      unit_testing::FakeSpawner inner;
      EXPECT_EQ(&Spawner::Instance(), &inner);
    }
    EXPECT_EQ(&Spawner::Instance(), &fake);
    fake.shellStatus = ExitStatus::KilledBy(SIGSEGV);
    EXPECT_EQ(Spawner::Instance().RunShellCommand("reboot"), ExitStatus::KilledBy(SIGSEGV));
    EXPECT_EQ(fake.Calls(), std::vector<std::string>{"shell reboot"});
  }
  EXPECT_EQ(&Spawner::Instance(), &system);
}

}  // namespace
}  // namespace process
