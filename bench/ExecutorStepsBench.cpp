// Google Benchmark: the steps of one command through the executor, each on
// its own, so that a command's overhead over a direct spawn can be told
// apart step by step:
//   - the bare protocol on a local stream socket (connect, send, shutdown,
//     accept, receive, reply, close) between two threads of one process;
//   - what the executor asks of each accepted connection besides the
//     request (the peer's credentials, the receive time-out);
//   - parsing, validating and dispatching one command line, with a program
//     runner that starts nothing;
//   - the program's start and wait: the command runner, against
//     posix_spawn of the same program with no attributes and with the
//     signal resets the runner asks for, and last the runner as the
//     executor process has it, its signal actions promised fixed.
// Nothing here runs orvane or the executor process: the steps are the
// libraries' own functions, on a scratch directory of command definitions.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "CppTools/AutoCli/CommandInput.h"
#include "CppTools/AutoCli/CommandOutput.h"
#include "CppTools/AutoCli/Dispatcher.h"
#include "CppTools/AutoCli/OptionParser.h"
#include "TemporaryDirectory.h"
#include "orvaner/cli/QorcliExecutor.h"
#include "process/Spawner.h"

extern char** environ;

namespace {

constexpr const char* kCommandLine = "bench true";
constexpr const char* kTrueProgram = "/bin/true";

/// A scratch directory holding the one command definition the steps use.
class DefinitionDirectory : public unit_testing::TemporaryDirectory {
 public:
  DefinitionDirectory() {
    Write("bench.json", R"({"commands": [{"path": ["bench", "true"], "exec": ["/bin/true"]}]})"
                        "\n");
  }
};

/// A dispatcher over the scratch definitions. Without @p runPrograms, a
/// checked command's program is not started and counts as having exited 0.
class StepDispatcher : public CppTools::AutoCli::Dispatcher {
 public:
  StepDispatcher(const DefinitionDirectory& definitions, bool runPrograms)
      : runPrograms_(runPrograms) {
    AddExternalDirectory(definitions.Path().string());
  }

  CppTools::AutoCli::ProgramResult RunDirectly(const std::vector<std::string>& arguments) {
    return Dispatcher::RunCommandProgram(arguments, {}, {});
  }

 protected:
  CppTools::AutoCli::ProgramResult RunCommandProgram(
      const std::vector<std::string>& arguments,
      const std::vector<std::pair<std::string, std::string>>& environment,
      const std::vector<std::string>& removedVariables) override {
    if (runPrograms_)
      return Dispatcher::RunCommandProgram(arguments, environment, removedVariables);
    benchmark::DoNotOptimize(arguments.data());
    return {};
  }

 private:
  bool runPrograms_;
};

DefinitionDirectory& Definitions() {
  static DefinitionDirectory definitions;
  return definitions;
}

sockaddr_un ScratchSocketAddress() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = (Definitions().Path() / "control.sock").string();
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  return address;
}

// One request per connection, as the executor and its client speak: the
// client sends the line and shuts its sending side; the server reads once,
// replies with a 4-byte status and closes.
void BM_ProtocolRoundTrip(benchmark::State& state) {
  const sockaddr_un address = ScratchSocketAddress();
  ::unlink(address.sun_path);
  const int listening = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (::bind(listening, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listening, 16) != 0) {
    state.SkipWithError("cannot listen on the scratch socket");
    return;
  }
  std::thread server([listening] {
    for (;;) {
      const int connection = ::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
      if (connection < 0) return;
      char message[1024];
      const ssize_t received = ::recv(connection, message, sizeof message - 1, 0);
      const std::int32_t status = 0;
      if (received >= 0) ::send(connection, &status, sizeof status, MSG_NOSIGNAL);
      ::close(connection);
      if (received == 4 && std::memcmp(message, "stop", 4) == 0) return;
    }
  });
  const auto request = [&address](const char* line) {
    const int connection = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ::connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    ::send(connection, line, std::strlen(line), MSG_NOSIGNAL);
    ::shutdown(connection, SHUT_WR);
    std::int32_t status = -1;
    ::recv(connection, &status, sizeof status, MSG_WAITALL);
    ::close(connection);
    return status;
  };
  for (auto _ : state) benchmark::DoNotOptimize(request(kCommandLine));
  request("stop");
  server.join();
  ::close(listening);
  ::unlink(address.sun_path);
}
BENCHMARK(BM_ProtocolRoundTrip)->Unit(benchmark::kMicrosecond)->UseRealTime();

// What the executor asks of an accepted connection before it reads it.
void BM_ConnectionChecks(benchmark::State& state) {
  int pair[2];
  ::socketpair(AF_UNIX, SOCK_STREAM, 0, pair);
  const timeval timeout = {5, 0};
  for (auto _ : state) {
    ucred peer{};
    socklen_t length = sizeof peer;
    ::getsockopt(pair[0], SOL_SOCKET, SO_PEERCRED, &peer, &length);
    benchmark::DoNotOptimize(peer.uid == ::geteuid());
    ::setsockopt(pair[0], SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  }
  ::close(pair[0]);
  ::close(pair[1]);
}
BENCHMARK(BM_ConnectionChecks)->Unit(benchmark::kMicrosecond);

void BM_ParseCommandLine(benchmark::State& state) {
  StepDispatcher dispatcher(Definitions(), false);
  for (auto _ : state) {
    CppTools::AutoCli::OptionParser parser(&dispatcher);
    benchmark::DoNotOptimize(parser.ParseString(kCommandLine));
    benchmark::DoNotOptimize(parser.MakeCommandInput(orvane::kExecutorDispatcherName));
  }
}
BENCHMARK(BM_ParseCommandLine)->Unit(benchmark::kMicrosecond);

// The executor's whole answer to a request, with nothing started.
void BM_AnswerRequestWithoutProgram(benchmark::State& state) {
  StepDispatcher dispatcher(Definitions(), false);
  for (auto _ : state) {
    benchmark::DoNotOptimize(orvane::QorcliExecutor::AnswerRequest(kCommandLine, dispatcher));
  }
}
BENCHMARK(BM_AnswerRequestWithoutProgram)->Unit(benchmark::kMicrosecond);

// The executor's whole answer to a request, the program started and waited for.
void BM_AnswerRequest(benchmark::State& state) {
  StepDispatcher dispatcher(Definitions(), true);
  for (auto _ : state) {
    benchmark::DoNotOptimize(orvane::QorcliExecutor::AnswerRequest(kCommandLine, dispatcher));
  }
}
BENCHMARK(BM_AnswerRequest)->Unit(benchmark::kMicrosecond)->UseRealTime();

// The command runner alone: environment, arguments, spawn and wait.
void BM_RunCommandProgram(benchmark::State& state) {
  StepDispatcher dispatcher(Definitions(), true);
  const std::vector<std::string> arguments = {kTrueProgram};
  for (auto _ : state) benchmark::DoNotOptimize(dispatcher.RunDirectly(arguments));
}
BENCHMARK(BM_RunCommandProgram)->Unit(benchmark::kMicrosecond)->UseRealTime();

void SpawnAndWait(const posix_spawn_file_actions_t* actions, const posix_spawnattr_t* attributes) {
  char* const arguments[] = {const_cast<char*>(kTrueProgram), nullptr};
  pid_t child = -1;
  if (::posix_spawn(&child, kTrueProgram, actions, attributes, arguments, environ) != 0) return;
  int status = 0;
  ::waitpid(child, &status, 0);
}

// The baseline every comparison uses: a spawn with nothing asked of it.
void BM_PosixSpawnPlain(benchmark::State& state) {
  for (auto _ : state) SpawnAndWait(nullptr, nullptr);
}
BENCHMARK(BM_PosixSpawnPlain)->Unit(benchmark::kMicrosecond)->UseRealTime();

// The same with every signal set to its default and descriptors from 3 on
// closed in the child.
void BM_PosixSpawnDefaultSignalsClosefrom(benchmark::State& state) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t all;
  sigfillset(&all);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  for (auto _ : state) SpawnAndWait(&actions, &attributes);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
}
BENCHMARK(BM_PosixSpawnDefaultSignalsClosefrom)->Unit(benchmark::kMicrosecond)->UseRealTime();

// One pass over every signal's action, as a spawned child makes.
void BM_QueryEverySignalAction(benchmark::State& state) {
  for (auto _ : state) {
    for (int signal = 1; signal < NSIG; ++signal) {
      struct sigaction action {};
      benchmark::DoNotOptimize(::sigaction(signal, nullptr, &action));
    }
  }
}
BENCHMARK(BM_QueryEverySignalAction)->Unit(benchmark::kMicrosecond);

// The command runner as the executor process has it: its signal actions
// promised fixed, so that a child resets only the signals found not at
// their default. The promise lasts for the rest of this process, so this
// benchmark is registered, and runs, last.
void BM_RunCommandProgramWithFixedSignalActions(benchmark::State& state) {
  ::signal(SIGPIPE, SIG_IGN);  // as the executor has it
  process::PromiseFixedSignalActions();
  StepDispatcher dispatcher(Definitions(), true);
  const std::vector<std::string> arguments = {kTrueProgram};
  for (auto _ : state) benchmark::DoNotOptimize(dispatcher.RunDirectly(arguments));
}
BENCHMARK(BM_RunCommandProgramWithFixedSignalActions)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
