// The query service as the module uses it: paths, plans, requests and their
// descriptor areas, asynchronous opens through the sim driver and a
// recording driver, closing and dropping in every state, stale handles,
// injected faults, and many opens at once.
#include <string.h>

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

#include "host/hostsvc.h"
#include "platform/dbq1.h"

namespace {

using namespace std::chrono_literals;
using qmta::host::Op;

const char* kVxSql =
    "SELECT RESULTS FROM QVX.VXEVENTS WHERE REQUESTID=? OR  (COMMAND=? AND CALLTYPE=? AND ORIGINNODE=?)";
const char* kRmSql =
    "SELECT RESULTS FROM QMT.RMEVENTS WHERE REQUESTID=? OR  (COMMAND=? AND CALLTYPE=? AND ORIGINNODE=?)";

// A completion block: counts the routine's calls and remembers the last.
class Notice {
 public:
  DBQ1_AsyncNotify block() { return {DBQ1_NOTIFY_ROUTINE, &Notice::Routine, this}; }
  bool WaitFor(int calls, std::chrono::milliseconds limit = 3s) {
    std::unique_lock<std::mutex> hold(mutex_);
    return changed_.wait_for(hold, limit, [&] { return calls_ >= calls; });
  }
  int calls() {
    std::lock_guard<std::mutex> hold(mutex_);
    return calls_;
  }
  int32_t status() {
    std::lock_guard<std::mutex> hold(mutex_);
    return status_;
  }
  std::thread::id thread() {
    std::lock_guard<std::mutex> hold(mutex_);
    return thread_;
  }
  std::function<void()> hook;  // runs inside the routine, before counting

 private:
  static int32_t Routine(int32_t status, void* argument) {
    auto* self = static_cast<Notice*>(argument);
    if (self->hook) self->hook();
    // Under the lock: a waiter may destroy the notice as soon as it wakes.
    std::lock_guard<std::mutex> hold(self->mutex_);
    ++self->calls_;
    self->status_ = status;
    self->thread_ = std::this_thread::get_id();
    self->changed_.notify_all();
    return status;
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  int calls_ = 0;
  int32_t status_ = -1;
  std::thread::id thread_;
};

// What the recording driver was given; the test completes opens by hand.
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
  // Dropping waits for a routine still running on the notice.
  ~Request() { DBQ1_DropHandle(request); }
  DBQ1_Handle request{};
  DBQ1_Handle cursor{};
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
    qmta::host::RegisterDriver("record", [](const std::vector<std::string>&, std::string*) {
      return std::make_unique<RecordingDriver>();
    });
    path_ = qmta::host::OwnPath();
    ASSERT_EQ(DBQ1_OK, DBQ1_CreateAccessPlan(path_, kRmSql, &plan_));
    Route("REC* record\nSIM1 sim rc=7,8,9\nNONE sim norows\nOFF sim offline\n"
          "ODD sim status=77\nQUIET sim silent\nSLOW sim rc=3 delay=150\n");
    baseline_ = qmta::host::LiveObjects();
    opens_ = qmta::host::OpensStarted();
    std::lock_guard<std::mutex> hold(recorder.mutex);
    recorder.actions.clear();
    recorder.opens.clear();
    recorder.stops = 0;
  }

  void Route(const std::string& text) {
    std::string error;
    ASSERT_TRUE(qmta::host::SetDestinations(text, &error)) << error;
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

  // Fetches to the end; `*end` is the status that ended it.
  static std::vector<int32_t> FetchAll(Request& r, int32_t* end) {
    DBQ1_Sqlda* output = nullptr;
    EXPECT_EQ(DBQ1_OK, DBQ1_GetOutputSQLDA(r.cursor, &output));
    std::vector<int32_t> rows;
    while ((*end = DBQ1_Fetch(r.cursor, output)) == DBQ1_OK) {
      int32_t rc;
      memcpy(&rc, output->var[0].data, 4);
      rows.push_back(rc);
    }
    return rows;
  }

  DBQ1_Handle path_{};
  DBQ1_Handle plan_{};
  int64_t baseline_ = 0;
  int64_t opens_ = 0;
};

// ---- paths, plans, descriptor areas --------------------------------------

TEST_F(QueryServiceTest, PathsAndPlansAcceptOnlyOurServerAndTheTwoStatements) {
  DBQ1_Handle path{}, plan{};
  void* local = DBQ1_LocalInterface();
  ASSERT_NE(nullptr, local);
  EXPECT_EQ(DBQ1_UNKNOWN_SERVER, DBQ1_CreatePath("NOTOURS", local, &path));
  EXPECT_EQ(DBQ1_BAD_ARGUMENT, DBQ1_CreatePath(qmta::host::ServerName().c_str(), nullptr, &path));
  ASSERT_EQ(DBQ1_OK, DBQ1_CreatePath(qmta::host::ServerName().c_str(), local, &path));
  EXPECT_NE(0, path.check);
  std::string oneBlank = kRmSql;
  oneBlank.erase(oneBlank.find("  "), 1);
  EXPECT_EQ(DBQ1_UNKNOWN_STATEMENT, DBQ1_CreateAccessPlan(path, oneBlank.c_str(), &plan));
  EXPECT_EQ(DBQ1_UNKNOWN_STATEMENT, DBQ1_CreateAccessPlan(path, "select results", &plan));
  ASSERT_EQ(DBQ1_OK, DBQ1_CreateAccessPlan(path, kVxSql, &plan));

  // The plan decides the table that the driver is told about; dropping
  // the path and the plan leaves requests made from them working.
  auto vx = NewRequest(plan);
  auto rm = NewRequest();
  EXPECT_EQ(DBQ1_OK, DBQ1_DropHandle(plan));
  EXPECT_EQ(DBQ1_OK, DBQ1_DropHandle(path));
  // The host's own path comes back when it has gone.
  qmta::host::MakeStale(path_);
  DBQ1_Handle own = qmta::host::OwnPath();
  EXPECT_TRUE(own.check != path_.check || own.object != path_.object);
  EXPECT_EQ(DBQ1_OK, DBQ1_CreateAccessPlan(own, kRmSql, &plan));
  ASSERT_EQ(DBQ1_OK, Open(*vx, "REC1"));
  ASSERT_EQ(DBQ1_OK, Open(*rm, "REC1"));
  std::lock_guard<std::mutex> hold(recorder.mutex);
  ASSERT_EQ(2u, recorder.actions.size());
  EXPECT_EQ(qmta::host::EventTable::kVxEvents, recorder.actions[0].table);
  EXPECT_EQ(qmta::host::EventTable::kRmEvents, recorder.actions[1].table);
}

TEST_F(QueryServiceTest, DescriptorAreasCarryTheParametersToTheDriver) {
  qmta::host::SetCommandLength(10);
  auto r = NewRequest();
  const DBQ1_Sqlda& in = *r->input;
  ASSERT_EQ(4, in.count);
  const char* names[] = {"REQUESTID", "COMMAND", "CALLTYPE", "ORIGINNODE"};
  const int16_t types[] = {DBQ1_TYPE_INTEGER, DBQ1_TYPE_CHAR, DBQ1_TYPE_INTEGER, DBQ1_TYPE_CHAR};
  const int16_t lengths[] = {4, 10, 4, 32};
  for (int i = 0; i < 4; ++i) {
    EXPECT_STREQ(names[i], in.var[i].name);
    EXPECT_EQ(types[i], in.var[i].type);
    EXPECT_EQ(lengths[i], in.var[i].length);
  }
  DBQ1_Sqlda* out = nullptr;
  ASSERT_EQ(DBQ1_OK, DBQ1_GetOutputSQLDA(r->cursor, &out));
  ASSERT_EQ(1, out->count);
  EXPECT_STREQ("RESULTS", out->var[0].name);
  EXPECT_EQ(4, out->var[0].length);

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
  DBQ1_Sqlda broken = *r->input;
  broken.var[1].type = DBQ1_TYPE_INTEGER;
  ASSERT_EQ(DBQ1_OK, DBQ1_CloseRequest(r->request));
  EXPECT_EQ(DBQ1_BAD_PARAMETER, DBQ1_OpenRequest(r->request, &broken));
  EXPECT_EQ(DBQ1_BAD_ARGUMENT, DBQ1_OpenRequest(r->request, nullptr));
}

// ---- outcomes of one open ------------------------------------------------

TEST_F(QueryServiceTest, EachOutcomeReachesTheRoutineOnceOnAServiceThread) {
  struct Case {
    const char* destination;
    int32_t status;
    std::vector<int32_t> rows;
    int32_t end;
  } cases[] = {
      {"SIM1", DBQ1_OK, {7, 8, 9}, DBQ1_NO_MORE_ROWS},
      {"NONE", DBQ1_OK, {}, DBQ1_NO_MORE_ROWS},
      {"OFF", DBQ1_DEST_OFFLINE, {}, DBQ1_CURSOR_NOT_OPEN},
      {"ODD", 77, {}, DBQ1_CURSOR_NOT_OPEN},
      {"NOWHERE", DBQ1_DEST_OFFLINE, {}, DBQ1_CURSOR_NOT_OPEN},
  };
  auto r = NewRequest();
  int expected = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.destination);
    ASSERT_EQ(DBQ1_OK, Open(*r, c.destination));
    ++expected;
    // Nobody waits yet: the routine must run all the same, exactly once.
    std::this_thread::sleep_for(20ms);
    ASSERT_TRUE(r->notice.WaitFor(expected));
    EXPECT_EQ(c.status, r->notice.status());
    EXPECT_NE(std::this_thread::get_id(), r->notice.thread());
    int32_t end;
    EXPECT_EQ(c.rows, FetchAll(*r, &end));
    EXPECT_EQ(c.end, end);
    if (c.end == DBQ1_NO_MORE_ROWS) {
      DBQ1_Sqlda* out = nullptr;
      ASSERT_EQ(DBQ1_OK, DBQ1_GetOutputSQLDA(r->cursor, &out));
      EXPECT_EQ(DBQ1_NO_MORE_ROWS, DBQ1_Fetch(r->cursor, out));  // stays at the end
    }
    ASSERT_EQ(DBQ1_OK, DBQ1_CloseRequest(r->request));
    EXPECT_TRUE(FetchAll(*r, &end).empty());
    EXPECT_EQ(DBQ1_CURSOR_NOT_OPEN, end);
  }
  std::this_thread::sleep_for(30ms);
  EXPECT_EQ(expected, r->notice.calls());
  EXPECT_EQ(expected, qmta::host::OpensStarted() - opens_);
}

TEST_F(QueryServiceTest, DriverCompletionOnTheOpenersThreadStillDeliversElsewhere) {
  auto r = NewRequest();
  ASSERT_EQ(DBQ1_OK, Open(*r, "REC1"));
  std::shared_ptr<qmta::host::Completion> done = recorder.opens.at(0);
  done->Rows({5});
  done->Fail(99);  // the first outcome wins
  ASSERT_TRUE(r->notice.WaitFor(1));
  EXPECT_NE(std::this_thread::get_id(), r->notice.thread());
  EXPECT_EQ(DBQ1_OK, r->notice.status());
  int32_t end;
  EXPECT_EQ(std::vector<int32_t>{5}, FetchAll(*r, &end));
  // A finished open is replaced by the next one without a close.
  ASSERT_EQ(DBQ1_OK, Open(*r, "SIM1"));
  ASSERT_TRUE(r->notice.WaitFor(2));
  EXPECT_EQ((std::vector<int32_t>{7, 8, 9}), FetchAll(*r, &end));
  EXPECT_EQ(0, recorder.stops.load());
}

TEST_F(QueryServiceTest, DelayedCompletionComesAfterItsDelay) {
  auto r = NewRequest();
  auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(DBQ1_OK, Open(*r, "SLOW"));
  int32_t end;
  FetchAll(*r, &end);
  EXPECT_EQ(DBQ1_CURSOR_NOT_OPEN, end);  // still running
  EXPECT_EQ(DBQ1_ALREADY_OPEN, Open(*r, "SIM1"));
  ASSERT_TRUE(r->notice.WaitFor(1));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 150ms);
  EXPECT_EQ(std::vector<int32_t>{3}, FetchAll(*r, &end));
}

// ---- closing and dropping ------------------------------------------------

TEST_F(QueryServiceTest, CloseOrDropStopsARunningOpenForGood) {
  for (const char* destination : {"QUIET", "SLOW", "REC1"}) {
    for (bool drop : {false, true}) {
      SCOPED_TRACE(std::string(destination) + (drop ? " drop" : " close"));
      auto r = NewRequest();
      int stops = recorder.stops.load();
      ASSERT_EQ(DBQ1_OK, Open(*r, destination));
      EXPECT_EQ(DBQ1_ALREADY_OPEN, Open(*r, destination));
      ASSERT_EQ(DBQ1_OK, drop ? DBQ1_DropHandle(r->request) : DBQ1_CloseRequest(r->request));
      if (destination[0] == 'R') {
        EXPECT_EQ(stops + 1, recorder.stops.load());
        std::lock_guard<std::mutex> hold(recorder.mutex);
        EXPECT_TRUE(recorder.opens.back()->Closed());
        recorder.opens.back()->Rows({1});  // too late: ignored
      }
      if (!drop) {
        int32_t end;
        FetchAll(*r, &end);
        EXPECT_EQ(DBQ1_CURSOR_NOT_OPEN, end);
        EXPECT_EQ(DBQ1_OK, DBQ1_CloseRequest(r->request));  // idle close
        EXPECT_EQ(DBQ1_OK, DBQ1_DropHandle(r->request));
      }
      if (destination[0] == 'S') std::this_thread::sleep_for(200ms);  // past the delay
      EXPECT_EQ(0, r->notice.calls());
      EXPECT_EQ(baseline_, qmta::host::LiveObjects());
    }
  }
  std::lock_guard<std::mutex> hold(recorder.mutex);
  recorder.opens.clear();  // the driver's references must not keep anything
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

  // A routine that closes (and drops) its own request must not hang.
  auto self = NewRequest();
  self->notice.hook = [&] {
    EXPECT_EQ(DBQ1_OK, DBQ1_CloseRequest(self->request));
    EXPECT_EQ(DBQ1_OK, DBQ1_DropHandle(self->request));
  };
  ASSERT_EQ(DBQ1_OK, Open(*self, "SIM1"));
  ASSERT_TRUE(self->notice.WaitFor(1));
}

// ---- handles ---------------------------------------------------------------

// Every operation that takes a handle of this kind.
std::vector<std::function<int32_t(DBQ1_Handle)>> OperationsOn(char kind, DBQ1_Handle path,
                                                              DBQ1_Handle plan) {
  static DBQ1_AsyncNotify block{DBQ1_NOTIFY_ROUTINE, [](int32_t s, void*) { return s; }, nullptr};
  static DBQ1_Sqlda area{};
  DBQ1_Handle out{};
  DBQ1_Sqlda* sqlda = nullptr;
  switch (kind) {
    case 'p':
      return {[=](DBQ1_Handle h) mutable { return DBQ1_CreateAccessPlan(h, kRmSql, &out); },
              [=](DBQ1_Handle h) mutable { return DBQ1_CreateRequest(h, plan, &block, &out, &out); },
              [](DBQ1_Handle h) { return DBQ1_DropHandle(h); }};
    case 'a':
      return {[=](DBQ1_Handle h) mutable { return DBQ1_CreateRequest(path, h, &block, &out, &out); },
              [](DBQ1_Handle h) { return DBQ1_DropHandle(h); }};
    case 'r':
      return {[=](DBQ1_Handle h) mutable { return DBQ1_GetInputSQLDA(h, &sqlda); },
              [](DBQ1_Handle h) { return DBQ1_OpenRequest(h, &area); },
              [](DBQ1_Handle h) { return DBQ1_CloseRequest(h); },
              [](DBQ1_Handle h) { return DBQ1_DropHandle(h); }};
    default:
      return {[=](DBQ1_Handle h) mutable { return DBQ1_GetOutputSQLDA(h, &sqlda); },
              [](DBQ1_Handle h) { return DBQ1_Fetch(h, &area); }};
  }
}

TEST_F(QueryServiceTest, StaleAndDroppedHandlesFailEveryOperation) {
  DBQ1_Handle otherPlan{};
  ASSERT_EQ(DBQ1_OK, DBQ1_CreateAccessPlan(path_, kVxSql, &otherPlan));
  for (bool viaDrop : {false, true}) {
    DBQ1_Handle path{}, plan{};
    ASSERT_EQ(DBQ1_OK, DBQ1_CreatePath(qmta::host::ServerName().c_str(),
                                       DBQ1_LocalInterface(), &path));
    ASSERT_EQ(DBQ1_OK, DBQ1_CreateAccessPlan(path_, kRmSql, &plan));
    auto r = NewRequest();
    ASSERT_EQ(DBQ1_OK, Open(*r, "QUIET"));
    std::pair<char, DBQ1_Handle> handles[] = {
        {'p', path}, {'a', plan}, {'c', r->cursor}, {'r', r->request}};
    for (auto [kind, handle] : handles) {
      if (viaDrop && kind != 'c')
        ASSERT_EQ(DBQ1_OK, DBQ1_DropHandle(handle));  // the cursor goes with its request
      else if (!viaDrop)
        qmta::host::MakeStale(handle);
    }
    for (auto [kind, handle] : handles) {
      SCOPED_TRACE(std::string(1, kind) + (viaDrop ? " dropped" : " stale"));
      for (auto& operation : OperationsOn(kind, path_, otherPlan))
        EXPECT_EQ(DBQ1_STALE_HANDLE, operation(handle));
    }
    qmta::host::ResetQueryService();  // releases what was made stale
    EXPECT_EQ(baseline_ + 1, qmta::host::LiveObjects());
    EXPECT_EQ(0, r->notice.calls());
    Route("QUIET sim silent\n");
  }
  // Handles naming no object of ours, and handles of the wrong kind.
  int local = 0;
  for (DBQ1_Handle bogus : {DBQ1_Handle{0, nullptr}, DBQ1_Handle{1, &local}})
    EXPECT_EQ(DBQ1_STALE_HANDLE, DBQ1_CloseRequest(bogus));
  auto r = NewRequest();
  DBQ1_Sqlda* sqlda = nullptr;
  EXPECT_EQ(DBQ1_BAD_ARGUMENT, DBQ1_OpenRequest(plan_, r->input));
  EXPECT_EQ(DBQ1_BAD_ARGUMENT, DBQ1_GetOutputSQLDA(r->request, &sqlda));
  EXPECT_EQ(DBQ1_BAD_ARGUMENT, DBQ1_Fetch(r->request, r->input));
  EXPECT_EQ(DBQ1_BAD_ARGUMENT, DBQ1_DropHandle(r->cursor));
  EXPECT_EQ(DBQ1_BAD_ARGUMENT, DBQ1_CreateAccessPlan(plan_, kRmSql, &path_));
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
  const DBQ1_Handle unset{-5, nullptr};
  DBQ1_AsyncNotify block = r->notice.block();
  std::string server = qmta::host::ServerName();

  // Each operation: the faulted call, then a check that it did nothing.
  struct Case {
    Op op;
    std::function<int32_t()> call;
    std::function<void()> unchanged;
  };
  DBQ1_Handle h = unset, c = unset;
  DBQ1_Sqlda* sqlda = nullptr;
  Case cases[] = {
      {Op::kCreatePath, [&] { return DBQ1_CreatePath(server.c_str(), DBQ1_LocalInterface(), &h); },
       [&] { EXPECT_EQ(nullptr, h.object); }},
      {Op::kCreateAccessPlan, [&] { return DBQ1_CreateAccessPlan(path_, kRmSql, &h); },
       [&] { EXPECT_EQ(nullptr, h.object); }},
      {Op::kCreateRequest, [&] { return DBQ1_CreateRequest(path_, plan_, &block, &h, &c); },
       [&] { EXPECT_EQ(nullptr, h.object); EXPECT_EQ(nullptr, c.object); }},
      {Op::kGetInputSQLDA, [&] { return DBQ1_GetInputSQLDA(r->request, &sqlda); },
       [&] { EXPECT_EQ(nullptr, sqlda); }},
      {Op::kGetOutputSQLDA, [&] { return DBQ1_GetOutputSQLDA(r->cursor, &sqlda); },
       [&] { EXPECT_EQ(nullptr, sqlda); }},
      {Op::kFetch, [&] { return DBQ1_Fetch(r->cursor, out); },
       [&] { int32_t end; EXPECT_EQ((std::vector<int32_t>{7, 8, 9}), FetchAll(*r, &end)); }},
      {Op::kCloseRequest, [&] { return DBQ1_CloseRequest(r->request); },
       [&] { int32_t end; FetchAll(*r, &end); EXPECT_EQ(DBQ1_NO_MORE_ROWS, end); }},
      {Op::kOpenRequest, [&] { return Open(*r, "SIM1"); },
       [&] { EXPECT_EQ(opens_ + 1, qmta::host::OpensStarted()); }},
      {Op::kDropHandle, [&] { return DBQ1_DropHandle(r->request); },
       [&] { EXPECT_EQ(DBQ1_OK, DBQ1_CloseRequest(r->request)); }},
  };
  int32_t status = 900;
  for (Case& test : cases) {
    SCOPED_TRACE(static_cast<int>(test.op));
    qmta::host::FailOperation(test.op, ++status);
    EXPECT_EQ(status, test.call());
    test.unchanged();
  }
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(1, r->notice.calls());

  // `skip` good calls first, then `count` failures, then good calls again.
  qmta::host::FailOperation(Op::kGetInputSQLDA, 55, 2, 1);
  int32_t seenStatus[4];
  for (int32_t& s : seenStatus) s = DBQ1_GetInputSQLDA(r->request, &sqlda);
  EXPECT_EQ((std::vector<int32_t>{0, 55, 55, 0}), std::vector<int32_t>(seenStatus, seenStatus + 4));
}

// ---- many opens at once ----------------------------------------------------

TEST_F(QueryServiceTest, HundredsOfOpensFromManyThreadsEachCompleteOnce) {
  constexpr int kThreads = 4, kEach = 100;
  Route("BUSY* sim rc=11,12 delay=30\n");
  std::vector<std::unique_ptr<Request>> requests(kThreads * kEach);
  for (auto& r : requests) r = NewRequest();
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (int i = t * kEach; i < (t + 1) * kEach; ++i)
        EXPECT_EQ(DBQ1_OK, Open(*requests[i], "BUSY" + std::to_string(i)));
    });
  for (auto& thread : threads) thread.join();
  for (auto& r : requests) {
    ASSERT_TRUE(r->notice.WaitFor(1));
    int32_t end;
    EXPECT_EQ((std::vector<int32_t>{11, 12}), FetchAll(*r, &end));
  }
  std::this_thread::sleep_for(30ms);
  for (auto& r : requests) {
    EXPECT_EQ(1, r->notice.calls());
    EXPECT_EQ(DBQ1_OK, DBQ1_DropHandle(r->request));
  }
  EXPECT_EQ(baseline_, qmta::host::LiveObjects());
}

TEST_F(QueryServiceTest, ClosesRacingCompletionsNeverSeeALateRoutine) {
  constexpr int kThreads = 4, kRounds = 300;
  Route("FAST sim rc=1\n");
  std::atomic<int> late{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      auto r = NewRequest();
      std::atomic<bool> closed{false};
      r->notice.hook = [&] { late += closed.load(); };
      for (int round = 0; round < kRounds; ++round) {
        closed = false;
        ASSERT_EQ(DBQ1_OK, Open(*r, "FAST"));
        for (int spin = (round * 7 + t) % 50; spin > 0; --spin) std::this_thread::yield();
        ASSERT_EQ(DBQ1_OK, round % 2 ? DBQ1_CloseRequest(r->request)
                                     : DBQ1_DropHandle(r->request));
        closed = true;
        if (round % 2 == 0) {
          DBQ1_AsyncNotify block = r->notice.block();
          ASSERT_EQ(DBQ1_OK, DBQ1_CreateRequest(path_, plan_, &block, &r->request, &r->cursor));
          ASSERT_EQ(DBQ1_OK, DBQ1_GetInputSQLDA(r->request, &r->input));
        }
      }
      std::this_thread::sleep_for(20ms);
      EXPECT_LE(r->notice.calls(), kRounds);
      EXPECT_EQ(DBQ1_OK, DBQ1_DropHandle(r->request));
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(0, late.load());
  EXPECT_EQ(baseline_, qmta::host::LiveObjects());
}

}  // namespace
