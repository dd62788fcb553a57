// qmtahost: its input lines and Alertmanager notifications, and the
// program run as a user runs it (files in a scratch directory, standard
// output compared line by line, standard error searched).
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "host/programs/qmtahost/alertmanager.h"
#include "host/programs/qmtahost/inputline.h"
#include "tests/support/support.h"

namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;
using qmta::hostprog::InputLine;
using qmta::hostprog::ParseInputLine;
using Kind = InputLine::Kind;

struct Result {
  int status = -1;  // exit status, or -1 when it did not exit in time
  Lines out, err;
  bool Said(const std::string& line) const { return std::find(err.begin(), err.end(), line) != err.end(); }
};

class Host : public ::testing::Test {
 protected:
  void Write(const std::string& name, const std::string& content, mode_t mode = 0644) {
    dir_.Write(name, content);
    chmod((dir_.path() + "/" + name).c_str(), mode);
  }
  void Action(const std::string& name, const std::string& body) {
    std::filesystem::create_directories(dir_.path() + "/actions");
    Write("actions/" + name, "#!/bin/sh\n" + body + "\n", 0755);
  }
  std::string Read(const std::string& name) { return qmtatest::ReadFile(dir_.path() + "/" + name); }
  // Runs qmtahost with `args` in the scratch directory, `input` as its
  // standard input; the summary line that ends its standard error is left out.
  Result Run(std::vector<std::string> args, const std::string& input = "") {
    Write("stdin", input);
    args.insert(args.begin(), QMTAHOST_PATH);
    qmtatest::Child host;
    Result result;
    EXPECT_TRUE(host.Spawn(args, "stdout", "stderr", "stdin"));
    result.status = host.Finish();
    result.out = qmtatest::SplitLines(Read("stdout"));
    result.err = qmtatest::SplitLines(Read("stderr"));
    if (!result.err.empty() && result.err.back().starts_with("qmtahost: stopped: ")) result.err.pop_back();
    return result;
  }
  qmtatest::ScratchDir dir_;
};

std::string Event(const std::string& fields) { return "{\"originnode\": \"n1\", " + fields + "}\n"; }

// A line of 1 MiB and a little more spans many reads; so does the good line
// right after it when the reads fall that way. The last line needs no line
// end. TESTSIT finds the module the host registered with its loader; an
// event without a timestamp gets the host's local time.
TEST_F(Host, MalformedAndLongLinesAreReportedAndSkippedAndTestsitRuns) {
  Write("QMTASITR", "SITNAME=S DESTNODE=sim:N SCRIPT=j ARG1=NODE ARG2=TIMESTAMP;\nSITNAME=TestSituation DESTNODE=sim:N SCRIPT=t;\n");
  Write("nodes", "* sim rc=0\n");
  std::string input = "TESTSIT\n# a comment\n\n{\"sitname\": \"S\", \"originnode\": \"n\"\n" +
                      Event(R"("sitname": "S", "currstate": 4294967297)") + Event(R"("sitname": "S", "currstate": 1e400)") +
                      "DISPLAY?junk\n{\"sitname\": \"" + std::string((1 << 20) + 10, 'x') + "\"}\n" +
                      R"({"sitname": "S", "originnode": "after", "currstate": 1})" "\r\n\r\n" +
                      R"({"sitname": "S", "originnode": "last", "currstate": 1})";
  input[input.find('?')] = '\0';
  Result result = Run({"--nodes", "nodes", "--no-init", "stdin"}, input);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err.size(), 5u);
  EXPECT_TRUE(result.err.at(0).starts_with("qmtahost: line 4: bad JSON: ")) << result.err[0];
  EXPECT_EQ(Lines(result.err.begin() + 1, result.err.end()),
            (Lines{"qmtahost: line 5: \"currstate\" is out of 32-bit range",
                   "qmtahost: line 6: bad JSON: number overflow parsing '1e400'",
                   "qmtahost: line 7: NUL character in the line", "qmtahost: line 8: line too long"}));
  // Without the start-up call, the first event initialises the module.
  for (std::string& line : result.out) line = std::regex_replace(line, std::regex("\"1[0-9]{15}\""), "NOW");
  std::sort(result.out.begin(), result.out.end());
  const std::string started = "QMTA040I ACTION STARTED FOR SITNAME=", done = "QMTA050I ACTION COMPLETED FOR SITNAME=";
  EXPECT_EQ(result.out,
            (Lines{started + "S DESTNODE=sim:N STATE=1 REQUESTID=2", started + "S DESTNODE=sim:N STATE=1 REQUESTID=3",
                   started + "TestSituation DESTNODE=sim:N STATE=1 REQUESTID=1", "QMTA041I CMD=j \"after\" NOW",
                   "QMTA041I CMD=j \"last\" NOW",
                   "QMTA041I CMD=t \"TestSituation\" NOW \"0\" \"1\" \"TESTNODE:TEST\" \"Test_Object.Test_Attrib1>80 "
                   "Test_Object.Test_Attrib2<100\"",
                   done + "S DESTNODE=sim:N STATE=1 RC=0 REQUESTID=2", done + "S DESTNODE=sim:N STATE=1 RC=0 REQUESTID=3",
                   done + "TestSituation DESTNODE=sim:N STATE=1 RC=0 REQUESTID=1", "QMTA091I TESTSIT INVOKED.  STATUS=0",
                   "QMTA093I ACTION ENVIRONMENT INITIALIZE"}));
}

TEST_F(Host, LocalActionsGetPlainArgumentsEveryEndingAndPercentSignsAsText) {
  Write("QMTASITR", "SITNAME=Args DESTNODE=node:A CALLTYPE=9 SCRIPT=args ARG1=a ARG2=b ARG3=c ARG4=d ARG5=e;\n"
                    "SITNAME=Fail DESTNODE=node:A SCRIPT=fail;\nSITNAME=Gone DESTNODE=node:A SCRIPT=nothere;\n"
                    "SITNAME=Shell DESTNODE=node:A SCRIPT=/bin/sh ARG1=\"-c\" ARG2=a;\n"
                    "SITNAME=Hang DESTNODE=node:A SCRIPT=hang;\n"
                    "SITNAME=%n* DESTNODE=node:%n SCRIPT=args ARG1=SITNAME ARG2=NODE ARG3=%n%s ARG4=a ARG5=THRESHOLD;\n");
  Action("args", "printf '%s\\0' \"$@\" > argv.$QMTA_REQUESTID\necho \"$QMTA_REQUESTID $QMTA_CALLTYPE $QMTA_NODE $PATH $1\"");
  Action("fail", "echo failing >&2\nexit 3");
  Action("hang", "sleep 30");
  Write("nodes", "node:* local timeout=1\n");
  const std::string longValue(480, 'L');
  auto begin = std::chrono::steady_clock::now();
  Result result = Run(
      {"--nodes", "nodes"},
      Event(R"j("sitname": "Args", "currstate": 1, "attributes": [["a", "$(touch x)"], ["b", "`touch y`; touch z"], )j"
            R"(["c", "../../x \"q\""], ["d", ""], ["e", ")" + longValue + R"("]])") +
          Event(R"("sitname": "Fail", "currstate": 1)") + Event(R"("sitname": "Gone", "currstate": 1)") +
          Event(R"("sitname": "Shell", "currstate": 1, "attributes": [["a", "touch x"]])") +
          Event(R"("sitname": "Hang", "currstate": 1)") +
          R"({"sitname": "%n%s", "originnode": "%x%n", "currstate": 1, "attributes": [["a", "%n%n%n"]], "threshold": "%s%p"})"
          "\n");
  EXPECT_EQ(result.status, 0);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
  EXPECT_EQ(Read("argv.1"), std::string("$(touch x)") + '\0' + "`touch y`; touch z" + '\0' + "../../x 'q'" + '\0' + '\0' +
                                longValue + '\0');
  EXPECT_EQ(Read("argv.6"), std::string("%n%s") + '\0' + "%x%n" + '\0' + "%n%s" + '\0' + "%n%n%n" + '\0' + "%s%p" + '\0');
  for (const char* file : {"x", "y", "z", "actions/x"})
    EXPECT_FALSE(std::filesystem::exists(dir_.path() + "/" + file)) << file;
  Lines ends;
  for (const std::string& line : result.out)
    if (line.starts_with("QMTA050I")) ends.push_back(line.substr(line.find("STATE=")));
  std::sort(ends.begin(), ends.end(), [](const std::string& a, const std::string& b) { return a.size() < b.size() || (a.size() == b.size() && a < b); });
  EXPECT_EQ(ends, (Lines{"STATE=1 RC=0 REQUESTID=1", "STATE=1 RC=0 REQUESTID=6", "STATE=1 RC=3 REQUESTID=2",
                         "STATE=1 RC=127 REQUESTID=3", "STATE=1 RC=127 REQUESTID=4", "STATE=1 RC=143 REQUESTID=5"}));
  EXPECT_NE(std::find(result.out.begin(), result.out.end(),
                      "QMTA041I CMD=args \"%n%s\" \"%x%n\" \"%n%s\" \"%n%n%n\" \"%s%p\""),
            result.out.end());
  EXPECT_TRUE(result.Said("[1] 1 9 node:A /usr/bin:/bin $(touch x)"));
  EXPECT_TRUE(result.Said("[6] 6 0 node:%n /usr/bin:/bin %n%s"));
  EXPECT_TRUE(result.Said("[2] failing"));
  EXPECT_TRUE(result.Said("[3] no action program \"nothere\" in " + dir_.path() + "/actions: No such file or directory"));
  EXPECT_TRUE(result.Said("[4] refused program name \"/bin/sh\": only plain names of " + dir_.path() +
                          "/actions are run"));
  EXPECT_TRUE(result.Said("[5] timed out after 1 s; ending the program"));
  for (const std::string& line : result.out) EXPECT_TRUE(line.starts_with("QMTA")) << line;
}

// A standard error that nobody reads holds up neither a program's time-out
// nor its outcome; programs get the descriptor limit the host was started
// with, while the host raises its own to the hard limit.
TEST_F(Host, LocalProgramsKeepTheirTimeAndLimitWhileStandardErrorIsBlocked) {
  rlimit atStart = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &atStart), 0);
  if (atStart.rlim_max <= 512) GTEST_SKIP() << "the hard descriptor limit is 512 or less";
  Write("QMTASITR",
        "SITNAME=Noisy DESTNODE=node:A SCRIPT=noisy;\n"
        "SITNAME=Limit DESTNODE=node:A SCRIPT=limit;\n");
  Action("noisy", "yes 'output that nobody reads'");
  Action("limit", "ulimit -n > limit.program\n"
                  "grep '^Max open files' /proc/$PPID/limits > limit.host");
  Write("nodes", "node:* local timeout=2\n");
  int blocked[2];
  ASSERT_EQ(pipe2(blocked, O_CLOEXEC), 0);
  const rlimit low = {512, atStart.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
  Write("stdin", R"({"sitname": "Noisy", "originnode": "o", "currstate": 1})" "\n"
                 R"({"sitname": "Limit", "originnode": "o", "currstate": 1})" "\n");
  auto begin = std::chrono::steady_clock::now();
  qmtatest::Child host;
  ASSERT_TRUE(host.Spawn({QMTAHOST_PATH, "--nodes", "nodes"}, "stdout",
                         "/dev/fd/" + std::to_string(blocked[1]), "stdin"));
  setrlimit(RLIMIT_NOFILE, &atStart);
  close(blocked[1]);

  const std::string tail = " DESTNODE=node:A STATE=1 RC=";
  const std::string noisyEnd = "QMTA050I ACTION COMPLETED FOR SITNAME=Noisy" + tail + "143 REQUESTID=1";
  const std::string limitEnd = "QMTA050I ACTION COMPLETED FOR SITNAME=Limit" + tail + "0 REQUESTID=2";
  Lines out;
  auto ended = [&out](const std::string& line) {
    return std::find(out.begin(), out.end(), line) != out.end();
  };
  while (std::chrono::steady_clock::now() - begin < 20s && !(ended(noisyEnd) && ended(limitEnd))) {
    std::this_thread::sleep_for(20ms);
    out = qmtatest::SplitLines(Read("stdout"));
  }
  // Two seconds, the second of grace at most, and time to start.
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 6s);
  EXPECT_TRUE(ended(noisyEnd));
  EXPECT_TRUE(ended(limitEnd));
  // Read at last, standard error takes what was held back, and the host
  // ends.
  std::string err;
  char buffer[65536];
  pollfd in = {blocked[0], POLLIN, 0};
  for (ssize_t got = 1; got > 0 && poll(&in, 1, 20000) == 1;) {
    got = read(blocked[0], buffer, sizeof buffer);
    if (got > 0) err.append(buffer, static_cast<size_t>(got));
  }
  close(blocked[0]);
  EXPECT_EQ(host.Finish(), 0);
  for (const char* line : {"\n[1] [further output dropped]\n",
                           "\n[1] timed out after 2 s; ending the program\n",
                           "\nqmtahost: stopped: 2 events, 2 actions (2 completed"})
    EXPECT_NE(err.find(line), std::string::npos) << line;

  EXPECT_EQ(Read("limit.program"), "512\n");
  std::istringstream hostLimit(Read("limit.host"));
  std::string word, soft, hard;  // "Max open files SOFT HARD files"
  hostLimit >> word >> word >> word >> soft >> hard;
  EXPECT_EQ(soft, std::to_string(atStart.rlim_max));
  EXPECT_EQ(hard, std::to_string(atStart.rlim_max));
}

// Its input lines, parsed directly (their classification for every input:
// the input fuzz target).
TEST(HostInput, EventsWithEveryFieldAndDefaults) {
  InputLine line = ParseInputLine(
      R"({"sitname": "S", "originnode": "N", "currstate": -2147483648, "prevstate": 2147483647,)"
      R"j( "timestamp": "1250101000000000", "attributes": [["a", "1"], ["b", "$(x)"], ["a", "\""]],)j"
      R"( "threshold": "a>1", "pathhandle": false, "onds": 0})");
  ASSERT_EQ(line.kind, Kind::kEvent) << line.text;
  const qmta::hostprog::Event& e = line.event;
  EXPECT_EQ(std::tie(e.sitname, e.originnode, e.currstate, e.prevstate, e.timestamp, e.threshold, e.pathHandle, e.onDS),
            std::make_tuple("S", "N", INT32_MIN, INT32_MAX, "1250101000000000", "a>1", false, 0));
  EXPECT_EQ(e.attributes, (std::vector<std::pair<std::string, std::string>>{{"a", "1"}, {"b", "$(x)"}, {"a", "\""}}));
  line = ParseInputLine(R"({"sitname": "S", "originnode": "N", "currstate": 0, "threshold": null})");
  ASSERT_EQ(line.kind, Kind::kEvent) << line.text;
  EXPECT_EQ(std::make_tuple(line.event.prevstate, !line.event.timestamp, !line.event.threshold, line.event.pathHandle,
                            line.event.onDS),
            std::make_tuple(0, true, true, true, 1));
}

TEST(HostInput, MalformedLinesGiveAReason) {
  const std::string base = R"("sitname": "S", "originnode": "N")";
  const std::pair<std::string, std::string> cases[] = {
      {"{\"sitname\": ", "bad JSON: "},
      {"{} trailing", "bad JSON: "},
      {std::string("REFRESH\0x", 9), "NUL character in the line"},
      {"{" + base + "}", "missing \"currstate\""},
      {R"({"originnode": "N", "currstate": 1})", "missing \"sitname\""},
      {R"({"sitname": "S", "currstate": 1})", "missing \"originnode\""},
      {"{" + base + R"(, "currstate": "1"})", "\"currstate\" must be an integer"},
      {"{" + base + R"(, "currstate": 1.5})", "\"currstate\" must be an integer"},
      {"{" + base + R"(, "currstate": 2147483648})", "\"currstate\" is out of 32-bit range"},
      {"{" + base + R"(, "currstate": 1, "onds": -2147483649})", "\"onds\" is out of 32-bit range"},
      {R"({"sitname": 5, "originnode": "N", "currstate": 1})", "\"sitname\" must be a string"},
      {R"({"sitname": "a\u0000b", "originnode": "N", "currstate": 1})", "\"sitname\" holds a NUL character"},
      {"{" + base + R"(, "currstate": 1, "attributes": [["a"]]})", "\"attributes\" must be a list of [name, value] strings"},
      {"{" + base + R"(, "currstate": 1, "attributes": [["a", 1]]})", "\"attributes\" must be a string"},
      {"{" + base + R"(, "currstate": 1, "threshold": 3})", "\"threshold\" must be a string"},
      {"{" + base + R"(, "currstate": 1, "pathhandle": 1})", "\"pathhandle\" must be true or false"},
      {"{" + base + R"(, "currstate": 1, "sitnmae": "x"})", "unknown field \"sitnmae\""},
      {R"({"drain": false})", "\"drain\" must be true"},
      {R"({"drain": 1})", "\"drain\" must be true"},
      {R"({"drain": true, "sitname": "S"})", "\"drain\" takes no other field"},
      // Found by fuzzing: a number beyond a double's range is refused by the
      // JSON reader with an error of its own kind, which once escaped.
      {"{" + base + R"(, "currstate": 1e400})", "bad JSON: number overflow parsing '1e400'"},
      {R"({"x": -9990E9400})", "bad JSON: number overflow parsing '-9990E9400'"},
  };
  for (const auto& [text, reason] : cases) {
    InputLine line = ParseInputLine(text);
    EXPECT_EQ(line.kind, Kind::kError) << text;
    EXPECT_TRUE(line.text.starts_with(reason)) << text << " -> " << line.text;
  }
}

TEST(HostInput, TimestampForm) {
  struct tm when = {};
  when.tm_year = 126, when.tm_mon = 10, when.tm_mday = 16, when.tm_min = 5, when.tm_sec = 9;
  EXPECT_EQ(qmta::hostprog::Timestamp(when), "1261116000509000");
  when.tm_year = 99, when.tm_mon = 0, when.tm_mday = 1, when.tm_hour = 23;
  EXPECT_EQ(qmta::hostprog::Timestamp(when), "0990101230509000");
}

// The notification captured from Alertmanager 0.25 (HostDown firing, Disk
// "Full" resolved), and the same with both firing: only changes of state
// are delivered; the table forgets after its expiry and beyond its cap;
// a bad alert is refused alone, a bad body whole.
TEST(HostInput, AlertmanagerNotificationsDeliverChangesOfState) {
  using namespace qmta::hostprog;
  using namespace std::chrono_literals;
  setenv("TZ", "UTC", 1);
  tzset();
  const std::string resolved = qmtatest::ReadFile(QMTA_SOURCE_DIR "/tests/data/alertmanager-webhook.json");
  nlohmann::json body = nlohmann::json::parse(resolved);
  body["alerts"][1]["status"] = "firing";
  body["alerts"][1]["startsAt"] = "2026-11-23T12:53:12.46+02:00";
  const std::string firing = body.dump();
  AlertIntake intake({.thresholdAnnotation = "runbook", .stateMax = 2, .stateExpiry = 60s}, false);
  std::vector<qmta::hostprog::Event> queued;
  bool open = true;
  AlertBatch batch;
  auto take = [&](const std::string& text, AlertIntake::Clock::duration at) {
    batch = intake.Take(text, [&](std::vector<Alert*>& alerts) {
      for (Alert* alert : alerts) queued.push_back(alert->event);
      return open;
    }, AlertIntake::Clock::time_point(at));
    std::string outcomes;  // D delivered, U unchanged, R refused
    for (const Alert& alert : batch.alerts) outcomes += "DUR"[static_cast<int>(alert.outcome)];
    return outcomes + batch.error;
  };
  EXPECT_EQ(take(firing, 0s), "DD");
  EXPECT_EQ(take(firing, 1s), "UU");
  EXPECT_EQ(take(resolved, 2s), "UD");
  EXPECT_EQ(take(resolved, 61s), "UU");
  ASSERT_EQ(queued.size(), 3u);
  const auto& disk = queued[1];
  EXPECT_EQ(std::tie(disk.sitname, disk.originnode, *disk.timestamp, *disk.threshold),
            std::tuple("Disk 'Full'", "db1:9100", "1261123105312000", "https://wiki.example/disk"));
  EXPECT_EQ(disk.attributes, (std::vector<std::pair<std::string, std::string>>{
                                 {"alertname", "Disk \"Full\""}, {"instance", "db1:9100"},
                                 {"severity", "page"}, {"annotation.runbook", "https://wiki.example/disk"},
                                 {"annotation.summary", "disk 97% full on /var"}}));
  EXPECT_EQ(std::tie(queued[2].sitname, queued[2].currstate, queued[2].prevstate, *queued[2].timestamp),
            std::tuple("Disk 'Full'", 2, 1, "1261123105219000"));
  EXPECT_EQ(take(resolved, 121s), "DD");  // not seen for 60 s: forgotten
  EXPECT_EQ(queued[4].prevstate, 0);
  body["alerts"] = {body["alerts"][0], body["alerts"][1]};
  body["alerts"][1]["fingerprint"] = "other";
  EXPECT_EQ(take(body.dump(), 122s), "UD");  // the cap drops Disk "Full", the oldest
  body["alerts"][1] = nlohmann::json::parse(resolved)["alerts"][1];
  EXPECT_EQ(take(body.dump(), 123s), "UD");

  body["alerts"] = nlohmann::json::parse(R"([
      {"fingerprint": "1", "status": "firing", "labels": {"alertname": "a\u001bb"}, "startsAt": "2026-01-01T00:00:00Z"},
      {"fingerprint": "2", "status": "firing", "labels": {"alertname": "a", "x": "\u0000"}, "startsAt": "2026-01-01T00:00:00Z"},
      {"fingerprint": "4", "status": "firing", "labels": {"alertname": "a"}, "startsAt": "2026-01-01T00:00:00"},
      {"fingerprint": "5", "status": "resolved", "labels": {"alertname": "a"}, "endsAt": "0001-01-01T00:00:00Z"},
      {"fingerprint": "6", "status": "firing", "labels": {"instance": "a"}, "startsAt": "2026-01-01T00:00:00Z"},
      8,
      {"fingerprint": "10", "status": "firing", "labels": {"alertname": "ok"}, "startsAt": "2026-01-01T00:00:00Z"}])");
  open = false;
  EXPECT_EQ(take(body.dump(), 124s), "RRRRRRD");
  EXPECT_EQ(batch.alerts[0].reason, "\"sitname\" holds a control character");
  EXPECT_TRUE(batch.stopping);
  EXPECT_EQ(take("{\"version\": \"3\", \"alerts\": []}", 0s), "\"version\" must be \"4\"");
  EXPECT_TRUE(take("{", 0s).starts_with("bad JSON: "));
}

}  // namespace
