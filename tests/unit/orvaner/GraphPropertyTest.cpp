// Properties of whole passes through the real executor, on thousands of
// random graphs: every vertex the pass reaches runs exactly once, never
// before a vertex it waits for has finished, and the pass ends. Plus the
// two extremes: a very long chain, and a cycle, which never ends.
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "RandomGraph.h"
#include "TestSeams.h"
#include "orvaner/graph/Executor.h"
#include "orvaner/graph/GraphLock.h"

namespace orvane {
namespace {

using testgraph::GraphRecipe;
using testgraph::GraphShape;
using testgraph::RecipeMaker;
using testgraph::TestGraph;
using testgraph::TestVertex;

// ThreadSanitizer makes every lock and thread start far dearer; the
// sanitised run checks fewer graphs.
#if defined(__SANITIZE_THREAD__)
constexpr int kRandomGraphs = 500;
constexpr int kWatchdogSeconds = 600;
#else
constexpr int kRandomGraphs = 1200;
constexpr int kWatchdogSeconds = 120;
#endif
constexpr int kLongChain = 100000;

/// Ends the process with a message when a test has not finished in time: a
/// pass that never ends must fail the test, not hang the suite.
class Watchdog {
 public:
  explicit Watchdog(const char* what) : thread_([this, what] { Watch(what); }) {}
  ~Watchdog() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      finished_ = true;
    }
    condition_.notify_one();
    thread_.join();
  }

 private:
  void Watch(const char* what) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!condition_.wait_for(lock, std::chrono::seconds(kWatchdogSeconds),
                             [this] { return finished_; })) {
      std::fprintf(stderr, "%s did not finish within %d s\n", what, kWatchdogSeconds);
      std::abort();
    }
  }

  std::mutex mutex_;
  std::condition_variable condition_;
  bool finished_ = false;
  std::thread thread_;
};

/// Checks, as each vertex runs, that everything it waits for has finished:
/// its predecessors in a forward pass, its successors in a reverse one.
/// Barriers run no observable action, so the check looks through them to
/// what they wait for in turn.
class OrderChecker : public testgraph::RunObserver {
 public:
  void Ran(Node& vertex, bool forward) override {
    GraphLockGuard lock;
    const NodeState finished = forward ? NodeState::Started : NodeState::Stopped;
    std::vector<Node*> toCheck = WaitedFor(vertex, forward);
    std::set<Node*> checked;
    while (!toCheck.empty()) {
      Node* other = toCheck.back();
      toCheck.pop_back();
      if (!checked.insert(other).second) {
        continue;
      }
      if (other->State() != finished) {
        violations.fetch_add(1, std::memory_order_relaxed);
      }
      if (dynamic_cast<TestVertex*>(other) == nullptr) {
        const std::vector<Node*>& further = WaitedFor(*other, forward);
        toCheck.insert(toCheck.end(), further.begin(), further.end());
      }
    }
    runs.fetch_add(1, std::memory_order_relaxed);
  }

  std::atomic<long> violations{0};
  std::atomic<long> runs{0};

 private:
  static const std::vector<Node*>& WaitedFor(Node& vertex, bool forward) {
    return forward ? vertex.Predecessors() : vertex.Successors();
  }
};

/// A pass as the run modes make it: schedule every plugin in list order,
/// then wait for each in the same order.
void RunPass(const std::vector<TestVertex*>& plugins, Executor& executor, bool forward) {
  for (TestVertex* plugin : plugins) {
    if (forward) {
      plugin->ScheduleStart(executor);
    } else {
      plugin->ScheduleStop(executor);
    }
  }
  for (TestVertex* plugin : plugins) {
    if (forward) {
      plugin->WaitStarted();
    } else {
      plugin->WaitStopped();
    }
  }
}

class GraphPasses : public ::testing::Test {
 protected:
  unit_testing::ScopedSystemAlertSink silencedAlerts_{[](const std::string&) {}};
};

/// Runs one random graph through an executor and checks the pass.
void CheckRandomPass(const GraphRecipe& recipe, int workers, bool randomize, bool forward,
                     const std::string& what) {
  OrderChecker checker;
  TestGraph graph(recipe, &checker);
  const std::set<Node*> reached = testgraph::ReachedByPass(graph, forward);
  {
    Executor executor(workers, randomize);
    RunPass(graph.Plugins(), executor, forward);
  }
  EXPECT_EQ(checker.violations.load(), 0) << what;
  long expectedRuns = 0;
  for (std::size_t index = 0; index < graph.Size(); ++index) {
    TestVertex& plugin = graph[index];
    const bool skipped = recipe.vertices[index].markDone;
    EXPECT_EQ(plugin.forwardRuns.load(), forward && !skipped ? 1 : 0)
        << what << ", plugin " << index;
    EXPECT_EQ(plugin.reverseRuns.load(), forward ? 0 : 1) << what << ", plugin " << index;
    expectedRuns += forward && skipped ? 0 : 1;
  }
  EXPECT_EQ(checker.runs.load(), expectedRuns) << what;
  for (Node* vertex : graph.AllVertices()) {
    const NodeState expected = !reached.count(vertex) ? NodeState::Idle
                               : forward              ? NodeState::Started
                                                      : NodeState::Stopped;
    EXPECT_EQ(static_cast<int>(vertex->State()), static_cast<int>(expected))
        << what << ", vertex " << vertex->Name();
  }
}

void CheckRandomGraphs(bool forward) {
  constexpr GraphShape kShapes[] = {GraphShape::Chain, GraphShape::WideFan, GraphShape::RandomEdges,
                                    GraphShape::PriorityChain};
  for (int graphIndex = 0; graphIndex < kRandomGraphs; ++graphIndex) {
    const auto seed = static_cast<std::uint32_t>(graphIndex + 1);
    RecipeMaker maker(seed);
    const GraphShape shape = kShapes[seed % std::size(kShapes)];
    // A skipped plugin still releases what depends on it; there is no such
    // thing in a reverse pass, where a Started vertex would count as done.
    const double markDoneShare = forward && seed % 3 == 0 ? 0.1 : 0.0;
    const GraphRecipe recipe =
        maker.Make(shape, 1 + static_cast<int>(maker.Random()() % 100), markDoneShare);
    for (const int workers : {1, 2, 8}) {
      const bool randomize = (seed + static_cast<std::uint32_t>(workers)) % 2 == 0;
      const std::string what = std::string(ShapeName(shape)) + " graph of seed " +
                               std::to_string(seed) + ", " + std::to_string(workers) + " workers" +
                               (randomize ? ", randomised" : "");
      CheckRandomPass(recipe, workers, randomize, forward, what);
      if (::testing::Test::HasFailure()) {
        return;  // one graph's failures say enough
      }
    }
  }
}

TEST_F(GraphPasses, ForwardPassRunsEveryReachedVertexOnceAndInOrder) {
  Watchdog watchdog("the forward passes");
  CheckRandomGraphs(true);
}

TEST_F(GraphPasses, ReversePassRunsEveryVertexOnceAndInReverseOrder) {
  Watchdog watchdog("the reverse passes");
  CheckRandomGraphs(false);
}

/// Runs @p work on a thread with a small stack, so a walk whose depth
/// followed the graph's would overflow it.
void RunOnSmallStack(const std::function<void()>& work) {
  constexpr std::size_t kStackBytes = 256 * 1024;
  pthread_attr_t attributes;
  ASSERT_EQ(pthread_attr_init(&attributes), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&attributes, kStackBytes), 0);
  pthread_t thread;
  auto body = [](void* argument) -> void* {
    (*static_cast<const std::function<void()>*>(argument))();
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&thread, &attributes, body, const_cast<std::function<void()>*>(&work)),
            0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
}

/// A chain of kLongChain plugins whose list order runs against the pass, so
/// that scheduling the first plugin walks the whole chain, and so does the
/// level of the first vertex queued.
void CheckLongChain(int workers, bool forward) {
  Watchdog watchdog("the long chain");
  OrderChecker checker;
  std::vector<std::unique_ptr<TestVertex>> chain;
  std::vector<TestVertex*> plugins;
  for (int index = 0; index < kLongChain; ++index) {
    chain.push_back(std::make_unique<TestVertex>("link" + std::to_string(index),
                                                 Node::kDefaultSchedulingClass, &checker));
    plugins.push_back(chain.back().get());
    if (index > 0) {
      // Forward: link i waits for link i+1, so link 0 is the chain's end.
      // Reverse: link i+1 waits for link i, so link 0 is stopped last.
      if (forward) {
        chain[index - 1]->Requires(*chain[index]);
      } else {
        chain[index]->Requires(*chain[index - 1]);
      }
    }
  }
  RunOnSmallStack([&] {
    Executor executor(workers, false);
    RunPass(plugins, executor, forward);
  });
  EXPECT_EQ(checker.runs.load(), kLongChain);
  EXPECT_EQ(checker.violations.load(), 0);
  TestVertex& first = forward ? *chain.back() : *chain.front();  // the vertex without predecessors
  TestVertex& last = forward ? *chain.front() : *chain.back();
  EXPECT_EQ(first.Height(), kLongChain - 1);
  EXPECT_EQ(first.Depth(), 0);
  EXPECT_EQ(last.Depth(), kLongChain - 1);
  EXPECT_EQ(last.Height(), 0);
}

TEST_F(GraphPasses, LongChainRunsForwardWithoutDeepRecursion) { CheckLongChain(1, true); }

TEST_F(GraphPasses, LongChainRunsInReverseWithoutDeepRecursion) { CheckLongChain(1, false); }

TEST_F(GraphPasses, LongChainRunsForwardWithEightWorkers) { CheckLongChain(8, true); }

// A, B wait for each other; C waits for A; D is independent. The pass runs
// D and never A, B or C: a wait on A does not return. To end the test the
// cycle is broken by hand: the test runs A's action and completion, as a
// worker would had A become ready. That publishes Started and wakes the
// waiting thread through the public interface, so no thread is left blocked
// at exit.
TEST_F(GraphPasses, CycleNeverCompletesAndItsWaitDoesNotReturn) {
  Watchdog watchdog("the cycle test");
  TestVertex a("A", Node::kDefaultSchedulingClass, nullptr);
  TestVertex b("B", Node::kDefaultSchedulingClass, nullptr);
  TestVertex c("C", Node::kDefaultSchedulingClass, nullptr);
  TestVertex d("D", Node::kDefaultSchedulingClass, nullptr);
  a.Requires(b);
  b.Requires(a);
  c.Requires(a);

  Executor executor(2, false);
  for (TestVertex* plugin : {&a, &b, &c, &d}) {
    plugin->ScheduleStart(executor);
  }
  std::atomic<bool> waitReturned{false};
  std::thread waiter([&] {
    a.WaitStarted();
    waitReturned = true;
  });
  d.WaitStarted();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));

  EXPECT_FALSE(waitReturned.load());
  EXPECT_EQ(a.State(), NodeState::PendingStart);
  EXPECT_EQ(b.State(), NodeState::PendingStart);
  EXPECT_EQ(c.State(), NodeState::PendingStart);
  EXPECT_EQ(a.forwardRuns.load() + b.forwardRuns.load() + c.forwardRuns.load(), 0);
  EXPECT_EQ(d.forwardRuns.load(), 1);

  a.RunAction(executor, true);
  a.Complete(executor, true);
  waiter.join();
  b.WaitStarted();
  c.WaitStarted();
  EXPECT_TRUE(waitReturned.load());
  EXPECT_EQ(b.forwardRuns.load(), 1);
  EXPECT_EQ(c.forwardRuns.load(), 1);
}

}  // namespace
}  // namespace orvane
