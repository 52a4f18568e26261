// What `cmake --install --prefix /usr` lays out, checked on the staging tree
// the end-to-end tests install into.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "Sandbox.h"
#include "orvane/FixedPaths.h"

namespace orvane::testing {
namespace {

namespace fs = std::filesystem;

fs::path Staged(const fs::path& hostPath) {
  return Sandbox::DefaultStage() / hostPath.relative_path();
}

/// The whole content of a staged file; empty when it cannot be read.
std::string Content(const fs::path& staged) {
  std::ifstream file(staged);
  std::stringstream content;
  content << file.rdbuf();
  return content.str();
}

TEST(InstallLayout, ProgramIsInstalledExecutableUnderThePrefix) {
  fs::path program = Staged("/usr/bin/orvane");
  ASSERT_TRUE(fs::is_regular_file(program)) << program;
  EXPECT_NE(fs::status(program).permissions() & fs::perms::owner_exec, fs::perms::none);
}

TEST(InstallLayout, QorcliIsInstalledExecutableUnderThePrefix) {
  fs::path program = Staged("/usr/bin/qorcli");
  ASSERT_TRUE(fs::is_regular_file(program)) << program;
  EXPECT_NE(fs::status(program).permissions() & fs::perms::owner_exec, fs::perms::none);
}

TEST(InstallLayout, AnalyzerAndItsManualPageAreInstalledUnderThePrefix) {
  fs::path program = Staged("/usr/bin/orvane-analyze");
  ASSERT_TRUE(fs::is_regular_file(program)) << program;
  EXPECT_NE(fs::status(program).permissions() & fs::perms::owner_exec, fs::perms::none);
  fs::path page = Staged("/usr/share/man/man1/orvane-analyze.1");
  ASSERT_TRUE(fs::is_regular_file(page)) << page;
  const std::string content = Content(page);
  EXPECT_NE(content.find(".Nm orvane-analyze"), std::string::npos);
}

TEST(InstallLayout, ManualPagesAreInstalledInTheirSections) {
  for (const char* page : {"man8/orvane.8", "man8/qorcli.8", "man5/orvane-plugins.5",
                           "man5/orvane-cli-definitions.5", "man1/orvane-analyze.1"}) {
    const fs::path staged = Staged(fs::path("/usr/share/man") / page);
    EXPECT_TRUE(fs::is_regular_file(staged)) << staged;
  }
}

TEST(InstallLayout, BashCompletionIsInstalledWhereBashCompletionLoadsIt) {
  for (const char* program : {"orvane", "qorcli", "orvane-analyze"}) {
    const fs::path staged = Staged(fs::path("/usr/share/bash-completion/completions") / program);
    ASSERT_TRUE(fs::is_regular_file(staged)) << staged;
    const std::string content = Content(staged);
    EXPECT_NE(content.find(std::string("complete -F ")), std::string::npos) << staged;
    EXPECT_NE(content.find(std::string(" ") + program + "\n"), std::string::npos) << staged;
  }
}

TEST(InstallLayout, NativeExecutorIsInstalledExecutableAtItsFixedPath) {
  fs::path program = Staged(paths::kNativeExecutor);
  ASSERT_TRUE(fs::is_regular_file(program)) << program;
  EXPECT_NE(fs::status(program).permissions() & fs::perms::owner_exec, fs::perms::none);
  EXPECT_NE(fs::status(program).permissions() & fs::perms::others_exec, fs::perms::none);
}

TEST(InstallLayout, PluginHeaderIsInstalledUnderThePrefix) {
  fs::path header = Staged("/usr/include/orvane/plugin.h");
  ASSERT_TRUE(fs::is_regular_file(header)) << header;
  const std::string content = Content(header);
  EXPECT_NE(content.find("struct orvane_plugin_metadata {"), std::string::npos);
}

TEST(InstallLayout, HostDirectoriesAreCreatedEmpty) {
  std::vector<fs::path> directories = {paths::kPluginDirectory, "/etc/talvek/orvane",
                                       "/var/run/talvek", "/var/log", "/bootbank"};
  for (const char* qorcliDirectory : paths::kQorcliDirectories) {
    directories.emplace_back(qorcliDirectory);
  }
  for (const fs::path& directory : directories) {
    fs::path staged = Staged(directory);
    ASSERT_TRUE(fs::is_directory(staged)) << directory;
    // Only the qorcli tree nests its own directories.
    for (const fs::directory_entry& entry : fs::directory_iterator(staged)) {
      EXPECT_TRUE(entry.is_directory() && directory.string().starts_with("/usr/lib/talvek/qorcli"))
          << entry.path();
    }
  }
}

TEST(InstallLayout, TmpfilesEntryRecreatesTheRunDirectoryAtBoot) {
  const fs::path entry = Staged("/usr/lib/tmpfiles.d/orvane.conf");
  ASSERT_TRUE(fs::is_regular_file(entry)) << "no tmpfiles.d entry";
  const std::string content = Content(entry);
  EXPECT_NE(content.find("\nd /run/talvek 0755 root root -\n"), std::string::npos) << content;
}

}  // namespace
}  // namespace orvane::testing
