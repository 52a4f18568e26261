#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <sstream>

#include "AnalyzeTestSupport.h"
#include "analyze/Blame.h"

namespace orvane::analyze::testing {
namespace {

std::string Text(const Record& record) {
  std::ostringstream out;
  WriteBlame(record, false, out);
  return out.str();
}

TEST(BlameTest, LongestActivationFirstWithKindAndOutcome) {
  EXPECT_EQ(Text(Parse(kExampleRecord)),
            "    time  plugin      kind    outcome\n"
            "12.000ms  network     native  activated\n"
            " 8.000ms  firewall    json    failed\n"
            " 5.000ms  storage     json    activated\n"
            " 3.000ms  sshd        daemon  activated\n"
            "   500\xC2\xB5s  debugshell  debug   activated\n");
}

TEST(BlameTest, EqualTimesKeepStartOrder) {
  const Record record = Parse(kHeaderLine + R"({"type":"plugin","id":0,"name":"b","kind":"json"}
{"type":"plugin","id":1,"name":"a","kind":"json"}
{"type":"start","t":10,"worker":0,"id":1}
{"type":"start","t":20,"worker":1,"id":0}
{"type":"finish","t":30,"worker":0,"id":1,"outcome":"activated"}
{"type":"finish","t":40,"worker":1,"id":0,"outcome":"skipped"}
)");
  const std::vector<BlameEntry> entries = Blame(record);
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(record.vertices[entries[0].vertex].name, "a");
  EXPECT_EQ(record.vertices[entries[1].vertex].name, "b");
  EXPECT_EQ(entries[1].outcome, "skipped");
}

TEST(BlameTest, RunningActivationOfALiveRecordCountsUntilTheLastEvent) {
  const std::vector<BlameEntry> entries = Blame(Parse(kLiveRecord));
  ASSERT_EQ(entries.size(), 4u);  // sshd never started
  EXPECT_EQ(entries.back().outcome, "running");
  EXPECT_EQ(entries.back().microseconds, 0);  // firewall's start is the last event
}

TEST(BlameTest, UnfinishedActivationOfAnEndedRecordIsSaidSo) {
  const Record record = Parse(kLiveRecord + R"({"type":"end","t":15000,"status":1})" + "\n");
  const std::vector<BlameEntry> entries = Blame(record);
  ASSERT_EQ(entries.size(), 4u);
  EXPECT_EQ(record.vertices[entries[2].vertex].name, "firewall");
  EXPECT_EQ(entries[2].outcome, "unfinished");
  EXPECT_EQ(entries[2].microseconds, 2800);  // until the end line
}

TEST(BlameTest, LongNamesAndControlCharactersAreKeptToTheColumn) {
  const Record record = Parse(kHeaderLine +
                              "{\"type\":\"plugin\",\"id\":0,\"name\":\"a-plugin-name-far-longer-"
                              "than-any-column-should-be\\u001b[2J\",\"kind\":\"json\"}\n"
                              "{\"type\":\"start\",\"t\":0,\"worker\":0,\"id\":0}\n");
  const std::string text = Text(record);
  EXPECT_EQ(text.find('\x1B'), std::string::npos);
  EXPECT_NE(text.find("a-plugin-name-far-longer-than-any-colum\xE2\x80\xA6  json"),
            std::string::npos)
      << text;
}

TEST(BlameTest, NoPluginStarted) {
  EXPECT_EQ(Text(Parse(kHeaderLine + kExampleGraph)), "No plugin has started.\n");
}

TEST(BlameTest, JsonHasTheSameFacts) {
  std::ostringstream out;
  WriteBlame(Parse(kExampleRecord), true, out);
  const boost::json::value report = boost::json::parse(out.str());
  EXPECT_EQ(report.at("record"), "example.jsonl");
  const boost::json::array& plugins = report.at("plugins").as_array();
  ASSERT_EQ(plugins.size(), 5u);
  EXPECT_EQ(plugins[1].at("name"), "firewall");
  EXPECT_EQ(plugins[1].at("kind"), "json");
  EXPECT_EQ(plugins[1].at("outcome"), "failed");
  EXPECT_EQ(plugins[1].at("microseconds"), 8000);
  EXPECT_EQ(plugins[1].at("reason"), "firewall->start() failed: error while executing the cli");
  EXPECT_EQ(plugins[4].at("name"), "debugshell");
  EXPECT_FALSE(plugins[4].as_object().contains("reason"));
}

}  // namespace
}  // namespace orvane::analyze::testing
