/// A run record as orvane-analyze reads it: the header, every vertex of the
/// graph with the times of its events, the refused plugin files and the end
/// line when there is one (doc/RUN-RECORD.md). Edges are indices into
/// Record::vertices, so that the commands walk the graph without lookups.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace orvane::analyze {

/// One event of a vertex: when (microseconds since the run's start), on
/// which worker (-1 for the main thread), and the record line that said so;
/// the line orders events of equal time.
struct Moment {
  std::int64_t t = 0;
  std::int64_t worker = -1;
  std::size_t line = 0;
};

/// What became of a vertex by the end of the record.
enum class VertexState {
  kWaiting,  ///< not ready: something it waits for is not done
  kQueued,   ///< ready, not started: waiting for a free worker
  kRunning,  ///< a plugin whose activation started and has not finished
  kDone,     ///< finished (plugin), completed (barrier), or a run-once plugin already run
};

/// A plugin or a barrier, with the times of its events.
struct Vertex {
  std::int64_t id = 0;
  bool isPlugin = false;
  std::string name;
  /// Plugins: json, native, debug, daemon or legacy-daemon; barriers: init or priority.
  std::string kind;
  std::string file;  ///< plugins only
  std::int64_t apiVersion = -1;
  std::optional<std::string> runOnceKey;
  bool alreadyRun = false;  ///< run-once plugin whose key was found: it never starts

  std::vector<std::size_t> required;  ///< the vertices it runs after
  std::vector<std::size_t> provided;  ///< the vertices that run after it

  std::optional<Moment> ready;
  std::optional<Moment> start;   ///< plugins
  std::optional<Moment> finish;  ///< plugins
  std::optional<Moment> done;    ///< barriers: barrier-done
  std::string outcome;           ///< activated, failed or skipped; empty until finished
  std::string reason;            ///< why a failed activation failed

  /// When the vertex was done (finish, barrier-done, or ready for a
  /// plugin already run), if it was.
  std::optional<Moment> Completion() const;
  VertexState State() const;
  /// finish - start for a finished activation.
  std::optional<std::int64_t> ActivationTime() const;
};

/// A plugin file (or debug entry) that was kept out of the run.
struct RefusedPlugin {
  std::string file;
  std::string name;
  std::string reason;
};

struct RecordHeader {
  std::int64_t schema = 0;
  std::string mode;
  std::string method;
  std::string start;                   ///< the run's start in UTC, as written
  std::int64_t startMicroseconds = 0;  ///< the same on the wall clock, since the epoch
  std::string host;
  std::int64_t pid = 0;
  std::string version;
  std::int64_t threads = 0;
  bool parallel = false;
};

struct RecordEnd {
  std::int64_t t = 0;
  std::int64_t status = 0;
  std::string end;  ///< the run's end in UTC, as written
};

/// A whole record, read by ReadRecord.
struct Record {
  std::string path;  ///< the file it was read from, as named
  RecordHeader header;
  std::vector<Vertex> vertices;  ///< plugins and barriers, in the record's order
  std::vector<RefusedPlugin> refused;
  std::optional<RecordEnd> end;    ///< none while the run goes on
  std::int64_t lastEventTime = 0;  ///< the latest t of any event line

  /// True while the run goes on: the record has no end line.
  bool Live() const { return !end.has_value(); }
  /// The run's length: the end line's t, or the latest event of a live record.
  std::int64_t Duration() const { return end ? end->t : lastEventTime; }
  /// The indices of the plugins named @p name, in the record's order.
  std::vector<std::size_t> PluginsNamed(const std::string& name) const;
};

}  // namespace orvane::analyze
