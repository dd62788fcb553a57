// The "sim" driver, which answers every action the way its options say,
// and "offline", which reports every destination offline (see sim.h).
// Both complete from the one sim timer thread, after a delay or at once.
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <string_view>
#include <thread>
#include <utility>

#include "host/common/number.h"
#include "host/drivers/sim.h"
#include "platform/dbq1.h"

namespace qmta::host {
namespace {

using Clock = std::chrono::steady_clock;

// What a sim open completes with.
struct Outcome {
  bool silent = false;       // never completes until closed
  int32_t status = DBQ1_OK;  // non-zero: Fail(status)
  std::vector<int32_t> rows;
};

// Completes opens when they fall due. Process-wide and never destroyed;
// its single thread starts with the first scheduled open.
class SimTimer {
 public:
  static SimTimer& Instance() {
    static SimTimer* timer = new SimTimer;
    return *timer;
  }

  // Schedules `outcome` for `done` after `delay`. Throws when the timer
  // thread cannot be started.
  void Schedule(std::chrono::milliseconds delay, const std::shared_ptr<Completion>& done,
                const Outcome& outcome) {
    uint64_t id;
    {
      std::lock_guard<std::mutex> hold(mutex_);
      if (!started_) {
        std::thread([this] { Run(); }).detach();
        started_ = true;
      }
      id = nextId_++;
      Clock::time_point due = Clock::now() + delay;
      pending_.emplace(id, Pending{due, done, outcome});
      due_.emplace(due, id);
    }
    ready_.notify_one();
    // Closing the open removes it, so a closed open is not kept until due.
    done->OnClose([this, id] { Cancel(id); });
  }

 private:
  struct Pending {
    Clock::time_point due;
    std::shared_ptr<Completion> done;
    Outcome outcome;
  };

  void Cancel(uint64_t id) {
    std::shared_ptr<Completion> done;  // released outside the lock
    std::lock_guard<std::mutex> hold(mutex_);
    auto found = pending_.find(id);
    if (found == pending_.end()) return;
    done = std::move(found->second.done);
    due_.erase({found->second.due, id});
    pending_.erase(found);
  }

  void Run() {
    std::unique_lock<std::mutex> hold(mutex_);
    for (;;) {
      if (due_.empty()) {
        ready_.wait(hold);
        continue;
      }
      auto first = due_.begin();
      Clock::time_point due = first->first;  // the node may go while we wait
      if (due > Clock::now()) {
        ready_.wait_until(hold, due);
        continue;
      }
      auto found = pending_.find(first->second);
      Pending item = std::move(found->second);
      pending_.erase(found);
      due_.erase(first);
      hold.unlock();
      if (item.outcome.status != DBQ1_OK)
        item.done->Fail(item.outcome.status);
      else
        item.done->Rows(std::move(item.outcome.rows));
      item.done.reset();
      hold.lock();
    }
  }

  // Guards everything below: taken by the action threads scheduling an
  // open (Schedule), by whoever closes one (Cancel) and by the timer thread
  // (Run), which lets go of it while it completes an open.
  std::mutex mutex_;
  std::condition_variable ready_;
  bool started_ = false;
  uint64_t nextId_ = 1;
  std::map<uint64_t, Pending> pending_;
  std::set<std::pair<Clock::time_point, uint64_t>> due_;
};

class SimDriver final : public Driver {
 public:
  SimDriver(Outcome outcome, std::chrono::milliseconds delay)
      : outcome_(std::move(outcome)), delay_(delay) {}

  void Start(const Action& /*action*/, std::shared_ptr<Completion> done) override {
    if (outcome_.silent) return;  // the open waits until it is closed
    SimTimer::Instance().Schedule(delay_, done, outcome_);
  }

 private:
  const Outcome outcome_;
  const std::chrono::milliseconds delay_;
};

std::unique_ptr<Driver> MakeSimDriver(const std::vector<std::string>& options,
                                      std::string* error) {
  Outcome outcome;
  int outcomes = 0;
  int32_t delay = 0;
  bool haveDelay = false;
  auto fail = [error](const std::string& reason) {
    if (error) *error = "sim: " + reason;
    return nullptr;
  };
  for (const std::string& option : options) {
    std::string_view word(option);
    size_t equals = word.find('=');
    std::string_view key = word.substr(0, equals);
    std::string_view value = equals == std::string_view::npos ? "" : word.substr(equals + 1);
    bool hasValue = equals != std::string_view::npos;
    if (key == "delay" && hasValue) {
      if (haveDelay || !ParseNumber(value, &delay, 0))
        return fail("bad delay \"" + option + "\"");
      haveDelay = true;
      continue;
    }
    ++outcomes;
    if (key == "rc" && hasValue) {
      for (;;) {
        size_t comma = value.find(',');
        int32_t code;
        if (!ParseNumber(value.substr(0, comma), &code))
          return fail("bad return code in \"" + option + "\"");
        outcome.rows.push_back(code);
        if (comma == std::string_view::npos) break;
        value.remove_prefix(comma + 1);
      }
    } else if (key == "status" && hasValue) {
      if (!ParseNumber(value, &outcome.status) || outcome.status == DBQ1_OK)
        return fail("bad status \"" + option + "\"");
    } else if (option == "norows") {
    } else if (option == "offline") {
      outcome.status = DBQ1_DEST_OFFLINE;
    } else if (option == "silent") {
      outcome.silent = true;
    } else {
      return fail("unknown option \"" + option + "\"");
    }
  }
  if (outcomes != 1)
    return fail("needs exactly one of rc=N[,N...], norows, offline, status=N, silent");
  if (outcome.silent && haveDelay) return fail("silent takes no delay");
  return std::make_unique<SimDriver>(std::move(outcome), std::chrono::milliseconds(delay));
}

std::unique_ptr<Driver> MakeOfflineDriver(const std::vector<std::string>& options,
                                          std::string* error) {
  if (!options.empty()) {
    if (error) *error = "offline: takes no options";
    return nullptr;
  }
  Outcome outcome;
  outcome.status = DBQ1_DEST_OFFLINE;
  return std::make_unique<SimDriver>(std::move(outcome), std::chrono::milliseconds(0));
}

}  // namespace

void RegisterStandardDrivers() {
  RegisterDriver("sim", MakeSimDriver);
  RegisterDriver("offline", MakeOfflineDriver);
}

}  // namespace qmta::host
