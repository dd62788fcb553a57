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
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
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
};

// Counts kept by the dispatcher; relaxed atomics, readable anywhere.
struct DispatchCounts {
  std::atomic<uint64_t> events{0};    // events handed to the module
  std::atomic<uint64_t> refused{0};   // lines refused at intake
  std::atomic<uint64_t> commands{0};  // module commands
  std::atomic<uint64_t> reloads{0};   // checked reloads that ran REFRESH
  std::atomic<uint64_t> reloadsRefused{0};
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

  // Runs queued work until Close() was called and the queue is empty.
  void Run();
  // From now on every line is refused ("the host is stopping"). What is
  // queued still runs, or with `discard` is refused too (their count is
  // returned). Run returns once the queue is empty.
  size_t Close(bool discard);
  // Without the intake check on event text (--allow-any-text).
  void AllowAnyText(bool allow) { allowAnyText_ = allow; }

  const DispatchCounts& counts() const { return counts_; }

 private:
  struct Work {
    InputLine line;
    bool reload = false, force = false;
    std::shared_ptr<std::promise<ControlReply>> reply;  // null: no answer wanted
  };
  void Handle(Work& work);
  ControlReply Call(const std::function<void()>& call);

  ModuleCalls calls_;
  OutputRelay* relay_;
  bool allowAnyText_ = false;

  std::mutex mutex_;  // guards queue_ and closed_
  std::condition_variable queued_;
  std::condition_variable room_;
  static constexpr size_t kQueueMax = 1024;
  std::deque<Work> queue_;
  bool closed_ = false;

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
