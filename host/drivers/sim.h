// The drivers that need no settings of the program: "sim" answers every
// action the way its options say, "offline" reports every destination
// offline.
//
//   PATTERN sim rc=N[,N...] | norows | offline | status=N | silent  [delay=MS]
//   PATTERN offline
//
// Every program that reads a destination directory (qmtahost, the soak
// program, tests, benchmarks) registers them at start.
#ifndef HOST_DRIVERS_SIM_H_
#define HOST_DRIVERS_SIM_H_

#include "host/drivers/driver.h"

namespace qmta::host {

// Registers "sim" and "offline" with the query service.
void RegisterStandardDrivers();

}  // namespace qmta::host

#endif  // HOST_DRIVERS_SIM_H_
