// Rule entries: defaults, argument slots, and every tag's accepted and
// rejected values with their whole message lines.
#include <gtest/gtest.h>
#include <stdio.h>

#include "qmtauto1/qmtauto1.h"
#include "qmtauto1/rulefile.h"
#include "tests/ruletest.h"
#include "tests/support/support.h"

namespace {

// Each case: the file, every good entry read from it, the messages.
void Check(const std::vector<std::tuple<std::string, Lines, Lines>>& cases) {
  for (const auto& [file, entries, messages] : cases) {
    SCOPED_TRACE(file);
    qmtatest::ScratchDir dir;
    qmtatest::StdoutCapture out;
    dir.Write("QMTASITR", file);
    FILE* in = fopen("QMTASITR", "r");
    ASSERT_NE(nullptr, in);
    qmta::rules::restarttokenizer();
    qmta::rules::restartparser();
    Lines got;
    TableEntry entry;
    while (readnextentry(in, &entry) == 0) {
      got.push_back(ruletest::Render(entry));
      freeentryargs(&entry);
    }
    fclose(in);
    EXPECT_EQ("|*|*|1|0|*|", ruletest::Render(entry)) << "the end leaves the defaults";
    EXPECT_EQ(entries, got);
    EXPECT_EQ(messages, out.TakeLines());
  }
}

const std::string k32(32, 'A'), k33 = k32 + "B";

std::string Dup(const std::string& tag, const std::string& now, const std::string& old) {
  return "QMTA014W MULTIPLE VALUES DETECTED FOR " + tag + " IN LINE 1 NEW VALUE=" + now +
         " OLD=" + old + " CHECK SEMICOLONS";
}

TEST(RuleEntry, AcceptedValuesDefaultsAndArgumentSlots) {
  Check({
      {"DESTNODE=N1;DESTNODE=N ARG3=x;DESTNODE=N ARG2=;ARG9=z ARG1=a DESTNODE=N;",
       {"N1|*|*|1|0|*|", "N|*|*|1|0|*|[][][x]", "N|*|*|1|0|*|[][]", "N|*|*|1|0|*|[a][][][][][][][][z]"}, {}},
      {"SITNAME=\"S*\" ORIGINNODE=\"node *\" STATE=UNKNOWN DESTNODE=\"n 1\" CALLTYPE=07 SCRIPT=\"my job\";"
       "DESTNODE=N STATE=FALSE SUBAGENT=12345678;DESTNODE=N STATE=*;DESTNODE=N STATE=ANY CALLTYPE=99;",
       {"n 1|S*|node *|0|7|\"my job\"|", "N|*|*|2|0|12345678|", "N|*|*|99|0|*|", "N|*|*|99|99|*|"}, {}},
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
      {"SITNAME=" + k33 + " SITNAME=\"\" ORIGINNODE= ORIGINNODE=*a* STATE=false DESTNODE=N ARG1=x;", {},
       {"QMTA020E INVALID LENGTH=32 FOR SITNAME=\"" + k33 + "\" IN LINE 1",
        "QMTA020E INVALID LENGTH=32 FOR SITNAME=\"\"\"\" IN LINE 1",
        "QMTA020E INVALID LENGTH=32 FOR ORIGINNODE=\"\" IN LINE 1",
        "QMTA026E TOO MANY WILDCARDS IN ORIGINNODE=*a* IN LINE 1",
        "QMTA021E INVALID VALUE FOR STATE=false IN LINE 1"}},
      {"DESTNODE=N CALLTYPE=100 CALLTYPE= CALLTYPE=1a SCRIPT=123456789 SCRIPT=\"abcdefg\" SUBAGENT=;", {},
       {"QMTA021E INVALID VALUE FOR CALLTYPE=100 IN LINE 1", "QMTA021E INVALID VALUE FOR CALLTYPE= IN LINE 1",
        "QMTA021E INVALID VALUE FOR CALLTYPE=1a IN LINE 1",
        "QMTA020E INVALID LENGTH=8 FOR SCRIPT=\"123456789\" IN LINE 1",
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
       {"QMTA022E INVALID SYNTAX: FOO IN LINE 1", "QMTA024E ENDING QUOTE FOR TAG VALUE NOT FOUND IN LINE 1",
        "QMTA022E INVALID SYNTAX: ARG1=\"abc", " IN LINE 1"}},
      // Line numbers run on through the file; NEAR may name an earlier line's value.
      {";\n* rules\n\nSITNAME=ABC\n          ;\nDESTNODE=N2\n  STATE=x;\nDESTNODE=N3;\nDESTNODE=N4 ARG1=x", {"N3|*|*|1|0|*|"},
       {"QMTA010E DESTNODE NOT SPECIFIED IN LINE 1 NEAR \"\"", "QMTA010E DESTNODE NOT SPECIFIED IN LINE 5 NEAR \"ABC\"",
        "QMTA021E INVALID VALUE FOR STATE=x IN LINE 7", "QMTA013E MISSING SEMICOLON IN LINE 9 NEAR \"\""}},
  });
}

TEST(RuleEntry, DuplicatesWarnAndTheLaterValidValueWins) {
  Check({
      {"SITNAME=A SITNAME=B DESTNODE=N SCRIPT=ab SUBAGENT=cd;", {"N|B|*|1|0|cd|"},
       {Dup("SITNAME", "B", "A"), Dup("SUBAGENT", "cd", "ab")}},
      {"SUBAGENT=ab SCRIPT=\"c\" ORIGINNODE=O1 ORIGINNODE=O2 DESTNODE=N1 DESTNODE=N2;", {"N2|*|O2|1|0|\"c\"|"},
       {Dup("SCRIPT", "\"c\"", "ab"), Dup("ORIGINNODE", "O2", "O1"), Dup("DESTNODE", "N2", "N1")}},
      {"STATE=UNKNOWN STATE=* STATE=FALSE STATE=TRUE STATE=ANY CALLTYPE=7 CALLTYPE=42 DESTNODE=N;", {"N|*|*|99|42|*|"},
       {Dup("STATE", "*", "UNKNOWN"), Dup("STATE", "FALSE", "*"), Dup("STATE", "TRUE", "FALSE"),
        Dup("STATE", "ANY", "TRUE"), Dup("CALLTYPE", "42", "7")}},
      // The old argument string goes, also when the new value is empty.
      {"ARG2=x ARG2= ARG1=a ARG1=b DESTNODE=N;", {"N|*|*|1|0|*|[b][]"}, {Dup("ARG2", "", "x"), Dup("ARG1", "b", "a")}},
      // Warned first; an invalid new value still fails the entry.
      {"SITNAME=A SITNAME=A*B* DESTNODE=N;", {}, {Dup("SITNAME", "A*B*", "A"), "QMTA026E TOO MANY WILDCARDS IN SITNAME=A*B* IN LINE 1"}},
  });
}

}  // namespace
