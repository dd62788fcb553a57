// What tests (and the soak program and benchmarks) reach inside the host's
// services: faults injected into the query service and node information,
// stale handles, a reset between tests, and counts for leak and drain
// checks. Programs in service use control.h alone.
#ifndef HOST_SERVICES_TESTHOOKS_H_
#define HOST_SERVICES_TESTHOOKS_H_

#include <stdint.h>

#include "host/services/export.h"
#include "platform/dbq1.h"

namespace qmta::host {

// Makes ENVR_QueryInfo fail (true) or succeed again (false).
QMTA_HOSTSVC_API void SetNodeInfoFails(bool fails);

// Query-service operations that tests can make fail.
enum class Op {
  kCreatePath, kCreateAccessPlan, kCreateRequest, kGetInputSQLDA,
  kDropHandle, kOpenRequest, kCloseRequest, kGetOutputSQLDA, kFetch
};
// The next `count` calls of `op`, after `skip` good ones, return `status`
// without acting.
QMTA_HOSTSVC_API void FailOperation(Op op, int32_t status, int32_t count = 1,
                                   int32_t skip = 0);
// The failures of `op` returned since it was last armed.
QMTA_HOSTSVC_API int32_t FailuresInjected(Op op);
// Makes `handle` stale: every later operation on it returns
// DBQ1_STALE_HANDLE. The object stays alive (a running open still
// completes) until ResetQueryService releases it.
QMTA_HOSTSVC_API void MakeStale(DBQ1_Handle handle);
// Forgets injected faults and the destination directory, restores the
// COMMAND length and releases the objects made stale. Registered drivers
// stay registered.
QMTA_HOSTSVC_API void ResetQueryService();

// Opens started and objects (paths, plans, requests) alive, for leak checks.
QMTA_HOSTSVC_API int64_t OpensStarted();
QMTA_HOSTSVC_API int64_t LiveObjects();

}  // namespace qmta::host

#endif  // HOST_SERVICES_TESTHOOKS_H_
