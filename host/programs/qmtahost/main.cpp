// qmtahost: the reference host. Loads the automation module, starts it, and
// feeds it the events and operator commands of an input file (file mode)
// or of its control socket (`serve`), one line at a time, through one
// dispatcher thread (service.cpp). Standard output carries only the
// module's operator messages; everything the host itself says goes to
// standard error. `check`, `explain` and `ctl` are tools that never load
// the module.
//
// Threads: the main thread prepares, loads the module and waits for the
// stop (service.cpp); the start-up entry runs on a thread of its own
// (module.cpp); the module starts an action thread per matching rule, the
// drivers have threads of their own, and the query service delivers
// completions on its delivery threads (docs/architecture.md).
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "host/common/files.h"
#include "host/common/limits.h"
#include "host/common/say.h"
#include "host/drivers/driver.h"
#include "host/drivers/local/local.h"
#include "host/drivers/nats/driver.h"
#include "host/drivers/sim.h"
#include "host/programs/qmtahost/control.h"
#include "host/programs/qmtahost/explain.h"
#include "host/programs/qmtahost/history.h"
#include "host/programs/qmtahost/http.h"
#include "host/programs/qmtahost/inputline.h"
#include "host/programs/qmtahost/module.h"
#include "host/programs/qmtahost/options.h"
#include "host/programs/qmtahost/reload.h"
#include "host/programs/qmtahost/rulecheck.h"
#include "host/programs/qmtahost/send.h"
#include "host/programs/qmtahost/service.h"
#include "host/programs/qmtahost/signals.h"
#include "host/services/control.h"

namespace {

namespace fs = std::filesystem;
namespace host = qmta::host;
using namespace qmta::hostprog;

constexpr int kUsageError = 2;
constexpr int kModuleError = 1;

void Say(const std::string& text) { host::Say("qmtahost: ", text); }

// Descriptors 0, 1 and 2 are open, so that nothing the host opens later
// takes their place (and is handed to action programs as one of them).
void EnsureStandardDescriptors() {
  for (int fd = 0; fd < 3; ++fd) {
    if (fcntl(fd, F_GETFD) != -1 || errno != EBADF) continue;
    int opened = open("/dev/null", O_RDWR);
    if (opened >= 0 && opened != fd) {
      dup2(opened, fd);
      close(opened);
    }
  }
}

// What the command line names, with every path made absolute against the
// directory the program started in (it changes into --dir before the
// module is loaded).
struct Setup {
  fs::path origin;
  std::string dir;
  std::string actions;
  std::string module;
  FILE* in = stdin;

  std::string Absolute(const std::string& path) const {
    return (origin / path).lexically_normal().string();
  }
};

// Registers the drivers and reads the destination directory (the nodes
// file; without one every node runs "local"). False after saying why.
bool SetUpDestinations(const Options& options, const Setup& setup) {
  host::RegisterStandardDrivers();
  host::RegisterDriver("local", host::LocalDriverFactory(setup.actions));
  host::RegisterDriver("nats", host::NatsDriverFactory());
  std::string nodes = "* local\n";
  if (!options.nodes.empty() && !host::ReadFile(setup.Absolute(options.nodes), &nodes)) {
    const int failure = errno;
    Say("cannot read " + options.nodes + ": " + host::ErrorText(failure));
    return false;
  }
  std::string reason;
  if (!host::SetDestinations(nodes, &reason)) {
    Say((options.nodes.empty() ? "destinations" : options.nodes) + ": " + reason);
    return false;
  }
  return true;
}

// Everything before the module is loaded: paths, destinations, the input,
// the working directory. 0, or the exit status after saying why.
int Prepare(const Options& options, Setup* setup) {
  std::error_code error;
  setup->origin = fs::current_path(error);
  setup->dir = setup->Absolute(options.dir);
  if (!fs::is_directory(setup->dir, error)) {
    Say("--dir " + options.dir + ": not a directory");
    return kUsageError;
  }
  setup->actions = options.actions.empty() ? (fs::path(setup->dir) / "actions").string()
                                           : setup->Absolute(options.actions);
  setup->module = options.module.empty() ? DefaultModule() : setup->Absolute(options.module);
  if (!SetUpDestinations(options, *setup)) return kUsageError;
  if (!options.serve && options.input != "-") {
    setup->in = fopen(setup->Absolute(options.input).c_str(), "re");
    if (!setup->in) {
      const int failure = errno;
      Say("cannot open " + options.input + ": " + host::ErrorText(failure));
      return kUsageError;
    }
  }
  if (chdir(setup->dir.c_str()) != 0) {
    const int failure = errno;
    Say("cannot change into " + setup->dir + ": " + host::ErrorText(failure));
    return kUsageError;
  }
  return 0;
}

void Configure(const Options& options) {
  if (options.trace) host::SetTraceLevel(*options.trace);
  if (!options.server.empty()) host::SetServerName(options.server);
  host::SetCommandLength(options.commandLength);
  if (options.clockShift != 0) host::SetClockShift(std::chrono::seconds(options.clockShift));
}

// `qmtahost ctl [--control PATH] LINE...`
int RunCtl(int argc, char** argv) {
  std::string path = DefaultControlPath();
  std::vector<std::string> lines;
  for (int i = 1; i < argc; ++i) {
    std::string word = argv[i];
    if (word == "--control" && i + 1 < argc) {
      path = argv[++i];
    } else if (word.starts_with("--control=")) {
      path = word.substr(10);
    } else if (word == "-h" || word == "--help") {
      fputs("usage: qmtahost ctl [--control PATH] LINE...\n"
            "Sends each LINE (an event, {\"drain\": true}, {\"reload\": true} or a module\n"
            "command) to the host serving at PATH and prints what its handling printed.\n"
            "Exit status: 0 every line taken, 1 a line refused, 2 no host answers.\n",
            stdout);
      return 0;
    } else if (word.starts_with("--")) {  // no line of the host begins so
      host::SayUsageError("qmtahost ctl",
                          word == "--control" ? "--control needs a path" : "unknown option \"" + word + "\"",
                          "usage: qmtahost ctl [--control PATH] LINE...\n");
      return kUsageError;
    } else {
      lines.push_back(word);
    }
  }
  if (lines.empty()) {
    host::SayUsageError("qmtahost ctl", "no line to send", "usage: qmtahost ctl [--control PATH] LINE...\n");
    return kUsageError;
  }
  return RunControlClient(path, lines);
}

int Run(const Options& options, bool stdoutClosed) {
  // Before any thread exists, so that every thread inherits the mask and
  // only the signal thread takes these signals.
  BlockStopSignals();
  Setup setup;
  if (int status = Prepare(options, &setup)) return status;
  HttpConfig http;
  if (!options.listen.empty()) {
    HttpOptions given;
    given.listen = options.listen;
    for (auto [from, to] : {std::pair{&options.tokenFile, &given.tokenFile},
                            std::pair{&options.tlsCert, &given.tlsCert},
                            std::pair{&options.tlsKey, &given.tlsKey}})
      if (!from->empty()) *to = setup.Absolute(*from);
    given.bodyMax = static_cast<size_t>(options.httpMaxBody);
    given.connections = static_cast<unsigned>(options.httpMaxConnections);
    given.timeoutSeconds = static_cast<unsigned>(options.httpTimeout);
    given.busyAfterSeconds = static_cast<unsigned>(options.httpBusyAfter);
    std::string error;
    if (!PrepareHttp(given, &http, &error)) {
      Say(error);
      return kUsageError;
    }
    http.allowAnyText = options.allowAnyText;
    http.alerts = options.alerts;
  }
  Configure(options);
  Entries entries;
  if (!LoadModule(setup.module, &entries)) return kModuleError;

  ServiceSettings settings;
  settings.serve = options.serve;
  settings.input = setup.in;
  settings.controlPath = options.control.empty() ? DefaultControlPath()
                                                 : setup.Absolute(options.control);
  settings.init = options.init;
  settings.allowAnyText = options.allowAnyText;
  settings.events = options.events;
  settings.events.allowAnyText = options.allowAnyText;
  settings.stdoutClosed = stdoutClosed;
  settings.outcomeLimit = std::chrono::seconds(std::max(5, 65 + options.clockShift));
  // The back-pressure limit when none is given: from the limits the host
  // raised at start (host/common/limits.h).
  settings.maxActions = options.maxActions ? *options.maxActions
                                           : host::DefaultMaxActions(host::RaiseDescriptorLimit());
  settings.http = std::move(http);
  settings.journal = !options.journal.empty() ? setup.Absolute(options.journal)
                     : options.serve          ? StateJournalPath()
                                              : std::string();
  settings.journalKeep = options.journalKeep;
  int status = RunService(entries, settings);
  // Program output that a blocked standard error held back, if it takes
  // it now.
  host::FlushLocalOutput(std::chrono::seconds(2));
  if (setup.in != stdin) fclose(setup.in);
  return status;
}

// The operator tools: own processes that never load the module.
struct Tool {
  const char* name;
  int (*run)(int argc, char** argv);
};
constexpr Tool kTools[] = {{"check", [](int argc, char** argv) { return RunCheck(argc, argv); }},
                           {"explain", [](int argc, char** argv) { return RunExplain(argc, argv); }},
                           {"ctl", RunCtl},
                           {"send", RunSend},
                           {"history", RunHistory}};

// Runs `tool` and returns its exit status once what it printed has reached
// standard output: a tool whose output was lost (a full disk, a closed
// pipe) says so and fails, whatever it found.
int RunTool(const Tool& tool, int argc, char** argv) {
  const int status = tool.run(argc, argv);
  if (fflush(stdout) == 0 && !ferror(stdout)) return status;
  // errno: that of the write that failed, unless a later call changed it.
  host::Say("qmtahost: ", std::string(tool.name) + ": cannot write standard output: " + host::ErrorText(errno));
  return status == 0 ? 1 : status;
}

}  // namespace

int main(int argc, char** argv) {
  // A closed standard output is an error of the host modes, said once the
  // command line is read; it is reopened on /dev/null meanwhile so that
  // nothing the host opens takes its place.
  const bool stdoutClosed = fcntl(1, F_GETFD) == -1 && errno == EBADF;
  EnsureStandardDescriptors();
  signal(SIGPIPE, SIG_IGN);  // a closed output is reported as an error, not fatal

  if (argc > 1)
    for (const Tool& tool : kTools)
      if (strcmp(argv[1], tool.name) == 0) return RunTool(tool, argc - 1, argv + 1);

  // Before any thread starts; action programs get the limit as it was.
  host::RaiseDescriptorLimit();
  Options options;
  std::string error;
  if (!ParseOptions(argc, argv, &options, &error)) {
    host::SayUsageError("qmtahost", error, kUsage);
    return kUsageError;
  }
  if (options.help) {
    fputs(kHelp, stdout);
    return 0;
  }
  if (options.version) {
    puts("qmtahost " QMTA_VERSION);
    return 0;
  }
  return Run(options, stdoutClosed);
}
