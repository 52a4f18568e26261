/// The boot-only work of init mode around the plugins: the syslog and event
/// daemons brought up before them, the syslog daemon told to reload after
/// them, and the configuration store told that boot-time configuration is
/// over. No step throws or ends the run: each failure is logged and the
/// next step follows.
#pragma once

#include "QorConfigStore/QorConfigStore.h"
#include "orvane/FixedPaths.h"

namespace orvane {

/// The programs and files of init mode: the host's fixed paths, or a test's
/// own.
struct InitModePaths {
  const char* syslogDaemon = paths::kSyslogDaemon;
  const char* eventDaemonScript = paths::kEventDaemonScript;
  const char* syslogConf = paths::kSyslogConf;
  const char* syslogUpgradeScript = paths::kSyslogUpgradeScript;
  const char* syslogDaemonPidFile = paths::kSyslogDaemonPidFile;
};

/// Runs "<syslog daemon> -i", then "<event daemon script> start", each with
/// @p environment and waited for; their results are ignored (a program that
/// cannot be executed is logged by its child).
void StartBootDaemons(char* const environment[], const InitModePaths& initPaths = {});

/// Runs the syslog configuration upgrade script when the syslog
/// configuration exists, then sends SIGUSR1 to the process named by the
/// syslog daemon's pid file. A pid that is not a positive number counts as
/// unreadable, so that the signal never reaches a process group.
void ReloadSyslogDaemon(const InitModePaths& initPaths = {});

/// Ends automatic configuration, then cleans up the boot state, in the host
/// configuration store; the clean-up is attempted even when the first call
/// threw. The calls are parameters so that tests can give failing ones.
void EndBootConfiguration(void (*endAutoConf)() = QorConfigStore::EndAutoConf,
                          void (*cleanupBootState)() = QorConfigStore::CleanupBootState);

}  // namespace orvane
