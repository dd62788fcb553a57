// Trace facility of the host framework.
//
// Every function of the module asks for its unit's level once per call
// (TRC1_Sync) and writes entry/exit events and detail lines only when the
// level asks for them. Trace never goes to standard output.
#ifndef PLATFORM_TRC1_H_
#define PLATFORM_TRC1_H_

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Level bits.
enum {
  TRC1_DETAIL = 1,       // detail lines of the module
  TRC1_LOCK_DETAIL = 16, // detail lines of the table lock
  TRC1_FLOW = 64         // entry and exit events
};

// Kinds of TRC1_Event.
enum {
  TRC1_ENTRY = 0,       // function entered
  TRC1_EXIT_VALUE = 1,  // function left with a result
  TRC1_EXIT = 2         // function left, no result
};

// Current trace level of the unit named `unit` (for example "qmtauto1").
// Cheap: one relaxed load unless unit-by-unit levels are configured.
int32_t TRC1_Sync(const char* unit);

// One entry or exit event of `function` in `unit`; `result` is meaningful
// for TRC1_EXIT_VALUE only.
void TRC1_Event(const char* unit, const char* function, int32_t kind,
                int64_t result);

// One detail line: the unit, the source line, a constant format and its
// values. Callers never pass data as the format.
void TRC1_Printf(const char* unit, int32_t line, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

#ifdef __cplusplus
}
#endif

#endif  // PLATFORM_TRC1_H_
