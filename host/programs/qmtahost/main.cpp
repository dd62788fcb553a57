// qmtahost: the reference host. Loads the automation module, starts it, and
// feeds it the events and operator commands of an input file, one line at
// a time, on the main thread. Standard output carries only the module's
// operator messages; everything the host itself says goes to standard
// error.
//
// Threads: the main thread reads the input and calls the module's entries;
// the start-up entry runs on a thread of its own (module.cpp); the module
// starts an action thread per matching rule, the drivers have threads of
// their own, and the query service delivers completions on its delivery
// threads (docs/architecture.md).
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>

#include "host/common/files.h"
#include "host/common/say.h"
#include "host/drivers/driver.h"
#include "host/drivers/local/local.h"
#include "host/drivers/nats/driver.h"
#include "host/drivers/sim.h"
#include "host/programs/qmtahost/explain.h"
#include "host/programs/qmtahost/inputline.h"
#include "host/programs/qmtahost/linereader.h"
#include "host/programs/qmtahost/module.h"
#include "host/programs/qmtahost/options.h"
#include "host/programs/qmtahost/reload.h"
#include "host/programs/qmtahost/rulecheck.h"
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
  if (options.input != "-") {
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

// Hands every line of `in` to the module, in order, on this thread.
void Feed(const Entries& entries, FILE* in) {
  std::string text;
  bool tooLong;
  auto reader = std::make_unique<LineReader>(fileno(in));
  for (long number = 1; reader->Next(&text, &tooLong); ++number) {
    InputLine line = tooLong ? InputLine{InputLine::Kind::kError, {}, "line too long"}
                             : ParseInputLine(text);
    switch (line.kind) {
      case InputLine::Kind::kSkip: break;
      case InputLine::Kind::kEvent: SendEvent(entries, line.event); break;
      case InputLine::Kind::kDrain: Drain(); break;
      case InputLine::Kind::kCommand: SendCommand(entries, line.text); break;
      case InputLine::Kind::kReload:
        ReloadFromInput(line.force, [&] { SendCommand(entries, "REFRESH"); });
        break;
      case InputLine::Kind::kError: Say("line " + std::to_string(number) + ": " + line.text); break;
    }
  }
  if (reader->error() != 0) Say("error reading the input: " + host::ErrorText(reader->error()));
}

int Run(const Options& options) {
  Setup setup;
  if (int status = Prepare(options, &setup)) return status;
  Configure(options);
  Entries entries;
  if (!LoadModule(setup.module, &entries)) return kModuleError;
  if (options.init) Initialise(entries.init);
  Feed(entries, setup.in);
  if (setup.in != stdin) fclose(setup.in);

  Drain();
  // The local driver's threads end right after their last completion.
  if (!host::WaitForLocalRunners(std::chrono::seconds(30)))
    Say("action programs still running at exit");
  fflush(stdout);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  EnsureStandardDescriptors();
  signal(SIGPIPE, SIG_IGN);  // a closed output is reported as an error, not fatal

  // The operator tools: own processes that never load the module.
  if (argc > 1 && strcmp(argv[1], "check") == 0) return RunCheck(argc - 1, argv + 1);
  if (argc > 1 && strcmp(argv[1], "explain") == 0) return RunExplain(argc - 1, argv + 1);

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
  return Run(options);
}
