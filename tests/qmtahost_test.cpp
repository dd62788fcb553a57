// qmtahost run as a user runs it: files in a scratch directory, standard
// output compared line by line, standard error searched.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <thread>

#include <gtest/gtest.h>

#include "tests/support/support.h"

extern char** environ;

namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

struct Result {
  int status = -1;  // exit status, or -1 when it did not exit in time
  Lines out;
  Lines err;
  bool Said(const std::string& line) const {
    return std::find(err.begin(), err.end(), line) != err.end();
  }
};

class Host : public ::testing::Test {
 protected:
  void Write(const std::string& name, const std::string& content, mode_t mode = 0644) {
    dir_.Write(name, content);
    chmod((dir_.path() + "/" + name).c_str(), mode);
  }
  std::string Read(const std::string& name) {
    std::ifstream in(dir_.path() + "/" + name, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  void Action(const std::string& name, const std::string& body) {
    std::filesystem::create_directories(dir_.path() + "/actions");
    Write("actions/" + name, "#!/bin/sh\n" + body + "\n", 0755);
  }

  // Runs qmtahost with `args` in the scratch directory, `input` as its
  // standard input.
  Result Run(const std::vector<std::string>& args, const std::string& input = "") {
    Write("stdin", input);
    std::vector<std::string> words = {QMTAHOST_PATH};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, 0, "stdin", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&files, 1, "stdout", O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&files, 2, "stderr", O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid;
    Result result;
    int failed = posix_spawn(&pid, argv[0], &files, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&files);
    if (failed) {
      ADD_FAILURE() << "cannot run " << argv[0];
      return result;
    }
    int status = 0;
    auto limit = std::chrono::steady_clock::now() + 60s;
    while (waitpid(pid, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > limit) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        ADD_FAILURE() << "qmtahost did not end";
        status = -1;
        break;
      }
      std::this_thread::sleep_for(5ms);
    }
    if (status != -1 && WIFEXITED(status)) result.status = WEXITSTATUS(status);
    result.out = qmtatest::SplitLines(Read("stdout"));
    result.err = qmtatest::SplitLines(Read("stderr"));
    // A host that ran ends with its summary line; the tests compare the rest.
    if (!result.err.empty() && result.err.back().starts_with("qmtahost: stopped: "))
      result.err.pop_back();
    return result;
  }

  qmtatest::ScratchDir dir_;
};

const char kSimRules[] =
    "* one rule per outcome\n"
    "SITNAME=Good DESTNODE=ok:N SCRIPT=job ARG1=NODE ARG2=Disk.Name;\n"
    "SITNAME=Two DESTNODE=two:N CALLTYPE=4 SCRIPT=job ARG1=SITNAME;\n"
    "SITNAME=None STATE=ANY DESTNODE=none:N SCRIPT=job;\n"
    "SITNAME=Off DESTNODE=SYS1:MVS_ACTIONS SCRIPT=job ARG1=CURRSTATE;\n"
    "SITNAME=Bad DESTNODE=bad:N SCRIPT=job ARG1=PRESTATE;\n"
    "SITNAME=Lost DESTNODE=nowhere:N SCRIPT=job ARG1=SITNAME;\n";
const char kSimNodes[] =
    "# outcomes\nok:* sim rc=0\ntwo:* sim rc=1,2\nnone:* sim norows\n"
    "SYS1:MVS_ACTIONS offline\nbad:* sim status=106\n";

TEST_F(Host, EventsWithEveryOutcomeThroughSim) {
  Write("QMTASITR", kSimRules);
  Write("nodes", kSimNodes);
  const std::string input =
      R"({"sitname": "Good", "originnode": "n1", "currstate": 1, "attributes": [["Disk.Name", "sda"], ["Disk.Name", "sdb"]]})"
      "\n{\"drain\": true}\n"
      R"({"sitname": "Two", "originnode": "n1", "currstate": 1})"
      "\n{\"drain\": true}\n"
      R"({"sitname": "None", "originnode": "n2", "currstate": 0, "prevstate": -1, "timestamp": "1261116000509000", "threshold": "a\"b"})"
      "\n{\"drain\": true}\n"
      R"({"sitname": "Off", "originnode": "n1", "currstate": 1})"
      "\n{\"drain\": true}\n"
      R"({"sitname": "Bad", "originnode": "n1", "currstate": 1, "prevstate": 2})"
      "\n{\"drain\": true}\n"
      R"({"sitname": "Lost", "originnode": "n1", "currstate": 1})"
      "\n{\"drain\": true}\n"
      R"({"sitname": "Good", "originnode": "n1", "currstate": 2})"
      "\n"
      R"({"sitname": "Good", "originnode": "n1", "currstate": 1, "pathhandle": false, "onds": 0})"
      "\n";
  Result result = Run({"--nodes", "nodes", "--trace", "65"}, input);
  EXPECT_EQ(result.status, 0);
  auto started = [](const std::string& sit, const std::string& dest, int state, int id,
                    const std::string& cmd) {
    std::string tail = " STATE=" + std::to_string(state) + " REQUESTID=" + std::to_string(id);
    return Lines{"QMTA040I ACTION STARTED FOR SITNAME=" + sit + " DESTNODE=" + dest + tail,
                 "QMTA041I CMD=" + cmd};
  };
  // Detail trace (level bit 1) adds the path creation message.
  Lines expected = {"QMTA029I DBQ1_CreatePath status=0", "QMTA093I ACTION ENVIRONMENT INITIALIZE"};
  auto add = [&expected](const Lines& lines) {
    expected.insert(expected.end(), lines.begin(), lines.end());
  };
  add(started("Good", "ok:N", 1, 1, "job \"n1\" \"sda\""));
  add({"QMTA050I ACTION COMPLETED FOR SITNAME=Good DESTNODE=ok:N STATE=1 RC=0 REQUESTID=1"});
  add(started("Two", "two:N", 1, 2, "job \"Two\""));
  add({"QMTA050I ACTION COMPLETED FOR SITNAME=Two DESTNODE=two:N STATE=1 RC=1 REQUESTID=2",
       "QMTA050I ACTION COMPLETED FOR SITNAME=Two DESTNODE=two:N STATE=1 RC=2 REQUESTID=2"});
  add(started("None", "none:N", 0, 3,
              "job \"None\" \"1261116000509000\" \"-1\" \"0\" \"n2\" \"a'b\""));
  add({"QMTA051W DESTNODE=none:N OFFLINE FOR SITNAME=None ORIGINNODE=n2 STATE=0 REQUESTID=3"});
  add(started("Off", "SYS1:MVS_ACTIONS", 1, 4, "job \"1\""));
  add({"QMTA051W DESTNODE=SYS1:MVS_ACTIONS OFFLINE FOR SITNAME=Off ORIGINNODE=n1 STATE=1 "
       "REQUESTID=4"});
  add(started("Bad", "bad:N", 1, 5, "job \"2\""));
  add({"QMTA030E SELECT SQL ERROR ON ASYNCH OPEN COMPLETE STATUS=106"});
  add(started("Lost", "nowhere:N", 1, 6, "job \"Lost\""));
  add({"QMTA030E SELECT SQL ERROR ON ASYNCH OPEN COMPLETE STATUS=2020",
       "QMTA007E THE PATH HANDLE IS INVALID"});
  EXPECT_EQ(result.out, expected);
  // Trace goes to standard error only.
  EXPECT_TRUE(std::any_of(result.err.begin(), result.err.end(), [](const std::string& line) {
    return line.find("qmtauto1 entry autoexit") != std::string::npos;
  }));
}

TEST_F(Host, OperatorCommandsAndARefreshAfterTheRuleFileChanged) {
  Write("QMTASITR",
        "SITNAME=Swap DESTNODE=here SCRIPT=swap ARG1=TIMESTAMP;\n"
        "SITNAME=TestSituation DESTNODE=sim:N SCRIPT=t ARG1=Test_Object.Test_Attrib2;\n");
  Write("QMTASITR.new", "SITNAME=New* ORIGINNODE=*x STATE=FALSE DESTNODE=sim:N SCRIPT=n\n"
                        "  ARG1=\"quoted\" ARG3=THRESHOLD;\n");
  Write("nodes", "here local\nsim:* sim rc=7\n");
  Action("swap", "mv QMTASITR.new QMTASITR");
  Result result = Run({"--nodes", "nodes", "-"},
                      "DISPLAY\nTESTSIT\n{\"drain\": true}\n"
                      "{\"sitname\": \"Swap\", \"originnode\": \"o\", \"currstate\": 1}\n"
                      "{\"drain\": true}\n \tREFRESH now\nDISPLAY\nrefresh\nTESTSIT\n");
  EXPECT_EQ(result.status, 0);
  ASSERT_EQ(result.out.size(), 26u);
  // The test event's messages come from two threads: sorted, they are in
  // the order of their numbers.
  std::sort(result.out.begin() + 9, result.out.begin() + 13);
  // An event without a timestamp gets the current local time.
  EXPECT_TRUE(std::regex_match(result.out[14], std::regex("QMTA041I CMD=swap \"1[0-9]{15}\"")))
      << result.out[14];
  result.out[14] = "(timestamp)";
  EXPECT_EQ(result.out, (Lines{
      "QMTA093I ACTION ENVIRONMENT INITIALIZE",
      "QMTA094I QMTASITR LOOKUP TABLE:",
      "QMTA095I IF SITNAME=Swap AND ORIGINNODE=* AND STATE=TRUE THEN",
      "QMTA096I    DESTNODE=here CALLTYPE=0 SCRIPT=swap",
      "QMTA097I       ARG1=TIMESTAMP",
      "QMTA095I IF SITNAME=TestSituation AND ORIGINNODE=* AND STATE=TRUE THEN",
      "QMTA096I    DESTNODE=sim:N CALLTYPE=0 SCRIPT=t",
      "QMTA097I       ARG1=Test_Object.Test_Attrib2",
      "QMTA100I STACK SIZES:  VX=0/0 RM=0/0 SNMP=0/0",
      "QMTA040I ACTION STARTED FOR SITNAME=TestSituation DESTNODE=sim:N STATE=1 REQUESTID=1",
      "QMTA041I CMD=t \"Test_Value2\"",
      "QMTA050I ACTION COMPLETED FOR SITNAME=TestSituation DESTNODE=sim:N STATE=1 RC=7 "
      "REQUESTID=1",
      "QMTA091I TESTSIT INVOKED.  STATUS=0",
      "QMTA040I ACTION STARTED FOR SITNAME=Swap DESTNODE=here STATE=1 REQUESTID=2",
      "(timestamp)",
      "QMTA050I ACTION COMPLETED FOR SITNAME=Swap DESTNODE=here STATE=1 RC=0 REQUESTID=2",
      "QMTA090I QMTASITR REFRESHED.  STATUS=0",
      "QMTA094I QMTASITR LOOKUP TABLE:",
      "QMTA095I IF SITNAME=New* AND ORIGINNODE=*x AND STATE=FALSE THEN",
      "QMTA096I    DESTNODE=sim:N CALLTYPE=0 SCRIPT=n",
      "QMTA097I       ARG1=\"quoted\"",
      "QMTA097I       ARG2=",
      "QMTA097I       ARG3=THRESHOLD",
      "QMTA100I STACK SIZES:  VX=0/0 RM=1/1 SNMP=0/0",
      "QMTA011E INVALID QMTASITR PARM=refresh",
      "QMTA091I TESTSIT INVOKED.  STATUS=0"}));
}

// The rule file as an editor can leave it: a quote never closed (the
// message carries the line end and so runs over two lines), then a named
// pipe in its place, which must not hold the load (nor the table lock).
TEST_F(Host, UnclosedQuoteAndARuleFileThatIsNotARegularFile) {
  Write("QMTASITR", "DESTNODE=sim:N;\r\nSITNAME=\"abc\r\n;\n");
  Result result = Run({"-"}, "REFRESH\n");
  EXPECT_EQ(result.out, (Lines{
      "QMTA024E ENDING QUOTE FOR TAG VALUE NOT FOUND IN LINE 2",
      "QMTA022E INVALID SYNTAX: SITNAME=\"abc\r", " IN LINE 2",
      "QMTA010E DESTNODE NOT SPECIFIED IN LINE 3 NEAR \"SITNAME=\"abc\r", "\"",
      "QMTA093I ACTION ENVIRONMENT INITIALIZE",
      "QMTA024E ENDING QUOTE FOR TAG VALUE NOT FOUND IN LINE 2",
      "QMTA022E INVALID SYNTAX: SITNAME=\"abc\r", " IN LINE 2",
      "QMTA010E DESTNODE NOT SPECIFIED IN LINE 3 NEAR \"SITNAME=\"abc\r", "\"",
      "QMTA090I QMTASITR REFRESHED.  STATUS=0"}));
  std::filesystem::remove(dir_.path() + "/QMTASITR");
  ASSERT_EQ(0, mkfifo((dir_.path() + "/QMTASITR").c_str(), 0600));
  auto start = std::chrono::steady_clock::now();
  result = Run({"-"}, "REFRESH\n");
  EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
  EXPECT_EQ(result.out, (Lines{"QMTA009W QMTASITR COULD NOT BE OPENED",
                               "QMTA092I ACTIONS HAVE BEEN DISABLED",
                               "QMTA009W QMTASITR COULD NOT BE OPENED",
                               "QMTA090I QMTASITR REFRESHED.  STATUS=-9"}));
}

TEST_F(Host, MalformedLinesAreReportedAndSkipped) {
  Write("QMTASITR", "SITNAME=S DESTNODE=sim:N SCRIPT=j ARG1=a;\n");
  Write("nodes", "* sim rc=0\n");
  std::string input =
      "# a comment\n"
      "\n"
      "{\"sitname\": \"S\", \"originnode\": \"n\"\n"
      "{\"sitname\": \"S\", \"originnode\": \"n\", \"currstate\": 4294967297}\n"
      "{\"sitname\": \"S\", \"originnode\": \"n\", \"currstate\": 1e400}\n"
      "DISPLAY?junk\n"
      "{\"sitname\": \"S\", \"originnode\": \"n\", \"currstate\": 1, \"attributes\": [[\"a\", \"v\"]]}\r\n";
  input[input.find('?')] = '\0';
  Result result = Run({"--nodes", "nodes", "--no-init", "stdin"}, input);
  EXPECT_EQ(result.status, 0);
  // Without the start-up call, the first event initialises the module.
  EXPECT_EQ(result.out, (Lines{
      "QMTA093I ACTION ENVIRONMENT INITIALIZE",
      "QMTA040I ACTION STARTED FOR SITNAME=S DESTNODE=sim:N STATE=1 REQUESTID=1",
      "QMTA041I CMD=j \"v\"",
      "QMTA050I ACTION COMPLETED FOR SITNAME=S DESTNODE=sim:N STATE=1 RC=0 REQUESTID=1"}));
  ASSERT_EQ(result.err.size(), 4u);
  EXPECT_TRUE(result.err[0].starts_with("qmtahost: line 3: bad JSON: ")) << result.err[0];
  EXPECT_EQ(result.err[1], "qmtahost: line 4: \"currstate\" is out of 32-bit range");
  // A number no double holds ends that line only, not the program.
  EXPECT_EQ(result.err[2], "qmtahost: line 5: bad JSON: number overflow parsing '1e400'");
  EXPECT_EQ(result.err[3], "qmtahost: line 6: NUL character in the line");
}

TEST_F(Host, LongLinesAreCutAndReportedAndAFinalLineNeedsNoEnd) {
  Write("QMTASITR", "SITNAME=S DESTNODE=sim:N SCRIPT=j ARG1=NODE;\n");
  Write("nodes", "* sim rc=0\n");
  // A line of 1 MiB and a little more spans many reads; so does the good
  // line right after it when the reads fall that way.
  std::string input = "{\"sitname\": \"" + std::string((1 << 20) + 10, 'x') + "\"}\n";
  input += "{\"sitname\": \"S\", \"originnode\": \"after\", \"currstate\": 1}\n";
  input += "\r\n{\"sitname\": \"S\", \"originnode\": \"last\", \"currstate\": 1}";
  Result result = Run({"--nodes", "nodes", "-"}, input);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, (Lines{"qmtahost: line 1: line too long"}));
  std::sort(result.out.begin(), result.out.end());
  EXPECT_EQ(result.out, (Lines{
      "QMTA040I ACTION STARTED FOR SITNAME=S DESTNODE=sim:N STATE=1 REQUESTID=1",
      "QMTA040I ACTION STARTED FOR SITNAME=S DESTNODE=sim:N STATE=1 REQUESTID=2",
      "QMTA041I CMD=j \"after\"",
      "QMTA041I CMD=j \"last\"",
      "QMTA050I ACTION COMPLETED FOR SITNAME=S DESTNODE=sim:N STATE=1 RC=0 REQUESTID=1",
      "QMTA050I ACTION COMPLETED FOR SITNAME=S DESTNODE=sim:N STATE=1 RC=0 REQUESTID=2",
      "QMTA093I ACTION ENVIRONMENT INITIALIZE"}));
}

TEST_F(Host, UsageAndModuleErrors) {
  Write("QMTASITR", "SITNAME=S DESTNODE=N;\n");
  Write("nodes", "a:* sim rc=0\n\nb:* teleport\n");
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string message;
  };
  const Case cases[] = {
      {{"--bogus"}, 2, "qmtahost: unknown option \"--bogus\""},
      {{"--trace", "x"}, 2, "qmtahost: --trace: bad level \"x\""},
      {{"a", "b"}, 2, "qmtahost: more than one input file (\"b\")"},
      {{"--nodes", "nodes"}, 2, "qmtahost: nodes: line 3: unknown driver \"teleport\""},
      {{"--nodes", "absent"}, 2, "qmtahost: cannot read absent: No such file or directory"},
      {{"absent"}, 2, "qmtahost: cannot open absent: No such file or directory"},
      {{"--dir", "absent"}, 2, "qmtahost: --dir absent: not a directory"},
      {{"--module", "absent.so"}, 1, "qmtahost: cannot load " + dir_.path() + "/absent.so: "},
      {{"--module", "stdin"}, 1, "qmtahost: cannot load " + dir_.path() + "/stdin: "},
  };
  for (const Case& c : cases) {
    Result result = Run(c.args, "DISPLAY\n");
    EXPECT_EQ(result.status, c.status) << c.args[0];
    EXPECT_EQ(result.out, Lines{}) << c.args[0];
    ASSERT_FALSE(result.err.empty()) << c.args[0];
    EXPECT_TRUE(result.err[0].starts_with(c.message)) << result.err[0];
  }
  // A shared library without the module's entries.
  std::filesystem::path other = std::filesystem::path(QMTA_MODULE_PATH).parent_path() /
                                "libqmtahostsvc.so";
  Result result = Run({"--module", other.string()});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, Lines{"qmtahost: " + other.string() + " has no entry QMTAUTOX"});

  result = Run({"--help"});
  EXPECT_EQ(result.status, 0);
  for (const char* option : {"--dir", "--nodes", "--actions", "--module", "--server", "--trace",
                             "--no-init", "--command-length", "--help"})
    EXPECT_EQ(std::count_if(result.out.begin(), result.out.end(),
                            [option](const std::string& line) {
                              return line.starts_with(std::string("  ") + option) ||
                                     line.starts_with(std::string("  -h, ") + option);
                            }),
              1)
        << option;
}

TEST_F(Host, LocalActionsGetPlainArgumentsAndEveryEnding) {
  Write("QMTASITR",
        "SITNAME=Args DESTNODE=node:A CALLTYPE=9 SCRIPT=args ARG1=a ARG2=b ARG3=c ARG4=d ARG5=e;\n"
        "SITNAME=Fail DESTNODE=node:A SCRIPT=fail;\n"
        "SITNAME=Gone DESTNODE=node:A SCRIPT=nothere;\n"
        "SITNAME=Shell DESTNODE=node:A SCRIPT=/bin/sh ARG1=\"-c\" ARG2=a;\n"
        "SITNAME=Hang DESTNODE=node:A SCRIPT=hang;\n");
  Action("args", "printf '%s\\0' \"$@\" > argv.$QMTA_REQUESTID\n"
                 "echo \"$QMTA_REQUESTID $QMTA_CALLTYPE $QMTA_NODE $PATH\"");
  Action("fail", "echo failing >&2\nexit 3");
  Action("hang", "sleep 30");
  const std::string longValue(480, 'L');
  const std::string input =
      R"({"sitname": "Args", "originnode": "o", "currstate": 1, "attributes": )"
      R"j([["a", "$(touch x)"], ["b", "`touch y`; touch z"], ["c", "../../x \"q\""], )j"
      R"(["d", ""], ["e", ")" + longValue + R"("]]})" "\n"
      R"({"sitname": "Fail", "originnode": "o", "currstate": 1})" "\n"
      R"({"sitname": "Gone", "originnode": "o", "currstate": 1})" "\n"
      R"({"sitname": "Shell", "originnode": "o", "currstate": 1, "attributes": [["a", "touch x"]]})" "\n"
      R"({"sitname": "Hang", "originnode": "o", "currstate": 1})" "\n";
  Write("nodes", "node:* local timeout=1\n");
  auto begin = std::chrono::steady_clock::now();
  Result result = Run({"--nodes", "nodes"}, input);
  EXPECT_EQ(result.status, 0);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 10s);

  EXPECT_EQ(Read("argv.1"), std::string("$(touch x)") + '\0' + "`touch y`; touch z" + '\0' +
                                "../../x 'q'" + '\0' + '\0' + longValue + '\0');
  for (const char* file : {"x", "y", "z", "actions/x"})
    EXPECT_FALSE(std::filesystem::exists(dir_.path() + "/" + file)) << file;

  Lines ends;
  for (const std::string& line : result.out)
    if (line.starts_with("QMTA050I")) ends.push_back(line);
  std::sort(ends.begin(), ends.end(), [](const std::string& a, const std::string& b) {
    return a.substr(a.find("REQUESTID=")) < b.substr(b.find("REQUESTID="));
  });
  const std::string tail = " DESTNODE=node:A STATE=1 RC=";
  EXPECT_EQ(ends, (Lines{"QMTA050I ACTION COMPLETED FOR SITNAME=Args" + tail + "0 REQUESTID=1",
                         "QMTA050I ACTION COMPLETED FOR SITNAME=Fail" + tail + "3 REQUESTID=2",
                         "QMTA050I ACTION COMPLETED FOR SITNAME=Gone" + tail + "127 REQUESTID=3",
                         "QMTA050I ACTION COMPLETED FOR SITNAME=Shell" + tail + "127 REQUESTID=4",
                         "QMTA050I ACTION COMPLETED FOR SITNAME=Hang" + tail + "143 REQUESTID=5"}));
  EXPECT_TRUE(result.Said("[1] 1 9 node:A /usr/bin:/bin"));
  EXPECT_TRUE(result.Said("[2] failing"));
  EXPECT_TRUE(result.Said("[3] no action program \"nothere\" in " + dir_.path() +
                          "/actions: No such file or directory"));
  EXPECT_TRUE(result.Said("[4] refused program name \"/bin/sh\": only plain names of " +
                          dir_.path() + "/actions are run"));
  EXPECT_TRUE(result.Said("[5] timed out after 1 s; ending the program"));
  for (const std::string& line : result.out)
    EXPECT_TRUE(line.starts_with("QMTA")) << line;
}

TEST_F(Host, PercentSignsAnywhereAreText) {
  Write("QMTASITR",
        "SITNAME=%n* DESTNODE=node:%n SCRIPT=args ARG1=SITNAME ARG2=NODE ARG3=%n%s ARG4=a "
        "ARG5=THRESHOLD;\n");
  Action("args", "printf '%s\\0' \"$@\" > argv.$QMTA_REQUESTID\necho \"$1\"");
  Write("nodes", "node:* local\n");
  const std::string input =
      "%n\n"
      "REFRESH%n%s\n"
      R"({"sitname": "%n%s", "originnode": "%x%n", "currstate": 1, )"
      R"("attributes": [["a", "%n%n%n"]], "threshold": "%s%p"})" "\n"
      R"({"drain": true})" "\n"
      "DISPLAY %n\n";
  Result result = Run({"--nodes", "nodes"}, input);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out,
            (Lines{"QMTA093I ACTION ENVIRONMENT INITIALIZE",
                   "QMTA011E INVALID QMTASITR PARM=%n",
                   "QMTA090I QMTASITR REFRESHED.  STATUS=0",
                   "QMTA040I ACTION STARTED FOR SITNAME=%n%s DESTNODE=node:%n STATE=1 REQUESTID=1",
                   "QMTA041I CMD=args \"%n%s\" \"%x%n\" \"%n%s\" \"%n%n%n\" \"%s%p\"",
                   "QMTA050I ACTION COMPLETED FOR SITNAME=%n%s DESTNODE=node:%n STATE=1 RC=0 "
                   "REQUESTID=1",
                   "QMTA094I QMTASITR LOOKUP TABLE:",
                   "QMTA095I IF SITNAME=%n* AND ORIGINNODE=* AND STATE=TRUE THEN",
                   "QMTA096I    DESTNODE=node:%n CALLTYPE=0 SCRIPT=args",
                   "QMTA097I       ARG1=SITNAME",
                   "QMTA097I       ARG2=NODE",
                   "QMTA097I       ARG3=%n%s",
                   "QMTA097I       ARG4=a",
                   "QMTA097I       ARG5=THRESHOLD",
                   "QMTA100I STACK SIZES:  VX=0/0 RM=1/1 SNMP=0/0"}));
  EXPECT_EQ(Read("argv.1"), std::string("%n%s") + '\0' + "%x%n" + '\0' + "%n%s" + '\0' +
                                "%n%n%n" + '\0' + "%s%p" + '\0');
  EXPECT_TRUE(result.Said("[1] %n%s"));
}

}  // namespace
