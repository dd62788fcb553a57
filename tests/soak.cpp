// qmtasoak: the module under sustained load, checked as it runs.
//
// Several threads deliver situation events whose rules send actions to sim
// destinations with every outcome (rows, no rows, offline on either kind of
// stack, errors, delays, and a few silent ones whose 60-second wait the
// shifted host clock ends in about a second), while another thread
// alternates REFRESH between two rule files and runs DISPLAY after each.
// The module's standard output is read through a pipe, line by line, and
// checked as it comes:
//   - every QMTA040I carries a request id never seen before, followed at
//     once by its QMTA041I;
//   - every action that started reports exactly one outcome, the one its
//     destination gives (by request id where the message has one, by count
//     where it has none), and as many actions start as the events' rules
//     ask for;
//   - no other message appears.
// A sampler takes each request stack's lock every 100 ms and checks its
// counters (0 <= freeCount <= totalCount, and the free list holds
// freeCount entries), and samples the resident set size every second.
// After the load stops: no action is live, the stacks hold what DISPLAY
// shows, the query service holds no request beyond those resting on the
// stacks, and the resident set grew by no more than the allowed margin
// after warm-up.
//
//   qmtasoak [--threads N] [--seconds S] [--reload-ms M] [--pause-us U]
//            [--silent-every K] [--wait-ms W] [--rss-growth-mb G]
//
// Exits 0 when every check held; prints its figures either way.
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "host/drivers/sim.h"
#include "host/services/control.h"
#include "host/services/testhooks.h"
#include "qmtauto1/qmtafault.h"
#include "qmtauto1/qmtauto1.h"
#include "tests/support/support.h"

// A sanitizer's allocator keeps freed memory in quarantine, or shadows it,
// so the resident set says nothing about leaks there: it is then shown but
// not judged.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kJudgeMemory = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kJudgeMemory = false;
#else
constexpr bool kJudgeMemory = true;
#endif
#else
constexpr bool kJudgeMemory = true;
#endif

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

struct Options {
  int threads = 4;
  int seconds = 10;
  int reloadMs = 50;
  int pauseUs = 2000;
  int silentEvery = 400;
  int waitMs = 1000;
  int rssGrowthMb = 16;
};

// ---- Destinations and rules ------------------------------------------------

// What each destination answers, and so what its actions must report.
enum Dest { kRows, kVx, kEmpty, kOffVx, kDown, kErr, kSlow, kSilent, kDestCount };
const char* const kDestNames[kDestCount] = {
    "ROWS", "VX:MVS_ACTIONS", "EMPTY:SNMP_TRAP", "OFF:MVS_ACTIONS",
    "DOWN", "ERR:SNMP_TRAP",  "SLOW",            "SILENT"};

const char kDirectory[] =
    "ROWS sim rc=0,4 delay=2\n"
    "VX:MVS_ACTIONS sim rc=7 delay=20\n"
    "EMPTY:SNMP_TRAP sim norows delay=5\n"
    "OFF:MVS_ACTIONS sim offline delay=1\n"
    "DOWN sim offline\n"
    "ERR:SNMP_TRAP sim status=106 delay=10\n"
    "SLOW sim rc=1 delay=150\n"
    "SILENT sim silent\n";

// Both sets send each situation to the same destinations, in a different
// order, with different scripts and arguments, so an event starts the same
// actions whichever set is loaded.
const char kRulesA[] =
    "* soak rules, set A\n"
    "SITNAME=Disk* STATE=TRUE DESTNODE=ROWS SCRIPT=clean ARG1=SITNAME ARG2=Disk.Name\n"
    "  ARG3=THRESHOLD;\n"
    "SITNAME=Disk* ORIGINNODE=host* DESTNODE=VX:MVS_ACTIONS CALLTYPE=3 SCRIPT=vx\n"
    "  ARG1=NODE ARG2=Disk.Free;\n"
    "SITNAME=*_Low STATE=ANY DESTNODE=EMPTY:SNMP_TRAP;\n"
    "SITNAME=Mem_* STATE=ANY DESTNODE=OFF:MVS_ACTIONS ARG1=CURRSTATE;\n"
    "SITNAME=Net_Down DESTNODE=DOWN;\n"
    "SITNAME=Net* DESTNODE=ERR:SNMP_TRAP SUBAGENT=trap;\n"
    "SITNAME=Cpu_Slow DESTNODE=SLOW ARG1=TIMESTAMP ARG2=\"%s%n\";\n"
    "SITNAME=Hang DESTNODE=SILENT;\n";
const char kRulesB[] =
    "* soak rules, set B: same routes, other order and commands\n"
    "SITNAME=Hang STATE=ANY DESTNODE=SILENT SCRIPT=hang;\n"
    "SITNAME=Net* DESTNODE=ERR:SNMP_TRAP ARG1=SITNAME;\n"
    "SITNAME=Disk* STATE=FALSE DESTNODE=ROWS SCRIPT=never;\n"
    "SITNAME=*Slow DESTNODE=SLOW SCRIPT=slow ARG1=PRESTATE ARG2=CURRSTATE;\n"
    "SITNAME=Disk* ORIGINNODE=host* STATE=ANY DESTNODE=VX:MVS_ACTIONS SCRIPT=vx2\n"
    "  ARG1=Disk.Free ARG2=NODE ARG3=\"literal; kept\";\n"
    "SITNAME=Disk* DESTNODE=ROWS SCRIPT=clean2 ARG1=Disk.Name;\n"
    "SITNAME=Mem_Low DESTNODE=OFF:MVS_ACTIONS;\n"
    "SITNAME=Mem_Low DESTNODE=EMPTY:SNMP_TRAP SCRIPT=empty;\n"
    "SITNAME=Net_Down DESTNODE=DOWN SCRIPT=down;\n"
    "SITNAME=Nothing* DESTNODE=ROWS;\n";

// The situations the event threads deliver and how many actions each starts.
struct Situation {
  const char* name;
  int actions;
};
const Situation kDisk{"Disk_Full", 2}, kMem{"Mem_Low", 2}, kNet{"Net_Down", 2},
    kCpu{"Cpu_Slow", 1}, kHang{"Hang", 1}, kQuiet{"Quiet_Time", 0};

// ---- The ledger: every line the module prints, checked -------------------

class Ledger {
 public:
  // One line of the module's output, without its line end.
  void Line(std::string_view line) {
    std::lock_guard<std::mutex> hold(mutex_);
    ++lines_;
    bool expectCommand = expectCommand_;
    expectCommand_ = false;
    if (expectCommand && !line.starts_with("QMTA041I CMD=")) Anomaly("040I without 041I", line);

    if (line.starts_with("QMTA040I ACTION STARTED FOR ")) return Started(line);
    if (line.starts_with("QMTA041I CMD=")) {
      if (!expectCommand) Anomaly("041I not after its 040I", line);
      return;
    }
    if (line.starts_with("QMTA050I ACTION COMPLETED FOR ")) return Completed(line);
    if (line.starts_with("QMTA051W DESTNODE=")) return Finished(line, {kEmpty, kOffVx});
    if (line.starts_with("QMTA042E NO RESPONSE FROM DESTNODE=")) {
      if (line.find(" ERRNO=0 ") == std::string_view::npos) Anomaly("wait failed", line);
      ++timeouts_;
      return Finished(line, {kSilent});
    }
    if (line == "QMTA030E SELECT SQL ERROR ON ASYNCH OPEN COMPLETE STATUS=2020")
      return Counted(kDown, line);
    if (line == "QMTA030E SELECT SQL ERROR ON ASYNCH OPEN COMPLETE STATUS=106")
      return Counted(kErr, line);
    if (line == "QMTA030E SELECT SQL ERROR ON FETCH STATUS=104") {
      // The output step tried after a time-out finds the cursor closed.
      if (++fetchAfterTimeout_ > timeouts_) Anomaly("fetch error without a time-out", line);
      return;
    }
    if (line == "QMTA090I QMTASITR REFRESHED.  STATUS=0") {
      ++reloads_;
      return;
    }
    if (line == "QMTA093I ACTION ENVIRONMENT INITIALIZE") {
      if (++initialised_ > 1) Anomaly("initialised twice", line);
      return;
    }
    if (line.starts_with("QMTA100I STACK SIZES:  ")) return StackSizes(line);
    if (line.starts_with("QMTA094I ") || line.starts_with("QMTA095I ") ||
        line.starts_with("QMTA096I ") || line.starts_with("QMTA097I "))
      return;
    if (line == kEndMarker) {
      ended_ = true;
      endedCv_.notify_all();
      return;
    }
    Anomaly("unexpected line", line);
  }

  // Waits until the reader has passed the end marker.
  bool WaitForEnd(std::chrono::seconds limit) {
    std::unique_lock<std::mutex> hold(mutex_);
    return endedCv_.wait_for(hold, limit, [this] { return ended_; });
  }

  void Anomaly(const std::string& what, std::string_view line) {
    ++anomalies_;
    if (anomalies_ <= 20) notes_.push_back(what + ": " + std::string(line));
  }
  void AnomalyLocked(const std::string& what, std::string_view line) {
    std::lock_guard<std::mutex> hold(mutex_);
    Anomaly(what, line);
  }

  static constexpr const char* kEndMarker = "SOAK END OF OUTPUT";

  std::mutex mutex_;  // guards everything below
  std::condition_variable endedCv_;
  bool ended_ = false;
  bool expectCommand_ = false;
  int64_t lines_ = 0;
  int64_t starts_ = 0;
  int64_t startsTo_[kDestCount] = {};
  int64_t outcomesOf_[kDestCount] = {};
  int64_t timeouts_ = 0;
  int64_t fetchAfterTimeout_ = 0;
  int64_t reloads_ = 0;
  int64_t initialised_ = 0;
  int64_t anomalies_ = 0;
  std::vector<std::string> notes_;
  // Actions whose outcome carries their id, by id: destination, rows seen.
  std::unordered_map<uint32_t, std::pair<Dest, int>> open_;
  size_t openPeak_ = 0;
  // Ids seen: all up to `idMark_`, and those above it in `idsAbove_`.
  uint32_t idMark_ = 0;
  std::set<uint32_t> idsAbove_;
  // The latest DISPLAY counters: VX, RM, SNMP as free/total.
  int32_t shownFree_[3] = {}, shownTotal_[3] = {};
  int64_t displays_ = 0;

 private:
  static bool Number(std::string_view line, std::string_view key, int64_t* value) {
    size_t at = line.find(key);
    if (at == std::string_view::npos) return false;
    std::string digits(line.substr(at + key.size()));
    char* end = nullptr;
    *value = strtoll(digits.c_str(), &end, 10);
    return end != digits.c_str();
  }
  static bool Destination(std::string_view line, Dest* dest) {
    size_t at = line.find("DESTNODE=");
    if (at == std::string_view::npos) return false;
    std::string_view rest = line.substr(at + 9);
    rest = rest.substr(0, rest.find(' '));
    for (int d = 0; d < kDestCount; ++d)
      if (rest == kDestNames[d]) {
        *dest = static_cast<Dest>(d);
        return true;
      }
    return false;
  }

  void Started(std::string_view line) {
    int64_t id = 0;
    Dest dest;
    if (!Number(line, " REQUESTID=", &id) || !Destination(line, &dest))
      return Anomaly("unreadable start", line);
    expectCommand_ = true;
    ++starts_;
    ++startsTo_[dest];
    auto value = static_cast<uint32_t>(id);
    if (value <= idMark_ || !idsAbove_.insert(value).second)
      Anomaly("request id handed out twice", line);
    while (!idsAbove_.empty() && *idsAbove_.begin() == idMark_ + 1) {
      idsAbove_.erase(idsAbove_.begin());
      ++idMark_;
    }
    if (dest == kDown || dest == kErr) return;  // their outcome has no id
    open_.emplace(value, std::make_pair(dest, 0));
    openPeak_ = std::max(openPeak_, open_.size());
  }

  void Completed(std::string_view line) {
    int64_t id = 0, rc = 0;
    Dest dest;
    if (!Number(line, " REQUESTID=", &id) || !Number(line, " RC=", &rc) ||
        !Destination(line, &dest))
      return Anomaly("unreadable completion", line);
    auto found = open_.find(static_cast<uint32_t>(id));
    if (found == open_.end()) return Anomaly("completion of no running action", line);
    if (found->second.first != dest) return Anomaly("completion from another destination", line);
    int row = found->second.second++;
    const std::vector<int64_t> rows = dest == kRows ? std::vector<int64_t>{0, 4}
                                      : dest == kVx ? std::vector<int64_t>{7}
                                      : dest == kSlow ? std::vector<int64_t>{1}
                                                      : std::vector<int64_t>{};
    if (row >= static_cast<int>(rows.size()) || rows[row] != rc)
      return Anomaly("unexpected row", line);
    if (row + 1 == static_cast<int>(rows.size())) {
      ++outcomesOf_[dest];
      open_.erase(found);
    }
  }

  void Finished(std::string_view line, std::initializer_list<Dest> allowed) {
    int64_t id = 0;
    Dest dest;
    if (!Number(line, " REQUESTID=", &id) || !Destination(line, &dest))
      return Anomaly("unreadable outcome", line);
    auto found = open_.find(static_cast<uint32_t>(id));
    if (found == open_.end()) return Anomaly("outcome of no running action", line);
    if (found->second.first != dest || found->second.second != 0 ||
        std::find(allowed.begin(), allowed.end(), dest) == allowed.end())
      return Anomaly("outcome the destination does not give", line);
    ++outcomesOf_[dest];
    open_.erase(found);
  }

  void Counted(Dest dest, std::string_view line) {
    if (++outcomesOf_[dest] > startsTo_[dest]) Anomaly("more outcomes than starts", line);
  }

  void StackSizes(std::string_view line) {
    const char* keys[3] = {"VX=", "RM=", "SNMP="};
    for (int s = 0; s < 3; ++s) {
      size_t at = line.find(keys[s]);
      int free = 0, total = 0;
      if (at == std::string_view::npos ||
          sscanf(std::string(line.substr(at + strlen(keys[s]))).c_str(), "%d/%d", &free,
                 &total) != 2)
        return Anomaly("unreadable stack sizes", line);
      // Read without locks while actions run: each counter on its own is
      // sane, though the pair may come from different moments.
      if (free < 0 || total < 0) Anomaly("negative stack counter", line);
      shownFree_[s] = free;
      shownTotal_[s] = total;
    }
    ++displays_;
  }
};

// ---- Standard output through a pipe ------------------------------------------

class OutputReader {
 public:
  explicit OutputReader(Ledger& ledger) : ledger_(ledger) {
    fflush(stdout);
    int fds[2];
    if (pipe(fds) != 0) {
      perror("qmtasoak: pipe");
      exit(2);
    }
    saved_ = dup(1);
    dup2(fds[1], 1);
    close(fds[1]);
    readEnd_ = fds[0];
    thread_ = std::thread([this] { Run(); });
  }
  // Puts standard output back; the reader ends at the end of the pipe.
  void Close() {
    fflush(stdout);
    dup2(saved_, 1);
    thread_.join();
    close(readEnd_);
  }

 private:
  void Run() {
    std::string pending;
    char buffer[65536];
    for (;;) {
      ssize_t got = read(readEnd_, buffer, sizeof buffer);
      if (got <= 0) break;
      pending.append(buffer, static_cast<size_t>(got));
      size_t start = 0;
      for (size_t end; (end = pending.find('\n', start)) != std::string::npos; start = end + 1)
        ledger_.Line(std::string_view(pending).substr(start, end - start));
      pending.erase(0, start);
    }
    if (!pending.empty()) ledger_.Line(pending);
  }

  Ledger& ledger_;
  int saved_ = -1;
  int readEnd_ = -1;
  std::thread thread_;
};

// ---- Stacks and memory ----------------------------------------------------------

struct StackView {
  int32_t free = 0, total = 0, listed = 0;
};

// One stack's counters and free list, read under the stack's own lock.
StackView ReadStack(RSTK& stack) {
  StackView view;
  pthread_mutex_lock(&stack.stackLock);
  view.free = stack.freeCount;
  view.total = stack.totalCount;
  for (RSEN* entry = stack.top; entry != nullptr && view.listed <= view.free + 1;
       entry = entry->next)
    ++view.listed;
  pthread_mutex_unlock(&stack.stackLock);
  return view;
}

int64_t ResidentKb() {
  FILE* statm = fopen("/proc/self/statm", "r");
  if (statm == nullptr) return 0;
  long size = 0, resident = 0;
  int got = fscanf(statm, "%ld %ld", &size, &resident);
  fclose(statm);
  return got == 2 ? resident * (sysconf(_SC_PAGESIZE) / 1024) : 0;
}

bool ParseOptions(int argc, char** argv, Options* options) {
  struct Flag {
    const char* name;
    int* value;
    int minimum;
  } flags[] = {{"--threads", &options->threads, 1},
               {"--seconds", &options->seconds, 1},
               {"--reload-ms", &options->reloadMs, 1},
               {"--pause-us", &options->pauseUs, 0},
               {"--silent-every", &options->silentEvery, 0},
               {"--wait-ms", &options->waitMs, 200},
               {"--rss-growth-mb", &options->rssGrowthMb, 0}};
  for (int i = 1; i < argc; ++i) {
    bool known = false;
    for (const Flag& flag : flags) {
      if (strcmp(argv[i], flag.name) != 0) continue;
      char* end = nullptr;
      long value = i + 1 < argc ? strtol(argv[i + 1], &end, 10) : 0;
      if (i + 1 >= argc || *end != '\0' || value < flag.minimum || value > 1000000000) {
        fprintf(stderr, "qmtasoak: bad value for %s\n", flag.name);
        return false;
      }
      *flag.value = static_cast<int>(value);
      known = true;
      ++i;
    }
    if (!known) {
      fprintf(stderr,
              "usage: qmtasoak [--threads N] [--seconds S] [--reload-ms M] [--pause-us U]\n"
              "                [--silent-every K] [--wait-ms W] [--rss-growth-mb G]\n");
      return false;
    }
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, &options)) return 2;

  qmtatest::ScratchDir dir;
  dir.Write("QMTASITR", kRulesA);
  std::string error;
  qmta::host::RegisterStandardDrivers();
  if (!qmta::host::SetDestinations(kDirectory, &error)) {
    fprintf(stderr, "qmtasoak: %s\n", error.c_str());
    return 2;
  }
  // The module waits 60 seconds by the host's clock: set back, the wait of
  // a silent destination ends after --wait-ms.
  qmta::host::SetClockShift(std::chrono::milliseconds(options.waitMs) - 60s);

  Ledger ledger;
  OutputReader reader(ledger);
  qmtatest::Module module;
  DBQ1_Handle path = qmta::host::OwnPath();
  auto fire = [&](const char* sitname, const std::string& node, const char* const* names,
                  const char* const* values, int count) {
    return module.autoexit(sitname, node.c_str(), 0, 1, "1261116000509000", count, names,
                           values, "Disk.Free<\"10\"", &path, 0);
  };

  // The first event sets the environment up, outside the data server: from
  // now on every event's path is copied into the stacks.
  const char* const names[] = {"Disk.Name", "Disk.Free", "Other"};
  const char* const values[] = {"/var", "5", "x \"y\""};
  int64_t badResults = fire(kQuiet.name, "host0", names, values, 3) != 0;
  QmtaTestState state{};
  reinterpret_cast<void (*)(QmtaTestState*)>(module.Symbol("qmtatest_state"))(&state);
  auto* table = static_cast<AutomationAnchor*>(state.tableAnchor);
  if (table == nullptr || state.automationFlag != 1) {
    reader.Close();
    fprintf(stderr, "qmtasoak: the module did not start\n");
    return 1;
  }
  qmta::host::WaitForActions(10s);
  // What the query service holds apart from the requests resting on stacks
  // (paths, plans): the same again after the run.
  auto restingRequests = [&] {
    int64_t sum = 0;
    for (RSTK& stack : table->stacks) sum += ReadStack(stack).free;
    return sum;
  };
  const int64_t baseObjects = qmta::host::LiveObjects() - restingRequests();

  const auto begin = Clock::now();
  const auto end = begin + std::chrono::seconds(options.seconds);
  std::atomic<bool> stop{false};
  std::atomic<int64_t> events{0}, expectedActions{0}, results{badResults};

  std::vector<std::thread> threads;
  for (int t = 0; t < options.threads; ++t)
    threads.emplace_back([&, t] {
      std::mt19937 random(1234 + t);
      int64_t mine = 0, actions = 0, bad = 0;
      for (int64_t n = 0; !stop.load(std::memory_order_relaxed); ++n) {
        const Situation* s;
        if (options.silentEvery > 0 && random() % options.silentEvery == 0) {
          s = &kHang;
        } else {
          switch (random() % 10) {
            case 0: case 1: case 2: case 3: s = &kDisk; break;
            case 4: case 5: s = &kMem; break;
            case 6: s = &kNet; break;
            case 7: s = &kCpu; break;
            default: s = &kQuiet; break;
          }
        }
        std::string node = "host" + std::to_string(t) + "-" + std::to_string(n % 100);
        bad += fire(s->name, node, names, values, 3) != 0;
        ++mine;
        actions += s->actions;
        if (options.pauseUs > 0) std::this_thread::sleep_for(std::chrono::microseconds(options.pauseUs));
      }
      events += mine;
      expectedActions += actions;
      results += bad;
    });

  // Reloads, alternating the two sets, each followed by DISPLAY. The file
  // is replaced whole, so a load never reads half of it.
  std::atomic<int64_t> refreshes{0}, refreshBad{0};
  std::atomic<int64_t> slowestReloadUs{0};
  std::thread reloads([&] {
    for (int64_t n = 0; !stop.load(std::memory_order_relaxed); ++n) {
      std::this_thread::sleep_for(std::chrono::milliseconds(options.reloadMs));
      dir.Write("QMTASITR.new", n % 2 ? kRulesA : kRulesB);
      std::filesystem::rename(dir.path() + "/QMTASITR.new", dir.path() + "/QMTASITR");
      auto started = Clock::now();
      refreshBad += module.Command("REFRESH") != 0;
      int64_t took = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - started).count();
      if (took > slowestReloadUs.load()) slowestReloadUs.store(took);
      ++refreshes;
      module.Command("DISPLAY");
    }
  });

  // Stacks every 100 ms, memory every second, until the end.
  std::vector<std::pair<double, int64_t>> rss;  // seconds since begin, KB
  int64_t stackChecks = 0, stackFaults = 0;
  auto lastRss = Clock::now() - 1s;
  while (Clock::now() < end) {
    std::this_thread::sleep_for(100ms);
    for (RSTK& stack : table->stacks) {
      StackView view = ReadStack(stack);
      ++stackChecks;
      if (view.total < 0 || view.free < 0 || view.free > view.total || view.listed != view.free) {
        ++stackFaults;
        ledger.AnomalyLocked("stack counters", "free=" + std::to_string(view.free) + " total=" +
                                                   std::to_string(view.total) + " listed=" +
                                                   std::to_string(view.listed));
      }
    }
    if (Clock::now() - lastRss >= 1s) {
      lastRss = Clock::now();
      rss.emplace_back(std::chrono::duration<double>(lastRss - begin).count(), ResidentKb());
    }
  }
  stop.store(true);
  for (auto& thread : threads) thread.join();
  reloads.join();
  const double loadSeconds = std::chrono::duration<double>(Clock::now() - begin).count();

  // Quiet: every action ends (the slowest waits about --wait-ms).
  bool quiet = qmta::host::WaitForActions(std::chrono::seconds(60 + options.waitMs / 1000));
  int64_t live = qmta::host::LiveActions();
  StackView views[3];
  for (int s = 0; s < 3; ++s) views[s] = ReadStack(table->stacks[s]);
  module.Command("DISPLAY");
  const int64_t objects = qmta::host::LiveObjects() - restingRequests();
  printf("%s\n", Ledger::kEndMarker);
  fflush(stdout);
  bool ended = ledger.WaitForEnd(30s);
  reader.Close();
  rss.emplace_back(std::chrono::duration<double>(Clock::now() - begin).count(), ResidentKb());

  // ---- Verdict -------------------------------------------------------------
  std::vector<std::string> failures;
  std::lock_guard<std::mutex> hold(ledger.mutex_);
  auto require = [&](bool ok, const std::string& what) {
    if (!ok) failures.push_back(what);
  };
  require(quiet && live == 0, "actions still live after the run: " + std::to_string(live));
  require(ended, "the output reader did not reach the end");
  require(results.load() == 0, std::to_string(results.load()) + " events did not return 0");
  require(refreshBad.load() == 0, "a REFRESH did not return 0");
  require(ledger.reloads_ == refreshes.load(),
          "reloads reported " + std::to_string(ledger.reloads_) + " of " +
              std::to_string(refreshes.load()));
  require(ledger.starts_ == expectedActions.load(),
          "actions started " + std::to_string(ledger.starts_) + ", rules asked for " +
              std::to_string(expectedActions.load()));
  int64_t outcomes = 0;
  for (int d = 0; d < kDestCount; ++d) {
    outcomes += ledger.outcomesOf_[d];
    require(ledger.outcomesOf_[d] == ledger.startsTo_[d],
            std::string(kDestNames[d]) + ": " + std::to_string(ledger.startsTo_[d]) +
                " started, " + std::to_string(ledger.outcomesOf_[d]) + " outcomes");
  }
  require(ledger.open_.empty(), std::to_string(ledger.open_.size()) + " actions without outcome");
  require(ledger.fetchAfterTimeout_ == ledger.timeouts_,
          "time-outs " + std::to_string(ledger.timeouts_) + ", fetch errors after them " +
              std::to_string(ledger.fetchAfterTimeout_));
  require(ledger.idsAbove_.empty() && ledger.idMark_ == ledger.starts_,
          "request ids not handed out 1.." + std::to_string(ledger.starts_) + " once each");
  for (int s = 0; s < 3; ++s)
    require(views[s].free == ledger.shownFree_[s] && views[s].total == ledger.shownTotal_[s] &&
                views[s].listed == views[s].free && views[s].free <= views[s].total,
            "stack " + std::to_string(s) + " holds " + std::to_string(views[s].listed) + " (" +
                std::to_string(views[s].free) + "/" + std::to_string(views[s].total) +
                "), DISPLAY showed " + std::to_string(ledger.shownFree_[s]) + "/" +
                std::to_string(ledger.shownTotal_[s]));
  require(objects == baseObjects, "query-service objects beyond the resting requests: " +
                                      std::to_string(objects) + ", at start " +
                                      std::to_string(baseObjects));
  require(ledger.anomalies_ == 0, std::to_string(ledger.anomalies_) + " anomalies in the output");

  // Memory after warm-up: the peak of the second half may not exceed the
  // peak of the first by more than the margin.
  const double warmup = std::max(2.0, loadSeconds * 0.2);
  int64_t peak = 0, warmPeak = 0, firstHalf = 0, secondHalf = 0, atWarm = 0;
  const double middle = warmup + (loadSeconds - warmup) / 2;
  for (const auto& [at, kb] : rss) {
    peak = std::max(peak, kb);
    if (at <= warmup) {
      warmPeak = std::max(warmPeak, kb);
      atWarm = kb;
    } else if (at <= middle) {
      firstHalf = std::max(firstHalf, kb);
    } else {
      secondHalf = std::max(secondHalf, kb);
    }
  }
  if (firstHalf == 0) firstHalf = warmPeak;
  const int64_t growth = secondHalf - firstHalf;
  require(!kJudgeMemory || growth <= options.rssGrowthMb * 1024,
          "resident set grew by " + std::to_string(growth) + " KB after warm-up");

  FILE* out = stdout;
  fprintf(out, "qmtasoak: %d event threads, %d s, reload every %d ms, pause %d us, wait %d ms\n",
          options.threads, options.seconds, options.reloadMs, options.pauseUs, options.waitMs);
  fprintf(out, "  duration       %.1f s of load\n", loadSeconds);
  fprintf(out, "  events         %lld (%.0f/s)\n", static_cast<long long>(events.load()),
          events.load() / loadSeconds);
  fprintf(out, "  actions        %lld started, %lld outcomes (%.0f/s); most running at once %zu\n",
          static_cast<long long>(ledger.starts_), static_cast<long long>(outcomes),
          ledger.starts_ / loadSeconds, ledger.openPeak_);
  fprintf(out, "  by destination");
  for (int d = 0; d < kDestCount; ++d)
    fprintf(out, " %s=%lld", kDestNames[d], static_cast<long long>(ledger.startsTo_[d]));
  fprintf(out, "\n  time-outs      %lld\n", static_cast<long long>(ledger.timeouts_));
  fprintf(out, "  reloads        %lld (slowest %.1f ms), displays %lld\n",
          static_cast<long long>(refreshes.load()), slowestReloadUs.load() / 1000.0,
          static_cast<long long>(ledger.displays_));
  fprintf(out, "  stacks         %lld locked checks; at the end VX=%d/%d RM=%d/%d SNMP=%d/%d\n",
          static_cast<long long>(stackChecks), views[0].free, views[0].total, views[1].free,
          views[1].total, views[2].free, views[2].total);
  fprintf(out, "  output lines   %lld\n", static_cast<long long>(ledger.lines_));
  fprintf(out, "  resident set   peak %lld KB; after warm-up (%.0f s) %lld KB; first half peak "
               "%lld KB, second half peak %lld KB, growth %lld KB%s\n",
          static_cast<long long>(peak), warmup, static_cast<long long>(atWarm),
          static_cast<long long>(firstHalf), static_cast<long long>(secondHalf),
          static_cast<long long>(growth),
          kJudgeMemory ? "" : " (not judged under a sanitizer)");
  for (const std::string& note : ledger.notes_) fprintf(out, "  anomaly: %s\n", note.c_str());
  for (const std::string& failure : failures) fprintf(out, "  FAILED: %s\n", failure.c_str());
  fprintf(out, "qmtasoak: %s\n", failures.empty() ? "all checks held" : "FAILED");
  fflush(out);
  return failures.empty() ? 0 : 1;
}
