// Daemon commands for the unit tests: scripts in a private directory, the
// run options a command runner reads, and a daemon plugin whose operations a
// test chooses.
#pragma once

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <string>
#include <thread>

#include "TemporaryDirectory.h"
#include "log/Log.h"
#include "orvaner/RunOptions.h"
#include "orvaner/plugins/DaemonPlugin.h"

extern char** environ;

namespace orvane::testing {

/// Sets the daemon settings of the process-wide run options for one test
/// and puts back everything it found.
class DaemonOptionsScope {
 public:
  DaemonOptionsScope(bool wait, std::uint32_t timeoutSeconds) : saved_(RunOptions::Instance()) {
    RunOptions& options = RunOptions::Instance();
    options.daemonWait = wait;
    options.daemonWaitTimeout = timeoutSeconds;
    options.environment = environ;
  }
  ~DaemonOptionsScope() { RunOptions::Instance() = saved_; }
  DaemonOptionsScope(const DaemonOptionsScope&) = delete;
  DaemonOptionsScope& operator=(const DaemonOptionsScope&) = delete;

 private:
  RunOptions saved_;
};

/// Writes an executable shell script @p name holding @p body into
/// @p directory and returns its path.
inline std::string WriteScript(const unit_testing::TemporaryDirectory& directory,
                               const std::string& name, const std::string& body) {
  directory.Write(name, "#!/bin/sh\n" + body + "\n");
  const std::string path = directory / name;
  ::chmod(path.c_str(), 0755);
  return path;
}

/// Waits up to five seconds for @p name of @p directory to exist.
inline bool AwaitFile(const unit_testing::TemporaryDirectory& directory, const std::string& name) {
  for (int attempt = 0; attempt < 500 && !directory.Exists(name); ++attempt) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return directory.Exists(name);
}

/// Ends a command that was deliberately left running: its script wrote its
/// process id to @p pidFile first.
inline void KillRecordedProcess(const unit_testing::TemporaryDirectory& directory,
                                const std::string& pidFile) {
  if (!AwaitFile(directory, pidFile)) return;
  const pid_t process = std::stoi(directory.Read(pidFile));
  ::kill(process, SIGKILL);
  ::waitpid(process, nullptr, 0);  // the test process is its parent
}

/// A daemon plugin whose start and stop commands the test sets.
class TestDaemon : public DaemonPlugin {
 public:
  explicit TestDaemon(std::string name, std::int32_t number = 0)
      : DaemonPlugin(std::move(name), number) {}
  using DaemonPlugin::SetOperation;
};

}  // namespace orvane::testing
