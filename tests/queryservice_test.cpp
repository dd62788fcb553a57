// The query service as the module uses it: paths, plans, requests and their
// descriptor areas, asynchronous opens through the destination directory,
// closing and dropping in every state, stale handles, injected faults, and
// many opens at once.
#include <string.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "host/drivers/driver.h"
#include "host/drivers/sim.h"
#include "host/services/control.h"
#include "host/services/testhooks.h"
#include "platform/dbq1.h"
#include "tests/support/support.h"

namespace {

using namespace std::chrono_literals;
using qmta::host::Op;

const char* kVxSql =
    "SELECT RESULTS FROM QVX.VXEVENTS WHERE REQUESTID=? OR  (COMMAND=? AND CALLTYPE=? AND ORIGINNODE=?)";
const char* kRmSql =
    "SELECT RESULTS FROM QMT.RMEVENTS WHERE REQUESTID=? OR  (COMMAND=? AND CALLTYPE=? AND ORIGINNODE=?)";

// A completion block: counts the routine's calls, keeps the last status and
// thread. It signals under its lock, as a waiter may destroy it on waking.
struct Notice {
  std::mutex mutex;
  std::condition_variable changed;
  int calls = 0;
  int32_t status = -1;
  std::thread::id thread;
  std::function<void()> hook;  // runs inside the routine first

  DBQ1_AsyncNotify block() { return {DBQ1_NOTIFY_ROUTINE, &Routine, this}; }
  bool WaitFor(int count) {
    std::unique_lock<std::mutex> hold(mutex);
    return changed.wait_for(hold, 3s, [&] { return calls >= count; });
  }
  int Calls() {
    std::lock_guard<std::mutex> hold(mutex);
    return calls;
  }
  static int32_t Routine(int32_t status, void* argument) {
    auto* self = static_cast<Notice*>(argument);
    if (self->hook) self->hook();
    std::lock_guard<std::mutex> hold(self->mutex);
    ++self->calls;
    self->status = status;
    self->thread = std::this_thread::get_id();
    self->changed.notify_all();
    return status;
  }
};

// What the recording driver was given; tests complete its opens by hand.
struct Recorder {
  std::mutex mutex;
  std::vector<qmta::host::Action> actions;
  std::vector<std::shared_ptr<qmta::host::Completion>> opens;
  std::atomic<int> stops{0};
} recorder;

class RecordingDriver : public qmta::host::Driver {
 public:
  void Start(const qmta::host::Action& action,
             std::shared_ptr<qmta::host::Completion> done) override {
    done->OnClose([] { recorder.stops++; });
    std::lock_guard<std::mutex> hold(recorder.mutex);
    recorder.actions.push_back(action);
    recorder.opens.push_back(done);
  }
};

struct Request {
  ~Request() { DBQ1_DropHandle(request); }  // waits for a running routine
  DBQ1_Handle request{}, cursor{};
  DBQ1_Sqlda* input = nullptr;
  Notice notice;
};

void Bind(DBQ1_SqlVar& var, const std::string& text) {
  memset(var.data, ' ', static_cast<size_t>(var.length));
  memcpy(var.data, text.data(), std::min(text.size(), static_cast<size_t>(var.length)));
}

class QueryServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qmta::host::ResetQueryService();
    qmta::host::RegisterStandardDrivers();
    qmta::host::RegisterDriver("record", [](const std::vector<std::string>&, std::string*) {
      return std::make_unique<RecordingDriver>();
    });
    path_ = qmta::host::OwnPath();
    ASSERT_EQ(DBQ1_OK, DBQ1_CreateAccessPlan(path_, kRmSql, &plan_));
    ASSERT_EQ("accepted", Route("REC* record\nSIM1 sim rc=7,8,9\nQUIET sim silent\n"
                                "SLOW sim rc=3 delay=150\n"));
    baseline_ = qmta::host::LiveObjects();
    opens_ = qmta::host::OpensStarted();
    std::lock_guard<std::mutex> hold(recorder.mutex);
    recorder.actions.clear();
    recorder.opens.clear();
    recorder.stops = 0;
  }

  static std::string Route(const std::string& text) {
    std::string error;
    return qmta::host::SetDestinations(text, &error) ? "accepted" : error;
  }

  std::unique_ptr<Request> NewRequest(DBQ1_Handle plan = {}) {
    auto made = std::make_unique<Request>();
    DBQ1_AsyncNotify block = made->notice.block();
    EXPECT_EQ(DBQ1_OK, DBQ1_CreateRequest(path_, plan.object ? plan : plan_, &block,
                                          &made->request, &made->cursor));
    EXPECT_EQ(DBQ1_OK, DBQ1_GetInputSQLDA(made->request, &made->input));
    return made;
  }

  static int32_t Open(Request& r, const std::string& destination,
                      const std::string& command = "run it", uint32_t id = 1, int32_t type = 0) {
    memcpy(r.input->var[0].data, &id, 4);
    Bind(r.input->var[1], command);
    memcpy(r.input->var[2].data, &type, 4);
    Bind(r.input->var[3], destination);
    return DBQ1_OpenRequest(r.request, r.input);
  }

  // Fetches to the end: "row,row/end", e.g. "7,8/514" or "/104".
  static std::string Rows(Request& r) {
    DBQ1_Sqlda* output = nullptr;
    EXPECT_EQ(DBQ1_OK, DBQ1_GetOutputSQLDA(r.cursor, &output));
    std::string rows;
    int32_t status, rc;
    while ((status = DBQ1_Fetch(r.cursor, output)) == DBQ1_OK) {
      memcpy(&rc, output->var[0].data, 4);
      rows += (rows.empty() ? "" : ",") + std::to_string(rc);
    }
    return rows + "/" + std::to_string(status);
  }

  // One open of `r` for `destination`, then the close: "status:rows/end".
  static std::string Ask(Request& r, const std::string& destination) {
    int before = r.notice.Calls();
    if (int32_t status = Open(r, destination)) return "open " + std::to_string(status);
    std::this_thread::sleep_for(5ms);  // the routine must run with nobody waiting
    if (!r.notice.WaitFor(before + 1)) return "no completion";
    std::string answer = std::to_string(r.notice.status) + ":" + Rows(r);
    EXPECT_EQ(DBQ1_OK, DBQ1_CloseRequest(r.request));
    return answer;
  }

  DBQ1_Handle path_{}, plan_{};
  int64_t baseline_ = 0, opens_ = 0;
};

// ---- paths, plans, descriptor areas --------------------------------------

TEST_F(QueryServiceTest, PathsAndPlansAcceptOnlyOurServerAndTheTwoStatements) {
  DBQ1_Handle path{}, plan{};
  void* local = DBQ1_LocalInterface();
  ASSERT_NE(nullptr, local);
  EXPECT_EQ(DBQ1_UNKNOWN_SERVER, DBQ1_CreatePath("NOTOURS", local, &path));
  EXPECT_EQ(DBQ1_BAD_ARGUMENT, DBQ1_CreatePath(qmta::host::ServerName().c_str(), nullptr, &path));
  ASSERT_EQ(DBQ1_OK, DBQ1_CreatePath(qmta::host::ServerName().c_str(), local, &path));
  std::string oneBlank = kRmSql;
  oneBlank.erase(oneBlank.find("  "), 1);
  EXPECT_EQ(DBQ1_UNKNOWN_STATEMENT, DBQ1_CreateAccessPlan(path, oneBlank.c_str(), &plan));
  ASSERT_EQ(DBQ1_OK, DBQ1_CreateAccessPlan(path, kVxSql, &plan));

  // Dropping the path and the plan leaves requests made from them working
  // (the table each plan names is checked end to end with the module).
  auto vx = NewRequest(plan);
  EXPECT_EQ(DBQ1_OK, DBQ1_DropHandle(plan));
  EXPECT_EQ(DBQ1_OK, DBQ1_DropHandle(path));
  EXPECT_EQ("0:7,8,9/514", Ask(*vx, "SIM1"));
  // The host's own path comes back when it has gone.
  qmta::host::MakeStale(path_);
  DBQ1_Handle own = qmta::host::OwnPath();
  EXPECT_TRUE(own.check != path_.check || own.object != path_.object);
  EXPECT_EQ(DBQ1_OK, DBQ1_CreateAccessPlan(own, kRmSql, &plan));
}

TEST_F(QueryServiceTest, DescriptorAreasCarryTheParametersToTheDriver) {
  qmta::host::SetCommandLength(10);
  auto r = NewRequest();
  std::string layout;  // name:type:length of each parameter
  for (int i = 0; i < r->input->count; ++i)
    layout += std::string(r->input->var[i].name) + ":" + std::to_string(r->input->var[i].type) +
              ":" + std::to_string(r->input->var[i].length) + " ";
  EXPECT_EQ("REQUESTID:496:4 COMMAND:452:10 CALLTYPE:496:4 ORIGINNODE:452:32 ", layout);
  ASSERT_EQ(DBQ1_OK, Open(*r, "REC:NODE", "exec \"a b\"  ", 42, 3));
  {
    std::lock_guard<std::mutex> hold(recorder.mutex);
    ASSERT_EQ(1u, recorder.actions.size());
    const qmta::host::Action& action = recorder.actions[0];
    EXPECT_EQ(42u, action.requestId);
    EXPECT_EQ("exec \"a b\"", action.command);  // trailing blanks go
    EXPECT_EQ(3, action.callType);
    EXPECT_EQ("REC:NODE", action.destination);
  }
  // A descriptor area that is not laid out as a request's is refused.
  ASSERT_EQ(DBQ1_OK, DBQ1_CloseRequest(r->request));
  DBQ1_Sqlda broken = *r->input;
  broken.var[1].type = DBQ1_TYPE_INTEGER;
  EXPECT_EQ(DBQ1_BAD_PARAMETER, DBQ1_OpenRequest(r->request, &broken));
  EXPECT_EQ(DBQ1_BAD_ARGUMENT, DBQ1_OpenRequest(r->request, nullptr));
}

// ---- outcomes of one open ------------------------------------------------

TEST_F(QueryServiceTest, FirstMatchingLineRoutesAndEachOutcomeReachesTheRoutineOnce) {
  ASSERT_EQ("accepted", Route("# the test network\n\n"
                              "   HOST:A   sim rc=7,8,9     # exact name\n"
                              "HOST:*     sim norows\n"
                              "*:MVS_ACTIONS sim offline\n"
                              "SYS*LOG  sim status=123\n"
                              "DOWN offline\n"));
  auto r = NewRequest();
  std::pair<const char*, const char*> cases[] = {
      {"HOST:A", "0:7,8,9/514"},        {"HOST:AB", "0:/514"},
      {"HOST:MVS_ACTIONS", "0:/514"},   {"SYS1:MVS_ACTIONS", "2020:/104"},
      {"SYSLOG", "123:/104"},           {"SYS_X_LOG", "123:/104"},
      {"SYSLO", "2020:/104"},           {"host:a", "2020:/104"},
      {"DOWN", "2020:/104"}};
  for (auto [destination, expected] : cases) {
    EXPECT_EQ(expected, Ask(*r, destination)) << destination;
    EXPECT_NE(std::this_thread::get_id(), r->notice.thread);
    EXPECT_EQ("/104", Rows(*r));  // closed
  }
  std::this_thread::sleep_for(30ms);
  EXPECT_EQ(9, r->notice.Calls());
  EXPECT_EQ(9, qmta::host::OpensStarted() - opens_);
  ASSERT_EQ("accepted", Route("* sim rc=-4"));  // no final line end
  EXPECT_EQ("0:-4/514", Ask(*r, "ANYTHING"));
}

TEST_F(QueryServiceTest, DriverCompletionOnTheOpenersThreadStillDeliversElsewhere) {
  auto r = NewRequest();
  ASSERT_EQ(DBQ1_OK, Open(*r, "REC1"));
  std::shared_ptr<qmta::host::Completion> done = recorder.opens.at(0);
  done->Rows({5});
  done->Fail(99);  // the first outcome wins
  ASSERT_TRUE(r->notice.WaitFor(1));
  EXPECT_NE(std::this_thread::get_id(), r->notice.thread);
  EXPECT_EQ(DBQ1_OK, r->notice.status);
  EXPECT_EQ("5/514", Rows(*r));
  EXPECT_EQ("/514", Rows(*r));  // stays at the end
  // Once the routine has been called, the next open may start without a
  // close: the finished open is closed for it.
  ASSERT_EQ(DBQ1_OK, Open(*r, "SIM1"));
  ASSERT_TRUE(r->notice.WaitFor(2));
  EXPECT_EQ("7,8,9/514", Rows(*r));
  EXPECT_EQ(0, recorder.stops.load());
}

// ---- closing and dropping ------------------------------------------------

TEST_F(QueryServiceTest, CloseOrDropStopsARunningOpenForGood) {
  for (std::string destination : {"QUIET", "SLOW", "REC1"}) {
    for (bool drop : {false, true}) {
      SCOPED_TRACE(destination + (drop ? " drop" : " close"));
      auto r = NewRequest();
      int stops = recorder.stops.load();
      ASSERT_EQ(DBQ1_OK, Open(*r, destination));
      EXPECT_EQ(DBQ1_ALREADY_OPEN, Open(*r, destination));
      ASSERT_EQ(DBQ1_OK, drop ? DBQ1_DropHandle(r->request) : DBQ1_CloseRequest(r->request));
      if (destination == "REC1") {
        EXPECT_EQ(stops + 1, recorder.stops.load());
        std::lock_guard<std::mutex> hold(recorder.mutex);
        EXPECT_TRUE(recorder.opens.back()->Closed());
        recorder.opens.back()->Rows({1});  // too late: ignored
      }
      if (!drop) {
        EXPECT_EQ("/104", Rows(*r));
        EXPECT_EQ(DBQ1_OK, DBQ1_CloseRequest(r->request));  // idle close
        EXPECT_EQ(DBQ1_OK, DBQ1_DropHandle(r->request));
      }
      if (destination == "SLOW") std::this_thread::sleep_for(200ms);  // past the delay
      EXPECT_EQ(0, r->notice.Calls());
      EXPECT_EQ(baseline_, qmta::host::LiveObjects());
    }
  }
  std::lock_guard<std::mutex> hold(recorder.mutex);
  recorder.opens.clear();  // the driver's references kept nothing alive
  EXPECT_EQ(baseline_, qmta::host::LiveObjects());
}

TEST_F(QueryServiceTest, CloseWaitsForARunningRoutineButNotFromInsideIt) {
  auto r = NewRequest();
  std::atomic<bool> entered{false}, gate{false}, returned{false}, closed{false};
  r->notice.hook = [&] {
    entered = true;
    while (!gate) std::this_thread::sleep_for(1ms);
    returned = true;
  };
  ASSERT_EQ(DBQ1_OK, Open(*r, "SIM1"));
  while (!entered) std::this_thread::sleep_for(1ms);
  std::thread closer([&] {
    EXPECT_EQ(DBQ1_OK, DBQ1_CloseRequest(r->request));
    EXPECT_TRUE(returned.load());
    closed = true;
  });
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(closed.load());
  gate = true;
  closer.join();

  auto self = NewRequest();
  self->notice.hook = [&] {
    EXPECT_EQ(DBQ1_OK, DBQ1_CloseRequest(self->request));
    EXPECT_EQ(DBQ1_OK, DBQ1_DropHandle(self->request));
  };
  ASSERT_EQ(DBQ1_OK, Open(*self, "SIM1"));
  ASSERT_TRUE(self->notice.WaitFor(1));
}

// ---- handles ---------------------------------------------------------------

TEST_F(QueryServiceTest, StaleAndDroppedHandlesFailEveryOperation) {
  static DBQ1_AsyncNotify block{DBQ1_NOTIFY_ROUTINE, [](int32_t s, void*) { return s; }, nullptr};
  static DBQ1_Sqlda area{};
  DBQ1_Handle out{};
  DBQ1_Sqlda* sqlda = nullptr;
  // The handle in every handle position of every operation: a stale handle
  // must fail before its kind is even looked at.
  auto everyOperation = [&](DBQ1_Handle h) {
    return std::vector<int32_t>{
        DBQ1_CreateAccessPlan(h, kRmSql, &out), DBQ1_CreateRequest(h, plan_, &block, &out, &out),
        DBQ1_CreateRequest(path_, h, &block, &out, &out), DBQ1_GetInputSQLDA(h, &sqlda),
        DBQ1_OpenRequest(h, &area), DBQ1_CloseRequest(h), DBQ1_GetOutputSQLDA(h, &sqlda),
        DBQ1_Fetch(h, &area), DBQ1_DropHandle(h)};
  };
  for (bool viaDrop : {false, true}) {
    DBQ1_Handle path{}, plan{};
    ASSERT_EQ(DBQ1_OK, DBQ1_CreatePath(qmta::host::ServerName().c_str(),
                                       DBQ1_LocalInterface(), &path));
    ASSERT_EQ(DBQ1_OK, DBQ1_CreateAccessPlan(path_, kRmSql, &plan));
    auto r = NewRequest();
    ASSERT_EQ(DBQ1_OK, Open(*r, "QUIET"));
    for (DBQ1_Handle handle : {path, plan, r->request, r->cursor}) {
      if (!viaDrop) {
        qmta::host::MakeStale(handle);
      } else if (handle.object != r->cursor.object) {  // the cursor goes with its request
        ASSERT_EQ(DBQ1_OK, DBQ1_DropHandle(handle));
      }
    }
    for (DBQ1_Handle handle : {path, plan, r->request, r->cursor})
      EXPECT_EQ(std::vector<int32_t>(9, DBQ1_STALE_HANDLE), everyOperation(handle));
    qmta::host::ResetQueryService();  // releases what was made stale
    EXPECT_EQ(baseline_, qmta::host::LiveObjects());
    EXPECT_EQ(0, r->notice.Calls());
    ASSERT_EQ("accepted", Route("QUIET sim silent\n"));
  }
  // Handles naming nothing of ours, and handles of the wrong kind.
  int local = 0;
  EXPECT_EQ(DBQ1_STALE_HANDLE, DBQ1_CloseRequest(DBQ1_Handle{0, nullptr}));
  EXPECT_EQ(DBQ1_STALE_HANDLE, DBQ1_CloseRequest(DBQ1_Handle{1, &local}));
  auto r = NewRequest();
  EXPECT_EQ(DBQ1_BAD_ARGUMENT, DBQ1_OpenRequest(plan_, r->input));
  EXPECT_EQ(DBQ1_BAD_ARGUMENT, DBQ1_GetOutputSQLDA(r->request, &sqlda));
  EXPECT_EQ(DBQ1_BAD_ARGUMENT, DBQ1_Fetch(r->request, r->input));
  EXPECT_EQ(DBQ1_BAD_ARGUMENT, DBQ1_DropHandle(r->cursor));
  EXPECT_EQ(DBQ1_BAD_ARGUMENT, DBQ1_CreateAccessPlan(plan_, kRmSql, &out));
}

TEST_F(QueryServiceTest, CheckNumbersNeverRepeatAcrossReuseAndAreNeverZero) {
  // Far more lives than one slot has check numbers: a slot must be retired
  // rather than hand out a number it has used before.
  std::set<std::pair<int16_t, void*>> seen;
  std::vector<DBQ1_Handle> early;
  for (int i = 0; i < 70000; ++i) {
    DBQ1_Handle plan{};
    ASSERT_EQ(DBQ1_OK, DBQ1_CreateAccessPlan(path_, kVxSql, &plan));
    ASSERT_NE(0, plan.check);
    ASSERT_TRUE(seen.insert({plan.check, plan.object}).second) << "life " << i;
    if (i < 5) early.push_back(plan);
    ASSERT_EQ(DBQ1_OK, DBQ1_DropHandle(plan));
  }
  for (DBQ1_Handle old : early) EXPECT_EQ(DBQ1_STALE_HANDLE, DBQ1_DropHandle(old));
  EXPECT_EQ(baseline_, qmta::host::LiveObjects());
}

// ---- injected faults -------------------------------------------------------

TEST_F(QueryServiceTest, InjectedFaultsReturnTheirStatusWithoutActing) {
  auto r = NewRequest();
  ASSERT_EQ(DBQ1_OK, Open(*r, "SIM1"));
  ASSERT_TRUE(r->notice.WaitFor(1));
  DBQ1_Sqlda* out = nullptr;
  ASSERT_EQ(DBQ1_OK, DBQ1_GetOutputSQLDA(r->cursor, &out));
  DBQ1_AsyncNotify block = r->notice.block();
  std::string server = qmta::host::ServerName();
  DBQ1_Handle h{}, c{};
  DBQ1_Sqlda* sqlda = nullptr;
  // Each operation: the faulted call, then a check that it did nothing.
  struct {
    Op op;
    std::function<int32_t()> call;
    std::function<bool()> unchanged;
  } cases[] = {
      {Op::kCreatePath, [&] { return DBQ1_CreatePath(server.c_str(), DBQ1_LocalInterface(), &h); },
       [&] { return !h.object; }},
      {Op::kCreateAccessPlan, [&] { return DBQ1_CreateAccessPlan(path_, kRmSql, &h); },
       [&] { return !h.object; }},
      {Op::kCreateRequest, [&] { return DBQ1_CreateRequest(path_, plan_, &block, &h, &c); },
       [&] { return !h.object && !c.object; }},
      {Op::kGetInputSQLDA, [&] { return DBQ1_GetInputSQLDA(r->request, &sqlda); },
       [&] { return !sqlda; }},
      {Op::kGetOutputSQLDA, [&] { return DBQ1_GetOutputSQLDA(r->cursor, &sqlda); },
       [&] { return !sqlda; }},
      {Op::kFetch, [&] { return DBQ1_Fetch(r->cursor, out); },
       [&] { return Rows(*r) == "7,8,9/514"; }},
      {Op::kCloseRequest, [&] { return DBQ1_CloseRequest(r->request); },
       [&] { return Rows(*r) == "/514"; }},
      {Op::kOpenRequest, [&] { return Open(*r, "SIM1"); },
       [&] { return qmta::host::OpensStarted() == opens_ + 1; }},
      {Op::kDropHandle, [&] { return DBQ1_DropHandle(r->request); },
       [&] { return DBQ1_CloseRequest(r->request) == DBQ1_OK; }},
  };
  int32_t status = 900;
  for (auto& test : cases) {
    qmta::host::FailOperation(test.op, ++status);
    EXPECT_EQ(status, test.call());
    EXPECT_TRUE(test.unchanged()) << "op " << static_cast<int>(test.op);
  }
  // `skip` good calls first, then `count` failures, then good calls again.
  qmta::host::FailOperation(Op::kGetInputSQLDA, 55, 2, 1);
  std::vector<int32_t> seen;
  for (int i = 0; i < 4; ++i) seen.push_back(DBQ1_GetInputSQLDA(r->request, &sqlda));
  EXPECT_EQ((std::vector<int32_t>{0, 55, 55, 0}), seen);
  EXPECT_EQ(1, r->notice.Calls());
}

// ---- many opens at once ----------------------------------------------------

TEST_F(QueryServiceTest, HundredsOfOpensFromManyThreadsEachCompleteOnce) {
  constexpr int kThreads = 4, kEach = 100;
  ASSERT_EQ("accepted", Route("BUSY* sim rc=11,12 delay=30\n"));
  std::vector<std::unique_ptr<Request>> requests(kThreads * kEach);
  for (auto& r : requests) r = NewRequest();
  qmtatest::OnThreads(kThreads, [&](int t) {
    for (int i = t * kEach; i < (t + 1) * kEach; ++i)
      EXPECT_EQ(DBQ1_OK, Open(*requests[i], "BUSY" + std::to_string(i)));
  });
  for (auto& r : requests) {
    ASSERT_TRUE(r->notice.WaitFor(1));
    EXPECT_EQ("11,12/514", Rows(*r));
  }
  std::this_thread::sleep_for(30ms);
  for (auto& r : requests) {
    EXPECT_EQ(1, r->notice.Calls());
    EXPECT_EQ(DBQ1_OK, DBQ1_DropHandle(r->request));
  }
  EXPECT_EQ(baseline_, qmta::host::LiveObjects());
}

TEST_F(QueryServiceTest, ClosesRacingCompletionsNeverSeeALateRoutine) {
  constexpr int kThreads = 4, kRounds = 200;
  ASSERT_EQ("accepted", Route("FAST sim rc=1\nREC record\n"));
  std::atomic<int> late{0};
  // One request per round, each with its own flag, kept until the end so
  // that a late routine would find its flag set.
  std::vector<std::unique_ptr<Request>> requests(kThreads * kRounds);
  std::vector<std::atomic<bool>> closed(requests.size());
  for (size_t i = 0; i < requests.size(); ++i) {
    requests[i] = NewRequest();
    requests[i]->notice.hook = [&late, &flag = closed[i]] { late += flag.load(); };
  }
  qmtatest::OnThreads(kThreads, [&](int t) {
    for (int i = t * kRounds; i < (t + 1) * kRounds; ++i) {
      Request& r = *requests[i];
      if (i % 2) {  // the close meets the sim timer's completion
        ASSERT_EQ(DBQ1_OK, Open(r, "FAST"));
        for (int spin = (i * 7) % 50; spin > 0; --spin) std::this_thread::yield();
      } else {  // the close comes just after the outcome was queued
        ASSERT_EQ(DBQ1_OK, Open(r, "REC", "mine", i));
        std::lock_guard<std::mutex> hold(recorder.mutex);
        size_t at = recorder.actions.size();
        while (recorder.actions[--at].requestId != static_cast<uint32_t>(i)) continue;
        recorder.opens[at]->Rows({1});
      }
      ASSERT_EQ(DBQ1_OK, i % 4 < 2 ? DBQ1_CloseRequest(r.request) : DBQ1_DropHandle(r.request));
      closed[i] = true;
    }
  });
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(0, late.load());
  requests.clear();
  EXPECT_EQ(baseline_, qmta::host::LiveObjects());
}

// ---- the destination directory ---------------------------------------------

TEST_F(QueryServiceTest, BadDirectoryLinesAreReportedByNumberAndKeepTheOldOne) {
  ASSERT_EQ("accepted", Route("KEEP sim rc=9\n"));
  const std::string oneOf =
      "sim: needs exactly one of rc=N[,N...], norows, offline, status=N, silent";
  std::pair<const char*, std::string> cases[] = {
      {"# a comment\nLONELY\n", "line 2: no driver for \"LONELY\""},
      {"A*B*C sim rc=1", "line 1: more than one '*' in \"A*B*C\""},
      {"\n\nX nosuch", "line 3: unknown driver \"nosuch\""},
      {"X sim", "line 1: " + oneOf},
      {"X sim rc=1,,2", "line 1: sim: bad return code in \"rc=1,,2\""},
      {"X sim status=0", "line 1: sim: bad status \"status=0\""},
      {"X sim norows delay=-1", "line 1: sim: bad delay \"delay=-1\""},
      {"X sim silent delay=5", "line 1: sim: silent takes no delay"},
      {"X sim loud", "line 1: sim: unknown option \"loud\""},
      {"X offline now", "line 1: offline: takes no options"}};
  for (const auto& [text, error] : cases) EXPECT_EQ(error, Route(text)) << text;
  auto r = NewRequest();
  EXPECT_EQ("0:9/514", Ask(*r, "KEEP"));
}

TEST_F(QueryServiceTest, DelayedOpenFinishesWithItsDriverAfterTheDirectoryChanged) {
  auto r = NewRequest();
  auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(DBQ1_OK, Open(*r, "SLOW"));
  qmta::host::ResetQueryService();  // the driver leaves the directory
  EXPECT_EQ("/104", Rows(*r));      // still running
  ASSERT_TRUE(r->notice.WaitFor(1));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 150ms);
  EXPECT_EQ("3/514", Rows(*r));
  EXPECT_EQ("2020:/104", Ask(*r, "SLOW"));
}

}  // namespace
