#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "ZelkuserCompat/Spawn.h"

extern char** environ;

namespace {

/// What a child wrote into the pipe whose read end is @p descriptor, until
/// every writer closed it.
std::string ReadAll(int descriptor) {
  std::string text;
  char buffer[256];
  ssize_t count;
  while ((count = read(descriptor, buffer, sizeof buffer)) > 0) {
    text.append(buffer, static_cast<std::size_t>(count));
  }
  return text;
}

/// Runs "/bin/sh -c @p script" with @p fileActions; its exit code, or -1.
int RunShell(const std::string& script, const ZelkuserCompat_SpawnFileActions* fileActions) {
  std::string shell = "/bin/sh";
  std::string dashC = "-c";
  std::string command = script;
  char* const argv[] = {shell.data(), dashC.data(), command.data(), nullptr};
  pid_t pid = -1;
  if (ZelkuserCompat_Spawn(&pid, shell.c_str(), fileActions, argv, environ) != ZELKUSER_OK) {
    return -1;
  }
  int status = 0;
  if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

std::string Text(ZelkuserStatus status, std::size_t size = 512) {
  std::vector<char> buffer(size);
  return ZelkuserStatus_CodeToString(status, buffer.data(), buffer.size());
}

TEST(ZelkuserCompatSpawn, ListNeedsRoomForAtLeastOneAction) {
  ZelkuserCompat_SpawnFileActions fileActions;
  EXPECT_EQ(ZelkuserCompat_SpawnFileActionsInit(&fileActions, 0), EINVAL);
  EXPECT_EQ(ZelkuserCompat_SpawnFileActionsInit(&fileActions, -1), EINVAL);
  EXPECT_EQ(ZelkuserCompat_SpawnFileActionsInit(nullptr, 3), EINVAL);
  EXPECT_EQ(ZelkuserCompat_SpawnFileActionsAddDup2(&fileActions, 0, 0), EINVAL);
  EXPECT_EQ(ZelkuserCompat_SpawnFileActionsDestroy(&fileActions), EINVAL);
}

TEST(ZelkuserCompatSpawn, ListHoldsOnlyTheActionsItHasRoomFor) {
  ZelkuserCompat_SpawnFileActions fileActions;
  ASSERT_EQ(ZelkuserCompat_SpawnFileActionsInit(&fileActions, 2), ZELKUSER_OK);
  EXPECT_EQ(ZelkuserCompat_SpawnFileActionsAddDup2(&fileActions, 0, 0), ZELKUSER_OK);
  EXPECT_EQ(ZelkuserCompat_SpawnFileActionsAddDup2(&fileActions, 1, 1), ZELKUSER_OK);
  EXPECT_EQ(ZelkuserCompat_SpawnFileActionsAddDup2(&fileActions, 2, 2), ENOSPC);
  EXPECT_EQ(ZelkuserCompat_SpawnFileActionsDestroy(&fileActions), ZELKUSER_OK);
  EXPECT_EQ(ZelkuserCompat_SpawnFileActionsDestroy(&fileActions), EINVAL);
}

TEST(ZelkuserCompatSpawn, NegativeDescriptorIsBad) {
  ZelkuserCompat_SpawnFileActions fileActions;
  ASSERT_EQ(ZelkuserCompat_SpawnFileActionsInit(&fileActions, 3), ZELKUSER_OK);
  EXPECT_EQ(ZelkuserCompat_SpawnFileActionsAddDup2(&fileActions, -1, 1), EBADF);
  EXPECT_EQ(ZelkuserCompat_SpawnFileActionsAddDup2(&fileActions, 1, -1), EBADF);
  ZelkuserCompat_SpawnFileActionsDestroy(&fileActions);
}

TEST(ZelkuserCompatSpawn, Dup2ActionGivesTheChildOurDescriptorUnderAnotherNumber) {
  int pipeEnds[2];
  ASSERT_EQ(pipe2(pipeEnds, O_CLOEXEC), 0);
  ZelkuserCompat_SpawnFileActions fileActions;
  ASSERT_EQ(ZelkuserCompat_SpawnFileActionsInit(&fileActions, 1), ZELKUSER_OK);
  ASSERT_EQ(ZelkuserCompat_SpawnFileActionsAddDup2(&fileActions, pipeEnds[1], STDOUT_FILENO),
            ZELKUSER_OK);
  EXPECT_EQ(RunShell("echo spawned", &fileActions), 0);
  ZelkuserCompat_SpawnFileActionsDestroy(&fileActions);
  close(pipeEnds[1]);
  EXPECT_EQ(ReadAll(pipeEnds[0]), "spawned\n");
  close(pipeEnds[0]);
}

TEST(ZelkuserCompatSpawn, Dup2OntoItselfSharesADescriptorMarkedCloseOnExec) {
  int pipeEnds[2];
  ASSERT_EQ(pipe2(pipeEnds, O_CLOEXEC), 0);
  const int shared = pipeEnds[1];
  ZelkuserCompat_SpawnFileActions fileActions;
  ASSERT_EQ(ZelkuserCompat_SpawnFileActionsInit(&fileActions, 1), ZELKUSER_OK);
  ASSERT_EQ(ZelkuserCompat_SpawnFileActionsAddDup2(&fileActions, shared, shared), ZELKUSER_OK);
  EXPECT_EQ(RunShell("echo shared >&" + std::to_string(shared), &fileActions), 0);
  ZelkuserCompat_SpawnFileActionsDestroy(&fileActions);
  // Without the action the descriptor is closed in the child.
  EXPECT_NE(RunShell("echo lost >&" + std::to_string(shared) + " 2>/dev/null", nullptr), 0);
  close(pipeEnds[1]);
  EXPECT_EQ(ReadAll(pipeEnds[0]), "shared\n");
  close(pipeEnds[0]);
}

TEST(ZelkuserCompatSpawn, ProgramThatCannotStartIsTheStatus) {
  std::string program = "/nonexistent/program";
  char* const argv[] = {program.data(), nullptr};
  pid_t pid = -1;
  EXPECT_EQ(ZelkuserCompat_Spawn(&pid, program.c_str(), nullptr, argv, environ), ENOENT);
  EXPECT_EQ(ZelkuserCompat_Spawn(nullptr, program.c_str(), nullptr, argv, environ), EINVAL);
}

TEST(ZelkuserCompatSpawn, StatusTextIsTheSystemsWordingCutToTheBuffer) {
  EXPECT_EQ(Text(ZELKUSER_OK), "Success");
  EXPECT_EQ(Text(ENOENT), "No such file or directory");
  EXPECT_EQ(Text(ENOENT, 8), "No such");
  EXPECT_EQ(Text(EBADF), "Bad file descriptor");
  EXPECT_EQ(Text(9999), "Unknown error 9999");
}

TEST(ZelkuserCompatSpawn, InjectedFailureHitsTheNextCallOnly) {
  ZelkuserCompat_SpawnFileActions fileActions;
  ZelkuserCompat_InjectFailure(ZelkuserCompat_Call::SpawnFileActionsInit, ENOMEM);
  EXPECT_EQ(ZelkuserCompat_SpawnFileActionsInit(&fileActions, 3), ENOMEM);
  ASSERT_EQ(ZelkuserCompat_SpawnFileActionsInit(&fileActions, 3), ZELKUSER_OK);
  ZelkuserCompat_InjectFailure(ZelkuserCompat_Call::SpawnFileActionsAddDup2, EBADF);
  EXPECT_EQ(ZelkuserCompat_SpawnFileActionsAddDup2(&fileActions, 0, 0), EBADF);
  EXPECT_EQ(ZelkuserCompat_SpawnFileActionsAddDup2(&fileActions, 0, 0), ZELKUSER_OK);
  ZelkuserCompat_InjectFailure(ZelkuserCompat_Call::Spawn, EAGAIN);
  EXPECT_EQ(RunShell("exit 0", &fileActions), -1);
  EXPECT_EQ(RunShell("exit 4", &fileActions), 4);
  ZelkuserCompat_InjectFailure(ZelkuserCompat_Call::Spawn, EAGAIN);
  ZelkuserCompat_InjectFailure(ZelkuserCompat_Call::Spawn, ZELKUSER_OK);
  EXPECT_EQ(RunShell("exit 0", &fileActions), 0);
  ZelkuserCompat_SpawnFileActionsDestroy(&fileActions);
}

}  // namespace
