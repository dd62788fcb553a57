// Basic services (run-once, clock), node information, the module loader
// and the utility library.
#include <dlfcn.h>
#include <errno.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>

#include "host/services/control.h"
#include "platform/envr.h"
#include "platform/ldr1.h"
#include "platform/svc1.h"
#include "platform/zbl.h"

namespace {

// ---- run-once ----
// One mutex and condition for all control words: a once-routine runs rarely.
std::mutex onceMutex;
std::condition_variable onceDone;

// Control word values: 0 not run, 1 running, -1 done.
std::atomic_ref<int32_t> control(int32_t* word) { return std::atomic_ref<int32_t>(*word); }

// ---- clock ----
std::atomic<int64_t> clockShift{0};  // nanoseconds

// ---- node information ----
std::mutex nodeMutex;  // guards nodeInfo while it is rewritten
ENVR_NodeInfo nodeInfo;
bool nodeInfoSet = false;
std::atomic<bool> nodeInfoFails{false};

void setName(const std::string& name) {
  memset(&nodeInfo, 0, sizeof nodeInfo);
  memcpy(nodeInfo.eyecatcher, "NODE", 4);
  strncpy(nodeInfo.serverName, name.c_str(), sizeof nodeInfo.serverName - 1);
  strncpy(nodeInfo.nodeName, name.c_str(), sizeof nodeInfo.nodeName - 1);
  nodeInfoSet = true;
}

void ensureName() {
  if (nodeInfoSet) return;
  char host[256] = {};
  if (gethostname(host, sizeof host - 1) != 0 || host[0] == '\0')
    strcpy(host, "localhost");
  setName(host);
}

// ---- loader ----
std::mutex loaderMutex;  // guards loadModules
std::map<std::string, std::string> loadModules;

// ---- action threads ----
std::atomic<int64_t> liveActions{0};
std::atomic<int64_t> startedActions{0};
std::atomic<int64_t> actionSettle{50};  // milliseconds
std::mutex actionMutex;
std::condition_variable actionsIdle;

}  // namespace

namespace qmta::host {

void SetServerName(const std::string& name) {
  std::lock_guard<std::mutex> hold(nodeMutex);
  setName(name);
}

std::string ServerName() {
  std::lock_guard<std::mutex> hold(nodeMutex);
  ensureName();
  return nodeInfo.serverName;
}

void SetNodeInfoFails(bool fails) { nodeInfoFails.store(fails); }

void SetClockShift(std::chrono::nanoseconds shift) { clockShift.store(shift.count()); }

void RegisterLoadModule(const std::string& name, const std::string& path) {
  std::lock_guard<std::mutex> hold(loaderMutex);
  loadModules[name] = path;
}

int64_t LiveActions() { return liveActions.load(); }
int64_t StartedActions() { return startedActions.load(); }

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

}  // namespace qmta::host

extern "C" {

int32_t SVC1_InitializeOnce(int32_t* word, SVC1_OnceRoutine routine,
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

void SVC1_GetTime(SVC1_Time* now) {
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

int32_t ENVR_QueryInfo(int32_t /*request*/, const ENVR_NodeInfo** info,
                       int32_t /*flags*/) {
  if (nodeInfoFails.load()) return 8;
  if (!info) return 4;
  std::lock_guard<std::mutex> hold(nodeMutex);
  ensureName();
  *info = &nodeInfo;
  return 0;
}

int32_t LDR1_FindEntry(const char* moduleName, const char* entryName,
                       void** entry, int32_t* reason) {
  auto fail = [reason](int32_t status) {
    if (reason) *reason = status;
    return status;
  };
  std::string path;
  {
    std::lock_guard<std::mutex> hold(loaderMutex);
    auto found = loadModules.find(moduleName ? moduleName : "");
    if (found == loadModules.end()) return fail(LDR1_UNKNOWN_MODULE);
    path = found->second;
  }
  // The handle is kept: a module found once stays loaded.
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle) return fail(LDR1_LOAD_FAILED);
  void* address = dlsym(handle, entryName ? entryName : "");
  if (!address) return fail(LDR1_NO_ENTRY);
  if (entry) *entry = address;
  return LDR1_OK;
}

struct tm* zblreltm(const time_t* seconds) {
  thread_local struct tm local;
  return localtime_r(seconds, &local);
}

int32_t zblercm(void) {
  liveActions.fetch_add(1);
  startedActions.fetch_add(1);
  {
    std::lock_guard<std::mutex> hold(actionMutex);
  }
  actionsIdle.notify_all();  // wakes a drain that is settling
  return 0;
}

int32_t zblerdm(void) {
  if (liveActions.fetch_sub(1) == 1) {
    std::lock_guard<std::mutex> hold(actionMutex);
    actionsIdle.notify_all();
  }
  return 0;
}

}  // extern "C"
