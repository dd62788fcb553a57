// The seam over allocation and POSIX threads, with its fault injection.
#include "qmtauto1/qmtaport.h"

#include <errno.h>
#include <stdlib.h>

#include <atomic>

#define QMTA_EXPORT __attribute__((visibility("default")))

namespace {

struct FaultPoint {
  std::atomic<int32_t> skip{0};
  std::atomic<int32_t> count{0};
  std::atomic<int32_t> error{0};
  std::atomic<int32_t> hits{0};
  std::atomic<int32_t> calls{0};
};

// Armed faults; `armed` keeps the unarmed path to one relaxed load.
std::atomic<bool> armed{false};
FaultPoint points[kFaultCount];

// True when this call of `fault` must fail; stores the error number.
bool injected(QmtaFault fault, int* error) {
  if (!armed.load(std::memory_order_relaxed)) return false;
  FaultPoint& point = points[fault];
  point.calls.fetch_add(1, std::memory_order_relaxed);
  int32_t skip = point.skip.load(std::memory_order_relaxed);
  while (skip > 0) {
    if (point.skip.compare_exchange_weak(skip, skip - 1)) return false;
  }
  int32_t count = point.count.load(std::memory_order_relaxed);
  while (count > 0) {
    if (point.count.compare_exchange_weak(count, count - 1)) {
      point.hits.fetch_add(1, std::memory_order_relaxed);
      *error = point.error.load(std::memory_order_relaxed);
      return true;
    }
  }
  return false;
}

}  // namespace

extern "C" {

QMTA_EXPORT void qmtatest_fault_arm(int32_t fault, int32_t skip, int32_t count,
                                    int32_t error) {
  if (fault < 0 || fault >= kFaultCount) return;
  points[fault].skip.store(skip);
  points[fault].error.store(error);
  points[fault].count.store(count);
  armed.store(true);
}

QMTA_EXPORT void qmtatest_fault_reset(void) {
  armed.store(false);
  for (FaultPoint& point : points) {
    point.skip.store(0);
    point.count.store(0);
    point.error.store(0);
    point.hits.store(0);
    point.calls.store(0);
  }
}

QMTA_EXPORT int32_t qmtatest_fault_hits(int32_t fault) {
  return fault < 0 || fault >= kFaultCount ? 0 : points[fault].hits.load();
}

QMTA_EXPORT int32_t qmtatest_fault_calls(int32_t fault) {
  return fault < 0 || fault >= kFaultCount ? 0 : points[fault].calls.load();
}

}  // extern "C"

namespace qmta::port {

void* Calloc(size_t count, size_t size) {
  int error;
  if (injected(kFaultAlloc, &error)) {
    errno = error ? error : ENOMEM;
    return nullptr;
  }
  return calloc(count, size);
}

void* Malloc(size_t size) {
  int error;
  if (injected(kFaultAlloc, &error)) {
    errno = error ? error : ENOMEM;
    return nullptr;
  }
  return malloc(size);
}

int MutexInit(pthread_mutex_t* mutex) {
  int error;
  if (injected(kFaultMutexInit, &error)) return errno = error;
  return pthread_mutex_init(mutex, nullptr);
}

int MutexLock(pthread_mutex_t* mutex) {
  int error;
  if (injected(kFaultMutexLock, &error)) return errno = error;
  return pthread_mutex_lock(mutex);
}

int CondInit(pthread_cond_t* cond) {
  int error;
  if (injected(kFaultCondInit, &error)) return errno = error;
  return pthread_cond_init(cond, nullptr);
}

int ThreadCreate(pthread_t* thread, void* (*body)(void*), void* argument) {
  int error;
  if (injected(kFaultThreadCreate, &error)) return errno = error;
  return pthread_create(thread, nullptr, body, argument);
}

int CondTimedWait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                  const struct timespec* deadline) {
  int error;
  if (injected(kFaultTimedWait, &error)) {
    errno = error;
    return -1;
  }
  return pthread_cond_timedwait(cond, mutex, deadline);
}

}  // namespace qmta::port
