// qmtabench_report: pairs each figure of the benchmark programs with its
// floor and prints one table (figure, ours, floor, ratio, target, unit),
// and writes the same as JSON.
//
//   qmtabench_report [--tiny] --out results.json match.json dispatch.json ...
//
// Each input is the JSON output of one Google Benchmark program. A figure
// takes the median of its repetitions (or its only run). The ratio says how
// close ours comes to the floor, 1.0 being as good as the floor: ours/floor
// for rates, floor/ours for times and sizes. A scaling figure compares two
// event threads with one: ours and floor are then each 2-thread/1-thread,
// and its target applies to ours. Figures whose programs were not run are
// listed as not measured; a benchmark that reported an error, or a figure
// with only one of its two sides, makes the exit status 1. Times are never
// judged here: --tiny runs are too short to mean anything, and a missed
// target is shown, not failed.
#include <math.h>
#include <stdio.h>
#include <string.h>

#include <fstream>
#include <iostream>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;

struct Figure {
  std::string label;
  std::string ours;
  std::string floor;
  std::string counter;
  std::string unit;
  double scale = 1;  // shown value = counter * scale (bytes/s to MB/s)
  bool lowerIsBetter = false;
  double target = 0;  // 0: none
  // Scaling figures: the one-thread runs that ours and floor are divided by.
  std::string ours1;
  std::string floor1;
  std::string floorCounter;  // empty: `counter`
};

Figure Make(std::string label, std::string ours, std::string floor, std::string counter,
            std::string unit, bool lowerIsBetter, double target, std::string ours1 = "",
            std::string floor1 = "") {
  Figure figure;
  figure.label = std::move(label);
  figure.ours = std::move(ours);
  figure.floor = std::move(floor);
  figure.counter = std::move(counter);
  figure.unit = std::move(unit);
  figure.lowerIsBetter = lowerIsBetter;
  figure.target = target;
  figure.ours1 = std::move(ours1);
  figure.floor1 = std::move(floor1);
  return figure;
}

std::string Threads(const std::string& name, int threads) {
  return name + "/real_time/threads:" + std::to_string(threads);
}

std::vector<Figure> Figures() {
  std::vector<Figure> figures;
  for (const char* rules : {"10", "1000", "100000"}) {
    std::string size = std::string(rules);
    std::string label = size == "100000" ? "100,000" : size == "1000" ? "1,000" : size;
    std::string ours = "match/ours/" + size, floor = "match/floor/" + size;
    figures.push_back(Make("matching, " + label + " rules", Threads(ours, 1), Threads(floor, 1),
                       "items_per_second", "events/s", false, 0.8));
    figures.push_back(Make("matching, " + label + " rules, per rule", Threads(ours, 1),
                       Threads(floor, 1), "ns_per_rule", "ns/rule", true, 0.8));
    figures.push_back(Make("matching, " + label + " rules, 2 threads", Threads(ours, 2),
                       Threads(floor, 2), "items_per_second", "events/s", false, 0));
    figures.push_back(Make("matching, " + label + " rules, 2 threads/1", Threads(ours, 2),
                       Threads(floor, 2), "items_per_second", "x", false, 1.6,
                       Threads(ours, 1), Threads(floor, 1)));
  }
  figures.push_back(Make("dispatch, sim rc=0", "dispatch/ours/real_time", "dispatch/floor/real_time",
                     "items_per_second", "actions/s", false, 0.6));
  // The action journal on, against the same road with it off.
  figures.push_back(Make("dispatch, journal on (floor: off)", "dispatch/journal/real_time",
                     "dispatch/ours/real_time", "items_per_second", "actions/s", false, 0.8));
  Figure journalSize = Make("journal size per action (floor: its text)",
                            "dispatch/journal/real_time", "dispatch/journal/real_time",
                            "bytes_per_action", "B/action", true, 0);
  journalSize.floorCounter = "text_bytes_per_action";
  figures.push_back(journalSize);
  for (const char* rules : {"1000", "100000"}) {
    std::string size = rules;
    std::string label = size == "100000" ? "100,000" : "1,000";
    std::string ours = "load/ours/" + size + "/real_time";
    std::string floor = "load/floor/" + size + "/real_time";
    Figure megabytes = Make("loading, " + label + " rules", ours, floor, "bytes_per_second",
                            "MB/s", false, 0.25);
    megabytes.scale = 1e-6;
    figures.push_back(megabytes);
    figures.push_back(Make("loading, " + label + " rules", ours, floor, "items_per_second",
                       "rules/s", false, 0.25));
    figures.push_back(Make("loaded memory, " + label + " rules (floor: file)", ours, floor,
                       "bytes_per_rule", "B/rule", true, 0));
  }
  // qmtahost check against the module's own table load of the same file.
  figures.push_back(Make("check, 100,000 rules (floor: the table load)",
                     "load/check/100000/real_time", "load/ours/100000/real_time",
                     "items_per_second", "rules/s", false, 0));
  figures.push_back(Make("host ingest, no rule matches", "ingest/ours/real_time",
                     "ingest/floor/real_time", "items_per_second", "events/s", false, 0.5));
  // HTTP: events through POST /v1/events against the standard-input path.
  figures.push_back(Make("http events, batches of 100 (floor: stdin)", "http/batch/real_time",
                     "http/stdin/real_time", "items_per_second", "events/s", false, 0.5));
  figures.push_back(Make("http events, one per request (floor: stdin)", "http/single/real_time",
                     "http/stdin/real_time", "items_per_second", "events/s", false, 0));
  figures.push_back(Make("local actions", "local/ours/real_time", "local/floor/real_time",
                     "items_per_second", "actions/s", false, 0.7));
  // The JetStream intake against the standard-input path, each event
  // starting one sim action.
  figures.push_back(Make("JetStream intake, acknowledged (floor: standard input)",
                     "jetstream/ours/real_time", "jetstream/floor/real_time", "items_per_second",
                     "events/s", false, 0.3));
  figures.push_back(Make("JetStream latency to QMTA040I, median (floor: standard input)",
                     "jetstream_latency/ours/real_time", "jetstream_latency/floor/real_time",
                     "p50_us", "us", true, 0));
  figures.push_back(Make("JetStream latency to QMTA040I, 99th percentile (floor: standard input)",
                     "jetstream_latency/ours/real_time", "jetstream_latency/floor/real_time",
                     "p99_us", "us", true, 0));
  return figures;
}

struct Run {
  std::map<std::string, double> values;
  bool error = false;
  std::string message;
};

// run name -> the median (or the only run), with errors of any repetition.
std::map<std::string, Run> runs;
json context;

bool Read(const std::string& file) {
  std::ifstream in(file);
  if (!in) {
    std::cerr << "report: cannot read " << file << "\n";
    return false;
  }
  json data;
  try {
    data = json::parse(in);
  } catch (const json::exception& failure) {
    std::cerr << "report: " << file << ": " << failure.what() << "\n";
    return false;
  }
  if (context.is_null() && data.contains("context")) context = data["context"];
  std::map<std::string, int> iterations;  // single runs seen per name
  for (const json& entry : data.value("benchmarks", json::array())) {
    std::string name = entry.value("run_name", entry.value("name", ""));
    Run& run = runs[name];
    if (entry.value("error_occurred", false)) {
      run.error = true;
      run.message = entry.value("error_message", "");
      continue;
    }
    bool median = entry.value("run_type", "") == "aggregate" &&
                  entry.value("aggregate_name", "") == "median";
    bool single = entry.value("run_type", "iteration") == "iteration";
    if (single) ++iterations[name];
    if (!median && !(single && iterations[name] == 1 && run.values.empty())) continue;
    if (median) run.values.clear();
    for (const auto& [key, value] : entry.items())
      if (value.is_number()) run.values[key] = value.get<double>();
  }
  return true;
}

std::optional<double> Value(const std::string& name, const std::string& counter,
                            std::string* problem) {
  auto found = runs.find(name);
  if (found == runs.end()) return std::nullopt;
  if (found->second.error) {
    *problem = name + ": " + found->second.message;
    return std::nullopt;
  }
  auto value = found->second.values.find(counter);
  if (value == found->second.values.end()) {
    *problem = name + ": no " + counter;
    return std::nullopt;
  }
  return value->second;
}

// Three significant digits, with k/M/G for large values.
std::string Format(double value) {
  const char* suffix = "";
  double shown = value;
  if (fabs(value) >= 1e9) shown = value / 1e9, suffix = "G";
  else if (fabs(value) >= 1e6) shown = value / 1e6, suffix = "M";
  else if (fabs(value) >= 1e4) shown = value / 1e3, suffix = "k";
  char text[32];
  int decimals = fabs(shown) >= 100 ? 0 : fabs(shown) >= 10 ? 1 : 2;
  snprintf(text, sizeof text, "%.*f%s", decimals, shown, suffix);
  return text;
}

std::string CpuModel() {
  std::ifstream in("/proc/cpuinfo");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("model name", 0) == 0) {
      size_t colon = line.find(':');
      if (colon != std::string::npos) return line.substr(line.find_first_not_of(" \t", colon + 1));
    }
  }
  return "unknown";
}

}  // namespace

int main(int argc, char** argv) {
  bool tiny = false;
  std::string out;
  std::vector<std::string> inputs;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--tiny") tiny = true;
    else if (arg == "--out" && i + 1 < argc) out = argv[++i];
    else inputs.push_back(arg);
  }
  if (inputs.empty()) {
    std::cerr << "usage: qmtabench_report [--tiny] [--out FILE] RESULTS.json...\n";
    return 2;
  }
  bool bad = false;
  for (const std::string& input : inputs) bad |= !Read(input);

  json rows = json::array();
  std::vector<std::vector<std::string>> table = {
      {"figure", "ours", "floor", "ratio", "target", "unit"}};
  for (const Figure& figure : Figures()) {
    std::string problem;
    bool scaling = !figure.ours1.empty();
    auto ours = Value(figure.ours, figure.counter, &problem);
    auto floor = Value(figure.floor,
                       figure.floorCounter.empty() ? figure.counter : figure.floorCounter,
                       &problem);
    if (ours) *ours *= figure.scale;
    if (floor) *floor *= figure.scale;
    if (scaling) {
      auto ours1 = Value(figure.ours1, figure.counter, &problem);
      auto floor1 = Value(figure.floor1, figure.counter, &problem);
      ours = ours && ours1 && *ours1 > 0 ? std::optional<double>(*ours / *ours1) : std::nullopt;
      floor = floor && floor1 && *floor1 > 0 ? std::optional<double>(*floor / *floor1)
                                              : std::nullopt;
    }
    json row = {{"figure", figure.label}, {"unit", figure.unit}};
    if (!problem.empty() || ours.has_value() != floor.has_value()) {
      std::cerr << "report: " << figure.label << ": "
                << (problem.empty() ? "only one side was measured" : problem) << "\n";
      bad = true;
    }
    if (!ours || !floor || *ours <= 0 || *floor <= 0) {
      row["measured"] = false;
      rows.push_back(row);
      table.push_back({figure.label, "-", "-", "-", "", figure.unit + " (not measured)"});
      continue;
    }
    double ratio = figure.lowerIsBetter ? *floor / *ours : *ours / *floor;
    double judged = scaling ? *ours : ratio;
    std::string target;
    if (figure.target > 0) {
      char text[32];
      snprintf(text, sizeof text, "%s>=%.2f%s", scaling ? "ours " : "", figure.target,
               tiny ? "" : judged >= figure.target ? " ok" : " MISSED");
      target = text;
    }
    row["measured"] = true;
    row["ours"] = *ours;
    row["floor"] = *floor;
    row["ratio"] = ratio;
    if (figure.target > 0) {
      row["target"] = figure.target;
      row["target_applies_to"] = scaling ? "ours" : "ratio";
      if (!tiny) row["met"] = judged >= figure.target;
    }
    rows.push_back(row);
    char ratioText[32];
    snprintf(ratioText, sizeof ratioText, "%.2f", ratio);
    table.push_back({figure.label, Format(*ours), Format(*floor), ratioText, target, figure.unit});
  }

  std::vector<size_t> widths(table[0].size(), 0);
  for (const auto& line : table)
    for (size_t i = 0; i < line.size(); ++i) widths[i] = std::max(widths[i], line[i].size());
  for (size_t n = 0; n < table.size(); ++n) {
    std::string text;
    for (size_t i = 0; i < table[n].size(); ++i) {
      const std::string& cell = table[n][i];
      bool left = i == 0 || i == 4 || i == 5;
      std::string pad(widths[i] - cell.size(), ' ');
      text += (i ? " | " : "") + (left ? cell + pad : pad + cell);
    }
    while (!text.empty() && text.back() == ' ') text.pop_back();
    std::cout << text << "\n";
    if (n == 0) {
      std::string rule;
      for (size_t i = 0; i < widths.size(); ++i) rule += (i ? "-|-" : "") + std::string(widths[i], '-');
      std::cout << rule << "\n";
    }
  }

  if (!out.empty()) {
    json machine = {{"cpu_model", CpuModel()}};
    for (const char* key : {"host_name", "num_cpus", "mhz_per_cpu", "date", "library_build_type"})
      if (context.contains(key)) machine[key] = context[key];
    json result = {{"tiny", tiny}, {"machine", machine}, {"figures", rows}};
    std::ofstream file(out);
    file << result.dump(2) << "\n";
    if (!file) {
      std::cerr << "report: cannot write " << out << "\n";
      bad = true;
    }
  }
  return bad ? 1 : 0;
}
