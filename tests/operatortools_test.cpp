// The operator tools of qmtahost, run as an operator runs them: check,
// explain, the checked reload and --version.
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "host/programs/qmtahost/inputline.h"
#include "host/programs/qmtahost/reload.h"
#include "tests/support/support.h"

namespace {

using Lines = std::vector<std::string>;
using Json = nlohmann::json;

struct Ran {
  int status = -1;
  Lines out, err;
  double seconds = 0;
  bool Said(const std::string& text) const {
    return std::any_of(err.begin(), err.end(),
                       [&](const std::string& line) { return line.find(text) != line.npos; });
  }
};

class Tools : public ::testing::Test {
 protected:
  void Write(const std::string& name, const std::string& content, mode_t mode = 0644) {
    dir.Write(name, content);
    chmod(name.c_str(), mode);
  }
  static std::string Slurp(const std::string& name) {
    std::ifstream in(name, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  // Runs qmtahost in the scratch directory (the current one) through the
  // shell; `words` are plain words, `input` its standard input.
  Ran Host(const std::string& words, const std::string& input = "") {
    Write("in.txt", input);
    std::string command = std::string("exec '") + QMTAHOST_PATH + "' " + words +
                          " <in.txt >out.txt 2>err.txt";
    auto start = std::chrono::steady_clock::now();
    int status = system(command.c_str());
    Ran ran;
    ran.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    ran.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    ran.out = qmtatest::SplitLines(Slurp("out.txt"));
    ran.err = qmtatest::SplitLines(Slurp("err.txt"));
    return ran;
  }
  qmtatest::ScratchDir dir;
};

// What check prints on standard output is what a REFRESH of the same file
// prints, line for line (continuation lines included); the exit status and
// the summary follow from it.
TEST_F(Tools, CheckPrintsWhatARefreshPrintsAndItsStatusFollows) {
  const std::string tricky =
      "* a comment\nSITNAME=S1 DESTNODE=N1 ARG1=SITNAME;\nDESTNODE=N2 STATE=maybe CALLTYPE=100;\n"
      "SITNAME=\"unclosed\nDESTNODE=N3 DESTNODE=N4;\nORIGINNODE=" + std::string(40, 'o') +
      " DESTNODE=N5;\n;\nDESTNODE=N6";
  Write("QMTASITR", tricky);
  Ran refresh = Host("--nodes /dev/null", "REFRESH\n");
  auto first = std::find_if(refresh.out.begin(), refresh.out.end(),
                            [](const std::string& l) { return l.starts_with("QMTA09"); });
  ASSERT_NE(refresh.out.end(), first);
  Lines expected(first + 1, std::find(first, refresh.out.end(), "QMTA090I QMTASITR REFRESHED.  STATUS=0"));
  ASSERT_GT(expected.size(), 6u);
  Ran check = Host("check");
  EXPECT_EQ(expected, check.out);
  EXPECT_EQ(1, check.status);
  EXPECT_EQ(Lines{"qmtahost: check: QMTASITR: 2 rules loaded, 4 entries dropped, 2 warnings"},
            check.err);

  struct Case {
    std::string file, words;
    int status;
    std::string summary;
  };
  const Case cases[] = {
      {"DESTNODE=N1 ARG1=NODE;\n", "", 0, "1 rule loaded, 0 entries dropped, 0 warnings"},
      {"DESTNODE=N1 DESTNODE=N2;\n", "", 0, "1 rule loaded, 0 entries dropped, 1 warning"},
      {"DESTNODE=N1 DESTNODE=N2;\n", "--strict", 3, "1 rule loaded, 0 entries dropped, 1 warning"},
      {"DESTNODE=N1 ARG1=\"-f\";\n", "--strict", 0, "1 rule loaded, 0 entries dropped, 0 warnings"},
      {"DESTNODE=N1 ARG1=-f;\n", "--strict", 3, "1 rule loaded, 0 entries dropped, 1 warning"},
      {"* nothing\n", "", 1, "0 rules loaded, 0 entries dropped, 1 warning"},
      {"DESTNODE=N1;\nSTATE=TRUE;\n", "--strict", 1, "1 rule loaded, 1 entry dropped, 0 warnings"},
  };
  for (const Case& c : cases) {
    Write("rules", c.file);
    Ran ran = Host("check " + c.words + " rules");
    EXPECT_EQ(c.status, ran.status) << c.file << c.words;
    EXPECT_EQ("qmtahost: check: rules: " + c.summary, ran.err.back()) << c.file << c.words;
  }
  EXPECT_EQ(2, Host("check --max-size lots rules").status);
  EXPECT_EQ(2, Host("check --frobnicate rules").status);
  EXPECT_EQ(2, Host("check a b").status);
  EXPECT_EQ(2, Host("check -x rules").status);  // not taken for a file name
  EXPECT_EQ(0, Host("check -h").status);
  // What it found is lost with its output: no success then.
  EXPECT_EQ(1, Host("check --json rules >/dev/full 2>full.txt; :").status);
  EXPECT_NE(std::string::npos, Slurp("full.txt").find("qmtahost: check: cannot write standard output"));
}

TEST_F(Tools, CheckJsonCarriesLinesRulesAndTheHostsWarnings) {
  Write("QMTASITR",
        "DESTNODE=web1:LOCAL SCRIPT=notify ARG1=-f ARG2=/var\n  ARG3=a+b ARG4=\"-q\" "
        "ARG5=Disk.Free_Percent ARG6=web1:LZ;\n"
        "DESTNODE=web2:LOCAL SCRIPT=cleanup;\nDESTNODE=web3:LOCAL SCRIPT=gone;\n"
        "DESTNODE=web4:LOCAL SCRIPT=gone;\nDESTNODE=pager:X SCRIPT=page;\n"
        "DESTNODE=lost:X SCRIPT=notify;\nSITNAME=\"open\n;\n");
  std::filesystem::create_directory("actions");
  Write("actions/notify", "#!/bin/sh\n", 0755);
  Write("actions/cleanup", "#!/bin/sh\n", 0644);
  Write("nodes", "web* local\npager:* sim rc=0\n");
  Ran ran = Host("check --json --actions actions --nodes nodes");
  EXPECT_EQ(1, ran.status);
  Lines messages, warnings, rules;
  Json summary;
  for (const std::string& line : ran.out) {
    Json object = Json::parse(line);
    if (object.contains("summary")) summary = object["summary"];
    else if (object.contains("rule"))
      rules.push_back(std::to_string(object["rule"]["line"].get<int>()) + " " +
                      object["rule"]["destnode"].get<std::string>());
    else
      (object["id"].get<std::string>().starts_with("QMTA") ? messages : warnings)
          .push_back(object["id"].get<std::string>() + " " + object["severity"].get<std::string>() +
                     " " + std::to_string(object["line"].get<int>()));
  }
  EXPECT_EQ((Lines{"QMTA024E E 8", "QMTA022E E 8", "QMTA010E E 9"}), messages);
  EXPECT_EQ((Lines{"literal-argument W 1", "literal-argument W 1", "literal-argument W 2",
                   "missing-program W 3", "missing-program W 4", "unrouted-destination W 7"}),
            warnings);
  EXPECT_EQ((Lines{"1 web1:LOCAL", "3 web2:LOCAL", "4 web3:LOCAL", "5 web4:LOCAL", "6 pager:X",
                   "7 lost:X"}),
            rules);
  EXPECT_EQ((Json{{"file", "QMTASITR"}, {"rules", 6}, {"dropped", 1}, {"warnings", 6}, {"status", 1}}),
            summary);
  EXPECT_EQ(Json::parse(ran.out[1])["text"], "QMTA022E INVALID SYNTAX: SITNAME=\"open\n IN LINE 8");
}

// Anything but a regular rule file of sane size is refused at once, before
// the module reads a byte of it.
TEST_F(Tools, CheckRefusesBadFilesFast) {
  ASSERT_EQ(0, mkfifo("fifo", 0600));
  std::filesystem::create_directory("dir");
  std::filesystem::create_symlink("/dev/zero", "zero");
  Write("nul", "DESTNODE=N1;\n" + std::string(100000, 'x') + std::string(1, '\0') + ";\n");
  Write("big", "DESTNODE=N1;\n");
  ASSERT_EQ(0, truncate("big", off_t{1} << 30));
  Write("small", "DESTNODE=N1;\n");
  const std::pair<std::string, std::string> cases[] = {
      {"fifo", "a FIFO, not a regular file"},
      {"dir", "a directory, not a regular file"},
      {"zero", "a character device, not a regular file"},
      {"nul", "a NUL byte at offset 100013"},
      {"big", "1073741824 bytes, more than the limit of 67108864"},
      {"--max-size 12 small", "13 bytes, more than the limit of 12"},
      {"missing", "cannot open it: No such file or directory"},
  };
  for (const auto& [words, reason] : cases) {
    Ran ran = Host("check " + words);
    EXPECT_EQ(1, ran.status) << words;
    EXPECT_LT(ran.seconds, 2.0) << words;
    EXPECT_TRUE(ran.Said(reason)) << words << ": " << (ran.err.empty() ? "" : ran.err[0]);
    EXPECT_TRUE(ran.out.empty()) << words;
  }
}

// explain prints the very commands that a run sends (request ids aside),
// with the destination line and driver that take each.
TEST_F(Tools, ExplainShowsTheCommandsARunSends) {
  Write("QMTASITR", Slurp(std::string(QMTA_SOURCE_DIR) + "/examples/QMTASITR"));
  Write("nodes", "ops:* sim rc=0\n* sim rc=0\n");
  const std::string events =
      "{\"sitname\": \"Disk_Low\", \"originnode\": \"web1:LZ\", \"currstate\": 1, \"timestamp\": "
      "\"1250101120000000\", \"attributes\": [[\"Disk.Mount_Point\", \"/v\\\"ar\"], "
      "[\"Disk.Free_Percent\", \"4\"]]}\n"
      "{\"sitname\": \"CPU_Critical\", \"originnode\": \"app7:LZ\", \"currstate\": 1, "
      "\"timestamp\": \"1250101120000000\", \"threshold\": \"CPU.Busy>95\"}\n"
      "{\"sitname\": \"Process_Down\", \"originnode\": \"db1:NT\", \"currstate\": 2}\n"
      "{\"sitname\": \"Quiet\", \"originnode\": \"x\", \"currstate\": 1}\n";
  Ran run = Host("--nodes nodes", events + "{\"drain\": true}\n");
  Lines sent;
  for (const std::string& line : run.out)
    if (line.starts_with("QMTA041I CMD=")) sent.push_back(line.substr(13));
  ASSERT_EQ(6u, sent.size());
  Ran explained = Host("explain --nodes nodes -", events);
  EXPECT_EQ(0, explained.status);
  Lines shown;
  for (const std::string& line : explained.out)
    if (line.starts_with("    command: ")) shown.push_back(line.substr(13));
  std::sort(sent.begin(), sent.end());
  std::sort(shown.begin(), shown.end());
  EXPECT_EQ(sent, shown);
  const Lines& out = explained.out;
  EXPECT_NE(out.end(), std::find(out.begin(), out.end(),
                                 "    to ops:LOCAL CALLTYPE=0: nodes line 1 \"ops:* sim rc=0\", driver sim"));
  EXPECT_NE(out.end(), std::find(out.begin(), out.end(), "  rule at line 13: SITNAME=Disk_* ORIGINNODE=web* STATE=TRUE"));
  EXPECT_EQ("  no rule matches", out.back());
  // An event that the host's intake refuses would run nothing.
  Ran forged = Host("explain -", "{\"sitname\": \"Disk_Low\", \"originnode\": \"web1:LZ\\\" \\\"/etc\", "
                                 "\"currstate\": 1}\n");
  EXPECT_EQ(1, forged.status);
  EXPECT_EQ(Lines{"event 1: refused at intake: \"originnode\" holds a double quote; nothing would run"},
            forged.out);
  EXPECT_EQ(1, Host("explain '{\"sitname\": 1}'").status);
  EXPECT_EQ(2, Host("explain").status);
}

// A reload that would drop an entry keeps the running rules; "force"
// loads whatever is there; the module's own commands are untouched.
TEST_F(Tools, CheckedReloadKeepsTheTableUnlessTheFileIsGoodOrForced) {
  Write("QMTASITR", "SITNAME=Swap DESTNODE=me:LOCAL SCRIPT=swap;\n");
  Write("bad", "DESTNODE=NEW;\nDESTNODE=N2 STATE=maybe;\n");
  std::filesystem::create_directory("actions");
  Write("actions/swap", "#!/bin/sh\ncp bad QMTASITR\n", 0755);
  Ran ran = Host("--dir .",
                 "{\"sitname\": \"Swap\", \"originnode\": \"n\", \"currstate\": 1}\n"
                 "{\"drain\": true}\n{\"reload\": true}\nDISPLAY\n"
                 "{\"reload\": true, \"force\": true}\nDISPLAY\nreload\n");
  Lines tables;
  for (const std::string& line : ran.out)
    if (line.starts_with("QMTA096I") || line.starts_with("QMTA090I") || line.starts_with("QMTA011E"))
      tables.push_back(line);
  EXPECT_EQ((Lines{"QMTA096I    DESTNODE=me:LOCAL CALLTYPE=0 SCRIPT=swap",
                   "QMTA090I QMTASITR REFRESHED.  STATUS=0",
                   "QMTA096I    DESTNODE=NEW CALLTYPE=0 SCRIPT=*",
                   "QMTA011E INVALID QMTASITR PARM=reload"}),
            tables);
  EXPECT_TRUE(ran.Said("qmtahost: reload refused: QMTASITR would drop 1 entry (first: QMTA021E "
                       "INVALID VALUE FOR STATE=maybe IN LINE 2); the running rules stay"));
  EXPECT_TRUE(ran.Said("qmtahost: reload: forced: not checked; REFRESH sent"));

  for (const auto& [text, reason] : std::vector<std::pair<std::string, std::string>>{
           {R"({"reload": false})", "\"reload\" must be true"},
           {R"({"reload": true, "force": 1})", "\"force\" must be true or false"},
           {R"({"reload": true, "sitname": "S"})", "\"reload\" takes no field \"sitname\""}})
    EXPECT_EQ(reason, qmta::hostprog::ParseInputLine(text).text) << text;
  EXPECT_TRUE(qmta::hostprog::ParseInputLine(R"({"force": true, "reload": true})").force);

  // The function a control socket or SIGHUP would call.
  qmta::hostprog::ReloadSettings settings;
  settings.program = QMTAHOST_PATH;
  int refreshes = 0;
  auto reload = [&](bool force) {
    return qmta::hostprog::CheckedReload(force, [&] { ++refreshes; }, settings);
  };
  Write("QMTASITR", "DESTNODE=N1 ARG1=-x;\n");
  EXPECT_TRUE(reload(false).refreshed);
  EXPECT_EQ("checked: 1 rules, 1 warnings", reload(false).reason);
  unlink("QMTASITR");
  EXPECT_EQ("QMTASITR: cannot open it: No such file or directory", reload(false).reason);
  ASSERT_EQ(0, mkfifo("QMTASITR", 0600));
  EXPECT_EQ("QMTASITR: a FIFO, not a regular file", reload(false).reason);
  EXPECT_TRUE(reload(true).refreshed);
  EXPECT_EQ(3, refreshes);
}

TEST_F(Tools, VersionAndHelp) {
  EXPECT_EQ(Lines{std::string("qmtahost ") + QMTA_PROJECT_VERSION}, Host("--version").out);
#ifdef QMTAAGENT_PATH
  EXPECT_EQ(0, system((std::string("'") + QMTAAGENT_PATH + "' --version >agent.txt").c_str()));
  EXPECT_EQ(std::string("qmtaagent ") + QMTA_PROJECT_VERSION + "\n", Slurp("agent.txt"));
#endif
  Lines help = Host("--help").out;
  for (const char* word : {"qmtahost check", "qmtahost explain", "{\"reload\": true}"})
    EXPECT_TRUE(std::any_of(help.begin(), help.end(),
                            [&](const std::string& l) { return l.find(word) != l.npos; }))
        << word;
}

}  // namespace
