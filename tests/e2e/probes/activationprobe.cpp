// Runs plugins through the activation sequence inside a sandbox, with an
// operator typing on a pseudo-terminal:
//
//   activationprobe [--interactive] [--requires a,b] [--trace] [--method M]
//                   [--supports-profile] [--answer KEYS]... [--shell TEXT]...
//                   PLUGIN...
//
// A child process runs the plugins, one worker, in the order given, with the
// terminal's slave side as its standard streams and controlling terminal,
// as orvane does on the console. This process plays the operator on the
// master side: each time a prompt has switched the terminal to single keys
// it types the next --answer, and each time the troubleshooting shell shows
// its prompt it types the next --shell text. At the end it prints everything
// the terminal showed on standard output.
//
// Each plugin's Start appends "start NAME" to /tmp/activation-runs (its
// host-profile operation "profile NAME"); a plugin whose name begins with
// "fail" then throws a failed-method exception. The child writes
// "NAME START END" per plugin to /tmp/activation-times, the times in
// microseconds since the epoch (0 when unset).
//
// Exit status: the child's, or 3 for a prompt without an answer left, 4 when
// the run took too long, 2 for a usage or set-up error.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "orvaner/Exception.h"
#include "orvaner/Logging.h"
#include "orvaner/RunOptions.h"
#include "orvaner/graph/Executor.h"
#include "orvaner/graph/GraphLock.h"
#include "orvaner/plugins/Plugin.h"

namespace {

constexpr const char* kRuns = "/tmp/activation-runs";
constexpr const char* kTimes = "/tmp/activation-times";
constexpr const char* kShellPrompt = "orvane-shell> ";
constexpr std::string_view kHideCursor = "\x1b[?25l";
constexpr auto kRunLimit = std::chrono::seconds(30);

struct Settings {
  bool interactive = false;
  bool trace = false;
  bool supportsProfile = false;
  std::string requires_;
  std::string method;
  std::vector<std::string> answers;
  std::vector<std::string> shellInputs;
  std::vector<std::string> plugins;
};

void Append(const char* path, const std::string& line) {
  std::ofstream(path, std::ios::app) << line << '\n';
}

/// Records its operations in a file instead of doing boot work.
class FilePlugin : public orvane::Plugin {
 public:
  FilePlugin(std::string name, bool supportsProfile)
      : Plugin(std::move(name)), supportsProfile_(supportsProfile) {}

  void Start() override { Record("start"); }
  bool SupportsHostProfile() const override { return supportsProfile_; }
  void ApplyHostProfile() override { Record("profile"); }

 private:
  void Record(const std::string& method) {
    Append(kRuns, method + " " + Name());
    if (Name().rfind("fail", 0) == 0) {
      throw orvane::MethodFailedException(method, Name(), "exit status 1");
    }
  }
  bool supportsProfile_;
};

std::vector<std::string> SplitCommas(const std::string& text) {
  std::vector<std::string> items;
  std::string item;
  for (char character : text + ",") {
    if (character != ',') {
      item += character;
    } else if (!item.empty()) {
      items.push_back(item);
      item.clear();
    }
  }
  return items;
}

long long Microseconds(const timeval& time) {
  return static_cast<long long>(time.tv_sec) * 1000000 + time.tv_usec;
}

// The child: orvane's side of the terminal.
[[noreturn]] void RunPlugins(const Settings& settings, const char* slaveName) {
  // A session of its own whose controlling terminal is the slave, so that
  // the shell has to take the terminal from another session.
  if (::setsid() < 0) ::_exit(2);
  const int slave = ::open(slaveName, O_RDWR);
  if (slave < 0) ::_exit(2);
  for (int stream = 0; stream <= 2; ++stream) ::dup2(slave, stream);
  if (slave > 2) ::close(slave);
  ::setenv("PS1", kShellPrompt, 1);

  orvane::InitLogging("orvane");
  orvane::RunOptions& options = orvane::RunOptions::Instance();
  options.interactive = settings.interactive;
  options.trace = settings.trace;
  options.method = settings.method;
  options.interactiveModeRequires = SplitCommas(settings.requires_);

  std::vector<std::unique_ptr<FilePlugin>> plugins;
  for (const std::string& name : settings.plugins) {
    plugins.push_back(std::make_unique<FilePlugin>(name, settings.supportsProfile));
  }
  {
    orvane::Executor executor(1, false);
    for (auto& plugin : plugins) {
      {
        orvane::GraphLockGuard lock;
        plugin->ScheduleStart(executor);
      }
      plugin->WaitStarted();
    }
  }
  for (auto& plugin : plugins) {
    Append(kTimes, plugin->Name() + " " + std::to_string(Microseconds(plugin->GetStartTime())) +
                       " " + std::to_string(Microseconds(plugin->GetEndTime())));
  }
  std::fflush(stdout);
  ::_exit(0);
}

std::size_t Count(const std::string& text, std::string_view what) {
  std::size_t count = 0;
  for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++count;
  return count;
}

// Whether the prompt has turned line mode off on the terminal, so that a
// key typed now is read as a single key and not echoed.
bool InSingleKeyMode(const char* slaveName) {
  const int slave = ::open(slaveName, O_RDWR | O_NOCTTY);
  if (slave < 0) return false;
  termios attributes{};
  const bool single = ::tcgetattr(slave, &attributes) == 0 && !(attributes.c_lflag & ICANON);
  ::close(slave);
  return single;
}

void Type(int master, const std::string& text) {
  if (::write(master, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    std::perror("activationprobe: typing");
  }
}

// This process: the operator at the terminal's master side.
int PlayOperator(const Settings& settings, int master, const char* slaveName, pid_t child) {
  std::string transcript;
  std::size_t answered = 0, shellTyped = 0;
  int exitCode = -1;
  const auto deadline = std::chrono::steady_clock::now() + kRunLimit;
  bool childEnded = false;
  for (;;) {
    pollfd readable{master, POLLIN, 0};
    if (::poll(&readable, 1, 20) > 0) {
      char buffer[4096];
      const ssize_t count = ::read(master, buffer, sizeof buffer);
      if (count > 0) {
        transcript.append(buffer, count);
      } else if (childEnded) {
        break;  // every slave descriptor is closed: the terminal has said everything
      }
    } else if (childEnded) {
      break;
    }
    if (!childEnded) {
      int status = 0;
      if (::waitpid(child, &status, WNOHANG) == child) {
        childEnded = true;
        exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      }
    }
    if (Count(transcript, kHideCursor) > answered) {
      if (answered == settings.answers.size()) {
        std::fwrite(transcript.data(), 1, transcript.size(), stdout);
        std::fprintf(stderr, "activationprobe: prompt %zu has no answer\n", answered + 1);
        ::kill(child, SIGKILL);
        return 3;
      }
      if (InSingleKeyMode(slaveName)) Type(master, settings.answers[answered++]);
    }
    if (Count(transcript, kShellPrompt) > shellTyped && shellTyped < settings.shellInputs.size()) {
      Type(master, settings.shellInputs[shellTyped++]);
    }
    if (std::chrono::steady_clock::now() > deadline) {
      std::fwrite(transcript.data(), 1, transcript.size(), stdout);
      std::fprintf(stderr, "activationprobe: the run took too long\n");
      ::kill(child, SIGKILL);
      return 4;
    }
  }
  std::fwrite(transcript.data(), 1, transcript.size(), stdout);
  return exitCode;
}

bool ParseArguments(int argc, char* argv[], Settings& settings) {
  for (int index = 1; index < argc; ++index) {
    const std::string_view argument = argv[index];
    const bool hasValue = index + 1 < argc;
    if (argument == "--interactive") {
      settings.interactive = true;
    } else if (argument == "--trace") {
      settings.trace = true;
    } else if (argument == "--supports-profile") {
      settings.supportsProfile = true;
    } else if (argument == "--requires" && hasValue) {
      settings.requires_ = argv[++index];
    } else if (argument == "--method" && hasValue) {
      settings.method = argv[++index];
    } else if (argument == "--answer" && hasValue) {
      settings.answers.emplace_back(argv[++index]);
    } else if (argument == "--shell" && hasValue) {
      settings.shellInputs.emplace_back(argv[++index]);
    } else if (argument.rfind("--", 0) == 0) {
      return false;
    } else {
      settings.plugins.emplace_back(argument);
    }
  }
  return !settings.plugins.empty();
}

}  // namespace

int main(int argc, char* argv[]) {
  Settings settings;
  if (!ParseArguments(argc, argv, settings)) {
    std::fprintf(stderr,
                 "usage: activationprobe [--interactive] [--requires a,b] [--trace] [--method M] "
                 "[--supports-profile] [--answer KEYS]... [--shell TEXT]... PLUGIN...\n");
    return 2;
  }
  const int master = ::posix_openpt(O_RDWR | O_NOCTTY);
  if (master < 0 || ::grantpt(master) != 0 || ::unlockpt(master) != 0) {
    std::perror("activationprobe: opening a pseudo-terminal");
    return 2;
  }
  const std::string slaveName = ::ptsname(master);
  std::fflush(stdout);
  const pid_t child = ::fork();
  if (child < 0) {
    std::perror("activationprobe: fork");
    return 2;
  }
  if (child == 0) {
    ::close(master);
    RunPlugins(settings, slaveName.c_str());
  }
  return PlayOperator(settings, master, slaveName.c_str(), child);
}
