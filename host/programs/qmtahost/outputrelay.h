// The host's hold on the module's standard output.
//
// The module prints its operator messages with stdio on standard output.
// OutputRelay makes descriptor 1 the write end of a pipe and runs one relay
// thread that reads the pipe, cuts it into messages (a line that does not
// begin with a message id continues the message before it), hands each
// message to the listeners, and writes it to the real standard output.
//
// Nothing is dropped: when the real standard output is slow, the relay
// waits in its write, the pipe fills, and the module's writes wait on the
// pipe; the time the relay spent waiting for the output to take data is
// counted. A write error (EPIPE, ENOSPC, EIO, ...) is reported once through
// `onWriteError`; from then on the relay keeps reading the pipe and drops
// what it reads, so that no writer ever blocks on it.
//
// Marks: the dispatcher brackets each call into the module with Mark(); the
// relay hands the mark to the listeners in stream order, so a listener sees
// exactly what was written to standard output between two marks.
//
// Threads: Start, Mark, Stop run on the program's main or dispatcher
// thread (one at a time); the relay thread runs the listeners and
// onWriteError. Counters are relaxed atomics, readable from any thread.
#ifndef HOST_PROGRAMS_QMTAHOST_OUTPUTRELAY_H_
#define HOST_PROGRAMS_QMTAHOST_OUTPUTRELAY_H_

#include <stdint.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace qmta::hostprog {

// "QMTA" + three digits + a severity letter, or "QMTAL" + two digits + a
// letter (the table lock's messages): the id of a message line, or empty.
std::string_view MessageId(std::string_view line);

class OutputRelay {
 public:
  struct Message {
    std::string_view id;    // empty for text that came before any message
    std::string_view text;  // the whole message, its lines joined by '\n'
  };
  struct Listener {
    std::function<void(const Message&)> message;  // may be empty
    std::function<void(uint64_t mark)> mark;      // may be empty
    std::function<void(uint64_t tag)> tag = {};   // may be empty
  };

  OutputRelay() = default;
  OutputRelay(const OutputRelay&) = delete;
  OutputRelay& operator=(const OutputRelay&) = delete;
  ~OutputRelay();

  // Before Start only.
  void AddListener(Listener listener);
  std::function<void(int error)> onWriteError;

  // Takes over descriptor 1. False, with `*error` set, when standard output
  // is closed or the pipe cannot be made; nothing is changed then.
  bool Start(std::string* error);

  // Flushes stdio's standard output, writes mark `number` into the stream
  // and waits until the relay thread has handed it to the listeners.
  void Mark(uint64_t number);

  // Like Mark, but nobody waits: `number` reaches the listeners' `tag` in
  // stream order, after everything written before the call. Tags are
  // numbered apart from marks, by their one caller.
  void Tag(uint64_t number);

  // Flushes, gives descriptor 1 back to the real standard output, lets the
  // relay pass on the rest and joins it. Writers must have finished.
  void Stop();

  // The error number of the first write error, 0 when none.
  int writeError() const { return writeError_.load(std::memory_order_relaxed); }
  // Time the relay waited for the real standard output to take data.
  double waitSeconds() const {
    return static_cast<double>(waitNanos_.load(std::memory_order_relaxed)) / 1e9;
  }
  uint64_t messages() const { return messages_.load(std::memory_order_relaxed); }
  // Action commands (QMTA041I lines) written to the real standard output
  // (or dropped after a write error): each action thread prints one once
  // it has started, before its request goes to the driver.
  uint64_t commandsWritten() const { return commandsWritten_.load(std::memory_order_acquire); }

 private:
  void RunRelay();
  void Deliver(std::string_view chunk);
  void Emit();
  void Write(std::string_view text);

  std::vector<Listener> listeners_;  // fixed once started
  int realOut_ = -1;                 // the real standard output (owned)
  int readEnd_ = -1;                 // owned by the relay thread once started
  std::thread relay_;

  // Relay thread only: the line being read and the message being built.
  std::string partial_;
  std::string message_;
  size_t messageIdLength_ = 0;

  std::mutex markMutex_;  // guards markSeen_
  std::condition_variable markChanged_;
  uint64_t markSeen_ = 0;

  std::atomic<int> writeError_{0};
  std::atomic<int64_t> waitNanos_{0};
  std::atomic<uint64_t> messages_{0};
  std::atomic<uint64_t> commandsWritten_{0};
};

}  // namespace qmta::hostprog

#endif  // HOST_PROGRAMS_QMTAHOST_OUTPUTRELAY_H_
