// The module's thin seam over allocation and POSIX threads.
//
// Every allocation and every thread call that has a failure path goes
// through here, so that a test can make it fail the way the system would
// (with the error number set). Unarmed, each function is the plain call.
#ifndef QMTAUTO1_QMTAPORT_H_
#define QMTAUTO1_QMTAPORT_H_

#include <pthread.h>
#include <stddef.h>
#include <time.h>

#include "qmtauto1/qmtafault.h"

namespace qmta::port {

void* Calloc(size_t count, size_t size);  // kFaultAlloc, errno ENOMEM
void* Malloc(size_t size);                // kFaultAlloc, errno ENOMEM
int MutexInit(pthread_mutex_t* mutex);    // kFaultMutexInit
int MutexLock(pthread_mutex_t* mutex);    // kFaultMutexLock
int CondInit(pthread_cond_t* cond);       // kFaultCondInit
int ThreadCreate(pthread_t* thread, void* (*body)(void*), void* argument);
int CondTimedWait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                  const struct timespec* deadline);  // kFaultTimedWait

}  // namespace qmta::port

#endif  // QMTAUTO1_QMTAPORT_H_
