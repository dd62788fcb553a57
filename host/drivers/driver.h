// The destination drivers' plug-in API: what a driver is given (an Action),
// what it answers through (a Completion), and how a kind of driver is made
// known to the query service (RegisterDriver).
//
// The query service (host/services) routes every open to the driver of
// the destination directory's first matching line; drivers live in
// host/drivers and are registered by the program that uses them.
#ifndef HOST_DRIVERS_DRIVER_H_
#define HOST_DRIVERS_DRIVER_H_

#include <stdint.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/services/export.h"

namespace qmta::host {

// Which event table a request's statement reads.
enum class EventTable { kVxEvents, kRmEvents };

// One action as a destination driver sees it.
struct Action {
  uint32_t requestId = 0;
  std::string command;      // COMMAND parameter, trailing blanks removed
  int32_t callType = 0;
  std::string destination;  // ORIGINNODE parameter (the destination node)
  EventTable table = EventTable::kRmEvents;
  // When the caller stops waiting for the outcome (the module: 60 seconds
  // after the open, by its clock); max() when not known. A driver need not
  // start the action after it.
  std::chrono::steady_clock::time_point deadline = std::chrono::steady_clock::time_point::max();
};

// What a driver knows about how an action ended beyond its return codes:
// the program's output and exit, for the host's action journal.
struct ActionDetail {
  std::string output;      // standard output and error, bounded by the driver
  bool outputCut = false;  // more was printed than `output` holds
  int exitStatus = -1;     // the program's exit status; -1: none (signal, not run)
  int signal = 0;          // the signal that ended it; 0: none
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
  // What the driver knows about the end of the action, given before Rows
  // or Fail; optional (the default keeps nothing).
  virtual void Detail(ActionDetail detail) { (void)detail; }
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

// Makes `name` usable in destination lines; a second registration of a
// name replaces the first. The service knows no driver by itself: a
// program registers the ones it uses before it sets the destinations
// (RegisterStandardDrivers in host/drivers/sim.h registers "sim" and
// "offline").
QMTA_HOSTSVC_API void RegisterDriver(const std::string& name, DriverFactory factory);

}  // namespace qmta::host

#endif  // HOST_DRIVERS_DRIVER_H_
