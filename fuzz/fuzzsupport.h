// What the fuzz targets share: a private working directory, standard output
// sent to /dev/null, a hand-built automation anchor, and a check that stops
// the run with a message (libFuzzer then keeps the input as a crash).
#ifndef FUZZ_FUZZSUPPORT_H_
#define FUZZ_FUZZSUPPORT_H_

#include <stddef.h>
#include <stdint.h>

#include "qmtauto1/qmtauto1.h"

namespace qmtafuzz {

// Once per process: makes a fresh directory under TMPDIR the current one
// (removed at exit), points standard output and the trace at /dev/null.
void Setup();
// An anchor with its table lock and request-id mutex, as start-up leaves
// it, published as the module's; no stacks and no path.
AutomationAnchor* MakeAnchor();
// Writes `size` bytes as the rule file QMTASITR in the current directory.
void WriteRuleFile(const uint8_t* data, size_t size);
// Detail trace (to /dev/null) for this input or not.
void Trace(bool on);
// Stops the run when `condition` fails.
void Check(bool condition, const char* what);

}  // namespace qmtafuzz

#endif  // FUZZ_FUZZSUPPORT_H_
