/// The executor process, which runs host CLI commands outside the
/// orchestrator, and the orchestrator's handle on it.
///
/// The executor listens on a local stream socket at a fixed path and serves
/// one request per connection, strictly one connection at a time:
///   - the client sends a command line (no length, no terminator); the
///     executor reads it with a single recv of at most 1023 bytes, parses it,
///     runs it through the process-wide QorcliDispatcher, and replies with a
///     4-byte status in host byte order (0 success, 1 failure) before closing.
///     The client shuts its sending side down after an empty line, so that
///     even that ends the executor's receive; the executor waits at most a
///     few seconds for a request;
///   - a message whose first four characters are "stop" in any case stops the
///     executor; it is answered only by closing the connection.
/// Only the executor's own user may use the socket: the socket file has mode
/// 0600, and a peer of another uid gets status 1 whatever it sent.
/// Commands write their output to the executor's log file; only the status
/// travels back.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <optional>
#include <string>

namespace CppTools::AutoCli {
class Dispatcher;
}

namespace orvane {

/// The dispatcher name the executor gives the commands it runs.
inline constexpr const char* kExecutorDispatcherName = "orvane";

/// The process-wide handle on the executor process. The client calls
/// (Reset, RunCommand, Stop, Connect) run in the orchestrator; the others
/// run in the executor process that Reset forks.
class QorcliExecutor {
 public:
  virtual ~QorcliExecutor();
  QorcliExecutor(const QorcliExecutor&) = delete;
  QorcliExecutor& operator=(const QorcliExecutor&) = delete;

  /// The process-wide handle, created on the first call and never
  /// destroyed; the first call also makes the process ignore SIGPIPE so that
  /// a send on a closed connection fails instead of killing it.
  static QorcliExecutor& Instance();

  /// Makes sure an executor process runs and accepts connections: returns at
  /// once when one answers, else forks one and returns when it listens.
  /// Throws Exception when it could not be started.
  void Reset();

  /// Runs @p commandLine in the executor; returns only when it answered
  /// status 0. An executor that cannot be reached is reset, up to ten times
  /// (each reset under the graph lock). Throws Exception otherwise. Any
  /// thread may call it; each call has its own connection.
  void RunCommand(const std::string& commandLine);

  /// Asks a running executor to stop and does not wait for it to exit. An
  /// executor that is not running is only logged. Throws Exception when the
  /// request cannot be sent.
  void Stop();

  /// A new connection to the executor, or -1. A failed connect is logged
  /// only when @p logFailure; a socket that cannot be created always is.
  int Connect(bool logFailure);

  /// Executor side: creates, binds (mode 0600) and listens on the control
  /// socket. The path is never removed, so a stale socket file makes the bind
  /// fail. Throws Exception.
  void OpenControlSocket();

  /// Executor side: starts the event-loop thread, which serves connections
  /// until a stop request. Throws Exception when the thread cannot start.
  void StartEventLoop();

  /// Executor side: the poll callback for a readable listening socket, whose
  /// descriptor @p clientData points at. Serves one connection completely:
  /// a request that does not arrive within a few seconds is a failed
  /// receive (logged, no reply), and nothing that goes wrong with the
  /// connection ends the loop.
  static void HandleConnection(void* clientData);

  /// Executor side: the answer to one received request @p message (the text
  /// up to its first NUL): empty for a stop request, otherwise the status to
  /// reply after the command line was parsed and run through @p dispatcher.
  /// Logs what failed; never throws.
  static std::optional<std::int32_t> AnswerRequest(const char* message,
                                                   CppTools::AutoCli::Dispatcher& dispatcher);

 private:
  QorcliExecutor() = default;

  /// What the forked child does: becomes the executor process; never returns.
  [[noreturn]] void RunExecutorProcess();
  /// HandleConnection's work on an accepted connection, which it closes.
  static void ServeConnection(int connection, void* clientData);
  static void* EventLoop(void* executor);

  int controlSocket_ = -1;
  pthread_t eventLoopThread_ = static_cast<pthread_t>(-1);
};

}  // namespace orvane
