// The local driver's pieces (see local.h), shared by its files alone.
//
// One action goes through them in turn, all on one runner thread:
//   program.cpp  the command split into words, and the program they name;
//   spawn.cpp    the program started in a process group of its own;
//   watch.cpp    the program watched to its end: output, time-out, close;
//   relay.cpp    its output cut into lines on the host's standard error;
//   driver.cpp   the driver itself: runner threads, queues, options.
#ifndef HOST_DRIVERS_LOCAL_INTERNAL_H_
#define HOST_DRIVERS_LOCAL_INTERNAL_H_

#include <stdint.h>
#include <sys/types.h>
#include <unistd.h>

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/drivers/local/local.h"

namespace qmta::host::local {

// One line on the host's standard error for the action `requestId`:
// "[requestid] text".
void SayFor(uint32_t requestId, std::string_view text);

// An open file descriptor, closed when the object goes.
class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Fd& operator=(Fd&& other) noexcept {
    Reset(std::exchange(other.fd_, -1));
    return *this;
  }
  ~Fd() { Reset(); }
  int get() const { return fd_; }
  bool open() const { return fd_ >= 0; }
  int Release() { return std::exchange(fd_, -1); }
  void Reset(int fd = -1) {
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

// One action: queued, then run by a runner thread. Shared by the
// destination's queue (or the runner running it) and, weakly, by the
// request's close callback.
struct Job {
  Action action;
  std::shared_ptr<Completion> done;

  // Guards stopped and wakeFd: taken by the runner around starting the
  // program and letting go of the eventfd, and by the thread that closes
  // the request (Stop, on the module's action thread).
  std::mutex mutex;
  bool stopped = false;
  int wakeFd = -1;  // the eventfd while the program runs (spawn.cpp)

  // The request was closed: the program is to be ended (or never started).
  void Stop();
};

// The program that an action's command names.
struct Program {
  std::string path;                // in the actions directory
  std::vector<std::string> words;  // its name, then its arguments
};

// Splits the command of `action` and checks the program it names. False,
// after saying why, when it is refused or missing (return code 127).
bool ResolveProgram(const std::string& actionsDir, const Action& action, Program* program);

// A started program, as its runner watches it.
struct Started {
  pid_t pid = -1;
  Fd out;        // read ends of its standard output and error, non-blocking;
  Fd err;        // closed once read to the end
  Fd exit;       // a pidfd, readable once the program has ended; or none
  int wake = -1; // the job's eventfd, owned by the job until ReleaseWake
};

// Starts `program` for `job` with standard input /dev/null, the action's
// environment and its output to pipes. 0 when it runs; otherwise, after
// saying why, the return code to report: 126 when it cannot be run, 127
// when it vanished, 128+SIGTERM when the request was closed before.
int StartProgram(Job& job, Program& program, Started* started);

// Closes the job's eventfd once the runner no longer watches it.
void ReleaseWake(Job& job);

// Watches a started program until it has ended and its output is read:
// relays its output, ends it on a close or after the time-out, reaps it.
// Returns its return code.
// SIGKILL to the group of every program being watched; how many.
int64_t EndAllGroups();
int WatchProgram(const LocalSettings& settings, Job& job, Started& started);

// Cuts the output streams of one program into lines for SayFor, within
// the action's output budget. Used by one runner thread.
class Relay {
 public:
  explicit Relay(uint32_t requestId) : requestId_(requestId) {}

  struct Stream {
    std::string partial;    // the line read so far
    bool skipping = false;  // dropping the rest of an over-long line
  };

  void Feed(Stream& stream, const char* data, size_t size);
  // At the end of the stream: a last line without its line end.
  void Finish(Stream& stream);

 private:
  void Line(const std::string& text);

  const uint32_t requestId_;
  size_t relayed_ = 0;
  bool dropping_ = false;
};

}  // namespace qmta::host::local

#endif  // HOST_DRIVERS_LOCAL_INTERNAL_H_
