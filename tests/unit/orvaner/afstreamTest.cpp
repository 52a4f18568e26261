#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

#include "TemporaryDirectory.h"
#include "orvaner/run/afstream.h"

namespace orvane {
namespace {

using ::testing::ElementsAre;
using ::testing::MatchesRegex;

constexpr mode_t kPermissionBits = 07777;

mode_t PermissionsOf(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return 0;
  return status.st_mode & kPermissionBits;
}

/// The names in @p directory other than @p except.
std::vector<std::string> OtherNames(const unit_testing::TemporaryDirectory& directory,
                                    const std::string& except) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(directory.Path())) {
    const std::string name = entry.path().filename().string();
    if (name != except) names.push_back(name);
  }
  return names;
}

/// What @p action threw as std::runtime_error; empty when it threw nothing.
template <typename Action>
std::string ErrorOf(Action action) {
  try {
    action();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "";
}

class afstreamTest : public ::testing::Test {
 protected:
  unit_testing::TemporaryDirectory directory;
};

TEST_F(afstreamTest, CommitToMissingDestinationCreatesItWithMode0600) {
  const std::string destination = directory / "log";
  afstream stream;
  stream.open(destination);
  stream << "new\n";
  stream.commit();
  EXPECT_EQ(directory.Read("log"), "new\n");
  EXPECT_EQ(PermissionsOf(destination), 0600u);
  EXPECT_THAT(OtherNames(directory, "log"), ElementsAre());
}

TEST_F(afstreamTest, CommitOverFileWithMode0644KeepsTheModeAndTakesTheNewContents) {
  const std::string destination = directory / "log";
  directory.Write("log", "old contents that are longer than the new ones\n");
  ASSERT_EQ(::chmod(destination.c_str(), 0644), 0);
  afstream stream;
  stream.open(destination);
  stream << "new\n";
  stream.commit();
  EXPECT_EQ(directory.Read("log"), "new\n");
  EXPECT_EQ(PermissionsOf(destination), 0644u);
}

TEST_F(afstreamTest, CommitRestoresModesTheUmaskWouldHaveCleared) {
  const std::string destination = directory / "tool";
  directory.Write("tool", "old\n");
  ASSERT_EQ(::chmod(destination.c_str(), 0775), 0);
  const mode_t previousMask = ::umask(077);
  afstream stream;
  stream.open(destination);
  stream << "new\n";
  stream.commit();
  ::umask(previousMask);
  EXPECT_EQ(PermissionsOf(destination), 0775u);
}

TEST_F(afstreamTest, DestroyingWithoutCommitLeavesTheDestinationAndTheTemporaryFile) {
  const std::string destination = directory / "log";
  directory.Write("log", "old\n");
  std::string temporaryPath;
  {
    afstream stream;
    stream.open(destination);
    stream << "never committed\n";
    temporaryPath = stream.temporary_path();
  }
  EXPECT_EQ(directory.Read("log"), "old\n");
  const std::vector<std::string> others = OtherNames(directory, "log");
  ASSERT_EQ(others.size(), 1u);
  EXPECT_THAT(others[0], MatchesRegex("log\\.[A-Za-z0-9]{6}"));
  EXPECT_EQ(directory / others[0], temporaryPath);
  EXPECT_EQ(directory.Read(others[0]), "never committed\n");
}

TEST_F(afstreamTest, TemporaryFileLiesBesideTheDestination) {
  afstream stream;
  EXPECT_EQ(stream.temporary_path(), "");
  stream.open(directory / "log");
  EXPECT_THAT(stream.temporary_path(), MatchesRegex(".*/log\\.[A-Za-z0-9]{6}"));
  EXPECT_EQ(std::filesystem::path(stream.temporary_path()).parent_path(), directory.Path());
  EXPECT_TRUE(stream.is_open());
}

TEST_F(afstreamTest, CommitOnANeverOpenedStreamThrowsUnknownDestination) {
  afstream stream;
  EXPECT_EQ(ErrorOf([&] { stream.commit(); }), "commit invoked on an unknown destination");
}

TEST_F(afstreamTest, OpenInAMissingDirectoryThrowsAndKeepsErrno) {
  const std::string destination = directory / "missing/log";
  afstream stream;
  int errnoAfter = 0;
  const std::string error = ErrorOf([&] {
    try {
      stream.open(destination);
    } catch (...) {
      errnoAfter = errno;
      throw;
    }
  });
  EXPECT_EQ(error, "unable to create temporary file to write '" + destination +
                       "': No such file or directory");
  EXPECT_EQ(errnoAfter, ENOENT);
  EXPECT_EQ(ErrorOf([&] { stream.commit(); }), "commit invoked on an unknown destination");
}

TEST_F(afstreamTest, DestinationWithAZeroByteCannotMakeAPattern) {
  afstream stream;
  const std::string destination = directory / std::string("lo\0g", 4);
  EXPECT_EQ(ErrorOf([&] { stream.open(destination); }), "unable to allocate mkstemp pattern");
  EXPECT_THAT(OtherNames(directory, ""), ElementsAre());
}

TEST_F(afstreamTest, OpenAppendStartsWithTheOldContents) {
  const std::string destination = directory / "log";
  directory.Write("log", std::string("first\n\0binary\n", 14));
  afstream stream;
  stream.open_append(destination);
  stream << "second\n";
  stream.commit();
  EXPECT_EQ(directory.Read("log"), std::string("first\n\0binary\nsecond\n", 21));
}

TEST_F(afstreamTest, OpenAppendOnAMissingDestinationStartsEmpty) {
  const std::string destination = directory / "log";
  afstream stream;
  stream.open_append(destination);
  EXPECT_TRUE(stream.good());
  stream << "only\n";
  stream.commit();
  EXPECT_EQ(directory.Read("log"), "only\n");
  EXPECT_EQ(PermissionsOf(destination), 0600u);
}

TEST_F(afstreamTest, OpenAppendOnAnEmptyDestinationStartsEmpty) {
  const std::string destination = directory / "log";
  directory.Write("log", "");
  afstream stream;
  stream.open_append(destination);
  EXPECT_TRUE(stream.good());
  stream << "only\n";
  stream.commit();
  EXPECT_EQ(directory.Read("log"), "only\n");
}

TEST_F(afstreamTest, FailedRenameLeavesTheDestinationAndNamesBothPaths) {
  // A directory cannot be replaced by a file.
  const std::string destination = directory / "log";
  std::filesystem::create_directory(destination);
  afstream stream;
  stream.open(destination);
  stream << "new\n";
  const std::string temporaryPath = stream.temporary_path();
  EXPECT_EQ(ErrorOf([&] { stream.commit(); }),
            "unable to rename '" + temporaryPath + "' to '" + destination + "': Is a directory");
  EXPECT_TRUE(std::filesystem::is_directory(destination));
  EXPECT_EQ(directory.Read(std::filesystem::path(temporaryPath).filename().string()), "new\n");
}

TEST_F(afstreamTest, UnstatableDestinationIsReplacedButReportsThePermissions) {
  // A symbolic link to itself cannot be followed by stat, but rename
  // replaces the link itself.
  const std::string destination = directory / "log";
  std::filesystem::create_symlink("log", destination);
  afstream stream;
  stream.open(destination);
  stream << "new\n";
  EXPECT_EQ(ErrorOf([&] { stream.commit(); }),
            "failed to restore file permissions, file permissions may be incorrect: Too many "
            "levels of symbolic links");
  EXPECT_FALSE(std::filesystem::is_symlink(destination));
  EXPECT_EQ(directory.Read("log"), "new\n");
}

TEST_F(afstreamTest, OpenAppendOnAFifoFailsAtOnceAndLeavesIt) {
  // A FIFO without a writer would hold a plain open for ever.
  const std::string destination = directory / "log";
  ASSERT_EQ(::mkfifo(destination.c_str(), 0600), 0);
  afstream stream;
  EXPECT_EQ(ErrorOf([&] { stream.open_append(destination); }),
            "failed to write to temp file: Invalid argument");
  struct stat status {};
  ASSERT_EQ(::stat(destination.c_str(), &status), 0);
  EXPECT_TRUE(S_ISFIFO(status.st_mode));
}

// ---- durability

/// The file-system calls of one commit of the probe to @p destination, as
/// strace shows them: "name first-argument" per call, descriptors given by
/// the path they stand for.
std::vector<std::string> CommitCalls(const std::string& destination, const std::string& trace) {
  // A sanitized probe must not look for leaks: that does not work under ptrace.
  const std::string command = "ASAN_OPTIONS=detect_leaks=0 strace -f -y -qq -o '" + trace +
                              "' -e trace=fsync,fdatasync,sync,syncfs,rename,renameat,renameat2,"
                              "chmod,fchmodat " ORVANE_AFSTREAM_COMMIT_PROBE " '" +
                              destination + "'";
  EXPECT_EQ(std::system(command.c_str()), 0) << command;
  std::vector<std::string> calls;
  std::ifstream lines(trace);
  const std::regex call(
      R"re(^(?:\d+ +)?(\w+)\((?:\d+<([^>]*)>|"([^"]*)"|AT_FDCWD, "([^"]*)").*)re");
  for (std::string line; std::getline(lines, line);) {
    std::smatch parts;
    if (!std::regex_match(line, parts, call)) continue;
    calls.push_back(parts[1].str() + " " + parts[2].str() + parts[3].str() + parts[4].str());
  }
  return calls;
}

// A commit survives a power cut, not only a kill: the data is synced before
// the rename makes it the destination, and the directory after it.
TEST_F(afstreamTest, CommitSyncsTheFileBeforeTheRenameAndTheDirectoryAfter) {
  const std::string destination = directory / "log";
  const std::vector<std::string> calls = CommitCalls(destination, directory / "trace");
  ASSERT_EQ(calls.size(), 3u) << ::testing::PrintToString(calls);
  EXPECT_THAT(calls[0], MatchesRegex("fsync " + destination + "\\.[A-Za-z0-9]{6}"));
  EXPECT_THAT(calls[1], MatchesRegex("rename " + destination + "\\.[A-Za-z0-9]{6}"));
  EXPECT_EQ(calls[2], "fsync " + directory.Path().string());
  EXPECT_EQ(directory.Read("log"), "committed\n");
}

TEST_F(afstreamTest, CommitOverAnOldFileRestoresItsModeBeforeTheDirectoryIsSynced) {
  const std::string destination = directory / "log";
  directory.Write("log", "old\n");
  ASSERT_EQ(::chmod(destination.c_str(), 0644), 0);
  const std::vector<std::string> calls = CommitCalls(destination, directory / "trace");
  ASSERT_EQ(calls.size(), 4u) << ::testing::PrintToString(calls);
  EXPECT_THAT(calls[0], MatchesRegex("fsync " + destination + "\\.[A-Za-z0-9]{6}"));
  EXPECT_THAT(calls[1], MatchesRegex("rename " + destination + "\\.[A-Za-z0-9]{6}"));
  EXPECT_THAT(calls[2], MatchesRegex("(chmod|fchmodat) " + destination));
  EXPECT_EQ(calls[3], "fsync " + directory.Path().string());
  EXPECT_EQ(PermissionsOf(destination), 0644u);
}

}  // namespace
}  // namespace orvane
