// sandbox-run: runs one program in a throw-away sandbox holding the staged
// installation and shows everything it left behind: its standard output
// and error, the kernel log and the syslog messages it sent.
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Sandbox.h"

namespace {

constexpr int kUsageError = 2;
// Like env(1) and timeout(1): the front end itself failed, not the program.
constexpr int kHarnessError = 125;
// No sandbox can be made on this machine (not root, say): the test that
// asked for one is skipped, not failed (ctest's SKIP_RETURN_CODE).
constexpr int kSandboxUnavailable = 77;

constexpr std::string_view kUsage =
    "usage: sandbox-run [--stage DIR] [--file HOSTFILE:SANDBOXPATH]... [--keep-output "
    "SANDBOXPATH:HOSTFILE]...\n"
    "                   [--stdin-file HOSTFILE] [--timeout SECONDS] -- PROGRAM [ARGUMENT...]\n"
    "       sandbox-run --help\n"
    "\n"
    "Runs PROGRAM (a path inside the sandbox) in a throw-away copy of this machine with the\n"
    "staged installation laid over it, prints its standard output and error, then the kernel\n"
    "log (/dev/kmsg), the console (/dev/console) and the syslog messages (/dev/log) it wrote.\n"
    "Exits with the program's exit code, or 128 + the signal that killed it; 77 when no\n"
    "sandbox can be made on this machine, 125 when making or running it failed.\n"
    "\n"
    "  --stage DIR                  staging tree to install (default: the build's stage)\n"
    "  --file HOSTFILE:SANDBOXPATH  copy a file into the sandbox first, keeping its mode\n"
    "  --keep-output SANDBOXPATH:HOSTFILE\n"
    "                               copy a file out of the sandbox after the run\n"
    "  --stdin-file HOSTFILE        the program's standard input (default: empty)\n"
    "  --timeout SECONDS            kill the program after this long (default: 60)\n";

/// A file to copy between the host and the sandbox.
struct Transfer {
  std::string host;
  std::string sandbox;
};

/// What the command line asked for.
struct Options {
  std::filesystem::path stage = orvane::testing::Sandbox::DefaultStage();
  std::vector<Transfer> filesIn;
  std::vector<Transfer> filesOut;
  std::optional<std::string> stdinFile;
  std::chrono::seconds timeout{60};
  std::vector<std::string> program;
  bool wantsHelp = false;
};

/// A command line that makes no sense.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

std::pair<std::string, std::string> SplitAtColon(const std::string& text,
                                                 const std::string& option) {
  const auto colon = text.find(':');
  if (colon == std::string::npos || colon == 0 || colon + 1 == text.size()) {
    throw UsageError(option + " needs two paths separated by ':', got '" + text + "'");
  }
  return {text.substr(0, colon), text.substr(colon + 1)};
}

std::chrono::seconds ParseSeconds(const std::string& text) {
  std::size_t used = 0;
  long seconds = -1;
  try {
    seconds = std::stol(text, &used);
  } catch (const std::exception&) {
  }
  if (used != text.size() || seconds <= 0)
    throw UsageError("--timeout needs a positive number of seconds");
  return std::chrono::seconds(seconds);
}

Options ParseCommandLine(int argc, char** argv) {
  Options options;
  int index = 1;
  const auto value = [&](const std::string& option) -> std::string {
    if (index + 1 >= argc) throw UsageError(option + " needs a value");
    return argv[++index];
  };
  for (; index < argc; ++index) {
    const std::string argument = argv[index];
    if (argument == "--") {
      options.program.assign(argv + index + 1, argv + argc);
      break;
    }
    if (argument == "--help") {
      options.wantsHelp = true;
      return options;
    }
    if (argument == "--stage") {
      options.stage = value(argument);
    } else if (argument == "--file") {
      auto [host, sandbox] = SplitAtColon(value(argument), argument);
      options.filesIn.push_back({host, sandbox});
    } else if (argument == "--keep-output") {
      auto [sandbox, host] = SplitAtColon(value(argument), argument);
      options.filesOut.push_back({host, sandbox});
    } else if (argument == "--stdin-file") {
      options.stdinFile = value(argument);
    } else if (argument == "--timeout") {
      options.timeout = ParseSeconds(value(argument));
    } else {
      throw UsageError("unknown argument '" + argument + "'");
    }
  }
  if (options.program.empty()) throw UsageError("no program given after --");
  return options;
}

std::string ReadHostFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

void WriteHostFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!(out << content) || !out.flush()) throw std::runtime_error("cannot write " + path);
}

// Copies in with the host file's own mode, so scripts stay executable.
void CopyFilesIn(orvane::testing::Sandbox& sandbox, const std::vector<Transfer>& files) {
  for (const auto& file : files) {
    const auto mode = static_cast<mode_t>(std::filesystem::status(file.host).permissions());
    sandbox.CopyIn(file.host, file.sandbox, mode & 07777);
  }
}

void CopyFilesOut(const orvane::testing::Sandbox& sandbox, const std::vector<Transfer>& files) {
  for (const auto& file : files) {
    if (!sandbox.Exists(file.sandbox)) {
      std::cerr << "sandbox-run: " << file.sandbox
                << " does not exist in the sandbox; nothing copied\n";
      continue;
    }
    WriteHostFile(file.host, sandbox.ReadFile(file.sandbox));
  }
}

void PrintSection(std::string_view title, const std::string& content) {
  std::cout << "---- " << title << " ----\n" << content;
  if (!content.empty() && content.back() != '\n') std::cout << '\n';
}

void PrintSyslog(const std::vector<orvane::testing::SyslogRecord>& records) {
  std::cout << "---- syslog (/dev/log) ----\n";
  for (const auto& record : records) {
    std::cout << '<' << record.priority << "> " << record.ident;
    if (record.pid != 0) std::cout << '[' << record.pid << ']';
    std::cout << ": " << record.message;
    if (record.message.empty() || record.message.back() != '\n') std::cout << '\n';
  }
}

int ExitCodeOf(const orvane::testing::RunResult& result) {
  return result.termSignal != 0 ? 128 + result.termSignal : result.exitStatus;
}

int RunInSandbox(const Options& options) {
  orvane::testing::Sandbox sandbox(options.stage);
  CopyFilesIn(sandbox, options.filesIn);
  orvane::testing::RunSettings settings;
  settings.timeout = options.timeout;
  if (options.stdinFile) settings.stdinText = ReadHostFile(*options.stdinFile);

  const auto result = sandbox.Run(options.program, settings);
  std::cout << result.out << std::flush;
  std::cerr << result.err << std::flush;
  if (result.timedOut) {
    std::cerr << "sandbox-run: " << options.program.front() << " timed out after "
              << options.timeout.count() << " s and was killed\n";
  }
  PrintSection("kernel log (/dev/kmsg)", sandbox.Kmsg());
  PrintSection("console (/dev/console)", sandbox.Console());
  PrintSyslog(sandbox.Syslog());
  CopyFilesOut(sandbox, options.filesOut);
  return ExitCodeOf(result);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  try {
    options = ParseCommandLine(argc, argv);
    if (options.wantsHelp) {
      std::cout << kUsage;
      return 0;
    }
  } catch (const UsageError& error) {
    std::cerr << "sandbox-run: " << error.what() << "\n\n" << kUsage;
    return kUsageError;
  }
  // Like system(3): the terminal's interrupt keys reach only the program
  // (which starts with default dispositions), so that this process lives
  // on to clean the sandbox up.
  std::signal(SIGINT, SIG_IGN);
  std::signal(SIGQUIT, SIG_IGN);
  if (const std::string reason = orvane::testing::Sandbox::Unavailable(); !reason.empty()) {
    std::cerr << "sandbox-run: no sandbox on this machine: " << reason << '\n';
    return kSandboxUnavailable;
  }
  try {
    return RunInSandbox(options);
  } catch (const std::exception& error) {
    std::cerr << "sandbox-run: " << error.what() << '\n';
    return kHarnessError;
  }
}
