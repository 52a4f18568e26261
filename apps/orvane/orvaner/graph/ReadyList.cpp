#include "orvaner/graph/ReadyList.h"

#include <cstdlib>
#include <functional>
#include <map>
#include <utility>
#include <vector>

#include "orvaner/graph/Node.h"

namespace orvane {
namespace {

/// The vertices of one (class, level), in arrival order. Taken ones leave
/// a hole; a Fenwick tree over the slots counts the ones still there, so
/// that the k-th of them is found in logarithmic time for a randomised
/// pick, and the first one by moving past the holes at the front.
class Bucket {
 public:
  bool Empty() const { return count_ == 0; }
  std::size_t Count() const { return count_; }

  void Append(Node& node) {
    slots_.push_back(&node);
    const std::size_t index = slots_.size();  // one-based, as the tree counts
    // The new tree cell covers (index - lowbit(index), index]: itself and
    // the cells that prefix sums already give.
    const std::size_t covered = index & (~index + 1);
    tree_.push_back(1 + Prefix(index - 1) - Prefix(index - covered));
    ++count_;
  }

  Node& TakeFirst() {
    while (slots_[front_] == nullptr) {
      ++front_;
    }
    return Take(front_ + 1);
  }

  /// Takes the @p k-th vertex still there (from 0), in arrival order.
  Node& TakeNth(std::size_t k) {
    std::size_t position = 0;
    std::size_t step = 1;
    while (step * 2 <= tree_.size()) {
      step *= 2;
    }
    for (; step > 0; step /= 2) {
      if (position + step <= tree_.size() && tree_[position + step - 1] <= k) {
        position += step;
        k -= tree_[position - 1];
      }
    }
    return Take(position + 1);
  }

  void Reset() {
    slots_.clear();
    tree_.clear();
    front_ = 0;
    count_ = 0;
  }

 private:
  std::size_t Prefix(std::size_t index) const {
    std::size_t sum = 0;
    for (; index > 0; index -= index & (~index + 1)) {
      sum += tree_[index - 1];
    }
    return sum;
  }

  Node& Take(std::size_t index) {
    Node& node = *slots_[index - 1];
    slots_[index - 1] = nullptr;
    for (; index <= tree_.size(); index += index & (~index + 1)) {
      --tree_[index - 1];
    }
    --count_;
    return node;
  }

  std::vector<Node*> slots_;
  std::vector<std::size_t> tree_;
  std::size_t front_ = 0;  // slots before it are holes
  std::size_t count_ = 0;
};

// Most urgent first: the lowest class, then the greatest level.
struct Urgency {
  std::uint32_t schedulingClass;
  int level;
  bool operator<(const Urgency& other) const {
    if (schedulingClass != other.schedulingClass) {
      return schedulingClass < other.schedulingClass;
    }
    return level > other.level;
  }
};

}  // namespace

struct ReadyList::Entries {
  std::map<Urgency, Bucket> buckets;
  std::vector<Bucket> spare;  // emptied buckets kept for their storage
  std::size_t size = 0;
};

ReadyList::ReadyList() : entries_(std::make_unique<Entries>()) {}

ReadyList::~ReadyList() = default;

void ReadyList::Push(Node& node) {
  const Urgency urgency{node.SchedulingClass(), node.SchedulingLevel()};
  auto [bucket, created] = entries_->buckets.try_emplace(urgency);
  if (created && !entries_->spare.empty()) {
    bucket->second = std::move(entries_->spare.back());
    entries_->spare.pop_back();
  }
  bucket->second.Append(node);
  ++entries_->size;
}

Node& ReadyList::PickNext(bool randomize) {
  // The candidates of the scan are the most urgent bucket's vertices, in
  // arrival order.
  const auto mostUrgent = entries_->buckets.begin();
  Bucket& bucket = mostUrgent->second;
  Node& node = randomize ? bucket.TakeNth(static_cast<std::size_t>(std::rand()) % bucket.Count())
                         : bucket.TakeFirst();
  --entries_->size;
  if (bucket.Empty()) {
    bucket.Reset();
    entries_->spare.push_back(std::move(bucket));
    entries_->buckets.erase(mostUrgent);
  }
  return node;
}

bool ReadyList::Empty() const { return entries_->size == 0; }

std::size_t ReadyList::Size() const { return entries_->size; }

void ReadyList::Clear() {
  entries_->buckets.clear();
  entries_->size = 0;
}

}  // namespace orvane
