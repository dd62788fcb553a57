// Input no operator or host should send, through the loaded module: events
// with 10,000-character names and values and 1,000 attributes, percent
// signs in commands and in every rule field, and rule files of NUL bytes,
// endless lines and carriage returns loaded by REFRESH. Under the
// sanitizer builds these also prove that nothing is read or written
// outside its buffer.
#include <stdio.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "platform/trc1.h"
#include "tests/support/eventfixture.h"

namespace {

using Lines = std::vector<std::string>;
using Attributes = std::vector<std::pair<std::string, std::string>>;

class Hostile : public qmtatest::EventFixture {
 protected:
  void TearDown() override {
    qmta::host::SetTraceLevel(0);
    qmta::host::SetTraceStream(nullptr);
    EventFixture::TearDown();
  }
  Lines Command(const std::string& text) {
    module_->Command(text);
    return out_->TakeLines();
  }
  // Loads `file` by REFRESH; returns the load's lines.
  Lines Refresh(const std::string& file) {
    dir_->Write("QMTASITR", file);
    return Command("REFRESH");
  }
  // The rule lines of DISPLAY (QMTA095I to QMTA097I).
  Lines Rules() {
    Lines rules;
    for (const std::string& line : Command("DISPLAY"))
      if (line.rfind("QMTA09", 0) == 0 && line.rfind("QMTA094I", 0) != 0) rules.push_back(line);
    return rules;
  }
};

// 1,000 attributes: the first 500 with 10,000-character names, all with
// 10,000-character values except the one a rule quotes.
Attributes ThousandAttributes() {
  Attributes attributes;
  for (int i = 0; i < 1000; ++i) {
    std::string number = std::to_string(i);
    std::string name = i < 500 ? std::string(10000 - number.size(), 'N') + number
                               : "Attr." + number;
    std::string value = i == 998 ? std::string(580, 'w') : std::string(10000, 'v');
    attributes.emplace_back(name, value);
  }
  return attributes;
}

TEST_F(Hostile, HugeNamesValuesAndAThousandAttributes) {
  Start("SITNAME=S* ORIGINNODE=O* DESTNODE=ROWS SCRIPT=s ARG1=Attr.998 ARG2=Attr.999x;\n"
        "SITNAME=* DESTNODE=ROWS SCRIPT=t ARG1=Attr.999;\n"
        "SITNAME=Short DESTNODE=ROWS;\n",
        "ROWS sim rc=0,3\n");
  const std::string sitname(10000, 'S'), node(10000, 'O'), threshold(10000, '"');
  const Attributes attributes = ThousandAttributes();
  // The second rule's value is cut to 598 characters and still overflows the
  // command, which fails that action only; it is the last match, so -1.
  EXPECT_EQ(Fire(sitname, node, 1, 0, attributes, threshold.c_str()), -1);
  Lines lines = Drain();
  std::sort(lines.begin(), lines.end());
  const std::string sit32(32, 'S');
  EXPECT_EQ(lines,
            (Lines{"QMTA004E COMMAND BUFFER OVERFLOW SITUATION=" + sitname +
                       " DESTNODE=Attr.999 ARG=",
                   "QMTA040I ACTION STARTED FOR SITNAME=" + sit32 +
                       " DESTNODE=ROWS STATE=1 REQUESTID=1",
                   "QMTA041I CMD=s \"" + std::string(580, 'w') + "\" \"Attr.999x\"",
                   "QMTA050I ACTION COMPLETED FOR SITNAME=" + sit32 +
                       " DESTNODE=ROWS STATE=1 RC=0 REQUESTID=1",
                   "QMTA050I ACTION COMPLETED FOR SITNAME=" + sit32 +
                       " DESTNODE=ROWS STATE=1 RC=3 REQUESTID=1",
                   "QMTA093I ACTION ENVIRONMENT INITIALIZE"}));

  // The default arguments: the threshold, cut at 598 characters, no longer
  // fits. With detail trace on, each of the thousand attributes is traced
  // whole.
  FILE* trace = tmpfile();
  qmta::host::SetTraceStream(trace);
  qmta::host::SetTraceLevel(TRC1_DETAIL);
  EXPECT_EQ(Fire("Short", "n", 1, 0, attributes, threshold.c_str()), -1);
  qmta::host::SetTraceLevel(0);
  qmta::host::SetTraceStream(nullptr);
  EXPECT_EQ(Drain(),
            (Lines{"QMTA004E COMMAND BUFFER OVERFLOW SITUATION=Short DESTNODE=Attr.999 ARG=",
                   "QMTA004E COMMAND BUFFER OVERFLOW SITUATION=Short DESTNODE=THRESHOLD ARG="}));
  rewind(trace);
  std::string text;
  char buffer[65536];
  for (size_t got; (got = fread(buffer, 1, sizeof buffer, trace)) > 0;) text.append(buffer, got);
  fclose(trace);
  EXPECT_NE(text.find(" attribute[999]: name=Attr.999 value=" + std::string(10000, 'v') + "\n"),
            std::string::npos);
  EXPECT_NE(text.find(" thresholdS=" + threshold + "\n"), std::string::npos);
}

TEST_F(Hostile, PercentSignsInCommandsAreText) {
  Start("SITNAME=TestSituation DESTNODE=T ARG1=\"%n\";\n", "* sim rc=0\n");
  module_->Init();
  out_->TakeLines();
  EXPECT_EQ(Command("REFRESH %n%s%n"), Lines{"QMTA090I QMTASITR REFRESHED.  STATUS=0"});
  EXPECT_EQ(Command("DISPLAY%n").back(), "QMTA100I STACK SIZES:  VX=0/0 RM=0/0 SNMP=0/0");
  EXPECT_EQ(Command("%nREFRESH"), Lines{"QMTA011E INVALID QMTASITR PARM=%nREFRESH"});
  EXPECT_EQ(Command("\t%n %s %x %p"), Lines{"QMTA011E INVALID QMTASITR PARM=%n %s %x %p"});
  EXPECT_EQ(Command(std::string(600, '%')),
            Lines{"QMTA011E INVALID QMTASITR PARM=" + std::string(512, '%')});
  module_->Command("TESTSIT %n");
  Lines lines = Drain();
  ASSERT_EQ(lines.size(), 4u);
  std::sort(lines.begin(), lines.end());
  EXPECT_EQ(lines[1], "QMTA041I CMD=* \"%n\"");
  EXPECT_EQ(lines[3], "QMTA091I TESTSIT INVOKED.  STATUS=0");
}

TEST_F(Hostile, PercentSignsInEveryRuleField) {
  const std::string n17 = [] {
    std::string text;
    for (int i = 0; i < 17; ++i) text += "%n";
    return text;
  }();
  Start("SITNAME=%s%n* ORIGINNODE=%n* DESTNODE=%x%n%s SCRIPT=%n%n%n ARG1=SITNAME ARG2=%d%n "
        "ARG3=\"%s %n\";\n"
        "STATE=%n DESTNODE=X;\n"
        "CALLTYPE=%s DESTNODE=X;\n"
        "%n%n DESTNODE=X;\n"
        "DESTNODE=%n%s SITNAME=%n SITNAME=%s ORIGINNODE=" + n17 + ";\n"
        "DESTNODE=%n* ;\n"
        "SITNAME=%s%n%s%n%s%n%s%n%s%n%s%n%s%n%s%n%s%n DESTNODE=Y;\n",
        "* sim rc=0\n");
  module_->Init();
  EXPECT_EQ(out_->TakeLines(),
            (Lines{"QMTA021E INVALID VALUE FOR STATE=%n IN LINE 2",
                   "QMTA021E INVALID VALUE FOR CALLTYPE=%s IN LINE 3",
                   "QMTA022E INVALID SYNTAX: %n%n IN LINE 4",
                   "QMTA014W MULTIPLE VALUES DETECTED FOR SITNAME IN LINE 5 NEW VALUE=%s OLD=%n "
                   "CHECK SEMICOLONS",
                   "QMTA027W LENGTH TRUNCATED TO 32 CHARACTERS FOR ORIGINNODE=\"" + n17 +
                       "\" IN LINE 5",
                   "QMTA025E WILDCARD NOT ALLOWED IN DESTNODE=%n* IN LINE 6",
                   "QMTA010E DESTNODE NOT SPECIFIED IN LINE 6 NEAR \"%n*\"",
                   "QMTA020E INVALID LENGTH=32 FOR SITNAME=\"%s%n%s%n%s%n%s%n%s%n%s%n%s%n%s%n%s%n\" "
                   "IN LINE 7",
                   "QMTA093I ACTION ENVIRONMENT INITIALIZE"}));
  EXPECT_EQ(Rules(), (Lines{"QMTA095I IF SITNAME=%s%n* AND ORIGINNODE=%n* AND STATE=TRUE THEN",
                            "QMTA096I    DESTNODE=%x%n%s CALLTYPE=0 SCRIPT=%n%n%n",
                            "QMTA097I       ARG1=SITNAME",
                            "QMTA097I       ARG2=%d%n",
                            "QMTA097I       ARG3=\"%s %n\"",
                            "QMTA095I IF SITNAME=%s AND ORIGINNODE=" + n17.substr(0, 32) +
                                " AND STATE=TRUE THEN",
                            "QMTA096I    DESTNODE=%n%s CALLTYPE=0 SCRIPT=*"}));
  EXPECT_EQ(Fire("%s%nDisk", "%n%n", 1), 0);
  EXPECT_EQ(Drain(),
            (Lines{"QMTA040I ACTION STARTED FOR SITNAME=%s%nDisk DESTNODE=%x%n%s STATE=1 "
                   "REQUESTID=1",
                   "QMTA041I CMD=%n%n%n \"%s%nDisk\" \"%d%n\" \"%s %n\"",
                   "QMTA050I ACTION COMPLETED FOR SITNAME=%s%nDisk DESTNODE=%x%n%s STATE=1 RC=0 "
                   "REQUESTID=1"}));
}

// Rule files loaded by REFRESH that the reader can only take piece by
// piece; each case ends with a good rule that must be loaded.
TEST_F(Hostile, RuleFilesOfNulsEndlessLinesAndCarriageReturns) {
  Start("DESTNODE=FIRST;\n", "* sim rc=0\n");
  module_->Init();
  out_->TakeLines();
  const std::string good = "\nDESTNODE=GOOD;\n";
  const std::string last = "QMTA096I    DESTNODE=GOOD CALLTYPE=0 SCRIPT=*";
  const std::string ok = "QMTA090I QMTASITR REFRESHED.  STATUS=0";

  // Nothing but NUL bytes: every piece's text is empty.
  EXPECT_EQ(Refresh(std::string(70000, '\0') + good), Lines{ok});
  EXPECT_EQ(Rules().back(), last);
  // 100,000 blanks on one line: read as 195 empty pieces.
  EXPECT_EQ(Refresh(std::string(100000, ' ') + good), Lines{ok});
  EXPECT_EQ(Rules().size(), 2u);
  // A quote opened and never closed on a line of 100,001 characters, read
  // in 195 pieces: the first reports the quote and its tag, every later
  // piece is one unknown token, and the last one's semicolon ends the entry.
  Lines lines = Refresh("ARG1=\"" + std::string(99994, 'q') + ";" + good);
  ASSERT_EQ(lines.size(), 198u);
  EXPECT_EQ(lines[0], "QMTA024E ENDING QUOTE FOR TAG VALUE NOT FOUND IN LINE 1");
  EXPECT_EQ(lines[1], "QMTA022E INVALID SYNTAX: ARG1=\"" + std::string(507, 'q') + " IN LINE 1");
  EXPECT_EQ(lines[2], "QMTA022E INVALID SYNTAX: " + std::string(513, 'q') + " IN LINE 2");
  EXPECT_EQ(lines[195], "QMTA022E INVALID SYNTAX: " + std::string(478, 'q') + " IN LINE 195");
  EXPECT_EQ(lines[196], "QMTA010E DESTNODE NOT SPECIFIED IN LINE 195 NEAR \"" +
                            std::string(478, 'q') + "\"");
  EXPECT_EQ(lines[197], ok);
  EXPECT_EQ(Rules().back(), last);
  // 100,000 semicolons: as many entries without a destination.
  lines = Refresh(std::string(100000, ';') + good);
  ASSERT_EQ(lines.size(), 100001u);
  EXPECT_EQ(lines[99999], "QMTA010E DESTNODE NOT SPECIFIED IN LINE 195 NEAR \"\"");
  EXPECT_EQ(Rules().back(), last);
  // Carriage returns alone end no line: 400 rules make one line of 5,600
  // characters, read in pieces; the rules that a cut splits are lost, the
  // others load, and the last one after the real line end.
  std::string crs;
  for (int i = 0; i < 400; ++i) crs += "DESTNODE=N" + std::to_string(1000 + i) + ";\r";
  lines = Refresh(crs + good);
  EXPECT_EQ(lines.back(), ok);
  Lines rules = Rules();
  EXPECT_GT(rules.size(), 2 * 350u);
  EXPECT_EQ(rules.front(), "QMTA095I IF SITNAME=* AND ORIGINNODE=* AND STATE=TRUE THEN");
  EXPECT_EQ(rules[1], "QMTA096I    DESTNODE=N1000 CALLTYPE=0 SCRIPT=*");
  EXPECT_EQ(rules.back(), last);
  // An event starts one action per loaded rule.
  EXPECT_EQ(Fire("S", "n", 1), 0);
  lines = Drain();
  auto count = [&](const char* prefix) {
    return static_cast<size_t>(std::count_if(lines.begin(), lines.end(), [&](const std::string& l) {
      return l.rfind(prefix, 0) == 0;
    }));
  };
  EXPECT_EQ(count("QMTA040I"), rules.size() / 2);
  EXPECT_EQ(count("QMTA050I"), rules.size() / 2);
}

}  // namespace
