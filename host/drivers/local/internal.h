// The local driver's pieces (see local.h), shared by its files alone.
//
// One action goes through them in turn, all on one runner thread:
//   program.cpp  the command split into words, and the program they name;
//   spawn.cpp    the program started in a process group of its own;
//   watch.cpp    the program watched to its end: output, time-out, close;
//   relay.cpp    its output cut into lines, within the action's budget;
//   output.cpp   those lines queued for the one thread that writes them
//                on the host's standard error;
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
// "[requestid] text", written at once by the calling thread. Runners use
// Output instead.
void SayFor(uint32_t requestId, std::string_view text);

struct OutputQueue;

// The lines of one action on their way to the host's standard error
// ("[requestid] text"). A runner never writes to standard error itself:
// it queues its action's lines, and one writer thread of the process
// writes all queued lines in order, so a standard error that nobody reads
// stops that thread alone. An action has about 16 KiB of lines queued at
// most; beyond that its runner stops reading the program's output until
// the writer catches up, and reads and drops it while the writer has been
// stuck on one line for half a second (standard error is blocked). Dropped
// lines are counted and reported as "[output dropped: N lines]" in their
// place once a line of the action is queued again, or at the end. Lines
// of all actions together are bounded too (4 MiB; 8 MiB with the driver's
// own lines, beyond which nothing is queued). Used by the action's runner
// thread alone.
class Output {
 public:
  explicit Output(uint32_t requestId);
  ~Output();
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  // A line of the driver's own about the action ("timed out ..."); queued
  // unless the bound of all actions is reached.
  void Note(std::string_view text);
  // A line of the program's output; queued, or dropped and counted.
  void Line(std::string_view text);
  // Whether the program's output is to be read now: the action's lines
  // fit, or standard error is blocked and whatever is read is dropped.
  bool Room() const;
  // After the last line: reports what was dropped, then waits until every
  // line of the action has been written, unless standard error is blocked
  // (a second at most).
  void End();

  // Every line of the action, the driver's own too, as the journal keeps
  // it: the first kCaptureMax bytes, `cut` when there was more.
  static constexpr size_t kCaptureMax = 16 * 1024;
  std::string captured;
  bool cut = false;

 private:
  void Capture(std::string_view text);

  std::shared_ptr<OutputQueue> queue_;
};

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

  // The runner thread's alone: the signal that ended the program, if one did.
  int exitSignal = 0;

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
bool ResolveProgram(const std::string& actionsDir, const Action& action, Program* program,
                    Output& output);

// A started program, as its runner watches it.
struct Started {
  pid_t pid = -1;
  Fd out;        // read ends of its standard output and error, non-blocking;
  Fd err;        // closed once read to the end
  Fd exit;       // a pidfd, readable once the program has ended; or none
  int wake = -1; // the job's eventfd, owned by the job until ReleaseWake
};

// Starts `program` for `job` with standard input /dev/null, the action's
// environment, the host's descriptor limit at start and its output to
// pipes. 0 when it runs; otherwise, after saying why, the return code to
// report: 126 when it cannot be run, 127 when it vanished, 128+SIGTERM when
// the request was closed before.
int StartProgram(Job& job, Program& program, Started* started, Output& output);

// Closes the job's eventfd once the runner no longer watches it.
void ReleaseWake(Job& job);

// Watches a started program until it has ended and its output is read:
// relays its output, ends it on a close or after the time-out, reaps it.
// Returns its return code.
int WatchProgram(const LocalSettings& settings, Job& job, Started& started, Output& output);
// SIGKILL to the group of every program being watched; how many.
int64_t EndAllGroups();

// Cuts the output streams of one program into lines for its Output,
// within the action's output budget. Used by one runner thread.
class Relay {
 public:
  explicit Relay(Output& output) : output_(output) {}

  struct Stream {
    std::string partial;    // the line read so far
    bool skipping = false;  // dropping the rest of an over-long line
  };

  void Feed(Stream& stream, const char* data, size_t size);
  // At the end of the stream: a last line without its line end.
  void Finish(Stream& stream);

 private:
  void Line(const std::string& text);

  Output& output_;
  size_t relayed_ = 0;
  bool dropping_ = false;
};

}  // namespace qmta::host::local

#endif  // HOST_DRIVERS_LOCAL_INTERNAL_H_
