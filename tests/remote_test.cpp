// Remote nodes end to end: a NATS server of the test's own on 127.0.0.1,
// qmtaagent processes serving nodes, and qmtahost sending them actions
// through the nats driver.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <thread>

#include <gtest/gtest.h>
#include <nats/nats.h>

#include "host/drivers/nats/wire.h"
#include "host/programs/qmtahost/history.h"
#include "tests/support/support.h"

extern char** environ;

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Lines = std::vector<std::string>;
using qmtatest::Child;
using qmtatest::ReadFile;
using qmtatest::WaitUntil;
namespace wire = qmta::host::wire;

bool Contains(const std::string& path, const std::string& text) {
  return ReadFile(path).find(text) != std::string::npos;
}

using qmtatest::ProgramIn;

std::string ServerProgram() { return ProgramIn("nats-server"); }

sockaddr_in Loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  return address;
}

// nats-server on 127.0.0.1 and a free port, with a configuration file.
class Server {
 public:
  // By default the server knows one user, "qmta" with password "pw", who
  // may do anything.
  bool Start(const std::string& dir,
             const std::string& extra = "authorization { users = [ {user: qmta, password: pw} ] }\n") {
    dir_ = dir;
    if (port_ == 0) {
      port_ = qmtatest::FreePort();
      std::ofstream(dir + "/server.conf") << "listen: 127.0.0.1:" << port_ << "\n" << extra;
    }
    if (!process_.Spawn({ServerProgram(), "-c", dir + "/server.conf"}, dir + "/server.out",
                        dir + "/server.err"))
      return false;
    return WaitUntil([this] { return Accepts(); }, 5s);
  }
  void Stop() { process_.Kill(SIGKILL); }
  // With `tls`, the server's configuration asks every client for TLS.
  void RequireTls() { scheme_ = "tls"; }
  std::string Url() const { return scheme_ + "://127.0.0.1:" + std::to_string(port_); }

 private:
  bool Accepts() const {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = Loopback(port_);
    bool ok = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    close(fd);
    return ok;
  }
  std::string dir_;
  std::string scheme_ = "nats";
  int port_ = 0;
  Child process_;
};

// A client of the test's own: stands in for a host or an agent of either
// version, with synchronous subscriptions.
class Client {
 public:
  ~Client() {
    for (natsSubscription* one : subscriptions_) natsSubscription_Destroy(one);
    natsConnection_Destroy(connection_);
  }
  bool Connect(const std::string& url) {
    natsOptions* options = nullptr;
    natsOptions_Create(&options);
    natsOptions_SetURL(options, url.c_str());
    natsOptions_SetUserInfo(options, "qmta", "pw");
    natsStatus s = natsConnection_Connect(&connection_, options);
    natsOptions_Destroy(options);
    return s == NATS_OK;
  }
  natsSubscription* Subscribe(const std::string& subject) {
    natsSubscription* one = nullptr;
    if (natsConnection_SubscribeSync(&one, connection_, subject.c_str()) != NATS_OK) return nullptr;
    natsSubscription_SetPendingLimits(one, -1, -1);
    natsConnection_Flush(connection_);
    subscriptions_.push_back(one);
    return one;
  }
  // The next message's data (and reply subject, time-left header), or ""
  // after `limit`.
  std::string Next(natsSubscription* from, std::chrono::milliseconds limit, std::string* reply = nullptr,
                   std::string* timeLeft = nullptr) {
    natsMsg* message = nullptr;
    if (natsSubscription_NextMsg(&message, from, static_cast<int64_t>(limit.count())) != NATS_OK) return "";
    std::string data(natsMsg_GetData(message), static_cast<size_t>(natsMsg_GetDataLength(message)));
    const char* value = nullptr;
    if (reply) *reply = natsMsg_GetReply(message) ? natsMsg_GetReply(message) : "";
    if (timeLeft) *timeLeft = natsMsgHeader_Get(message, "Qmta-Time-Left", &value) == NATS_OK ? value : "";
    natsMsg_Destroy(message);
    return data;
  }
  // Publishes `data`, with a time-left header unless `timeLeft` is empty.
  void Send(const std::string& subject, const std::string& reply, const std::string& data,
            const std::string& timeLeft = "") {
    natsMsg* message = nullptr;
    natsMsg_Create(&message, subject.c_str(), reply.empty() ? nullptr : reply.c_str(), data.data(),
                   static_cast<int>(data.size()));
    if (!timeLeft.empty()) natsMsgHeader_Set(message, "Qmta-Time-Left", timeLeft.c_str());
    EXPECT_EQ(natsConnection_PublishMsg(connection_, message), NATS_OK);
    natsMsg_Destroy(message);
  }
  void Flush() { natsConnection_Flush(connection_); }

 private:
  natsConnection* connection_ = nullptr;
  std::vector<natsSubscription*> subscriptions_;
};

std::string RequestText(int id, const std::string& node, const std::string& command) {
  return "QMTA1 REQ " + std::to_string(id) + " 0 " + std::to_string(node.size()) + " " +
         std::to_string(command.size()) + "\n" + node + command;
}

class Remote : public ::testing::Test {
 protected:
  void SetUp() override {
    if (ServerProgram().empty()) GTEST_SKIP() << "nats-server is not installed (tools/setup installs it)";
    std::filesystem::create_directories(Path("actions"));
    Write("client.pw", "pw\n", 0600);
    creds_ = {"--user", "qmta", "--password-file", Path("client.pw")};
  }
  // The credentials of the host's destination lines.
  std::string Auth() const {
    return creds_.empty() ? "" : " user=qmta password-file=" + Path("client.pw");
  }
  std::string Path(const std::string& name) const { return dir_.path() + "/" + name; }
  void Write(const std::string& name, const std::string& content, mode_t mode = 0644) {
    dir_.Write(name, content);
    chmod(Path(name).c_str(), mode);
  }
  void Action(const std::string& name, const std::string& body) {
    Write("actions/" + name, "#!/bin/sh\n" + body + "\n", 0755);
  }
  // The agent's command line for this server and the actions directory.
  std::vector<std::string> AgentWords(std::vector<std::string> args,
                                      const std::vector<std::string>& more = {}) const {
    if (std::find(args.begin(), args.end(), "--reconnect-wait") == args.end())
      args.insert(args.begin(), {"--reconnect-wait", "50"});
    args.insert(args.begin(), creds_.begin(), creds_.end());
    args.insert(args.begin(), {QMTAAGENT_PATH, "--url", server_.Url(), "--actions", Path("actions")});
    args.insert(args.end(), more.begin(), more.end());
    return args;
  }
  // An agent with `args` then `more` (nodes); its standard error goes to NAME.err.
  void StartAgent(Child& agent, const std::string& name, std::vector<std::string> args,
                  const std::vector<std::string>& more = {}) {
    std::vector<std::string> words = AgentWords(args, more);
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
    ASSERT_TRUE(host.Spawn(words, Path("host.out"), Path("host.err"), "/dev/null", true));
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

  // NAME.pem and NAME.key, made by openssl with the extensions of `section`
  // in tls.cnf: self-signed when `signer` is empty, else signed by that
  // certificate.
  void MakeCertificate(const std::string& name, const std::string& signer, const std::string& section) {
    std::vector<std::string> words = {ProgramIn("openssl"), "req", "-x509", "-config", Path("tls.cnf"),
                                      "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                                      "-nodes", "-days", "2", "-subj", "/CN=" + name,
                                      "-extensions", section, "-keyout", Path(name + ".key"),
                                      "-out", Path(name + ".pem")};
    if (!signer.empty())
      words.insert(words.end(), {"-CA", Path(signer + ".pem"), "-CAkey", Path(signer + ".key")});
    Child openssl;
    ASSERT_TRUE(openssl.Spawn(words, Path("openssl.out"), Path("openssl.err")));
    ASSERT_EQ(openssl.Finish(10s), 0) << ReadFile(Path("openssl.err"));
  }

  qmtatest::ScratchDir dir_;
  Server server_;
  std::vector<std::string> creds_;  // the agents' credentials options
};

TEST_F(Remote, ActionsRunOnTheAgentsOfTheirNodesOrFindNoneThere) {
  ASSERT_TRUE(server_.Start(dir_.path()));
  Write("QMTASITR",
        "SITNAME=One DESTNODE=web1:LZ CALLTYPE=4 SCRIPT=args ARG1=a ARG2=b ARG3=c;\n"
        "SITNAME=Two DESTNODE=db.2>x SCRIPT=code ARG1=a;\n"
        "SITNAME=Fail DESTNODE=web1:LZ SCRIPT=/bin/sh ARG1=a;\n"
        "SITNAME=Gone DESTNODE=SYS1:MVS_ACTIONS SCRIPT=code;\n"
        "SITNAME=Lost DESTNODE=nowhere:N SCRIPT=code;\n"
        "SITNAME=Old DESTNODE=old:N SCRIPT=code;\n"
        "SITNAME=Ctl DESTNODE=web1:LZ SCRIPT=args ARG1=a;\n");
  Action("args", "printf '%s\\0' \"$@\" > argv.$QMTA_REQUESTID\n"
                 "echo \"$QMTA_REQUESTID $QMTA_CALLTYPE $QMTA_NODE $PATH\"");
  Action("code", "echo \"node $QMTA_NODE\"; exit $1");
  Child one, two, host;
  StartAgent(one, "one", {"--dir", dir_.path(), "web1:LZ"});
  StartAgent(two, "two", {"--dir", dir_.path(), "db.2>x", "db_2E2_3Ex"});
  // old:N is served by an agent of the previous version (it knows no
  // time left and no cancel), with a forged reply before its own.
  Client old;
  ASSERT_TRUE(old.Connect(server_.Url()));
  natsSubscription* requests = old.Subscribe("qmta.node.old_3AN");
  // With the intake's check off, a command with a line end is still
  // never sent (Ctl).
  StartHost(host, "* nats url=" + server_.Url() + Auth() + "\n",
            {"--journal", Path("j.db"), "--allow-any-text"});
  host.Send(Event("One", R"j([["a", "$(touch x)"], ["b", "`touch y`; touch z"], ["c", "a\"b c"]])j") +
            Event("Two", R"([["a", "7"]])") + Event("Fail", R"([["a", "touch x"]])") + Event("Gone") +
            Event("Lost") + Event("Old") + Event("Ctl", R"([["a", "x\ny"]])"));
  std::string reply, timeLeft;
  EXPECT_TRUE(old.Next(requests, 5s, &reply, &timeLeft).starts_with("QMTA1 REQ 6 0 5 "));
  // The module waits 60 s from the open: a little less is left.
  int64_t left = timeLeft.empty() ? -1 : std::stoll(timeLeft);
  EXPECT_TRUE(left > 50000 && left <= 60000) << timeLeft;
  old.Send(reply, "", "QMTA1 RC 7 0");
  old.Send(reply, "", "QMTA1 RC 6 9");
  EXPECT_EQ(host.Finish(), 0);

  EXPECT_EQ(Matching("QMTA050I"),
            (Lines{"QMTA050I ACTION COMPLETED FOR SITNAME=Fail DESTNODE=web1:LZ STATE=1 RC=127 REQUESTID=3",
                   "QMTA050I ACTION COMPLETED FOR SITNAME=Old DESTNODE=old:N STATE=1 RC=9 REQUESTID=6",
                   "QMTA050I ACTION COMPLETED FOR SITNAME=One DESTNODE=web1:LZ STATE=1 RC=0 REQUESTID=1",
                   "QMTA050I ACTION COMPLETED FOR SITNAME=Two DESTNODE=db.2>x STATE=1 RC=7 REQUESTID=2"}));
  EXPECT_TRUE(Contains(Path("host.err"), "qmtahost: nats: refused a reply on " + reply +
                                             " for request 6 that names request 7 (1 refused so far)"));
  EXPECT_EQ(Matching("QMTA051W"),
            Lines{"QMTA051W DESTNODE=SYS1:MVS_ACTIONS OFFLINE FOR SITNAME=Gone ORIGINNODE=o STATE=1 REQUESTID=4"});
  EXPECT_EQ(Matching("QMTA030E"), (Lines{"QMTA030E SELECT SQL ERROR ON ASYNCH OPEN COMPLETE STATUS=105",
                                          "QMTA030E SELECT SQL ERROR ON ASYNCH OPEN COMPLETE STATUS=2020"}));
  EXPECT_TRUE(Contains(Path("host.err"), "qmtahost: nats: refused request 7 for qmta.node.web1_3ALZ: "
                                         "the command holds a control character"));
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
  // The agents' output and exit reach the journal; the old agent's answer
  // has none.
  nlohmann::json answer2, old6;
  qmta::hostprog::HistoryFilter filter;
  std::string error;
  filter.request = 2;
  ASSERT_TRUE(qmta::hostprog::QueryActions(Path("j.db"), filter, &answer2, &error)) << error;
  filter.request = 6;
  ASSERT_TRUE(qmta::hostprog::QueryActions(Path("j.db"), filter, &old6, &error)) << error;
  ASSERT_EQ(answer2.size(), 1u);
  EXPECT_EQ(answer2[0]["output"], "node db.2>x\n");
  EXPECT_EQ(answer2[0]["exit_status"], 7);
  EXPECT_EQ(answer2[0]["driver"], "nats");
  ASSERT_EQ(old6.size(), 1u);
  EXPECT_EQ(old6[0]["rcs"], "9");
  EXPECT_TRUE(old6[0]["output"].is_null());
}

TEST_F(Remote, WhatTheModuleGivesUpOnIsEndedOrNeverStartedAndItsLateAnswerDropped) {
  ASSERT_TRUE(server_.Start(dir_.path()));
  Write("QMTASITR",
        "SITNAME=Slow DESTNODE=a:N SCRIPT=slow;\n"
        "SITNAME=Queued DESTNODE=a:N SCRIPT=queued;\n"
        "SITNAME=Hang DESTNODE=b:N SCRIPT=hang;\n"
        "SITNAME=Late DESTNODE=old:N SCRIPT=late;\n"
        "SITNAME=Quick DESTNODE=a:N SCRIPT=quick;\n");
  Action("slow", "trap '' TERM; echo $$ > slow.pid; exec sleep 30");  // lasts until SIGKILL
  Action("queued", "touch queued.ran");
  Action("hang", "echo started; echo $$ > hang.pid; exec sleep 30");
  Action("quick", "exit 5");
  Child a, b, host;
  StartAgent(a, "a", {"--dir", dir_.path(), "--max", "1", "a:N"});
  StartAgent(b, "b", {"--dir", dir_.path(), "b:N"});
  Client old;  // an agent of the previous version, which answers late
  ASSERT_TRUE(old.Connect(server_.Url()));
  natsSubscription* requests = old.Subscribe("qmta.node.old_3AN");
  // The module's 60-second wait becomes 2 seconds.
  StartHost(host, "* nats url=" + server_.Url() + Auth() + "\n", {"--clock-shift", "-58"});
  host.Send(Event("Slow"));
  ASSERT_TRUE(WaitUntil([&] { return !ReadFile(Path("slow.pid")).empty(); }, 5s));
  host.Send(Event("Queued") + Event("Hang") + Event("Late"));
  ASSERT_TRUE(WaitFor("b.err", "started"));
  b.Kill(SIGKILL);
  pid_t orphan = std::stoi(ReadFile(Path("hang.pid")));
  kill(-orphan, SIGKILL);
  std::string reply;
  ASSERT_NE(old.Next(requests, 5s, &reply), "");
  ASSERT_TRUE(WaitUntil([&] { return Matching("QMTA042E").size() == 4; }, 10s));
  old.Send(reply, "", "QMTA1 RC 4 0");
  // The host's cancel ends the slow program; the queued one is never
  // started, and the node takes actions again.
  pid_t slow = std::stoi(ReadFile(Path("slow.pid")));
  EXPECT_TRUE(WaitUntil([&] { return kill(slow, 0) == -1; }, 5s));
  host.Send(Event("Quick"));
  EXPECT_EQ(host.Finish(), 0);
  EXPECT_EQ(Matching("QMTA042E"),
            (Lines{"QMTA042E NO RESPONSE FROM DESTNODE=a:N FOR SITNAME=Queued ORIGINNODE=o STATE=1 ERRNO=0 REQUESTID=2",
                   "QMTA042E NO RESPONSE FROM DESTNODE=a:N FOR SITNAME=Slow ORIGINNODE=o STATE=1 ERRNO=0 REQUESTID=1",
                   "QMTA042E NO RESPONSE FROM DESTNODE=b:N FOR SITNAME=Hang ORIGINNODE=o STATE=1 ERRNO=0 REQUESTID=3",
                   "QMTA042E NO RESPONSE FROM DESTNODE=old:N FOR SITNAME=Late ORIGINNODE=o STATE=1 ERRNO=0 REQUESTID=4"}));
  EXPECT_EQ(Matching("QMTA050I"),
            Lines{"QMTA050I ACTION COMPLETED FOR SITNAME=Quick DESTNODE=a:N STATE=1 RC=5 REQUESTID=5"});
  EXPECT_TRUE(Contains(Path("a.err"), "qmtaagent: request 1 of \"a:N\" cancelled by the host; ending its program"));
  EXPECT_TRUE(Contains(Path("a.err"), "[1] request closed; ending the program"));
  EXPECT_TRUE(Contains(Path("a.err"), "qmtaagent: request 2 of \"a:N\" ")) << ReadFile(Path("a.err"));
  EXPECT_FALSE(std::filesystem::exists(Path("queued.ran")));
}

TEST_F(Remote, TheServerGoingAwayFailsOpenRequestsAndBothSidesComeBack) {
  ASSERT_TRUE(server_.Start(dir_.path()));
  Write("QMTASITR", "SITNAME=Run DESTNODE=a:N SCRIPT=run ARG1=a;\n");
  Action("run", "echo started $1; [ \"$1\" = wait ] && sleep 30; exit 3");
  Child agent, host;
  // The agent comes back well after the host.
  StartAgent(agent, "agent", {"--dir", dir_.path(), "--reconnect-wait", "2000", "a:N"});
  StartHost(host, "a:* nats url=" + server_.Url() + " reconnect-wait=50" + Auth() + "\n");
  host.Send(Event("Run", R"([["a", "now"]])"));
  ASSERT_TRUE(WaitUntil([&] { return Matching("QMTA050I").size() == 1; }, 5s));
  host.Send(Event("Run", R"([["a", "wait"]])"));
  ASSERT_TRUE(WaitFor("agent.err", "[2] started wait"));
  auto stopped = Clock::now();
  server_.Stop();
  // Reported at once, not after the module's 60-second wait; and so is an
  // action started while there is no connection, which is never sent later.
  ASSERT_TRUE(WaitUntil([&] { return Matching("QMTA030E").size() == 1; }, 5s));
  host.Send(Event("Run", R"([["a", "down"]])"));
  ASSERT_TRUE(WaitUntil([&] { return Matching("QMTA030E").size() == 2; }, 5s));
  EXPECT_LT(Clock::now() - stopped, 5s);
  ASSERT_TRUE(server_.Start(dir_.path()));
  ASSERT_TRUE(WaitFor("host.err", "qmtahost: nats: connected again"));
  // No agent serves the node yet: the action is tried again once the
  // settle time after the reconnection has passed, and then runs.
  ASSERT_FALSE(Contains(Path("agent.err"), "qmtaagent: connected again"));
  host.Send(Event("Run", R"([["a", "again"]])"));
  EXPECT_EQ(host.Finish(), 0) << ReadFile(Path("host.err"));
  EXPECT_EQ(Matching("QMTA030E"), Lines(2, "QMTA030E SELECT SQL ERROR ON ASYNCH OPEN COMPLETE STATUS=2020"));
  EXPECT_EQ(Matching("QMTA050I"),
            (Lines{"QMTA050I ACTION COMPLETED FOR SITNAME=Run DESTNODE=a:N STATE=1 RC=3 REQUESTID=1",
                   "QMTA050I ACTION COMPLETED FOR SITNAME=Run DESTNODE=a:N STATE=1 RC=3 REQUESTID=4"}));
  EXPECT_TRUE(Contains(Path("agent.err"), "qmtaagent: lost the connection to the server; reconnecting"));
  EXPECT_FALSE(Contains(Path("agent.err"), "started down"));
  // The action that the lost connection failed was still running: the host
  // cancelled it once the agent was back.
  EXPECT_TRUE(WaitFor("agent.err", "request 2 of \"a:N\" cancelled by the host; ending its program"));
}

TEST_F(Remote, AgentStopsOnSigtermEndingItsPrograms) {
  ASSERT_TRUE(server_.Start(dir_.path()));
  Write("QMTASITR", "SITNAME=Hang DESTNODE=a:N SCRIPT=hang;\n");
  Action("hang", "echo $$ > hang.pid; echo started; exec sleep 30");
  Child agent, host;
  StartAgent(agent, "agent", {"--dir", dir_.path(), "a:N"});
  StartHost(host, "* nats url=" + server_.Url() + Auth() + "\n");
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

TEST_F(Remote, AnAgentsQueueIsBoundedAndNeverStartsARequestWhoseTimeRanOut) {
  ASSERT_TRUE(server_.Start(dir_.path()));
  Action("hold", "sleep 1.5; exit 7");
  Action("mark", "touch ran.$QMTA_REQUESTID");
  Child agent;
  StartAgent(agent, "agent", {"--dir", dir_.path(), "--max", "1", "--queue", "2", "q:N"});
  auto peakKb = [&] {  // the agent's peak resident memory
    std::string status = ReadFile("/proc/" + std::to_string(agent.pid()) + "/status");
    size_t at = status.find("VmHWM:");
    return at == std::string::npos ? -1L : std::stol(status.substr(at + 6));
  };
  const long before = peakKb();
  Client host;  // sends requests as the nats driver does, or as its previous version
  ASSERT_TRUE(host.Connect(server_.Url()));
  natsSubscription* replies = host.Subscribe("reply.>");
  // 1 runs; 2, with 300 ms left, and 3, without a time left (a host of the
  // previous version), wait; beyond them a flood of 30 KB requests is
  // answered at once, and takes no memory.
  const std::string node = "qmta.node.q_3AN";
  host.Send(node, "reply.1", RequestText(1, "q:N", "hold"), "20000");
  host.Send(node, "reply.2", RequestText(2, "q:N", "mark"), "300");
  host.Send(node, "reply.3", RequestText(3, "q:N", "mark"));
  const int kFlood = 3000;
  const std::string big = "mark " + std::string(30000, 'x');
  for (int id = 4; id < 4 + kFlood; ++id)
    host.Send(node, "reply." + std::to_string(id), RequestText(id, "q:N", big), "20000");
  host.Flush();
  std::multiset<std::string> got, expected = {"QMTA1 RC 1 7", "QMTA1 RC 3 0"};
  for (int id = 4; id < 4 + kFlood; ++id) expected.insert("QMTA1 STATUS " + std::to_string(id) + " 2021");
  for (std::string answer; got.size() < expected.size() && !(answer = host.Next(replies, 5s)).empty();)
    got.insert(answer);
  EXPECT_TRUE(got == expected) << got.size() << " answers";
  EXPECT_EQ(host.Next(replies, 300ms), "");  // none for 2
  // The sanitizers' allocators keep freed memory back (AddressSanitizer's
  // quarantine, ThreadSanitizer's delayed reuse), so the bound on the
  // agent's memory is checked in the plain build only.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  constexpr bool kMemoryMeasured = false;
#else
  constexpr bool kMemoryMeasured = true;
#endif
  if (kMemoryMeasured) {
    EXPECT_LT(peakKb() - before, 16 * 1024) << before << " kB before, " << peakKb() << " kB at most";
  }
  EXPECT_FALSE(std::filesystem::exists(Path("ran.2")));
  EXPECT_TRUE(std::filesystem::exists(Path("ran.3")));
  for (const std::string text :
       {"qmtaagent: node \"q:N\": 2 request(s) wait already; answering further ones with status 2021",
        "qmtaagent: request 2 of \"q:N\" not started: its time ran out while it waited",
        "qmtaagent: node \"q:N\": room in the queue again; 3000 request(s) were answered with status 2021"})
    EXPECT_TRUE(Contains(Path("agent.err"), text)) << text;
}

TEST_F(Remote, CredentialsAndPermissionsDecideWhoServesANode) {
  ASSERT_TRUE(server_.Start(
      dir_.path(),
      "authorization {\n  users = [\n"
      "    {user: host, password: hostpw, permissions: {publish: \"qmta.node.>\", subscribe: \"_INBOX.>\"}}\n"
      "    {user: agenta, password: agentpw, permissions: {subscribe: [\"qmta.node.a_3AN\", "
      "\"qmta.node.a_3AN.cancel\"], publish: {deny: \">\"}, allow_responses: true}}\n"
      "  ]\n}\n"));
  Write("QMTASITR",
        "SITNAME=Own DESTNODE=a:N SCRIPT=code;\n"
        "SITNAME=Other DESTNODE=b:N SCRIPT=code;\n");
  Action("code", "exit 4");
  Write("agent.pw", "agentpw\n", 0600);
  Write("host.pw", "hostpw\n", 0600);
  Write("wrong.pw", "nope\n", 0600);
  creds_.clear();
  auto as = [&](const std::string& password, std::vector<std::string> more) {
    more.insert(more.begin(), {"--user", "agenta", "--password-file", Path(password)});
    return more;
  };
  Child agent, host;
  StartAgent(agent, "agent", as("agent.pw", {"a:N"}));
  // What the agent says and its exit status: a check, an agent the server
  // refuses a node (it never says it serves it), a wrong password, and no
  // credentials (refused unless --insecure; the server then refuses it).
  const std::tuple<std::vector<std::string>, int, std::string> cases[] = {
      {as("agent.pw", {"--check", "a:N"}), 0, "qmtaagent: check: may serve node \"a:N\" on qmta.node.a_3AN\n"},
      {as("agent.pw", {"a:N", "b:N"}), 3, "Permissions Violation for Subscription to \"qmta.node.b_3AN"},
      {as("agent.pw", {"--check", "b:N"}), 3, "Permissions Violation for Subscription to \"qmta.node.b_3AN"},
      {as("wrong.pw", {"--check", "a:N"}), 1, "Authentication Violation"},
      {{"a:N"}, 2, "qmtaagent: no client credentials"},
      {{"--insecure", "--check", "a:N"}, 1, "Authentication Violation"}};
  for (const auto& [args, status, text] : cases) {
    Child one;
    ASSERT_TRUE(one.Spawn(AgentWords(args), Path("one.out"), Path("one.err")));
    EXPECT_EQ(one.Finish(10s), status) << ReadFile(Path("one.err"));
    EXPECT_TRUE(Contains(Path("one.err"), text)) << ReadFile(Path("one.err"));
    if (status) {
      EXPECT_FALSE(Contains(Path("one.err"), "serving")) << ReadFile(Path("one.err"));
    }
  }
  // A host line without credentials is refused too, unless it says insecure.
  Child bare;
  Write("nodes", "* nats url=" + server_.Url() + "\n");
  ASSERT_TRUE(bare.Spawn({QMTAHOST_PATH, "--dir", dir_.path(), "--nodes", Path("nodes")}, Path("bare.out"),
                         Path("bare.err")));
  EXPECT_EQ(bare.Finish(), 2) << ReadFile(Path("bare.err"));
  EXPECT_TRUE(Contains(Path("bare.err"), "nodes: line 1: nats: no client credentials"));

  StartHost(host, "* nats url=" + server_.Url() + " user=host password-file=" + Path("host.pw") + "\n");
  host.Send(Event("Own") + "{\"drain\": true}\n" + Event("Other"));
  EXPECT_EQ(host.Finish(), 0);
  EXPECT_EQ(Matching("QMTA050I"),
            Lines{"QMTA050I ACTION COMPLETED FOR SITNAME=Own DESTNODE=a:N STATE=1 RC=4 REQUESTID=1"});
  EXPECT_EQ(Matching("QMTA030E"), Lines{"QMTA030E SELECT SQL ERROR ON ASYNCH OPEN COMPLETE STATUS=2020"});
}

TEST_F(Remote, TlsCarriesActionsBetweenClientsThatTrustEachOther) {
  if (ProgramIn("openssl").empty()) GTEST_SKIP() << "openssl is not installed (tools/setup installs it)";
  Write("tls.cnf",
        "[req]\ndistinguished_name = dn\nprompt = no\n[dn]\n"
        "[ca]\nbasicConstraints = critical,CA:TRUE\nkeyUsage = critical,keyCertSign\n"
        "[server]\nbasicConstraints = CA:FALSE\nsubjectAltName = IP:127.0.0.1\n"
        "extendedKeyUsage = serverAuth\n"
        "[client]\nbasicConstraints = CA:FALSE\nextendedKeyUsage = clientAuth\n");
  MakeCertificate("ca", "", "ca");
  MakeCertificate("other", "", "ca");
  MakeCertificate("server", "ca", "server");
  MakeCertificate("client", "ca", "client");
  MakeCertificate("stranger", "other", "client");
  if (HasFatalFailure()) return;
  creds_.clear();  // the client certificates are the credentials
  server_.RequireTls();
  ASSERT_TRUE(server_.Start(dir_.path(), "tls {\n  cert_file: \"" + Path("server.pem") + "\"\n  key_file: \"" +
                                             Path("server.key") + "\"\n  ca_file: \"" + Path("ca.pem") +
                                             "\"\n  verify: true\n}\n"));
  Write("QMTASITR",
        "SITNAME=Run DESTNODE=a:N SCRIPT=code;\n"
        "SITNAME=NoAgent DESTNODE=b:N SCRIPT=code;\n"
        "SITNAME=Distrust DESTNODE=x:N SCRIPT=code;\n"
        "SITNAME=Anonymous DESTNODE=y:N SCRIPT=code;\n");
  Action("code", "echo \"ran $QMTA_NODE\"; exit 6");
  auto client = [&](const std::string& ca, const std::string& cert) {
    std::vector<std::string> words = {"--tls-ca", Path(ca + ".pem")};
    if (cert.empty())
      words.push_back("--insecure");  // no credentials at all
    else
      words.insert(words.end(), {"--tls-cert", Path(cert + ".pem"), "--tls-key", Path(cert + ".key")});
    return words;
  };
  Child good, host;
  StartAgent(good, "good", client("ca", "client"), {"a:N", "x:N", "y:N"});
  ASSERT_TRUE(WaitFor("good.err", "qmtaagent: connected")) << ReadFile(Path("good.err"));
  // The server turns away an agent without a client certificate, or with
  // one of another CA; the client library gives the connection up, and the
  // agent ends with status 1.
  const std::pair<const char*, std::vector<std::string>> refused[] = {
      {"nocert", client("ca", "")}, {"stranger", client("ca", "stranger")}};
  for (const auto& [name, tls] : refused) {
    Child agent;
    ASSERT_TRUE(agent.Spawn(AgentWords(tls, {"b:N"}), Path(std::string(name) + ".out"), Path(std::string(name) + ".err")));
    EXPECT_EQ(agent.Finish(5s), 1) << name;
    EXPECT_FALSE(Contains(Path(std::string(name) + ".err"), "qmtaagent: connected")) << name;
  }
  // Nor does a host line get through that does not trust the server's CA,
  // or shows no client certificate: its nodes are offline.
  auto line = [&](const std::string& pattern, const std::string& ca, const std::string& cert) {
    std::string text = pattern + " nats url=" + server_.Url() + " tls-ca=" + Path(ca + ".pem");
    text += cert.empty() ? " insecure" : " tls-cert=" + Path(cert + ".pem") + " tls-key=" + Path(cert + ".key");
    return text + "\n";
  };
  StartHost(host, line("x:*", "other", "client") + line("y:*", "ca", "") + line("*", "ca", "client"));
  // The actions start once both lines have been given up.
  EXPECT_TRUE(WaitUntil([&] { return CountIn("host.err", "qmtahost: nats: the client library closed") == 2; }, 5s))
      << ReadFile(Path("host.err"));
  host.Send(Event("Run") + Event("NoAgent") + Event("Distrust") + Event("Anonymous"));
  EXPECT_EQ(host.Finish(), 0) << ReadFile(Path("host.err"));
  EXPECT_EQ(Matching("QMTA050I"),
            Lines{"QMTA050I ACTION COMPLETED FOR SITNAME=Run DESTNODE=a:N STATE=1 RC=6 REQUESTID=1"});
  EXPECT_EQ(Matching("QMTA030E"), Lines(3, "QMTA030E SELECT SQL ERROR ON ASYNCH OPEN COMPLETE STATUS=2020"));
  for (const char* subject : {"qmta.node.x_3AN", "qmta.node.y_3AN"})
    EXPECT_TRUE(Contains(Path("host.err"), std::string("cannot send to ") + subject)) << subject;
  EXPECT_TRUE(Contains(Path("good.err"), "[1] ran a:N"));
  EXPECT_EQ(CountIn("good.err", "] ran "), 1);
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
      {{"--url", "nats://127.0.0.1:1", "--actions", "/", "--insecure", "--timeout", "0", "a"}, 2,
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

TEST(NatsWire, SubjectsAreDistinctValidAndReversible) {
  const std::string names[] = {"web1:LZ", "web1_3ALZ", "web1.LZ", "web1*LZ", "web1>LZ",
                               "web1 LZ", "web1\tLZ", "", "_", "a_", "-", std::string("\xff\x01", 2),
                               "SYS1:MVS_ACTIONS"};
  std::set<std::string> subjects;
  for (const std::string& name : names) {
    std::string subject = wire::NodeSubject(name);
    EXPECT_TRUE(subjects.insert(subject).second) << subject;
    // One token after the prefix, of characters every subject token may hold.
    std::string token = subject.substr(wire::kSubjectPrefix.size());
    EXPECT_FALSE(token.empty());
    EXPECT_EQ(token.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-"),
              std::string::npos) << subject;
    std::string back;
    EXPECT_TRUE(wire::SubjectNode(subject, &back)) << subject;
    EXPECT_EQ(back, name);
  }
  EXPECT_EQ(wire::NodeSubject("web1:LZ"), "qmta.node.web1_3ALZ");
  std::string node;
  for (const char* bad : {"qmta.node.", "qmta.node.a_3", "qmta.node._61", "qmta.node.a_zz",
                          "qmta.node.a.b", "other.web1"})
    EXPECT_FALSE(wire::SubjectNode(bad, &node)) << bad;
}

TEST(NatsWire, RequestsCarryAnyBytesAndRejectAnythingElse) {
  wire::Request request{4294967295u, -7, "n:1 \"x\"\n", std::string("job \"$(a)\"\n\xfe;`b`")};
  std::string data = wire::EncodeRequest(request);
  wire::Request back;
  std::string error;
  ASSERT_TRUE(wire::DecodeRequest(data, &back, &error)) << error;
  EXPECT_EQ(std::tie(back.id, back.callType, back.node, back.command),
            std::tie(request.id, request.callType, request.node, request.command));

  const std::string bad[] = {
      "", "QMTA1 REQ 1 0 1 1\nab\n",  // longer than its header says
      "QMTA1 REQ 1 0 1 2\nab",        // shorter
      "QMTA1 REQ 1 0 1 1 \nab", "QMTA1 REQ -1 0 1 1\nab", "QMTA1 REQ 1 0 +1 1\nab",
      "QMTA1 REQ 4294967296 0 1 1\nab", "QMTA2 REQ 1 0 1 1\nab", "QMTA1 RC 1 0 1 1\nab",
      "QMTA1 REQ 1 0 2000 0\n" + std::string(2000, 'n'), std::string("QMTA1 REQ 1 0 1 1\na\0", 20)};
  for (const std::string& text : bad) EXPECT_FALSE(wire::DecodeRequest(text, &back, &error)) << text;
}

TEST(NatsWire, RepliesCarryCodesOrAStatus) {
  wire::Reply rows{9, false, 0, {0, -1, 2147483647}}, none{10, false, 0, {}}, failed{11, true, 2020, {}};
  for (const wire::Reply& reply : {rows, none, failed}) {
    wire::Reply back;
    std::string error;
    ASSERT_TRUE(wire::DecodeReply(wire::EncodeReply(reply), &back, &error)) << error;
    EXPECT_EQ(std::tie(back.id, back.failed, back.status, back.codes),
              std::tie(reply.id, reply.failed, reply.status, reply.codes));
  }
  EXPECT_EQ(wire::EncodeReply(rows), "QMTA1 RC 9 0 -1 2147483647");
  wire::Reply back;
  std::string error;
  for (const char* text : {"QMTA1 RC", "QMTA1 RC 1 2147483648", "QMTA1 RC 1  2", "QMTA1 RC 1 2 ",
                           "QMTA1 STATUS 1", "QMTA1 STATUS 1 2 3", "QMTA1 OK 1", "qmta1 RC 1",
                           "QMTA1 RC 1 0\n", "QMTA1 RC 1 0\nQMTA1 OUTPUT 0 0 0 3\nab",
                           "QMTA1 RC 1 0\nQMTA1 OUTPUT 0 0 2 0\n", "QMTA1 RC 1 0\nQMTA1 OUTPUT 0 0 0\n"})
    EXPECT_FALSE(wire::DecodeReply(text, &back, &error)) << text;
  // Version 3: the program's end after the line, cut to the bound.
  wire::Reply detailed = rows;
  detailed.hasDetail = true;
  detailed.signal = 9;
  detailed.output = std::string(wire::kOutputMax, 'x') + "\nmore";
  ASSERT_TRUE(wire::DecodeReply(wire::EncodeReply(detailed), &back, &error)) << error;
  EXPECT_EQ(std::tie(back.codes, back.exitStatus, back.signal, back.outputCut),
            std::tie(rows.codes, detailed.exitStatus, detailed.signal, detailed.hasDetail));
  EXPECT_EQ(back.output, detailed.output.substr(0, wire::kOutputMax));
}

TEST(NatsWire, CancelsAndTimesLeftAreReadStrictly) {
  EXPECT_EQ(wire::CancelSubject("web1:LZ"), "qmta.node.web1_3ALZ.cancel");
  std::string node;
  EXPECT_FALSE(wire::SubjectNode(wire::CancelSubject("web1:LZ"), &node));  // never a node's subject
  wire::Cancel cancel{4294967295u, "_INBOX.abc.12"}, back;
  std::string error;
  ASSERT_TRUE(wire::DecodeCancel(wire::EncodeCancel(cancel), &back, &error)) << error;
  EXPECT_EQ(std::tie(back.id, back.reply), std::tie(cancel.id, cancel.reply));
  for (const std::string& text : std::vector<std::string>{"QMTA1 CANCEL 1", "QMTA1 CANCEL 1 a b",
                                                          "QMTA1 CANCEL -1 a", "QMTA1 CANCEL 1 a\n",
                                                          "QMTA1 CANCEL 1 " + std::string(256, 'a')})
    EXPECT_FALSE(wire::DecodeCancel(text, &back, &error)) << text;
  int64_t ms = -1;
  EXPECT_TRUE(wire::DecodeTimeLeft("0", &ms) && ms == 0);
  EXPECT_TRUE(wire::DecodeTimeLeft("86400000", &ms) && ms == 86400000);
  for (const char* text : {"", "-1", "86400001", "1.5", " 1", "1s"})
    EXPECT_FALSE(wire::DecodeTimeLeft(text, &ms)) << text;
}

}  // namespace
