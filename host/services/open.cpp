#include "host/services/open.h"

#include <deque>
#include <utility>

namespace qmta::host::internal {

void Open::Rows(std::vector<int32_t> returnCodes) {
  Complete(DBQ1_OK, std::move(returnCodes));
}

void Open::Fail(int32_t status) {
  // A failure without a status would read as success with no rows.
  Complete(status == DBQ1_OK ? DBQ1_ACTION_FAILED : status, {});
}

void Open::Complete(int32_t status, std::vector<int32_t> rows) {
  std::function<void()> stop;  // destroyed outside the lock
  {
    std::lock_guard<std::mutex> hold(mutex_);
    if (state_ != State::kRunning) return;  // first outcome wins
    state_ = State::kCompleted;
    status_ = status;
    if (status == DBQ1_OK) rows_ = std::move(rows);
    routine_ = Routine::kQueued;
    stop = std::move(stop_);
  }
  PostDelivery(shared_from_this());
}

void Open::OnClose(std::function<void()> stop) {
  {
    std::lock_guard<std::mutex> hold(mutex_);
    if (state_ == State::kRunning) {
      stop_ = std::move(stop);
      return;
    }
    if (state_ == State::kCompleted) return;  // nothing left to stop
  }
  if (stop) stop();  // closed already
}

bool Open::Closed() const {
  std::lock_guard<std::mutex> hold(mutex_);
  return state_ == State::kClosed;
}

bool Open::Busy() const {
  std::lock_guard<std::mutex> hold(mutex_);
  if (state_ == State::kClosed) return false;
  return state_ == State::kRunning || routine_ == Routine::kQueued;
}

void Open::Close() {
  std::function<void()> stop;
  {
    std::unique_lock<std::mutex> hold(mutex_);
    if (state_ == State::kRunning) stop = std::move(stop_);
    state_ = State::kClosed;
    rows_.clear();
    rows_.shrink_to_fit();
    // A routine that closes its own request must not wait for itself.
    if (deliverer_ != std::this_thread::get_id())
      returned_.wait(hold, [this] { return routine_ != Routine::kRunning; });
  }
  if (stop) stop();
}

int32_t Open::Fetch(int32_t* returnCode) {
  std::lock_guard<std::mutex> hold(mutex_);
  if (state_ != State::kCompleted || status_ != DBQ1_OK) return DBQ1_CURSOR_NOT_OPEN;
  if (nextRow_ >= rows_.size()) return DBQ1_NO_MORE_ROWS;
  *returnCode = rows_[nextRow_++];
  return DBQ1_OK;
}

void Open::Deliver() {
  int32_t status;
  {
    std::lock_guard<std::mutex> hold(mutex_);
    if (state_ != State::kCompleted || routine_ != Routine::kQueued) return;
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

  std::mutex mutex_;  // guards queue_ and threads_
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
