// qmtasoak: the module under sustained load, checked as it runs.
//
// Several threads deliver situation events whose rules send actions to sim
// destinations with every outcome (rows, no rows, offline on either kind of
// stack, errors, delays, and a few silent ones whose 60-second wait the
// shifted host clock ends in about a second), while another thread
// alternates REFRESH between two rule files and runs DISPLAY after each.
// The module's standard output is read through a pipe and checked line by
// line: every QMTA040I carries a request id never seen before, followed at
// once by its QMTA041I; every action that started reports exactly the one
// outcome its destination gives (by request id where the message has one,
// by count where not); no other message appears. A sampler checks each
// request stack's counters under its lock every 100 ms. After the load: no
// action is live, the stacks hold what DISPLAY shows, and the query service
// holds no request beyond those resting on the stacks.
//
//   qmtasoak [--threads N] [--seconds S] [--reload-ms M] [--pause-us U]
//            [--silent-every K] [--wait-ms W]
//
// Exits 0 when every check held; prints its figures either way.
#include <stdio.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <mutex>
#include <random>
#include <regex>
#include <set>
#include <thread>
#include <utility>

#include "host/drivers/sim.h"
#include "host/services/control.h"
#include "host/services/testhooks.h"
#include "qmtauto1/qmtafault.h"
#include "qmtauto1/qmtauto1.h"
#include "tests/support/support.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Each destination and the rows its actions must report (-1: offline, a
// line with the id; -2: an error without id; -3: no response).
const std::map<std::string, std::vector<int>> kAnswers = {
    {"ROWS", {0, 4}}, {"VX:MVS_ACTIONS", {7}}, {"EMPTY:SNMP_TRAP", {-1}}, {"OFF:MVS_ACTIONS", {-1}},
    {"DOWN", {-2}},   {"ERR:SNMP_TRAP", {-2}}, {"SLOW", {1}},            {"SILENT", {-3}}};
const char kDirectory[] =
    "ROWS sim rc=0,4 delay=2\nVX:MVS_ACTIONS sim rc=7 delay=20\nEMPTY:SNMP_TRAP sim norows delay=5\n"
    "OFF:MVS_ACTIONS sim offline delay=1\nDOWN sim offline\nERR:SNMP_TRAP sim status=106 delay=10\n"
    "SLOW sim rc=1 delay=150\nSILENT sim silent\n";
// Both sets send each situation to the same destinations, in a different
// order, with other scripts and arguments: an event starts the same actions
// whichever set is loaded.
const char kRulesA[] =
    "* soak rules, set A\nSITNAME=Disk* STATE=TRUE DESTNODE=ROWS SCRIPT=clean ARG1=SITNAME ARG2=Disk.Name\n"
    "  ARG3=THRESHOLD;\nSITNAME=Disk* ORIGINNODE=host* DESTNODE=VX:MVS_ACTIONS CALLTYPE=3 SCRIPT=vx\n"
    "  ARG1=NODE ARG2=Disk.Free;\nSITNAME=*_Low STATE=ANY DESTNODE=EMPTY:SNMP_TRAP;\n"
    "SITNAME=Mem_* STATE=ANY DESTNODE=OFF:MVS_ACTIONS ARG1=CURRSTATE; SITNAME=Net_Down DESTNODE=DOWN;\n"
    "SITNAME=Net* DESTNODE=ERR:SNMP_TRAP SUBAGENT=trap;\nSITNAME=Cpu_Slow DESTNODE=SLOW ARG1=TIMESTAMP ARG2=\"%s%n\";\n"
    "SITNAME=Hang DESTNODE=SILENT;\n";
const char kRulesB[] =
    "* set B: same routes, other order and commands\nSITNAME=Hang STATE=ANY DESTNODE=SILENT SCRIPT=hang;\n"
    "SITNAME=Net* DESTNODE=ERR:SNMP_TRAP ARG1=SITNAME; SITNAME=Disk* STATE=FALSE DESTNODE=ROWS SCRIPT=never;\n"
    "SITNAME=*Slow DESTNODE=SLOW SCRIPT=slow ARG1=PRESTATE ARG2=CURRSTATE;\n"
    "SITNAME=Disk* ORIGINNODE=host* STATE=ANY DESTNODE=VX:MVS_ACTIONS SCRIPT=vx2\n"
    "  ARG1=Disk.Free ARG2=NODE ARG3=\"literal; kept\";\nSITNAME=Disk* DESTNODE=ROWS SCRIPT=clean2 ARG1=Disk.Name;\n"
    "SITNAME=Mem_Low DESTNODE=OFF:MVS_ACTIONS; SITNAME=Mem_Low DESTNODE=EMPTY:SNMP_TRAP SCRIPT=empty;\n"
    "SITNAME=Net_Down DESTNODE=DOWN SCRIPT=down; SITNAME=Nothing* DESTNODE=ROWS;\n";
// The situations the event threads deliver, with the actions each starts
// and its share in ten (Hang: one in --silent-every instead).
const std::tuple<const char*, int, int> kSituations[] = {
    {"Disk_Full", 2, 4}, {"Mem_Low", 2, 2}, {"Net_Down", 2, 1}, {"Cpu_Slow", 1, 1}, {"Quiet_Time", 0, 2}};
const char kEnd[] = "SOAK END OF OUTPUT";

// Every line the module prints, checked as it comes.
struct Ledger {
  std::mutex mutex;  // guards everything below
  bool ended = false, wantCommand = false;
  int64_t lines = 0, starts = 0, reloads = 0, inits = 0, timeouts = 0, fetchAfterTimeout = 0, outcomes = 0;
  std::map<std::string, int64_t> started, finished;  // by destination
  std::map<uint32_t, std::pair<std::string, size_t>> open;  // id: destination, rows seen
  std::set<uint32_t> ids;
  size_t openPeak = 0;
  int shown[6] = {};  // the last DISPLAY's free/total of VX, RM, SNMP
  std::vector<std::string> anomalies;

  void Anomaly(const std::string& what, const std::string& line) { anomalies.push_back(what + ": " + line); }
  void Finish(uint32_t id, const std::string& line, int kind) {  // an outcome with an id
    auto found = open.find(id);
    if (found == open.end()) return Anomaly("outcome of no running action", line);
    const std::vector<int>& rows = kAnswers.at(found->second.first);
    size_t& seen = found->second.second;
    if (seen >= rows.size() || rows[seen] != kind) return Anomaly("outcome the destination does not give", line);
    if (++seen < rows.size()) return;
    ++finished[found->second.first], ++outcomes;
    open.erase(found);
  }
  void Line(const std::string& line) {
    static const std::regex startRe("QMTA040I ACTION STARTED FOR SITNAME=\\S+ DESTNODE=(\\S+) STATE=-?\\d+ REQUESTID=(\\d+)"),
        rowRe("QMTA050I ACTION COMPLETED FOR .* RC=(-?\\d+) REQUESTID=(\\d+)"), offlineRe("QMTA051W .* REQUESTID=(\\d+)"),
        silentRe("QMTA042E NO RESPONSE FROM .* ERRNO=0 REQUESTID=(\\d+)"),
        sizesRe("QMTA100I STACK SIZES:  VX=(\\d+)/(\\d+) RM=(\\d+)/(\\d+) SNMP=(\\d+)/(\\d+)"),
        otherRe("QMTA09[4-7]I .*|QMTA041I .*");
    std::lock_guard<std::mutex> hold(mutex);
    ++lines;
    std::smatch m;
    if (std::exchange(wantCommand, false) != line.starts_with("QMTA041I CMD=")) Anomaly("040I and 041I apart", line);
    if (line.starts_with("QMTA040I") && std::regex_match(line, m, startRe)) {
      uint32_t id = std::stoul(m[2]);
      if (!kAnswers.count(m[1]) || !ids.insert(id).second) return Anomaly("unknown destination or id again", line);
      wantCommand = true, ++starts, ++started[m[1]];
      if (kAnswers.at(m[1])[0] != -2) open[id] = {m[1], 0};  // errors carry no id
      openPeak = std::max(openPeak, open.size());
    } else if (line.starts_with("QMTA050I") && std::regex_match(line, m, rowRe)) {
      Finish(std::stoul(m[2]), line, std::stoi(m[1]));
    } else if (line.starts_with("QMTA051W") && std::regex_match(line, m, offlineRe)) {
      Finish(std::stoul(m[1]), line, -1);
    } else if (line.starts_with("QMTA042E") && std::regex_match(line, m, silentRe)) {
      Finish(std::stoul(m[1]), line, -3), ++timeouts;
    } else if (line == "QMTA030E SELECT SQL ERROR ON FETCH STATUS=104") {  // the output step after a time-out
      if (++fetchAfterTimeout > timeouts) Anomaly("fetch error without a time-out", line);
    } else if (line.starts_with("QMTA030E SELECT SQL ERROR ON ASYNCH OPEN COMPLETE STATUS=")) {
      const std::string dest = line.ends_with("=2020") ? "DOWN" : line.ends_with("=106") ? "ERR:SNMP_TRAP" : "";
      if (dest.empty() || ++finished[dest] > started[dest]) return Anomaly("unexpected error", line);
      ++outcomes;
    } else if (line.starts_with("QMTA100I") && std::regex_match(line, m, sizesRe)) {
      for (int i = 0; i < 6; ++i) shown[i] = std::stoi(m[i + 1]);
    } else if (line == "QMTA090I QMTASITR REFRESHED.  STATUS=0") {
      ++reloads;
    } else if (line == "QMTA093I ACTION ENVIRONMENT INITIALIZE") {
      if (++inits > 1) Anomaly("initialised twice", line);
    } else if (line == kEnd) {
      ended = true;
    } else if (!std::regex_match(line, otherRe)) {
      Anomaly("unexpected line", line);
    }
  }
};

// A stack's counters and the length of its free list, under its lock.
std::tuple<int, int, int> ReadStack(RSTK& stack) {
  pthread_mutex_lock(&stack.stackLock);
  int listed = 0;
  for (RSEN* entry = stack.top; entry && listed <= stack.freeCount; entry = entry->next) ++listed;
  auto view = std::make_tuple(stack.freeCount, stack.totalCount, listed);
  pthread_mutex_unlock(&stack.stackLock);
  return view;
}

}  // namespace

int main(int argc, char** argv) {
  // Each option's value and its least value.
  std::map<std::string, std::pair<int, int>> options = {
      {"--threads", {4, 1}},      {"--seconds", {10, 1}}, {"--reload-ms", {50, 1}},      {"--pause-us", {2000, 0}},
      {"--silent-every", {400, 0}}, {"--wait-ms", {1000, 200}}};
  for (int i = 1; i < argc; i += 2) {
    char* end = nullptr;
    long value = i + 1 < argc ? strtol(argv[i + 1], &end, 10) : -1;
    if (!options.count(argv[i]) || !end || *end || value < options[argv[i]].second || value > 1000000000)
      return fputs("usage: qmtasoak [--threads N] [--seconds S] [--reload-ms M] [--pause-us U]\n"
                   "                [--silent-every K] [--wait-ms W]\n", stderr), 2;
    options[argv[i]].first = static_cast<int>(value);
  }
  auto option = [&](const char* name) { return options[name].first; };
  const int threads = option("--threads"), seconds = option("--seconds"), waitMs = option("--wait-ms");
  qmtatest::ScratchDir dir;
  dir.Write("QMTASITR", kRulesA);
  std::string error;
  qmta::host::RegisterStandardDrivers();
  if (!qmta::host::SetDestinations(kDirectory, &error)) return fprintf(stderr, "qmtasoak: %s\n", error.c_str()), 2;
  // The module waits 60 seconds by the host's clock: set back, the wait of
  // a silent destination ends after --wait-ms.
  qmta::host::SetClockShift(std::chrono::milliseconds(waitMs) - 60s);

  // Standard output through a pipe, read line by line.
  Ledger ledger;
  fflush(stdout);
  int fds[2];
  if (pipe(fds) != 0) return perror("qmtasoak: pipe"), 2;
  const int saved = dup(1);
  dup2(fds[1], 1);
  close(fds[1]);
  std::thread reader([&] {
    std::string pending;
    char buffer[65536];
    for (ssize_t got; (got = read(fds[0], buffer, sizeof buffer)) > 0;) {
      pending.append(buffer, static_cast<size_t>(got));
      size_t start = 0;
      for (size_t end; (end = pending.find('\n', start)) != std::string::npos; start = end + 1)
        ledger.Line(pending.substr(start, end - start));
      pending.erase(0, start);
    }
  });
  auto endOutput = [&] {
    printf("%s\n", kEnd);
    fflush(stdout);
    dup2(saved, 1);
    reader.join();
  };

  qmtatest::Module module;
  DBQ1_Handle path = qmta::host::OwnPath();
  const char* const names[] = {"Disk.Name", "Disk.Free", "Other"};
  const char* const values[] = {"/var", "5", "x \"y\""};
  auto fire = [&](const char* sitname, const std::string& node) {
    return module.autoexit(sitname, node.c_str(), 0, 1, "1261116000509000", 3, names, values, "Disk.Free<\"10\"", &path, 0);
  };
  // The first event sets the environment up, outside the data server: from
  // now on every event's path is copied into the stacks.
  std::atomic<int64_t> events{0}, expected{0}, bad{fire("Quiet_Time", "host0") != 0}, refreshes{0};
  QmtaTestState state{};
  reinterpret_cast<void (*)(QmtaTestState*)>(module.Symbol("qmtatest_state"))(&state);
  auto* table = static_cast<AutomationAnchor*>(state.tableAnchor);
  if (!table || state.automationFlag != 1) return endOutput(), fputs("qmtasoak: the module did not start\n", stderr), 1;
  qmta::host::WaitForActions(10s);
  auto resting = [&] {
    int64_t sum = 0;
    for (RSTK& stack : table->stacks) sum += std::get<0>(ReadStack(stack));
    return sum;
  };
  const int64_t baseObjects = qmta::host::LiveObjects() - resting();  // paths and plans

  const auto begin = Clock::now();
  std::atomic<bool> stop{false};
  std::vector<std::thread> load;
  for (int t = 0; t < threads; ++t)
    load.emplace_back([&, t] {
      std::mt19937 random(1234 + t);
      for (int64_t n = 0; !stop.load(std::memory_order_relaxed); ++n) {
        const char* name = "Hang";
        int actions = 1;
        if (option("--silent-every") <= 0 || random() % option("--silent-every") != 0)
          for (int pick = random() % 10; const auto& [sit, count, share] : kSituations)
            if ((pick -= share) < 0) {
              name = sit, actions = count;
              break;
            }
        bad += fire(name, "host" + std::to_string(t) + "-" + std::to_string(n % 100)) != 0;
        ++events, expected += actions;
        std::this_thread::sleep_for(std::chrono::microseconds(option("--pause-us")));
      }
    });
  // Reloads, alternating the sets, each followed by DISPLAY. The file is
  // replaced whole, so a load never reads half of it.
  load.emplace_back([&] {
    for (int64_t n = 0; !stop; ++n, ++refreshes) {
      std::this_thread::sleep_for(std::chrono::milliseconds(option("--reload-ms")));
      dir.Write("QMTASITR.new", n % 2 ? kRulesA : kRulesB);
      std::filesystem::rename(dir.path() + "/QMTASITR.new", dir.path() + "/QMTASITR");
      bad += module.Command("REFRESH") != 0;
      module.Command("DISPLAY");
    }
  });
  // The stacks' counters under their locks every 100 ms, until the end.
  int64_t stackChecks = 0;
  while (Clock::now() < begin + std::chrono::seconds(seconds)) {
    std::this_thread::sleep_for(100ms);
    for (RSTK& stack : table->stacks) {
      auto [free, total, listed] = ReadStack(stack);
      ++stackChecks;
      std::lock_guard<std::mutex> hold(ledger.mutex);
      if (free < 0 || free > total || listed != free) ledger.Anomaly("stack counters", std::to_string(free) + "/" + std::to_string(total));
    }
  }
  stop = true;
  for (auto& thread : load) thread.join();
  // Quiet: every action ends (the slowest waits about --wait-ms).
  const bool quiet = qmta::host::WaitForActions(std::chrono::seconds(60 + waitMs / 1000));
  std::tuple<int, int, int> stacks[3] = {ReadStack(table->stacks[0]), ReadStack(table->stacks[1]), ReadStack(table->stacks[2])};
  module.Command("DISPLAY");
  const int64_t objects = qmta::host::LiveObjects() - resting();
  endOutput();

  std::lock_guard<std::mutex> hold(ledger.mutex);
  std::vector<std::pair<bool, std::string>> checks = {
      {quiet && qmta::host::LiveActions() == 0, "actions still live after the run"},
      {ledger.ended, "the output reader did not reach the end"},
      {bad == 0, std::to_string(bad) + " events or reloads did not return 0"},
      {ledger.reloads == refreshes, std::to_string(ledger.reloads) + " reloads reported of " + std::to_string(refreshes)},
      {ledger.starts == expected, std::to_string(ledger.starts) + " actions started, rules asked for " + std::to_string(expected)},
      {ledger.open.empty() && ledger.fetchAfterTimeout == ledger.timeouts, "actions without outcome, or fetch errors not one per time-out"},
      {ledger.ids.size() == static_cast<size_t>(ledger.starts) && (ledger.ids.empty() || *ledger.ids.rbegin() == ledger.ids.size()),
       "request ids not handed out 1.." + std::to_string(ledger.starts) + " once each"},
      {objects == baseObjects, std::to_string(objects) + " query-service objects beyond the resting requests, at start " + std::to_string(baseObjects)},
      {ledger.anomalies.empty(), std::to_string(ledger.anomalies.size()) + " anomalies in the output"}};
  for (const auto& [dest, count] : ledger.started)
    checks.emplace_back(ledger.finished[dest] == count, dest + ": " + std::to_string(count) + " started, " + std::to_string(ledger.finished[dest]) + " outcomes");
  for (int s = 0; s < 3; ++s) {
    auto [free, total, listed] = stacks[s];
    checks.emplace_back(free == ledger.shown[2 * s] && total == ledger.shown[2 * s + 1] && listed == free,
                        "stack " + std::to_string(s) + " holds " + std::to_string(free) + "/" + std::to_string(total) + ", DISPLAY showed otherwise");
  }
  std::string destinations;
  for (const auto& [dest, count] : ledger.started) destinations += " " + dest + "=" + std::to_string(count);
  printf("qmtasoak: %d event threads, %d s, reload every %d ms, pause %d us, wait %d ms\n"
         "  %lld events, %lld actions started, %lld outcomes, most running at once %zu, %lld time-outs\n"
         "  by destination%s\n  %lld reloads, %lld locked stack checks, %lld lines; at the end VX=%d/%d RM=%d/%d SNMP=%d/%d\n",
         threads, seconds, option("--reload-ms"), option("--pause-us"), waitMs, static_cast<long long>(events),
         static_cast<long long>(ledger.starts), static_cast<long long>(ledger.outcomes), ledger.openPeak,
         static_cast<long long>(ledger.timeouts), destinations.c_str(), static_cast<long long>(refreshes),
         static_cast<long long>(stackChecks), static_cast<long long>(ledger.lines), ledger.shown[0], ledger.shown[1],
         ledger.shown[2], ledger.shown[3], ledger.shown[4], ledger.shown[5]);
  for (size_t i = 0; i < ledger.anomalies.size() && i < 20; ++i) printf("  anomaly: %s\n", ledger.anomalies[i].c_str());
  bool held = true;
  for (const auto& [ok, what] : checks)
    if (!ok) printf("  FAILED: %s\n", what.c_str()), held = false;
  printf("qmtasoak: %s\n", held ? "all checks held" : "FAILED");
  return held ? 0 : 1;
}
