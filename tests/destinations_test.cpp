// The destination directory: its syntax, its error reports, which line
// serves a destination, and the sim driver's options.
#include <string.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "host/hostsvc.h"
#include "platform/dbq1.h"

namespace {

using namespace std::chrono_literals;

const char* kRmSql =
    "SELECT RESULTS FROM QMT.RMEVENTS WHERE REQUESTID=? OR  (COMMAND=? AND CALLTYPE=? AND ORIGINNODE=?)";

class DestinationsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qmta::host::ResetQueryService();
    DBQ1_Handle path = qmta::host::OwnPath(), plan{};
    ASSERT_EQ(DBQ1_OK, DBQ1_CreateAccessPlan(path, kRmSql, &plan));
    DBQ1_AsyncNotify block{DBQ1_NOTIFY_ROUTINE, &Routine, this};
    ASSERT_EQ(DBQ1_OK, DBQ1_CreateRequest(path, plan, &block, &request_, &cursor_));
    ASSERT_EQ(DBQ1_OK, DBQ1_GetInputSQLDA(request_, &input_));
    ASSERT_EQ(DBQ1_OK, DBQ1_GetOutputSQLDA(cursor_, &output_));
  }

  // No routine may run on a fixture that has gone.
  void TearDown() override { EXPECT_EQ(DBQ1_OK, DBQ1_DropHandle(request_)); }

  // Opens the request for `destination` and returns "status:rows", e.g.
  // "0:1,2" or "2020:".
  std::string Ask(const std::string& destination) {
    DBQ1_SqlVar& node = input_->var[3];
    memset(node.data, ' ', static_cast<size_t>(node.length));
    memcpy(node.data, destination.data(), destination.size());
    int before = calls_.load();
    if (DBQ1_OpenRequest(request_, input_) != DBQ1_OK) return "open failed";
    for (int i = 0; i < 2000 && calls_.load() == before; ++i) std::this_thread::sleep_for(1ms);
    std::string answer = std::to_string(status_.load()) + ":";
    for (const char* separator = ""; DBQ1_Fetch(cursor_, output_) == DBQ1_OK; separator = ",") {
      int32_t rc;
      memcpy(&rc, output_->var[0].data, 4);
      answer += separator + std::to_string(rc);
    }
    DBQ1_CloseRequest(request_);
    return answer;
  }

  static std::string Error(const std::string& text) {
    std::string error;
    return qmta::host::SetDestinations(text, &error) ? "accepted" : error;
  }

  static int32_t Routine(int32_t status, void* self) {
    auto* test = static_cast<DestinationsTest*>(self);
    test->status_ = status;
    test->calls_++;
    return status;
  }

  DBQ1_Handle request_{}, cursor_{};
  DBQ1_Sqlda* input_ = nullptr;
  DBQ1_Sqlda* output_ = nullptr;
  std::atomic<int> calls_{0};
  std::atomic<int32_t> status_{0};
};

TEST_F(DestinationsTest, FirstMatchingLineDecidesAndUnmatchedIsOffline) {
  ASSERT_EQ("accepted", Error("# the test network\n"
                              "\n"
                              "   HOST:A   sim rc=1     # exact name\n"
                              "HOST:*     sim rc=2,3\n"
                              "*:MVS_ACTIONS sim norows\n"
                              "SYS*LOG  sim status=123\n"
                              "DOWN offline\n"));
  EXPECT_EQ("0:1", Ask("HOST:A"));
  EXPECT_EQ("0:2,3", Ask("HOST:AB"));       // exact lines match whole names only
  EXPECT_EQ("0:2,3", Ask("HOST:MVS_ACTIONS"));  // an earlier line wins
  EXPECT_EQ("0:", Ask("SYS1:MVS_ACTIONS"));
  EXPECT_EQ("123:", Ask("SYSLOG"));         // prefix and suffix may meet
  EXPECT_EQ("123:", Ask("SYS_X_LOG"));
  EXPECT_EQ("2020:", Ask("SYSLO"));         // too short for both
  EXPECT_EQ("2020:", Ask("host:a"));        // names are case-sensitive
  EXPECT_EQ("2020:", Ask("DOWN"));
  EXPECT_EQ("2020:", Ask("ELSEWHERE"));
  ASSERT_EQ("accepted", Error("* sim offline\n"));
  EXPECT_EQ("2020:", Ask("HOST:A"));
  ASSERT_EQ("accepted", Error("* sim rc=-4"));  // no final line end
  EXPECT_EQ("0:-4", Ask("ANYTHING"));
}

TEST_F(DestinationsTest, BadLinesAreReportedByNumberAndKeepTheOldDirectory) {
  ASSERT_EQ("accepted", Error("KEEP sim rc=9\n"));
  struct {
    const char* text;
    const char* error;
  } cases[] = {
      {"# only a comment\nLONELY\n", "line 2: no driver for \"LONELY\""},
      {"A*B*C sim rc=1", "line 1: more than one '*' in \"A*B*C\""},
      {"\n\nX nosuch", "line 3: unknown driver \"nosuch\""},
      {"X sim", "line 1: sim: needs exactly one of rc=N[,N...], norows, offline, status=N, silent"},
      {"X sim rc=1 norows", "line 1: sim: needs exactly one of rc=N[,N...], norows, offline, status=N, silent"},
      {"X sim rc=1,,2", "line 1: sim: bad return code in \"rc=1,,2\""},
      {"X sim rc=", "line 1: sim: bad return code in \"rc=\""},
      {"X sim rc=99999999999", "line 1: sim: bad return code in \"rc=99999999999\""},
      {"X sim status=0", "line 1: sim: bad status \"status=0\""},
      {"X sim status=two", "line 1: sim: bad status \"status=two\""},
      {"X sim norows delay=-1", "line 1: sim: bad delay \"delay=-1\""},
      {"X sim silent delay=5", "line 1: sim: silent takes no delay"},
      {"X sim loud", "line 1: sim: unknown option \"loud\""},
      {"X offline now", "line 1: offline: takes no options"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.error, Error(c.text)) << c.text;
  EXPECT_EQ("0:9", Ask("KEEP"));
}

TEST_F(DestinationsTest, ReplacedDirectoryLetsRunningOpensFinishWithTheirDriver) {
  ASSERT_EQ("accepted", Error("N sim rc=5 delay=100\n"));
  DBQ1_SqlVar& node = input_->var[3];
  memset(node.data, ' ', static_cast<size_t>(node.length));
  memcpy(node.data, "N", 1);
  ASSERT_EQ(DBQ1_OK, DBQ1_OpenRequest(request_, input_));
  qmta::host::ResetQueryService();  // the driver leaves the directory
  for (int i = 0; i < 2000 && calls_.load() == 0; ++i) std::this_thread::sleep_for(1ms);
  ASSERT_EQ(1, calls_.load());
  int32_t rc = 0;
  ASSERT_EQ(DBQ1_OK, DBQ1_Fetch(cursor_, output_));
  memcpy(&rc, output_->var[0].data, 4);
  EXPECT_EQ(5, rc);
  EXPECT_EQ("2020:", Ask("N"));
}

}  // namespace
