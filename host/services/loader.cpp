// The module loader (platform/ldr1.h): entries of the load modules that the
// program has named.
#include <dlfcn.h>

#include <map>
#include <mutex>
#include <string>

#include "host/services/control.h"
#include "host/services/export.h"
#include "platform/ldr1.h"

namespace {

// Guards loadModules: taken by the program registering a module and by
// LDR1_FindEntry on the module's threads (only while it looks the name up,
// never around dlopen).
std::mutex loaderMutex;
std::map<std::string, std::string> loadModules;

}  // namespace

namespace qmta::host {

void RegisterLoadModule(const std::string& name, const std::string& path) {
  std::lock_guard<std::mutex> hold(loaderMutex);
  loadModules[name] = path;
}

}  // namespace qmta::host

extern "C" QMTA_HOSTSVC_API int32_t LDR1_FindEntry(const char* moduleName,
                                                   const char* entryName, void** entry,
                                                   int32_t* reason) {
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
