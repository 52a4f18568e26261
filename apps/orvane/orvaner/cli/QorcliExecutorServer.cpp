// The executor process: its control socket, its event loop and one
// connection at a time.
#include <strings.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <exception>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "CppTools/AutoCli/CommandInput.h"
#include "CppTools/AutoCli/CommandOutput.h"
#include "CppTools/AutoCli/OptionParser.h"
#include "log/Log.h"
#include "orvane/FixedPaths.h"
#include "orvaner/Exception.h"
#include "orvaner/RedirectStdio.h"
#include "orvaner/cli/ExecutorWire.h"
#include "orvaner/cli/QorcliDispatcher.h"
#include "orvaner/cli/QorcliExecutor.h"
#include "poll/Poll.h"
#include "process/Spawner.h"

namespace orvane {
namespace {

using wire::Bind;
using wire::CommandStatus;
using wire::ControlSocketAddress;
using wire::ErrorText;
using wire::IsStopRequest;
using wire::kMaxMessageLength;
using wire::kStatusFailure;
using wire::kStatusSuccess;
using wire::ReceiveRetryingInterrupts;
using wire::SendRetryingInterrupts;

constexpr int kListenBacklog = 16;
// How long the executor waits for a request once it has accepted a
// connection. Every client of ours sends at once; a local client that stays
// silent must not hold the executor, and every plugin behind it, for ever.
constexpr timeval kReceiveTimeout = {5, 0};
// The socket file is created with mode 0600: the executor runs commands as
// its own (root) user, so no other user may connect.
constexpr mode_t kControlSocketUmask = 0177;
constexpr int kConnectionCallbackFlags = POLL_FLAG_PERIODIC | POLL_FLAG_READ | POLL_FLAG_SOCKET;
// Exit status of an executor child that failed before or while detaching;
// the parent reads any non-zero status as a failed start.
constexpr int kStartFailureStatus = -1;

// Set by the event-loop thread when a stop request arrives; its poll loop
// runs until then. Only that thread touches it.
volatile char executorStopFlag = 0;

/// The next connection, or -1 when accept failed (logged). Close-on-exec, so
/// that the programs of commands do not inherit it.
int AcceptConnection(int listeningSocket) {
  int connection;
  do {
    connection = accept4(listeningSocket, nullptr, nullptr, SOCK_CLOEXEC);
  } while (connection < 0 && errno == EINTR);
  if (connection < 0) {
    Log_Level(LOG_LEVEL_WARNING, "Error accepting connection on contol socket - %s\n\n",
              ErrorText(errno).c_str());
  }
  return connection;
}

/// True when the peer runs as this process's user; anything else, or peer
/// credentials that cannot be read, is refused and logged.
bool PeerIsOwnUser(int connection) {
  ucred peer{};
  socklen_t length = sizeof peer;
  if (getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) {
    Log_Level(LOG_LEVEL_WARNING,
              "Executor refused a connection: cannot read the peer's credentials - %s\n",
              ErrorText(errno).c_str());
    return false;
  }
  // The executor never changes its user: read once.
  static const uid_t ownUser = geteuid();
  if (peer.uid != ownUser) {
    Log_Level(LOG_LEVEL_WARNING,
              "Executor refused a request from uid %u (pid %d): only uid %u may use the control "
              "socket\n",
              static_cast<unsigned>(peer.uid), static_cast<int>(peer.pid),
              static_cast<unsigned>(ownUser));
    return false;
  }
  return true;
}

/// Receives the request of a connection into @p message, cut at its first
/// NUL; false when the receive failed or timed out (logged), which gets no
/// reply.
bool ReceiveRequest(int connection, char (&message)[kMaxMessageLength + 1]) {
  // A client sends its line as soon as it is connected, so the line is
  // usually here by the time it is accepted; only a connection with nothing
  // to read yet gets a receive that waits, and that wait is bounded.
  ssize_t received =
      ReceiveRetryingInterrupts(connection, message, kMaxMessageLength, MSG_DONTWAIT);
  if (received < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
    if (setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &kReceiveTimeout, sizeof kReceiveTimeout) !=
        0) {
      Log_Level(LOG_LEVEL_WARNING, "Executor cannot bound its wait for a request - %s\n",
                ErrorText(errno).c_str());
    }
    received = ReceiveRetryingInterrupts(connection, message, kMaxMessageLength, 0);
  }
  if (received < 0) {
    Log_Level(LOG_LEVEL_WARNING, "Failed to read message from socket - %s\n\n",
              ErrorText(errno).c_str());
    return false;
  }
  message[received] = '\0';  // the text counts up to its first NUL
  return true;
}

void StopEventLoop(void* clientData) {
  Log_Level(LOG_LEVEL_INFO, "Orvane executor signalled to stop\n");
  executorStopFlag = 1;
  Poll_NotifyChange(POLL_CLASS_MAIN);
  Poll_CallbackRemove(POLL_CLASS_MAIN, kConnectionCallbackFlags, &QorcliExecutor::HandleConnection,
                      clientData, POLL_EVENT_DEVICE);
}

/// Parses and runs one command line; the status to reply. Failures are
/// logged here; the exceptions only carry the outcome to the status.
CommandStatus ExecuteCommandLine(const std::string& commandLine,
                                 CppTools::AutoCli::Dispatcher& dispatcher) {
  try {
    // Help that a command line asks for goes to standard output, which in
    // the executor is its log file.
    CppTools::AutoCli::OptionParser parser(&dispatcher, &std::cout);
    if (parser.ParseString(commandLine)) {
      return kStatusSuccess;  // help only: nothing to dispatch
    }
    const std::vector<std::string>& parseErrors = parser.GetParseErrors();
    if (!parseErrors.empty()) {
      for (const std::string& error : parseErrors) {
        Log_Level(LOG_LEVEL_ERROR, "Executor was unable to parse command: %s\n", error.c_str());
      }
      throw Exception("Executor failed to parse command " + commandLine);
    }

    auto output = CppTools::AutoCli::CommandOutput::New();
    dispatcher.ExecuteCommand(parser.MakeCommandInput(kExecutorDispatcherName), output);

    if (output->HasError()) {
      for (const std::string& error : output->GetErrors()) {
        Log_Level(LOG_LEVEL_ERROR, "execution of '%s' failed : %s\n", commandLine.c_str(),
                  error.c_str());
      }
      throw Exception("Executor failed to execute command: " + commandLine);
    }
    return kStatusSuccess;
  } catch (...) {
    return kStatusFailure;
  }
}

void SendStatus(int connection, CommandStatus status) {
  if (SendRetryingInterrupts(connection, &status, sizeof status) < 0) {
    Log_Level(LOG_LEVEL_WARNING, "Sending command status to orvane failed\n");
  }
}

}  // namespace

void QorcliExecutor::RunExecutorProcess() {
  try {
    RedirectStdio(paths::kExecutorOutputLog);
    OpenControlSocket();
    // The intermediate process exits 0 here, which tells the parent that
    // the socket listens: no other readiness signal is needed.
    if (daemon(0, 1) != 0) {
      throw Exception("Failed to daemonize");
    }
    // The executor's signal actions are settled here (inherited from
    // orvane, SIGPIPE ignored) and nothing in it changes them: each
    // command's child need reset only the signals found not at their default.
    process::PromiseFixedSignalActions();
    StartEventLoop();
    Log_Level(LOG_LEVEL_INFO, "Executor Reset - polling for commands\n");
    pthread_join(eventLoopThread_, nullptr);
    close(controlSocket_);
    _exit(0);
  } catch (const std::exception& error) {
    Log_Level(LOG_LEVEL_ERROR, "Unable to start executor: %s\n", error.what());
  } catch (...) {
    Log_Level(LOG_LEVEL_ERROR, "Unable to start executor\n");
  }
  _exit(kStartFailureStatus);
}

void QorcliExecutor::OpenControlSocket() {
  controlSocket_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (controlSocket_ < 0) {
    throw Exception("Error opening control socket for executor: " + ErrorText(errno));
  }
  // The executor child is single-threaded here, so changing the process's
  // umask around bind cannot affect another thread's files.
  const mode_t previousUmask = umask(kControlSocketUmask);
  const int bound = Bind(controlSocket_, ControlSocketAddress());
  const int bindError = errno;
  umask(previousUmask);
  if (bound != 0) {
    close(controlSocket_);
    controlSocket_ = -1;
    throw Exception("Failed to bind to executor control socket: " + ErrorText(bindError));
  }
  if (listen(controlSocket_, kListenBacklog) != 0) {
    const int error = errno;
    close(controlSocket_);
    controlSocket_ = -1;
    throw Exception("Failed to listen on executor control socket: " + ErrorText(error));
  }
}

void QorcliExecutor::StartEventLoop() {
  if (pthread_create(&eventLoopThread_, nullptr, &QorcliExecutor::EventLoop, this) != 0) {
    throw Exception("Failed creating Executor Event Loop thread");
  }
}

void* QorcliExecutor::EventLoop(void* executor) {
  // HandleConnection's client data: a copy of the listening descriptor that
  // lives as long as this thread.
  int listeningSocket = static_cast<QorcliExecutor*>(executor)->controlSocket_;
  // An exception must not leave a thread's start routine: that would end the
  // process without a word. The thread ends, the process closes its socket
  // and exits, and the next command finds no executor and resets it.
  try {
    Poll_InitDefault();
    if (Poll_Callback(POLL_CLASS_MAIN, kConnectionCallbackFlags, &QorcliExecutor::HandleConnection,
                      &listeningSocket, POLL_EVENT_DEVICE, listeningSocket,
                      nullptr) != POLL_SUCCESS) {
      Log_Level(LOG_LEVEL_ERROR, "Failed setting up Poll Loop for executor\n");
      return nullptr;
    }
    Poll_Loop(POLL_CLASS_MAIN, &executorStopFlag, 0);
  } catch (const std::exception& error) {
    Log_Level(LOG_LEVEL_ERROR, "Executor event loop failed: %s\n", error.what());
  } catch (...) {
    Log_Level(LOG_LEVEL_ERROR, "Executor event loop failed\n");
  }
  return nullptr;
}

std::optional<std::int32_t> QorcliExecutor::AnswerRequest(
    const char* message, CppTools::AutoCli::Dispatcher& dispatcher) {
  if (IsStopRequest(message)) {
    return std::nullopt;
  }
  return ExecuteCommandLine(message, dispatcher);
}

void QorcliExecutor::HandleConnection(void* clientData) {
  const int connection = AcceptConnection(*static_cast<int*>(clientData));
  if (connection < 0) return;  // the callback stays registered
  // Nothing may end the executor's loop: whatever goes wrong with one
  // connection is logged, and the connection closed without a reply.
  try {
    ServeConnection(connection, clientData);
  } catch (const std::exception& error) {
    Log_Level(LOG_LEVEL_ERROR, "Executor failed serving a connection: %s\n", error.what());
  } catch (...) {
    Log_Level(LOG_LEVEL_ERROR, "Executor failed serving a connection\n");
  }
  close(connection);
}

void QorcliExecutor::ServeConnection(int connection, void* clientData) {
  const bool allowed = PeerIsOwnUser(connection);
  char message[kMaxMessageLength + 1];
  if (!ReceiveRequest(connection, message)) {
    return;
  }
  if (!allowed) {
    SendStatus(connection, kStatusFailure);
    return;
  }
  const std::optional<CommandStatus> status = AnswerRequest(message, QorcliDispatcher::Instance());
  if (status) {
    SendStatus(connection, *status);
  } else {
    StopEventLoop(clientData);
  }
}

}  // namespace orvane
