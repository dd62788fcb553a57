// The table lock: its concurrency contract with real threads, and its
// messages for invalid states and failed system calls.
#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "qmtaloc0/qmtaloc0.h"
#include "qmtauto1/qmtafault.h"
#include "tests/ruletest.h"
#include "tests/support/support.h"

using namespace std::chrono_literals;

namespace {

bool Eventually(const std::atomic<bool>& flag) {
  for (int i = 0; i < 2000 && !flag; ++i) std::this_thread::sleep_for(1ms);
  return flag;
}

struct SeLockTest : testing::Test {
  void SetUp() override { ASSERT_EQ(0, qmtalint(&lock)); }
  void TearDown() override { qmtatest_fault_reset(); }
  int32_t Counter() {
    pthread_mutex_lock(&lock.seMutex);
    int32_t value = lock.seCounter;
    pthread_mutex_unlock(&lock.seMutex);
    return value;
  }
  // A thread that takes the lock, says so, and holds it until let go.
  std::thread Holder(bool exclusive, std::atomic<bool>& got, std::atomic<bool>& letGo) {
    return std::thread([this, exclusive, &got, &letGo] {
      ASSERT_EQ(0, exclusive ? qmtalgel(&lock) : qmtalgsl(&lock));
      got = true;
      while (!letGo) std::this_thread::sleep_for(1ms);
      ASSERT_EQ(0, exclusive ? qmtalrel(&lock) : qmtalrsl(&lock));
    });
  }
  SeLock lock{};
};

TEST_F(SeLockTest, SharedSideBySideExclusiveAloneReadersPreferred) {
  std::atomic<bool> gotW{false}, gotR{false}, gotR2{false}, letW{false}, letR{false}, letR2{true};
  ASSERT_EQ(0, qmtalgsl(&lock));
  std::thread writer = Holder(true, gotW, letW);
  std::this_thread::sleep_for(30ms);
  EXPECT_FALSE(gotW) << "exclusive granted beside a shared holder";
  // A waiting exclusive requester does not hold up a new shared holder.
  std::thread reader = Holder(false, gotR, letR);
  EXPECT_TRUE(Eventually(gotR));
  EXPECT_EQ(2, Counter());
  ASSERT_EQ(0, qmtalrsl(&lock));
  std::this_thread::sleep_for(30ms);
  EXPECT_FALSE(gotW) << "exclusive granted while a shared holder remained";
  letR = true;  // the last shared release wakes the exclusive waiter
  EXPECT_TRUE(Eventually(gotW));
  EXPECT_EQ(-1, Counter());
  std::thread reader2 = Holder(false, gotR2, letR2);
  std::this_thread::sleep_for(30ms);
  EXPECT_FALSE(gotR2) << "shared granted beside an exclusive holder";
  letW = true;
  EXPECT_TRUE(Eventually(gotR2));
  for (std::thread* t : {&writer, &reader, &reader2}) t->join();
  EXPECT_EQ(0, Counter());
}

TEST_F(SeLockTest, InvalidStatesAreReportedNotRepaired) {
  qmtatest::StdoutCapture out;
  EXPECT_EQ(-1, qmtalrsl(&lock));  // a free lock: -1 now reads as exclusive
  EXPECT_EQ(-1, Counter());
  ASSERT_EQ(0, qmtalrel(&lock));
  ASSERT_EQ(0, qmtalgsl(&lock));
  ASSERT_EQ(0, qmtalrel(&lock));  // clears a shared hold regardless
  EXPECT_EQ(0, Counter());
  lock.seCounter = INT32_MAX;
  EXPECT_EQ(-1, qmtalgsl(&lock));
  EXPECT_EQ(INT32_MIN, Counter());
  EXPECT_EQ((Lines{"QMTAL00E INVALID SE LOCK STATE IN releaseslock COUNTER=-1",
                   "QMTAL00E INVALID SE LOCK STATE IN getslock COUNTER=-2147483648"}),
            out.TakeLines());
}

TEST_F(SeLockTest, FailedSystemCallsAreReportedWithErrno) {
  qmtatest::StdoutCapture out;
  // A release asks for the mutex three times before it gives up.
  for (auto operation : {qmtalgsl, qmtalrsl, qmtalgel, qmtalrel}) {
    qmtatest_fault_arm(kFaultMutexLock, 0, operation == qmtalrsl || operation == qmtalrel ? 3 : 1, EDEADLK);
    EXPECT_EQ(-1, operation(&lock));
  }
  EXPECT_EQ(0, Counter());
  ASSERT_EQ(0, qmtalgel(&lock));
  qmtatest_fault_arm(kFaultMutexLock, 0, 2, EDEADLK);
  EXPECT_EQ(0, qmtalrel(&lock));
  EXPECT_EQ(0, Counter());
  SeLock noMutex{}, noCond{};
  noMutex.seCounter = noCond.seCounter = 5;
  qmtatest_fault_arm(kFaultMutexInit, 0, 1, EAGAIN);
  qmtatest_fault_arm(kFaultCondInit, 0, 1, ENOMEM);
  EXPECT_EQ(-1, qmtalint(&noMutex));
  EXPECT_EQ(0, qmtatest_fault_calls(kFaultCondInit)) << "condition set up after a failed mutex";
  EXPECT_EQ(-1, qmtalint(&noCond));
  EXPECT_EQ(0, memcmp(noCond.eyecatcher, "SELK", 4));
  EXPECT_EQ(0, noMutex.seCounter + noCond.seCounter);
  const std::string mutex = "QMTAL01S UNABLE TO ACQUIRE MUTEX LOCK IN ", e = std::to_string(EDEADLK);
  EXPECT_EQ((Lines{mutex + "getslock ERRNO=" + e, mutex + "releaseeslock ERRNO=" + e,
                   mutex + "releaseeslock ERRNO=" + e, mutex + "releaseeslock ERRNO=" + e,
                   mutex + "getelock ERRNO=" + e, mutex + "releaseelock ERRNO=" + e,
                   mutex + "releaseelock ERRNO=" + e, mutex + "releaseelock ERRNO=" + e,
                   mutex + "releaseelock ERRNO=" + e, mutex + "releaseelock ERRNO=" + e,
                   "QMTAL02E UNABLE INITIALIZE MUTEX LOCK ERRNO=" + std::to_string(EAGAIN),
                   "QMTAL02E UNABLE INITIALIZE CONDITION ERRNO=" + std::to_string(ENOMEM)}),
            out.TakeLines());
}

}  // namespace
