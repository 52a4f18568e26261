#include "orvaner/ReadyList.h"

#include <boost/multi_index/composite_key.hpp>
#include <boost/multi_index/member.hpp>
#include <boost/multi_index/ranked_index.hpp>
#include <boost/multi_index_container.hpp>
#include <cstdlib>
#include <functional>
#include <tuple>

#include "orvaner/Node.h"

namespace orvane {
namespace {

struct Entry {
  std::uint32_t schedulingClass;
  int level;
  std::uint64_t arrival;
  Node* node;
};

namespace mi = boost::multi_index;

// Most urgent first: lowest class, then greatest level, then first arrival.
// The ranked index answers "how many tie with the first" and "the k-th
// entry" in logarithmic time, which a randomised pick needs.
using UrgencyKey =
    mi::composite_key<Entry, mi::member<Entry, std::uint32_t, &Entry::schedulingClass>,
                      mi::member<Entry, int, &Entry::level>,
                      mi::member<Entry, std::uint64_t, &Entry::arrival>>;
using UrgencyOrder = mi::composite_key_compare<std::less<std::uint32_t>, std::greater<int>,
                                               std::less<std::uint64_t>>;
using EntrySet =
    mi::multi_index_container<Entry, mi::indexed_by<mi::ranked_unique<UrgencyKey, UrgencyOrder>>>;

}  // namespace

struct ReadyList::Entries {
  EntrySet set;
};

ReadyList::ReadyList() : entries_(std::make_unique<Entries>()) {}

ReadyList::~ReadyList() = default;

void ReadyList::Push(Node& node) {
  entries_->set.insert(Entry{node.SchedulingClass(), node.SchedulingLevel(), arrivals_++, &node});
}

Node& ReadyList::PickNext(bool randomize) {
  EntrySet& set = entries_->set;
  auto chosen = set.begin();
  if (randomize) {
    // The candidates are the entries that tie with the most urgent one, in
    // arrival order; they are the first ones in the set.
    const auto candidates =
        set.rank(set.upper_bound(std::make_tuple(chosen->schedulingClass, chosen->level)));
    chosen = set.nth(static_cast<std::size_t>(std::rand()) % candidates);
  }
  Node& node = *chosen->node;
  set.erase(chosen);
  return node;
}

bool ReadyList::Empty() const { return entries_->set.empty(); }

std::size_t ReadyList::Size() const { return entries_->set.size(); }

void ReadyList::Clear() { entries_->set.clear(); }

}  // namespace orvane
