#include "host/programs/qmtahost/send.h"

#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include <nats/nats.h>

#include "host/common/number.h"
#include "host/common/options.h"
#include "host/common/say.h"
#include "host/drivers/nats/connect.h"
#include "host/programs/qmtahost/inputline.h"
#include "host/programs/qmtahost/intake.h"

namespace qmta::hostprog {
namespace {

namespace conn = host::natsconn;

constexpr char kSendUsage[] =
    "usage: qmtahost send [--nats URL] [--subject SUBJECT] [CREDENTIALS] EVENT...\n";
constexpr char kSendHelp[] =
    "usage: qmtahost send [--nats URL] [--subject SUBJECT] [CREDENTIALS] EVENT...\n"
    "Publishes each EVENT (a JSON event line, as qmtahost reads them; \"-\" reads event\n"
    "lines from standard input) to the JetStream stream that serving hosts take their\n"
    "events from, and waits until the server has stored it.\n"
    "  --nats URL[,URL...]    server(s) (default: nats://127.0.0.1:4222)\n"
    "  --subject SUBJECT      the stream's subject (default: qmta.events)\n"
    "  --timeout MS           wait for each acknowledgement (default: 5000)\n"
    "  --user NAME --password-file FILE | --creds FILE   client credentials\n"
    "  --tls-ca FILE  --tls-cert FILE --tls-key FILE     TLS\n"
    "  --insecure             connect without client credentials\n"
    "Exit status: 0 every event acknowledged, 1 an event refused or not acknowledged\n"
    "(the others are still sent), 2 usage error.\n";

void Say(const std::string& text) { host::Say("qmtahost send: ", text); }

struct SendOptions {
  conn::Settings settings;
  std::string subject = "qmta.events";
  int timeoutMs = 5000;
  std::vector<std::string> events;
  bool help = false;
};

bool ParseSendOptions(int argc, char** argv, SendOptions* options, std::string* error) {
  enum { kNats = 1000, kSubject, kTimeout, kInsecure, kSetting };
  static const struct option longOptions[] = {
      {"nats", required_argument, nullptr, kNats},
      {"subject", required_argument, nullptr, kSubject},
      {"timeout", required_argument, nullptr, kTimeout},
      {"insecure", no_argument, nullptr, kInsecure},
      {"user", required_argument, nullptr, kSetting},
      {"password-file", required_argument, nullptr, kSetting},
      {"creds", required_argument, nullptr, kSetting},
      {"tls-ca", required_argument, nullptr, kSetting},
      {"tls-cert", required_argument, nullptr, kSetting},
      {"tls-key", required_argument, nullptr, kSetting},
      {"help", no_argument, nullptr, 'h'},
      {nullptr, 0, nullptr, 0},
  };
  optind = 0;
  opterr = 0;
  for (;;) {
    int index = -1;
    int option = getopt_long(argc, argv, ":h", longOptions, &index);
    if (option == -1) break;
    switch (option) {
      case kNats:
        if (!conn::Set("url", optarg, &options->settings, error)) return false;
        break;
      case kSubject:
        options->subject = optarg;
        if (options->subject.empty() ||
            options->subject.find_first_of(" \t\r\n*>") != std::string::npos) {
          *error = "--subject: not a subject to publish on";
          return false;
        }
        break;
      case kTimeout:
        if (!host::ParseNumber(std::string_view(optarg), &options->timeoutMs, 1, 600000)) {
          *error = std::string("--timeout: bad wait \"") + optarg + "\" (1 to 600000 ms)";
          return false;
        }
        break;
      case kInsecure: options->settings.insecure = true; break;
      case kSetting:
        if (!conn::Set(longOptions[index].name, optarg, &options->settings, error)) return false;
        break;
      case 'h': options->help = true; return true;
      default: *error = host::OptionError(option, argv); return false;
    }
  }
  for (int i = optind; i < argc; ++i) options->events.push_back(argv[i]);
  if (options->events.empty()) {
    *error = "no event to send";
    return false;
  }
  if (options->settings.url.empty()) options->settings.url = "nats://127.0.0.1:4222";
  return conn::Check(options->settings, error, "--insecure",
                     "the server cannot tell this sender from any other client");
}

// Publishes one event and waits for the server's acknowledgement; says why
// not and returns false when it is refused or not acknowledged.
bool SendOne(jsCtx* js, const SendOptions& options, long number, std::string_view text) {
  InputLine line = ParseInputLine(text);
  std::string refused = line.kind == InputLine::Kind::kError ? line.text
                        : line.kind != InputLine::Kind::kEvent
                            ? "not an event (only events are sent)"
                            : CheckEventText(line.event);
  if (!refused.empty()) {
    Say("event " + std::to_string(number) + " refused: " + refused);
    return false;
  }
  jsPubOptions publish;
  jsPubOptions_Init(&publish);
  publish.MaxWait = options.timeoutMs;
  jsPubAck* ack = nullptr;
  jsErrCode code = static_cast<jsErrCode>(0);
  natsStatus s = js_Publish(&ack, js, options.subject.c_str(), text.data(),
                            static_cast<int>(text.size()), &publish, &code);
  jsPubAck_Destroy(ack);
  if (s == NATS_OK) return true;
  std::string why = s == NATS_NO_RESPONDERS
                        ? "no stream takes subject " + options.subject
                        : conn::StatusText(s);
  if (const char* last = nats_GetLastError(nullptr); s != NATS_NO_RESPONDERS && last && *last)
    why = last;
  Say("event " + std::to_string(number) + " not acknowledged: " + why);
  return false;
}

}  // namespace

int RunSend(int argc, char** argv) {
  SendOptions options;
  std::string error;
  if (!ParseSendOptions(argc, argv, &options, &error)) {
    host::SayUsageError("qmtahost send", error, kSendUsage);
    return 2;
  }
  if (options.help) {
    fputs(kSendHelp, stdout);
    return 0;
  }
  options.settings.name = "qmtahost send";
  natsOptions* natsOptions = conn::MakeOptions(options.settings, {}, &error);
  if (natsOptions == nullptr) {
    Say(error);
    return 2;
  }
  // One attempt: a sender that cannot reach the server says so at once.
  natsOptions_SetRetryOnFailedConnect(natsOptions, false, nullptr, nullptr);
  natsOptions_SetAllowReconnect(natsOptions, false);
  natsConnection* connection = nullptr;
  natsStatus s = natsConnection_Connect(&connection, natsOptions);
  natsOptions_Destroy(natsOptions);
  if (s != NATS_OK) {
    Say("cannot connect to " + options.settings.url + ": " + conn::StatusText(s));
    return 1;
  }
  jsCtx* js = nullptr;
  s = natsConnection_JetStream(&js, connection, nullptr);
  long number = 0, failed = 0;
  if (s != NATS_OK) {
    Say("no JetStream context: " + conn::StatusText(s));
    failed = 1;
  }
  for (size_t i = 0; js != nullptr && i < options.events.size(); ++i) {
    if (options.events[i] != "-") {
      failed += !SendOne(js, options, ++number, options.events[i]);
      continue;
    }
    char* text = nullptr;
    size_t capacity = 0;
    for (ssize_t length; (length = getline(&text, &capacity, stdin)) >= 0;) {
      std::string_view line(text, static_cast<size_t>(length));
      while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
      if (line.empty() || line.front() == '#') continue;
      failed += !SendOne(js, options, ++number, line);
    }
    free(text);
  }
  if (failed > 0 && number > 0)
    Say(std::to_string(failed) + " of " + std::to_string(number) + " events not sent");
  jsCtx_Destroy(js);
  natsConnection_Destroy(connection);
  return failed > 0 ? 1 : 0;
}

}  // namespace qmta::hostprog
