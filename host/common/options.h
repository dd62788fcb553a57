// The programs' command lines: what getopt_long leaves to its caller.
#ifndef HOST_COMMON_OPTIONS_H_
#define HOST_COMMON_OPTIONS_H_

#include <string>

namespace qmta::host {

// The message for getopt_long's refusal `answer` (':' a value is missing,
// anything else an unknown option), naming the word that was wrong as the
// user wrote it: a short option by its letter, a long one whole. Call it
// right after getopt_long returned, with the argv it was given.
std::string OptionError(int answer, char* const* argv);

}  // namespace qmta::host

#endif  // HOST_COMMON_OPTIONS_H_
