// The host's one logger. Standard output carries only the module's
// operator messages; everything the host's programs and drivers say goes
// to standard error through Say.
#ifndef HOST_COMMON_SAY_H_
#define HOST_COMMON_SAY_H_

#include <string_view>

namespace qmta::host {

// Writes `who` and then `text` as one line on standard error, in one piece
// (a line of another thread never cuts into it), and flushes it. Control
// characters of `text` other than tab show as '?', so that text from an
// action program, a server or an event cannot drive the operator's
// terminal. `who` says who speaks ("qmtahost: ", "qmtaagent: ", "[42] ").
// Any thread.
void Say(std::string_view who, std::string_view text);

// A command line the program cannot take: "<program>: <error>", the short
// usage `usage` and where the help is, on standard error.
void SayUsageError(std::string_view program, std::string_view error, std::string_view usage);

}  // namespace qmta::host

#endif  // HOST_COMMON_SAY_H_
