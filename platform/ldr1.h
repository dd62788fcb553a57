// Module loader of the host framework.
#ifndef PLATFORM_LDR1_H_
#define PLATFORM_LDR1_H_

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Statuses and reason codes of LDR1_FindEntry.
enum {
  LDR1_OK = 0,
  LDR1_UNKNOWN_MODULE = 4,  // no file is mapped to the load-module name
  LDR1_LOAD_FAILED = 8,     // dlopen failed
  LDR1_NO_ENTRY = 12        // the module has no such entry
};

// Finds the published entry `entryName` of the load module `moduleName`
// (the host maps load-module names to files, "QMTAUTOX" to the module).
// On success stores its address in `*entry` and returns 0. On failure
// returns a non-zero status, stores the status in `*reason` as the reason
// code and leaves `*entry` unchanged.
int32_t LDR1_FindEntry(const char* moduleName, const char* entryName,
                       void** entry, int32_t* reason);

#ifdef __cplusplus
}
#endif

#endif  // PLATFORM_LDR1_H_
