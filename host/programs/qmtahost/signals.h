// Signal handling of qmtahost: SIGHUP, SIGTERM and SIGINT are blocked in
// every thread (BlockStopSignals, called first thing in main, before any
// thread exists) and taken by one signal thread with sigwait, which calls
// the program back in plain thread context. Programs that qmtahost starts
// get a clear mask from their driver.
#ifndef HOST_PROGRAMS_QMTAHOST_SIGNALS_H_
#define HOST_PROGRAMS_QMTAHOST_SIGNALS_H_

#include <functional>
#include <thread>

namespace qmta::hostprog {

void BlockStopSignals();

class SignalThread {
 public:
  struct Handlers {
    std::function<void()> reload;      // SIGHUP
    std::function<void()> stop;        // the first SIGTERM or SIGINT
    std::function<void()> stopNow;     // the second
  };
  explicit SignalThread(Handlers handlers);
  ~SignalThread();  // ends the thread
  SignalThread(const SignalThread&) = delete;
  SignalThread& operator=(const SignalThread&) = delete;

 private:
  Handlers handlers_;
  std::thread thread_;
};

}  // namespace qmta::hostprog

#endif  // HOST_PROGRAMS_QMTAHOST_SIGNALS_H_
