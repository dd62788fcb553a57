// The HTTP endpoint of `qmtahost serve`, driven with curl: events taken or
// refused whole, commands, metrics after real actions, health and
// readiness, the bearer token, TLS, and the refusal of a public address
// without a token; and a real Alertmanager (Debian prometheus-alertmanager,
// alerts sent with its amtool) that notifies the host through its webhook
// (ctest runs that test alone, with the label e2e). Everything listens on
// and talks to loopback only.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "tests/support/support.h"

namespace {

using namespace std::chrono_literals;

using qmtatest::Child;
std::string Read(const std::string& path) { return qmtatest::ReadFile(path); }

// Runs `words` (a program on PATH or a path) to its end: its exit status, or
// -1 when a signal ended it or it was killed after `limit`.
int RunToEnd(const std::vector<std::string>& words, const std::string& out, const std::string& err,
        std::chrono::milliseconds limit) {
  Child child;
  EXPECT_TRUE(child.Spawn(words, out, err)) << words[0];
  return child.Finish(limit);
}

struct Reply {
  int code = 0;
  std::string body;
};

class Http : public ::testing::Test {
 protected:
  void TearDown() override {
    if (host_.pid() > 0) {
      host_.Kill(SIGTERM);
      EXPECT_EQ(host_.Finish(30s), 0) << Read("err");
    }
  }
  // Starts `qmtahost serve` on a free loopback port and reads the port
  // from what it says on standard error.
  void Start(std::vector<std::string> extra = {}) {
    std::vector<std::string> words = {QMTAHOST_PATH, "serve", "--control", dir_.path() + "/control",
                                      "--nodes", "nodes", "--listen", "127.0.0.1:0"};
    words.insert(words.end(), extra.begin(), extra.end());
    ASSERT_TRUE(host_.Spawn(words, "out", "err"));
    std::smatch found;
    for (int i = 0; i < 1000; ++i) {
      std::string said = Read("err");
      if (std::regex_search(said, found, std::regex("listening on (https?://127.0.0.1:[0-9]+)"))) {
        base_ = found[1];
        return;
      }
      std::this_thread::sleep_for(10ms);
    }
    FAIL() << "the host never listened: " << Read("err");
  }
  Reply Curl(const std::string& path, const std::string& body = "", bool post = false,
             std::vector<std::string> extra = {}) {
    std::vector<std::string> words = {"curl", "-s", "--max-time", "30", "-o", "body",
                                      "-w", "%{http_code}"};
    if (post || !body.empty()) {
      dir_.Write("request", body);
      words.insert(words.end(), {"--data-binary", "@request"});
    }
    words.insert(words.end(), extra.begin(), extra.end());
    words.push_back(base_ + path);
    EXPECT_EQ(RunToEnd(words, "code", "curl.err", 40s), 0) << Read("curl.err");
    return {atoi(Read("code").c_str()), Read("body")};
  }
  // The value of one sample of the metrics, -1 when it is missing.
  double Metric(const std::string& metrics, const std::string& sample) {
    std::istringstream lines(metrics);
    for (std::string line; std::getline(lines, line);)
      if (line.starts_with(sample + " ")) return std::stod(line.substr(sample.size() + 1));
    return -1;
  }

  qmtatest::ScratchDir dir_;
  Child host_;
  std::string base_;
};

// Events are taken or refused whole and reach the module; commands answer
// what ctl prints; the metrics count what happened, their stack figures
// agree with DISPLAY; readiness follows the table.
TEST_F(Http, EventsCommandsMetricsAndReadiness) {
  // S completes after a second, V with two rows; T is offline; E's offline
  // answer on the SNMP stack is an error (QMTA030E, no request id).
  dir_.Write("QMTASITR", "SITNAME=S DESTNODE=sim:N SCRIPT=job;\n"
                         "SITNAME=V DESTNODE=x:MVS_ACTIONS SCRIPT=job;\n"
                         "SITNAME=T DESTNODE=gone:MVS_ACTIONS SCRIPT=job;\n"
                         "SITNAME=E DESTNODE=gone:SNMP_TRAP SCRIPT=job;\n");
  dir_.Write("nodes", "sim:* sim rc=0 delay=1000\ngone:* offline\n*:MVS_ACTIONS sim rc=0,4\n");
  // One action at a time: while S runs, the next event is held back, and
  // with --http-busy-after 0 new events are answered 503 meanwhile.
  Start({"--max-actions", "1", "--http-busy-after", "0"});
  EXPECT_EQ(Curl("/healthz").code, 200);
  EXPECT_EQ(Curl("/readyz").code, 200);

  const std::string s = R"({"sitname": "S", "originnode": "n", "currstate": 1})";
  const std::string v = R"({"sitname": "V", "originnode": "n", "currstate": 1})";
  const std::string t = R"({"sitname": "T", "originnode": "n", "currstate": 1})";
  const std::string e = R"({"sitname": "E", "originnode": "n", "currstate": 1})";
  Reply refused = Curl("/v1/events", s + "\n" + R"({"sitname": "S", "originnode": "a\"b", "currstate": 1})" +
                                         "\nDISPLAY\n{\"sitname\": 1}\r\n");
  EXPECT_EQ(refused.code, 400);
  EXPECT_EQ(refused.body,
            R"({"error":"3 of 4 lines refused; nothing was taken","refused":[)"
            R"({"line":2,"reason":"\"originnode\" holds a double quote"},)"
            R"x({"line":3,"reason":"not an event (commands, drains and reloads go to POST /v1/commands)"},)x"
            R"({"line":4,"reason":"\"sitname\" must be a string"}]})" "\n");
  // Said on standard error too, as from any other source.
  EXPECT_NE(Read("err").find("qmtahost: http 2: \"originnode\" holds a double quote\n"), std::string::npos);
  Reply taken = Curl("/v1/events", s + "\r\n");
  EXPECT_EQ(taken.code, 202);
  EXPECT_EQ(taken.body, "{\"taken\":1}\n");
  auto until = [&](const std::string& sample) {
    for (int i = 0; i < 1000 && Metric(Curl("/metrics").body, sample) <= 0; ++i)
      std::this_thread::sleep_for(1ms);
  };
  until("qmta_actions_live");  // S runs: the next event is held back
  taken = Curl("/v1/events", "\n" + v + "\n" + t + "\n# E\n" + e);
  EXPECT_EQ(taken.body, "{\"taken\":3}\n");
  until("qmta_backpressure_held_seconds");
  Reply busy = Curl("/v1/events", s, true, {"-D", "headers"});
  EXPECT_EQ(busy.code, 503);
  EXPECT_NE(Read("headers").find("Retry-After: 5"), std::string::npos) << Read("headers");

  Reply drained = Curl("/v1/commands", "{\"drain\": true}\n");
  EXPECT_EQ(drained.code, 200);
  EXPECT_EQ(drained.body, R"({"error":"","ok":true,"output":["drained"]})" "\n");
  EXPECT_EQ(Curl("/v1/events", "", true).code, 400);
  EXPECT_EQ(Curl("/v1/commands", v).code, 400);  // events have their own path
  Reply display = Curl("/v1/commands", "DISPLAY");
  EXPECT_EQ(display.code, 200);
  std::smatch sizes;  // free/total of each stack
  ASSERT_TRUE(std::regex_search(display.body, sizes,
                                std::regex("VX=(\\d+)/(\\d+) RM=(\\d+)/(\\d+) SNMP=(\\d+)/(\\d+)")))
      << display.body;

  // A file that would drop an entry keeps the table (409); a good one loads.
  dir_.Write("QMTASITR", "SITNAME=S DESTNODE=sim:N STATE=maybe;\n");
  Reply kept = Curl("/v1/commands", R"({"reload": true})");
  EXPECT_EQ(kept.code, 409);
  EXPECT_NE(kept.body.find("would drop 1 entry"), std::string::npos) << kept.body;
  dir_.Write("QMTASITR", "SITNAME=S DESTNODE=sim:N SCRIPT=job;\nSITNAME=U DESTNODE=sim:N;\n");
  EXPECT_EQ(Curl("/v1/commands", R"({"reload": true})").code, 200);

  Reply metrics = Curl("/metrics");
  ASSERT_EQ(metrics.code, 200);
  const std::string& m = metrics.body;
  EXPECT_EQ(Metric(m, R"(qmta_events_taken_total{source="http"})"), 4);
  EXPECT_EQ(Metric(m, R"(qmta_events_refused_total{source="http",reason="text"})"), 1);
  EXPECT_EQ(Metric(m, R"(qmta_events_refused_total{source="http",reason="not_event"})"), 1);
  EXPECT_EQ(Metric(m, R"(qmta_events_refused_total{source="http",reason="field"})"), 1);
  EXPECT_EQ(Metric(m, R"(qmta_events_refused_total{source="http",reason="with_body"})"), 1);
  EXPECT_EQ(Metric(m, "qmta_events_delivered_total"), 4);
  EXPECT_EQ(Metric(m, "qmta_actions_started_total"), 4);
  // V's two rows (QMTA050I twice) are one outcome; E's error is not timed.
  EXPECT_EQ(Metric(m, R"(qmta_action_outcomes_total{outcome="completed"})"), 2);
  EXPECT_EQ(Metric(m, R"(qmta_action_outcomes_total{outcome="offline"})"), 1);
  EXPECT_EQ(Metric(m, R"(qmta_action_outcomes_total{outcome="error"})"), 1);
  EXPECT_EQ(Metric(m, R"(qmta_action_duration_seconds_bucket{le="+Inf"})"), 3);
  // Timed as the relay sees the messages: S takes a second, less what its
  // QMTA040I may lag on a loaded machine.
  EXPECT_LE(Metric(m, R"(qmta_action_duration_seconds_bucket{le="0.5"})"), 2);
  EXPECT_GE(Metric(m, "qmta_action_duration_seconds_sum"), 0.5);
  EXPECT_EQ(Metric(m, "qmta_actions_live"), 0);
  EXPECT_GE(Metric(m, "qmta_backpressure_events_total"), 1);
  EXPECT_GT(Metric(m, "qmta_backpressure_wait_seconds_total"), 0);
  EXPECT_EQ(Metric(m, R"(qmta_reloads_total{result="done"})"), 1);
  EXPECT_EQ(Metric(m, R"(qmta_reloads_total{result="refused"})"), 1);
  EXPECT_EQ(Metric(m, "qmta_rules_loaded"), 2);
  // The stacks as DISPLAY counted them, all requests resting.
  int index = 1;
  for (std::string stack : {"VX", "RM", "SNMP"}) {
    EXPECT_EQ(sizes[index].str(), sizes[index + 1].str()) << stack;
    EXPECT_EQ(Metric(m, "qmta_stack_requests{stack=\"" + stack + "\",state=\"resting\"}"),
              std::stoi(sizes[index].str())) << stack;
    EXPECT_EQ(Metric(m, "qmta_stack_requests{stack=\"" + stack + "\",state=\"busy\"}"), 0);
    index += 2;
  }
  EXPECT_EQ(Metric(m, R"(qmta_operator_messages_total{id="QMTA050I"})"), 3);
  EXPECT_EQ(Metric(m, R"(qmta_operator_messages_total{id="QMTA030E"})"), 1);
  EXPECT_GE(Metric(m, "qmta_stdout_wait_seconds_total"), 0);

  // A forced REFRESH of a missing file leaves no table: not ready.
  dir_.Remove("QMTASITR");
  EXPECT_EQ(Curl("/v1/commands", R"({"reload": true, "force": true})").code, 200);
  Reply unready = Curl("/readyz");
  EXPECT_EQ(unready.code, 503);
  EXPECT_EQ(unready.body, "not ready: no rule table is loaded\n");
  EXPECT_EQ(Metric(Curl("/metrics").body, "qmta_rules_loaded"), -1);  // not counted
  // The stop's summary counts the lines of the refused body.
  host_.Kill(SIGTERM);
  EXPECT_EQ(host_.Finish(30s), 0);
  EXPECT_NE(Read("err").find(" errors), 4 lines refused,"),
            std::string::npos) << Read("err");
}

// A token guards every path but /healthz; TLS through the library with a
// certificate made here; an address other than loopback is refused
// without a token, before anything listens.
TEST_F(Http, TokenTlsAndPublicAddresses) {
  if (access("/usr/bin/openssl", X_OK) != 0) GTEST_SKIP() << "openssl is missing (tools/setup)";
  dir_.Write("QMTASITR", "SITNAME=S DESTNODE=sim:N;\n");
  dir_.Write("nodes", "* sim rc=0\n");
  EXPECT_EQ(RunToEnd({QMTAHOST_PATH, "serve", "--control", "control", "--listen", "0.0.0.0:0"},
                "public.out", "public.err", 30s),
            2);
  EXPECT_NE(Read("public.err").find("is not a loopback address"), std::string::npos);

  dir_.Write("token", "s3cret-token\n");
  chmod("token", 0644);
  ASSERT_EQ(RunToEnd({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                 "-nodes", "-days", "2", "-subj", "/CN=qmta", "-addext", "subjectAltName=IP:127.0.0.1",
                 "-keyout", "key.pem", "-out", "cert.pem"},
                "openssl.out", "openssl.err", 30s),
            0)
      << Read("openssl.err");
  Start({"--token-file", "token", "--tls-cert", "cert.pem", "--tls-key", "key.pem"});
  EXPECT_TRUE(base_.starts_with("https://")) << base_;
  EXPECT_NE(Read("err").find("token is readable by others"), std::string::npos);
  const std::vector<std::string> tls = {"--cacert", "cert.pem"};
  auto with = [&](const std::string& token) {
    std::vector<std::string> words = tls;
    words.insert(words.end(), {"-H", "Authorization: Bearer " + token});
    return words;
  };
  EXPECT_EQ(Curl("/healthz", "", false, tls).code, 200);
  EXPECT_EQ(Curl("/readyz", "", false, tls).code, 401);
  EXPECT_EQ(Curl("/metrics", "", false, with("s3cret-tokeN")).code, 401);
  EXPECT_EQ(Curl("/v1/events", R"({"sitname": "S", "originnode": "n", "currstate": 1})", true,
                 tls).code,
            401);
  EXPECT_EQ(Curl("/readyz", "", false, with("s3cret-token")).code, 200);
  EXPECT_EQ(Curl("/v1/events", R"({"sitname": "S", "originnode": "n", "currstate": 1})", true,
                 with("s3cret-token")).code,
            202);
  // A browser session: a wrong token gets the form again; the right one a
  // cookie that reads (GET) but never posts, until the logout.
  EXPECT_EQ(Curl("/", "", false, tls).code, 401);
  EXPECT_EQ(Curl("/login", "token=s3cret-tokeN", true, tls).code, 401);
  std::vector<std::string> jar = tls;
  jar.insert(jar.end(), {"-c", "cookies", "-D", "headers"});
  EXPECT_EQ(Curl("/login", "token=s3cret%2Dtoken", true, jar).code, 303);
  EXPECT_TRUE(std::regex_search(Read("headers"), std::regex("Set-Cookie: qmta_session=[0-9a-f]{64}; "
                                                            "Path=/; HttpOnly; SameSite=Strict; Max-Age=43200; Secure")))
      << Read("headers");
  jar = tls;
  jar.insert(jar.end(), {"-b", "cookies"});
  EXPECT_EQ(Curl("/", "", false, jar).code, 200);
  EXPECT_EQ(Curl("/metrics", "", false, jar).code, 200);
  EXPECT_EQ(Curl("/v1/events", R"({"sitname": "S", "originnode": "n", "currstate": 1})", true, jar).code, 401);
  EXPECT_EQ(Curl("/logout", "", true, jar).code, 303);
  EXPECT_EQ(Curl("/metrics", "", false, jar).code, 401);
  // Plain HTTP gets no answer from the TLS port.
  base_.replace(0, 5, "http");
  std::vector<std::string> words = {"curl", "-s", "--max-time", "10", base_ + "/healthz"};
  EXPECT_NE(RunToEnd(words, "plain.out", "plain.err", 20s), 0);
}

size_t Count(const std::string& text, const std::string& pattern) {
  std::regex search(pattern);
  return static_cast<size_t>(std::distance(
      std::sregex_iterator(text.begin(), text.end(), search), std::sregex_iterator()));
}

// DiskFull fires; Other joins its group (a re-send of DiskFull); repeats
// follow every two seconds; DiskFull is resolved.
TEST_F(Http, AlertmanagerRunsAnActionForEachChangeOfStateNoneForResends) {
  dir_.Write("QMTASITR", "SITNAME=DiskFull STATE=ANY DESTNODE=ops:LOCAL SCRIPT=note\n"
                         "  ARG1=CURRSTATE ARG2=PRESTATE ARG3=THRESHOLD;\n");
  dir_.Write("nodes", "* local\n");
  mkdir("actions", 0755);
  dir_.Write("actions/note", "#!/bin/sh\necho \"note: $*\"\n");
  chmod("actions/note", 0755);
  Start({"--alert-threshold-annotation", "summary"});
  dir_.Write("am.yml", "route: {receiver: qmta, group_wait: 1s, group_interval: 1s, "
                       "repeat_interval: 2s}\nreceivers:\n- name: qmta\n  webhook_configs:\n"
                       "  - {url: '" + base_ + "/v1/alertmanager', send_resolved: true}\n");
  qmtatest::Child alertmanager;
  ASSERT_TRUE(alertmanager.Spawn({"prometheus-alertmanager", "--config.file=am.yml",
                                  "--storage.path=am", "--web.listen-address=127.0.0.1:0",
                                  "--cluster.listen-address="},
                                 "am.out", "am.err"))
      << "Alertmanager is not installed (tools/setup installs prometheus-alertmanager)";
  std::smatch found;
  std::string said;  // what `found` points into
  ASSERT_TRUE(qmtatest::WaitUntil([&] {
    said = Read("am.err");
    return std::regex_search(said, found, std::regex("Listening on\" address=(127.0.0.1:[0-9]+)"));
  }, 30s)) << said;
  const std::string url = "--alertmanager.url=http://" + found[1].str();
  auto amtool = [&](std::vector<std::string> words) {
    words.insert(words.begin(), {"amtool", "alert", "add"});
    words.insert(words.end(), {"--annotation=summary=disk full", url});
    EXPECT_EQ(RunToEnd(words, "amtool.out", "amtool.err", 30s), 0) << Read("amtool.err");
  };
  auto unchanged = [&] {
    return Metric(Curl("/metrics").body, R"(qmta_alerts_total{result="unchanged"})");
  };
  auto completed = [&](size_t actions) {
    auto done = [&] { return Count(Read("out"), "QMTA050I .* SITNAME=DiskFull .* RC=0 ") >= actions; };
    return qmtatest::WaitUntil(done, 30s);
  };

  amtool({"DiskFull", "instance=db1:9100"});
  EXPECT_TRUE(completed(1)) << Read("out");
  amtool({"Other", "instance=db1:9100"});
  EXPECT_TRUE(qmtatest::WaitUntil([&] { return unchanged() >= 3; }, 30s));
  char past[32];
  time_t ago = time(nullptr) - 60;
  strftime(past, sizeof past, "--end=%Y-%m-%dT%H:%M:%SZ", gmtime(&ago));
  amtool({"DiskFull", "instance=db1:9100", past});
  EXPECT_TRUE(completed(2)) << Read("out");
  // Other goes on being sent; DiskFull's resolution may be sent again.
  const double resent = unchanged();
  EXPECT_TRUE(qmtatest::WaitUntil([&] { return unchanged() >= resent + 2; }, 30s));

  const std::string out = Read("out"), err = Read("err");
  EXPECT_EQ(Count(out, "QMTA040I ACTION STARTED FOR SITNAME=DiskFull "), 2u) << out;
  EXPECT_EQ(Count(err, "\\] note: 1 0 disk full\n"), 1u) << err;
  EXPECT_EQ(Count(err, "\\] note: 2 1 disk full\n"), 1u) << err;
  const std::string m = Curl("/metrics").body;
  EXPECT_EQ(Metric(m, R"(qmta_events_taken_total{source="alertmanager"})"), 3);
  EXPECT_EQ(Metric(m, R"(qmta_alerts_total{result="delivered"})"), 3);
  EXPECT_EQ(Metric(m, "qmta_alert_states"), 2);
}

}  // namespace
