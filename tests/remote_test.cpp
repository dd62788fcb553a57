// Remote nodes end to end: a NATS server of the test's own on 127.0.0.1,
// qmtaagent processes serving nodes, and qmtahost sending them actions
// through the nats driver.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "tests/support/support.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Lines = std::vector<std::string>;
using qmtatest::Child;
using qmtatest::ReadFile;
using qmtatest::WaitUntil;

std::string ProgramIn(const char* name) {
  for (const char* dir : {"/usr/sbin/", "/usr/bin/", "/usr/local/bin/"})
    if (access((std::string(dir) + name).c_str(), X_OK) == 0) return std::string(dir) + name;
  return "";
}

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
  bool Start(const std::string& dir, const std::string& extra = "") {
    if (port_ == 0) {
      int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
      sockaddr_in address = Loopback(0);
      socklen_t size = sizeof address;
      bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address);
      getsockname(probe, reinterpret_cast<sockaddr*>(&address), &size);
      port_ = ntohs(address.sin_port);
      close(probe);
      std::ofstream(dir + "/server.conf") << "listen: 127.0.0.1:" << port_ << "\n" << extra;
    }
    return process_.Spawn({ProgramIn("nats-server"), "-c", dir + "/server.conf"}, dir + "/server.out",
                          dir + "/server.err") &&
           WaitUntil([this] {
             int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
             sockaddr_in address = Loopback(port_);
             bool ok = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
             close(fd);
             return ok;
           }, 5s);
  }
  void Stop() { process_.Kill(SIGKILL); }
  std::string Url(const char* scheme = "nats") const { return scheme + ("://127.0.0.1:" + std::to_string(port_)); }

 private:
  int port_ = 0;
  Child process_;
};

class Remote : public ::testing::Test {
 protected:
  void SetUp() override {
    if (ProgramIn("nats-server").empty()) GTEST_SKIP() << "nats-server is not installed (tools/setup installs it)";
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
  std::vector<std::string> AgentWords(std::vector<std::string> args) const {
    args.insert(args.begin(), {QMTAAGENT_PATH, "--url", url_, "--actions", Path("actions"), "--reconnect-wait", "50"});
    return args;
  }
  // An agent with `args` (options, then nodes), started once it serves; its
  // standard error goes to NAME.err.
  void StartAgent(Child& agent, const std::string& name, const std::vector<std::string>& args) {
    ASSERT_TRUE(agent.Spawn(AgentWords(args), Path(name + ".out"), Path(name + ".err")));
    ASSERT_TRUE(WaitFor(name + ".err", "qmtaagent: serving node")) << ReadFile(Path(name + ".err"));
  }
  int CountIn(const std::string& name, const std::string& text) const {
    std::string content = ReadFile(Path(name));
    int count = 0;
    for (size_t at = content.find(text); at != std::string::npos; at = content.find(text, at + 1)) ++count;
    return count;
  }
  bool Contains(const std::string& name, const std::string& text) const { return CountIn(name, text) > 0; }
  bool WaitFor(const std::string& name, const std::string& text, std::chrono::milliseconds limit = 5s) {
    return WaitUntil([&] { return Contains(name, text); }, limit);
  }
  // qmtahost reading its input from a pipe (Child::Send).
  void StartHost(Child& host, const std::string& nodes, std::vector<std::string> args = {}) {
    Write("nodes", nodes);
    args.insert(args.begin(), {QMTAHOST_PATH, "--dir", dir_.path(), "--nodes", Path("nodes")});
    ASSERT_TRUE(host.Spawn(args, Path("host.out"), Path("host.err"), "", true));
  }
  Lines Matching(const std::string& prefix) const {
    Lines found;
    for (const auto& line : qmtatest::SplitLines(ReadFile(Path("host.out"))))
      if (line.starts_with(prefix)) found.push_back(line);
    std::sort(found.begin(), found.end());
    return found;
  }
  static std::string Event(const std::string& sit, const std::string& attributes = "[]") {
    return R"({"sitname": ")" + sit + R"(", "originnode": "o", "currstate": 1, "attributes": )" + attributes + "}\n";
  }
  static std::string Done(const std::string& sit, const std::string& dest, int rc, int id) {
    return "QMTA050I ACTION COMPLETED FOR SITNAME=" + sit + " DESTNODE=" + dest + " STATE=1 RC=" + std::to_string(rc) +
           " REQUESTID=" + std::to_string(id);
  }
  const std::string kOffline = "QMTA030E SELECT SQL ERROR ON ASYNCH OPEN COMPLETE STATUS=2020";

  qmtatest::ScratchDir dir_;
  Server server_;
  std::string url_;
};

TEST_F(Remote, ActionsRunOnTheAgentsOfTheirNodesOrFindNoneThere) {
  ASSERT_TRUE(server_.Start(dir_.path()));
  url_ = server_.Url();
  Write("QMTASITR", "SITNAME=One DESTNODE=web1:LZ CALLTYPE=4 SCRIPT=args ARG1=a ARG2=b ARG3=c;\n"
                    "SITNAME=Two DESTNODE=db.2>x SCRIPT=code ARG1=a;\nSITNAME=Fail DESTNODE=web1:LZ SCRIPT=/bin/sh ARG1=a;\n"
                    "SITNAME=Gone DESTNODE=SYS1:MVS_ACTIONS SCRIPT=code;\nSITNAME=Lost DESTNODE=nowhere:N SCRIPT=code;\n");
  Action("args", "printf '%s\\0' \"$@\" > argv.$QMTA_REQUESTID\necho \"$QMTA_REQUESTID $QMTA_CALLTYPE $QMTA_NODE $PATH\"");
  Action("code", "echo \"node $QMTA_NODE\"; exit $1");
  Child one, two, host;
  StartAgent(one, "one", {"--dir", dir_.path(), "web1:LZ"});
  // The second agent serves a node whose name looks like the first one's
  // subject: each request goes to its own node only.
  StartAgent(two, "two", {"--dir", dir_.path(), "db.2>x", "db_2E2_3Ex"});
  StartHost(host, "* nats url=" + url_ + "\n");
  host.Send(Event("One", R"j([["a", "$(touch x)"], ["b", "`touch y`; touch z"], ["c", "a\"b c"]])j") +
            Event("Two", R"([["a", "7"]])") + Event("Fail", R"([["a", "touch x"]])") + Event("Gone") + Event("Lost"));
  EXPECT_EQ(host.Finish(), 0);
  EXPECT_EQ(Matching("QMTA050I"),
            (Lines{Done("Fail", "web1:LZ", 127, 3), Done("One", "web1:LZ", 0, 1), Done("Two", "db.2>x", 7, 2)}));
  EXPECT_EQ(Matching("QMTA051W"),
            Lines{"QMTA051W DESTNODE=SYS1:MVS_ACTIONS OFFLINE FOR SITNAME=Gone ORIGINNODE=o STATE=1 REQUESTID=4"});
  EXPECT_EQ(Matching("QMTA030E"), Lines{kOffline});
  // The arguments arrive as plain text; nothing of them was run.
  EXPECT_EQ(ReadFile(Path("argv.1")), std::string("$(touch x)") + '\0' + "`touch y`; touch z" + '\0' + "a'b c" + '\0');
  for (const char* file : {"x", "y", "z"}) EXPECT_FALSE(std::filesystem::exists(Path(file))) << file;
  EXPECT_TRUE(Contains("one.err", "[1] 1 4 web1:LZ /usr/bin:/bin\n"));
  EXPECT_TRUE(Contains("one.err", "[3] refused program name \"/bin/sh\""));
  EXPECT_TRUE(Contains("two.err", "[2] node db.2>x\n"));
  EXPECT_FALSE(Contains("two.err", "refused a request"));
}

TEST_F(Remote, AgentsThatDieOrAnswerLateLeaveTheModuleToItsTimeOutAndSigtermStopsOne) {
  ASSERT_TRUE(server_.Start(dir_.path()));
  url_ = server_.Url();
  Write("QMTASITR", "SITNAME=Slow DESTNODE=a:N SCRIPT=slow;\nSITNAME=Hang DESTNODE=b:N SCRIPT=hang;\n"
                    "SITNAME=Quick DESTNODE=a:N SCRIPT=quick;\nSITNAME=Stop DESTNODE=c:N SCRIPT=hang;\n");
  Action("slow", "sleep 4");
  Action("hang", "echo $$ > hang.$QMTA_NODE; echo started; exec sleep 30");
  Action("quick", "exit 5");
  Child a, b, c, host;
  StartAgent(a, "a", {"--dir", dir_.path(), "a:N"});
  StartAgent(b, "b", {"--dir", dir_.path(), "b:N"});
  StartAgent(c, "c", {"--dir", dir_.path(), "c:N"});
  StartHost(host, "* nats url=" + url_ + "\n", {"--clock-shift", "-58"});  // the 60-second wait becomes 2
  auto begin = Clock::now();
  host.Send(Event("Slow") + Event("Hang"));
  ASSERT_TRUE(WaitFor("b.err", "[2] started"));
  b.Kill(SIGKILL);
  kill(-std::stoi(ReadFile(Path("hang.b:N"))), SIGKILL);  // its orphaned program
  ASSERT_TRUE(WaitUntil([&] { return Matching("QMTA042E").size() == 2; }, 10s));
  // The late reply of the slow action (after 4 s) finds its request closed.
  ASSERT_TRUE(WaitUntil([&] { return Clock::now() - begin > 4500ms; }, 6s));
  // An agent stopped by SIGTERM ends its programs, and the host hears at
  // once that the node went away.
  host.Send(Event("Quick") + Event("Stop"));
  ASSERT_TRUE(WaitFor("c.err", "[4] started"));
  pid_t program = std::stoi(ReadFile(Path("hang.c:N")));
  c.Kill(SIGTERM);
  EXPECT_EQ(c.Finish(10s), 0);
  EXPECT_EQ(kill(program, 0), -1);  // ended and reaped
  EXPECT_TRUE(Contains("c.err", "qmtaagent: stopping on SIGTERM"));
  EXPECT_EQ(host.Finish(), 0);
  EXPECT_EQ(Matching("QMTA042E"),
            (Lines{"QMTA042E NO RESPONSE FROM DESTNODE=a:N FOR SITNAME=Slow ORIGINNODE=o STATE=1 ERRNO=0 REQUESTID=1",
                   "QMTA042E NO RESPONSE FROM DESTNODE=b:N FOR SITNAME=Hang ORIGINNODE=o STATE=1 ERRNO=0 REQUESTID=2"}));
  EXPECT_EQ(Matching("QMTA050I"), Lines{Done("Quick", "a:N", 5, 3)});
  EXPECT_EQ(Matching("QMTA030E SELECT SQL ERROR ON ASYNCH"), Lines{kOffline});
  EXPECT_LT(Clock::now() - begin, 15s);
}

TEST_F(Remote, TheServerGoingAwayFailsOpenRequestsAndBothSidesComeBack) {
  ASSERT_TRUE(server_.Start(dir_.path()));
  url_ = server_.Url();
  Write("QMTASITR", "SITNAME=Run DESTNODE=a:N SCRIPT=run ARG1=a;\n");
  Action("run", "echo started $1; [ \"$1\" = wait ] && sleep 2; exit 3");
  Child agent, host;
  StartAgent(agent, "agent", {"--dir", dir_.path(), "a:N"});
  StartHost(host, "a:* nats url=" + url_ + " reconnect-wait=50\n");
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
  EXPECT_EQ(Matching("QMTA030E"), Lines{kOffline});
  EXPECT_EQ(Matching("QMTA050I"), (Lines{Done("Run", "a:N", 3, 1), Done("Run", "a:N", 3, 3)}));
  EXPECT_TRUE(Contains("agent.err", "qmtaagent: lost the connection to the server; reconnecting"));
}

// A server that asks every client for a certificate of its CA and for a
// password, and keeps the agent's user to the subject of its own node.
TEST_F(Remote, TlsAndCredentialsLetOnlyTrustedClientsThroughAndKeepAnAgentToItsNodes) {
  if (ProgramIn("openssl").empty()) GTEST_SKIP() << "openssl is not installed (tools/setup installs it)";
  Write("tls.cnf", "[req]\ndistinguished_name = dn\nprompt = no\n[dn]\n"
                   "[ca]\nbasicConstraints = critical,CA:TRUE\nkeyUsage = critical,keyCertSign\n"
                   "[server]\nbasicConstraints = CA:FALSE\nsubjectAltName = IP:127.0.0.1\nextendedKeyUsage = serverAuth\n"
                   "[client]\nbasicConstraints = CA:FALSE\nextendedKeyUsage = clientAuth\n");
  // NAME.pem and NAME.key with the extensions of `section`: self-signed
  // when `signer` is empty, else signed by that certificate.
  for (const auto& [name, signer, section] : std::vector<std::tuple<std::string, std::string, std::string>>{
           {"ca", "", "ca"}, {"other", "", "ca"}, {"server", "ca", "server"}, {"client", "ca", "client"},
           {"stranger", "other", "client"}}) {
    std::vector<std::string> words = {ProgramIn("openssl"), "req", "-x509", "-config", Path("tls.cnf"), "-newkey", "ec",
                                      "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2", "-subj",
                                      "/CN=" + name, "-extensions", section, "-keyout", Path(name + ".key"), "-out",
                                      Path(name + ".pem")};
    if (!signer.empty()) words.insert(words.end(), {"-CA", Path(signer + ".pem"), "-CAkey", Path(signer + ".key")});
    Child openssl;
    ASSERT_TRUE(openssl.Spawn(words, Path("openssl.out"), Path("openssl.err")));
    ASSERT_EQ(openssl.Finish(10s), 0) << qmtatest::ReadFile(Path("openssl.err"));
  }
  ASSERT_TRUE(server_.Start(dir_.path(), "tls {\n  cert_file: \"" + Path("server.pem") + "\"\n  key_file: \"" +
                                             Path("server.key") + "\"\n  ca_file: \"" + Path("ca.pem") +
                                             "\"\n  verify: true\n}\nauthorization {\n  users = [\n"
                                             "    {user: host, password: hostpw, permissions: {publish: \"qmta.node.>\", "
                                             "subscribe: \"_INBOX.>\"}}\n    {user: agenta, password: agentpw, permissions: "
                                             "{subscribe: \"qmta.node.a_3AN\", publish: {deny: \">\"}, allow_responses: true}}\n"
                                             "  ]\n}\n"));
  url_ = server_.Url("tls");
  Write("QMTASITR", "SITNAME=Run DESTNODE=a:N SCRIPT=code;\nSITNAME=Other DESTNODE=b:N SCRIPT=code;\n"
                    "SITNAME=Distrust DESTNODE=x:N SCRIPT=code;\n");
  Action("code", "echo \"ran $QMTA_NODE\"; exit 6");
  for (auto [name, password] : {std::pair{"agent", "agentpw"}, std::pair{"host", "hostpw"}, std::pair{"wrong", "nope"}})
    Write(std::string(name) + ".pw", std::string(password) + "\n", 0600);
  auto agent = [&](const std::string& cert, const std::string& password) {
    return AgentWords({"--tls-ca", Path("ca.pem"), "--tls-cert", Path(cert + ".pem"), "--tls-key", Path(cert + ".key"),
                       "--user", "agenta", "--password-file", Path(password + ".pw"), "a:N", "b:N"});
  };
  Child good, stranger, wrong, host;
  ASSERT_TRUE(good.Spawn(agent("client", "agent"), Path("good.out"), Path("good.err")));
  ASSERT_TRUE(WaitFor("good.err", "serving node \"a:N\"")) << qmtatest::ReadFile(Path("good.err"));
  EXPECT_TRUE(WaitFor("good.err", "Permissions Violation for Subscription to \"qmta.node.b_3AN\"")) << qmtatest::ReadFile(Path("good.err"));
  // A certificate of another CA: the client library gives up, the agent
  // ends with 1. A wrong password never gets a connection.
  ASSERT_TRUE(stranger.Spawn(agent("stranger", "agent"), Path("stranger.out"), Path("stranger.err")));
  EXPECT_EQ(stranger.Finish(5s), 1);
  ASSERT_TRUE(wrong.Spawn(agent("client", "wrong"), Path("wrong.out"), Path("wrong.err")));
  EXPECT_TRUE(WaitFor("wrong.err", "still trying")) << qmtatest::ReadFile(Path("wrong.err"));
  EXPECT_FALSE(Contains("wrong.err", "qmtaagent: connected") || Contains("stranger.err", "qmtaagent: connected"));
  // Nor does a host line get through that does not trust the server's CA.
  const std::string credentials = " user=host password-file=" + Path("host.pw") + " tls-cert=" + Path("client.pem") +
                                  " tls-key=" + Path("client.key") + "\n";
  StartHost(host, "x:* nats url=" + url_ + " tls-ca=" + Path("other.pem") + credentials + "* nats url=" + url_ +
                      " tls-ca=" + Path("ca.pem") + credentials);
  EXPECT_TRUE(WaitFor("host.err", "qmtahost: nats: the client library closed")) << qmtatest::ReadFile(Path("host.err"));
  host.Send(Event("Run") + "{\"drain\": true}\n" + Event("Other") + Event("Distrust"));
  EXPECT_EQ(host.Finish(), 0) << qmtatest::ReadFile(Path("host.err"));
  EXPECT_EQ(Matching("QMTA050I"), Lines{Done("Run", "a:N", 6, 1)});
  EXPECT_EQ(Matching("QMTA030E"), Lines(2, kOffline));
  EXPECT_TRUE(Contains("host.err", "cannot send to qmta.node.x_3AN"));
  EXPECT_EQ(CountIn("good.err", "] ran "), 1);
}

TEST(RemoteAgent, HelpAndUsageErrors) {
  const std::tuple<std::vector<std::string>, int, std::string> cases[] = {
      {{"--help"}, 0, "  --url URL"},
      {{"--url", "nats://127.0.0.1:1", "a"}, 2, "qmtaagent: --actions is required"},
      {{"--url", "nats://127.0.0.1:1", "--actions", "/"}, 2, "qmtaagent: name at least one node"},
      {{"--actions", "/", "a"}, 2, "qmtaagent: no url"},
      {{"--url", "nats://127.0.0.1:1", "--actions", "/", "--user", "u", "a"}, 2,
       "qmtaagent: user and password-file go together"},
      {{"--url", "nats://127.0.0.1:1", "--actions", "/", "--timeout", "0", "a"}, 2, "qmtaagent: local: bad timeout"},
      {{"--bogus"}, 2, "qmtaagent: unknown option \"--bogus\""}};
  qmtatest::ScratchDir dir;
  for (auto [args, status, text] : cases) {
    Child agent;
    args.insert(args.begin(), QMTAAGENT_PATH);
    ASSERT_TRUE(agent.Spawn(args, dir.path() + "/out", dir.path() + "/err"));
    EXPECT_EQ(agent.Finish(10s), status) << args[1];
    EXPECT_NE(ReadFile(dir.path() + (status ? "/err" : "/out")).find(text), std::string::npos) << text;
  }
}

}  // namespace
