#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "poll/Poll.h"

namespace {

constexpr int kDeviceReadSocket = POLL_FLAG_PERIODIC | POLL_FLAG_READ | POLL_FLAG_SOCKET;

/// Ends a loop that has not returned ten seconds after the rescue was set up
/// (hundreds of times what the loops below take), so that a loop that would
/// never return fails its test instead of hanging it. It sets the stop flag
/// and wakes the loop twice over, through Poll_NotifyChange and a byte in a
/// watched pipe, in case one of the two is what the test found broken.
class LoopRescue {
 public:
  LoopRescue(volatile char& stopFlag, int pipeWriteEnd)
      : thread_([this, &stopFlag, pipeWriteEnd] {
          std::unique_lock<std::mutex> lock(mutex_);
          if (condition_.wait_for(lock, std::chrono::seconds(10), [this] { return returned_; })) {
            return;
          }
          rescued_ = true;
          stopFlag = 1;
          Poll_NotifyChange(POLL_CLASS_MAIN);
          [[maybe_unused]] const ssize_t written = write(pipeWriteEnd, "r", 1);
        }) {}
  ~LoopRescue() { Rescued(); }
  LoopRescue(const LoopRescue&) = delete;
  LoopRescue& operator=(const LoopRescue&) = delete;

  /// Call once the loop has returned: whether only the rescue ended it.
  bool Rescued() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      returned_ = true;
    }
    condition_.notify_one();
    if (thread_.joinable()) thread_.join();
    return rescued_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable condition_;
  bool returned_ = false;
  bool rescued_ = false;
  std::thread thread_;
};

/// A pipe whose read end the callbacks watch; both ends close with the test.
class PollTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Poll_InitDefault();
    ASSERT_EQ(pipe2(ends_, O_CLOEXEC | O_NONBLOCK), 0);
  }
  void TearDown() override {
    // Leave no registration behind for the next test of this process.
    Poll_CallbackRemove(POLL_CLASS_MAIN, 0, &CountAndRead, this, POLL_EVENT_DEVICE);
    if (ends_[0] >= 0) close(ends_[0]);
    close(ends_[1]);
  }

  void WriteBytes(int count) {
    for (int i = 0; i < count; ++i) ASSERT_EQ(write(ends_[1], "x", 1), 1);
  }

  /// Reads one byte per call; stops the loop after stopAfter calls.
  static void CountAndRead(void* clientData) {
    auto* test = static_cast<PollTest*>(clientData);
    char byte;
    [[maybe_unused]] ssize_t readBytes = read(test->ends_[0], &byte, 1);
    if (++test->calls_ == test->stopAfter_) test->stopFlag_ = 1;
  }

  PollResult RegisterCounter(int flags, std::uint32_t classSet = POLL_CLASS_MAIN,
                             pthread_mutex_t* lock = nullptr) {
    return Poll_Callback(classSet, flags, &CountAndRead, this, POLL_EVENT_DEVICE, ends_[0], lock);
  }

  int ends_[2] = {-1, -1};
  int calls_ = 0;
  int stopAfter_ = -1;
  volatile char stopFlag_ = 0;
};

TEST_F(PollTest, PeriodicCallbackIsCalledForEveryReadinessUntilTheStopFlagIsSet) {
  ASSERT_EQ(RegisterCounter(kDeviceReadSocket), POLL_SUCCESS);
  WriteBytes(3);
  stopAfter_ = 3;
  Poll_Loop(POLL_CLASS_MAIN, &stopFlag_, 5000);
  EXPECT_EQ(calls_, 3);
  EXPECT_EQ(stopFlag_, 1);
  // Still registered after its calls.
  EXPECT_TRUE(Poll_CallbackRemove(POLL_CLASS_MAIN, kDeviceReadSocket, &CountAndRead, this,
                                  POLL_EVENT_DEVICE));
}

TEST_F(PollTest, OneShotCallbackIsCalledOnceAndThenUnregistered) {
  ASSERT_EQ(RegisterCounter(POLL_FLAG_READ), POLL_SUCCESS);
  WriteBytes(2);
  Poll_Loop(POLL_CLASS_MAIN, &stopFlag_, 100);
  EXPECT_EQ(calls_, 1);
  EXPECT_FALSE(Poll_CallbackRemove(POLL_CLASS_MAIN, 0, &CountAndRead, this, POLL_EVENT_DEVICE));
}

TEST_F(PollTest, LoopWithTimeoutReturnsWhenNothingBecomesReady) {
  ASSERT_EQ(RegisterCounter(kDeviceReadSocket), POLL_SUCCESS);
  LoopRescue rescue(stopFlag_, ends_[1]);
  const auto start = std::chrono::steady_clock::now();
  Poll_Loop(POLL_CLASS_MAIN, &stopFlag_, 50);
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_FALSE(rescue.Rescued()) << "the time-out did not end the loop";
  EXPECT_EQ(calls_, 0);
  EXPECT_GE(elapsed, std::chrono::milliseconds(50));
}

TEST_F(PollTest, LoopWhoseStopFlagIsAlreadySetCallsNothing) {
  ASSERT_EQ(RegisterCounter(kDeviceReadSocket), POLL_SUCCESS);
  WriteBytes(1);
  stopFlag_ = 1;
  Poll_Loop(POLL_CLASS_MAIN, &stopFlag_, 0);
  EXPECT_EQ(calls_, 0);
}

TEST_F(PollTest, LoopDoesNotDispatchCallbacksOfAnotherClass) {
  ASSERT_EQ(RegisterCounter(kDeviceReadSocket, 0x2), POLL_SUCCESS);
  WriteBytes(1);
  Poll_Loop(POLL_CLASS_MAIN, &stopFlag_, 50);
  EXPECT_EQ(calls_, 0);
  EXPECT_TRUE(Poll_CallbackRemove(0x2, 0, &CountAndRead, this, POLL_EVENT_DEVICE));
}

struct SelfRemoving {
  int descriptor;
  int calls = 0;
  volatile char stopFlag = 0;
};

// The pattern of a server told to stop from inside its own callback: set the
// flag, wake the loop, unregister.
void StopAndRemoveSelf(void* clientData) {
  auto* state = static_cast<SelfRemoving*>(clientData);
  ++state->calls;
  state->stopFlag = 1;
  Poll_NotifyChange(POLL_CLASS_MAIN);
  Poll_CallbackRemove(POLL_CLASS_MAIN, kDeviceReadSocket, &StopAndRemoveSelf, clientData,
                      POLL_EVENT_DEVICE);
}

TEST_F(PollTest, CallbackCanStopTheLoopAndUnregisterItself) {
  SelfRemoving state{ends_[0]};
  ASSERT_EQ(Poll_Callback(POLL_CLASS_MAIN, kDeviceReadSocket, &StopAndRemoveSelf, &state,
                          POLL_EVENT_DEVICE, ends_[0], nullptr),
            POLL_SUCCESS);
  WriteBytes(1);  // never read: the descriptor stays readable
  Poll_Loop(POLL_CLASS_MAIN, &state.stopFlag, 5000);
  EXPECT_EQ(state.calls, 1);
  EXPECT_FALSE(
      Poll_CallbackRemove(POLL_CLASS_MAIN, 0, &StopAndRemoveSelf, &state, POLL_EVENT_DEVICE));
  // A second loop finds nothing to call although the descriptor is readable.
  state.stopFlag = 0;
  Poll_Loop(POLL_CLASS_MAIN, &state.stopFlag, 50);
  EXPECT_EQ(state.calls, 1);
}

TEST_F(PollTest, NotifyChangeFromAnotherThreadWakesALoopWithoutTimeout) {
  ASSERT_EQ(RegisterCounter(kDeviceReadSocket), POLL_SUCCESS);
  LoopRescue rescue(stopFlag_, ends_[1]);
  std::thread stopper([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    stopFlag_ = 1;
    Poll_NotifyChange(POLL_CLASS_MAIN);
  });
  Poll_Loop(POLL_CLASS_MAIN, &stopFlag_, 0);  // returns only through the stop flag
  stopper.join();
  EXPECT_FALSE(rescue.Rescued()) << "the notification did not wake the loop";
  EXPECT_EQ(calls_, 0);
}

TEST_F(PollTest, RegistrationFromAnotherThreadIsSeenByASleepingLoop) {
  stopAfter_ = 1;
  LoopRescue rescue(stopFlag_, ends_[1]);
  std::thread registrar([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    ASSERT_EQ(RegisterCounter(kDeviceReadSocket), POLL_SUCCESS);
    WriteBytes(1);
  });
  Poll_Loop(POLL_CLASS_MAIN, &stopFlag_, 0);  // returns only through the callback
  registrar.join();
  EXPECT_FALSE(rescue.Rescued()) << "the loop never saw the registration";
  EXPECT_EQ(calls_, 1);
}

TEST_F(PollTest, CallbackRunsWithItsLockHeld) {
  static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
  static int lockState = -1;
  struct Checker {
    static void Check(void* clientData) {
      // Another thread cannot take the lock while the callback runs.
      std::thread other([] { lockState = pthread_mutex_trylock(&lock); });
      other.join();
      *static_cast<volatile char*>(clientData) = 1;
    }
  };
  ASSERT_EQ(Poll_Callback(POLL_CLASS_MAIN, POLL_FLAG_READ, &Checker::Check,
                          const_cast<char*>(&stopFlag_), POLL_EVENT_DEVICE, ends_[0], &lock),
            POLL_SUCCESS);
  WriteBytes(1);
  Poll_Loop(POLL_CLASS_MAIN, &stopFlag_, 5000);
  EXPECT_EQ(lockState, EBUSY);
  EXPECT_EQ(pthread_mutex_trylock(&lock), 0) << "the lock is released after the call";
  pthread_mutex_unlock(&lock);
}

TEST_F(PollTest, ClosedDescriptorDropsItsRegistrationWithoutACall) {
  ASSERT_EQ(RegisterCounter(kDeviceReadSocket), POLL_SUCCESS);
  close(ends_[0]);
  const int closed = ends_[0];
  ends_[0] = -1;
  Poll_Loop(POLL_CLASS_MAIN, &stopFlag_, 50);
  EXPECT_EQ(calls_, 0);
  EXPECT_FALSE(Poll_CallbackRemove(POLL_CLASS_MAIN, 0, &CountAndRead, this, POLL_EVENT_DEVICE))
      << "descriptor " << closed << " should have been dropped";
}

TEST_F(PollTest, RegistrationRejectsWhatTheLoopCannotWaitFor) {
  EXPECT_EQ(Poll_Callback(POLL_CLASS_MAIN, kDeviceReadSocket, &CountAndRead, this, POLL_EVENT_TIMER,
                          1000, nullptr),
            POLL_ERROR_UNSUPPORTED);
  EXPECT_EQ(RegisterCounter(POLL_FLAG_PERIODIC | POLL_FLAG_SOCKET), POLL_ERROR_BAD_ARGUMENT);
  EXPECT_EQ(RegisterCounter(kDeviceReadSocket, 0), POLL_ERROR_BAD_ARGUMENT);
  EXPECT_EQ(Poll_Callback(POLL_CLASS_MAIN, kDeviceReadSocket, nullptr, this, POLL_EVENT_DEVICE,
                          ends_[0], nullptr),
            POLL_ERROR_BAD_ARGUMENT);
  EXPECT_EQ(Poll_Callback(POLL_CLASS_MAIN, kDeviceReadSocket, &CountAndRead, this,
                          POLL_EVENT_DEVICE, -1, nullptr),
            POLL_ERROR_BAD_ARGUMENT);
}

TEST_F(PollTest, SameCallbackCannotBeRegisteredTwice) {
  ASSERT_EQ(RegisterCounter(kDeviceReadSocket), POLL_SUCCESS);
  EXPECT_EQ(RegisterCounter(kDeviceReadSocket), POLL_ERROR_DUPLICATE);
}

TEST_F(PollTest, RemovingWhatWasNeverRegisteredReportsFalse) {
  EXPECT_FALSE(Poll_CallbackRemove(POLL_CLASS_MAIN, 0, &CountAndRead, this, POLL_EVENT_DEVICE));
}

void Never(void*) {}

TEST(PollWithoutInit, RegistrationFailsAndTheLoopReturnsAtOnce) {
  // A fresh process, so that no other test has set the library up.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        const bool failed =
            Poll_Callback(POLL_CLASS_MAIN, POLL_FLAG_READ, &Never, nullptr, POLL_EVENT_DEVICE, 0,
                          nullptr) == POLL_ERROR_NOT_INITIALISED;
        volatile char stopFlag = 0;
        Poll_Loop(POLL_CLASS_MAIN, &stopFlag, 0);  // would block forever if set up
        std::exit(failed ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
