/// The boot profiling log: when each plugin ran, and with which options.
#pragma once

#include <sys/time.h>

#include <ostream>
#include <string>

#include "orvane/FixedPaths.h"
#include "orvaner/RunOptions.h"
#include "orvaner/plugins/Plugin.h"
#include "orvaner/run/RunState.h"

namespace orvane {

/// @p time in UTC as "YYYY-MM-DD hh:mm:ss.uuuuuu".
std::string FormatProfilingTime(const timeval& time);

/// The boot block: the kernel's initialisation time, one "sysboot" line per
/// plugin in list order (flushed after each), then the run's times and
/// options.
void WriteBootBlock(std::ostream& out, const PluginList& plugins, const RunOptions& options,
                    const RunState& state);

/// The daemon block: one "daemon" line per plugin, then the run's times and
/// options; no kernel time.
void WriteDaemonBlock(std::ostream& out, const PluginList& plugins, const RunOptions& options,
                      const RunState& state);

/// Replaces the log at @p path with a boot block, in one step. Failures are
/// logged, never thrown.
void WriteBootProfile(const PluginList& plugins, const RunOptions& options, const RunState& state,
                      const std::string& path = paths::kProfilingLog);

/// Replaces the log at @p path with its former contents followed by a
/// daemon block, in one step. Failures are logged, never thrown.
void WriteDaemonProfile(const PluginList& plugins, const RunOptions& options, const RunState& state,
                        const std::string& path = paths::kProfilingLog);

/// The closing steps' profiling log: nothing in invoke mode, the daemon
/// block in daemon mode, the boot block otherwise (dump runs included).
/// The caller has read the run's end time.
void WriteProfilingLog(const PluginList& plugins, const RunOptions& options, const RunState& state,
                       const std::string& path = paths::kProfilingLog);

}  // namespace orvane
