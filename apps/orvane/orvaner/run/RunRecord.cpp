#include "orvaner/run/RunRecord.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <boost/json/serialize.hpp>
#include <boost/json/string_view.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <string_view>
#include <vector>

#include "ProductState/ProductState.h"
#include "log/Log.h"
#include "orvaner/RunOptions.h"
#include "orvaner/graph/Executor.h"
#include "orvaner/graph/GraphLock.h"
#include "orvaner/graph/Node.h"
#include "orvaner/graph/PriorityBarrier.h"
#include "orvaner/plugins/DebugPlugin.h"
#include "orvaner/plugins/JSONPlugin.h"
#include "orvaner/plugins/LegacyDaemonPlugin.h"
#include "orvaner/plugins/LoadedPlugins.h"
#include "orvaner/plugins/NativePlugin.h"
#include "orvaner/run/RunState.h"

#ifndef ORVANE_RUN_RECORD
#define ORVANE_RUN_RECORD 1
#endif

namespace orvane {
namespace {

constexpr int kSchema = 1;
constexpr const char* kRunsDirectory = "runs";
constexpr const char* kLastLink = "last.jsonl";
constexpr const char* kRecordExtension = ".jsonl";
constexpr mode_t kDirectoryMode = 0755;
constexpr mode_t kRecordMode = 0644;
// A run started in the same second as another gets "-2", "-3"... after its mode.
constexpr int kMaxSameSecondRuns = 100;

// ---- JSON text

/// @p text as a JSON string: quotes, backslashes and control characters
/// escaped, every other byte as it is.
std::string Quoted(std::string_view text) {
  return boost::json::serialize(boost::json::string_view(text.data(), text.size()));
}

template <typename Items, typename AppendItem>
std::string List(const Items& items, AppendItem appendItem) {
  std::string list = "[";
  for (const auto& item : items) {
    if (list.size() > 1) list += ',';
    appendItem(list, item);
  }
  return list + "]";
}

std::string StringList(const auto& strings) {
  return List(strings, [](std::string& list, const std::string& text) { list += Quoted(text); });
}

const char* Boolean(bool value) { return value ? "true" : "false"; }

// ---- times and names

/// "2026-11-24T15:14:00.123456Z".
std::string IsoTime(const timeval& time) {
  std::tm calendar{};
  const time_t seconds = time.tv_sec;
  gmtime_r(&seconds, &calendar);
  char text[96];  // room for any int the fields could hold
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ", calendar.tm_year + 1900,
                calendar.tm_mon + 1, calendar.tm_mday, calendar.tm_hour, calendar.tm_min,
                calendar.tm_sec, static_cast<long>(time.tv_usec));
  return text;
}

/// "20261124T151400Z": record names sort by their start.
std::string NameTime(const timeval& time) {
  std::tm calendar{};
  const time_t seconds = time.tv_sec;
  gmtime_r(&seconds, &calendar);
  char text[32];
  std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &calendar);
  return text;
}

long long EpochMicroseconds(const timeval& time) {
  return static_cast<long long>(time.tv_sec) * 1000000 + time.tv_usec;
}

const char* ModeName(const RunOptions& options, const RunState& state) {
  if (state.daemon) return "daemon";
  if (options.invoke) return "invoke";
  if (state.init) return "init";
  return "plain";
}

const char* KindName(const Node& plugin) {
  if (dynamic_cast<const JSONPlugin*>(&plugin) != nullptr) return "json";
  if (dynamic_cast<const NativePlugin*>(&plugin) != nullptr) return "native";
  if (dynamic_cast<const DebugPlugin*>(&plugin) != nullptr) return "debug";
  if (dynamic_cast<const LegacyDaemonPlugin*>(&plugin) != nullptr) return "legacy-daemon";
  if (dynamic_cast<const DaemonPlugin*>(&plugin) != nullptr) return "daemon";
  return "plugin";
}

std::string HostName() {
  char name[256] = {};
  if (gethostname(name, sizeof name - 1) != 0) return "";
  return name;
}

bool MakeDirectory(const std::string& path) {
  return mkdir(path.c_str(), kDirectoryMode) == 0 || errno == EEXIST;
}

/// The names of the records in @p runs, oldest first.
std::vector<std::string> RecordNames(const std::string& runs) {
  std::vector<std::string> names;
  DIR* directory = opendir(runs.c_str());
  if (directory == nullptr) return names;
  while (const dirent* entry = readdir(directory)) {
    const std::string name = entry->d_name;
    if (name.ends_with(kRecordExtension)) names.push_back(name);
  }
  closedir(directory);
  std::sort(names.begin(), names.end());
  return names;
}

/// Removes the oldest records of @p runs beyond kKeptRecords, never @p keep.
void RemoveOldRecords(const std::string& runs, const std::string& keep) {
  std::vector<std::string> names = RecordNames(runs);
  std::erase(names, keep);
  const std::size_t others = RunRecord::kKeptRecords - 1;
  for (std::size_t index = 0; index + others < names.size(); ++index) {
    unlink((runs + "/" + names[index]).c_str());
  }
}

}  // namespace

RunRecord::~RunRecord() {
  StopWriter();
  Flush();
  if (const int descriptor = descriptor_.exchange(-1); descriptor >= 0) close(descriptor);
}

void RunRecord::Open(const RunOptions& options, const RunState& state, const LoadedPlugins& plugins,
                     const std::deque<Node*>& barriers, const std::string& directory) {
  if (!ORVANE_RUN_RECORD) return;
  start_ = state.startMonotonic;
  const std::string mode = ModeName(options, state);
  if (!CreateFile(directory, NameTime(state.startTime) + "-" + mode)) return;

  std::string header = "{\"type\":\"header\",\"schema\":" + std::to_string(kSchema) +
                       ",\"mode\":" + Quoted(mode) + ",\"method\":" + Quoted(options.method);
  header += ",\"options\":{\"parallel\":" + std::string(Boolean(options.parallel)) +
            ",\"threads\":" + std::to_string(options.threadCount) +
            ",\"randomize\":" + Boolean(options.randomize) +
            ",\"seed\":" + std::to_string(options.randomSeed) +
            ",\"interactive\":" + Boolean(options.interactive) +
            ",\"trace\":" + Boolean(options.trace) + ",\"init\":" + Boolean(state.init) +
            ",\"invoke\":" + Boolean(options.invoke) +
            ",\"pluginFlags\":" + StringList(state.pluginFlags) +
            ",\"disabledPlugins\":" + StringList(options.disabledPlugins) +
            ",\"pluginDirectory\":" + Quoted(options.pluginDirectory) + "}";
  header += ",\"start\":" + Quoted(IsoTime(state.startTime)) +
            ",\"startMicroseconds\":" + std::to_string(EpochMicroseconds(state.startTime)) +
            ",\"host\":" + Quoted(HostName()) + ",\"pid\":" + std::to_string(getpid()) +
            ",\"version\":" + Quoted(ProductState_GetVersion()) + "}";
  {
    std::lock_guard<std::mutex> lock(mutex_);
    Append(header);
  }
  WriteGraph(plugins, barriers);
  Flush();
  writerRuns_ = StartWriter();
}

bool RunRecord::CreateFile(const std::string& directory, const std::string& name) {
  const std::string runs = directory + "/" + kRunsDirectory;
  if (!MakeDirectory(directory) || !MakeDirectory(runs)) {
    Fail("cannot make " + runs, errno);
    return false;
  }
  const std::string runsPrefix = runs + "/";
  std::string fileName;
  int descriptor = -1;
  for (int attempt = 1; attempt <= kMaxSameSecondRuns && descriptor < 0; ++attempt) {
    fileName = name;
    if (attempt > 1) fileName += "-" + std::to_string(attempt);
    fileName += kRecordExtension;
    path_ = runsPrefix + fileName;
    descriptor = open(path_.c_str(),
                      O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC | O_NOFOLLOW, kRecordMode);
    if (descriptor < 0 && errno != EEXIST) break;
  }
  descriptor_ = descriptor;
  if (descriptor < 0) {
    Fail("cannot create " + path_, errno);
    path_.clear();
    return false;
  }
  // The newest record, one step: a new link renamed over the old one.
  const std::string link = directory + "/" + kLastLink;
  const std::string newLink = link + ".new." + std::to_string(getpid());
  unlink(newLink.c_str());
  if (symlink((std::string(kRunsDirectory) + "/" + fileName).c_str(), newLink.c_str()) != 0 ||
      rename(newLink.c_str(), link.c_str()) != 0) {
    Log_Level(LOG_LEVEL_WARNING, "unable to point %s at the run record %s: %s\n", link.c_str(),
              path_.c_str(), std::strerror(errno));
    unlink(newLink.c_str());
  }
  RemoveOldRecords(runs, fileName);
  return true;
}

void RunRecord::WriteGraph(const LoadedPlugins& plugins, const std::deque<Node*>& barriers) {
  GraphLockGuard lock;
  std::lock_guard<std::mutex> gathering(mutex_);
  int nextId = 0;
  for (const LoadedPlugins::LoadEntry& entry : plugins.LoadLog()) {
    if (!entry.refused) vertices_[entry.plugin] = {nextId++, false};
  }
  for (const Node* barrier : barriers) vertices_[barrier] = {nextId++, true};

  const auto ids = [this](const std::vector<Node*>& nodes) {
    std::vector<int> known;
    for (const Node* node : nodes) {
      if (const int id = IdOf(*node); id >= 0) known.push_back(id);
    }
    return List(known, [](std::string& list, int id) { list += std::to_string(id); });
  };
  for (const LoadedPlugins::LoadEntry& entry : plugins.LoadLog()) {
    if (entry.refused) {
      Append("{\"type\":\"refused\",\"file\":" + Quoted(entry.source) +
             ",\"name\":" + Quoted(entry.name) + ",\"reason\":" + Quoted(entry.reason) + "}");
      continue;
    }
    const Plugin& plugin = *entry.plugin;
    std::string source = entry.source;
    if (const auto* daemon = dynamic_cast<const LegacyDaemonPlugin*>(&plugin)) {
      source = daemon->Script();
    }
    const std::string runOnceKey =
        plugin.IsRunOnce() ? Quoted(plugin.Name() + plugin.GetPluginVersion()) : "null";
    // Only a run-once plugin whose key was found is done before the pass.
    const bool alreadyRun = plugin.State() == NodeState::Started;
    Append("{\"type\":\"plugin\",\"id\":" + std::to_string(IdOf(plugin)) +
           ",\"name\":" + Quoted(plugin.Name()) + ",\"kind\":" + Quoted(KindName(plugin)) +
           ",\"file\":" + Quoted(source) + ",\"requires\":" + ids(plugin.Predecessors()) +
           ",\"provides\":" + ids(plugin.Successors()) +
           ",\"apiVersion\":" + std::to_string(plugin.GetApiVersion()) +
           ",\"runOnceKey\":" + runOnceKey + ",\"alreadyRun\":" + Boolean(alreadyRun) + "}");
  }
  for (const Node* barrier : barriers) {
    const bool priority = dynamic_cast<const PriorityBarrier*>(barrier) != nullptr;
    Append("{\"type\":\"barrier\",\"id\":" + std::to_string(IdOf(*barrier)) + ",\"name\":" +
           Quoted(barrier->Name()) + ",\"kind\":" + Quoted(priority ? "priority" : "init") +
           ",\"requires\":" + ids(barrier->Predecessors()) +
           ",\"provides\":" + ids(barrier->Successors()) + "}");
  }
}

void RunRecord::End(int status) {
  if (descriptor_ < 0) return;
  timeval now{};
  gettimeofday(&now, nullptr);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    Append("{\"type\":\"end\",\"t\":" + std::to_string(Now()) +
           ",\"status\":" + std::to_string(status) + ",\"end\":" + Quoted(IsoTime(now)) + "}");
  }
  StopWriter();
  Flush();
  if (const int descriptor = descriptor_.exchange(-1); descriptor >= 0) close(descriptor);
}

void RunRecord::VertexReady(const Node& node) { WriteEvent("ready", node); }

void RunRecord::VertexDone(const Node& node) {
  const auto vertex = vertices_.find(&node);
  if (vertex != vertices_.end() && vertex->second.barrier) WriteEvent("barrier-done", node);
}

// Written before the plugin runs: a plugin that never returns is in the
// record as started.
void RunRecord::ActivationStarted(const Node& plugin) { WriteEvent("start", plugin, {}, true); }

void RunRecord::ActivationFinished(const Node& plugin, Outcome outcome, const std::string& reason) {
  switch (outcome) {
    case Outcome::Activated: WriteEvent("finish", plugin, ",\"outcome\":\"activated\""); return;
    case Outcome::Skipped: WriteEvent("finish", plugin, ",\"outcome\":\"skipped\""); return;
    case Outcome::Failed:
      WriteEvent("finish", plugin, ",\"outcome\":\"failed\",\"reason\":" + Quoted(reason));
      return;
  }
}

long long RunRecord::Now() const {
  return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() -
                                                               start_)
      .count();
}

int RunRecord::IdOf(const Node& node) const {
  const auto vertex = vertices_.find(&node);
  return vertex == vertices_.end() ? -1 : vertex->second.id;
}

// A record that failed, or was never opened, costs an event nothing more
// than this test; the mutex is taken only while there is a file to write.
void RunRecord::WriteEvent(const char* type, const Node& node, const std::string& rest,
                           bool flush) {
  if (descriptor_ < 0) return;
  const int id = IdOf(node);
  if (id < 0) return;
  const int worker = Executor::CurrentWorker();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    Append(std::string("{\"type\":\"") + type + "\",\"t\":" + std::to_string(Now()) +
           ",\"worker\":" + std::to_string(worker) + ",\"id\":" + std::to_string(id) + rest + "}");
  }
  if (flush || !writerRuns_.load(std::memory_order_relaxed)) Flush();
}

void RunRecord::Append(const std::string& line) {
  if (descriptor_ < 0) return;
  pending_ += line;
  pending_ += '\n';
}

void RunRecord::Flush() {
  std::lock_guard<std::mutex> flushing(flushMutex_);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    batch_.swap(pending_);
  }
  if (!batch_.empty()) WriteBatch(batch_);
  batch_.clear();
}

void RunRecord::WriteBatch(const std::string& batch) {
  const int descriptor = descriptor_;
  if (descriptor < 0) return;
  std::size_t written = 0;
  while (written < batch.size()) {
    const ssize_t count = write(descriptor, batch.data() + written, batch.size() - written);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) {
      const int error = count < 0 ? errno : ENOSPC;
      // What a full disk let through is cut back to its whole lines: the
      // record stays a run of whole lines.
      const std::size_t lastLineEnd =
          written == 0 ? std::string::npos : batch.rfind('\n', written - 1);
      const std::size_t whole = lastLineEnd == std::string::npos ? 0 : lastLineEnd + 1;
      if (written != whole && ftruncate(descriptor, static_cast<off_t>(size_ + whole)) != 0) {
        Log_Level(LOG_LEVEL_WARNING, "unable to cut the run record %s back to whole lines: %s\n",
                  path_.c_str(), std::strerror(errno));
      }
      Fail("cannot write " + path_, error);
      return;
    }
    written += static_cast<std::size_t>(count);
  }
  size_ += written;
}

bool RunRecord::StartWriter() {
  if (descriptor_ < 0) return false;
  try {
    writer_ = std::thread([this] {
      std::unique_lock<std::mutex> lock(mutex_);
      while (!stopping_) {
        wake_.wait_for(lock, kFlushInterval, [this] { return stopping_; });
        if (pending_.empty()) continue;
        lock.unlock();
        Flush();
        lock.lock();
      }
    });
    return true;
  } catch (const std::exception& error) {
    Log_Level(LOG_LEVEL_WARNING, "writing the run record %s line by line: %s\n", path_.c_str(),
              error.what());
    return false;
  }
}

void RunRecord::StopWriter() {
  if (!writer_.joinable()) return;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  writer_.join();
  writerRuns_ = false;
}

void RunRecord::Fail(const std::string& what, int error) {
  Log_Level(LOG_LEVEL_WARNING, "unable to write the run record: %s: %s\n", what.c_str(),
            std::strerror(error));
  if (const int descriptor = descriptor_.exchange(-1); descriptor >= 0) close(descriptor);
}

}  // namespace orvane
