// qmtahost check: reads a rule file with the module's own reader, in this
// process and a table of its own, and says what a REFRESH of it would
// print and keep, plus the mistakes the reader does not see.
#ifndef HOST_PROGRAMS_QMTAHOST_RULECHECK_H_
#define HOST_PROGRAMS_QMTAHOST_RULECHECK_H_

#include <string_view>

namespace qmta::hostprog {

// Exit statuses of the check.
inline constexpr int kCheckClean = 0;     // no entry dropped
inline constexpr int kCheckDropped = 1;   // an entry dropped, nothing loaded, or a bad file
inline constexpr int kCheckUsage = 2;
inline constexpr int kCheckWarnings = 3;  // --strict, and only warnings

// `qmtahost check [--strict] [--json] [--max-size BYTES] [--actions DIR]
// [--nodes FILE] [FILE]`; argv[0] is "check". Returns the exit status.
int RunCheck(int argc, char* const* argv);

// True when an unquoted argument looks like a literal rather than an
// attribute name: it begins with '-' or '/', or holds a character other
// than letters, digits, '.', '_' and ':'. (An event attribute of that name
// would replace it.)
bool LooksLiteral(std::string_view arg);

}  // namespace qmta::hostprog

#endif  // HOST_PROGRAMS_QMTAHOST_RULECHECK_H_
