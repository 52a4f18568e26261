#include "orvaner/graph/Node.h"

#include <algorithm>
#include <utility>

#include "orvaner/Exception.h"
#include "orvaner/graph/GraphLock.h"
#include "orvaner/graph/ReadyQueue.h"

namespace orvane {

/// What distinguishes a forward pass from a reverse one: which edges a
/// vertex waits for, which it releases when it finishes, and its states.
struct Node::Pass {
  std::vector<Node*> Node::*waitFor;
  std::vector<Node*> Node::*release;
  NodeState pending;
  NodeState queued;
  NodeState finished;
};

const Node::Pass Node::kForward{&Node::predecessors_, &Node::successors_, NodeState::PendingStart,
                                NodeState::QueuedStart, NodeState::Started};
const Node::Pass Node::kReverse{&Node::successors_, &Node::predecessors_, NodeState::PendingStop,
                                NodeState::QueuedStop, NodeState::Stopped};

Node::Node(std::string name, std::uint32_t schedulingClass)
    : name_(std::move(name)), schedulingClass_(schedulingClass) {
  if (pthread_cond_init(&doneCondition_, nullptr) != 0) {
    throw Exception("Condition variable for Node could not be initialized");
  }
}

Node::~Node() { pthread_cond_destroy(&doneCondition_); }

void Node::ExecuteReverse(Executor&) {}

NodeState Node::State() const {
  GraphLockGuard lock;
  return state_;
}

void Node::Requires(Node& other) {
  GraphLockGuard lock;
  other.successors_.push_back(this);
  predecessors_.push_back(&other);
  other.height_ = -1;
  depth_ = -1;
}

void Node::Provides(Node& other) {
  GraphLockGuard lock;
  other.predecessors_.push_back(this);
  successors_.push_back(&other);
  other.depth_ = -1;
  height_ = -1;
}

void Node::MarkDone() {
  GraphLockGuard lock;
  state_ = NodeState::Started;
}

void Node::ScheduleStart(ReadyQueue& queue) {
  GraphLockGuard lock;
  Schedule(*this, queue, kForward);
}

void Node::ScheduleStop(ReadyQueue& queue) {
  GraphLockGuard lock;
  Schedule(*this, queue, kReverse);
}

// A depth-first walk that schedules every Idle vertex it waits for before
// deciding about the vertex itself, so a vertex is queued only once nothing
// it waits for is pending or queued. The walk keeps its own stack instead of
// recursing: the order in which vertices are queued is that of the recursive
// walk, but a chain of 100,000 vertices cannot overflow the thread's stack.
void Node::Schedule(Node& start, ReadyQueue& queue, const Pass& pass) {
  if (start.state_ == pass.queued || start.state_ == pass.finished) {
    return;
  }
  if (start.state_ == pass.pending) {
    // Walked before in this pass, so nothing it waits for is Idle any more
    // (no vertex goes back to Idle, and the graph is complete before a pass
    // starts): walking again would schedule nothing and only find out
    // whether one of them is unfinished, which the first such one answers.
    // This keeps a vertex released by many predecessors from costing the
    // square of their number.
    if (!start.WaitsForUnfinished(pass)) {
      start.state_ = pass.queued;
      queue.Enqueue(start);
    }
    return;
  }
  struct Frame {
    Node* node;
    std::size_t next;  // the next vertex to look at among those it waits for
    bool unfinished;   // one of them has not finished yet
  };
  std::vector<Frame> stack;
  auto enter = [&](Node& node) {
    if (node.state_ == NodeState::Idle) {
      node.state_ = pass.pending;  // a vertex of the other pass keeps its state until queued
    }
    stack.push_back({&node, 0, false});
  };

  enter(start);
  while (!stack.empty()) {
    Frame& top = stack.back();
    const std::vector<Node*>& waitFor = top.node->*pass.waitFor;
    if (top.next < waitFor.size()) {
      Node& other = *waitFor[top.next++];
      const NodeState otherState = other.state_;
      if (otherState == NodeState::Idle) {
        top.unfinished = true;  // scheduled now, so certainly not finished yet
        enter(other);
      } else if (otherState == pass.pending || otherState == pass.queued) {
        top.unfinished = true;
      }
      continue;
    }
    Node& node = *top.node;
    const bool unfinished = top.unfinished;
    stack.pop_back();
    if (!unfinished) {
      node.state_ = pass.queued;
      queue.Enqueue(node);
    }
  }
}

bool Node::WaitsForUnfinished(const Pass& pass) const {
  const std::vector<Node*>& waitFor = this->*pass.waitFor;
  return std::any_of(waitFor.begin(), waitFor.end(), [&pass](const Node* other) {
    return other->state_ == pass.pending || other->state_ == pass.queued;
  });
}

void Node::RunAction(Executor& executor, bool forward) {
  if (forward) {
    Execute(executor);
  } else if (HasReverseAction()) {
    ExecuteReverse(executor);
  }
}

void Node::Complete(ReadyQueue& queue, bool forward) {
  Finish(queue, forward ? kForward : kReverse);
}

void Node::Finish(ReadyQueue& queue, const Pass& pass) {
  GraphLockGuard lock;
  state_ = pass.finished;
  for (Node* released : this->*pass.release) {
    if (released->state_ == pass.pending) {
      Schedule(*released, queue, pass);
    }
  }
  pthread_cond_broadcast(&doneCondition_);
}

void Node::WaitStarted() { WaitFor(NodeState::Started); }

void Node::WaitStopped() { WaitFor(NodeState::Stopped); }

void Node::WaitFor(NodeState wanted) {
  GraphLockGuard lock;
  while (state_ != wanted) {
    lock.Wait(doneCondition_);
  }
}

int Node::Depth() {
  GraphLockGuard lock;
  if (depth_ < 0) {
    ComputeLevels();
  }
  return depth_;
}

int Node::Height() {
  GraphLockGuard lock;
  if (height_ < 0) {
    ComputeLevels();
  }
  return height_;
}

int Node::SchedulingLevel() {
  GraphLockGuard lock;
  return state_ == NodeState::QueuedStart ? Height() : Depth();
}

void Node::ComputeLevels() {
  if (depth_ < 0) {
    depth_ = LongestChain(*this, &Node::depth_, &Node::predecessors_);
  }
  if (height_ < 0) {
    height_ = LongestChain(*this, &Node::height_, &Node::successors_);
  }
}

// The longest chain of `edges` from `start`, caching the answer of every
// vertex met in its `level` field. Iterative for the same reason as
// Schedule. A vertex met again while its own answer is being computed lies
// on a cycle; it adds nothing, so a cycle gives finite levels.
int Node::LongestChain(Node& start, int Node::*level, std::vector<Node*> Node::*edges) {
  constexpr int kBeingComputed = -2;
  struct Frame {
    Node* node;
    std::size_t next;
    int longestBelow;  // the longest chain among the neighbours seen, -1 for none
  };
  std::vector<Frame> stack;
  start.*level = kBeingComputed;
  stack.push_back({&start, 0, -1});
  int answer = 0;
  while (!stack.empty()) {
    Frame& top = stack.back();
    const std::vector<Node*>& neighbours = top.node->*edges;
    if (top.next < neighbours.size()) {
      Node& neighbour = *neighbours[top.next++];
      const int known = neighbour.*level;
      if (known >= 0) {
        top.longestBelow = std::max(top.longestBelow, known);
      } else if (known != kBeingComputed) {
        neighbour.*level = kBeingComputed;
        stack.push_back({&neighbour, 0, -1});
      }
      continue;
    }
    const int value = top.longestBelow + 1;
    top.node->*level = value;
    stack.pop_back();
    if (stack.empty()) {
      answer = value;
    } else {
      stack.back().longestBelow = std::max(stack.back().longestBelow, value);
    }
  }
  return answer;
}

}  // namespace orvane
