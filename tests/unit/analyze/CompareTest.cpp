#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <sstream>

#include "AnalyzeTestSupport.h"
#include "analyze/Compare.h"

namespace orvane::analyze::testing {
namespace {

/// A second run of the example: network 2 ms slower, firewall activated
/// this time and 1 ms faster, debugshell gone, a new plugin "ntp".
const std::string kNewerRecord =
    kHeaderLine +
    R"({"type":"plugin","id":0,"name":"storage","kind":"json","requires":[],"provides":[10]}
{"type":"plugin","id":1,"name":"network","kind":"native","requires":[],"provides":[11]}
{"type":"plugin","id":2,"name":"firewall","kind":"json","requires":[11],"provides":[12]}
{"type":"plugin","id":3,"name":"sshd","kind":"daemon","requires":[10,12],"provides":[]}
{"type":"plugin","id":5,"name":"ntp","kind":"json","requires":[],"provides":[]}
{"type":"barrier","id":10,"name":"disks","kind":"init","requires":[0],"provides":[3]}
{"type":"barrier","id":11,"name":"net","kind":"init","requires":[1],"provides":[2]}
{"type":"barrier","id":12,"name":"fw","kind":"init","requires":[2],"provides":[3]}
{"type":"start","t":100,"worker":0,"id":0}
{"type":"start","t":100,"worker":1,"id":1}
{"type":"finish","t":5100,"worker":0,"id":0,"outcome":"activated"}
{"type":"barrier-done","t":5110,"worker":0,"id":10}
{"type":"start","t":5200,"worker":0,"id":5}
{"type":"finish","t":5600,"worker":0,"id":5,"outcome":"activated"}
{"type":"finish","t":14100,"worker":1,"id":1,"outcome":"activated"}
{"type":"barrier-done","t":14110,"worker":1,"id":11}
{"type":"start","t":14200,"worker":1,"id":2}
{"type":"finish","t":21200,"worker":1,"id":2,"outcome":"activated"}
{"type":"barrier-done","t":21210,"worker":1,"id":12}
{"type":"start","t":21300,"worker":0,"id":3}
{"type":"finish","t":24300,"worker":0,"id":3,"outcome":"activated"}
{"type":"end","t":25000,"status":0}
)";

std::string Text(std::int64_t threshold) {
  std::ostringstream out;
  WriteCompare(Parse(kExampleRecord, "old.jsonl"), Parse(kNewerRecord, "new.jsonl"), threshold,
               false, out);
  return out.str();
}

TEST(CompareTest, LargestRegressionFirstWithAppearedDisappearedAndOutcomes) {
  const std::vector<PluginChange> changes =
      ComparePlugins(Parse(kExampleRecord), Parse(kNewerRecord));
  ASSERT_EQ(changes.size(), 6u);
  EXPECT_EQ(changes[0].name, "network");
  EXPECT_EQ(changes[0].change, 2000);
  EXPECT_EQ(changes[1].name, "ntp");
  EXPECT_FALSE(changes[1].before);
  EXPECT_EQ(changes[1].change, 400);
  EXPECT_EQ(changes[2].name, "sshd");
  EXPECT_EQ(changes[2].change, 0);
  EXPECT_EQ(changes[3].name, "storage");
  EXPECT_EQ(changes[4].name, "debugshell");
  EXPECT_FALSE(changes[4].after);
  EXPECT_EQ(changes[4].change, -500);
  EXPECT_EQ(changes[5].name, "firewall");
  EXPECT_EQ(changes[5].change, -1000);
  EXPECT_TRUE(changes[5].OutcomeChanged());
}

TEST(CompareTest, TextShowsTotalsAndEveryPlugin) {
  EXPECT_EQ(Text(0),
            "old: old.jsonl: plain run of 2026-11-24T15:14:00.123456Z, 24.000ms, status 0\n"
            "new: new.jsonl: plain run of 2026-11-24T15:14:00.123456Z, 25.000ms, status 0\n"
            "total: 24.000ms -> 25.000ms (+1.000ms)\n"
            "\n"
            "  change       old       new  plugin      note\n"
            "+2.000ms  12.000ms  14.000ms  network\n"
            "  +400\xC2\xB5s         -     400\xC2\xB5s  ntp         appeared\n"
            "     0\xC2\xB5s   3.000ms   3.000ms  sshd\n"
            "     0\xC2\xB5s   5.000ms   5.000ms  storage\n"
            "  -500\xC2\xB5s     500\xC2\xB5s         -  debugshell  disappeared\n"
            "-1.000ms   8.000ms   7.000ms  firewall    failed -> activated\n");
}

TEST(CompareTest, ThresholdHidesSmallerDifferencesButNoChangeOfPresenceOrOutcome) {
  const std::string text = Text(1000);
  EXPECT_NE(text.find("network\n"), std::string::npos);
  EXPECT_NE(text.find("ntp         appeared\n"), std::string::npos);
  EXPECT_NE(text.find("debugshell  disappeared\n"), std::string::npos);
  EXPECT_NE(text.find("firewall    failed -> activated\n"), std::string::npos);
  EXPECT_EQ(text.find("sshd"), std::string::npos);
  EXPECT_EQ(text.find("storage"), std::string::npos);
  EXPECT_NE(text.find("\n2 plugins changed by less than 1.000ms: not shown\n"), std::string::npos);
}

TEST(CompareTest, NothingAboveTheThreshold) {
  std::ostringstream out;
  WriteCompare(Parse(kExampleRecord), Parse(kExampleRecord), 1, false, out);
  EXPECT_NE(out.str().find("No plugin changed by 1\xC2\xB5s or more (5 changed less).\n"),
            std::string::npos);
}

TEST(CompareTest, PluginsOfOneNameArePairedInOrder) {
  const std::string twice = kHeaderLine + R"({"type":"plugin","id":0,"name":"a","kind":"json"}
{"type":"plugin","id":1,"name":"a","kind":"json"}
{"type":"start","t":0,"worker":0,"id":0}
{"type":"finish","t":10,"worker":0,"id":0,"outcome":"activated"}
{"type":"start","t":10,"worker":0,"id":1}
{"type":"finish","t":110,"worker":0,"id":1,"outcome":"activated"}
)";
  const std::string once = kHeaderLine + R"({"type":"plugin","id":0,"name":"a","kind":"json"}
{"type":"start","t":0,"worker":0,"id":0}
{"type":"finish","t":30,"worker":0,"id":0,"outcome":"activated"}
)";
  const std::vector<PluginChange> changes = ComparePlugins(Parse(twice), Parse(once));
  ASSERT_EQ(changes.size(), 2u);
  EXPECT_EQ(changes[0].change, 20);    // first with first
  EXPECT_EQ(changes[1].change, -100);  // the second disappeared
  EXPECT_FALSE(changes[1].after);
}

TEST(CompareTest, JsonHasTheSameFacts) {
  std::ostringstream out;
  WriteCompare(Parse(kExampleRecord, "old.jsonl"), Parse(kNewerRecord, "new.jsonl"), 1000, true,
               out);
  const boost::json::value report = boost::json::parse(out.str());
  EXPECT_EQ(report.at("old").at("microseconds"), 24000);
  EXPECT_EQ(report.at("new").at("microseconds"), 25000);
  EXPECT_EQ(report.at("change"), 1000);
  EXPECT_EQ(report.at("hidden"), 2);
  const boost::json::array& plugins = report.at("plugins").as_array();
  ASSERT_EQ(plugins.size(), 4u);
  EXPECT_EQ(plugins[1].at("name"), "ntp");
  EXPECT_TRUE(plugins[1].at("old").is_null());
  EXPECT_EQ(plugins[1].at("note"), "appeared");
  EXPECT_EQ(plugins[3].at("old").at("outcome"), "failed");
  EXPECT_EQ(plugins[3].at("new").at("outcome"), "activated");
  EXPECT_EQ(plugins[3].at("change"), -1000);
}

}  // namespace
}  // namespace orvane::analyze::testing
