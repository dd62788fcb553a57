// The rule file: the tokenizer's tags, values, quotes, line numbers and
// lines longer than its buffer; every tag's accepted and rejected values
// with their whole messages; and loading the table: file order, missing
// and irregular files, a reload against searches. Files no editor makes:
// the rules fuzz target.
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <tuple>

#include <gtest/gtest.h>

#include "qmtauto1/qmtafault.h"
#include "qmtauto1/qmtauto1.h"
#include "qmtauto1/rulefile.h"
#include "tests/support/support.h"

namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;
// A file, what it yields, the messages printed on the way.
using Cases = std::vector<std::tuple<std::string, Lines, Lines>>;

// "DEST|SIT|ORIG|state|calltype|script|" then each argument slot up to the
// last one set as [text], or ~ for a null slot below it.
std::string Render(const TableEntry& e) {
  std::string text = std::string(e.destnode) + "|" + e.sitname + "|" + e.originnode + "|" + std::to_string(e.state) +
                     "|" + std::to_string(e.calltype) + "|" + e.script + "|";
  int last = kArgCount;
  while (last > 0 && !e.args[last - 1]) --last;
  for (int i = 0; i < last; ++i) text += e.args[i] ? "[" + std::string(e.args[i]) + "]" : "~";
  return text;
}

// Runs `read` on each case's file, opened as the rule file.
void Check(const Cases& cases, const std::function<Lines(FILE*)>& read) {
  for (const auto& [file, expected, messages] : cases) {
    SCOPED_TRACE(file);
    qmtatest::ScratchDir dir;
    qmtatest::StdoutCapture out;
    dir.Write("QMTASITR", file);
    FILE* in = fopen("QMTASITR", "r");
    qmta::rules::restarttokenizer();
    qmta::rules::restartparser();
    EXPECT_EQ(expected, read(in));
    fclose(in);
    EXPECT_EQ(messages, out.TakeLines());
  }
}

// Every "tag|value|line" up to the end of the file.
Lines Tags(FILE* in) {
  Lines got;
  char* value = nullptr;
  for (int32_t line = -1, tag = 0; tag != 100 && got.size() < 1000;) {
    tag = getnexttag(in, &value, &line);
    got.push_back(std::to_string(tag) + "|" + value + "|" + std::to_string(line));
  }
  return got;
}

// Every good entry.
Lines Entries(FILE* in) {
  Lines got;
  TableEntry entry;
  while (readnextentry(in, &entry) == 0) {
    EXPECT_EQ(0, memcmp(entry.eyecatcher, "TBEN", 4));
    got.push_back(Render(entry));
    freeentryargs(&entry);
  }
  EXPECT_EQ("|*|*|1|0|*|", Render(entry)) << "the end leaves the defaults";
  return got;
}

TEST(RuleFile, TagsValuesQuotesLinesAndLongLines) {
  const std::string x508(508, 'x'), x87(87, 'x');
  Check({{"SITNAME=A;DESTNODE=B;\n", {"1|A|1", "0|SITNAME=A|1", "4|B|1", "0|DESTNODE=B|1", "100||1"}, {}},
         {"SITNAME =A sitname=A bad;", {"101|SITNAME|1", "101|=A|1", "101|sitname=A|1", "101|bad|1", "0|bad|1", "100||1"}, {}},
         {"SITNAME=;ORIGINNODE=\tSTATE=x\fCALLTYPE=1\vSCRIPT=s\rSUBAGENT=u ARG1=a ARG9=i ARG10=j",
          {"1||1", "0|SITNAME=|1", "2||1", "3|x|1", "5|1|1", "6|s|1", "7|u|1", "8|a|1", "16|i|1", "101|ARG10=j|1", "100||1"}, {}},
         {"SCRIPT=\"my job\";ARG1=\"a;b\" ARG2=\"A\"B ARG3=\"\"",
          {"6|\"my job\"|1", "0|SCRIPT=\"my job\"|1", "8|\"a;b\"|1", "9|\"A\"|1", "10|\"\"|1", "100||1"}, {}},
         // An unclosed quote: the keyword and the rest of the line, line end included.
         {"DESTNODE=N;\r\nSITNAME=\"abc\r\n;", {"4|N|1", "0|DESTNODE=N|1", "101|SITNAME=\"abc\r\n|2", "0|SITNAME=\"abc\r\n|3", "100||3"},
          {"QMTA024E ENDING QUOTE FOR TAG VALUE NOT FOUND IN LINE 2"}},
         {"", {"100||0"}, {}},
         {"* comment\n\n   *x\n\tDESTNODE=N1 ;\n", {"101|*x|3", "4|N1|4", "0|N1|4", "100||4"}, {}},
         {"SITNAME=A\t\r\nDESTNODE=B\r\n\r\n;\r\nSTATE=ANY", {"1|A|1", "4|B|2", "0|B|4", "3|ANY|5", "100||5"}, {}},
         // A NUL byte ends the line's text; a value kept across a new line keeps its text.
         {std::string("DESTNODE=N1\0SITNAME=X;\n          ;\n", 35), {"4|N1|1", "0|N1|2", "100||2"}, {}},
         // Longer than 513 characters: read in pieces, each one a line.
         {"ARG1=" + x508 + x87 + ";\nSTATE=*\n", {"8|" + x508 + "|1", "101|" + x87 + "|2", "0|" + x87 + "|2", "3|*|3", "100||3"}, {}},
         {"*" + std::string(600, 'a') + "\n", {"101|" + std::string(88, 'a') + "|2", "100||2"}, {}},
         {"ARG1=" + std::string(507, 'y') + "\nSTATE=*", {"8|" + std::string(507, 'y') + "|1", "3|*|2", "100||2"}, {}}},
        Tags);
}

const std::string k32(32, 'A'), k33 = k32 + "B";

std::string Dup(const std::string& tag, const std::string& now, const std::string& old) {
  return "QMTA014W MULTIPLE VALUES DETECTED FOR " + tag + " IN LINE 1 NEW VALUE=" + now + " OLD=" + old + " CHECK SEMICOLONS";
}

TEST(RuleFile, AcceptedValuesDefaultsAndArgumentSlots) {
  Check({{"DESTNODE=N1;DESTNODE=N ARG3=x;DESTNODE=N ARG2=;ARG9=z ARG1=a DESTNODE=N;",
          {"N1|*|*|1|0|*|", "N|*|*|1|0|*|[][][x]", "N|*|*|1|0|*|[][]", "N|*|*|1|0|*|[a][][][][][][][][z]"}, {}},
         {"SITNAME=\"S*\" ORIGINNODE=\"node *\" STATE=UNKNOWN DESTNODE=\"n 1\" CALLTYPE=07 SCRIPT=\"my job\";"
          "DESTNODE=N STATE=FALSE SUBAGENT=12345678;DESTNODE=N STATE=*;DESTNODE=N STATE=ANY CALLTYPE=99;",
          {"n 1|S*|node *|0|7|\"my job\"|", "N|*|*|2|0|12345678|", "N|*|*|99|0|*|", "N|*|*|99|99|*|"}, {}},
         {"SITNAME=" + k32 + " ORIGINNODE=" + k33 + " DESTNODE=\"" + k33 + "\";", {k32 + "|" + k32 + "|" + k32 + "|1|0|*|"},
          {"QMTA027W LENGTH TRUNCATED TO 32 CHARACTERS FOR ORIGINNODE=\"" + k33 + "\" IN LINE 1",
           "QMTA027W LENGTH TRUNCATED TO 32 CHARACTERS FOR DESTNODE=\"\"" + k33 + "\"\" IN LINE 1"}},
         // Duplicates warn, and the later valid value wins; an old argument
         // goes also when the new value is empty.
         {"SITNAME=A SITNAME=B DESTNODE=N SCRIPT=ab SUBAGENT=cd;", {"N|B|*|1|0|cd|"},
          {Dup("SITNAME", "B", "A"), Dup("SUBAGENT", "cd", "ab")}},
         {"SUBAGENT=ab SCRIPT=\"c\" ORIGINNODE=O1 ORIGINNODE=O2 DESTNODE=N1 DESTNODE=N2;", {"N2|*|O2|1|0|\"c\"|"},
          {Dup("SCRIPT", "\"c\"", "ab"), Dup("ORIGINNODE", "O2", "O1"), Dup("DESTNODE", "N2", "N1")}},
         {"STATE=UNKNOWN STATE=* STATE=FALSE STATE=TRUE STATE=ANY CALLTYPE=7 CALLTYPE=42 DESTNODE=N;", {"N|*|*|99|42|*|"},
          {Dup("STATE", "*", "UNKNOWN"), Dup("STATE", "FALSE", "*"), Dup("STATE", "TRUE", "FALSE"),
           Dup("STATE", "ANY", "TRUE"), Dup("CALLTYPE", "42", "7")}},
         {"ARG2=x ARG2= ARG1=a ARG1=b DESTNODE=N;", {"N|*|*|1|0|*|[b][]"}, {Dup("ARG2", "", "x"), Dup("ARG1", "b", "a")}}},
        Entries);
}

TEST(RuleFile, RejectedValuesDiscardTheEntry) {
  Check({{"SITNAME=ABC*DEF*; DESTNODE=N1;", {"N1|*|*|1|0|*|"},
          {"QMTA026E TOO MANY WILDCARDS IN SITNAME=ABC*DEF* IN LINE 1",
           "QMTA010E DESTNODE NOT SPECIFIED IN LINE 1 NEAR \"SITNAME=ABC*DEF*\""}},
         {"SITNAME=" + k33 + " SITNAME=\"\" ORIGINNODE= ORIGINNODE=*a* STATE=false DESTNODE=N ARG1=x;", {},
          {"QMTA020E INVALID LENGTH=32 FOR SITNAME=\"" + k33 + "\" IN LINE 1",
           "QMTA020E INVALID LENGTH=32 FOR SITNAME=\"\"\"\" IN LINE 1", "QMTA020E INVALID LENGTH=32 FOR ORIGINNODE=\"\" IN LINE 1",
           "QMTA026E TOO MANY WILDCARDS IN ORIGINNODE=*a* IN LINE 1", "QMTA021E INVALID VALUE FOR STATE=false IN LINE 1"}},
         {"DESTNODE=N STATE=%n CALLTYPE=%s%s SCRIPT=%n%n%n%n%n;", {},  // printed as text, never as a format
          {"QMTA021E INVALID VALUE FOR STATE=%n IN LINE 1", "QMTA021E INVALID VALUE FOR CALLTYPE=%s%s IN LINE 1",
           "QMTA020E INVALID LENGTH=8 FOR SCRIPT=\"%n%n%n%n%n\" IN LINE 1"}},
         {"DESTNODE=N CALLTYPE=100 CALLTYPE= CALLTYPE=1a SCRIPT=123456789 SCRIPT=\"abcdefg\" SUBAGENT=;", {},
          {"QMTA021E INVALID VALUE FOR CALLTYPE=100 IN LINE 1", "QMTA021E INVALID VALUE FOR CALLTYPE= IN LINE 1",
           "QMTA021E INVALID VALUE FOR CALLTYPE=1a IN LINE 1", "QMTA020E INVALID LENGTH=8 FOR SCRIPT=\"123456789\" IN LINE 1",
           "QMTA020E INVALID LENGTH=8 FOR SCRIPT=\"\"abcdefg\"\" IN LINE 1", "QMTA020E INVALID LENGTH=8 FOR SUBAGENT=\"\" IN LINE 1"}},
         {"DESTNODE=;DESTNODE=A*B;DESTNODE=" + k32 + "*;", {},
          {"QMTA020E INVALID LENGTH=32 FOR DESTNODE=\"\" IN LINE 1", "QMTA010E DESTNODE NOT SPECIFIED IN LINE 1 NEAR \"DESTNODE=\"",
           "QMTA025E WILDCARD NOT ALLOWED IN DESTNODE=A*B IN LINE 1",
           "QMTA010E DESTNODE NOT SPECIFIED IN LINE 1 NEAR \"DESTNODE=A*B\"",
           "QMTA027W LENGTH TRUNCATED TO 32 CHARACTERS FOR DESTNODE=\"" + k32 + "*\" IN LINE 1",
           "QMTA025E WILDCARD NOT ALLOWED IN DESTNODE=" + k32 + "* IN LINE 1",
           "QMTA010E DESTNODE NOT SPECIFIED IN LINE 1 NEAR \"DESTNODE=" + k32 + "*\""}},
         {"FOO DESTNODE=N ARG1=\"abc\n;\nDESTNODE=OK;", {"OK|*|*|1|0|*|"},
          {"QMTA022E INVALID SYNTAX: FOO IN LINE 1", "QMTA024E ENDING QUOTE FOR TAG VALUE NOT FOUND IN LINE 1",
           "QMTA022E INVALID SYNTAX: ARG1=\"abc", " IN LINE 1"}},
         // Line numbers run on through the file; NEAR may name an earlier line's value.
         {";\n* rules\n\nSITNAME=ABC\n          ;\nDESTNODE=N2\n  STATE=x;\nDESTNODE=N3;\nDESTNODE=N4 ARG1=x", {"N3|*|*|1|0|*|"},
          {"QMTA010E DESTNODE NOT SPECIFIED IN LINE 1 NEAR \"\"", "QMTA010E DESTNODE NOT SPECIFIED IN LINE 5 NEAR \"ABC\"",
           "QMTA021E INVALID VALUE FOR STATE=x IN LINE 7", "QMTA013E MISSING SEMICOLON IN LINE 9 NEAR \"\""}}},
        Entries);
}

// The loader with a hand-built anchor and table lock.
struct LoadTable : testing::Test {
  void SetUp() override {
    memcpy(anchor.eyecatcher, "TABL", 4);
    ASSERT_EQ(0, qmtalint(&anchor.tableLock));
    publishAnchor(&anchor);
  }
  void TearDown() override {
    qmtatest_fault_reset();
    publishAnchor(nullptr);
    for (TableEntry* e = anchor.entries; e;) freeentry(std::exchange(e, e->next));
  }
  // Loads `file` as the rule file; its messages go to `messages`.
  int32_t Load(const std::string& file) {
    dir.Write("QMTASITR", file);
    int32_t status = loadtable();
    messages = out.TakeLines();
    return status;
  }
  Lines Table() {
    Lines rows;
    for (TableEntry* e = anchor.entries; e; e = e->next) rows.push_back(Render(*e));
    return rows;
  }
  qmtatest::ScratchDir dir;
  qmtatest::StdoutCapture out;
  AutomationAnchor anchor{};
  Lines messages;
};

TEST_F(LoadTable, FileOrderAFailedRecordEndsTheListAndFailedLoadsEmptyIt) {
  EXPECT_EQ(0, Load("DESTNODE=E1 ARG2=a;\nDESTNODE=E2 STATE=maybe;\nDESTNODE=E3;\n"));
  EXPECT_EQ((Lines{"E1|*|*|1|0|*|[][a]", "E3|*|*|1|0|*|"}), Table());
  EXPECT_EQ(Lines{"QMTA021E INVALID VALUE FOR STATE=maybe IN LINE 2"}, messages);
  qmtatest_fault_arm(kFaultAlloc, 2, 1, ENOMEM);  // record, its ARG2, then the second record
  EXPECT_EQ(0, Load("DESTNODE=E1 ARG2=a;\nDESTNODE=E2;\nDESTNODE=E3;\n"));
  EXPECT_EQ((Lines{"E1|*|*|1|0|*|[][a]"}), Table());
  for (const char* file : {"", "* only a comment\n\n", "STATE=TRUE;"}) {
    EXPECT_EQ(-8, Load(file)) << file;
    EXPECT_EQ("QMTA008W QMTASITR LOOKUP TABLE IS EMPTY", messages.back());
    EXPECT_EQ(nullptr, anchor.entries);
  }
  // Anything but a regular file could not be opened, at once: a named pipe
  // with no writer, a device that never ends, a directory.
  dir.Remove("QMTASITR");
  EXPECT_EQ(-9, loadtable());
  ASSERT_EQ(0, mkfifo("QMTASITR", 0600));
  EXPECT_EQ(-9, loadtable());
  dir.Remove("QMTASITR");
  ASSERT_EQ(0, symlink("/dev/zero", "QMTASITR"));
  EXPECT_EQ(-9, loadtable());
  dir.Remove("QMTASITR");
  ASSERT_EQ(0, mkdir("QMTASITR", 0700));
  EXPECT_EQ(-9, loadtable());
  EXPECT_EQ(Lines(4, "QMTA009W QMTASITR COULD NOT BE OPENED"), out.TakeLines());
  ASSERT_EQ(0, rmdir("QMTASITR"));
  dir.Write("rules", "DESTNODE=LINKED;");
  ASSERT_EQ(0, symlink("rules", "QMTASITR"));
  EXPECT_EQ(0, loadtable());
  EXPECT_EQ((Lines{"LINKED|*|*|1|0|*|"}), Table());
  publishAnchor(nullptr);
  EXPECT_EQ(-7, Load("DESTNODE=N;"));
  EXPECT_TRUE(messages.empty());
  publishAnchor(&anchor);
}

}  // namespace
