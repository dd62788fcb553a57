// The local driver watches a running program (see internal.h) with poll: its
// two output pipes, a pidfd for its exit and the eventfd through which a
// closed request asks it to stop. A closed request or the time-out ends
// the program's group with SIGTERM, then SIGKILL after the grace. The
// process is reaped only after its group has been signalled for the last
// time, so a signal never reaches a reused pid. The output pipes are left
// unread while the action's queued lines wait for the writer (Output::Room),
// and looked at again every few milliseconds; nothing else waits on them.
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <set>

#include "host/common/files.h"
#include "host/drivers/local/internal.h"

namespace qmta::host::local {
namespace {

using Clock = std::chrono::steady_clock;

// Without a pidfd the program's exit is polled for this often.
constexpr int kExitPollMs = 50;
// While the action's lines wait for the writer, its room is looked at
// this often.
constexpr int kRoomPollMs = 5;

std::string DurationText(std::chrono::milliseconds span) {
  if (span.count() % 1000 == 0) return std::to_string(span.count() / 1000) + " s";
  return std::to_string(span.count()) + " ms";
}

// Process groups of the programs running now, so that a host stopping at
// once can end them all. Never destroyed (runners may outlive main).
struct Groups {
  std::mutex mutex;  // guards pids; held while a group is signalled or its leader reaped
  std::set<pid_t> pids;
};
Groups& groups() {
  static Groups* all = new Groups;
  return *all;
}

int ExitCode(const siginfo_t& info) {
  if (info.si_code == CLD_EXITED) return info.si_status;
  return 128 + info.si_status;  // killed or dumped
}

// One program watched by its runner thread, round by round: the phase
// moves on by the clock, poll waits for what can happen next, and what
// happened is handled.
class Watch {
 public:
  Watch(const LocalSettings& settings, Job& job, Started& started, Output& output)
      : settings_(settings),
        job_(job),
        started_(started),
        output_(output),
        relay_(output),
        deadline_(Clock::now() + settings.timeout),
        next_(deadline_) {
    std::lock_guard<std::mutex> hold(groups().mutex);
    groups().pids.insert(started_.pid);
  }

  int Run() {
    for (;;) {
      const Clock::time_point now = Clock::now();
      if (!Advance(now)) break;
      if (Wait(now) < 0) {
        if (errno != EINTR && errno != EAGAIN) {
          const int failure = errno;
          output_.Note("poll failed: " + ErrorText(failure));
          break;  // cannot happen with valid descriptors; never spin
        }
        continue;
      }
      ReadOutput(0);
      ReadOutput(1);
      TakeWake();
      CheckExit();
    }
    if (info_.si_code != CLD_EXITED) job_.exitSignal = info_.si_status;
    return ExitCode(info_);
  }

 private:
  enum class Phase { kRunning, kTerminating, kKilled, kExited };

  Fd& Pipe(int stream) { return stream == 0 ? started_.out : started_.err; }

  // Moves the phase on: a close or the time-out ends the program, SIGKILL
  // follows SIGTERM after the grace, and once the program has ended its
  // output is read for the grace at most. False when watching is over.
  bool Advance(Clock::time_point now) {
    switch (phase_) {
      case Phase::kExited:
        if (!Pipe(0).open() && !Pipe(1).open()) return false;
        if (now < next_) return true;
        output_.Note("output still open after the program ended; no longer read");
        return false;
      case Phase::kRunning:
        if (!stopRequested_ && now < deadline_) return true;
        output_.Note(stopRequested_ ? "request closed; ending the program"
                                    : "timed out after " + DurationText(settings_.timeout) +
                                          "; ending the program");
        killpg(started_.pid, SIGTERM);
        phase_ = Phase::kTerminating;
        next_ = now + settings_.grace;
        return true;
      case Phase::kTerminating:
        if (now < next_) return true;
        killpg(started_.pid, SIGKILL);
        phase_ = Phase::kKilled;
        return true;
      case Phase::kKilled:
        return true;
    }
    return true;
  }

  // Polls what the phase watches until something happens or its next step
  // falls due; poll's result.
  int Wait(Clock::time_point now) {
    nfds_t count = 0;
    auto watch = [&](int fd) {
      polled_[count] = {fd, POLLIN, 0};
      return static_cast<int>(count++);
    };
    const bool room = output_.Room();
    bool held = false;  // output waiting for room
    for (int i = 0; i < 2; ++i) {
      held = held || (Pipe(i).open() && !room);
      streamSlot_[i] = Pipe(i).open() && room ? watch(Pipe(i).get()) : -1;
    }
    watchExit_ = phase_ != Phase::kExited;
    exitSlot_ = watchExit_ && started_.exit.open() ? watch(started_.exit.get()) : -1;
    wakeSlot_ = phase_ == Phase::kRunning ? watch(started_.wake) : -1;
    int waitMs = -1;
    if (phase_ != Phase::kKilled) {
      auto left = std::chrono::ceil<std::chrono::milliseconds>(next_ - now).count();
      waitMs = static_cast<int>(std::clamp<int64_t>(left, 0, 60000));
    }
    if (watchExit_ && !started_.exit.open())
      waitMs = waitMs < 0 ? kExitPollMs : std::min(waitMs, kExitPollMs);
    if (held) waitMs = waitMs < 0 ? kRoomPollMs : std::min(waitMs, kRoomPollMs);
    return poll(polled_, count, waitMs);
  }

  bool Ready(int slot, short events) const {
    return slot >= 0 && (polled_[slot].revents & events);
  }

  void ReadOutput(int stream) {
    if (!Ready(streamSlot_[stream], POLLIN | POLLHUP | POLLERR)) return;
    char buffer[16384];
    ssize_t got = read(Pipe(stream).get(), buffer, sizeof buffer);
    if (got > 0) {
      relay_.Feed(streams_[stream], buffer, static_cast<size_t>(got));
    } else if (got == 0 || (errno != EINTR && errno != EAGAIN)) {
      relay_.Finish(streams_[stream]);
      Pipe(stream).Reset();
    }
  }

  void TakeWake() {
    if (!Ready(wakeSlot_, POLLIN)) return;
    uint64_t value;
    ssize_t ignored = read(started_.wake, &value, sizeof value);
    (void)ignored;
    std::lock_guard<std::mutex> hold(job_.mutex);
    stopRequested_ = job_.stopped;
  }

  // Without a pidfd, every round looks.
  void CheckExit() {
    if (!watchExit_ || (exitSlot_ >= 0 && !polled_[exitSlot_].revents)) return;
    const pid_t pid = started_.pid;
    info_.si_pid = 0;
    if (waitid(P_PID, pid, &info_, WEXITED | WNOHANG | WNOWAIT) == 0 && info_.si_pid == pid) {
      // The program has ended: what it left in its group goes too, then it
      // is reaped.
      // Off the list before it is reaped, so EndAllPrograms never signals
      // a pid that may have been reused.
      std::lock_guard<std::mutex> hold(groups().mutex);
      groups().pids.erase(pid);
      killpg(pid, SIGKILL);
      waitid(P_PID, pid, &info_, WEXITED);
      phase_ = Phase::kExited;
      next_ = Clock::now() + settings_.grace;
    }
  }

  const LocalSettings& settings_;
  Job& job_;
  Started& started_;
  Output& output_;
  Relay relay_;
  Relay::Stream streams_[2];  // standard output and error
  Phase phase_ = Phase::kRunning;
  const Clock::time_point deadline_;
  Clock::time_point next_;  // when the next step of the phase falls due
  siginfo_t info_ = {};
  bool stopRequested_ = false;
  // This round's poll set, and which slot watches what (-1: nothing).
  pollfd polled_[4];
  int streamSlot_[2] = {-1, -1};
  int exitSlot_ = -1;
  int wakeSlot_ = -1;
  bool watchExit_ = true;
};

}  // namespace

int64_t EndAllGroups() {
  std::lock_guard<std::mutex> hold(groups().mutex);
  for (pid_t pid : groups().pids) killpg(pid, SIGKILL);
  return static_cast<int64_t>(groups().pids.size());
}

int WatchProgram(const LocalSettings& settings, Job& job, Started& started, Output& output) {
  return Watch(settings, job, started, output).Run();
}

}  // namespace qmta::host::local

namespace qmta::host {

int64_t EndAllPrograms() { return local::EndAllGroups(); }

}  // namespace qmta::host
