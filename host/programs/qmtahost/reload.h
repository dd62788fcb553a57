// The checked reload of a running qmtahost: the rule file is checked by a
// child process (this program's `check --json`), so the module that runs
// is never touched, and REFRESH is sent only when the file would load
// without dropping an entry. Input lines call it now; a long-running mode
// (a control socket, SIGHUP) can call it the same way.
#ifndef HOST_PROGRAMS_QMTAHOST_RELOAD_H_
#define HOST_PROGRAMS_QMTAHOST_RELOAD_H_

#include <stdint.h>

#include <chrono>
#include <functional>
#include <string>

#include "host/programs/qmtahost/ruleload.h"

namespace qmta::hostprog {

struct ReloadSettings {
  std::string program = "/proc/self/exe";  // the qmtahost that checks
  std::string file = "QMTASITR";           // relative to the current directory
  uint64_t limit = kDefaultRuleFileLimit;  // --max-size of the check
  std::chrono::milliseconds timeout = std::chrono::seconds(60);
};

struct ReloadOutcome {
  bool refreshed = false;
  std::string reason;  // why it was refused, or what the check found
};

// Checks the rule file and calls `refresh` (which sends REFRESH to the
// module) unless the file is missing, not a regular file, over the limit,
// holds a NUL byte, would drop an entry or load nothing, or the check
// could not run. `force` skips the check.
ReloadOutcome CheckedReload(bool force, const std::function<void()>& refresh,
                            const ReloadSettings& settings = {});

// The reload line {"reload": true} (and SIGHUP): CheckedReload, and one line on standard
// error saying what it did or why it refused.
ReloadOutcome ReloadFromInput(bool force, const std::function<void()>& refresh);

}  // namespace qmta::hostprog

#endif  // HOST_PROGRAMS_QMTAHOST_RELOAD_H_
