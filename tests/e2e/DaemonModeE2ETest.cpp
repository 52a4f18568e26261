// Daemon mode of the installed orvane on the sandboxed host: a service tool
// that lists real init.d scripts, the start and stop passes in start order,
// concurrency within a level, what failures and bad listings cost, and a
// daemon of a Debian package started and stopped for real.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "HostPaths.h"
#include "OrvaneRunTest.h"
#include "OutputText.h"
#include "Sandbox.h"
#include "SandboxGTest.h"

namespace orvane::testing {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::UnorderedElementsAre;

constexpr const char* kInitd = "/etc/init.d/";

/// The body of an init.d script that records "<action> <name>".
std::string Recording(const std::string& name) {
  return "echo \"$1 " + name + "\" >> /tmp/record\n";
}

class DaemonModeE2E : public OrvaneRunTest {
 protected:
  /// A service tool whose priority listing is @p listing.
  void WriteListing(const std::string& listing) {
    sandbox_->WriteFile(
        kServiceTool,
        "#!/bin/sh\n[ \"$1\" = -p ] || exit 2\ncat <<'LISTING'\n" + listing + "LISTING\n", 0755);
  }

  /// An init.d script @p name with @p body; returns its path.
  std::string WriteScript(const std::string& name, const std::string& body, mode_t mode = 0755) {
    const std::string path = kInitd + name;
    sandbox_->WriteFile(path, "#!/bin/sh\n" + body, mode);
    return path;
  }
};

// ---- order

TEST_F(DaemonModeE2E, StartPassRunsTheDaemonsLevelByLevel) {
  WriteListing(WriteScript("late", Recording("late")) + " 30\n" +
               WriteScript("early", Recording("early")) + " 10\n" +
               WriteScript("middle", Recording("middle")) + " 20\n" +
               WriteScript("early2", Recording("early2") + "echo noise >&2\n") + " 10\n");
  RunResult result = Orvane({"--daemon", "--method=start"});
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
  EXPECT_THAT(Recorded(), ElementsAre("start early", "start early2", "start middle", "start late"));
  EXPECT_THAT(KernelLog(),
              ElementsAre("Activating Orvane plugin early.", "Orvane plugin early activated.",
                          "Activating Orvane plugin early2.", "Orvane plugin early2 activated.",
                          "Activating Orvane plugin middle.", "Orvane plugin middle activated.",
                          "Activating Orvane plugin late.", "Orvane plugin late activated."));
  EXPECT_THAT(messages_, Contains("early started."));
  EXPECT_THAT(messages_, Contains("executing start plugin: late"));
  // A daemon's standard streams are not orvane's.
  EXPECT_THAT(result.out + result.err, Not(HasSubstr("noise")));
}

TEST_F(DaemonModeE2E, StopPassRunsTheLevelsInReverse) {
  WriteListing(WriteScript("low", Recording("low")) + " 10\n" +
               WriteScript("high", Recording("high")) + " 30\n" +
               WriteScript("mid", Recording("mid")) + " 20\n" +
               WriteScript("low2", Recording("low2")) + " 10\n");
  RunResult result = Orvane({"--daemon=wait", "--method=stop"});
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
  const std::vector<std::string> recorded = Recorded();
  EXPECT_THAT(recorded, UnorderedElementsAre("stop high", "stop mid", "stop low", "stop low2"));
  EXPECT_EQ(Position(recorded, "stop high"), 0u);
  EXPECT_EQ(Position(recorded, "stop mid"), 1u);
  EXPECT_THAT(KernelLog(), Contains("Deactivating Daemon high."));
  EXPECT_THAT(KernelLog(), Contains("Daemon low2 deactivated."));
  EXPECT_THAT(KernelLog(), Not(Contains(HasSubstr("Activating"))));
  EXPECT_THAT(messages_, Contains("executing stop for daemon mid."));
  EXPECT_THAT(messages_, Contains("mid stopped."));
}

// A script that leaves its marker, waits up to 3 seconds for its partner's
// and records whether they met: they meet only when they run at once.
std::string Rendezvous(const std::string& name, const std::string& partner) {
  return "touch /tmp/" + name + "; i=0; while [ ! -e /tmp/" + partner +
         " ] && [ $i -lt 30 ]; do sleep 0.1; i=$((i+1)); done; if [ -e /tmp/" + partner +
         " ]; then echo " + name + " met; else echo " + name + " alone; fi >> /tmp/record\n";
}

TEST_F(DaemonModeE2E, ParallelRunsTheDaemonsOfOneLevelAtTheSameTime) {
  WriteListing(WriteScript("left", Rendezvous("left", "right")) + " 10\n" +
               WriteScript("right", Rendezvous("right", "left")) + " 10\n" +
               WriteScript("next", "echo next >> /tmp/record\n") + " 20\n");
  EXPECT_EQ(Orvane({"--daemon=wait", "--method=start", "--parallel"}).exitStatus, 0);
  const std::vector<std::string> recorded = Recorded();
  EXPECT_THAT(recorded, UnorderedElementsAre("left met", "right met", "next"));
  EXPECT_EQ(Position(recorded, "next"), 2u);  // the next level waits for both
}

TEST_F(DaemonModeE2E, WithoutParallelTheDaemonsOfOneLevelRunOneAfterTheOther) {
  WriteListing(WriteScript("left", Rendezvous("left", "right")) + " 10\n" +
               WriteScript("right", Rendezvous("right", "left")) + " 10\n");
  EXPECT_EQ(Orvane({"--daemon=wait", "--method=start"}).exitStatus, 0);
  EXPECT_THAT(Recorded(), ElementsAre("left alone", "right met"));
}

// ---- real daemons

TEST_F(DaemonModeE2E, DaemonStartedInTheBackgroundRunsOnUntilItsStop) {
  WriteListing(WriteScript("sleeper",
                           "case \"$1\" in\n"
                           "start) /bin/sleep 300 </dev/null >/dev/null 2>&1 &\n"
                           "       echo $! > /run/sleeper.pid ;;\n"
                           "stop) kill \"$(cat /run/sleeper.pid)\" && rm /run/sleeper.pid ;;\n"
                           "esac\n") +
               " 50\n");
  RunResult result = sandbox_->Run(
      {"/bin/sh", "-c",
       "/usr/bin/orvane --daemon=wait --method=start >/dev/null || echo start failed\n"
       "pid=$(cat /run/sleeper.pid)\n"
       "sleep 0.2; kill -0 \"$pid\" && echo running $(cat /proc/$pid/comm)\n"
       "/usr/bin/orvane --daemon=wait --method=stop >/dev/null || echo stop failed\n"
       "i=0; while kill -0 \"$pid\" 2>/dev/null && [ $i -lt 100 ]; do sleep 0.1; i=$((i+1)); done\n"
       "kill -0 \"$pid\" 2>/dev/null || echo gone\n"
       "[ -e /run/sleeper.pid ] || echo pid file removed\n"});
  EXPECT_EQ(result.exitStatus, 0) << result.err;
  EXPECT_THAT(Lines(result.out), ElementsAre("running sleep", "gone", "pid file removed"));
}

TEST_F(DaemonModeE2E, InitScriptOfADebianPackageStartsAndStopsItsDaemon) {
  if (!sandbox_->Exists("/etc/init.d/rsync") || !sandbox_->Exists("/usr/bin/rsync")) {
    GTEST_SKIP() << "the rsync package is not installed (scripts/setup-deps installs it)";
  }
  // On the loopback interface and a port of its own: the sandbox shares the
  // machine's network.
  sandbox_->WriteFile("/etc/default/rsync", "RSYNC_ENABLE=true\n");
  sandbox_->WriteFile("/etc/rsyncd.conf",
                      "address = 127.0.0.1\nport = 28731\n[tmp]\npath = /tmp\n");
  WriteListing("/etc/init.d/rsync 60\n");
  RunResult result = sandbox_->Run(
      {"/bin/sh", "-c",
       "/usr/bin/orvane --daemon=wait --method=start >/tmp/start.log || echo start failed\n"
       "pid=$(cat /var/run/rsync.pid)\n"
       "kill -0 \"$pid\" && echo running $(cat /proc/$pid/comm)\n"
       // The daemon may not listen yet when its script has returned.
       "i=0; until rsync rsync://127.0.0.1:28731/ >/tmp/listing 2>/dev/null || [ $i -ge 100 ]; "
       "do sleep 0.1; i=$((i+1)); done\n"
       "cut -f1 -d' ' /tmp/listing\n"
       "/usr/bin/orvane --daemon=wait --method=stop >/tmp/stop.log || echo stop failed\n"
       "i=0; while kill -0 \"$pid\" 2>/dev/null && [ $i -lt 100 ]; do sleep 0.1; i=$((i+1)); done\n"
       "kill -0 \"$pid\" 2>/dev/null || echo gone\n"
       "[ -e /var/run/rsync.pid ] || echo pid file removed\n"});
  EXPECT_EQ(result.exitStatus, 0) << result.err;
  EXPECT_THAT(Lines(result.out), ElementsAre("running rsync", "tmp", "gone", "pid file removed"))
      << sandbox_->ReadFile("/tmp/start.log") << sandbox_->ReadFile("/tmp/stop.log");
  EXPECT_THAT(LogMessages(sandbox_->ReadFile("/tmp/start.log")), Contains("rsync started."));
  EXPECT_THAT(LogMessages(sandbox_->ReadFile("/tmp/stop.log")), Contains("rsync stopped."));
}

// ---- failures

TEST_F(DaemonModeE2E, FailingDaemonsAreReportedAndTheOthersStillStart) {
  const std::string three = WriteScript("three", "exit 3\n");
  const std::string killed = WriteScript("killed", "kill -9 $$\n");
  WriteListing(WriteScript("before", Recording("before")) + " 10\n" + three + " 20\n" + killed +
               " 20\n" + WriteScript("after", Recording("after")) + " 30\n");
  RunResult result = Orvane({"--daemon", "--method=start"});
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_THAT(Recorded(), ElementsAre("start before", "start after"));
  const std::string statusFailure =
      "Execution of command: /etc/init.d/three start failed with status: 3";
  EXPECT_THAT(messages_, Contains("Orvane failed to start: three reason: " + statusFailure));
  EXPECT_THAT(messages_,
              Contains("Method invocation failed: three->start() failed: " + statusFailure));
  EXPECT_THAT(messages_, Contains("Orvane failed to start: killed reason: Execution of command: "
                                  "/etc/init.d/killed start failed with signal: 9"));
  EXPECT_THAT(KernelLog(),
              Contains("Orvane plugin three activation failed: Method invocation failed"));
  EXPECT_THAT(KernelLog(), Contains("Orvane plugin after activated."));
}

TEST_F(DaemonModeE2E, WaitTimeOutReportsASlowDaemonAndMovesOn) {
  // The slow daemon records its end after half a minute unless the sandbox
  // has ended it, with all else left running, when orvane exited: its line
  // would mean that orvane waited for it.
  WriteListing(WriteScript("slow", "sleep 30; echo slow ended >> /tmp/record\n") + " 10\n" +
               WriteScript("quick", Recording("quick")) + " 20\n");
  RunResult result = Orvane({"--daemon=wait", "--daemon-wait-timeout=1", "--method=start"});
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_THAT(messages_, Contains("Orvane failed to start: slow reason: Execution of command: "
                                  "'/etc/init.d/slow start' timed out."));
  EXPECT_THAT(Recorded(), ElementsAre("start quick"));
}

TEST_F(DaemonModeE2E, StopThatFailsIsReportedAndTheOtherLevelsStillStop) {
  WriteListing(WriteScript("low", Recording("low")) + " 10\n" +
               WriteScript("stubborn", "exit 1\n") + " 20\n");
  RunResult result = Orvane({"--daemon=wait", "--method=stop"});
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_THAT(Recorded(), ElementsAre("stop low"));
  EXPECT_THAT(KernelLog(), Contains("Daemon stubborn deactivation failed: Execution of command: "
                                    "/etc/init.d/stubborn stop failed with status: 1"));
  EXPECT_THAT(messages_, Contains("Orvane failed to stop: stubborn reason: Execution of command: "
                                  "/etc/init.d/stubborn stop failed with status: 1"));
}

// ---- bad listings

TEST_F(DaemonModeE2E, BadListingLinesAndScriptsCostOnlyThemselves) {
  WriteScript("plain", Recording("plain"), 0644);
  WriteListing("this is garbage\n\n" + WriteScript("good", Recording("good")) + " 10\n" +
               "/etc/init.d/good 10\n" + "/etc/init.d/ghost 15\n" + "/etc/init.d/plain 15\n" +
               "/etc/init.d/nonumber\n" + WriteScript("last", Recording("last")) + " 90\n");
  RunResult result = Orvane({"--daemon", "--method=start"});
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_THAT(Recorded(), ElementsAre("start good", "start good", "start last"));
  EXPECT_THAT(messages_,
              Contains("ignoring init.d listing line without a start order: 'this is garbage'"));
  EXPECT_THAT(messages_, Contains("ignoring init.d listing line without a start order: "
                                  "'/etc/init.d/nonumber'"));
  EXPECT_THAT(messages_, Contains("init.d script /etc/init.d/good is listed more than once"));
  EXPECT_THAT(messages_, Contains("Orvane failed to start: ghost reason: failed to ForkExec "
                                  "'/etc/init.d/ghost start' : No such file or directory"));
  EXPECT_THAT(messages_, Contains("Orvane failed to start: plain reason: failed to ForkExec "
                                  "'/etc/init.d/plain start' : Permission denied"));
}

TEST_F(DaemonModeE2E, SyslogAndEventDaemonsAreNeverRunByDaemonMode) {
  WriteListing(WriteScript("wexd", Recording("wexd")) + " 1\n" +
               WriteScript("zelsyslogd", Recording("zelsyslogd")) + " 2\n" +
               WriteScript("ntpd", Recording("ntpd")) + " 3\n");
  EXPECT_EQ(Orvane({"--daemon", "--method=start"}).exitStatus, 0);
  EXPECT_THAT(Recorded(), ElementsAre("start ntpd"));
}

TEST_F(DaemonModeE2E, WithoutAServiceToolThereIsNothingToRun) {
  RunResult result = Orvane({"--daemon", "--method=start"});
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_EQ(sandbox_->Kmsg(), "");
}

// ---- what daemon mode leaves out

TEST_F(DaemonModeE2E, DaemonModeRunsNoExecutorAndWritesNoRunOnceRecord) {
  WriteListing(WriteScript("probe",
                           "[ -e /var/run/talvek/orvaneExecutor.sock ] && echo executor >> "
                           "/tmp/record; echo \"$1 $LANG\" >> /tmp/record\n") +
               " 5\n");
  EXPECT_EQ(Orvane({"--daemon", "--method=start"}).exitStatus, 0);
  EXPECT_THAT(Recorded(), ElementsAre("start C"));  // orvane's environment
  EXPECT_THAT(messages_, Not(Contains("Launching Executor")));
  EXPECT_FALSE(sandbox_->Exists(kExecutorSocket));
  EXPECT_FALSE(sandbox_->Exists("/bootbank/orvstate.gz"));
}

}  // namespace
}  // namespace orvane::testing
