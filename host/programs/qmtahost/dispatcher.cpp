#include "host/programs/qmtahost/dispatcher.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "host/common/say.h"
#include "host/programs/qmtahost/intake.h"

namespace qmta::hostprog {
namespace {

using namespace std::chrono_literals;

// Messages that action threads print; everything else that appears while
// the dispatcher is in a call is the call's own.
bool ActionMessage(std::string_view id) {
  static constexpr std::string_view kIds[] = {"QMTA030E", "QMTA040I", "QMTA041I",
                                              "QMTA042E", "QMTA050I", "QMTA051W"};
  for (std::string_view action : kIds)
    if (id == action) return true;
  return false;
}

// Waits until no action thread has started for a little while (bounded),
// and returns how many have started in all. Only the dispatcher starts
// action threads, so once it is quiet the count is settled, unless a
// thread is held back by the scheduler for longer than the settle time.
int64_t SettledStarts(const std::function<int64_t()>& started) {
  constexpr auto kSettle = 20ms;
  auto limit = std::chrono::steady_clock::now() + 2s;
  int64_t count = started();
  for (;;) {
    std::this_thread::sleep_for(kSettle);
    int64_t now = started();
    if (now == count || std::chrono::steady_clock::now() > limit) return now;
    count = now;
  }
}

ControlReply Refusal(std::string reason) {
  ControlReply reply;
  reply.ok = false;
  reply.error = std::move(reason);
  return reply;
}

}  // namespace

Dispatcher::Dispatcher(ModuleCalls calls, OutputRelay* relay)
    : calls_(std::move(calls)), relay_(relay) {
  if (relay_ == nullptr) return;
  OutputRelay::Listener listener;
  listener.mark = [this](uint64_t mark) {
    std::lock_guard<std::mutex> hold(captureMutex_);
    capturing_ = mark % 2 == 1;
  };
  listener.message = [this](const OutputRelay::Message& message) {
    if (ActionMessage(message.id)) return;
    std::lock_guard<std::mutex> hold(captureMutex_);
    if (capturing_) captured_.emplace_back(message.text);
  };
  relay_->AddListener(std::move(listener));
}

std::future<ControlReply> Dispatcher::Submit(const std::string& text, const std::string& source,
                                             bool wantReply) {
  return Submit(ParseInputLine(text), source, wantReply);
}

std::future<ControlReply> Dispatcher::Submit(InputLine line, const std::string& source,
                                             bool wantReply) {
  std::vector<Line> lines;
  lines.push_back({std::move(line), 0, {}});
  std::future<ControlReply> answer;
  Enqueue(std::move(lines), source, wantReply ? &answer : nullptr);
  return answer;
}

size_t Dispatcher::SubmitLines(std::vector<Line> lines, const std::string& source) {
  return Enqueue(std::move(lines), source, nullptr);
}

// A bounded queue: a source that reads faster than the module takes
// lines waits here (mutex_ held by `hold`) rather than filling memory.
void Dispatcher::WaitForQueueRoom(std::unique_lock<std::mutex>& hold) {
  if (queue_.size() < kQueueMax || closed_) return;
  ++roomWaiters_;
  room_.wait(hold, [&] { return queue_.size() < kQueueMax || closed_; });
  --roomWaiters_;
}

void Dispatcher::SubmitText(std::string lines, long number, std::vector<long> tooLong) {
  Work work;
  work.raw = std::move(lines);
  work.number = number;
  work.tooLong = std::move(tooLong);
  std::unique_lock<std::mutex> hold(mutex_);
  WaitForQueueRoom(hold);
  if (closed_) {
    counts_.refused.fetch_add(LineCount(work), std::memory_order_relaxed);
    if (intake_.refused) intake_.refused("line", "the host is stopping", LineCount(work));
    return;
  }
  queue_.push_back(std::move(work));
  if (dispatcherWaits_) queued_.notify_one();
}

size_t Dispatcher::LineCount(const Work& work) {
  if (work.raw.empty()) return 1;
  return static_cast<size_t>(std::count(work.raw.begin(), work.raw.end(), '\n'));
}

void Dispatcher::HandleText(Work& batch) {
  std::string_view rest(batch.raw);
  auto cut = batch.tooLong.begin();
  uint64_t events = 0;
  for (long number = batch.number; !rest.empty(); ++number) {
    size_t end = rest.find('\n');
    std::string_view text = rest.substr(0, end);
    rest.remove_prefix(end + 1);
    Work work;
    if (cut != batch.tooLong.end() && *cut == number) {
      ++cut;
      work.line = InputLine{InputLine::Kind::kError, {}, "line too long"};
    } else {
      work.line = ParseInputLine(text);
    }
    std::string refused;
    if (work.line.kind == InputLine::Kind::kError) {
      refused = work.line.text;
    } else if (work.line.kind == InputLine::Kind::kEvent && !allowAnyText_) {
      refused = CheckEventText(work.line.event);
    }
    if (!refused.empty()) {
      Refuse(work, "line " + std::to_string(number), refused);
    } else if (work.line.kind != InputLine::Kind::kSkip) {
      work.line.event.source = "line " + std::to_string(number);
      events += work.line.kind == InputLine::Kind::kEvent;
      Handle(work);
    }
  }
  if (events > 0 && intake_.taken) intake_.taken("line", events);
}

void Dispatcher::Refuse(Work& work, const std::string& source, const std::string& reason) {
  counts_.refused.fetch_add(1, std::memory_order_relaxed);
  host::Say("qmtahost: ", source + ": " + reason);
  if (intake_.refused) intake_.refused(source, reason, 1);
  if (work.reply) work.reply->set_value(Refusal(reason));
  if (work.done) work.done(false);
}

size_t Dispatcher::Enqueue(std::vector<Line> lines, const std::string& source,
                           std::future<ControlReply>* answer) {
  // "line 7" for a numbered line, else the source as it is.
  auto where = [&](long number) {
    return number > 0 ? source + " " + std::to_string(number) : source;
  };
  std::vector<Work> admitted;
  admitted.reserve(lines.size());
  std::vector<long> numbers;
  numbers.reserve(lines.size());
  for (Line& line : lines) {
    Work work;
    work.line = std::move(line.line);
    work.done = std::move(line.done);
    if (answer != nullptr) {
      work.reply = std::make_shared<std::promise<ControlReply>>();
      *answer = work.reply->get_future();
    }
    std::string refused;
    if (work.line.kind == InputLine::Kind::kError) {
      refused = work.line.text;
    } else if (work.line.kind == InputLine::Kind::kEvent && !allowAnyText_) {
      refused = CheckEventText(work.line.event);
    }
    if (work.line.kind == InputLine::Kind::kSkip) {
      if (work.reply) work.reply->set_value(ControlReply{});
      if (work.done) work.done(true);
    } else if (!refused.empty()) {
      Refuse(work, where(line.number), refused);
    } else {
      work.line.event.source = where(line.number);
      admitted.push_back(std::move(work));
      numbers.push_back(line.number);
    }
  }
  if (admitted.empty()) return 0;
  std::unique_lock<std::mutex> hold(mutex_);
  WaitForQueueRoom(hold);
  if (closed_) {
    hold.unlock();
    for (size_t i = 0; i < admitted.size(); ++i)
      Refuse(admitted[i], where(numbers[i]), "the host is stopping");
    return 0;
  }
  const size_t queued = admitted.size();
  uint64_t events = 0;
  for (Work& work : admitted) {
    events += work.line.kind == InputLine::Kind::kEvent;
    queue_.push_back(std::move(work));
  }
  // The dispatcher takes the queue a batch at a time; it is woken only
  // when it waits, which keeps a busy source from paying a wake-up per line.
  if (dispatcherWaits_) queued_.notify_one();
  hold.unlock();
  if (events > 0 && intake_.taken) intake_.taken(source, events);
  return queued;
}

size_t Dispatcher::Close(bool discard) {
  std::deque<Work> dropped;
  {
    std::lock_guard<std::mutex> hold(mutex_);
    closed_ = true;
    if (discard) dropped.swap(queue_);
    queued_.notify_all();
    room_.notify_all();
  }
  size_t lines = 0;
  for (Work& work : dropped) {
    if (work.reply) work.reply->set_value(Refusal("the host is stopping"));
    if (work.done) work.done(false);
    lines += LineCount(work);
  }
  counts_.refused.fetch_add(lines, std::memory_order_relaxed);
  if (lines > 0 && intake_.refused) intake_.refused("queued", "the host is stopping", lines);
  return lines;
}

void Dispatcher::Run() {
  std::deque<Work> batch;
  for (;;) {
    {
      std::unique_lock<std::mutex> hold(mutex_);
      dispatcherWaits_ = true;
      queued_.wait(hold, [&] { return !queue_.empty() || closed_; });
      dispatcherWaits_ = false;
      if (queue_.empty()) return;
      batch.swap(queue_);
      if (roomWaiters_ > 0) room_.notify_all();
    }
    for (Work& work : batch) {
      if (work.raw.empty())
        Handle(work);
      else
        HandleText(work);
    }
    batch.clear();
  }
}

// Runs `call` between two marks and returns what it printed.
ControlReply Dispatcher::Call(const std::function<void()>& call) {
  ControlReply reply;
  if (relay_ == nullptr) {
    call();
    return reply;
  }
  relay_->Mark(++nextMark_);
  call();
  relay_->Mark(++nextMark_);
  std::lock_guard<std::mutex> hold(captureMutex_);
  reply.output.swap(captured_);
  return reply;
}

static int64_t SteadyNanos() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

std::chrono::nanoseconds Dispatcher::HeldBackFor() const {
  int64_t since = heldSince_.load(std::memory_order_relaxed);
  return std::chrono::nanoseconds(since == 0 ? 0 : SteadyNanos() - since);
}

void Dispatcher::WaitForRoom() {
  if (maxActions_ <= 0 || calls_.liveActions() < maxActions_ - maxActions_ / 4) return;
  // Near the limit, the event is held back: first for the earlier events'
  // threads to show up (an action thread counts itself only once it runs,
  // a moment after the event that made it, and only the dispatcher starts
  // action threads), then until fewer than the limit are live.
  const int64_t start = SteadyNanos();
  heldSince_.store(start, std::memory_order_relaxed);
  int64_t seen = calls_.startedActions();
  for (int round = 0; round < 50; ++round) {
    std::this_thread::sleep_for(200us);
    int64_t now = calls_.startedActions();
    if (now == seen) break;
    seen = now;
  }
  while (calls_.liveActions() >= maxActions_ && !calls_.waitActionsBelow(maxActions_, 1s)) {
  }
  counts_.heldBack.fetch_add(1, std::memory_order_relaxed);
  counts_.heldBackNanos.fetch_add(SteadyNanos() - start, std::memory_order_relaxed);
  heldSince_.store(0, std::memory_order_relaxed);
}

void Dispatcher::Handle(Work& work) {
  ControlReply reply;
  const InputLine& line = work.line;
  switch (line.kind) {
    case InputLine::Kind::kEvent: {
      WaitForRoom();
      if (!work.reply) {  // nobody waits for an answer: no marks, no settling
        calls_.event(line.event);
        counts_.events.fetch_add(1, std::memory_order_relaxed);
        if (work.done) work.done(true);
        return;
      }
      int64_t before = SettledStarts(calls_.startedActions);
      reply = Call([&] { calls_.event(line.event); });
      counts_.events.fetch_add(1, std::memory_order_relaxed);
      int64_t started = SettledStarts(calls_.startedActions) - before;
      reply.output.push_back("event taken: " + std::to_string(started) +
                             (started == 1 ? " action started" : " actions started"));
      break;
    }
    case InputLine::Kind::kCommand:
      reply = Call([&] { calls_.command(line.text); });
      counts_.commands.fetch_add(1, std::memory_order_relaxed);
      break;
    case InputLine::Kind::kDrain:
      calls_.drain();
      reply.output.push_back("drained");
      break;
    case InputLine::Kind::kReload: {
      ControlReply checked;
      ControlReply printed = Call([&] { checked = calls_.reload(line.force); });
      reply = checked;
      reply.output.insert(reply.output.end(), printed.output.begin(), printed.output.end());
      (reply.ok ? counts_.reloads : counts_.reloadsRefused).fetch_add(1, std::memory_order_relaxed);
      break;
    }
    case InputLine::Kind::kSkip:
    case InputLine::Kind::kError:
      break;
  }
  if (work.reply) work.reply->set_value(std::move(reply));
  if (work.done) work.done(true);
}

}  // namespace qmta::hostprog
