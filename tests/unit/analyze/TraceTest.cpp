#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <map>
#include <sstream>

#include "AnalyzeTestSupport.h"
#include "analyze/Trace.h"

namespace orvane::analyze::testing {
namespace {

boost::json::array Events(const Record& record) {
  std::ostringstream out;
  WriteTrace(record, out);
  // Parsed with the strict parser: the trace must be valid JSON.
  return boost::json::parse(out.str()).at("traceEvents").as_array();
}

std::vector<boost::json::object> OfPhase(const boost::json::array& events, const char* phase) {
  std::vector<boost::json::object> matching;
  for (const boost::json::value& event : events) {
    if (event.at("ph") == phase) {
      matching.push_back(event.as_object());
    }
  }
  return matching;
}

TEST(TraceTest, OneCompleteEventPerPluginOnItsWorkersLane) {
  const boost::json::array events = Events(Parse(kExampleRecord));
  const std::vector<boost::json::object> complete = OfPhase(events, "X");
  ASSERT_EQ(complete.size(), 5u);
  std::map<std::string, boost::json::object> byName;
  for (const boost::json::object& event : complete) {
    byName[std::string(event.at("name").as_string())] = event;
  }
  ASSERT_EQ(byName.size(), 5u);
  const boost::json::object& firewall = byName.at("firewall");
  EXPECT_EQ(firewall.at("ts"), 12200);
  EXPECT_EQ(firewall.at("dur"), 8000);
  EXPECT_EQ(firewall.at("tid"), 1);
  EXPECT_EQ(firewall.at("pid"), 1234);
  EXPECT_EQ(firewall.at("cat"), "json");
  EXPECT_EQ(firewall.at("args").at("outcome"), "failed");
  EXPECT_EQ(firewall.at("args").at("ready"), 12190);
  EXPECT_EQ(byName.at("sshd").at("tid"), 0);
  EXPECT_EQ(byName.at("sshd").at("dur"), 3000);
}

TEST(TraceTest, BarrierCompletionsAreInstantEvents) {
  const std::vector<boost::json::object> instants = OfPhase(Events(Parse(kExampleRecord)), "i");
  ASSERT_EQ(instants.size(), 3u);
  EXPECT_EQ(instants[0].at("name"), "disks");
  EXPECT_EQ(instants[0].at("ts"), 5170);
  EXPECT_EQ(instants[0].at("s"), "t");
  EXPECT_EQ(instants[0].at("tid"), 0);
}

TEST(TraceTest, FlowArrowsGoFromEachReleaserToWhatItReleased) {
  const boost::json::array events = Events(Parse(kExampleRecord));
  const std::vector<boost::json::object> starts = OfPhase(events, "s");
  const std::vector<boost::json::object> finishes = OfPhase(events, "f");
  // network released firewall (through net), firewall released sshd
  // (through fw, the barrier sshd waited for last); storage released
  // nothing sshd still waited for.
  ASSERT_EQ(starts.size(), 2u);
  ASSERT_EQ(finishes.size(), 2u);
  for (std::size_t arrow = 0; arrow < 2; ++arrow) {
    EXPECT_EQ(starts[arrow].at("id"), finishes[arrow].at("id"));
    EXPECT_EQ(finishes[arrow].at("bp"), "e");
  }
  // Each end lies inside its activation: network [160, 12160] on worker 1
  // to firewall [12200, 20200] on worker 1; firewall to sshd [20500, 23500]
  // on worker 0.
  EXPECT_EQ(starts[0].at("tid"), 1);
  EXPECT_EQ(starts[0].at("ts"), 6160);
  EXPECT_EQ(finishes[0].at("tid"), 1);
  EXPECT_EQ(finishes[0].at("ts"), 16200);
  EXPECT_EQ(starts[1].at("ts"), 16200);
  EXPECT_EQ(finishes[1].at("tid"), 0);
  EXPECT_EQ(finishes[1].at("ts"), 22000);
}

TEST(TraceTest, LanesAreNamedAndTheMainThreadGetsOneAfterTheWorkers) {
  const Record record =
      Parse(kHeaderLine + R"({"type":"barrier","id":0,"name":"early","kind":"init"}
{"type":"ready","t":1,"worker":-1,"id":0}
{"type":"barrier-done","t":2,"worker":-1,"id":0}
)");
  const boost::json::array events = Events(record);
  const std::vector<boost::json::object> instants = OfPhase(events, "i");
  ASSERT_EQ(instants.size(), 1u);
  EXPECT_EQ(instants[0].at("tid"), 2);  // two workers: lanes 0 and 1
  bool mainNamed = false;
  for (const boost::json::object& metadata : OfPhase(events, "M")) {
    if (metadata.at("name") == "thread_name" && metadata.at("tid") == 2) {
      mainNamed = metadata.at("args").at("name") == "main thread";
    }
  }
  EXPECT_TRUE(mainNamed);
}

TEST(TraceTest, RunningActivationLastsUntilTheLastEvent) {
  const std::vector<boost::json::object> complete = OfPhase(Events(Parse(kLiveRecord)), "X");
  ASSERT_EQ(complete.size(), 4u);
  EXPECT_EQ(complete.back().at("name"), "firewall");
  EXPECT_EQ(complete.back().at("dur"), 0);
  EXPECT_EQ(complete.back().at("args").at("outcome"), "running");
}

TEST(TraceTest, NamesThatAreNotUtf8BecomeValidJson) {
  const Record record =
      Parse(kHeaderLine +
            "{\"type\":\"plugin\",\"id\":0,\"name\":\"caf\xE9\",\"kind\":\"json\"}\n"
            "{\"type\":\"start\",\"t\":0,\"worker\":0,\"id\":0}\n");
  const std::vector<boost::json::object> complete = OfPhase(Events(record), "X");
  ASSERT_EQ(complete.size(), 1u);
  EXPECT_EQ(complete[0].at("name"), "caf\xEF\xBF\xBD");
}

}  // namespace
}  // namespace orvane::analyze::testing
