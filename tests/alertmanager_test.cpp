// A real Alertmanager (Debian prometheus-alertmanager, alerts sent with its
// amtool) notifies `qmtahost serve` through the webhook, everything on
// 127.0.0.1: one action when an alert fires, one when it is resolved, none
// for Alertmanager's re-sends.
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <regex>
#include <thread>

#include "tests/support/httphost.h"

namespace {

using namespace std::chrono_literals;
using qmtatest::ReadFile;
using qmtatest::RunToEnd;
class Alertmanager : public qmtatest::HttpHost {};

size_t Count(const std::string& text, const std::string& pattern) {
  std::regex search(pattern);
  return static_cast<size_t>(std::distance(
      std::sregex_iterator(text.begin(), text.end(), search), std::sregex_iterator()));
}

bool WaitFor(const std::function<bool()>& ready) { return qmtatest::WaitUntil(ready, 30s); }

// DiskFull fires; Other joins its group (a re-send of DiskFull); repeats
// follow every two seconds; DiskFull is resolved.
TEST_F(Alertmanager, AnActionForEachChangeOfStateNoneForResends) {
  ASSERT_EQ(access("/usr/bin/prometheus-alertmanager", X_OK), 0)
      << "Alertmanager is not installed (tools/setup installs prometheus-alertmanager)";
  dir_.Write("QMTASITR", "SITNAME=DiskFull STATE=ANY DESTNODE=ops:LOCAL SCRIPT=note\n"
                         "  ARG1=CURRSTATE ARG2=PRESTATE ARG3=annotation.summary;\n");
  dir_.Write("nodes", "* local\n");
  mkdir("actions", 0755);
  dir_.Write("actions/note", "#!/bin/sh\necho \"note: $*\"\n");
  chmod("actions/note", 0755);
  Start();
  dir_.Write("am.yml", "route: {receiver: qmta, group_wait: 1s, group_interval: 1s, "
                       "repeat_interval: 2s}\nreceivers:\n- name: qmta\n  webhook_configs:\n"
                       "  - {url: '" + base_ + "/v1/alertmanager', send_resolved: true}\n");
  qmtatest::Child alertmanager;
  ASSERT_TRUE(alertmanager.Spawn({"prometheus-alertmanager", "--config.file=am.yml",
                                  "--storage.path=am", "--web.listen-address=127.0.0.1:0",
                                  "--cluster.listen-address="},
                                 "am.out", "am.err"));
  std::smatch found;
  ASSERT_TRUE(WaitFor([&] {
    std::string said = ReadFile("am.err");
    return std::regex_search(said, found, std::regex("Listening on\" address=(127.0.0.1:[0-9]+)"));
  })) << ReadFile("am.err");
  const std::string url = "--alertmanager.url=http://" + found[1].str();
  auto amtool = [&](std::vector<std::string> words) {
    words.insert(words.begin(), {"amtool", "alert", "add"});
    words.insert(words.end(), {"--annotation=summary=disk full", url});
    EXPECT_EQ(RunToEnd(words, "amtool.out", "amtool.err", 30s), 0) << ReadFile("amtool.err");
  };
  auto unchanged = [&] {
    return Metric(Curl("/metrics").body, R"(qmta_alerts_total{result="unchanged"})");
  };
  auto completed = [&](size_t actions) {
    return WaitFor([&] { return Count(ReadFile("out"), "QMTA050I .* RC=0 ") >= actions; });
  };

  amtool({"DiskFull", "instance=db1:9100"});
  EXPECT_TRUE(completed(1)) << ReadFile("out");
  amtool({"Other", "instance=db1:9100"});
  EXPECT_TRUE(WaitFor([&] { return unchanged() >= 3; }));
  char past[32];
  time_t ago = time(nullptr) - 60;
  strftime(past, sizeof past, "--end=%Y-%m-%dT%H:%M:%SZ", gmtime(&ago));
  amtool({"DiskFull", "instance=db1:9100", past});
  EXPECT_TRUE(completed(2)) << ReadFile("out");
  // Other goes on being sent; DiskFull's resolution may be sent again.
  const double resent = unchanged();
  EXPECT_TRUE(WaitFor([&] { return unchanged() >= resent + 2; }));

  const std::string out = ReadFile("out"), err = ReadFile("err");
  EXPECT_EQ(Count(out, "QMTA040I ACTION STARTED FOR SITNAME=DiskFull "), 2u) << out;
  for (std::string state : {"1", "2"})
    EXPECT_EQ(Count(out, "QMTA050I ACTION COMPLETED FOR SITNAME=DiskFull DESTNODE=ops:LOCAL STATE=" +
                             state + " RC=0 "),
              1u);
  EXPECT_EQ(Count(err, "\\] note: 1 0 disk full\n"), 1u) << err;
  EXPECT_EQ(Count(err, "\\] note: 2 1 disk full\n"), 1u) << err;
  const std::string m = Curl("/metrics").body;
  EXPECT_EQ(Metric(m, R"(qmta_events_taken_total{source="alertmanager"})"), 3);
  EXPECT_EQ(Metric(m, R"(qmta_alerts_total{result="delivered"})"), 3);
  EXPECT_EQ(Metric(m, R"(qmta_alerts_total{result="refused"})"), 0);
  EXPECT_EQ(Metric(m, "qmta_alert_states"), 2);
  EXPECT_EQ(Metric(m, "qmta_actions_started_total"), 2);
  EXPECT_EQ(Metric(m, R"(qmta_action_outcomes_total{outcome="completed"})"), 2);
}

}  // namespace
