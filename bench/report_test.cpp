// The report that turns the benchmark programs' results into the table: it
// must take the median of the repetitions, divide the right way round, pair
// scaling rows, and fail on an errored benchmark but not on a missing one.
#include <stdlib.h>
#include <sys/wait.h>

#include <array>
#include <fstream>
#include <map>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tests/support/support.h"

namespace {

using nlohmann::json;

// Three repetitions of one benchmark and their aggregates, as Google
// Benchmark writes them; for each counter the values are given low, middle,
// high, and the median is the middle one (the mean and the first are not).
using Values = std::map<std::string, std::array<double, 3>>;
void AddRuns(json& list, const std::string& name, const Values& counters) {
  for (int order : {2, 0, 1}) {
    json entry = {{"name", name}, {"run_name", name}, {"run_type", "iteration"}};
    for (const auto& [counter, values] : counters) entry[counter] = values[order];
    list.push_back(entry);
  }
  for (const char* aggregate : {"mean", "median"}) {
    json entry = {{"name", name + "_" + aggregate}, {"run_name", name},
                  {"run_type", "aggregate"}, {"aggregate_name", aggregate}};
    for (const auto& [counter, values] : counters)
      entry[counter] = aggregate == std::string("median")
                           ? values[1]
                           : (values[0] + values[1] + values[2]) / 3;
    list.push_back(entry);
  }
}

struct Report {
  int status = -1;
  json figures;
  json Figure(const std::string& label) const {
    for (const json& row : figures)
      if (row["figure"] == label) return row;
    return json();
  }
};

Report RunReport(const qmtatest::ScratchDir& dir, const json& benchmarks) {
  dir.Write("in.json", json{{"context", {{"num_cpus", 2}}}, {"benchmarks", benchmarks}}.dump());
  std::string command = std::string(QMTABENCH_REPORT_PATH) + " --out " + dir.path() +
                        "/out.json " + dir.path() + "/in.json >" + dir.path() +
                        "/table.txt 2>" + dir.path() + "/errors.txt";
  Report report;
  int status = system(command.c_str());
  report.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  std::ifstream out(dir.path() + "/out.json");
  if (out) report.figures = json::parse(out)["figures"];
  return report;
}

const std::string kOurs1 = "match/ours/1000/real_time/threads:1";
const std::string kFloor1 = "match/floor/1000/real_time/threads:1";
const std::string kOurs2 = "match/ours/1000/real_time/threads:2";
const std::string kFloor2 = "match/floor/1000/real_time/threads:2";

TEST(BenchReport, MediansRatiosBothWaysAndScaling) {
  qmtatest::ScratchDir dir;
  json list = json::array();
  AddRuns(list, kOurs1, {{"items_per_second", {10, 40, 1000}}, {"ns_per_rule", {20, 25, 90}}});
  AddRuns(list, kFloor1, {{"items_per_second", {30, 50, 60}}, {"ns_per_rule", {10, 20, 21}}});
  AddRuns(list, kOurs2, {{"items_per_second", {60, 60, 60}}});
  AddRuns(list, kFloor2, {{"items_per_second", {90, 100, 110}}});
  Report report = RunReport(dir, list);
  EXPECT_EQ(report.status, 0);

  json rate = report.Figure("matching, 1,000 rules");
  EXPECT_DOUBLE_EQ(rate["ours"].get<double>(), 40);
  EXPECT_DOUBLE_EQ(rate["floor"].get<double>(), 50);
  EXPECT_DOUBLE_EQ(rate["ratio"].get<double>(), 0.8);
  EXPECT_EQ(rate["met"], true);

  // A time: the ratio is floor/ours, so slower than the floor is below 1.
  json time = report.Figure("matching, 1,000 rules, per rule");
  EXPECT_DOUBLE_EQ(time["ours"].get<double>(), 25);
  EXPECT_DOUBLE_EQ(time["ratio"].get<double>(), 0.8);

  // Scaling: each side's two-thread rate over its one-thread rate; the
  // target is judged on ours (1.5 < 1.6) whatever the ratio.
  json scaling = report.Figure("matching, 1,000 rules, 2 threads/1");
  EXPECT_DOUBLE_EQ(scaling["ours"].get<double>(), 1.5);
  EXPECT_DOUBLE_EQ(scaling["floor"].get<double>(), 2.0);
  EXPECT_DOUBLE_EQ(scaling["ratio"].get<double>(), 0.75);
  EXPECT_EQ(scaling["target_applies_to"], "ours");
  EXPECT_EQ(scaling["met"], false);

  // Programs that did not run leave their figures unmeasured, not failed.
  EXPECT_EQ(report.Figure("host ingest, no rule matches")["measured"], false);
}

TEST(BenchReport, AnErroredOrOneSidedFigureFailsTheReport) {
  qmtatest::ScratchDir dir;
  json list = json::array();
  AddRuns(list, "dispatch/ours/real_time", {{"items_per_second", {1, 2, 3}}});
  AddRuns(list, "dispatch/floor/real_time", {{"items_per_second", {1, 2, 3}}});
  list.push_back({{"name", "dispatch/floor/real_time"}, {"run_name", "dispatch/floor/real_time"},
                  {"run_type", "iteration"}, {"error_occurred", true},
                  {"error_message", "actions did not finish"}});
  Report errored = RunReport(dir, list);
  EXPECT_EQ(errored.status, 1);
  EXPECT_EQ(errored.Figure("dispatch, sim rc=0")["measured"], false);

  json oneSided = json::array();
  AddRuns(oneSided, "local/ours/real_time", {{"items_per_second", {1, 2, 3}}});
  EXPECT_EQ(RunReport(dir, oneSided).status, 1);
}

}  // namespace
