#include "orvaner/run/ProfilingLog.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>

#include "log/Log.h"
#include "orvaner/run/afstream.h"

namespace orvane {
namespace {

constexpr std::uint64_t kMicrosecondsPerSecond = 1000000;

constexpr const char* kBootTag = " sysboot: ";
constexpr const char* kDaemonTag = " daemon: ";

// One line per plugin: "[start - end] <tag><name>", flushed so that a
// reader of the temporary file sees every finished line.
void WritePluginLines(std::ostream& out, const PluginList& plugins, const char* tag) {
  for (const Plugin* plugin : plugins) {
    out << '[' << FormatProfilingTime(plugin->GetStartTime()) << " - "
        << FormatProfilingTime(plugin->GetEndTime()) << ']' << tag << plugin->Name() << std::endl;
  }
}

// The option lines that end both blocks.
void WriteOptionLines(std::ostream& out, const RunOptions& options) {
  out << " Verbose: " << static_cast<int>(options.verbose) << '\n'
      << " Parallel: " << static_cast<int>(options.parallel) << '\n'
      << " Randomize: " << static_cast<int>(options.randomize) << '\n'
      << " Interactive Mode: " << static_cast<int>(options.interactive) << '\n'
      << " Random Seed: " << options.randomSeed << '\n';
}

}  // namespace

std::string FormatProfilingTime(const timeval& time) {
  const std::time_t seconds = time.tv_sec;
  std::tm calendar{};
  gmtime_r(&seconds, &calendar);
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.%06ld", calendar.tm_year + 1900,
                calendar.tm_mon + 1, calendar.tm_mday, calendar.tm_hour, calendar.tm_min,
                calendar.tm_sec, static_cast<long>(time.tv_usec));
  return text;
}

void WriteBootBlock(std::ostream& out, const PluginList& plugins, const RunOptions& options,
                    const RunState& state) {
  // Only whole seconds of uptime are known.
  const std::uint64_t kernelMicroseconds =
      static_cast<std::uint64_t>(state.kernelUptimeSeconds) * kMicrosecondsPerSecond;
  out << "ZELKernel Initialization Time: " << kernelMicroseconds << '\n';
  WritePluginLines(out, plugins, kBootTag);
  out << "=== Orvane configuration info ===\n"
      << " Start: " << FormatProfilingTime(state.startTime) << '\n'
      << " End: " << FormatProfilingTime(state.endTime) << '\n';
  WriteOptionLines(out, options);
}

void WriteDaemonBlock(std::ostream& out, const PluginList& plugins, const RunOptions& options,
                      const RunState& state) {
  WritePluginLines(out, plugins, kDaemonTag);
  out << "=== Daemon configuration info ===\n"
      << " Start Daemon: " << FormatProfilingTime(state.startTime) << '\n'
      << " End Daemon: " << FormatProfilingTime(state.endTime) << '\n';
  WriteOptionLines(out, options);
}

void WriteBootProfile(const PluginList& plugins, const RunOptions& options, const RunState& state,
                      const std::string& path) {
  afstream log;
  try {
    log.open(path, std::ios_base::out);
  } catch (const std::exception&) {
    // afstream leaves errno at the cause of the failed open.
    Log_Level(LOG_LEVEL_ERROR, "unable to open profiling log (%s): %s.\n", path.c_str(),
              std::strerror(errno));
    return;
  }
  try {
    WriteBootBlock(log, plugins, options, state);
    log.commit();
  } catch (const std::exception& error) {
    Log_Level(LOG_LEVEL_WARNING, "unable to log profiling information: %s.\n", error.what());
  }
}

void WriteDaemonProfile(const PluginList& plugins, const RunOptions& options, const RunState& state,
                        const std::string& path) {
  afstream log;
  try {
    log.open_append(path, std::ios_base::out);
  } catch (const std::exception&) {
    Log_Level(LOG_LEVEL_ERROR, "unable to reopen profiling log (%s): %s.\n", path.c_str(),
              std::strerror(errno));
    return;
  }
  try {
    WriteDaemonBlock(log, plugins, options, state);
    log.commit();
  } catch (const std::exception& error) {
    Log_Level(LOG_LEVEL_WARNING, "unable to log daemon profiling information: %s.\n", error.what());
  }
}

void WriteProfilingLog(const PluginList& plugins, const RunOptions& options, const RunState& state,
                       const std::string& path) {
  if (options.invoke) {
    return;
  }
  if (state.daemon) {
    WriteDaemonProfile(plugins, options, state, path);
  } else {
    WriteBootProfile(plugins, options, state, path);
  }
}

}  // namespace orvane
