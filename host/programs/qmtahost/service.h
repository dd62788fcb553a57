// qmtahost's life once the module is loaded, in both of its modes:
//   file mode:  the lines of an input file (or standard input), then stop;
//   serve mode: lines from the control socket until SIGTERM or SIGINT.
// Both own the module's standard output through the output relay, hand
// every line to the one dispatcher thread, reload on SIGHUP, and stop the
// same orderly way: no more events, every action in flight reports its
// outcome (bounded), programs still running are ended, one summary line on
// standard error. A write error on standard output stops the host too,
// with exit status 1.
//
// Threads: the main thread runs RunService and waits for the stop; the
// dispatcher thread calls the module; the signal thread, the relay thread,
// the input reader (file mode) and the control socket's threads (serve
// mode) feed or watch it.
#ifndef HOST_PROGRAMS_QMTAHOST_SERVICE_H_
#define HOST_PROGRAMS_QMTAHOST_SERVICE_H_

#include <stdio.h>

#include <chrono>
#include <string>

#include "host/programs/qmtahost/jetstream.h"
#include "host/programs/qmtahost/http.h"
#include "host/programs/qmtahost/module.h"

namespace qmta::hostprog {

struct ServiceSettings {
  bool serve = false;
  FILE* input = nullptr;       // file mode: where the lines come from
  std::string controlPath;     // serve mode: the control socket
  EventsSettings events;       // serve mode: events from a JetStream stream, when enabled
  bool init = true;            // call the start-up entry first
  bool allowAnyText = false;   // no intake check on event text
  bool stdoutClosed = false;   // standard output was closed at start
  int64_t maxActions = 0;      // back-pressure limit; 0: none
  // How long a stop waits for the outcomes of actions in flight: the
  // module's own wait (60 s, shifted with the clock in tests) and a margin.
  std::chrono::seconds outcomeLimit{65};
  HttpConfig http;             // serve mode: the HTTP endpoint, when enabled
  std::string journal;         // the action journal's file; empty: none
  std::chrono::seconds journalKeep{30 * 86400};
};

// Runs the host; returns the exit status.
int RunService(const Entries& entries, const ServiceSettings& settings);

}  // namespace qmta::hostprog

#endif  // HOST_PROGRAMS_QMTAHOST_SERVICE_H_
