#include "host/programs/qmtahost/options.h"

#include <getopt.h>

#include <string_view>
#include <vector>

#include "host/common/number.h"

namespace qmta::hostprog {

const char kUsage[] =
    "usage: qmtahost [--dir DIR] [--nodes FILE] [--actions DIR] [--module PATH]\n"
    "                [--server NAME] [--trace LEVEL] [--no-init] [--command-length N]\n"
    "                [--allow-any-text] [INPUT]\n"
    "       qmtahost serve [--control PATH] [OPTION]...\n"
    "       qmtahost ctl [--control PATH] LINE...\n"
    "       qmtahost check|explain ...\n";

const char kHelp[] =
    "usage: qmtahost [OPTION]... [INPUT]\n"
    "       qmtahost serve [--control PATH] [OPTION]...\n"
    "       qmtahost ctl [--control PATH] LINE...\n"
    "       qmtahost check [--strict] [--json] [--max-size BYTES] [--actions DIR]\n"
    "                      [--nodes FILE] [FILE]\n"
    "       qmtahost explain [--dir DIR] [--nodes FILE] EVENT...\n"
    "Runs the automation module on the events and operator commands of INPUT\n"
    "(standard input when INPUT is missing or \"-\").\n"
    "  serve     runs until stopped, taking lines on the control socket\n"
    "  ctl       sends lines to a serving host and prints what their handling printed\n"
    "  check     checks a rule file (default ./QMTASITR) without touching a running host\n"
    "  explain   shows the rules an event would fire and the commands they would send\n"
    "            (EVENT is a JSON event line; \"-\" reads them from standard input)\n"
    "  --dir DIR             work in DIR; the rule file is DIR/QMTASITR (default: .)\n"
    "  --nodes FILE          destination directory (default: every node runs \"local\")\n"
    "  --actions DIR         programs of the local driver (default: DIR/actions)\n"
    "  --module PATH         module to load (default: ../lib/libqmtautox.so beside qmtahost)\n"
    "  --server NAME         server name, at most 9 characters (default: the host name)\n"
    "  --trace LEVEL         trace level of every unit, written to standard error\n"
    "  --no-init             do not call the start-up entry; the first event initialises\n"
    "  --command-length N    declared length of the COMMAND parameter (default: 600)\n"
    "  --control PATH        serve, ctl: the control socket (default:\n"
    "                        $RUNTIME_DIRECTORY/control, else /run/qmtahost/control)\n"
    "  --allow-any-text      let quotes and control characters in event names through\n"
    "                        (lab runs against sim destinations only)\n"
    "  -h, --help            print this help and exit\n"
    "  --version             print the version and exit\n"
    "Input lines: events (JSON), {\"drain\": true}, {\"reload\": true} (checked reload,\n"
    "\"force\": true to skip the check), operator commands (REFRESH, DISPLAY, TESTSIT).\n";

namespace {

enum Option { kDir = 1000, kNodes, kActions, kModule, kServer, kTrace, kNoInit, kLength,
              kClockShift, kVersion, kControl, kAllowAnyText };

}  // namespace

// A number of an option within [low, high], in decimal or after "0x" in
// hexadecimal.
bool OptionNumber(const char* value, int64_t low, int64_t high, int64_t* number) {
  return host::ParseNumber(value, number, low, high, host::Radix::kDecimalOrHex);
}

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
      {nullptr, 0, nullptr, 0},
  };
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
  for (;;) {
    int option = getopt_long(argc, args.data(), ":h", longOptions, nullptr);
    if (option == -1) break;
    // The word that was wrong: a short option by its letter, a long one as
    // written.
    std::string word = optopt > 0 && optopt < 256 ? std::string("-") + static_cast<char>(optopt)
                                                 : std::string(args[optind - 1]);
    if (option == ':') {
      *error = word + ": needs a value";
      return false;
    }
    if (option == '?') {
      *error = "unknown option \"" + word + "\"";
      return false;
    }
    if (!SetOption(option, optarg, options, error)) return false;
  }
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
