// qmtahost explain: for each event, the rules that fire in file order, the
// command each would send, its destination and the destination-directory
// line and driver that would take it. It uses the module's own matching and
// formatting on a table of its own, and runs and sends nothing.
#ifndef HOST_PROGRAMS_QMTAHOST_EXPLAIN_H_
#define HOST_PROGRAMS_QMTAHOST_EXPLAIN_H_

namespace qmta::hostprog {

// `qmtahost explain [--dir DIR] [--nodes FILE] [--allow-any-text] EVENT...`; argv[0] is
// "explain". EVENT is an event line as qmtahost reads it; "-" reads event
// lines from standard input. Returns the exit status: 0, 1 when the rule
// file or an event could not be read, 2 for a usage error.
int RunExplain(int argc, char* const* argv);

}  // namespace qmta::hostprog

#endif  // HOST_PROGRAMS_QMTAHOST_EXPLAIN_H_
