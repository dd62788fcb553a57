// Operator messages and trace for the module.
//
// Messages go to standard output, one line each, flushed at once (the table
// lock's are not flushed). Formats are always constants of the module; text
// from a rule file, an event or a command is only ever a value.
#ifndef QMTAUTO1_QMTAMSG_H_
#define QMTAUTO1_QMTAMSG_H_

#include <stdint.h>

#include <type_traits>

#include "platform/trc1.h"

// Prints one message and flushes standard output.
void qmtaMessage(const char* format, ...) __attribute__((format(printf, 1, 2)));
// Prints one message without flushing (the table lock's messages).
void qmtaMessageNoFlush(const char* format, ...)
    __attribute__((format(printf, 1, 2)));
// Flushes standard output after a group of detail trace lines.
void qmtaFlush();

inline constexpr char kUnitModule[] = "qmtauto1";
inline constexpr char kUnitLock[] = "qmtaloc0";

// Entry and exit events of one function call. The level is asked for once,
// at entry; exit() traces the result, the destructor a plain exit when no
// result was traced.
class TraceFlow {
 public:
  TraceFlow(const char* unit, const char* function)
      : unit_(unit), function_(function), level_(TRC1_Sync(unit)) {
    if (level_ & TRC1_FLOW) TRC1_Event(unit_, function_, TRC1_ENTRY, 0);
  }
  TraceFlow(const TraceFlow&) = delete;
  TraceFlow& operator=(const TraceFlow&) = delete;
  ~TraceFlow() {
    if (!exited_ && (level_ & TRC1_FLOW))
      TRC1_Event(unit_, function_, TRC1_EXIT, 0);
  }

  int32_t level() const { return level_; }
  bool detail() const { return (level_ & TRC1_DETAIL) != 0; }
  bool lockDetail() const { return (level_ & TRC1_LOCK_DETAIL) != 0; }
  const char* unit() const { return unit_; }

  template <typename T>
  T exit(T result) {
    exited_ = true;
    if (level_ & TRC1_FLOW) {
      int64_t value;
      if constexpr (std::is_pointer_v<T>)
        value = static_cast<int64_t>(reinterpret_cast<intptr_t>(result));
      else
        value = static_cast<int64_t>(result);
      TRC1_Event(unit_, function_, TRC1_EXIT_VALUE, value);
    }
    return result;
  }

 private:
  const char* unit_;
  const char* function_;
  int32_t level_;
  bool exited_ = false;
};

// Trace shows the low 32 bits of an address where a line has "%x".
inline unsigned int traceAddress(const void* pointer) {
  return static_cast<unsigned int>(reinterpret_cast<uintptr_t>(pointer));
}

#endif  // QMTAUTO1_QMTAMSG_H_
