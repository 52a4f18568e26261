// The Debian packages that scripts/package builds, installed with dpkg into
// a sandboxed copy of this host that has no staged installation: installing
// starts nothing, the installed programs work, the SDK of orvane-dev builds
// a plugin that the installed orvane runs, and a purge leaves nothing behind.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "HostPaths.h"
#include "OutputText.h"
#include "Sandbox.h"
#include "SandboxGTest.h"

namespace orvane::testing {
namespace {

namespace fs = std::filesystem;

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr const char* kVersion = ORVANE_PACKAGE_VERSION;
constexpr const char* kRuntimeDirectory = "/run/talvek";
/// What a boot writes outside the package's file list, which a purge removes.
constexpr const char* kWrittenByTheBoot[] = {kRecordDirectory, kProfilingLog, kExecutorLog,
                                             kRunOnceRecord, kExecutorSocket};

fs::path BuiltPackage(const std::string& name, const std::string& architecture) {
  return fs::path(ORVANE_PACKAGE_DIR) / (name + "_" + kVersion + "_" + architecture + ".deb");
}

class PackageE2E : public ::testing::Test {
 protected:
  static constexpr const char* kRuntimePackage = "/tmp/orvane.deb";
  static constexpr const char* kDevPackage = "/tmp/orvane-dev.deb";

  void SetUp() override {
    ORVANE_REQUIRE_SANDBOX();
    const fs::path runtime = BuiltPackage("orvane", "amd64");
    const fs::path dev = BuiltPackage("orvane-dev", "all");
    if (!fs::is_regular_file(runtime) || !fs::is_regular_file(dev)) {
      // CI builds the packages first and must not pass without them.
      if (std::getenv("ORVANE_REQUIRE_PACKAGE") != nullptr) {
        FAIL() << "no packages of version " << kVersion << " in " << ORVANE_PACKAGE_DIR;
      }
      GTEST_SKIP() << "no packages of version " << kVersion << " in " << ORVANE_PACKAGE_DIR
                   << ": run scripts/package first";
    }
    // Nothing staged: the packages are the only installation in this sandbox.
    sandbox_ = std::make_unique<Sandbox>(fs::path{});
    sandbox_->CopyIn(runtime, kRuntimePackage, 0644);
    sandbox_->CopyIn(dev, kDevPackage, 0644);
  }

  RunResult Shell(const std::string& script) {
    RunResult result = sandbox_->Run({"/bin/sh", "-c", script});
    EXPECT_FALSE(result.timedOut) << script;
    return result;
  }

  /// Every path the package holds, as dpkg lists it while it is installed.
  std::vector<std::string> InstalledPaths(const std::string& package) {
    RunResult listing = Shell("dpkg-query -L " + package);
    EXPECT_EQ(listing.exitStatus, 0) << listing.err;
    std::vector<std::string> paths;
    for (const std::string& line : Lines(listing.out)) {
      if (line.starts_with("/") && line != "/.") paths.push_back(line);
    }
    return paths;
  }

  std::unique_ptr<Sandbox> sandbox_;
};

TEST_F(PackageE2E, PackageFileNamesCarryTheSourceTreeVersion) {
  RunResult result = Shell(std::string("dpkg-deb -f ") + kRuntimePackage +
                           " Version; dpkg-deb -f " + kDevPackage + " Version");
  ASSERT_EQ(result.exitStatus, 0) << result.err;
  EXPECT_EQ(result.out, std::string(kVersion) + "\n" + kVersion + "\n");
}

TEST_F(PackageE2E, InstallingStartsNothingAndLaysOutTheHost) {
  // Once dpkg is done, the only processes left are the sandbox's init
  // (pid 1) and this shell: no executor, no daemon, nothing the package
  // started. The glob is taken before the loop and the loop forks nothing.
  RunResult result = Shell(std::string("dpkg -i ") + kRuntimePackage +
                           " >/tmp/dpkg.out 2>&1 || { cat /tmp/dpkg.out; exit 1; }\n"
                           "for process in /proc/[0-9]*; do\n"
                           "  pid=${process#/proc/}\n"
                           "  [ \"$pid\" = 1 ] || [ \"$pid\" = $$ ] && continue\n"
                           "  read -r name 2>/dev/null < \"$process/comm\" && echo \"$pid $name\"\n"
                           "done\n"
                           "exit 0\n");
  ASSERT_EQ(result.exitStatus, 0) << result.out << result.err;
  EXPECT_EQ(result.out, "") << "processes left running after the install";
  EXPECT_FALSE(sandbox_->Exists(kExecutorSocket));

  for (const char* program : {kOrvane, kQorcli, kAnalyze, kNativeExecutor}) {
    EXPECT_TRUE(sandbox_->Exists(program)) << program;
  }
  for (const char* directory :
       {"/usr/libexec/orvane/plugins", "/etc/talvek/orvane", "/bootbank", "/usr/lib/talvek/qorcli",
        "/usr/lib/talvek/qorcli/int", "/usr/lib/talvek/qorcli/int/ext",
        "/usr/lib/talvek/qorcli/ext", kRuntimeDirectory}) {
    EXPECT_TRUE(fs::is_directory(sandbox_->HostPath(directory))) << directory;
  }
  EXPECT_THAT(sandbox_->ReadFile("/usr/lib/tmpfiles.d/orvane.conf"), HasSubstr("d /run/talvek "));
  EXPECT_TRUE(sandbox_->Exists("/usr/share/man/man8/orvane.8.gz"));
}

TEST_F(PackageE2E, InstalledProgramBootsAnInjectionAndPurgeLeavesNothingBehind) {
  // What is there before the package comes is the host's own, and stays.
  const std::vector<std::string> before = [&] {
    RunResult contents = Shell(std::string("dpkg-deb --fsys-tarfile ") + kRuntimePackage +
                               " | tar -t | sed 's|^\\./|/|; s|/$||'");
    EXPECT_EQ(contents.exitStatus, 0) << contents.err;
    std::vector<std::string> existing;
    for (const std::string& path : Lines(contents.out)) {
      if (path != "/" && sandbox_->Exists(path)) existing.push_back(path);
    }
    return existing;
  }();

  RunResult install = Shell(std::string("dpkg -i ") + kRuntimePackage);
  ASSERT_EQ(install.exitStatus, 0) << install.out << install.err;
  const std::vector<std::string> installed = InstalledPaths("orvane");
  ASSERT_THAT(installed, Contains(kOrvane));

  RunResult help = sandbox_->Run({kOrvane, "--help"});
  EXPECT_EQ(help.exitStatus, 0) << help.err;
  EXPECT_THAT(help.out, HasSubstr("--method"));

  sandbox_->WriteFile(kDebugConfiguration, "hello:::echo hello from the package >> /tmp/record\n");
  RunResult boot = sandbox_->Run({kOrvane});
  EXPECT_EQ(boot.exitStatus, 0) << boot.out << boot.err;
  EXPECT_EQ(sandbox_->ReadFile(kRecord), "hello from the package\n");
  EXPECT_THAT(sandbox_->Kmsg(), HasSubstr("Orvane plugin hello activated."));
  // The run record names the version the package was built as.
  EXPECT_THAT(sandbox_->ReadFile(kLastRecord),
              HasSubstr(std::string("\"version\":\"") + kVersion + "\""));
  for (const char* path : kWrittenByTheBoot) {
    EXPECT_TRUE(sandbox_->Exists(path)) << path << " was not written by the boot";
  }
  // The operator's own file is theirs to remove; the package's are not.
  sandbox_->Remove(kDebugConfiguration);

  RunResult purge = Shell("dpkg --purge orvane");
  ASSERT_EQ(purge.exitStatus, 0) << purge.out << purge.err;
  RunResult status = Shell("dpkg-query -W -f='${db:Status-Abbrev}' orvane");
  EXPECT_THAT(status.out, Not(HasSubstr("ii"))) << status.out;

  for (const std::string& path : installed) {
    const bool shared = std::find(before.begin(), before.end(), path) != before.end();
    if (!shared) {
      EXPECT_FALSE(sandbox_->Exists(path)) << path << " stayed after the purge";
    }
  }
  // What the package made or orvane wrote outside its file list.
  EXPECT_FALSE(sandbox_->Exists("/bootbank"));
  EXPECT_FALSE(sandbox_->Exists(kRuntimeDirectory));
  for (const char* path : kWrittenByTheBoot) {
    EXPECT_FALSE(sandbox_->Exists(path)) << path << " stayed after the purge";
  }
}

TEST_F(PackageE2E, DevPackageBuildsAPluginThatTheInstalledOrvaneRuns) {
  RunResult install = Shell(std::string("dpkg -i ") + kRuntimePackage + " " + kDevPackage);
  ASSERT_EQ(install.exitStatus, 0) << install.out << install.err;
  EXPECT_THAT(sandbox_->ReadFile("/usr/include/orvane/plugin.h"),
              HasSubstr("struct orvane_plugin_metadata {"));

  // Built as the manual page tells a plugin author to build it.
  RunResult build = Shell(
      "cc -std=c11 -Wall -Werror -shared -fPIC -o /usr/libexec/orvane/plugins/libexample.so "
      "/usr/share/doc/orvane-dev/examples/example_native.c");
  ASSERT_EQ(build.exitStatus, 0) << build.out << build.err;

  RunResult boot = sandbox_->Run({kOrvane});
  EXPECT_EQ(boot.exitStatus, 0) << boot.out << boot.err;
  EXPECT_THAT(sandbox_->Kmsg(), HasSubstr("Orvane plugin example activated."));
}

}  // namespace
}  // namespace orvane::testing
