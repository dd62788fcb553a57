// Local actions: events that each match one rule whose destination runs a
// trivial program through the host's local driver (in this process, as
// qmtahost registers it), in batches, each batch timed until every action
// has reported its outcome. The floor runs the same program with the same
// arguments from one thread, posix_spawn then waitpid, one after another.
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/support/benchsupport.h"
#include "host/services/control.h"
#include "host/services/testhooks.h"
#include "host/drivers/local/local.h"

namespace {

constexpr char kTimestamp[] = "1261116000509000";
constexpr int kBatch = 32;
constexpr auto kLimit = std::chrono::seconds(60);

DBQ1_Handle path;
std::unique_ptr<qmtabench::Module> module;
std::string program;  // the trivial program, in the actions directory

int32_t Fire() {
  return module->autoexit("Bench_Local", "Primary:WEB00042:NT", 0, 1, kTimestamp, 0, nullptr,
                          nullptr, nullptr, &path, 0);
}

bool Drained(int64_t target) {
  return qmtabench::WaitUntil(
      [&] { return qmta::host::StartedActions() >= target && qmta::host::LiveActions() == 0; },
      kLimit);
}

void Ours(benchmark::State& state) {
  int32_t failures = 0;
  bool drained = true;
  for (auto _ : state) {
    const int64_t target = qmta::host::StartedActions() + kBatch;
    for (int i = 0; i < kBatch; ++i) failures += Fire() != 0;
    drained = Drained(target);
    if (!drained) break;
  }
  if (failures != 0) state.SkipWithError("an event failed");
  if (!drained) state.SkipWithError("actions did not finish");
  state.SetItemsProcessed(state.iterations() * kBatch);
}

void Floor(benchmark::State& state) {
  // The words the local driver makes of the rule's command.
  std::vector<std::string> words = {program, "Bench_Local", "Primary:WEB00042:NT"};
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  char* environment[] = {const_cast<char*>("PATH=/usr/bin:/bin"), nullptr};
  int32_t failures = 0;
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i) {
      pid_t pid;
      int status = 0;
      if (posix_spawn(&pid, program.c_str(), nullptr, nullptr, argv.data(), environment) != 0 ||
          waitpid(pid, &status, 0) != pid || status != 0)
        ++failures;
    }
  }
  if (failures != 0) state.SkipWithError("the program failed");
  state.SetItemsProcessed(state.iterations() * kBatch);
}

}  // namespace

int main(int argc, char** argv) {
  std::unique_ptr<qmtabench::ScratchDir> dir;
  return qmtabench::Main(argc, argv, [&] {
    dir = std::make_unique<qmtabench::ScratchDir>();
    const std::string actions = dir->path() + "/actions";
    std::filesystem::create_directory(actions);
    program = actions + "/noop";
    std::filesystem::copy_file(QMTA_NOOP_PATH, program);
    std::filesystem::permissions(program, std::filesystem::perms::owner_all);

    const qmtabench::Rule rule{.comment = "",
                               .sitname = "Bench_Local",
                               .originnode = "*",
                               .state = "TRUE",
                               .destnode = "bench:LOCAL",
                               .script = "noop",
                               .args = {"SITNAME", "NODE"}};
    dir->Write("QMTASITR", qmtabench::Text(rule));
    qmta::host::RegisterDriver("local", qmta::host::LocalDriverFactory(actions));
    std::string error;
    if (!qmta::host::SetDestinations("* local\n", &error))
      throw std::runtime_error("destinations: " + error);
    path = qmta::host::OwnPath();
    module = std::make_unique<qmtabench::Module>();

    // A first batch loads the table and proves the road: every action runs
    // the program and reports RC=0.
    std::string out = qmtabench::CaptureStdout([] {
      const int64_t target = qmta::host::StartedActions() + 10;
      for (int i = 0; i < 10; ++i) Fire();
      Drained(target);
    });
    int completed = 0;
    for (size_t at = out.find("QMTA050I"); at != std::string::npos;
         at = out.find("QMTA050I", at + 1))
      completed += out.compare(out.find("RC=", at), 5, "RC=0 ") == 0;
    if (completed != 10)
      throw std::runtime_error("local check: " + std::to_string(completed) +
                               " of 10 actions completed with RC=0:\n" + out);

    benchmark::RegisterBenchmark("local/ours", Ours)->UseRealTime();
    benchmark::RegisterBenchmark("local/floor", Floor)->UseRealTime();
  });
}
