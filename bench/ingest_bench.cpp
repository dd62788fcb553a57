// Host ingest: qmtahost reading a file of JSON event lines that match no
// rule, its standard output sent to /dev/null, timed from its start to its
// exit (loading and starting the module included, about a hundredth of the
// run). The floor reads the same lines with getline and parses each with
// the same JSON library, in this process.
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>

#include <benchmark/benchmark.h>
#include <nlohmann/json.hpp>

#include "bench/support/benchsupport.h"

namespace {

struct Input {
  int lines = 0;
  std::string events;  // absolute paths
  std::string dir;
  std::string nodes;
};

std::vector<std::string> HostCommand(const Input& input, const std::string& events) {
  return {QMTAHOST_PATH, "--dir", input.dir, "--nodes", input.nodes,
          "--module", QMTA_MODULE_PATH, events};
}

std::string ReadAll(const std::string& path) {
  std::ifstream in(path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void Ours(benchmark::State& state, const Input* input) {
  const std::string errors = input->dir + "/host-errors";
  bool failed = false;
  for (auto _ : state)
    failed |= qmtabench::RunProgram(HostCommand(*input, input->events), "/dev/null", errors) != 0;
  if (failed) state.SkipWithError("qmtahost failed");
  else if (ReadAll(errors).find("qmtahost: stopped: ") != 0)  // the summary alone
    state.SkipWithError("qmtahost complained");
  state.SetItemsProcessed(state.iterations() * input->lines);
}

void Floor(benchmark::State& state, const Input* input) {
  int64_t events = 0;
  for (auto _ : state) {
    events = 0;
    FILE* in = fopen(input->events.c_str(), "r");
    if (in == nullptr) {
      state.SkipWithError("cannot open the events");
      break;
    }
    char* line = nullptr;
    size_t capacity = 0;
    ssize_t length;
    while ((length = getline(&line, &capacity, in)) > 0) {
      nlohmann::json event = nlohmann::json::parse(line, line + length);
      events += event.is_object();
    }
    free(line);
    fclose(in);
  }
  if (events != input->lines) state.SkipWithError("the floor parsed other lines");
  state.SetItemsProcessed(state.iterations() * input->lines);
}

}  // namespace

int main(int argc, char** argv) {
  std::unique_ptr<qmtabench::ScratchDir> dir;
  Input input;
  return qmtabench::Main(argc, argv, [&] {
    dir = std::make_unique<qmtabench::ScratchDir>();
    input.lines = qmtabench::Tiny() ? 10000 : 1000000;
    input.dir = dir->path();
    input.events = dir->path() + "/events";
    input.nodes = dir->path() + "/nodes";
    dir->Write("QMTASITR", qmtabench::Text(qmtabench::RealisticRules(10)));
    dir->Write("nodes", "* sim rc=0\n");
    dir->Write("events", qmtabench::IngestEventLines(input.lines));

    // The first thousand lines, once, with the host's output kept: the
    // module starts, and no event starts an action.
    dir->Write("sample", qmtabench::IngestEventLines(1000));
    const std::string out = dir->path() + "/sample-out";
    const std::string err = dir->path() + "/sample-err";
    int status = qmtabench::RunProgram(HostCommand(input, dir->path() + "/sample"), out, err);
    std::string messages = ReadAll(out);
    // Standard error holds the summary line alone.
    if (status != 0 || ReadAll(err).find("qmtahost: stopped: 1000 events, 0 actions") != 0 ||
        messages.find("QMTA093I") == std::string::npos ||
        messages.find("QMTA040I") != std::string::npos)
      throw std::runtime_error("ingest check: status " + std::to_string(status) + "\n" +
                               messages + ReadAll(err));

    benchmark::RegisterBenchmark("ingest/ours", Ours, &input)->UseRealTime();
    benchmark::RegisterBenchmark("ingest/floor", Floor, &input)->UseRealTime();
  });
}
