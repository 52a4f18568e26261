// Drives the executor process and its client from inside a sandbox, where
// the control socket, the executor's log and the command definitions live at
// their real paths. The arguments are steps, run in order; each step prints
// one result line that begins with "= " (log lines have a time stamp):
//   reset | stop | run COMMAND         the client calls of QorcliExecutor
//   send TEXT | send-file FILE         one raw request in one send; prints the reply
//   empty                              a connection that sends nothing and shuts down writing
//   send-and-close TEXT                sends and closes without waiting for the reply
//   flood N                            N connections that send nothing and close
//   silent                             a connection that sends nothing and stays open
//                                      until the probe ends; prints whether the
//                                      executor closed it (and when, relative to
//                                      the next steps, through their order)
//   send-as UID TEXT                   a raw request from a child running as UID
//   socket-mode | chmod-socket OCTAL   the socket file's mode
//   stale-socket                       leaves a socket file nobody listens on
//   fake-executor COMMAND              RunCommand against a listener that never replies
//   wait-gone                          waits until nothing listens on the socket any more
//   dispatcher                         QorcliDispatcher::Instance twice
//   silent-outcome                     for each silent connection: closed or still open
//   sleep MILLISECONDS
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "orvane/FixedPaths.h"
#include "orvaner/Logging.h"
#include "orvaner/cli/QorcliDispatcher.h"
#include "orvaner/cli/QorcliExecutor.h"

namespace {

using orvane::QorcliExecutor;

void Report(const std::string& step, const std::string& result) {
  std::printf("= %s: %s\n", step.c_str(), result.c_str());
  std::fflush(stdout);
}

void ReportCall(const std::string& step, const std::function<void()>& call) {
  try {
    call();
    Report(step, "ok");
  } catch (const std::exception& error) {
    Report(step, std::string("threw ") + error.what());
  }
}

sockaddr_un SocketAddress() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, orvane::paths::kExecutorSocket, sizeof address.sun_path - 1);
  return address;
}

/// A connection to the control socket, or -1 with errno set.
int RawConnect() {
  const int connection = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (connection < 0) return -1;
  const sockaddr_un address = SocketAddress();
  if (connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    const int error = errno;
    close(connection);
    errno = error;
    return -1;
  }
  return connection;
}

/// What the peer sends until it closes, described: "status N" for exactly
/// four bytes, "eof" for none, else the byte count. An executor that left
/// part of a long request unread resets the connection after its reply;
/// that shows as ", rest unread".
std::string ReadReply(int connection) {
  std::string reply;
  std::string ending;
  char buffer[256];
  for (;;) {
    const ssize_t received = recv(connection, buffer, sizeof buffer, 0);
    if (received < 0 && errno == EINTR) continue;
    if (received < 0 && errno == ECONNRESET && !reply.empty()) {
      ending = ", rest unread";
      break;
    }
    if (received < 0) {
      return "recv failed " + std::string(std::strerror(errno)) + " after " +
             std::to_string(reply.size()) + " bytes";
    }
    if (received == 0) break;
    reply.append(buffer, static_cast<std::size_t>(received));
  }
  if (reply.empty()) return "eof";
  if (reply.size() == sizeof(std::int32_t)) {
    std::int32_t status;
    std::memcpy(&status, reply.data(), sizeof status);
    return "status " + std::to_string(status) + ending;
  }
  return std::to_string(reply.size()) + " bytes" + ending;
}

std::string SendRaw(const std::string& message) {
  const int connection = RawConnect();
  if (connection < 0) return std::string("connect failed ") + std::strerror(errno);
  if (!message.empty() && send(connection, message.data(), message.size(), MSG_NOSIGNAL) < 0) {
    const int error = errno;
    close(connection);
    return std::string("send failed ") + std::strerror(error);
  }
  std::string reply = ReadReply(connection);
  close(connection);
  return reply;
}

std::string ReadHostFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void SendAs(uid_t user, const std::string& message) {
  const pid_t child = fork();
  if (child == 0) {
    if (setgid(user) != 0 || setuid(user) != 0) {
      Report("send-as", std::string("setuid failed ") + std::strerror(errno));
      _exit(1);
    }
    Report("send-as", SendRaw(message));
    _exit(0);
  }
  waitpid(child, nullptr, 0);
}

void Empty() {
  const int connection = RawConnect();
  if (connection < 0) {
    Report("empty", std::string("connect failed ") + std::strerror(errno));
    return;
  }
  shutdown(connection, SHUT_WR);
  Report("empty", ReadReply(connection));
  close(connection);
}

void SendAndClose(const std::string& message) {
  const int connection = RawConnect();
  if (connection < 0) {
    Report("send-and-close", std::string("connect failed ") + std::strerror(errno));
    return;
  }
  const ssize_t sent = send(connection, message.data(), message.size(), MSG_NOSIGNAL);
  close(connection);
  Report("send-and-close", sent == static_cast<ssize_t>(message.size()) ? "sent" : "short send");
}

void Flood(int connections) {
  int made = 0;
  for (int i = 0; i < connections; ++i) {
    const int connection = RawConnect();
    if (connection >= 0) {
      ++made;
      close(connection);
    }
  }
  Report("flood", std::to_string(made) + " connections");
}

/// Connections that send nothing and are never closed by us; the executor
/// must give up on them by itself.
std::vector<int> silentConnections;

void Silent() {
  const int connection = RawConnect();
  if (connection < 0) {
    Report("silent", std::string("connect failed ") + std::strerror(errno));
    return;
  }
  silentConnections.push_back(connection);
  Report("silent", "connected");
}

/// What became of the silent connections: each is "closed" when the
/// executor gave up on it without a reply.
void SilentOutcome() {
  for (int connection : silentConnections) {
    pollfd ready{connection, POLLIN, 0};
    const bool closed = poll(&ready, 1, 0) == 1 && ReadReply(connection) == "eof";
    Report("silent-outcome", closed ? "closed without a reply" : "still open");
  }
}

void SocketMode() {
  struct stat status {};
  if (lstat(orvane::paths::kExecutorSocket, &status) != 0) {
    Report("socket-mode", std::string("lstat failed ") + std::strerror(errno));
    return;
  }
  char octal[16];
  std::snprintf(octal, sizeof octal, "%o", static_cast<unsigned>(status.st_mode));
  Report("socket-mode", octal);
}

void StaleSocket() {
  const int socketDescriptor = socket(AF_UNIX, SOCK_STREAM, 0);
  const sockaddr_un address = SocketAddress();
  const bool bound =
      bind(socketDescriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  close(socketDescriptor);  // the file stays, with nobody listening
  Report("stale-socket", bound ? "ok" : std::string("bind failed ") + std::strerror(errno));
}

/// A listener on the control socket that reads each request and closes
/// without a status, counting the connections, while RunCommand runs.
void FakeExecutor(const std::string& command) {
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_un address = SocketAddress();
  if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(listener, 16) != 0) {
    Report("fake-executor", std::string("cannot listen ") + std::strerror(errno));
    return;
  }
  std::atomic<bool> done{false};
  std::atomic<int> accepted{0};
  std::thread server([&] {
    while (!done) {
      pollfd ready{listener, POLLIN, 0};
      if (poll(&ready, 1, 20) <= 0) continue;
      const int connection = accept(listener, nullptr, nullptr);
      if (connection < 0) continue;
      ++accepted;
      char request[2048];
      [[maybe_unused]] ssize_t received = recv(connection, request, sizeof request, 0);
      close(connection);
    }
  });
  ReportCall("run", [&] { QorcliExecutor::Instance().RunCommand(command); });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));  // a retry would arrive by now
  done = true;
  server.join();
  close(listener);
  Report("fake-executor", "accepted " + std::to_string(accepted.load()));
}

void WaitGone() {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::chrono::steady_clock::now() < deadline) {
    const int connection = RawConnect();
    if (connection < 0) {
      Report("wait-gone", std::string("gone (") + std::strerror(errno) + ")");
      return;
    }
    close(connection);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  Report("wait-gone", "still listening");
}

void Dispatcher() {
  orvane::QorcliDispatcher& first = orvane::QorcliDispatcher::Instance();
  orvane::QorcliDispatcher& second = orvane::QorcliDispatcher::Instance();
  Report("dispatcher", &first == &second ? "same instance" : "different");
}

int Usage() {
  std::fprintf(stderr, "usage: executorprobe STEP... (see the source for the steps)\n");
  return 2;
}

}  // namespace

int main(int argc, char* argv[]) {
  orvane::InitLogging("orvane");
  std::vector<std::string> steps(argv + 1, argv + argc);
  for (std::size_t i = 0; i < steps.size(); ++i) {
    const std::string& step = steps[i];
    const bool hasArgument = i + 1 < steps.size();
    if (step == "reset") {
      ReportCall(step, [] { QorcliExecutor::Instance().Reset(); });
    } else if (step == "stop") {
      ReportCall(step, [] { QorcliExecutor::Instance().Stop(); });
    } else if (step == "run" && hasArgument) {
      const std::string command = steps[++i];
      ReportCall(step, [&] { QorcliExecutor::Instance().RunCommand(command); });
    } else if (step == "send" && hasArgument) {
      Report(step, SendRaw(steps[++i]));
    } else if (step == "send-file" && hasArgument) {
      Report("send", SendRaw(ReadHostFile(steps[++i])));
    } else if (step == "empty") {
      Empty();
    } else if (step == "send-and-close" && hasArgument) {
      SendAndClose(steps[++i]);
    } else if (step == "flood" && hasArgument) {
      Flood(std::atoi(steps[++i].c_str()));
    } else if (step == "send-as" && i + 2 < steps.size()) {
      const uid_t user = static_cast<uid_t>(std::atoi(steps[i + 1].c_str()));
      SendAs(user, steps[i + 2]);
      i += 2;
    } else if (step == "silent") {
      Silent();
    } else if (step == "silent-outcome") {
      SilentOutcome();
    } else if (step == "socket-mode") {
      SocketMode();
    } else if (step == "chmod-socket" && hasArgument) {
      const mode_t mode = static_cast<mode_t>(std::strtol(steps[++i].c_str(), nullptr, 8));
      Report(step, chmod(orvane::paths::kExecutorSocket, mode) == 0 ? "ok" : "failed");
    } else if (step == "stale-socket") {
      StaleSocket();
    } else if (step == "fake-executor" && hasArgument) {
      FakeExecutor(steps[++i]);
    } else if (step == "wait-gone") {
      WaitGone();
    } else if (step == "dispatcher") {
      Dispatcher();
    } else if (step == "sleep" && hasArgument) {
      std::this_thread::sleep_for(std::chrono::milliseconds(std::atoi(steps[++i].c_str())));
    } else {
      return Usage();
    }
  }
  return 0;
}
