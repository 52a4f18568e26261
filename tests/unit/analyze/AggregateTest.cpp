#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <sstream>

#include "AnalyzeTestSupport.h"
#include "analyze/Aggregate.h"

namespace orvane::analyze::testing {
namespace {

/// A record of one plugin "p" that took @p microseconds with @p outcome,
/// and "q" that always takes 10 µs.
Record RunOf(std::int64_t microseconds, const std::string& outcome, const std::string& name) {
  return Parse(kHeaderLine + R"({"type":"plugin","id":0,"name":"p","kind":"json"}
{"type":"plugin","id":1,"name":"q","kind":"debug"}
{"type":"start","t":0,"worker":0,"id":0}
{"type":"finish","t":)" +
                   std::to_string(microseconds) + R"(,"worker":0,"id":0,"outcome":")" + outcome +
                   R"("}
{"type":"start","t":0,"worker":1,"id":1}
{"type":"finish","t":10,"worker":1,"id":1,"outcome":"activated"}
)",
               name);
}

Aggregation TwentyRuns() {
  Aggregation aggregation;
  // p takes 1, 2, ... 20 ms, and fails in the runs of 5 ms and 17 ms.
  for (std::int64_t run = 1; run <= 20; ++run) {
    aggregation.Add(RunOf(run * 1000, run == 5 || run == 17 ? "failed" : "activated",
                          "run" + std::to_string(run) + ".jsonl"));
  }
  return aggregation;
}

TEST(AggregateTest, CountMedianPercentileMaximumAndFailures) {
  const std::vector<PluginStatistics> plugins = TwentyRuns().Statistics();
  ASSERT_EQ(plugins.size(), 2u);
  const PluginStatistics& p = plugins[0];
  EXPECT_EQ(p.name, "p");
  EXPECT_EQ(p.kind, "json");
  EXPECT_EQ(p.count, 20u);
  EXPECT_EQ(p.median, 10500);        // the mean of 10 and 11 ms
  EXPECT_EQ(p.percentile95, 19000);  // the 19th of 20
  EXPECT_EQ(p.maximum, 20000);
  EXPECT_EQ(p.failed, 2u);
  EXPECT_EQ(plugins[1].name, "q");
  EXPECT_EQ(plugins[1].median, 10);
  EXPECT_EQ(plugins[1].failed, 0u);
}

TEST(AggregateTest, OddCountHasTheMiddleAsMedian) {
  Aggregation aggregation;
  for (const std::int64_t time : {300, 100, 200}) {
    aggregation.Add(RunOf(time, "activated", "r.jsonl"));
  }
  const PluginStatistics p = aggregation.Statistics()[0];
  EXPECT_EQ(p.median, 200);
  EXPECT_EQ(p.percentile95, 300);
  EXPECT_EQ(p.count, 3u);
}

TEST(AggregateTest, ActivationsNotFinishedAreNotCounted) {
  Aggregation aggregation;
  aggregation.Add(Parse(kLiveRecord));
  for (const PluginStatistics& plugin : aggregation.Statistics()) {
    EXPECT_NE(plugin.name, "firewall");
    EXPECT_NE(plugin.name, "sshd");
  }
  EXPECT_EQ(aggregation.Statistics().size(), 3u);
}

TEST(AggregateTest, Text) {
  std::ostringstream out;
  WriteAggregate(TwentyRuns(), false, out);
  EXPECT_EQ(out.str(),
            "20 records, 2 plugins with a finished activation\n"
            "\n"
            "count    median       p95       max   failed  plugin\n"
            "   20  10.500ms  19.000ms  20.000ms  2 (10%)  p\n"
            "   20      10\xC2\xB5s      10\xC2\xB5s      10\xC2\xB5s        0  q\n");
}

TEST(AggregateTest, JsonHasTheSameFacts) {
  std::ostringstream out;
  WriteAggregate(TwentyRuns(), true, out);
  const boost::json::value report = boost::json::parse(out.str());
  EXPECT_EQ(report.at("records").as_array().size(), 20u);
  EXPECT_EQ(report.at("records").as_array()[0], "run1.jsonl");
  const boost::json::value& p = report.at("plugins").as_array()[0];
  EXPECT_EQ(p.at("name"), "p");
  EXPECT_EQ(p.at("count"), 20);
  EXPECT_EQ(p.at("median"), 10500);
  EXPECT_EQ(p.at("p95"), 19000);
  EXPECT_EQ(p.at("max"), 20000);
  EXPECT_EQ(p.at("failed"), 2);
}

}  // namespace
}  // namespace orvane::analyze::testing
