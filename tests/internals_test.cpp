// The module's parts driven directly with hand-built records: matching,
// command formatting, request ids and timestamps, the request pool, and the
// table lock. Their failures: faultsweep_test.
#include <errno.h>
#include <string.h>


#include <gtest/gtest.h>

#include "host/services/control.h"
#include "host/services/testhooks.h"
#include "qmtauto1/qmtafault.h"
#include "qmtauto1/qmtauto1.h"
#include "tests/support/support.h"

namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

TEST(Match, WildcardPatterns) {
  const struct {
    const char *text, *pattern;
    int expected;
  } cases[] = {
      {"anything", "*", 1}, {"", "*", 1}, {"NT_Disk", "NT_*", 1}, {"NT_", "NT_*", 1}, {"nt_Disk", "NT_*", 0},
      {"NT_Disk", "*_Disk", 1}, {"_Disk", "*_Disk", 1}, {"NT_Disc", "*_Disk", 0}, {"NTDisk", "NT*Disk", 1},
      {"NT_Big_Disk", "NT*Disk", 1}, {"NT_Big_Dis", "NT*Disk", 0}, {"abc", "abc", 1}, {"abcd", "abc", 0},
      {"ab", "abc", 0}, {"", "", 1}, {"a", "", 0},
      {"ab", "ab*b", 1}, {"a", "a*a", 1},  // prefix and suffix may overlap in the text
      {"a", "*abc", 0}, {"", "*x", 0},     // a text shorter than the suffix
      // Only the first "*" is a wildcard.
      {"a*b", "a**b", 1}, {"ax*b", "a**b", 1}, {"axyb", "a**b", 0},
  };
  for (const auto& c : cases) EXPECT_EQ(match(c.text, c.pattern), c.expected) << c.text << " / " << c.pattern;
}

SitParms Event(const char* sitname, const char* node, int32_t prev, int32_t curr) {
  SitParms p{};
  memcpy(p.eyecatcher, "SITP", 4);
  p.sitnameS = sitname, p.originnodeS = node, p.prevstateL = prev, p.currstateL = curr;
  p.timestampS = "1261116000509000", p.thresholdS = "";
  return p;
}

TEST(Match, TheCurrentStateAndBothNamesDecide) {
  TableEntry rule{};
  strcpy(rule.sitname, "S"), strcpy(rule.originnode, "N");
  const struct {
    uint32_t state;
    int32_t prev, curr;
    const char *sit, *node;
    int expected;
  } cases[] = {{kStateTrue, 0, 1, "S", "N", 1}, {kStateFalse, 2, 1, "S", "N", 0}, {kStateFalse, 1, 2, "S", "N", 1},
               {kStateUnknown, 1, 0, "S", "N", 1}, {kStateAny, 0, 7, "S", "N", 1}, {kStateAny, 0, -1, "S", "N", 1},
               {kStateTrue, 0, 1, "X", "N", 0}, {kStateTrue, 0, 1, "S", "X", 0}};
  for (const auto& c : cases) {
    rule.state = c.state;
    SitParms p = Event(c.sit, c.node, c.prev, c.curr);
    EXPECT_EQ(sitmatch(&p, &rule), c.expected) << c.state << " " << c.curr << " " << c.sit << "/" << c.node;
  }
}

// An anchor with the request-id mutex and one rule, as start-up would leave
// them (without stacks).
class Formatting : public ::testing::Test {
 protected:
  void SetUp() override {
    memcpy(table_.eyecatcher, "TABL", 4);
    pthread_mutex_init(&table_.requestIdLock, nullptr);
    table_.requestId = 1;
    publishAnchor(&table_);
    strcpy(rule_.destnode, "DEST1"), strcpy(rule_.script, "myjob");
  }
  void TearDown() override {
    publishAnchor(nullptr);
    Args({});
  }
  // Replaces the rule's arguments; "" stays a static empty string.
  void Args(const Lines& values) {
    for (char*& arg : rule_.args) {
      if (arg && *arg) free(arg);
      arg = nullptr;
    }
    for (size_t i = 0; i < values.size(); ++i)
      rule_.args[i] = values[i].empty() ? const_cast<char*>("") : strdup(values[i].c_str());
  }
  // The command for `p`, or "<null>" when formatting failed.
  std::string Command(const SitParms& p) {
    AutoSql* sql = formatsql(&p, &rule_);
    if (sql == nullptr) return "<null>";
    std::string text = sql->cmdS;
    lastId_ = sql->requestidUL;
    free(sql->cmdS);
    free(sql);
    return text;
  }
  AutomationAnchor table_{};
  TableEntry rule_{};
  uint32_t lastId_ = 0;
};

TEST_F(Formatting, DefaultArgumentsAndRecordFields) {
  SitParms p = Event("NT_Disk", "host1:NT", -1, 1);
  p.thresholdS = "Disk.Free<\"10\"";
  rule_.calltype = 42;
  AutoSql* sql = formatsql(&p, &rule_);
  ASSERT_NE(sql, nullptr);
  EXPECT_EQ(std::make_tuple(std::string(sql->eyecatcher, 4), sql->requestidUL, sql->stateL, sql->calltypeL,
                            std::string(sql->originnode), std::string(sql->destnodeS), std::string(sql->sitnameS),
                            std::string(sql->cmdS)),
            std::make_tuple("ASQL", 1u, 1, 42, "host1:NT", "DEST1", "NT_Disk",
                            "myjob \"NT_Disk\" \"1261116000509000\" \"-1\" \"1\" \"host1:NT\" \"Disk.Free<'10'\""));
  free(sql->cmdS);
  free(sql);
  // Only ARG1 decides: ARG2 without ARG1 still gets the six defaults.
  rule_.args[1] = strdup("Ignored");
  EXPECT_EQ(Command(Event("S", "N", 0, 2)), "myjob \"S\" \"1261116000509000\" \"0\" \"2\" \"N\" \"\"");
}

TEST_F(Formatting, VariablesAttributesLiteralsAndTheBufferLimit) {
  const char* names[] = {"Disk.Name", "Disk.Name", "Disk.Quote", "Big", nullptr, "Nul"};
  const char* values[] = {"C:", "D:", "say \"hi\"", "", "x", nullptr};
  SitParms p = Event("Sit\"A", "No\"de", 0, 1);
  p.attribL = 6, p.attribNames = names, p.attribValues = values;
  // Situation and node keep their quotes; attribute values get apostrophes;
  // the first of two equal names wins; lower case is a literal; a leading
  // quote is taken verbatim; a quote elsewhere in a literal stays.
  Args({"NODE", "Disk.Name", "Disk.Quote", "sitname", "\"as is\"", "SITNAME", "a\"b", "Nul", "PRESTATE"});
  EXPECT_EQ(Command(p), "myjob \"No\"de\" \"C:\" \"say 'hi'\" \"sitname\" \"as is\" \"Sit\"A\" \"a\"b\" \"\" \"0\"");
  // A gap stops the expansion: ARG1 and ARG3 without ARG2 expands ARG1 only.
  Args({"NODE"});
  rule_.args[2] = strdup("SITNAME");
  EXPECT_EQ(Command(p), "myjob \"No\"de\"");
  // "myjob" + blank + 588 quoted = 596; with the blank and "x" in quotes the
  // command is exactly 600 long and fits; one character more does not, nor
  // does a value far beyond the buffer, which is never written past it.
  qmtatest::StdoutCapture out;
  Args({"Big", "x"});
  for (size_t length : {588, 589, 5000}) {
    std::string value(length, 'v');
    values[3] = value.c_str();
    std::string command = Command(p);
    EXPECT_EQ(command.size(), length == 588 ? 600u : 6u) << length;
  }
  EXPECT_EQ(out.TakeLines(), (Lines{"QMTA004E COMMAND BUFFER OVERFLOW SITUATION=Sit\"A DESTNODE=x ARG=",
                                    "QMTA004E COMMAND BUFFER OVERFLOW SITUATION=Sit\"A DESTNODE=Big ARG="}));
}

TEST_F(Formatting, RequestIdsWrapBeforeTheLimitAndFailuresUseNone) {
  SitParms p = Event("S", "N", 0, 1);
  qmtatest::StdoutCapture out;
  qmtatest_fault_arm(kFaultMutexLock, 0, 1, EDEADLK);
  EXPECT_EQ(Command(p), "<null>");
  qmtatest_fault_reset();
  std::vector<uint32_t> ids;
  for (int i = 0; i < 4; ++i) {
    if (i == 2) table_.requestId = kRequestIdWrap - 1;
    Command(p);
    ids.push_back(lastId_);
  }
  EXPECT_EQ(ids, (std::vector<uint32_t>{1, 2, kRequestIdWrap - 1, 1}));
}

TEST(Timestamp, SixteenDigitsAndTheCenturyDigit) {
  const struct {
    int year, mon, day, h, m, s;
    const char* expected;
  } cases[] = {{2026, 11, 16, 0, 5, 9, "1261116000509000"},   {1999, 12, 31, 23, 59, 59, "0991231235959000"},
               {2000, 1, 1, 0, 0, 0, "1000101000000000"},     {2016, 12, 31, 23, 59, 60, "1161231235960000"},
               {2899, 1, 1, 0, 0, 0, "9990101000000000"},     {2900, 1, 1, 0, 0, 0, "10000101000000000"}};
  for (const auto& c : cases) {
    struct tm t = {};
    t.tm_year = c.year - 1900, t.tm_mon = c.mon - 1, t.tm_mday = c.day, t.tm_hour = c.h, t.tm_min = c.m, t.tm_sec = c.s;
    char buffer[kTimestampBuffer];
    EXPECT_STREQ(gettimestamp(buffer, &t), c.expected);
  }
}

// The request pool: last in first out, at most 80 per cent of the requests
// ever made kept (rounded half up), forced drops forgotten.
TEST(Stacks, ReuseLastInFirstOutAndKeepAtMostEightyPerCent) {
  qmta::host::ResetQueryService();
  RSTK stack{};
  stack.pathHandle = qmta::host::OwnPath();
  ASSERT_EQ(initstack(&stack, kRmStatement), 0);
  auto counts = [&] { return std::make_pair(stack.freeCount, stack.totalCount); };
  std::vector<RSEN*> entries;
  for (int i = 0; i < 5; ++i) entries.push_back(pullstack(&stack));
  EXPECT_EQ(memcmp(entries[0]->eyecatcher, "RSEN", 4), 0);
  EXPECT_EQ(entries[0]->cursorHandleRef, &entries[0]->cursorHandle);
  const int64_t live = qmta::host::LiveObjects();
  for (RSEN* entry : entries) pushstack(&stack, entry, 0);  // limit 4 (4.0 + 0.5): the fifth is deleted
  EXPECT_EQ(counts(), std::make_pair(4, 5));
  EXPECT_EQ(qmta::host::LiveObjects(), live - 1);
  EXPECT_EQ(pullstack(&stack), entries[3]);
  EXPECT_EQ(pullstack(&stack), entries[2]);
  pushstack(&stack, entries[2], 1);  // a forced drop deletes and forgets
  EXPECT_EQ(counts(), std::make_pair(2, 4));
  pushstack(&stack, entries[3], 0);  // limit 3 (3.2 + 0.5)
  EXPECT_EQ(counts(), std::make_pair(3, 4));
  // Of two requests made both are kept (1.6 + 0.5); a completion signals
  // its entry.
  RSTK two{};
  two.pathHandle = qmta::host::OwnPath();
  ASSERT_EQ(initstack(&two, kVxStatement), 0);
  RSEN *first = pullstack(&two), *second = pullstack(&two);
  EXPECT_EQ(sqlcomplete(9, &first->done.doneCond), 9);
  EXPECT_EQ(std::make_pair(first->done.doneFlag, first->done.doneStatus), std::make_pair(1, 9));
  pushstack(&two, first, 0), pushstack(&two, second, 0);
  EXPECT_EQ(std::make_pair(two.freeCount, two.totalCount), std::make_pair(2, 2));
  for (RSTK* s : {&stack, &two})
    while (s->top) pushstack(s, pullstack(s), 1);
}

struct SeLockTest : testing::Test {
  void SetUp() override { ASSERT_EQ(0, qmtalint(&lock)); }
  void TearDown() override { qmtatest_fault_reset(); }
  SeLock lock{};
};

// Its contract among threads (shared side by side, exclusive alone) holds
// under the soak's reloads against its searches.
TEST_F(SeLockTest, InvalidStatesAreReportedNotRepairedAndAReleaseTriesThreeTimes) {
  qmtatest::StdoutCapture out;
  EXPECT_EQ(-1, qmtalrsl(&lock));  // a free lock: -1 now reads as exclusive
  EXPECT_EQ(-1, lock.seCounter);
  ASSERT_EQ(0, qmtalrel(&lock));
  ASSERT_EQ(0, qmtalgsl(&lock));
  ASSERT_EQ(0, qmtalrel(&lock));  // clears a shared hold regardless
  EXPECT_EQ(0, lock.seCounter);
  lock.seCounter = INT32_MAX;
  EXPECT_EQ(-1, qmtalgsl(&lock));
  EXPECT_EQ(INT32_MIN, lock.seCounter);
  lock.seCounter = -1;
  qmtatest_fault_arm(kFaultMutexLock, 0, 2, EDEADLK);
  EXPECT_EQ(0, qmtalrel(&lock));
  qmtatest_fault_arm(kFaultMutexLock, 0, 3, EDEADLK);
  EXPECT_EQ(-1, qmtalrsl(&lock));
  EXPECT_EQ(0, lock.seCounter);
  const std::string failed = "QMTAL01S UNABLE TO ACQUIRE MUTEX LOCK IN ";
  EXPECT_EQ((Lines{"QMTAL00E INVALID SE LOCK STATE IN releaseslock COUNTER=-1",
                   "QMTAL00E INVALID SE LOCK STATE IN getslock COUNTER=-2147483648", failed + "releaseelock ERRNO=35",
                   failed + "releaseelock ERRNO=35", failed + "releaseeslock ERRNO=35",
                   failed + "releaseeslock ERRNO=35", failed + "releaseeslock ERRNO=35"}),
            out.TakeLines());
}

}  // namespace
