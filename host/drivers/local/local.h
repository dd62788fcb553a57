// The "local" destination driver: runs each action as a program from one
// actions directory on this machine.
//
// The COMMAND text is split into words the way a shell splits words with
// double quotes and nothing else: blanks outside double quotes separate
// words, the quotes that group a word are removed, and no other character
// means anything (no variables, globbing, backslashes or redirection). The
// first word names a program in the actions directory, the rest are its
// arguments. No shell is ever involved.
//
// Each program runs in a process group of its own with standard input
// /dev/null, a fixed environment (PATH=/usr/bin:/bin, QMTA_REQUESTID,
// QMTA_CALLTYPE, QMTA_NODE), and its standard output and error relayed,
// line by line and prefixed with "[requestid] ", to the host's standard
// error. The completion is one row holding the program's exit status:
// 127 when the program is missing or refused, 126 when it cannot be run,
// 128+N when signal N ended it.
#ifndef HOST_DRIVERS_LOCAL_LOCAL_H_
#define HOST_DRIVERS_LOCAL_LOCAL_H_

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "host/drivers/driver.h"

namespace qmta::host {

// Settings of the local driver of one destination line.
struct LocalSettings {
  std::string actionsDir;  // where the programs are; an absolute path
  // A program still running after `timeout` is sent SIGTERM, and SIGKILL
  // `grace` later.
  std::chrono::milliseconds timeout = std::chrono::seconds(50);
  std::chrono::milliseconds grace = std::chrono::seconds(1);
  // Programs running at once per destination node; the rest wait in turn.
  int maxRunning = 64;
};

// Splits `command` into words (see above). False, with `*error` set, when a
// control character other than tab is in it (never handed to a program), or a
// double quote is left open or the text holds a NUL character.
bool SplitCommand(std::string_view command, std::vector<std::string>* words,
                  std::string* error);

// True when `name` may name a program of the actions directory: not empty,
// no '/', not starting with '.', at most 255 characters.
bool ValidProgramName(std::string_view name);

// Reads the options of a destination line ("timeout=S", "max=N") into
// `settings`; false with `*error` set on an unknown or bad option.
bool ParseLocalOptions(const std::vector<std::string>& options, LocalSettings* settings,
                       std::string* error);

// The factory to register as "local": drivers that run the programs of
// `actionsDir` (made absolute by the caller).
DriverFactory LocalDriverFactory(const std::string& actionsDir);

// Threads of local drivers still running. Each ends once its last program
// has been reaped and its completion delivered.
int64_t LiveLocalRunners();
// Waits until no such thread runs; false when `limit` passed first.
bool WaitForLocalRunners(std::chrono::milliseconds limit);
// Ends the process group of every program running now with SIGKILL (a
// host that stops at once); returns how many there were. Their runners
// then report the programs' ends as usual.
int64_t EndAllPrograms();

}  // namespace qmta::host

#endif  // HOST_DRIVERS_LOCAL_LOCAL_H_
