// Events through NATS JetStream end to end: a nats-server of the test's own
// with JetStream on 127.0.0.1, two `qmtahost serve` sharing one stream and
// consumer, events published with `qmtahost send`, one host killed with
// SIGKILL halfway.
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>
#include <nats/nats.h>

#include "tests/support/support.h"

namespace {

using namespace std::chrono_literals;

using qmtatest::FreePort;
using qmtatest::WaitUntil;
using qmtatest::ReadFile;

// A program started with standard input, output and error from and to files.
std::unique_ptr<qmtatest::Child> Start(std::vector<std::string> words, const std::string& in,
                                       const std::string& out, const std::string& err) {
  auto child = std::make_unique<qmtatest::Child>();
  EXPECT_TRUE(child->Spawn(words, out, err, in)) << words[0];
  return child;
}

// How often each sequence number appears in the QMTA041I lines of `path`
// (the rule's command is `job "SEQ"`).
void CountCommands(const std::string& path, std::map<int, int>* seen, int* lines) {
  std::istringstream text(ReadFile(path));
  const std::string prefix = "QMTA041I CMD=job \"";
  for (std::string line; std::getline(text, line);) {
    if (!line.starts_with(prefix) || !line.ends_with("\"")) continue;
    ++(*seen)[std::stoi(line.substr(prefix.size()))];
    ++*lines;
  }
}

// Event lines whose rule's command is `job "SEQ"`, SEQ from `first` on.
std::string Events(int first, int count) {
  std::string events;
  for (int i = first; i < first + count; ++i)
    events += R"({"sitname": "Js", "originnode": "o", "currstate": 1, "attributes": [["Seq", ")" +
              std::to_string(i) + "\"]]}\n";
  return events;
}

// A nats-server with JetStream of the test's own on 127.0.0.1, the rule
// file, and hosts that share the stream EVENTS and its consumer.
class JetStream : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string server = qmtatest::ProgramIn("nats-server");
    ASSERT_FALSE(server.empty()) << "nats-server is not installed (Debian nats-server; tools/setup installs it)";
    port = FreePort();
    url = "nats://127.0.0.1:" + std::to_string(port);
    scratch.Write("server.conf", "listen: 127.0.0.1:" + std::to_string(port) +
                                     "\njetstream { store_dir: \"" + dir + "/js\" }\n"
                                     "authorization { users = [ {user: qmta, password: pw} ] }\n");
    scratch.Write("password", "pw\n");
    scratch.Write("QMTASITR", "SITNAME=Js DESTNODE=sim:N SCRIPT=job ARG1=Seq;\n");
    nats = Start({server, "-c", dir + "/server.conf"}, "/dev/null", dir + "/nats.out", dir + "/nats.err");
  }
  // `qmtahost serve` taking events from the stream, once it says so.
  std::unique_ptr<qmtatest::Child> Host(const std::string& name, const std::string& ackWait,
                                        std::vector<std::string> more = {}) {
    std::vector<std::string> words = {
        QMTAHOST_PATH, "serve", "--control", dir + "/" + name + ".sock", "--dir", dir, "--nodes",
        dir + "/nodes", "--events-nats", url, "--events-stream", "EVENTS", "--events-subject",
        "qmta.events", "--events-user", "qmta", "--events-password-file", dir + "/password",
        "--events-ack-wait", ackWait};
    words.insert(words.end(), more.begin(), more.end());
    auto host = Start(words, "/dev/null", dir + "/" + name + ".out", dir + "/" + name + ".err");
    EXPECT_TRUE(WaitUntil([&] { return ReadFile(dir + "/" + name + ".err").find("taking events") !=
                                       std::string::npos; }, 20s))
        << ReadFile(dir + "/" + name + ".err") << ReadFile(dir + "/nats.err");
    return host;
  }
  // `qmtahost send` of the lines of file `events`.
  int Send(const std::string& events) {
    auto send = Start({QMTAHOST_PATH, "send", "--nats", url, "--user", "qmta", "--password-file",
                       dir + "/password", "-"},
                      dir + "/" + events, dir + "/send.out", dir + "/send.err");
    return send->Wait(40s);
  }

  qmtatest::ScratchDir scratch;
  const std::string dir = scratch.path();
  int port = 0;
  std::string url;
  std::unique_ptr<qmtatest::Child> nats;
};

// Events published once reach exactly one of two hosts that share the
// consumer; a host killed halfway leaves its unacknowledged events to the
// other, so every event is handled, and no more events are handled twice
// than the consumer's limit of unacknowledged events. Messages that are not
// events are refused once and never redelivered; `send` fails when no
// stream takes its subject.
TEST_F(JetStream, HostsShareAStreamAndAKilledHostsEventsGoToTheOther) {
  constexpr int kEvents = 10000, kMaxPending = 200;
  scratch.Write("nodes", "* sim rc=0\n");
  scratch.Write("events", Events(0, kEvents));
  auto a = Host("a", "2", {"--events-max-pending", std::to_string(kMaxPending)});
  auto b = Host("b", "2");
  if (HasFailure()) return;

  // Two messages that are not events, published without the checks of `send`.
  natsConnection* client = nullptr;
  ASSERT_EQ(natsConnection_ConnectTo(&client, ("nats://qmta:pw@127.0.0.1:" + std::to_string(port)).c_str()), NATS_OK);
  natsConnection_PublishString(client, "qmta.events", "REFRESH");
  natsConnection_PublishString(client, "qmta.events", "{\"sitname\": ");
  natsConnection_Flush(client);
  natsConnection_Destroy(client);

  ASSERT_TRUE(WaitUntil([&] { std::string said = ReadFile(dir + "/a.err") + ReadFile(dir + "/b.err");
                              return said.find("bad JSON") != std::string::npos &&
                                     said.find("not an event") != std::string::npos; }, 10s));
  // The events wait in the stream while the hosts are stopped, so that both
  // then work at full speed, each with a full window of unacknowledged
  // events when host a is killed.
  kill(a->pid(), SIGSTOP);
  kill(b->pid(), SIGSTOP);
  EXPECT_EQ(Send("events"), 0) << ReadFile(dir + "/send.err");
  const auto start = std::chrono::steady_clock::now();
  kill(a->pid(), SIGCONT);
  kill(b->pid(), SIGCONT);
  auto tally = [&](std::map<int, int>* seen, int* lines, bool withA = true) {
    if (withA) CountCommands(dir + "/a.out", seen, lines);
    CountCommands(dir + "/b.out", seen, lines);
  };
  ASSERT_TRUE(WaitUntil([&] { std::map<int, int> seen; int lines = 0; tally(&seen, &lines);
                              return lines >= kEvents / 2; }, 40s));
  a->Kill(SIGKILL);
  std::map<int, int> seen;
  int lines = 0;
  WaitUntil([&] { seen.clear(); lines = 0; tally(&seen, &lines);
                  return static_cast<int>(seen.size()) == kEvents; }, 40s);
  b->Kill(SIGTERM);
  EXPECT_EQ(b->Wait(20s), 0) << ReadFile(dir + "/b.err");
  seen.clear();
  lines = 0;
  tally(&seen, &lines);
  std::map<int, int> onA, onB;
  int linesA = 0, linesB = 0;
  CountCommands(dir + "/a.out", &onA, &linesA);
  CountCommands(dir + "/b.out", &onB, &linesB);
  const int duplicates = lines - static_cast<int>(seen.size());
  printf("JetStream: %d events in %.1f s, %d handled by host a before its SIGKILL, %d by host b; "
         "%d handled twice (limit %d)\n", kEvents,
         std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), linesA,
         linesB, duplicates, kMaxPending);
  EXPECT_EQ(static_cast<int>(seen.size()), kEvents) << ReadFile(dir + "/a.err") << ReadFile(dir + "/b.err");
  EXPECT_LE(duplicates, kMaxPending);
  EXPECT_GT(linesA, 0);
  EXPECT_GT(linesB, 0);

  // Each refused message was said once, by one host: terminated, never
  // redelivered (the ack wait passed many times meanwhile).
  const std::string said = ReadFile(dir + "/a.err") + ReadFile(dir + "/b.err");
  auto times = [&](const std::string& text) {
    size_t n = 0;
    for (size_t at = said.find(text); at != std::string::npos; at = said.find(text, at + 1)) ++n;
    return n;
  };
  EXPECT_EQ(times("refused: not an event"), 1u) << said;
  EXPECT_EQ(times("refused: bad JSON"), 1u) << said;

  auto lost = Start({QMTAHOST_PATH, "send", "--nats", url, "--subject", "nowhere", "--user", "qmta",
                     "--password-file", dir + "/password",
                     R"({"sitname": "Js", "originnode": "o", "currstate": 1})"},
                    "/dev/null", dir + "/lost.out", dir + "/lost.err");
  EXPECT_EQ(lost->Wait(20s), 1);
  EXPECT_NE(ReadFile(dir + "/lost.err").find("event 1 not acknowledged: no stream takes"),
            std::string::npos) << ReadFile(dir + "/lost.err");
}

// Events that a host holds back (one action at a time, each taking 2 s)
// outlast the ack wait of 1 s many times: the host tells the server that
// they are in progress, so none goes to the second host meanwhile.
TEST_F(JetStream, EventsAHostHoldsBackAreNotRedeliveredToAnother) {
  scratch.Write("nodes", "* sim rc=0 delay=2000\n");
  scratch.Write("events", Events(0, 3));
  auto a = Host("a", "1", {"--max-actions", "1"});
  if (HasFailure()) return;
  EXPECT_EQ(Send("events"), 0) << ReadFile(dir + "/send.err");
  ASSERT_TRUE(WaitUntil([&] { return ReadFile(dir + "/a.out").find("QMTA041I") != std::string::npos; }, 10s));
  auto b = Host("b", "1");
  std::map<int, int> onA, onB;
  int linesA = 0, linesB = 0;
  ASSERT_TRUE(WaitUntil([&] { onA.clear(); linesA = 0; CountCommands(dir + "/a.out", &onA, &linesA);
                              return linesA == 3; }, 20s)) << ReadFile(dir + "/a.err");
  for (auto* host : {&a, &b}) (*host)->Kill(SIGTERM);
  EXPECT_EQ(a->Wait(20s), 0);
  EXPECT_EQ(b->Wait(20s), 0);
  CountCommands(dir + "/b.out", &onB, &linesB);
  EXPECT_EQ(linesB, 0) << ReadFile(dir + "/b.out");
  EXPECT_EQ(onA, (std::map<int, int>{{0, 1}, {1, 1}, {2, 1}}));
}

}  // namespace
