#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "GraphTestSupport.h"
#include "orvaner/Exception.h"
#include "orvaner/graph/BarrierRegistry.h"
#include "orvaner/graph/Executor.h"
#include "orvaner/graph/InitBarrier.h"
#include "orvaner/graph/Node.h"

namespace orvane::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

// a -> b -> c: b requires a, c requires b.
struct ChainOfThree {
  explicit ChainOfThree(RunLog& log) : a("a", log), b("b", log), c("c", log) {
    b.Requires(a);
    c.Requires(b);
  }
  RecordingPlugin a, b, c;
};

class NodeTest : public GraphTest {
 protected:
  // A start pass as a run makes it: schedule everything, then wait for everything.
  void StartPass(const std::vector<Node*>& plugins, int threads = 1, bool raisesAlerts = true) {
    Executor executor(threads, false);
    executor.SetRaisesAlerts(raisesAlerts);
    for (Node* plugin : plugins) plugin->ScheduleStart(executor);
    for (Node* plugin : plugins) plugin->WaitStarted();
  }
  void StopPass(const std::vector<Node*>& plugins, int threads = 1) {
    Executor executor(threads, false);
    for (Node* plugin : plugins) plugin->ScheduleStop(executor);
    for (Node* plugin : plugins) plugin->WaitStopped();
  }
};

TEST_F(NodeTest, NewVertexIsIdleWithoutEdgesOrLevels) {
  RecordingPlugin plugin("fresh", runLog);
  EXPECT_EQ(plugin.State(), NodeState::Idle);
  EXPECT_TRUE(plugin.Predecessors().empty());
  EXPECT_TRUE(plugin.Successors().empty());
  EXPECT_EQ(plugin.SchedulingClass(), 1u);
}

TEST_F(NodeTest, StatesKeepTheirFixedValues) {
  EXPECT_EQ(static_cast<int>(NodeState::Idle), 0);
  EXPECT_EQ(static_cast<int>(NodeState::PendingStart), 1);
  EXPECT_EQ(static_cast<int>(NodeState::PendingStop), 2);
  EXPECT_EQ(static_cast<int>(NodeState::QueuedStart), 3);
  EXPECT_EQ(static_cast<int>(NodeState::QueuedStop), 4);
  EXPECT_EQ(static_cast<int>(NodeState::Started), 5);
  EXPECT_EQ(static_cast<int>(NodeState::Stopped), 6);
}

TEST_F(NodeTest, RequiresAndProvidesLinkBothEndsInInsertionOrder) {
  RecordingPlugin a("a", runLog), b("b", runLog), c("c", runLog);
  b.Requires(a);
  b.Provides(c);
  b.Provides(a);
  EXPECT_THAT(b.Predecessors(), ElementsAre(&a));
  EXPECT_THAT(b.Successors(), ElementsAre(&c, &a));
  EXPECT_THAT(a.Successors(), ElementsAre(&b));
  EXPECT_THAT(a.Predecessors(), ElementsAre(&b));
  EXPECT_THAT(c.Predecessors(), ElementsAre(&b));
}

TEST_F(NodeTest, VertexWithoutPredecessorsIsQueuedAtOnce) {
  RecordingPlugin alone("alone", runLog);
  Executor executor(0, false);
  alone.ScheduleStart(executor);
  EXPECT_EQ(alone.State(), NodeState::QueuedStart);
  EXPECT_EQ(executor.ReadyCount(), 1u);
}

TEST_F(NodeTest, SchedulingTwiceQueuesOnce) {
  RecordingPlugin alone("alone", runLog);
  Executor executor(0, false);
  alone.ScheduleStart(executor);
  alone.ScheduleStart(executor);
  EXPECT_EQ(executor.ReadyCount(), 1u);
}

TEST_F(NodeTest, SchedulingAfterTheVertexRanQueuesNothing) {
  RecordingPlugin done("done", runLog);
  done.MarkDone();
  Executor executor(0, false);
  done.ScheduleStart(executor);
  EXPECT_EQ(executor.ReadyCount(), 0u);
  EXPECT_EQ(done.State(), NodeState::Started);
}

TEST_F(NodeTest, VertexWaitsForItsPredecessorsAndIdleOnesAreScheduledFirst) {
  RecordingPlugin first("first", runLog), second("second", runLog);
  second.Requires(first);
  Executor executor(0, false);
  second.ScheduleStart(executor);  // first is reached through the edge
  EXPECT_EQ(second.State(), NodeState::PendingStart);
  EXPECT_EQ(first.State(), NodeState::QueuedStart);
  EXPECT_EQ(executor.ReadyCount(), 1u);
}

TEST_F(NodeTest, ChainRunsInDependencyOrderWhateverTheListOrder) {
  ChainOfThree chain(runLog);
  auto& [a, b, c] = chain;
  StartPass({&c, &b, &a});
  EXPECT_THAT(runLog.Entries(), ElementsAre("a", "b", "c"));
  EXPECT_EQ(c.State(), NodeState::Started);
}

TEST_F(NodeTest, ChainOfThreeHasTheExpectedLevels) {
  ChainOfThree chain(runLog);
  auto& [a, b, c] = chain;
  EXPECT_EQ(a.Height(), 2);
  EXPECT_EQ(c.Depth(), 2);
  EXPECT_EQ(c.Height(), 0);
  EXPECT_EQ(a.Depth(), 0);
  EXPECT_EQ(b.Depth(), 1);
  EXPECT_EQ(b.Height(), 1);
}

TEST_F(NodeTest, LevelsFollowTheLongestChain) {
  RecordingPlugin a("a", runLog), b("b", runLog), c("c", runLog), d("d", runLog);
  // a -> b -> c -> d and a shortcut a -> d.
  b.Requires(a);
  c.Requires(b);
  d.Requires(c);
  d.Requires(a);
  EXPECT_EQ(a.Height(), 3);
  EXPECT_EQ(d.Depth(), 3);
}

TEST_F(NodeTest, LinkingResetsOnlyTheTwoEndpointsLevels) {
  RecordingPlugin a("a", runLog), b("b", runLog), c("c", runLog);
  b.Requires(a);
  EXPECT_EQ(a.Height(), 1);
  EXPECT_EQ(b.Height(), 0);
  c.Requires(b);  // a's cached height is not invalidated
  EXPECT_EQ(b.Height(), 1);
  EXPECT_EQ(a.Height(), 1);
}

TEST_F(NodeTest, SchedulingLevelIsHeightWhenQueuedForStartAndDepthOtherwise) {
  ChainOfThree chain(runLog);
  auto& [a, b, c] = chain;
  EXPECT_EQ(a.SchedulingLevel(), 0);  // Idle: depth
  Executor executor(0, false);
  a.ScheduleStart(executor);
  EXPECT_EQ(a.SchedulingLevel(), 2);  // QueuedStart: height
}

TEST_F(NodeTest, DeepChainSchedulesAndMeasuresWithoutOverflowingTheStack) {
  std::vector<std::unique_ptr<RecordingPlugin>> chain;
  for (int i = 0; i < 200000; ++i) {
    chain.push_back(std::make_unique<RecordingPlugin>("v", runLog));
    if (i > 0) chain[i]->Requires(*chain[i - 1]);
  }
  Executor executor(0, false);
  chain.back()->ScheduleStart(executor);  // walks the whole chain back to the first
  EXPECT_EQ(chain.front()->State(), NodeState::QueuedStart);
  EXPECT_EQ(chain.front()->Height(), 199999);
  EXPECT_EQ(chain.back()->Depth(), 199999);
}

TEST_F(NodeTest, BarrierWithoutProviderLogsAndStillReleasesItsRequirers) {
  BarrierRegistry registry;
  RecordingPlugin first("first", runLog), second("second", runLog);
  Node& barrier = *registry.GetBarrier("network", true);
  first.Requires(barrier);
  second.Requires(barrier);
  ::testing::internal::CaptureStderr();
  StartPass({&first, &second});
  const std::string logged = ::testing::internal::GetCapturedStderr();
  const std::string text =
      "Orvane dependency error: Initialization barrier \"network\" is not provided by any plugin "
      "but the following plugins require it: \"first\", \"second\"";
  EXPECT_THAT(logged, HasSubstr(text + "\n"));
  EXPECT_THAT(alerts, ElementsAre(text));
  EXPECT_THAT(runLog.Entries(), ElementsAre("first", "second"));
  EXPECT_EQ(barrier.State(), NodeState::Started);
}

TEST_F(NodeTest, BarrierWithoutProviderRaisesNoAlertInAPassThatRaisesNone) {
  BarrierRegistry registry;
  RecordingPlugin requirer("requirer", runLog);
  requirer.Requires(*registry.GetBarrier("storage", true));
  ::testing::internal::CaptureStderr();
  StartPass({&requirer}, 1, false);
  const std::string logged = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(logged, HasSubstr("Initialization barrier \"storage\" is not provided"));
  EXPECT_TRUE(alerts.empty());
  EXPECT_THAT(runLog.Entries(), ElementsAre("requirer"));
}

TEST_F(NodeTest, BarrierWithoutRequirersReportEndsAfterItsIntroduction) {
  InitBarrier lonely("lonely");
  EXPECT_EQ(lonely.MissingProviderText(),
            "Orvane dependency error: Initialization barrier \"lonely\" is not provided by any "
            "plugin but the following plugins require it: ");
}

TEST_F(NodeTest, ProvidedBarrierReportsNothing) {
  BarrierRegistry registry;
  RecordingPlugin provider("provider", runLog), requirer("requirer", runLog);
  Node& barrier = *registry.GetBarrier("ready", true);
  provider.Provides(barrier);
  requirer.Requires(barrier);
  ::testing::internal::CaptureStderr();
  StartPass({&requirer, &provider});
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  EXPECT_TRUE(alerts.empty());
  EXPECT_THAT(runLog.Entries(), ElementsAre("provider", "requirer"));
}

TEST_F(NodeTest, PluginMarkedDoneNeverRunsButSatisfiesWhatItProvides) {
  BarrierRegistry registry;
  RecordingPlugin skipped("skipped", runLog), dependant("dependant", runLog);
  Node& barrier = *registry.GetBarrier("skipped-done", true);
  skipped.Provides(barrier);
  dependant.Requires(barrier);
  skipped.MarkDone();
  StartPass({&skipped, &dependant});
  EXPECT_THAT(runLog.Entries(), ElementsAre("dependant"));
}

TEST_F(NodeTest, CycleStaysPendingAndQueuesNothing) {
  RecordingPlugin a("a", runLog), b("b", runLog);
  a.Requires(b);
  b.Requires(a);
  Executor executor(0, false);
  a.ScheduleStart(executor);
  b.ScheduleStart(executor);
  EXPECT_EQ(a.State(), NodeState::PendingStart);
  EXPECT_EQ(b.State(), NodeState::PendingStart);
  EXPECT_EQ(executor.ReadyCount(), 0u);
}

TEST_F(NodeTest, LevelsOfACycleAreFinite) {
  RecordingPlugin a("a", runLog), b("b", runLog), entry("entry", runLog);
  a.Requires(b);
  b.Requires(a);
  a.Requires(entry);
  EXPECT_GE(entry.Height(), 1);
  EXPECT_GE(a.Depth(), 1);
}

TEST_F(NodeTest, StopPassRunsEveryVertexAfterItsSuccessors) {
  ChainOfThree chain(runLog);
  auto& [a, b, c] = chain;
  StopPass({&a, &b, &c});
  EXPECT_THAT(runLog.Entries(), ElementsAre("stop c", "stop b", "stop a"));
  EXPECT_EQ(a.State(), NodeState::Stopped);
}

TEST_F(NodeTest, StopPassTreatsAVertexThatRanForwardAsFinished) {
  RecordingPlugin a("a", runLog), b("b", runLog);
  b.Requires(a);
  b.MarkDone();  // b already Started
  Executor executor(0, false);
  a.ScheduleStop(executor);
  EXPECT_EQ(a.State(), NodeState::QueuedStop);
  EXPECT_EQ(executor.ReadyCount(), 1u);
}

TEST_F(NodeTest, StopPassDoesNotCallTheDefaultReverseAction) {
  BarrierRegistry registry;
  RecordingPlugin plugin("plugin", runLog);
  Node& barrier = *registry.GetBarrier("barrier", true);
  plugin.Requires(barrier);  // a barrier has only the default reverse action
  ::testing::internal::CaptureStderr();
  StopPass({&plugin, &barrier});
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "");  // the missing-provider check did not run
  EXPECT_EQ(barrier.State(), NodeState::Stopped);
  EXPECT_TRUE(alerts.empty());
  EXPECT_THAT(runLog.Entries(), ElementsAre("stop plugin"));
}

TEST_F(NodeTest, WaitStartedReturnsForAVertexAlreadyStarted) {
  RecordingPlugin done("done", runLog);
  done.MarkDone();
  done.WaitStarted();
  SUCCEED();
}

}  // namespace
}  // namespace orvane::testing
