// Control of the reference host's services, for host programs and tests.
//
// The services themselves (platform/*.h) are what the module calls; this is
// how the program that loads the module configures them: trace levels, the
// server name, the clock shift, load modules, destination drivers, and the
// faults that tests inject into the query service.
#ifndef HOST_SERVICES_CONTROL_H_
#define HOST_SERVICES_CONTROL_H_

#include <stdint.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/dbq1.h"

namespace qmta::host {

// ---- Trace ---------------------------------------------------------------
// Level of every unit (0 = off). Unit-by-unit levels override it.
void SetTraceLevel(int32_t level);
void SetUnitTraceLevel(const std::string& unit, int32_t level);
// Where trace goes: standard error (the default, `out` null) or an open
// stream owned by the caller. Never standard output.
void SetTraceStream(std::FILE* out);

// ---- Node information, clock, loader ---------------------------------------
// Server name reported by ENVR_QueryInfo, cut to 9 characters. The default
// is the machine's host name cut to 9 characters.
void SetServerName(const std::string& name);
std::string ServerName();
// Makes ENVR_QueryInfo fail (true) or succeed again (false).
void SetNodeInfoFails(bool fails);
// Shifts SVC1_GetTime by `shift` from the realtime clock (may be negative).
void SetClockShift(std::chrono::nanoseconds shift);
// Maps a load-module name to a shared-library file for LDR1_FindEntry.
void RegisterLoadModule(const std::string& name, const std::string& path);

// ---- Action threads --------------------------------------------------------
// Action threads between zblercm and zblerdm right now.
int64_t LiveActions();
// Action threads that have called zblercm since the process started.
int64_t StartedActions();
// Waits until no action thread is live and none has started for the settle
// time; false when `limit` passed first. An action thread is seen only from
// its first call (zblercm), a moment after the event call that created it
// has returned, so a drain waits for quiet rather than for a count.
bool WaitForActions(std::chrono::milliseconds limit);
// The settle time of WaitForActions (default 50 ms).
void SetActionSettle(std::chrono::milliseconds settle);

// ---- Query service ---------------------------------------------------------
// The host's own path to its server (created on first use, and again when
// the previous one was dropped or made stale).
DBQ1_Handle OwnPath();

// Declared length of the COMMAND parameter of requests created from now on
// (default 600; values below 1 count as 1). ResetQueryService restores it.
void SetCommandLength(int16_t length);

// Which event table a request's statement reads.
enum class EventTable { kVxEvents, kRmEvents };

// One action as a destination driver sees it.
struct Action {
  uint32_t requestId = 0;
  std::string command;      // COMMAND parameter, trailing blanks removed
  int32_t callType = 0;
  std::string destination;  // ORIGINNODE parameter (the destination node)
  EventTable table = EventTable::kRmEvents;
};

// The outcome of one open, handed to its driver. Thread-safe; the first of
// Rows or Fail wins, later calls and calls after the open was closed are
// ignored.
class Completion {
 public:
  virtual ~Completion() = default;
  // One result row per return code (an empty list: no rows).
  virtual void Rows(std::vector<int32_t> returnCodes) = 0;
  // The open failed with `status` (for example DBQ1_DEST_OFFLINE).
  virtual void Fail(int32_t status) = 0;
  // `stop` runs once when the open is closed before it completed (at once
  // if it already was); it must stop the driver's work for this open.
  virtual void OnClose(std::function<void()> stop) = 0;
  virtual bool Closed() const = 0;
};

// A kind of destination. One instance serves every destination that one
// line of the destination directory matches. The service keeps a driver
// alive until every open it started has been closed, even after the
// directory has been replaced, and never destroys it on the driver's own
// threads.
class Driver {
 public:
  virtual ~Driver() = default;
  // Starts `action` and returns promptly. The outcome goes to `done` later,
  // from a thread of the driver's own, never from inside Start.
  virtual void Start(const Action& action, std::shared_ptr<Completion> done) = 0;
};

// Builds a driver from the options of a destination line (the words after
// the driver name); null with `*error` set when they are invalid.
using DriverFactory = std::function<std::unique_ptr<Driver>(
    const std::vector<std::string>& options, std::string* error)>;
// "sim" and "offline" are registered from the start.
void RegisterDriver(const std::string& name, DriverFactory factory);

// Replaces the destination directory with `text`: one `PATTERN DRIVER
// [OPTIONS]` per line, `#` comments; the first line whose pattern (one `*`
// at most) matches the destination decides; no match completes with
// DBQ1_DEST_OFFLINE. On a bad line returns false, sets `*error` to
// "line N: reason" and keeps the old directory.
bool SetDestinations(const std::string& text, std::string* error);

// Query-service operations that tests can make fail.
enum class Op {
  kCreatePath, kCreateAccessPlan, kCreateRequest, kGetInputSQLDA,
  kDropHandle, kOpenRequest, kCloseRequest, kGetOutputSQLDA, kFetch
};
// The next `count` calls of `op`, after `skip` good ones, return `status`
// without acting.
void FailOperation(Op op, int32_t status, int32_t count = 1, int32_t skip = 0);
// Makes `handle` stale: every later operation on it returns
// DBQ1_STALE_HANDLE. The object stays alive (a running open still
// completes) until ResetQueryService releases it.
void MakeStale(DBQ1_Handle handle);
// Forgets injected faults and the destination directory, restores the
// COMMAND length and releases the objects made stale.
void ResetQueryService();

// Opens started and objects (paths, plans, requests) alive, for leak checks.
int64_t OpensStarted();
int64_t LiveObjects();

}  // namespace qmta::host

#endif  // HOST_SERVICES_CONTROL_H_
