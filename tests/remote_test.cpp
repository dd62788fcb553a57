// Remote nodes: their wire format, and end to end a NATS server of the
// test's own on 127.0.0.1, qmtaagent processes serving nodes, and qmtahost
// sending them actions through the nats driver.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>

#include <gtest/gtest.h>

#include "host/drivers/nats/wire.h"
#include "tests/support/support.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Lines = std::vector<std::string>;
using qmtatest::Child;
using qmtatest::ReadFile;
using qmtatest::WaitUntil;
namespace wire = qmta::host::wire;

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

// Over TLS with passwords: a server that asks every client for a
// certificate of its CA and a password; a host line that does not trust
// the server gets nowhere. The server going away fails the open requests at
// once, and both sides come back with it.
TEST_F(Remote, ActionsRunOnTheAgentsOfTheirNodesOverTlsAndAfterTheServerCameBack) {
  if (ProgramIn("openssl").empty()) GTEST_SKIP() << "openssl is not installed (tools/setup installs it)";
  Write("tls.cnf", "[req]\ndistinguished_name = dn\nprompt = no\n[dn]\n[ca]\nbasicConstraints = critical,CA:TRUE\n"
                   "keyUsage = critical,keyCertSign\n[server]\nbasicConstraints = CA:FALSE\nsubjectAltName = IP:127.0.0.1\n"
                   "extendedKeyUsage = serverAuth\n[client]\nbasicConstraints = CA:FALSE\nextendedKeyUsage = clientAuth\n");
  // NAME.pem and NAME.key: self-signed CAs, the others signed by "ca".
  for (const std::string name : {"ca", "other", "server", "client"}) {
    std::vector<std::string> words = {ProgramIn("openssl"), "req", "-x509", "-config", Path("tls.cnf"), "-newkey", "ec",
                                      "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2", "-subj",
                                      "/CN=" + name, "-extensions", name == "other" ? "ca" : name, "-keyout",
                                      Path(name + ".key"), "-out", Path(name + ".pem")};
    if (name == "server" || name == "client") words.insert(words.end(), {"-CA", Path("ca.pem"), "-CAkey", Path("ca.key")});
    Child openssl;
    ASSERT_TRUE(openssl.Spawn(words, Path("openssl.out"), Path("openssl.err")));
    ASSERT_EQ(openssl.Finish(10s), 0) << ReadFile(Path("openssl.err"));
  }
  const std::string config = "tls {\n  cert_file: \"" + Path("server.pem") + "\"\n  key_file: \"" + Path("server.key") +
                             "\"\n  ca_file: \"" + Path("ca.pem") + "\"\n  verify: true\n}\nauthorization {\n  users = [\n"
                             "    {user: host, password: hostpw}\n    {user: agent, password: agentpw}\n  ]\n}\n";
  ASSERT_TRUE(server_.Start(dir_.path(), config));
  url_ = server_.Url("tls");
  Write("QMTASITR", "SITNAME=One DESTNODE=web1:LZ CALLTYPE=4 SCRIPT=args ARG1=a ARG2=b ARG3=c;\n"
                    "SITNAME=Two DESTNODE=db.2>x SCRIPT=code ARG1=a;\nSITNAME=Fail DESTNODE=web1:LZ SCRIPT=/bin/sh ARG1=a;\n"
                    "SITNAME=Gone DESTNODE=SYS1:MVS_ACTIONS SCRIPT=code;\nSITNAME=Lost DESTNODE=nowhere:N SCRIPT=code;\n"
                    "SITNAME=Distrust DESTNODE=x:N SCRIPT=code;\nSITNAME=Wait DESTNODE=web1:LZ SCRIPT=wait;\n");
  Action("args", "printf '%s\\0' \"$@\" > argv.$QMTA_REQUESTID\necho \"$QMTA_REQUESTID $QMTA_CALLTYPE $QMTA_NODE $PATH\"");
  Action("code", "echo \"node $QMTA_NODE\"; exit $1");
  Action("wait", "echo waiting; sleep 2; exit 3");
  Write("agent.pw", "agentpw\n", 0600);
  Write("host.pw", "hostpw\n", 0600);
  const std::vector<std::string> tls = {"--tls-ca", Path("ca.pem"), "--tls-cert", Path("client.pem"), "--tls-key",
                                        Path("client.key"), "--user", "agent", "--password-file", Path("agent.pw")};
  auto agentArgs = [&](std::vector<std::string> nodes) {
    nodes.insert(nodes.begin(), tls.begin(), tls.end());
    return nodes;
  };
  Child one, two, host;
  StartAgent(one, "one", agentArgs({"web1:LZ", "x:N"}));
  // The second agent serves a node whose name looks like the first one's
  // subject: each request goes to its own node only.
  StartAgent(two, "two", agentArgs({"db.2>x", "db_2E2_3Ex"}));
  const std::string client = " tls-cert=" + Path("client.pem") + " tls-key=" + Path("client.key") +
                             " user=host password-file=" + Path("host.pw") + " reconnect-wait=50\n";
  StartHost(host, "x:* nats url=" + url_ + " tls-ca=" + Path("other.pem") + client + "* nats url=" + url_ +
                      " tls-ca=" + Path("ca.pem") + client);
  ASSERT_TRUE(WaitFor("host.err", "qmtahost: nats: the client library closed")) << ReadFile(Path("host.err"));
  host.Send(Event("One", R"j([["a", "$(touch x)"], ["b", "`touch y`; touch z"], ["c", "a\"b c"]])j") +
            Event("Two", R"([["a", "7"]])") + Event("Fail", R"([["a", "touch x"]])") + Event("Gone") + Event("Lost") +
            Event("Distrust") + Event("Wait"));
  ASSERT_TRUE(WaitFor("one.err", "[7] waiting") &&
              WaitUntil([&] { return Matching("QMTA050I").size() == 3 && Matching("QMTA030E").size() == 2; }, 5s));
  auto stopped = Clock::now();
  server_.Stop();
  // Reported at once, not after the module's 60-second wait.
  ASSERT_TRUE(WaitUntil([&] { return Matching("QMTA030E").size() == 3; }, 5s)) << ReadFile(Path("host.out"));
  EXPECT_LT(Clock::now() - stopped, 5s);
  ASSERT_TRUE(server_.Start(dir_.path()));
  ASSERT_TRUE(WaitFor("one.err", "qmtaagent: connected again") && WaitFor("host.err", "qmtahost: nats: connected again"));
  host.Send(Event("Two", R"([["a", "8"]])"));
  EXPECT_EQ(host.Finish(), 0);
  EXPECT_EQ(Matching("QMTA050I"), (Lines{Done("Fail", "web1:LZ", 127, 3), Done("One", "web1:LZ", 0, 1),
                                         Done("Two", "db.2>x", 7, 2), Done("Two", "db.2>x", 8, 8)}));
  EXPECT_EQ(Matching("QMTA051W"),
            Lines{"QMTA051W DESTNODE=SYS1:MVS_ACTIONS OFFLINE FOR SITNAME=Gone ORIGINNODE=o STATE=1 REQUESTID=4"});
  EXPECT_EQ(Matching("QMTA030E"), Lines(3, kOffline));  // no agent, not trusted, server gone
  EXPECT_TRUE(Contains("host.err", "cannot send to qmta.node.x_3AN"));
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

// The messages and subjects between the host and its agents.
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
                           "QMTA1 STATUS 1", "QMTA1 STATUS 1 2 3", "QMTA1 OK 1", "qmta1 RC 1"})
    EXPECT_FALSE(wire::DecodeReply(text, &back, &error)) << text;
}

}  // namespace
