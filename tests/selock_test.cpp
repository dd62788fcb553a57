// The table lock: its concurrency contract with real threads, and its
// messages for invalid states and failed system calls.
#include <errno.h>
#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "qmtaloc0/qmtaloc0.h"
#include "qmtauto1/qmtafault.h"
#include "tests/support/support.h"

using namespace std::chrono_literals;
using qmtatest::StdoutCapture;
using Lines = std::vector<std::string>;

namespace {

// True once `flag` is set, false if a second passed first.
bool Eventually(const std::atomic<bool>& flag) {
  for (int i = 0; i < 1000 && !flag.load(); ++i) std::this_thread::sleep_for(1ms);
  return flag.load();
}

class SeLockTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, qmtalint(&lock_));
    ASSERT_EQ(0, memcmp(lock_.eyecatcher, "SELK", 4));
  }
  void TearDown() override { qmtatest_fault_reset(); }
  int32_t Counter() {
    pthread_mutex_lock(&lock_.seMutex);
    int32_t value = lock_.seCounter;
    pthread_mutex_unlock(&lock_.seMutex);
    return value;
  }
  SeLock lock_{};
};

TEST_F(SeLockTest, SharedHoldersRunSideBySide) {
  std::atomic<int> inside{0};
  std::atomic<bool> together[2] = {false, false};
  auto holder = [&](int me) {
    ASSERT_EQ(0, qmtalgsl(&lock_));
    ++inside;
    for (int i = 0; i < 1000 && inside.load() < 2; ++i) std::this_thread::sleep_for(1ms);
    together[me] = inside.load() == 2;
    ASSERT_EQ(0, qmtalrsl(&lock_));
  };
  std::thread a(holder, 0), b(holder, 1);
  a.join();
  b.join();
  EXPECT_TRUE(together[0] && together[1]);
  EXPECT_EQ(0, Counter());
}

TEST_F(SeLockTest, ExclusiveHolderRunsAloneAndReleaseWakesEveryWaiter) {
  ASSERT_EQ(0, qmtalgel(&lock_));
  std::atomic<bool> gotShared{false}, gotExclusive{false};
  std::thread reader([&] {
    ASSERT_EQ(0, qmtalgsl(&lock_));
    gotShared = true;
    ASSERT_EQ(0, qmtalrsl(&lock_));
  });
  std::thread writer([&] {
    ASSERT_EQ(0, qmtalgel(&lock_));
    gotExclusive = true;
    ASSERT_EQ(0, qmtalrel(&lock_));
  });
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(gotShared);
  EXPECT_FALSE(gotExclusive);
  EXPECT_EQ(-1, Counter());
  ASSERT_EQ(0, qmtalrel(&lock_));
  EXPECT_TRUE(Eventually(gotShared));
  EXPECT_TRUE(Eventually(gotExclusive));
  reader.join();
  writer.join();
  EXPECT_EQ(0, Counter());
}

TEST_F(SeLockTest, WaitingExclusiveLetsNewSharedHoldersIn) {
  ASSERT_EQ(0, qmtalgsl(&lock_));
  std::atomic<bool> gotExclusive{false}, gotShared{false}, letGo{false};
  std::thread writer([&] {
    ASSERT_EQ(0, qmtalgel(&lock_));
    gotExclusive = true;
    ASSERT_EQ(0, qmtalrel(&lock_));
  });
  std::this_thread::sleep_for(30ms);
  std::thread reader([&] {
    ASSERT_EQ(0, qmtalgsl(&lock_));
    gotShared = true;
    while (!letGo) std::this_thread::sleep_for(1ms);
    ASSERT_EQ(0, qmtalrsl(&lock_));
  });
  EXPECT_TRUE(Eventually(gotShared));
  EXPECT_EQ(2, Counter());
  ASSERT_EQ(0, qmtalrsl(&lock_));
  std::this_thread::sleep_for(30ms);
  EXPECT_FALSE(gotExclusive) << "exclusive granted while a shared holder remained";
  letGo = true;
  EXPECT_TRUE(Eventually(gotExclusive));
  reader.join();
  writer.join();
}

TEST_F(SeLockTest, InvalidStatesAreReportedNotRepaired) {
  StdoutCapture out;
  // A release of a free lock leaves -1, which reads as an exclusive hold.
  EXPECT_EQ(-1, qmtalrsl(&lock_));
  EXPECT_EQ(Lines{"QMTAL00E INVALID SE LOCK STATE IN releaseslock COUNTER=-1"},
            out.TakeLines());
  std::atomic<bool> gotShared{false};
  std::thread reader([&] {
    EXPECT_EQ(0, qmtalgsl(&lock_));
    gotShared = true;
  });
  std::this_thread::sleep_for(30ms);
  EXPECT_FALSE(gotShared);
  ASSERT_EQ(0, qmtalrel(&lock_));
  reader.join();
  EXPECT_EQ(1, Counter());
  // An exclusive release clears shared holds regardless.
  ASSERT_EQ(0, qmtalrel(&lock_));
  EXPECT_EQ(0, Counter());
  // A counter that wraps on a shared acquire is reported and kept.
  lock_.seCounter = INT32_MAX;
  EXPECT_EQ(-1, qmtalgsl(&lock_));
  EXPECT_EQ(INT32_MIN, Counter());
  EXPECT_EQ(Lines{"QMTAL00E INVALID SE LOCK STATE IN getslock COUNTER=-2147483648"},
            out.TakeLines());
}

TEST_F(SeLockTest, FailedMutexLockLeavesTheCounterAlone) {
  StdoutCapture out;
  qmtatest_fault_arm(kFaultMutexLock, 0, 4, EDEADLK);
  EXPECT_EQ(-1, qmtalgsl(&lock_));
  EXPECT_EQ(-1, qmtalrsl(&lock_));
  EXPECT_EQ(-1, qmtalgel(&lock_));
  EXPECT_EQ(-1, qmtalrel(&lock_));
  qmtatest_fault_reset();
  EXPECT_EQ(0, Counter());
  std::string e = std::to_string(EDEADLK);
  EXPECT_EQ((Lines{"QMTAL01S UNABLE TO ACQUIRE MUTEX LOCK IN getslock ERRNO=" + e,
                   "QMTAL01S UNABLE TO ACQUIRE MUTEX LOCK IN releaseeslock ERRNO=" + e,
                   "QMTAL01S UNABLE TO ACQUIRE MUTEX LOCK IN getelock ERRNO=" + e,
                   "QMTAL01S UNABLE TO ACQUIRE MUTEX LOCK IN releaseelock ERRNO=" + e}),
            out.TakeLines());
}

TEST(SeLockInit, FailedInitialisationIsReported) {
  StdoutCapture out;
  SeLock noMutex{}, noCond{};
  noMutex.seCounter = noCond.seCounter = 5;
  qmtatest_fault_arm(kFaultMutexInit, 0, 1, EAGAIN);
  qmtatest_fault_arm(kFaultCondInit, 0, 1, ENOMEM);
  EXPECT_EQ(-1, qmtalint(&noMutex));
  EXPECT_EQ(0, qmtatest_fault_calls(kFaultCondInit)) << "condition set up after a failed mutex";
  EXPECT_EQ(-1, qmtalint(&noCond));
  qmtatest_fault_reset();
  for (SeLock* lock : {&noMutex, &noCond}) {
    EXPECT_EQ(0, memcmp(lock->eyecatcher, "SELK", 4));
    EXPECT_EQ(0, lock->seCounter);
  }
  EXPECT_EQ((Lines{"QMTAL02E UNABLE INITIALIZE MUTEX LOCK ERRNO=" + std::to_string(EAGAIN),
                   "QMTAL02E UNABLE INITIALIZE CONDITION ERRNO=" + std::to_string(ENOMEM)}),
            out.TakeLines());
}

}  // namespace
