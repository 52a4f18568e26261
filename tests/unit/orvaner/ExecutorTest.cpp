#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <new>
#include <stdexcept>
#include <system_error>

#include "GraphTestSupport.h"
#include "orvaner/Exception.h"
#include "orvaner/graph/Executor.h"
#include "orvaner/graph/GraphLock.h"

namespace orvane::testing {
namespace {

using ::testing::ElementsAre;

class ExecutorTest : public GraphTest {};

// Queues every vertex first, then runs them with one worker: the order of
// the runs is then the executor's choice alone.
std::vector<std::string> RunInOneWorker(const std::vector<Node*>& ready, RunLog& log,
                                        bool randomize = false) {
  Executor executor(1, randomize);
  {
    GraphLockGuard lock;  // the worker cannot pick before everything is queued
    for (Node* node : ready) node->ScheduleStart(executor);
  }
  for (Node* node : ready) node->WaitStarted();
  return log.Entries();
}

TEST_F(ExecutorTest, EqualVerticesRunInTheOrderTheyBecameReady) {
  RecordingPlugin first("first", runLog), second("second", runLog), third("third", runLog);
  EXPECT_THAT(RunInOneWorker({&second, &first, &third}, runLog),
              ElementsAre("second", "first", "third"));
}

TEST_F(ExecutorTest, OrdinaryPluginGoesBeforeALegacyDaemonThatArrivedFirst) {
  RecordingDaemon daemon("daemon", runLog);
  RecordingPlugin plugin("plugin", runLog);
  EXPECT_THAT(RunInOneWorker({&daemon, &plugin}, runLog), ElementsAre("plugin", "daemon"));
}

TEST_F(ExecutorTest, LongerChainOfSuccessorsGoesFirst) {
  RecordingPlugin shortChain("short", runLog), longChain("long", runLog), next("next", runLog),
      last("last", runLog);
  next.Requires(longChain);
  last.Requires(next);
  Executor executor(1, false);
  {
    GraphLockGuard lock;
    shortChain.ScheduleStart(executor);
    longChain.ScheduleStart(executor);
    next.ScheduleStart(executor);
    last.ScheduleStart(executor);
  }
  last.WaitStarted();
  shortChain.WaitStarted();
  // next (one more behind it) beats short; last ties with short, which came first.
  EXPECT_THAT(runLog.Entries(), ElementsAre("long", "next", "short", "last"));
}

TEST_F(ExecutorTest, RandomisedPickIsTheUnseededGeneratorsIndexAmongTies) {
  std::vector<std::unique_ptr<RecordingPlugin>> plugins;
  std::vector<Node*> ready;
  for (int i = 0; i < 6; ++i) {
    plugins.push_back(std::make_unique<RecordingPlugin>(std::to_string(i), runLog));
    ready.push_back(plugins.back().get());
  }
  // What the scan over the ready list picks for the same sequence of rand().
  std::srand(1234);
  std::vector<std::string> remaining{"0", "1", "2", "3", "4", "5"}, expected;
  while (!remaining.empty()) {
    auto chosen = remaining.begin() + std::rand() % static_cast<int>(remaining.size());
    expected.push_back(*chosen);
    remaining.erase(chosen);
  }
  std::srand(1234);
  EXPECT_EQ(RunInOneWorker(ready, runLog, true), expected);
}

TEST_F(ExecutorTest, ParallelThreadCountIsTwiceTheProcessorsButNoMoreThanThePlugins) {
  EXPECT_EQ(Executor::ParallelThreadCount(5, 4), 5);
  EXPECT_EQ(Executor::ParallelThreadCount(20, 4), 8);
  EXPECT_EQ(Executor::ParallelThreadCount(0, 4), 0);
}

TEST_F(ExecutorTest, StartsTheRequestedNumberOfWorkers) {
  Executor executor(3, false);
  EXPECT_EQ(executor.ThreadCount(), 3u);
}

TEST_F(ExecutorTest, ZeroThreadsRunNothingAndAPassWaitingOnThemNeverEnds) {
  RecordingPlugin plugin("plugin", runLog);
  Executor executor(0, false);
  EXPECT_EQ(executor.ThreadCount(), 0u);
  plugin.ScheduleStart(executor);
  auto wait = std::async(std::launch::async, [&] { plugin.WaitStarted(); });
  EXPECT_EQ(wait.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
  EXPECT_TRUE(runLog.Entries().empty());
  // Running the queued vertex on this thread completes the wait so the test can end.
  EXPECT_EQ(executor.RunNextReady(), &plugin);
  wait.get();
}

TEST_F(ExecutorTest, ShuttingDownDropsQueuedVertices) {
  RecordingPlugin first("first", runLog), second("second", runLog);
  {
    Executor executor(0, false);
    first.ScheduleStart(executor);
    second.ScheduleStart(executor);
    EXPECT_EQ(executor.ReadyCount(), 2u);
  }
  EXPECT_TRUE(runLog.Entries().empty());
  EXPECT_EQ(first.State(), NodeState::QueuedStart);
}

TEST_F(ExecutorTest, ThreadThatCannotStartEndsConstructionWithTheCountsInTheMessage) {
  int started = 0;
  auto failThird = [&](std::function<void()> work) {
    if (++started == 3) {
      throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
    }
    return std::thread(std::move(work));
  };
  try {
    Executor executor(5, false, failThird);
    FAIL() << "the executor was built";
  } catch (const Exception& error) {
    EXPECT_STREQ(error.what(),
                 "Could not create enough execution threads. (2 created, 5requested)");
  }
}

TEST_F(ExecutorTest, FirstThreadThatCannotStartReportsNoneCreated) {
  auto failAll = [](std::function<void()>) -> std::thread {
    throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
  };
  try {
    Executor executor(1, false, failAll);
    FAIL() << "the executor was built";
  } catch (const Exception& error) {
    EXPECT_STREQ(error.what(),
                 "Could not create enough execution threads. (0 created, 1requested)");
  }
}

TEST_F(ExecutorTest, MemoryThatRunsOutWhileStartingWorkersFailsConstructionLikeAThread) {
  int started = 0;
  auto failSecond = [&](std::function<void()> work) {
    if (++started == 2) throw std::bad_alloc();
    return std::thread(std::move(work));
  };
  try {
    Executor executor(4, false, failSecond);
    FAIL() << "the executor was built";
  } catch (const Exception& error) {
    EXPECT_STREQ(error.what(),
                 "Could not create enough execution threads. (1 created, 4requested)");
  }
}

TEST_F(ExecutorTest, ExceptionOfAnyKindFromAStarterFailsConstruction) {
  auto throwNumber = [](std::function<void()>) -> std::thread { throw 42; };
  EXPECT_THROW(Executor(2, false, throwNumber), Exception);
}

/// A vertex whose action throws what @p thrower throws.
class ThrowingPlugin : public RecordingPlugin {
 public:
  ThrowingPlugin(std::string name, RunLog& log, std::function<void()> thrower)
      : RecordingPlugin(std::move(name), log), thrower_(std::move(thrower)) {}
  void Execute(Executor& executor) override {
    RecordingPlugin::Execute(executor);
    thrower_();
  }

 private:
  std::function<void()> thrower_;
};

TEST_F(ExecutorTest, ActionThatThrowsIsReportedAndCountsAsFinished) {
  ThrowingPlugin broken("broken", runLog, [] { throw std::runtime_error("out of luck"); });
  RecordingPlugin dependant("dependant", runLog);
  dependant.Requires(broken);
  ::testing::internal::CaptureStderr();
  {
    Executor executor(1, false);
    broken.ScheduleStart(executor);
    dependant.ScheduleStart(executor);
    broken.WaitStarted();
    dependant.WaitStarted();
  }
  EXPECT_THAT(::testing::internal::GetCapturedStderr(),
              ::testing::HasSubstr("unhandled exception whilst running broken: out of luck"));
  EXPECT_THAT(runLog.Entries(), ElementsAre("broken", "dependant"));
}

TEST_F(ExecutorTest, ActionThatThrowsSomethingElseIsReportedWithoutText) {
  ThrowingPlugin broken("odd", runLog, [] { throw 7; });
  ::testing::internal::CaptureStderr();
  {
    Executor executor(2, false);
    broken.ScheduleStart(executor);
    broken.WaitStarted();
  }
  EXPECT_THAT(::testing::internal::GetCapturedStderr(),
              ::testing::HasSubstr("unknown exception whilst running odd"));
  EXPECT_EQ(broken.State(), NodeState::Started);
}

TEST_F(ExecutorTest, VertexQueuedForStopRunsItsReverseAction) {
  RecordingPlugin plugin("plugin", runLog);
  Executor executor(0, false);
  plugin.ScheduleStop(executor);
  EXPECT_EQ(executor.RunNextReady(), &plugin);
  EXPECT_THAT(runLog.Entries(), ElementsAre("stop plugin"));
  EXPECT_EQ(plugin.State(), NodeState::Stopped);
}

TEST_F(ExecutorTest, WorkersRunIndependentVerticesAtTheSameTime) {
  // Two vertices that each wait until the other has begun: with two workers
  // both finish, which only happens if they run at once.
  std::atomic<int> begun{0};
  class Rendezvous : public RecordingPlugin {
   public:
    Rendezvous(std::string name, RunLog& log, std::atomic<int>& begun)
        : RecordingPlugin(std::move(name), log), begun_(begun) {}
    void Execute(Executor& executor) override {
      ++begun_;
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
      while (begun_ < 2 && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
      if (begun_ >= 2) RecordingPlugin::Execute(executor);
    }

   private:
    std::atomic<int>& begun_;
  };
  Rendezvous a("a", runLog, begun), b("b", runLog, begun);
  Executor executor(2, false);
  a.ScheduleStart(executor);
  b.ScheduleStart(executor);
  a.WaitStarted();
  b.WaitStarted();
  EXPECT_EQ(runLog.Entries().size(), 2u);
}

TEST(GraphLockTest, HeldOnlyByTheThreadThatTookIt) {
  EXPECT_FALSE(IsGraphLockHeld());
  GraphLockGuard lock;
  EXPECT_TRUE(IsGraphLockHeld());
  EXPECT_FALSE(std::async(std::launch::async, [] { return IsGraphLockHeld(); }).get());
  {
    GraphLockGuard again;  // recursive
    EXPECT_TRUE(again.OwnsLock());
  }
  EXPECT_TRUE(IsGraphLockHeld());
  lock.Unlock();
  EXPECT_FALSE(lock.OwnsLock());
  EXPECT_FALSE(IsGraphLockHeld());
}

}  // namespace
}  // namespace orvane::testing
