#include "bench/support/benchsupport.h"

#include <errno.h>
#include <fcntl.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <iostream>
#include <stdexcept>
#include <thread>

#include <benchmark/benchmark.h>

namespace qmtabench {
namespace {

bool tiny = false;

std::string Numbered(const char* prefix, int number, int width, const char* suffix) {
  char digits[16];
  snprintf(digits, sizeof digits, "%0*d", width, number);
  return std::string(prefix) + digits + suffix;
}

}  // namespace

bool Tiny() { return tiny; }

int Main(int argc, char** argv, const std::function<void()>& registerAll) {
  std::vector<char*> kept;
  for (int i = 0; i < argc; ++i) {
    if (i > 0 && strcmp(argv[i], "--tiny") == 0)
      tiny = true;
    else
      kept.push_back(argv[i]);
  }
  int keptCount = static_cast<int>(kept.size());
  kept.push_back(nullptr);
  benchmark::Initialize(&keptCount, kept.data());
  if (benchmark::ReportUnrecognizedArguments(keptCount, kept.data())) return 2;

  // The module's messages go to standard output; the report goes to
  // standard error, and the JSON results to --benchmark_out.
  fflush(stdout);
  int null = open("/dev/null", O_WRONLY);
  if (null < 0 || dup2(null, 1) < 0) {
    perror("bench: /dev/null");
    return 1;
  }
  close(null);

  registerAll();
  benchmark::ConsoleReporter display;
  display.SetOutputStream(&std::cerr);
  display.SetErrorStream(&std::cerr);
  benchmark::RunSpecifiedBenchmarks(&display);
  benchmark::Shutdown();
  return 0;
}

std::string CaptureStdout(const std::function<void()>& body) {
  qmtatest::StdoutCapture capture;
  body();
  return capture.Take();
}

int DisplayedRules(const Module& module) {
  std::string text = CaptureStdout([&] { module.Command("DISPLAY"); });
  int rules = 0;
  for (size_t at = text.find("QMTA095I"); at != std::string::npos;
       at = text.find("QMTA095I", at + 1))
    ++rules;
  return rules;
}

int RunProgram(const std::vector<std::string>& argv, const std::string& out,
               const std::string& err) {
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&files, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&files, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  char* environment[] = {const_cast<char*>("PATH=/usr/bin:/bin"), nullptr};
  pid_t pid;
  int failed = posix_spawn(&pid, args[0], &files, nullptr, args.data(), environment);
  posix_spawn_file_actions_destroy(&files);
  if (failed) return -1;
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

bool WaitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit,
               std::chrono::microseconds interval) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(interval);
  }
  return true;
}

std::string IngestEventLines(int count) {
  std::string text;
  char line[512];
  for (int i = 0; i < count; ++i) {
    snprintf(line, sizeof line,
             "{\"sitname\": \"Ingest_Check_%03d\", \"originnode\": \"Primary:WEB%05d:NT\", "
             "\"currstate\": %d, \"prevstate\": %d, \"timestamp\": \"1261116%06d000\", "
             "\"attributes\": [[\"Disk.Mount_Point\", \"/var/%d\"], "
             "[\"Disk.Free_Percent\", \"%d\"]]}\n",
             i % 1000, i % 100000, 1 + i % 2, 2 - i % 2, i % 1000000, i % 7, i % 100);
    text += line;
  }
  return text;
}

std::string Text(const Rule& rule) {
  std::string text;
  if (!rule.comment.empty()) text += "* " + rule.comment + "\n";
  text += "SITNAME=" + rule.sitname + " ORIGINNODE=" + rule.originnode +
          " STATE=" + rule.state + "\n    DESTNODE=" + rule.destnode +
          " CALLTYPE=" + std::to_string(rule.calltype) + " SCRIPT=" + rule.script;
  for (size_t i = 0; i < rule.args.size(); ++i) {
    text += i % 4 == 0 ? "\n    " : " ";
    text += "ARG" + std::to_string(i + 1) + "=" + rule.args[i];
  }
  text += ";\n";
  return text;
}

std::string Text(const std::vector<Rule>& rules) {
  std::string text;
  for (const Rule& rule : rules) text += Text(rule);
  return text;
}

std::vector<Rule> MissRules(int count) {
  // Situation patterns that all match kMissSitname, each by another road
  // through the matcher; origin patterns that all fail on kMissOrigin.
  static const char* const kSitnames[] = {"NT_Disk_Space_Low", "NT_Disk*", "*_Low",
                                          "NT_*_Low", "*"};
  std::vector<Rule> rules;
  rules.reserve(static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) {
    Rule rule;
    rule.sitname = kSitnames[i % 5];
    switch (i % 4) {
      case 0: rule.originnode = Numbered("Primary:DB", i % 100000, 5, ":NT"); break;
      case 1: rule.originnode = Numbered("Primary:APP", i % 100000, 5, "*"); break;
      case 2: rule.originnode = "*:UX"; break;
      default: rule.originnode = Numbered("Primary:WEB", 50000 + i % 50000, 5, ":*"); break;
    }
    rule.state = i % 3 == 0 ? "ANY" : "TRUE";
    rule.destnode = i % 2 ? "SYS1:MVS_ACTIONS" : "ops:LOCAL";
    rule.calltype = i % 10;
    rule.script = "DISKCLN";
    rule.args = {"SITNAME", "NODE", "\"/var/log\""};
    rules.push_back(std::move(rule));
  }
  return rules;
}

std::vector<Rule> RealisticRules(int count) {
  static const char* const kSitnames[] = {
      "NT_Disk_Space_Low", "NT_Disk*",          "UX_CPU_Critical", "LZ_Memory_Low",
      "MQ_Queue_Full",     "DB2_Tablespace_*",  "*_Process_Down",  "Web_Response_Slow",
      "Log_Error_Found",   "NT_Service_Stopped"};
  static const char* const kScripts[] = {"DISKCLN", "RESTART", "NOTIFY", "SNMPTRAP",
                                         "LOGEVENT"};
  static const char* const kStates[] = {"TRUE", "TRUE", "TRUE", "FALSE", "ANY", "UNKNOWN"};
  static const char* const kArgs[] = {
      "SITNAME",  "NODE",     "TIMESTAMP",           "CURRSTATE",        "THRESHOLD",
      "PRESTATE", "\"/var/log/app\"", "Disk.Free_Percent", "\"restart the service now\"",
      "critical"};
  std::vector<Rule> rules;
  rules.reserve(static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) {
    Rule rule;
    if (i % 10 == 0) rule.comment = "Rules " + std::to_string(i) + " on: the web and database tiers";
    rule.sitname = kSitnames[i % 10];
    switch (i % 5) {
      case 0: rule.originnode = "*"; break;
      case 1: rule.originnode = Numbered("Primary:WEB", i % 100000, 5, ":NT"); break;
      case 2: rule.originnode = "*:LZ"; break;
      case 3: rule.originnode = Numbered("Primary:DB", i % 1000, 3, "*"); break;
      default: rule.originnode = "\"Backup:*\""; break;
    }
    rule.state = kStates[i % 6];
    switch (i % 4) {
      case 0: rule.destnode = "SYS1:MVS_ACTIONS"; break;
      case 1: rule.destnode = Numbered("HOST", i % 1000, 3, ":SNMP_TRAP"); break;
      case 2: rule.destnode = "ops:LOCAL"; break;
      default: rule.destnode = "paging:ONCALL"; break;
    }
    rule.calltype = i % 100;
    rule.script = kScripts[i % 5];
    int args = i % 7;  // zero to six
    for (int a = 0; a < args; ++a) rule.args.push_back(kArgs[(i + a * 3) % 10]);
    rules.push_back(std::move(rule));
  }
  return rules;
}

}  // namespace qmtabench
