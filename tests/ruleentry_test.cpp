// Rule entries: the record's defaults, the argument slots, and every tag's
// accepted and rejected values with their whole message lines.
#include <gtest/gtest.h>
#include <stdio.h>

#include <string>
#include <vector>

#include "qmtauto1/qmtauto1.h"
#include "qmtauto1/rulefile.h"
#include "tests/ruletest.h"
#include "tests/support/support.h"

using Lines = std::vector<std::string>;

namespace {

struct Case {
  std::string file;
  Lines entries;  // rendered by ruletest::Render
  Lines messages = {};
};

// Every good entry of `file`, read one by one into the same record.
Lines Entries(const std::string& file) {
  qmtatest::ScratchDir dir;
  dir.Write("QMTASITR", file);
  FILE* in = fopen("QMTASITR", "r");
  EXPECT_NE(nullptr, in);
  if (!in) return {};
  qmta::rules::restarttokenizer();
  qmta::rules::restartparser();
  Lines out;
  TableEntry entry;
  while (readnextentry(in, &entry) == 0) {
    out.push_back(ruletest::Render(entry));
    freeentryargs(&entry);
  }
  EXPECT_EQ("|*|*|1|0|*|", ruletest::Render(entry)) << "end of file leaves the defaults";
  fclose(in);
  return out;
}

void Check(const std::vector<Case>& cases) {
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    qmtatest::StdoutCapture out;
    EXPECT_EQ(c.entries, Entries(c.file));
    EXPECT_EQ(c.messages, out.TakeLines());
  }
}

const std::string k32(32, 'A');
const std::string k33 = k32 + "B";

TEST(RuleEntry, DefaultsAndArgumentSlots) {
  Check({
      {"DESTNODE=N1;", {"N1|*|*|1|0|*|"}},
      {"DESTNODE=N ARG3=x;", {"N|*|*|1|0|*|[][][x]"}},
      {"DESTNODE=N ARG2=;", {"N|*|*|1|0|*|[][]"}},
      {"ARG9=z ARG1=a DESTNODE=N;", {"N|*|*|1|0|*|[a][][][][][][][][z]"}},
  });
}

TEST(RuleEntry, AcceptedValues) {
  Check({
      {"SITNAME=\"S*\" ORIGINNODE=\"node *\" STATE=UNKNOWN DESTNODE=\"n 1\" "
       "CALLTYPE=07 SCRIPT=\"my job\";",
       {"n 1|S*|node *|0|7|\"my job\"|"}},
      {"DESTNODE=N STATE=FALSE SUBAGENT=12345678;DESTNODE=N STATE=*;"
       "DESTNODE=N STATE=ANY CALLTYPE=99;DESTNODE=N STATE=TRUE;",
       {"N|*|*|2|0|12345678|", "N|*|*|99|0|*|", "N|*|*|99|99|*|", "N|*|*|1|0|*|"}},
      {"SITNAME=" + k32 + " ORIGINNODE=" + k33 + " DESTNODE=\"" + k33 + "\";",
       {k32 + "|" + k32 + "|" + k32 + "|1|0|*|"},
       {"QMTA027W LENGTH TRUNCATED TO 32 CHARACTERS FOR ORIGINNODE=\"" + k33 + "\" IN LINE 1",
        "QMTA027W LENGTH TRUNCATED TO 32 CHARACTERS FOR DESTNODE=\"\"" + k33 + "\"\" IN LINE 1"}},
  });
}

TEST(RuleEntry, RejectedValuesDiscardTheEntry) {
  Check({
      {"SITNAME=ABC*DEF*; DESTNODE=N1;", {"N1|*|*|1|0|*|"},
       {"QMTA026E TOO MANY WILDCARDS IN SITNAME=ABC*DEF* IN LINE 1",
        "QMTA010E DESTNODE NOT SPECIFIED IN LINE 1 NEAR \"SITNAME=ABC*DEF*\""}},
      {"SITNAME=" + k33 + " SITNAME=\"\" ORIGINNODE= ORIGINNODE=*a* DESTNODE=N;", {},
       {"QMTA020E INVALID LENGTH=32 FOR SITNAME=\"" + k33 + "\" IN LINE 1",
        "QMTA020E INVALID LENGTH=32 FOR SITNAME=\"\"\"\" IN LINE 1",
        "QMTA020E INVALID LENGTH=32 FOR ORIGINNODE=\"\" IN LINE 1",
        "QMTA026E TOO MANY WILDCARDS IN ORIGINNODE=*a* IN LINE 1"}},
      {"SITNAME=S1 DESTNODE=N1 STATE=false ARG1=x;", {},
       {"QMTA021E INVALID VALUE FOR STATE=false IN LINE 1"}},
      {"DESTNODE=N CALLTYPE=100 CALLTYPE= CALLTYPE=1a CALLTYPE=\"1\";", {},
       {"QMTA021E INVALID VALUE FOR CALLTYPE=100 IN LINE 1",
        "QMTA021E INVALID VALUE FOR CALLTYPE= IN LINE 1",
        "QMTA021E INVALID VALUE FOR CALLTYPE=1a IN LINE 1",
        "QMTA021E INVALID VALUE FOR CALLTYPE=\"1\" IN LINE 1"}},
      {"DESTNODE=N SCRIPT=123456789 SCRIPT=\"abcdefg\" SUBAGENT=;", {},
       {"QMTA020E INVALID LENGTH=8 FOR SCRIPT=\"123456789\" IN LINE 1",
        "QMTA020E INVALID LENGTH=8 FOR SCRIPT=\"\"abcdefg\"\" IN LINE 1",
        "QMTA020E INVALID LENGTH=8 FOR SUBAGENT=\"\" IN LINE 1"}},
      {"DESTNODE=;DESTNODE=A*B;DESTNODE=" + k32 + "*;", {},
       {"QMTA020E INVALID LENGTH=32 FOR DESTNODE=\"\" IN LINE 1",
        "QMTA010E DESTNODE NOT SPECIFIED IN LINE 1 NEAR \"DESTNODE=\"",
        "QMTA025E WILDCARD NOT ALLOWED IN DESTNODE=A*B IN LINE 1",
        "QMTA010E DESTNODE NOT SPECIFIED IN LINE 1 NEAR \"DESTNODE=A*B\"",
        "QMTA027W LENGTH TRUNCATED TO 32 CHARACTERS FOR DESTNODE=\"" + k32 + "*\" IN LINE 1",
        "QMTA025E WILDCARD NOT ALLOWED IN DESTNODE=" + k32 + "* IN LINE 1",
        "QMTA010E DESTNODE NOT SPECIFIED IN LINE 1 NEAR \"DESTNODE=" + k32 + "*\""}},
      {"FOO DESTNODE=N ARG1=\"abc\n;\nDESTNODE=OK;", {"OK|*|*|1|0|*|"},
       {"QMTA022E INVALID SYNTAX: FOO IN LINE 1",
        "QMTA024E ENDING QUOTE FOR TAG VALUE NOT FOUND IN LINE 1",
        "QMTA022E INVALID SYNTAX: ARG1=\"abc IN LINE 1"}},
  });
}

TEST(RuleEntry, DuplicatesWarnAndTheLaterValidValueWins) {
  auto dup = [](const std::string& tag, const std::string& now, const std::string& old) {
    return "QMTA014W MULTIPLE VALUES DETECTED FOR " + tag + " IN LINE 1 NEW VALUE=" + now +
           " OLD=" + old + " CHECK SEMICOLONS";
  };
  Check({
      {"SITNAME=A SITNAME=B DESTNODE=N;", {"N|B|*|1|0|*|"}, {dup("SITNAME", "B", "A")}},
      {"DESTNODE=N SCRIPT=ab SUBAGENT=cd;", {"N|*|*|1|0|cd|"}, {dup("SUBAGENT", "cd", "ab")}},
      {"SUBAGENT=ab SCRIPT=\"c\" ORIGINNODE=O1 ORIGINNODE=O2 DESTNODE=N1 DESTNODE=N2;",
       {"N2|*|O2|1|0|\"c\"|"},
       {dup("SCRIPT", "\"c\"", "ab"), dup("ORIGINNODE", "O2", "O1"), dup("DESTNODE", "N2", "N1")}},
      {"STATE=UNKNOWN STATE=* STATE=FALSE STATE=TRUE STATE=ANY CALLTYPE=7 CALLTYPE=42 DESTNODE=N;",
       {"N|*|*|99|42|*|"},
       {dup("STATE", "*", "UNKNOWN"), dup("STATE", "FALSE", "*"), dup("STATE", "TRUE", "FALSE"),
        dup("STATE", "ANY", "TRUE"), dup("CALLTYPE", "42", "7")}},
      // A duplicate argument frees the old string, also for an empty value.
      {"ARG2=x ARG2= ARG1=a ARG1=b DESTNODE=N;", {"N|*|*|1|0|*|[b][]"},
       {dup("ARG2", "", "x"), dup("ARG1", "b", "a")}},
      // The warning comes first; an invalid new value still fails the entry.
      {"SITNAME=A SITNAME=A*B* DESTNODE=N;", {},
       {dup("SITNAME", "A*B*", "A"), "QMTA026E TOO MANY WILDCARDS IN SITNAME=A*B* IN LINE 1"}},
  });
}

TEST(RuleEntry, EntryEndsAndLineNumbers) {
  Check({
      {";", {}, {"QMTA010E DESTNODE NOT SPECIFIED IN LINE 1 NEAR \"\""}},
      {"DESTNODE=N1;\nDESTNODE=N2 ARG1=x", {"N1|*|*|1|0|*|"},
       {"QMTA013E MISSING SEMICOLON IN LINE 2 NEAR \"\""}},
      // The value named after NEAR may stand on an earlier line.
      {"* rules\n\nSITNAME=ABC\n          ;\nDESTNODE=N2\n  STATE=x;\nDESTNODE=N3;", {"N3|*|*|1|0|*|"},
       {"QMTA010E DESTNODE NOT SPECIFIED IN LINE 4 NEAR \"ABC\"",
        "QMTA021E INVALID VALUE FOR STATE=x IN LINE 6"}},
  });
}

}  // namespace
