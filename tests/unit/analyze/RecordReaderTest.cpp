#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "AnalyzeTestSupport.h"
#include "TemporaryDirectory.h"
#include "analyze/RecordError.h"
#include "analyze/RecordReader.h"

namespace orvane::analyze::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

/// The message of the RecordError that reading @p text raises; empty when
/// it reads.
std::string ErrorOf(const std::string& text, const std::string& name = "bad.jsonl") {
  try {
    ParseRecord(text, name);
  } catch (const RecordError& error) {
    return error.what();
  }
  return {};
}

TEST(RecordReaderTest, ReadsTheHeader) {
  const Record record = Parse(kExampleRecord);
  EXPECT_EQ(record.path, "example.jsonl");
  EXPECT_EQ(record.header.schema, 1);
  EXPECT_EQ(record.header.mode, "plain");
  EXPECT_EQ(record.header.start, "2026-11-24T15:14:00.123456Z");
  EXPECT_EQ(record.header.startMicroseconds, kExampleStart);
  EXPECT_EQ(record.header.host, "host1");
  EXPECT_EQ(record.header.pid, 1234);
  EXPECT_EQ(record.header.version, "0.1.0");
  EXPECT_EQ(record.header.threads, 2);
  EXPECT_TRUE(record.header.parallel);
}

TEST(RecordReaderTest, ReadsVerticesInOrderWithTheirEdgesAsIndices) {
  const Record record = Parse(kExampleRecord);
  ASSERT_EQ(record.vertices.size(), 8u);
  const Vertex& sshd = record.vertices[IndexOf(record, "sshd")];
  EXPECT_TRUE(sshd.isPlugin);
  EXPECT_EQ(sshd.kind, "daemon");
  EXPECT_EQ(sshd.file, "/etc/init.d/sshd");
  ASSERT_EQ(sshd.required.size(), 2u);
  EXPECT_EQ(record.vertices[sshd.required[0]].name, "disks");
  EXPECT_EQ(record.vertices[sshd.required[1]].name, "fw");
  const Vertex& net = record.vertices[IndexOf(record, "net")];
  EXPECT_FALSE(net.isPlugin);
  EXPECT_EQ(net.kind, "init");
  ASSERT_EQ(net.required.size(), 1u);
  EXPECT_EQ(record.vertices[net.required[0]].name, "network");
  ASSERT_EQ(net.provided.size(), 1u);
  EXPECT_EQ(record.vertices[net.provided[0]].name, "firewall");
  const Vertex& firewall = record.vertices[IndexOf(record, "firewall")];
  EXPECT_EQ(firewall.runOnceKey, "firewall1.0");
  EXPECT_EQ(firewall.apiVersion, 3);
}

TEST(RecordReaderTest, ReadsEventsOutcomesAndTheEnd) {
  const Record record = Parse(kExampleRecord);
  const Vertex& firewall = record.vertices[IndexOf(record, "firewall")];
  ASSERT_TRUE(firewall.ready && firewall.start && firewall.finish);
  EXPECT_EQ(firewall.ready->t, 12190);
  EXPECT_EQ(firewall.start->t, 12200);
  EXPECT_EQ(firewall.start->worker, 1);
  EXPECT_EQ(firewall.finish->t, 20200);
  EXPECT_EQ(firewall.outcome, "failed");
  EXPECT_EQ(firewall.reason, "firewall->start() failed: error while executing the cli");
  EXPECT_EQ(firewall.ActivationTime(), 8000);
  const Vertex& disks = record.vertices[IndexOf(record, "disks")];
  ASSERT_TRUE(disks.done);
  EXPECT_EQ(disks.done->t, 5170);
  ASSERT_EQ(record.refused.size(), 1u);
  EXPECT_EQ(record.refused[0].name, "broken");
  ASSERT_TRUE(record.end);
  EXPECT_EQ(record.end->status, 0);
  EXPECT_EQ(record.end->t, 24000);
  EXPECT_FALSE(record.Live());
  EXPECT_EQ(record.Duration(), 24000);
}

TEST(RecordReaderTest, RecordWithoutEndLineIsLiveAndLastsUntilItsLastEvent) {
  const Record record = Parse(kLiveRecord);
  EXPECT_TRUE(record.Live());
  EXPECT_EQ(record.Duration(), 12200);
  EXPECT_EQ(record.vertices[IndexOf(record, "firewall")].State(), VertexState::kRunning);
  EXPECT_EQ(record.vertices[IndexOf(record, "sshd")].State(), VertexState::kWaiting);
  EXPECT_EQ(record.vertices[IndexOf(record, "storage")].State(), VertexState::kDone);
}

TEST(RecordReaderTest, LastLineWithoutLineEndIsReadWhenComplete) {
  std::string text = kExampleRecord;
  text.pop_back();
  EXPECT_TRUE(Parse(text).end);
}

TEST(RecordReaderTest, ReadsAFileAndNamesItInErrors) {
  unit_testing::TemporaryDirectory directory;
  directory.Write("run.jsonl", kExampleRecord);
  const Record record = ReadRecord(directory / "run.jsonl");
  EXPECT_EQ(record.path, directory / "run.jsonl");
  EXPECT_EQ(record.vertices.size(), 8u);
}

TEST(RecordReaderTest, MissingFileIsAnErrorNamingIt) {
  unit_testing::TemporaryDirectory directory;
  try {
    ReadRecord(directory / "missing.jsonl");
    FAIL() << "a missing record was read";
  } catch (const RecordError& error) {
    EXPECT_EQ(std::string(error.what()),
              directory / "missing.jsonl" + ": cannot be opened: No such file or directory");
  }
}

TEST(RecordReaderTest, DirectoryIsNotARecord) {
  unit_testing::TemporaryDirectory directory;
  try {
    ReadRecord(directory.Path().string());
    FAIL() << "a directory was read";
  } catch (const RecordError& error) {
    EXPECT_THAT(error.what(), HasSubstr("not a regular file (a directory)"));
  }
}

TEST(RecordReaderTest, EmptyFileIsAnError) {
  EXPECT_EQ(ErrorOf(""), "bad.jsonl: the record is empty");
}

TEST(RecordReaderTest, TruncatedLastLineIsCutOff) {
  const std::string text = kLiveRecord + R"({"type":"finish","t":20200,"wor)";
  EXPECT_EQ(ErrorOf(text), "bad.jsonl: cut off: line 26, the last, is not a complete JSON object");
}

TEST(RecordReaderTest, TruncatedLastLineWithLineEndIsCutOffToo) {
  const std::string text = kLiveRecord + R"({"type":"finish","t":20200,"wor)" + "\n";
  EXPECT_EQ(ErrorOf(text), "bad.jsonl: cut off: line 26, the last, is not a complete JSON object");
}

TEST(RecordReaderTest, LineInTheMiddleThatDoesNotParseIsDamage) {
  const std::string text =
      kHeaderLine + R"({"type":"plugin","id":0,"name":"a")" + "\n" + kExampleGraph;
  EXPECT_THAT(ErrorOf(text), StartsWith("bad.jsonl: damaged: line 2 does not parse as JSON ("));
}

TEST(RecordReaderTest, LineThatIsNotAnObjectIsDamage) {
  EXPECT_EQ(ErrorOf(kHeaderLine + "[1,2]\n" + kExampleGraph),
            "bad.jsonl: damaged: line 2 is not a JSON object");
}

TEST(RecordReaderTest, ForeignFileWithoutHeaderIsNotARunRecord) {
  EXPECT_EQ(ErrorOf(kExampleGraph), "bad.jsonl: not a run record: line 1 is not a header");
  EXPECT_EQ(ErrorOf("hello, world\nsecond line\n"),
            "bad.jsonl: not a run record: line 1 is not JSON");
  EXPECT_EQ(ErrorOf("\x89PNG\r\n\x1a\n"), "bad.jsonl: not a run record: line 1 is not JSON");
  EXPECT_EQ(ErrorOf("42\n"), "bad.jsonl: not a run record: line 1 is not a JSON object");
}

TEST(RecordReaderTest, UnknownSchemaIsRefused) {
  std::string header = kHeaderLine;
  header.replace(header.find("\"schema\":1"), 10, "\"schema\":2");
  EXPECT_EQ(ErrorOf(header + kExampleGraph),
            "bad.jsonl: unknown record schema 2 (this orvane-analyze reads schema 1)");
}

TEST(RecordReaderTest, HeaderWithoutSchemaIsNotARunRecord) {
  EXPECT_EQ(ErrorOf(R"({"type":"header","mode":"plain"})"
                    "\n"),
            "bad.jsonl: not a run record: the header has no schema number");
}

TEST(RecordReaderTest, LineWithoutAFieldItsTypeNeedsIsDamage) {
  EXPECT_EQ(ErrorOf(kHeaderLine + R"({"type":"plugin","name":"a","kind":"json"})" + "\n"),
            "bad.jsonl: damaged: line 2 has no whole number \"id\"");
  EXPECT_EQ(ErrorOf(kHeaderLine + kExampleGraph + R"({"type":"finish","t":1,"id":0})" + "\n"),
            "bad.jsonl: damaged: line 11 has no text \"outcome\"");
  EXPECT_EQ(ErrorOf(kHeaderLine + R"({"t":1})" + "\n"),
            "bad.jsonl: damaged: line 2 has no \"type\"");
}

TEST(RecordReaderTest, FinishWithAnOutcomeTheWriterNeverWritesIsDamage) {
  EXPECT_EQ(ErrorOf(kHeaderLine + kExampleGraph +
                    R"({"type":"finish","t":1,"id":0,"outcome":"ski\u00ffpped"})" + "\n"),
            "bad.jsonl: damaged: line 11 has an unknown outcome");
}

TEST(RecordReaderTest, EventOfAVertexTheGraphLacksIsDamage) {
  EXPECT_EQ(ErrorOf(kHeaderLine + kExampleGraph + R"({"type":"ready","t":1,"id":99})" + "\n"),
            "bad.jsonl: damaged: line 11 (ready) names vertex 99, which the graph does not have");
}

TEST(RecordReaderTest, PluginEventOfABarrierIsDamage) {
  EXPECT_EQ(ErrorOf(kHeaderLine + kExampleGraph + R"({"type":"start","t":1,"id":10})" + "\n"),
            "bad.jsonl: damaged: line 11 (start) names vertex 10, a barrier");
}

TEST(RecordReaderTest, SecondStartOfAPluginIsDamage) {
  EXPECT_EQ(ErrorOf(kHeaderLine + kExampleGraph + R"({"type":"start","t":1,"id":0})" + "\n" +
                    R"({"type":"start","t":2,"id":0})" + "\n"),
            "bad.jsonl: damaged: line 12 is a second start of vertex 0");
}

TEST(RecordReaderTest, TwoVerticesWithOneIdAreDamage) {
  EXPECT_EQ(ErrorOf(kHeaderLine + R"({"type":"barrier","id":1,"name":"a","kind":"init"})" + "\n" +
                    R"({"type":"plugin","id":1,"name":"b","kind":"json"})" + "\n"),
            "bad.jsonl: damaged: line 3 gives id 1 to a second vertex");
}

TEST(RecordReaderTest, LineAfterTheEndIsDamage) {
  EXPECT_EQ(ErrorOf(kExampleRecord + R"({"type":"ready","t":1,"id":0})" + "\n"),
            "bad.jsonl: damaged: line 33 follows the end line");
}

TEST(RecordReaderTest, SecondHeaderIsDamage) {
  EXPECT_EQ(ErrorOf(kHeaderLine + kHeaderLine), "bad.jsonl: damaged: line 2 is a second header");
}

TEST(RecordReaderTest, EmptyLineInTheMiddleIsDamage) {
  EXPECT_THAT(ErrorOf(kHeaderLine + "\n" + kExampleGraph),
              StartsWith("bad.jsonl: damaged: line 2 does not parse as JSON"));
}

TEST(RecordReaderTest, LinesOfUnknownTypesAreSkipped) {
  const Record record = Parse(kHeaderLine + R"({"type":"annotation","text":"later addition"})" +
                              "\n" + kExampleGraph);
  EXPECT_EQ(record.vertices.size(), 8u);
}

TEST(RecordReaderTest, RecordCutWhileItsGraphWasWrittenDropsEdgesToVerticesNotYetWritten) {
  // The plugin lines came, the barrier lines did not.
  const std::string graph = kExampleGraph.substr(0, kExampleGraph.find(R"({"type":"barrier")"));
  const Record record = Parse(kHeaderLine + graph);
  EXPECT_EQ(record.vertices.size(), 5u);
  EXPECT_TRUE(record.vertices[IndexOf(record, "sshd")].required.empty());
}

TEST(RecordReaderTest, NamesThatAreNotUtf8AreKeptAsWritten) {
  const Record record = Parse(
      kHeaderLine + "{\"type\":\"plugin\",\"id\":0,\"name\":\"caf\xE9\",\"kind\":\"json\"}\n");
  EXPECT_EQ(record.vertices[0].name, "caf\xE9");
}

TEST(RecordReaderTest, AlreadyRunPluginIsDoneWhenReady) {
  const Record record = Parse(
      kHeaderLine +
      R"({"type":"plugin","id":0,"name":"once","kind":"json","runOnceKey":"k","alreadyRun":true})" +
      "\n" + R"({"type":"ready","t":7,"worker":-1,"id":0})" + "\n");
  const Vertex& once = record.vertices[0];
  EXPECT_TRUE(once.alreadyRun);
  EXPECT_EQ(once.State(), VertexState::kDone);
  ASSERT_TRUE(once.Completion());
  EXPECT_EQ(once.Completion()->t, 7);
  EXPECT_FALSE(once.ActivationTime());
}

TEST(RecordReaderTest, AlreadyRunPluginWithoutEventsIsDone) {
  const Record record = Parse(
      kHeaderLine +
      R"({"type":"plugin","id":0,"name":"once","kind":"json","runOnceKey":"k","alreadyRun":true})" +
      "\n");
  EXPECT_EQ(record.vertices[0].State(), VertexState::kDone);
  EXPECT_FALSE(record.vertices[0].Completion());
}

}  // namespace
}  // namespace orvane::analyze::testing
