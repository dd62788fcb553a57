// Dispatch: events that each match one rule whose destination answers at
// once (sim rc=0), in batches, each batch timed until every action has
// reported its outcome. Ours is the module's whole road: the walk, the
// action record, a detached action thread per action, a request from the
// stack, the asynchronous open through the query service, the wait, the
// fetch, the messages (to /dev/null) and the push back. The floor is the
// bare skeleton of that road: a detached thread per action that takes a
// request from a mutex-guarded LIFO stack, hands it to a completion thread,
// waits on a condition variable for the answer and puts it back.
//
// The journal: the same road with the action journal on (every event and
// every open and completion queued for its writer thread, which commits
// them to SQLite in batches), against the road with it off; and the
// journal's size per action against the text it keeps of one.
#include <pthread.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/support/benchsupport.h"
#include "host/drivers/sim.h"
#include "host/programs/qmtahost/journal.h"
#include "host/services/actiontap.h"
#include "host/services/control.h"
#include "host/services/testhooks.h"

namespace {

constexpr char kTimestamp[] = "1261116000509000";
constexpr int kBatch = 100;  // events fired before waiting for their actions
constexpr auto kLimit = std::chrono::seconds(60);

DBQ1_Handle path;
std::unique_ptr<qmtabench::Module> module;

// With `journal`, each event goes through it as qmtahost sends it.
void Run(benchmark::State& state, qmta::hostprog::Journal* journal) {
  const char* names[] = {"Disk.Mount_Point", "Disk.Free_Percent"};
  const char* values[] = {"/var", "4"};
  qmta::hostprog::Event event;
  event.sitname = "Bench_Dispatch";
  event.originnode = "Primary:WEB00042:NT";
  event.currstate = 1;
  event.attributes = {{names[0], values[0]}, {names[1], values[1]}};
  event.source = "bench";
  int32_t failures = 0;
  bool drained = true;
  for (auto _ : state) {
    const int64_t target = qmta::host::StartedActions() + kBatch;
    for (int i = 0; i < kBatch; ++i) {
      uint64_t id = journal ? journal->EventBegin(event) : 0;
      int32_t result = module->autoexit("Bench_Dispatch", "Primary:WEB00042:NT", 0, 1,
                                        kTimestamp, 2, names, values, nullptr, &path, 0);
      if (journal) journal->EventEnd(id, event, result);
      failures += result != 0;
    }
    drained = qmtabench::WaitUntil(
        [&] {
          return qmta::host::StartedActions() >= target && qmta::host::LiveActions() == 0;
        },
        kLimit);
    if (!drained) break;
  }
  if (failures != 0) state.SkipWithError("an event failed");
  if (!drained) state.SkipWithError("actions did not finish");
  state.SetItemsProcessed(state.iterations() * kBatch);
}

void Ours(benchmark::State& state) { Run(state, nullptr); }

std::string journalPath;

int64_t FileSize(const std::string& name) {
  struct stat info;
  return stat(name.c_str(), &info) == 0 ? info.st_size : 0;
}

// One value of a query on the journal, by a connection of its own.
double JournalValue(const char* sql) {
  sqlite3* db = nullptr;
  sqlite3_stmt* statement = nullptr;
  double value = 0;
  if (sqlite3_open(journalPath.c_str(), &db) == SQLITE_OK &&
      sqlite3_prepare_v2(db, sql, -1, &statement, nullptr) == SQLITE_OK &&
      sqlite3_step(statement) == SQLITE_ROW)
    value = sqlite3_column_double(statement, 0);
  sqlite3_finalize(statement);
  sqlite3_close(db);
  return value;
}

// The road with the journal on; a fresh journal for each run. Its size per
// action is the database after a checkpoint (the write-ahead log folded
// in), against the text that it keeps of an action (command, names, run).
void WithJournal(benchmark::State& state) {
  for (const char* suffix : {"", "-wal", "-shm"}) remove((journalPath + suffix).c_str());
  qmta::hostprog::JournalSettings settings;
  settings.path = journalPath;
  std::string error;
  auto journal = qmta::hostprog::Journal::Open(settings, &error);
  if (!journal) {
    state.SkipWithError(error.c_str());
    return;
  }
  qmta::host::SetActionObserver(journal);
  Run(state, journal.get());
  qmta::host::SetActionObserver(nullptr);
  const uint64_t dropped = journal->counts().dropped.load();
  journal.reset();  // commits what is queued
  if (dropped != 0) state.SkipWithError("the journal dropped records");
  JournalValue("PRAGMA wal_checkpoint(TRUNCATE)");
  const double actions = JournalValue("SELECT count(*) FROM actions");
  const double text = JournalValue(
      "SELECT avg(length(command) + length(destination) + length(run) + "
      "length(COALESCE(sitname, 'Bench_Dispatch'))) "
      "FROM actions");
  if (actions > 0) {
    state.counters["bytes_per_action"] = static_cast<double>(FileSize(journalPath)) / actions;
    state.counters["text_bytes_per_action"] = text;
  }
}

// ---- The floor ---------------------------------------------------------------

struct Request {
  Request* next = nullptr;
  pthread_mutex_t doneLock = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t doneCond = PTHREAD_COND_INITIALIZER;
  bool done = false;
};

pthread_mutex_t stackLock = PTHREAD_MUTEX_INITIALIZER;
Request* stackTop = nullptr;

// The completion thread's queue of requests to answer.
pthread_mutex_t queueLock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t queueCond = PTHREAD_COND_INITIALIZER;
std::vector<Request*> queue;

std::atomic<int64_t> floorFinished{0};

void* Completer(void*) {
  std::vector<Request*> answering;
  for (;;) {
    pthread_mutex_lock(&queueLock);
    while (queue.empty()) pthread_cond_wait(&queueCond, &queueLock);
    answering.swap(queue);
    pthread_mutex_unlock(&queueLock);
    for (Request* request : answering) {
      pthread_mutex_lock(&request->doneLock);
      request->done = true;
      pthread_cond_signal(&request->doneCond);
      pthread_mutex_unlock(&request->doneLock);
    }
    answering.clear();
  }
  return nullptr;
}

void* FloorAction(void*) {
  pthread_detach(pthread_self());
  pthread_mutex_lock(&stackLock);
  Request* request = stackTop;
  if (request != nullptr)
    stackTop = request->next;
  else
    request = new Request;
  pthread_mutex_unlock(&stackLock);

  pthread_mutex_lock(&queueLock);
  queue.push_back(request);
  pthread_cond_signal(&queueCond);
  pthread_mutex_unlock(&queueLock);

  pthread_mutex_lock(&request->doneLock);
  while (!request->done) pthread_cond_wait(&request->doneCond, &request->doneLock);
  request->done = false;
  pthread_mutex_unlock(&request->doneLock);

  pthread_mutex_lock(&stackLock);
  request->next = stackTop;
  stackTop = request;
  pthread_mutex_unlock(&stackLock);
  floorFinished.fetch_add(1);
  return nullptr;
}

void Floor(benchmark::State& state) {
  static const bool started = [] {
    pthread_t thread;
    if (pthread_create(&thread, nullptr, Completer, nullptr) != 0)
      throw std::runtime_error("completion thread");
    pthread_detach(thread);
    return true;
  }();
  (void)started;
  int32_t failures = 0;
  bool drained = true;
  for (auto _ : state) {
    const int64_t target = floorFinished.load() + kBatch;
    for (int i = 0; i < kBatch; ++i) {
      pthread_t thread;
      failures += pthread_create(&thread, nullptr, FloorAction, nullptr) != 0;
    }
    drained = qmtabench::WaitUntil([&] { return floorFinished.load() >= target; }, kLimit);
    if (!drained) break;
  }
  if (failures != 0) state.SkipWithError("a thread did not start");
  if (!drained) state.SkipWithError("actions did not finish");
  state.SetItemsProcessed(state.iterations() * kBatch);
}

}  // namespace

int main(int argc, char** argv) {
  std::unique_ptr<qmtabench::ScratchDir> dir;
  return qmtabench::Main(argc, argv, [&] {
    dir = std::make_unique<qmtabench::ScratchDir>();
    const qmtabench::Rule rule{
        .comment = "",
        .sitname = "Bench_Dispatch",
        .originnode = "*",
        .state = "TRUE",
        .destnode = "BENCH:RM_ACTIONS",
        .script = "NOTIFY",
        .args = {"SITNAME", "NODE", "Disk.Free_Percent", "\"page the operator\""}};
    dir->Write("QMTASITR", qmtabench::Text(rule));
    std::string error;
    qmta::host::RegisterStandardDrivers();
    if (!qmta::host::SetDestinations("* sim rc=0\n", &error))
      throw std::runtime_error("destinations: " + error);
    path = qmta::host::OwnPath();
    module = std::make_unique<qmtabench::Module>();
    // A first batch loads the table and proves the road: every action
    // reports its completion with RC=0.
    std::string out = qmtabench::CaptureStdout([] {
      const int64_t target = qmta::host::StartedActions() + 10;
      for (int i = 0; i < 10; ++i)
        module->autoexit("Bench_Dispatch", "Primary:WEB00042:NT", 0, 1, kTimestamp, 0,
                         nullptr, nullptr, nullptr, &path, 0);
      qmtabench::WaitUntil(
          [&] {
            return qmta::host::StartedActions() >= target && qmta::host::LiveActions() == 0;
          },
          kLimit);
    });
    int completed = 0;
    for (size_t at = out.find("QMTA050I"); at != std::string::npos;
         at = out.find("QMTA050I", at + 1))
      completed += out.compare(out.find("RC=", at), 5, "RC=0 ") == 0;
    if (completed != 10)
      throw std::runtime_error("dispatch check: " + std::to_string(completed) +
                               " of 10 actions completed with RC=0:\n" + out);
    benchmark::RegisterBenchmark("dispatch/ours", Ours)->UseRealTime();
    journalPath = dir->path() + "/journal.db";
    benchmark::RegisterBenchmark("dispatch/journal", WithJournal)->UseRealTime();
    benchmark::RegisterBenchmark("dispatch/floor", Floor)->UseRealTime();
  });
}
