// The shared/exclusive lock that guards the rule table: searches hold it
// shared and run side by side, a table load holds it exclusive and runs
// alone. Shared holders are preferred: they never wait for an exclusive
// requester that is only waiting.
#ifndef QMTALOC0_QMTALOC0_H_
#define QMTALOC0_QMTALOC0_H_

#include <pthread.h>
#include <stdint.h>

// One lock; lives in the automation anchor and is never destroyed.
struct SeLock {
  char eyecatcher[4];     // "SELK"
  pthread_mutex_t seMutex;  // guards seCounter
  pthread_cond_t seCond;    // both kinds of waiter sleep here
  int32_t seCounter;        // 0 free, n > 0 shared holders, -1 exclusive
};

// Each returns 0 on success, -1 on failure (after its message).
int32_t qmtalint(SeLock* lock);  // initialise
int32_t qmtalgsl(SeLock* lock);  // acquire shared
int32_t qmtalrsl(SeLock* lock);  // release shared
int32_t qmtalgel(SeLock* lock);  // acquire exclusive
int32_t qmtalrel(SeLock* lock);  // release exclusive

#endif  // QMTALOC0_QMTALOC0_H_
