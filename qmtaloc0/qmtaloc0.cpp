// The table lock: a counter under one mutex and one condition variable.
//
// seCounter is 0 when free, the number of shared holders when positive and
// -1 while held exclusive. Shared requesters wait only while it is
// negative; an exclusive requester waits until it is exactly 0, so a steady
// stream of searches can keep a reload waiting (reader preference).
// Every wake-up is a broadcast: both kinds of waiter sleep on seCond and
// each re-checks its own condition.
//
// The lock's messages are printed without a flush, unlike the rest of the
// module's; its detail trace lines use level bit 16.
#include "qmtaloc0/qmtaloc0.h"

#include <errno.h>
#include <string.h>

#include "qmtauto1/qmtamsg.h"
#include "qmtauto1/qmtaport.h"

namespace {

constexpr char kInitFailed[] = "QMTAL02E UNABLE INITIALIZE %s ERRNO=%d\n";
constexpr char kMutexFailed[] =
    "QMTAL01S UNABLE TO ACQUIRE MUTEX LOCK IN %s ERRNO=%d\n";
constexpr char kBadState[] = "QMTAL00E INVALID SE LOCK STATE IN %s COUNTER=%d\n";

// The counter moves by one with two's-complement wrap-around, so that a
// corrupted counter is reported instead of being undefined arithmetic.
int32_t stepped(int32_t counter, int32_t step) {
  return static_cast<int32_t>(static_cast<uint32_t>(counter) +
                              static_cast<uint32_t>(step));
}

// A release must happen: one given up would leave the lock held for good,
// and every later search and reload would wait for ever. It asks for the
// mutex up to this many times.
constexpr int kReleaseTries = 3;

// Takes seMutex in at most `tries` attempts; prints the message naming
// `operation` for each one that fails.
bool lockMutex(SeLock* lock, const char* operation, int tries = 1) {
  for (int attempt = 0; attempt < tries; ++attempt) {
    if (qmta::port::MutexLock(&lock->seMutex) == 0) return true;
    qmtaMessageNoFlush(kMutexFailed, operation, errno);
  }
  return false;
}

}  // namespace

int32_t qmtalint(SeLock* lock) {
  TraceFlow flow(kUnitLock, "initselock");
  memcpy(lock->eyecatcher, "SELK", sizeof lock->eyecatcher);
  int32_t result = 0;
  if (qmta::port::MutexInit(&lock->seMutex) != 0) {
    qmtaMessageNoFlush(kInitFailed, "MUTEX LOCK", errno);
    result = -1;
  } else if (qmta::port::CondInit(&lock->seCond) != 0) {
    qmtaMessageNoFlush(kInitFailed, "CONDITION", errno);
    result = -1;
  }
  lock->seCounter = 0;
  return flow.exit(result);
}

int32_t qmtalgsl(SeLock* lock) {
  TraceFlow flow(kUnitLock, "getslock");
  if (!lockMutex(lock, "getslock")) return flow.exit(-1);
  while (lock->seCounter < 0) {
    if (flow.lockDetail()) {
      TRC1_Printf(kUnitLock, __LINE__,
                  "---getslock() waiting for exclusive holder=%d",
                  lock->seCounter);
      qmtaFlush();
    }
    pthread_cond_wait(&lock->seCond, &lock->seMutex);
  }
  lock->seCounter = stepped(lock->seCounter, 1);
  if (flow.lockDetail()) {
    TRC1_Printf(kUnitLock, __LINE__, "---getslock() got shared lock counter=%d",
                lock->seCounter);
    qmtaFlush();
  }
  int32_t result = 0;
  if (lock->seCounter <= 0) {
    qmtaMessageNoFlush(kBadState, "getslock", lock->seCounter);
    result = -1;
  }
  pthread_mutex_unlock(&lock->seMutex);
  return flow.exit(result);
}

int32_t qmtalrsl(SeLock* lock) {
  TraceFlow flow(kUnitLock, "releaseslock");
  // The mutex message names the operation "releaseeslock" and the state
  // message below "releaseslock": each keeps its established spelling.
  if (!lockMutex(lock, "releaseeslock", kReleaseTries)) return flow.exit(-1);
  lock->seCounter = stepped(lock->seCounter, -1);
  if (flow.lockDetail()) {
    TRC1_Printf(kUnitLock, __LINE__, "---releaseslock() shared lock counter=%d",
                lock->seCounter);
    qmtaFlush();
  }
  int32_t result = 0;
  if (lock->seCounter == 0) {
    if (flow.lockDetail()) {
      TRC1_Printf(kUnitLock, __LINE__,
                  "---releaseslock() broadcast to exclusive waiters");
      qmtaFlush();
    }
    pthread_cond_broadcast(&lock->seCond);
  } else if (lock->seCounter < 0) {
    // Reported, not repaired: -1 now reads as an exclusive hold until
    // qmtalrel clears it.
    qmtaMessageNoFlush(kBadState, "releaseslock", lock->seCounter);
    result = -1;
  }
  pthread_mutex_unlock(&lock->seMutex);
  return flow.exit(result);
}

int32_t qmtalgel(SeLock* lock) {
  TraceFlow flow(kUnitLock, "getelock");
  if (!lockMutex(lock, "getelock")) return flow.exit(-1);
  while (lock->seCounter != 0) {
    if (flow.lockDetail()) {
      TRC1_Printf(kUnitLock, __LINE__, "---getelock() waiting for s/e holders=%d",
                  lock->seCounter);
      qmtaFlush();
    }
    pthread_cond_wait(&lock->seCond, &lock->seMutex);
  }
  lock->seCounter = -1;
  if (flow.lockDetail()) {
    TRC1_Printf(kUnitLock, __LINE__, "---getelock() got exclusive lock");
    qmtaFlush();
  }
  pthread_mutex_unlock(&lock->seMutex);
  return flow.exit(0);
}

int32_t qmtalrel(SeLock* lock) {
  TraceFlow flow(kUnitLock, "releaseelock");
  if (!lockMutex(lock, "releaseelock", kReleaseTries)) return flow.exit(-1);
  // Cleared whatever it held: the exclusive holder is the only writer.
  lock->seCounter = 0;
  if (flow.lockDetail()) {
    TRC1_Printf(kUnitLock, __LINE__, "---releaseelock() broadcast to waiters");
    qmtaFlush();
  }
  pthread_cond_broadcast(&lock->seCond);
  pthread_mutex_unlock(&lock->seMutex);
  return flow.exit(0);
}
