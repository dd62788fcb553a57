// The host program's command line and input lines, parsed directly.
#include <gtest/gtest.h>

#include "host/programs/qmtahost/inputline.h"
#include "host/programs/qmtahost/options.h"

namespace {

using qmta::hostprog::InputLine;
using qmta::hostprog::Options;
using qmta::hostprog::ParseInputLine;
using Kind = InputLine::Kind;

// The options of `words`, or the error.
std::string Parse(std::vector<std::string> words, Options* options) {
  words.insert(words.begin(), "qmtahost");
  std::vector<char*> argv;
  for (auto& word : words) argv.push_back(word.data());
  std::string error;
  return qmta::hostprog::ParseOptions(static_cast<int>(argv.size()), argv.data(), options, &error) ? "" : error;
}

TEST(HostOptions, EveryOptionAndTheUsageErrors) {
  Options o;
  ASSERT_EQ("", Parse({"--dir", "d", "--nodes=n", "--actions", "a", "--module", "m.so", "in", "--server", "SRV123456",
                       "--trace", "0x41", "--no-init", "--command-length", "32767", "--clock-shift", "-58"},
                      &o));
  EXPECT_EQ(std::tie(o.dir, o.nodes, o.actions, o.module, o.server, o.input),
            std::make_tuple("d", "n", "a", "m.so", "SRV123456", "in"));
  EXPECT_EQ(o.trace, 65);
  EXPECT_FALSE(o.init);
  EXPECT_EQ(o.commandLength, 32767);
  EXPECT_EQ(o.clockShift, -58);
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"-x"}, "unknown option \"-x\""},
      {{"--dir"}, "--dir: needs a value"},
      {{"--trace", "-1"}, "--trace: bad level \"-1\""},
      {{"--command-length", "0"}, "--command-length: bad length \"0\" (1 to 32767)"},
      {{"--command-length", "32768"}, "--command-length: bad length \"32768\" (1 to 32767)"},
      {{"--clock-shift", "86401"}, "--clock-shift: bad shift \"86401\" (-86400 to 86400)"},
      {{"--server", "TENCHARSXX"}, "--server: the name must have 1 to 9 characters"},
      {{"a", "b"}, "more than one input file (\"b\")"},
      {{""}, "the input file name is empty"}};
  for (const auto& [words, expected] : cases) EXPECT_EQ(Parse(words, &o), expected) << words[0];
}

TEST(HostInput, SkippedLinesCommandsDrainsAndEvents) {
  EXPECT_EQ(ParseInputLine("").kind, Kind::kSkip);
  EXPECT_EQ(ParseInputLine("# {\"drain\": true}").kind, Kind::kSkip);
  EXPECT_EQ(ParseInputLine(" {\"drain\": true}").kind, Kind::kDrain);
  for (const char* text : {"REFRESH", "  DISPLAY extra ", " #not a comment", "refresh {x}"}) {
    InputLine line = ParseInputLine(text);
    EXPECT_EQ(line.kind, Kind::kCommand) << text;
    EXPECT_EQ(line.text, text);
  }
  InputLine line = ParseInputLine(R"({"sitname": "Disk_Full", "originnode": "host1:LZ", "currstate": 1})");
  ASSERT_EQ(line.kind, Kind::kEvent) << line.text;
  EXPECT_EQ(std::tie(line.event.sitname, line.event.originnode, line.event.currstate, line.event.prevstate),
            std::make_tuple("Disk_Full", "host1:LZ", 1, 0));
  EXPECT_FALSE(line.event.timestamp || line.event.threshold || !line.event.attributes.empty());
  EXPECT_TRUE(line.event.pathHandle);
  EXPECT_EQ(line.event.onDS, 1);
  line = ParseInputLine(
      R"({"sitname": "S", "originnode": "N", "currstate": -2147483648, "prevstate": 2147483647,)"
      R"j( "timestamp": "1250101000000000", "attributes": [["a", "1"], ["b", "$(x)"], ["a", "\""]],)j"
      R"( "threshold": "a>1", "pathhandle": false, "onds": 0})");
  ASSERT_EQ(line.kind, Kind::kEvent) << line.text;
  EXPECT_EQ(line.event.currstate, INT32_MIN);
  EXPECT_EQ(line.event.prevstate, INT32_MAX);
  EXPECT_EQ(line.event.timestamp, "1250101000000000");
  EXPECT_EQ(line.event.attributes, (std::vector<std::pair<std::string, std::string>>{{"a", "1"}, {"b", "$(x)"}, {"a", "\""}}));
  EXPECT_EQ(line.event.threshold, "a>1");
  EXPECT_FALSE(line.event.pathHandle);
  EXPECT_EQ(line.event.onDS, 0);
  EXPECT_FALSE(ParseInputLine(R"({"sitname": "S", "originnode": "N", "currstate": 0, "threshold": null})").event.threshold);
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

}  // namespace
