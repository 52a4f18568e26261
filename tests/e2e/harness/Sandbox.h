// A private, throw-away copy of this machine in which the end-to-end tests
// run the installed program, so that it can read and write its fixed host
// paths (/dev/kmsg, /dev/log, /var/log, /usr/libexec ...) without touching
// the real ones.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "SyslogListener.h"

namespace orvane::testing {

/// How a program run in a sandbox ended, and what it printed.
struct RunResult {
  int exitStatus = -1;    ///< the exit code; -1 when the program was killed by a signal
  int termSignal = 0;     ///< the signal that killed the program, 0 when it exited
  bool timedOut = false;  ///< the run hit its time-out and was killed (termSignal is then SIGKILL)
  std::string out;        ///< everything it wrote to standard output
  std::string err;        ///< everything it wrote to standard error
};

/// How to start a program in a sandbox.
struct RunSettings {
  std::string stdinText;  ///< the program's whole standard input
  /// The program's entire environment; nothing of the test process leaks in.
  std::vector<std::string> environment = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "HOME=/root",
                                          "LANG=C"};
  std::chrono::seconds timeout{60};
  bool closeStdout = false;  ///< start the program with file descriptor 1 closed
};

/// A copy-on-write view of this machine's root file system with the staged
/// installation laid over it, a minimal /dev whose kmsg and console are plain
/// files, whose log is a socket this object listens on and whose pts is a
/// private pseudo-terminal instance, and a way to run
/// programs inside it in their own mount, PID, UTS and IPC namespaces.
///
/// Everything the sandbox or its programs change lives in a tmpfs that is
/// discarded with the object; the real machine never sees it. The first
/// construction moves the whole test process into a private mount namespace,
/// so it must happen while the process is still single-threaded.
class Sandbox {
 public:
  /// Empty when this process can build sandboxes; otherwise why not (not
  /// root, unshare refused, overlay not supported...). The first call moves
  /// the process into its private mount namespace; the answer is cached.
  static std::string Unavailable();

  /// The staging tree the build is installed into for the end-to-end tests.
  static std::filesystem::path DefaultStage();

  /// Builds the sandbox and installs `stage` into it as a real installation
  /// would land on this host (an empty path installs nothing). Throws
  /// std::runtime_error saying what failed.
  explicit Sandbox(std::filesystem::path stage = DefaultStage());
  /// Stops the syslog listener, unmounts everything and removes the
  /// sandbox's temporary directory.
  ~Sandbox();
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  /// Writes `content` to a file of the sandbox with exactly `mode`,
  /// creating missing parent directories.
  void WriteFile(const std::filesystem::path& inSandbox, std::string_view content,
                 mode_t mode = 0644);
  /// Copies a file of the host into the sandbox with exactly `mode`,
  /// creating missing parent directories.
  void CopyIn(const std::filesystem::path& hostFile, const std::filesystem::path& inSandbox,
              mode_t mode = 0755);
  /// Creates a directory of the sandbox and its missing parents.
  void MakeDirectory(const std::filesystem::path& inSandbox);
  /// Removes a file, symlink or whole directory tree of the sandbox.
  void Remove(const std::filesystem::path& inSandbox);
  /// Whether the path exists in the sandbox (symlinks followed).
  bool Exists(const std::filesystem::path& inSandbox) const;
  /// The content of a file of the sandbox; throws if there is none.
  std::string ReadFile(const std::filesystem::path& inSandbox) const;
  /// Where a path of the sandbox lives for this test process. Symlinks are
  /// resolved as the sandbox's programs would see them, so an absolute link
  /// such as /var/run -> /run stays inside the sandbox.
  std::filesystem::path HostPath(const std::filesystem::path& inSandbox) const;

  /// Runs `argv` (argv[0] is the program's path inside the sandbox) as the
  /// only child of a fresh init process, waits until it ends or the time-out
  /// passes, and returns what it printed. Every process it leaves behind is
  /// killed before this returns. Throws std::runtime_error when the program
  /// could not be started at all.
  RunResult Run(std::vector<std::string> argv, const RunSettings& settings = {});

  /// Everything written to the sandbox's /dev/kmsg (a plain file) so far.
  std::string Kmsg() const;
  /// Everything written to the sandbox's /dev/console (a plain file) so far.
  std::string Console() const;
  /// Every datagram received on the sandbox's /dev/log so far; after Run
  /// returns this includes everything that run sent.
  std::vector<SyslogRecord> Syslog();

 private:
  void Build();
  void MountRootCopy();
  void InstallStage();
  void MakeDevices();
  void TearDown() noexcept;
  void MountHere(const std::string& source, const std::filesystem::path& target, const char* type,
                 unsigned long flags, const std::string& options = {});
  std::filesystem::path Resolve(const std::filesystem::path& inSandbox, bool followLast) const;

  std::filesystem::path stage_;
  std::filesystem::path base_;                 // the tmpfs holding everything below
  std::filesystem::path merged_;               // the sandbox's "/"
  std::vector<std::filesystem::path> mounts_;  // in mounting order; unmounted in reverse
  std::unique_ptr<SyslogListener> syslog_;
};

/// The content of tests/e2e/expected/<name>; throws if there is no such file.
std::string ExpectedFile(std::string_view name);

}  // namespace orvane::testing
