#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "GraphTestSupport.h"
#include "orvaner/graph/BarrierRegistry.h"
#include "orvaner/graph/Executor.h"
#include "orvaner/graph/GraphLock.h"
#include "orvaner/graph/InitBarrier.h"
#include "orvaner/graph/PriorityBarrier.h"

namespace orvane::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class BarrierRegistryTest : public GraphTest {
 protected:
  // A daemon put on its priority level the way init-script discovery does it.
  RecordingDaemon& Daemon(const std::string& name, std::uint32_t priority) {
    daemons.push_back(std::make_unique<RecordingDaemon>(name, runLog));
    GraphLockGuard lock;
    registry.GetPriorityBarrier(priority).AddMember(*daemons.back());
    return *daemons.back();
  }
  Node& Level(std::uint32_t priority) {
    return *registry.GetBarrier(PriorityBarrier::NameOf(priority), false);
  }

  BarrierRegistry registry;
  std::vector<std::unique_ptr<RecordingDaemon>> daemons;
};

TEST_F(BarrierRegistryTest, ProviderAndRequirerOfOneNameShareOneBarrier) {
  RecordingPlugin provider("provider", runLog), requirer("requirer", runLog);
  provider.Provides(*registry.GetBarrier("network", true));
  requirer.Requires(*registry.GetBarrier("network", true));
  Node* barrier = registry.GetBarrier("network", false);
  ASSERT_NE(barrier, nullptr);
  EXPECT_THAT(barrier->Predecessors(), ElementsAre(&provider));
  EXPECT_THAT(barrier->Successors(), ElementsAre(&requirer));
  EXPECT_EQ(registry.ListBarriers().size(), 1u);
}

TEST_F(BarrierRegistryTest, CreatedBarrierIsAnInitBarrierOfClassOne) {
  Node* barrier = registry.GetBarrier("storage", true);
  ASSERT_NE(dynamic_cast<InitBarrier*>(barrier), nullptr);
  EXPECT_EQ(barrier->SchedulingClass(), 1u);
  EXPECT_EQ(barrier->Name(), "storage");
  EXPECT_EQ(barrier->DotAttributes(), " shape=box");
}

TEST_F(BarrierRegistryTest, UnknownNameWithoutCreationIsNull) {
  EXPECT_EQ(registry.GetBarrier("nowhere", false), nullptr);
  EXPECT_THAT(registry.ListBarriers(), IsEmpty());
}

TEST_F(BarrierRegistryTest, NamesAreComparedByteForByte) {
  Node* lower = registry.GetBarrier("net", true);
  Node* upper = registry.GetBarrier("Net", true);
  Node* longer = registry.GetBarrier("net ", true);
  EXPECT_NE(lower, upper);
  EXPECT_NE(lower, longer);
  EXPECT_THAT(registry.ListBarriers(), ElementsAre(upper, lower, longer));
}

TEST_F(BarrierRegistryTest, ListBarriersYieldsNameOrder) {
  Node* zeta = registry.GetBarrier("zeta", true);
  Node* alpha = registry.GetBarrier("alpha", true);
  Node* mid = registry.GetBarrier("mid", true);
  EXPECT_THAT(registry.ListBarriers(), ElementsAre(alpha, mid, zeta));
}

TEST_F(BarrierRegistryTest, NameOrderComparesBytesAsUnsignedAndKeepsNulBytes) {
  Node* high = registry.GetBarrier("a\xff", true);
  Node* low = registry.GetBarrier("a\x7f", true);
  Node* nul = registry.GetBarrier(std::string_view("a\0b", 3), true);
  Node* prefix = registry.GetBarrier("a", true);
  EXPECT_NE(nul, prefix);
  EXPECT_EQ(registry.GetBarrier(std::string("a\0b", 3), false), nul);
  EXPECT_THAT(registry.ListBarriers(), ElementsAre(prefix, nul, low, high));
}

TEST_F(BarrierRegistryTest, ManyNamesAreEachFoundAgainAndListedInNameOrder) {
  std::map<std::string, Node*> expected;
  std::mt19937 random(20261124);
  std::uniform_int_distribution<int> length(0, 12);
  std::uniform_int_distribution<int> byte(0, 255);
  for (int index = 0; index < 5000; ++index) {
    std::string name(static_cast<std::size_t>(length(random)), '\0');
    for (char& character : name) character = static_cast<char>(byte(random));
    Node* barrier = registry.GetBarrier(name, true);
    ASSERT_NE(barrier, nullptr);
    auto [entry, inserted] = expected.emplace(name, barrier);
    EXPECT_EQ(entry->second, barrier) << "a name met again gives the same barrier";
  }
  for (const auto& [name, barrier] : expected) {
    EXPECT_EQ(registry.GetBarrier(name, false), barrier);
  }
  std::vector<Node*> inNameOrder;
  for (const auto& [name, barrier] : expected) inNameOrder.push_back(barrier);
  const std::deque<Node*> listed = registry.ListBarriers();
  EXPECT_EQ(std::vector<Node*>(listed.begin(), listed.end()), inNameOrder);
}

TEST_F(BarrierRegistryTest,
       RequiredOnlyNameCreatesABarrierWithoutPredecessorsThatReportsAndReleases) {
  RecordingPlugin requirer("requirer", runLog);
  requirer.Requires(*registry.GetBarrier("orphan", true));
  EXPECT_THAT(registry.GetBarrier("orphan", false)->Predecessors(), IsEmpty());
  {
    Executor executor(1, false);
    requirer.ScheduleStart(executor);
    requirer.WaitStarted();
  }
  ASSERT_EQ(alerts.size(), 1u);
  EXPECT_THAT(alerts[0], ::testing::HasSubstr("\"orphan\" is not provided"));
  EXPECT_THAT(runLog.Entries(), ElementsAre("requirer"));
}

TEST_F(BarrierRegistryTest, RegisteringUnderAnExistingNameReplacesTheEntryButKeepsItsEdges) {
  RecordingPlugin requirer("requirer", runLog);
  Node& first = *registry.GetBarrier("shared", true);
  requirer.Requires(first);
  InitBarrier second("shared");
  registry.RegisterBarrier(second, "shared");
  EXPECT_EQ(registry.GetBarrier("shared", true), &second);
  EXPECT_THAT(first.Successors(), ElementsAre(&requirer));
  EXPECT_THAT(second.Successors(), IsEmpty());
  EXPECT_THAT(registry.ListBarriers(), ElementsAre(&second));
}

TEST_F(BarrierRegistryTest, PriorityBarrierNameIsTheInfixAndTheDecimalPriority) {
  EXPECT_EQ(PriorityBarrier::NameOf(20), "_<->_priority_<->_20");
  EXPECT_EQ(PriorityBarrier::NameOf(0), "_<->_priority_<->_0");
  PriorityBarrier& barrier = registry.GetPriorityBarrier(7);
  EXPECT_EQ(barrier.Name(), "_<->_priority_<->_7");
  EXPECT_EQ(barrier.DotAttributes(), " shape=trapezium");
  EXPECT_EQ(barrier.SchedulingClass(), 1u);
  EXPECT_EQ(&registry.GetPriorityBarrier(7), &barrier);
}

TEST_F(BarrierRegistryTest, PrioritiesAddedOutOfOrderEndAsOneAscendingChain) {
  RecordingDaemon& d50 = Daemon("d50", 50);
  RecordingDaemon& d10 = Daemon("d10", 10);
  RecordingDaemon& d30 = Daemon("d30", 30);
  EXPECT_THAT(registry.PriorityList(), ElementsAre(10u, 30u, 50u));
  // barrier(30) requires barrier(10); barrier(50) requires barrier(30).
  EXPECT_THAT(Level(30).Predecessors(), ::testing::Contains(&Level(10)));
  EXPECT_THAT(Level(50).Predecessors(), ::testing::Contains(&Level(30)));
  // After the splice the plugins of level 50 wait for barrier(30).
  EXPECT_THAT(d50.Predecessors(), ::testing::Contains(&Level(30)));
  EXPECT_THAT(d30.Predecessors(), ElementsAre(&Level(10)));
  EXPECT_THAT(d10.Predecessors(), IsEmpty());
}

TEST_F(BarrierRegistryTest, PriorityChainRunsLevelByLevel) {
  std::vector<Node*> list;
  for (auto [name, priority] : std::vector<std::pair<std::string, std::uint32_t>>{
           {"c50", 50}, {"a10", 10}, {"b30", 30}, {"a10bis", 10}, {"c50bis", 50}}) {
    list.push_back(&Daemon(name, priority));
  }
  {
    Executor executor(1, false);
    for (Node* node : list) node->ScheduleStart(executor);
    for (Node* node : list) node->WaitStarted();
  }
  EXPECT_THAT(runLog.Entries(), ElementsAre("a10", "a10bis", "b30", "c50", "c50bis"));
  EXPECT_TRUE(alerts.empty());  // priority levels never report a missing provider
}

TEST_F(BarrierRegistryTest, FirstPluginOfTheLowestLevelCanRunAtOnce) {
  RecordingDaemon& first = Daemon("first", 5);
  EXPECT_THAT(first.Predecessors(), IsEmpty());
  EXPECT_THAT(Level(5).Predecessors(), ElementsAre(&first));
  Executor executor(0, false);
  first.ScheduleStart(executor);
  EXPECT_EQ(first.State(), NodeState::QueuedStart);
}

TEST_F(BarrierRegistryTest, LevelAboveTheTopOfTheChainWaitsForIt) {
  RecordingDaemon& low = Daemon("low", 10);
  RecordingDaemon& high = Daemon("high", 20);
  EXPECT_THAT(high.Predecessors(), ElementsAre(&Level(10)));
  EXPECT_THAT(Level(20).Predecessors(), ElementsAre(&Level(10), &high));
  EXPECT_THAT(Level(10).Predecessors(), ElementsAre(&low));
}

TEST_F(BarrierRegistryTest, PlainBarrierWithAPriorityNameIsTakenOverByTheLevel) {
  Node* plain = registry.GetBarrier(PriorityBarrier::NameOf(40), true);
  PriorityBarrier& level = registry.GetPriorityBarrier(40);
  EXPECT_NE(static_cast<Node*>(&level), plain);
  EXPECT_EQ(registry.GetBarrier(PriorityBarrier::NameOf(40), false), &level);
}

}  // namespace
}  // namespace orvane::testing
