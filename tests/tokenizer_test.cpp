// The rule file tokenizer: tags and values, quotes, delimiters, comments,
// line numbers and lines longer than the line buffer.
#include <gtest/gtest.h>
#include <stdio.h>

#include "qmtauto1/qmtauto1.h"
#include "tests/ruletest.h"
#include "tests/support/support.h"

namespace {

// Each case: the file, then every "tag|value|line" up to the end of the
// file, then the messages printed on the way.
void Check(const std::vector<std::tuple<std::string, Lines, Lines>>& cases) {
  for (const auto& [file, tags, messages] : cases) {
    SCOPED_TRACE(file);
    qmtatest::ScratchDir dir;
    qmtatest::StdoutCapture out;
    dir.Write("QMTASITR", file);
    FILE* in = fopen("QMTASITR", "r");
    ASSERT_NE(nullptr, in);
    Lines got;
    char* value = nullptr;
    int32_t line = -1, tag = 0;
    while (tag != 100 && got.size() < 1000) {
      tag = getnexttag(in, &value, &line);
      got.push_back(std::to_string(tag) + "|" + value + "|" + std::to_string(line));
    }
    fclose(in);
    EXPECT_EQ(tags, got);
    EXPECT_EQ(messages, out.TakeLines());
  }
}

TEST(Tokenizer, TagsValuesQuotesAndDelimiters) {
  Check({
      {"SITNAME=A;DESTNODE=B;\n", {"1|A|1", "0|SITNAME=A|1", "4|B|1", "0|DESTNODE=B|1", "100||1"}, {}},
      {"DESTNODE=B ;\n", {"4|B|1", "0|B|1", "100||1"}, {}},
      {"SITNAME =A sitname=A bad;", {"101|SITNAME|1", "101|=A|1", "101|sitname=A|1", "101|bad|1", "0|bad|1", "100||1"}, {}},
      {"SITNAME=;ORIGINNODE=\tSTATE=x\fCALLTYPE=1\vSCRIPT=s\rSUBAGENT=u ARG1=a ARG9=i ARG10=j",
       {"1||1", "0|SITNAME=|1", "2||1", "3|x|1", "5|1|1", "6|s|1", "7|u|1", "8|a|1", "16|i|1",
        "101|ARG10=j|1", "100||1"}, {}},
      {"SCRIPT=\"my job\";ARG1=\"a;b\" ARG2=\"A\"B ARG3=\"\"",
       {"6|\"my job\"|1", "0|SCRIPT=\"my job\"|1", "8|\"a;b\"|1", "9|\"A\"|1", "10|\"\"|1", "100||1"}, {}},
      // An unclosed quote: the keyword and the rest of the line, line end included.
      {"ARG1=\"abc def\nDESTNODE=N \";\n", {"101|ARG1=\"abc def\n|1", "4|N|2", "101|\"|2", "0|\"|2", "100||2"},
       {"QMTA024E ENDING QUOTE FOR TAG VALUE NOT FOUND IN LINE 1"}},
      {"DESTNODE=N;\r\nSITNAME=\"abc\r\n;", {"4|N|1", "0|DESTNODE=N|1", "101|SITNAME=\"abc\r\n|2", "0|SITNAME=\"abc\r\n|3", "100||3"},
       {"QMTA024E ENDING QUOTE FOR TAG VALUE NOT FOUND IN LINE 2"}},
  });
}

TEST(Tokenizer, LinesCommentsAndLongLines) {
  const std::string x508(508, 'x'), x87(87, 'x');
  Check({
      {"", {"100||0"}, {}},
      {"* comment\n\n   *x\n\tDESTNODE=N1;\n", {"101|*x|3", "4|N1|4", "0|DESTNODE=N1|4", "100||4"}, {}},
      // CR LF and LF line ends, tabs, no final line end.
      {"SITNAME=A\t\r\nDESTNODE=B\r\n\r\n;\r\nSTATE=ANY", {"1|A|1", "4|B|2", "0|B|4", "3|ANY|5", "100||5"}, {}},
      // A NUL byte ends the line's text; a value kept across a new line keeps its text.
      {std::string("DESTNODE=N1\0SITNAME=X;\n          ;\n", 35), {"4|N1|1", "0|N1|2", "100||2"}, {}},
      // Longer than 513 characters: read in pieces, each one a line.
      {"ARG1=" + x508 + x87 + ";\nSTATE=*\n", {"8|" + x508 + "|1", "101|" + x87 + "|2", "0|" + x87 + "|2", "3|*|3", "100||3"}, {}},
      {"*" + std::string(600, 'a') + "\n", {"101|" + std::string(88, 'a') + "|2", "100||2"}, {}},
      {"ARG1=" + std::string(507, 'y') + "\nSTATE=*", {"8|" + std::string(507, 'y') + "|1", "3|*|2", "100||2"}, {}},
  });
}

}  // namespace
