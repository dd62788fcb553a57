// The "local" destination driver (see local.h): its runner threads, the
// queue of each destination, and its options. The steps of one action are
// in the other files of this folder (internal.h).
//
// Threads: Start, on the module's action thread, never runs a program
// itself. It hands the action to a runner thread of the destination, or
// queues it when the destination already runs its maximum; a runner that
// finishes takes the next queued action of its destination and ends when
// there is none. A runner answers the action's completion itself.
#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <system_error>
#include <thread>

#include "host/common/number.h"
#include "host/drivers/local/internal.h"

namespace qmta::host {
namespace {

using local::Job;
using local::SayFor;

// Runner threads alive. Never destroyed: a detached runner may still be
// leaving while the process exits.
struct Runners {
  // Pairs with idle: taken by a runner leaving and by WaitForLocalRunners,
  // so that the last runner's wake-up is never missed.
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

// Runs the program of `job` to its end and returns its return code;
// `*ran` tells whether the program was started.
int RunProgram(const LocalSettings& settings, Job& job, local::Output& output, bool* ran) {
  local::Program program;
  if (!local::ResolveProgram(settings.actionsDir, job.action, &program, output)) return 127;
  local::Started started;
  if (int code = local::StartProgram(job, program, &started, output)) return code;
  *ran = true;
  int code = local::WatchProgram(settings, job, started, output);
  local::ReleaseWake(job);
  return code;
}

// The same, once what it said has been written (unless standard error is
// blocked); the output and exit go to the completion's detail.
int Execute(const LocalSettings& settings, Job& job) {
  local::Output output(job.action.requestId);
  bool ran = false;
  int code = RunProgram(settings, job, output, &ran);
  output.End();
  ActionDetail detail;
  detail.output = std::move(output.captured);
  detail.outputCut = output.cut;
  detail.signal = job.exitSignal;
  if (ran && job.exitSignal == 0) detail.exitStatus = code;
  job.done->Detail(std::move(detail));
  return code;
}

struct Destination {
  int running = 0;  // runner threads serving the destination
  std::deque<std::shared_ptr<Job>> waiting;
};

// What a driver and its runner threads share; lives as long as either.
struct Shared {
  explicit Shared(LocalSettings s) : settings(std::move(s)) {}
  const LocalSettings settings;
  // Guards destinations: taken by the module's action threads starting an
  // action (Start) and by the runner threads taking the next action of
  // their destination or leaving it.
  std::mutex mutex;
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
    SayFor(job->action.requestId,
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
