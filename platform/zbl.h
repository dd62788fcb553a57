// Utility library of the host framework.
#ifndef PLATFORM_ZBL_H_
#define PLATFORM_ZBL_H_

#include <stdint.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

// Seconds since the epoch to broken-down local time. The result lies in
// storage of the calling thread and is valid until its next call.
struct tm* zblreltm(const time_t* seconds);

// Called first and last by every action thread: the host counts live
// action threads so that it can wait until all it started have finished.
int32_t zblercm(void);
int32_t zblerdm(void);

#ifdef __cplusplus
}
#endif

#endif  // PLATFORM_ZBL_H_
