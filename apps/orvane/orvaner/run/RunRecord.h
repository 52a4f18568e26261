/// The run record: what a run loaded and what became of every vertex, one
/// JSON line per fact, under /var/log/orvane/runs (doc/RUN-RECORD.md).
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>

#include "orvane/FixedPaths.h"
#include "orvaner/graph/PassObserver.h"

namespace orvane {

class LoadedPlugins;
class Node;
struct RunOptions;
struct RunState;

/// Writes the record of one run as it goes: Open writes the header and the
/// graph as loaded, the pass reports its steps as a PassObserver, End
/// writes the last line.
///
/// Lines gather in memory and go to the file in batches of whole lines,
/// each batch with one write, so a run killed midway leaves whole lines and
/// the workers never wait for the disk. A plugin's start is written before
/// the plugin runs, with every line before it: a boot that hangs in a
/// plugin has that plugin's start in its record. The other lines follow
/// within kFlushInterval, written by a thread of the record's own (or at
/// once, each, when that thread cannot be started).
///
/// A record never changes the run: the first thing that cannot be written
/// is logged at level 3 and nothing more is recorded. Until Open succeeds,
/// every call does nothing.
class RunRecord : public PassObserver {
 public:
  /// Records kept in the runs directory: the newest ones.
  static constexpr std::size_t kKeptRecords = 20;
  /// The longest a line other than a start waits in memory.
  static constexpr std::chrono::milliseconds kFlushInterval{20};

  RunRecord() = default;
  ~RunRecord() override;
  RunRecord(const RunRecord&) = delete;
  RunRecord& operator=(const RunRecord&) = delete;

  /// Creates this run's record in @p directory/runs (made when missing),
  /// points @p directory/last.jsonl at it, removes all but the newest
  /// kKeptRecords records, and writes the header and the graph: the
  /// plugins and refusals of @p plugins in load order, then @p barriers.
  void Open(const RunOptions& options, const RunState& state, const LoadedPlugins& plugins,
            const std::deque<Node*>& barriers,
            const std::string& directory = paths::kRunRecordDirectory);

  /// Writes the end line with the run's exit @p status.
  void End(int status);

  /// The record's path; empty until Open succeeded.
  const std::string& Path() const { return path_; }

  void VertexReady(const Node& node) override;
  void VertexDone(const Node& node) override;
  void ActivationStarted(const Node& plugin) override;
  void ActivationFinished(const Node& plugin, Outcome outcome, const std::string& reason) override;

 private:
  bool CreateFile(const std::string& directory, const std::string& name);
  void WriteGraph(const LoadedPlugins& plugins, const std::deque<Node*>& barriers);
  /// Microseconds since the run's start on the monotonic clock.
  long long Now() const;
  /// The id of @p node, or -1 for a vertex that takes no part in the run.
  int IdOf(const Node& node) const;
  /// An event line for @p node of @p type, taken now by this thread; @p rest
  /// is more fields, each beginning with a comma. With @p flush, the line
  /// and all before it are written before this returns.
  void WriteEvent(const char* type, const Node& node, const std::string& rest = {},
                  bool flush = false);
  /// Adds @p line and a line end to the lines not yet written; the caller
  /// holds mutex_.
  void Append(const std::string& line);
  /// Writes every line gathered so far, in one write.
  void Flush();
  /// Appends @p batch, whole lines, to the file; on failure cuts the file
  /// back to whole lines, reports it once and stops recording.
  void WriteBatch(const std::string& batch);
  void Fail(const std::string& what, int error);
  /// Starts the thread that writes what gathers; false when it cannot run.
  bool StartWriter();
  /// Stops that thread, if it runs, and writes what is left.
  void StopWriter();

  std::mutex mutex_;     ///< guards pending_ and stopping_; lines are added in time order
  std::string pending_;  ///< whole lines not yet written
  bool stopping_ = false;
  std::condition_variable wake_;  ///< tells the writer to stop
  std::thread writer_;
  /// False when no writer runs: each line is then written as it comes.
  std::atomic<bool> writerRuns_ = false;
  /// One batch at a time, in the order their lines were gathered.
  std::mutex flushMutex_;
  std::string batch_;  ///< the batch being written; guarded by flushMutex_
  /// The record's file; -1 when there is none (never opened, ended or failed).
  std::atomic<int> descriptor_ = -1;
  std::string path_;
  std::size_t size_ = 0;  ///< bytes of whole lines written; guarded by flushMutex_
  std::chrono::steady_clock::time_point start_;
  /// Every vertex of the run: its id, and whether it is a barrier.
  struct Vertex {
    int id;
    bool barrier;
  };
  std::unordered_map<const Node*, Vertex> vertices_;
};

}  // namespace orvane
