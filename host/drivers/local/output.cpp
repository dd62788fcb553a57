// The local driver's output queue and its writer thread (see Output in
// internal.h). Runners queue lines under the writer's mutex and never
// write; the writer thread takes them in order and writes each through the
// host's logger, which may block for as long as standard error does.
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <system_error>
#include <thread>

#include "host/common/say.h"
#include "host/drivers/local/internal.h"

namespace qmta::host::local {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// Lines of one action queued, beyond which its runner stops reading.
constexpr size_t kQueueMax = 16 * 1024;
// Lines of all actions queued, beyond which every runner stops reading.
constexpr size_t kTotalMax = 4 * 1024 * 1024;
// Lines of all actions queued, beyond which nothing is queued at all.
constexpr size_t kTotalHard = 8 * 1024 * 1024;
// What a queued line costs besides its text.
constexpr size_t kEntryCost = 64;
// The writer stuck this long on one line: standard error is blocked.
constexpr auto kStall = 500ms;
// The longest a runner waits for its lines before it answers (a slow
// standard error with a long queue ahead of them).
constexpr auto kEndWait = 1s;

}  // namespace

// One action's share of the queue. Guarded by the writer's mutex.
struct OutputQueue {
  explicit OutputQueue(uint32_t requestId) : id(requestId) {}
  const uint32_t id;
  size_t bytes = 0;       // cost of its queued lines
  uint64_t dropped = 0;   // lines dropped since the last report
  bool waiting = false;   // its runner waits in End
};

namespace {

struct Entry {
  std::shared_ptr<OutputQueue> queue;
  std::string text;
  size_t cost = 0;
};

// The one writer of every action's lines. Never destroyed: its thread runs
// until the process ends.
class Writer {
 public:
  // Starts the thread if it does not run (a failed start is tried again
  // by the next action; meanwhile standard error counts as blocked).
  void Ensure() {
    std::lock_guard<std::mutex> hold(mutex_);
    if (running_) return;
    try {
      std::thread([this] { Run(); }).detach();
      running_ = true;
    } catch (const std::system_error&) {
    }
  }

  void Note(const std::shared_ptr<OutputQueue>& queue, std::string_view text) {
    std::lock_guard<std::mutex> hold(mutex_);
    if (total_ + text.size() + kEntryCost > kTotalHard) {
      ++queue->dropped;
      return;
    }
    PushDropped(queue);
    Push(queue, std::string(text));
  }

  void Line(const std::shared_ptr<OutputQueue>& queue, std::string_view text) {
    std::lock_guard<std::mutex> hold(mutex_);
    if (total_ + text.size() + kEntryCost > kTotalHard || (!Fits(*queue) && Stalled())) {
      ++queue->dropped;
      return;
    }
    PushDropped(queue);
    Push(queue, std::string(text));
  }

  bool Flush(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> hold(mutex_);
    return written_.wait_for(hold, limit, [this] {
      return entries_.empty() && lostActions_ == 0 && !busy_;
    });
  }

  bool Room(const OutputQueue& queue) {
    std::lock_guard<std::mutex> hold(mutex_);
    return Fits(queue) || Stalled();
  }

  void End(const std::shared_ptr<OutputQueue>& queue) {
    std::unique_lock<std::mutex> hold(mutex_);
    if (queue->dropped && total_ + kEntryCost * 2 > kTotalHard) {
      // Not even the count fits: it joins one count for every such action.
      lostLines_ += queue->dropped;
      ++lostActions_;
      queue->dropped = 0;
      if (!busy_) work_.notify_one();
    }
    PushDropped(queue);
    queue->waiting = true;
    const auto limit = Clock::now() + kEndWait;
    while (queue->bytes > 0 && !Stalled() && Clock::now() < limit) written_.wait_for(hold, 50ms);
    queue->waiting = false;
  }

 private:
  bool Fits(const OutputQueue& queue) const {
    return queue.bytes < kQueueMax && total_ < kTotalMax;
  }
  bool Stalled() const { return !running_ || (busy_ && Clock::now() - busySince_ >= kStall); }

  void Push(const std::shared_ptr<OutputQueue>& queue, std::string text) {
    const size_t cost = text.size() + kEntryCost;
    queue->bytes += cost;
    total_ += cost;
    entries_.push_back({queue, std::move(text), cost});
    if (!busy_) work_.notify_one();
  }

  // The count of the action's dropped lines, in their place.
  void PushDropped(const std::shared_ptr<OutputQueue>& queue) {
    if (!queue->dropped) return;
    const uint64_t count = queue->dropped;
    queue->dropped = 0;
    Push(queue, "[output dropped: " + std::to_string(count) + (count == 1 ? " line]" : " lines]"));
  }

  void Run() {
    std::unique_lock<std::mutex> hold(mutex_);
    for (;;) {
      work_.wait(hold, [this] { return !entries_.empty() || lostActions_ > 0; });
      busy_ = true;
      busySince_ = Clock::now();
      if (lostActions_ > 0) {
        std::string text = "[output dropped: " + std::to_string(lostLines_) + " lines of " +
                           std::to_string(lostActions_) + " actions]";
        lostLines_ = lostActions_ = 0;
        hold.unlock();
        Say("", text);
        hold.lock();
        busy_ = false;
        if (entries_.empty()) written_.notify_all();
        continue;
      }
      Entry entry = std::move(entries_.front());
      entries_.pop_front();
      hold.unlock();
      SayFor(entry.queue->id, entry.text);
      hold.lock();
      busy_ = false;
      total_ -= entry.cost;
      entry.queue->bytes -= entry.cost;
      if ((entry.queue->bytes == 0 && entry.queue->waiting) || entries_.empty())
        written_.notify_all();
    }
  }

  std::mutex mutex_;  // guards everything below and every OutputQueue
  std::condition_variable work_;     // the writer waits for lines
  std::condition_variable written_;  // runners wait for their lines to be written
  std::deque<Entry> entries_;
  size_t total_ = 0;  // cost of every queued line
  bool running_ = false;
  bool busy_ = false;  // writing a line since busySince_
  Clock::time_point busySince_;
  // Dropped lines of actions whose count could not be queued either.
  uint64_t lostLines_ = 0;
  uint64_t lostActions_ = 0;
};

Writer& writer() {
  static Writer* one = new Writer;
  return *one;
}

}  // namespace

Output::Output(uint32_t requestId) : queue_(std::make_shared<OutputQueue>(requestId)) {
  writer().Ensure();
}

Output::~Output() = default;

void Output::Capture(std::string_view text) {
  if (cut) return;
  if (captured.size() + text.size() + 1 > kCaptureMax) {
    cut = true;
    return;
  }
  captured.append(text);
  captured += '\n';
}

void Output::Note(std::string_view text) {
  Capture(text);
  writer().Note(queue_, text);
}

void Output::Line(std::string_view text) {
  Capture(text);
  writer().Line(queue_, text);
}

bool Output::Room() const { return writer().Room(*queue_); }

void Output::End() { writer().End(queue_); }

}  // namespace qmta::host::local

namespace qmta::host {

bool FlushLocalOutput(std::chrono::milliseconds limit) { return local::writer().Flush(limit); }

}  // namespace qmta::host
