// The automation module as qmtahost drives it: loaded with dlopen, started
// on a thread of its own, and fed events and operator commands on the main
// thread, one at a time.
#ifndef HOST_PROGRAMS_QMTAHOST_MODULE_H_
#define HOST_PROGRAMS_QMTAHOST_MODULE_H_

#include <string>

#include "host/programs/qmtahost/inputline.h"
#include "qmtauto1/qmtautox.h"

namespace qmta::hostprog {

struct Entries {
  QMTAUTOX_Entry event = nullptr;
  QMTAINIT_Entry init = nullptr;
  QMTASITR_Entry command = nullptr;
};

// Loads the module at `path` for good (its action threads may outlive any
// call) and finds its three entries; registers it as load module
// "QMTAUTOX" for TESTSIT. False, after saying why, when it cannot.
bool LoadModule(const std::string& path, Entries* entries);

// The default module, beside this program: QMTA_MODULE_DIR/libqmtautox.so
// (the installed layout, ../lib/qmta) when it is there, else
// ../lib/libqmtautox.so (the build tree).
std::string DefaultModule();

// Runs the start-up entry on a thread of its own and waits until it has
// returned. The entry detaches that thread, so it is never joined.
void Initialise(QMTAINIT_Entry init);

// One event through the event exit; a missing timestamp is now's. The
// exit's result.
int32_t SendEvent(const Entries& module, const Event& event);
// One operator command through the command entry.
void SendCommand(const Entries& module, const std::string& text);

// Waits until every action started so far has finished (WaitForActions
// also waits out the moment between an event call and its action threads'
// first count).
void Drain();

}  // namespace qmta::hostprog

#endif  // HOST_PROGRAMS_QMTAHOST_MODULE_H_
