#include "host/programs/qmtahost/options.h"

#include <getopt.h>

#include <string_view>
#include <vector>

#include "host/common/number.h"
#include "host/common/options.h"
#include "host/programs/qmtahost/journal.h"

namespace qmta::hostprog {

const char kUsage[] =
    "usage: qmtahost [--dir DIR] [--nodes FILE] [--actions DIR] [--module PATH]\n"
    "                [--server NAME] [--trace LEVEL] [--no-init] [--command-length N]\n"
    "                [--allow-any-text] [--journal FILE] [INPUT]\n"
    "       qmtahost serve [--control PATH] [--listen ADDR:PORT [--token-file FILE]\n"
    "                      [--tls-cert FILE --tls-key FILE]] [--events-nats URL ...] [OPTION]...\n"
    "       qmtahost ctl [--control PATH] LINE...\n"
    "       qmtahost send [--nats URL] [--subject SUBJECT] [CREDENTIALS] EVENT...\n"
    "       qmtahost check|explain|history ...\n";

const char kHelp[] =
    "usage: qmtahost [OPTION]... [INPUT]\n"
    "       qmtahost serve [--control PATH] [OPTION]...\n"
    "       qmtahost ctl [--control PATH] LINE...\n"
    "       qmtahost send [--nats URL] [--subject SUBJECT] [CREDENTIALS] EVENT...\n"
    "       qmtahost check [--strict] [--json] [--max-size BYTES] [--actions DIR]\n"
    "                      [--nodes FILE] [FILE]\n"
    "       qmtahost explain [--dir DIR] [--nodes FILE] [--allow-any-text] EVENT...\n"
    "       qmtahost history [--journal FILE] [--since D|TIME] [--sitname P] [--node P]\n"
    "                        [--failed] [--request ID|RUN:ID] [--json]\n"
    "Runs the automation module on the events and operator commands of INPUT\n"
    "(standard input when INPUT is missing or \"-\").\n"
    "  serve     runs until stopped, taking lines on the control socket\n"
    "  ctl       sends lines to a serving host and prints what their handling printed\n"
    "  send      publishes events to a JetStream stream, each acknowledged by the server\n"
    "            (\"qmtahost send --help\" for its options)\n"
    "  check     checks a rule file (default ./QMTASITR) without touching a running host\n"
    "  explain   shows the rules an event would fire and the commands they would send\n"
    "            (EVENT is a JSON event line; \"-\" reads them from standard input)\n"
    "  history   shows the actions of the journal (\"qmtahost history --help\")\n"
    "  --dir DIR             work in DIR; the rule file is DIR/QMTASITR (default: .)\n"
    "  --nodes FILE          destination directory (default: every node runs \"local\")\n"
    "  --actions DIR         programs of the local driver (default: DIR/actions)\n"
    "  --module PATH         module to load (default: ../lib/qmta/libqmtautox.so beside\n"
    "                        qmtahost, else ../lib/libqmtautox.so)\n"
    "  --server NAME         server name, at most 9 characters (default: the host name)\n"
    "  --trace LEVEL         trace level of every unit, written to standard error\n"
    "  --no-init             do not call the start-up entry; the first event initialises\n"
    "  --command-length N    declared length of the COMMAND parameter (default: 600)\n"
    "  --control PATH        serve, ctl: the control socket (default:\n"
    "                        $RUNTIME_DIRECTORY/control, else /run/qmtahost/control)\n"
    "  --max-actions N       wait before the next event while N action threads are live\n"
    "                        (default: from the thread and descriptor limits, at most 4096;\n"
    "                        0: no limit)\n"
    "  --journal FILE        keep every event and action, with its output, in the SQLite\n"
    "                        database FILE (serve: default $STATE_DIRECTORY/journal.db\n"
    "                        when that is set)\n"
    "  --journal-keep D      prune journal rows older than D (default: 30d)\n"
    "  --allow-any-text      let quotes and control characters in event names through\n"
    "                        (lab runs against sim destinations only)\n"
    "  --listen ADDR:PORT    serve: HTTP on ADDR:PORT ([ADDR]:PORT for IPv6): POST\n"
    "                        /v1/events, /v1/alertmanager and /v1/commands, GET /metrics,\n"
    "                        /healthz, /readyz, /v1/actions, /v1/rules, and the\n"
    "                        operator page at / for a browser\n"
    "  --token-file FILE     serve: a bearer token for every path but /healthz (the page\n"
    "                        asks for it in a login form); without one, --listen\n"
    "                        takes loopback addresses only\n"
    "  --tls-cert FILE, --tls-key FILE\n"
    "                        serve: HTTPS with this certificate and key (PEM)\n"
    "  --http-max-body N     largest request body in bytes (default: 1048576)\n"
    "  --http-max-connections N\n"
    "                        HTTP connections at once, a thread each (default: 64)\n"
    "  --http-timeout S      idle HTTP connections close after S seconds (default: 30)\n"
    "  --http-busy-after S   POST /v1/events and /v1/alertmanager answer 503 while an\n"
    "                        event has been held back (--max-actions) for S seconds\n"
    "                        (default: 10)\n"
    "  --alert-name-label L  POST /v1/alertmanager: the label that names the situation\n"
    "                        (default: alertname)\n"
    "  --alert-node-label L  the label that names the origin node (default: instance)\n"
    "  --alert-threshold-annotation A\n"
    "                        the annotation passed as the threshold (default: none)\n"
    "  --alert-state-max N   alert fingerprints whose state is kept (default: 10000)\n"
    "  --alert-state-expiry S\n"
    "                        forget an alert not seen for S seconds (default: 86400)\n"
    "Serve: events from a NATS JetStream stream, shared by every host of a group:\n"
    "  --events-nats URL[,URL...]   the NATS server(s)\n"
    "  --events-stream NAME         the stream (created, as a work queue, when missing)\n"
    "  --events-subject SUBJECT     the subject the events are published on\n"
    "  --events-consumer NAME       the durable consumer the hosts share (default: qmtahost)\n"
    "  --events-max-pending N       a new consumer's limit of unacknowledged events\n"
    "                               (default: 1000)\n"
    "  --events-ack-wait S          a new consumer's wait before an unacknowledged event\n"
    "                               goes to another host (default: 30)\n"
    "  --events-user NAME --events-password-file FILE | --events-creds FILE\n"
    "  --events-tls-ca FILE  --events-tls-cert FILE --events-tls-key FILE\n"
    "  --events-insecure            connect without client credentials\n"
    "  -h, --help            print this help and exit\n"
    "  --version             print the version and exit\n"
    "Input lines: events (JSON), {\"drain\": true}, {\"reload\": true} (checked reload,\n"
    "\"force\": true to skip the check), operator commands (REFRESH, DISPLAY, TESTSIT).\n";

namespace {

enum Option { kDir = 1000, kNodes, kActions, kModule, kServer, kTrace, kNoInit, kLength,
              kClockShift, kVersion, kControl, kAllowAnyText, kMaxActions, kJournal,
              kJournalKeep,
              // The HTTP options, in a row (ParseOptions tells them by their order).
              kListen, kTokenFile, kTlsCert, kTlsKey, kHttpMaxBody, kHttpMaxConnections,
              kHttpTimeout, kHttpBusyAfter, kAlertNameLabel, kAlertNodeLabel, kAlertThreshold,
              kAlertStateMax, kAlertStateExpiry, kEvents = 2000 };

}  // namespace

// A number of an option within [low, high], in decimal or after "0x" in
// hexadecimal.
bool OptionNumber(const char* value, int64_t low, int64_t high, int64_t* number) {
  return host::ParseNumber(value, number, low, high, host::Radix::kDecimalOrHex);
}

bool SetHttpLimit(int option, const char* value, Options* options, std::string* error);

// Takes `value` for `option` (one of ours); false with `*error` set when it
// is not valid.
bool SetOption(int option, const char* value, Options* options, std::string* error) {
  int64_t number;
  switch (option) {
    case kDir: options->dir = value; break;
    case kNodes: options->nodes = value; break;
    case kActions: options->actions = value; break;
    case kModule: options->module = value; break;
    case kServer:
      options->server = value;
      if (options->server.empty() || options->server.size() > 9) {
        *error = "--server: the name must have 1 to 9 characters";
        return false;
      }
      break;
    case kTrace:
      if (!OptionNumber(value, 0, INT32_MAX, &number)) {
        *error = std::string("--trace: bad level \"") + value + "\"";
        return false;
      }
      options->trace = static_cast<int32_t>(number);
      break;
    case kNoInit: options->init = false; break;
    case kLength:
      if (!OptionNumber(value, 1, INT16_MAX, &number)) {
        *error = std::string("--command-length: bad length \"") + value + "\" (1 to 32767)";
        return false;
      }
      options->commandLength = static_cast<int16_t>(number);
      break;
    case kClockShift:
      if (!OptionNumber(value, -86400, 86400, &number)) {
        *error = std::string("--clock-shift: bad shift \"") + value + "\" (-86400 to 86400)";
        return false;
      }
      options->clockShift = static_cast<int32_t>(number);
      break;
    case 'h': options->help = true; break;
    case kVersion: options->version = true; break;
    case kControl: options->control = value; break;
    case kAllowAnyText: options->allowAnyText = true; break;
    case kMaxActions:
      if (!OptionNumber(value, 0, 1000000, &number)) {
        *error = std::string("--max-actions: bad count \"") + value + "\" (0 to 1000000)";
        return false;
      }
      options->maxActions = number;
      break;
    case kJournal: options->journal = value; break;
    case kJournalKeep: {
      std::chrono::seconds keep;
      if (!ParseDuration(value, &keep) || keep.count() == 0) {
        *error = std::string("--journal-keep: bad duration \"") + value + "\" (30d, 12h, 90m)";
        return false;
      }
      options->journalKeep = keep;
      break;
    }
    case kListen: options->listen = value; break;
    case kTokenFile: options->tokenFile = value; break;
    case kTlsCert: options->tlsCert = value; break;
    case kTlsKey: options->tlsKey = value; break;
    case kHttpMaxBody:
    case kHttpMaxConnections:
    case kHttpTimeout:
    case kHttpBusyAfter: return SetHttpLimit(option, value, options, error);
    case kAlertNameLabel:
    case kAlertNodeLabel:
      if (*value == '\0') {
        *error = "--alert-name-label and --alert-node-label take a label name";
        return false;
      }
      (option == kAlertNameLabel ? options->alerts.nameLabel : options->alerts.nodeLabel) = value;
      break;
    case kAlertThreshold: options->alerts.thresholdAnnotation = value; break;
    case kAlertStateMax:
      if (!OptionNumber(value, 1, 10000000, &number)) {
        *error = std::string("--alert-state-max: bad count \"") + value + "\" (1 to 10000000)";
        return false;
      }
      options->alerts.stateMax = static_cast<size_t>(number);
      break;
    case kAlertStateExpiry:
      if (!OptionNumber(value, 1, 31536000, &number)) {
        *error = std::string("--alert-state-expiry: bad time \"") + value + "\" (1 to 31536000)";
        return false;
      }
      options->alerts.stateExpiry = std::chrono::seconds(number);
      break;
    default:
      if (option >= kEvents)
        return SetEventsOption(kEventsOptions[option - kEvents], value, &options->events, error);
  }
  return true;
}

// The HTTP server's limits, each within its range.
bool SetHttpLimit(int option, const char* value, Options* options, std::string* error) {
  struct Limit {
    const char* name;
    int64_t low, high;
  };
  static const Limit kBody{"--http-max-body", 1024, 64 << 20};
  static const Limit kConnections{"--http-max-connections", 1, 1024};
  static const Limit kTimeout{"--http-timeout", 1, 3600};
  static const Limit kBusyAfter{"--http-busy-after", 0, 3600};
  const Limit& limit = option == kHttpMaxBody          ? kBody
                       : option == kHttpMaxConnections ? kConnections
                       : option == kHttpTimeout        ? kTimeout
                                                       : kBusyAfter;
  int64_t number;
  if (!OptionNumber(value, limit.low, limit.high, &number)) {
    *error = std::string(limit.name) + ": bad value \"" + value + "\" (" +
             std::to_string(limit.low) + " to " + std::to_string(limit.high) + ")";
    return false;
  }
  if (option == kHttpMaxBody) options->httpMaxBody = number;
  else if (option == kHttpMaxConnections) options->httpMaxConnections = static_cast<int32_t>(number);
  else if (option == kHttpTimeout) options->httpTimeout = static_cast<int32_t>(number);
  else options->httpBusyAfter = static_cast<int32_t>(number);
  return true;
}

// The HTTP options go together: all need serve and --listen, and a
// certificate needs its key.
bool CheckHttpOptions(const Options& options, bool anyHttpOption, std::string* error) {
  if (anyHttpOption && !options.serve) {
    *error = "the HTTP options (--listen, --token-file, --tls-*, --http-*, --alert-*) are options "
             "of serve";
    return false;
  }
  if (anyHttpOption && options.listen.empty()) {
    *error = "--token-file, --tls-*, --http-* and --alert-* need --listen";
    return false;
  }
  if (options.tlsCert.empty() != options.tlsKey.empty()) {
    *error = "--tls-cert and --tls-key go together";
    return false;
  }
  return true;
}

bool ParseOptions(int argc, char* const* argv, Options* options, std::string* error) {
  static const struct option longOptions[] = {
      {"dir", required_argument, nullptr, kDir},
      {"nodes", required_argument, nullptr, kNodes},
      {"actions", required_argument, nullptr, kActions},
      {"module", required_argument, nullptr, kModule},
      {"server", required_argument, nullptr, kServer},
      {"trace", required_argument, nullptr, kTrace},
      {"no-init", no_argument, nullptr, kNoInit},
      {"command-length", required_argument, nullptr, kLength},
      {"clock-shift", required_argument, nullptr, kClockShift},
      {"help", no_argument, nullptr, 'h'},
      {"version", no_argument, nullptr, kVersion},
      {"control", required_argument, nullptr, kControl},
      {"allow-any-text", no_argument, nullptr, kAllowAnyText},
      {"max-actions", required_argument, nullptr, kMaxActions},
      {"journal", required_argument, nullptr, kJournal},
      {"journal-keep", required_argument, nullptr, kJournalKeep},
      {"listen", required_argument, nullptr, kListen},
      {"token-file", required_argument, nullptr, kTokenFile},
      {"tls-cert", required_argument, nullptr, kTlsCert},
      {"tls-key", required_argument, nullptr, kTlsKey},
      {"http-max-body", required_argument, nullptr, kHttpMaxBody},
      {"http-max-connections", required_argument, nullptr, kHttpMaxConnections},
      {"http-timeout", required_argument, nullptr, kHttpTimeout},
      {"http-busy-after", required_argument, nullptr, kHttpBusyAfter},
      {"alert-name-label", required_argument, nullptr, kAlertNameLabel},
      {"alert-node-label", required_argument, nullptr, kAlertNodeLabel},
      {"alert-threshold-annotation", required_argument, nullptr, kAlertThreshold},
      {"alert-state-max", required_argument, nullptr, kAlertStateMax},
      {"alert-state-expiry", required_argument, nullptr, kAlertStateExpiry},
  };
  // The intake's options: --events-NAME for each of kEventsOptions.
  std::vector<struct option> options_(std::begin(longOptions), std::end(longOptions));
  static const std::vector<std::string> eventsNames = [] {
    std::vector<std::string> names;
    for (int i = 0; kEventsOptions[i] != nullptr; ++i)
      names.push_back(std::string("events-") + kEventsOptions[i]);
    return names;
  }();
  for (size_t i = 0; i < eventsNames.size(); ++i)
    options_.push_back({eventsNames[i].c_str(),
                        EventsOptionTakesValue(kEventsOptions[i]) ? required_argument : no_argument,
                        nullptr, static_cast<int>(kEvents + i)});
  options_.push_back({nullptr, 0, nullptr, 0});
  bool eventsGiven = false;
  // getopt_long may reorder the pointers; it works on a copy (without the
  // word "serve").
  std::vector<char*> args(argv, argv + argc);
  if (argc > 1 && std::string_view(argv[1]) == "serve") {
    options->serve = true;
    args.erase(args.begin() + 1);
    --argc;
  }
  args.push_back(nullptr);
  optind = 0;  // start afresh (glibc), also when called again
  opterr = 0;  // the messages are ours
  bool anyHttpOption = false;
  for (;;) {
    int option = getopt_long(argc, args.data(), ":h", options_.data(), nullptr);
    if (option == -1) break;
    if (option == ':' || option == '?') {
      *error = host::OptionError(option, args.data());
      return false;
    }
    if (!SetOption(option, optarg, options, error)) return false;
    eventsGiven |= option >= kEvents;
    anyHttpOption |= option >= kListen && option < kEvents;
  }
  if (eventsGiven && !options->events.enabled()) {
    *error = "the --events- options need --events-nats";
    return false;
  }
  if (options->events.enabled()) {
    if (!options->serve) {
      *error = "--events-nats is an option of serve";
      return false;
    }
    if (!CheckEventsSettings(options->events, error)) return false;
  }
  if (!CheckHttpOptions(*options, anyHttpOption, error)) return false;
  if (options->serve && optind < argc) {
    *error = std::string("serve takes no input file (\"") + args[optind] + "\")";
    return false;
  }
  if (optind < argc - 1) {
    *error = std::string("more than one input file (\"") + args[optind + 1] + "\")";
    return false;
  }
  if (optind == argc - 1) options->input = args[optind];
  if (options->input.empty()) {
    *error = "the input file name is empty";
    return false;
  }
  return true;
}

}  // namespace qmta::hostprog
