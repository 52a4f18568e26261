/// How a child process ended, decoded once from its wait status.
#pragma once

#include <string>

namespace process {

/// The end of a child: it exited with a code, a signal killed it, it
/// stopped in another way (only a traced child can), or its status could
/// not be collected at all. Keeps the raw wait status word for callers that
/// report it as it is.
class ExitStatus {
 public:
  enum class Kind { Exited, Killed, Other, NotCollected };

  /// Decodes @p waitStatus as waitpid filled it.
  static ExitStatus FromWaitStatus(int waitStatus);
  /// A status word for a normal exit with @p code (0..255).
  static ExitStatus ExitedWith(int code);
  /// A status word for a death by @p signal.
  static ExitStatus KilledBy(int signal);
  /// No status: the wait failed with @p error (errno).
  static ExitStatus NotCollected(int error);

  Kind How() const { return kind_; }
  bool Collected() const { return kind_ != Kind::NotCollected; }
  bool Exited() const { return kind_ == Kind::Exited; }
  bool Killed() const { return kind_ == Kind::Killed; }
  /// True exactly for a normal exit with code 0.
  bool Succeeded() const { return kind_ == Kind::Exited && code_ == 0; }
  /// The exit code; meaningful when Exited().
  int Code() const { return code_; }
  /// The signal that ended the child; meaningful when Killed().
  int Signal() const { return signal_; }
  /// The raw wait status word; -1 when it was not collected, as system()
  /// reports a failure.
  int WaitStatus() const { return waitStatus_; }
  /// errno of the failed wait; meaningful when not Collected().
  int WaitError() const { return waitError_; }

  /// "exited with status 3", "killed by signal 9", "ended with wait status
  /// 0x137f" or "status not collected: No child processes".
  std::string Text() const;

  bool operator==(const ExitStatus&) const = default;

 private:
  ExitStatus() = default;

  Kind kind_ = Kind::NotCollected;
  int code_ = 0;
  int signal_ = 0;
  int waitStatus_ = -1;
  int waitError_ = 0;
};

}  // namespace process
