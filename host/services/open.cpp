#include "host/services/open.h"

#include <atomic>
#include <deque>
#include <utility>

namespace qmta::host::internal {

namespace {

// Guards observer: taken by SetActionObserver and, while one is set, by
// every open, completion and failed fetch for the copy of the pointer.
std::mutex observerMutex;
std::shared_ptr<ActionObserver> observer;
std::atomic<bool> observed{false};

}  // namespace

std::shared_ptr<ActionObserver> CurrentObserver() {
  if (!observed.load(std::memory_order_acquire)) return nullptr;
  std::lock_guard<std::mutex> hold(observerMutex);
  return observer;
}

void Open::Detail(ActionDetail detail) {
  std::lock_guard<std::mutex> hold(mutex_);
  if (state_ == State::kWaiting) detail_ = std::move(detail);
}

void Open::Answered() {
  if (auto told = CurrentObserver()) {
    ActionCompleted completed;
    completed.requestId = requestId_;
    completed.time = std::chrono::system_clock::now();
    {
      std::lock_guard<std::mutex> hold(mutex_);
      completed.status = status_;
      completed.rows = rows_;
      completed.detail = std::move(detail_);
    }
    told->Completed(completed);
  }
  PostDelivery(shared_from_this());
}

bool Open::Busy() const {
  std::lock_guard<std::mutex> hold(mutex_);
  // Waiting for the driver, or answered and queued for delivery.
  return state_ != State::kClosed && routine_ == Routine::kNotYet;
}

void Open::Close() {
  FirstAnswer::Close();  // from here on Deliver calls no routine
  std::unique_lock<std::mutex> hold(mutex_);
  rows_.clear();
  rows_.shrink_to_fit();
  // A routine that closes its own request must not wait for itself.
  if (deliverer_ != std::this_thread::get_id())
    returned_.wait(hold, [this] { return routine_ != Routine::kRunning; });
}

int32_t Open::Fetch(int32_t* returnCode) {
  std::lock_guard<std::mutex> hold(mutex_);
  if (state_ != State::kAnswered || status_ != DBQ1_OK) return DBQ1_CURSOR_NOT_OPEN;
  if (nextRow_ >= rows_.size()) return DBQ1_NO_MORE_ROWS;
  *returnCode = rows_[nextRow_++];
  return DBQ1_OK;
}

void Open::Deliver() {
  int32_t status;
  {
    std::lock_guard<std::mutex> hold(mutex_);
    if (state_ != State::kAnswered || routine_ != Routine::kNotYet) return;
    routine_ = Routine::kRunning;
    deliverer_ = std::this_thread::get_id();
    status = status_;
  }
  if (notify_.routine) notify_.routine(status, notify_.userArgument);
  {
    std::lock_guard<std::mutex> hold(mutex_);
    routine_ = Routine::kReturned;
    deliverer_ = std::thread::id();
  }
  returned_.notify_all();
}

namespace {

// A few threads, so that one slow routine does not hold up the others.
constexpr int kDeliveryThreads = 4;

class DeliveryQueue {
 public:
  // Starts the threads still missing; a failure leaves the ones started
  // running and lets a later call try again.
  void Start() {
    std::lock_guard<std::mutex> hold(mutex_);
    for (; threads_ < kDeliveryThreads; ++threads_) std::thread([this] { Run(); }).detach();
  }

  void Post(std::shared_ptr<Open> open) {
    {
      std::lock_guard<std::mutex> hold(mutex_);
      queue_.push_back(std::move(open));
    }
    ready_.notify_one();
  }

 private:
  void Run() {
    for (;;) {
      std::shared_ptr<Open> open;
      {
        std::unique_lock<std::mutex> hold(mutex_);
        ready_.wait(hold, [this] { return !queue_.empty(); });
        open = std::move(queue_.front());
        queue_.pop_front();
      }
      open->Deliver();
    }
  }

  // Guards queue_ and threads_: taken by the threads that answer opens
  // (Post: drivers' threads, or an action thread for an offline
  // destination), by the delivery threads taking the next open, and by
  // the first CreateRequest starting them.
  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<std::shared_ptr<Open>> queue_;
  int threads_ = 0;
};

DeliveryQueue& Queue() {
  // Never destroyed: its threads run until the process ends.
  static DeliveryQueue* queue = new DeliveryQueue;
  return *queue;
}

}  // namespace

void StartDelivery() { Queue().Start(); }

void PostDelivery(std::shared_ptr<Open> open) { Queue().Post(std::move(open)); }

}  // namespace qmta::host::internal

namespace qmta::host {

void SetActionObserver(std::shared_ptr<ActionObserver> replacement) {
  std::shared_ptr<ActionObserver> old;  // released outside the lock
  std::lock_guard<std::mutex> hold(internal::observerMutex);
  old = std::exchange(internal::observer, std::move(replacement));
  internal::observed.store(internal::observer != nullptr, std::memory_order_release);
}

}  // namespace qmta::host
