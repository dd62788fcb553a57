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

// The trace services never throw, so callers keep no clean-up code around
// their calls.
#define TRC1_NOTHROW __attribute__((__nothrow__))

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

// The levels as the facility publishes them for TRC1_Sync. Written by the
// facility only; read with relaxed atomic loads.
typedef struct TRC1_Levels {
  int32_t unitLevels;  // nonzero once any unit has a level of its own
  int32_t level;       // the level of every unit without one of its own
} TRC1_Levels;
extern TRC1_Levels TRC1_levels;

// The level of the unit named `unit` among the unit-by-unit levels (the
// common level when it has none of its own).
int32_t TRC1_UnitLevel(const char* unit) TRC1_NOTHROW;

// Current trace level of the unit named `unit` (for example "qmtauto1").
// Every function of the module asks once per call, so this is inline: one
// relaxed load of the published level, no call, unless unit-by-unit levels
// are configured.
static inline int32_t TRC1_Sync(const char* unit) {
  if (__atomic_load_n(&TRC1_levels.unitLevels, __ATOMIC_RELAXED) != 0)
    return TRC1_UnitLevel(unit);
  return __atomic_load_n(&TRC1_levels.level, __ATOMIC_RELAXED);
}

// One entry or exit event of `function` in `unit`; `result` is meaningful
// for TRC1_EXIT_VALUE only.
void TRC1_Event(const char* unit, const char* function, int32_t kind,
                int64_t result) TRC1_NOTHROW;

// One detail line: the unit, the source line, a constant format and its
// values. Callers never pass data as the format.
void TRC1_Printf(const char* unit, int32_t line, const char* format, ...)
    __attribute__((format(printf, 3, 4))) TRC1_NOTHROW;

#ifdef __cplusplus
}
#endif

#endif  // PLATFORM_TRC1_H_
