#include "Sandbox.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <deque>
#include <fstream>
#include <functional>
#include <iostream>
#include <limits>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <utility>

#ifndef ORVANE_DEFAULT_STAGE_DIR
#error "ORVANE_DEFAULT_STAGE_DIR must name the staging tree (set by the harness CMakeLists)"
#endif
#ifndef ORVANE_E2E_EXPECTED_DIR
#error "ORVANE_E2E_EXPECTED_DIR must name tests/e2e/expected (set by the harness CMakeLists)"
#endif

namespace fs = std::filesystem;

namespace orvane::testing {
namespace {

// Where the stage is bind-mounted inside the sandbox while it is copied in.
constexpr const char* kStageMountPoint = ".orvane-stage";
// Same limit as the kernel's path walk.
constexpr int kMaxSymlinkHops = 40;
// After a time-out, how long the namespace may take to die before its
// parent process is killed as well.
constexpr std::chrono::seconds kKillGrace{10};
// Exit code of a helper process that already reported why it gave up.
constexpr int kHelperFailed = 125;
// The device nodes of the host that programs may expect in /dev.
constexpr const char* kHostDevices[] = {"null", "zero", "random", "urandom", "full"};

std::string ErrorText(int error) { return std::strerror(error); }

std::runtime_error SystemError(const std::string& what, int error = errno) {
  return std::runtime_error(what + ": " + ErrorText(error));
}

std::string DescribeWaitStatus(int status) {
  if (WIFEXITED(status)) return "exit code " + std::to_string(WEXITSTATUS(status));
  if (WIFSIGNALED(status)) {
    return "killed by signal " + std::to_string(WTERMSIG(status)) + " (" +
           strsignal(WTERMSIG(status)) + ")";
  }
  return "wait status " + std::to_string(status);
}

/// Owns a file descriptor and closes it.
class UniqueFd {
 public:
  explicit UniqueFd(int fd = -1) : fd_(fd) {}
  ~UniqueFd() { Reset(); }
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
      Reset();
      fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
  }
  int Get() const { return fd_; }
  void Reset() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  int fd_;
};

// Every descriptor a run hands to its child is at 3 or above, so that
// placing them on 0, 1 and 2 in the child can never overwrite one another.
UniqueFd AboveStandardStreams(int fd, const std::string& what) {
  if (fd < 0) throw SystemError(what);
  if (fd > STDERR_FILENO) return UniqueFd(fd);
  const int moved = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  const int error = errno;
  ::close(fd);
  if (moved < 0) throw SystemError(what, error);
  return UniqueFd(moved);
}

UniqueFd OpenForChild(const fs::path& path, int flags) {
  return AboveStandardStreams(::open(path.c_str(), flags | O_CLOEXEC, 0600),
                              "opening " + path.string());
}

std::string ReadHostFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path.string());
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

// Writes with exactly `mode`: the umask of the test process must not decide
// what the program under test finds.
void WriteHostFile(const fs::path& path, std::string_view content, mode_t mode) {
  UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode));
  if (fd.Get() < 0) throw SystemError("creating " + path.string());
  if (::fchmod(fd.Get(), mode) != 0) throw SystemError("setting the mode of " + path.string());
  while (!content.empty()) {
    const ssize_t written = ::write(fd.Get(), content.data(), content.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) throw SystemError("writing " + path.string());
    content.remove_prefix(static_cast<std::size_t>(written));
  }
}

std::string ReadAll(int fd) {
  std::string text;
  char buffer[4096];
  for (;;) {
    const ssize_t size = ::read(fd, buffer, sizeof(buffer));
    if (size < 0 && errno == EINTR) continue;
    if (size <= 0) return text;
    text.append(buffer, static_cast<std::size_t>(size));
  }
}

void MustSucceed(int result, const std::string& what) {
  if (result != 0) throw SystemError(what);
}

// ---------------------------------------------------------------------------
// Once per process: a private mount namespace, and a probe that the mounts a
// sandbox needs are allowed here.

std::string EnterPrivateMountNamespace() {
  if (::unshare(CLONE_NEWNS) != 0) {
    const int error = errno;
    std::string reason = "unshare(CLONE_NEWNS) failed: " + ErrorText(error);
    if (error == EINVAL)
      reason += " (the process must still be single-threaded when the first sandbox is built)";
    return reason;
  }
  // Without this, mounts made here could propagate back to the real machine.
  if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    return "making the mount namespace private failed: " + ErrorText(errno);
  }
  return {};
}

std::string ProbeMounts() {
  char pattern[] = "/tmp/orvane-probe-XXXXXX";
  if (::mkdtemp(pattern) == nullptr)
    return "cannot create a directory in /tmp: " + ErrorText(errno);
  const fs::path base = pattern;
  std::string reason;
  if (::mount("tmpfs", base.c_str(), "tmpfs", 0, "mode=0700") != 0) {
    reason = "mounting a tmpfs failed: " + ErrorText(errno);
  } else {
    std::error_code ignored;
    for (const char* name : {"upper", "work", "merged"}) fs::create_directory(base / name, ignored);
    const std::string options =
        "lowerdir=/,upperdir=" + (base / "upper").string() + ",workdir=" + (base / "work").string();
    if (::mount("overlay", (base / "merged").c_str(), "overlay", 0, options.c_str()) != 0) {
      reason = "mounting an overlay of / failed: " + ErrorText(errno);
    } else {
      ::umount2((base / "merged").c_str(), MNT_DETACH);
    }
    ::umount2(base.c_str(), MNT_DETACH);
  }
  ::rmdir(base.c_str());
  return reason;
}

std::string FindWhySandboxesAreUnavailable() {
  if (::geteuid() != 0) return "end-to-end tests need root: namespaces, mounts and chroot";
  if (auto reason = EnterPrivateMountNamespace(); !reason.empty()) return reason;
  return ProbeMounts();
}

// ---------------------------------------------------------------------------
// Installing the stage. Runs chrooted in a child process so that the kernel
// resolves the sandbox's own symlinks (/var/run -> /run) the way it would
// for a real installation on this host.

void CopyTree(const fs::path& from, const fs::path& to);

// An existing directory, or a symlink to one, is merged into.
void CopyDirectory(const fs::path& from, const fs::path& to) {
  if (!fs::is_directory(to)) fs::create_directory(to, from);
  CopyTree(from, to);
}

void ReplaceWithSymlink(const fs::path& from, const fs::path& to) {
  const auto existing = fs::symlink_status(to);
  if (fs::is_directory(existing))
    throw std::runtime_error("cannot replace the directory " + to.string() + " by a symlink");
  if (fs::exists(existing)) fs::remove(to);
  fs::copy_symlink(from, to);
}

void CopyTree(const fs::path& from, const fs::path& to) {
  for (const auto& entry : fs::directory_iterator(from)) {
    const fs::path target = to / entry.path().filename();
    const auto type = entry.symlink_status().type();
    if (type == fs::file_type::directory) {
      CopyDirectory(entry.path(), target);
    } else if (type == fs::file_type::symlink) {
      ReplaceWithSymlink(entry.path(), target);
    } else {
      fs::copy_file(entry.path(), target, fs::copy_options::overwrite_existing);
    }
  }
}

// Runs `work` in a forked child and rethrows its failure here. The child may
// change its namespaces and root without affecting this process.
void RunInChild(const std::string& what, const std::function<void()>& work) {
  int pipeFds[2];
  MustSucceed(::pipe2(pipeFds, O_CLOEXEC), "creating a pipe");
  UniqueFd readEnd(pipeFds[0]);
  UniqueFd writeEnd(pipeFds[1]);
  const pid_t child = ::fork();
  if (child < 0) throw SystemError("fork");
  if (child == 0) {
    std::string failure;
    try {
      work();
      ::_exit(0);
    } catch (const std::exception& error) {
      failure = error.what();
    } catch (...) {
      failure = "unknown exception";
    }
    [[maybe_unused]] auto ignored = ::write(writeEnd.Get(), failure.data(), failure.size());
    ::_exit(kHelperFailed);
  }
  writeEnd.Reset();
  const std::string failure = ReadAll(readEnd.Get());
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    throw std::runtime_error(
        what + " failed: " + (failure.empty() ? DescribeWaitStatus(status) : failure));
  }
}

// ---------------------------------------------------------------------------
// Running a program. Three processes: the intermediate child unshares the
// namespaces; its child is PID 1 (init) of the new PID namespace, chroots
// and mounts /proc; init's child execs the program. When init exits, the
// kernel kills whatever is left in the namespace.
//
// After fork only async-signal-safe calls are made: the test process may
// have other threads (the syslog listener), whose locks a child must never
// wait for. Everything the children need is prepared in a Launch first.
//
// The children report to the test process over a pipe with fixed-size
// records: init's host PID, the program's raw wait status, or which step
// failed and its errno.

enum class Step : std::int32_t {
  kInitStarted,   // value: init's PID as seen by the test process
  kProgramEnded,  // value: the program's wait status
  kUnshare,       // failures from here on; value: errno
  kForkInit,
  kChroot,
  kMountProc,
  kForkProgram,
  kWait,
  kRedirect,
  kExec,
};

struct Report {
  Step step;
  std::int32_t value;
};

const char* Describe(Step step) {
  switch (step) {
    case Step::kUnshare: return "creating the namespaces";
    case Step::kForkInit: return "starting the namespace's init process";
    case Step::kChroot: return "changing root into the sandbox";
    case Step::kMountProc: return "mounting /proc";
    case Step::kForkProgram: return "forking the program";
    case Step::kWait: return "waiting for the program";
    case Step::kRedirect: return "redirecting standard streams";
    case Step::kExec: return "executing the program";
    default: return "an unknown step";
  }
}

bool IsFailure(Step step) { return step != Step::kInitStarted && step != Step::kProgramEnded; }

std::vector<char*> NullTerminated(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  for (auto& text : strings) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

/// Everything the children of a run need, prepared before fork.
struct Launch {
  Launch(std::vector<std::string> arguments, const RunSettings& settings, const fs::path& base,
         const fs::path& sandboxRoot)
      : argumentStorage(std::move(arguments)),
        environmentStorage(settings.environment),
        argv(NullTerminated(argumentStorage)),
        envp(NullTerminated(environmentStorage)),
        root(sandboxRoot.string()),
        closeStdout(settings.closeStdout),
        parent(::getpid()) {
    WriteHostFile(base / "run-stdin", settings.stdinText, 0600);
    in = OpenForChild(base / "run-stdin", O_RDONLY);
    // Appending, so that output written through a reopened /dev/stdout
    // (">> /dev/stdout") lands after, not over, what fd 1 wrote before.
    out = OpenForChild(base / "run-stdout", O_WRONLY | O_CREAT | O_TRUNC | O_APPEND);
    err = OpenForChild(base / "run-stderr", O_WRONLY | O_CREAT | O_TRUNC | O_APPEND);
    int pipeFds[2];
    MustSucceed(::pipe2(pipeFds, O_CLOEXEC), "creating the report pipe");
    reportRead = AboveStandardStreams(pipeFds[0], "moving the report pipe");
    reportWrite = AboveStandardStreams(pipeFds[1], "moving the report pipe");
    MustSucceed(::fcntl(reportRead.Get(), F_SETFL, O_NONBLOCK),
                "making the report pipe non-blocking");
  }
  Launch(const Launch&) = delete;
  Launch& operator=(const Launch&) = delete;

  std::vector<std::string> argumentStorage;
  std::vector<std::string> environmentStorage;
  std::vector<char*> argv;
  std::vector<char*> envp;
  std::string root;
  bool closeStdout;
  pid_t parent;
  UniqueFd in, out, err, reportRead, reportWrite;
};

void SendReport(const Launch& launch, Step step, int value) {
  const Report report{step, value};
  // A record this small is written atomically; nothing can be done if not.
  [[maybe_unused]] auto ignored = ::write(launch.reportWrite.Get(), &report, sizeof(report));
}

[[noreturn]] void Fail(const Launch& launch, Step step) {
  SendReport(launch, step, errno);
  ::_exit(kHelperFailed);
}

// The program starts like a freshly booted one: default signal dispositions,
// nothing blocked, whatever the test process had set up.
void ResetSignals() {
  for (int signal = 1; signal < NSIG; ++signal) {
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    ::sigaction(signal, &action,
                nullptr);  // fails harmlessly for SIGKILL, SIGSTOP and reserved ones
  }
  sigset_t none;
  sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

[[noreturn]] void RunProgram(const Launch& launch) {
  ResetSignals();
  if (::dup2(launch.in.Get(), STDIN_FILENO) < 0) Fail(launch, Step::kRedirect);
  if (launch.closeStdout) {
    ::close(STDOUT_FILENO);
  } else if (::dup2(launch.out.Get(), STDOUT_FILENO) < 0) {
    Fail(launch, Step::kRedirect);
  }
  if (::dup2(launch.err.Get(), STDERR_FILENO) < 0) Fail(launch, Step::kRedirect);
  // Descriptors the test process inherited without close-on-exec must not
  // leak into the program (the report pipe stays usable until execve).
  ::close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
  ::execve(launch.argv[0], launch.argv.data(), launch.envp.data());
  Fail(launch, Step::kExec);
}

// Reaps every process that ends up as init's child (orphans are reparented
// to it) until the program itself has ended.
[[noreturn]] void RunInit(const Launch& launch) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::chroot(launch.root.c_str()) != 0 || ::chdir("/") != 0) Fail(launch, Step::kChroot);
  if (::mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0)
    Fail(launch, Step::kMountProc);
  const pid_t program = ::fork();
  if (program < 0) Fail(launch, Step::kForkProgram);
  if (program == 0) RunProgram(launch);
  for (;;) {
    int status = 0;
    const pid_t ended = ::wait(&status);
    if (ended == program) {
      SendReport(launch, Step::kProgramEnded, status);
      ::_exit(0);
    }
    if (ended < 0 && errno != EINTR) Fail(launch, Step::kWait);
  }
}

// Ends the way init ended, so that a plain waitpid on this process tells
// the same story as the report pipe.
[[noreturn]] void EndLike(int status) {
  if (WIFSIGNALED(status)) {
    ::signal(WTERMSIG(status), SIG_DFL);
    ::kill(::getpid(), WTERMSIG(status));
    ::_exit(128 + WTERMSIG(status));
  }
  ::_exit(WIFEXITED(status) ? WEXITSTATUS(status) : kHelperFailed);
}

[[noreturn]] void RunIntermediate(const Launch& launch) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != launch.parent)
    ::_exit(kHelperFailed);  // the test process died before the line above
  // The waits below need SIGCHLD at its default even if the test process
  // ignores it. Other dispositions are kept on purpose: a front end that
  // ignores the terminal's interrupt keys keeps these helpers alive while
  // the program (which gets default dispositions) receives them.
  ::signal(SIGCHLD, SIG_DFL);
  if (::unshare(CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWUTS | CLONE_NEWIPC) != 0)
    Fail(launch, Step::kUnshare);
  const pid_t init = ::fork();
  if (init < 0) Fail(launch, Step::kForkInit);
  if (init == 0) RunInit(launch);
  SendReport(launch, Step::kInitStarted, init);
  int status = 0;
  while (::waitpid(init, &status, 0) < 0) {
    if (errno != EINTR) Fail(launch, Step::kWait);
  }
  EndLike(status);
}

// ---- the test process's side of a run

/// What the test process learned about one run.
struct Outcome {
  std::vector<Report> reports;
  bool timedOut = false;
  int intermediateStatus = 0;

  std::optional<std::int32_t> Find(Step step) const {
    for (const auto& report : reports) {
      if (report.step == step) return report.value;
    }
    return std::nullopt;
  }
};

void CollectReports(int fd, std::vector<Report>& reports) {
  Report report{};
  while (::read(fd, &report, sizeof(report)) == static_cast<ssize_t>(sizeof(report)))
    reports.push_back(report);
}

// Whether `fd` became readable within `timeout`.
bool WaitReadable(int fd, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd watched{fd, POLLIN, 0};
    const auto milliseconds =
        std::clamp<std::int64_t>(left.count(), 0, std::numeric_limits<int>::max());
    const int ready = ::poll(&watched, 1, static_cast<int>(milliseconds));
    if (ready > 0) return true;
    if (ready == 0) return false;
    if (errno != EINTR) throw SystemError("poll");
  }
}

// Kills init, which takes everything in its namespace down with it; the
// intermediate child then sees init die and exits by itself.
void KillRun(pid_t child, int pidFd, Outcome& outcome) {
  if (const auto init = outcome.Find(Step::kInitStarted)) ::kill(*init, SIGKILL);
  if (!WaitReadable(pidFd, kKillGrace)) ::kill(child, SIGKILL);
}

Outcome AwaitRun(pid_t child, const Launch& launch, std::chrono::seconds timeout) {
  // Called directly: the C library's declaration lacks C linkage for C++.
  UniqueFd pidFd(static_cast<int>(::syscall(SYS_pidfd_open, child, 0)));
  Outcome outcome;
  if (pidFd.Get() < 0) {
    const int error = errno;
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    throw SystemError("pidfd_open", error);
  }
  if (!WaitReadable(pidFd.Get(), timeout)) {
    outcome.timedOut = true;
    CollectReports(launch.reportRead.Get(), outcome.reports);
    KillRun(child, pidFd.Get(), outcome);
  }
  while (::waitpid(child, &outcome.intermediateStatus, 0) < 0 && errno == EINTR) {
  }
  CollectReports(launch.reportRead.Get(), outcome.reports);
  return outcome;
}

RunResult ResultOf(const Outcome& outcome, const std::string& program) {
  for (const auto& report : outcome.reports) {
    if (IsFailure(report.step)) {
      throw std::runtime_error("cannot run " + program + " in the sandbox: " +
                               Describe(report.step) + ": " + ErrorText(report.value));
    }
  }
  RunResult result;
  if (const auto status = outcome.Find(Step::kProgramEnded)) {
    // The program ended by itself, even if only just before the time-out.
    if (WIFEXITED(*status)) result.exitStatus = WEXITSTATUS(*status);
    if (WIFSIGNALED(*status)) result.termSignal = WTERMSIG(*status);
  } else if (outcome.timedOut) {
    result.timedOut = true;
    result.termSignal = SIGKILL;
  } else {
    throw std::runtime_error("the sandbox's init ended without reporting on " + program +
                             " (its parent: " + DescribeWaitStatus(outcome.intermediateStatus) +
                             ")");
  }
  return result;
}

// ---- paths inside the sandbox

std::deque<std::string> Components(const fs::path& path) {
  std::deque<std::string> names;
  for (const auto& part : path.relative_path()) {
    if (!part.empty() && part != ".") names.push_back(part.string());
  }
  return names;
}

fs::path Join(fs::path root, const std::vector<std::string>& names) {
  for (const auto& name : names) root /= name;
  return root;
}

}  // namespace

// ---------------------------------------------------------------------------

std::string Sandbox::Unavailable() {
  static const std::string reason = FindWhySandboxesAreUnavailable();
  return reason;
}

fs::path Sandbox::DefaultStage() { return ORVANE_DEFAULT_STAGE_DIR; }

Sandbox::Sandbox(fs::path stage) : stage_(std::move(stage)) {
  if (auto reason = Unavailable(); !reason.empty())
    throw std::runtime_error("cannot build a sandbox: " + reason);
  if (!stage_.empty() && !fs::is_directory(stage_)) {
    throw std::runtime_error("the stage directory " + stage_.string() +
                             " does not exist; the install-stage test installs the build there");
  }
  try {
    Build();
  } catch (...) {
    TearDown();
    throw;
  }
}

Sandbox::~Sandbox() { TearDown(); }

// Everything that forks a helper happens before the listener thread starts.
void Sandbox::Build() {
  char pattern[] = "/tmp/orvane-sandbox-XXXXXX";
  if (::mkdtemp(pattern) == nullptr) throw SystemError("creating a directory in /tmp");
  base_ = pattern;
  MountHere("tmpfs", base_, "tmpfs", 0, "mode=0700");
  MountRootCopy();
  InstallStage();
  MakeDevices();
  syslog_ = std::make_unique<SyslogListener>(merged_ / "dev/log");
}

void Sandbox::MountRootCopy() {
  const fs::path upper = base_ / "upper";
  const fs::path work = base_ / "work";
  merged_ = base_ / "merged";
  for (const auto& directory : {upper, work, merged_}) fs::create_directory(directory);
  MountHere("overlay", merged_, "overlay", 0,
            "lowerdir=/,upperdir=" + upper.string() + ",workdir=" + work.string());
}

void Sandbox::InstallStage() {
  if (stage_.empty()) return;
  const fs::path mountPoint = merged_ / kStageMountPoint;
  fs::create_directory(mountPoint);
  RunInChild("installing " + stage_.string() + " into the sandbox", [&] {
    MustSucceed(::unshare(CLONE_NEWNS), "unshare");
    MustSucceed(::mount(stage_.c_str(), mountPoint.c_str(), nullptr, MS_BIND | MS_REC, nullptr),
                "bind-mounting the stage");
    // Read-only, so that the copy can never change the stage itself.
    MustSucceed(
        ::mount(nullptr, mountPoint.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr),
        "making the stage read-only");
    MustSucceed(::chroot(merged_.c_str()), "chroot");
    MustSucceed(::chdir("/"), "chdir");
    CopyTree(fs::path("/") / kStageMountPoint, "/");
  });
  // The bind mount died with the child's namespace; only the directory is left.
  fs::remove(mountPoint);
}

void Sandbox::MakeDevices() {
  const fs::path dev = merged_ / "dev";
  MountHere("tmpfs", dev, "tmpfs", MS_NOSUID | MS_NOEXEC, "mode=0755");
  for (const char* name : kHostDevices) {
    WriteHostFile(dev / name, "", 0666);
    MountHere(std::string("/dev/") + name, dev / name, nullptr, MS_BIND);
  }
  fs::create_directory_symlink("/proc/self/fd", dev / "fd");
  fs::create_symlink("/proc/self/fd/0", dev / "stdin");
  fs::create_symlink("/proc/self/fd/1", dev / "stdout");
  fs::create_symlink("/proc/self/fd/2", dev / "stderr");
  fs::create_directory(dev / "shm");
  fs::permissions(dev / "shm", fs::perms::all | fs::perms::sticky_bit);
  // Pseudo-terminals of the sandbox's own, for programs that play an
  // operator at a terminal; the host's terminals stay out of reach.
  fs::create_directory(dev / "pts");
  MountHere("devpts", dev / "pts", "devpts", MS_NOSUID | MS_NOEXEC,
            "newinstance,ptmxmode=0666,mode=0620");
  fs::create_symlink("pts/ptmx", dev / "ptmx");
  // Plain files instead of devices, so that tests can read what was written.
  WriteHostFile(dev / "kmsg", "", 0644);
  WriteHostFile(dev / "console", "", 0644);
}

void Sandbox::MountHere(const std::string& source, const fs::path& target, const char* type,
                        unsigned long flags, const std::string& options) {
  if (::mount(source.c_str(), target.c_str(), type, flags,
              options.empty() ? nullptr : options.c_str()) != 0) {
    throw SystemError("mounting " + source + " on " + target.string());
  }
  mounts_.push_back(target);
}

// Never throws: it runs in the destructor and after a failed construction.
// What cannot be cleaned up is reported, never silently left behind.
void Sandbox::TearDown() noexcept {
  syslog_.reset();
  for (auto mount = mounts_.rbegin(); mount != mounts_.rend(); ++mount) {
    if (::umount2(mount->c_str(), MNT_DETACH) != 0) {
      std::cerr << "sandbox: cannot unmount " << mount->string() << ": " << ErrorText(errno)
                << '\n';
    }
  }
  mounts_.clear();
  if (!base_.empty() && ::rmdir(base_.c_str()) != 0) {
    std::cerr << "sandbox: cannot remove " << base_.string() << ": " << ErrorText(errno) << '\n';
  }
}

// Walks the path the way the kernel would inside the sandbox's root: an
// absolute symlink restarts at the sandbox's "/", and ".." never climbs out.
fs::path Sandbox::Resolve(const fs::path& inSandbox, bool followLast) const {
  std::deque<std::string> pending = Components(inSandbox);
  std::vector<std::string> resolved;
  int hops = 0;
  while (!pending.empty()) {
    std::string name = std::move(pending.front());
    pending.pop_front();
    if (name == "..") {
      if (!resolved.empty()) resolved.pop_back();
      continue;
    }
    const fs::path candidate = Join(merged_, resolved) / name;
    std::error_code missing;
    const bool follow = followLast || !pending.empty();
    if (follow && fs::is_symlink(fs::symlink_status(candidate, missing))) {
      if (++hops > kMaxSymlinkHops)
        throw std::runtime_error("too many symlinks in " + inSandbox.string());
      const fs::path target = fs::read_symlink(candidate);
      if (target.is_absolute()) resolved.clear();
      const auto names = Components(target);
      pending.insert(pending.begin(), names.begin(), names.end());
      continue;
    }
    resolved.push_back(std::move(name));
  }
  return Join(merged_, resolved);
}

fs::path Sandbox::HostPath(const fs::path& inSandbox) const { return Resolve(inSandbox, true); }

void Sandbox::WriteFile(const fs::path& inSandbox, std::string_view content, mode_t mode) {
  const fs::path target = HostPath(inSandbox);
  fs::create_directories(target.parent_path());
  WriteHostFile(target, content, mode);
}

void Sandbox::CopyIn(const fs::path& hostFile, const fs::path& inSandbox, mode_t mode) {
  WriteFile(inSandbox, ReadHostFile(hostFile), mode);
}

void Sandbox::MakeDirectory(const fs::path& inSandbox) {
  fs::create_directories(HostPath(inSandbox));
}

// The last component is not followed: removing a symlink removes the link.
void Sandbox::Remove(const fs::path& inSandbox) {
  const fs::path target = Resolve(inSandbox, false);
  if (target == merged_) throw std::runtime_error("refusing to remove the sandbox's whole root");
  fs::remove_all(target);
}

bool Sandbox::Exists(const fs::path& inSandbox) const { return fs::exists(HostPath(inSandbox)); }

std::string Sandbox::ReadFile(const fs::path& inSandbox) const {
  const fs::path path = HostPath(inSandbox);
  if (!fs::exists(path))
    throw std::runtime_error("there is no " + inSandbox.string() + " in the sandbox");
  if (fs::is_directory(path))
    throw std::runtime_error(inSandbox.string() + " is a directory in the sandbox");
  return ReadHostFile(path);
}

RunResult Sandbox::Run(std::vector<std::string> argv, const RunSettings& settings) {
  if (argv.empty()) throw std::invalid_argument("Sandbox::Run needs at least the program's path");
  const std::string program = argv.front();
  Launch launch(std::move(argv), settings, base_, merged_);
  const pid_t child = ::fork();
  if (child < 0) throw SystemError("fork");
  if (child == 0) RunIntermediate(launch);
  // Only the children may hold the write end, so that reading ends with them.
  launch.reportWrite.Reset();
  const Outcome outcome = AwaitRun(child, launch, settings.timeout);
  RunResult result = ResultOf(outcome, program);
  result.out = ReadHostFile(base_ / "run-stdout");
  result.err = ReadHostFile(base_ / "run-stderr");
  return result;
}

std::string Sandbox::Kmsg() const { return ReadHostFile(merged_ / "dev/kmsg"); }

std::string Sandbox::Console() const { return ReadHostFile(merged_ / "dev/console"); }

std::vector<SyslogRecord> Sandbox::Syslog() { return syslog_->Records(); }

std::string ExpectedFile(std::string_view name) {
  const fs::path path = fs::path(ORVANE_E2E_EXPECTED_DIR) / name;
  if (!fs::is_regular_file(path)) throw std::runtime_error("no expected file " + path.string());
  return ReadHostFile(path);
}

}  // namespace orvane::testing
