// Trace facility: a level per unit, lines to standard error or a stream of
// the host's, never to standard output.
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/time.h>

#include <atomic>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "host/services/control.h"
#include "host/services/export.h"
#include "platform/trc1.h"

namespace {

// Guards unitLevels and the writes to TRC1_levels.unitLevels: taken by the
// program setting a unit's level and by TRC1_UnitLevel on the module's
// threads once any unit has a level of its own.
std::mutex unitMutex;
std::vector<std::pair<std::string, int32_t>> unitLevels;
std::atomic<FILE*> traceStream{nullptr};

FILE* stream() {
  FILE* out = traceStream.load(std::memory_order_relaxed);
  return out ? out : stderr;
}

// The published levels: once a unit has a level of its own, TRC1_Sync asks
// TRC1_UnitLevel; until then it reads the common level alone.
std::atomic_ref<int32_t> haveUnitLevels() {
  return std::atomic_ref<int32_t>(TRC1_levels.unitLevels);
}
std::atomic_ref<int32_t> defaultLevel() { return std::atomic_ref<int32_t>(TRC1_levels.level); }

// "hh:mm:ss.uuuuuu [tid] unit" prefix of every trace line.
void prefix(FILE* out, const char* unit) {
  struct timeval now;
  gettimeofday(&now, nullptr);
  struct tm local;
  localtime_r(&now.tv_sec, &local);
  fprintf(out, "%02d:%02d:%02d.%06ld [%lx] %s ", local.tm_hour, local.tm_min,
          local.tm_sec, static_cast<long>(now.tv_usec),
          static_cast<unsigned long>(pthread_self()), unit);
}

}  // namespace

namespace qmta::host {

void SetTraceLevel(int32_t level) { defaultLevel().store(level); }

void SetUnitTraceLevel(const std::string& unit, int32_t level) {
  std::lock_guard<std::mutex> hold(unitMutex);
  for (auto& entry : unitLevels) {
    if (entry.first == unit) {
      entry.second = level;
      return;
    }
  }
  unitLevels.emplace_back(unit, level);
  haveUnitLevels().store(1);
}

void SetTraceStream(FILE* out) { traceStream.store(out); }

}  // namespace qmta::host

extern "C" {

// Starts a cache line: every function of the module reads it, so no counter
// that other threads keep writing may share its line (what follows it here
// changes only when levels are set).
alignas(64) QMTA_HOSTSVC_API TRC1_Levels TRC1_levels = {0, 0};

QMTA_HOSTSVC_API TRC1_NOTHROW int32_t TRC1_UnitLevel(const char* unit) {
  // The trace services promise not to throw: a mutex that cannot be taken
  // leaves the unit at the common level.
  try {
    std::lock_guard<std::mutex> hold(unitMutex);
    for (const auto& entry : unitLevels)
      if (entry.first == unit) return entry.second;
  } catch (...) {
  }
  return defaultLevel().load(std::memory_order_relaxed);
}

QMTA_HOSTSVC_API TRC1_NOTHROW void TRC1_Event(const char* unit, const char* function,
                                               int32_t kind, int64_t result) {
  FILE* out = stream();
  flockfile(out);
  prefix(out, unit);
  switch (kind) {
    case TRC1_ENTRY:
      fprintf(out, "entry %s\n", function);
      break;
    case TRC1_EXIT_VALUE:
      fprintf(out, "exit %s result=%lld\n", function, static_cast<long long>(result));
      break;
    default:
      fprintf(out, "exit %s\n", function);
      break;
  }
  fflush(out);
  funlockfile(out);
}

QMTA_HOSTSVC_API TRC1_NOTHROW void TRC1_Printf(const char* unit, int32_t line, const char* format, ...) {
  FILE* out = stream();
  va_list values;
  va_start(values, format);
  flockfile(out);
  prefix(out, unit);
  fprintf(out, "%d: ", line);
  vfprintf(out, format, values);
  size_t length = strlen(format);
  if (length == 0 || format[length - 1] != '\n') fputc('\n', out);
  fflush(out);
  funlockfile(out);
  va_end(values);
}

}  // extern "C"
