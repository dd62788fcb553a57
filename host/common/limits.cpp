#include "host/common/limits.h"

#include <algorithm>
#include <atomic>
#include <mutex>

namespace qmta::host {
namespace {

std::once_flag raised;
HostLimits figures;
// The limit for programs; a soft limit of 0 means "inherit".
std::atomic<rlim_t> programSoft{0};
std::atomic<rlim_t> programHard{0};

}  // namespace

HostLimits RaiseDescriptorLimit() {
  std::call_once(raised, [] {
    rlimit nofile = {};
    if (getrlimit(RLIMIT_NOFILE, &nofile) == 0) {
      figures.nofileSoftAtStart = figures.nofileNow = nofile.rlim_cur;
      if (nofile.rlim_cur < nofile.rlim_max) {
        rlimit raisedLimit = {nofile.rlim_max, nofile.rlim_max};
        if (setrlimit(RLIMIT_NOFILE, &raisedLimit) == 0) {
          figures.nofileNow = nofile.rlim_max;
          programHard = nofile.rlim_max;
          programSoft = nofile.rlim_cur;
        }
      }
    }
    rlimit nproc = {};
    if (getrlimit(RLIMIT_NPROC, &nproc) == 0) figures.nproc = nproc.rlim_cur;
  });
  return figures;
}

bool ProgramDescriptorLimit(rlimit* limit) {
  rlim_t soft = programSoft.load();
  if (soft == 0) return false;
  limit->rlim_cur = soft;
  limit->rlim_max = programHard.load();
  return true;
}

int DefaultMaxActions(const HostLimits& limits) {
  rlim_t most = std::min<rlim_t>(4096, limits.nofileNow / 8);
  if (limits.nproc != RLIM_INFINITY) most = std::min<rlim_t>(most, limits.nproc / 2);
  return static_cast<int>(std::max<rlim_t>(most, 16));
}

}  // namespace qmta::host
