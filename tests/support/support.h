// Helpers shared by the tests: those of harness.h (standard output
// capture, a scratch directory, the module loaded as a host loads it),
// threads started and joined together, and assertion failures copied to
// standard error.
#ifndef TESTS_SUPPORT_SUPPORT_H_
#define TESTS_SUPPORT_SUPPORT_H_

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/harness.h"

namespace qmtatest {

// Runs body(0) .. body(count - 1) on threads of their own and joins them.
void OnThreads(int count, const std::function<void(int)>& body);

// Starts `words` (the first found on PATH) with standard input /dev/null
// and standard output and error to the files `out` and `err`.
pid_t Spawn(const std::vector<std::string>& words, const std::string& out,
            const std::string& err);
// Its exit status; -1 when a signal ended it or it did not end within
// `limit` (it is then killed).
int Finish(pid_t pid, std::chrono::milliseconds limit);

}  // namespace qmtatest

#endif  // TESTS_SUPPORT_SUPPORT_H_
