// qmtahost as a service: the control socket and `ctl`, signals, the
// orderly stop with actions in flight, the output relay's write errors, and
// the intake check on event text.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <thread>

#include <gtest/gtest.h>

#include "tests/support/support.h"

extern char** environ;

namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

// A qmtahost process; standard input, output and error are files of the
// scratch directory unless other descriptors are given.
struct Process {
  pid_t pid = -1;
  int status = -1;  // exit status once Wait returned true; -1: killed by a signal

  Process(const std::vector<std::string>& args, const std::string& in, const std::string& out,
          const std::string& err, int outFd = -1) {
    std::vector<std::string> words = {QMTAHOST_PATH};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, 0, in.c_str(), O_RDONLY, 0);
    if (outFd >= 0)
      posix_spawn_file_actions_adddup2(&files, outFd, 1);
    else if (out == "-")
      posix_spawn_file_actions_addclose(&files, 1);
    else
      posix_spawn_file_actions_addopen(&files, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&files, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    EXPECT_EQ(0, posix_spawn(&pid, argv[0], &files, nullptr, argv.data(), environ));
    posix_spawn_file_actions_destroy(&files);
  }
  ~Process() {
    if (pid > 0 && !Wait(0s)) {
      kill(pid, SIGKILL);
      Wait(10s);
    }
  }
  bool Wait(std::chrono::milliseconds limit) {
    auto end = std::chrono::steady_clock::now() + limit;
    for (;;) {
      int raw = 0;
      pid_t done = waitpid(pid, &raw, WNOHANG);
      if (done == pid) {
        status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
        pid = -1;
        return true;
      }
      if (done < 0 || std::chrono::steady_clock::now() > end) return false;
      std::this_thread::sleep_for(5ms);
    }
  }
};

class Serve : public ::testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(dir_.path() + "/actions");
    Write("empty", "");
    socket_ = dir_.path() + "/control";
  }
  void Write(const std::string& name, const std::string& content, mode_t mode = 0644) {
    dir_.Write(name, content);
    chmod((dir_.path() + "/" + name).c_str(), mode);
  }
  Lines Read(const std::string& name) {
    std::ifstream in(dir_.path() + "/" + name, std::ios::binary);
    return qmtatest::SplitLines(std::string(std::istreambuf_iterator<char>(in), {}));
  }
  // Starts `qmtahost serve` and waits until its control socket answers.
  std::unique_ptr<Process> StartServe(std::vector<std::string> args = {}) {
    args.insert(args.begin(), {"serve", "--control", socket_, "--nodes", "nodes"});
    auto host = std::make_unique<Process>(args, "empty", "out", "err");
    for (int i = 0; i < 500 && Ctl({"DISPLAY"}).status != 0; ++i) std::this_thread::sleep_for(10ms);
    return host;
  }
  struct CtlResult {
    int status = -1;
    Lines out, err;
  };
  CtlResult Ctl(const Lines& lines) {
    std::vector<std::string> args = {"ctl", "--control", socket_};
    args.insert(args.end(), lines.begin(), lines.end());
    Process ctl(args, "empty", "ctl.out", "ctl.err");
    EXPECT_TRUE(ctl.Wait(30s));
    return {ctl.status, Read("ctl.out"), Read("ctl.err")};
  }
  size_t Count(const Lines& lines, const std::string& prefix) {
    return std::count_if(lines.begin(), lines.end(),
                         [&](const std::string& line) { return line.starts_with(prefix); });
  }

  qmtatest::ScratchDir dir_;
  std::string socket_;
};

// The control socket takes what an input file takes; `ctl` prints what the
// dispatcher thread printed and says refusals; its exit status tells them
// apart. A checked reload, by `ctl` or SIGHUP, keeps the table on a bad
// file and loads a good one.
TEST_F(Serve, ControlSocketCtlAndCheckedReloads) {
  Write("QMTASITR", "SITNAME=S DESTNODE=sim:N SCRIPT=job ARG1=\"x\";\n");
  Write("nodes", "sim:* sim rc=0\n");
  auto host = StartServe();

  CtlResult display = Ctl({"DISPLAY"});
  EXPECT_EQ(display.status, 0);
  EXPECT_EQ(display.out, (Lines{"QMTA094I QMTASITR LOOKUP TABLE:",
                                "QMTA095I IF SITNAME=S AND ORIGINNODE=* AND STATE=TRUE THEN",
                                "QMTA096I    DESTNODE=sim:N CALLTYPE=0 SCRIPT=job",
                                "QMTA097I       ARG1=\"x\"",
                                "QMTA100I STACK SIZES:  VX=0/0 RM=0/0 SNMP=0/0"}));
  CtlResult event = Ctl({R"({"sitname": "S", "originnode": "n", "currstate": 1})",
                         R"({"sitname": "S", "originnode": "n\"x", "currstate": 1})",
                         "bogus", R"({"drain": true})"});
  EXPECT_EQ(event.status, 1);
  EXPECT_EQ(event.out, (Lines{"event taken: 1 action started", "QMTA011E INVALID QMTASITR PARM=bogus",
                              "drained"}));
  EXPECT_EQ(event.err, Lines{"qmtahost ctl: refused: \"originnode\" holds a double quote"});

  // A file that would drop an entry is refused, by ctl and by SIGHUP alike.
  Write("QMTASITR", "SITNAME=S DESTNODE=sim:N STATE=true;\nSITNAME=T DESTNODE=sim:N;\n");
  CtlResult reload = Ctl({R"({"reload": true})"});
  EXPECT_EQ(reload.status, 1);
  ASSERT_EQ(reload.err.size(), 1u);
  ASSERT_EQ(0, kill(host->pid, SIGHUP));
  std::this_thread::sleep_for(300ms);
  Lines rules(display.out.begin(), display.out.end() - 1);  // the stack sizes move
  Lines now = Ctl({"DISPLAY"}).out;
  EXPECT_EQ(Lines(now.begin(), now.end() - 1), rules);
  // Forced, it loads what it can.
  reload = Ctl({R"({"reload": true, "force": true})"});
  EXPECT_EQ(reload.status, 0);
  EXPECT_EQ(reload.out, (Lines{"QMTA021E INVALID VALUE FOR STATE=true IN LINE 1",
                               "QMTA090I QMTASITR REFRESHED.  STATUS=0"}));
  // A good file by SIGHUP.
  Write("QMTASITR", "SITNAME=U DESTNODE=sim:N;\n");
  ASSERT_EQ(0, kill(host->pid, SIGHUP));
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(Count(Ctl({"DISPLAY"}).out, "QMTA095I IF SITNAME=U "), 1u);

  ASSERT_EQ(0, kill(host->pid, SIGTERM));
  ASSERT_TRUE(host->Wait(30s));
  EXPECT_EQ(host->status, 0);
  EXPECT_EQ(Ctl({"DISPLAY"}).status, 2);  // nobody answers any more
  EXPECT_FALSE(std::filesystem::exists(socket_));
}

// SIGTERM with actions in flight: no more events, every QMTA040I gets its
// outcome before the exit, and the program of an action the module gave up
// on (after 3 s, the clock shifted) is ended.
TEST_F(Serve, StopWaitsForEveryOutcomeAndEndsGivenUpPrograms) {
  Write("QMTASITR", "SITNAME=Quick DESTNODE=here SCRIPT=quick;\n"
                    "SITNAME=Hang DESTNODE=here SCRIPT=hang;\n");
  Write("nodes", "here local timeout=60\n");
  Write("actions/quick", "#!/bin/sh\nsleep 1\n", 0755);
  Write("actions/hang", "#!/bin/sh\necho $$ > hang.pid\nexec sleep 60\n", 0755);
  auto host = StartServe({"--clock-shift", "-57"});
  EXPECT_EQ(Ctl({R"({"sitname": "Quick", "originnode": "n", "currstate": 1})",
                 R"({"sitname": "Hang", "originnode": "n", "currstate": 1})"})
                .status,
            0);
  for (int i = 0; i < 300 && Read("hang.pid").empty(); ++i) std::this_thread::sleep_for(10ms);
  ASSERT_EQ(Read("hang.pid").size(), 1u);
  pid_t program = std::stoi(Read("hang.pid")[0]);
  ASSERT_EQ(0, kill(host->pid, SIGTERM));
  // Events are refused while it stops.
  CtlResult late = Ctl({R"({"sitname": "Quick", "originnode": "n", "currstate": 1})"});
  if (late.status != 2) {
    EXPECT_EQ(late.err, Lines{"qmtahost ctl: refused: the host is stopping"});
  }
  ASSERT_TRUE(host->Wait(30s));
  EXPECT_EQ(host->status, 0);
  Lines out = Read("out");
  EXPECT_EQ(Count(out, "QMTA040I"), 2u);
  EXPECT_EQ(Count(out, "QMTA050I ACTION COMPLETED FOR SITNAME=Quick"), 1u);
  EXPECT_EQ(Count(out, "QMTA042E NO RESPONSE FROM DESTNODE=here FOR SITNAME=Hang"), 1u);
  EXPECT_NE(0, kill(program, 0));  // the given-up program is gone
  Lines err = Read("err");
  ASSERT_FALSE(err.empty());
  EXPECT_TRUE(std::regex_search(err.back(), std::regex("stopped: 2 events, 2 actions")))
      << err.back();
}

// Standard output that cannot take the messages: said on standard error,
// exit status 1, in file mode as in serve mode.
TEST_F(Serve, StandardOutputErrorsStopTheHost) {
  Write("QMTASITR", "SITNAME=S DESTNODE=sim:N;\n");
  Write("nodes", "sim:* sim rc=0\n");
  std::string events;
  for (int i = 0; i < 2000; ++i) events += R"({"sitname": "S", "originnode": "n", "currstate": 1})" "\n";
  Write("events", events);
  {
    Process full({"--nodes", "nodes", "events"}, "empty", "/dev/full", "err");
    ASSERT_TRUE(full.Wait(60s));
    EXPECT_EQ(full.status, 1);
    EXPECT_EQ(Count(Read("err"), "qmtahost: standard output: No space left on device"), 1u);
  }
  {
    Process closed({"--nodes", "nodes", "events"}, "empty", "-", "err");
    ASSERT_TRUE(closed.Wait(30s));
    EXPECT_EQ(closed.status, 1);
    EXPECT_EQ(Read("err"), Lines{"qmtahost: standard output is closed"});
  }
  {
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    Process piped({"--nodes", "nodes", "events"}, "empty", "", "err", ends[1]);
    close(ends[1]);
    char byte;
    ASSERT_EQ(1, read(ends[0], &byte, 1));  // like `| head -c 1`
    close(ends[0]);
    ASSERT_TRUE(piped.Wait(60s));
    EXPECT_EQ(piped.status, 1);
    EXPECT_EQ(Count(Read("err"), "qmtahost: standard output: Broken pipe"), 1u);
  }
}

// Names with a double quote or a control character never reach the
// module; with --allow-any-text they do, and `sim` shows how the module
// formats them.
TEST_F(Serve, EventTextIsCheckedUnlessAllowed) {
  Write("QMTASITR", "SITNAME=S DESTNODE=sim:N SCRIPT=job ARG1=NODE ARG2=V;\n");
  Write("nodes", "sim:* sim rc=0\n");
  Write("events",
        R"({"sitname": "S", "originnode": "web1:LZ\" \"/etc", "currstate": 1})" "\n"
        R"({"sitname": "S", "originnode": "n", "currstate": 1, "attributes": [["V", "x\nQMTA050I forged"]]})" "\n"
        R"({"sitname": "S", "originnode": "n\u001b[2J", "currstate": 1})" "\n"
        R"({"sitname": "S", "originnode": "n\u00e9", "currstate": 1, "attributes": [["V", "a\tb"]]})" "\n");
  Process checked({"--nodes", "nodes", "events"}, "empty", "out", "err");
  ASSERT_TRUE(checked.Wait(30s));
  EXPECT_EQ(checked.status, 0);
  EXPECT_EQ(Read("err"), (Lines{"qmtahost: line 1: \"originnode\" holds a double quote",
                                "qmtahost: line 2: attribute 1 value holds a control character",
                                "qmtahost: line 3: \"originnode\" holds a control character",
                                "qmtahost: stopped: 1 events, 1 actions (1 completed, 0 offline, "
                                "0 no response, 0 errors), 3 lines refused"}));
  EXPECT_EQ(Count(Read("out"), "QMTA041I CMD=job \"n\xc3\xa9\" \"a\tb\""), 1u);

  Process allowed({"--allow-any-text", "--nodes", "nodes", "events"}, "empty", "out", "err");
  ASSERT_TRUE(allowed.Wait(30s));
  EXPECT_EQ(Read("err").size(), 1u);  // the summary alone
  EXPECT_EQ(Count(Read("out"), "QMTA041I CMD=job \"web1:LZ\" \"/etc\" \"V\""), 1u);
  EXPECT_EQ(Count(Read("out"), "QMTA050I ACTION COMPLETED"), 4u);
}

}  // namespace
