/// Keeps orvane's loading code off the kernel log and syslog while verify
/// runs it, and collects what it says there instead.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace orvane::analyze {

/// What orvane's code said during one step: the system alerts it raised
/// and the lines it logged, each in order.
struct VerifyMessages {
  std::vector<std::string> alerts;
  std::vector<std::string> lines;
};

/// While it exists, system alerts and kernel-log lines go to it instead of
/// the host, and the host logging library has no output (so it writes to
/// standard error, which Run collects). Shuts the logging library down for
/// good (Log_Exit): a program that logs elsewhere sets it up again
/// afterwards. Not for use while another thread logs.
class VerifyCapture {
 public:
  /// Throws std::system_error when there is nowhere to collect to.
  VerifyCapture();
  /// Puts the alert and kernel-log sinks back to the host's.
  ~VerifyCapture();
  VerifyCapture(const VerifyCapture&) = delete;
  VerifyCapture& operator=(const VerifyCapture&) = delete;

  /// Runs @p step with standard error collected and returns what it said.
  /// Throws std::system_error when standard error cannot be redirected;
  /// passes on what @p step throws, with standard error restored.
  VerifyMessages Run(const std::function<void()>& step);

 private:
  /// What standard error received since the last call, emptied.
  std::string TakeCollected();

  int collected_ = -1;  ///< an anonymous file that standard error points at during a step
  std::vector<std::string> alerts_;
  std::vector<std::string> kernelLines_;
};

}  // namespace orvane::analyze
