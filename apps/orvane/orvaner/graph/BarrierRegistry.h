/// The barrier registry: turns a barrier name into the one vertex of that
/// name, and owns the chain of priority levels: the ascending list of start
/// priorities that the priority barriers stand for, and the splicing of a
/// new level between its neighbours.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace orvane {

class Node;
class PriorityBarrier;

/// Only grows: entries are never removed and the barriers it creates live as
/// long as it does (the process-wide one, until the process ends). Every
/// operation takes the graph lock.
class BarrierRegistry {
 public:
  BarrierRegistry();
  ~BarrierRegistry();
  BarrierRegistry(const BarrierRegistry&) = delete;
  BarrierRegistry& operator=(const BarrierRegistry&) = delete;

  /// The process-wide registry, created on first use and never destroyed.
  /// Only main picks it, for the run; every loader is handed the registry
  /// it links its plugins into.
  static BarrierRegistry& Instance();

  /// The vertex registered under @p name, whatever its class. Otherwise a
  /// new InitBarrier of that name when @p create is true, else null.
  Node* GetBarrier(std::string_view name, bool create);
  /// Enters @p node under @p name, silently replacing any earlier entry
  /// (whose edges stay as they are).
  void RegisterBarrier(Node& node, std::string_view name);
  /// The registered vertices in byte-wise name order (sorted on each call).
  std::deque<Node*> ListBarriers();

  /// The priority barrier of @p priority, spliced into the chain of
  /// priority levels when it is new.
  PriorityBarrier& GetPriorityBarrier(std::uint32_t priority);

  /// The start priorities that have a barrier, ascending.
  const std::vector<std::uint32_t>& PriorityList() const { return priorityList_; }

  /// Keeps @p barrier alive as long as the registry.
  void Adopt(std::unique_ptr<Node> barrier);

 private:
  /// Enters a new level into the priority list and links it to its
  /// neighbours, between two existing levels when it falls between them.
  void SpliceLevel(PriorityBarrier& level);
  /// The barrier of a level that already exists.
  PriorityBarrier& Level(std::uint32_t priority);

  /// Hashes a name given as any kind of string, so that a lookup needs no
  /// copy of it.
  struct NameHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view name) const noexcept {
      return std::hash<std::string_view>{}(name);
    }
  };

  // Loading looks a name up a few times per plugin, while the name order is
  // wanted once per run (the run record, the dump): a hash map, sorted when
  // listed.
  std::unordered_map<std::string, Node*, NameHash, std::equal_to<>> barriers_;
  std::vector<std::unique_ptr<Node>> owned_;
  std::vector<std::uint32_t> priorityList_;
};

}  // namespace orvane
