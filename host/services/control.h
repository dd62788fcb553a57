// Control of the reference host's services, for the programs that load the
// module (qmtahost, the soak program, tests and benchmarks).
//
// The services themselves (platform/*.h) are what the module calls; this is
// how the program that loads the module configures them: trace levels, the
// server name, the clock shift, load modules, the destination directory and
// the wait for action threads. Drivers plug in through host/drivers/driver.h;
// what only tests need is in testhooks.h. Every function is thread-safe.
#ifndef HOST_SERVICES_CONTROL_H_
#define HOST_SERVICES_CONTROL_H_

#include <stdint.h>

#include <chrono>
#include <cstdio>
#include <string>

#include "host/services/export.h"
#include "platform/dbq1.h"

namespace qmta::host {

// ---- Trace ---------------------------------------------------------------
// Level of every unit (0 = off). Unit-by-unit levels override it.
QMTA_HOSTSVC_API void SetTraceLevel(int32_t level);
QMTA_HOSTSVC_API void SetUnitTraceLevel(const std::string& unit, int32_t level);
// Where trace goes: standard error (the default, `out` null) or an open
// stream owned by the caller. Never standard output.
QMTA_HOSTSVC_API void SetTraceStream(std::FILE* out);

// ---- Node information, clock, loader ---------------------------------------
// Server name reported by ENVR_QueryInfo, cut to 9 characters. The default
// is the machine's host name cut to 9 characters.
QMTA_HOSTSVC_API void SetServerName(const std::string& name);
QMTA_HOSTSVC_API std::string ServerName();
// Shifts SVC1_GetTime by `shift` from the realtime clock (may be negative).
QMTA_HOSTSVC_API void SetClockShift(std::chrono::nanoseconds shift);
// Maps a load-module name to a shared-library file for LDR1_FindEntry.
QMTA_HOSTSVC_API void RegisterLoadModule(const std::string& name, const std::string& path);

// ---- Action threads --------------------------------------------------------
// Action threads between zblercm and zblerdm right now.
QMTA_HOSTSVC_API int64_t LiveActions();
// Action threads that have called zblercm since the process started.
QMTA_HOSTSVC_API int64_t StartedActions();
// Waits until no action thread is live and none has started for the settle
// time; false when `limit` passed first. An action thread is seen only from
// its first call (zblercm), a moment after the event call that created it
// has returned, so a drain waits for quiet rather than for a count.
QMTA_HOSTSVC_API bool WaitForActions(std::chrono::milliseconds limit);
// The settle time of WaitForActions (default 50 ms).
QMTA_HOSTSVC_API void SetActionSettle(std::chrono::milliseconds settle);

// ---- Query service ---------------------------------------------------------
// The host's own path to its server (created on first use, and again when
// the previous one was dropped or made stale).
QMTA_HOSTSVC_API DBQ1_Handle OwnPath();

// Declared length of the COMMAND parameter of requests created from now on
// (default 600; values below 1 count as 1). ResetQueryService restores it.
QMTA_HOSTSVC_API void SetCommandLength(int16_t length);

// Replaces the destination directory with `text`: one `PATTERN DRIVER
// [OPTIONS]` per line, `#` comments; the first line whose pattern (one `*`
// at most) matches the destination decides; no match completes with
// DBQ1_DEST_OFFLINE. DRIVER is a name given to RegisterDriver
// (host/drivers/driver.h). On a bad line returns false, sets `*error` to
// "line N: reason" and keeps the old directory.
QMTA_HOSTSVC_API bool SetDestinations(const std::string& text, std::string* error);
// True when the directory pattern `pattern` (at most one '*') matches the
// whole of `node`, as a directory line would (for tools that show which
// line takes a destination without running anything).
QMTA_HOSTSVC_API bool DestinationPatternMatches(const std::string& pattern,
                                                const std::string& node);

}  // namespace qmta::host

#endif  // HOST_SERVICES_CONTROL_H_
