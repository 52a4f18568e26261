// Receives what programs in a sandbox send to its /dev/log.
#pragma once

#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace orvane::testing {

/// One datagram received on a sandbox's /dev/log, split into the fields of
/// the local syslog format "<PRI>Mmm dd hh:mm:ss IDENT[PID]: MESSAGE".
struct SyslogRecord {
  int priority = -1;  ///< facility * 8 + severity; -1 when the datagram had no "<PRI>" header
  int facility = -1;
  int severity = -1;
  std::string ident;    ///< empty when the sender gave none
  int pid = 0;          ///< 0 when the sender did not include "[PID]"
  std::string message;  ///< as sent: embedded and trailing newlines are kept
  std::string raw;      ///< the whole datagram, unparsed
};

/// Binds an AF_UNIX datagram socket at a path and collects every datagram
/// sent to it until destroyed.
///
/// A thread drains the socket the whole time: the kernel queues only a few
/// datagrams per receiving socket (net.unix.max_dgram_qlen, 10 by default),
/// and a sender facing a full queue blocks, which would stall the program
/// under test.
class SyslogListener {
 public:
  /// Binds the socket at `socketPath` (which must not exist yet) and starts
  /// the draining thread. Throws std::runtime_error on failure.
  explicit SyslogListener(const std::filesystem::path& socketPath);
  /// Stops and joins the thread and closes the socket.
  ~SyslogListener();
  SyslogListener(const SyslogListener&) = delete;
  SyslogListener& operator=(const SyslogListener&) = delete;

  /// Every record received so far, oldest first. Datagrams still queued in
  /// the socket when this is called are included: a datagram sent before
  /// the call is never missed.
  std::vector<SyslogRecord> Records();

  /// Splits one datagram into its fields. Never fails: what cannot be
  /// parsed stays in `message` (and always in `raw`).
  static SyslogRecord Parse(std::string datagram);

 private:
  void Drain();
  void ReceivePending();

  int socket_ = -1;
  int stopEvent_ = -1;
  std::mutex mutex_;  // guards socket reads, records_ and buffer_
  std::vector<SyslogRecord> records_;
  std::vector<char> buffer_;
  std::thread thread_;
};

}  // namespace orvane::testing
