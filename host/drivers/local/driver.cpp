// The "local" destination driver (see local.h).
//
// Threads: Start never runs a program itself. It hands the action to a
// runner thread of the destination, or queues it when the destination
// already runs its maximum; a runner that finishes takes the next queued
// action of its destination and ends when there is none. Each runner
// watches its program with poll: the two output pipes, a pidfd for the
// program's exit and an eventfd through which a closed request asks it to
// stop. The program's process is reaped only after its group has been
// signalled for the last time, so a signal never reaches a reused pid.
#include "host/drivers/local/local.h"

#include "host/common/files.h"
#include "host/common/number.h"
#include "host/common/say.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

namespace qmta::host {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::string_view kBlanks = " \t\n\r\f\v";
// Longest line relayed whole; the rest of a longer line is dropped.
constexpr size_t kLineMax = 1024;
// Output relayed per action; later output is read and dropped.
constexpr size_t kOutputMax = 64 * 1024;
// Without a pidfd the program's exit is polled for this often.
constexpr int kExitPollMs = 50;

// Runner threads alive. Never destroyed: a detached runner may still be
// leaving while the process exits.
struct Runners {
  std::mutex mutex;
  std::condition_variable idle;
  std::atomic<int64_t> live{0};
};

Runners& runners() {
  static Runners* all = new Runners;
  return *all;
}

void RunnerEnded() {
  std::lock_guard<std::mutex> hold(runners().mutex);
  if (runners().live.fetch_sub(1) == 1) runners().idle.notify_all();
}

// One line on the host's standard error for the action `requestId`,
// "[requestid] text".
void Say(uint32_t requestId, std::string_view text) {
  host::Say("[" + std::to_string(requestId) + "] ", text);
}

// Cuts one output stream of a program into lines for Say, within the
// action's output budget.
class Relay {
 public:
  explicit Relay(uint32_t requestId) : requestId_(requestId) {}

  struct Stream {
    int fd = -1;
    std::string partial;    // the line read so far
    bool skipping = false;  // dropping the rest of an over-long line
  };

  void Feed(Stream& stream, const char* data, size_t size) {
    for (size_t i = 0; i < size; ++i) {
      char c = data[i];
      if (c == '\n') {
        if (!stream.skipping) Line(stream.partial);
        stream.partial.clear();
        stream.skipping = false;
      } else if (!stream.skipping) {
        stream.partial += c;
        if (stream.partial.size() >= kLineMax) {
          Line(stream.partial + " [line cut]");
          stream.partial.clear();
          stream.skipping = true;
        }
      }
    }
  }

  // At the end of the stream: a last line without its line end.
  void Finish(Stream& stream) {
    if (!stream.partial.empty() && !stream.skipping) Line(stream.partial);
    stream.partial.clear();
  }

 private:
  void Line(const std::string& text) {
    if (relayed_ >= kOutputMax) {
      if (!dropping_) Say(requestId_, "[further output dropped]");
      dropping_ = true;
      return;
    }
    relayed_ += text.size() + 1;
    Say(requestId_, text);
  }

  const uint32_t requestId_;
  size_t relayed_ = 0;
  bool dropping_ = false;
};

// One action: queued, then run by a runner thread.
struct Job {
  Action action;
  std::shared_ptr<Completion> done;

  std::mutex mutex;  // guards stopped and wakeFd
  bool stopped = false;
  int wakeFd = -1;   // eventfd while the program runs

  // The request was closed: the program is to be ended (or never started).
  void Stop() {
    std::lock_guard<std::mutex> hold(mutex);
    stopped = true;
    if (wakeFd >= 0) {
      uint64_t one = 1;
      ssize_t ignored = write(wakeFd, &one, sizeof one);
      (void)ignored;
    }
  }
};

void CloseFd(int* fd) {
  if (*fd >= 0) close(*fd);
  *fd = -1;
}

// Posix-spawn attributes and file actions, released on every path.
class SpawnSetup {
 public:
  SpawnSetup() {
    posix_spawnattr_init(&attributes_);
    posix_spawn_file_actions_init(&files_);
  }
  ~SpawnSetup() {
    posix_spawnattr_destroy(&attributes_);
    posix_spawn_file_actions_destroy(&files_);
  }
  SpawnSetup(const SpawnSetup&) = delete;
  SpawnSetup& operator=(const SpawnSetup&) = delete;

  // Standard input /dev/null, output and error to the pipes, nothing else
  // open; own process group, no blocked signals, default dispositions.
  int Prepare(int outFd, int errFd) {
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    int failed = posix_spawnattr_setflags(
        &attributes_, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    if (!failed) failed = posix_spawnattr_setpgroup(&attributes_, 0);
    if (!failed) failed = posix_spawnattr_setsigmask(&attributes_, &none);
    if (!failed) failed = posix_spawnattr_setsigdefault(&attributes_, &all);
    if (!failed)
      failed = posix_spawn_file_actions_addopen(&files_, 0, "/dev/null", O_RDONLY, 0);
    if (!failed) failed = posix_spawn_file_actions_adddup2(&files_, outFd, 1);
    if (!failed) failed = posix_spawn_file_actions_adddup2(&files_, errFd, 2);
#if defined(__GLIBC__) && (__GLIBC__ > 2 || __GLIBC_MINOR__ >= 34)
    // Descriptors that others opened without close-on-exec stay behind too.
    if (!failed) failed = posix_spawn_file_actions_addclosefrom_np(&files_, 3);
#endif
    return failed;
  }

  int Spawn(pid_t* pid, const std::string& path, std::vector<std::string>& words,
            std::vector<std::string>& environment) {
    std::vector<char*> argv, envp;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    for (auto& entry : environment) envp.push_back(entry.data());
    envp.push_back(nullptr);
    return posix_spawn(pid, path.c_str(), &files_, &attributes_, argv.data(), envp.data());
  }

 private:
  posix_spawnattr_t attributes_;
  posix_spawn_file_actions_t files_;
};

std::string DurationText(std::chrono::milliseconds span) {
  if (span.count() % 1000 == 0) return std::to_string(span.count() / 1000) + " s";
  return std::to_string(span.count()) + " ms";
}

int ExitCode(const siginfo_t& info) {
  if (info.si_code == CLD_EXITED) return info.si_status;
  return 128 + info.si_status;  // killed or dumped
}

// Runs the program of `job` to its end and returns its return code.
int Execute(const LocalSettings& settings, Job& job) {
  const Action& action = job.action;
  const uint32_t id = action.requestId;

  std::vector<std::string> words;
  std::string error;
  if (!SplitCommand(action.command, &words, &error)) {
    Say(id, "refused: " + error);
    return 127;
  }
  if (words.empty()) {
    Say(id, "refused: the command names no program");
    return 127;
  }
  if (!ValidProgramName(words[0])) {
    Say(id, "refused program name \"" + words[0] + "\": only plain names of " +
                settings.actionsDir + " are run");
    return 127;
  }
  const std::string path = settings.actionsDir + "/" + words[0];
  struct stat status;
  if (stat(path.c_str(), &status) != 0) {
    Say(id, "no action program \"" + words[0] + "\" in " + settings.actionsDir + ": " +
                ErrorText(errno));
    return 127;
  }
  if (!S_ISREG(status.st_mode) || access(path.c_str(), X_OK) != 0) {
    Say(id, "refused \"" + words[0] + "\": not an executable file");
    return 127;
  }

  std::vector<std::string> environment = {
      "PATH=/usr/bin:/bin",
      "QMTA_REQUESTID=" + std::to_string(action.requestId),
      "QMTA_CALLTYPE=" + std::to_string(action.callType),
      "QMTA_NODE=" + action.destination,
  };

  int outPipe[2] = {-1, -1}, errPipe[2] = {-1, -1};
  int wake = -1;
  auto release = [&] {
    CloseFd(&outPipe[0]), CloseFd(&outPipe[1]);
    CloseFd(&errPipe[0]), CloseFd(&errPipe[1]);
    std::lock_guard<std::mutex> hold(job.mutex);
    CloseFd(&job.wakeFd);
  };
  if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0 ||
      (wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) < 0) {
    Say(id, "cannot run \"" + words[0] + "\": " + ErrorText(errno));
    release();
    if (wake >= 0) close(wake);
    return 126;
  }
  bool stoppedEarly;
  {
    std::lock_guard<std::mutex> hold(job.mutex);
    stoppedEarly = job.stopped;  // closed while it waited its turn
    if (!stoppedEarly) job.wakeFd = wake;
  }
  if (stoppedEarly) {
    close(wake);
    release();
    return 128 + SIGTERM;
  }

  pid_t pid = -1;
  SpawnSetup setup;
  int failed = setup.Prepare(outPipe[1], errPipe[1]);
  if (!failed) failed = setup.Spawn(&pid, path, words, environment);
  CloseFd(&outPipe[1]);
  CloseFd(&errPipe[1]);
  if (failed) {
    Say(id, "cannot run \"" + words[0] + "\": " + ErrorText(failed));
    release();
    return failed == ENOENT ? 127 : 126;
  }
  for (int fd : {outPipe[0], errPipe[0]}) fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  int exitFd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));

  Relay relay(id);
  Relay::Stream streams[2];
  streams[0].fd = std::exchange(outPipe[0], -1);
  streams[1].fd = std::exchange(errPipe[0], -1);

  enum class Phase { kRunning, kTerminating, kKilled, kExited } phase = Phase::kRunning;
  const Clock::time_point deadline = Clock::now() + settings.timeout;
  Clock::time_point next = deadline;  // when the next step of the phase falls due
  siginfo_t info = {};
  bool stopRequested = false;

  for (;;) {
    Clock::time_point now = Clock::now();
    bool outputOpen = streams[0].fd >= 0 || streams[1].fd >= 0;
    if (phase == Phase::kExited) {
      if (!outputOpen) break;
      if (now >= next) {
        Say(id, "output still open after the program ended; no longer read");
        break;
      }
    } else if (phase == Phase::kRunning && (stopRequested || now >= deadline)) {
      Say(id, stopRequested ? "request closed; ending the program"
                            : "timed out after " + DurationText(settings.timeout) +
                                  "; ending the program");
      killpg(pid, SIGTERM);
      phase = Phase::kTerminating;
      next = now + settings.grace;
    } else if (phase == Phase::kTerminating && now >= next) {
      killpg(pid, SIGKILL);
      phase = Phase::kKilled;
    }

    pollfd fds[4];
    nfds_t count = 0;
    int streamSlot[2] = {-1, -1};
    for (int i = 0; i < 2; ++i) {
      if (streams[i].fd < 0) continue;
      streamSlot[i] = static_cast<int>(count);
      fds[count++] = {streams[i].fd, POLLIN, 0};
    }
    int exitSlot = -1, wakeSlot = -1;
    bool watchExit = phase != Phase::kExited;
    if (watchExit && exitFd >= 0) {
      exitSlot = static_cast<int>(count);
      fds[count++] = {exitFd, POLLIN, 0};
    }
    if (phase == Phase::kRunning) {
      wakeSlot = static_cast<int>(count);
      fds[count++] = {wake, POLLIN, 0};
    }
    int waitMs = -1;
    if (phase == Phase::kRunning || phase == Phase::kTerminating || phase == Phase::kExited) {
      auto left = std::chrono::ceil<std::chrono::milliseconds>(next - now).count();
      waitMs = static_cast<int>(std::clamp<int64_t>(left, 0, 60000));
    }
    if (watchExit && exitFd < 0) waitMs = waitMs < 0 ? kExitPollMs : std::min(waitMs, kExitPollMs);
    if (poll(fds, count, waitMs) < 0) {
      if (errno != EINTR && errno != EAGAIN) {
        Say(id, "poll failed: " + ErrorText(errno));
        break;  // cannot happen with valid descriptors; never spin
      }
      continue;
    }

    for (int i = 0; i < 2; ++i) {
      if (streamSlot[i] < 0 || !(fds[streamSlot[i]].revents & (POLLIN | POLLHUP | POLLERR)))
        continue;
      char buffer[16384];
      ssize_t got = read(streams[i].fd, buffer, sizeof buffer);
      if (got > 0) {
        relay.Feed(streams[i], buffer, static_cast<size_t>(got));
      } else if (got == 0 || (errno != EINTR && errno != EAGAIN)) {
        relay.Finish(streams[i]);
        CloseFd(&streams[i].fd);
      }
    }
    if (wakeSlot >= 0 && (fds[wakeSlot].revents & POLLIN)) {
      uint64_t value;
      ssize_t ignored = read(wake, &value, sizeof value);
      (void)ignored;
      std::lock_guard<std::mutex> hold(job.mutex);
      stopRequested = job.stopped;
    }
    if (watchExit && (exitSlot < 0 || fds[exitSlot].revents)) {
      info.si_pid = 0;
      if (waitid(P_PID, pid, &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == pid) {
        // The program has ended: what it left in its group goes too, then
        // it is reaped.
        killpg(pid, SIGKILL);
        waitid(P_PID, pid, &info, WEXITED);
        phase = Phase::kExited;
        next = Clock::now() + settings.grace;
      }
    }
  }

  for (auto& stream : streams) CloseFd(&stream.fd);
  if (exitFd >= 0) close(exitFd);
  release();
  return ExitCode(info);
}

struct Destination {
  int running = 0;  // runner threads serving the destination
  std::deque<std::shared_ptr<Job>> waiting;
};

// What a driver and its runner threads share; lives as long as either.
struct Shared {
  explicit Shared(LocalSettings s) : settings(std::move(s)) {}
  const LocalSettings settings;
  std::mutex mutex;  // guards destinations
  std::map<std::string, Destination> destinations;
};

// The next waiting action of `name` that is still wanted, or null when the
// calling runner is to end (it is then no longer counted).
std::shared_ptr<Job> NextJob(Shared& shared, const std::string& name) {
  std::vector<std::shared_ptr<Job>> unwanted;  // released outside the lock
  std::lock_guard<std::mutex> hold(shared.mutex);
  auto found = shared.destinations.find(name);
  Destination& destination = found->second;
  while (!destination.waiting.empty()) {
    std::shared_ptr<Job> job = std::move(destination.waiting.front());
    destination.waiting.pop_front();
    if (!job->done->Closed()) return job;
    unwanted.push_back(std::move(job));
  }
  if (--destination.running == 0) shared.destinations.erase(found);
  return nullptr;
}

void Runner(std::shared_ptr<Shared> shared, std::shared_ptr<Job> job) {
  while (job) {
    if (!job->done->Closed()) {
      int code = Execute(shared->settings, *job);
      job->done->Rows({code});
    }
    std::string destination = job->action.destination;
    job.reset();
    job = NextJob(*shared, destination);
  }
  shared.reset();
  RunnerEnded();
}

void StartRunner(const std::shared_ptr<Shared>& shared, std::shared_ptr<Job> job) {
  runners().live.fetch_add(1);
  try {
    std::thread(Runner, shared, job).detach();
  } catch (const std::system_error& error) {
    RunnerEnded();
    // The action waits for the next runner of its destination; if none
    // comes, the module gives up on it after its own time limit.
    Say(job->action.requestId,
        std::string("cannot start a thread now (") + error.what() + "); the action waits");
    std::lock_guard<std::mutex> hold(shared->mutex);
    Destination& destination = shared->destinations[job->action.destination];
    destination.waiting.push_front(std::move(job));
    --destination.running;
  }
}

class LocalDriver final : public Driver {
 public:
  explicit LocalDriver(LocalSettings settings)
      : shared_(std::make_shared<Shared>(std::move(settings))) {}

  void Start(const Action& action, std::shared_ptr<Completion> done) override {
    auto job = std::make_shared<Job>();
    job->action = action;
    job->done = done;
    std::weak_ptr<Job> weak = job;
    done->OnClose([weak] {
      if (auto closed = weak.lock()) closed->Stop();
    });
    {
      std::lock_guard<std::mutex> hold(shared_->mutex);
      Destination& destination = shared_->destinations[action.destination];
      if (destination.running >= shared_->settings.maxRunning) {
        destination.waiting.push_back(std::move(job));
        return;
      }
      ++destination.running;
    }
    StartRunner(shared_, std::move(job));
  }

 private:
  std::shared_ptr<Shared> shared_;
};

}  // namespace

bool SplitCommand(std::string_view command, std::vector<std::string>* words,
                  std::string* error) {
  words->clear();
  if (command.find('\0') != std::string_view::npos) {
    *error = "the command holds a NUL character";
    return false;
  }
  bool inWord = false, quoted = false;
  for (char c : command) {
    if (c == '"') {
      quoted = !quoted;
      if (!inWord) words->emplace_back();  // "" is an empty word
      inWord = true;
    } else if (!quoted && kBlanks.find(c) != std::string_view::npos) {
      inWord = false;
    } else {
      if (!inWord) words->emplace_back();
      inWord = true;
      words->back() += c;
    }
  }
  if (quoted) {
    *error = "a double quote is not closed";
    return false;
  }
  return true;
}

bool ValidProgramName(std::string_view name) {
  return !name.empty() && name.size() <= 255 && name.front() != '.' &&
         name.find('/') == std::string_view::npos;
}

bool ParseLocalOptions(const std::vector<std::string>& options, LocalSettings* settings,
                       std::string* error) {
  bool haveTimeout = false, haveMax = false;
  for (const std::string& option : options) {
    size_t equals = option.find('=');
    std::string_view key = std::string_view(option).substr(0, equals);
    std::string_view value =
        equals == std::string::npos ? std::string_view() : std::string_view(option).substr(equals + 1);
    int64_t number;
    if (key == "timeout" && equals != std::string::npos && !haveTimeout) {
      if (!ParseNumber(value, &number, 1, 86400)) {
        *error = "local: bad timeout \"" + option + "\" (whole seconds, 1 to 86400)";
        return false;
      }
      settings->timeout = std::chrono::seconds(number);
      haveTimeout = true;
    } else if (key == "max" && equals != std::string::npos && !haveMax) {
      if (!ParseNumber(value, &number, 1, 4096)) {
        *error = "local: bad max \"" + option + "\" (1 to 4096)";
        return false;
      }
      settings->maxRunning = static_cast<int>(number);
      haveMax = true;
    } else if (key == "timeout" || key == "max") {
      *error = "local: \"" + option + "\" given twice or without a value";
      return false;
    } else {
      *error = "local: unknown option \"" + option + "\" (timeout=S, max=N)";
      return false;
    }
  }
  return true;
}

DriverFactory LocalDriverFactory(const std::string& actionsDir) {
  return [actionsDir](const std::vector<std::string>& options,
                      std::string* error) -> std::unique_ptr<Driver> {
    LocalSettings settings;
    settings.actionsDir = actionsDir;
    std::string reason;
    if (!ParseLocalOptions(options, &settings, &reason)) {
      if (error) *error = reason;
      return nullptr;
    }
    return std::make_unique<LocalDriver>(std::move(settings));
  };
}

int64_t LiveLocalRunners() { return runners().live.load(); }

bool WaitForLocalRunners(std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> hold(runners().mutex);
  return runners().idle.wait_for(hold, limit, [] { return runners().live.load() == 0; });
}

}  // namespace qmta::host
