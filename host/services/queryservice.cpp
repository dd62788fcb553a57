// The query service: paths, access plans, requests with their descriptor
// areas, asynchronous opens routed to destination drivers, and cursors.
//
// Ownership: the handle registry owns every path, plan, request and cursor
// through its slots; an operation holds a reference to its object only for
// the length of the call. A request owns its descriptor areas and its
// current open; the open (host/open.h) is shared with its driver and the
// delivery queue but refers back to nothing.
#include <string.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <utility>

#include "host/drivers/driver.h"
#include "host/services/actiontap.h"
#include "host/services/control.h"
#include "host/services/destinations.h"
#include "host/services/export.h"
#include "host/services/handles.h"
#include "host/services/open.h"
#include "host/services/testhooks.h"

namespace qmta::host::internal {
namespace {

constexpr int16_t kDefaultCommandLength = 600;
constexpr int16_t kOriginNodeLength = 32;
// How long the module waits for an open's completion, by its clock (which
// the clock shift moves against the real one).
constexpr std::chrono::seconds kCallerWait{60};
constexpr const char* kVxStatement =
    "SELECT RESULTS FROM QVX.VXEVENTS WHERE REQUESTID=? OR  "
    "(COMMAND=? AND CALLTYPE=? AND ORIGINNODE=?)";
constexpr const char* kRmStatement =
    "SELECT RESULTS FROM QMT.RMEVENTS WHERE REQUESTID=? OR  "
    "(COMMAND=? AND CALLTYPE=? AND ORIGINNODE=?)";

std::atomic<int64_t> liveObjects{0};
std::atomic<int64_t> opensStarted{0};

// Requests of each access plan, the plans numbered in creation order
// modulo 3 (RequestsOfPlan in control.h): alive, and held by an action
// (between an open and its close).
constexpr int kPlanSlots = 3;
std::atomic<uint64_t> plansCreated{0};
struct PlanCounts {
  std::atomic<int64_t> live{0};
  std::atomic<int64_t> busy{0};
};
PlanCounts planCounts[kPlanSlots];
std::atomic<int16_t> commandLength{kDefaultCommandLength};
char localInterface = 'L';  // its address is the local interface token

// Counts itself among the live objects while it exists.
class Counted : public Object {
 public:
  explicit Counted(Kind kind) : Object(kind) { liveObjects.fetch_add(1); }
  ~Counted() override { liveObjects.fetch_sub(1); }
};

class Path final : public Counted {
 public:
  explicit Path(std::string server) : Counted(Kind::kPath), server_(std::move(server)) {}

 private:
  const std::string server_;
};

class Plan final : public Counted {
 public:
  explicit Plan(EventTable table)
      : Counted(Kind::kPlan), table_(table),
        slot_(static_cast<int>(plansCreated.fetch_add(1) % kPlanSlots)) {}
  EventTable table() const { return table_; }
  int slot() const { return slot_; }

 private:
  const EventTable table_;
  const int slot_;
};

// One descriptor entry with its own data area.
struct Var {
  std::unique_ptr<char[]> data;
  void Init(DBQ1_SqlVar* var, const char* name, int16_t type, int16_t length) {
    data.reset(new char[length]);
    memset(data.get(), type == DBQ1_TYPE_CHAR ? ' ' : 0, static_cast<size_t>(length));
    var->type = type;
    var->length = length;
    var->data = data.get();
    memset(var->name, 0, sizeof var->name);
    strncpy(var->name, name, sizeof var->name - 1);
  }
};

void InitSqlda(DBQ1_Sqlda* sqlda, int16_t count) {
  memset(sqlda, 0, sizeof *sqlda);
  memcpy(sqlda->eyecatcher, "SQDA", 4);
  sqlda->count = count;
}

class Request final : public Counted {
 public:
  Request(EventTable table, const DBQ1_AsyncNotify& notify, int slot)
      : Counted(Kind::kRequest), table_(table), notify_(notify), counts_(planCounts[slot]) {
    counts_.live.fetch_add(1, std::memory_order_relaxed);
    InitSqlda(&input_, 4);
    vars_[0].Init(&input_.var[0], "REQUESTID", DBQ1_TYPE_INTEGER, 4);
    vars_[1].Init(&input_.var[1], "COMMAND", DBQ1_TYPE_CHAR, commandLength.load());
    vars_[2].Init(&input_.var[2], "CALLTYPE", DBQ1_TYPE_INTEGER, 4);
    vars_[3].Init(&input_.var[3], "ORIGINNODE", DBQ1_TYPE_CHAR, kOriginNodeLength);
    InitSqlda(&output_, 1);
    vars_[4].Init(&output_.var[0], "RESULTS", DBQ1_TYPE_INTEGER, 4);
  }
  ~Request() override { counts_.live.fetch_sub(1, std::memory_order_relaxed); }

  EventTable table() const { return table_; }
  DBQ1_Sqlda* input() { return &input_; }
  DBQ1_Sqlda* output() { return &output_; }
  const DBQ1_AsyncNotify& notify() const { return notify_; }
  DBQ1_Handle cursor = {0, nullptr};  // written once, before the handle is out

  // Makes `open` the current open, served by `driver`. DBQ1_ALREADY_OPEN
  // while the previous open is busy; a previous open that has finished is
  // closed. DBQ1_STALE_HANDLE once the request has been dropped.
  int32_t Begin(std::shared_ptr<Open> open, std::shared_ptr<Driver> driver) {
    std::shared_ptr<Open> previous;
    std::shared_ptr<Driver> previousDriver;
    {
      std::lock_guard<std::mutex> hold(mutex_);
      if (dropped_) return DBQ1_STALE_HANDLE;
      if (current_ && current_->Busy()) return DBQ1_ALREADY_OPEN;
      previous = std::exchange(current_, std::move(open));
      previousDriver = std::exchange(driver_, std::move(driver));
      if (!busy_) counts_.busy.fetch_add(1, std::memory_order_relaxed);
      busy_ = true;
    }
    if (previous) previous->Close();
    return DBQ1_OK;
  }

  // Ends the current open (see DBQ1_CloseRequest). With `drop`, no open can
  // begin afterwards.
  void End(bool drop) {
    std::shared_ptr<Open> open;
    std::shared_ptr<Driver> driver;  // kept until the driver has stopped
    {
      std::lock_guard<std::mutex> hold(mutex_);
      if (drop) dropped_ = true;
      open = std::move(current_);
      driver = std::move(driver_);
      if (busy_) counts_.busy.fetch_sub(1, std::memory_order_relaxed);
      busy_ = false;
    }
    if (open) open->Close();
  }

  // The REQUESTID of the current open; 0 when there is none.
  uint32_t CurrentRequestId() {
    std::lock_guard<std::mutex> hold(mutex_);
    return current_ ? current_->requestId() : 0;
  }

  int32_t Fetch(int32_t* returnCode) {
    std::shared_ptr<Open> open;
    {
      std::lock_guard<std::mutex> hold(mutex_);
      open = current_;
    }
    return open ? open->Fetch(returnCode) : DBQ1_CURSOR_NOT_OPEN;
  }

 private:
  const EventTable table_;
  const DBQ1_AsyncNotify notify_;
  PlanCounts& counts_;
  DBQ1_Sqlda input_;
  DBQ1_Sqlda output_;
  Var vars_[5];
  // Guards the members below: taken by the module's action thread opening,
  // closing, fetching or dropping the request, never while a driver runs.
  std::mutex mutex_;
  std::shared_ptr<Open> current_;   // the latest open, until closed
  std::shared_ptr<Driver> driver_;  // serves current_; lives while it does
  bool dropped_ = false;
  bool busy_ = false;  // counted in counts_.busy: opened, not yet closed
};

// The cursor names its request weakly, so that it never keeps a released
// request alive.
class Cursor final : public Object {
 public:
  explicit Cursor(std::weak_ptr<Request> request)
      : Object(Kind::kCursor), request_(std::move(request)) {}
  std::shared_ptr<Request> request() const { return request_.lock(); }

 private:
  const std::weak_ptr<Request> request_;
};

// ---- injected faults ----
struct Fault {
  int32_t status = 0;
  int32_t skip = 0;
  int32_t count = 0;
  int32_t injected = 0;  // failures returned since armed
};
constexpr int kOps = static_cast<int>(Op::kFetch) + 1;
// Guards faults: taken by tests arming or clearing them and, once any is
// armed, by every DBQ1_* call on the module's threads.
std::mutex faultMutex;
Fault faults[kOps];
std::atomic<bool> faultsArmed{false};

// The status that the next call of `op` must return, 0 for none.
int32_t Injected(Op op) {
  if (!faultsArmed.load(std::memory_order_relaxed)) return DBQ1_OK;
  std::lock_guard<std::mutex> hold(faultMutex);
  Fault& fault = faults[static_cast<int>(op)];
  if (fault.count <= 0) return DBQ1_OK;
  if (fault.skip > 0) {
    --fault.skip;
    return DBQ1_OK;
  }
  --fault.count;
  ++fault.injected;
  return fault.status;
}

template <typename T>
int32_t FindAs(DBQ1_Handle handle, Kind kind, std::shared_ptr<T>* object) {
  std::shared_ptr<Object> found;
  int32_t status = HandleRegistry::Instance().Find(handle, kind, &found);
  if (status == DBQ1_OK) *object = std::static_pointer_cast<T>(std::move(found));
  return status;
}

// Runs one operation: an injected fault first, then the body; the service
// never lets an exception out to its C callers.
template <typename Body>
int32_t Run(Op op, Body body) {
  int32_t injected = Injected(op);
  if (injected != DBQ1_OK) return injected;
  try {
    return body();
  } catch (...) {
    // Out of memory, or a service thread could not be started.
    return DBQ1_NO_MEMORY;
  }
}

// Text of a CHAR parameter: up to its declared length, ending at a NUL if
// there is one, trailing blanks removed.
std::string CharValue(const DBQ1_SqlVar& var) {
  const char* data = static_cast<const char*>(var.data);
  size_t length = strnlen(data, static_cast<size_t>(var.length));
  while (length > 0 && data[length - 1] == ' ') --length;
  return std::string(data, length);
}

bool Fits(const DBQ1_SqlVar& var, int16_t type) {
  if (var.data == nullptr || var.type != type) return false;
  return type == DBQ1_TYPE_INTEGER ? var.length == 4 : var.length > 0;
}

// The request whose cursor `cursor` is: DBQ1_STALE_HANDLE also when the
// request has been released.
int32_t FindCursorOwner(DBQ1_Handle cursor, std::shared_ptr<Request>* owner) {
  std::shared_ptr<Cursor> found;
  int32_t status = FindAs(cursor, Kind::kCursor, &found);
  if (status != DBQ1_OK) return status;
  *owner = found->request();
  return *owner ? DBQ1_OK : DBQ1_STALE_HANDLE;
}

// Reads the four bound parameters; DBQ1_BAD_PARAMETER when `input` is not
// laid out as a request's input descriptor area.
int32_t ReadAction(const DBQ1_Sqlda& input, EventTable table, Action* action) {
  if (input.count != 4 || !Fits(input.var[0], DBQ1_TYPE_INTEGER) ||
      !Fits(input.var[1], DBQ1_TYPE_CHAR) || !Fits(input.var[2], DBQ1_TYPE_INTEGER) ||
      !Fits(input.var[3], DBQ1_TYPE_CHAR))
    return DBQ1_BAD_PARAMETER;
  memcpy(&action->requestId, input.var[0].data, 4);
  action->command = CharValue(input.var[1]);
  memcpy(&action->callType, input.var[2].data, 4);
  action->destination = CharValue(input.var[3]);
  action->table = table;
  return DBQ1_OK;
}

std::string TrimBlanks(std::string text) {
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return text;
}

int32_t CreatePath(const char* serverName, DBQ1_Handle* path) {
  if (TrimBlanks(serverName) != TrimBlanks(ServerName())) return DBQ1_UNKNOWN_SERVER;
  *path = HandleRegistry::Instance().Add(std::make_shared<Path>(serverName));
  return DBQ1_OK;
}

// Releases `object` after its handle has gone: a request's open is ended
// and its cursor handle released with it.
void Retire(const std::shared_ptr<Object>& object) {
  if (object->kind() != Kind::kRequest) return;
  auto request = std::static_pointer_cast<Request>(object);
  request->End(/*drop=*/true);
  std::shared_ptr<Object> cursor;
  HandleRegistry::Instance().Release(request->cursor, {Kind::kCursor}, &cursor);
}

// Guards ownPath: taken by the program's threads that ask for it (OwnPath).
std::mutex ownPathMutex;
DBQ1_Handle ownPath = {0, nullptr};

}  // namespace
}  // namespace qmta::host::internal

using namespace qmta::host::internal;
using qmta::host::Op;

extern "C" {

QMTA_HOSTSVC_API void* DBQ1_LocalInterface(void) { return &localInterface; }

QMTA_HOSTSVC_API int32_t DBQ1_CreatePath(const char* serverName, void* interface, DBQ1_Handle* path) {
  return Run(Op::kCreatePath, [&] {
    if (serverName == nullptr || path == nullptr || interface != &localInterface)
      return int32_t{DBQ1_BAD_ARGUMENT};
    return CreatePath(serverName, path);
  });
}

QMTA_HOSTSVC_API int32_t DBQ1_CreateAccessPlan(DBQ1_Handle path, const char* sql, DBQ1_Handle* plan) {
  return Run(Op::kCreateAccessPlan, [&] {
    std::shared_ptr<Path> owner;
    int32_t status = FindAs(path, Kind::kPath, &owner);
    if (status != DBQ1_OK) return status;
    if (sql == nullptr || plan == nullptr) return int32_t{DBQ1_BAD_ARGUMENT};
    qmta::host::EventTable table;
    if (strcmp(sql, kVxStatement) == 0)
      table = qmta::host::EventTable::kVxEvents;
    else if (strcmp(sql, kRmStatement) == 0)
      table = qmta::host::EventTable::kRmEvents;
    else
      return int32_t{DBQ1_UNKNOWN_STATEMENT};
    *plan = HandleRegistry::Instance().Add(std::make_shared<Plan>(table));
    return int32_t{DBQ1_OK};
  });
}

QMTA_HOSTSVC_API int32_t DBQ1_CreateRequest(DBQ1_Handle path, DBQ1_Handle plan,
                           const DBQ1_AsyncNotify* notify, DBQ1_Handle* request,
                           DBQ1_Handle* cursor) {
  return Run(Op::kCreateRequest, [&] {
    std::shared_ptr<Path> owner;
    std::shared_ptr<Plan> statement;
    int32_t status = FindAs(path, Kind::kPath, &owner);
    if (status == DBQ1_OK) status = FindAs(plan, Kind::kPlan, &statement);
    if (status != DBQ1_OK) return status;
    if (notify == nullptr || notify->kind != DBQ1_NOTIFY_ROUTINE ||
        notify->routine == nullptr || request == nullptr || cursor == nullptr)
      return int32_t{DBQ1_BAD_ARGUMENT};
    StartDelivery();
    auto made = std::make_shared<Request>(statement->table(), *notify, statement->slot());
    auto& registry = HandleRegistry::Instance();
    made->cursor = registry.Add(std::make_shared<Cursor>(made));
    try {
      *request = registry.Add(made);
    } catch (...) {
      std::shared_ptr<Object> unused;
      registry.Release(made->cursor, {Kind::kCursor}, &unused);
      throw;
    }
    *cursor = made->cursor;
    return int32_t{DBQ1_OK};
  });
}

QMTA_HOSTSVC_API int32_t DBQ1_GetInputSQLDA(DBQ1_Handle request, DBQ1_Sqlda** input) {
  return Run(Op::kGetInputSQLDA, [&] {
    std::shared_ptr<Request> found;
    int32_t status = FindAs(request, Kind::kRequest, &found);
    if (status != DBQ1_OK) return status;
    if (input == nullptr) return int32_t{DBQ1_BAD_ARGUMENT};
    *input = found->input();
    return int32_t{DBQ1_OK};
  });
}

QMTA_HOSTSVC_API int32_t DBQ1_DropHandle(DBQ1_Handle handle) {
  return Run(Op::kDropHandle, [&] {
    // A cursor goes with its request and is not dropped on its own. Of two
    // drops of one handle racing, the second finds it stale.
    std::shared_ptr<Object> object;
    int32_t status = HandleRegistry::Instance().Release(
        handle, {Kind::kPath, Kind::kPlan, Kind::kRequest}, &object);
    if (status != DBQ1_OK) return status;
    Retire(object);
    return int32_t{DBQ1_OK};
  });
}

QMTA_HOSTSVC_API int32_t DBQ1_OpenRequest(DBQ1_Handle request, DBQ1_Sqlda* input) {
  auto observer = CurrentObserver();
  qmta::host::ActionOpened opened;  // for the observer
  int32_t result = Run(Op::kOpenRequest, [&] {
    std::shared_ptr<Request> found;
    int32_t status = FindAs(request, Kind::kRequest, &found);
    if (status != DBQ1_OK) return status;
    if (input == nullptr) return int32_t{DBQ1_BAD_ARGUMENT};
    qmta::host::Action action;
    status = ReadAction(*input, found->table(), &action);
    if (status != DBQ1_OK) return status;
    action.deadline = std::chrono::steady_clock::now() + kCallerWait +
                      std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                          qmta::host::ClockShift());
    std::shared_ptr<qmta::host::Driver> driver =
        RouteDestination(action.destination, observer ? &opened.driver : nullptr,
                         observer ? &opened.line : nullptr);
    auto open = std::make_shared<Open>(found->notify(), action.requestId);
    status = found->Begin(open, driver);
    if (status != DBQ1_OK) return status;
    opensStarted.fetch_add(1);
    if (observer) {  // told before the driver can answer
      opened.requestId = action.requestId;
      opened.command = action.command;
      opened.callType = action.callType;
      opened.destination = action.destination;
      opened.time = std::chrono::system_clock::now();
      observer->Opened(opened);
    }
    if (!driver) {
      open->Fail(DBQ1_DEST_OFFLINE);  // no directory line serves it
      return int32_t{DBQ1_OK};
    }
    try {
      driver->Start(action, open);
    } catch (...) {
      open->Fail(DBQ1_ACTION_FAILED);  // the open has started: report late
    }
    return int32_t{DBQ1_OK};
  });
  if (observer && result != DBQ1_OK) {
    // A refused open, attributed to the request id bound, when it can be read.
    qmta::host::Action action;
    if (input != nullptr && ReadAction(*input, qmta::host::EventTable::kRmEvents, &action) == DBQ1_OK) {
      opened = {};
      opened.requestId = action.requestId;
      opened.command = action.command;
      opened.callType = action.callType;
      opened.destination = action.destination;
      opened.status = result;
      opened.time = std::chrono::system_clock::now();
      observer->Opened(opened);
    }
  }
  return result;
}

QMTA_HOSTSVC_API int32_t DBQ1_CloseRequest(DBQ1_Handle request) {
  return Run(Op::kCloseRequest, [&] {
    std::shared_ptr<Request> found;
    int32_t status = FindAs(request, Kind::kRequest, &found);
    if (status != DBQ1_OK) return status;
    found->End(/*drop=*/false);
    return int32_t{DBQ1_OK};
  });
}

QMTA_HOSTSVC_API int32_t DBQ1_GetOutputSQLDA(DBQ1_Handle cursor, DBQ1_Sqlda** output) {
  return Run(Op::kGetOutputSQLDA, [&] {
    std::shared_ptr<Request> owner;
    int32_t status = FindCursorOwner(cursor, &owner);
    if (status != DBQ1_OK) return status;
    if (output == nullptr) return int32_t{DBQ1_BAD_ARGUMENT};
    *output = owner->output();
    return int32_t{DBQ1_OK};
  });
}

QMTA_HOSTSVC_API int32_t DBQ1_Fetch(DBQ1_Handle cursor, DBQ1_Sqlda* output) {
  int32_t result = Run(Op::kFetch, [&] {
    std::shared_ptr<Request> owner;
    int32_t status = FindCursorOwner(cursor, &owner);
    if (status != DBQ1_OK) return status;
    if (output == nullptr || output->count < 1 || output->var[0].data == nullptr ||
        output->var[0].length < 4)
      return int32_t{DBQ1_BAD_ARGUMENT};
    int32_t returnCode = 0;
    status = owner->Fetch(&returnCode);
    if (status == DBQ1_OK) memcpy(output->var[0].data, &returnCode, 4);
    return status;
  });
  if (result != DBQ1_OK && result != DBQ1_NO_MORE_ROWS) {
    std::shared_ptr<Request> owner;
    auto observer = CurrentObserver();
    if (observer && FindCursorOwner(cursor, &owner) == DBQ1_OK)
      if (uint32_t id = owner->CurrentRequestId()) observer->FetchFailed(id, result);
  }
  return result;
}

}  // extern "C"

namespace qmta::host {

DBQ1_Handle OwnPath() {
  std::lock_guard<std::mutex> hold(ownPathMutex);
  std::shared_ptr<Object> existing;
  if (HandleRegistry::Instance().Find(ownPath, Kind::kPath, &existing) != DBQ1_OK) {
    // First use, or the previous one was dropped or made stale.
    std::string server = ServerName();
    ownPath = HandleRegistry::Instance().Add(std::make_shared<Path>(server));
  }
  return ownPath;
}

PlanRequests RequestsOfPlan(int plan) {
  PlanRequests counts;
  if (plan < 0 || plan >= kPlanSlots) return counts;
  // Two loads, not one snapshot: an open or a release between them could
  // make the difference negative for a moment.
  counts.busy = planCounts[plan].busy.load(std::memory_order_relaxed);
  int64_t live = planCounts[plan].live.load(std::memory_order_relaxed);
  counts.resting = live > counts.busy ? live - counts.busy : 0;
  return counts;
}

void SetCommandLength(int16_t length) { commandLength.store(length > 0 ? length : 1); }

void FailOperation(Op op, int32_t status, int32_t count, int32_t skip) {
  std::lock_guard<std::mutex> hold(faultMutex);
  faults[static_cast<int>(op)] = Fault{status, skip > 0 ? skip : 0, count};
  faultsArmed.store(true);
}

int32_t FailuresInjected(Op op) {
  std::lock_guard<std::mutex> hold(faultMutex);
  return faults[static_cast<int>(op)].injected;
}

void MakeStale(DBQ1_Handle handle) { HandleRegistry::Instance().MakeStale(handle); }

void ResetQueryService() {
  {
    std::lock_guard<std::mutex> hold(faultMutex);
    for (Fault& fault : faults) fault = Fault();
    faultsArmed.store(false);
  }
  ClearDestinations();
  commandLength.store(kDefaultCommandLength);
  for (const auto& orphan : HandleRegistry::Instance().TakeOrphans()) Retire(orphan);
}

int64_t OpensStarted() { return opensStarted.load(); }
int64_t LiveObjects() { return liveObjects.load(); }

}  // namespace qmta::host
