// What the query service tells an observer about each action, for the
// host's action journal: the open (the command as bound, the destination,
// the directory line and driver that took it, or the status that refused
// it), the completion (status, return codes, the driver's detail) and a
// fetch that failed. The request id is the module's REQUESTID parameter.
//
// Threads: Opened and FetchFailed run on the module's action thread,
// Completed on the thread of the driver that answered. An observer must
// return promptly and never call back into the query service.
#ifndef HOST_SERVICES_ACTIONTAP_H_
#define HOST_SERVICES_ACTIONTAP_H_

#include <stdint.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "host/drivers/driver.h"
#include "host/services/export.h"

namespace qmta::host {

struct ActionOpened {
  uint32_t requestId = 0;
  std::string command;
  int32_t callType = 0;
  std::string destination;
  std::string driver;  // the directory line's driver name; empty: no line took it
  int line = 0;        // the directory line's number; 0: none
  int32_t status = 0;  // what DBQ1_OpenRequest answered
  std::chrono::system_clock::time_point time;
};

struct ActionCompleted {
  uint32_t requestId = 0;
  int32_t status = 0;         // the completion's status
  std::vector<int32_t> rows;  // return codes (status 0 only)
  ActionDetail detail;
  std::chrono::system_clock::time_point time;
};

class ActionObserver {
 public:
  virtual ~ActionObserver() = default;
  virtual void Opened(const ActionOpened& opened) = 0;
  virtual void Completed(const ActionCompleted& completed) = 0;
  virtual void FetchFailed(uint32_t requestId, int32_t status) = 0;
};

// The one observer of the process (null: none). The service holds a
// reference for the length of each call, so an observer replaced while
// actions run lives until its last call has returned.
QMTA_HOSTSVC_API void SetActionObserver(std::shared_ptr<ActionObserver> observer);

}  // namespace qmta::host

#endif  // HOST_SERVICES_ACTIONTAP_H_
