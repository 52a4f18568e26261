/// What travels on the executor's control socket, and the socket calls its
/// server and client share. A client sends one command line (no length, no
/// terminator; after an empty one it shuts its sending side); the executor
/// replies with a 4-byte status in host byte order, or only closes for a
/// stop request.
#pragma once

#include <sys/types.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace orvane::wire {

/// The executor's reply to a command line.
using CommandStatus = std::int32_t;
inline constexpr CommandStatus kStatusSuccess = 0;
inline constexpr CommandStatus kStatusFailure = 1;

/// One recv of at most this many bytes is all the executor reads of a request.
inline constexpr std::size_t kMaxMessageLength = 1023;

/// A request whose first four characters are these, in any case, stops the
/// executor.
inline constexpr char kStopRequest[] = "stop";
inline constexpr std::size_t kStopRequestLength = sizeof kStopRequest - 1;

/// True when @p message asks the executor to stop.
bool IsStopRequest(const char* message);

/// The control socket's address. Its length, for bind and connect alike, is
/// always the size of the whole structure.
sockaddr_un ControlSocketAddress();

/// bind and connect of a local stream socket to @p address.
int Bind(int socketDescriptor, const sockaddr_un& address);
int ConnectTo(int socketDescriptor, const sockaddr_un& address);

/// send without SIGPIPE, and recv, retried while a signal interrupts them.
ssize_t SendRetryingInterrupts(int connection, const void* bytes, std::size_t length);
ssize_t ReceiveRetryingInterrupts(int connection, void* bytes, std::size_t length, int flags);

/// strerror's text for @p error.
std::string ErrorText(int error);

}  // namespace orvane::wire
