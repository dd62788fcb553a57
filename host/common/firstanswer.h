// The part that every Completion shares: the first answer wins, a stop
// registered by the driver runs when the owner closes before an answer
// came, and nothing is called under the lock. The query service's opens,
// qmtaagent's requests and the tests' completions derive from it.
#ifndef HOST_COMMON_FIRSTANSWER_H_
#define HOST_COMMON_FIRSTANSWER_H_

#include <stdint.h>

#include <functional>
#include <mutex>
#include <vector>

#include "host/drivers/driver.h"

namespace qmta::host {

class FirstAnswer : public Completion {
 public:
  // The first of Rows and Fail is kept and Answered() runs; a later one,
  // or one after Close, is ignored. A failure without a status counts as
  // DBQ1_ACTION_FAILED (it would otherwise read as success with no rows).
  // Called by drivers, from any thread.
  void Rows(std::vector<int32_t> returnCodes) final;
  void Fail(int32_t status) final;
  // Keeps `stop` while no answer has come; runs it at once when the owner
  // has closed already; drops it when the answer is in (nothing to stop).
  void OnClose(std::function<void()> stop) final;
  bool Closed() const final;

 protected:
  enum class State { kWaiting, kAnswered, kClosed };

  // Ends it from the owner's side: answers from now on are ignored, and a
  // driver still working is stopped (its stop runs on this thread, outside
  // the lock). Returns the state it was in.
  State Close();

  // Runs once, on the thread that gave the first answer, outside the lock,
  // after state_, status_ and rows_ hold it.
  virtual void Answered() = 0;

  // Guards state_, status_, rows_ and the stop; derived classes may guard
  // their own members with it too. Held only for short bookkeeping, never
  // while a driver's stop or Answered() runs.
  mutable std::mutex mutex_;
  State state_ = State::kWaiting;
  int32_t status_ = 0;         // the answer's status, once kAnswered
  std::vector<int32_t> rows_;  // its return codes (status_ 0 only)

 private:
  void Answer(int32_t status, std::vector<int32_t> rows);

  std::function<void()> stop_;  // the driver's stop, while kWaiting
};

}  // namespace qmta::host

#endif  // HOST_COMMON_FIRSTANSWER_H_
