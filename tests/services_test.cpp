// The query service where the module alone cannot pin it down: the
// destination directory, the first answer, closes against a running
// completion routine and against racing completions, stale handles. The
// rest of it, and the host's other services, run under every module test.
#include <string.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "host/drivers/driver.h"
#include "host/drivers/sim.h"
#include "host/services/control.h"
#include "host/services/testhooks.h"
#include "tests/support/support.h"

namespace {

using namespace std::chrono_literals;

const char* kRmSql = "SELECT RESULTS FROM QMT.RMEVENTS WHERE REQUESTID=? OR  (COMMAND=? AND CALLTYPE=? AND ORIGINNODE=?)";

// The opens the recording driver was given; tests answer them by hand.
std::mutex recordedMutex;
std::vector<std::pair<uint32_t, std::shared_ptr<qmta::host::Completion>>> recorded;

struct RecordingDriver : qmta::host::Driver {
  void Start(const qmta::host::Action& action, std::shared_ptr<qmta::host::Completion> done) override {
    std::lock_guard<std::mutex> hold(recordedMutex);
    recorded.emplace_back(action.requestId, done);
  }
};

// A request whose completion routine counts its calls, keeps the last
// status and thread, and runs `hook` first.
struct Request {
  ~Request() { DBQ1_DropHandle(request); }  // waits for a running routine
  static int32_t Routine(int32_t status, void* argument) {
    auto* self = static_cast<Request*>(argument);
    if (self->hook) self->hook();
    self->status = status, self->thread = std::this_thread::get_id(), ++self->calls;
    return status;
  }
  DBQ1_Handle request{}, cursor{};
  DBQ1_Sqlda* input = nullptr;
  std::atomic<int> calls{0};
  std::atomic<int32_t> status{-1};
  std::atomic<std::thread::id> thread;
  std::function<void()> hook;
};

class QueryService : public ::testing::Test {
 protected:
  void SetUp() override {
    qmta::host::ResetQueryService();
    qmta::host::RegisterStandardDrivers();
    qmta::host::RegisterDriver("record", [](const auto&, std::string*) { return std::make_unique<RecordingDriver>(); });
    path_ = qmta::host::OwnPath();
    ASSERT_EQ(DBQ1_OK, DBQ1_CreateAccessPlan(path_, kRmSql, &plan_));
    ASSERT_EQ("", Route("REC* record\nSIM1 sim rc=7,8,9\nSLOW sim rc=3 delay=150\n"));
    baseline_ = qmta::host::LiveObjects();
  }
  static std::string Route(const std::string& text) {
    std::string error;
    return qmta::host::SetDestinations(text, &error) ? "" : error;
  }
  std::unique_ptr<Request> NewRequest() {
    auto made = std::make_unique<Request>();
    DBQ1_AsyncNotify block{DBQ1_NOTIFY_ROUTINE, &Request::Routine, made.get()};
    EXPECT_EQ(DBQ1_OK, DBQ1_CreateRequest(path_, plan_, &block, &made->request, &made->cursor));
    EXPECT_EQ(DBQ1_OK, DBQ1_GetInputSQLDA(made->request, &made->input));
    return made;
  }
  static int32_t Open(Request& r, const std::string& destination, uint32_t id = 1) {
    DBQ1_SqlVar& node = r.input->var[3];
    memcpy(r.input->var[0].data, &id, 4);
    memset(node.data, ' ', static_cast<size_t>(node.length));
    memcpy(node.data, destination.data(), std::min(destination.size(), static_cast<size_t>(node.length)));
    return DBQ1_OpenRequest(r.request, r.input);
  }
  static bool Called(Request& r, int count) { return qmtatest::WaitUntil([&] { return r.calls >= count; }, 3s); }
  // Fetches to the end: "row,row/end", e.g. "7,8/514" or "/104".
  static std::string Rows(Request& r) {
    DBQ1_Sqlda* output = nullptr;
    EXPECT_EQ(DBQ1_OK, DBQ1_GetOutputSQLDA(r.cursor, &output));
    std::string rows;
    int32_t status, rc;
    while ((status = DBQ1_Fetch(r.cursor, output)) == DBQ1_OK)
      rows += (rows.empty() ? "" : ",") + std::to_string((memcpy(&rc, output->var[0].data, 4), rc));
    return rows + "/" + std::to_string(status);
  }
  // One open of `r` for `destination`, then the close: "status:rows/end".
  static std::string Ask(Request& r, const std::string& destination) {
    int before = r.calls;
    if (int32_t status = Open(r, destination)) return "open " + std::to_string(status);
    if (!Called(r, before + 1)) return "no completion";
    std::string answer = std::to_string(r.status.load()) + ":" + Rows(r);
    EXPECT_EQ(DBQ1_OK, DBQ1_CloseRequest(r.request));
    EXPECT_NE(std::this_thread::get_id(), r.thread.load());  // delivered on a thread of the service's
    return answer;
  }
  DBQ1_Handle path_{}, plan_{};
  int64_t baseline_ = 0;
};

TEST_F(QueryService, TheFirstMatchingDirectoryLineRoutesAndABadLineChangesNothing) {
  ASSERT_EQ("", Route("# the test network\n\n   HOST:A   sim rc=7,8,9     # exact name\nHOST:*     sim norows\n"
                      "*:MVS_ACTIONS sim offline\nSYS*LOG  sim status=123\nDOWN offline\n"));
  auto r = NewRequest();
  const std::pair<const char*, const char*> cases[] = {
      {"HOST:A", "0:7,8,9/514"},         {"HOST:AB", "0:/514"},    {"HOST:MVS_ACTIONS", "0:/514"},
      {"SYS1:MVS_ACTIONS", "2020:/104"}, {"SYSLOG", "123:/104"},   {"SYS_X_LOG", "123:/104"},
      {"SYSLO", "2020:/104"},            {"host:a", "2020:/104"}, {"DOWN", "2020:/104"}};
  for (auto [destination, expected] : cases) EXPECT_EQ(expected, Ask(*r, destination)) << destination;
  std::this_thread::sleep_for(30ms);
  EXPECT_EQ(9, r->calls.load());
  ASSERT_EQ("", Route("* sim rc=-4"));  // no final line end
  const std::string oneOf = "sim: needs exactly one of rc=N[,N...], norows, offline, status=N, silent";
  const std::pair<const char*, std::string> bad[] = {
      {"# a comment\nLONELY\n", "line 2: no driver for \"LONELY\""},
      {"A*B*C sim rc=1", "line 1: more than one '*' in \"A*B*C\""},
      {"\n\nX nosuch", "line 3: unknown driver \"nosuch\""}, {"X sim", "line 1: " + oneOf},
      {"X sim rc=1,,2", "line 1: sim: bad return code in \"rc=1,,2\""},
      {"X sim status=0", "line 1: sim: bad status \"status=0\""},
      {"X sim norows delay=-1", "line 1: sim: bad delay \"delay=-1\""},
      {"X sim silent delay=5", "line 1: sim: silent takes no delay"},
      {"X sim loud", "line 1: sim: unknown option \"loud\""}, {"X offline now", "line 1: offline: takes no options"}};
  for (const auto& [text, error] : bad) EXPECT_EQ(error, Route(text)) << text;
  EXPECT_EQ("0:-4/514", Ask(*r, "ANYTHING"));
}

TEST_F(QueryService, TheFirstAnswerWinsAndAnOpenOutlivesTheDirectory) {
  auto r = NewRequest();
  ASSERT_EQ(DBQ1_OK, Open(*r, "REC1"));
  EXPECT_EQ(DBQ1_ALREADY_OPEN, Open(*r, "REC1"));
  recorded.back().second->Rows({5});
  recorded.back().second->Fail(99);
  ASSERT_TRUE(Called(*r, 1));
  EXPECT_EQ("5/514", Rows(*r));
  EXPECT_EQ("/514", Rows(*r));  // stays at the end
  // A finished open needs no close before the next; one still running when
  // the directory changes finishes with its driver; a failed one has no rows.
  auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(DBQ1_OK, Open(*r, "SLOW"));
  qmta::host::ResetQueryService();
  EXPECT_EQ("/104", Rows(*r));  // still running
  ASSERT_TRUE(Called(*r, 2));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 150ms);
  EXPECT_EQ("3/514", Rows(*r));
  EXPECT_EQ("2020:/104", Ask(*r, "SLOW"));
  EXPECT_EQ(3, r->calls.load());
}

TEST_F(QueryService, ACloseWaitsForARunningRoutineButNotFromInsideItAndStopsTheOpen) {
  auto r = NewRequest();
  std::atomic<bool> entered{false}, gate{false}, returned{false}, closed{false};
  r->hook = [&] {
    entered = true;
    while (!gate) std::this_thread::sleep_for(1ms);
    returned = true;
  };
  ASSERT_EQ(DBQ1_OK, Open(*r, "SIM1"));
  ASSERT_TRUE(qmtatest::WaitUntil([&] { return entered.load(); }, 3s));
  std::thread closer([&] {
    EXPECT_EQ(DBQ1_OK, DBQ1_CloseRequest(r->request));
    closed = returned.load();
  });
  std::this_thread::sleep_for(50ms);
  gate = true;
  closer.join();
  EXPECT_TRUE(closed);
  r->hook = [&] { EXPECT_EQ(DBQ1_OK, DBQ1_CloseRequest(r->request) + DBQ1_DropHandle(r->request)); };
  ASSERT_EQ(DBQ1_OK, Open(*r, "SIM1"));
  ASSERT_TRUE(Called(*r, 2));
  // A closed open is stopped for good: its late answer is dropped.
  auto late = NewRequest();
  ASSERT_EQ(DBQ1_OK, Open(*late, "REC2"));
  ASSERT_EQ(DBQ1_OK, DBQ1_CloseRequest(late->request));
  EXPECT_TRUE(recorded.back().second->Closed());
  recorded.back().second->Rows({1});
  EXPECT_EQ("/104", Rows(*late));
  std::this_thread::sleep_for(30ms);
  EXPECT_EQ(0, late->calls.load());
}

TEST_F(QueryService, StaleForeignAndWrongHandlesFail) {
  DBQ1_Handle plan{}, out{};
  DBQ1_Sqlda* sqlda = nullptr;
  auto r = NewRequest();
  int local = 0;
  for (DBQ1_Handle h : {r->request, r->cursor, DBQ1_Handle{0, nullptr}, DBQ1_Handle{1, &local}}) {
    qmta::host::MakeStale(h);
    EXPECT_EQ(std::make_tuple(DBQ1_STALE_HANDLE, DBQ1_STALE_HANDLE, DBQ1_STALE_HANDLE),
              std::make_tuple(DBQ1_CloseRequest(h), DBQ1_GetOutputSQLDA(h, &sqlda), DBQ1_DropHandle(h)));
  }
  r = NewRequest();  // handles of the wrong kind
  EXPECT_EQ(std::vector<int32_t>(4, DBQ1_BAD_ARGUMENT),
            (std::vector<int32_t>{DBQ1_OpenRequest(plan_, r->input), DBQ1_GetOutputSQLDA(r->request, &sqlda),
                                  DBQ1_DropHandle(r->cursor), DBQ1_CreateAccessPlan(plan_, kRmSql, &out)}));
  // Far more lives than one slot has check numbers: a slot is retired
  // rather than hand out a number it has used before, and never 0.
  std::set<std::pair<int16_t, void*>> seen;
  std::vector<DBQ1_Handle> early;
  for (int i = 0; i < 70000; ++i) {
    ASSERT_EQ(DBQ1_OK, DBQ1_CreateAccessPlan(path_, kRmSql, &plan));
    ASSERT_TRUE(plan.check != 0 && seen.insert({plan.check, plan.object}).second) << "life " << i;
    if (i < 5) early.push_back(plan);
    ASSERT_EQ(DBQ1_OK, DBQ1_DropHandle(plan));
  }
  for (DBQ1_Handle old : early) EXPECT_EQ(DBQ1_STALE_HANDLE, DBQ1_DropHandle(old));
}

}  // namespace
