// The init.d daemon plugin: its command lines, its place on its priority
// level, and the operation it does not have.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "GraphTestSupport.h"
#include "orvaner/Exception.h"
#include "orvaner/graph/BarrierRegistry.h"
#include "orvaner/graph/PriorityBarrier.h"
#include "orvaner/plugins/LegacyDaemonPlugin.h"

namespace orvane::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class LegacyDaemonPluginTest : public GraphTest {
 protected:
  Node& Level(std::uint32_t priority) {
    return *registry.GetBarrier(PriorityBarrier::NameOf(priority), false);
  }
  BarrierRegistry registry;
};

TEST_F(LegacyDaemonPluginTest, ScriptGivesTheStartAndStopCommandLines) {
  LegacyDaemonPlugin ntpd("ntpd", "/etc/init.d/ntpd", 40, registry);
  EXPECT_EQ(ntpd.Name(), "ntpd");
  EXPECT_EQ(ntpd.Operation(DaemonPlugin::kStartOperation), "/etc/init.d/ntpd start");
  EXPECT_EQ(ntpd.Operation(DaemonPlugin::kStopOperation), "/etc/init.d/ntpd stop");
  EXPECT_EQ(ntpd.Number(), 40);
  EXPECT_EQ(ntpd.DaemonState(), DaemonPlugin::kConstructed);
  EXPECT_EQ(ntpd.SchedulingClass(), Node::kLegacyDaemonSchedulingClass);
}

TEST_F(LegacyDaemonPluginTest, DaemonJoinsThePriorityLevelOfItsStartOrder) {
  LegacyDaemonPlugin low("low", "/etc/init.d/low", 10, registry);
  LegacyDaemonPlugin high("high", "/etc/init.d/high", 20, registry);
  EXPECT_THAT(registry.PriorityList(), ElementsAre(10u, 20u));
  EXPECT_THAT(low.Predecessors(), IsEmpty());
  EXPECT_THAT(low.Successors(), ElementsAre(&Level(10)));
  EXPECT_THAT(high.Predecessors(), ElementsAre(&Level(10)));
  EXPECT_THAT(high.Successors(), ElementsAre(&Level(20)));
}

TEST_F(LegacyDaemonPluginTest, DaemonsOfOneStartOrderShareTheirLevel) {
  LegacyDaemonPlugin first("first", "/etc/init.d/first", 30, registry);
  LegacyDaemonPlugin second("second", "/etc/init.d/second", 30, registry);
  EXPECT_THAT(registry.PriorityList(), ElementsAre(30u));
  EXPECT_THAT(Level(30).Predecessors(), ElementsAre(&first, &second));
}

TEST_F(LegacyDaemonPluginTest, HostProfileIsNotImplementedUnderItsOwnName) {
  LegacyDaemonPlugin daemon("daemon", "/etc/init.d/daemon", 1, registry);
  try {
    daemon.ApplyHostProfile();
    ADD_FAILURE() << "nothing thrown";
  } catch (const NotImplementedException& error) {
    EXPECT_STREQ(error.what(), "method `LegacyDaemonPlugin::ApplyHostProfile' is not implemented");
  }
  EXPECT_THROW(daemon.Restart(), NotImplementedException);
  EXPECT_THROW(daemon.SSLReset(), NotImplementedException);
}

}  // namespace
}  // namespace orvane::testing
