// The local driver on its own: word splitting, program names, options, and
// real programs run through a driver with a completion of the test's.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>

#include "host/common/firstanswer.h"
#include "host/drivers/local/local.h"
#include "platform/dbq1.h"
#include "tests/support/support.h"

namespace {

using namespace std::chrono_literals;
using Words = std::vector<std::string>;
using qmta::host::SplitCommand;

// Every word of a command, or its error.
Words Split(const std::string& command) {
  Words words;
  std::string error;
  return qmta::host::SplitCommand(command, &words, &error) ? words : Words{"error: " + error};
}

TEST(LocalSplit, DoubleQuotesGroupAndNothingElseIsSpecial) {
  const std::pair<std::string, Words> cases[] = {
      {"job \"a b\" c", {"job", "a b", "c"}}, {"  job\t\"\"  x  ", {"job", "", "x"}}, {"job a\"b c\"d", {"job", "ab cd"}},
      {"job \"a\tb\"", {"job", "a\tb"}}, {"job \"a\\\" b", {"job", "a\\", "b"}}, {"", {}}, {"\"\"", {""}},
      {"job \"$(touch x)\" `id` a;b ../x $HOME * 'q r' a\\ b",
       {"job", "$(touch x)", "`id`", "a;b", "../x", "$HOME", "*", "'q", "r'", "a\\", "b"}},
      {"job \"open", {"error: a double quote is not closed"}},
      {std::string("job \"a\0b\"", 10), {"error: the command holds a NUL character"}},
      {"job \"line\none\"", {"error: the command holds a control character"}},
      {"job \x1b[2J", {"error: the command holds a control character"}},
      {"job \x7f", {"error: the command holds a control character"}}};
  for (const auto& [command, words] : cases) EXPECT_EQ(Split(command), words) << command;
}

// A completion that the test can wait on and close. The local driver only
// ever answers with one row.
class TestCompletion final : public qmta::host::FirstAnswer {
 public:
  using FirstAnswer::Close;
  // The return code (-2: not one row, -3: a failure), or -1 when none came
  // within `limit`.
  int32_t Code(std::chrono::milliseconds limit = 20s) {
    std::unique_lock<std::mutex> hold(mutex_);
    if (!ready_.wait_for(hold, limit, [this] { return state_ == State::kAnswered; })) return -1;
    if (status_ != DBQ1_OK) return -3;
    return rows_.size() == 1 ? rows_[0] : -2;
  }

 private:
  void Answered() override {
    std::lock_guard<std::mutex> hold(mutex_);
    ready_.notify_all();
  }
  std::condition_variable ready_;
};

int CountEntries(const char* directory) {
  return static_cast<int>(std::distance(std::filesystem::directory_iterator(directory), {}));
}

class LocalRun : public ::testing::Test {
 protected:
  void SetUp() override {
    actions_ = dir_.path() + "/actions";
    std::filesystem::create_directory(actions_);
  }
  void TearDown() override { EXPECT_TRUE(qmta::host::WaitForLocalRunners(20s)); }

  void Script(const std::string& name, const std::string& body, mode_t mode = 0755) {
    std::string path = actions_ + "/" + name;
    std::ofstream(path) << "#!/bin/sh\n" << body << "\n";
    chmod(path.c_str(), mode);
  }
  std::unique_ptr<qmta::host::Driver> Driver(const Words& options = {}) {
    std::string error;
    auto driver = qmta::host::LocalDriverFactory(actions_)(options, &error);
    EXPECT_TRUE(driver) << error;
    return driver;
  }
  std::shared_ptr<TestCompletion> Start(qmta::host::Driver& driver, uint32_t id,
                                        const std::string& command,
                                        const std::string& node = "NODE1") {
    auto done = std::make_shared<TestCompletion>();
    driver.Start(qmta::host::Action{id, command, 5, node}, done);
    return done;
  }
  int32_t Run(const std::string& command, const Words& options = {}) {
    auto driver = Driver(options);
    return Start(*driver, 9, command)->Code();
  }

  qmtatest::ScratchDir dir_;
  std::string actions_;
};

TEST_F(LocalRun, RefusedAndUnrunnableProgramsAndBoundedOutput) {
  Script("plain", "exit 0", 0644);
  Script(".hidden", "exit 0");
  std::filesystem::create_directory(actions_ + "/sub");
  std::ofstream(actions_ + "/garbage") << "\x7f" "ELF not really\n";
  chmod((actions_ + "/garbage").c_str(), 0755);
  Script("noisy", "head -c 5000 /dev/zero | tr '\\0' a\necho\nprintf 'bell\\007\\n'\nyes | head -n 100000\necho done >&2");
  qmtatest::StdoutCapture err(2);
  for (const char* command : {"../actions/plain", ".hidden", "plain", "sub", "\"\" x", "", "job \"open"})
    EXPECT_EQ(Run(command), 127) << command;
  EXPECT_EQ(Run("garbage"), 126);
  Words lines = err.TakeLines();
  ASSERT_EQ(lines.size(), 8u);
  EXPECT_EQ(lines[2], "[9] refused \"plain\": not an executable file");
  EXPECT_EQ(lines[6], "[9] refused: a double quote is not closed");
  EXPECT_TRUE(lines[7].starts_with("[9] cannot run \"garbage\": ")) << lines[7];
  // Lines are cut at 1024 characters, control characters shown as '?', and
  // an action's output is dropped beyond its bound.
  EXPECT_EQ(Run("noisy"), 0);
  lines = err.TakeLines();
  ASSERT_GE(lines.size(), 4u);
  EXPECT_EQ(lines[0], "[9] " + std::string(1024, 'a') + " [line cut]");
  EXPECT_EQ(lines[1], "[9] bell?");
  EXPECT_NE(std::find(lines.begin(), lines.end(), "[9] [further output dropped]"), lines.end());
  EXPECT_LT(lines.size(), 40000u);
}

TEST_F(LocalRun, SignalsTimeoutsAndClose) {
  Script("selfkill", "kill -USR1 $$");
  Script("hang", "sleep 30");
  Script("stubborn", "trap '' TERM\nwhile :; do sleep 0.1; done");
  Script("leaver", "sleep 30 &\necho $! > leftover");
  qmtatest::StdoutCapture err(2);
  EXPECT_EQ(Run("selfkill"), 128 + SIGUSR1);
  auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(Run("hang", {"timeout=1"}), 128 + SIGTERM);
  EXPECT_EQ(Run("stubborn", {"timeout=1"}), 128 + SIGKILL);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 8s);
  // Whatever the program leaves in its group ends with it.
  EXPECT_EQ(Run("leaver"), 0);
  std::string pid = qmtatest::ReadFile(dir_.path() + "/leftover");
  pid = pid.substr(0, pid.find('\n'));
  EXPECT_TRUE(qmtatest::WaitUntil([&] {
    std::string stat = qmtatest::ReadFile("/proc/" + pid + "/stat");
    return stat.empty() || stat.find(") Z ") != std::string::npos;
  }, 2s)) << pid;
  // A closed request ends its program at once; its outcome goes nowhere.
  auto driver = Driver();
  auto done = Start(*driver, 4, "hang");
  std::this_thread::sleep_for(200ms);
  begin = std::chrono::steady_clock::now();
  done->Close();
  EXPECT_TRUE(qmta::host::WaitForLocalRunners(5s));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 3s);
  EXPECT_EQ(done->Code(10ms), -1);
  Words lines = err.TakeLines();
  for (const char* said : {"[9] timed out after 1 s; ending the program", "[4] request closed; ending the program"})
    EXPECT_NE(std::find(lines.begin(), lines.end(), said), lines.end()) << said;
}

TEST_F(LocalRun, OutputNeverWaitsForStandardError) {
  Script("count", "seq 1 10000");
  // Standard error a small pipe that nobody reads until the action has
  // ended: its lines are dropped rather than waited for, and counted.
  int blocked[2];
  ASSERT_EQ(pipe2(blocked, O_CLOEXEC), 0);
  fcntl(blocked[1], F_SETPIPE_SZ, 4096);
  const int saved = dup(2);
  dup2(blocked[1], 2);
  close(blocked[1]);
  const auto begin = std::chrono::steady_clock::now();
  const int32_t code = Run("count");
  const auto took = std::chrono::steady_clock::now() - begin;
  // Now read: what was queued, then the count of what was not.
  std::string text;
  char buffer[4096];
  const std::string last = "[9] [output dropped: ";
  while (text.find(last) == std::string::npos || text.back() != '\n') {
    pollfd in = {blocked[0], POLLIN, 0};
    if (poll(&in, 1, 5000) <= 0) break;
    ssize_t got = read(blocked[0], buffer, sizeof buffer);
    if (got <= 0) break;
    text.append(buffer, static_cast<size_t>(got));
  }
  dup2(saved, 2);
  close(saved);
  close(blocked[0]);
  EXPECT_EQ(code, 0);
  EXPECT_LT(took, 3s);
  Words lines = qmtatest::SplitLines(text);
  ASSERT_FALSE(lines.empty());
  ASSERT_TRUE(lines.back().starts_with(last)) << lines.back();
  const int dropped = std::stoi(lines.back().substr(last.size()));
  lines.pop_back();
  EXPECT_GT(dropped, 0);
  for (size_t i = 0; i < lines.size(); ++i)
    ASSERT_EQ(lines[i], "[9] " + std::to_string(i + 1));
  EXPECT_EQ(lines.size() + dropped, 10000u);
}

TEST_F(LocalRun, ManyActionsLeaveNoProcessDescriptorOrThread) {
  // `one` fails with 99 when another program of its node is running.
  Script("one", "mkdir busy.$QMTA_NODE || exit 99\nsleep 0.03\nrmdir busy.$QMTA_NODE\nexit $1");
  Script("any", "sleep 0.05\nexit $1");
  auto limited = Driver({"max=1"});
  // A first action, so that threads a sanitizer runtime starts with the
  // first thread are there before the count.
  EXPECT_EQ(Start(*limited, 0, "any 0")->Code(), 0);
  ASSERT_TRUE(qmta::host::WaitForLocalRunners(10s));
  std::this_thread::sleep_for(100ms);
  int fdsBefore = CountEntries("/proc/self/fd");
  int threadsBefore = CountEntries("/proc/self/task");
  auto wide = Driver();
  std::vector<std::pair<std::shared_ptr<TestCompletion>, int>> started;
  for (int i = 0; i < 60; ++i) {
    std::string code = std::to_string(i % 7);
    started.emplace_back(i % 2 ? Start(*limited, i, "one " + code, i % 3 ? "A" : "B")
                               : Start(*wide, i, "any " + code, "W"),
                         i % 7);
  }
  for (auto& [done, code] : started) EXPECT_EQ(done->Code(), code);
  ASSERT_TRUE(qmta::host::WaitForLocalRunners(10s));
  siginfo_t info = {};
  EXPECT_EQ(std::make_pair(waitid(P_ALL, 0, &info, WEXITED | WNOHANG), errno), std::make_pair(-1, ECHILD));
  EXPECT_EQ(CountEntries("/proc/self/fd"), fdsBefore);
  // Detached runner threads may take a moment to leave after the count.
  EXPECT_TRUE(qmtatest::WaitUntil([&] { return CountEntries("/proc/self/task") == threadsBefore; }, 2s));
}

}  // namespace
