// The dispatcher: the one thread that calls into the module.
//
// Every event and command, whatever its source (the input file, the control
// socket, a signal, HTTP), is queued here and handed to the module by the
// dispatcher thread in arrival order, so the module never sees two calls at
// once. A caller that wants an answer gets what the handling printed on the
// dispatcher thread: the relay's marks bracket each call, and the messages
// between them that action threads did not print are the call's own.
//
// Threads: Submit from any thread; Run on the dispatcher thread (the
// program's main thread in file mode, a thread of its own in serve mode).
// The queue and the stop flag are guarded by mutex_.
#ifndef HOST_PROGRAMS_QMTAHOST_DISPATCHER_H_
#define HOST_PROGRAMS_QMTAHOST_DISPATCHER_H_

#include <stdint.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "host/programs/qmtahost/control.h"
#include "host/programs/qmtahost/inputline.h"
#include "host/programs/qmtahost/outputrelay.h"

namespace qmta::hostprog {

// What the dispatcher calls; the program supplies it.
struct ModuleCalls {
  std::function<void(const Event&)> event;
  std::function<void(const std::string&)> command;
  // Waits until the actions started so far have ended.
  std::function<void()> drain;
  // The checked reload; `force` skips the check. Its reply carries the
  // reason of a refusal.
  std::function<ControlReply(bool force)> reload;
  // Action threads started since the process began (for an event's answer).
  std::function<int64_t()> startedActions;
  // Action threads live now, and a wait until fewer than a limit are
  // (false when the time ran out first): back-pressure.
  std::function<int64_t()> liveActions;
  std::function<bool(int64_t limit, std::chrono::milliseconds timeout)> waitActionsBelow;
};

// Counts kept by the dispatcher; relaxed atomics, readable anywhere.
struct DispatchCounts {
  std::atomic<uint64_t> events{0};    // events handed to the module
  std::atomic<uint64_t> refused{0};   // lines refused at intake
  std::atomic<uint64_t> commands{0};  // module commands
  std::atomic<uint64_t> reloads{0};   // checked reloads that ran REFRESH
  std::atomic<uint64_t> reloadsRefused{0};
  std::atomic<uint64_t> heldBack{0};       // events that waited for room
  std::atomic<int64_t> heldBackNanos{0};   // time they waited, in all
};

class Dispatcher {
 public:
  // `relay` may be null (no capture: answers carry no output).
  Dispatcher(ModuleCalls calls, OutputRelay* relay);

  // Parses and checks `text` as a line of the input (events, drains,
  // reloads, commands) and queues it. With `wantReply` the returned future
  // gets the answer once the line has been handled; a refused line is
  // answered at once. `source` names where the line came from in messages
  // on standard error ("line 7", "control").
  std::future<ControlReply> Submit(const std::string& text, const std::string& source,
                                   bool wantReply);
  // The same for a line already parsed (or refused: kind kError).
  std::future<ControlReply> Submit(InputLine line, const std::string& source, bool wantReply);
  // Several parsed lines at once, in order, no answers: a source that has
  // many lines at hand (an input file, an HTTP body) pays one queue round
  // for them all.
  // Refusals name `source` and the line's number ("line 7").
  struct Line {
    InputLine line;
    long number = 0;  // 0: not numbered
    // Called once: true when the line has been handled (for an event: the
    // module's event exit has returned), false when it was refused or
    // dropped unrun. On the dispatcher thread, or on the thread that
    // refused or dropped it.
    std::function<void(bool handled)> done;
  };
  // Returns how many were queued: all of them that the intake check lets
  // through, or none once the host is stopping.
  size_t SubmitLines(std::vector<Line> lines, const std::string& source);
  // Raw lines of an input file, each ended by '\n', the first being line
  // `number` (those listed in `tooLong` were cut at the line limit and are
  // refused). They are parsed and checked on the dispatcher thread, so
  // that what a line allocates is freed by the thread that allocated it.
  void SubmitText(std::string lines, long number, std::vector<long> tooLong);

  // Runs queued work until Close() was called and the queue is empty.
  void Run();
  // From now on every line is refused ("the host is stopping"). What is
  // queued still runs, or with `discard` is refused too (their count is
  // returned). Run returns once the queue is empty.
  size_t Close(bool discard);
  // Without the intake check on event text (--allow-any-text).
  void AllowAnyText(bool allow) { allowAnyText_ = allow; }
  // Back-pressure: before an event goes to the module, the dispatcher waits
  // while `limit` or more action threads are live (0: no limit). One event
  // whose rules match more actions than the limit still starts them all.
  // Set before Run.
  void SetMaxActions(int64_t limit) { maxActions_ = limit; }
  // How long the event now waiting for room has waited; zero when none.
  std::chrono::nanoseconds HeldBackFor() const;

  // Told of the event lines taken (queued, or for an input file handed on)
  // and of every line refused at intake, with its source as messages name
  // it ("line 7" for the input, "control", "http 3"; "queued" for lines a
  // stop dropped from the queue). Set before Run; both may be empty.
  struct IntakeListener {
    std::function<void(std::string_view source, uint64_t events)> taken;
    std::function<void(std::string_view source, std::string_view reason, uint64_t lines)> refused;
  };
  void SetIntakeListener(IntakeListener listener) { intake_ = std::move(listener); }

  const DispatchCounts& counts() const { return counts_; }
  // Lines that a source refused itself before they reached the dispatcher
  // (an HTTP body refused whole): counted with the others. Any thread.
  void CountRefused(uint64_t lines) { counts_.refused.fetch_add(lines, std::memory_order_relaxed); }

 private:
  struct Work {
    InputLine line;
    std::shared_ptr<std::promise<ControlReply>> reply;  // null: no answer wanted
    std::function<void(bool handled)> done;              // may be empty (Line::done)
    // A batch of raw input lines (SubmitText): each ended by '\n', the
    // first numbered `number`; `tooLong` lists the lines that were cut.
    std::string raw;
    long number = 0;
    std::vector<long> tooLong;
  };
  void HandleText(Work& work);
  void WaitForRoom();
  void WaitForQueueRoom(std::unique_lock<std::mutex>& hold);
  static size_t LineCount(const Work& work);
  size_t Enqueue(std::vector<Line> lines, const std::string& source,
                 std::future<ControlReply>* answer);
  void Refuse(Work& work, const std::string& source, const std::string& reason);
  void Handle(Work& work);
  ControlReply Call(const std::function<void()>& call);

  ModuleCalls calls_;
  OutputRelay* relay_;
  bool allowAnyText_ = false;
  int64_t maxActions_ = 0;
  // When the event now held back began to wait (steady clock, ns); 0 when
  // none is. Written by the dispatcher, read by anyone.
  std::atomic<int64_t> heldSince_{0};
  IntakeListener intake_;

  std::mutex mutex_;  // guards queue_, closed_ and the two wait flags below
  std::condition_variable queued_;
  std::condition_variable room_;
  static constexpr size_t kQueueMax = 1024;
  std::deque<Work> queue_;
  bool closed_ = false;
  bool dispatcherWaits_ = false;  // the dispatcher sleeps on queued_
  int roomWaiters_ = 0;           // sources sleeping on room_

  // Capture of the dispatcher's own messages. Marks are numbered by the
  // dispatcher thread: odd opens a capture, even closes it. `captured_`
  // is filled on the relay thread and read by the dispatcher after the
  // closing mark; captureMutex_ guards both.
  uint64_t nextMark_ = 0;
  std::mutex captureMutex_;
  bool capturing_ = false;
  std::vector<std::string> captured_;

  DispatchCounts counts_;
};

}  // namespace qmta::hostprog

#endif  // HOST_PROGRAMS_QMTAHOST_DISPATCHER_H_
