// Loading: loadtable of generated rule files with the tags operators write
// (comments, wildcards, quoted arguments, every kind of destination), timed
// without the freeing of the previous table, which an untimed load of an
// empty file does first. The floor reads the same file with fgets into the
// same 514-byte pieces and cuts each line into tokens with strspn/strcspn.
// Memory: the heap the loaded table holds, per rule; its floor is the
// rule's share of the file. `qmtahost check` of the same file, the whole
// program run, is measured beside the table load it is built on.
#include <malloc.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

#include <benchmark/benchmark.h>

#include "bench/support/benchsupport.h"
#include "host/services/control.h"
#include "qmtauto1/qmtauto1.h"

namespace {

struct RuleFile {
  int rules = 0;
  std::string name;
  size_t bytes = 0;
};

// Points QMTASITR at `name`: the module reads its rules by that name alone.
void Use(const std::string& name) {
  std::filesystem::remove("QMTASITR.next");
  std::filesystem::create_symlink(name, "QMTASITR.next");
  std::filesystem::rename("QMTASITR.next", "QMTASITR");
}

int LoadedRules() {
  int rules = 0;
  for (const TableEntry* entry = anchor()->entries; entry != nullptr; entry = entry->next)
    ++rules;
  return rules;
}

void Ours(benchmark::State& state, const RuleFile* file) {
  int32_t failures = 0;
  size_t heldBefore = 0, heldAfter = 0;
  for (auto _ : state) {
    state.PauseTiming();
    Use("empty");
    loadtable();  // frees the previous table; finds no rule
    Use(file->name);
    heldBefore = mallinfo2().uordblks;
    state.ResumeTiming();
    failures += loadtable() != 0;
    state.PauseTiming();
    heldAfter = mallinfo2().uordblks;
    state.ResumeTiming();
  }
  if (failures != 0) state.SkipWithError("a load failed");
  if (LoadedRules() != file->rules) state.SkipWithError("the table lacks rules");
  state.SetItemsProcessed(state.iterations() * file->rules);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(file->bytes));
  state.counters["bytes_per_rule"] =
      static_cast<double>(heldAfter - heldBefore) / file->rules;
}

void Floor(benchmark::State& state, const RuleFile* file) {
  static const char kBlanks[] = "\n\t\r\f\v ";
  static const char kDelimiters[] = "\n\t\r\f\v ;";
  int64_t entries = 0, tokens = 0;
  for (auto _ : state) {
    entries = 0;
    FILE* in = fopen(file->name.c_str(), "r");
    if (in == nullptr) {
      state.SkipWithError("cannot open the rule file");
      break;
    }
    char line[516];
    while (fgets(line, 514, in) != nullptr) {
      if (line[0] == '*') continue;
      for (char* at = line + strspn(line, kBlanks); *at != '\0'; at += strspn(at, kBlanks)) {
        at += strcspn(at, kDelimiters);
        ++tokens;
        if (*at == ';') {
          ++entries;
          ++at;
        }
      }
    }
    fclose(in);
    benchmark::DoNotOptimize(tokens);
  }
  if (entries != file->rules) state.SkipWithError("the floor counted other entries");
  state.SetItemsProcessed(state.iterations() * file->rules);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(file->bytes));
  state.counters["bytes_per_rule"] = static_cast<double>(file->bytes) / file->rules;
}

// The whole `qmtahost check FILE` program: its own start, the screening
// of the file, the module's load, the count of its entries and the
// summary.
void Check(benchmark::State& state, const RuleFile* file) {
  int failures = 0;
  for (auto _ : state)
    failures += qmtabench::RunProgram({QMTAHOST_PATH, "check", file->name}, "/dev/null",
                                      "/dev/null") != 0;
  if (failures != 0) state.SkipWithError("check failed");
  state.SetItemsProcessed(state.iterations() * file->rules);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(file->bytes));
}

}  // namespace

int main(int argc, char** argv) {
  std::unique_ptr<qmtabench::ScratchDir> dir;
  std::vector<std::unique_ptr<RuleFile>> files;
  return qmtabench::Main(argc, argv, [&] {
    dir = std::make_unique<qmtabench::ScratchDir>();
    dir->Write("empty", "* no rules\n");
    Use("empty");
    DBQ1_Handle path = qmta::host::OwnPath();
    initautomation(&path);  // the anchor; its first load finds no rule
    if (anchor() == nullptr) throw std::runtime_error("initialisation failed");

    std::vector<int> sizes = {1000, 100000};
    if (qmtabench::Tiny()) sizes = {1000};
    for (int rules : sizes) {
      auto file = std::make_unique<RuleFile>();
      file->rules = rules;
      file->name = "rules-" + std::to_string(rules);
      std::string text = qmtabench::Text(qmtabench::RealisticRules(rules));
      file->bytes = text.size();
      dir->Write(file->name, text);
      const std::string size = std::to_string(rules);
      benchmark::RegisterBenchmark(("load/ours/" + size).c_str(), Ours, file.get())
          ->UseRealTime();
      benchmark::RegisterBenchmark(("load/floor/" + size).c_str(), Floor, file.get())
          ->UseRealTime();
      benchmark::RegisterBenchmark(("load/check/" + size).c_str(), Check, file.get())
          ->UseRealTime();
      files.push_back(std::move(file));
    }
  });
}
