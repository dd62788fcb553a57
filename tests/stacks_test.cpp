// The request pool: last-in first-out reuse, the 80 per cent rule on
// totalCount, forced drops, the completion block, and each lock failure.
#include <errno.h>
#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "host/services/control.h"
#include "host/services/testhooks.h"
#include "qmtauto1/qmtafault.h"
#include "qmtauto1/qmtauto1.h"
#include "tests/support/support.h"

namespace {

using Lines = std::vector<std::string>;

class Stacks : public ::testing::Test {
 protected:
  void SetUp() override {
    qmta::host::ResetQueryService();
    qmtatest_fault_reset();
    memset(&stack_, 0, sizeof stack_);
    stack_.pathHandle = qmta::host::OwnPath();
    ASSERT_EQ(initstack(&stack_, kRmStatement), 0);
  }
  void TearDown() override {
    qmtatest_fault_reset();
    while (stack_.top != nullptr) {
      RSEN* entry = pullstack(&stack_);
      pushstack(&stack_, entry, 1);
    }
  }
  std::vector<RSEN*> Pull(int n) {
    std::vector<RSEN*> entries;
    for (int i = 0; i < n; ++i) entries.push_back(pullstack(&stack_));
    return entries;
  }
  std::pair<int, int> Counts() const { return {stack_.freeCount, stack_.totalCount}; }

  RSTK stack_;
};

TEST_F(Stacks, EntriesAreReusedLastInFirstOut) {
  std::vector<RSEN*> entries = Pull(2);
  EXPECT_EQ(Counts(), std::make_pair(0, 2));
  EXPECT_EQ(memcmp(entries[0]->eyecatcher, "RSEN", 4), 0);
  EXPECT_EQ(entries[0]->cursorHandleRef, &entries[0]->cursorHandle);
  EXPECT_NE(entries[0]->inputSqlda, nullptr);
  // totalCount 2: limit 2 (1.6 + 0.5), so both are kept.
  pushstack(&stack_, entries[0], 0);
  pushstack(&stack_, entries[1], 0);
  EXPECT_EQ(Counts(), std::make_pair(2, 2));
  EXPECT_EQ(pullstack(&stack_), entries[1]);
  EXPECT_EQ(pullstack(&stack_), entries[0]);
  EXPECT_EQ(Counts(), std::make_pair(0, 2));
  pushstack(&stack_, entries[0], 0);
  pushstack(&stack_, entries[1], 0);
}

TEST_F(Stacks, AFullStackDeletesWithoutForgettingAndAForcedDropForgets) {
  // Five requests at once: limit 4 (4.0 + 0.5); the fifth push deletes.
  std::vector<RSEN*> entries = Pull(5);
  const int64_t live = qmta::host::LiveObjects();
  for (RSEN* entry : entries) pushstack(&stack_, entry, 0);
  EXPECT_EQ(Counts(), std::make_pair(4, 5));
  EXPECT_EQ(qmta::host::LiveObjects(), live - 1);  // its request was dropped
  // A forced drop deletes even from an empty stack and lowers totalCount.
  std::vector<RSEN*> all = Pull(4);
  RSEN* fresh = pullstack(&stack_);
  EXPECT_EQ(Counts(), std::make_pair(0, 6));
  pushstack(&stack_, fresh, 1);
  EXPECT_EQ(Counts(), std::make_pair(0, 5));
  for (RSEN* entry : all) pushstack(&stack_, entry, 0);
  EXPECT_EQ(Counts(), std::make_pair(4, 5));
  // With one request ever made, that one is always kept.
  RSTK single;
  memset(&single, 0, sizeof single);
  single.pathHandle = qmta::host::OwnPath();
  ASSERT_EQ(initstack(&single, kVxStatement), 0);
  RSEN* only = pullstack(&single);
  pushstack(&single, only, 0);
  EXPECT_EQ(single.freeCount, 1);
  EXPECT_EQ(pullstack(&single), only);
  pushstack(&single, only, 1);
  EXPECT_EQ(single.totalCount, 0);
}

TEST_F(Stacks, LockFailuresAreReportedAndLeaveTheCounters) {
  qmtatest::StdoutCapture out;
  RSEN* entry = pullstack(&stack_);
  qmtatest_fault_arm(kFaultMutexLock, 0, 1, EDEADLK);
  EXPECT_EQ(pullstack(&stack_), nullptr);
  // A completion that cannot lock its block is reported and not signalled.
  qmtatest_fault_arm(kFaultMutexLock, 0, 1, EAGAIN);
  EXPECT_EQ(sqlcomplete(7, &entry->done.doneCond), 7);
  EXPECT_EQ(entry->done.doneFlag, 0);
  EXPECT_EQ(sqlcomplete(9, &entry->done.doneCond), 9);
  EXPECT_EQ(entry->done.doneFlag, 1);
  EXPECT_EQ(entry->done.doneStatus, 9);
  entry->done.doneFlag = 0;
  // An entry that cannot be put back is deleted, not lost; the stack still
  // counts it.
  const int64_t live = qmta::host::LiveObjects();
  qmtatest_fault_arm(kFaultMutexLock, 0, 1, EINVAL);
  EXPECT_EQ(pushstack(&stack_, entry, 0), -1);
  EXPECT_EQ(Counts(), std::make_pair(0, 1));
  EXPECT_EQ(qmta::host::LiveObjects(), live - 1);
  EXPECT_EQ(out.TakeLines(),
            (Lines{"QMTA003E GET LOCK ERROR=" + std::to_string(EDEADLK),
                   "QMTA030E SQLCOMPLETE SQL ERROR ON ASYNC NOTIFY GETLOCK STATUS=" +
                       std::to_string(EAGAIN),
                   "QMTA003E GET LOCK ERROR=" + std::to_string(EINVAL)}));
}

TEST_F(Stacks, FailedCreationsLeaveTheCountersAlone) {
  qmtatest::StdoutCapture out;
  const int64_t live = qmta::host::LiveObjects();
  qmta::host::FailOperation(qmta::host::Op::kGetInputSQLDA, 2);
  EXPECT_EQ(pullstack(&stack_), nullptr);
  EXPECT_EQ(qmta::host::LiveObjects(), live);  // the request was dropped again
  qmtatest_fault_arm(kFaultAlloc, 0, 1, ENOMEM);
  EXPECT_EQ(pullstack(&stack_), nullptr);
  EXPECT_EQ(Counts(), std::make_pair(0, 0));
  EXPECT_EQ(out.TakeLines(),
            (Lines{"QMTA030E PULLSTACK SQL ERROR ON GetInputSQLDA STATUS=2",
                   "QMTA000E ALLOCATION ERROR FOR REQUESTSTACKENTRY"}));
  // A stale path fails the access plan.
  RSTK other;
  memset(&other, 0, sizeof other);
  other.pathHandle = qmta::host::OwnPath();
  qmta::host::MakeStale(other.pathHandle);
  EXPECT_EQ(initstack(&other, kSnmpStatement), -3);
  EXPECT_EQ(out.TakeLines(),
            Lines{"QMTA030E INITSTACK SQL ERROR ON CREATEACCESSPLAN STATUS=2"});
}

}  // namespace
