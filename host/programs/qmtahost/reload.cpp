#include "host/programs/qmtahost/reload.h"

#include "host/programs/qmtahost/rulecheck.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <optional>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

extern char** environ;

namespace qmta::hostprog {
namespace {

using Json = nlohmann::json;

// Runs the check with its standard output and error in `out` and `err`;
// returns its exit status, or nothing with `*reason` set.
std::optional<int> RunCheckProcess(const ReloadSettings& settings, FILE* out, FILE* err,
                                   std::string* reason) {
  const std::string limit = std::to_string(settings.limit);
  const char* argv[] = {"qmtahost", "check", "--json", "--max-size", limit.c_str(), "--",
                        settings.file.c_str(), nullptr};
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&files, fileno(out), 1);
  posix_spawn_file_actions_adddup2(&files, fileno(err), 2);
#if defined(__GLIBC__) && (__GLIBC__ > 2 || __GLIBC_MINOR__ >= 34)
  posix_spawn_file_actions_addclosefrom_np(&files, 3);
#endif
  pid_t pid;
  int failed = posix_spawn(&pid, settings.program.c_str(), &files, nullptr,
                           const_cast<char* const*>(argv), environ);
  posix_spawn_file_actions_destroy(&files);
  if (failed) {
    *reason = "cannot run the check: " + std::string(strerror(failed));
    return std::nullopt;
  }
  auto end = std::chrono::steady_clock::now() + settings.timeout;
  int status = 0;
  pid_t done;
  while ((done = waitpid(pid, &status, WNOHANG)) == 0 && std::chrono::steady_clock::now() < end)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  if (done == 0) {
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    *reason = "the check did not finish in time";
    return std::nullopt;
  }
  if (done < 0 || !WIFEXITED(status)) {
    *reason = "the check ended abnormally";
    return std::nullopt;
  }
  return WEXITSTATUS(status);
}

// Why the check's JSON output says the file must not be loaded; empty
// when it may be, with `*found` saying what it held.
std::string Verdict(FILE* out, const std::string& file, std::string* found) {
  std::string badFile, firstDrop;
  Json summary;
  char* buffer = nullptr;
  size_t size = 0;
  rewind(out);
  for (ssize_t got; (got = getline(&buffer, &size, out)) > 0;) {
    Json object = Json::parse(buffer, buffer + got, nullptr, false);
    if (!object.is_object()) continue;
    if (object.contains("summary")) summary = object["summary"];
    std::string id = object.value("id", ""), severity = object.value("severity", "");
    if (id == "bad-file" && badFile.empty()) badFile = object.value("text", "");
    if ((severity == "E" || severity == "S") && id != "bad-file" && firstDrop.empty())
      firstDrop = object.value("text", "");
  }
  free(buffer);
  if (!badFile.empty()) return file + ": " + badFile;
  if (!summary.is_object()) return "the check gave no summary";
  int rules = summary.value("rules", 0), dropped = summary.value("dropped", 0);
  *found = std::to_string(rules) + " rules, " + std::to_string(summary.value("warnings", 0)) +
           " warnings";
  if (dropped > 0 || !firstDrop.empty())
    return file + " would drop " + std::to_string(dropped) + " entr" +
           (dropped == 1 ? "y" : "ies") + (firstDrop.empty() ? "" : " (first: " + firstDrop + ")");
  if (rules == 0) return file + " would load no rule";
  return "";
}

}  // namespace

ReloadOutcome CheckedReload(bool force, const std::function<void()>& refresh,
                            const ReloadSettings& settings) {
  ReloadOutcome outcome;
  if (force) {
    outcome.reason = "forced: not checked";
  } else {
    FILE* out = tmpfile();
    FILE* err = tmpfile();
    std::optional<int> status;
    if (out == nullptr || err == nullptr)
      outcome.reason = "cannot make the check's output files";
    else
      status = RunCheckProcess(settings, out, err, &outcome.reason);
    std::string found;
    if (status) {
      std::string refusal = Verdict(out, settings.file, &found);
      if (refusal.empty() && *status != kCheckClean && *status != kCheckWarnings)
        refusal = "the check failed with status " + std::to_string(*status);
      outcome.refreshed = refusal.empty();
      outcome.reason = refusal.empty() ? "checked: " + found : refusal;
    }
    if (out) fclose(out);
    if (err) fclose(err);
    if (!outcome.refreshed) return outcome;
  }
  outcome.refreshed = true;
  refresh();
  return outcome;
}

ReloadOutcome ReloadFromInput(bool force, const std::function<void()>& refresh) {
  ReloadOutcome outcome = CheckedReload(force, refresh);
  std::string reason = outcome.reason;  // one line, whatever the file held
  for (char& c : reason)
    if (static_cast<unsigned char>(c) < ' ') c = ' ';
  if (outcome.refreshed)
    fprintf(stderr, "qmtahost: reload: %s; REFRESH sent\n", reason.c_str());
  else
    fprintf(stderr, "qmtahost: reload refused: %s; the running rules stay\n", reason.c_str());
  return outcome;
}

}  // namespace qmta::hostprog
