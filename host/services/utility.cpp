// The utility library (platform/zbl.h): local time, and the count of action
// threads that lets the program wait until every action has finished.
#include <time.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "host/services/control.h"
#include "host/services/export.h"
#include "host/services/testhooks.h"
#include "platform/zbl.h"

namespace {

std::atomic<int64_t> liveActions{0};
std::atomic<int64_t> startedActions{0};
std::atomic<int64_t> peakActions{0};  // most action threads live at once
std::atomic<int64_t> actionSettle{50};  // milliseconds
// Pairs with actionsIdle: the counters are atomics, but a waiter in
// WaitForActions checks them under this mutex, and the action threads
// (zblercm, zblerdm) take it before notifying, so that no wake-up falls
// between a waiter's check and its wait.
std::mutex actionMutex;
std::condition_variable actionsIdle;
// The limit a back-pressure wait waits to fall below (0: nobody waits); an
// action thread ending at or under it wakes the waiter.
std::atomic<int64_t> roomWatch{0};

}  // namespace

namespace qmta::host {

int64_t LiveActions() { return liveActions.load(); }
int64_t StartedActions() { return startedActions.load(); }
int64_t PeakLiveActions() { return peakActions.load(std::memory_order_relaxed); }

void SetActionSettle(std::chrono::milliseconds settle) { actionSettle.store(settle.count()); }

bool WaitForActions(std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  std::unique_lock<std::mutex> hold(actionMutex);
  for (;;) {
    if (!actionsIdle.wait_until(hold, deadline, [] { return liveActions.load() == 0; }))
      return false;
    // Quiet for the settle time: nothing live, nothing new started.
    const int64_t started = startedActions.load();
    const auto settle = std::chrono::milliseconds(actionSettle.load());
    actionsIdle.wait_for(hold, settle, [started] { return startedActions.load() != started; });
    if (liveActions.load() == 0 && startedActions.load() == started) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
  }
}

bool WaitForActionsBelow(int64_t limit, std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> hold(actionMutex);
  roomWatch.store(limit);
  bool room = actionsIdle.wait_for(hold, timeout, [limit] { return liveActions.load() < limit; });
  roomWatch.store(0);
  return room;
}

}  // namespace qmta::host

extern "C" {

QMTA_HOSTSVC_API struct tm* zblreltm(const time_t* seconds) {
  thread_local struct tm local;
  return localtime_r(seconds, &local);
}

QMTA_HOSTSVC_API int32_t zblercm(void) {
  const int64_t live = liveActions.fetch_add(1) + 1;
  int64_t peak = peakActions.load(std::memory_order_relaxed);
  while (live > peak && !peakActions.compare_exchange_weak(peak, live, std::memory_order_relaxed)) {
  }
  startedActions.fetch_add(1);
  {
    std::lock_guard<std::mutex> hold(actionMutex);
  }
  actionsIdle.notify_all();  // wakes a drain that is settling
  return 0;
}

QMTA_HOSTSVC_API int32_t zblerdm(void) {
  const int64_t before = liveActions.fetch_sub(1);
  if (before == 1 || before <= roomWatch.load(std::memory_order_relaxed)) {
    std::lock_guard<std::mutex> hold(actionMutex);
    actionsIdle.notify_all();
  }
  return 0;
}

}  // extern "C"
