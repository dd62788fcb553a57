// qmtaagent: serves destination nodes on a NATS server. Each request for a
// served node is run by the host's local driver (the same word splitting,
// actions directory, environment, limits, time-out and output handling as
// qmtahost's "local" destinations) and answered with the program's return
// code. See docs/remote-nodes.md.
//
// Threads: the client library delivers the requests and cancels of each
// node on threads of its own; the local driver runs every program on its
// runner threads and answers from there (agent.h). The main thread
// connects, has the server confirm the subscriptions, then only waits for
// SIGTERM or SIGINT (or the agent's own SIGUSR1 and SIGUSR2), stops taking
// requests, ends the programs still running (answering their requests and
// the waiting ones with DBQ1_DEST_OFFLINE) and exits.
#include <getopt.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "host/common/limits.h"
#include "host/common/number.h"
#include "host/common/options.h"
#include "host/common/say.h"
#include "host/drivers/local/local.h"
#include "host/drivers/nats/connect.h"
#include "host/drivers/nats/wire.h"
#include "host/programs/qmtaagent/agent.h"

namespace {

namespace fs = std::filesystem;
namespace conn = qmta::host::natsconn;
namespace wire = qmta::host::wire;

constexpr char kUsage[] =
    "usage: qmtaagent --url URL --actions DIR [OPTION]... NODE...\n";
constexpr char kHelp[] =
    "usage: qmtaagent --url URL --actions DIR [OPTION]... NODE...\n"
    "Serves the destination nodes NODE... on a NATS server: runs each action\n"
    "sent to them as a program of DIR and answers with its return code.\n"
    "  --url URL[,URL...]     server(s): nats://HOST:PORT or tls://HOST:PORT\n"
    "  --actions DIR          where the action programs are\n"
    "  --dir DIR              working directory of the programs (default: .)\n"
    "  --timeout S            end a program after S seconds (default: 50)\n"
    "  --max N                programs run at once per node (default: 64, or what\n"
    "                         the descriptor and process limits allow, split among\n"
    "                         the nodes, when that is less)\n"
    "  --queue N              requests waiting per node beyond those (default: 256);\n"
    "                         further ones are answered at once with status 2021\n"
    "  --tls-ca FILE          CA certificates (PEM) that sign the server's certificate\n"
    "  --tls-cert FILE        client certificate (PEM), with --tls-key\n"
    "  --tls-key FILE         key of the client certificate\n"
    "  --user NAME            user name, with --password-file\n"
    "  --password-file FILE   file holding the password\n"
    "  --creds FILE           credentials file (JWT and NKey private key)\n"
    "  --insecure             connect without client credentials (any client of the\n"
    "                         server could then answer for these nodes)\n"
    "  --reconnect-wait MS    pause between reconnection attempts (default: 1000)\n"
    "  --check                connect, subscribe, say whether the server lets this\n"
    "                         agent serve the nodes, and exit\n"
    "  -h, --help             print this help and exit\n"
    "  --version              print the version and exit\n"
    "A request is never started once the time the host still waits for it has run\n"
    "out; a request the host stops waiting for has its program ended.\n"
    "Exit status: 0 stopped by SIGTERM or SIGINT (or --check passed), 1 no\n"
    "connection, 2 usage error, 3 the server refused a subscription.\n";

struct Options {
  conn::Settings settings;
  std::string actions;
  std::string dir;
  std::vector<std::string> localOptions;  // for the local driver: timeout=S, max=N
  int maxRunning = 64;
  bool maxGiven = false;
  int queue = 256;
  std::vector<std::string> nodes;
  bool check = false;
  bool help = false;
  bool version = false;
};

bool ParseOptions(int argc, char** argv, Options* options, std::string* error) {
  enum { kUrl = 1000, kActions, kDir, kTimeout, kMax, kQueue, kCa, kCert, kKey, kUser, kPassword,
         kCreds, kReconnect, kInsecure, kCheck };
  static const struct option longOptions[] = {
      {"url", required_argument, nullptr, kUrl},
      {"actions", required_argument, nullptr, kActions},
      {"dir", required_argument, nullptr, kDir},
      {"timeout", required_argument, nullptr, kTimeout},
      {"max", required_argument, nullptr, kMax},
      {"queue", required_argument, nullptr, kQueue},
      {"tls-ca", required_argument, nullptr, kCa},
      {"tls-cert", required_argument, nullptr, kCert},
      {"tls-key", required_argument, nullptr, kKey},
      {"user", required_argument, nullptr, kUser},
      {"password-file", required_argument, nullptr, kPassword},
      {"creds", required_argument, nullptr, kCreds},
      {"reconnect-wait", required_argument, nullptr, kReconnect},
      {"insecure", no_argument, nullptr, kInsecure},
      {"check", no_argument, nullptr, kCheck},
      {"help", no_argument, nullptr, 'h'},
      {"version", no_argument, nullptr, 'V'},
      {nullptr, 0, nullptr, 0},
  };
  opterr = 0;
  for (;;) {
    int index = -1;
    int option = getopt_long(argc, argv, ":h", longOptions, &index);
    if (option == -1) break;
    switch (option) {
      case kActions: options->actions = optarg; break;
      case kDir: options->dir = optarg; break;
      case kTimeout: options->localOptions.push_back(std::string("timeout=") + optarg); break;
      case kMax:
        // Checked by the local driver, which takes the same limit.
        options->localOptions.push_back(std::string("max=") + optarg);
        qmta::host::ParseNumber(std::string_view(optarg), &options->maxRunning, 1, 4096);
        options->maxGiven = true;
        break;
      case kQueue:
        if (!qmta::host::ParseNumber(std::string_view(optarg), &options->queue, 0, 100000)) {
          *error = std::string("bad --queue \"") + optarg + "\" (0 to 100000)";
          return false;
        }
        break;
      case kInsecure: options->settings.insecure = true; break;
      case kCheck: options->check = true; break;
      case 'h': options->help = true; break;
      case 'V': options->version = true; break;
      case ':':
      case '?': *error = qmta::host::OptionError(option, argv); return false;
      default: {
        // The connection settings, under the names the nats driver uses.
        if (!conn::Set(longOptions[index].name, optarg, &options->settings, error)) return false;
      }
    }
  }
  if (options->help || options->version) return true;
  for (int i = optind; i < argc; ++i) options->nodes.push_back(argv[i]);
  if (options->actions.empty()) {
    *error = "--actions is required";
    return false;
  }
  if (options->nodes.empty()) {
    *error = "name at least one node to serve";
    return false;
  }
  for (const auto& node : options->nodes) {
    if (node.size() > wire::kNodeMax) {
      *error = "node name longer than " + std::to_string(wire::kNodeMax) + " bytes";
      return false;
    }
  }
  return conn::Check(options->settings, error, "--insecure");
}

void Say(const std::string& text) { qmta::host::Say("qmtaagent: ", text); }

// The signals that stop the agent: SIGTERM, SIGINT, and those the agent
// sends itself: SIGUSR1 when the client library gives its connection up,
// SIGUSR2 when the server refuses it a subscription.
sigset_t StopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGUSR1);
  sigaddset(&signals, SIGUSR2);
  return signals;
}

int Run(Options& options, const qmta::host::HostLimits& limits) {
  if (!options.maxGiven) {
    const int nodes = static_cast<int>(options.nodes.size());
    options.maxRunning = std::clamp(qmta::host::DefaultMaxActions(limits) / nodes, 1, 64);
    options.localOptions.push_back("max=" + std::to_string(options.maxRunning));
  }
  std::error_code failure;
  std::string actions = fs::absolute(options.actions, failure).lexically_normal().string();
  if (!fs::is_directory(actions, failure)) {
    Say("--actions " + options.actions + ": not a directory");
    return 2;
  }
  std::string error;
  auto driver = qmta::host::LocalDriverFactory(actions)(options.localOptions, &error);
  if (!driver) {
    Say(error);
    return 2;
  }
  if (!options.dir.empty() && chdir(options.dir.c_str()) != 0) {
    Say("cannot change into " + options.dir);
    return 2;
  }
  // Never destroyed: the client library's callbacks may refer to it until
  // the process ends when it returns early below.
  static auto* agent = new qmta::agent::Agent(std::move(driver), options.maxRunning, options.queue);
  options.settings.name = "qmtaagent";
  if (int status = agent->Connect(options.settings, !options.check)) return status;
  for (const auto& node : options.nodes)
    if (!agent->Serve(node)) return 1;
  if (int status = agent->Confirm(options.check)) return status;
  int signal = 0;
  if (!options.check) {
    const sigset_t stopSignals = StopSignals();
    while (sigwait(&stopSignals, &signal) != 0) {
    }
    if (signal == SIGTERM || signal == SIGINT)
      Say(std::string("stopping on ") + (signal == SIGTERM ? "SIGTERM" : "SIGINT"));
    else if (signal == SIGUSR2)
      Say("stopping: the server refuses this agent a subscription now");
  }
  agent->Stop();
  agent->Close();
  qmta::host::FlushLocalOutput(std::chrono::seconds(2));
  return signal == SIGUSR1 ? 1 : signal == SIGUSR2 ? 3 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  // The stop signals are taken by the main thread alone, with sigwait: every
  // thread started later inherits this mask.
  const sigset_t stopSignals = StopSignals();
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  signal(SIGPIPE, SIG_IGN);
  // Before any thread starts; action programs get the limit as it was.
  const qmta::host::HostLimits limits = qmta::host::RaiseDescriptorLimit();

  Options options;
  std::string error;
  if (!ParseOptions(argc, argv, &options, &error)) {
    qmta::host::SayUsageError("qmtaagent", error, kUsage);
    return 2;
  }
  if (options.help) {
    fputs(kHelp, stdout);
    return 0;
  }
  if (options.version) {
    puts("qmtaagent " QMTA_VERSION);
    return 0;
  }
  return Run(options, limits);
}
