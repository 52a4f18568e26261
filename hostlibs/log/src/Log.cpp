#include "log/Log.h"

#include <fcntl.h>
#include <pthread.h>
#include <spdlog/details/log_msg.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/sinks/syslog_sink.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdlib>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "log/Dictionary.h"
#include "log/Str.h"

/// One destination of messages: a spdlog sink and the highest level it takes.
struct LogOutput {
  std::shared_ptr<spdlog::sinks::sink> sink;
  int threshold;
};

namespace {

constexpr int kSyslogFacility = LOG_DAEMON;

struct ThresholdName {
  std::string_view name;
  int level;
};

constexpr ThresholdName kThresholdNames[] = {
    {"error", LOG_LEVEL_ERROR}, {"warning", LOG_LEVEL_WARNING}, {"notice", LOG_LEVEL_NOTICE},
    {"info", LOG_LEVEL_INFO},   {"debug", LOG_LEVEL_DEBUG},
};

std::optional<int> ThresholdFromName(std::string_view name) {
  for (const ThresholdName& entry : kThresholdNames) {
    if (entry.name == name) {
      return entry.level;
    }
  }
  return std::nullopt;
}

// spdlog has no notice level: notices are written at info, which syslog
// and the standard-output channel then show as information.
spdlog::level::level_enum SpdlogLevel(int level) {
  if (level <= LOG_LEVEL_ERROR) return spdlog::level::err;
  if (level == LOG_LEVEL_WARNING) return spdlog::level::warn;
  if (level <= LOG_LEVEL_INFO) return spdlog::level::info;
  return spdlog::level::debug;
}

/// The library's process-wide state: created on first use, never destroyed,
/// so that threads still logging while the process exits find it intact.
struct LogState {
  std::mutex mutex;
  std::string ident = "orvane";
  std::vector<std::unique_ptr<LogOutput>> outputs;
  bool syslogOpen = false;
  int stderrLevel = -1;
  std::shared_ptr<spdlog::sinks::sink> stderrSink;
  std::string productInfo;
  /// The highest level some output takes, read without the mutex so that a
  /// message nobody takes is not even formatted. Every change of the
  /// outputs or of stderrLevel updates it under the mutex.
  std::atomic<int> widestLevel{std::numeric_limits<int>::max()};

  void UpdateWidestLevel() {
    // Without outputs every message goes to standard error.
    int widest = outputs.empty() ? std::numeric_limits<int>::max() : stderrLevel;
    for (const auto& output : outputs) widest = std::max(widest, output->threshold);
    widestLevel.store(widest, std::memory_order_release);
  }
};

LogState& State();

// A process forked while another thread writes a message would inherit the
// library's mutex locked and hang at its first message (the executor's
// child logs before it detaches). Holding the mutex across fork keeps every
// output quiet at that moment, so the child starts with it free.
void LockForFork() { State().mutex.lock(); }
void UnlockAfterFork() { State().mutex.unlock(); }

LogState& State() {
  static LogState* state = [] {
    pthread_atfork(LockForFork, UnlockAfterFork, UnlockAfterFork);
    return new LogState;
  }();
  return *state;
}

std::unique_ptr<spdlog::formatter> StdioFormatter(bool timeStamps, bool milliseconds) {
  std::string pattern;
  if (timeStamps) {
    pattern = milliseconds ? "%Y-%m-%dT%H:%M:%S.%eZ " : "%Y-%m-%dT%H:%M:%SZ ";
  }
  pattern += "%n: %v";
  return std::make_unique<spdlog::pattern_formatter>(pattern, spdlog::pattern_time_type::utc, "\n");
}

bool IsOpenDescriptor(int descriptor) { return fcntl(descriptor, F_GETFL) != -1; }

// Messages carry their own line end by convention; every output adds one,
// so one trailing line end is dropped here rather than doubled there.
std::string_view WithoutLineEnd(std::string_view message) {
  if (!message.empty() && message.back() == '\n') {
    message.remove_suffix(1);
  }
  return message;
}

void Write(LogState& state, int level, std::string_view message) {
  spdlog::details::log_msg record(state.ident, SpdlogLevel(level), WithoutLineEnd(message));
  if (state.outputs.empty()) {
    std::fprintf(stderr, "%.*s\n", static_cast<int>(record.payload.size()), record.payload.data());
    return;
  }
  for (const auto& output : state.outputs) {
    if (level <= output->threshold) {
      output->sink->log(record);
    }
  }
  if (level <= state.stderrLevel) {
    if (!state.stderrSink) {
      state.stderrSink = std::make_shared<spdlog::sinks::stderr_sink_mt>();
      state.stderrSink->set_formatter(StdioFormatter(true, true));
    }
    state.stderrSink->log(record);
  }
}

void WriteFormatted(int level, const char* format, va_list arguments) {
  LogState& state = State();
  if (level > state.widestLevel.load(std::memory_order_acquire)) {
    return;
  }
  std::size_t length = 0;
  char* message = Str_SafeVasprintf(&length, format, arguments);
  {
    std::lock_guard lock(state.mutex);
    Write(state, level, std::string_view(message, length));
  }
  std::free(message);
}

}  // namespace

bool Log_InitWithSyslogInt(const char* ident, const Dictionary* settings) {
  std::string syslogIdent = Dict_GetString(settings, "log.syslogID", ident != nullptr ? ident : "");
  std::optional<int> threshold =
      ThresholdFromName(Dict_GetString(settings, "log.syslogLevel", "info"));
  LogState& state = State();
  std::lock_guard lock(state.mutex);
  if (syslogIdent.empty() || !threshold || state.syslogOpen) {
    return false;
  }
  // The sink keeps its own copy of the ident, which openlog needs for as
  // long as syslog stays open.
  auto sink =
      std::make_shared<spdlog::sinks::syslog_sink_mt>(syslogIdent, LOG_PID, kSyslogFacility, false);
  state.ident = syslogIdent;
  state.outputs.push_back(std::make_unique<LogOutput>(LogOutput{std::move(sink), *threshold}));
  state.syslogOpen = true;
  state.UpdateWidestLevel();
  return true;
}

LogOutput* Log_NewStdioOutput(const char* /*ident*/, const Dictionary* settings) {
  std::optional<int> threshold =
      ThresholdFromName(Dict_GetString(settings, "log.stdoutLevel", "info"));
  if (!threshold || !IsOpenDescriptor(STDOUT_FILENO)) {
    return nullptr;
  }
  auto sink = std::make_shared<spdlog::sinks::stdout_sink_mt>();
  sink->set_formatter(StdioFormatter(Dict_GetBool(settings, "log.useTimeStamps.stdio", false),
                                     Dict_GetBool(settings, "log.useMilliseconds.stdio", false)));
  return new LogOutput{std::move(sink), *threshold};
}

bool Log_AddOutput(LogOutput* output) {
  if (output == nullptr) {
    return false;
  }
  LogState& state = State();
  std::lock_guard lock(state.mutex);
  auto sameOutput = [output](const auto& existing) { return existing.get() == output; };
  if (std::any_of(state.outputs.begin(), state.outputs.end(), sameOutput)) {
    return false;
  }
  state.outputs.emplace_back(output);
  state.UpdateWidestLevel();
  return true;
}

void Log_SetStderrLevel(int level, std::uint32_t /*groupMask*/) {
  LogState& state = State();
  std::lock_guard lock(state.mutex);
  state.stderrLevel = level;
  state.UpdateWidestLevel();
}

void Log_SetProductInfo(const char* name, const char* version, const char* buildNumber,
                        const char* compilationOption) {
  LogState& state = State();
  std::lock_guard lock(state.mutex);
  state.productInfo =
      std::string(name) + " " + version + " " + buildNumber + " (" + compilationOption + ")";
}

const char* Log_GetProductInfo() {
  LogState& state = State();
  std::lock_guard lock(state.mutex);
  return state.productInfo.c_str();
}

void Log_Exit() {
  LogState& state = State();
  std::lock_guard lock(state.mutex);
  state.outputs.clear();  // the syslog sink closes syslog as it goes
  state.stderrSink.reset();
  state.syslogOpen = false;
  state.stderrLevel = -1;
  state.ident = "orvane";
  state.UpdateWidestLevel();
}

void Log_Level(int level, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  WriteFormatted(level, format, arguments);
  va_end(arguments);
}

void Warning(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  WriteFormatted(LOG_LEVEL_WARNING, format, arguments);
  va_end(arguments);
}
