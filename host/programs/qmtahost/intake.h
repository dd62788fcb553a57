// What the host lets into the module from an event, whatever its source.
//
// The module passes situation and node names, the timestamp and attribute
// names on into operator messages and action commands without escaping
// them, and the `local` and `nats` drivers split a command at double
// quotes. So a double quote in a name would move an action program's
// argument boundaries, and a line end or an escape character anywhere
// would forge or garble operator lines. Events that carry them are refused
// whole before the module sees them.
#ifndef HOST_PROGRAMS_QMTAHOST_INTAKE_H_
#define HOST_PROGRAMS_QMTAHOST_INTAKE_H_

#include <string>
#include <string_view>

#include "host/programs/qmtahost/inputline.h"

namespace qmta::hostprog {

// Empty when `event` may go to the module; else why not, naming the field
// ("\"originnode\" holds a double quote").
std::string CheckEventText(const Event& event);

// Whether `text` holds a control character (C0 or DEL) other than tab: the
// drivers' own check on a command when the intake check is off.
bool HasControlCharacter(std::string_view text);

}  // namespace qmta::hostprog

#endif  // HOST_PROGRAMS_QMTAHOST_INTAKE_H_
