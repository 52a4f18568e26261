#include "analyze/RecordReader.h"

#include <algorithm>
#include <boost/json.hpp>
#include <unordered_map>
#include <utility>

#include "analyze/RecordError.h"
#include "hostfile/HostFile.h"

namespace orvane::analyze {
namespace {

/// Reads one record line by line; every check names the line it failed on.
class RecordParser {
 public:
  RecordParser(std::string_view text, const std::string& name)
      : text_(text), name_(name), parser_(boost::json::storage_ptr(), ParseOptions()) {}

  Record Parse() {
    record_.path = name_;
    if (text_.empty()) {
      throw RecordError(name_, "the record is empty");
    }
    std::size_t lineStart = 0;
    std::size_t lineNumber = 0;
    while (lineStart < text_.size()) {
      const std::size_t lineEnd = text_.find('\n', lineStart);
      const bool last = lineEnd == std::string_view::npos || lineEnd + 1 == text_.size();
      const std::size_t length =
          (lineEnd == std::string_view::npos ? text_.size() : lineEnd) - lineStart;
      ReadLine(text_.substr(lineStart, length), ++lineNumber, last);
      if (lineEnd == std::string_view::npos) {
        break;
      }
      lineStart = lineEnd + 1;
    }
    LinkEdges();
    return std::move(record_);
  }

 private:
  static boost::json::parse_options ParseOptions() {
    boost::json::parse_options options;
    // Names and reasons are written as orvane has them, bytes that are not
    // UTF-8 included.
    options.allow_invalid_utf8 = true;
    return options;
  }

  void ReadLine(std::string_view line, std::size_t number, bool last) {
    line_ = number;
    // Each line gets a fresh arena: nothing of it outlives the line.
    boost::json::monotonic_resource arena(arenaBuffer_, sizeof arenaBuffer_);
    parser_.reset(&arena);
    boost::system::error_code error;
    // The whole line must be one complete JSON text.
    parser_.write(line.data(), line.size(), error);
    if (error) {
      RejectUnparsedLine(line, last, error.message());
    }
    const boost::json::value value = parser_.release();
    if (!value.is_object()) {
      if (number == 1) {
        throw RecordError(name_, "not a run record: line 1 is not a JSON object");
      }
      Damaged("is not a JSON object");
    }
    ReadObject(value.get_object());
  }

  [[noreturn]] void RejectUnparsedLine(std::string_view line, bool last, const std::string& why) {
    const bool looksLikeALine = !line.empty() && line.front() == '{';
    if (last && looksLikeALine) {
      throw RecordError(name_, "cut off: line " + std::to_string(line_) +
                                   ", the last, is not a complete JSON object");
    }
    if (line_ == 1) {
      throw RecordError(name_, "not a run record: line 1 is not JSON");
    }
    if (last) {
      throw RecordError(name_, "cut off: line " + std::to_string(line_) +
                                   ", the last, is not a complete JSON object (" + why + ")");
    }
    Damaged("does not parse as JSON (" + why + ")");
  }

  [[noreturn]] void Damaged(const std::string& problem) const {
    throw RecordError(name_, "damaged: line " + std::to_string(line_) + " " + problem);
  }

  void ReadObject(const boost::json::object& object) {
    const boost::json::value* type = object.if_contains("type");
    const bool isHeader = type != nullptr && type->is_string() && type->get_string() == "header";
    if (line_ == 1) {
      if (!isHeader) {
        throw RecordError(name_, "not a run record: line 1 is not a header");
      }
      ReadHeader(object);
      return;
    }
    if (type == nullptr || !type->is_string()) {
      Damaged("has no \"type\"");
    }
    if (record_.end) {
      Damaged("follows the end line");
    }
    const boost::json::string& typeName = type->get_string();
    if (isHeader) {
      Damaged("is a second header");
    } else if (typeName == "plugin") {
      ReadPlugin(object);
    } else if (typeName == "barrier") {
      ReadBarrier(object);
    } else if (typeName == "refused") {
      ReadRefused(object);
    } else if (typeName == "ready" || typeName == "start" || typeName == "finish" ||
               typeName == "barrier-done") {
      ReadEvent(object, typeName);
    } else if (typeName == "end") {
      ReadEnd(object);
    }
    // A line of a type this reader does not know is one a later orvane
    // added without changing the schema: it carries nothing we use.
  }

  void ReadHeader(const boost::json::object& object) {
    RecordHeader& header = record_.header;
    const boost::json::value* schema = object.if_contains("schema");
    if (schema == nullptr || !schema->is_int64()) {
      throw RecordError(name_, "not a run record: the header has no schema number");
    }
    header.schema = schema->get_int64();
    if (header.schema != kRecordSchema) {
      throw RecordError(name_, "unknown record schema " + std::to_string(header.schema) +
                                   " (this orvane-analyze reads schema " +
                                   std::to_string(kRecordSchema) + ")");
    }
    header.mode = String(object, "mode");
    header.method = OptionalString(object, "method");
    header.start = String(object, "start");
    header.startMicroseconds = Integer(object, "startMicroseconds");
    header.host = OptionalString(object, "host");
    header.pid = OptionalInteger(object, "pid").value_or(0);
    header.version = OptionalString(object, "version");
    if (const boost::json::value* options = object.if_contains("options")) {
      if (!options->is_object()) {
        Damaged("has \"options\" that are not an object");
      }
      header.threads = OptionalInteger(options->get_object(), "threads").value_or(0);
      const boost::json::value* parallel = options->get_object().if_contains("parallel");
      header.parallel = parallel != nullptr && parallel->is_bool() && parallel->get_bool();
    }
  }

  void ReadPlugin(const boost::json::object& object) {
    Vertex& plugin = AddVertex(object, true);
    plugin.file = OptionalString(object, "file");
    plugin.apiVersion = OptionalInteger(object, "apiVersion").value_or(-1);
    if (const boost::json::value* key = object.if_contains("runOnceKey");
        key != nullptr && key->is_string()) {
      plugin.runOnceKey = std::string(key->get_string());
    }
    const boost::json::value* alreadyRun = object.if_contains("alreadyRun");
    plugin.alreadyRun = alreadyRun != nullptr && alreadyRun->is_bool() && alreadyRun->get_bool();
  }

  void ReadBarrier(const boost::json::object& object) { AddVertex(object, false); }

  Vertex& AddVertex(const boost::json::object& object, bool isPlugin) {
    Vertex vertex;
    vertex.id = Integer(object, "id");
    vertex.isPlugin = isPlugin;
    vertex.name = String(object, "name");
    vertex.kind = String(object, "kind");
    const auto [position, added] = indexOfId_.emplace(vertex.id, record_.vertices.size());
    if (!added) {
      Damaged("gives id " + std::to_string(vertex.id) + " to a second vertex");
    }
    pendingEdges_.push_back({IdList(object, "requires"), IdList(object, "provides")});
    record_.vertices.push_back(std::move(vertex));
    return record_.vertices.back();
  }

  void ReadRefused(const boost::json::object& object) {
    record_.refused.push_back({OptionalString(object, "file"), OptionalString(object, "name"),
                               OptionalString(object, "reason")});
  }

  void ReadEvent(const boost::json::object& object, const boost::json::string& type) {
    const std::int64_t id = Integer(object, "id");
    const auto found = indexOfId_.find(id);
    if (found == indexOfId_.end()) {
      Damaged("(" + std::string(type) + ") names vertex " + std::to_string(id) +
              ", which the graph does not have");
    }
    Vertex& vertex = record_.vertices[found->second];
    const Moment moment{Integer(object, "t"), OptionalInteger(object, "worker").value_or(-1),
                        line_};
    record_.lastEventTime = std::max(record_.lastEventTime, moment.t);
    if (type == "ready") {
      Set(vertex.ready, moment, type, vertex);
      return;
    }
    const bool forPlugins = type != "barrier-done";
    if (forPlugins != vertex.isPlugin) {
      Damaged("(" + std::string(type) + ") names vertex " + std::to_string(id) + ", a " +
              (vertex.isPlugin ? "plugin" : "barrier"));
    }
    if (type == "start") {
      Set(vertex.start, moment, type, vertex);
    } else if (type == "finish") {
      Set(vertex.finish, moment, type, vertex);
      vertex.outcome = String(object, "outcome");
      if (vertex.outcome != "activated" && vertex.outcome != "failed" &&
          vertex.outcome != "skipped") {
        Damaged("has an unknown outcome");
      }
      vertex.reason = OptionalString(object, "reason");
    } else {
      Set(vertex.done, moment, type, vertex);
    }
  }

  void Set(std::optional<Moment>& slot, const Moment& moment, const boost::json::string& type,
           const Vertex& vertex) const {
    if (slot) {
      Damaged("is a second " + std::string(type) + " of vertex " + std::to_string(vertex.id));
    }
    slot = moment;
  }

  void ReadEnd(const boost::json::object& object) {
    RecordEnd end;
    end.t = Integer(object, "t");
    end.status = Integer(object, "status");
    end.end = OptionalString(object, "end");
    record_.lastEventTime = std::max(record_.lastEventTime, end.t);
    record_.end = std::move(end);
  }

  /// Turns the ids of every vertex's edges into indices. An id the graph
  /// lacks is left out: a record cut off while its graph was written names
  /// barriers whose lines never came.
  void LinkEdges() {
    for (std::size_t index = 0; index < record_.vertices.size(); ++index) {
      Vertex& vertex = record_.vertices[index];
      vertex.required = Indices(pendingEdges_[index].first);
      vertex.provided = Indices(pendingEdges_[index].second);
    }
  }

  std::vector<std::size_t> Indices(const std::vector<std::int64_t>& ids) const {
    std::vector<std::size_t> indices;
    indices.reserve(ids.size());
    for (const std::int64_t id : ids) {
      const auto found = indexOfId_.find(id);
      if (found != indexOfId_.end()) {
        indices.push_back(found->second);
      }
    }
    return indices;
  }

  std::vector<std::int64_t> IdList(const boost::json::object& object, std::string_view key) const {
    std::vector<std::int64_t> ids;
    const boost::json::value* list = object.if_contains(key);
    if (list == nullptr) {
      return ids;
    }
    if (!list->is_array()) {
      Damaged("has \"" + std::string(key) + "\" that is not a list of ids");
    }
    ids.reserve(list->get_array().size());
    for (const boost::json::value& id : list->get_array()) {
      if (!id.is_int64()) {
        Damaged("has \"" + std::string(key) + "\" that is not a list of ids");
      }
      ids.push_back(id.get_int64());
    }
    return ids;
  }

  std::int64_t Integer(const boost::json::object& object, std::string_view key) const {
    const std::optional<std::int64_t> number = OptionalInteger(object, key);
    if (!number) {
      Damaged("has no whole number \"" + std::string(key) + "\"");
    }
    return *number;
  }

  std::optional<std::int64_t> OptionalInteger(const boost::json::object& object,
                                              std::string_view key) const {
    const boost::json::value* member = object.if_contains(key);
    if (member == nullptr || member->is_null()) {
      return std::nullopt;
    }
    if (!member->is_int64()) {
      Damaged("has \"" + std::string(key) + "\" that is not a whole number");
    }
    return member->get_int64();
  }

  std::string String(const boost::json::object& object, std::string_view key) const {
    const boost::json::value* member = object.if_contains(key);
    if (member == nullptr || !member->is_string()) {
      Damaged("has no text \"" + std::string(key) + "\"");
    }
    return std::string(member->get_string());
  }

  std::string OptionalString(const boost::json::object& object, std::string_view key) const {
    const boost::json::value* member = object.if_contains(key);
    if (member == nullptr || member->is_null()) {
      return {};
    }
    if (!member->is_string()) {
      Damaged("has \"" + std::string(key) + "\" that is not text");
    }
    return std::string(member->get_string());
  }

  std::string_view text_;
  const std::string& name_;
  boost::json::parser parser_;
  unsigned char arenaBuffer_[4096];
  std::size_t line_ = 0;
  Record record_;
  std::unordered_map<std::int64_t, std::size_t> indexOfId_;
  /// Per vertex, the ids of its requires and provides lists until LinkEdges.
  std::vector<std::pair<std::vector<std::int64_t>, std::vector<std::int64_t>>> pendingEdges_;
};

}  // namespace

Record ParseRecord(std::string_view text, const std::string& name) {
  return RecordParser(text, name).Parse();
}

Record ReadRecord(const std::string& path) {
  const hostfile::FileContent content = hostfile::ReadHostFile(path, kMaxRecordSize);
  if (!content.Ok()) {
    throw RecordError(path, content.Problem());
  }
  return ParseRecord(content.text, path);
}

}  // namespace orvane::analyze
