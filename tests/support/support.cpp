#include "tests/support/support.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <sys/wait.h>

#include <thread>

#include <gtest/gtest.h>

extern char** environ;

namespace qmtatest {

void OnThreads(int count, const std::function<void(int)>& body) {
  std::vector<std::thread> threads;
  for (int t = 0; t < count; ++t) threads.emplace_back(body, t);
  for (auto& thread : threads) thread.join();
}

pid_t Spawn(const std::vector<std::string>& words, const std::string& out,
            const std::string& err) {
  std::vector<char*> argv;
  for (const std::string& word : words) argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&files, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&files, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  pid_t pid = -1;
  EXPECT_EQ(0, posix_spawnp(&pid, argv[0], &files, nullptr, argv.data(), environ));
  posix_spawn_file_actions_destroy(&files);
  return pid;
}

int Finish(pid_t pid, std::chrono::milliseconds limit) {
  auto end = std::chrono::steady_clock::now() + limit;
  int status = 0;
  while (waitpid(pid, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > end) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      return -1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
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
