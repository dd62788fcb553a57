#include "host/programs/qmtahost/module.h"

#include <dlfcn.h>
#include <pthread.h>
#include <time.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>
#include <system_error>
#include <utility>
#include <vector>

#include "host/common/files.h"
#include "host/common/say.h"
#include "host/services/control.h"

namespace qmta::hostprog {
namespace {

namespace fs = std::filesystem;

void Say(const std::string& text) { host::Say("qmtahost: ", text); }

std::string Now() {
  time_t now = time(nullptr);
  struct tm local = {};
  localtime_r(&now, &local);
  return Timestamp(local);
}

// What the start-up thread and the main thread share; each holds a
// reference, so it outlives whichever of the two lets go last.
struct Start {
  QMTAINIT_Entry init = nullptr;
  // Guards done: taken by the start-up thread when the entry has returned
  // and by the main thread waiting for that.
  std::mutex mutex;
  std::condition_variable finished;
  bool done = false;
};

void* RunStart(void* argument) {
  std::unique_ptr<std::shared_ptr<Start>> owned(static_cast<std::shared_ptr<Start>*>(argument));
  Start& start = **owned;
  start.init();
  std::lock_guard<std::mutex> hold(start.mutex);
  start.done = true;
  start.finished.notify_all();
  return nullptr;
}

}  // namespace

bool LoadModule(const std::string& path, Entries* entries) {
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle) {
    Say("cannot load " + path + ": " + dlerror());
    return false;
  }
  entries->event = reinterpret_cast<QMTAUTOX_Entry>(dlsym(handle, "QMTAUTOX"));
  entries->init = reinterpret_cast<QMTAINIT_Entry>(dlsym(handle, "QMTAINIT"));
  entries->command = reinterpret_cast<QMTASITR_Entry>(dlsym(handle, "QMTASITR"));
  for (const auto& [name, found] : {std::pair{"QMTAUTOX", entries->event != nullptr},
                                    std::pair{"QMTAINIT", entries->init != nullptr},
                                    std::pair{"QMTASITR", entries->command != nullptr}}) {
    if (!found) {
      Say(path + " has no entry " + name);
      return false;
    }
  }
  host::RegisterLoadModule("QMTAUTOX", path);
  return true;
}

std::string DefaultModule() {
  std::error_code error;
  fs::path self = fs::read_symlink("/proc/self/exe", error);
  if (error) return "libqmtautox.so";
  fs::path installed = (self.parent_path() / QMTA_MODULE_DIR / "libqmtautox.so").lexically_normal();
  fs::path built = (self.parent_path() / ".." / "lib" / "libqmtautox.so").lexically_normal();
  return (fs::exists(installed, error) || !fs::exists(built, error) ? installed : built).string();
}

void Initialise(QMTAINIT_Entry init) {
  auto start = std::make_shared<Start>();
  start->init = init;
  auto* reference = new std::shared_ptr<Start>(start);  // the thread's
  pthread_t thread;
  int failed = pthread_create(&thread, nullptr, RunStart, reference);
  if (failed) {
    delete reference;
    Say("cannot start the start-up thread: " + host::ErrorText(failed) +
        "; the first event initialises the module");
    return;
  }
  std::unique_lock<std::mutex> hold(start->mutex);
  start->finished.wait(hold, [&] { return start->done; });
}

int32_t SendEvent(const Entries& module, const Event& event) {
  std::vector<const char*> names, values;
  for (const auto& [name, value] : event.attributes) {
    names.push_back(name.c_str());
    values.push_back(value.c_str());
  }
  std::string timestamp = event.timestamp ? *event.timestamp : Now();
  DBQ1_Handle path = {};
  if (event.pathHandle) path = host::OwnPath();
  return module.event(event.sitname.c_str(), event.originnode.c_str(), event.prevstate,
               event.currstate, timestamp.c_str(), static_cast<int32_t>(names.size()),
               names.empty() ? nullptr : names.data(),
               values.empty() ? nullptr : values.data(),
               event.threshold ? event.threshold->c_str() : nullptr,
               event.pathHandle ? &path : nullptr, event.onDS);
}

void SendCommand(const Entries& module, const std::string& text) {
  QMTA_CommandText command{text.data(), nullptr, static_cast<uint32_t>(text.size())};
  int32_t reason = 0;
  module.command(nullptr, &command, nullptr, &reason);
}

void Drain() {
  while (!host::WaitForActions(std::chrono::hours(1))) {
  }
}

}  // namespace qmta::hostprog
