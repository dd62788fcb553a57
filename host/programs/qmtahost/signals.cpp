#include "host/programs/qmtahost/signals.h"

#include <pthread.h>
#include <signal.h>

namespace qmta::hostprog {
namespace {

// Sent by the destructor to end the signal thread.
constexpr int kQuit = SIGUSR2;

sigset_t Watched() {
  sigset_t set;
  sigemptyset(&set);
  for (int signal : {SIGHUP, SIGTERM, SIGINT, kQuit}) sigaddset(&set, signal);
  return set;
}

}  // namespace

void BlockStopSignals() {
  sigset_t set = Watched();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

SignalThread::SignalThread(Handlers handlers) : handlers_(std::move(handlers)) {
  thread_ = std::thread([this] {
    sigset_t set = Watched();
    int stops = 0;
    for (;;) {
      int signal = 0;
      if (sigwait(&set, &signal) != 0) continue;
      if (signal == kQuit) return;
      if (signal == SIGHUP) {
        if (handlers_.reload) handlers_.reload();
      } else if (++stops == 1) {
        if (handlers_.stop) handlers_.stop();
      } else if (handlers_.stopNow) {
        handlers_.stopNow();
      }
    }
  });
}

SignalThread::~SignalThread() {
  pthread_kill(thread_.native_handle(), kQuit);
  thread_.join();
}

}  // namespace qmta::hostprog
