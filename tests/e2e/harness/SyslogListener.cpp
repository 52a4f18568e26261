#include "SyslogListener.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string_view>

namespace orvane::testing {
namespace {

// Large enough for any datagram a local sender can pass through the default
// socket buffers, so that nothing is ever truncated.
constexpr std::size_t kMaxDatagram = 256 * 1024;

std::runtime_error SystemError(const std::string& what) {
  return std::runtime_error(what + ": " + std::strerror(errno));
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// A whole, non-negative decimal number that fits an int.
bool TakeNumber(std::string_view text, int& value) {
  if (text.empty() || !IsDigit(text.front())) return false;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() && end == text.data() + text.size();
}

// "<PRI>": one to three digits in angle brackets.
bool TakePriority(std::string_view& rest, SyslogRecord& record) {
  const auto close = rest.find('>');
  if (rest.empty() || rest.front() != '<' || close == std::string_view::npos || close > 4)
    return false;
  int priority = 0;
  if (!TakeNumber(rest.substr(1, close - 1), priority)) return false;
  record.priority = priority;
  record.facility = record.priority / 8;
  record.severity = record.priority % 8;
  rest.remove_prefix(close + 1);
  return true;
}

// "Mmm dd hh:mm:ss " (the day is space-padded, "Nov  1"). Left alone when
// the sender used another or no timestamp.
void SkipTimestamp(std::string_view& rest) {
  constexpr std::size_t kLength = 16;
  if (rest.size() < kLength) return;
  const bool shaped = rest[3] == ' ' && rest[6] == ' ' && rest[9] == ':' && rest[12] == ':' &&
                      rest[15] == ' ' && IsDigit(rest[7]) && IsDigit(rest[8]) &&
                      IsDigit(rest[10]) && IsDigit(rest[11]) && IsDigit(rest[13]) &&
                      IsDigit(rest[14]);
  if (shaped) rest.remove_prefix(kLength);
}

// "IDENT[PID]: " or "IDENT: ". Like syslog daemons, an ident holds no
// white space; without a well-formed tag everything stays message.
void TakeTag(std::string_view& rest, SyslogRecord& record) {
  const auto colon = rest.find(": ");
  if (colon == std::string_view::npos) return;
  const auto tag = rest.substr(0, colon);
  if (tag.empty() || tag.find_first_of(" \t\n") != std::string_view::npos) return;
  const auto open = tag.find('[');
  int pid = 0;
  if (open != std::string_view::npos && tag.back() == ']' &&
      TakeNumber(tag.substr(open + 1, tag.size() - open - 2), pid)) {
    record.ident = tag.substr(0, open);
    record.pid = pid;
  } else {
    record.ident = tag;
  }
  rest.remove_prefix(colon + 2);
}

}  // namespace

SyslogListener::SyslogListener(const std::filesystem::path& socketPath) : buffer_(kMaxDatagram) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = socketPath.string();
  if (path.size() >= sizeof(address.sun_path))
    throw std::runtime_error("socket path too long: " + path);
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);

  socket_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (socket_ < 0) throw SystemError("creating the syslog socket");
  if (::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    const auto error = SystemError("binding the syslog socket at " + path);
    ::close(socket_);
    throw error;
  }
  stopEvent_ = ::eventfd(0, EFD_CLOEXEC);
  if (stopEvent_ < 0) {
    const auto error = SystemError("creating the listener's stop event");
    ::close(socket_);
    throw error;
  }
  thread_ = std::thread([this] { Drain(); });
}

SyslogListener::~SyslogListener() {
  const std::uint64_t one = 1;
  if (::write(stopEvent_, &one, sizeof(one)) != static_cast<ssize_t>(sizeof(one))) {
    // Cannot happen for an eventfd counter far from overflow; joining would hang.
    std::terminate();
  }
  thread_.join();
  ::close(stopEvent_);
  ::close(socket_);
}

std::vector<SyslogRecord> SyslogListener::Records() {
  std::lock_guard lock(mutex_);
  ReceivePending();
  return records_;
}

void SyslogListener::Drain() {
  pollfd watched[2] = {{socket_, POLLIN, 0}, {stopEvent_, POLLIN, 0}};
  for (;;) {
    if (::poll(watched, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (watched[1].revents != 0) return;
    std::lock_guard lock(mutex_);
    ReceivePending();
  }
}

// Reads every datagram queued right now. Callers hold mutex_, so the thread
// and Records() never interleave and records stay in arrival order.
void SyslogListener::ReceivePending() {
  for (;;) {
    const ssize_t size = ::recv(socket_, buffer_.data(), buffer_.size(), MSG_DONTWAIT);
    if (size < 0) {
      if (errno == EINTR) continue;
      return;  // EAGAIN: the queue is empty
    }
    records_.push_back(Parse(std::string(buffer_.data(), static_cast<std::size_t>(size))));
  }
}

SyslogRecord SyslogListener::Parse(std::string datagram) {
  SyslogRecord record;
  record.raw = std::move(datagram);
  std::string_view rest = record.raw;
  // Stream senders terminate each message with a NUL; it is framing, not text.
  if (!rest.empty() && rest.back() == '\0') rest.remove_suffix(1);
  if (TakePriority(rest, record)) {
    SkipTimestamp(rest);
    TakeTag(rest, record);
  }
  record.message = rest;
  return record;
}

}  // namespace orvane::testing
