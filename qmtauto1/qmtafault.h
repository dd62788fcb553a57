// Fault injection and state hooks for tests: exported by the module so that a test that
// loads it with dlopen can reach it. Production never arms a fault.
#ifndef QMTAUTO1_QMTAFAULT_H_
#define QMTAUTO1_QMTAFAULT_H_

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum QmtaFault {
  kFaultAlloc = 0,       // calloc and malloc of the module
  kFaultMutexInit,       // pthread_mutex_init
  kFaultMutexLock,       // pthread_mutex_lock
  kFaultCondInit,        // pthread_cond_init
  kFaultThreadCreate,    // pthread_create
  kFaultTimedWait,       // pthread_cond_timedwait
  kFaultCount
};

// After `skip` good calls of `fault`, the next `count` calls fail with
// error number `error` (errno is set to it, and pthread calls return it;
// a timed wait returns -1 with errno set, the way a failing system call
// would).
void qmtatest_fault_arm(int32_t fault, int32_t skip, int32_t count,
                        int32_t error);
// Disarms every fault and clears the counters.
void qmtatest_fault_reset(void);
// Calls of `fault` that were failed, and calls made, since the last reset.
int32_t qmtatest_fault_hits(int32_t fault);
int32_t qmtatest_fault_calls(int32_t fault);

// The module-wide state, as a test that loaded the module sees it.
typedef struct QmtaTestState {
  int32_t automationFlag;
  int32_t inDS;
  int32_t initOnce;
  void* tableAnchor;  // the automation anchor, or null
} QmtaTestState;
void qmtatest_state(QmtaTestState* state);

#ifdef __cplusplus
}
#endif

#endif  // QMTAUTO1_QMTAFAULT_H_
