// One open of a request: what its driver reports, the delivery of the
// completion routine, and the rows that Fetch hands out.
//
// An Open is shared by the request (while it is the request's current
// open), by the driver (through Completion) and by the delivery queue. It
// holds no reference to its request, so a driver that keeps its Completion
// never keeps a request alive. The driver answers on a thread of its own;
// the completion routine runs on one of the delivery threads.
#ifndef HOST_SERVICES_OPEN_H_
#define HOST_SERVICES_OPEN_H_

#include <stdint.h>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "host/common/firstanswer.h"
#include "host/services/actiontap.h"
#include "platform/dbq1.h"

namespace qmta::host::internal {

class Open final : public FirstAnswer, public std::enable_shared_from_this<Open> {
 public:
  Open(const DBQ1_AsyncNotify& notify, uint32_t requestId)
      : notify_(notify), requestId_(requestId) {}

  uint32_t requestId() const { return requestId_; }

  // Kept for the action observer, which hears of it with the answer.
  void Detail(ActionDetail detail) override;

  // True from the start until the completion routine has been called (or
  // the open was closed): a new open of the request is refused until then.
  // A caller that the routine has signalled can therefore open again at
  // once; closing the old open then waits for its routine to return.
  bool Busy() const;

  // Ends the open: a driver still working is stopped through its OnClose
  // callback, a routine not yet called is never called, and a routine that
  // is running on another thread is waited for. Rows are discarded.
  void Close();

  // Next row's return code into `*returnCode`: DBQ1_OK, DBQ1_NO_MORE_ROWS,
  // or DBQ1_CURSOR_NOT_OPEN unless the open completed with status 0.
  int32_t Fetch(int32_t* returnCode);

  // Runs the completion routine; called once by a delivery thread.
  void Deliver();

 private:
  enum class Routine { kNotYet, kRunning, kReturned };

  // The driver's answer is in: the routine goes to the delivery queue.
  void Answered() override;

  const DBQ1_AsyncNotify notify_;
  const uint32_t requestId_;  // the REQUESTID bound at the open
  // Guarded by FirstAnswer's mutex_, like the answer itself.
  std::condition_variable returned_;  // the routine has returned
  Routine routine_ = Routine::kNotYet;
  std::thread::id deliverer_;         // thread running the routine
  size_t nextRow_ = 0;
  ActionDetail detail_;
};

// The action observer (actiontap.h), null when none is set; a reference
// held for the length of one call.
std::shared_ptr<ActionObserver> CurrentObserver();

// Runs completion routines on the service's own threads, in the order the
// opens completed. Process-wide; its threads live as long as the process.
// StartDelivery starts them (throws std::system_error when it cannot); it is
// called before the first open, so PostDelivery finds them running.
void StartDelivery();
void PostDelivery(std::shared_ptr<Open> open);

}  // namespace qmta::host::internal

#endif  // HOST_SERVICES_OPEN_H_
