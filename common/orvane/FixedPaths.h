// Every fixed path of the host that orvane reads, writes or runs, in one
// place, so that a reader (and the end-to-end tests, which lay out a host
// copy with exactly these paths) sees them together.
#pragma once

namespace orvane::paths {

// Plugins and their configuration.
inline constexpr const char* kPluginDirectory = "/usr/libexec/orvane/plugins";
inline constexpr const char* kDebugConfiguration = "/etc/talvek/orvane/debug.conf";
inline constexpr const char* kNativeExecutor = "/usr/lib/talvek/orvane/nativeExecutor";
inline constexpr const char* kRunOnceRecord = "/bootbank/orvstate.gz";
inline constexpr const char* kHostProfile = "/etc/talvek/hostprofile.xml";
inline constexpr const char* kHostProfileGz = "/etc/talvek/hostprofile.xml.gz";
inline constexpr const char* kStatelessMarker = "/stateless.tgz";

// Logs written by a run.
inline constexpr const char* kProfilingLog = "/var/log/sysboot.log";
inline constexpr const char* kExecutorOutputLog = "/var/log/orvane-qorcli-stdout.log";
// The run records (runs/<start>-<mode>.jsonl) and the link to the newest.
inline constexpr const char* kRunRecordDirectory = "/var/log/orvane";

// The CLI executor process and the host CLI's command definitions, in the
// order the dispatcher reads them.
inline constexpr const char* kExecutorSocket = "/var/run/talvek/orvaneExecutor.sock";
inline constexpr const char* kQorcliDirectories[] = {
    "/usr/lib/talvek/qorcli",
    "/usr/lib/talvek/qorcli/int",
    "/usr/lib/talvek/qorcli/int/ext",
    "/usr/lib/talvek/qorcli/ext",
};

// Services started or signalled in init mode.
inline constexpr const char* kSyslogDaemon = "/usr/lib/talvek/zelsyslog/bin/zelsyslogd";
inline constexpr const char* kSyslogUpgradeScript =
    "/usr/lib/talvek/zelsyslog/bin/upgrade-syslog.conf.sh";
inline constexpr const char* kSyslogConf = "/etc/syslog.conf";
inline constexpr const char* kSyslogDaemonPidFile = "/var/run/talvek/zelsyslogd.pid";
inline constexpr const char* kEventDaemonScript = "/etc/init.d/wexd";
inline constexpr const char* kChkconfig = "/bin/chkconfig";

// Devices and programs of the host.
inline constexpr const char* kDevNull = "/dev/null";
inline constexpr const char* kDevLog = "/dev/log";
inline constexpr const char* kConsole = "/dev/console";
inline constexpr const char* kKernelLog = "/dev/kmsg";
inline constexpr const char* kShell = "/bin/sh";
inline constexpr const char* kRoot = "/";

}  // namespace orvane::paths
