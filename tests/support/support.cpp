#include "tests/support/support.h"

#include <stdio.h>

#include <thread>

#include <gtest/gtest.h>

namespace qmtatest {

void OnThreads(int count, const std::function<void(int)>& body) {
  std::vector<std::thread> threads;
  for (int t = 0; t < count; ++t) threads.emplace_back(body, t);
  for (auto& thread : threads) thread.join();
}

}  // namespace qmtatest

namespace {

// Assertion failures also go to standard error: tests that capture
// standard output would otherwise swallow them.
class StderrFailures : public ::testing::EmptyTestEventListener {
  void OnTestPartResult(const ::testing::TestPartResult& result) override {
    if (result.failed())
      fprintf(stderr, "%s:%d: Failure\n%s\n", result.file_name() ? result.file_name() : "?",
              result.line_number(), result.message());
  }
};

const bool kListening = [] {
  ::testing::UnitTest::GetInstance()->listeners().Append(new StderrFailures);
  return true;
}();

}  // namespace
