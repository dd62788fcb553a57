#include "host/programs/qmtahost/dispatcher.h"

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
  Work work;
  work.line = std::move(line);
  if (wantReply) work.reply = std::make_shared<std::promise<ControlReply>>();
  std::future<ControlReply> answer;
  if (work.reply) answer = work.reply->get_future();

  std::string refused;
  if (work.line.kind == InputLine::Kind::kError) {
    refused = work.line.text;
  } else if (work.line.kind == InputLine::Kind::kEvent && !allowAnyText_) {
    refused = CheckEventText(work.line.event);
  }
  if (work.line.kind == InputLine::Kind::kSkip) {
    if (work.reply) work.reply->set_value(ControlReply{});
    return answer;
  }
  std::unique_lock<std::mutex> hold(mutex_);
  // A bounded queue: a source that reads faster than the module takes
  // lines waits here rather than filling memory.
  if (refused.empty()) room_.wait(hold, [&] { return queue_.size() < kQueueMax || closed_; });
  if (refused.empty() && closed_) refused = "the host is stopping";
  if (!refused.empty()) {
    hold.unlock();
    counts_.refused.fetch_add(1, std::memory_order_relaxed);
    host::Say("qmtahost: ", source + ": " + refused);
    if (work.reply) work.reply->set_value(Refusal(refused));
    return answer;
  }
  queue_.push_back(std::move(work));
  queued_.notify_one();
  return answer;
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
  for (Work& work : dropped)
    if (work.reply) work.reply->set_value(Refusal("the host is stopping"));
  counts_.refused.fetch_add(dropped.size(), std::memory_order_relaxed);
  return dropped.size();
}

void Dispatcher::Run() {
  for (;;) {
    std::unique_lock<std::mutex> hold(mutex_);
    queued_.wait(hold, [&] { return !queue_.empty() || closed_; });
    if (queue_.empty()) return;
    Work work = std::move(queue_.front());
    queue_.pop_front();
    room_.notify_one();
    hold.unlock();
    Handle(work);
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

void Dispatcher::Handle(Work& work) {
  ControlReply reply;
  const InputLine& line = work.line;
  switch (line.kind) {
    case InputLine::Kind::kEvent: {
      if (!work.reply) {  // nobody waits for an answer: no marks, no settling
        calls_.event(line.event);
        counts_.events.fetch_add(1, std::memory_order_relaxed);
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
}

}  // namespace qmta::hostprog
