// The rule file tokenizer: tags and values, quotes, delimiters, comments,
// line numbers and lines longer than the line buffer.
#include <gtest/gtest.h>
#include <stdio.h>

#include <string>
#include <vector>

#include "qmtauto1/qmtauto1.h"
#include "qmtauto1/rulefile.h"
#include "tests/support/support.h"

using Lines = std::vector<std::string>;

namespace {

struct Case {
  std::string file;
  Lines tags;          // "tag|value|line", through the end of the file
  Lines messages = {};
};

// Reads `file` through the tokenizer up to its end.
Lines Tokens(const std::string& file) {
  qmtatest::ScratchDir dir;
  dir.Write("QMTASITR", file);
  FILE* in = fopen("QMTASITR", "r");
  EXPECT_NE(nullptr, in);
  Lines out;
  char* value = nullptr;
  int32_t line = -1;
  for (int i = 0; in && i < 100000; ++i) {
    int32_t tag = getnexttag(in, &value, &line);
    out.push_back(std::to_string(tag) + "|" + value + "|" + std::to_string(line));
    if (tag == qmta::rules::kTagEof) break;
  }
  if (in) fclose(in);
  return out;
}

void Check(const std::vector<Case>& cases) {
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    qmtatest::StdoutCapture out;
    EXPECT_EQ(c.tags, Tokens(c.file));
    EXPECT_EQ(c.messages, out.TakeLines());
  }
}

TEST(Tokenizer, ValuesAndDelimiters) {
  Check({
      {"SITNAME=A;DESTNODE=B;\n",
       {"1|A|1", "0|SITNAME=A|1", "4|B|1", "0|DESTNODE=B|1", "100||1"}},
      {"DESTNODE=B ;\n", {"4|B|1", "0|B|1", "100||1"}},
      {"SITNAME =A\n", {"101|SITNAME|1", "101|=A|1", "100||1"}},
      {"sitname=A bad;", {"101|sitname=A|1", "101|bad|1", "0|bad|1", "100||1"}},
      {"SITNAME=;ORIGINNODE=\tSTATE=x\fCALLTYPE=1\vSCRIPT=s\rSUBAGENT=u\n",
       {"1||1", "0|SITNAME=|1", "2||1", "3|x|1", "5|1|1", "6|s|1", "7|u|1",
        "100||1"}},
      {"ARG1=a ARG2=b ARG3=c ARG4=d ARG5=e ARG6=f ARG7=g ARG8=h ARG9=i ARG10=j",
       {"8|a|1", "9|b|1", "10|c|1", "11|d|1", "12|e|1", "13|f|1", "14|g|1",
        "15|h|1", "16|i|1", "101|ARG10=j|1", "100||1"}},
  });
}

TEST(Tokenizer, QuotedValues) {
  Check({
      {"SCRIPT=\"my job\";\n", {"6|\"my job\"|1", "0|SCRIPT=\"my job\"|1", "100||1"}},
      {"ARG1=\"a;b\" ARG2=\"A\"B ARG3=\"\"", {"8|\"a;b\"|1", "9|\"A\"|1", "10|\"\"|1", "100||1"}},
      {"ARG1=\"abc def\nDESTNODE=N;\n",
       {"101|ARG1=\"abc def|1", "4|N|2", "0|DESTNODE=N|2", "100||2"},
       {"QMTA024E ENDING QUOTE FOR TAG VALUE NOT FOUND IN LINE 1"}},
      {"ARG1=x \"", {"8|x|1", "101|\"|1", "100||1"}},
  });
}

TEST(Tokenizer, CommentsBlankLinesAndLineNumbers) {
  Check({
      {"", {"100||0"}},
      {"* one\n*two\n", {"100||2"}},
      {"* comment\n\n   *x\n\tDESTNODE=N1;\n",
       {"101|*x|3", "4|N1|4", "0|DESTNODE=N1|4", "100||4"}},
      // Line ends (LF or CR LF), tabs and a missing final line end.
      {"SITNAME=A\t\r\nDESTNODE=B\r\n\r\n;\r\nSTATE=ANY",
       {"1|A|1", "4|B|2", "0|B|4", "3|ANY|5", "100||5"}},
      // A NUL byte ends the line's text; the rest of that line is never read.
      {std::string("DESTNODE=N1\0SITNAME=X;\n          ;\n", 35),  // 35 bytes
       {"4|N1|1", "0|N1|2", "100||2"}},
  });
}

TEST(Tokenizer, LongLinesComeInPiecesCountedAsLines) {
  std::string x508(508, 'x');
  Check({
      // 602 characters with the line end: 513 in the first piece.
      {"ARG1=" + x508 + std::string(87, 'x') + ";\nSTATE=*\n",
       {"8|" + x508 + "|1", "101|" + std::string(87, 'x') + "|2",
        "0|" + std::string(87, 'x') + "|2", "3|*|3", "100||3"}},
      // Only a long comment's first piece is a comment.
      {"*" + std::string(600, 'a') + "\n",
       {"101|" + std::string(88, 'a') + "|2", "100||2"}},
      // A line of exactly 513 characters fits the buffer whole.
      {"ARG1=" + std::string(507, 'y') + "\nSTATE=*",
       {"8|" + std::string(507, 'y') + "|1", "3|*|2", "100||2"}},
  });
}

}  // namespace
