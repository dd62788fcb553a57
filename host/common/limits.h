// The process's descriptor and thread limits: the host raises its own
// descriptor limit at start, derives its defaults from what it got, and
// hands its action programs the limit it was started with.
#ifndef HOST_COMMON_LIMITS_H_
#define HOST_COMMON_LIMITS_H_

#include <sys/resource.h>

namespace qmta::host {

struct HostLimits {
  rlim_t nofileSoftAtStart = 0;  // RLIMIT_NOFILE's soft limit as the process was started
  rlim_t nofileNow = 0;          // its soft limit now (the hard limit once raised)
  rlim_t nproc = RLIM_INFINITY;  // RLIMIT_NPROC's soft limit (threads and processes of the user)
};

// Raises the soft RLIMIT_NOFILE to the hard limit, once per process (a later
// call only returns the first one's figures), and remembers the soft limit
// at start for ProgramDescriptorLimit. Call it before any thread starts.
HostLimits RaiseDescriptorLimit();

// The RLIMIT_NOFILE an action program is started with: true, with
// `*limit` set, when RaiseDescriptorLimit changed the process's own, so
// that the program gets the soft limit the process was started with (and
// the same hard limit); false when the program inherits the limit as is.
// Any thread.
bool ProgramDescriptorLimit(rlimit* limit);

// Actions that may run at once by default: a running local program holds
// four descriptors of the host (two pipes, a pidfd, an eventfd; two more
// while it starts) and its runner one thread of the user's process limit,
// so min(4096, nofileNow / 8, nproc / 2 when nproc is finite), at least 16.
int DefaultMaxActions(const HostLimits& limits);

}  // namespace qmta::host

#endif  // HOST_COMMON_LIMITS_H_
