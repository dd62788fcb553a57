// Matching: one event against a table where no rule fires, but every rule's
// state fits and its situation pattern matches, so both pattern tests run
// for every rule. Ours goes through the module's event exit (path handle,
// event record, shared table lock, the walk); the floor walks the same
// records, allocated the same way, with the same two tests and no lock.
// Each size runs with one and with two event threads.
#include <stdlib.h>
#include <string.h>

#include <map>
#include <memory>
#include <stdexcept>
#include <string>

#include <benchmark/benchmark.h>

#include "bench/support/benchsupport.h"
#include "host/services/control.h"
#include "host/services/testhooks.h"
#include "qmtauto1/qmtauto1.h"

namespace {

using qmtabench::kMissOrigin;
using qmtabench::kMissSitname;

constexpr char kTimestamp[] = "1261116000509000";

// The wildcard test of the rule table, written plainly.
inline bool PlainMatch(const char* text, const char* pattern) {
  if (pattern[0] == '*' && pattern[1] == '\0') return true;
  if (strcmp(text, pattern) == 0) return true;
  const char* star = strchr(pattern, '*');
  if (star == nullptr) return false;
  size_t prefix = static_cast<size_t>(star - pattern);
  if (strncmp(text, pattern, prefix) != 0) return false;
  const char* suffix = star + 1;
  size_t suffixLength = strlen(suffix);
  size_t textLength = strlen(text);
  if (textLength < suffixLength) return false;
  return memcmp(text + textLength - suffixLength, suffix, suffixLength) == 0;
}

// The floor's list: the rule entry records, allocated one by one in file
// order with their argument copies after each, as a load allocates them.
TableEntry* PlainList(const std::vector<qmtabench::Rule>& rules) {
  TableEntry* head = nullptr;
  TableEntry** link = &head;
  for (const qmtabench::Rule& rule : rules) {
    auto* entry = static_cast<TableEntry*>(calloc(1, sizeof(TableEntry)));
    memcpy(entry->eyecatcher, "TBEN", 4);
    entry->state = rule.state == "ANY" ? kStateAny : kStateTrue;
    snprintf(entry->sitname, sizeof entry->sitname, "%s", rule.sitname.c_str());
    snprintf(entry->originnode, sizeof entry->originnode, "%s", rule.originnode.c_str());
    snprintf(entry->destnode, sizeof entry->destnode, "%s", rule.destnode.c_str());
    for (size_t i = 0; i < rule.args.size() && i < kArgCount; ++i)
      entry->args[i] = strdup(rule.args[i].c_str());
    *link = entry;
    link = &entry->next;
  }
  return head;
}

struct Table {
  int rules = 0;
  std::unique_ptr<qmtabench::Module> module;
  TableEntry* plain = nullptr;
};

DBQ1_Handle path;
std::map<int, Table> tables;

int32_t Fire(const qmtabench::Module& module) {
  return module.autoexit(kMissSitname, kMissOrigin, 0, 1, kTimestamp, 0, nullptr, nullptr,
                         nullptr, &path, 0);
}

// A module whose first event loaded `rules` miss rules, checked with
// DISPLAY, and the floor's copy of the same rules.
void Prepare(const qmtabench::ScratchDir& dir, int rules) {
  std::vector<qmtabench::Rule> list = qmtabench::MissRules(rules);
  dir.Write("QMTASITR", qmtabench::Text(list));
  Table& table = tables[rules];
  table.rules = rules;
  table.module = std::make_unique<qmtabench::Module>();
  if (Fire(*table.module) != 0) throw std::runtime_error("first event failed");
  int shown = qmtabench::DisplayedRules(*table.module);
  if (shown != rules)
    throw std::runtime_error("module loaded " + std::to_string(shown) + " rules of " +
                             std::to_string(rules));
  table.plain = PlainList(list);
}

void Ours(benchmark::State& state, const Table* table) {
  const int64_t startedBefore = qmta::host::StartedActions();
  int32_t failures = 0;
  for (auto _ : state) failures += Fire(*table->module) != 0;
  if (failures != 0) state.SkipWithError("an event failed");
  if (qmta::host::StartedActions() != startedBefore) state.SkipWithError("a rule fired");
  state.SetItemsProcessed(state.iterations());
  state.counters["ns_per_rule"] = benchmark::Counter(
      static_cast<double>(state.iterations()) * table->rules * 1e-9,
      benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// The floor's event, read through volatile so that the compiler knows
// nothing of its texts.
const char* volatile eventSitname = kMissSitname;
const char* volatile eventOrigin = kMissOrigin;
volatile uint32_t eventState = 1;

void Floor(benchmark::State& state, const Table* table) {
  int64_t fired = 0;
  for (auto _ : state) {
    // The event's texts and state arrive at run time, as ours do: nothing
    // about them is known to the compiler.
    const char* sitname = eventSitname;
    const char* origin = eventOrigin;
    uint32_t current = eventState;
    for (const TableEntry* entry = table->plain; entry != nullptr; entry = entry->next) {
      if (entry->state != kStateAny && entry->state != current) continue;
      if (PlainMatch(sitname, entry->sitname) && PlainMatch(origin, entry->originnode))
        ++fired;
    }
    benchmark::DoNotOptimize(fired);
  }
  if (fired != 0) state.SkipWithError("a rule matched");
  state.SetItemsProcessed(state.iterations());
  state.counters["ns_per_rule"] = benchmark::Counter(
      static_cast<double>(state.iterations()) * table->rules * 1e-9,
      benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

}  // namespace

int main(int argc, char** argv) {
  std::unique_ptr<qmtabench::ScratchDir> dir;
  return qmtabench::Main(argc, argv, [&] {
    dir = std::make_unique<qmtabench::ScratchDir>();
    path = qmta::host::OwnPath();
    std::vector<int> sizes = {10, 1000, 100000};
    if (qmtabench::Tiny()) sizes = {10, 1000};
    for (int rules : sizes) {
      Prepare(*dir, rules);
      const Table* table = &tables[rules];
      for (int threads : {1, 2}) {
        const std::string size = std::to_string(rules);
        benchmark::RegisterBenchmark(("match/ours/" + size).c_str(), Ours, table)
            ->Threads(threads)
            ->UseRealTime();
        benchmark::RegisterBenchmark(("match/floor/" + size).c_str(), Floor, table)
            ->Threads(threads)
            ->UseRealTime();
      }
    }
  });
}
