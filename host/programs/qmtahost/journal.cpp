// The action journal (see journal.h): records queued by the producers,
// written by the one writer thread in batches.
#include "host/programs/qmtahost/journal.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <random>

#include <nlohmann/json.hpp>

#include "host/common/number.h"
#include "host/common/say.h"
#include "platform/dbq1.h"

namespace qmta::hostprog {

using namespace std::chrono_literals;

// One fact for the writer. Which fields count depends on the kind.
struct Journal::Record {
  enum class Kind { kEvent, kStartFailures, kAnnounced, kOpened, kCompleted,
                    kFetchFailed, kNoResponse };
  Kind kind = Kind::kEvent;
  uint64_t eventId = 0;
  uint32_t requestId = 0;
  double time = 0;  // Unix seconds
  std::string sitname, node, command, driver, text;
  int32_t state = 0, prevstate = 0, callType = 0, line = 0, status = 0, count = 0;
  int exitStatus = -1, signal = 0;
  bool cut = false;
  std::vector<int32_t> rows;
  std::vector<std::pair<std::string, std::string>> attributes;  // made JSON by the writer
};

namespace {

constexpr auto kPruneEvery = 60s;
constexpr size_t kRecentEvents = 4096;

void Say(const std::string& text) { host::Say("qmtahost: journal: ", text); }

double Seconds(std::chrono::system_clock::time_point time) {
  return std::chrono::duration<double>(time.time_since_epoch()).count();
}
double Now() { return Seconds(std::chrono::system_clock::now()); }

std::string RunId() {
  time_t now = time(nullptr);
  struct tm utc;
  gmtime_r(&now, &utc);
  char text[32];
  strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &utc);
  std::random_device random;
  char suffix[8];
  snprintf(suffix, sizeof suffix, "-%04x", static_cast<unsigned>(random() & 0xffff));
  return std::string(text) + suffix;
}

// The value of " KEY=" in a message, up to the next blank.
std::string_view Field(std::string_view text, std::string_view key) {
  size_t at = text.find(key);
  while (at != std::string_view::npos && at > 0 && text[at - 1] != ' ')
    at = text.find(key, at + 1);
  if (at == std::string_view::npos) return {};
  std::string_view rest = text.substr(at + key.size());
  return rest.substr(0, rest.find_first_of(" \n"));
}

int64_t FieldNumber(std::string_view text, std::string_view key) {
  int64_t number = -1;
  if (!host::ParseNumber(Field(text, key), &number, INT32_MIN, UINT32_MAX, host::Radix::kDecimal))
    return -1;
  return number;
}

const char kSchema[] = R"sql(
CREATE TABLE IF NOT EXISTS runs(
  run TEXT PRIMARY KEY, started REAL NOT NULL, pid INTEGER);
CREATE TABLE IF NOT EXISTS events(
  run TEXT NOT NULL, id INTEGER NOT NULL, time REAL NOT NULL, source TEXT,
  sitname TEXT, originnode TEXT, prevstate INTEGER, state INTEGER, attributes TEXT,
  result INTEGER, actions_started INTEGER NOT NULL DEFAULT 0,
  actions_not_started INTEGER NOT NULL DEFAULT 0, PRIMARY KEY(run, id));
CREATE TABLE IF NOT EXISTS actions(
  run TEXT NOT NULL, request_id INTEGER NOT NULL, event_id INTEGER,
  sitname TEXT, destination TEXT, state INTEGER, command TEXT, call_type INTEGER,
  driver TEXT, nodes_line INTEGER, started REAL, ended REAL,
  outcome TEXT NOT NULL DEFAULT 'running', status INTEGER, rcs TEXT,
  exit_status INTEGER, exit_signal INTEGER, output TEXT,
  output_cut INTEGER NOT NULL DEFAULT 0, failed INTEGER NOT NULL DEFAULT 0,
  PRIMARY KEY(run, request_id));
CREATE INDEX IF NOT EXISTS actions_started ON actions(started);
CREATE INDEX IF NOT EXISTS events_time ON events(time);
PRAGMA user_version = 1;
)sql";

// One statement per kind of record, in the order of Record::Kind; every
// value is bound, ?1 being the run.
const char* const kStatements[] = {
    // kEvent: after the event exit, so its actions may have been counted
    "INSERT INTO events(run, id, time, source, sitname, originnode, prevstate, "
    "state, attributes, result) VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10) "
    "ON CONFLICT(run, id) DO UPDATE SET time = excluded.time, source = excluded.source, "
    "sitname = excluded.sitname, originnode = excluded.originnode, "
    "prevstate = excluded.prevstate, state = excluded.state, "
    "attributes = excluded.attributes, result = excluded.result",
    // kStartFailures
    "UPDATE events SET actions_not_started = actions_not_started + ?3 WHERE run = ?1 AND id = ?2",
    // kAnnounced: the action's event, sitname and state (QMTA040I)
    "INSERT INTO actions(run, request_id, event_id, sitname, state, destination, started) "
    "VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7) ON CONFLICT(run, request_id) DO UPDATE SET "
    "event_id = excluded.event_id, sitname = excluded.sitname, state = excluded.state",
    // kOpened: the command as bound and who took it, or the refusing status
    "INSERT INTO actions(run, request_id, command, call_type, destination, driver, nodes_line, "
    "started, outcome, status, failed) VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, "
    "CASE WHEN ?9 = 0 THEN 'running' ELSE 'error' END, NULLIF(?9, 0), ?9 <> 0) "
    "ON CONFLICT(run, request_id) DO UPDATE SET command = excluded.command, "
    "call_type = excluded.call_type, destination = excluded.destination, "
    "driver = excluded.driver, nodes_line = excluded.nodes_line, started = excluded.started, "
    "outcome = CASE WHEN ?9 = 0 THEN outcome ELSE 'error' END, "
    "status = CASE WHEN ?9 = 0 THEN status ELSE ?9 END, failed = failed OR ?9 <> 0",
    // kCompleted
    "INSERT INTO actions(run, request_id, ended, outcome, status, rcs, exit_status, exit_signal, "
    "output, output_cut, failed) VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11) "
    "ON CONFLICT(run, request_id) DO UPDATE SET ended = excluded.ended, "
    "outcome = excluded.outcome, status = excluded.status, rcs = excluded.rcs, "
    "exit_status = excluded.exit_status, exit_signal = excluded.exit_signal, "
    "output = excluded.output, output_cut = excluded.output_cut, failed = excluded.failed",
    // kFetchFailed
    "INSERT INTO actions(run, request_id, outcome, status, failed) VALUES(?1, ?2, 'error', ?3, 1) "
    "ON CONFLICT(run, request_id) DO UPDATE SET outcome = 'error', status = ?3, failed = 1",
    // kNoResponse (QMTA042E): unless an outcome came first
    "INSERT INTO actions(run, request_id, ended, outcome, failed) "
    "VALUES(?1, ?2, ?3, 'no response', 1) ON CONFLICT(run, request_id) DO UPDATE SET "
    "ended = excluded.ended, outcome = 'no response', failed = 1 WHERE outcome = 'running'",
};
constexpr size_t kKinds = sizeof kStatements / sizeof kStatements[0];
// After an action's QMTA040I: its event counts it (its row may come later:
// it is queued once the event exit has returned).
const char kCountStarted[] =
    "INSERT INTO events(run, id, time, actions_started) VALUES(?1, ?2, 0, 1) "
    "ON CONFLICT(run, id) DO UPDATE SET actions_started = actions_started + 1";

}  // namespace

// The connection and its prepared statements: the writer thread's alone
// (and the opening thread's before the writer starts).
struct Journal::Db {
  sqlite3* db = nullptr;
  sqlite3_stmt* statements[kKinds] = {};
  sqlite3_stmt* countStarted = nullptr;
  ~Db() {
    for (sqlite3_stmt* statement : statements) sqlite3_finalize(statement);
    sqlite3_finalize(countStarted);
    sqlite3_close(db);
  }
  std::string Error() const { return db ? sqlite3_errmsg(db) : "out of memory"; }
  bool Exec(const char* sql) { return sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK; }
};

namespace {

void BindText(sqlite3_stmt* statement, int index, const std::string& text) {
  sqlite3_bind_text(statement, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
}

// Binds what `record` holds to the statement of its kind.
void Bind(sqlite3_stmt* s, const std::string& run, const Journal::Record& r) {
  using Kind = Journal::Record::Kind;
  BindText(s, 1, run);
  switch (r.kind) {
    case Kind::kEvent: {
      sqlite3_bind_int64(s, 2, static_cast<int64_t>(r.eventId));
      sqlite3_bind_double(s, 3, r.time);
      BindText(s, 4, r.driver);  // the source
      BindText(s, 5, r.sitname);
      BindText(s, 6, r.node);
      sqlite3_bind_int(s, 7, r.prevstate);
      sqlite3_bind_int(s, 8, r.state);
      nlohmann::json attributes = nlohmann::json::array();  // in order, as the event had them
      for (const auto& [name, value] : r.attributes) attributes.push_back({name, value});
      BindText(s, 9, attributes.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
      sqlite3_bind_int(s, 10, r.status);
      break;
    }
    case Kind::kStartFailures:
      sqlite3_bind_int64(s, 2, static_cast<int64_t>(r.eventId));
      sqlite3_bind_int(s, 3, r.count);
      break;
    case Kind::kAnnounced:
      sqlite3_bind_int64(s, 2, r.requestId);
      if (r.eventId) sqlite3_bind_int64(s, 3, static_cast<int64_t>(r.eventId));
      BindText(s, 4, r.sitname);
      sqlite3_bind_int(s, 5, r.state);
      BindText(s, 6, r.node);
      sqlite3_bind_double(s, 7, r.time);
      break;
    case Kind::kOpened:
      sqlite3_bind_int64(s, 2, r.requestId);
      BindText(s, 3, r.command);
      sqlite3_bind_int(s, 4, r.callType);
      BindText(s, 5, r.node);
      if (!r.driver.empty()) BindText(s, 6, r.driver);
      if (r.line > 0) sqlite3_bind_int(s, 7, r.line);
      sqlite3_bind_double(s, 8, r.time);
      sqlite3_bind_int(s, 9, r.status);
      break;
    case Kind::kCompleted: {
      sqlite3_bind_int64(s, 2, r.requestId);
      sqlite3_bind_double(s, 3, r.time);
      // An answer without rows is what the module reports as offline.
      bool completed = r.status == DBQ1_OK && !r.rows.empty();
      bool offline = r.status == DBQ1_DEST_OFFLINE || (r.status == DBQ1_OK && r.rows.empty());
      sqlite3_bind_text(s, 4, completed ? "completed" : offline ? "offline" : "error", -1,
                        SQLITE_STATIC);
      if (r.status != DBQ1_OK) sqlite3_bind_int(s, 5, r.status);
      std::string rcs;
      bool nonzero = false;
      for (int32_t rc : r.rows) {
        rcs += (rcs.empty() ? "" : ",") + std::to_string(rc);
        nonzero |= rc != 0;
      }
      if (!r.rows.empty()) BindText(s, 6, rcs);
      if (r.exitStatus >= 0) sqlite3_bind_int(s, 7, r.exitStatus);
      if (r.signal > 0) sqlite3_bind_int(s, 8, r.signal);
      if (!r.text.empty()) BindText(s, 9, r.text);  // NULL: nothing printed, or not known
      sqlite3_bind_int(s, 10, r.cut);
      sqlite3_bind_int(s, 11, !completed || nonzero);
      break;
    }
    case Kind::kFetchFailed:
      sqlite3_bind_int64(s, 2, r.requestId);
      sqlite3_bind_int(s, 3, r.status);
      break;
    case Kind::kNoResponse:
      sqlite3_bind_int64(s, 2, r.requestId);
      sqlite3_bind_double(s, 3, r.time);
      break;
  }
}

// Guards active: taken by the program setting it and by /metrics and
// GET /v1/actions reading it.
std::mutex activeMutex;
std::shared_ptr<Journal> active;

}  // namespace

Journal::Journal(const JournalSettings& settings)
    : settings_(settings), run_(RunId()), db_(std::make_unique<Db>()) {}

std::shared_ptr<Journal> Journal::Open(const JournalSettings& settings, std::string* error) {
  std::shared_ptr<Journal> journal(new Journal(settings));
  Db& db = *journal->db_;
  // The file is made readable by its owner and group only: it holds what
  // action programs printed. SQLite gives its -wal and -shm files the same.
  int made = open(settings.path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0640);
  if (made >= 0) close(made);
  auto fail = [&](const std::string& what) {
    *error = settings.path + ": " + what + ": " + db.Error();
    return nullptr;
  };
  if (sqlite3_open_v2(settings.path.c_str(), &db.db,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                      nullptr) != SQLITE_OK)
    return fail("cannot open");
  sqlite3_busy_timeout(db.db, 2000);
  // WAL: readers (history, GET /v1/actions) never wait for the writer.
  // NORMAL: a commit survives the host's crash; only the machine's could
  // take the last batches.
  if (!db.Exec("PRAGMA journal_mode=WAL") || !db.Exec("PRAGMA synchronous=NORMAL") ||
      !db.Exec(kSchema))
    return fail("cannot set up");
  for (size_t i = 0; i < kKinds; ++i)
    if (sqlite3_prepare_v3(db.db, kStatements[i], -1, SQLITE_PREPARE_PERSISTENT,
                           &db.statements[i], nullptr) != SQLITE_OK)
      return fail("cannot prepare");
  if (sqlite3_prepare_v2(db.db, kCountStarted, -1, &db.countStarted, nullptr) != SQLITE_OK)
    return fail("cannot prepare");
  sqlite3_stmt* run = nullptr;
  sqlite3_prepare_v2(db.db, "INSERT INTO runs(run, started, pid) VALUES(?1, ?2, ?3)", -1, &run,
                     nullptr);
  BindText(run, 1, journal->run_);
  sqlite3_bind_double(run, 2, Now());
  sqlite3_bind_int64(run, 3, getpid());
  int stepped = sqlite3_step(run);
  sqlite3_finalize(run);
  if (stepped != SQLITE_DONE) return fail("cannot record the run");
  journal->Prune();
  journal->writer_ = std::thread([raw = journal.get()] { raw->RunWriter(); });
  return journal;
}

Journal::~Journal() {
  {
    std::lock_guard<std::mutex> hold(queueMutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (writer_.joinable()) writer_.join();
}

void Journal::AttachRelay(OutputRelay* relay) {
  relay_ = relay;
  OutputRelay::Listener listener;
  listener.message = [this](const OutputRelay::Message& message) { Message(message); };
  listener.tag = [this](uint64_t tag) { Tagged(tag); };
  relay->AddListener(std::move(listener));
}

void Journal::Push(Record record) {
  bool full = false, wake = false;
  {
    std::lock_guard<std::mutex> hold(queueMutex_);
    if (queue_.size() >= settings_.queueMax) {
      full = true;
    } else {
      queue_.push_back(std::move(record));
      wake = queue_.size() == settings_.batchMax;
    }
  }
  if (wake) wake_.notify_one();
  if (full) {
    counts_.dropped.fetch_add(1, std::memory_order_relaxed);
    SayOnce(saidFull_, "the queue is full: records are dropped (counted in /metrics)");
  }
}

void Journal::SayOnce(std::atomic<bool>& said, const std::string& text) {
  if (!said.exchange(true)) Say(text);
}

uint64_t Journal::EventBegin(const Event& event) {
  const uint64_t id = nextEvent_.fetch_add(1, std::memory_order_relaxed) + 1;
  std::lock_guard<std::mutex> hold(recentMutex_);
  recent_.push_back({id, event.sitname, event.currstate});
  if (recent_.size() > kRecentEvents) recent_.pop_front();
  return id;
}

void Journal::EventEnd(uint64_t id, const Event& event, int32_t result) {
  Record record;
  record.kind = Record::Kind::kEvent;
  record.eventId = id;
  record.time = Now();
  record.driver = event.source;
  record.sitname = event.sitname;
  record.node = event.originnode;
  record.prevstate = event.prevstate;
  record.state = event.currstate;
  record.attributes = event.attributes;
  record.status = result;
  Push(std::move(record));
  // What the event exit printed comes before the tag in the stream.
  if (relay_) relay_->Tag(id);
}

void Journal::Message(const OutputRelay::Message& message) {
  std::string_view id = message.id, text = message.text;
  if (id == "QMTA002E" || id == "QMTA003E" ||
      (id == "QMTA000E" && text.find("ACTION COMMAND") != std::string_view::npos)) {
    ++startFailures_;  // printed by the event exit, before its tag
    return;
  }
  if (id != "QMTA040I" && id != "QMTA042E") return;
  int64_t request = FieldNumber(text, "REQUESTID=");
  if (request < 0) return;
  Record record;
  record.requestId = static_cast<uint32_t>(request);
  record.time = Now();
  if (id == "QMTA042E") {
    record.kind = Record::Kind::kNoResponse;
  } else {
    record.kind = Record::Kind::kAnnounced;
    record.sitname = Field(text, "SITNAME=");
    record.node = Field(text, "DESTNODE=");
    record.state = static_cast<int32_t>(FieldNumber(text, "STATE="));
    std::lock_guard<std::mutex> hold(recentMutex_);
    for (auto event = recent_.rbegin(); event != recent_.rend(); ++event)
      if (event->state == record.state && event->sitname == record.sitname) {
        record.eventId = event->id;
        break;
      }
  }
  Push(std::move(record));
}

void Journal::Tagged(uint64_t tag) {
  if (startFailures_ == 0) return;
  Record record;
  record.kind = Record::Kind::kStartFailures;
  record.eventId = tag;
  record.count = static_cast<int32_t>(startFailures_);
  startFailures_ = 0;
  Push(std::move(record));
}

void Journal::Opened(const host::ActionOpened& opened) {
  Record record;
  record.kind = Record::Kind::kOpened;
  record.requestId = opened.requestId;
  record.command = opened.command;
  record.callType = opened.callType;
  record.node = opened.destination;
  record.driver = opened.driver;
  record.line = opened.line;
  record.status = opened.status;
  record.time = Seconds(opened.time);
  Push(std::move(record));
}

void Journal::Completed(const host::ActionCompleted& completed) {
  Record record;
  record.kind = Record::Kind::kCompleted;
  record.requestId = completed.requestId;
  record.status = completed.status;
  record.rows = completed.rows;
  record.text = completed.detail.output;
  record.cut = completed.detail.outputCut;
  record.exitStatus = completed.detail.exitStatus;
  record.signal = completed.detail.signal;
  record.time = Seconds(completed.time);
  Push(std::move(record));
}

void Journal::FetchFailed(uint32_t requestId, int32_t status) {
  Record record;
  record.kind = Record::Kind::kFetchFailed;
  record.requestId = requestId;
  record.status = status;
  Push(std::move(record));
}

void Journal::Flush() {
  std::unique_lock<std::mutex> hold(queueMutex_);
  uint64_t ticket = ++flushAsked_;
  wake_.notify_one();
  written_.wait(hold, [&] { return flushed_ >= ticket || !writer_.joinable(); });
}

void Journal::RunWriter() {
  auto nextPrune = std::chrono::steady_clock::now() + kPruneEvery;
  std::vector<Record> batch;
  std::unique_lock<std::mutex> hold(queueMutex_);
  for (;;) {
    wake_.wait_for(hold, settings_.batchEvery, [&] {
      return stopping_ || flushAsked_ > flushed_ || queue_.size() >= settings_.batchMax;
    });
    const uint64_t asked = flushAsked_;
    const bool last = stopping_;
    batch.assign(std::make_move_iterator(queue_.begin()), std::make_move_iterator(queue_.end()));
    queue_.clear();
    hold.unlock();
    if (!batch.empty() && !WriteBatch(batch)) {
      counts_.errors.fetch_add(1, std::memory_order_relaxed);
      SayOnce(saidError_, db_->Error() + "; records are lost (counted in /metrics)");
    }
    batch.clear();
    if (std::chrono::steady_clock::now() >= nextPrune) {
      Prune();
      nextPrune = std::chrono::steady_clock::now() + kPruneEvery;
    }
    hold.lock();
    flushed_ = asked;
    written_.notify_all();
    if (last && queue_.empty()) return;
  }
}

bool Journal::WriteBatch(std::vector<Record>& batch) {
  Db& db = *db_;
  if (!db.Exec("BEGIN")) return false;
  for (const Record& record : batch) {
    sqlite3_stmt* statement = db.statements[static_cast<size_t>(record.kind)];
    sqlite3_reset(statement);
    sqlite3_clear_bindings(statement);
    Bind(statement, run_, record);
    if (sqlite3_step(statement) != SQLITE_DONE) {
      db.Exec("ROLLBACK");
      return false;
    }
    if (record.kind == Record::Kind::kAnnounced && record.eventId) {
      sqlite3_reset(db.countStarted);
      BindText(db.countStarted, 1, run_);
      sqlite3_bind_int64(db.countStarted, 2, static_cast<int64_t>(record.eventId));
      sqlite3_step(db.countStarted);
    }
  }
  if (!db.Exec("COMMIT")) {
    db.Exec("ROLLBACK");
    return false;
  }
  counts_.written.fetch_add(batch.size(), std::memory_order_relaxed);
  return true;
}

void Journal::Prune() {
  const double cutoff = Now() - static_cast<double>(settings_.keep.count());
  static const char* const kPrune[] = {
      "DELETE FROM actions WHERE COALESCE(started, ended) < ?1",
      "DELETE FROM events WHERE time < ?1",
      "DELETE FROM runs WHERE started < ?1 AND run NOT IN (SELECT DISTINCT run FROM actions)"};
  for (const char* sql : kPrune) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db_->db, sql, -1, &statement, nullptr) == SQLITE_OK) {
      sqlite3_bind_double(statement, 1, cutoff);
      if (sqlite3_step(statement) != SQLITE_DONE) {
        counts_.errors.fetch_add(1, std::memory_order_relaxed);
        SayOnce(saidError_, db_->Error() + " while pruning");
      }
    }
    sqlite3_finalize(statement);
  }
}

bool ParseDuration(std::string_view text, std::chrono::seconds* duration) {
  if (text.empty()) return false;
  int64_t unit = 1;
  switch (text.back()) {
    case 's': unit = 1; break;
    case 'm': unit = 60; break;
    case 'h': unit = 3600; break;
    case 'd': unit = 86400; break;
    default: unit = 0;
  }
  if (unit) text.remove_suffix(1);
  else unit = 1;
  int64_t number;
  if (!host::ParseNumber(text, &number, 0, INT64_MAX / 86400, host::Radix::kDecimal)) return false;
  *duration = std::chrono::seconds(number * unit);
  return true;
}

void SetActiveJournal(std::shared_ptr<Journal> journal) {
  std::lock_guard<std::mutex> hold(activeMutex);
  active = std::move(journal);
}

std::shared_ptr<Journal> ActiveJournal() {
  std::lock_guard<std::mutex> hold(activeMutex);
  return active;
}

std::string JournalMetrics() {
  auto journal = ActiveJournal();
  if (!journal) return {};
  const JournalCounts& counts = journal->counts();
  auto line = [](const char* name, const char* help, uint64_t value) {
    return std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " counter\n" + name +
           " " + std::to_string(value) + "\n";
  };
  return line("qmta_journal_records_total", "Records written to the action journal.",
              counts.written.load(std::memory_order_relaxed)) +
         line("qmta_journal_dropped_total",
              "Journal records dropped because the writer's queue was full.",
              counts.dropped.load(std::memory_order_relaxed)) +
         line("qmta_journal_errors_total", "Journal batches lost to a database error.",
              counts.errors.load(std::memory_order_relaxed));
}

}  // namespace qmta::hostprog
