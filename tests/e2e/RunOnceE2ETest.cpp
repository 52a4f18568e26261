// The run-once record of the installed orvane on the sandboxed host: which
// runs write /bootbank/orvstate.gz and with what, which read it, and what a
// corrupt record or an unwritable boot bank costs a run. The record is
// written and read back with the host's own gzip tool.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "HostPaths.h"
#include "OutputText.h"
#include "Sandbox.h"
#include "SandboxGTest.h"

namespace orvane::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

class RunOnceE2E : public ::testing::Test {
 protected:
  void SetUp() override {
    ORVANE_REQUIRE_SANDBOX();
    sandbox_ = std::make_unique<Sandbox>();
  }

  /// Runs a shell command line in the sandbox; expects it to succeed and
  /// returns its standard output.
  std::string Shell(const std::string& commandLine) {
    RunResult result = sandbox_->Run({"/bin/sh", "-c", commandLine});
    EXPECT_EQ(result.exitStatus, 0) << commandLine << "\n" << result.err;
    return result.out;
  }

  /// Lays down a record compressed by the gzip tool holding @p content.
  void WriteRecordWithGzip(const std::string& content) {
    sandbox_->WriteFile("/tmp/record-content", content);
    Shell("gzip -n -c /tmp/record-content > " + std::string(kRunOnceRecord));
  }

  /// What the gzip tool decompresses the record to.
  std::string RecordContent() { return Shell("gzip -dc " + std::string(kRunOnceRecord)); }

  /// Runs orvane with @p options; expects it to end by itself.
  RunResult Orvane(std::vector<std::string> options) {
    options.insert(options.begin(), kOrvane);
    RunResult result = sandbox_->Run(options);
    EXPECT_FALSE(result.timedOut);
    return result;
  }

  /// What the injections recorded, in order.
  std::vector<std::string> Recorded() {
    return sandbox_->Exists(kRecord) ? Lines(sandbox_->ReadFile(kRecord))
                                     : std::vector<std::string>{};
  }

  std::unique_ptr<Sandbox> sandbox_;
};

// ---- which runs write the record, and with what

TEST_F(RunOnceE2E, PlainRunWritesTheCommandLineKeysInSetOrder) {
  RunResult result = Orvane({"--run-once=foo1.0,bar2"});
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
  EXPECT_EQ(RecordContent(), "orvane.run-once=bar2,foo1.0,\n");
}

TEST_F(RunOnceE2E, PlainRunWithoutKeysWritesThePrefixLine) {
  EXPECT_EQ(Orvane({}).exitStatus, 0);
  EXPECT_EQ(RecordContent(), "orvane.run-once=\n");
}

TEST_F(RunOnceE2E, WrittenRecordHasNoNameAndTimeZeroInItsHeader) {
  EXPECT_EQ(Orvane({"--run-once=a1"}).exitStatus, 0);
  const std::string bytes = sandbox_->ReadFile(kRunOnceRecord);
  ASSERT_GE(bytes.size(), 10u);
  EXPECT_EQ(bytes.substr(0, 8), std::string("\x1f\x8b\x08\0\0\0\0\0", 8));
}

TEST_F(RunOnceE2E, InitRunIgnoresTheRecordAndRewritesItFromTheCommandLine) {
  WriteRecordWithGzip("orvane.run-once=old1,\n");
  RunResult result = Orvane({"--init", "--run-once=foo1.0,bar2"});
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
  EXPECT_EQ(RecordContent(), "orvane.run-once=bar2,foo1.0,\n");
}

TEST_F(RunOnceE2E, InvokeRunMergesTheRecordWithTheCommandLineKeys) {
  WriteRecordWithGzip("orvane.run-once=a1, b2 ,\n");
  RunResult result =
      Orvane({"--invoke", "--method=start", "--plugin=nothing.txt", "--run-once=c3,a1"});
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
  EXPECT_EQ(RecordContent(), "orvane.run-once=a1,b2,c3,\n");
}

TEST_F(RunOnceE2E, InvokeRunReadsARecordWhoseHeaderNamesAFile) {
  sandbox_->WriteFile("/tmp/orvstate", "orvane.run-once=named1,\n");
  Shell("gzip -N /tmp/orvstate && mv /tmp/orvstate.gz " + std::string(kRunOnceRecord));
  EXPECT_EQ(Orvane({"--invoke", "--method=start", "--plugin=nothing.txt"}).exitStatus, 0);
  EXPECT_EQ(RecordContent(), "orvane.run-once=named1,\n");
}

TEST_F(RunOnceE2E, InvokeRunIgnoresARecordWithAnotherPrefix) {
  WriteRecordWithGzip("orvane.run-twice=a1,\n");
  EXPECT_EQ(
      Orvane({"--invoke", "--method=start", "--plugin=nothing.txt", "--run-once=c3"}).exitStatus,
      0);
  EXPECT_EQ(RecordContent(), "orvane.run-once=c3,\n");
}

TEST_F(RunOnceE2E, DaemonRunNeitherReadsNorWritesTheRecord) {
  // Not gzip data: reading it would end the run with status 1.
  sandbox_->WriteFile(kRunOnceRecord, "left alone");
  RunResult result = Orvane({"--daemon", "--method=start", "--run-once=a1"});
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
  EXPECT_EQ(sandbox_->ReadFile(kRunOnceRecord), "left alone");
}

// ---- bad records and an unwritable boot bank

TEST_F(RunOnceE2E, PluginRecordedByABootIsSkippedByALaterInvokeRun) {
  // A run-once JSON plugin whose one command records that it ran.
  sandbox_->WriteFile("/usr/lib/talvek/qorcli/test.json",
                      R"({"commands": [{"path": ["test", "once"],
                          "exec": ["/bin/sh", "-c", "echo once >> /tmp/record"]}]})");
  sandbox_->WriteFile("/usr/libexec/orvane/plugins/once.json",
                      R"({"metadata": {"version": 3, "requires": [], "provides": [],
                          "required_flags": [], "disabling_flags": [], "run_once": true,
                          "plugin_version": "1.0"},
                          "operations": {"start": ["test once"]}})");
  ASSERT_EQ(Orvane({}).exitStatus, 0);
  EXPECT_THAT(Recorded(), ElementsAre("once"));
  EXPECT_EQ(RecordContent(), "orvane.run-once=once1.0,\n");

  // One executor per boot: its socket file stays until something removes it.
  sandbox_->Remove("/var/run/talvek/orvaneExecutor.sock");
  RunResult invoke = Orvane({"--invoke", "--method=start", "--plugin=once.json"});
  EXPECT_EQ(invoke.exitStatus, 0);
  EXPECT_THAT(invoke.out, HasSubstr("ignoring plugin 'once' because version '1.0'  has already "
                                    "been run.\n"));
  EXPECT_THAT(Recorded(), ElementsAre("once"));
}

TEST_F(RunOnceE2E, CorruptRecordEndsAnInvokeRunNamingTheFileAndTheError) {
  sandbox_->WriteFile(kDebugConfiguration, "probe:::echo probe >> /tmp/record\n");
  sandbox_->WriteFile(kRunOnceRecord, "orvane.run-once=a1,\n");  // not compressed
  RunResult result = Orvane({"--invoke", "--method=start", "--plugin=probe.debug"});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_THAT(result.out,
              HasSubstr("unhandled exception whilst enumerating plugins.\nDetails:\n cannot read "
                        "the run-once record /bootbank/orvstate.gz: not a gzip file, or its "
                        "header is cut short \n"));
  EXPECT_THAT(Recorded(), IsEmpty()) << "nothing is loaded after the record failed";
  EXPECT_EQ(sandbox_->ReadFile(kRunOnceRecord), "orvane.run-once=a1,\n");
}

TEST_F(RunOnceE2E, TruncatedRecordEndsAnInvokeRunNamingTheFile) {
  WriteRecordWithGzip("orvane.run-once=a1,b2,\n");
  Shell("head -c -4 /bootbank/orvstate.gz > /tmp/cut && cat /tmp/cut > /bootbank/orvstate.gz");
  RunResult result = Orvane({"--invoke", "--method=start", "--plugin=nothing.txt"});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_THAT(result.out, HasSubstr("cannot read the run-once record /bootbank/orvstate.gz: the "
                                    "gzip data ends early (truncated file)"));
}

TEST_F(RunOnceE2E, MissingBootBankFailsTheRunAfterThePluginsRan) {
  sandbox_->WriteFile(kDebugConfiguration, "probe:::echo probe >> /tmp/record\n");
  sandbox_->Remove("/bootbank");
  RunResult result = Orvane({"--run-once=a1"});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_THAT(Recorded(), ElementsAre("probe"));
  EXPECT_THAT(result.out,
              HasSubstr("unhandled exception whilst enumerating plugins.\nDetails:\n cannot write "
                        "the run-once record /bootbank/orvstate.gz: No such file or directory \n"));
  EXPECT_FALSE(sandbox_->Exists(kRunOnceRecord));
}

TEST_F(RunOnceE2E, ReadOnlyBootBankFailsTheRunAfterThePluginsRan) {
  sandbox_->WriteFile(kDebugConfiguration, "probe:::echo probe >> /tmp/record\n");
  WriteRecordWithGzip("orvane.run-once=old1,\n");
  RunResult result =
      sandbox_->Run({"/bin/sh", "-c",
                     "mount --bind /bootbank /bootbank && mount -o remount,bind,ro /bootbank && "
                     "exec /usr/bin/orvane --run-once=a1"});
  ASSERT_THAT(result.err, Not(HasSubstr("mount"))) << "the boot bank was not made read-only";
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_THAT(Recorded(), ElementsAre("probe"));
  EXPECT_THAT(result.out, HasSubstr("cannot write the run-once record /bootbank/orvstate.gz: "
                                    "Read-only file system"));
  EXPECT_EQ(RecordContent(), "orvane.run-once=old1,\n") << "the old record stays as it was";
}

}  // namespace
}  // namespace orvane::testing
