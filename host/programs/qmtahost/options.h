// The qmtahost command line.
#ifndef HOST_PROGRAMS_QMTAHOST_OPTIONS_H_
#define HOST_PROGRAMS_QMTAHOST_OPTIONS_H_

#include <stdint.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "host/programs/qmtahost/alertmanager.h"
#include "host/programs/qmtahost/jetstream.h"

namespace qmta::hostprog {

struct Options {
  std::string dir = ".";    // the module's working directory
  std::string nodes;        // destination directory file; empty: "* local"
  std::string actions;      // local driver's programs; empty: DIR/actions
  std::string module;       // empty: DefaultModule() (module.h)
  std::string server;       // empty: the machine's host name
  std::optional<int32_t> trace;
  bool init = true;         // call the start-up entry before reading input
  int16_t commandLength = 600;
  // --clock-shift S (for tests, not in --help): the module's clock runs S
  // seconds off, so that a shift of -57 makes its 60-second wait 3 seconds.
  int32_t clockShift = 0;
  std::string input = "-";  // "-": standard input
  bool serve = false;       // `qmtahost serve`: the control socket, no input
  std::string control;      // serve: the control socket; empty: the default
  bool allowAnyText = false;  // no intake check on event text (lab runs)
  EventsSettings events;      // serve: events from a JetStream stream (--events-*)
  // Back-pressure: live action threads above which the dispatcher waits;
  // none given: derived from the process's limits; 0: no limit.
  std::optional<int64_t> maxActions;
  // The action journal (journal.h): its file (empty: serve's default,
  // else off) and how long its rows are kept.
  std::string journal;
  std::chrono::seconds journalKeep = std::chrono::hours(24 * 30);
  // serve: the HTTP endpoint (http.h); off while `listen` is empty.
  std::string listen;       // ADDR:PORT
  std::string tokenFile;    // bearer token required on every path but /healthz
  std::string tlsCert, tlsKey;
  int64_t httpMaxBody = 1 << 20;
  int32_t httpMaxConnections = 64;
  int32_t httpTimeout = 30;
  int32_t httpBusyAfter = 10;
  AlertSettings alerts;     // POST /v1/alertmanager (--alert-*)
  bool help = false;
  bool version = false;     // --version: print "qmtahost VERSION" and exit
};

// Reads the command line into `*options`; "serve" as the first word is the
// long-running mode. False, with `*error` set to a one-line reason, on a
// usage error.
bool ParseOptions(int argc, char* const* argv, Options* options, std::string* error);

// The --help text (one line per option) and the short usage for errors.
extern const char kHelp[];
extern const char kUsage[];

}  // namespace qmta::hostprog

#endif  // HOST_PROGRAMS_QMTAHOST_OPTIONS_H_
