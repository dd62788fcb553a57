#include "host/common/firstanswer.h"

#include <utility>

#include "platform/dbq1.h"

namespace qmta::host {

void FirstAnswer::Rows(std::vector<int32_t> returnCodes) {
  Answer(DBQ1_OK, std::move(returnCodes));
}

void FirstAnswer::Fail(int32_t status) {
  Answer(status == DBQ1_OK ? DBQ1_ACTION_FAILED : status, {});
}

void FirstAnswer::Answer(int32_t status, std::vector<int32_t> rows) {
  std::function<void()> stop;  // destroyed outside the lock
  {
    std::lock_guard<std::mutex> hold(mutex_);
    if (state_ != State::kWaiting) return;  // first answer wins
    state_ = State::kAnswered;
    status_ = status;
    if (status == DBQ1_OK) rows_ = std::move(rows);
    stop = std::move(stop_);
  }
  Answered();
}

void FirstAnswer::OnClose(std::function<void()> stop) {
  {
    std::lock_guard<std::mutex> hold(mutex_);
    if (state_ == State::kWaiting) {
      stop_ = std::move(stop);
      return;
    }
    if (state_ == State::kAnswered) return;  // nothing left to stop
  }
  if (stop) stop();  // closed already
}

bool FirstAnswer::Closed() const {
  std::lock_guard<std::mutex> hold(mutex_);
  return state_ == State::kClosed;
}

FirstAnswer::State FirstAnswer::Close() {
  std::function<void()> stop;
  State before;
  {
    std::lock_guard<std::mutex> hold(mutex_);
    before = state_;
    if (before == State::kWaiting) stop = std::move(stop_);
    state_ = State::kClosed;
  }
  if (stop) stop();
  return before;
}

}  // namespace qmta::host
