// Basic services of the host framework: run-once and the clock.
#ifndef PLATFORM_SVC1_H_
#define PLATFORM_SVC1_H_

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef void (*SVC1_OnceRoutine)(void* argument);

// Runs `routine(argument)` exactly once for the control word `control`,
// even when many threads call at the same moment; the others wait until it
// has finished. The control word must start at 0 and is negative (-1)
// afterwards; it is written with release order, so a caller that reads it
// negative with acquire order sees everything the routine did. `source` and
// `line` name the caller for diagnostics. Returns 0 when this call ran the
// routine, 1 when it had already run (or ran on another thread).
int32_t SVC1_InitializeOnce(int32_t* control, SVC1_OnceRoutine routine,
                            void* argument, const char* source, int32_t line);

typedef struct SVC1_Time {
  int64_t seconds;
  int32_t nanoseconds;
} SVC1_Time;

// The realtime clock (CLOCK_REALTIME) plus the host's test shift; usable as
// an absolute deadline for pthread_cond_timedwait on a default condition.
void SVC1_GetTime(SVC1_Time* now);

#ifdef __cplusplus
}
#endif

#endif  // PLATFORM_SVC1_H_
