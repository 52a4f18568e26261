// The operator's console on pipes and on a pseudo-terminal of this test:
// exact prompt bytes, single-key reading, the redrawn choice, the console
// switch on something that is no console, and the troubleshooting shell.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <sstream>
#include <thread>

#include "FakeSpawner.h"
#include "log/Log.h"
#include "orvaner/plugins/InteractiveConsole.h"

namespace orvane::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

const std::string kPromptStart =
    "current plugin: \x1b[36mnet\n"
    "\x1b[35m(c)ontinue\x1b[0m\t\x1b[32m(e)xecute\x1b[0m\t\x1b[33m(t)roubleshoot\x1b[0m\t"
    "\x1b[31m(s)kip\x1b[0m\x1b[?25l";
const std::string kShowCursor = "\x1b[?25h";

/// Output written through a FILE that the test can read back exactly.
class CapturedOutput {
 public:
  CapturedOutput() : stream_(open_memstream(&buffer_, &size_)) {}
  ~CapturedOutput() {
    std::fclose(stream_);
    std::free(buffer_);
  }
  std::FILE* Stream() { return stream_; }
  std::string Text() {
    std::fflush(stream_);
    return std::string(buffer_, size_);
  }

 private:
  char* buffer_ = nullptr;
  std::size_t size_ = 0;
  std::FILE* stream_;
};

/// A pipe whose read end is the console's input, filled with @p keys.
class KeyPipe {
 public:
  explicit KeyPipe(const std::string& keys) {
    EXPECT_EQ(::pipe(fds_), 0);
    EXPECT_EQ(::write(fds_[1], keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
    ::close(fds_[1]);
  }
  ~KeyPipe() { ::close(fds_[0]); }
  int ReadEnd() const { return fds_[0]; }
  /// What is still unread.
  std::string Rest() {
    std::string rest;
    char buffer[64];
    ssize_t count;
    while ((count = ::read(fds_[0], buffer, sizeof buffer)) > 0) rest.append(buffer, count);
    return rest;
  }

 private:
  int fds_[2] = {-1, -1};
};

/// A pseudo-terminal pair of this test; neither end is anyone's controlling terminal.
class PseudoTerminal {
 public:
  PseudoTerminal() {
    master_ = ::posix_openpt(O_RDWR | O_NOCTTY);
    EXPECT_GE(master_, 0);
    EXPECT_EQ(::grantpt(master_), 0);
    EXPECT_EQ(::unlockpt(master_), 0);
    slave_ = ::open(::ptsname(master_), O_RDWR | O_NOCTTY);
    EXPECT_GE(slave_, 0);
  }
  ~PseudoTerminal() {
    ::close(slave_);
    ::close(master_);
  }
  int Master() const { return master_; }
  int Slave() const { return slave_; }
  termios Attributes() const {
    termios attributes{};
    EXPECT_EQ(::tcgetattr(slave_, &attributes), 0);
    return attributes;
  }
  /// Whatever the terminal has for its master side now (echoes included).
  std::string Drain() {
    std::string text;
    const int flags = ::fcntl(master_, F_GETFL);
    ::fcntl(master_, F_SETFL, flags | O_NONBLOCK);
    char buffer[256];
    ssize_t count;
    while ((count = ::read(master_, buffer, sizeof buffer)) > 0) text.append(buffer, count);
    ::fcntl(master_, F_SETFL, flags);
    return text;
  }

 private:
  int master_ = -1;
  int slave_ = -1;
};

class InteractiveConsoleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Log_Exit();  // log lines to standard error, where the tests capture them
    char pattern[] = "/tmp/orvane-console-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    directory = pattern;
    // Never the machine's console: a plain file stands in for it.
    fakeConsole = directory / "console";
    std::ofstream(fakeConsole).close();
  }
  void TearDown() override { fs::remove_all(directory); }

  InteractiveConsole::Devices Devices(int input, std::FILE* output, const char* shell = "/bin/sh") {
    InteractiveConsole::Devices devices;
    devices.input = input;
    devices.output = output;
    devices.console = fakeConsole.c_str();
    devices.shell = shell;
    return devices;
  }

  static std::string ReadFile(const fs::path& path) {
    std::ifstream file(path);
    std::stringstream content;
    content << file.rdbuf();
    return content.str();
  }

  fs::path directory, fakeConsole;
};

TEST_F(InteractiveConsoleTest, PromptWritesTheNameAndTheFourChoicesInTheirColours) {
  KeyPipe keys("e");
  CapturedOutput output;
  InteractiveConsole console(Devices(keys.ReadEnd(), output.Stream()));
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(console.Prompt("net"), 'e');
  ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(output.Text(), kPromptStart + kShowCursor);
}

TEST_F(InteractiveConsoleTest, PromptIgnoresOtherKeysAndFoldsUpperCase) {
  for (const auto& [typed, expected] : std::vector<std::pair<std::string, char>>{
           {"xE", 'e'}, {"S", 's'}, {"?\nT", 't'}, {"1 C", 'c'}, {"abcd", 'c'}}) {
    KeyPipe keys(typed + "e");
    CapturedOutput output;
    InteractiveConsole console(Devices(keys.ReadEnd(), output.Stream()));
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(console.Prompt("net"), expected) << typed;
    ::testing::internal::GetCapturedStderr();
  }
}

TEST_F(InteractiveConsoleTest, PromptReadsOneKeyAtATime) {
  KeyPipe keys("xsEt");
  CapturedOutput output;
  InteractiveConsole console(Devices(keys.ReadEnd(), output.Stream()));
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(console.Prompt("net"), 's');
  ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(keys.Rest(), "Et");
}

TEST_F(InteractiveConsoleTest, PromptOnSomethingThatIsNoTerminalLogsAndStillReads) {
  KeyPipe keys("t");
  CapturedOutput output;
  InteractiveConsole console(Devices(keys.ReadEnd(), output.Stream()));
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(console.Prompt("net"), 't');
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "unable to get terminal io state.\n"
            "unable to set terminal io state.\n"
            "unable to restore terminal io state.\n");
  EXPECT_EQ(output.Text(), kPromptStart + kShowCursor);
}

TEST_F(InteractiveConsoleTest, PromptOnATerminalReadsKeysWithoutEchoOrLineEditing) {
  PseudoTerminal terminal;
  termios before = terminal.Attributes();
  ASSERT_TRUE(before.c_lflag & ICANON);
  ASSERT_TRUE(before.c_lflag & ECHO);
  CapturedOutput output;
  InteractiveConsole console(Devices(terminal.Slave(), output.Stream()));

  // The operator types only once the prompt has switched the terminal to
  // single keys; in line mode "x" would wait for a line end and be echoed.
  auto typist = std::async(std::launch::async, [&] {
    for (int attempt = 0; attempt < 500; ++attempt) {
      const termios now = terminal.Attributes();
      if (!(now.c_lflag & ICANON)) {
        const bool echoOff = !(now.c_lflag & ECHO);
        EXPECT_EQ(::write(terminal.Master(), "xE", 2), 2);
        return echoOff;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ADD_FAILURE() << "the prompt never left line mode";
    EXPECT_EQ(::write(terminal.Master(), "e", 1), 1);  // let Prompt return
    return false;
  });
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(console.Prompt("net"), 'e');
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  EXPECT_TRUE(typist.get()) << "echo was still on while the prompt read";

  const termios after = terminal.Attributes();
  EXPECT_TRUE(after.c_lflag & ICANON);
  EXPECT_TRUE(after.c_lflag & ECHO);
  EXPECT_EQ(terminal.Drain(), "");  // nothing was echoed
  EXPECT_EQ(output.Text(), kPromptStart + kShowCursor);
}

TEST_F(InteractiveConsoleTest, ShowChoiceRedrawsTheLineWithOnlyTheChosenColour) {
  const std::string white = "\x1b[37m", reset = "\x1b[0m";
  const std::map<char, std::string> expected = {
      {'c', "\r\x1b[35m(c)ontinue" + reset + "\t" + white + "(e)xecute" + reset + "\t" + white +
                "(t)roubleshoot" + reset + "\t" + white + "(s)kip" + reset + "\n"},
      {'e', "\r" + white + "(c)ontinue" + reset + "\t\x1b[32m(e)xecute" + reset + "\t" + white +
                "(t)roubleshoot" + reset + "\t" + white + "(s)kip" + reset + "\n"},
      {'t', "\r" + white + "(c)ontinue" + reset + "\t" + white + "(e)xecute" + reset +
                "\t\x1b[33m(t)roubleshoot" + reset + "\t" + white + "(s)kip" + reset + "\n"},
      {'s', "\r" + white + "(c)ontinue" + reset + "\t" + white + "(e)xecute" + reset + "\t" +
                white + "(t)roubleshoot" + reset + "\t\x1b[31m(s)kip" + reset + "\n"},
  };
  for (const auto& [key, bytes] : expected) {
    CapturedOutput output;
    InteractiveConsole console(Devices(-1, output.Stream()));
    console.ShowChoice(key);
    EXPECT_EQ(output.Text(), bytes) << key;
  }
}

TEST_F(InteractiveConsoleTest, SwitchOnSomethingThatIsNoConsoleReturnsQuietly) {
  CapturedOutput output;
  InteractiveConsole console(Devices(-1, output.Stream()));
  ::testing::internal::CaptureStderr();
  console.SwitchConsole(1);
  console.SwitchConsole(11);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(ReadFile(fakeConsole), "");
  EXPECT_EQ(output.Text(), "");
}

TEST_F(InteractiveConsoleTest, SwitchWithoutAConsoleReturnsQuietly) {
  fs::remove(fakeConsole);
  CapturedOutput output;
  InteractiveConsole console(Devices(-1, output.Stream()));
  ::testing::internal::CaptureStderr();
  console.SwitchConsole(1);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  EXPECT_FALSE(fs::exists(fakeConsole));
}

TEST_F(InteractiveConsoleTest, ShellReadsTheConsoleInputAndTheLineIsErasedAfterIt) {
  const fs::path marker = directory / "marker";
  KeyPipe commands("echo $$ > " + marker.string() + "\nexit\n");
  CapturedOutput output;
  InteractiveConsole console(Devices(commands.ReadEnd(), output.Stream()));
  console.RunTroubleshootingShell();
  EXPECT_EQ(output.Text(), "\x1b[2K");
  const std::string shellPid = ReadFile(marker);
  ASSERT_FALSE(shellPid.empty());
  EXPECT_NE(std::stoi(shellPid), ::getpid());
}

TEST_F(InteractiveConsoleTest, ShellIsTheLeaderOfItsOwnSessionOnTheTerminal) {
  PseudoTerminal terminal;
  const fs::path report = directory / "report";
  // Field 6 of /proc/PID/stat is the session; /dev/tty opens only for a
  // process with a controlling terminal.
  const std::string command =
      "set -- $(cat /proc/$$/stat); [ \"$6\" = \"$$\" ] && : < /dev/tty && tty > " +
      report.string() + "\nexit\n";
  ASSERT_EQ(::write(terminal.Master(), command.data(), command.size()),
            static_cast<ssize_t>(command.size()));
  std::FILE* output = ::fdopen(::dup(terminal.Slave()), "w");
  ASSERT_NE(output, nullptr);
  InteractiveConsole console(Devices(terminal.Slave(), output));
  std::atomic<bool> consoleDone{false};
  auto drainer = std::async(std::launch::async, [&] {
    // Keeps the terminal's output from filling up while the shell echoes.
    std::string seen;
    while (!consoleDone) {
      seen += terminal.Drain();
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    // The console's last write comes through a moment after it returned;
    // ten seconds is only a guard.
    for (int round = 0; round < 1000 && seen.find("\x1b[2K") == std::string::npos; ++round) {
      seen += terminal.Drain();
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return seen;
  });
  console.RunTroubleshootingShell();
  std::fclose(output);
  consoleDone = true;
  EXPECT_THAT(drainer.get(), HasSubstr("\x1b[2K"));
  EXPECT_EQ(ReadFile(report), std::string(::ptsname(terminal.Master())) + "\n");
}

TEST_F(InteractiveConsoleTest, ShellThatCannotBeStartedIsLoggedAndTheLineStillErased) {
  KeyPipe commands("");
  CapturedOutput output;
  const std::string missing = (directory / "no-such-shell").string();
  InteractiveConsole console(Devices(commands.ReadEnd(), output.Stream(), missing.c_str()));
  ::testing::internal::CaptureStderr();
  console.RunTroubleshootingShell();
  EXPECT_THAT(::testing::internal::GetCapturedStderr(),
              HasSubstr("unable to exec shell: No such file or directory\n"));
  EXPECT_EQ(output.Text(), "\x1b[2K");
}

TEST_F(InteractiveConsoleTest, ShellThatCannotBeForkedIsLoggedAndNothingIsErased) {
  KeyPipe commands("");
  CapturedOutput output;
  InteractiveConsole console(Devices(commands.ReadEnd(), output.Stream(), "/bin/dash"));
  unit_testing::FakeSpawner spawner;
  spawner.runResult.startError = EAGAIN;
  ::testing::internal::CaptureStderr();
  console.RunTroubleshootingShell();
  EXPECT_THAT(::testing::internal::GetCapturedStderr(),
              HasSubstr("failed to fork - unable to launch troubleshooting shell: Resource "
                        "temporarily unavailable\n"));
  EXPECT_EQ(output.Text(), "");
  EXPECT_EQ(spawner.Calls(), std::vector<std::string>{"session /bin/dash"});
}

}  // namespace
}  // namespace orvane::testing
