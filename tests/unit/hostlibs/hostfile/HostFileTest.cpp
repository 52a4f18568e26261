#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

#include "TemporaryDirectory.h"
#include "hostfile/HostFile.h"

namespace hostfile {
namespace {

class HostFileTest : public ::testing::Test {
 protected:
  unit_testing::TemporaryDirectory directory_;
};

TEST_F(HostFileTest, RegularFileIsReadWhole) {
  directory_.Write("file", std::string("one\0two\n", 8));
  const FileContent content = ReadHostFile(directory_ / "file", 1024);
  ASSERT_TRUE(content.Ok()) << content.Problem();
  EXPECT_EQ(content.text, std::string("one\0two\n", 8));
  EXPECT_EQ(content.Problem(), "");
}

TEST_F(HostFileTest, EmptyFileIsReadAsEmpty) {
  directory_.Write("empty", "");
  const FileContent content = ReadHostFile(directory_ / "empty", 0);
  ASSERT_TRUE(content.Ok()) << content.Problem();
  EXPECT_EQ(content.text, "");
}

TEST_F(HostFileTest, FileOfExactlyTheBoundIsReadAndOneByteMoreIsRefused) {
  directory_.Write("at", std::string(5000, 'a'));
  EXPECT_EQ(ReadHostFile(directory_ / "at", 5000).text, std::string(5000, 'a'));
  directory_.Write("beyond", std::string(5001, 'a'));
  const FileContent beyond = ReadHostFile(directory_ / "beyond", 5000);
  EXPECT_EQ(beyond.status, ReadStatus::TooLarge);
  EXPECT_EQ(beyond.Problem(), "larger than 5000 bytes");
  EXPECT_EQ(beyond.text, "");
}

TEST_F(HostFileTest, MissingFileCannotBeOpenedAndSaysWhy) {
  const FileContent content = ReadHostFile(directory_ / "missing", 1024);
  EXPECT_EQ(content.status, ReadStatus::CannotOpen);
  EXPECT_EQ(content.error, ENOENT);
  EXPECT_EQ(content.Problem(), "cannot be opened: No such file or directory");
}

TEST_F(HostFileTest, LinkLoopCannotBeOpened) {
  std::filesystem::create_symlink(directory_ / "loop", directory_ / "loop");
  const FileContent content = ReadHostFile(directory_ / "loop", 1024);
  EXPECT_EQ(content.status, ReadStatus::CannotOpen);
  EXPECT_EQ(content.error, ELOOP);
}

TEST_F(HostFileTest, LinkToARegularFileIsFollowed) {
  directory_.Write("target", "content");
  std::filesystem::create_symlink(directory_ / "target", directory_ / "link");
  EXPECT_EQ(ReadHostFile(directory_ / "link", 1024).text, "content");
}

// A FIFO without a writer would block an ordinary open for ever; if this
// test returns at all, the reader did not wait for one.
TEST_F(HostFileTest, FifoWithoutWriterIsRefusedAtOnce) {
  ASSERT_EQ(::mkfifo((directory_ / "fifo").c_str(), 0600), 0);
  const FileContent content = ReadHostFile(directory_ / "fifo", 1024);
  EXPECT_EQ(content.status, ReadStatus::NotRegular);
  EXPECT_EQ(content.Problem(), "not a regular file (a FIFO)");
}

TEST_F(HostFileTest, DirectoryIsRefused) {
  std::filesystem::create_directory(directory_ / "directory");
  EXPECT_EQ(ReadHostFile(directory_ / "directory", 1024).Problem(),
            "not a regular file (a directory)");
}

TEST_F(HostFileTest, EndlessDeviceIsRefusedWithoutBeingRead) {
  EXPECT_EQ(ReadHostFile("/dev/zero", 1024).Problem(), "not a regular file (a character device)");
}

// Linux refuses to open a socket file at all.
TEST_F(HostFileTest, SocketCannotBeOpened) {
  const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(listener, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = directory_ / "socket";
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  const FileContent content = ReadHostFile(path, 1024);
  EXPECT_EQ(content.status, ReadStatus::CannotOpen);
  EXPECT_EQ(content.error, ENXIO);
  ::close(listener);
}

TEST_F(HostFileTest, OpenRegularFileGivesTheDescriptorAndTheSize) {
  directory_.Write("file", "12345");
  FileContent failure;
  off_t size = 0;
  const int descriptor = OpenRegularFile(directory_ / "file", failure, &size);
  ASSERT_GE(descriptor, 0) << failure.Problem();
  EXPECT_EQ(size, 5);
  EXPECT_EQ(ReadToEnd(descriptor, 100).text, "12345");
  ::close(descriptor);
}

TEST_F(HostFileTest, OpenRegularFileClosesWhatItRefuses) {
  ASSERT_EQ(::mkfifo((directory_ / "fifo").c_str(), 0600), 0);
  FileContent failure;
  const int before = ::dup(0);
  ::close(before);
  EXPECT_EQ(OpenRegularFile(directory_ / "fifo", failure), -1);
  EXPECT_EQ(failure.status, ReadStatus::NotRegular);
  // The lowest free descriptor is the same as before: nothing leaked.
  const int after = ::dup(0);
  EXPECT_EQ(after, before);
  ::close(after);
}

TEST_F(HostFileTest, PipeIsReadToItsEnd) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  std::thread writer([&] {
    const std::string block(10000, 'x');
    for (int round = 0; round < 10; ++round) {
      ASSERT_EQ(::write(ends[1], block.data(), block.size()), 10000);
    }
    ::close(ends[1]);
  });
  const FileContent content = ReadToEnd(ends[0], 100000);
  writer.join();
  ::close(ends[0]);
  ASSERT_TRUE(content.Ok()) << content.Problem();
  EXPECT_EQ(content.text, std::string(100000, 'x'));
}

TEST_F(HostFileTest, PipeDeliveringMoreThanTheBoundIsCutOffAndRefused) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  // The writer never ends by itself: the reader must stop at the bound and
  // close its end, which ends the writer with EPIPE.
  std::thread writer([&] {
    const std::string block(4096, 'y');
    while (::write(ends[1], block.data(), block.size()) > 0) {
    }
    ::close(ends[1]);
  });
  ::signal(SIGPIPE, SIG_IGN);
  const FileContent content = ReadToEnd(ends[0], 50000);
  ::close(ends[0]);
  writer.join();
  EXPECT_EQ(content.status, ReadStatus::TooLarge);
  EXPECT_EQ(content.Problem(), "larger than 50000 bytes");
}

TEST_F(HostFileTest, FailedReadSaysWhy) {
  // A directory opened for reading fails at its first read.
  const int descriptor = ::open(directory_.Path().c_str(), O_RDONLY | O_DIRECTORY);
  ASSERT_GE(descriptor, 0);
  const FileContent content = ReadToEnd(descriptor, 100);
  ::close(descriptor);
  EXPECT_EQ(content.status, ReadStatus::ReadFailed);
  EXPECT_EQ(content.Problem(), "cannot be read: Is a directory");
}

TEST_F(HostFileTest, StampOfTheReadIsTheStampOfTheUnchangedFile) {
  directory_.Write("file", "12345");
  FileStamp read;
  ASSERT_TRUE(ReadHostFile(directory_ / "file", 100, read).Ok());
  FileStamp examined;
  ASSERT_TRUE(StampRegularFile(directory_ / "file", examined));
  EXPECT_EQ(examined, read);
  EXPECT_EQ(examined.size, 5);
  struct stat status {};
  ASSERT_EQ(::stat((directory_ / "file").c_str(), &status), 0);
  EXPECT_EQ(examined.inode, status.st_ino);
  EXPECT_EQ(examined.device, status.st_dev);
}

TEST_F(HostFileTest, StampChangesWithTheSizeAndWithTheFile) {
  directory_.Write("file", "12345");
  FileStamp before;
  ASSERT_TRUE(StampRegularFile(directory_ / "file", before));
  directory_.Write("file", "123456");
  FileStamp grown;
  ASSERT_TRUE(StampRegularFile(directory_ / "file", grown));
  EXPECT_NE(grown, before);
  directory_.Write("other", "123456");
  std::filesystem::rename(directory_ / "other", directory_ / "file");
  FileStamp replaced;
  ASSERT_TRUE(StampRegularFile(directory_ / "file", replaced));
  EXPECT_NE(replaced.inode, grown.inode);
  EXPECT_NE(replaced, grown);
}

TEST_F(HostFileTest, OnlyRegularFilesHaveAStamp) {
  FileStamp stamp;
  EXPECT_FALSE(StampRegularFile(directory_ / "missing", stamp));
  EXPECT_FALSE(StampRegularFile(directory_.Path().string(), stamp));
  ASSERT_EQ(::mkfifo((directory_ / "fifo").c_str(), 0600), 0);
  EXPECT_FALSE(StampRegularFile(directory_ / "fifo", stamp));
  directory_.Write("file", "x");
  std::filesystem::create_symlink(directory_ / "file", directory_ / "link");
  EXPECT_TRUE(StampRegularFile(directory_ / "link", stamp));
  EXPECT_EQ(stamp.size, 1);
}

TEST_F(HostFileTest, FailedReadLeavesTheStampAsItWas) {
  FileStamp stamp;
  stamp.size = 77;
  EXPECT_FALSE(ReadHostFile(directory_ / "missing", 100, stamp).Ok());
  EXPECT_EQ(stamp.size, 77);
}

TEST(FileStamp, ChangedBeforeLooksAtTheLaterOfTheModificationAndTheChange) {
  FileStamp stamp;
  stamp.modified = {100, 0};
  stamp.changed = {105, 500};
  using std::chrono::seconds;
  EXPECT_TRUE(stamp.ChangedBefore({107, 500}, seconds(2)));
  EXPECT_FALSE(stamp.ChangedBefore({107, 499}, seconds(2)));
  // A modification time set into the future counts too.
  stamp.modified = {200, 0};
  EXPECT_FALSE(stamp.ChangedBefore({150, 0}, seconds(2)));
  EXPECT_TRUE(stamp.ChangedBefore({202, 0}, seconds(2)));
}

TEST(FileStamp, EveryFieldTellsStampsApart) {
  FileStamp base;
  base.device = 1;
  base.inode = 2;
  base.size = 3;
  base.modified = {4, 5};
  base.changed = {6, 7};
  EXPECT_EQ(base, base);
  FileStamp other = base;
  other.device = 9;
  EXPECT_NE(other, base);
  other = base;
  other.inode = 9;
  EXPECT_NE(other, base);
  other = base;
  other.size = 9;
  EXPECT_NE(other, base);
  other = base;
  other.modified.tv_nsec = 6;
  EXPECT_NE(other, base);
  other = base;
  other.changed.tv_nsec = 8;
  EXPECT_NE(other, base);
}

TEST(FileStamp, RealTimeNowIsTheClockThatStampsFiles) {
  const auto before = std::chrono::system_clock::now();
  const timespec now = RealTimeNow();
  const auto after = std::chrono::system_clock::now();
  const auto sinceEpoch = std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
  EXPECT_GE(sinceEpoch, before.time_since_epoch());
  EXPECT_LE(sinceEpoch, after.time_since_epoch());
}

TEST(FileTypeName, NamesEveryKindOfFile) {
  EXPECT_EQ(FileTypeName(S_IFDIR), "a directory");
  EXPECT_EQ(FileTypeName(S_IFIFO), "a FIFO");
  EXPECT_EQ(FileTypeName(S_IFSOCK), "a socket");
  EXPECT_EQ(FileTypeName(S_IFCHR), "a character device");
  EXPECT_EQ(FileTypeName(S_IFBLK), "a block device");
  EXPECT_EQ(FileTypeName(S_IFLNK), "a symbolic link");
  EXPECT_EQ(FileTypeName(0), "an unknown kind of file");
}

}  // namespace
}  // namespace hostfile
