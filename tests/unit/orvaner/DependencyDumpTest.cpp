#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <sstream>

#include "GraphTestSupport.h"
#include "orvaner/graph/BarrierRegistry.h"
#include "orvaner/graph/DependencyDump.h"
#include "orvaner/graph/PriorityBarrier.h"

namespace orvane::testing {
namespace {

std::string Id(const Node& node) { return std::to_string(reinterpret_cast<std::uintptr_t>(&node)); }

class DependencyDumpTest : public GraphTest {
 protected:
  std::string Dump(const std::deque<Node*>& plugins) {
    std::ostringstream out;
    WriteDependencyTree(plugins, registry.ListBarriers(), out);
    return out.str();
  }

  BarrierRegistry registry;
};

TEST_F(DependencyDumpTest, EmptyPluginListWritesOnlyTheFrame) {
  EXPECT_EQ(Dump({}), "digraph g {\n}\n");
}

TEST_F(DependencyDumpTest, LonePluginWritesOneLine) {
  RecordingPlugin plugin("alone", runLog);
  EXPECT_EQ(Dump({&plugin}), "digraph g {\n" + Id(plugin) + " [label=\"alone\"];\n}\n");
}

TEST_F(DependencyDumpTest, ProviderBarrierAndRequirerInTheDocumentedOrder) {
  RecordingPlugin provider("provider", runLog), requirer("requirer", runLog);
  Node& barrier = *registry.GetBarrier("ready", true);
  provider.Provides(barrier);
  requirer.Requires(barrier);
  EXPECT_EQ(Dump({&provider, &requirer}),
            "digraph g {\n" +                                      //
                Id(provider) + " [label=\"provider\"];\n" +        //
                Id(provider) + " -> " + Id(barrier) + ";\n" +      //
                Id(requirer) + " [label=\"requirer\"];\n" +        //
                Id(barrier) + " [label=\"ready\" shape=box];\n" +  //
                Id(barrier) + " -> " + Id(requirer) + ";\n" +      //
                "}\n");
}

TEST_F(DependencyDumpTest, BarrierNobodyProvidesIsWrittenWithItsRequirers) {
  RecordingPlugin first("first", runLog), second("second", runLog);
  Node& orphan = *registry.GetBarrier("orphan", true);
  first.Requires(orphan);
  second.Requires(orphan);
  const std::string dump = Dump({&first, &second});
  EXPECT_THAT(dump, ::testing::HasSubstr(Id(orphan) + " [label=\"orphan\" shape=box];\n" +
                                         Id(orphan) + " -> " + Id(first) + ";\n" + Id(orphan) +
                                         " -> " + Id(second) + ";\n}\n"));
}

TEST_F(DependencyDumpTest, NameWithADoubleQuoteIsWrittenUnchanged) {
  RecordingPlugin plugin("say \"hi\"", runLog);
  EXPECT_EQ(Dump({&plugin}), "digraph g {\n" + Id(plugin) + " [label=\"say \"hi\"\"];\n}\n");
}

TEST_F(DependencyDumpTest, BarriersFollowNameOrderWithPriorityLevelsInterleaved) {
  RecordingPlugin plugin("plugin", runLog);
  Node& zeta = *registry.GetBarrier("zeta", true);
  PriorityBarrier& level = registry.GetPriorityBarrier(20);
  Node& alpha = *registry.GetBarrier("alpha", true);
  // "_" sorts after the capital letters and before the small ones.
  EXPECT_EQ(Dump({&plugin}), "digraph g {\n" + Id(plugin) + " [label=\"plugin\"];\n" + Id(level) +
                                 " [label=\"_<->_priority_<->_20\" shape=trapezium];\n" +
                                 Id(alpha) + " [label=\"alpha\" shape=box];\n" + Id(zeta) +
                                 " [label=\"zeta\" shape=box];\n}\n");
}

}  // namespace
}  // namespace orvane::testing
