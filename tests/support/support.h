// Helpers shared by the tests: those of harness.h (standard output
// capture, a scratch directory, the module loaded as a host loads it),
// threads started and joined together, and assertion failures copied to
// standard error.
#ifndef TESTS_SUPPORT_SUPPORT_H_
#define TESTS_SUPPORT_SUPPORT_H_

#include <functional>

#include "tests/support/harness.h"

namespace qmtatest {

// Runs body(0) .. body(count - 1) on threads of their own and joins them.
void OnThreads(int count, const std::function<void(int)>& body);

}  // namespace qmtatest

#endif  // TESTS_SUPPORT_SUPPORT_H_
