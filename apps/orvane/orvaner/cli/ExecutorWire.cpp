#include "orvaner/cli/ExecutorWire.h"

#include <strings.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "orvane/FixedPaths.h"

namespace orvane::wire {

bool IsStopRequest(const char* message) {
  return strncasecmp(message, kStopRequest, kStopRequestLength) == 0;
}

sockaddr_un ControlSocketAddress() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, paths::kExecutorSocket, sizeof address.sun_path - 1);
  return address;
}

int Bind(int socketDescriptor, const sockaddr_un& address) {
  return bind(socketDescriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

int ConnectTo(int socketDescriptor, const sockaddr_un& address) {
  return connect(socketDescriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

ssize_t SendRetryingInterrupts(int connection, const void* bytes, std::size_t length) {
  ssize_t sent;
  do {
    sent = send(connection, bytes, length, MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  return sent;
}

ssize_t ReceiveRetryingInterrupts(int connection, void* bytes, std::size_t length, int flags) {
  ssize_t received;
  do {
    received = recv(connection, bytes, length, flags);
  } while (received < 0 && errno == EINTR);
  return received;
}

std::string ErrorText(int error) { return std::strerror(error); }

}  // namespace orvane::wire
