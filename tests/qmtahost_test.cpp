// qmtahost run as a user runs it: files in a scratch directory, standard
// output compared line by line, standard error searched.
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <regex>

#include <gtest/gtest.h>

#include "tests/support/support.h"

namespace {

using Lines = std::vector<std::string>;

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

TEST_F(Host, EventsWithEveryOutcomeThroughSim) {
  Write("QMTASITR", "* one rule per outcome\nSITNAME=Good DESTNODE=ok:N SCRIPT=job ARG1=NODE ARG2=Disk.Name;\n"
                    "SITNAME=Two DESTNODE=two:N CALLTYPE=4 SCRIPT=job ARG1=SITNAME;\n"
                    "SITNAME=None STATE=ANY DESTNODE=none:N SCRIPT=job;\n"
                    "SITNAME=Off DESTNODE=SYS1:MVS_ACTIONS SCRIPT=job ARG1=CURRSTATE;\n"
                    "SITNAME=Bad DESTNODE=bad:N SCRIPT=job ARG1=PRESTATE;\nSITNAME=Lost DESTNODE=nowhere:N SCRIPT=job ARG1=SITNAME;\n");
  Write("nodes", "# outcomes\nok:* sim rc=0\ntwo:* sim rc=1,2\nnone:* sim norows\nSYS1:MVS_ACTIONS offline\n"
                 "bad:* sim status=106\n");
  const std::string drain = "{\"drain\": true}\n";
  Result result = Run({"--nodes", "nodes", "--trace", "65"},
                      Event(R"("sitname": "Good", "currstate": 1, "attributes": [["Disk.Name", "sda"], ["Disk.Name", "sdb"]])") +
                          drain + Event(R"("sitname": "Two", "currstate": 1)") + drain +
                          Event(R"("sitname": "None", "currstate": 0, "prevstate": -1, "timestamp": "1261116000509000", "threshold": "a\"b")") +
                          drain + Event(R"("sitname": "Off", "currstate": 1)") + drain +
                          Event(R"("sitname": "Bad", "currstate": 1, "prevstate": 2)") + drain +
                          Event(R"("sitname": "Lost", "currstate": 1)") + drain + Event(R"("sitname": "Good", "currstate": 2)") +
                          Event(R"("sitname": "Good", "currstate": 1, "pathhandle": false, "onds": 0)"));
  EXPECT_EQ(result.status, 0);
  auto started = [](const std::string& sit, const std::string& dest, int state, int id, const std::string& cmd) {
    return "QMTA040I ACTION STARTED FOR SITNAME=" + sit + " DESTNODE=" + dest + " STATE=" + std::to_string(state) +
           " REQUESTID=" + std::to_string(id) + "|QMTA041I CMD=" + cmd;
  };
  // Detail trace (level bit 1) adds the path creation message.
  std::string expected = "QMTA029I DBQ1_CreatePath status=0|QMTA093I ACTION ENVIRONMENT INITIALIZE|" +
                         started("Good", "ok:N", 1, 1, "job \"n1\" \"sda\"") +
                         "|QMTA050I ACTION COMPLETED FOR SITNAME=Good DESTNODE=ok:N STATE=1 RC=0 REQUESTID=1|" +
                         started("Two", "two:N", 1, 2, "job \"Two\"") +
                         "|QMTA050I ACTION COMPLETED FOR SITNAME=Two DESTNODE=two:N STATE=1 RC=1 REQUESTID=2"
                         "|QMTA050I ACTION COMPLETED FOR SITNAME=Two DESTNODE=two:N STATE=1 RC=2 REQUESTID=2|" +
                         started("None", "none:N", 0, 3, "job \"None\" \"1261116000509000\" \"-1\" \"0\" \"n1\" \"a'b\"") +
                         "|QMTA051W DESTNODE=none:N OFFLINE FOR SITNAME=None ORIGINNODE=n1 STATE=0 REQUESTID=3|" +
                         started("Off", "SYS1:MVS_ACTIONS", 1, 4, "job \"1\"") +
                         "|QMTA051W DESTNODE=SYS1:MVS_ACTIONS OFFLINE FOR SITNAME=Off ORIGINNODE=n1 STATE=1 REQUESTID=4|" +
                         started("Bad", "bad:N", 1, 5, "job \"2\"") +
                         "|QMTA030E SELECT SQL ERROR ON ASYNCH OPEN COMPLETE STATUS=106|" +
                         started("Lost", "nowhere:N", 1, 6, "job \"Lost\"") +
                         "|QMTA030E SELECT SQL ERROR ON ASYNCH OPEN COMPLETE STATUS=2020|QMTA007E THE PATH HANDLE IS INVALID";
  std::string out;
  for (const std::string& line : result.out) out += (out.empty() ? "" : "|") + line;
  EXPECT_EQ(out, expected);
  // Trace goes to standard error only.
  EXPECT_TRUE(std::any_of(result.err.begin(), result.err.end(),
                          [](const std::string& line) { return line.find("qmtauto1 entry autoexit") != std::string::npos; }));
}

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

// What only the program can get wrong: its files, its module, its help.
// The options themselves: hostinput_test.
TEST_F(Host, FileModuleAndUsageErrors) {
  Write("QMTASITR", "SITNAME=S DESTNODE=N;\n");
  Write("nodes", "a:* sim rc=0\n\nb:* teleport\n");
  const std::string other = std::filesystem::path(QMTA_MODULE_PATH).parent_path() / "libqmtahostsvc.so";
  const std::tuple<std::vector<std::string>, int, std::string> cases[] = {
      {{"--bogus"}, 2, "qmtahost: unknown option \"--bogus\""},
      {{"a", "b"}, 2, "qmtahost: more than one input file (\"b\")"},
      {{"--nodes", "nodes"}, 2, "qmtahost: nodes: line 3: unknown driver \"teleport\""},
      {{"--nodes", "absent"}, 2, "qmtahost: cannot read absent: No such file or directory"},
      {{"absent"}, 2, "qmtahost: cannot open absent: No such file or directory"},
      {{"--dir", "absent"}, 2, "qmtahost: --dir absent: not a directory"},
      {{"--module", "absent.so"}, 1, "qmtahost: cannot load " + dir_.path() + "/absent.so: "},
      {{"--module", "stdin"}, 1, "qmtahost: cannot load " + dir_.path() + "/stdin: "},
      {{"--module", other}, 1, "qmtahost: " + other + " has no entry QMTAUTOX"}};
  for (const auto& [args, status, message] : cases) {
    Result result = Run(args, "DISPLAY\n");
    EXPECT_EQ(result.status, status) << args[0];
    EXPECT_EQ(result.out, Lines{}) << args[0];
    EXPECT_TRUE(!result.err.empty() && result.err[0].starts_with(message)) << testing::PrintToString(result.err);
  }
  Result result = Run({"--help"});
  EXPECT_EQ(result.status, 0);
  for (const char* option : {"--dir", "--nodes", "--actions", "--module", "--server", "--trace", "--no-init",
                             "--command-length", "--help"})
    EXPECT_EQ(std::count_if(result.out.begin(), result.out.end(),
                            [option](const std::string& line) {
                              return line.starts_with(std::string("  ") + option) ||
                                     line.starts_with(std::string("  -h, ") + option);
                            }),
              1)
        << option;
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

}  // namespace
