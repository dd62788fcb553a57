// Remote nodes end to end: a NATS server of the test's own on 127.0.0.1,
// qmtaagent processes serving nodes, and qmtahost sending them actions
// through the nats driver.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include <gtest/gtest.h>

#include "tests/support/support.h"

extern char** environ;

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Lines = std::vector<std::string>;

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

bool Contains(const std::string& path, const std::string& text) {
  return ReadFile(path).find(text) != std::string::npos;
}

// Polls `ready` every 10 ms until it holds or `limit` passes.
bool WaitUntil(const std::function<bool()>& ready, std::chrono::milliseconds limit) {
  auto end = Clock::now() + limit;
  while (!ready()) {
    if (Clock::now() > end) return false;
    std::this_thread::sleep_for(10ms);
  }
  return true;
}

std::string ServerProgram() {
  for (const char* path : {"/usr/sbin/nats-server", "/usr/bin/nats-server", "/usr/local/bin/nats-server"})
    if (access(path, X_OK) == 0) return path;
  return "";
}

// A child process with standard output and error in files.
class Child {
 public:
  ~Child() { Kill(SIGKILL); }
  bool Spawn(std::vector<std::string> words, const std::string& out, const std::string& err,
             bool pipeInput = false) {
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    int input[2] = {-1, -1};
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    if (pipeInput && pipe2(input, O_CLOEXEC) == 0) {
      posix_spawn_file_actions_adddup2(&files, input[0], 0);
    } else {
      posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
    }
    posix_spawn_file_actions_addopen(&files, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&files, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int failed = posix_spawn(&pid_, argv[0], &files, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&files);
    if (input[0] >= 0) close(input[0]);
    input_ = input[1];
    if (failed) pid_ = -1;
    return !failed;
  }
  void Send(const std::string& text) {
    ASSERT_EQ(write(input_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  // Closes the input and waits (bounded) for the exit; the exit status, or
  // -1 when it had to be killed.
  int Finish(std::chrono::milliseconds limit = 20s) {
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
  void Kill(int signal) {
    if (pid_ < 0) return;
    kill(pid_, signal);
    if (signal == SIGKILL) Finish();
  }

 private:
  pid_t pid_ = -1;
  int input_ = -1;
};

// nats-server on 127.0.0.1 and a free port, with a configuration file.
class Server {
 public:
  bool Start(const std::string& dir, const std::string& extra = "") {
    dir_ = dir;
    if (port_ == 0) {
      int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
      sockaddr_in address{};
      address.sin_family = AF_INET;
      address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      socklen_t size = sizeof address;
      bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address);
      getsockname(probe, reinterpret_cast<sockaddr*>(&address), &size);
      port_ = ntohs(address.sin_port);
      close(probe);
      std::ofstream(dir + "/server.conf") << "listen: 127.0.0.1:" << port_ << "\n" << extra;
    }
    if (!process_.Spawn({ServerProgram(), "-c", dir + "/server.conf"}, dir + "/server.out",
                        dir + "/server.err"))
      return false;
    return WaitUntil([this] { return Accepts(); }, 5s);
  }
  void Stop() { process_.Kill(SIGKILL); }
  std::string Url() const { return "nats://127.0.0.1:" + std::to_string(port_); }

 private:
  bool Accepts() const {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port_);
    bool ok = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    close(fd);
    return ok;
  }
  std::string dir_;
  int port_ = 0;
  Child process_;
};

class Remote : public ::testing::Test {
 protected:
  void SetUp() override {
    if (ServerProgram().empty()) GTEST_SKIP() << "nats-server is not installed (tools/setup installs it)";
    std::filesystem::create_directories(Path("actions"));
  }
  std::string Path(const std::string& name) const { return dir_.path() + "/" + name; }
  void Write(const std::string& name, const std::string& content, mode_t mode = 0644) {
    dir_.Write(name, content);
    chmod(Path(name).c_str(), mode);
  }
  void Action(const std::string& name, const std::string& body) {
    Write("actions/" + name, "#!/bin/sh\n" + body + "\n", 0755);
  }
  // An agent serving `nodes`; its standard error goes to NAME.err.
  void StartAgent(Child& agent, const std::string& name, std::vector<std::string> args) {
    std::vector<std::string> words = {QMTAAGENT_PATH, "--url", server_.Url(), "--actions",
                                      Path("actions"), "--reconnect-wait", "50"};
    words.insert(words.end(), args.begin(), args.end());
    ASSERT_TRUE(agent.Spawn(words, Path(name + ".out"), Path(name + ".err")));
    ASSERT_TRUE(WaitUntil([&] {
      return std::count(words.begin(), words.end(), "") == 0 &&
             CountIn(name + ".err", "qmtaagent: serving node") >= 1;
    }, 5s)) << ReadFile(Path(name + ".err"));
  }
  int CountIn(const std::string& name, const std::string& text) const {
    std::string content = ReadFile(Path(name));
    int count = 0;
    for (size_t at = content.find(text); at != std::string::npos; at = content.find(text, at + 1)) ++count;
    return count;
  }
  bool WaitFor(const std::string& name, const std::string& text, std::chrono::milliseconds limit = 5s) {
    return WaitUntil([&] { return Contains(Path(name), text); }, limit);
  }
  // qmtahost reading its input from a pipe (Child::Send).
  void StartHost(Child& host, const std::string& nodes, std::vector<std::string> args = {}) {
    Write("nodes", nodes);
    std::vector<std::string> words = {QMTAHOST_PATH, "--dir", dir_.path(), "--nodes", Path("nodes")};
    words.insert(words.end(), args.begin(), args.end());
    ASSERT_TRUE(host.Spawn(words, Path("host.out"), Path("host.err"), true));
  }
  Lines Out() const { return qmtatest::SplitLines(ReadFile(Path("host.out"))); }
  Lines Matching(const std::string& prefix) const {
    Lines found;
    for (const auto& line : Out())
      if (line.starts_with(prefix)) found.push_back(line);
    std::sort(found.begin(), found.end());
    return found;
  }
  static std::string Event(const std::string& sit, const std::string& attributes = "[]") {
    return R"({"sitname": ")" + sit + R"(", "originnode": "o", "currstate": 1, "attributes": )" +
           attributes + "}\n";
  }

  qmtatest::ScratchDir dir_;
  Server server_;
};

TEST_F(Remote, ActionsRunOnTheAgentsOfTheirNodesOrFindNoneThere) {
  ASSERT_TRUE(server_.Start(dir_.path()));
  Write("QMTASITR",
        "SITNAME=One DESTNODE=web1:LZ CALLTYPE=4 SCRIPT=args ARG1=a ARG2=b ARG3=c;\n"
        "SITNAME=Two DESTNODE=db.2>x SCRIPT=code ARG1=a;\n"
        "SITNAME=Fail DESTNODE=web1:LZ SCRIPT=/bin/sh ARG1=a;\n"
        "SITNAME=Gone DESTNODE=SYS1:MVS_ACTIONS SCRIPT=code;\n"
        "SITNAME=Lost DESTNODE=nowhere:N SCRIPT=code;\n");
  Action("args", "printf '%s\\0' \"$@\" > argv.$QMTA_REQUESTID\n"
                 "echo \"$QMTA_REQUESTID $QMTA_CALLTYPE $QMTA_NODE $PATH\"");
  Action("code", "echo \"node $QMTA_NODE\"; exit $1");
  Child one, two, host;
  StartAgent(one, "one", {"--dir", dir_.path(), "web1:LZ"});
  StartAgent(two, "two", {"--dir", dir_.path(), "db.2>x", "db_2E2_3Ex"});
  StartHost(host, "* nats url=" + server_.Url() + "\n");
  host.Send(Event("One", R"j([["a", "$(touch x)"], ["b", "`touch y`; touch z"], ["c", "a\"b c"]])j") +
            Event("Two", R"([["a", "7"]])") + Event("Fail", R"([["a", "touch x"]])") + Event("Gone") +
            Event("Lost"));
  EXPECT_EQ(host.Finish(), 0);

  EXPECT_EQ(Matching("QMTA050I"),
            (Lines{"QMTA050I ACTION COMPLETED FOR SITNAME=Fail DESTNODE=web1:LZ STATE=1 RC=127 REQUESTID=3",
                   "QMTA050I ACTION COMPLETED FOR SITNAME=One DESTNODE=web1:LZ STATE=1 RC=0 REQUESTID=1",
                   "QMTA050I ACTION COMPLETED FOR SITNAME=Two DESTNODE=db.2>x STATE=1 RC=7 REQUESTID=2"}));
  EXPECT_EQ(Matching("QMTA051W"),
            Lines{"QMTA051W DESTNODE=SYS1:MVS_ACTIONS OFFLINE FOR SITNAME=Gone ORIGINNODE=o STATE=1 REQUESTID=4"});
  EXPECT_EQ(Matching("QMTA030E"), Lines{"QMTA030E SELECT SQL ERROR ON ASYNCH OPEN COMPLETE STATUS=2020"});
  // The arguments arrive as plain text; nothing of them was run.
  EXPECT_EQ(ReadFile(Path("argv.1")),
            std::string("$(touch x)") + '\0' + "`touch y`; touch z" + '\0' + "a'b c" + '\0');
  for (const char* file : {"x", "y", "z"}) EXPECT_FALSE(std::filesystem::exists(Path(file))) << file;
  EXPECT_TRUE(Contains(Path("one.err"), "[1] 1 4 web1:LZ /usr/bin:/bin\n"));
  EXPECT_TRUE(Contains(Path("one.err"), "[3] refused program name \"/bin/sh\""));
  // The second agent serves a node whose name looks like the first one's
  // subject: each request went to its own node only.
  EXPECT_TRUE(Contains(Path("two.err"), "[2] node db.2>x\n"));
  EXPECT_FALSE(Contains(Path("two.err"), "refused a request"));
}

TEST_F(Remote, AnAgentThatDiesOrAnswersLateLeavesTheModuleToItsTimeOut) {
  ASSERT_TRUE(server_.Start(dir_.path()));
  Write("QMTASITR",
        "SITNAME=Slow DESTNODE=a:N SCRIPT=slow;\n"
        "SITNAME=Hang DESTNODE=b:N SCRIPT=hang;\n"
        "SITNAME=Quick DESTNODE=a:N SCRIPT=quick;\n");
  Action("slow", "sleep 4");
  Action("hang", "echo started; echo $$ > hang.pid; exec sleep 30");
  Action("quick", "exit 5");
  Child a, b, host;
  StartAgent(a, "a", {"--dir", dir_.path(), "a:N"});
  StartAgent(b, "b", {"--dir", dir_.path(), "b:N"});
  // The module's 60-second wait becomes 2 seconds.
  StartHost(host, "* nats url=" + server_.Url() + "\n", {"--clock-shift", "-58"});
  auto begin = Clock::now();
  host.Send(Event("Slow") + Event("Hang"));
  ASSERT_TRUE(WaitFor("b.err", "[2] started"));
  b.Kill(SIGKILL);
  pid_t orphan = std::stoi(ReadFile(Path("hang.pid")));
  kill(-orphan, SIGKILL);
  ASSERT_TRUE(WaitUntil([&] { return Matching("QMTA042E").size() == 2; }, 10s));
  // The late reply of the slow action (after 4 s) finds its request closed.
  ASSERT_TRUE(WaitUntil([&] { return Clock::now() - begin > 4500ms; }, 6s));
  host.Send(Event("Quick"));
  EXPECT_EQ(host.Finish(), 0);
  EXPECT_EQ(Matching("QMTA042E"),
            (Lines{"QMTA042E NO RESPONSE FROM DESTNODE=a:N FOR SITNAME=Slow ORIGINNODE=o STATE=1 ERRNO=0 REQUESTID=1",
                   "QMTA042E NO RESPONSE FROM DESTNODE=b:N FOR SITNAME=Hang ORIGINNODE=o STATE=1 ERRNO=0 REQUESTID=2"}));
  EXPECT_EQ(Matching("QMTA050I"),
            Lines{"QMTA050I ACTION COMPLETED FOR SITNAME=Quick DESTNODE=a:N STATE=1 RC=5 REQUESTID=3"});
  EXPECT_LT(Clock::now() - begin, 15s);
}

TEST_F(Remote, TheServerGoingAwayFailsOpenRequestsAndBothSidesComeBack) {
  ASSERT_TRUE(server_.Start(dir_.path()));
  Write("QMTASITR", "SITNAME=Run DESTNODE=a:N SCRIPT=run ARG1=a;\n");
  Action("run", "echo started $1; [ \"$1\" = wait ] && sleep 2; exit 3");
  Child agent, host;
  StartAgent(agent, "agent", {"--dir", dir_.path(), "a:N"});
  StartHost(host, "a:* nats url=" + server_.Url() + " reconnect-wait=50\n");
  host.Send(Event("Run", R"([["a", "now"]])"));
  ASSERT_TRUE(WaitUntil([&] { return Matching("QMTA050I").size() == 1; }, 5s));
  host.Send(Event("Run", R"([["a", "wait"]])"));
  ASSERT_TRUE(WaitFor("agent.err", "[2] started wait"));
  auto stopped = Clock::now();
  server_.Stop();
  // Reported at once, not after the module's 60-second wait.
  ASSERT_TRUE(WaitUntil([&] { return Matching("QMTA030E").size() == 1; }, 5s));
  EXPECT_LT(Clock::now() - stopped, 5s);
  ASSERT_TRUE(server_.Start(dir_.path()));
  ASSERT_TRUE(WaitFor("agent.err", "qmtaagent: connected again"));
  ASSERT_TRUE(WaitFor("host.err", "qmtahost: nats: connected again"));
  host.Send(Event("Run", R"([["a", "again"]])"));
  EXPECT_EQ(host.Finish(), 0);
  EXPECT_EQ(Matching("QMTA030E"), Lines{"QMTA030E SELECT SQL ERROR ON ASYNCH OPEN COMPLETE STATUS=2020"});
  EXPECT_EQ(Matching("QMTA050I"),
            (Lines{"QMTA050I ACTION COMPLETED FOR SITNAME=Run DESTNODE=a:N STATE=1 RC=3 REQUESTID=1",
                   "QMTA050I ACTION COMPLETED FOR SITNAME=Run DESTNODE=a:N STATE=1 RC=3 REQUESTID=3"}));
  EXPECT_TRUE(Contains(Path("agent.err"), "qmtaagent: lost the connection to the server; reconnecting"));
}

TEST_F(Remote, AgentStopsOnSigtermEndingItsPrograms) {
  ASSERT_TRUE(server_.Start(dir_.path()));
  Write("QMTASITR", "SITNAME=Hang DESTNODE=a:N SCRIPT=hang;\n");
  Action("hang", "echo $$ > hang.pid; echo started; exec sleep 30");
  Child agent, host;
  StartAgent(agent, "agent", {"--dir", dir_.path(), "a:N"});
  StartHost(host, "* nats url=" + server_.Url() + "\n");
  host.Send(Event("Hang"));
  ASSERT_TRUE(WaitFor("agent.err", "[1] started"));
  pid_t program = std::stoi(ReadFile(Path("hang.pid")));
  auto begin = Clock::now();
  agent.Kill(SIGTERM);
  EXPECT_EQ(agent.Finish(10s), 0);
  EXPECT_LT(Clock::now() - begin, 5s);
  EXPECT_EQ(kill(program, 0), -1);  // ended and reaped
  EXPECT_EQ(host.Finish(), 0);
  // The host heard at once that the node went away.
  EXPECT_EQ(Matching("QMTA030E"), Lines{"QMTA030E SELECT SQL ERROR ON ASYNCH OPEN COMPLETE STATUS=2020"});
  EXPECT_TRUE(Contains(Path("agent.err"), "qmtaagent: stopping on SIGTERM"));
}

TEST_F(Remote, PermissionsKeepAnAgentToItsOwnNodes) {
  ASSERT_TRUE(server_.Start(
      dir_.path(),
      "authorization {\n  users = [\n"
      "    {user: host, password: hostpw, permissions: {publish: \"qmta.node.>\", subscribe: \"_INBOX.>\"}}\n"
      "    {user: agenta, password: agentpw, permissions: {subscribe: \"qmta.node.a_3AN\", "
      "publish: {deny: \">\"}, allow_responses: true}}\n"
      "  ]\n}\n"));
  Write("QMTASITR",
        "SITNAME=Own DESTNODE=a:N SCRIPT=code;\n"
        "SITNAME=Other DESTNODE=b:N SCRIPT=code;\n");
  Action("code", "exit 4");
  Write("agent.pw", "agentpw\n", 0600);
  Write("host.pw", "hostpw\n", 0600);
  Write("wrong.pw", "nope\n", 0600);
  Child agent, host;
  StartAgent(agent, "agent", {"--user", "agenta", "--password-file", Path("agent.pw"), "a:N", "b:N"});
  EXPECT_TRUE(WaitFor("agent.err", "qmta.node.b_3AN")) << ReadFile(Path("agent.err"));
  EXPECT_TRUE(WaitFor("agent.err", "Permissions Violation for Subscription to \"qmta.node.b_3AN\""))
      << ReadFile(Path("agent.err"));
  StartHost(host, "* nats url=" + server_.Url() + " user=host password-file=" + Path("host.pw") + "\n");
  host.Send(Event("Own") + "{\"drain\": true}\n" + Event("Other"));
  EXPECT_EQ(host.Finish(), 0);
  EXPECT_EQ(Matching("QMTA050I"),
            Lines{"QMTA050I ACTION COMPLETED FOR SITNAME=Own DESTNODE=a:N STATE=1 RC=4 REQUESTID=1"});
  EXPECT_EQ(Matching("QMTA030E"), Lines{"QMTA030E SELECT SQL ERROR ON ASYNCH OPEN COMPLETE STATUS=2020"});

  // A wrong password never gets a connection.
  Child wrong;
  std::vector<std::string> words = {QMTAAGENT_PATH, "--url", server_.Url(), "--actions", Path("actions"),
                                    "--user", "agenta", "--password-file", Path("wrong.pw"), "a:N"};
  ASSERT_TRUE(wrong.Spawn(words, Path("wrong.out"), Path("wrong.err")));
  EXPECT_TRUE(WaitFor("wrong.err", "still trying")) << ReadFile(Path("wrong.err"));
  EXPECT_FALSE(WaitFor("wrong.err", "qmtaagent: connected", 500ms));
  wrong.Kill(SIGTERM);
  wrong.Finish(5s);
}

TEST(RemoteAgent, HelpAndUsageErrors) {
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string text;
  };
  const Case cases[] = {
      {{"--help"}, 0, "  --url URL"},
      {{"--url", "nats://127.0.0.1:1", "a"}, 2, "qmtaagent: --actions is required"},
      {{"--url", "nats://127.0.0.1:1", "--actions", "/"}, 2, "qmtaagent: name at least one node"},
      {{"--actions", "/", "a"}, 2, "qmtaagent: no url"},
      {{"--url", "nats://127.0.0.1:1", "--actions", "/", "--user", "u", "a"}, 2,
       "qmtaagent: user and password-file go together"},
      {{"--url", "nats://127.0.0.1:1", "--actions", "/", "--timeout", "0", "a"}, 2,
       "qmtaagent: local: bad timeout"},
      {{"--bogus"}, 2, "qmtaagent: unknown option \"--bogus\""},
  };
  qmtatest::ScratchDir dir;
  for (const Case& c : cases) {
    Child agent;
    std::vector<std::string> words = {QMTAAGENT_PATH};
    words.insert(words.end(), c.args.begin(), c.args.end());
    ASSERT_TRUE(agent.Spawn(words, dir.path() + "/out", dir.path() + "/err"));
    EXPECT_EQ(agent.Finish(10s), c.status) << c.args[0];
    EXPECT_TRUE(Contains(dir.path() + (c.status ? "/err" : "/out"), c.text))
        << c.text << "\n" << ReadFile(dir.path() + "/err");
  }
}

}  // namespace
