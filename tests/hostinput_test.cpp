// The host program's command line, input lines and Alertmanager
// notifications, parsed directly.
#include <stdlib.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

#include "host/programs/qmtahost/alertmanager.h"
#include "host/programs/qmtahost/inputline.h"
#include "host/programs/qmtahost/options.h"

namespace {

using qmta::hostprog::InputLine;
using qmta::hostprog::Options;
using Kind = InputLine::Kind;

bool Parse(std::vector<std::string> words, Options* options, std::string* error) {
  words.insert(words.begin(), "qmtahost");
  std::vector<char*> argv;
  for (auto& word : words) argv.push_back(word.data());
  return qmta::hostprog::ParseOptions(static_cast<int>(argv.size()), argv.data(), options,
                                      error);
}

TEST(HostOptions, EveryOptionAndTheDefaults) {
  Options options;
  std::string error;
  ASSERT_TRUE(Parse({}, &options, &error)) << error;
  EXPECT_EQ(options.dir, ".");
  EXPECT_EQ(options.input, "-");
  EXPECT_TRUE(options.init);
  EXPECT_EQ(options.commandLength, 600);
  EXPECT_FALSE(options.trace);

  ASSERT_TRUE(Parse({"--dir", "d", "--nodes=n", "--actions", "a", "--module", "m.so", "in",
                     "--server", "SRV123456", "--trace", "0x41", "--no-init",
                     "--command-length", "32767"},
                    &options, &error))
      << error;
  EXPECT_EQ(options.dir, "d");
  EXPECT_EQ(options.nodes, "n");
  EXPECT_EQ(options.actions, "a");
  EXPECT_EQ(options.module, "m.so");
  EXPECT_EQ(options.server, "SRV123456");
  EXPECT_EQ(options.trace, 65);
  EXPECT_FALSE(options.init);
  EXPECT_EQ(options.commandLength, 32767);
  EXPECT_EQ(options.input, "in");
}

TEST(HostOptions, UsageErrorsNameTheWrongWord) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"-x"}, "unknown option \"-x\""},
      {{"--dir"}, "--dir: needs a value"},
      {{"--trace", "-1"}, "--trace: bad level \"-1\""},
      {{"--command-length", "0"}, "--command-length: bad length \"0\" (1 to 32767)"},
      {{"--command-length", "32768"}, "--command-length: bad length \"32768\" (1 to 32767)"},
      {{"--server", "TENCHARSXX"}, "--server: the name must have 1 to 9 characters"},
      {{""}, "the input file name is empty"},
      {{"--alert-state-max", "5"}, "the HTTP options (--listen, --token-file, --tls-*, --http-*, "
                                   "--alert-*) are options of serve"},
      {{"serve", "--listen", "127.0.0.1:0", "--alert-state-max", "0"},
       "--alert-state-max: bad count \"0\" (1 to 10000000)"},
  };
  for (const auto& [words, expected] : cases) {
    Options options;
    std::string error;
    EXPECT_FALSE(Parse(words, &options, &error)) << words[0];
    EXPECT_EQ(error, expected);
  }
}

TEST(HostInput, SkippedLinesCommandsAndDrains) {
  EXPECT_EQ(qmta::hostprog::ParseInputLine("").kind, Kind::kSkip);
  EXPECT_EQ(qmta::hostprog::ParseInputLine("# {\"drain\": true}").kind, Kind::kSkip);
  for (const char* text : {"REFRESH", "  DISPLAY extra ", " #not a comment", "refresh {x}"}) {
    InputLine line = qmta::hostprog::ParseInputLine(text);
    EXPECT_EQ(line.kind, Kind::kCommand) << text;
    EXPECT_EQ(line.text, text);
  }
  EXPECT_EQ(qmta::hostprog::ParseInputLine(" {\"drain\": true}").kind, Kind::kDrain);
}

TEST(HostInput, EventsWithDefaultsAndEveryField) {
  InputLine line = qmta::hostprog::ParseInputLine(
      R"({"sitname": "Disk_Full", "originnode": "host1:LZ", "currstate": 1})");
  ASSERT_EQ(line.kind, Kind::kEvent) << line.text;
  EXPECT_EQ(line.event.sitname, "Disk_Full");
  EXPECT_EQ(line.event.originnode, "host1:LZ");
  EXPECT_EQ(line.event.currstate, 1);
  EXPECT_EQ(line.event.prevstate, 0);
  EXPECT_FALSE(line.event.timestamp);
  EXPECT_TRUE(line.event.attributes.empty());
  EXPECT_FALSE(line.event.threshold);
  EXPECT_TRUE(line.event.pathHandle);
  EXPECT_EQ(line.event.onDS, 1);

  line = qmta::hostprog::ParseInputLine(
      R"({"sitname": "S", "originnode": "N", "currstate": -2147483648, "prevstate": 2147483647,)"
      R"j( "timestamp": "1250101000000000", "attributes": [["a", "1"], ["b", "$(x)"], ["a", "\""]],)j"
      R"( "threshold": "a>1", "pathhandle": false, "onds": 0})");
  ASSERT_EQ(line.kind, Kind::kEvent) << line.text;
  EXPECT_EQ(line.event.currstate, INT32_MIN);
  EXPECT_EQ(line.event.prevstate, INT32_MAX);
  EXPECT_EQ(line.event.timestamp, "1250101000000000");
  using Pairs = std::vector<std::pair<std::string, std::string>>;
  EXPECT_EQ(line.event.attributes, (Pairs{{"a", "1"}, {"b", "$(x)"}, {"a", "\""}}));
  EXPECT_EQ(line.event.threshold, "a>1");
  EXPECT_FALSE(line.event.pathHandle);
  EXPECT_EQ(line.event.onDS, 0);

  line = qmta::hostprog::ParseInputLine(
      R"({"sitname": "S", "originnode": "N", "currstate": 0, "threshold": null})");
  ASSERT_EQ(line.kind, Kind::kEvent) << line.text;
  EXPECT_FALSE(line.event.threshold);
}

TEST(HostInput, MalformedLinesGiveAReason) {
  const std::string base = R"("sitname": "S", "originnode": "N")";
  const std::vector<std::pair<std::string, std::string>> cases = {
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
      {R"({"sitname": "a\u0000b", "originnode": "N", "currstate": 1})",
       "\"sitname\" holds a NUL character"},
      {"{" + base + R"(, "currstate": 1, "attributes": [["a"]]})",
       "\"attributes\" must be a list of [name, value] strings"},
      {"{" + base + R"(, "currstate": 1, "attributes": [["a", 1]]})",
       "\"attributes\" must be a string"},
      {"{" + base + R"(, "currstate": 1, "threshold": 3})", "\"threshold\" must be a string"},
      {"{" + base + R"(, "currstate": 1, "pathhandle": 1})",
       "\"pathhandle\" must be true or false"},
      {"{" + base + R"(, "currstate": 1, "sitnmae": "x"})", "unknown field \"sitnmae\""},
      {R"({"drain": false})", "\"drain\" must be true"},
      {R"({"drain": true, "sitname": "S"})", "\"drain\" takes no other field"},
      // Found by fuzzing: a number beyond a double's range is refused by the
      // JSON reader with an error of its own kind, which once escaped.
      {"{" + base + R"(, "currstate": 1e400})", "bad JSON: number overflow parsing '1e400'"},
      {R"({"x": -9990E9400})", "bad JSON: number overflow parsing '-9990E9400'"},
  };
  for (const auto& [text, reason] : cases) {
    InputLine line = qmta::hostprog::ParseInputLine(text);
    EXPECT_EQ(line.kind, Kind::kError) << text;
    EXPECT_TRUE(line.text.starts_with(reason)) << text << " -> " << line.text;
  }
}

TEST(HostInput, TimestampForm) {
  struct tm when = {};
  when.tm_year = 126;
  when.tm_mon = 10;
  when.tm_mday = 16;
  when.tm_min = 5;
  when.tm_sec = 9;
  EXPECT_EQ(qmta::hostprog::Timestamp(when), "1261116000509000");
  when.tm_year = 99;
  when.tm_mon = 0;
  when.tm_mday = 1;
  when.tm_hour = 23;
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
  std::ifstream in(QMTA_SOURCE_DIR "/tests/data/alertmanager-webhook.json");
  const std::string resolved((std::istreambuf_iterator<char>(in)), {});
  nlohmann::json body = nlohmann::json::parse(resolved);
  body["alerts"][1]["status"] = "firing";
  body["alerts"][1]["startsAt"] = "2026-11-23T12:53:12.46+02:00";
  const std::string firing = body.dump();
  AlertSettings settings;
  settings.thresholdAnnotation = "runbook";
  settings.stateMax = 2;
  settings.stateExpiry = 60s;
  AlertIntake intake(settings, false);
  std::vector<Event> queued;
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
  const Event& disk = queued[1];
  EXPECT_EQ(disk.sitname, "Disk 'Full'");
  EXPECT_EQ(disk.originnode, "db1:9100");
  EXPECT_EQ(disk.timestamp, "1261123105312000");
  EXPECT_EQ(disk.threshold, "https://wiki.example/disk");
  EXPECT_EQ(disk.attributes, (std::vector<std::pair<std::string, std::string>>{
                                 {"alertname", "Disk \"Full\""}, {"instance", "db1:9100"},
                                 {"severity", "page"}, {"annotation.runbook", "https://wiki.example/disk"},
                                 {"annotation.summary", "disk 97% full on /var"}}));
  EXPECT_EQ(queued[2].sitname, "Disk 'Full'");
  EXPECT_EQ(std::tie(queued[2].currstate, queued[2].prevstate, *queued[2].timestamp),
            std::tuple(2, 1, "1261123105219000"));
  EXPECT_EQ(take(resolved, 121s), "DD");  // not seen for 60 s: forgotten
  EXPECT_EQ(queued[4].prevstate, 0);
  body["alerts"] = {body["alerts"][0], body["alerts"][1]};
  body["alerts"][1]["fingerprint"] = "other";
  EXPECT_EQ(take(body.dump(), 122s), "UD");  // the cap drops Disk "Full", the oldest
  body["alerts"][1] = nlohmann::json::parse(resolved)["alerts"][1];
  EXPECT_EQ(take(body.dump(), 123s), "UD");
  EXPECT_EQ(intake.states(), 2u);

  body["alerts"] = nlohmann::json::parse(R"([
      {"fingerprint": "1", "status": "firing", "labels": {"alertname": "a\u001bb"}, "startsAt": "2026-01-01T00:00:00Z"},
      {"fingerprint": "2", "status": "firing", "labels": {"alertname": "a", "x": "\u0000"}, "startsAt": "2026-01-01T00:00:00Z"},
      {"fingerprint": "3", "status": "pending", "labels": {"alertname": "a"}},
      {"fingerprint": "4", "status": "firing", "labels": {"alertname": "a"}, "startsAt": "2026-01-01T00:00:00"},
      {"fingerprint": "5", "status": "resolved", "labels": {"alertname": "a"}, "endsAt": "0001-01-01T00:00:00Z"},
      {"fingerprint": "6", "status": "firing", "labels": {"instance": "a"}, "startsAt": "2026-01-01T00:00:00Z"},
      {"fingerprint": "7", "status": "firing", "labels": {"alertname": 7}, "startsAt": "2026-01-01T00:00:00Z"},
      {"status": "firing", "labels": {"alertname": "a"}, "startsAt": "2026-01-01T00:00:00Z"}, 8,
      {"fingerprint": "10", "status": "firing", "labels": {"alertname": "ok"}, "startsAt": "2026-01-01T00:00:00Z"}])");
  open = false;
  EXPECT_EQ(take(body.dump(), 124s), "RRRRRRRRRD");
  EXPECT_TRUE(batch.stopping);
  std::vector<std::string> reasons;
  for (const Alert& alert : batch.alerts) reasons.push_back(alert.reason);
  EXPECT_EQ(reasons, (std::vector<std::string>{
      "\"sitname\" holds a control character", "a label or annotation holds a NUL character",
      "\"status\" must be \"firing\" or \"resolved\"",
      "\"startsAt\" must be an RFC 3339 time between the years 1900 and 2899",
      "\"endsAt\" must be an RFC 3339 time between the years 1900 and 2899",
      "missing label \"alertname\"", "\"labels\" must be an object of strings",
      "missing \"fingerprint\"", "an alert must be an object", ""}));
  EXPECT_EQ(take("{\"version\": \"3\", \"alerts\": []}", 0s), "\"version\" must be \"4\"");
  EXPECT_EQ(take("{\"alerts\": {}}", 0s), "\"alerts\" must be a list");
  EXPECT_EQ(take("[]", 0s), "the body must be a JSON object (an Alertmanager notification)");
  EXPECT_TRUE(take("{", 0s).starts_with("bad JSON: "));
}

}  // namespace
