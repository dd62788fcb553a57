// Basic services (platform/svc1.h): run-once and the clock.
#include <time.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "host/services/control.h"
#include "host/services/export.h"
#include "platform/svc1.h"

namespace {

// ---- run-once ----
// One mutex and condition for all control words: a once-routine runs
// rarely. onceMutex guards the moves of every control word from 0 to 1
// and from 1 to -1, so that a thread waiting in SVC1_InitializeOnce never
// misses the wake-up; taken by any thread that calls SVC1_InitializeOnce
// while the word is not yet -1.
std::mutex onceMutex;
std::condition_variable onceDone;

// Control word values: 0 not run, 1 running, -1 done.
std::atomic_ref<int32_t> control(int32_t* word) { return std::atomic_ref<int32_t>(*word); }

// ---- clock ----
std::atomic<int64_t> clockShift{0};  // nanoseconds

}  // namespace

namespace qmta::host {

void SetClockShift(std::chrono::nanoseconds shift) { clockShift.store(shift.count()); }

}  // namespace qmta::host

extern "C" {

QMTA_HOSTSVC_API int32_t SVC1_InitializeOnce(int32_t* word, SVC1_OnceRoutine routine,
                                             void* argument, const char* /*source*/,
                                             int32_t /*line*/) {
  auto state = control(word);
  if (state.load(std::memory_order_acquire) < 0) return 1;
  {
    std::unique_lock<std::mutex> hold(onceMutex);
    for (;;) {
      int32_t now = state.load(std::memory_order_acquire);
      if (now < 0) return 1;
      if (now == 0) break;
      onceDone.wait(hold);  // another thread runs the routine
    }
    state.store(1, std::memory_order_relaxed);
  }
  routine(argument);
  {
    std::lock_guard<std::mutex> hold(onceMutex);
    state.store(-1, std::memory_order_release);
  }
  onceDone.notify_all();
  return 0;
}

QMTA_HOSTSVC_API void SVC1_GetTime(SVC1_Time* now) {
  struct timespec real;
  clock_gettime(CLOCK_REALTIME, &real);
  int64_t total = static_cast<int64_t>(real.tv_sec) * 1000000000 + real.tv_nsec +
                  clockShift.load(std::memory_order_relaxed);
  now->seconds = total / 1000000000;
  now->nanoseconds = static_cast<int32_t>(total % 1000000000);
  if (now->nanoseconds < 0) {
    now->nanoseconds += 1000000000;
    now->seconds -= 1;
  }
}

}  // extern "C"
