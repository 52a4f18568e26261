// The orchestrator's side of the executor: making sure the process runs,
// and sending it command lines and the stop request.
#include "orvaner/cli/QorcliExecutor.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>
#include <memory>
#include <string>

#include "log/Log.h"
#include "orvaner/Exception.h"
#include "orvaner/cli/ExecutorWire.h"
#include "orvaner/graph/GraphLock.h"
#include "process/Spawner.h"

namespace orvane {
namespace {

using wire::CommandStatus;
using wire::ConnectTo;
using wire::ControlSocketAddress;
using wire::ErrorText;
using wire::kStatusFailure;
using wire::kStatusSuccess;
using wire::kStopRequest;
using wire::kStopRequestLength;
using wire::ReceiveRetryingInterrupts;
using wire::SendRetryingInterrupts;

constexpr int kConnectAttempts = 10;

}  // namespace

QorcliExecutor::~QorcliExecutor() = default;

QorcliExecutor& QorcliExecutor::Instance() {
  static auto* instance = [] {
    if (std::signal(SIGPIPE, SIG_IGN) == SIG_ERR) {
      Log_Level(LOG_LEVEL_WARNING, "Orvane cannot ignore SIGPIPE\n");
    }
    return new QorcliExecutor;
  }();
  return *instance;
}

int QorcliExecutor::Connect(bool logFailure) {
  const int connection = socket(AF_UNIX, SOCK_STREAM, 0);
  if (connection < 0) {
    Log_Level(LOG_LEVEL_ERROR, "Failed creating orvane client socket %s\n",
              ErrorText(errno).c_str());
    return -1;
  }
  if (ConnectTo(connection, ControlSocketAddress()) != 0) {
    const int error = errno;
    if (logFailure) {
      Log_Level(LOG_LEVEL_ERROR, "Failed connecting to executor %s\n", ErrorText(error).c_str());
    }
    close(connection);
    errno = error;
    return -1;
  }
  return connection;
}

void QorcliExecutor::Reset() {
  const int probe = Connect(false);
  // Descriptor 0 counts as not running, like a failed connect.
  if (probe >= 0) close(probe);
  if (probe > 0) return;

  Log_Level(LOG_LEVEL_INFO, "Setting up Executor - Reset Requested\n");
  // The child exits as soon as the detached executor listens (or it failed).
  const process::RunResult child =
      process::Spawner::Instance().RunInChild([this] { RunExecutorProcess(); });
  if (!child.Started()) {
    throw Exception("Failed to fork" + ErrorText(child.startError));
  }
  if (!child.status.Collected()) {
    throw Exception("Failed collecting executor's exit status");
  }
  if (child.status.WaitStatus() != 0) {
    throw Exception("Orvane executor failed to start");
  }
}

void QorcliExecutor::RunCommand(const std::string& commandLine) {
  int connection = -1;
  for (int attemptsLeft = kConnectAttempts;;) {
    connection = Connect(true);
    if (connection > 0) break;
    const int connectError = errno;
    if (connection == 0) close(connection);
    try {
      GraphLockGuard graphLock;  // resets are serialised; a second thread finds it running
      Reset();
    } catch (const std::exception& error) {
      Log_Level(LOG_LEVEL_ERROR, "Resetting Executor failed, retrying: %s\n", error.what());
    } catch (...) {
      Log_Level(LOG_LEVEL_ERROR, "Resetting Executor failed, retrying\n");
    }
    // Ten connects and ten resets, with no pause and no connect after the last.
    if (--attemptsLeft == 0) {
      throw Exception("Could not connect to Executor:" + ErrorText(connectError));
    }
  }

  // Only the line's characters travel; a short send is not completed.
  const char* line = commandLine.c_str();
  const std::size_t length = std::strlen(line);
  if (SendRetryingInterrupts(connection, line, length) < 0) {
    const int error = errno;
    close(connection);
    throw Exception("Failed sending command to executor: " + ErrorText(error));
  }
  // An empty line (or one that starts with NUL) sends nothing at all; the
  // end of what we send is what makes the executor's receive return then.
  // Any other line returns it by arriving.
  if (length == 0) shutdown(connection, SHUT_WR);
  CommandStatus status = kStatusFailure;
  const ssize_t received =
      ReceiveRetryingInterrupts(connection, &status, sizeof status, MSG_WAITALL);
  if (received != static_cast<ssize_t>(sizeof status)) {
    // An executor that closes without a whole status is reported as a reset
    // connection; a failed recv keeps its own error.
    const int error = received < 0 ? errno : ECONNRESET;
    close(connection);
    throw Exception("Failed to recieve command status from Executor: " + ErrorText(error));
  }
  close(connection);
  if (status != kStatusSuccess) {
    throw Exception("Executor failed executing qorcli command: " + commandLine);
  }
}

void QorcliExecutor::Stop() {
  const int connection = Connect(false);
  if (connection < 0) {
    Log_Level(LOG_LEVEL_INFO, "Executor already gone.\n");
    return;
  }
  if (SendRetryingInterrupts(connection, kStopRequest, kStopRequestLength) < 0) {
    const int error = errno;
    close(connection);
    throw Exception("Failed sending STOP to executor" + ErrorText(error));
  }
  // The executor answers a stop request only by closing. The connection is
  // left open either way: the orchestrator is about to end.
  char reply[sizeof(CommandStatus)];
  if (ReceiveRetryingInterrupts(connection, reply, sizeof reply, 0) <= 0) {
    Log_Level(LOG_LEVEL_INFO, "Executor has been Successfully Stopped\n");
  }
}

}  // namespace orvane
