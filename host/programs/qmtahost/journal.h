// The action journal: every event handed to the module's event exit and
// every action it started, with its command, outcome and output, kept in a
// SQLite database (WAL) that `qmtahost history` and GET /v1/actions read.
//
// Where the facts come from:
//   the dispatcher thread   an event before and after the event exit
//                           (EventBegin, EventEnd), with a tag in the
//                           output stream after each call;
//   the relay thread        QMTA040I (sitname, state: the action's event),
//                           QMTA042E (no response), and the messages of an
//                           action that could not start (QMTA002E and the
//                           like), counted for the event whose tag follows;
//   the query service       each open (command as bound, destination,
//                           driver, nodes-file line, or the refusing
//                           status), completion (status, return codes, the
//                           driver's output and exit) and failed fetch, on
//                           the action and driver threads (actiontap.h).
// Actions are keyed by the host run's id and the request id.
//
// Threads and ownership: every producer only appends a record to a bounded
// queue (queueMutex_, held for the push alone) and never waits; a full
// queue drops the record and counts it. One writer thread, owned by the
// Journal, owns the database connection and its statements: it takes the
// queue in batches (every 200 ms, or sooner when a batch is full), writes
// each batch in one transaction, and prunes rows older than the retention
// once a minute. A database error is counted, said once on standard error,
// and the batch is dropped; the host goes on.
#ifndef HOST_PROGRAMS_QMTAHOST_JOURNAL_H_
#define HOST_PROGRAMS_QMTAHOST_JOURNAL_H_

#include <stdint.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "host/programs/qmtahost/inputline.h"
#include "host/programs/qmtahost/outputrelay.h"
#include "host/services/actiontap.h"

namespace qmta::hostprog {

struct JournalSettings {
  std::string path;
  std::chrono::seconds keep = std::chrono::hours(24 * 30);  // retention
  size_t queueMax = 65536;                                  // records waiting
  std::chrono::milliseconds batchEvery{200};
  size_t batchMax = 1024;  // records that wake the writer before its time
};

// Relaxed atomics, read by /metrics.
struct JournalCounts {
  std::atomic<uint64_t> written{0};  // records committed
  std::atomic<uint64_t> dropped{0};  // records dropped: the queue was full
  std::atomic<uint64_t> errors{0};   // batches lost to a database error
};

class Journal final : public host::ActionObserver {
 public:
  // Opens (or creates) the database, sets it up, records this run and
  // starts the writer. Null with `*error` set when it cannot.
  static std::shared_ptr<Journal> Open(const JournalSettings& settings, std::string* error);
  ~Journal() override;  // commits what is queued, then stops the writer

  // This host run's id ("20261123T104703Z-3f2a").
  const std::string& run() const { return run_; }
  const std::string& path() const { return settings_.path; }

  // Watches `relay` (before it starts) and tags its stream after each event.
  void AttachRelay(OutputRelay* relay);

  // Dispatcher thread: `event` is about to go to the event exit; its id.
  uint64_t EventBegin(const Event& event);
  // Dispatcher thread: the event exit returned `result` for `event`; the
  // event's row is queued now, with its result.
  void EventEnd(uint64_t id, const Event& event, int32_t result);

  void Opened(const host::ActionOpened& opened) override;
  void Completed(const host::ActionCompleted& completed) override;
  void FetchFailed(uint32_t requestId, int32_t status) override;

  // Waits until everything queued before the call has been written (or
  // dropped); for tests and benchmarks.
  void Flush();

  const JournalCounts& counts() const { return counts_; }

  struct Record;

 private:
  explicit Journal(const JournalSettings& settings);
  void Push(Record record);
  void Message(const OutputRelay::Message& message);
  void Tagged(uint64_t tag);
  void RunWriter();
  bool WriteBatch(std::vector<Record>& batch);
  void Prune();
  void SayOnce(std::atomic<bool>& said, const std::string& text);

  const JournalSettings settings_;
  std::string run_;
  struct Db;
  std::unique_ptr<Db> db_;  // the writer thread's alone once it runs
  OutputRelay* relay_ = nullptr;

  // Guards queue_, stopping_, flushAsked_ and flushed_: taken by every
  // producer for one push and by the writer to take a batch.
  std::mutex queueMutex_;
  std::condition_variable wake_;     // the writer waits for work
  std::condition_variable written_;  // Flush waits for the writer
  std::deque<Record> queue_;
  bool stopping_ = false;
  uint64_t flushAsked_ = 0, flushed_ = 0;

  // The dispatcher thread numbers events; the relay thread links an
  // action to the latest event with its sitname and state (recentMutex_
  // guards recent_).
  std::atomic<uint64_t> nextEvent_{0};
  struct Recent {
    uint64_t id;
    std::string sitname;
    int32_t state;
  };
  std::mutex recentMutex_;
  std::deque<Recent> recent_;
  uint64_t startFailures_ = 0;  // relay thread: since the last tag

  std::atomic<bool> saidFull_{false}, saidError_{false};
  JournalCounts counts_;
  std::thread writer_;
};

// "90s", "15m", "12h", "30d" or plain seconds; false when not one.
bool ParseDuration(std::string_view text, std::chrono::seconds* duration);

// The journal that /metrics reports and GET /v1/actions reads (null: none).
void SetActiveJournal(std::shared_ptr<Journal> journal);
std::shared_ptr<Journal> ActiveJournal();
// Its counts in the Prometheus text format; empty when there is none.
std::string JournalMetrics();

}  // namespace qmta::hostprog

#endif  // HOST_PROGRAMS_QMTAHOST_JOURNAL_H_
