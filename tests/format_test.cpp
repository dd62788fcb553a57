// Matching, command formatting, request ids and timestamps, driven through
// the module's internal functions with a hand-built anchor.
#include <errno.h>
#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "qmtauto1/qmtafault.h"
#include "qmtauto1/qmtauto1.h"
#include "tests/support/support.h"

namespace {

using qmtatest::StdoutCapture;

struct MatchCase {
  const char* text;
  const char* pattern;
  int expected;
};

TEST(Match, WildcardPatterns) {
  const MatchCase cases[] = {
      {"anything", "*", 1},      {"", "*", 1},
      {"NT_Disk", "NT_*", 1},    {"NT_", "NT_*", 1},        {"nt_Disk", "NT_*", 0},
      {"NT_Disk", "*_Disk", 1},  {"_Disk", "*_Disk", 1},    {"NT_Disc", "*_Disk", 0},
      {"NTDisk", "NT*Disk", 1},  {"NT_Big_Disk", "NT*Disk", 1}, {"NT_Big_Dis", "NT*Disk", 0},
      {"abc", "abc", 1},         {"abcd", "abc", 0},        {"ab", "abc", 0},
      {"", "", 1},               {"a", "", 0},
      // Prefix and suffix may overlap in the text.
      {"ab", "ab*b", 1},         {"a", "a*a", 1},
      // A text shorter than the suffix does not match.
      {"a", "*abc", 0},          {"", "*x", 0},
      // Only the first "*" is a wildcard; a later one is an ordinary character.
      {"a*b", "a**b", 1},        {"ax*b", "a**b", 1},       {"axyb", "a**b", 0},
  };
  for (const MatchCase& c : cases)
    EXPECT_EQ(match(c.text, c.pattern), c.expected)
        << "text \"" << c.text << "\" pattern \"" << c.pattern << "\"";
}

TableEntry* newEntry(const char* sitname, const char* originnode, uint32_t state) {
  auto* entry = static_cast<TableEntry*>(calloc(1, sizeof(TableEntry)));
  memcpy(entry->eyecatcher, "TBEN", 4);
  entry->state = state;
  strcpy(entry->sitname, sitname);
  strcpy(entry->originnode, originnode);
  strcpy(entry->destnode, "DEST1");
  strcpy(entry->script, "*");
  return entry;
}

SitParms event(const char* sitname, const char* node, int32_t prev, int32_t curr) {
  SitParms p;
  memset(&p, 0, sizeof p);
  memcpy(p.eyecatcher, "SITP", 4);
  p.sitnameS = sitname;
  p.originnodeS = node;
  p.prevstateL = prev;
  p.currstateL = curr;
  p.timestampS = "1261116000509000";
  p.thresholdS = "";
  return p;
}

TEST(Match, StateAndNamesDecide) {
  struct Case {
    uint32_t state;
    int32_t prev, curr;
    const char *sit, *node;
    int expected;
  } cases[] = {
      {kStateTrue, 0, 1, "S", "N", 1},
      {kStateFalse, 2, 1, "S", "N", 0},  // the current state decides, not the previous
      {kStateFalse, 1, 2, "S", "N", 1},
      {kStateUnknown, 1, 0, "S", "N", 1},
      {kStateAny, 0, 7, "S", "N", 1},
      {kStateAny, 0, -1, "S", "N", 1},
      {kStateTrue, 0, 1, "X", "N", 0},
      {kStateTrue, 0, 1, "S", "X", 0},
  };
  TableEntry* rule = newEntry("S", "N", kStateTrue);
  for (const Case& c : cases) {
    rule->state = c.state;
    SitParms p = event(c.sit, c.node, c.prev, c.curr);
    EXPECT_EQ(sitmatch(&p, rule), c.expected)
        << "state " << c.state << " curr " << c.curr << " " << c.sit << "/" << c.node;
  }
  free(rule);
}

// An anchor with the request-id mutex and a rule list, as initialisation
// would leave it (without stacks).
class Formatting : public ::testing::Test {
 protected:
  void SetUp() override {
    qmtatest_fault_reset();
    table_ = static_cast<AutomationAnchor*>(calloc(1, sizeof(AutomationAnchor)));
    memcpy(table_->eyecatcher, "TABL", 4);
    pthread_mutex_init(&table_->requestIdLock, nullptr);
    table_->requestId = 1;
    publishAnchor(table_);
    rule_ = newEntry("*", "*", kStateAny);
    strcpy(rule_->script, "myjob");
  }
  void TearDown() override {
    qmtatest_fault_reset();
    args({});
    free(rule_);
    publishAnchor(nullptr);
    free(table_);
  }
  // Replaces the rule's arguments; "" is kept as the static empty string.
  void args(std::vector<std::string> values) {
    for (char*& arg : rule_->args) {
      if (arg && *arg) free(arg);
      arg = nullptr;
    }
    for (size_t i = 0; i < values.size(); ++i)
      rule_->args[i] = values[i].empty() ? const_cast<char*>("") : strdup(values[i].c_str());
  }
  // The command text of the rule for `p`, or "<null>" when formatting failed.
  std::string command(const SitParms& p) {
    AutoSql* sql = formatsql(&p, rule_);
    if (sql == nullptr) return "<null>";
    std::string text = sql->cmdS;
    last_id_ = sql->requestidUL;
    free(sql->cmdS);
    free(sql);
    return text;
  }

  AutomationAnchor* table_ = nullptr;
  TableEntry* rule_ = nullptr;
  uint32_t last_id_ = 0;
};

TEST_F(Formatting, DefaultArgumentsAndRecordFields) {
  SitParms p = event("NT_Disk", "host1:NT", -1, 1);
  p.thresholdS = "Disk.Free<\"10\"";
  AutoSql* sql = formatsql(&p, rule_);
  ASSERT_NE(sql, nullptr);
  EXPECT_EQ(std::string(sql->cmdS),
            "myjob \"NT_Disk\" \"1261116000509000\" \"-1\" \"1\" \"host1:NT\" "
            "\"Disk.Free<'10'\"");
  EXPECT_EQ(memcmp(sql->eyecatcher, "ASQL", 4), 0);
  EXPECT_EQ(sql->requestidUL, 1u);
  EXPECT_EQ(sql->stateL, 1);
  EXPECT_STREQ(sql->originnode, "host1:NT");
  EXPECT_STREQ(sql->destnodeS, "DEST1");
  EXPECT_STREQ(sql->sitnameS, "NT_Disk");
  free(sql->cmdS);
  free(sql);
  // Only ARG1 decides: ARG2 without ARG1 still gets the six defaults.
  rule_->args[1] = strdup("Ignored");
  EXPECT_EQ(command(event("S", "N", 0, 2)),
            "myjob \"S\" \"1261116000509000\" \"0\" \"2\" \"N\" \"\"");
}

TEST_F(Formatting, VariablesAttributesAndLiterals) {
  const char* names[] = {"Disk.Name", "Disk.Name", "Disk.Quote"};
  const char* values[] = {"C:", "D:", "say \"hi\""};
  SitParms p = event("Sit\"A", "No\"de", 0, 1);
  p.attribL = 3;
  p.attribNames = names;
  p.attribValues = values;
  args({"NODE", "Disk.Name", "Disk.Quote", "sitname", "\"as is\"", "SITNAME",
        "a\"b"});
  // Situation and node keep their quotes; attribute values get apostrophes;
  // the first of two equal names wins; lower case is a literal; a leading
  // quote is taken verbatim; a quote elsewhere in a literal stays.
  EXPECT_EQ(command(p),
            "myjob \"No\"de\" \"C:\" \"say 'hi'\" \"sitname\" \"as is\" \"Sit\"A\" "
            "\"a\"b\"");
  // A gap stops the expansion: ARG1 and ARG3 without ARG2 expands ARG1 only.
  args({"NODE"});
  rule_->args[2] = strdup("SITNAME");
  EXPECT_EQ(command(p), "myjob \"No\"de\"");
}

TEST_F(Formatting, CommandOf600CharactersFitsAnd601DoesNot) {
  StdoutCapture out;
  const char* names[] = {"A", "B"};
  const char* values[] = {nullptr, "x"};
  SitParms p = event("Sit", "N", 0, 1);
  p.attribL = 2;
  p.attribNames = names;
  p.attribValues = values;
  args({"A", "B"});
  // "myjob" + blank + 588 quoted = 596; with the 3-character piece 599:
  // accepted, and the blank makes the command exactly 600 long.
  std::string fits(588, 'v');
  values[0] = fits.c_str();
  std::string text = command(p);
  EXPECT_EQ(text.size(), 600u);
  EXPECT_EQ(text.substr(594), "v\" \"x\"");
  EXPECT_EQ(out.Take(), "");
  // One more character: 597 + 3 = 600, refused, nothing kept.
  std::string over(589, 'v');
  values[0] = over.c_str();
  EXPECT_EQ(command(p), "<null>");
  EXPECT_EQ(out.Take(),
            "QMTA004E COMMAND BUFFER OVERFLOW SITUATION=Sit DESTNODE=B ARG=\n");
  // A value far beyond the buffer is cut inside its piece and then refused,
  // never written past the buffer.
  std::string huge(5000, 'h');
  values[0] = huge.c_str();
  EXPECT_EQ(command(p), "<null>");
  EXPECT_EQ(out.Take(),
            "QMTA004E COMMAND BUFFER OVERFLOW SITUATION=Sit DESTNODE=A ARG=\n");
}

TEST_F(Formatting, RequestIdsWrapBeforeTheLimit) {
  SitParms p = event("S", "N", 0, 1);
  std::vector<uint32_t> ids;
  for (int i = 0; i < 4; ++i) {
    if (i == 2) table_->requestId = kRequestIdWrap - 1;
    command(p);
    ids.push_back(last_id_);
  }
  EXPECT_EQ(ids, (std::vector<uint32_t>{1, 2, kRequestIdWrap - 1, 1}));
}

TEST_F(Formatting, FailuresFreeEverythingAndSayWhy) {
  StdoutCapture out;
  SitParms p = event("S", "N", 0, 1);
  qmtatest_fault_arm(kFaultAlloc, 0, 1, ENOMEM);
  EXPECT_EQ(command(p), "<null>");
  qmtatest_fault_arm(kFaultAlloc, 1, 1, ENOMEM);
  EXPECT_EQ(command(p), "<null>");
  qmtatest_fault_arm(kFaultMutexLock, 0, 1, EDEADLK);
  EXPECT_EQ(command(p), "<null>");
  EXPECT_EQ(out.TakeLines(),
            (std::vector<std::string>{"QMTA000E ALLOCATION ERROR FOR ACTION SQL PARMS",
                                      "QMTA000E ALLOCATION ERROR FOR ACTION COMMAND",
                                      "QMTA003E GET LOCK ERROR=" + std::to_string(EDEADLK)}));
  // No id was used up by the failures.
  command(p);
  EXPECT_EQ(last_id_, 1u);
}

TEST(Timestamp, SixteenDigitsAndTheCenturyDigit) {
  const struct {
    int year, mon, day, h, m, s;
    const char* expected;
  } cases[] = {
      {2026, 11, 16, 0, 5, 9, "1261116000509000"},
      {1999, 12, 31, 23, 59, 59, "0991231235959000"},
      {2000, 1, 1, 0, 0, 0, "1000101000000000"},
      {2016, 12, 31, 23, 59, 60, "1161231235960000"},  // leap second
      {2899, 1, 1, 0, 0, 0, "9990101000000000"},
      {2900, 1, 1, 0, 0, 0, "10000101000000000"},  // 17 from 2900 on
  };
  for (const auto& c : cases) {
    struct tm t = {};
    t.tm_year = c.year - 1900, t.tm_mon = c.mon - 1, t.tm_mday = c.day;
    t.tm_hour = c.h, t.tm_min = c.m, t.tm_sec = c.s;
    char buffer[kTimestampBuffer];
    EXPECT_EQ(std::string(gettimestamp(buffer, &t)), c.expected);
  }
}

}  // namespace
