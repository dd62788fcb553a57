// qmtahost: loads the module and reports the published entries it found.
#include <dlfcn.h>
#include <stdio.h>

#include <initializer_list>

int main(int argc, char** argv) {
  const char* path = argc > 1 ? argv[1] : "libqmtautox.so";
  void* module = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (!module) {
    fprintf(stderr, "qmtahost: cannot load %s: %s\n", path, dlerror());
    return 1;
  }
  int missing = 0;
  for (const char* name : {"QMTAUTOX", "QMTAINIT", "QMTASITR"}) {
    void* entry = dlsym(module, name);
    fprintf(stderr, "qmtahost: entry %s %s\n", name, entry ? "found" : "missing");
    missing += entry == nullptr;
  }
  return missing ? 1 : 0;
}
