#include "tests/support/support.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <thread>

#include <gtest/gtest.h>

extern char** environ;

namespace qmtatest {

void OnThreads(int count, const std::function<void(int)>& body) {
  std::vector<std::thread> threads;
  for (int t = 0; t < count; ++t) threads.emplace_back(body, t);
  for (auto& thread : threads) thread.join();
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

bool WaitUntil(const std::function<bool()>& ready, std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!ready()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

bool Child::Spawn(std::vector<std::string> words, const std::string& out, const std::string& err,
                  const std::string& in, bool pipeInput) {
  std::vector<char*> argv;
  for (auto& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  int input[2] = {-1, -1};
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  if (pipeInput && pipe2(input, O_CLOEXEC) == 0)
    posix_spawn_file_actions_adddup2(&files, input[0], 0);
  else
    posix_spawn_file_actions_addopen(&files, 0, in.c_str(), O_RDONLY, 0);
  if (out == "-")
    posix_spawn_file_actions_addclose(&files, 1);
  else
    posix_spawn_file_actions_addopen(&files, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&files, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  int failed = posix_spawnp(&pid_, argv[0], &files, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&files);
  if (input[0] >= 0) close(input[0]);
  input_ = input[1];
  if (failed) pid_ = -1;
  return !failed;
}

void Child::Send(const std::string& text) {
  ASSERT_EQ(write(input_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

int Child::Wait(std::chrono::milliseconds limit) {
  int status = 0;
  if (pid_ < 0 || !WaitUntil([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, limit)) return -1;
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int Child::Finish(std::chrono::milliseconds limit) {
  if (input_ >= 0) close(input_);
  input_ = -1;
  if (pid_ < 0) return -1;
  int status = 0;
  bool ended = WaitUntil([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, limit);
  if (!ended) {
    kill(pid_, SIGKILL);
    waitpid(pid_, &status, 0);
  }
  pid_ = -1;
  return ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void Child::Kill(int signal) {
  if (pid_ < 0) return;
  kill(pid_, signal);
  if (signal == SIGKILL) Finish();
}

}  // namespace qmtatest

namespace {

// Assertion failures also go to standard error: tests that capture
// standard output would otherwise swallow them.
class StderrFailures : public ::testing::EmptyTestEventListener {
  void OnTestPartResult(const ::testing::TestPartResult& result) override {
    if (result.failed())
      fprintf(stderr, "%s:%d: Failure\n%s\n", result.file_name() ? result.file_name() : "?", result.line_number(),
              result.message());
  }
};

const bool kListening = [] {
  ::testing::UnitTest::GetInstance()->listeners().Append(new StderrFailures);
  return true;
}();

}  // namespace
