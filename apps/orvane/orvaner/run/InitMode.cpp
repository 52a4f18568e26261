#include "orvaner/run/InitMode.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>
#include <sstream>
#include <string>

#include "hostfile/HostFile.h"
#include "log/Log.h"
#include "orvaner/run/RunProgram.h"
#include "process/Spawner.h"

namespace orvane {
namespace {

constexpr const char* kSyslogDaemonInitOption = "-i";
constexpr const char* kStartMethod = "start";

// RunProgram takes the non-const vector that execve takes; the strings are
// never written to.
void RunAndForget(const char* program, const char* argument, char* const environment[]) {
  char* const argv[] = {const_cast<char*>(program), const_cast<char*>(argument), nullptr};
  RunProgram(argv, environment);
}

void UpgradeSyslogConfiguration(const InitModePaths& initPaths) {
  if (access(initPaths.syslogConf, F_OK) != 0) return;
  // Only a shell that could not be run is reported; what the script itself
  // ends with is not.
  if (!process::Spawner::Instance().RunShellCommand(initPaths.syslogUpgradeScript).Collected()) {
    Log_Level(LOG_LEVEL_ERROR, "failed to call %s\n", initPaths.syslogUpgradeScript);
  }
}

// A pid file holds one decimal number and a line end.
constexpr std::size_t kMaxPidFileSize = 64;

// The stream throws when no number can be read; zero or a negative number
// would make kill signal a whole process group, so it is refused as well.
pid_t ReadPid(const std::string& text) {
  std::istringstream pidFile(text);
  pidFile.exceptions(std::ios::failbit | std::ios::badbit);
  long pid = 0;
  pidFile >> pid;
  if (pid <= 0 || pid != static_cast<pid_t>(pid)) {
    throw std::ios::failure("not a process id");
  }
  return static_cast<pid_t>(pid);
}

// The open failure names the kernel-side daemon although the file is the
// user-space daemon's; the text is kept as the host has always logged it.
// Something that is not a regular file there (a FIFO would never answer)
// cannot be opened as a pid file either.
void SignalSyslogDaemon(const InitModePaths& initPaths) {
  const hostfile::FileContent pidFile =
      hostfile::ReadHostFile(initPaths.syslogDaemonPidFile, kMaxPidFileSize);
  if (pidFile.status == hostfile::ReadStatus::CannotOpen ||
      pidFile.status == hostfile::ReadStatus::NotRegular) {
    Log_Level(LOG_LEVEL_WARNING, "unable to open zelksyslogd pid file.\n");
    return;
  }
  pid_t daemon = 0;
  try {
    if (!pidFile.Ok()) throw std::ios::failure(pidFile.Problem());
    daemon = ReadPid(pidFile.text);
  } catch (const std::exception&) {
    Log_Level(LOG_LEVEL_ERROR, "unable to read zelsyslogd pid.\n");
    return;
  }
  if (kill(daemon, SIGUSR1) != 0) {
    Log_Level(LOG_LEVEL_WARNING, "failed to reload zelsyslogd: %s.\n", std::strerror(errno));
  }
}

}  // namespace

void StartBootDaemons(char* const environment[], const InitModePaths& initPaths) {
  RunAndForget(initPaths.syslogDaemon, kSyslogDaemonInitOption, environment);
  RunAndForget(initPaths.eventDaemonScript, kStartMethod, environment);
}

void ReloadSyslogDaemon(const InitModePaths& initPaths) {
  UpgradeSyslogConfiguration(initPaths);
  SignalSyslogDaemon(initPaths);
}

// An exception of unknown type gets the message without its text, so that
// it cannot end the run before the next call.
void EndBootConfiguration(void (*endAutoConf)(), void (*cleanupBootState)()) {
  try {
    endAutoConf();
  } catch (const std::exception& error) {
    Log_Level(LOG_LEVEL_ERROR, "Failed to disable autoconf: %s\n", error.what());
  } catch (...) {
    Log_Level(LOG_LEVEL_ERROR, "Failed to disable autoconf\n");
  }
  try {
    cleanupBootState();
  } catch (const std::exception& error) {
    Log_Level(LOG_LEVEL_ERROR, "Failed to cleanup boot state: %s\n", error.what());
  } catch (...) {
    Log_Level(LOG_LEVEL_ERROR, "Failed to cleanup boot state\n");
  }
}

}  // namespace orvane
